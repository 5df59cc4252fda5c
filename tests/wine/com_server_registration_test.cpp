#include "com_server/registration.h"

#include "runtime/session.h"

#include "child_programs.h"
#include "current_session.h"
#include "file_system_error.h"
#include "files.h"
#include "import_hook.h"
#include "lines.h"
#include "open_handles.h"
#include "removal_calls.h"
#include "process_starts.h"
#include "registry_key.h"
#include "stand_in_session.h"

#include <msiquery.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <stdexcept>

using halvard::ApplyEntryPermissions;
using halvard::ApplyFolderPermissions;
using halvard::RegisterComServer;
using halvard::SetPermissionsRegisterDLL;
using halvard::UnregisterDLL;
using halvard_tests::CreateFolders;
using halvard_tests::CurrentDirectoryScope;
using halvard_tests::CurrentSessionScope;
using halvard_tests::EnvironmentVariable;
using halvard_tests::Link;
using halvard_tests::Listing;
using halvard_tests::OpenHandleCount;
using halvard_tests::ProcessStart;
using halvard_tests::ProcessStarts;
using halvard_tests::Question;
using halvard_tests::RecorderAt;
using halvard_tests::Recordings;
using halvard_tests::RemovalCalls;
using halvard_tests::ScratchFolder;
using halvard_tests::ScratchKey;
using halvard_tests::StandInSession;
using halvard_tests::WriteFileAt;

namespace {

constexpr wchar_t kIcacls[] = L"C:\\windows\\system32\\icacls.exe";
constexpr wchar_t kRegsvr32[] = L"C:\\windows\\system32\\regsvr32.exe";
constexpr wchar_t kServerKey[] = L"SOFTWARE\\HalvardComServer";

using Export = UINT(__stdcall*)(MSIHANDLE);
constexpr Export kExports[] = {SetPermissionsRegisterDLL, UnregisterDLL};

// A session with this data; a session of no use is the current one, which an action has to leave.
class Action {
public:
    explicit Action(const std::wstring& data) { session.SetProperty(L"CustomActionData", data); }
    Action(const std::wstring& installDir, const std::wstring& dllName,
           const std::wstring& userName)
        : Action(L"InstallDir=" + installDir + L";DLLName=" + dllName + L";Username=" + userName) {}

    UINT Run(Export action) const { return action(session.Get()); }

    CurrentSessionScope current{99};
    StandInSession session;
};

// Takes the place of the command interpreter: nothing is started, and every command ends as told.
class StandInInterpreter {
public:
    // What the command number `nth`, counted from 1, ends with.
    std::function<DWORD(const std::wstring& line, int nth)> exitCode = [](const std::wstring&,
                                                                          int) {
        return 0;
    };
    // The code with which it cannot be started, or none.
    std::function<DWORD(int nth)> refusal = [](int) {
        return 0;
    };
    // How often a command is still found running.
    int polls = 0;

    Lines lines;
    std::set<std::wstring> directories;
    // Starts and ends in their order.
    Lines events;

private:
    HOOK(creating_, CreateProcessW,
         [this](LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES,
                LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID, LPCWSTR directory, LPSTARTUPINFOW,
                LPPROCESS_INFORMATION child) -> BOOL {
             EXPECT_EQ(application, nullptr);
             lines.emplace_back(commandLine);
             directories.insert(directory == nullptr ? L"no directory" : directory);
             events.emplace_back(L"start");
             pollsLeft_ = polls;
             *child = {};
             const DWORD code = refusal(creating_.Calls());
             SetLastError(code);
             return code == 0 ? TRUE : FALSE;
         });
    HOOK(asking_, GetExitCodeProcess, [this](HANDLE, LPDWORD result) -> BOOL {
        if (pollsLeft_-- > 0) {
            *result = STILL_ACTIVE;
            return TRUE;
        }
        *result = exitCode(lines.back(), creating_.Calls());
        events.emplace_back(L"end");
        return TRUE;
    });

    int pollsLeft_ = 0;
};

std::wstring InCmd(const std::wstring& command) {
    return L"cmd.exe /C \"" + command + L"\"";
}

Lines EntryLines(const Lines& paths, const std::wstring& userName) {
    Lines lines;
    for (const std::wstring& path : paths) {
        lines.push_back(InCmd(L"icacls \"" + path + L"\" /setowner " + userName));
        lines.push_back(InCmd(L"icacls \"" + path + L"\" /grant Users:F"));
    }
    return lines;
}

Lines ServerLines(const std::wstring& unregistered, const std::wstring& registered) {
    return {InCmd(L"regsvr32.exe /u /s \"" + unregistered + L"\""),
            InCmd(L"regsvr32.exe /s \"" + registered + L"\"")};
}

bool IsRegistration(const std::wstring& line) {
    return line.find(L"regsvr32.exe /s ") != std::wstring::npos;
}

// What the engine's own regsvr32 has left: the path of the registered server.
std::optional<std::wstring> RegisteredServer() {
    wchar_t path[MAX_PATH] = {};
    DWORD size = sizeof(path);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, kServerKey, L"Path", RRF_RT_REG_SZ, nullptr, path,
                     &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    return path;
}

void MarkServerKey() {
    ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kServerKey, L"Mark", REG_SZ, L"", 2),
              ERROR_SUCCESS);
}

