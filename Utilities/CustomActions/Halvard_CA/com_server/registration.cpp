#include "com_server/registration.h"

#include "com_server/registration_commands.h"
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
    if (!ExistsOrThrow(folder) || !IsDirectory(folder)) {
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

namespace {

UINT ResultOf(DWORD exitCode) {
    return exitCode == 0 ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace

UINT __stdcall SetPermissionsRegisterDLL(MSIHANDLE session) {
    const std::wstring data = ReadCustomActionData(session);
    const std::wstring installDir = GetDataValue(data, L"InstallDir=");
    const std::wstring dllName = GetDataValue(data, L"DLLName=");
    const std::wstring userName = GetDataValue(data, L"Username=");
    LogMessage(session, L"DLL Path %s", installDir.c_str());
    LogMessage(session, L"DLL Name %s", dllName.c_str());
    LogMessage(session, L"Username %s", userName.c_str());

    ApplyFolderPermissions(installDir, userName);
    return ResultOf(RegisterComServer(dllName, installDir));
}

UINT __stdcall UnregisterDLL(MSIHANDLE session) {
    const std::wstring data = ReadCustomActionData(session);
    const std::wstring installDir = GetDataValue(data, L"InstallDir=");
    const std::wstring dllName = GetDataValue(data, L"DLLName=");
    LogMessage(session, L"DLL Path %s", installDir.c_str());
    LogMessage(session, L"DLL Name %s", dllName.c_str());

    return ResultOf(UnregisterComServer(dllName, installDir));
}

} // namespace halvard
