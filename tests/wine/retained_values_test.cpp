#include "registry_actions/retained_values.h"

#include "allocation_failure.h"
#include "call_trace.h"
#include "file_system_error.h"
#include "files.h"
#include "import_hook.h"
#include "open_handles.h"
#include "registry_key.h"

#include <shlwapi.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cwchar>
#include <vector>

using halvard::DeleteandRetainValues;
using halvard_tests::BytesOf;
using halvard_tests::CallTrace;
using halvard_tests::CreateFolders;
using halvard_tests::ExpectFileSystemError;
using halvard_tests::IsThere;
using halvard_tests::kEveryCall;
using halvard_tests::kFileQuestions;
using halvard_tests::kRegistry;
using halvard_tests::kRegistryListing;
using halvard_tests::OpenHandleCount;
using halvard_tests::ScratchFolder;
using halvard_tests::WriteWholeFile;
using Bytes = std::vector<BYTE>;
using Names = std::vector<std::wstring>;
using namespace std::string_literals;

namespace {

constexpr wchar_t kRetainKey[] = L"SOFTWARE\\ZenvoBranding";
constexpr wchar_t kFolderKey[] = L"SOFTWARE\\Zenvo\\PV";
constexpr wchar_t kFolderValue[] = L"PVBrandingInstallDir";

Bytes Terminated(const std::wstring& text) {
    return BytesOf(text + L'\0');
}

Bytes Joined(Bytes bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    return bytes;
}

// Exactly these bytes: a terminator that happened to lie behind a text would be stored with it.
void SetValue(const wchar_t* key, const std::wstring& name, DWORD type, const Bytes& bytes) {
    const Bytes followed = Joined(bytes, {'x', 'x', 'x'});
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, key, name.c_str(), type, followed.data(),
                              static_cast<DWORD>(bytes.size())),
              ERROR_SUCCESS);
}

std::wstring WithSlashes(std::wstring path) {
    std::replace(path.begin(), path.end(), L'\\', L'/');
    return path;
}

Names Listed(const std::wstring& folder) {
    Names names;
    WIN32_FIND_DATAW entry = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            if (entry.cFileName != L"."s && entry.cFileName != L".."s) {
                names.emplace_back(entry.cFileName);
            }
        } while (FindNextFileW(search, &entry) != FALSE);
        FindClose(search);
    }
    return names;
}

Names Sorted(Names names) {
    std::sort(names.begin(), names.end());
    return names;
}

/// A branding folder in the scratch folder, recorded in the registry.
class BrandingTest : public testing::Test {
protected:
    BrandingTest() {
        CreateFolders(Folder());
        SetFolder(REG_SZ, Terminated(Folder()));
    }

    const ScratchFolder& Scratch() const { return scratch_; }
    std::wstring Folder() const { return scratch_.File(L"Brand"); }
    std::wstring In(const std::wstring& name) const { return Folder() + L"\\" + name; }

    void MakeFiles(const Names& names) const {
        for (const std::wstring& name : names) {
            WriteWholeFile(In(name), "x"s);
        }
    }
    /// A folder with a file and a subfolder.
    void MakeFolder(const std::wstring& name) const {
        CreateFolders(In(name + L"\\below"));
        MakeFiles({name + L"\\file"});
    }

    Names Left() const { return Sorted(Listed(Folder())); }
    /// What is left of these files, made anew, after the action.
    Names LeftOf(const Names& names) const {
        MakeFiles(names);
        EXPECT_EQ(DeleteandRetainValues(0), 0U);
        return Left();
    }

    static void SetFolder(DWORD type, const Bytes& bytes) {
        SetValue(kFolderKey, kFolderValue, type, bytes);
    }
    static void Retain(const std::wstring& text) {
        SetValue(kRetainKey, text.substr(text.size() - std::min<std::size_t>(text.size(), 200)),
                 REG_SZ, Terminated(text));
    }
    static void RetainSubkey(const std::wstring& name) {
        HKEY created = nullptr;
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, (kRetainKey + L"\\"s + name).c_str(), 0,
                                  nullptr, 0, KEY_ALL_ACCESS, nullptr, &created, nullptr),
                  ERROR_SUCCESS);
        RegCloseKey(created);
    }
    static void RetainNothing() { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kRetainKey); }

private:
    halvard_tests::AbsentKeys keys_{{kRetainKey, kFolderKey}};
    ScratchFolder scratch_;
};