bool IsServerKeyMarked() {
    return RegGetValueW(HKEY_LOCAL_MACHINE, kServerKey, L"Mark", RRF_RT_REG_SZ, nullptr, nullptr,
                        nullptr) == ERROR_SUCCESS;
}

void CopyServerTo(const std::wstring& path) {
    ASSERT_NE(CopyFileW(halvard_tests::BesideTestProgram(L"..\\support\\com_server.dll").c_str(),
                        path.c_str(), FALSE),
              FALSE);
}

} // namespace

TEST(SetPermissionsRegisterDLL, HandsTheseCommandsToTheSystemInThisOrder) {
    const ScratchFolder scratch;
    CreateFolders(L"T:\\Scratch\\A dir\\sub");
    WriteFileAt(L"T:\\Scratch\\A dir\\sub\\x.dll");
    const Action action(L"T:\\Scratch\\A dir", L"sub\\x.dll", L"DOMAIN\\user");
    const StandInInterpreter interpreter;
    EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
    EXPECT_EQ(
        interpreter.lines,
        (Lines{
            L"cmd.exe /C \"icacls \"T:\\Scratch\\A dir\" /setowner DOMAIN\\user\"",
            L"cmd.exe /C \"icacls \"T:\\Scratch\\A dir\" /grant Users:F\"",
            L"cmd.exe /C \"icacls \"T:\\Scratch\\A dir\\sub\" /setowner DOMAIN\\user\"",
            L"cmd.exe /C \"icacls \"T:\\Scratch\\A dir\\sub\" /grant Users:F\"",
            L"cmd.exe /C \"icacls \"T:\\Scratch\\A dir\\sub\\x.dll\" /setowner DOMAIN\\user\"",
            L"cmd.exe /C \"icacls \"T:\\Scratch\\A dir\\sub\\x.dll\" /grant Users:F\"",
            L"cmd.exe /C \"regsvr32.exe /u /s \"T:\\Scratch\\A dirsub\\x.dll\"\"",
            L"cmd.exe /C \"regsvr32.exe /s \"T:\\Scratch\\A dir\\sub\\x.dll\"\"",
        }));
    EXPECT_EQ(interpreter.directories, std::set<std::wstring>{L"T:\\Scratch\\A dir"});
}

TEST(UnregisterDLL, HandsThisCommandToTheSystem) {
    for (const std::wstring end : {L"", L"\\"}) {
        const std::wstring folder = L"T:\\Scratch\\A dir" + end;
        const Action action(L"InstallDir=" + folder + L";DLLName=x.dll");
        const StandInInterpreter interpreter;
        EXPECT_EQ(action.Run(UnregisterDLL), 0U);
        EXPECT_EQ(interpreter.lines,
                  Lines{L"cmd.exe /C \"regsvr32.exe /u /s \"" + folder + L"x.dll\"\""});
        EXPECT_EQ(interpreter.directories, std::set<std::wstring>{folder});
    }
}

TEST(SetPermissionsRegisterDLL, LogsItsArgumentsToItsOwnSessionBeforeAnyCommand) {
    const Action action(L"T:\\no folder", L"x.dll", L"A user");
    StandInInterpreter interpreter;
    const Lines expected = {
        L"CustomActionData: InstallDir=T:\\no folder;DLLName=x.dll;Username=A user",
        L"DLL Path T:\\no folder", L"DLL Name x.dll", L"Username A user"};
    interpreter.exitCode = [&](const std::wstring&, int) {
        EXPECT_EQ(action.session.LogLines(), expected);
        return 0;
    };
    EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
    EXPECT_EQ(action.session.LogLines(), expected);
    EXPECT_EQ(action.session.Messages().size(), 4U);
    EXPECT_EQ(interpreter.lines.size(), 2U);
    EXPECT_EQ(halvard::CurrentSession(), 99U);
}

TEST(UnregisterDLL, LogsItsArgumentsToItsOwnSessionBeforeTheCommand) {
    const Action action(L"T:\\no folder\\", L"x.dll", L"A user");
    StandInInterpreter interpreter;
    const Lines expected = {
        L"CustomActionData: InstallDir=T:\\no folder\\;DLLName=x.dll;Username=A user",
        L"DLL Path T:\\no folder\\", L"DLL Name x.dll"};
    interpreter.exitCode = [&](const std::wstring&, int) {
        EXPECT_EQ(action.session.LogLines(), expected);
        return 0;
    };
    EXPECT_EQ(action.Run(UnregisterDLL), 0U);
    EXPECT_EQ(action.session.LogLines(), expected);
    EXPECT_EQ(action.session.Messages().size(), 3U);
    EXPECT_EQ(interpreter.lines.size(), 1U);
    EXPECT_EQ(halvard::CurrentSession(), 99U);
}

