#include "agent/pending_renames.h"

#include "runtime/registry.h"

#include "allocation_failure.h"
#include "call_trace.h"
#include "engine_values.h"
#include "files.h"
#include "import_hook.h"
#include "lines.h"
#include "open_handles.h"
#include "registry_error.h"
#include "restart_renames.h"

#include <gtest/gtest.h>

using halvard::CleanPendingRenames;
using halvard::RegKeyError;
using halvard_tests::CallTrace;
using halvard_tests::ExpectRegKeyError;
using halvard_tests::kRegistry;
using halvard_tests::OpenHandleCount;
using halvard_tests::PendingRenames;
using halvard_tests::ScratchFolder;
using halvard_tests::WritableKeys;
using namespace std::string_literals;

namespace {

const std::wstring kManager = L"HKLM\\SYSTEM\\CurrentControlSet\\Control\\Session Manager";
const std::wstring kName = L"PendingFileRenameOperations";
const std::wstring kOurs = L"\\??\\C:\\P\\Zenvo\\Usage Profile Agent\\a.dll";
const Lines kReading = {L"open " + kManager + L" 0x20019",
                        L"size of " + kManager + L" " + kName + L" 0x20",
                        L"get " + kManager + L" " + kName + L" 0x20", L"close " + kManager};

Lines Writing(std::size_t bytes) {
    return {L"open " + kManager + L" 0x20019",
            L"set " + kManager + L" " + kName + L" 7 " + std::to_wstring(bytes) + L" bytes",
            L"close " + kManager};
}

void ExpectThrown(const std::string& message, int code) {
    ExpectRegKeyError(CleanPendingRenames, message, code);
}

} // namespace

TEST(CleanPendingRenames, DropsTheAgentsFilesAndEveryEmptyString) {
    const WritableKeys writable;
    const PendingRenames renames(kOurs + L"\0\0\\??\\C:\\other\0\0\\??\\C:\\from\0"s +
                                 L"!\\??\\C:\\to\0"s + kOurs + L"2\0\0\0"s);
    CleanPendingRenames();
    EXPECT_EQ(renames.Read(), L"\\??\\C:\\other\0\\??\\C:\\from\0!\\??\\C:\\to\0\0"s);
    EXPECT_EQ(renames.Type(), static_cast<DWORD>(REG_MULTI_SZ));
}

TEST(CleanPendingRenames, LeavesNothingButTheTerminatorWhenAllWasTheAgents) {
    const WritableKeys writable;
    const PendingRenames renames(kOurs + L"\0\0\0"s);
    CleanPendingRenames();
    EXPECT_EQ(renames.Read(), L"\0"s);
}

TEST(CleanPendingRenames, AValueOfTerminatorsAloneIsWrittenAndOneWithoutAByteIsNot) {
    const WritableKeys writable;
    for (const std::wstring& terminators : {L"\0"s, L"\0\0"s, L"\0\0\0"s}) {
        const PendingRenames renames(terminators);
        COUNT_CALLS(writing, RegSetValueExW);
        CleanPendingRenames();
        EXPECT_EQ(writing.Calls(), 1);
        EXPECT_EQ(renames.Read(), L"\0"s);
    }
    const PendingRenames renames(L"");
    COUNT_CALLS(writing, RegSetValueExW);
    CleanPendingRenames();
    // Where the engine adds terminators, these are what is written.
    const unsigned added = Here(halvard_tests::engines::kEmptyList) / 2;
    EXPECT_EQ(writing.Calls(), added);
    EXPECT_EQ(renames.Read(), std::wstring(added, L'\0'));
}

TEST(CleanPendingRenames, TheTextCountsInItsCase) {
    const WritableKeys writable;
    const PendingRenames renames(L"C:\\usage profile agent\\a\0C:\\My Usage Profile Agent\0\0"s);
    CleanPendingRenames();
    EXPECT_EQ(renames.Read(), L"C:\\usage profile agent\\a\0C:\\My Usage Profile Agent\0\0"s);
}

