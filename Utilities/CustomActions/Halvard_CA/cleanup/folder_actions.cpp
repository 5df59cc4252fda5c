#include "cleanup/folder_actions.h"

#include "cleanup/directory_tree.h"
#include "runtime/custom_action_data.h"
#include "runtime/file_paths.h"
#include "runtime/file_status.h"
#include "runtime/framework_key.h"
#include "runtime/launch.h"
#include "runtime/pivot.h"
#include "runtime/registry.h"
#include "runtime/session.h"

#include <shlwapi.h>

#include <string>

namespace halvard {

namespace {

constexpr DWORD kExitLimitMilliseconds = 30000;

struct Location {
    std::wstring folder;
    // The low 32 bits of the handle of the key that named the folder.
    UINT keyNumber = 0;
};

// The key is closed on return: it is not held while its folder goes.
Location ReadLocation(const std::wstring& subkey, REGSAM access, bool throwOnError) {
    const OwnedKey key = OpenRequiredKey(HKEY_LOCAL_MACHINE, subkey.c_str(), access);
    Location location;
    location.folder = ReadRegistryString(key.get(), L"", L"Location", throwOnError);
    location.keyNumber = static_cast<UINT>(reinterpret_cast<ULONG_PTR>(key.get()));
    return location;
}

struct InstallDir {
    std::wstring text;
    DWORD type = REG_NONE;
};

InstallDir ReadRecorderInstallDir() {
    // Never closed.
    HKEY key =
        OpenKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies\\Install\\XVR64", KEY_READ)
            .release();
    BoundedText<MAX_PATH * sizeof(wchar_t)> text;
    DWORD type = REG_NONE;
    if (key == nullptr || !ReadBoundedText(key, L"InstallDir", text, &type)) {
        return {};
    }
    return {text.characters, type};
}

void RemoveSingleFolder(const std::wstring& path) {
    const DWORD code = RemoveFolder(SystemPath(path));
    if (code != ERROR_SUCCESS && !MeansMissing(code)) {
        ThrowFileSystemError("remove", path, code);
    }
}

} // namespace

void ExitPivotCommandProcessor() {
    // With a backslash at its end, which the registry takes for the same key.
    const Location pivot =
        ReadLocation(std::wstring(kPivotInstallKey) + L"\\", KEY_READ | KEY_WRITE, true);
    ShellExecuteAndWait(ProgramInFolder(pivot.folder, kPivotProgram), L"exit",
                        kExitLimitMilliseconds);
}

UINT __stdcall DeletePVFolder(MSIHANDLE session) {
    SetCurrentSession(session);
    ExitPivotCommandProcessor();
    const Location pivot = ReadLocation(kPivotInstallKey, KEY_READ | KEY_WRITE, true);
    if (ExistsOrThrow(pivot.folder)) {
        RemoveDirectoryTree(pivot.folder);
        return ERROR_SUCCESS;
    }
    // Packages tell a missing folder by a result other than 0; which number does not matter.
    return pivot.keyNumber != 0 ? pivot.keyNumber : ERROR_INSTALL_FAILURE;
}

UINT __stdcall DeletePVINSTALLDIRFolder(MSIHANDLE session) {
    SetCurrentSession(session);
    ShellExecuteAndWait(
        L"%SYSTEMROOT%\\System32\\WindowsPowerShell\\v1.0\\powershell.exe",
        L"Get-AppxPackage ZenvoCorporationInc-VSXCM* | Remove-AppxPackage -AllUsers", INFINITE);
    RemoveDirectoryTree(ReadPivotLocation());
    return ERROR_SUCCESS;
}

UINT __stdcall DeletePVSlimINSTALLDIRFolder(MSIHANDLE session) {
    SetCurrentSession(session);
    const Location slim = ReadLocation(kFrameworkKey, KEY_ALL_ACCESS | KEY_WOW64_32KEY, false);
    RemoveDirectoryTree(slim.folder);
    return ERROR_SUCCESS;
}

UINT __stdcall DeleteDMFTDirectory(MSIHANDLE session) {
    const std::wstring data = ReadCustomActionData(session);
    RemoveDirectoryTree(GetDataValueOrEmpty(data, L"InstallDir="));
    return ERROR_SUCCESS;
}

UINT __stdcall DeleteXVRFolder(MSIHANDLE session) {
    SetCurrentSession(session);
    ExitPivotCommandProcessor();

    const InstallDir installDir = ReadRecorderInstallDir();
    std::wstring path = installDir.text + L"XVR";
    if (!ExistsForShell(path)) {
        return installDir.type;
    }
    RemoveDirectoryTree(path);

    // Throws std::out_of_range when there is no backslash.
    path.erase(path.rfind(L'\\'));
    if (PathIsDirectoryEmptyW(path.c_str()) != FALSE) {
        RemoveSingleFolder(path);
    }
    return ERROR_SUCCESS;
}

} // namespace halvard