using DeleteandRetainValuesTest = BrandingTest;

struct ValueCase {
    const char* what;
    DWORD type;
    Bytes bytes;
    bool counts;
};

// Data that names `path`, in every state that a value may be in.
std::vector<ValueCase> CasesFor(const std::wstring& path, bool everyType) {
    const Bytes text = BytesOf(path);
    const auto padded = [&](std::size_t size) {
        Bytes bytes = Terminated(path);
        bytes.resize(size, 'x');
        return bytes;
    };
    return {
        {"terminated", REG_SZ, Terminated(path), true},
        {"no terminator", REG_SZ, text, true},
        {"half a terminator", REG_SZ, Joined(text, {0}), true},
        {"an odd last byte", REG_SZ, Joined(text, {'x'}), true},
        {"an odd byte behind the terminator", REG_SZ, Joined(Terminated(path), {'x'}), true},
        {"two terminators", REG_SZ, Terminated(path + L'\0'), true},
        {"more text behind the terminator", REG_SZ, Terminated(path + L'\0' + L"more"), true},
        {"259 bytes", REG_SZ, padded(259), true},
        {"260 bytes", REG_SZ, padded(260), true},
        {"261 bytes", REG_SZ, padded(261), false},
        {"262 bytes", REG_SZ, padded(262), false},
        {"64 KB", REG_SZ, padded(65536), false},
        {"no bytes", REG_SZ, {}, false},
        {"one byte", REG_SZ, {text[0]}, false},
        {"a lone terminator", REG_SZ, Terminated(L""), false},
        {"a terminator in front", REG_SZ, Terminated(L'\0' + path), false},
        {"one character less", REG_SZ, BytesOf(path.substr(0, path.size() - 1)), false},
        {"a last byte less", REG_SZ, Bytes(text.begin(), text.end() - 1), false},
        {"one character more", REG_SZ, Terminated(path + L"x"), false},
        {"REG_EXPAND_SZ", REG_EXPAND_SZ, Terminated(path), everyType},
        {"REG_MULTI_SZ", REG_MULTI_SZ, Terminated(path + L'\0'), everyType},
        {"REG_BINARY", REG_BINARY, text, everyType},
        {"REG_NONE", REG_NONE, Terminated(path), everyType},
        {"REG_LINK", REG_LINK, text, everyType},
        {"REG_DWORD", REG_DWORD, {1, 0, 0, 0}, false},
        {"REG_QWORD", REG_QWORD, {1, 0, 0, 0, 0, 0, 0, 0}, false},
        {"a type of nobody", 4711, Terminated(path), everyType},
    };
}

} // namespace

TEST_F(DeleteandRetainValuesTest, DeletesEveryEntryWithoutABrandingKeyAndLeavesTheFolder) {
    MakeFiles({L"a.txt", L".hidden", L"no extension"});
    MakeFolder(L"Skins");
    MakeFolder(L"sub");
    SetFileAttributesW(In(L"a.txt").c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM);
    WriteWholeFile(Scratch().File(L"beside"), "x"s);
    EXPECT_EQ(DeleteandRetainValues(0), 0U);
    EXPECT_EQ(Left(), Names{});
    EXPECT_EQ(Sorted(Listed(Scratch().Path())), (Names{L"Brand", L"beside"}));
    // And once more, with nothing to do.
    EXPECT_EQ(DeleteandRetainValues(0), 0U);
    EXPECT_TRUE(IsThere(Folder()));
}

TEST_F(DeleteandRetainValuesTest, KeepsFilesAndFoldersThatValuesNameWithEitherSlash) {
    Retain(In(L"logo.png"));
    Retain(WithSlashes(In(L"other.png")));
    Retain(In(L"kept"));
    Retain(In(L"not there"));
    MakeFolder(L"kept");
    MakeFolder(L"gone");
    EXPECT_EQ(LeftOf({L"logo.png", L"other.png", L"logo.pn", L"logo.png2"}),
              (Names{L"kept", L"logo.png", L"other.png"}));
    EXPECT_EQ(Sorted(Listed(In(L"kept"))), (Names{L"below", L"file"}));
}

TEST_F(DeleteandRetainValuesTest, ComparesWithUpperAndLowerCaseApart) {
    Retain(In(L"LOGO.png"));
    Retain(L"t" + In(L"other.png").substr(1));
    EXPECT_EQ(LeftOf({L"logo.png", L"other.png"}), Names{});
}