TEST(SetPermissionsRegisterDLL, TakesItsItemsInAnyOrder) {
    const Action action(L"Username=u;DLLName=x.dll;InstallDir=T:\\no folder");
    const StandInInterpreter interpreter;
    EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
    EXPECT_EQ(interpreter.lines, ServerLines(L"T:\\no folderx.dll", L"T:\\no folder\\x.dll"));
    EXPECT_EQ(action.session.LogLines()[3], L"Username u");
}

TEST(PermissionActions, AnAbsentItemIsTheDataFromTheLengthOfItsKeyOnward) {
    struct Case {
        std::wstring data;
        std::wstring installDir;
        std::wstring dllName;
        std::wstring userName;
    };
    const Case cases[] = {
        {L"DLLName=x.dll;Username=u", L"dll", L"x.dll", L"u"},
        {L"InstallDir=T:\\no;Username=u", L"T:\\no", L"Dir=T:\\no", L"u"},
        {L"InstallDir=T:\\no;DLLName=x.dll", L"T:\\no", L"x.dll", L"ir=T:\\no"},
        {L"0123456789", L"", L"789", L"89"},
        {L"InstallDir=;DLLName=;Username=", L"", L"", L""},
    };
    for (const Case& one : cases) {
        {
            const Action action(one.data);
            const StandInInterpreter interpreter;
            EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
            EXPECT_EQ(action.session.LogLines(),
                      (Lines{L"CustomActionData: " + one.data, L"DLL Path " + one.installDir,
                             L"DLL Name " + one.dllName, L"Username " + one.userName}));
            EXPECT_EQ(interpreter.lines, ServerLines(one.installDir + one.dllName,
                                                     one.installDir + L"\\" + one.dllName));
            EXPECT_EQ(interpreter.directories, std::set<std::wstring>{one.installDir});
        }
        const Action action(one.data);
        const StandInInterpreter interpreter;
        EXPECT_EQ(action.Run(UnregisterDLL), 0U);
        EXPECT_EQ(action.session.LogLines(),
                  (Lines{L"CustomActionData: " + one.data, L"DLL Path " + one.installDir,
                         L"DLL Name " + one.dllName}));
        EXPECT_EQ(interpreter.lines,
                  Lines{InCmd(L"regsvr32.exe /u /s \"" + one.installDir + one.dllName + L"\"")});
        EXPECT_EQ(interpreter.directories, std::set<std::wstring>{one.installDir});
    }
}

TEST(PermissionActions, DataTooShortForAnAbsentFolderThrowsAndRunsNothing) {
    for (const Export action : kExports) {
        for (const std::wstring& data : {std::wstring(), std::wstring(L"a"),
                                         std::wstring(L"DLLName=x"), std::wstring(9, L'x')}) {
            const Action shortData(data);
            const StandInInterpreter interpreter;
            EXPECT_THROW(shortData.Run(action), std::out_of_range);
            EXPECT_EQ(shortData.session.LogLines(), Lines{L"CustomActionData: " + data});
            EXPECT_EQ(interpreter.lines, Lines{});
        }
    }
}

TEST(PermissionActions, DataThatCannotBeReadThrowsAsEmptyDataDoes) {
    for (const Export action : kExports) {
        const StandInInterpreter interpreter;
        {
            const StandInSession session;
            EXPECT_THROW(action(session.Get()), std::out_of_range);
            EXPECT_EQ(session.LogLines(), Lines{L"CustomActionData: "});
        }
        for (int nth = 1; nth <= 2; ++nth) {
            const Action unread(L"T:\\no folder", L"x.dll", L"u");
            FAIL_CALL(reading, MsiGetPropertyW, nth, ERROR_INVALID_HANDLE, NO_ERROR);
            EXPECT_THROW(unread.Run(action), std::out_of_range);
            EXPECT_EQ(reading.Calls(), 2);
        }
        EXPECT_EQ(interpreter.lines, Lines{});
    }
}

TEST(PermissionActions, ALogThatCannotBeWrittenStopsNothing) {
    const auto expectAll = [] {
        const Action action(L"T:\\no folder", L"x.dll", L"u");
        const StandInInterpreter interpreter;
        EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
        EXPECT_EQ(action.Run(UnregisterDLL), 0U);
        EXPECT_EQ(interpreter.lines.size(), 3U);
    };
    {
        FAIL_CALL(creating, MsiCreateRecord, 0, 0, NO_ERROR);
        expectAll();
    }
    {
        FAIL_CALL(setting, MsiRecordSetStringW, 0, ERROR_INVALID_HANDLE, NO_ERROR);
        expectAll();
    }
    FAIL_CALL(processing, MsiProcessMessage, 0, -1, NO_ERROR);
    expectAll();
}

TEST(PermissionActions, AFolderTooLongForTheLogIsInTheCommandsWhole) {
    const std::wstring folder = L"T:\\" + std::wstring(600, L'x');
    const Action action(folder, L"x.dll", L"u");
    const StandInInterpreter interpreter;
    EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
    EXPECT_EQ(action.session.LogLines(), (Lines{L"CA buffer overflow\n", L"CA buffer overflow\n",
                                                L"DLL Name x.dll", L"Username u"}));
    EXPECT_EQ(interpreter.lines, ServerLines(folder + L"x.dll", folder + L"\\x.dll"));
}

