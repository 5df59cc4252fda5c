#include "cleanup/folder_actions.h"

#include "cleanup/directory_tree.h"
#include "runtime/custom_action_data.h"
#include "runtime/file_paths.h"
#include "runtime/file_status.h"
#include "runtime/launch.h"
#include "runtime/pivot.h"
#include "runtime/registry.h"
#include "runtime/session.h"

#include <shlwapi.h>

#include <string>

namespace {

constexpr DWORD kExitLimitMilliseconds = 30000;

struct Location {
    std::wstring folder;
    // The low 32 bits of the handle of the key that named the folder.
    UINT keyNumber = 0;
};

// The key is closed on return: it is not held while its folder goes.
Location ReadLocation(const std::wstring& subkey, REGSAM access, bool throwOnError) {
    const halvard::KeyHolder key =
        halvard::OpenRequiredKey(HKEY_LOCAL_MACHINE, subkey.c_str(), access);
    Location location;
    location.folder = halvard::ReadRegistryString(key.get(), L"", L"Location", throwOnError);
    location.keyNumber = static_cast<UINT>(reinterpret_cast<ULONG_PTR>(key.get()));
    return location;
}

Location ReadPivotLocation() {
    return ReadLocation(halvard::kPivotInstallKey, KEY_READ | KEY_WRITE, true);
}

struct InstallDir {
    std::wstring text;
    DWORD type = REG_NONE;
};

InstallDir ReadRecorderInstallDir() {
    // Never closed: the process that hosts the action is gone soon after it.
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies\\Install\\XVR64", 0,
                      KEY_READ, &key) != ERROR_SUCCESS) {
        return {};
    }
    // One character more than the registry may write ends every value, with a terminator or not.
    wchar_t text[MAX_PATH + 1] = {};
    DWORD size = MAX_PATH * sizeof(wchar_t);
    DWORD type = REG_NONE;
    if (RegQueryValueExW(key, L"InstallDir", nullptr, &type, reinterpret_cast<BYTE*>(text),
                         &size) != ERROR_SUCCESS) {
        return {};
    }
    return {text, type};
}

void RemoveSingleFolder(const std::wstring& path) {
    const DWORD code = halvard::RemoveFolder(halvard::SystemPath(path));
    if (code != ERROR_SUCCESS && !halvard::MeansMissing(code)) {
        halvard::ThrowFileSystemError("remove", path, code);
    }
}

} // namespace

namespace halvard {

void ExitPivotCommandProcessor() {
    // With a backslash at its end, which the registry takes for the same key.
    const Location pivot =
        ReadLocation(std::wstring(kPivotInstallKey) + L"\\", KEY_READ | KEY_WRITE, true);
    ShellExecuteAndWait(ProgramInFolder(pivot.folder, kPivotProgram), L"exit",
                        kExitLimitMilliseconds);
}

} // namespace halvard

UINT __stdcall DeletePVFolder(MSIHANDLE session) {
    halvard::SetCurrentSession(session);
    halvard::ExitPivotCommandProcessor();
    const Location pivot = ReadPivotLocation();
    if (halvard::Exists(pivot.folder)) {
        halvard::RemoveDirectoryTree(pivot.folder);
        return ERROR_SUCCESS;
    }
    // Packages tell a missing folder by a result other than 0; which number does not matter.
    return pivot.keyNumber != 0 ? pivot.keyNumber : ERROR_INSTALL_FAILURE;
}

UINT __stdcall DeletePVINSTALLDIRFolder(MSIHANDLE session) {
    halvard::SetCurrentSession(session);
    halvard::ShellExecuteAndWait(
        L"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe",
        L"Get-AppxPackage ZenvoCorporationInc-VSXCM* | Remove-AppxPackage -AllUsers", INFINITE);
    halvard::RemoveDirectoryTree(ReadPivotLocation().folder);
    return ERROR_SUCCESS;
}

UINT __stdcall DeletePVSlimINSTALLDIRFolder(MSIHANDLE session) {
    halvard::SetCurrentSession(session);
    const Location slim = ReadLocation(L"SOFTWARE\\Qorta\\Sable\\Packages\\Core-Static",
                                       KEY_ALL_ACCESS | KEY_WOW64_32KEY, false);
    halvard::RemoveDirectoryTree(slim.folder);
    return ERROR_SUCCESS;
}

UINT __stdcall DeleteDMFTDirectory(MSIHANDLE session) {
    const std::wstring data = halvard::ReadCustomActionData(session);
    halvard::RemoveDirectoryTree(halvard::GetDataValueOrEmpty(data, L"InstallDir="));
    return ERROR_SUCCESS;
}

UINT __stdcall DeleteXVRFolder(MSIHANDLE session) {
    halvard::SetCurrentSession(session);
    halvard::ExitPivotCommandProcessor();

    const InstallDir installDir = ReadRecorderInstallDir();
    std::wstring path = installDir.text + L"XVR";
    if (PathFileExistsW(path.c_str()) == FALSE) {
        return installDir.type;
    }
    halvard::RemoveDirectoryTree(path);

    // Throws std::out_of_range when there is no backslash.
    path.erase(path.rfind(L'\\'));
    if (PathIsDirectoryEmptyW(path.c_str()) != FALSE) {
        RemoveSingleFolder(path);
    }
    return ERROR_SUCCESS;
}
