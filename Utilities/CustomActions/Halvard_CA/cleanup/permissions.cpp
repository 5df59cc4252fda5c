#include "cleanup/permissions.h"

#include "cleanup/permission_commands.h"
#include "cleanup/tree_walk.h"
#include "runtime/custom_action_data.h"
#include "runtime/file_status.h"
#include "runtime/launch.h"
#include "runtime/session.h"

namespace halvard {

namespace {

DWORD UnregisterComServer(const std::wstring& dllName, const std::wstring& installDir) {
    return RunCmdCommand(UnregisterCommand(installDir, dllName), installDir.c_str());
}

} // namespace

void ApplyEntryPermissions(const PermissionContext& context, std::wstring& path) {
    DropTrailingSlash(path);
    const wchar_t* const directory = context.workingDirectory.c_str();
    RunCmdCommand(OwnerCommand(path, context.userName), directory);
    RunCmdCommand(GrantCommand(path), directory);
}

void ApplyFolderPermissions(const std::wstring& folder, const std::wstring& userName) {
    if (!Exists(folder) || !IsDirectory(folder)) {
        return;
    }
    const PermissionContext context = {userName, folder};
    std::wstring path = folder;
    ApplyEntryPermissions(context, path);
    // Listed from here on: the commands for a folder may be what makes it readable.
    TreeWalk walk(folder);
    while (walk.Next()) {
        path = walk.Path();
        ApplyEntryPermissions(context, path);
    }
}

DWORD RegisterComServer(const std::wstring& dllName, const std::wstring& installDir) {
    UnregisterComServer(dllName, installDir);
    return RunCmdCommand(RegisterCommand(installDir, dllName), installDir.c_str());
}

} // namespace halvard

namespace {

UINT ResultOf(DWORD exitCode) {
    return exitCode == 0 ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace

UINT __stdcall SetPermissionsRegisterDLL(MSIHANDLE session) {
    const std::wstring data = halvard::ReadCustomActionData(session);
    const std::wstring installDir = halvard::GetDataValue(data, L"InstallDir=");
    const std::wstring dllName = halvard::GetDataValue(data, L"DLLName=");
    const std::wstring userName = halvard::GetDataValue(data, L"Username=");
    halvard::LogMessage(session, L"DLL Path %s", installDir.c_str());
    halvard::LogMessage(session, L"DLL Name %s", dllName.c_str());
    halvard::LogMessage(session, L"Username %s", userName.c_str());

    halvard::ApplyFolderPermissions(installDir, userName);
    return ResultOf(halvard::RegisterComServer(dllName, installDir));
}

UINT __stdcall UnregisterDLL(MSIHANDLE session) {
    const std::wstring data = halvard::ReadCustomActionData(session);
    const std::wstring installDir = halvard::GetDataValue(data, L"InstallDir=");
    const std::wstring dllName = halvard::GetDataValue(data, L"DLLName=");
    halvard::LogMessage(session, L"DLL Path %s", installDir.c_str());
    halvard::LogMessage(session, L"DLL Name %s", dllName.c_str());

    return ResultOf(halvard::UnregisterComServer(dllName, installDir));
}
