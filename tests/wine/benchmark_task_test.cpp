#include "tasks/benchmark_task.h"

#include "call_trace.h"
#include "child_programs.h"
#include "files.h"
#include "import_hook.h"
#include "pivot_installation.h"
#include "played_programs.h"
#include "process_starts.h"
#include "registry_error.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

using halvard::CreateBenchMarkRunOnceSchTask;
using halvard::RemoveBenchMarkRunOnceSchedularTask;
using halvard_tests::CallTrace;
using halvard_tests::CreationOf;
using halvard_tests::CurrentDirectory;
using halvard_tests::CurrentDirectoryScope;
using halvard_tests::EnvironmentVariable;
using halvard_tests::InTemporaryFolder;
using halvard_tests::kChildren;
using halvard_tests::kFiles;
using halvard_tests::kFolders;
using halvard_tests::kProcesses;
using halvard_tests::kRegistry;
using halvard_tests::PivotInstallation;
using halvard_tests::PlayedPrograms;
using halvard_tests::ProcessStart;
using halvard_tests::ProcessStarts;
using halvard_tests::ReadingOf;
using halvard_tests::ReadWholeFile;
using halvard_tests::RecorderAt;
using halvard_tests::Recording;
using halvard_tests::Recordings;
using halvard_tests::SetRegistryString;
using halvard_tests::TaskXml;
using halvard_tests::WaitForRecordings;
using halvard_tests::WriteWholeFile;

namespace {

constexpr wchar_t kTrigger[] =
    L"<TimeTrigger><StartBoundary>2001-02-03T04:05:06</StartBoundary></TimeTrigger>";
constexpr wchar_t kDelete[] = L"schtasks /delete /TN \"StartPVBM\" /F";

std::wstring CreateCommand() {
    return L"schtasks /Create /TN \"StartPVBM\" /XML \"" + InTemporaryFolder(L"StartPVBM.xml") +
           L"\"";
}

std::wstring ChangeCommand(const std::wstring& location) {
    return L"schtasks /change /TN \"StartPVBM\" /TR \"\\\"" + location +
           L"\\pvcmd.exe\\\" benchmark\"";
}

// An installation for which the benchmark would be scheduled.
class BenchmarkInstallation : public PivotInstallation {
public:
    explicit BenchmarkInstallation(const std::wstring& location = L"T:\\Apps\\Pivot")
        : PivotInstallation(location) {
        SetRegistryString(HKEY_CURRENT_USER, halvard_tests::kUserKey, L"VxBench", L"0");
        WriteWholeFile(File(L"StartPVBM.xml"), TaskXml(kTrigger));
    }
};

// Expects this error of the action, thrown when this value was the last one asked for.
void ExpectThrown(const std::string& message, int code, const std::wstring& lastValue) {
    std::wstring asked;
    HOOK(reading, RegGetValueW,
         [&](HKEY key, LPCWSTR subkey, LPCWSTR name, DWORD flags, LPDWORD type, PVOID data,
             LPDWORD size) {
             asked = name;
             return reading.Original(key, subkey, name, flags, type, data, size);
         });
    halvard_tests::ExpectRegKeyError([] { CreateBenchMarkRunOnceSchTask(0); }, message, code);
    EXPECT_EQ(asked, lastValue);
}

} // namespace

TEST(CreateBenchMarkRunOnceSchTask, CreatesTheTaskFromTheRewrittenCopy) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const BenchmarkInstallation pivot(L"T:\\Apps\\With blanks \u0416");
    {
        const ProcessStarts starts;
        HOOK(waiting, WaitForSingleObject, [&](HANDLE handle, DWORD timeout) {
            EXPECT_EQ(starts.Calls(), 1);
            EXPECT_EQ(handle, starts.Process());
            EXPECT_EQ(timeout, static_cast<DWORD>(INFINITE));
            return waiting.Original(handle, timeout);
        });
        EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
        EXPECT_EQ(waiting.Calls(), 1);
    }
    const std::vector<Recording> recordings = WaitForRecordings(2);
    EXPECT_EQ(recordings,
              (std::vector<Recording>{
                  {L"schtasks.exe", pivot.Location(), CreateCommand()},
                  {L"schtasks.exe", pivot.Location(), ChangeCommand(pivot.Location())}}));

    const std::string copy = ReadWholeFile(InTemporaryFolder(L"StartPVBM.xml"));
    const std::wstring wide(reinterpret_cast<const wchar_t*>(copy.data()), copy.size() / 2);
    EXPECT_EQ(wide.find(L"2001-02-03"), std::wstring::npos);
    EXPECT_NE(wide.find(L":00:00</StartBoundary>"), std::wstring::npos);
    EXPECT_NE(wide.find(L">shipped</WorkingDirectory>"), std::wstring::npos);
}

