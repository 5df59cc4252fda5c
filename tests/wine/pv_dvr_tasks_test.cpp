#include "tasks/pv_dvr_tasks.h"

#include "runtime/registry.h"

#include "call_trace.h"
#include "child_programs.h"
#include "files.h"
#include "import_hook.h"
#include "open_handles.h"
#include "pivot_installation.h"
#include "played_programs.h"
#include "process_starts.h"
#include "registry_error.h"

#include <gtest/gtest.h>

#include <functional>

using halvard::CreateDVRLogonSchTask;
using halvard::CreateLogonSchTask;
using halvard::DeleteSchedTaskonBranding;
using halvard::RegKeyError;
using halvard::RemoveDVRSchedularTask;
using halvard::RemovePVSchedularTask;
using halvard_tests::CallTrace;
using halvard_tests::CreationOf;
using halvard_tests::CurrentDirectory;
using halvard_tests::EnvironmentVariable;
using halvard_tests::ExpectRegKeyError;
using halvard_tests::InTemporaryFolder;
using halvard_tests::kChildren;
using halvard_tests::kFiles;
using halvard_tests::kFolders;
using halvard_tests::kProcesses;
using halvard_tests::kRegistry;
using halvard_tests::PivotInstallation;
using halvard_tests::PlayedPrograms;
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
using namespace std::string_literals;

namespace {

constexpr wchar_t kRunKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run";

struct LogonTask {
    UINT(__stdcall* create)(MSIHANDLE);
    UINT(__stdcall* remove)(MSIHANDLE);
    std::wstring name;
    std::wstring program;
    std::wstring argument;

    std::wstring XmlFile() const { return name + L".xml"; }
    std::wstring CreateCommand(const std::wstring& xml) const {
        return L"schtasks /Create /TN \"" + name + L"\" /XML \"" + xml + L"\"";
    }
    std::wstring ChangeCommand(const std::wstring& folder) const {
        return L"schtasks /change /TN \"" + name + L"\" /TR \"\\\"" + folder + L"\\" + program +
               L"\\\" " + argument + L"\"";
    }
    std::wstring DeleteCommand() const { return L"schtasks /delete /TN \"" + name + L"\" /F"; }
};

void PrintTo(const LogonTask& task, std::ostream* stream) {
    *stream << std::string(task.name.begin(), task.name.end());
}

bool RunValueExists(const std::wstring& name) {
    return RegGetValueW(HKEY_LOCAL_MACHINE, kRunKey, name.c_str(), RRF_RT_ANY, nullptr, nullptr,
                        nullptr) == ERROR_SUCCESS;
}

} // namespace

class CreateLogonTask : public testing::TestWithParam<LogonTask> {};

TEST_P(CreateLogonTask, CreatesTheTaskFromTheInstalledFileAndThenSetsItsCommand) {
    const LogonTask& task = GetParam();
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    for (const std::wstring& location :
         {L"T:\\Apps\\Pivot"s, L"T:\\Apps\\With blanks"s, L"T:\\Apps\\\u0416\u00e9"s}) {
        const PivotInstallation pivot(location);
        const std::size_t before = Recordings().size();
        const ProcessStarts starts;
        EXPECT_EQ(task.create(0), 0U);
        starts.WaitUntilAllHaveEnded();
        const std::vector<Recording> recordings = Recordings();
        ASSERT_EQ(recordings.size(), before + 2);
        EXPECT_EQ(recordings[before],
                  (Recording{L"schtasks.exe", location,
                             task.CreateCommand(location + L"\\" + task.XmlFile())}));
        EXPECT_EQ(recordings[before + 1],
                  (Recording{L"schtasks.exe", location, task.ChangeCommand(location)}));
    }
}

TEST_P(CreateLogonTask, ALocationThatEndsInASlash) {
    const LogonTask& task = GetParam();
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    for (const wchar_t slash : {L'\\', L'/'}) {
        const PivotInstallation pivot(L"T:\\Apps\\Pivot" + std::wstring(1, slash));
        const std::size_t before = Recordings().size();
        const ProcessStarts starts;
        EXPECT_EQ(task.create(0), 0U);
        starts.WaitUntilAllHaveEnded();
        const std::vector<Recording> recordings = Recordings();
        ASSERT_EQ(recordings.size(), before + 2);
        EXPECT_EQ(recordings[before].commandLine,
                  task.CreateCommand(pivot.Location() + task.XmlFile()));
        EXPECT_EQ(recordings[before + 1].commandLine, task.ChangeCommand(pivot.Location()));
    }
}

