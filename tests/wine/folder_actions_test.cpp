#include "cleanup/folder_actions.h"

#include "runtime/registry.h"
#include "runtime/session.h"

#include "allocation_failure.h"
#include "child_programs.h"
#include "current_session.h"
#include "files.h"
#include "import_hook.h"
#include "open_handles.h"
#include "removal_calls.h"
#include "pivot_installation.h"
#include "stand_in_session.h"

#include <shellapi.h>
#include <shlwapi.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <new>
#include <stdexcept>
#include <typeinfo>

using halvard::DeleteDMFTDirectory;
using halvard::DeletePVFolder;
using halvard::DeletePVINSTALLDIRFolder;
using halvard::DeletePVSlimINSTALLDIRFolder;
using halvard::DeleteXVRFolder;
using halvard::RegKeyError;
using halvard_tests::AllocationFailure;
using halvard_tests::CreateFolders;
using halvard_tests::CurrentDirectoryScope;
using halvard_tests::CurrentSessionScope;
using halvard_tests::EnvironmentVariable;
using halvard_tests::IsThere;
using halvard_tests::kInstallKey;
using halvard_tests::OpenHandleCount;
using halvard_tests::PivotInstallation;
using halvard_tests::ReadWholeFile;
using halvard_tests::RecorderAt;
using halvard_tests::Recording;
using halvard_tests::Recordings;
using halvard_tests::ScratchFolder;
using halvard_tests::SetRegistryString;
using halvard_tests::StandInSession;
using halvard_tests::WriteWholeFile;
using Lines = std::vector<std::wstring>;
using namespace std::string_literals;

namespace {

constexpr wchar_t kRecorderKey[] = L"SOFTWARE\\Qorta Technologies\\Install\\XVR64";
constexpr wchar_t kSlimKey[] = L"SOFTWARE\\Qorta\\Sable\\Packages\\Core-Static";
constexpr wchar_t kSlimKeyOf32Bits[] =
    L"SOFTWARE\\WOW6432Node\\Qorta\\Sable\\Packages\\Core-Static";
constexpr wchar_t kPowerShell[] = L"C:\\windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe";
constexpr wchar_t kPowerShellLine[] =
    L"start %SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe|"
    L"Get-AppxPackage ZenvoCorporationInc-VSXCM* | Remove-AppxPackage -AllUsers";

std::string Before(const std::string& text, const std::string& end) {
    return text.substr(0, text.find(end));
}

std::string CodeText(const std::error_code& code) {
    return std::to_string(code.value()) +
           (code.category() == std::system_category() ? "" : " of another category");
}

// What became of an action: its result, or the type, text, code and path of what it threw.
std::string OutcomeOf(const std::function<UINT()>& action) {
    try {
        return std::to_string(action());
    } catch (const std::filesystem::filesystem_error& error) {
        const std::string start = "filesystem error: ";
        const std::string text = error.what();
        return "filesystem_error " + Before(text.substr(start.size()), ": ") + " " +
               CodeText(error.code()) + " " + error.path1().string();
    } catch (const std::system_error& error) {
        const char* const type = typeid(error) == typeid(RegKeyError)         ? "RegKeyError"
                                 : typeid(error) == typeid(std::system_error) ? "system_error"
                                                                              : "other error";
        return std::string(type) + " " + Before(error.what(), ": ") + " " + CodeText(error.code());
    } catch (const std::out_of_range&) {
        return "out_of_range";
    }
}

const std::wstring kDrive = L"\\\\?\\T:\\";

bool IsDriveEmpty() {
    WIN32_FIND_DATAW entry = {};
    const HANDLE search = FindFirstFileW(L"T:\\*", &entry);
    if (search == INVALID_HANDLE_VALUE) {
        return true;
    }
    FindClose(search);
    return false;
}

std::wstring FinalPath(HANDLE file) {
    wchar_t path[1024] = {};
    GetFinalPathNameByHandleW(file, path, 1024, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    return path;
}

// Watches the calls of an action in their order, and stands in for the programs that it starts.
class Calls {
public:
    Calls() = default;
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;

    const Lines& All() const { return lines_; }

    /// The lines that begin with `start`.
    Lines Of(const std::wstring& start) const {
        Lines found;
        std::copy_if(
            lines_.begin(), lines_.end(), std::back_inserter(found),
            [&](const std::wstring& line) { return line.compare(0, start.size(), start) == 0; });
        return found;
    }

    /// Makes the call number `nth`, counted from 1, of those whose lines begin with `start` do
    /// nothing and fail with this Win32 code.
    void Fail(const std::wstring& start, DWORD code, std::size_t nth = 1) {
        failStart_ = start;
        failCode_ = code;
        failNth_ = nth;
    }

    /// The session that was the current one at the first call.
    MSIHANDLE SessionAtFirstCall() const { return session_; }
    HKEY LastKey() const { return lastKey_; }

private:
    // The code with which a call is to fail.
    DWORD Call(const std::wstring& line) {
        if (lines_.empty()) {
            session_ = halvard::CurrentSession();
        }
        lines_.push_back(line);
        const bool fails = !failStart_.empty() &&
                           line.compare(0, failStart_.size(), failStart_) == 0 &&
                           Of(failStart_).size() == failNth_;
        SetLastError(fails ? failCode_ : NO_ERROR);
        return fails ? failCode_ : NO_ERROR;
    }

    static std::wstring Hex(DWORD number) {
        wchar_t text[16] = {};
        wsprintfW(text, L" %x", number);
        return text;
    }

    Lines lines_;
    std::wstring failStart_;
    DWORD failCode_ = NO_ERROR;
    std::size_t failNth_ = 0;
    MSIHANDLE session_ = 0;
    HKEY lastKey_ = nullptr;
    HANDLE child_ = nullptr;

    HOOK(opening_, RegOpenKeyExW,
         [this](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key) {
             EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
             EXPECT_EQ(options, 0U);
             LSTATUS status = static_cast<LSTATUS>(Call(L"open "s + subkey + Hex(access)));
             if (status == ERROR_SUCCESS) {
                 status = opening_.Original(root, subkey, options, access, key);
                 lastKey_ = *key;
             }
             return status;
         });
    HOOK(reading_, RegGetValueW,
         [this](HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
                LPDWORD size) {
             const DWORD code = Call(L"read "s + name);
             return code != NO_ERROR
                        ? static_cast<LSTATUS>(code)
                        : reading_.Original(key, subkey, name, flags, type, data, size);
         });
    HOOK(querying_, RegQueryValueExW,
         [this](HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
             EXPECT_EQ(reserved, nullptr);
             const DWORD code = Call(L"query "s + name + L" " + std::to_wstring(*size));
             if (code != NO_ERROR) {
                 // As a value that is too long for the buffer is answered.
                 *type = REG_SZ;
                 return static_cast<LSTATUS>(code);
             }
             return querying_.Original(key, name, reserved, type, data, size);
         });
    HOOK(closing_, RegCloseKey, [this](HKEY key) {
        Call(L"close");
        return closing_.Original(key);
    });
    HOOK(executing_, ShellExecuteExW, [this](SHELLEXECUTEINFOW* execution) {
        if (Call(L"start "s + execution->lpFile + L"|" + execution->lpParameters) != NO_ERROR) {
            return FALSE;
        }
        // Any process that can be asked.
        const BOOL done =
            DuplicateHandle(GetCurrentProcess(), GetCurrentProcess(), GetCurrentProcess(), &child_,
                            0, FALSE, DUPLICATE_SAME_ACCESS);
        execution->hProcess = child_;
        return done;
    });
    HOOK(waiting_, WaitForSingleObject, [this](HANDLE handle, DWORD timeout) -> DWORD {
        if (handle != child_) {
            return waiting_.Original(handle, timeout); // of the test framework
        }
        Call(L"wait " + std::to_wstring(timeout));
        return WAIT_OBJECT_0;
    });
    HOOK(asking_, GetExitCodeProcess, [this](HANDLE, LPDWORD exitCode) -> BOOL {
        *exitCode = 5;
        return Call(L"exit code") == NO_ERROR ? TRUE : FALSE;
    });
    HOOK(looking_, GetFileAttributesW, [this](LPCWSTR path) {
        return Call(L"look "s + path) == NO_ERROR ? looking_.Original(path)
                                                  : INVALID_FILE_ATTRIBUTES;
    });
    HOOK(entering_, CreateFileW,
         [this](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                DWORD disposition, DWORD flags, HANDLE pattern) {
             if (Call(L"enter "s + path) != NO_ERROR) {
                 return INVALID_HANDLE_VALUE;
             }
             return entering_.Original(path, access, share, security, disposition, flags, pattern);
         });
    HOOK(removingFolder_, RemoveDirectoryW, [this](LPCWSTR path) {
        if (Call(L"remove folder "s + path) != NO_ERROR) {
            return FALSE;
        }
        if (path == kDrive && IsDriveEmpty()) {
            // It would really go here, with the folder that every other test needs.
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        return removingFolder_.Original(path);
    });
    HOOK(removingEntry_, SetFileInformationByHandle,
         [this](HANDLE file, FILE_INFO_BY_HANDLE_CLASS type, LPVOID data, DWORD size) {
             if (type == halvard_tests::kDispositionWithFlags) {
                 SetLastError(ERROR_INVALID_PARAMETER);
                 return FALSE;
             }
             const std::wstring path = FinalPath(file);
             if (Call(L"remove entry "s + path) != NO_ERROR) {
                 return FALSE;
             }
             if (path == kDrive) {
                 // It would really go here, with the folder that every other test needs.
                 SetLastError(ERROR_ACCESS_DENIED);
                 return FALSE;
             }
             return removingEntry_.Original(file, type, data, size);
         });
    HOOK(existing_, PathFileExistsW, [this](LPCWSTR path) {
        return Call(L"exists "s + path) == NO_ERROR ? existing_.Original(path) : FALSE;
    });
    HOOK(emptying_, PathIsDirectoryEmptyW, [this](LPCWSTR path) {
        return Call(L"empty "s + path) == NO_ERROR ? emptying_.Original(path) : FALSE;
    });
};

void SetSlimLocation(const std::wstring& folder) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kSlimKey, 0, nullptr, 0,
                              KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    RegCloseKey(key);
    SetRegistryString(HKEY_LOCAL_MACHINE, kSlimKeyOf32Bits, L"Location", folder);
}

void SetValue(const std::wstring& key, const std::wstring& name, DWORD type, const void* bytes,
              std::size_t size) {
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name.c_str(), type, bytes,
                              static_cast<DWORD>(size)),
              ERROR_SUCCESS);
}

