#include "launch/context_menu.h"

#include "runtime/session.h"

#include "call_trace.h"
#include "child_programs.h"
#include "current_session.h"
#include "files.h"
#include "import_hook.h"
#include "process_starts.h"

#include <msi.h>
#include <msiquery.h>

#include <gtest/gtest.h>

#include <cwchar>
#include <functional>
#include <vector>

using halvard::InstallContextMenuMSIX;
using halvard_tests::EnvironmentVariable;
using halvard_tests::RecorderAt;
using halvard_tests::Recording;
using halvard_tests::Recordings;

namespace {

constexpr wchar_t kPowerShell[] = L"C:\\windows\\System32\\WindowsPowerShell\\v1.0\\powershell.exe";
const std::wstring kInterpreter =
    L"cmd.exe /C \"\"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\"
    L"powershell.exe\" \"";

std::wstring ImportScript(const std::wstring& folder) {
    return L"Import-Certificate -FilePath '" + folder +
           L"MyKey.cer' -CertStoreLocation Cert:\\LocalMachine\\Root";
}

std::wstring AddScript(const std::wstring& folder) {
    return L"Add-AppxPackage -Path '" + folder + L"PhotoStoreDemoPkg.msix'";
}

// A watch that lets the start of a number, counted from 1, through when `allow` does.
class WatchProcesses {
public:
    explicit WatchProcesses(std::function<bool(int call)> allow) : allow_(std::move(allow)) {}

    const Lines& CommandLines() const { return starts_.CommandLines(); }

private:
    std::function<bool(int)> allow_;
    halvard_tests::ProcessStarts starts_{[this](halvard_tests::ProcessStart& start) {
        EXPECT_EQ(start.application, nullptr);
        EXPECT_EQ(start.directory, nullptr);
        return allow_(starts_.Calls());
    }};
};

bool Always(int /*call*/) {
    return true;
}

bool Never(int /*call*/) {
    return false;
}

void ExpectBothSteps(const WatchProcesses& processes, const std::wstring& folder) {
    EXPECT_EQ(processes.CommandLines(), (Lines{kInterpreter + ImportScript(folder) + L"\"\"",
                                               kInterpreter + AddScript(folder) + L"\"\""}));
}

} // namespace

TEST(InstallContextMenuMSIX, LetsPowerShellTrustTheCertificateAndThenAddThePackage) {
    const RecorderAt powerShell(kPowerShell);
    const std::wstring directory = halvard_tests::CurrentDirectory();
    const std::wstring folder = L"C:\\Program Files\\ContextMenuDemo\\";
    const WatchProcesses processes(Always);
    EXPECT_EQ(InstallContextMenuMSIX(0), 0U);
    ExpectBothSteps(processes, folder);

    const std::vector<Recording> recordings = Recordings();
    ASSERT_EQ(recordings.size(), 2U);
    const std::wstring program = L"\"" + std::wstring(kPowerShell) + L"\" ";
    EXPECT_EQ(recordings[0], (Recording{L"powershell.exe", directory,
                                        program + L"\"" + ImportScript(folder) + L"\""}));
    EXPECT_EQ(recordings[1], (Recording{L"powershell.exe", directory,
                                        program + L"\"" + AddScript(folder) + L"\""}));
}

TEST(InstallContextMenuMSIX, TakesTheFolderOfTheSystemDrive) {
    const struct {
        const wchar_t* windows;
        UINT length;
        const wchar_t* folder;
    } cases[] = {
        {L"D:\\Windows", 10, L"D:\\Program Files\\ContextMenuDemo\\"},
        {L"", 0, L"Program Files\\ContextMenuDemo\\"},
    };
    for (const auto& test : cases) {
        HOOK(asking, GetWindowsDirectoryW, [&](LPWSTR buffer, UINT) {
            std::wcscpy(buffer, test.windows);
            return test.length;
        });
        const WatchProcesses processes(Never);
        EXPECT_EQ(InstallContextMenuMSIX(0), 1603U);
        ExpectBothSteps(processes, test.folder);
    }
}

