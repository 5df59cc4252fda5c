#include "runtime/registry.h"

#include "call_trace.h"
#include "child_programs.h"
#include "engine_values.h"
#include "import_hook.h"
#include "open_handles.h"
#include "registry_error.h"
#include "registry_key.h"
#include "system_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <optional>
#include <string_view>

using halvard::ReadMultiString;
using halvard::ReadRegistryString;
using halvard::RegKeyError;
using halvard::WriteMultiString;
using halvard_tests::CallTrace;
using halvard_tests::EnvironmentVariable;
using halvard_tests::ExpectRegKeyError;
using halvard_tests::Here;
using halvard_tests::kRegistry;
using halvard_tests::ScratchKey;
using halvard_tests::SystemText;
using halvard_tests::engines::kEmptyList;
using halvard_tests::engines::kUnterminatedText;
using Strings = std::list<std::wstring>;
using namespace std::string_literals;

namespace {

constexpr char kUnableToGet[] = "Unable to get registry value";
constexpr char kUnableToOpen[] = "Unable to open registry key";

// Changes something behind the question for a value's size.
class ChangeBeforeTheRead {
public:
    explicit ChangeBeforeTheRead(std::function<void()> change) {
        trace_.before = [this, change = std::move(change)](const std::wstring&) {
            if (trace_.Count() == 2) {
                change();
            }
        };
    }

    const CallTrace& Calls() const { return trace_; }

private:
    CallTrace trace_{kRegistry};
};

// The question for a value's size is answered with this many bytes more than the value has.
class LargerSize {
public:
    explicit LargerSize(DWORD more) : more_(more) {}

private:
    DWORD more_;
    HOOK(reading_, RegGetValueW,
         [this](HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
                LPDWORD size) {
             const LSTATUS status = reading_.Original(key, subkey, name, flags, type, data, size);
             *size += data == nullptr ? more_ : 0;
             return status;
         });
};

} // namespace

TEST(RegKeyError, CarriesCodeCategoryAndMessage) {
    const RegKeyError fromText(5, std::system_category(), "Some message");
    EXPECT_EQ(fromText.code(), std::error_code(5, std::system_category()));
    EXPECT_EQ(fromText.what(), "Some message: " + SystemText(5));
    const RegKeyError fromString(6, std::system_category(), std::string("Other message"));
    EXPECT_EQ(fromString.code(), std::error_code(6, std::system_category()));
    EXPECT_EQ(fromString.what(), "Other message: " + SystemText(6));
}

TEST(RegKeyError, IsCaughtAsAnyOfItsBases) {
    EXPECT_THROW(throw RegKeyError(5, std::system_category(), "x"), std::system_error);
    EXPECT_THROW(throw RegKeyError(5, std::system_category(), "x"), std::runtime_error);
    EXPECT_THROW(throw RegKeyError(5, std::system_category(), "x"), std::exception);
}

TEST(ReadRegistryString, ReadsAValueOfTheKeyOrOfASubkey) {
    const ScratchKey key;
    key.SetString(L"Name", L"C:\\Program Files\\\u0416");
    EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Name", true), L"C:\\Program Files\\\u0416");
    EXPECT_EQ(ReadRegistryString(HKEY_LOCAL_MACHINE, key.Path(), L"Name", true),
              L"C:\\Program Files\\\u0416");
}

TEST(ReadRegistryString, AnEmptyValueIsNoError) {
    const ScratchKey key;
    key.SetString(L"Empty", L"");
    key.SetCharacters(L"NoBytes", REG_SZ, L"");
    EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Empty", true), L"");
    EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"NoBytes", true), L"");
}

TEST(ReadRegistryString, AMissingValueIsEmptyOrThrows) {
    const ScratchKey key;
    EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Missing", false), L"");
    EXPECT_EQ(ReadRegistryString(key.Get(), L"NoSubkey", L"Missing", false), L"");
    ExpectRegKeyError([&] { ReadRegistryString(key.Get(), L"", L"Missing", true); }, kUnableToGet,
                      ERROR_FILE_NOT_FOUND);
    ExpectRegKeyError([&] { ReadRegistryString(key.Get(), L"NoSubkey", L"Missing", true); },
                      kUnableToGet, ERROR_FILE_NOT_FOUND);
}