// A machine with the folder T:\Scratch, a session, and no registry entries of the suite; all that
// is put there goes at the end.
class Machine {
public:
    Machine() = default;
    ~Machine() {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies");
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta");
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\WOW6432Node\\Qorta");
    }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    std::wstring File(const std::wstring& name) const { return scratch.File(name); }

    /// A folder of the throw-away folder with a file, and a folder that holds another.
    std::wstring Folder(const std::wstring& name) const {
        CreateFolders(File(name) + L"\\sub");
        WriteWholeFile(File(name) + L"\\file", "x"s);
        WriteWholeFile(File(name) + L"\\sub\\file", "x"s);
        return File(name);
    }
    bool IsWhole(const std::wstring& name) const {
        return IsThere(File(name) + L"\\file") && IsThere(File(name) + L"\\sub\\file");
    }

    CurrentSessionScope current{99};
    ScratchFolder scratch;
    StandInSession session;
};

// The actions that remove one folder, and how each is told which.
struct FolderAction {
    const char* name;
    UINT(__stdcall* run)(MSIHANDLE);
    void (*pointTo)(const Machine& machine, const std::wstring& folder);

    bool MissingIsTheKey() const { return run == DeletePVFolder; }
};

void PrintTo(const FolderAction& action, std::ostream* stream) {
    *stream << action.name;
}

template <class Action>
std::string NameOf(const testing::TestParamInfo<Action>& info) {
    return info.param.name;
}

void PointPivotTo(const Machine&, const std::wstring& folder) {
    SetRegistryString(HKEY_LOCAL_MACHINE, kInstallKey, L"Location", folder);
}

const FolderAction kPivot = {"DeletePVFolder", DeletePVFolder, PointPivotTo};
const FolderAction kPivotInstallDir = {"DeletePVINSTALLDIRFolder", DeletePVINSTALLDIRFolder,
                                       PointPivotTo};
const FolderAction kSlim = {"DeletePVSlimINSTALLDIRFolder", DeletePVSlimINSTALLDIRFolder,
                            [](const Machine&, const std::wstring& folder) {
                                SetSlimLocation(folder);
                            }};
const FolderAction kNamed = {"DeleteDMFTDirectory", DeleteDMFTDirectory,
                             [](const Machine& machine, const std::wstring& folder) {
                                 machine.session.SetProperty(L"CustomActionData",
                                                             L"InstallDir=" + folder);
                             }};

std::string Perform(const FolderAction& action, const Machine& machine) {
    return OutcomeOf([&] { return action.run(machine.session.Get()); });
}

// The result of an action whose folder is not there; nothing is removed.
void ExpectMissing(const FolderAction& action, const Machine& machine) {
    const Calls calls;
    const std::string outcome = Perform(action, machine);
    if (action.MissingIsTheKey()) {
        const auto number = static_cast<UINT>(reinterpret_cast<ULONG_PTR>(calls.LastKey()));
        EXPECT_NE(number, 0U);
        EXPECT_EQ(outcome, std::to_string(number));
    } else {
        EXPECT_EQ(outcome, "0");
    }
    EXPECT_EQ(calls.Of(L"remove"), Lines{});
}

} // namespace

class RemoveFolderAction : public testing::TestWithParam<FolderAction> {};

TEST_P(RemoveFolderAction, RemovesTheFolderWithAllItHoldsAndNothingElse) {
    const Machine machine;
    machine.Folder(L"other");
    GetParam().pointTo(machine, machine.Folder(L"app"));
    const Calls calls;
    EXPECT_EQ(Perform(GetParam(), machine), "0");
    EXPECT_FALSE(IsThere(machine.File(L"app")));
    EXPECT_TRUE(machine.IsWhole(L"other"));
}

TEST_P(RemoveFolderAction, AFolderWithBlanksOtherLettersOrALongName) {
    const Machine machine;
    for (const std::wstring& name : {L"Program Files"s, L"\u0416\u00e9"s,
                                     std::wstring(200, L'l') + L"\\" + std::wstring(200, L'l')}) {
        GetParam().pointTo(machine, machine.Folder(name));
        const Calls calls;
        EXPECT_EQ(Perform(GetParam(), machine), "0");
        EXPECT_FALSE(IsThere(machine.File(name)));
    }
}

TEST_P(RemoveFolderAction, AMissingFolder) {
    const Machine machine;
    GetParam().pointTo(machine, machine.File(L"missing"));
    ExpectMissing(GetParam(), machine);
}

TEST_P(RemoveFolderAction, AnEmptyPathIsNoFolderNeitherTheCurrentOne) {
    const Machine machine;
    const CurrentDirectoryScope directory(machine.Folder(L"here"));
    GetParam().pointTo(machine, L"");
    ExpectMissing(GetParam(), machine);
    EXPECT_TRUE(machine.IsWhole(L"here"));
}

TEST_P(RemoveFolderAction, AFileIsLeft) {
    const Machine machine;
    WriteWholeFile(machine.File(L"file"), "x"s);
    GetParam().pointTo(machine, machine.File(L"file"));
    const Calls calls;
    EXPECT_EQ(Perform(GetParam(), machine), "0");
    EXPECT_EQ(ReadWholeFile(machine.File(L"file")), "x");
    EXPECT_EQ(calls.Of(L"remove"), Lines{});
}

