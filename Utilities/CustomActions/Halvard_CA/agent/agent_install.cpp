#include "agent/agent_install.h"

#include "agent/agent_service.h"
#include "agent/agent_text.h"
#include "agent/folder_access.h"
#include "agent/pending_renames.h"
#include "cleanup/directory_tree.h"
#include "processes/process_commands.h"
#include "runtime/custom_action_data.h"
#include "runtime/file_status.h"
#include "runtime/launch.h"
#include "runtime/owned.h"
#include "runtime/registry.h"
#include "runtime/registry_values.h"
#include "runtime/open_service_manager.h"
#include "runtime/session.h"
#include "tasks/schtasks_commands.h"
#include "tasks/task_items.h"
#include "tasks/task_registration.h"

#include <objbase.h>
#include <shlobj.h>

namespace halvard {

namespace {

constexpr wchar_t kOlderService[] = L"UPAL";
constexpr wchar_t kOlderUploader[] = L"ZenvoUPAUF.exe";
// The key that CheckForClients spells in capitals; the registry does not tell them apart.
constexpr wchar_t kTeloKey[] = L"Software\\Telo";
constexpr wchar_t kIdentity[] = L"GUID";

void DeleteServiceNamed(const wchar_t* name) noexcept {
    const OwnedService manager = OpenServiceManager(SERVICES_ACTIVE_DATABASEW);
    if (!manager) {
        return;
    }
    const OwnedService service(OpenServiceW(manager.get(), name, DELETE));
    if (service) {
        DeleteService(service.get());
    }
}

void RemoveFolderIfThere(const std::wstring& folder) {
    if (ExistsOrThrow(folder)) {
        RemoveDirectoryTree(folder);
    }
}

void DeleteAgentFile(const std::wstring& folder, const wchar_t* name) {
    if (const auto path = AgentFilePath(folder, name)) {
        DeleteFileW(path->c_str());
    }
}

// Empty when the system makes none.
std::wstring NewIdentity() {
    GUID identity = {};
    if (FAILED(CoCreateGuid(&identity))) {
        return {};
    }
    wchar_t* text = nullptr;
    if (FAILED(StringFromCLSID(identity, &text))) {
        return {};
    }
    const OwnedTaskMemoryText owned(text);
    return WithoutBraces(text);
}

bool HasIdentity() noexcept {
    const OwnedKey key = OpenKey(HKEY_LOCAL_MACHINE, kTeloKey, KEY_READ);
    BYTE identity[520] = {};
    return key && ReadBytes(key.get(), kIdentity, identity, sizeof(identity), nullptr);
}

// The identity of a machine stays for all its agents, those of later installations too.
void GiveIdentity() {
    const std::wstring identity = NewIdentity();
    if (!HasIdentity() && !identity.empty()) {
        WriteRegistryString(kTeloKey, kIdentity, identity);
    }
}

} // namespace

bool KillProcessByImage(const std::wstring& imageName) {
    auto command = TaskKillCommand(ShellFolderOrEmpty(CSIDL_SYSTEM), imageName, L"");
    return command && RunCommandLine(command->data(), L"", true);
}

UINT __stdcall PreInstallUPA(MSIHANDLE /*session*/) {
    const std::wstring folder = AgentFolderIn(ShellFolderOrEmpty(CSIDL_PROGRAM_FILES));

    for (const wchar_t* const image : {L"ZenvoUPAM.exe", L"ZenvoUPADU.exe", kOlderUploader}) {
        KillProcessByImage(image);
    }
    StopServiceWithTimeout(kOlderService);
    DeleteServiceNamed(kOlderService);
    // Once more: the service may have started it again.
    KillProcessByImage(kOlderUploader);
    RemoveFolderIfThere(folder);
    DeleteAgentFile(folder, kOlderUploader);
    DeleteAgentFile(folder, L"UPASL.dll");
    RemoveFolderIfThere(folder);

    for (const wchar_t* const image :
         {L"TeloMaster.exe", L"TeloUF.exe", L"TeloDU.exe", L"TeloAC.exe", L"TeloUC.exe"}) {
        KillProcessByImage(image);
    }
    StopServiceWithTimeout(kAgentService);
    KillProcessByImage(L"TeloLauncher.exe");
    DeleteServiceNamed(kAgentService);
    RemoveFolderIfThere(folder);
    return ERROR_SUCCESS;
}

UINT __stdcall PostInstallUPA(MSIHANDLE session) {
    SetCurrentSession(session);
    const TaskItems task = ReadTaskItems(session, GetDataValue);

    // Only whether there is one matters. Never closed.
    if (RegisterEventSourceW(nullptr, L"Application") == nullptr) {
        return ERROR_INSTALL_FAILURE;
    }

    // A text and not a number, as it has always been.
    WriteRegistryString(L"SYSTEM\\CurrentControlSet\\Services\\PerfOS\\Performance\\",
                        L"Disable Performance Counters", L"0");
    GiveIdentity();
    GrantUsersFullAccess(AgentDataFolderIn(ShellFolderOrEmpty(CSIDL_COMMON_APPDATA)));
    CreateAgentService();
    StartAgentService();
    RegisterAgentLogonTask(task.taskName, task.command, task.userName);
    LaunchSchtasks(RunTaskParameters(task.taskName).c_str());
    return ERROR_SUCCESS;
}

UINT __stdcall AfterInstallUPA(MSIHANDLE /*session*/) {
    CleanPendingRenames();
    StartAgentService();
    return ERROR_SUCCESS;
}

} // namespace halvard