TEST(CleanPendingRenames, TakesADeletionBackThatTheSystemHasQueued) {
    const WritableKeys writable;
    const PendingRenames renames;
    const ScratchFolder scratch;
    const std::wstring folder = scratch.File(L"Usage Profile Agent");
    halvard_tests::CreateFolders(folder);
    for (const std::wstring& file : {folder + L"\\a.dll", scratch.File(L"b.dll")}) {
        halvard_tests::WriteFileAt(file);
        ASSERT_NE(MoveFileExW(file.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT), FALSE);
    }
    ASSERT_EQ(renames.Read(), L"\\??\\T:\\Scratch\\Usage Profile Agent\\a.dll\0\0"s +
                                  L"\\??\\T:\\Scratch\\b.dll\0\0\0"s);
    CleanPendingRenames();
    EXPECT_EQ(renames.Read(), L"\\??\\T:\\Scratch\\b.dll\0\0"s);
}

TEST(CleanPendingRenames, ListsOfEveryLengthKeepWhatIsNotTheAgents) {
    const WritableKeys writable;
    for (const std::size_t count : {1U, 2U, 1000U}) {
        for (const std::size_t length : {1U, 259U, 32767U}) {
            if (count * length > 1000000) {
                continue;
            }
            std::wstring stored;
            std::wstring kept;
            for (std::size_t index = 0; index < count; ++index) {
                stored += kOurs + L"\0\0"s + std::wstring(length, L'x') + L"\0\0"s;
                kept += std::wstring(length, L'x') + L"\0"s;
            }
            const PendingRenames renames(stored + L"\0"s);
            CleanPendingRenames();
            EXPECT_EQ(renames.Read(), kept + L"\0"s) << count << " of " << length;
        }
    }
}

// Written anew for the empty string of its terminator alone.
TEST(CleanPendingRenames, WritesAValueThatNamesNoFileOfTheAgent) {
    const PendingRenames renames(L"C:\\from\0C:\\to\0\0"s);
    const CallTrace calls(kRegistry);
    EXPECT_THROW(CleanPendingRenames(), RegKeyError);
    EXPECT_EQ(calls.All(), kReading + Writing(2 * 15));
}

TEST(CleanPendingRenames, OpensItsKeyForReadingBothTimesAndClosesIt) {
    const PendingRenames renames(kOurs + L"\0\0\0"s);
    const CallTrace calls(kRegistry);
    EXPECT_THROW(CleanPendingRenames(), RegKeyError);
    EXPECT_EQ(calls.All(), kReading + Writing(2));
}

TEST(CleanPendingRenames, WritesNothingWhenNothingWasDropped) {
    const PendingRenames renames;
    // A list without the empty string of its end, which the system's own answers always have.
    HOOK(reading, RegGetValueW,
         [](HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID data, LPDWORD size) -> LSTATUS {
             if (data != nullptr) {
                 memcpy(data, L"C:\\a\0", 10);
             }
             *size = 10;
             return ERROR_SUCCESS;
         });
    COUNT_CALLS(opening, RegOpenKeyExW);
    COUNT_CALLS(writing, RegSetValueExW);
    CleanPendingRenames();
    EXPECT_EQ(reading.Calls(), 2);
    EXPECT_EQ(opening.Calls(), 1);
    EXPECT_EQ(writing.Calls(), 0);
}

TEST(CleanPendingRenames, WithoutTheValueNothingHappens) {
    const PendingRenames renames;
    {
        const CallTrace calls(kRegistry);
        CleanPendingRenames();
        EXPECT_EQ(calls.All(), (Lines{kReading[0], kReading[1], L"close " + kManager}));
    }
    EXPECT_FALSE(renames.IsThere());
}

TEST(CleanPendingRenames, AValueOfAnotherTypeIsLeftAlone) {
    for (const DWORD type : {REG_SZ, REG_EXPAND_SZ, REG_BINARY, REG_DWORD}) {
        const PendingRenames renames(kOurs + L"\0\0\0"s, type);
        CleanPendingRenames();
        EXPECT_EQ(renames.Read(), kOurs + L"\0\0\0"s);
        EXPECT_EQ(renames.Type(), type);
    }
}