TEST_P(RemoveFolderAction, ARelativePathIsSeenFromTheCurrentDirectory) {
    const Machine machine;
    machine.Folder(L"app");
    machine.Folder(L"here\\app");
    const CurrentDirectoryScope directory(machine.File(L"here"));
    GetParam().pointTo(machine, L"app");
    const Calls calls;
    EXPECT_EQ(Perform(GetParam(), machine), "0");
    EXPECT_FALSE(IsThere(machine.File(L"here\\app")));
    EXPECT_TRUE(IsThere(machine.File(L"here")));
    EXPECT_TRUE(machine.IsWhole(L"app"));
}

TEST_P(RemoveFolderAction, SlashesOfEitherKindWithOneAtTheEnd) {
    const Machine machine;
    for (const wchar_t* path : {L"T:/Scratch/app", L"T:\\Scratch\\app\\", L"T:/Scratch\\app//"}) {
        machine.Folder(L"app");
        GetParam().pointTo(machine, path);
        const Calls calls;
        EXPECT_EQ(Perform(GetParam(), machine), "0");
        EXPECT_FALSE(IsThere(machine.File(L"app")));
        EXPECT_TRUE(IsThere(machine.scratch.Path()));
    }
}

TEST_P(RemoveFolderAction, ADriveThatRefusesToGoKeepsAllItHolds) {
    const Machine machine;
    machine.Folder(L"app");
    GetParam().pointTo(machine, L"T:\\");
    Calls calls;
    calls.Fail(L"remove", ERROR_ACCESS_DENIED);
    EXPECT_EQ(Perform(GetParam(), machine), "filesystem_error remove_all 5 T:\\");
    EXPECT_EQ(calls.Of(L"remove"), Lines{L"remove folder \\\\?\\T:\\"});
    EXPECT_TRUE(machine.IsWhole(L"app"));
}

TEST_P(RemoveFolderAction, ADriveIsEmptiedWhenItSaysThatItIsNotEmpty) {
    const Machine machine;
    machine.Folder(L"app");
    WriteWholeFile(L"T:\\recorded.txt", "x"s);
    GetParam().pointTo(machine, L"T:\\");
    const Calls calls;
    EXPECT_EQ(Perform(GetParam(), machine), "filesystem_error remove_all 5 T:\\");
    EXPECT_TRUE(IsDriveEmpty());
    const Lines removals = calls.Of(L"remove");
    ASSERT_GE(removals.size(), 2U);
    EXPECT_EQ(removals.front(), L"remove folder " + kDrive);
    EXPECT_EQ(removals.back(), L"remove entry " + kDrive);
}

TEST_P(RemoveFolderAction, ALinkIsNeitherEnteredNorRemoved) {
    const Machine machine;
    machine.Folder(L"target");
    const halvard_tests::Link link(machine.scratch.Path(), L"link", L"target");
    GetParam().pointTo(machine, machine.File(L"link"));
    {
        const Calls calls;
        EXPECT_EQ(Perform(GetParam(), machine),
                  "filesystem_error remove_all 145 T:\\Scratch\\link");
    }
    EXPECT_TRUE(machine.IsWhole(L"target"));
    EXPECT_TRUE(machine.IsWhole(L"link"));
}

TEST_P(RemoveFolderAction, ALinkInTheFolderIsNotEntered) {
    const Machine machine;
    machine.Folder(L"target");
    CreateFolders(machine.File(L"app"));
    const halvard_tests::Link link(machine.File(L"app"), L"link", L"../target");
    GetParam().pointTo(machine, machine.File(L"app"));
    {
        const Calls calls;
        EXPECT_EQ(Perform(GetParam(), machine), "filesystem_error remove_all 145 T:\\Scratch\\app");
    }
    EXPECT_TRUE(machine.IsWhole(L"target"));
}

TEST_P(RemoveFolderAction, AFileInUseOrReadOnlyEndsTheRemoval) {
    const Machine machine;
    GetParam().pointTo(machine, machine.Folder(L"app"));
    const std::wstring file = machine.File(L"app\\sub\\file");
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
    {
        const Calls calls;
        EXPECT_EQ(Perform(GetParam(), machine), "filesystem_error remove_all 5 T:\\Scratch\\app");
    }
    EXPECT_TRUE(IsThere(file));
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);

    const HANDLE held = CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    {
        const Calls calls;
        EXPECT_EQ(Perform(GetParam(), machine), "filesystem_error remove_all 32 T:\\Scratch\\app");
    }
    CloseHandle(held);
    EXPECT_TRUE(IsThere(file));
}

TEST_P(RemoveFolderAction, AFolderThatCannotBeAskedIsNotRemoved) {
    const Machine machine;
    GetParam().pointTo(machine, machine.Folder(L"app"));
    // DeletePVFolder asks once more than the others.
    const std::vector<std::string> operations =
        GetParam().MissingIsTheKey() ? std::vector<std::string>{"exists", "exists", "status"}
                                     : std::vector<std::string>{"exists", "status"};
    for (std::size_t nth = 1; nth <= operations.size(); ++nth) {
        Calls calls;
        calls.Fail(L"look", ERROR_ACCESS_DENIED, nth);
        EXPECT_EQ(Perform(GetParam(), machine),
                  "filesystem_error " + operations[nth - 1] + " 5 T:\\Scratch\\app");
        EXPECT_EQ(calls.Of(L"look").size(), nth);
        EXPECT_EQ(calls.Of(L"remove"), Lines{});
    }
    EXPECT_TRUE(machine.IsWhole(L"app"));
}

TEST_P(RemoveFolderAction, EachRemovalFailingInTurnEndsTheRemoval) {
    const Machine machine;
    // The folder, what it holds, the folder again.
    const Lines order = {
        L"remove folder \\\\?\\T:\\Scratch\\app",
        L"remove entry \\\\?\\T:\\Scratch\\app\\file",
        L"remove entry \\\\?\\T:\\Scratch\\app",
    };
    for (std::size_t nth = 1; nth <= order.size(); ++nth) {
        CreateFolders(machine.File(L"app"));
        WriteWholeFile(machine.File(L"app\\file"), "x"s);
        GetParam().pointTo(machine, machine.File(L"app"));
        Calls calls;
        calls.Fail(L"remove", ERROR_ACCESS_DENIED, nth);
        EXPECT_EQ(Perform(GetParam(), machine), "filesystem_error remove_all 5 T:\\Scratch\\app");
        EXPECT_EQ(calls.Of(L"remove"),
                  Lines(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(nth)));
        EXPECT_TRUE(IsThere(machine.File(L"app")));
        EXPECT_EQ(IsThere(machine.File(L"app\\file")), nth < 3);
    }
}

TEST_P(RemoveFolderAction, ClosesEveryHandleWhateverBecomesOfIt) {
    const Machine machine;
    GetParam().pointTo(machine, machine.Folder(L"app"));
    const auto runFailing = [&](const std::wstring& start, std::size_t nth) {
        Calls calls;
        calls.Fail(start, ERROR_ACCESS_DENIED, nth);
        return Perform(GetParam(), machine);
    };
    runFailing(L"look", 1); // what the first run loads once
    const int before = OpenHandleCount();
    const std::pair<const wchar_t*, std::size_t> failures[] = {
        {L"open", 1}, {L"open", 2}, {L"read", 2},  {L"read", 4},   {L"start", 1}, {L"exit code", 1},
        {L"look", 2}, {L"look", 3}, {L"enter", 1}, {L"remove", 1}, {L"remove", 3}};
    for (const auto& [start, nth] : failures) {
        runFailing(start, nth);
        EXPECT_EQ(OpenHandleCount(), before) << nth;
        machine.Folder(L"app");
    }
    EXPECT_EQ(runFailing(L"nothing", 1), "0");
    EXPECT_EQ(OpenHandleCount(), before);
    runFailing(L"nothing", 1); // the folder is missing now
    EXPECT_EQ(OpenHandleCount(), before);
}

INSTANTIATE_TEST_SUITE_P(All, RemoveFolderAction,
                         testing::Values(kPivot, kPivotInstallDir, kSlim, kNamed),
                         NameOf<FolderAction>);