TEST(ReadRegistryString, OtherTypesCountAsUnreadable) {
    const ScratchKey key;
    for (const DWORD type : {REG_NONE, REG_BINARY, REG_DWORD, REG_MULTI_SZ, REG_QWORD}) {
        key.SetBytes(L"Other", type, {1, 0, 0, 0, 0, 0, 0, 0});
        EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Other", false), L"") << type;
        ExpectRegKeyError([&] { ReadRegistryString(key.Get(), L"", L"Other", true); }, kUnableToGet,
                          ERROR_UNSUPPORTED_TYPE);
    }
}

TEST(ReadRegistryString, GivesTheTextUpToTheFirstNullCharacter) {
    const ScratchKey key;
    key.SetCharacters(L"Cut", REG_SZ, L"ab\0cd\0"s);
    key.SetCharacters(L"NoTerminator", REG_SZ, L"abc");
    EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Cut", true), L"ab");
    const auto read = [&] {
        return ReadRegistryString(key.Get(), L"", L"NoTerminator", true);
    };
    if (Here(kUnterminatedText) == NO_ERROR) {
        EXPECT_EQ(read(), L"abc");
    } else {
        ExpectRegKeyError(read, kUnableToGet, NO_ERROR);
    }
}

TEST(ReadRegistryString, AValueWithVariablesComesExpanded) {
    const ScratchKey key;
    const EnvironmentVariable place(L"HALVARD_PLACE", L"C:\\A longer place");
    key.SetCharacters(L"Name", REG_EXPAND_SZ, L"%HALVARD_PLACE%\\x\0"s);
    EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Name", true), L"C:\\A longer place\\x");
    // Those in a value of the plain type stay.
    key.SetString(L"Plain", L"%HALVARD_PLACE%\\x");
    EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Plain", true), L"%HALVARD_PLACE%\\x");
}

TEST(ReadRegistryString, ASizeThatIsLargerThanTheValueMakesNoDifference) {
    const ScratchKey key;
    key.SetString(L"Name", L"abc");
    key.SetString(L"Empty", L"");
    for (const DWORD more : {1U, 2U, 40U}) {
        const LargerSize larger(more);
        EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Name", true), L"abc") << more;
        EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Empty", true), L"") << more;
    }
}

TEST(ReadRegistryString, LongValuesAreReadWhole) {
    const ScratchKey key;
    const std::wstring text(32768, L'x');
    key.SetString(L"Long", text);
    EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Long", true), text);
}

TEST(ReadRegistryString, AsksTwiceForOneTypeAndReadsIntoAZeroedBufferOfTheSizeAskedFor) {
    const ScratchKey key;
    key.SetString(L"Name", L"abc");
    HOOK(reading, RegGetValueW,
         [&](HKEY handle, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
             LPDWORD size) {
             EXPECT_EQ(handle, HKEY_LOCAL_MACHINE);
             EXPECT_EQ(subkey, key.Path());
             EXPECT_STREQ(name, L"Name");
             EXPECT_EQ(flags, static_cast<DWORD>(RRF_RT_REG_SZ));
             EXPECT_EQ(type, nullptr);
             if (reading.Calls() == 1) {
                 EXPECT_EQ(data, nullptr);
             } else {
                 EXPECT_EQ(*size, 8U);
                 EXPECT_EQ(std::wstring_view(static_cast<wchar_t*>(data), 4), L"\0\0\0\0"s);
             }
             return reading.Original(handle, subkey, name, flags, type, data, size);
         });
    EXPECT_EQ(ReadRegistryString(HKEY_LOCAL_MACHINE, key.Path(), L"Name", true), L"abc");
    EXPECT_EQ(reading.Calls(), 2);
}