TEST(SetPermissionsRegisterDLL, ItsResultDependsOnTheRegistrationAlone) {
    const ScratchFolder scratch;
    CreateFolders(L"T:\\Scratch\\Dir\\sub");
    const Lines expected = EntryLines({L"T:\\Scratch\\Dir", L"T:\\Scratch\\Dir\\sub"}, L"u") +
                           ServerLines(L"T:\\Scratch\\Dirx.dll", L"T:\\Scratch\\Dir\\x.dll");
    for (const DWORD code : {0U, 1U, 3U, 5U, 1603U, 9009U, 0xC0000005U}) {
        const Action action(L"T:\\Scratch\\Dir", L"x.dll", L"u");
        StandInInterpreter interpreter;
        interpreter.exitCode = [&](const std::wstring& line, int) {
            return IsRegistration(line) ? code : 5U;
        };
        EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), code == 0 ? 0U : 1603U) << code;
        EXPECT_EQ(interpreter.lines, expected);
    }
}

TEST(SetPermissionsRegisterDLL, GoesOnAfterEveryCommandThatCannotBeStarted) {
    const ScratchFolder scratch;
    CreateFolders(L"T:\\Scratch\\Dir\\sub");
    for (int refused = 1; refused <= 6; ++refused) {
        const Action action(L"T:\\Scratch\\Dir", L"x.dll", L"u");
        StandInInterpreter interpreter;
        interpreter.refusal = [&](int nth) {
            return nth == refused ? ERROR_FILE_NOT_FOUND : 0;
        };
        EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), refused == 6 ? 1603U : 0U) << refused;
        EXPECT_EQ(interpreter.lines.size(), 6U);
    }
}

TEST(UnregisterDLL, FailsForEveryResultButZero) {
    for (const DWORD code : {0U, 1U, 3U, 5U, 1603U, 9009U, 0xC0000005U}) {
        const Action action(L"T:\\Scratch\\", L"x.dll", L"u");
        StandInInterpreter interpreter;
        interpreter.exitCode = [&](const std::wstring&, int) {
            return code;
        };
        EXPECT_EQ(action.Run(UnregisterDLL), code == 0 ? 0U : 1603U) << code;
    }
    const Action action(L"T:\\Scratch\\", L"x.dll", L"u");
    StandInInterpreter interpreter;
    interpreter.refusal = [](int) {
        return ERROR_FILE_NOT_FOUND;
    };
    EXPECT_EQ(action.Run(UnregisterDLL), 1603U);
}

TEST(RegisterComServer, ReturnsTheResultOfTheRegistration) {
    StandInInterpreter interpreter;
    interpreter.exitCode = [](const std::wstring& line, int) {
        return IsRegistration(line) ? 4U : 3U;
    };
    EXPECT_EQ(RegisterComServer(L"x.dll", L"C:\\Apps\\Dir\\"), 4U);
    EXPECT_EQ(interpreter.lines, ServerLines(L"C:\\Apps\\Dir\\x.dll", L"C:\\Apps\\Dir\\\\x.dll"));
    EXPECT_EQ(interpreter.directories, std::set<std::wstring>{L"C:\\Apps\\Dir\\"});
    interpreter.refusal = [](int nth) {
        return nth == 4 ? 267 : 0;
    };
    EXPECT_EQ(RegisterComServer(L"x.dll", L"C:\\Apps\\Dir"), 267U);
}

TEST(PermissionActions, WaitForEachCommandBeforeTheNext) {
    const ScratchFolder scratch;
    const Action action(scratch.Path(), L"x.dll", L"u");
    StandInInterpreter interpreter;
    interpreter.polls = 3;
    EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
    EXPECT_EQ(action.Run(UnregisterDLL), 0U);
    Lines expected;
    for (int command = 0; command < 5; ++command) {
        expected.insert(expected.end(), {L"start", L"end"});
    }
    EXPECT_EQ(interpreter.events, expected);
}

TEST(ApplyEntryPermissions, RunsTwoCommandsAndShortensThePathInPlace) {
    const halvard::PermissionContext context = {L"A user", L"C:\\Work\\"};
    const std::pair<const wchar_t*, const wchar_t*> paths[] = {
        {L"C:\\Dir\\x.dll", L"C:\\Dir\\x.dll"},
        {L"C:\\Dir\\", L"C:\\Dir"},
        {L"C:\\Dir/", L"C:\\Dir"},
        {L"C:\\Dir\\\\", L"C:\\Dir\\"},
        {L"C:\\", L"C:"},
        {L"", L""}};
    for (const auto& [given, expected] : paths) {
        StandInInterpreter interpreter;
        interpreter.exitCode = [](const std::wstring&, int) {
            return 5;
        };
        std::wstring path = given;
        ApplyEntryPermissions(context, path);
        EXPECT_EQ(path, expected);
        EXPECT_EQ(interpreter.lines, EntryLines({expected}, L"A user"));
        EXPECT_EQ(interpreter.directories, std::set<std::wstring>{L"C:\\Work\\"});
    }
}