TEST_P(CreateLogonTask, MakesItsCallsInThisOrder) {
    const LogonTask& task = GetParam();
    const PivotInstallation pivot;
    const std::wstring xml = pivot.File(task.XmlFile());
    const std::wstring copy = InTemporaryFolder(task.XmlFile());
    WriteWholeFile(xml, TaskXml(L"<LogonTrigger/>"));
    const std::wstring installKey = std::wstring(L"HKLM\\") + halvard_tests::kInstallKey;
    const std::wstring runKey = std::wstring(L"HKLM\\") + kRunKey;
    const std::wstring create = task.CreateCommand(xml);
    const std::wstring change = task.ChangeCommand(pivot.Location());
    // Whether the system folder is found makes no difference: its path is not used.
    for (const bool folderIsFound : {true, false}) {
        const PlayedPrograms programs;
        CallTrace calls(kRegistry | kFolders | kFiles | kProcesses | kChildren);
        if (!folderIsFound) {
            calls.Fail(L"folder 37");
        }
        EXPECT_EQ(task.create(0), 0U);
        const Lines removal = {L"open " + runKey + L" 0xf003f",
                               L"delete value " + runKey + L" " + task.name, L"close " + runKey,
                               L"folder 37"};
        EXPECT_EQ(calls.All(), removal + ReadingOf(installKey, L"Location", L"0x2001f") +
                                   Lines{L"attributes of " + pivot.Location()} +
                                   CreationOf(xml, copy, create, change, pivot.Location()));
    }
}

TEST_P(CreateLogonTask, RemovesTheRunValueOfTheTaskFirst) {
    const LogonTask& task = GetParam();
    SetRegistryString(HKEY_LOCAL_MACHINE, kRunKey, task.name, L"x");
    SetRegistryString(HKEY_LOCAL_MACHINE, kRunKey, L"Other", L"x");
    std::vector<REGSAM> accesses;
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             if (std::wstring(subkey) == kRunKey) {
                 EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                 EXPECT_EQ(opening.Calls(), 1);
                 accesses.push_back(access);
             }
             return opening.Original(root, subkey, options, access, opened);
         });
    // There is no installation, but the value has gone by the time that this is found out.
    EXPECT_THROW(task.create(0), RegKeyError);
    EXPECT_FALSE(RunValueExists(task.name));
    EXPECT_TRUE(RunValueExists(L"Other"));
    EXPECT_EQ(accesses, (std::vector<REGSAM>{KEY_ALL_ACCESS}));
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kRunKey, L"Other");
}

TEST_P(CreateLogonTask, GoesOnWithoutARunKey) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const PivotInstallation pivot;
    FAIL_CALL(opening, RegOpenKeyExW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
    COUNT_CALLS(deleting, RegDeleteValueW);
    EXPECT_EQ(GetParam().create(0), 0U);
    EXPECT_EQ(deleting.Calls(), 0);
    EXPECT_EQ(WaitForRecordings(2).size(), 2U);
}

TEST_P(CreateLogonTask, ThrowsWithoutTheInstallKeyOrItsLocation) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const auto create = [] {
        GetParam().create(0);
    };
    ExpectRegKeyError(create, "Unable to open registry key", ERROR_FILE_NOT_FOUND);

    const PivotInstallation pivot;
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, halvard_tests::kInstallKey, L"Location");
    ExpectRegKeyError(create, "Unable to get registry value", ERROR_FILE_NOT_FOUND);

    const DWORD number = 1;
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, halvard_tests::kInstallKey, L"Location", REG_DWORD, &number,
                    sizeof(number));
    ExpectRegKeyError(create, "Unable to get registry value", ERROR_UNSUPPORTED_TYPE);
    EXPECT_EQ(Recordings().size(), 0U);
}

TEST_P(CreateLogonTask, OpensTheInstallKeyForReadingAndWritingAndClosesIt) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const PivotInstallation pivot;
    GetParam().create(0);
    WaitForRecordings(2);
    int opened = 0;
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key) {
             if (std::wstring(subkey) == halvard_tests::kInstallKey) {
                 EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                 EXPECT_EQ(access, 0x2001FU);
                 ++opened;
             }
             return opening.Original(root, subkey, options, access, key);
         });
    const int before = halvard_tests::OpenHandleCount();
    GetParam().create(0);
    EXPECT_EQ(opened, 1);
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
    WaitForRecordings(4);

    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, halvard_tests::kInstallKey, L"Location");
    EXPECT_THROW(GetParam().create(0), RegKeyError);
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