TEST(ReadRegistryString, AValueThatChangesBetweenTheReads) {
    struct Change {
        const char* what;
        void (*apply)(const ScratchKey&);
        std::wstring text;
        std::optional<int> code; // of the exception, when the read fails
    };
    const Change changes[] = {
        {"grows", [](const ScratchKey& key) { key.SetString(L"Name", L"abcdef"); }, L"", 0},
        {"vanishes", [](const ScratchKey& key) { RegDeleteValueW(key.Get(), L"Name"); }, L"", 0},
        {"changes its type",
         [](const ScratchKey& key) {
             key.SetBytes(L"Name", REG_DWORD, {1, 0, 0, 0});
         },
         L"", 0},
        {"shrinks", [](const ScratchKey& key) { key.SetString(L"Name", L"a"); }, L"a", {}},
    };
    for (const Change& change : changes) {
        for (const bool throwOnError : {false, true}) {
            const ScratchKey key;
            key.SetString(L"Name", L"abc");
            const ChangeBeforeTheRead atTheRead([&] { change.apply(key); });
            std::wstring text = L"unset";
            const auto read = [&] {
                text = ReadRegistryString(key.Get(), L"", L"Name", throwOnError);
            };
            if (throwOnError && change.code) {
                ExpectRegKeyError(read, kUnableToGet, *change.code);
            } else {
                read();
                EXPECT_EQ(text, change.text) << change.what;
            }
        }
    }
}

TEST(ReadRegistryString, AValueThatAppearsBetweenTheReadsIsEmpty) {
    const ScratchKey key;
    const ChangeBeforeTheRead atTheRead([&] { key.SetString(L"Name", L"abc"); });
    EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Name", true), L"");
    // Without a buffer, both of them.
    EXPECT_EQ(atTheRead.Calls().Of({L"size of"}).size(), 2U);
}