namespace {

const Lines kExit = {
    L"open "s + kInstallKey + L"\\ 2001f",     L"read Location", L"read Location", L"close",
    L"start T:\\Scratch\\app\\pvcmd.exe|exit", L"wait 30000",    L"exit code",
};

const Lines kReadPivotLocation = {
    L"open "s + kInstallKey + L" 2001f",
    L"read Location",
    L"read Location",
    L"close",
};

Lines Joined(std::initializer_list<Lines> parts) {
    Lines joined;
    for (const Lines& part : parts) {
        joined.insert(joined.end(), part.begin(), part.end());
    }
    return joined;
}

// The calls of the removal of an empty folder.
Lines RemovalOf(const std::wstring& folder) {
    return {L"look \\\\?\\" + folder, L"look \\\\?\\" + folder, L"remove folder \\\\?\\" + folder};
}

// The calls of an action on an empty folder T:\Scratch\app.
Lines CallsOf(const FolderAction& action) {
    const Machine machine;
    CreateFolders(machine.File(L"app"));
    action.pointTo(machine, machine.File(L"app"));
    const Calls calls;
    EXPECT_EQ(Perform(action, machine), "0");
    return calls.All();
}

} // namespace

TEST(ExitPivotCommandProcessor, MakesItsCallsInThisOrder) {
    const Machine machine;
    PointPivotTo(machine, machine.File(L"app"));
    const Calls calls;
    halvard::ExitPivotCommandProcessor();
    EXPECT_EQ(calls.All(), kExit);
}

TEST(ExitPivotCommandProcessor, PutsTheNameOfTheToolDirectlyBehindTheLocation) {
    const Machine machine;
    for (const std::wstring& location :
         {L""s, L"app"s, L"T:\\"s, L"T:\\Scratch\\app\\"s, L"T:/Scratch/app/"s, L"T:\\a b"s}) {
        PointPivotTo(machine, location);
        const Calls calls;
        halvard::ExitPivotCommandProcessor();
        EXPECT_EQ(calls.Of(L"start"), Lines{L"start " + location + L"\\pvcmd.exe|exit"});
    }
}

TEST(DeletePVFolder, MakesItsCallsInThisOrder) {
    EXPECT_EQ(CallsOf(kPivot), Joined({kExit,
                                       kReadPivotLocation,
                                       {L"look \\\\?\\T:\\Scratch\\app"},
                                       RemovalOf(L"T:\\Scratch\\app")}));
}

TEST(DeletePVINSTALLDIRFolder, MakesItsCallsInThisOrder) {
    EXPECT_EQ(CallsOf(kPivotInstallDir),
              Joined({{kPowerShellLine, L"wait 4294967295", L"exit code"},
                      kReadPivotLocation,
                      RemovalOf(L"T:\\Scratch\\app")}));
}

TEST(DeletePVSlimINSTALLDIRFolder, MakesItsCallsInThisOrder) {
    EXPECT_EQ(CallsOf(kSlim), Joined({{L"open "s + kSlimKey + L" f023f", L"read Location",
                                       L"read Location", L"close"},
                                      RemovalOf(L"T:\\Scratch\\app")}));
}

TEST(DeleteDMFTDirectory, MakesItsCallsInThisOrder) {
    EXPECT_EQ(CallsOf(kNamed), RemovalOf(L"T:\\Scratch\\app"));
}

TEST(FolderActions, AllButOneStoreTheirSessionFirstAndLogNothing) {
    for (const auto run : {DeletePVFolder, DeletePVINSTALLDIRFolder, DeletePVSlimINSTALLDIRFolder,
                           DeleteXVRFolder}) {
        const Machine machine;
        PointPivotTo(machine, machine.Folder(L"app"));
        SetSlimLocation(machine.Folder(L"slim"));
        const Calls calls;
        EXPECT_EQ(run(machine.session.Get()), 0U);
        EXPECT_EQ(calls.SessionAtFirstCall(), machine.session.Get());
        EXPECT_EQ(halvard::CurrentSession(), machine.session.Get());
        EXPECT_EQ(machine.session.Messages().size(), 0U);
    }
}

TEST(FolderActions, StoreTheirSessionBeforeTheyFail) {
    for (const auto run : {DeletePVFolder, DeletePVINSTALLDIRFolder, DeletePVSlimINSTALLDIRFolder,
                           DeleteXVRFolder}) {
        const Machine machine;
        const Calls calls;
        EXPECT_THROW(run(machine.session.Get()), RegKeyError);
        EXPECT_EQ(halvard::CurrentSession(), machine.session.Get());
        EXPECT_EQ(machine.session.Messages().size(), 0U);
    }
}

namespace {

// The actions that ask the command tool to exit before they look at a folder.
struct ExitingAction {
    const char* name;
    UINT(__stdcall* run)(MSIHANDLE);
};

void PrintTo(const ExitingAction& action, std::ostream* stream) {
    *stream << action.name;
}

UINT __stdcall ExitAlone(MSIHANDLE /*session*/) {
    halvard::ExitPivotCommandProcessor();
    return 0;
}

} // namespace

class ExitingFolderAction : public testing::TestWithParam<ExitingAction> {
protected:
    ExitingFolderAction() {
        PointPivotTo(machine, machine.Folder(L"app"));
        SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"InstallDir", machine.File(L"rec\\"));
        machine.Folder(L"rec\\XVR");
    }

    // Runs with one call failing: nothing is looked at or removed.
    std::string RunFailing(const std::wstring& start, DWORD code, std::size_t nth = 1) {
        Calls calls;
        calls.Fail(start, code, nth);
        const std::string outcome =
            OutcomeOf([&] { return GetParam().run(machine.session.Get()); });
        EXPECT_EQ(calls.Of(L"remove"), Lines{});
        EXPECT_EQ(calls.Of(L"look"), Lines{});
        EXPECT_EQ(calls.Of(L"exists"), Lines{});
        EXPECT_EQ(calls.Of(L"query"), Lines{});
        EXPECT_EQ(calls.Of(L"open").size(), 1U);
        EXPECT_TRUE(machine.IsWhole(L"app"));
        EXPECT_TRUE(machine.IsWhole(L"rec\\XVR"));
        return outcome;
    }

    const Machine machine;
};

TEST_P(ExitingFolderAction, FailsWithoutTheInstallKey) {
    EXPECT_EQ(RunFailing(L"open", ERROR_ACCESS_DENIED),
              "RegKeyError Unable to open registry key 5");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies\\Install\\Pivot");
    EXPECT_EQ(RunFailing(L"nothing", 0), "RegKeyError Unable to open registry key 2");
}

TEST_P(ExitingFolderAction, FailsWithoutItsLocation) {
    EXPECT_EQ(RunFailing(L"read", ERROR_ACCESS_DENIED, 2),
              "RegKeyError Unable to get registry value 0"); // vanished between size and text
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kInstallKey, L"Location");
    EXPECT_EQ(RunFailing(L"nothing", 0), "RegKeyError Unable to get registry value 2");
    SetValue(kInstallKey, L"Location", REG_DWORD, "abc", 4);
    EXPECT_EQ(RunFailing(L"nothing", 0), "RegKeyError Unable to get registry value 1630");
}

TEST_P(ExitingFolderAction, FailsWhenTheToolCannotBeStartedOrAsked) {
    EXPECT_EQ(RunFailing(L"start", ERROR_ACCESS_DENIED), "system_error Unable to create process 5");
    EXPECT_EQ(RunFailing(L"exit code", ERROR_ACCESS_DENIED),
              "system_error Unable to process exit code 5");
}

INSTANTIATE_TEST_SUITE_P(All, ExitingFolderAction,
                         testing::Values(ExitingAction{"Alone", ExitAlone},
                                         ExitingAction{"DeletePVFolder", DeletePVFolder},
                                         ExitingAction{"DeleteXVRFolder", DeleteXVRFolder}),
                         NameOf<ExitingAction>);

