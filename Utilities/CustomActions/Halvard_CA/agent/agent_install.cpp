#include "agent/agent_install.h"

#include "agent/agent_registry.h"
#include "agent/agent_service.h"
#include "agent/agent_text.h"
#include "agent/folder_access.h"
#include "agent/pending_renames.h"
#include "cleanup/directory_tree.h"
#include "processes/process_commands.h"
#include "runtime/custom_action_data.h"
#include "runtime/file_status.h"
#include "runtime/launch.h"
#include "runtime/registry.h"
#include "runtime/service_handle.h"
#include "runtime/session.h"
#include "tasks/schtasks_commands.h"
#include "tasks/task_registration.h"

#include <objbase.h>
#include <shlobj.h>

#include <array>
#include <memory>

namespace {

constexpr wchar_t kOlderService[] = L"UPAL";
constexpr wchar_t kOlderUploader[] = L"ZenvoUPAUF.exe";
// The key that CheckForClients spells in capitals; the registry does not tell them apart.
constexpr wchar_t kTeloKey[] = L"Software\\Telo";
constexpr wchar_t kIdentity[] = L"GUID";

struct TaskMemoryFreer {
    void operator()(wchar_t* text) const noexcept { CoTaskMemFree(text); }
};
using OwnedTaskText = std::unique_ptr<wchar_t, TaskMemoryFreer>;

void DeleteServiceNamed(const wchar_t* name) noexcept {
    const halvard::OwnedServiceHandle manager(
        OpenSCManagerW(nullptr, SERVICES_ACTIVE_DATABASEW, SC_MANAGER_ALL_ACCESS));
    if (!manager) {
        return;
    }
    const halvard::OwnedServiceHandle service(OpenServiceW(manager.get(), name, DELETE));
    if (service) {
        DeleteService(service.get());
    }
}

void RemoveFolderIfThere(const std::wstring& folder) {
    if (halvard::Exists(folder)) {
        halvard::RemoveDirectoryTree(folder);
    }
}

void DeleteAgentFile(const std::wstring& folder, const wchar_t* name) {
    if (const auto path = halvard::AgentFilePath(folder, name)) {
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
    const OwnedTaskText owned(text);
    return halvard::WithoutBraces(text);
}

bool HasIdentity() noexcept {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTeloKey, 0, KEY_READ, &opened) != ERROR_SUCCESS) {
        return false;
    }
    const halvard::KeyHolder key(opened);
    std::array<BYTE, 520> identity = {};
    auto size = static_cast<DWORD>(identity.size());
    return RegQueryValueExW(key.get(), kIdentity, nullptr, nullptr, identity.data(), &size) ==
           ERROR_SUCCESS;
}

// The identity of a machine stays for all its agents, those of later installations too.
void GiveIdentity() {
    const std::wstring identity = NewIdentity();
    if (!HasIdentity() && !identity.empty()) {
        halvard::WriteRegistryString(kTeloKey, kIdentity, identity);
    }
}

} // namespace

namespace halvard {

bool KillProcessByImage(const std::wstring& imageName) {
    auto command = TaskKillCommand(ShellFolderOrEmpty(CSIDL_SYSTEM), imageName, L"");
    return command && RunCommandLine(command->data(), L"", true);
}

} // namespace halvard

UINT __stdcall PreInstallUPA(MSIHANDLE /*session*/) {
    const std::wstring folder =
        halvard::AgentFolderIn(halvard::ShellFolderOrEmpty(CSIDL_PROGRAM_FILES));

    for (const wchar_t* const image : {L"ZenvoUPAM.exe", L"ZenvoUPADU.exe", kOlderUploader}) {
        halvard::KillProcessByImage(image);
    }
    halvard::StopServiceWithTimeout(kOlderService);
    DeleteServiceNamed(kOlderService);
    // Once more: the service may have started it again.
    halvard::KillProcessByImage(kOlderUploader);
    RemoveFolderIfThere(folder);
    DeleteAgentFile(folder, kOlderUploader);
    DeleteAgentFile(folder, L"UPASL.dll");
    RemoveFolderIfThere(folder);

    for (const wchar_t* const image :
         {L"TeloMaster.exe", L"TeloUF.exe", L"TeloDU.exe", L"TeloAC.exe", L"TeloUC.exe"}) {
        halvard::KillProcessByImage(image);
    }
    halvard::StopServiceWithTimeout(halvard::kAgentService);
    halvard::KillProcessByImage(L"TeloLauncher.exe");
    DeleteServiceNamed(halvard::kAgentService);
    RemoveFolderIfThere(folder);
    return ERROR_SUCCESS;
}

UINT __stdcall PostInstallUPA(MSIHANDLE session) {
    halvard::SetCurrentSession(session);
    const std::wstring data = halvard::ReadCustomActionData(session);
    const std::wstring taskName = halvard::GetDataValue(data, L"TaskName=");
    const std::wstring command = halvard::GetDataValue(data, L"CommandToLaunch=");
    const std::wstring userName = halvard::GetDataValue(data, L"Username=");
    halvard::LogMessage(halvard::CurrentSession(), L"Task Name %s", taskName.c_str());
    halvard::LogMessage(halvard::CurrentSession(), L"Command to launch %s", command.c_str());
    halvard::LogMessage(halvard::CurrentSession(), L"Username %s", userName.c_str());

    // Only whether there is one matters. Never closed: the process that hosts the action is gone
    // soon after it.
    if (RegisterEventSourceW(nullptr, L"Application") == nullptr) {
        return ERROR_INSTALL_FAILURE;
    }

    // A text and not a number, as it has always been.
    halvard::WriteRegistryString(L"SYSTEM\\CurrentControlSet\\Services\\PerfOS\\Performance\\",
                                 L"Disable Performance Counters", L"0");
    GiveIdentity();
    halvard::GrantUsersFullAccess(
        halvard::AgentDataFolderIn(halvard::ShellFolderOrEmpty(CSIDL_COMMON_APPDATA)));
    halvard::CreateAgentService();
    halvard::StartAgentService();
    halvard::RegisterAgentLogonTask(taskName, command, userName);
    halvard::LaunchSchtasks(halvard::RunTaskParameters(taskName).c_str());
    return ERROR_SUCCESS;
}

UINT __stdcall AfterInstallUPA(MSIHANDLE /*session*/) {
    halvard::CleanPendingRenames();
    halvard::StartAgentService();
    return ERROR_SUCCESS;
}