TEST(CleanPendingRenames, AFirstOpeningOrReadThatFailsChangesNothing) {
    const std::wstring stored = kOurs + L"\0\0\0"s;
    const PendingRenames renames(stored);
    for (const std::size_t failing : {1U, 2U}) {
        for (const LSTATUS code : {ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND, ERROR_MORE_DATA}) {
            const int before = OpenHandleCount();
            {
                const CallTrace calls(kRegistry, failing, code);
                EXPECT_NO_THROW(CleanPendingRenames());
                EXPECT_EQ(calls.Count(), failing);
            }
            EXPECT_EQ(renames.Read(), stored);
            EXPECT_EQ(OpenHandleCount(), before);
        }
    }
}

// The size of the value is there, and no string of it: a list of empty strings, all of them
// dropped.
TEST(CleanPendingRenames, AReadThatFailsBehindItsSizeEndsWithTheRefusedWrite) {
    const std::wstring stored = kOurs + L"\0\0\0"s;
    const PendingRenames renames(stored);
    const int before = OpenHandleCount();
    {
        const CallTrace calls(kRegistry, 3);
        ExpectThrown("Unable to write REG_MULTI_SZ value = PendingFileRenameOperations",
                     ERROR_ACCESS_DENIED);
        EXPECT_EQ(calls.All(), kReading + Writing(sizeof(wchar_t)));
    }
    EXPECT_EQ(renames.Read(), stored);
    EXPECT_EQ(OpenHandleCount(), before);
}

TEST(CleanPendingRenames, ASecondOpeningThatFailsIsThrown) {
    const std::wstring stored = kOurs + L"\0\0\0"s;
    const PendingRenames renames(stored);
    for (const LSTATUS code : {ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND}) {
        const int before = OpenHandleCount();
        {
            const CallTrace calls(kRegistry, 4, code);
            ExpectThrown("Unable to open registry key", code);
            EXPECT_EQ(calls.All(), kReading + Lines{kReading[0]});
        }
        EXPECT_EQ(renames.Read(), stored);
        EXPECT_EQ(OpenHandleCount(), before);
    }
}

// By the system itself, for the key is open for reading.
TEST(CleanPendingRenames, TheWriteIsRefusedAndThrown) {
    for (const std::wstring& stored : {kOurs + L"\0\0\0"s, L"C:\\from\0C:\\to\0\0"s}) {
        const PendingRenames renames(stored);
        const int before = OpenHandleCount();
        ExpectThrown("Unable to write REG_MULTI_SZ value = PendingFileRenameOperations",
                     ERROR_ACCESS_DENIED);
        EXPECT_EQ(renames.Read(), stored);
        EXPECT_EQ(OpenHandleCount(), before);
    }
}

TEST(CleanPendingRenames, AWriteThatFailsForAnotherReasonIsThrownToo) {
    const PendingRenames renames(kOurs + L"\0\0\0"s);
    FAIL_CALL(writing, RegSetValueExW, 0, ERROR_NO_SYSTEM_RESOURCES, NO_ERROR);
    ExpectThrown("Unable to write REG_MULTI_SZ value = PendingFileRenameOperations",
                 ERROR_NO_SYSTEM_RESOURCES);
}

TEST(CleanPendingRenames, ClosesItsKeyWhenMemoryRunsOut) {
    const std::wstring stored =
        kOurs + L"\0\0\\??\\C:\\a path too long for the string itself\0\0\0"s;
    const PendingRenames renames(stored);
    int refused = 0;
    const CallTrace calls(kRegistry);
    const int failures = halvard_tests::FailEachAllocation([] {},
                                                           [&] {
                                                               try {
                                                                   CleanPendingRenames();
                                                               } catch (const RegKeyError&) {
                                                                   ++refused;
                                                               }
                                                           },
                                                           [&](bool thrown) {
                                                               // The refused write comes at last.
                                                               EXPECT_EQ(refused, thrown ? 0 : 1);
                                                               EXPECT_EQ(calls.LeftOpen(), Lines{});
                                                               EXPECT_EQ(renames.Read(), stored);
                                                           });
    EXPECT_GE(failures, 10);
}
