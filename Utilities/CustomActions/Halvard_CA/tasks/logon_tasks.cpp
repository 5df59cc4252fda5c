#include "tasks/logon_tasks.h"

#include "runtime/file_paths.h"
#include "runtime/pivot.h"
#include "runtime/registry.h"
#include "tasks/schtasks_actions.h"
#include "tasks/schtasks_commands.h"
#include "tasks/task_xml_rewriter.h"

namespace {

struct LogonTask {
    const wchar_t* name;
    const wchar_t* xmlFile;
    const wchar_t* program;
    const wchar_t* argument;
};

constexpr LogonTask kPivotTask = {L"StartPV", L"StartPV.xml", halvard::kPivotProgram,
                                  L"startwithdelay"};
constexpr LogonTask kRecorderTask = {L"StartDVR", L"StartDVR.xml", L"VSServCmd.exe", L""};

// Earlier releases started the applications through the Run key.
void RemoveRunValue(const wchar_t* name) {
    HKEY run = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run", 0,
                      KEY_ALL_ACCESS, &run) == ERROR_SUCCESS) {
        RegDeleteValueW(run, name);
        RegCloseKey(run);
    }
}

UINT CreateLogonTask(const LogonTask& task) {
    RemoveRunValue(task.name);
    halvard::LookUpSystemFolder();

    const std::wstring location = halvard::ReadRequiredString(
        HKEY_LOCAL_MACHINE, halvard::kPivotInstallKey, KEY_READ | KEY_WRITE, L"Location");
    if (!halvard::PathExists(location)) {
        return ERROR_INSTALL_FAILURE;
    }

    // The task comes from the installed file: the rewritten copy is made and left, nothing reads
    // it.
    const std::wstring installedXml = halvard::FileInFolder(location, task.xmlFile);
    const auto createCommand = halvard::CreateTaskCommand(task.name, installedXml);
    halvard::RewriteTaskWorkingDirectory(installedXml, halvard::TemporaryXmlPath(task.xmlFile),
                                         location);
    halvard::RunSchtasks(createCommand, location, true);

    const std::wstring program = halvard::ProgramInFolder(location, task.program);
    halvard::RunSchtasks(halvard::ChangeTaskCommand(task.name, program, task.argument), location,
                         false);
    return ERROR_SUCCESS;
}

} // namespace

UINT __stdcall CreateLogonSchTask(MSIHANDLE /*session*/) {
    return CreateLogonTask(kPivotTask);
}

UINT __stdcall CreateDVRLogonSchTask(MSIHANDLE /*session*/) {
    return CreateLogonTask(kRecorderTask);
}

UINT __stdcall RemovePVSchedularTask(MSIHANDLE /*session*/) {
    return halvard::DeleteTask(kPivotTask.name);
}

UINT __stdcall RemoveDVRSchedularTask(MSIHANDLE /*session*/) {
    return halvard::DeleteTask(kRecorderTask.name);
}

UINT __stdcall LaunchPV(MSIHANDLE /*session*/) {
    halvard::RunSchtasks(halvard::RunTaskCommand(kPivotTask.name), L"", true);
    return 1;
}

UINT __stdcall DeleteSchedTaskonBranding(MSIHANDLE /*session*/) {
    // Never closed: the process that hosts the action is gone soon after it.
    HKEY branding = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Zenvo\\PV", 0, KEY_READ, &branding) !=
        ERROR_SUCCESS) {
        return ERROR_SUCCESS;
    }
    DWORD noStart = 0;
    DWORD size = sizeof(noStart);
    if (RegQueryValueExW(branding, L"LazeStart", nullptr, nullptr,
                         reinterpret_cast<BYTE*>(&noStart), &size) == ERROR_SUCCESS &&
        noStart == 1) {
        halvard::DeleteTask(kPivotTask.name);
    }
    return ERROR_SUCCESS;
}