TEST_F(DeleteandRetainValuesTest, ASubkeySkinsKeepsEveryEntryWithThatWord) {
    const Names files = {L"a.txt", L"mySkins.txt", L"skins.txt"};
    MakeFolder(L"Skins");
    RetainSubkey(L"Skins");
    EXPECT_EQ(LeftOf(files), (Names{L"Skins", L"mySkins.txt"}));
    EXPECT_EQ(Sorted(Listed(In(L"Skins"))), (Names{L"below", L"file"}));

    RetainNothing();
    Retain(L"Skins"); // a value does the same
    EXPECT_EQ(LeftOf(files), (Names{L"Skins", L"mySkins.txt"}));

    for (const wchar_t* other : {L"skins", L"SKINS", L"Skins2", L"below\\Skins"}) {
        RetainNothing();
        RetainSubkey(other);
        MakeFolder(L"Skins");
        EXPECT_EQ(LeftOf(files), Names{}) << other;
    }
}

TEST_F(DeleteandRetainValuesTest, TheFolderSkinsStaysWhenItsFullPathIsListed) {
    MakeFolder(L"Skins");
    Retain(In(L"Skins"));
    EXPECT_EQ(LeftOf({L"mySkins.txt"}), Names{L"Skins"});
}

TEST_F(DeleteandRetainValuesTest, AFolderWithThatWordInItsPathIsKeptWhole) {
    const std::wstring folder = Scratch().File(L"mySkins");
    CreateFolders(folder);
    WriteWholeFile(folder + L"\\a.txt", "x"s);
    SetFolder(REG_SZ, Terminated(folder));
    RetainSubkey(L"Skins");
    EXPECT_EQ(DeleteandRetainValues(0), 0U);
    EXPECT_EQ(Listed(folder), Names{L"a.txt"});
}

TEST_F(DeleteandRetainValuesTest, TakesTheNamesOfSubkeysAsTheyStand) {
    RetainSubkey(WithSlashes(In(L"a.txt")));
    RetainSubkey(L"b.txt");
    EXPECT_EQ(LeftOf({L"a.txt", L"b.txt"}), Names{L"a.txt"});
}

TEST_F(DeleteandRetainValuesTest, APathBelowTheTopLevelDoesNotProtectItsParent) {
    MakeFolder(L"sub");
    Retain(In(L"sub\\file"));
    EXPECT_EQ(LeftOf({}), Names{});
}

TEST_F(DeleteandRetainValuesTest, TheFolderMayEndInASlashAndHoldSlashes) {
    const std::wstring slashes = WithSlashes(Folder());
    for (const std::wstring& folder :
         {Folder() + L"\\", Folder() + L"/", slashes, slashes + L"/", slashes + L"\\"}) {
        SetFolder(REG_SZ, Terminated(folder));
        Retain(In(L"kept"));
        MakeFolder(L"sub");
        EXPECT_EQ(LeftOf({L"a", L"kept"}), Names{L"kept"});
    }
}

TEST_F(DeleteandRetainValuesTest, DeletesNothingWithoutAFolder) {
    MakeFiles({L"a.txt"});
    const auto expectNothing = [&] {
        COUNT_CALLS(listing, FindFirstFileW);
        EXPECT_EQ(DeleteandRetainValues(0), 0U);
        EXPECT_EQ(listing.Calls(), 0);
        EXPECT_EQ(Left(), Names{L"a.txt"});
    };
    SetFolder(REG_SZ, Terminated(L""));
    expectNothing();
    SetFolder(REG_SZ, {});
    expectNothing();
    SetFolder(REG_SZ, Terminated(Scratch().File(L"no such folder")));
    expectNothing();
    SetFolder(REG_SZ, Terminated(Scratch().File(L"no such folder\\sub")));
    expectNothing();
    SetFolder(REG_SZ, Terminated(Scratch().File(L"Bran?")));
    expectNothing();
    SetFolder(REG_SZ, Terminated(In(L"a.txt")));
    expectNothing();
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kFolderKey, kFolderValue);
    expectNothing();
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kFolderKey);
    expectNothing();
}