TEST(DeletePVFolder, ReturnsTheLowHalfOfTheKeyOfItsOwnReadAndNever0) {
    const Machine machine;
    PointPivotTo(machine, machine.File(L"missing"));
    const std::pair<ULONG_PTR, UINT> keys[] = {{0x1234, 0x1234},
                                               {0x500001238, 0x1238},
                                               {0xFFFFFFFFFFFFFFF4, 0xFFFFFFF4},
                                               {0x100000000, 1603}};
    for (const auto& [key, expected] : keys) {
        HKEY real = nullptr;
        HOOK(opening, RegOpenKeyExW,
             [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
                 const LSTATUS status = opening.Original(root, subkey, options, access, opened);
                 if (opening.Calls() == 2) {
                     real = *opened;
                     *opened = reinterpret_cast<HKEY>(key);
                 }
                 return status;
             });
        HOOK(reading, RegGetValueW,
             [&](HKEY from, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
                 LPDWORD size) {
                 return reading.Original(opening.Calls() == 2 ? real : from, subkey, name, flags,
                                         type, data, size);
             });
        HOOK(closing, RegCloseKey, [&](HKEY closed) {
            return closing.Original(closed == reinterpret_cast<HKEY>(key) ? real : closed);
        });
        FAIL_CALL(executing, ShellExecuteExW, 0, TRUE, NO_ERROR);
        FAIL_CALL(asking, GetExitCodeProcess, 0, TRUE, NO_ERROR);
        EXPECT_EQ(DeletePVFolder(machine.session.Get()), expected);
        EXPECT_EQ(opening.Calls(), 2);
        EXPECT_EQ(closing.Calls(), 2);
    }
}

TEST(DeletePVFolder, FailsWhenTheRegistryFailsBehindTheExitOfTheTool) {
    const Machine machine;
    PointPivotTo(machine, machine.Folder(L"app"));
    const struct {
        const wchar_t* start;
        std::size_t nth;
        const char* outcome;
    } cases[] = {{L"open", 2, "RegKeyError Unable to open registry key 5"},
                 {L"read", 4, "RegKeyError Unable to get registry value 0"}};
    for (const auto& failing : cases) {
        Calls calls;
        calls.Fail(failing.start, ERROR_ACCESS_DENIED, failing.nth);
        EXPECT_EQ(Perform(kPivot, machine), failing.outcome);
        EXPECT_EQ(calls.Of(L"start").size(), 1U);
        EXPECT_EQ(calls.Of(L"look"), Lines{});
        EXPECT_EQ(calls.Of(L"remove"), Lines{});
        EXPECT_TRUE(machine.IsWhole(L"app"));
    }
}

TEST(DeletePVINSTALLDIRFolder, FailsBeforeTheRegistryIsReadWhenPowerShellFails) {
    const Machine machine;
    PointPivotTo(machine, machine.Folder(L"app"));
    const std::pair<const wchar_t*, const char*> cases[] = {
        {L"start", "system_error Unable to create process 5"},
        {L"exit code", "system_error Unable to process exit code 5"}};
    for (const auto& [start, outcome] : cases) {
        Calls calls;
        calls.Fail(start, ERROR_ACCESS_DENIED);
        EXPECT_EQ(Perform(kPivotInstallDir, machine), outcome);
        EXPECT_EQ(calls.Of(L"open"), Lines{});
        EXPECT_EQ(calls.Of(L"remove"), Lines{});
        EXPECT_TRUE(machine.IsWhole(L"app"));
    }
}

TEST(DeletePVINSTALLDIRFolder, FailsWithoutKeyOrLocationOnceThePowerShellHasRun) {
    const Machine machine;
    const auto expect = [&](const std::wstring& failing, const std::string& outcome) {
        Calls calls;
        calls.Fail(failing, ERROR_ACCESS_DENIED, failing == L"read" ? 2 : 1);
        EXPECT_EQ(Perform(kPivotInstallDir, machine), outcome);
        EXPECT_EQ(calls.All()[0], kPowerShellLine);
        EXPECT_EQ(calls.Of(L"look"), Lines{});
        EXPECT_EQ(calls.Of(L"remove"), Lines{});
    };
    expect(L"nothing", "RegKeyError Unable to open registry key 2");
    PointPivotTo(machine, machine.Folder(L"app"));
    expect(L"open", "RegKeyError Unable to open registry key 5");
    expect(L"read", "RegKeyError Unable to get registry value 0");
    EXPECT_TRUE(machine.IsWhole(L"app"));
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kInstallKey, L"Location");
    expect(L"nothing", "RegKeyError Unable to get registry value 2");
}

TEST(DeletePVSlimINSTALLDIRFolder, FailsWithoutItsKey) {
    const Machine machine;
    EXPECT_EQ(Perform(kSlim, machine), "RegKeyError Unable to open registry key 2");
    // The same path in the 64-bit view is another key.
    SetRegistryString(HKEY_LOCAL_MACHINE, kSlimKey, L"Location", machine.Folder(L"app"));
    EXPECT_EQ(Perform(kSlim, machine), "RegKeyError Unable to open registry key 2");
    EXPECT_TRUE(machine.IsWhole(L"app"));

    SetSlimLocation(machine.File(L"app"));
    Calls calls;
    calls.Fail(L"open", ERROR_ACCESS_DENIED);
    EXPECT_EQ(Perform(kSlim, machine), "RegKeyError Unable to open registry key 5");
    EXPECT_EQ(calls.All().size(), 1U);
    EXPECT_TRUE(machine.IsWhole(L"app"));
}

TEST(DeletePVSlimINSTALLDIRFolder, RemovesNothingWithoutALocation) {
    const Machine machine;
    const CurrentDirectoryScope directory(machine.Folder(L"here"));
    SetSlimLocation(machine.File(L"here"));
    {
        Calls calls;
        calls.Fail(L"read", ERROR_ACCESS_DENIED, 2);
        EXPECT_EQ(Perform(kSlim, machine), "0");
        EXPECT_EQ(calls.Of(L"remove"), Lines{});
    }
    SetValue(kSlimKeyOf32Bits, L"Location", REG_BINARY, L"T:\\Scratch\\here", 32);
    ExpectMissing(kSlim, machine);
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSlimKeyOf32Bits, L"Location");
    ExpectMissing(kSlim, machine);
    EXPECT_TRUE(machine.IsWhole(L"here"));
}

TEST(DeletePVSlimINSTALLDIRFolder, ClosesItsKeyWhenMemoryRunsOut) {
    const Machine machine;
    SetSlimLocation(machine.File(L"missing"));
    const int before = OpenHandleCount();
    int reached = 0;
    for (int nth = 1; nth == reached + 1; ++nth) {
        bool thrown = false;
        bool happened = false;
        {
            const AllocationFailure failure(nth);
            try {
                DeletePVSlimINSTALLDIRFolder(machine.session.Get());
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            happened = failure.Happened();
        }
        EXPECT_EQ(thrown, happened);
        reached += happened ? 1 : 0;
        EXPECT_EQ(OpenHandleCount(), before) << "allocation " << nth;
    }
    // The name of the key, and the text of its value.
    EXPECT_GE(reached, 2);
}

TEST(DeleteDMFTDirectory, LogsItsDataOnceAndLeavesTheCurrentSession) {
    const Machine machine;
    const std::wstring data = L"First=1;InstallDir=" + machine.Folder(L"app") + L";Last=2";
    machine.session.SetProperty(L"CustomActionData", data);
    EXPECT_EQ(Perform(kNamed, machine), "0");
    EXPECT_FALSE(IsThere(machine.File(L"app")));
    EXPECT_EQ(machine.session.LogLines(), Lines{L"CustomActionData: " + data});
    EXPECT_EQ(machine.session.Messages().size(), 1U);
    EXPECT_EQ(halvard::CurrentSession(), 99U);
}

TEST(DeleteDMFTDirectory, RemovesNothingWithoutItsItem) {
    const Machine machine;
    machine.Folder(L"app");
    const CurrentDirectoryScope directory(machine.Folder(L"here"));
    // The text from index 10 onward, which an absent key of this length would yield, is a folder.
    const std::wstring texts[] = {
        L"",
        L"Install",
        L"InstallDir",
        L"0123456789here",
        L"0123456789",
        L"Folder=1;;T:\\Scratch\\app",
        L"installdir=T:\\Scratch\\app",
        L"InstallDi=T:\\Scratch\\app",
        L"InstallDirT:\\Scratch\\app",
        L"DLLName=a;T:\\Scratch\\app;",
    };
    for (const std::wstring& data : texts) {
        machine.session.SetProperty(L"CustomActionData", data);
        ExpectMissing(kNamed, machine);
    }
    EXPECT_TRUE(machine.IsWhole(L"app"));
    EXPECT_TRUE(machine.IsWhole(L"here"));
}

TEST(DeleteDMFTDirectory, AMissingPropertyIsEmptyData) {
    const Machine machine;
    ExpectMissing(kNamed, machine);
    EXPECT_EQ(machine.session.LogLines(), Lines{L"CustomActionData: "});
}

namespace {

// The recorder's entry, with a command tool that is asked to exit.
class Recorder : public Machine {
public:
    Recorder() { PointPivotTo(*this, File(L"app")); }

    void SetInstallDir(const std::wstring& text) const {
        SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"InstallDir", text);
    }
    void SetInstallDir(DWORD type, const void* bytes, std::size_t size) const {
        SetValue(kRecorderKey, L"InstallDir", type, bytes, size);
    }

    std::string Perform() const {
        return OutcomeOf([&] { return DeleteXVRFolder(session.Get()); });
    }
    std::string RunFailing(const std::wstring& start, DWORD code, std::size_t nth = 1) const {
        Calls calls;
        calls.Fail(start, code, nth);
        return Perform();
    }

    /// The path that the action asks for; its result in `outcome`.
    std::wstring PathLookedFor(std::string& outcome) const {
        const Calls calls;
        outcome = Perform();
        const std::wstring start = L"exists ";
        const Lines lines = calls.Of(start);
        return lines.size() == 1 ? lines[0].substr(start.size()) : L"not asked once";
    }
};

const Lines kQueryInstallDir = {L"open "s + kRecorderKey + L" 20019", L"query InstallDir 520"};

} // namespace