TEST(ApplyFolderPermissions, SpellsEntriesAsTheFolderWasSpelled) {
    const ScratchFolder scratch;
    CreateFolders(L"T:\\Scratch\\Dir");
    WriteFileAt(L"T:\\Scratch\\Dir\\x.dll");
    struct Case {
        const wchar_t* given;
        const wchar_t* folder;
        const wchar_t* entry;
    };
    const Case cases[] = {
        {L"T:\\Scratch\\Dir", L"T:\\Scratch\\Dir", L"T:\\Scratch\\Dir\\x.dll"},
        {L"T:\\Scratch\\Dir\\", L"T:\\Scratch\\Dir", L"T:\\Scratch\\Dir\\x.dll"},
        {L"T:\\Scratch\\Dir/", L"T:\\Scratch\\Dir", L"T:\\Scratch\\Dir/x.dll"},
        {L"T:\\Scratch\\Dir\\\\", L"T:\\Scratch\\Dir\\", L"T:\\Scratch\\Dir\\\\x.dll"},
        {L"t:/scratch/./dir", L"t:/scratch/./dir", L"t:/scratch/./dir\\x.dll"},
        {L"T:\\Scratch\\no\\..\\Dir", L"T:\\Scratch\\no\\..\\Dir",
         L"T:\\Scratch\\no\\..\\Dir\\x.dll"},
        {L"\\\\?\\T:\\Scratch\\Dir", L"\\\\?\\T:\\Scratch\\Dir", L"\\\\?\\T:\\Scratch\\Dir\\x.dll"},
        {L"Dir", L"Dir", L"Dir\\x.dll"},
    };
    const CurrentDirectoryScope current(scratch.Path());
    for (const Case& one : cases) {
        const StandInInterpreter interpreter;
        ApplyFolderPermissions(one.given, L"u");
        EXPECT_EQ(interpreter.lines, EntryLines({one.folder, one.entry}, L"u"));
        EXPECT_EQ(interpreter.directories, std::set<std::wstring>{one.given});
    }
}

TEST(SetPermissionsRegisterDLL, AnAbsentFolderGetsWhatItsTextSays) {
    // The text that an absent InstallDir= leaves is a name like any other, relative to the current
    // directory.
    const ScratchFolder scratch;
    CreateFolders(L"T:\\Scratch\\dll\\sub");
    const CurrentDirectoryScope current(scratch.Path());
    const Action action(L"DLLName=x.dll;Username=u");
    const StandInInterpreter interpreter;
    EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
    EXPECT_EQ(interpreter.lines,
              EntryLines({L"dll", L"dll\\sub"}, L"u") + ServerLines(L"dllx.dll", L"dll\\x.dll"));
    EXPECT_EQ(interpreter.directories, std::set<std::wstring>{L"dll"});
}

TEST(SetPermissionsRegisterDLL, WhatIsNoFolderGetsNoPermissionsButIsRegistered) {
    const ScratchFolder scratch;
    WriteFileAt(scratch.File(L"file"));
    for (const std::wstring& folder :
         {std::wstring(), scratch.File(L"missing"), scratch.File(L"missing\\folder\\"),
          scratch.File(L"file"), scratch.File(L"a?b"), std::wstring(L"Q:\\folder")}) {
        const Action action(folder, L"x.dll", L"u");
        const StandInInterpreter interpreter;
        EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
        EXPECT_EQ(interpreter.lines, ServerLines(folder + L"x.dll", folder + L"\\x.dll"));
    }
}

TEST(PermissionActions, AWorkingDirectoryThatTheSystemRefusesFailsThem) {
    const ScratchFolder scratch;
    WriteFileAt(scratch.File(L"file"));
    for (const std::wstring& folder :
         {std::wstring(), scratch.File(L"missing"), scratch.File(L"file")}) {
        const Action action(folder, L"x.dll", L"u");
        const ProcessStarts starts([&](ProcessStart& start) {
            EXPECT_EQ(start.directory, folder);
            return true;
        });
        EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 1603U);
        EXPECT_EQ(action.Run(UnregisterDLL), 1603U);
        EXPECT_EQ(starts.Codes(), std::vector<DWORD>(3, ERROR_DIRECTORY));
    }
}

