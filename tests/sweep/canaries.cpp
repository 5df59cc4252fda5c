// sweep_canaries: a library whose actions go well as long as no call fails, and have a fault that
// ./run sweep has to find when one does.

#include <windows.h>
#include <msi.h>

#include <cstdlib>

namespace {

// The call that fails.
bool CannotOpen() {
    HKEY key = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, KEY_READ, &key);
    if (status == ERROR_SUCCESS) {
        RegCloseKey(key);
    }
    return status != ERROR_SUCCESS;
}

// No compiler sees that it goes nowhere.
void* volatile kept;

} // namespace

#define ACTION(name) extern "C" __declspec(dllexport) UINT __stdcall name(MSIHANDLE /*session*/)

ACTION(HasNoFault) {
    return CannotOpen() ? ERROR_INSTALL_FAILURE : ERROR_SUCCESS;
}

ACTION(KeepsAHandle) {
    if (CannotOpen()) {
        kept = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    }
    return ERROR_SUCCESS;
}

ACTION(KeepsAKey) {
    if (CannotOpen()) {
        HKEY key = nullptr;
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, KEY_READ, &key);
        kept = key;
    }
    return ERROR_SUCCESS;
}

ACTION(KeepsABlock) {
    if (CannotOpen()) {
        kept = std::malloc(100);
    }
    return ERROR_SUCCESS;
}

ACTION(DoesNotEnd) {
    while (CannotOpen()) {
        for (;;) {
            Sleep(1);
        }
    }
    return ERROR_SUCCESS;
}

ACTION(GivesAnUnknownResult) {
    return CannotOpen() ? 42 : ERROR_SUCCESS;
}

ACTION(ThrowsWhatNobodyNames) {
    if (CannotOpen()) {
        throw 42;
    }
    return ERROR_SUCCESS;
}

ACTION(GivesUp) {
    if (CannotOpen()) {
        std::abort();
    }
    return ERROR_SUCCESS;
}

ACTION(EndsTheProcess) {
    if (CannotOpen()) {
        std::exit(0);
    }
    return ERROR_SUCCESS;
}

ACTION(TouchesAnotherFile) {
    if (CannotOpen()) {
        DeleteFileW(L"T:\\Other\\kept.txt");
    }
    return ERROR_SUCCESS;
}

ACTION(WritesIntoAnotherFile) {
    if (CannotOpen()) {
        HANDLE file = CreateFileW(L"T:\\Other\\kept.txt", GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                  0, nullptr);
        DWORD written = 0;
        WriteFile(file, "!", 1, &written, nullptr);
        CloseHandle(file);
    }
    return ERROR_SUCCESS;
}

ACTION(TouchesAnotherKey) {
    if (CannotOpen()) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\ZenvoOther");
    }
    return ERROR_SUCCESS;
}

ACTION(StartsAnotherProgram) {
    if (CannotOpen()) {
        wchar_t line[] = L"another.exe";
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION child = {};
        CreateProcessW(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &child);
        CloseHandle(child.hProcess);
        CloseHandle(child.hThread);
    }
    return ERROR_SUCCESS;
}

ACTION(LeavesAFile) {
    // Where no run is looked at, with a name that stays.
    CloseHandle(CreateFileW(L"C:\\windows\\left.txt", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0,
                            nullptr));
    return CannotOpen() ? ERROR_INSTALL_FAILURE : ERROR_SUCCESS;
}

ACTION(CallsAnUnknownFunction) {
    using Function = DWORD(WINAPI*)();
    void* const found =
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32"), "GetOEMCP"));
    reinterpret_cast<Function>(found)();
    return CannotOpen() ? ERROR_INSTALL_FAILURE : ERROR_SUCCESS;
}
