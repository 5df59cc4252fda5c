#include "processes/application_actions.h"

#include "processes/process_commands.h"
#include "runtime/file_paths.h"
#include "runtime/file_status.h"
#include "runtime/launch.h"
#include "runtime/pivot.h"
#include "runtime/registry.h"

#include <shlobj.h>

#include <array>

namespace halvard {

namespace {

// What asks an application to quit.
struct CommandTool {
    const wchar_t* installKey;
    const wchar_t* program;
    bool (*exists)(const std::wstring& path);
};

constexpr CommandTool kPivotTool = {kPivotInstallKey, kPivotProgram, ExistsOrThrow};
constexpr CommandTool kRecorderTool = {L"SOFTWARE\\Qorta Technologies\\Install\\Zenvo DVR",
                                       L"VSServCmd.exe", ExistsForShell};

enum class WorkingDirectory { SystemFolder, CommandText };

// Which processes end, and how TaskKill.exe is called for them.
struct Termination {
    std::array<const wchar_t*, 2> images; // tried in this order until a start succeeds, or null
    const wchar_t* commandEnd;
    WorkingDirectory directory;
};

// The quote at the end and a working directory that does not exist are what this action has always
// handed over: both starts are refused, and that stays.
constexpr Termination kPivotTermination = {
    {L"VireoSettings.exe", L"VireoSoftware.exe"}, L"\"", WorkingDirectory::CommandText};
constexpr Termination kRecorderTermination = {
    {L"ZenvoVSServ.exe", nullptr}, L"", WorkingDirectory::SystemFolder};

UINT ShutDown(const CommandTool& tool) {
    const std::wstring location =
        ReadRequiredString(HKEY_LOCAL_MACHINE, tool.installKey, KEY_READ, L"Location");
    if (!ExistsOrThrow(location)) {
        return ERROR_SUCCESS;
    }
    const std::wstring program = FileInFolder(location, tool.program);
    if (!tool.exists(program)) {
        return ERROR_INSTALL_FAILURE;
    }
    if (auto command = ExitCommand(program)) {
        RunCommandLine(command->data(), location, false);
    }
    return ERROR_SUCCESS;
}

bool RunTaskKill(const Termination& termination, const wchar_t* image,
                 const std::wstring& systemFolder) {
    auto command = TaskKillCommand(systemFolder, image, termination.commandEnd);
    if (!command) {
        return false;
    }
    const std::wstring directory =
        termination.directory == WorkingDirectory::CommandText ? *command : systemFolder;
    return RunCommandLine(command->data(), directory, true);
}

UINT Terminate(const Termination& termination) {
    // A folder that Windows does not tell is empty, and the start decides.
    const std::wstring systemFolder = ShellFolderOrEmpty(CSIDL_SYSTEM);

    for (const wchar_t* const image : termination.images) {
        if (image != nullptr && RunTaskKill(termination, image, systemFolder)) {
            return ERROR_SUCCESS;
        }
    }
    return ERROR_INSTALL_FAILURE;
}

} // namespace

UINT __stdcall ShutDownPivotConsole(MSIHANDLE /*session*/) {
    return ShutDown(kPivotTool);
}

UINT __stdcall ShutDownDVR(MSIHANDLE /*session*/) {
    return ShutDown(kRecorderTool);
}

UINT __stdcall TerminatePivotApp(MSIHANDLE /*session*/) {
    return Terminate(kPivotTermination);
}

UINT __stdcall TerminateDVRApp(MSIHANDLE /*session*/) {
    return Terminate(kRecorderTermination);
}

} // namespace halvard