TEST(DeleteXVRFolder, RemovesItsFolderAndTheOneAboveThatIsEmptyThen) {
    const Recorder recorder;
    recorder.Folder(L"other");
    recorder.Folder(L"rec\\XVR");
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    const Calls calls;
    EXPECT_EQ(recorder.Perform(), "0");
    EXPECT_FALSE(IsThere(recorder.File(L"rec")));
    EXPECT_TRUE(recorder.IsWhole(L"other"));
}

TEST(DeleteXVRFolder, LeavesTheFolderAboveThatHoldsMore) {
    const Recorder recorder;
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    for (const wchar_t* more : {L"rec\\file", L"rec\\folder"}) {
        recorder.Folder(L"rec\\XVR");
        if (more == L"rec\\file"s) {
            WriteWholeFile(recorder.File(more), "x"s);
        } else {
            CreateFolders(recorder.File(more));
        }
        const Calls calls;
        EXPECT_EQ(recorder.Perform(), "0");
        EXPECT_FALSE(IsThere(recorder.File(L"rec\\XVR")));
        EXPECT_TRUE(IsThere(recorder.File(more)));
        EXPECT_EQ(std::count(calls.All().begin(), calls.All().end(),
                             L"remove folder \\\\?\\T:\\Scratch\\rec"),
                  0);
        RemoveDirectoryW(recorder.File(more).c_str());
        DeleteFileW(recorder.File(more).c_str());
    }
}

TEST(DeleteXVRFolder, MakesItsCallsInThisOrder) {
    const Recorder recorder;
    CreateFolders(recorder.File(L"rec\\XVR"));
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    const Calls calls;
    EXPECT_EQ(recorder.Perform(), "0");
    EXPECT_EQ(calls.All(),
              Joined({kExit,
                      kQueryInstallDir,
                      {L"exists T:\\Scratch\\rec\\XVR"},
                      RemovalOf(L"T:\\Scratch\\rec\\XVR"),
                      {L"empty T:\\Scratch\\rec", L"remove folder \\\\?\\T:\\Scratch\\rec"}}));
}

TEST(DeleteXVRFolder, AddsNoBackslash) {
    const Recorder recorder;
    recorder.Folder(L"apps\\recXVR");
    recorder.Folder(L"apps\\rec\\XVR");
    recorder.SetInstallDir(recorder.File(L"apps\\rec"));
    const Calls calls;
    EXPECT_EQ(recorder.Perform(), "0");
    EXPECT_FALSE(IsThere(recorder.File(L"apps\\recXVR")));
    EXPECT_TRUE(recorder.IsWhole(L"apps\\rec\\XVR"));
}

TEST(DeleteXVRFolder, ReturnsTheTypeOfTheValueWhenThereIsNoSuchFolder) {
    const Recorder recorder;
    CreateFolders(recorder.File(L"rec"));
    const std::wstring text = recorder.File(L"rec\\");
    for (const DWORD type : {REG_NONE, REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD, REG_LINK,
                             REG_MULTI_SZ, REG_QWORD}) {
        const std::size_t size = type == REG_DWORD ? 4U : type == REG_QWORD ? 8U : 36U;
        recorder.SetInstallDir(type, text.c_str(), size);
        const Calls calls;
        EXPECT_EQ(recorder.Perform(), std::to_string(type));
        EXPECT_EQ(calls.Of(L"empty"), Lines{});
        EXPECT_EQ(calls.Of(L"look"), Lines{});
        EXPECT_EQ(calls.Of(L"remove"), Lines{});
    }
    EXPECT_TRUE(IsThere(recorder.File(L"rec")));
}

TEST(DeleteXVRFolder, TakesTheBytesOfAnyTypeForTextUpToANull) {
    const Recorder recorder;
    const std::wstring terminated = L"T:\\Scratch\\rec\\\0"s;
    const std::wstring more = L"T:\\Scratch\\rec\\\0more\\"s;
    const std::wstring open = L"T:\\Scratch\\rec\\";
    for (const DWORD type : {REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ, REG_BINARY, REG_NONE}) {
        for (const std::wstring& text : {terminated, more, open}) {
            recorder.Folder(L"rec\\XVR");
            recorder.SetInstallDir(type, text.data(), text.size() * sizeof(wchar_t));
            const Calls calls;
            EXPECT_EQ(recorder.Perform(), "0") << type;
            EXPECT_FALSE(IsThere(recorder.File(L"rec")));
        }
    }
}

TEST(DeleteXVRFolder, ValuesOfOddForms) {
    const Recorder recorder;
    std::string outcome;
    recorder.SetInstallDir(REG_DWORD, L"AB", 4);
    EXPECT_EQ(recorder.PathLookedFor(outcome), L"ABXVR");
    EXPECT_EQ(outcome, "4");
    recorder.SetInstallDir(REG_BINARY, L"ABC", 5); // the last byte is half a character
    EXPECT_EQ(recorder.PathLookedFor(outcome), L"ABCXVR");
    EXPECT_EQ(outcome, "3");
    recorder.SetInstallDir(REG_BINARY, "A", 1);
    EXPECT_EQ(recorder.PathLookedFor(outcome), L"AXVR");
    recorder.SetInstallDir(REG_SZ, nullptr, 0);
    EXPECT_EQ(recorder.PathLookedFor(outcome), L"XVR");
    EXPECT_EQ(outcome, "1");
    recorder.SetInstallDir(REG_SZ, L"\0behind", 16);
    EXPECT_EQ(recorder.PathLookedFor(outcome), L"XVR");
    EXPECT_EQ(outcome, "1");
}

TEST(DeleteXVRFolder, ATextThatFillsItsBufferEndsThere) {
    const Recorder recorder;
    std::string outcome;
    for (const std::size_t length : {259U, 260U}) {
        const std::wstring text = L"T:\\" + std::wstring(length - 3, L'l');
        recorder.SetInstallDir(REG_BINARY, text.data(), length * sizeof(wchar_t));
        EXPECT_EQ(recorder.PathLookedFor(outcome), text + L"XVR");
        EXPECT_EQ(outcome, "3");
    }
    const std::wstring text = L"T:\\" + std::wstring(258, L'l');
    recorder.SetInstallDir(REG_BINARY, text.data(), 519);
    EXPECT_EQ(recorder.PathLookedFor(outcome).size(), 263U);
}