TEST(ApplyFolderPermissions, GivesEveryEntryItsTwoCommandsAfterThoseOfItsFolder) {
    const ScratchFolder scratch;
    const std::wstring top = scratch.Path();
    std::set<std::wstring> expected = {top};
    for (const wchar_t* const folder : {L"\\a", L"\\a\\b", L"\\c", L"\\empty"}) {
        CreateFolders(top + folder);
        expected.insert(top + folder);
    }
    for (const wchar_t* const folder : {L"", L"\\a", L"\\a\\b", L"\\c"}) {
        for (const wchar_t* const file : {L"\\1.txt", L"\\2.dll", L"\\3"}) {
            WriteFileAt(top + folder + file);
            expected.insert(top + folder + file);
        }
    }
    SetFileAttributesW((top + L"\\a\\1.txt").c_str(), FILE_ATTRIBUTE_READONLY);
    SetFileAttributesW((top + L"\\a").c_str(), FILE_ATTRIBUTE_HIDDEN);

    const StandInInterpreter interpreter;
    ApplyFolderPermissions(top, L"u");
    ASSERT_EQ(interpreter.lines.size(), 2 * (16U + 1));
    std::set<std::wstring> seen;
    for (std::size_t index = 0; index < interpreter.lines.size(); index += 2) {
        const std::wstring& line = interpreter.lines[index];
        const std::size_t start = line.find(L"icacls \"") + 8;
        const std::wstring path = line.substr(start, line.find(L'"', start) - start);
        EXPECT_EQ(Lines(interpreter.lines.begin() + static_cast<std::ptrdiff_t>(index),
                        interpreter.lines.begin() + static_cast<std::ptrdiff_t>(index) + 2),
                  EntryLines({path}, L"u"));
        EXPECT_TRUE(seen.insert(path).second);
        EXPECT_TRUE(path == top || seen.count(path.substr(0, path.rfind(L'\\'))) == 1);
    }
    EXPECT_EQ(seen, expected);
}

TEST(ApplyFolderPermissions, HandsNamesAndUsersOverAsTheyAre) {
    const Lines names = {L"a blank and  two",
                         L"\u00e4\u00df \u0416\u0434 \u6f22\u5b57",
                         L"a & del b",
                         L"a^b^^c",
                         L"%PATH% %1 100%",
                         L"(a) (b",
                         L"it's 'quoted' `here`",
                         L"a,b;c=d!e~f@g#h$i{j}[k]+l",
                         L"-x"};
    for (const std::wstring& name : names) {
        const ScratchFolder scratch;
        WriteFileAt(scratch.File(name));
        for (const std::wstring user : {L"DOMAIN\\Ren\u00e9", L"a & b \"c\" %d%", L""}) {
            const StandInInterpreter interpreter;
            ApplyFolderPermissions(scratch.Path(), user);
            EXPECT_EQ(interpreter.lines, EntryLines({scratch.Path(), scratch.File(name)}, user));
        }
    }
}

TEST(ApplyFolderPermissions, GivesALinkItsTwoCommandsAndNothingBehindItAny) {
    const ScratchFolder scratch;
    CreateFolders(scratch.File(L"Dir"));
    CreateFolders(scratch.File(L"outside\\folder"));
    WriteFileAt(scratch.File(L"outside\\file"));
    const Link link(scratch.File(L"Dir"), L"link", L"../outside");
    const StandInInterpreter interpreter;
    ApplyFolderPermissions(scratch.File(L"Dir"), L"u");
    EXPECT_EQ(interpreter.lines,
              EntryLines({scratch.File(L"Dir"), scratch.File(L"Dir\\link")}, L"u"));
}

TEST(SetPermissionsRegisterDLL, ALinkAsTheFolderGetsItsTwoCommandsAlone) {
    const ScratchFolder scratch;
    CreateFolders(scratch.File(L"outside\\folder"));
    WriteFileAt(scratch.File(L"outside\\x.dll"));
    const Link link(scratch.Path(), L"link", L"outside");
    for (const std::wstring end : {L"", L"\\", L"/", L"\\."}) {
        const std::wstring given = scratch.File(L"link") + end;
        const Action action(given, L"x.dll", L"u");
        const StandInInterpreter interpreter;
        EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
        EXPECT_EQ(interpreter.lines,
                  EntryLines({scratch.File(L"link") + (end == L"\\." ? end : L"")}, L"u") +
                      ServerLines(given + L"x.dll", given + L"\\x.dll"));
    }
}

TEST(SetPermissionsRegisterDLL, ALinkThatLeadsNowhereGetsNoPermissionsButIsRegistered) {
    const ScratchFolder scratch;
    CreateFolders(scratch.File(L"outside"));
    const Link link(scratch.Path(), L"link", L"outside");
    RemoveDirectoryW(scratch.File(L"outside").c_str());
    {
        const Action action(scratch.File(L"link"), L"x.dll", L"u");
        const StandInInterpreter interpreter;
        EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
        EXPECT_EQ(interpreter.lines,
                  ServerLines(scratch.File(L"linkx.dll"), scratch.File(L"link\\x.dll")));
    }
    CreateFolders(scratch.File(L"outside"));
}