TEST_P(CreateLogonTask, FailsWithoutTheInstallationFolder) {
    const LogonTask& task = GetParam();
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const PivotInstallation pivot;
    SetRegistryString(HKEY_LOCAL_MACHINE, kRunKey, task.name, L"x");
    for (const wchar_t* location : {L"T:\\Apps\\no such folder", L""}) {
        SetRegistryString(HKEY_LOCAL_MACHINE, halvard_tests::kInstallKey, L"Location", location);
        EXPECT_EQ(task.create(0), 1603U);
    }
    EXPECT_FALSE(RunValueExists(task.name));
    EXPECT_EQ(Recordings().size(), 0U);
}

TEST_P(CreateLogonTask, ALocationThatIsAFileIsTakenAndTheCommandsAreRefused) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const PivotInstallation pivot;
    WriteWholeFile(pivot.File(L"file"), std::string());
    SetRegistryString(HKEY_LOCAL_MACHINE, halvard_tests::kInstallKey, L"Location",
                      pivot.File(L"file"));
    COUNT_CALLS(creating, CreateProcessW);
    EXPECT_EQ(GetParam().create(0), 0U);
    EXPECT_EQ(creating.Calls(), 2);
    EXPECT_EQ(Recordings().size(), 0U);
}

TEST_P(CreateLogonTask, ACommandThatDoesNotFitIsNotRun) {
    const LogonTask& task = GetParam();
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const std::wstring parent = L"T:\\Apps\\";
    const auto folderFor = [&](std::size_t changeLength) {
        const std::size_t fixed = task.ChangeCommand(parent).size();
        return parent + std::wstring(changeLength - fixed, L'f');
    };
    const struct {
        std::size_t changeLength;
        std::size_t commands;
    } cases[] = {{259, 2}, {260, 1}, {300, 0}};
    for (const auto& [changeLength, commands] : cases) {
        const PivotInstallation pivot(folderFor(changeLength));
        const std::size_t before = Recordings().size();
        COUNT_CALLS(creating, CreateProcessW);
        EXPECT_EQ(task.create(0), 0U);
        EXPECT_EQ(creating.Calls(), static_cast<int>(commands)) << changeLength;
        EXPECT_EQ(WaitForRecordings(before + commands).size(), before + commands);
    }
}

TEST_P(CreateLogonTask, LeavesARewrittenCopyInTheTemporaryFolderAndTheInstalledFileAsItWas) {
    const LogonTask& task = GetParam();
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const PivotInstallation pivot(L"T:\\Apps\\With blanks");
    WriteWholeFile(pivot.File(task.XmlFile()), TaskXml(L"<LogonTrigger/>"));
    const std::string installed = ReadWholeFile(pivot.File(task.XmlFile()));
    EXPECT_EQ(task.create(0), 0U);
    WaitForRecordings(2);

    const std::string copy = ReadWholeFile(InTemporaryFolder(task.XmlFile()));
    const std::wstring wide(reinterpret_cast<const wchar_t*>(copy.data()), copy.size() / 2);
    EXPECT_NE(wide.find(L">T:\\Apps\\With blanks</WorkingDirectory>"), std::wstring::npos);
    EXPECT_EQ(wide.find(L"shipped"), std::wstring::npos);
    EXPECT_EQ(ReadWholeFile(pivot.File(task.XmlFile())), installed);
}