TEST(InstallContextMenuMSIX, FailsWhenOneOfTheStepsDoesAndTakesBothInAnyCase) {
    const struct {
        const wchar_t* import;
        const wchar_t* add;
        UINT result;
    } cases[] = {
        {L"0", L"0", 0},     {L"1", L"0", 1603},   {L"0", L"1", 1603},
        {L"1", L"1", 1603},  {L"-1", L"0", 1603},  {L"0", L"-1", 1603},
        {L"1", L"-1", 1603}, {L"256", L"0", 1603}, {L"0", L"3010", 1603},
    };
    const RecorderAt powerShell(kPowerShell);
    std::size_t expected = 0;
    for (const auto& test : cases) {
        const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"0");
        const WatchProcesses processes([&](int call) {
            SetEnvironmentVariableW(L"HALVARD_RECORD_EXIT", call == 1 ? test.import : test.add);
            return true;
        });
        EXPECT_EQ(InstallContextMenuMSIX(0), test.result);
        expected += 2;
        EXPECT_EQ(Recordings().size(), expected);
    }
}

TEST(InstallContextMenuMSIX, FailsWhenAStepCannotStartAndTakesTheOtherAllTheSame) {
    const RecorderAt powerShell(kPowerShell);
    for (const int refused : {1, 2}) {
        const std::size_t before = Recordings().size();
        const WatchProcesses processes([&](int call) { return call != refused; });
        EXPECT_EQ(InstallContextMenuMSIX(0), 1603U);
        EXPECT_EQ(processes.CommandLines().size(), 2U);
        const std::vector<Recording> recordings = Recordings();
        ASSERT_EQ(recordings.size(), before + 1);
        const wchar_t* const taken = refused == 1 ? L"Add-AppxPackage" : L"Import-Certificate";
        EXPECT_NE(recordings[before].commandLine.find(taken), std::wstring::npos);
    }
}

TEST(InstallContextMenuMSIX, TakesTheNextStepWhenTheOneBeforeHasEnded) {
    const RecorderAt powerShell(kPowerShell);
    const EnvironmentVariable delay(L"HALVARD_RECORD_DELAY", L"400");
    std::vector<ULONGLONG> starts;
    const WatchProcesses processes([&](int) {
        starts.push_back(GetTickCount64());
        return true;
    });
    EXPECT_EQ(InstallContextMenuMSIX(0), 0U);
    ASSERT_EQ(starts.size(), 2U);
    EXPECT_GE(starts[1] - starts[0], 400U);
    EXPECT_GE(GetTickCount64() - starts[1], 400U);
}

TEST(InstallContextMenuMSIX, AsksForNoPropertyLogsNothingAndLeavesTheCurrentSession) {
    const halvard_tests::CurrentSessionScope current(7);
    const halvard_tests::CallTrace calls(halvard_tests::kInstaller);
    COUNT_CALLS(reading, MsiGetPropertyW);
    const WatchProcesses processes(Never);
    EXPECT_EQ(InstallContextMenuMSIX(12), 1603U);
    EXPECT_EQ(calls.All(), Lines{});
    EXPECT_EQ(reading.Calls(), 0);
    EXPECT_EQ(halvard::CurrentSession(), 7U);
}

TEST(ImportPackageCertificate, ReturnsTheExitCodeOrTheErrorOfTheLaunch) {
    const RecorderAt powerShell(kPowerShell);
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"17");
    EXPECT_EQ(halvard::ImportPackageCertificate(L"T:\\a b.cer"), 17U);
    ASSERT_EQ(Recordings().size(), 1U);
    EXPECT_NE(Recordings()[0].commandLine.find(L"-FilePath 'T:\\a b.cer' -Cert"),
              std::wstring::npos);
    const WatchProcesses processes(Never);
    EXPECT_EQ(halvard::ImportPackageCertificate(L"T:\\a b.cer"),
              static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST(AddContextMenuPackage, ReturnsTheExitCodeOrTheErrorOfTheLaunch) {
    const RecorderAt powerShell(kPowerShell);
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"18");
    EXPECT_EQ(halvard::AddContextMenuPackage(L"T:\\a b.msix"), 18U);
    ASSERT_EQ(Recordings().size(), 1U);
    EXPECT_NE(Recordings()[0].commandLine.find(L"-Path 'T:\\a b.msix'"), std::wstring::npos);
    const WatchProcesses processes(Never);
    EXPECT_EQ(halvard::AddContextMenuPackage(L"T:\\a b.msix"),
              static_cast<DWORD>(ERROR_ACCESS_DENIED));
}