TEST_F(DeleteandRetainValuesTest, ReadsRetainedPathsFromStringsOfAtMost260Bytes) {
    for (const ValueCase& test : CasesFor(In(L"kept"), false)) {
        RetainNothing();
        SetValue(kRetainKey, L"value", test.type, test.bytes);
        EXPECT_EQ(LeftOf({L"kept"}), test.counts ? Names{L"kept"} : Names{}) << test.what;
    }
}

TEST_F(DeleteandRetainValuesTest, ReadsTheFolderFromAValueOfAtMost260BytesAndAnyType) {
    for (const ValueCase& test : CasesFor(Folder(), true)) {
        SetFolder(test.type, test.bytes);
        EXPECT_EQ(LeftOf({L"a"}), test.counts ? Names{} : Names{L"a"}) << test.what;
    }
}

TEST_F(DeleteandRetainValuesTest, RetainedPathsMayHave129CharactersAnd130WithoutATerminator) {
    const auto nameFor = [&](std::size_t length) {
        return std::wstring(length - In(L"").size(), L'n');
    };
    const Names names = {nameFor(129), nameFor(130)};
    for (const std::wstring& name : names) {
        SetValue(kRetainKey, name, REG_SZ, Terminated(In(name)));
    }
    EXPECT_EQ(LeftOf(names), Names{names[0]});
    SetValue(kRetainKey, names[1], REG_SZ, BytesOf(In(names[1])));
    EXPECT_EQ(LeftOf(names), names);
}

TEST_F(DeleteandRetainValuesTest, TheFolderMayHave129CharactersAnd130WithoutATerminator) {
    const auto folderOf = [&](std::size_t length) {
        return Scratch().Path() + L"\\" + std::wstring(length - Scratch().Path().size() - 1, L'f');
    };
    const struct {
        Bytes bytes;
        std::wstring folder;
        bool counts;
    } cases[] = {
        {Terminated(folderOf(129)), folderOf(129), true},
        {Terminated(folderOf(130)), folderOf(130), false},
        {BytesOf(folderOf(130)), folderOf(130), true},
    };
    for (const auto& test : cases) {
        CreateFolders(test.folder);
        WriteWholeFile(test.folder + L"\\a", "x"s);
        SetFolder(REG_SZ, test.bytes);
        EXPECT_EQ(DeleteandRetainValues(0), 0U);
        EXPECT_EQ(IsThere(test.folder + L"\\a"), !test.counts);
    }
}

TEST_F(DeleteandRetainValuesTest, AValueWithoutATerminatorEndsWhereItsBytesEnd) {
    // The longer one is read before.
    SetValue(kRetainKey, L"1", REG_SZ, Terminated(In(L"name and more")));
    SetValue(kRetainKey, L"2", REG_SZ, BytesOf(In(L"name")));
    EXPECT_EQ(LeftOf({L"name", L"name and more"}), (Names{L"name", L"name and more"}));
}

TEST_F(DeleteandRetainValuesTest, NamesOfValuesDoNotMatterUpTo16382Characters) {
    const Names names = {L"", L"a\\b/c", L"\u0416\xD800 [x]%s", std::wstring(16382, L'v'),
                         std::wstring(16383, L'w')};
    Names files;
    for (std::size_t index = 0; index < names.size(); ++index) {
        files.push_back(L"file " + std::to_wstring(index));
        SetValue(kRetainKey, names[index], REG_SZ, Terminated(In(files.back())));
    }
    EXPECT_EQ(LeftOf(files), Names(files.begin(), files.end() - 1));
}

TEST_F(DeleteandRetainValuesTest, NamesOfSubkeysCountUpTo254Characters) {
    const auto nameFor = [&](std::size_t length) {
        return std::wstring(length - In(L"").size(), L'n');
    };
    const Names names = {nameFor(254), nameFor(255)};
    for (const std::wstring& name : names) {
        RetainSubkey(WithSlashes(In(name)));
    }
    EXPECT_EQ(LeftOf(names), Names{names[0]});
}