TEST(CreateBenchMarkRunOnceSchTask, RewritesBeforeItCreates) {
    const BenchmarkInstallation pivot;
    const ProcessStarts starts([](ProcessStart&) {
        EXPECT_GT(ReadWholeFile(InTemporaryFolder(L"StartPVBM.xml")).size(), 100U);
        return false;
    });
    EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
    EXPECT_EQ(starts.Calls(), 2);
}

TEST(CreateBenchMarkRunOnceSchTask, ALocationThatEndsInABackslashGivesTwo) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const BenchmarkInstallation pivot(L"T:\\Apps\\Pivot\\");
    EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
    const std::vector<Recording> recordings = WaitForRecordings(2);
    ASSERT_EQ(recordings.size(), 2U);
    EXPECT_EQ(recordings[1].commandLine, ChangeCommand(L"T:\\Apps\\Pivot\\"));
}

TEST(CreateBenchMarkRunOnceSchTask, LooksForItsFileBehindOneSlashOfEitherKind) {
    const std::pair<std::wstring, std::wstring> locations[] = {
        {L"T:\\Apps\\Pivot", L"T:\\Apps\\Pivot\\StartPVBM.xml"},
        {L"T:\\Apps\\Pivot\\", L"T:\\Apps\\Pivot\\StartPVBM.xml"},
        {L"T:\\Apps\\Pivot/", L"T:\\Apps\\Pivot/StartPVBM.xml"},
    };
    for (const auto& [location, file] : locations) {
        const BenchmarkInstallation pivot(location);
        FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_FILE_NOT_FOUND);
        std::vector<std::wstring> asked;
        HOOK(asking, GetFileAttributesW, [&](LPCWSTR path) {
            asked.push_back(path);
            return asking.Original(path);
        });
        EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
        EXPECT_EQ(asked, (std::vector<std::wstring>{L"0", location, file}));
    }
}

TEST(CreateBenchMarkRunOnceSchTask, MakesItsCallsInThisOrder) {
    const BenchmarkInstallation pivot;
    const std::wstring copy = InTemporaryFolder(L"StartPVBM.xml");
    const std::wstring userKey = std::wstring(L"HKCU\\") + halvard_tests::kUserKey;
    const std::wstring installKey = std::wstring(L"HKLM\\") + halvard_tests::kInstallKey;
    const std::wstring xml = pivot.File(L"StartPVBM.xml");
    const std::wstring create = CreateCommand();
    const std::wstring change = ChangeCommand(pivot.Location());
    // Whether the system folder is found makes no difference: its path is not used.
    for (const bool folderIsFound : {true, false}) {
        const PlayedPrograms programs;
        CallTrace calls(kRegistry | kFolders | kFiles | kProcesses | kChildren);
        if (!folderIsFound) {
            calls.Fail(L"folder 37");
        }
        EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
        const Lines expected =
            Lines{L"folder 37"} + ReadingOf(userKey, L"VxBench", L"0x2001f") +
            Lines{L"attributes of 0"} + ReadingOf(installKey, L"Location", L"0x2001f") +
            Lines{L"attributes of " + pivot.Location(), L"attributes of " + xml} +
            CreationOf(xml, copy, create, change, pivot.Location());
        EXPECT_EQ(calls.All(), expected);
    }
}