TEST(ApplyFolderPermissions, EntersWhatOnlySeemsALink) {
    const ScratchFolder scratch;
    CreateFolders(scratch.File(L"sub\\inner"));
    const std::pair<DWORD, bool> tags[] = {{IO_REPARSE_TAG_SYMLINK, false},
                                           {IO_REPARSE_TAG_MOUNT_POINT, false},
                                           {0, false},
                                           {IO_REPARSE_TAG_DEDUP, true}};
    for (const auto& [tag, entered] : tags) {
        RemovalCalls calls;
        calls.List(scratch.Path(), L"sub", [tag = tag](FILE_ID_BOTH_DIR_INFO& entry) {
            entry.FileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
            entry.EaSize = tag;
        });
        calls.tags = {{scratch.File(L"sub"), tag}};
        const StandInInterpreter interpreter;
        ApplyFolderPermissions(scratch.Path(), L"u");
        Lines paths = {scratch.Path(), scratch.File(L"sub")};
        if (entered) {
            paths.push_back(scratch.File(L"sub\\inner"));
        }
        EXPECT_EQ(interpreter.lines, EntryLines(paths, L"u")) << tag;
    }
}

namespace {

// T:\Scratch\sub\x.dll: the commands before a walk that fails in the middle can be counted.
struct SmallTree {
    SmallTree() {
        CreateFolders(scratch.File(L"sub"));
        WriteFileAt(scratch.File(L"sub\\x.dll"));
    }

    ScratchFolder scratch;
};

constexpr char kConstructor[] = "recursive_directory_iterator::recursive_directory_iterator";
constexpr char kIncrement[] = "recursive_directory_iterator::operator++";

// The error that leaves the action after this many entries have got their commands, and nothing
// registered.
void ExpectRaised(const std::string& operation, const std::wstring& path, DWORD code,
                  std::size_t entries) {
    const Action action(L"T:\\Scratch", L"x.dll", L"u");
    const StandInInterpreter interpreter;
    const int before = OpenHandleCount();
    halvard_tests::ExpectFileSystemError([&] { action.Run(SetPermissionsRegisterDLL); }, operation,
                                         path, static_cast<int>(code));
    // Each command leaves the two handles of its second pipe.
    EXPECT_EQ(OpenHandleCount() - before, static_cast<int>(2 * 2 * entries)) << operation;
    const Lines all =
        EntryLines({L"T:\\Scratch", L"T:\\Scratch\\sub", L"T:\\Scratch\\sub\\x.dll"}, L"u");
    EXPECT_EQ(interpreter.lines,
              Lines(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(2 * entries)))
        << operation;
}

// The action succeeds, with commands for this many entries.
void ExpectEntries(std::size_t entries) {
    const Action action(L"T:\\Scratch", L"x.dll", L"u");
    const StandInInterpreter interpreter;
    EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
    const Lines all =
        EntryLines({L"T:\\Scratch", L"T:\\Scratch\\sub", L"T:\\Scratch\\sub\\x.dll"}, L"u");
    EXPECT_EQ(interpreter.lines,
              Lines(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(2 * entries)) +
                  ServerLines(L"T:\\Scratchx.dll", L"T:\\Scratch\\x.dll"));
}

} // namespace

TEST(SetPermissionsRegisterDLL, AFolderThatCannotBeAskedOrListedEndsItBeforeTheRegistration) {
    const SmallTree tree;
    const std::wstring top = L"T:\\Scratch";
    const std::wstring sub = L"T:\\Scratch\\sub";
    const struct {
        std::wstring failing;
        std::size_t nth;
        const char* operation;
        std::wstring path;
        std::size_t entries;
    } cases[] = {
        {L"attributes of ", 1, "exists", top, 0},
        {L"attributes of ", 2, "status", top, 0},
        {L"open file ", 1, kConstructor, top, 1},
        {L"open entry ", 1, kIncrement, sub, 2},
        {Listing(top), 1, kConstructor, top, 1},
        {Listing(top), 2, kIncrement, top, 3},
        {Listing(sub), 1, kIncrement, sub, 2},
        {Listing(sub), 2, kIncrement, sub, 3},
        // The opening of the top, "sub" listed in it, and the opening of that.
        {Question(top), 1, kConstructor, top, 1},
        {Question(top), 2, kIncrement, top, 1},
        {Question(sub), 1, kIncrement, sub, 2},
    };
    for (const DWORD code : {DWORD{ERROR_ACCESS_DENIED}, DWORD{ERROR_SHARING_VIOLATION}}) {
        for (const auto& each : cases) {
            RemovalCalls calls;
            calls.Fail(each.failing, code, each.nth);
            ExpectRaised(each.operation, each.path, code, each.entries);
        }
    }
    // Gone between the commands for it and the walk.
    FAIL_CALL(opening, CreateFileW, 1, INVALID_HANDLE_VALUE, ERROR_PATH_NOT_FOUND);
    ExpectRaised(kConstructor, top, ERROR_PATH_NOT_FOUND, 1);
}

TEST(SetPermissionsRegisterDLL, WhatHasGoneMeanwhileIsPassedBy) {
    const SmallTree tree;
    for (const DWORD code :
         {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND, ERROR_BAD_NETPATH, ERROR_INVALID_NAME}) {
        for (const std::size_t nth : {1U, 2U}) {
            RemovalCalls calls;
            calls.Fail(L"attributes of ", code, nth);
            ExpectEntries(0);
        }
        RemovalCalls calls;
        calls.Fail(L"open entry ", code);
        ExpectEntries(2);
    }
}