TEST_F(DeleteandRetainValuesTest, NamesMayHoldEveryLegalCharacter) {
    std::wstring everything;
    for (wchar_t character = L' '; character < 0x180; ++character) {
        if (std::wcschr(L"\"*/:<>?\\|", character) == nullptr && character != 0x7F) {
            everything += character;
        }
    }
    Names names = {L"\u4e2d\u6587 \U0001F600", L"%TEMP%", L"[a] {b} 'c' ;&$", L" in front", L"..a"};
    for (std::size_t start = 0; start < everything.size(); start += 60) {
        names.push_back(L"x" + everything.substr(start, 60) + L"x");
    }
    EXPECT_EQ(LeftOf(names), Names{});
    for (const std::wstring& name : names) {
        Retain(In(name));
    }
    EXPECT_EQ(LeftOf(names), Sorted(names));
    // All but one.
    RetainNothing();
    for (std::size_t index = 1; index < names.size(); ++index) {
        Retain(In(names[index]));
    }
    EXPECT_EQ(LeftOf(names), Sorted(Names(names.begin() + 1, names.end())));
}

TEST_F(DeleteandRetainValuesTest, ANameThatWindowsTakesForAnotherCostsThatOneNothing) {
    const std::wstring extended = L"\\\\?\\" + Folder() + L"\\";
    MakeFolder(L"folder");
    for (const wchar_t* name : {L"file.", L"file ", L"folder.", L"folder "}) {
        WriteWholeFile(extended + name, "x"s);
        ASSERT_TRUE(IsThere(extended + name));
    }
    Retain(In(L"file"));
    Retain(In(L"folder"));
    const Names left = LeftOf({L"file", L"another"});
    EXPECT_EQ(left, (Names{L"file", L"file ", L"file.", L"folder", L"folder ", L"folder."}));
    EXPECT_EQ(Sorted(Listed(In(L"folder"))), (Names{L"below", L"file"}));
}

TEST_F(DeleteandRetainValuesTest, SkipsFilesThatDoNotFit256CharactersAndNotFolders) {
    const auto nameFor = [&](std::size_t length, wchar_t character) {
        return std::wstring(length - In(L"").size(), character);
    };
    MakeFolder(nameFor(256, L'g'));
    EXPECT_EQ(LeftOf({nameFor(255, L'a'), nameFor(256, L'b'), nameFor(257, L'c'),
                      std::wstring(255, L'd'), L"short"}),
              (Names{nameFor(256, L'b'), nameFor(257, L'c'), std::wstring(255, L'd')}));
}