TEST(CreateBenchMarkRunOnceSchTask, StartsAtTheNextMidnightOfStandardTime) {
    const std::pair<__time64_t, std::wstring> moments[] = {
        {1704067200, L">2024-01-01T00:00:00<"}, // in winter, 19:00 of the day before
        {1719792000, L">2024-07-01T01:00:00<"}, // in summer, 20:00 of the day before
    };
    for (const auto& [moment, boundary] : moments) {
        const BenchmarkInstallation pivot;
        FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_FILE_NOT_FOUND);
        {
            HOOK(clock, _time64, [now = moment](__time64_t*) { return now; });
            _putenv_s("TZ", "EST5EDT");
            _tzset();
            EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
            _putenv_s("TZ", "UTC0");
            _tzset();
        }
        const std::string copy = ReadWholeFile(InTemporaryFolder(L"StartPVBM.xml"));
        const std::wstring wide(reinterpret_cast<const wchar_t*>(copy.data()), copy.size() / 2);
        EXPECT_NE(wide.find(boundary), std::wstring::npos);
    }
}

TEST(CreateBenchMarkRunOnceSchTask, ThrowsWithoutTheUserKeyBeforeAnythingElse) {
    const PivotInstallation pivot;
    COUNT_CALLS(creating, CreateProcessW);
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             EXPECT_EQ(root, HKEY_CURRENT_USER);
             EXPECT_STREQ(subkey, halvard_tests::kUserKey);
             EXPECT_EQ(access, 0x2001FU);
             return opening.Original(root, subkey, options, access, opened);
         });
    ExpectThrown("Unable to open registry key", ERROR_FILE_NOT_FOUND, L"");
    EXPECT_EQ(opening.Calls(), 1);
    EXPECT_EQ(creating.Calls(), 0);
}

TEST(CreateBenchMarkRunOnceSchTask, ThrowsWithoutTheMarkerTheInstallKeyOrTheLocation) {
    COUNT_CALLS(creating, CreateProcessW);
    const BenchmarkInstallation pivot;
    const DWORD number = 1;
    RegDeleteKeyValueW(HKEY_CURRENT_USER, halvard_tests::kUserKey, L"VxBench");
    ExpectThrown("Unable to get registry value", ERROR_FILE_NOT_FOUND, L"VxBench");
    RegSetKeyValueW(HKEY_CURRENT_USER, halvard_tests::kUserKey, L"VxBench", REG_DWORD, &number,
                    sizeof(number));
    ExpectThrown("Unable to get registry value", ERROR_UNSUPPORTED_TYPE, L"VxBench");

    SetRegistryString(HKEY_CURRENT_USER, halvard_tests::kUserKey, L"VxBench", L"0");
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, halvard_tests::kInstallKey, L"Location");
    ExpectThrown("Unable to get registry value", ERROR_FILE_NOT_FOUND, L"Location");

    RegDeleteTreeW(HKEY_LOCAL_MACHINE, halvard_tests::kInstallKey);
    ExpectThrown("Unable to open registry key", ERROR_FILE_NOT_FOUND, L"VxBench");
    EXPECT_EQ(creating.Calls(), 0);
}

TEST(CreateBenchMarkRunOnceSchTask, StopsOnlyWhenTheMarkerIsOneAndNamesSomething) {
    struct Case {
        std::wstring marker;
        bool exists;
        int commands;
    };
    const Case cases[] = {
        {L"1", true, 0}, {L"1", false, 2}, {L"2", true, 2}, {L"10", true, 2}, {L"", false, 2},
    };
    for (const Case& tested : cases) {
        const BenchmarkInstallation pivot;
        SetRegistryString(HKEY_CURRENT_USER, halvard_tests::kUserKey, L"VxBench", tested.marker);
        if (tested.exists) {
            WriteWholeFile(pivot.File(tested.marker), std::string());
        }
        const CurrentDirectoryScope directory(pivot.Location());
        FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
        EXPECT_EQ(creating.Calls(), tested.commands)
            << std::string(tested.marker.begin(), tested.marker.end());
    }
}

TEST(CreateBenchMarkRunOnceSchTask, AStoppedActionDoesNotAskForTheInstallation) {
    const BenchmarkInstallation pivot;
    SetRegistryString(HKEY_CURRENT_USER, halvard_tests::kUserKey, L"VxBench", L"1");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, halvard_tests::kInstallKey);
    const CurrentDirectoryScope directory(pivot.Location());
    CreateDirectoryW(L"1", nullptr);
    EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
}

