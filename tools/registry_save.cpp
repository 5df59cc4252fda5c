// registry_save FOLDER: writes the whole registry into two new files, FOLDER\machine and
// FOLDER\users.
//
// A snapshot before and after every installer run has to be cheap. An export by reg.exe asks for
// each value by itself and takes seconds; saving a tree of keys is one call.

#include <windows.h>

#include <cstdio>
#include <string>

namespace {

void Complain(const std::string& text) {
    static_cast<void>(std::fputs(("registry_save: " + text + "\n").c_str(), stderr));
}

bool EnableBackupPrivilege() {
    HANDLE token = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token) == FALSE) {
        return false;
    }
    TOKEN_PRIVILEGES privileges = {};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    BOOL enabled =
        LookupPrivilegeValueW(nullptr, L"SeBackupPrivilege", &privileges.Privileges[0].Luid);
    if (enabled != FALSE) {
        enabled = AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
    }
    CloseHandle(token);
    return enabled != FALSE;
}

bool Save(HKEY root, const std::string& file) {
    const LSTATUS status = RegSaveKeyA(root, file.c_str(), nullptr);
    if (status != ERROR_SUCCESS) {
        Complain(file + ": error " + std::to_string(status));
    }
    return status == ERROR_SUCCESS;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        Complain("the one argument is the folder");
        return 2;
    }
    if (!EnableBackupPrivilege()) {
        Complain("no privilege to save keys");
        return 1;
    }
    const std::string folder = argv[1];
    const bool saved =
        Save(HKEY_LOCAL_MACHINE, folder + "\\machine") && Save(HKEY_USERS, folder + "\\users");
    return saved ? 0 : 1;
}