TEST(DeleteXVRFolder, ALongerValueCountsAsAbsent) {
    const Recorder recorder;
    std::string outcome;
    const std::wstring text(261, L'l');
    for (const std::size_t size : {521U, 522U}) {
        recorder.SetInstallDir(REG_SZ, text.data(), size);
        EXPECT_EQ(recorder.PathLookedFor(outcome), L"XVR");
        EXPECT_EQ(outcome, "0");
    }
}

TEST(DeleteXVRFolder, ExpandsNoVariables) {
    const Recorder recorder;
    const EnvironmentVariable variable(L"HALVARD_PLACE", L"other");
    recorder.Folder(L"%HALVARD_PLACE%\\XVR");
    recorder.Folder(L"other\\XVR");
    const std::wstring text = recorder.File(L"%HALVARD_PLACE%\\");
    recorder.SetInstallDir(REG_EXPAND_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
    const Calls calls;
    EXPECT_EQ(recorder.Perform(), "0");
    EXPECT_FALSE(IsThere(recorder.File(L"%HALVARD_PLACE%")));
    EXPECT_TRUE(recorder.IsWhole(L"other\\XVR"));
}

TEST(DeleteXVRFolder, WithoutAReadableValueItIsXvrInTheCurrentDirectory) {
    const Recorder recorder;
    const CurrentDirectoryScope directory(recorder.Folder(L"here"));
    std::string outcome;
    EXPECT_EQ(recorder.PathLookedFor(outcome), L"XVR"); // no key
    EXPECT_EQ(outcome, "0");
    SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"Other", L"x");
    EXPECT_EQ(recorder.PathLookedFor(outcome), L"XVR"); // no value
    EXPECT_EQ(outcome, "0");

    recorder.Folder(L"rec\\XVR");
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    EXPECT_EQ(recorder.RunFailing(L"open", ERROR_ACCESS_DENIED, 2), "0");
    EXPECT_EQ(recorder.RunFailing(L"query", ERROR_MORE_DATA), "0");
    EXPECT_TRUE(recorder.IsWhole(L"rec\\XVR"));
    EXPECT_TRUE(recorder.IsWhole(L"here"));
}

TEST(DeleteXVRFolder, ARelativeFolderGoesAndThenItHasNoFolderAbove) {
    const Recorder recorder;
    const CurrentDirectoryScope directory(recorder.Folder(L"here"));
    recorder.Folder(L"here\\XVR");
    {
        const Calls calls;
        EXPECT_EQ(recorder.Perform(), "out_of_range"); // no key
        EXPECT_EQ(calls.Of(L"empty"), Lines{});
    }
    EXPECT_FALSE(IsThere(recorder.File(L"here\\XVR")));
    recorder.Folder(L"here\\recXVR");
    recorder.SetInstallDir(L"rec");
    {
        const Calls calls;
        EXPECT_EQ(recorder.Perform(), "out_of_range");
    }
    EXPECT_FALSE(IsThere(recorder.File(L"here\\recXVR")));
    recorder.Folder(L"here\\rec\\XVR");
    recorder.SetInstallDir(L"rec\\");
    const Calls calls;
    EXPECT_EQ(recorder.Perform(), "0");
    EXPECT_FALSE(IsThere(recorder.File(L"here\\rec")));
    EXPECT_TRUE(recorder.IsWhole(L"here"));
}

TEST(DeleteXVRFolder, OnlyBackslashesCutThePath) {
    const Recorder recorder;
    recorder.Folder(L"rec\\XVR");
    recorder.SetInstallDir(L"T:/Scratch/rec/");
    {
        const Calls calls;
        EXPECT_EQ(recorder.Perform(), "out_of_range");
        EXPECT_EQ(calls.Of(L"empty"), Lines{});
    }
    EXPECT_FALSE(IsThere(recorder.File(L"rec\\XVR")));
    EXPECT_TRUE(IsThere(recorder.File(L"rec")));

    recorder.Folder(L"rec\\XVR");
    recorder.SetInstallDir(L"T:\\Scratch/rec/");
    const Calls calls;
    EXPECT_EQ(recorder.Perform(), "0");
    EXPECT_EQ(calls.Of(L"empty"), Lines{L"empty T:"});
    EXPECT_FALSE(IsThere(recorder.File(L"rec\\XVR")));
    EXPECT_TRUE(IsThere(recorder.File(L"rec")));
}

TEST(DeleteXVRFolder, AFileOfThatNameIsLeftWithItsFolder) {
    const Recorder recorder;
    CreateFolders(recorder.File(L"rec"));
    WriteWholeFile(recorder.File(L"rec\\XVR"), "x"s);
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    const Calls calls;
    EXPECT_EQ(recorder.Perform(), "0");
    EXPECT_EQ(ReadWholeFile(recorder.File(L"rec\\XVR")), "x");
    EXPECT_EQ(calls.Of(L"remove"), Lines{});
}

TEST(DeleteXVRFolder, ALinkOfThatNameIsNeitherEnteredNorRemoved) {
    const Recorder recorder;
    recorder.Folder(L"target");
    CreateFolders(recorder.File(L"rec"));
    const halvard_tests::Link link(recorder.File(L"rec"), L"XVR", L"../target");
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    {
        const Calls calls;
        EXPECT_EQ(recorder.Perform(), "filesystem_error remove_all 145 T:\\Scratch\\rec\\XVR");
        EXPECT_EQ(calls.Of(L"empty"), Lines{});
    }
    EXPECT_TRUE(recorder.IsWhole(L"target"));
}