TEST(CreateBenchMarkRunOnceSchTask, IsQuietWithoutTheFolderOrTheFile) {
    const BenchmarkInstallation pivot;
    COUNT_CALLS(creating, CreateProcessW);
    COUNT_CALLS(asking, GetTempPathW);
    DeleteFileW(pivot.File(L"StartPVBM.xml").c_str());
    EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
    SetRegistryString(HKEY_LOCAL_MACHINE, halvard_tests::kInstallKey, L"Location",
                      L"T:\\Apps\\no such folder");
    EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
    EXPECT_EQ(creating.Calls(), 0);
    EXPECT_EQ(asking.Calls(), 0);
}

TEST(CreateBenchMarkRunOnceSchTask, CreatesWithAnEmptyPathWithoutATemporaryFolder) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const BenchmarkInstallation pivot;
    for (const DWORD length : {0U, 300U}) {
        HOOK(asking, GetTempPathW, [result = length](DWORD capacity, LPWSTR) {
            EXPECT_EQ(capacity, 260U);
            return result;
        });
        const std::size_t before = Recordings().size();
        EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
        const std::vector<Recording> recordings = WaitForRecordings(before + 2);
        ASSERT_EQ(recordings.size(), before + 2);
        EXPECT_EQ(recordings[before].commandLine, L"schtasks /Create /TN \"StartPVBM\" /XML \"\"");
    }
}

TEST(CreateBenchMarkRunOnceSchTask, RunsItsCommandsWhateverBecomesOfTheRewriting) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const BenchmarkInstallation pivot;
    WriteWholeFile(pivot.File(L"StartPVBM.xml"), std::string("<not XML"));
    EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
    EXPECT_EQ(WaitForRecordings(2).size(), 2U);

    DeleteFileW(pivot.File(L"StartPVBM.xml").c_str());
    CreateDirectoryW(pivot.File(L"StartPVBM.xml").c_str(), nullptr);
    EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
    EXPECT_EQ(WaitForRecordings(4).size(), 4U);
}

TEST(CreateBenchMarkRunOnceSchTask, ACommandThatDoesNotFitIsNotRun) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const std::wstring parent = L"T:\\Apps\\";
    for (const std::size_t excess : {0U, 1U}) {
        const std::size_t length = 259 - ChangeCommand(parent).size() + excess;
        const BenchmarkInstallation pivot(parent + std::wstring(length, L'f'));
        const std::size_t before = Recordings().size();
        COUNT_CALLS(creating, CreateProcessW);
        EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
        EXPECT_EQ(creating.Calls(), excess == 0 ? 2 : 1);
        WaitForRecordings(before + (excess == 0 ? 2 : 1));
    }
}

TEST(RemoveBenchMarkRunOnceSchedularTask, DeletesTheTaskWaitsAndReportsThatSchtasksStarted) {
    const std::wstring directory = CurrentDirectory();
    {
        const RecorderAt schtasks(halvard_tests::kSchtasks);
        const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"1");
        COUNT_CALLS(waiting, WaitForSingleObject);
        EXPECT_EQ(RemoveBenchMarkRunOnceSchedularTask(0), 1U);
        EXPECT_EQ(waiting.Calls(), 1);
        EXPECT_EQ(Recordings(), (std::vector<Recording>{{L"schtasks.exe", directory, kDelete}}));
    }
    FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RemoveBenchMarkRunOnceSchedularTask(0), 0U);
}

TEST(RemoveBenchMarkRunOnceSchedularTask, TakesAwayARealTask) {
    const BenchmarkInstallation pivot;
    const wchar_t* const stored = L"C:\\windows\\system32\\tasks\\StartPVBM";
    EXPECT_EQ(CreateBenchMarkRunOnceSchTask(0), 0U);
    EXPECT_NE(GetFileAttributesW(stored), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(RemoveBenchMarkRunOnceSchedularTask(0), 1U);
    EXPECT_EQ(GetFileAttributesW(stored), INVALID_FILE_ATTRIBUTES);
}