TEST(ReadRegistryString, EachCallFailingInTurn) {
    const ScratchKey key;
    key.SetString(L"Name", L"abc");
    {
        FAIL_CALL(reading, RegGetValueW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Name", false), L"");
        ExpectRegKeyError([&] { ReadRegistryString(key.Get(), L"", L"Name", true); }, kUnableToGet,
                          ERROR_ACCESS_DENIED);
    }
    {
        // Only the second call counts, and it can succeed: it then has no buffer to fill.
        FAIL_CALL(reading, RegGetValueW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Name", true), L"");
    }
    {
        FAIL_CALL(reading, RegGetValueW, 2, ERROR_ACCESS_DENIED, NO_ERROR);
        ExpectRegKeyError([&] { ReadRegistryString(key.Get(), L"", L"Name", true); }, kUnableToGet,
                          0);
    }
}

TEST(ReadRegistryString, AnOddByteCountStaysInsideTheBuffer) {
    const ScratchKey key;
    HOOK(reading, RegGetValueW,
         [&](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID data, LPDWORD size) {
             *size = 5;
             if (data != nullptr) {
                 std::memcpy(data, "a\0b\0c", 5);
             }
             return ERROR_SUCCESS;
         });
    EXPECT_EQ(ReadRegistryString(key.Get(), L"", L"Odd", true), L"ab");
}

TEST(OpenRegistryKey, OpensBelowTheLocalMachineForReadingAndWriting) {
    const ScratchKey key;
    const CallTrace trace(kRegistry);
    const halvard::OwnedKey opened = halvard::OpenRegistryKey(key.Path());
    EXPECT_EQ(trace.All(), Lines{L"open HKLM\\" + key.Path() + L" 0x2001f"});
    ASSERT_TRUE(opened);
    EXPECT_EQ(
        RegSetValueExW(opened.get(), L"Written", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"x"), 4),
        ERROR_SUCCESS);
    EXPECT_EQ(key.ReadCharacters(L"Written"), L"x\0"s);
}

TEST(OpenRegistryKey, ThrowsTheCodeOfTheFailure) {
    const ScratchKey key;
    ExpectRegKeyError([&] { halvard::OpenRegistryKey(key.Path() + L"\\Missing"); }, kUnableToOpen,
                      ERROR_FILE_NOT_FOUND);
    FAIL_CALL(opening, RegOpenKeyExW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
    ExpectRegKeyError([&] { halvard::OpenRegistryKey(key.Path()); }, kUnableToOpen,
                      ERROR_ACCESS_DENIED);
}

TEST(OpenRequiredKey, OpensWithTheRootAndTheAccessGiven) {
    const CallTrace trace(kRegistry, 1);
    ExpectRegKeyError(
        [] {
            halvard::OpenRequiredKey(HKEY_CURRENT_USER, L"Some\\Key",
                                     KEY_ALL_ACCESS | KEY_WOW64_32KEY);
        },
        kUnableToOpen, ERROR_ACCESS_DENIED);
    EXPECT_EQ(trace.All(), Lines{L"open HKCU\\Some\\Key 0xf023f"});
}

TEST(ReadRequiredString, ReadsTheValueAndClosesTheKey) {
    const ScratchKey key;
    key.SetString(L"Name", L"text");
    const int before = halvard_tests::OpenHandleCount();
    EXPECT_EQ(
        halvard::ReadRequiredString(HKEY_LOCAL_MACHINE, key.Path().c_str(), KEY_READ, L"Name"),
        L"text");
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

TEST(ReadRequiredString, ThrowsWithoutTheKeyOrTheValueAndLeavesNothingOpen) {
    const ScratchKey key;
    const auto read = [](const std::wstring& path) {
        halvard::ReadRequiredString(HKEY_LOCAL_MACHINE, path.c_str(), KEY_READ, L"Missing");
    };
    ExpectRegKeyError([&] { read(key.Path()); }, kUnableToGet, ERROR_FILE_NOT_FOUND);
    const int before = halvard_tests::OpenHandleCount();
    ExpectRegKeyError([&] { read(key.Path()); }, kUnableToGet, ERROR_FILE_NOT_FOUND);
    ExpectRegKeyError([&] { read(key.Path() + L"\\Missing"); }, kUnableToOpen,
                      ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

TEST(OpenKey, PassesThisToTheSystemAndGivesNoneForARefusal) {
    const CallTrace trace(kRegistry, 1);
    EXPECT_FALSE(halvard::OpenKey(HKEY_USERS, L"Key", KEY_READ | KEY_WOW64_32KEY));
    // Nothing to close, whatever the call has left: it has failed.
    EXPECT_EQ(trace.All(), Lines{L"open HKU\\Key 0x20219"});
}

TEST(CreateKey, PassesThisToTheSystemAndGivesItsCode) {
    const CallTrace trace(kRegistry, 1, ERROR_WRITE_PROTECT);
    halvard::OwnedKey key;
    EXPECT_EQ(halvard::CreateKey(HKEY_USERS, L"Key", KEY_SET_VALUE, key), ERROR_WRITE_PROTECT);
    EXPECT_FALSE(key);
    EXPECT_EQ(trace.All(), Lines{L"create HKU\\Key 0x2"});
}

TEST(SetText, PassesThisToTheSystem) {
    HOOK(setting, RegSetValueExW,
         [&](HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data,
             DWORD size) -> LSTATUS {
             EXPECT_EQ(key, HKEY_USERS);
             EXPECT_EQ(name, std::wstring(L"Name"));
             EXPECT_EQ(reserved, 0U);
             const std::wstring text(reinterpret_cast<const wchar_t*>(data),
                                     size / sizeof(wchar_t));
             const auto* const number = reinterpret_cast<const DWORD*>(data);
             if (setting.Calls() == 1) {
                 EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
                 EXPECT_EQ(text, std::wstring(L"a\0b\0", 4));
             } else {
                 EXPECT_EQ(type, static_cast<DWORD>(REG_DWORD));
                 EXPECT_EQ(size, sizeof(DWORD));
                 EXPECT_EQ(*number, 0x12345678U);
             }
             return ERROR_WRITE_PROTECT;
         });
    EXPECT_EQ(halvard::SetText(HKEY_USERS, L"Name", std::wstring(L"a\0b", 3)), ERROR_WRITE_PROTECT);
    EXPECT_EQ(halvard::SetNumber(HKEY_USERS, L"Name", 0x12345678), ERROR_WRITE_PROTECT);
    EXPECT_EQ(setting.Calls(), 2);
}

TEST(CloseRegistryKey, ClosesTheKeyOnceAndLeavesTheHolderNull) {
    const ScratchKey key;
    const int before = halvard_tests::OpenHandleCount();
    halvard::OwnedKey opened = halvard::OpenRegistryKey(key.Path());
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before + 1);
    COUNT_CALLS(closing, RegCloseKey);
    halvard::CloseRegistryKey(opened);
    EXPECT_EQ(opened.get(), nullptr);
    EXPECT_EQ(closing.Calls(), 1);
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);

    halvard::CloseRegistryKey(opened);
    EXPECT_EQ(closing.Calls(), 1);
}

TEST(ReadMultiString, KeepsTheEmptyElementOfTheTerminator) {
    const ScratchKey key;
    key.SetCharacters(L"List", REG_MULTI_SZ, L"a\0b\0\0"s);
    key.SetCharacters(L"One", REG_MULTI_SZ, L"x\0\0"s);
    EXPECT_EQ(ReadMultiString(key.Get(), L"List"), (Strings{L"a", L"b", L""}));
    EXPECT_EQ(ReadMultiString(key.Get(), L"One"), (Strings{L"x", L""}));
}

TEST(ReadMultiString, ReadsLongValues) {
    const ScratchKey key;
    const std::wstring element(32768, L'x');
    key.SetCharacters(L"List", REG_MULTI_SZ, element + L"\0y\0\0"s);
    EXPECT_EQ(ReadMultiString(key.Get(), L"List"), (Strings{element, L"y", L""}));
}

TEST(ReadMultiString, ThrowsWhenTheSizeCannotBeLearned) {
    const ScratchKey key;
    ExpectRegKeyError([&] { ReadMultiString(key.Get(), L"Missing"); }, kUnableToGet,
                      ERROR_FILE_NOT_FOUND);
    key.SetString(L"Text", L"abc");
    ExpectRegKeyError([&] { ReadMultiString(key.Get(), L"Text"); }, kUnableToGet,
                      ERROR_UNSUPPORTED_TYPE);
    key.SetCharacters(L"List", REG_MULTI_SZ, L"a\0\0"s);
    FAIL_CALL(reading, RegGetValueW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
    ExpectRegKeyError([&] { ReadMultiString(key.Get(), L"List"); }, kUnableToGet,
                      ERROR_ACCESS_DENIED);
    EXPECT_EQ(reading.Calls(), 1);
}

TEST(ReadMultiString, DoesNotCheckTheSecondCall) {
    const ScratchKey key;
    key.SetCharacters(L"List", REG_MULTI_SZ, L"a\0\0"s);
    FAIL_CALL(reading, RegGetValueW, 2, ERROR_ACCESS_DENIED, NO_ERROR);
    // Three characters of a buffer that stayed zero.
    EXPECT_EQ(ReadMultiString(key.Get(), L"List"), (Strings{L"", L"", L""}));
    EXPECT_EQ(reading.Calls(), 2);
}

TEST(ReadMultiString, AsksForOneTypeAndCutsToTheSizeThatTheReadReports) {
    const ScratchKey key;
    key.SetCharacters(L"List", REG_MULTI_SZ, L"abc\0def\0\0"s);
    HOOK(reading, RegGetValueW,
         [&](HKEY handle, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
             LPDWORD size) {
             EXPECT_EQ(handle, key.Get());
             EXPECT_STREQ(subkey, L"");
             EXPECT_STREQ(name, L"List");
             EXPECT_EQ(flags, static_cast<DWORD>(RRF_RT_REG_MULTI_SZ));
             EXPECT_EQ(type, nullptr);
             EXPECT_EQ(data == nullptr, reading.Calls() == 1);
             if (reading.Calls() == 2) {
                 EXPECT_EQ(*size, 18U);
                 key.SetCharacters(L"List", REG_MULTI_SZ, L"x\0\0"s);
             }
             return reading.Original(handle, subkey, name, flags, type, data, size);
         });
    EXPECT_EQ(ReadMultiString(key.Get(), L"List"), (Strings{L"x", L""}));
}

TEST(ReadMultiString, ASizeThatIsLargerThanTheValueMakesNoDifference) {
    const ScratchKey key;
    key.SetCharacters(L"List", REG_MULTI_SZ, L"a\0b\0\0"s);
    for (const DWORD more : {1U, 2U, 40U}) {
        const LargerSize larger(more);
        EXPECT_EQ(ReadMultiString(key.Get(), L"List"), (Strings{L"a", L"b", L""})) << more;
    }
}

TEST(ReadMultiString, AValueThatGrowsBetweenTheCallsGivesEmptyElements) {
    const ScratchKey key;
    key.SetCharacters(L"List", REG_MULTI_SZ, L"a\0\0"s);
    const ChangeBeforeTheRead atTheRead(
        [&] { key.SetCharacters(L"List", REG_MULTI_SZ, L"abc\0def\0\0"s); });
    const Strings strings = ReadMultiString(key.Get(), L"List");
    EXPECT_EQ(strings, Strings(9));
}

TEST(ReadMultiString, AValueThatVanishesBetweenTheCallsGivesEmptyElements) {
    const ScratchKey key;
    key.SetCharacters(L"List", REG_MULTI_SZ, L"a\0\0"s);
    HOOK(reading, RegGetValueW,
         [&](HKEY handle, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
             LPDWORD size) {
             if (reading.Calls() == 2) {
                 RegDeleteValueW(key.Get(), L"List");
             }
             const LSTATUS status = reading.Original(handle, subkey, name, flags, type, data, size);
             if (reading.Calls() == 2) {
                 EXPECT_EQ(status, ERROR_FILE_NOT_FOUND);
                 *size = 6; // Windows leaves it as it was
             }
             return status;
         });
    EXPECT_EQ(ReadMultiString(key.Get(), L"List"), Strings(3));
}

TEST(ReadMultiString, AValueThatChangesItsTypeBetweenTheCallsGivesEmptyElements) {
    const ScratchKey key;
    key.SetCharacters(L"List", REG_MULTI_SZ, L"abc\0\0"s);
    DWORD reported = 0;
    HOOK(reading, RegGetValueW,
         [&](HKEY handle, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
             LPDWORD size) {
             if (data != nullptr) {
                 key.SetString(L"List", L"a string of another type");
             }
             const LSTATUS status = reading.Original(handle, subkey, name, flags, type, data, size);
             EXPECT_EQ(status == ERROR_SUCCESS, data == nullptr);
             reported = *size;
             return status;
         });
    const Strings strings = ReadMultiString(key.Get(), L"List");
    // As many as the refused read told bytes for.
    EXPECT_EQ(strings, Strings(reported / sizeof(wchar_t)));
    EXPECT_GT(reported, 0U);
    EXPECT_EQ(reading.Calls(), 2);
}

TEST(ReadMultiString, ValuesOfEveryLengthEndWithoutHarm) {
    const ScratchKey key;
    key.SetCharacters(L"Unterminated", REG_MULTI_SZ, L"a\0b"s);
    key.SetCharacters(L"NoBytes", REG_MULTI_SZ, L"");
    key.SetCharacters(L"OneNull", REG_MULTI_SZ, L"\0"s);
    key.SetBytes(L"OddBytes", REG_MULTI_SZ, {'a', 0, 0, 0, 'b'});
    EXPECT_EQ(ReadMultiString(key.Get(), L"Unterminated").front(), L"a");
    EXPECT_EQ(ReadMultiString(key.Get(), L"NoBytes"), Strings(Here(kEmptyList) / 2));
    EXPECT_EQ(ReadMultiString(key.Get(), L"OneNull").front(), L"");
    EXPECT_EQ(ReadMultiString(key.Get(), L"OddBytes").front(), L"a");
}

TEST(ReadMultiString, AnOddByteCountStaysInsideTheBuffer) {
    const ScratchKey key;
    // Too long for the buffer that a short string has in itself: the heap check sees an overrun.
    constexpr DWORD bytes = 41;
    HOOK(reading, RegGetValueW,
         [&](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID data, LPDWORD size) {
             *size = bytes;
             if (data != nullptr) {
                 std::memset(data, 0, bytes);
                 std::memcpy(data, "a", 1);
                 static_cast<BYTE*>(data)[bytes - 1] = 'c';
             }
             return ERROR_SUCCESS;
         });
    Strings expected(19);
    expected.front() = L"a";
    EXPECT_EQ(ReadMultiString(key.Get(), L"Odd"), expected);
}

TEST(WriteMultiString, StoresEveryElementWithItsTerminatorAndOneMore) {
    const ScratchKey key;
    WriteMultiString(key.Get(), L"List", {L"a", L"", L"\u0416b"});
    EXPECT_EQ(key.ReadCharacters(L"List"), L"a\0\0\u0416b\0\0"s);
    EXPECT_EQ(key.Read(L"List").type, static_cast<DWORD>(REG_MULTI_SZ));
}

TEST(WriteMultiString, PassesThisToTheRegistry) {
    const ScratchKey key;
    HOOK(writing, RegSetValueExW,
         [&](HKEY handle, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
             EXPECT_EQ(handle, key.Get());
             EXPECT_STREQ(name, L"List");
             EXPECT_EQ(reserved, 0U);
             EXPECT_EQ(type, static_cast<DWORD>(REG_MULTI_SZ));
             EXPECT_EQ(size, 6U);
             return writing.Original(handle, name, reserved, type, data, size);
         });
    WriteMultiString(key.Get(), L"List", {L"a"});
    EXPECT_EQ(writing.Calls(), 1);
}

TEST(WriteMultiString, AnEmptyListIsTwoZeroBytes) {
    const ScratchKey key;
    WriteMultiString(key.Get(), L"List", {});
    EXPECT_EQ(key.Read(L"List").bytes, (std::vector<BYTE>{0, 0}));
}

TEST(WriteMultiString, AValueReadAndWrittenBackGainsOneNullCharacter) {
    const ScratchKey key;
    key.SetCharacters(L"List", REG_MULTI_SZ, L"x\0\0"s);
    WriteMultiString(key.Get(), L"List", ReadMultiString(key.Get(), L"List"));
    EXPECT_EQ(key.ReadCharacters(L"List"), L"x\0\0\0"s);
}

TEST(WriteMultiString, ThrowsTheCodeAndNamesTheValue) {
    const ScratchKey key;
    FAIL_CALL(writing, RegSetValueExW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
    ExpectRegKeyError([&] { WriteMultiString(key.Get(), L"UpperFilters", {L"a"}); },
                      "Unable to write REG_MULTI_SZ value = UpperFilters", ERROR_ACCESS_DENIED);
    ExpectRegKeyError([&] { WriteMultiString(key.Get(), L"", {L"a"}); },
                      "Unable to write REG_MULTI_SZ value = ", ERROR_ACCESS_DENIED);
    // The code page of the tests knows Latin letters only.
    ExpectRegKeyError([&] { WriteMultiString(key.Get(), L"\u00e9", {L"a"}); },
                      "Unable to write REG_MULTI_SZ value = \xe9", ERROR_ACCESS_DENIED);
    ExpectRegKeyError([&] { WriteMultiString(key.Get(), L"a\u0416b", {L"a"}); },
                      "Unable to write REG_MULTI_SZ value = a?b", ERROR_ACCESS_DENIED);
    // A name ends at its null character, for the registry and for the message.
    ExpectRegKeyError([&] { WriteMultiString(key.Get(), L"a\0b"s, {L"a"}); },
                      "Unable to write REG_MULTI_SZ value = a", ERROR_ACCESS_DENIED);
}

TEST(WriteMultiString, KeepsItsCodeWhenTheNameCannotBeConverted) {
    const ScratchKey key;
    FAIL_CALL(writing, RegSetValueExW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
    FAIL_CALL(converting, WideCharToMultiByte, 0, 0, ERROR_NO_UNICODE_TRANSLATION);
    ExpectRegKeyError([&] { WriteMultiString(key.Get(), L"List", {L"a"}); },
                      "Unable to write REG_MULTI_SZ value = ", ERROR_ACCESS_DENIED);
}

TEST(WriteMultiString, CutsTheMessageAt259Bytes) {
    const ScratchKey key;
    FAIL_CALL(writing, RegSetValueExW, 0, ERROR_ACCESS_DENIED, NO_ERROR);
    const std::string start = "Unable to write REG_MULTI_SZ value = ";
    const std::size_t room = 259 - start.size();
    for (const std::size_t length : {room, room + 1, std::size_t{16000}}) {
        const std::string message = start + std::string(room, 'n');
        ExpectRegKeyError([&] { WriteMultiString(key.Get(), std::wstring(length, L'n'), {L"a"}); },
                          message, ERROR_ACCESS_DENIED);
    }
}