TEST_P(CreateLogonTask, RunsItsCommandsWhateverBecomesOfTheFile) {
    const LogonTask& task = GetParam();
    const std::function<void(const std::wstring&)> states[] = {
        [](const std::wstring&) {}, // absent
        [](const std::wstring& path) { WriteWholeFile(path, std::string()); },
        [](const std::wstring& path) { WriteWholeFile(path, std::string("<not XML")); },
        [](const std::wstring& path) { CreateDirectoryW(path.c_str(), nullptr); },
        [](const std::wstring& path) {
            WriteWholeFile(path, TaskXml(L""));
            SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY);
        },
    };
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    for (const auto& make : states) {
        const PivotInstallation pivot;
        make(pivot.File(task.XmlFile()));
        const std::size_t before = Recordings().size();
        const ProcessStarts starts;
        EXPECT_EQ(task.create(0), 0U);
        starts.WaitUntilAllHaveEnded();
        EXPECT_EQ(Recordings().size(), before + 2) << starts.Told();
    }

    const PivotInstallation pivot;
    WriteWholeFile(pivot.File(task.XmlFile()), TaskXml(L""));
    const HANDLE locked = CreateFileW(pivot.File(task.XmlFile()).c_str(), GENERIC_READ, 0, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    const std::size_t before = Recordings().size();
    const ProcessStarts starts;
    EXPECT_EQ(task.create(0), 0U);
    CloseHandle(locked);
    starts.WaitUntilAllHaveEnded();
    EXPECT_EQ(Recordings().size(), before + 2) << starts.Told();
}

TEST_P(CreateLogonTask, RunsItsCommandsWithoutATemporaryFolder) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const PivotInstallation pivot;
    WriteWholeFile(pivot.File(GetParam().XmlFile()), TaskXml(L""));
    for (const DWORD length : {0U, 300U}) {
        FAIL_CALL(asking, GetTempPathW, 0, length, ERROR_ACCESS_DENIED);
        const std::size_t before = Recordings().size();
        {
            std::vector<std::wstring> written;
            HOOK(files, CreateFileW,
                 [&](LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES attributes,
                     DWORD disposition, DWORD flags, HANDLE pattern) {
                     if (access == GENERIC_WRITE) {
                         written.push_back(path);
                     }
                     return files.Original(path, access, share, attributes, disposition, flags,
                                           pattern);
                 });
            EXPECT_EQ(GetParam().create(0), 0U);
            EXPECT_EQ(written, (std::vector<std::wstring>{L""}));
        }
        EXPECT_EQ(asking.Calls(), 1);
        EXPECT_EQ(WaitForRecordings(before + 2).size(), before + 2);
    }
    const EnvironmentVariable temporary(L"TMP", L"T:\\no such folder");
    const std::size_t before = Recordings().size();
    EXPECT_EQ(GetParam().create(0), 0U);
    EXPECT_EQ(WaitForRecordings(before + 2).size(), before + 2);
}

TEST_P(CreateLogonTask, IgnoresThatSchtasksCannotStartOrFails) {
    const PivotInstallation pivot;
    {
        FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(GetParam().create(0), 0U);
        EXPECT_EQ(creating.Calls(), 2);
    }
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"1");
    EXPECT_EQ(GetParam().create(0), 0U);
    EXPECT_EQ(WaitForRecordings(2).size(), 2U);
}

class RemoveLogonTask : public testing::TestWithParam<LogonTask> {};

TEST_P(RemoveLogonTask, DeletesTheTaskWaitsAndReportsThatSchtasksStarted) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"1");
    const std::wstring directory = CurrentDirectory();
    COUNT_CALLS(waiting, WaitForSingleObject);
    EXPECT_EQ(GetParam().remove(0), 1U);
    EXPECT_EQ(waiting.Calls(), 1);
    EXPECT_EQ(Recordings(),
              (std::vector<Recording>{{L"schtasks.exe", directory, GetParam().DeleteCommand()}}));
}

TEST_P(RemoveLogonTask, ReportsZeroWhenSchtasksCannotStart) {
    FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(GetParam().remove(0), 0U);
}

