#pragma once

#include "import_hook.h"

#include <shellapi.h>

namespace halvard_tests {

/// Plays every program that is started, for the length of a scope: none runs, and each has ended
/// with 0 at once.
class PlayedPrograms {
private:
    // Something to wait for and to close.
    static HANDLE Ended() { return CreateEventW(nullptr, TRUE, TRUE, nullptr); }

    HOOK(starting_, CreateProcessW,
         [](LPCWSTR, LPWSTR, LPSECURITY_ATTRIBUTES, LPSECURITY_ATTRIBUTES, BOOL, DWORD, LPVOID,
            LPCWSTR, LPSTARTUPINFOW, LPPROCESS_INFORMATION child) {
             child->hProcess = Ended();
             child->hThread = Ended();
             return TRUE;
         });
    HOOK(executing_, ShellExecuteExW, [](SHELLEXECUTEINFOW* execution) {
        execution->hProcess = Ended();
        return TRUE;
    });
    HOOK(asking_, GetExitCodeProcess, [](HANDLE, LPDWORD exitCode) {
        *exitCode = 0;
        return TRUE;
    });
};

} // namespace halvard_tests