TEST(DeleteXVRFolder, AFolderThatCannotBeAskedOrRemovedKeepsTheOneAbove) {
    const Recorder recorder;
    CreateFolders(recorder.File(L"rec\\XVR"));
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    const struct {
        const wchar_t* start;
        std::size_t nth;
        const char* operation;
    } cases[] = {{L"look", 1, "exists"}, {L"look", 2, "status"}, {L"remove", 1, "remove_all"}};
    for (const auto& failing : cases) {
        Calls calls;
        calls.Fail(failing.start, ERROR_ACCESS_DENIED, failing.nth);
        EXPECT_EQ(recorder.Perform(),
                  "filesystem_error "s + failing.operation + " 5 T:\\Scratch\\rec\\XVR");
        EXPECT_EQ(calls.Of(L"empty"), Lines{});
        EXPECT_TRUE(IsThere(recorder.File(L"rec\\XVR")));
    }
    WriteWholeFile(recorder.File(L"rec\\XVR\\file"), "x"s);
    const HANDLE held = CreateFileW(recorder.File(L"rec\\XVR\\file").c_str(), GENERIC_READ, 0,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    {
        const Calls calls;
        EXPECT_EQ(recorder.Perform(), "filesystem_error remove_all 32 T:\\Scratch\\rec\\XVR");
    }
    CloseHandle(held);
}

TEST(DeleteXVRFolder, TheFolderAboveThatCannotBeRemoved) {
    const Recorder recorder;
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    CreateFolders(recorder.File(L"rec\\XVR"));
    EXPECT_EQ(recorder.RunFailing(L"remove", ERROR_ACCESS_DENIED, 2),
              "filesystem_error remove 5 T:\\Scratch\\rec");
    EXPECT_TRUE(IsThere(recorder.File(L"rec")));
    EXPECT_FALSE(IsThere(recorder.File(L"rec\\XVR")));
    // Gone already is as good.
    CreateFolders(recorder.File(L"rec\\XVR"));
    EXPECT_EQ(recorder.RunFailing(L"remove", ERROR_FILE_NOT_FOUND, 2), "0");

    CreateFolders(recorder.File(L"rec\\XVR"));
    const CurrentDirectoryScope directory(recorder.File(L"rec")); // in use
    const Calls calls;
    EXPECT_EQ(recorder.Perform(), "filesystem_error remove 32 T:\\Scratch\\rec");
}

TEST(DeleteXVRFolder, TheFolderAboveGoesAloneOrNotAtAll) {
    const Recorder recorder;
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    recorder.Folder(L"rec\\XVR");
    recorder.Folder(L"rec");
    // As when another program fills it behind the question.
    FAIL_CALL(executing, ShellExecuteExW, 0, TRUE, NO_ERROR);
    FAIL_CALL(asking, GetExitCodeProcess, 0, TRUE, NO_ERROR);
    FAIL_CALL(emptying, PathIsDirectoryEmptyW, 0, TRUE, NO_ERROR);
    EXPECT_EQ(recorder.Perform(), "filesystem_error remove 145 T:\\Scratch\\rec");
    EXPECT_TRUE(recorder.IsWhole(L"rec"));
    EXPECT_FALSE(IsThere(recorder.File(L"rec\\XVR")));
}

TEST(DeleteXVRFolder, OnADriveItsFolderGoesAndTheDriveStays) {
    const Recorder recorder;
    recorder.SetInstallDir(L"T:\\");
    CreateFolders(L"T:\\XVR");
    {
        const Calls calls;
        EXPECT_EQ(recorder.Perform(), "0");
        EXPECT_EQ(calls.Of(L"empty"), Lines{L"empty T:"});
        EXPECT_EQ(calls.Of(L"remove"), Lines{L"remove folder " + kDrive + L"XVR"});
        EXPECT_FALSE(IsThere(L"T:\\XVR"));
    }
    // A drive that counts as an empty folder is tried like any other.
    CreateFolders(L"T:\\XVR");
    FAIL_CALL(executing, ShellExecuteExW, 0, TRUE, NO_ERROR);
    FAIL_CALL(asking, GetExitCodeProcess, 0, TRUE, NO_ERROR);
    FAIL_CALL(emptying, PathIsDirectoryEmptyW, 0, TRUE, NO_ERROR);
    HOOK(removing, RemoveDirectoryW, [&](LPCWSTR path) {
        if (path == kDrive) {
            SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        return removing.Original(path);
    });
    EXPECT_EQ(recorder.Perform(), "filesystem_error remove 5 T:");
    EXPECT_EQ(removing.Calls(), 2);
    EXPECT_TRUE(IsThere(recorder.scratch.Path()));
}

TEST(DeleteXVRFolder, ALoneBackslashIsTheDriveOfTheCurrentDirectoryWithoutAFolderAbove) {
    const Recorder recorder;
    const CurrentDirectoryScope directory(recorder.Folder(L"here"));
    recorder.SetInstallDir(L"\\");
    CreateFolders(L"T:\\XVR\\below");
    const Calls calls;
    EXPECT_EQ(recorder.Perform(), "0");
    EXPECT_EQ(calls.Of(L"exists"), Lines{L"exists \\XVR"});
    EXPECT_EQ(calls.Of(L"empty"), Lines{L"empty "});
    EXPECT_FALSE(IsThere(L"T:\\XVR"));
    EXPECT_TRUE(recorder.IsWhole(L"here"));
    EXPECT_TRUE(IsThere(recorder.scratch.Path()));
}

TEST(DeleteXVRFolder, LeavesItsOwnKeyOpenOnPurposeAndNothingElse) {
    const Recorder recorder;
    const auto leftOpen = [&](const std::wstring& failing, std::size_t nth) {
        CreateFolders(recorder.File(L"rec\\XVR"));
        const int before = OpenHandleCount();
        recorder.RunFailing(failing, ERROR_ACCESS_DENIED, nth);
        return OpenHandleCount() - before;
    };
    EXPECT_EQ(leftOpen(L"nothing", 1), 0); // no key
    recorder.SetInstallDir(recorder.File(L"rec\\"));
    EXPECT_EQ(leftOpen(L"nothing", 1), 1);
    EXPECT_EQ(leftOpen(L"query", 1), 1);
    EXPECT_EQ(leftOpen(L"exists", 1), 1);
    EXPECT_EQ(leftOpen(L"look", 1), 1);
    EXPECT_EQ(leftOpen(L"look", 2), 1);
    EXPECT_EQ(leftOpen(L"remove", 1), 1);
    EXPECT_EQ(leftOpen(L"remove", 2), 1);
    EXPECT_EQ(leftOpen(L"open", 1), 0);
    EXPECT_EQ(leftOpen(L"read", 2), 0);
    EXPECT_EQ(leftOpen(L"start", 1), 0);
    EXPECT_EQ(leftOpen(L"exit code", 1), 0);
    EXPECT_EQ(leftOpen(L"open", 2), 0);
}

namespace {

// The one call of an action by which a program was really started.
void ExpectOneRun(const std::wstring& program, const std::wstring& commandLine) {
    EXPECT_EQ(Recordings(),
              (std::vector<Recording>{{program, halvard_tests::CurrentDirectory(), commandLine}}));
}

} // namespace

TEST(FolderActions, ReallyAskTheCommandToolToExitWhateverItAnswers) {
    const Machine machine;
    CreateFolders(machine.File(L"rec\\XVR"));
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"7");
    for (const wchar_t* location : {L"T:\\Apps\\Pivot", L"T:\\Apps\\With blanks"}) {
        for (const auto run : {DeletePVFolder, DeleteXVRFolder}) {
            const PivotInstallation pivot(location);
            const RecorderAt tool(pivot.File(L"pvcmd.exe"));
            SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"InstallDir",
                              machine.File(L"rec\\"));
            EXPECT_EQ(run(machine.session.Get()), 0U);
            ExpectOneRun(L"pvcmd.exe", L"\""s + location + L"\\pvcmd.exe\" exit");
            EXPECT_EQ(IsThere(pivot.Location()), run == DeleteXVRFolder);
            CreateFolders(machine.File(L"rec\\XVR"));
        }
    }
}

TEST(FolderActions, GoOnWhenTheCommandToolDoesNotEndInTime) {
    const Machine machine;
    CreateFolders(machine.File(L"rec\\XVR"));
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"1500");
    const PivotInstallation pivot;
    SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"InstallDir", machine.File(L"rec\\"));
    const RecorderAt tool(pivot.File(L"pvcmd.exe"));
    std::vector<DWORD> timeouts;
    HOOK(waiting, WaitForSingleObject, [&](HANDLE handle, DWORD timeout) -> DWORD {
        if (timeout == INFINITE) {
            return waiting.Original(handle, timeout); // of the test framework
        }
        timeouts.push_back(timeout);
        return WAIT_TIMEOUT;
    });
    EXPECT_EQ(DeleteXVRFolder(machine.session.Get()), 0U);
    EXPECT_FALSE(IsThere(machine.File(L"rec")));
    // A tool that still runs is in use, and so its folder stays.
    EXPECT_EQ(Perform(kPivot, machine), "filesystem_error remove_all 5 T:\\Apps\\Pivot");
    EXPECT_TRUE(IsThere(pivot.File(L"pvcmd.exe")));
    EXPECT_EQ(timeouts, (std::vector<DWORD>{30000, 30000}));
    halvard_tests::WaitForRecordings(2);
}

TEST(FolderActions, FailWithoutACommandToolBeforeTheirFolderIsLookedAt) {
    const Machine machine;
    CreateFolders(machine.File(L"rec\\XVR"));
    const PivotInstallation pivot;
    SetRegistryString(HKEY_LOCAL_MACHINE, kRecorderKey, L"InstallDir", machine.File(L"rec\\"));
    for (const auto run : {DeletePVFolder, DeleteXVRFolder}) {
        EXPECT_EQ(OutcomeOf([&] { return run(machine.session.Get()); }),
                  "system_error Unable to create process 2");
    }
    EXPECT_TRUE(IsThere(pivot.Location()));
    EXPECT_TRUE(IsThere(machine.File(L"rec\\XVR")));
}

TEST(DeletePVINSTALLDIRFolder, ReallyRunsPowerShellWhateverItAnswers) {
    const Machine machine;
    PointPivotTo(machine, machine.Folder(L"app"));
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"7");
    const RecorderAt powerShell(kPowerShell);
    EXPECT_EQ(Perform(kPivotInstallDir, machine), "0");
    ExpectOneRun(L"powershell.exe", L"\""s + kPowerShell +
                                        L"\" Get-AppxPackage ZenvoCorporationInc-VSXCM* | "
                                        L"Remove-AppxPackage -AllUsers");
    EXPECT_FALSE(IsThere(machine.File(L"app")));
}
