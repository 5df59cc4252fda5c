#include "tasks/pv_dvr_tasks.h"

#include "runtime/file_paths.h"
#include "runtime/file_status.h"
#include "runtime/pivot.h"
#include "runtime/registry.h"
#include "tasks/run_schtasks.h"
#include "tasks/schtasks_commands.h"
#include "tasks/task_xml_rewriter.h"

namespace halvard {

namespace {

struct LogonTask {
    const wchar_t* name;
    const wchar_t* xmlFile;
    const wchar_t* program;
    const wchar_t* argument;
};

constexpr LogonTask kPivotTask = {kPivotTaskName, L"StartPV.xml", kPivotProgram, L"startwithdelay"};
constexpr LogonTask kRecorderTask = {L"StartDVR", L"StartDVR.xml", L"VSServCmd.exe", L""};

// Earlier releases started the applications through the Run key.
void RemoveRunValue(const wchar_t* name) {
    const OwnedKey run = OpenKey(
        HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run", KEY_ALL_ACCESS);
    if (run) {
        RegDeleteValueW(run.get(), name);
    }
}

UINT CreateLogonTask(const LogonTask& task) {
    RemoveRunValue(task.name);
    LookUpSystemFolder();

    const std::wstring location = ReadPivotLocation();
    if (!ExistsByAttributes(location)) {
        return ERROR_INSTALL_FAILURE;
    }

    // The task comes from the installed file: the rewritten copy is made and left, nothing reads
    // it.
    const std::wstring installedXml = FileInFolder(location, task.xmlFile);
    const auto createCommand = CreateTaskCommand(task.name, installedXml);
    RewriteTaskWorkingDirectory(installedXml, TemporaryXmlPath(task.xmlFile), location);
    RunSchtasks(createCommand, location, true);

    const std::wstring program = ProgramInFolder(location, task.program);
    RunSchtasks(ChangeTaskCommand(task.name, program, task.argument), location, false);
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
    return DeleteTask(kPivotTask.name);
}

UINT __stdcall RemoveDVRSchedularTask(MSIHANDLE /*session*/) {
    return DeleteTask(kRecorderTask.name);
}

UINT __stdcall DeleteSchedTaskonBranding(MSIHANDLE /*session*/) {
    // Never closed.
    HKEY branding = OpenKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Zenvo\\PV", KEY_READ).release();
    if (branding != nullptr && ReadNumber(branding, L"LazeStart") == DWORD{1}) {
        DeleteTask(kPivotTask.name);
    }
    return ERROR_SUCCESS;
}

} // namespace halvard