// The engine's own schtasks: the task stands in the store and goes again.
TEST_P(CreateLogonTask, LeavesARealTaskThatTheRemovalTakesAway) {
    const LogonTask& task = GetParam();
    const PivotInstallation pivot;
    WriteWholeFile(pivot.File(task.XmlFile()), TaskXml(L"<LogonTrigger/>"));
    const std::wstring stored = L"C:\\windows\\system32\\tasks\\" + task.name;
    EXPECT_EQ(task.create(0), 0U);
    EXPECT_NE(GetFileAttributesW(stored.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(task.remove(0), 1U);
    EXPECT_EQ(GetFileAttributesW(stored.c_str()), INVALID_FILE_ATTRIBUTES);
}

namespace {

const LogonTask kTasks[] = {
    {CreateLogonSchTask, RemovePVSchedularTask, L"StartPV", L"pvcmd.exe", L"startwithdelay"},
    {CreateDVRLogonSchTask, RemoveDVRSchedularTask, L"StartDVR", L"VSServCmd.exe", L""},
};

} // namespace

INSTANTIATE_TEST_SUITE_P(LogonTasks, CreateLogonTask, testing::ValuesIn(kTasks));
INSTANTIATE_TEST_SUITE_P(LogonTasks, RemoveLogonTask, testing::ValuesIn(kTasks));

namespace {

struct Marker {
    const char* what;
    DWORD type;
    std::vector<BYTE> bytes;
    bool deletes;
};

} // namespace

TEST(DeleteSchedTaskonBranding, DeletesTheTaskWhenTheMarkerIsOne) {
    const Marker markers[] = {
        {"1", REG_DWORD, {1, 0, 0, 0}, true},
        {"0", REG_DWORD, {0, 0, 0, 0}, false},
        {"2", REG_DWORD, {2, 0, 0, 0}, false},
        {"257", REG_DWORD, {1, 1, 0, 0}, false},
        {"a string that begins with the bytes of 1", REG_SZ, {1, 0, 0, 0}, true},
        {"binary", REG_BINARY, {1, 0, 0, 0}, true},
        {"one byte", REG_BINARY, {1}, true},
        {"the text 1", REG_SZ, {'1', 0, 0, 0}, false},
        {"no bytes", REG_BINARY, {}, false},
        {"more than four bytes", REG_QWORD, {1, 0, 0, 0, 0, 0, 0, 0}, false},
    };
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const PivotInstallation cleanUp;
    std::size_t expected = 0;
    for (const Marker& marker : markers) {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, halvard_tests::kUserKey, L"LazeStart", marker.type,
                        marker.bytes.data(), static_cast<DWORD>(marker.bytes.size()));
        EXPECT_EQ(DeleteSchedTaskonBranding(0), 0U);
        expected += marker.deletes ? 1 : 0;
        EXPECT_EQ(Recordings().size(), expected) << marker.what;
    }
    const std::wstring directory = CurrentDirectory();
    EXPECT_EQ(Recordings()[0],
              (Recording{L"schtasks.exe", directory, L"schtasks /delete /TN \"StartPV\" /F"}));
}

TEST(DeleteSchedTaskonBranding, DoesNothingWithoutTheKeyOrTheValue) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const PivotInstallation cleanUp;
    EXPECT_EQ(DeleteSchedTaskonBranding(0), 0U);
    SetRegistryString(HKEY_LOCAL_MACHINE, halvard_tests::kUserKey, L"Other", L"x");
    EXPECT_EQ(DeleteSchedTaskonBranding(0), 0U);
    EXPECT_EQ(Recordings().size(), 0U);
}

TEST(DeleteSchedTaskonBranding, ReturnsZeroWhenSchtasksCannotStart) {
    const PivotInstallation cleanUp;
    const DWORD one = 1;
    RegSetKeyValueW(HKEY_LOCAL_MACHINE, halvard_tests::kUserKey, L"LazeStart", REG_DWORD, &one,
                    sizeof(one));
    FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(DeleteSchedTaskonBranding(0), 0U);
    EXPECT_EQ(creating.Calls(), 1);
}

// The process that hosts the action is gone soon.
TEST(DeleteSchedTaskonBranding, LeavesItsKeyOpenOnPurpose) {
    const RecorderAt schtasks(halvard_tests::kSchtasks);
    const PivotInstallation cleanUp;
    SetRegistryString(HKEY_LOCAL_MACHINE, halvard_tests::kUserKey, L"Other", L"x");
    for (const DWORD marker : {2, 0, 1}) {
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, halvard_tests::kUserKey, L"LazeStart", REG_DWORD,
                        &marker, sizeof(marker));
        HKEY left = nullptr;
        HOOK(opening, RegOpenKeyExW,
             [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
                 EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
                 EXPECT_STREQ(subkey, halvard_tests::kUserKey);
                 EXPECT_EQ(access, 0x20019U);
                 const LSTATUS status = opening.Original(root, subkey, options, access, opened);
                 left = *opened;
                 return status;
             });
        COUNT_CALLS(closing, RegCloseKey);
        COUNT_CALLS(waiting, WaitForSingleObject);
        DeleteSchedTaskonBranding(0);
        EXPECT_EQ(closing.Calls(), 0);
        EXPECT_EQ(waiting.Calls(), marker == 1 ? 1 : 0);
        EXPECT_EQ(RegCloseKey(left), ERROR_SUCCESS);
    }
}