TEST(SetPermissionsRegisterDLL, FailuresAroundTheCommandsStopNothing) {
    const SmallTree tree;
    {
        FAIL_CALL(naming, GetFullPathNameW, 0, 0, ERROR_ACCESS_DENIED);
        ExpectEntries(3);
    }
    {
        FAIL_CALL(piping, CreatePipe, 0, FALSE, ERROR_ACCESS_DENIED);
        ExpectEntries(3);
    }
    {
        FAIL_CALL(setting, SetHandleInformation, 0, FALSE, ERROR_ACCESS_DENIED);
        ExpectEntries(3);
    }
    FAIL_CALL(peeking, PeekNamedPipe, 0, FALSE, ERROR_BROKEN_PIPE);
    ExpectEntries(3);
}

TEST(SetPermissionsRegisterDLL, LeavesOpenOnlyTheSecondPipeOfEachCommand) {
    const SmallTree tree;
    const Action action(tree.scratch.Path(), L"x.dll", L"u");
    const StandInInterpreter interpreter;
    const int before = OpenHandleCount();
    EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 0U);
    EXPECT_EQ(interpreter.lines.size(), 8U);
    EXPECT_EQ(OpenHandleCount() - before, 2 * 8);
}

TEST(SetPermissionsRegisterDLL, ReachesTheToolsThroughTheRealInterpreter) {
    const ScratchFolder scratch;
    const std::wstring name = L"\u0416 & (1)^ 5%.dll";
    CreateFolders(scratch.File(L"A dir"));
    WriteFileAt(scratch.File(L"A dir\\" + name));
    const RecorderAt icacls(kIcacls);
    const RecorderAt regsvr32(kRegsvr32);
    const EnvironmentVariable exitCode(L"HALVARD_RECORD_EXIT", L"5");
    const Action action(L"T:\\Scratch\\A dir\\", name, L"DOMAIN\\A user");
    EXPECT_EQ(action.Run(SetPermissionsRegisterDLL), 1603U);
    Lines commands;
    for (const halvard_tests::Recording& recording : Recordings()) {
        EXPECT_EQ(recording.directory, L"T:\\Scratch\\A dir");
        commands.push_back(recording.program + L": " + recording.commandLine);
    }
    EXPECT_EQ(
        commands,
        (Lines{
            L"icacls.exe: icacls \"T:\\Scratch\\A dir\" /setowner DOMAIN\\A user",
            L"icacls.exe: icacls \"T:\\Scratch\\A dir\" /grant Users:F",
            L"icacls.exe: icacls \"T:\\Scratch\\A dir\\" + name + L"\" /setowner DOMAIN\\A user",
            L"icacls.exe: icacls \"T:\\Scratch\\A dir\\" + name + L"\" /grant Users:F",
            L"regsvr32.exe: regsvr32.exe /u /s \"T:\\Scratch\\A dir\\" + name + L"\"",
            L"regsvr32.exe: regsvr32.exe /s \"T:\\Scratch\\A dir\\\\" + name + L"\"",
        }));
}

TEST(PermissionActions, RegisterAndUnregisterARealServer) {
    const ScratchKey key(kServerKey);
    const ScratchFolder scratch;
    CreateFolders(scratch.File(L"A dir"));
    CopyServerTo(scratch.File(L"A dir\\com_server.dll"));
    // What any unregistration would take away.
    MarkServerKey();
    // The commands for permissions are refused, which saves their time.
    const ProcessStarts starts([](ProcessStart& start) {
        return std::wstring(start.commandLine).find(L"icacls") == std::wstring::npos;
    });

    const auto run = [](Export action, const std::wstring& installDir, const wchar_t* dllName) {
        const Action data(installDir, dllName, L"u");
        return data.Run(action);
    };
    const std::wstring folder = scratch.File(L"A dir");
    const wchar_t* const server = L"com_server.dll";

    // Without a backslash at its end the unregistration misses the server, unseen.
    EXPECT_EQ(run(SetPermissionsRegisterDLL, folder, server), 0U);
    EXPECT_EQ(starts.Calls(), 4 + 2);
    EXPECT_EQ(RegisteredServer(), L"T:\\Scratch\\A dir\\com_server.dll");
    EXPECT_TRUE(IsServerKeyMarked());
    EXPECT_EQ(run(UnregisterDLL, folder, server), 1603U);
    EXPECT_NE(RegisteredServer(), std::nullopt);

    EXPECT_EQ(run(SetPermissionsRegisterDLL, folder + L"\\", server), 0U);
    EXPECT_NE(RegisteredServer(), std::nullopt);
    EXPECT_FALSE(IsServerKeyMarked());
    const auto openHandles = [&] {
        return OpenHandleCount() - starts.HandlesHeld();
    };
    const int before = openHandles();
    EXPECT_EQ(run(UnregisterDLL, folder + L"\\", server), 0U);
    EXPECT_EQ(openHandles() - before, 2);
    EXPECT_EQ(RegisteredServer(), std::nullopt);

    EXPECT_EQ(run(SetPermissionsRegisterDLL, folder + L"\\", L"missing.dll"), 1603U);
}