TEST_F(DeleteandRetainValuesTest, IgnoresFilesThatCannotBeDeleted) {
    MakeFiles({L"a", L"held", L"read-only", L"z"});
    SetFileAttributesW(In(L"read-only").c_str(), FILE_ATTRIBUTE_READONLY);
    const HANDLE held = CreateFileW(In(L"held").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_EQ(DeleteandRetainValues(0), 0U);
    CloseHandle(held);
    EXPECT_EQ(Left(), (Names{L"held", L"read-only"}));
}

TEST_F(DeleteandRetainValuesTest, WhatTheRemovalOfASubfolderRaisesLeavesTheAction) {
    MakeFolder(L"sub");
    SetFileAttributesW(In(L"sub\\file").c_str(), FILE_ATTRIBUTE_READONLY);
    MakeFiles({L"a", L"z"});
    const Names order = Listed(Folder());
    const auto sub = std::find(order.begin(), order.end(), L"sub");
    ExpectFileSystemError([] { DeleteandRetainValues(0); }, "remove_all", In(L"sub"),
                          ERROR_ACCESS_DENIED);
    // What came before it in the listing has gone.
    EXPECT_EQ(Left(), Sorted(Names(sub, order.end())));

    Retain(In(L"sub"));
    EXPECT_EQ(LeftOf({L"a", L"z"}), Names{L"sub"});
}

TEST_F(DeleteandRetainValuesTest, ALinkIsNeitherEnteredNorSpared) {
    CreateFolders(Scratch().File(L"behind"));
    WriteWholeFile(Scratch().File(L"behind\\file"), "x"s);
    const halvard_tests::Link link(Folder(), L"link", L"../behind");
    ExpectFileSystemError([] { DeleteandRetainValues(0); }, "remove_all", In(L"link"),
                          ERROR_DIR_NOT_EMPTY);
    EXPECT_EQ(Listed(Scratch().File(L"behind")), Names{L"file"});

    Retain(In(L"link"));
    EXPECT_EQ(LeftOf({L"a"}), Names{L"link"});
    EXPECT_EQ(Listed(Scratch().File(L"behind")), Names{L"file"});
}

TEST_F(DeleteandRetainValuesTest, RaisesWhenTheFolderCannotBeAskedFor) {
    MakeFiles({L"a"});
    {
        FAIL_CALL(asking, GetFileAttributesW, 1, INVALID_FILE_ATTRIBUTES, ERROR_ACCESS_DENIED);
        ExpectFileSystemError([] { DeleteandRetainValues(0); }, "exists", Folder(),
                              ERROR_ACCESS_DENIED);
    }
    EXPECT_EQ(Left(), Names{L"a"});
}

TEST_F(DeleteandRetainValuesTest, MakesItsCallsInThisOrder) {
    MakeFiles({L"a"});
    MakeFolder(L"sub");
    const CallTrace trace(kEveryCall);
    EXPECT_EQ(DeleteandRetainValues(0), 0U);
    Names calls =
        WithoutRepeats(trace.Of({L"open HKLM", L"attributes of \\\\?\\" + Folder(), L"is folder",
                                 L"list ", L"next of", L"close list", L"unlink"}));
    // What follows is the removal of the subfolder.
    calls.resize(10);
    EXPECT_EQ(calls,
              (Names{L"open HKLM\\SOFTWARE\\ZenvoBranding 0x20019",
                     L"open HKLM\\SOFTWARE\\Zenvo\\PV\\ 0x20019",
                     L"attributes of \\\\?\\" + Folder(), L"is folder " + Folder(),
                     L"list " + In(L"*.*"), L"next of " + In(L"*.*"), L"close list",
                     L"is folder " + In(L"a"), L"unlink " + In(L"a"), L"is folder " + In(L"sub")}));
}

TEST_F(DeleteandRetainValuesTest, AddsNoSlashToAFolderThatEndsInOne) {
    for (const wchar_t slash : {L'\\', L'/'}) {
        SetFolder(REG_SZ, Terminated(Folder() + slash));
        const CallTrace trace(kFileQuestions);
        EXPECT_EQ(DeleteandRetainValues(0), 0U);
        EXPECT_EQ(trace.Of({L"list "}), Names{L"list " + Folder() + slash + L"*.*"});
    }
}

TEST_F(DeleteandRetainValuesTest, EnumeratesAndReadsIntoBuffersOfTheseSizes) {
    RetainSubkey(L"Skins");
    Retain(L"x");
    const CallTrace trace(kRegistry | kRegistryListing);
    EXPECT_EQ(DeleteandRetainValues(0), 0U);
    const std::wstring key = L"HKLM\\" + std::wstring(kRetainKey);
    EXPECT_EQ(trace.Of({L"subkey", L"value", L"query"}),
              (Names{L"subkey 0 of " + key + L" 255", L"value 0 of " + key + L" 16383 260 bytes",
                     L"query HKLM\\" + std::wstring(kFolderKey) + L"\\ " + kFolderValue +
                         L" 260 bytes"}));
}

TEST_F(DeleteandRetainValuesTest, GoesOnWithWhatItCouldRead) {
    const Names files = {L"a", L"b", L"c"};
    const auto retain = [&] {
        RetainSubkey(WithSlashes(In(L"a")));
        Retain(In(L"b"));
        Retain(In(L"c"));
    };
    retain();
    {
        FAIL_CALL(opening, RegOpenKeyExW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(LeftOf(files), Names{});
    }
    {
        FAIL_CALL(opening, RegOpenKeyExW, 2, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(LeftOf(files), files);
    }
    {
        FAIL_CALL(counting, RegQueryInfoKeyW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(LeftOf(files), Names{});
    }
    {
        FAIL_CALL(enumerating, RegEnumKeyExW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(LeftOf(files), (Names{L"b", L"c"}));
    }
    for (const int call : {1, 2}) {
        FAIL_CALL(enumerating, RegEnumValueW, call, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(LeftOf(files).size(), 2U);
        EXPECT_TRUE(IsThere(In(L"a")));
    }
    {
        FAIL_CALL(reading, RegQueryValueExW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(LeftOf(files), files);
    }
    RetainNothing();
    {
        FAIL_CALL(testing, PathIsDirectoryW, 1, FALSE, ERROR_ACCESS_DENIED);
        COUNT_CALLS(listing, FindFirstFileW);
        MakeFiles(files);
        EXPECT_EQ(DeleteandRetainValues(0), 0U);
        EXPECT_EQ(listing.Calls(), 0);
    }
    EXPECT_EQ(Left(), files);
    {
        FAIL_CALL(listing, FindFirstFileW, 1, INVALID_HANDLE_VALUE, ERROR_ACCESS_DENIED);
        EXPECT_EQ(DeleteandRetainValues(0), 0U);
    }
    EXPECT_EQ(Left(), files);
    {
        // ".", "..", "a" and then no more.
        FAIL_CALL(going, FindNextFileW, 3, FALSE, ERROR_ACCESS_DENIED);
        EXPECT_EQ(DeleteandRetainValues(0), 0U);
    }
    EXPECT_EQ(Left(), (Names{L"b", L"c"}));
    {
        FAIL_CALL(removing, _wremove, 1, -1, ERROR_ACCESS_DENIED);
        EXPECT_EQ(DeleteandRetainValues(0), 0U);
        EXPECT_EQ(removing.Calls(), 2);
    }
    EXPECT_EQ(Left(), Names{L"b"});
}

TEST_F(DeleteandRetainValuesTest, KeysMayVanishWhileTheyAreRead) {
    RetainSubkey(L"Skins");
    Retain(In(L"a"));
    {
        HOOK(counting, RegQueryInfoKeyW,
             [&](HKEY key, LPWSTR className, LPDWORD classLength, LPDWORD reserved, LPDWORD keys,
                 LPDWORD longestKey, LPDWORD longestClass, LPDWORD values, LPDWORD longestName,
                 LPDWORD longestValue, LPDWORD security, PFILETIME written) {
                 const LSTATUS status = counting.Original(
                     key, className, classLength, reserved, keys, longestKey, longestClass, values,
                     longestName, longestValue, security, written);
                 RetainNothing();
                 return status;
             });
        EXPECT_EQ(LeftOf({L"a", L"Skins"}), Names{});
    }
    HOOK(reading, RegQueryValueExW,
         [&](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
             RegDeleteTreeW(HKEY_LOCAL_MACHINE, kFolderKey);
             return reading.Original(key, name, reserved, type, data, size);
         });
    EXPECT_EQ(LeftOf({L"a"}), Names{L"a"});
}

TEST_F(DeleteandRetainValuesTest, EntriesMayVanishOnceTheyAreListed) {
    MakeFolder(L"sub");
    bool vanished = false;
    HOOK(going, FindNextFileW, [&](HANDLE search, LPWIN32_FIND_DATAW found) {
        const BOOL more = going.Original(search, found);
        if (more == FALSE && !vanished) {
            vanished = true;
            DeleteFileW(In(L"a").c_str());
            halvard_tests::RemoveTree(In(L"sub"));
        }
        return more;
    });
    MakeFiles({L"a", L"b"});
    EXPECT_EQ(DeleteandRetainValues(0), 0U);
    EXPECT_TRUE(vanished);
    EXPECT_FALSE(IsThere(In(L"b")));
}

TEST_F(DeleteandRetainValuesTest, ClosesItsKeysAndItsSearchOnEveryPath) {
    Retain(In(L"kept"));
    MakeFiles({L"a", L"kept"});
    const int before = OpenHandleCount();
    EXPECT_EQ(DeleteandRetainValues(0), 0U);
    EXPECT_EQ(OpenHandleCount(), before);

    MakeFolder(L"sub");
    SetFileAttributesW(In(L"sub\\file").c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_THROW(DeleteandRetainValues(0), std::filesystem::filesystem_error);
    EXPECT_EQ(OpenHandleCount(), before);

    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kFolderKey, kFolderValue);
    EXPECT_EQ(DeleteandRetainValues(0), 0U);
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST_F(DeleteandRetainValuesTest, WithoutMemoryNothingGoesThatIsToStay) {
    RetainSubkey(L"Skins");
    Retain(In(L"kept"));
    MakeFiles({L"kept", L"Skins"});
    int behindADeletion = 0;
    const int failures = halvard_tests::FailEachAllocation(
        [&] {
            MakeFiles({L"a"});
            MakeFolder(L"sub");
        },
        [] { DeleteandRetainValues(0); },
        [&](bool thrown) { behindADeletion += thrown && !IsThere(In(L"a")) ? 1 : 0; });
    EXPECT_GT(failures, 10);
    EXPECT_GT(behindADeletion, 0);
    EXPECT_EQ(Left(), (Names{L"Skins", L"kept"}));
}
