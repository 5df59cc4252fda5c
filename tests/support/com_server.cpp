// com_server: a COM server's DLL as far as registration goes. Registered, it writes its own path to
//
//     HKEY_LOCAL_MACHINE\SOFTWARE\HalvardComServer, value "Path"
//
// and unregistered it removes that key with all below it.

#include <windows.h>

#include <cwchar>

namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\HalvardComServer";
wchar_t path[MAX_PATH] = {};

} // namespace

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
    if (reason == DLL_PROCESS_ATTACH) {
        GetModuleFileNameW(instance, path, MAX_PATH);
    }
    return TRUE;
}

extern "C" {

__declspec(dllexport) HRESULT __stdcall DllRegisterServer() {
    const auto size = static_cast<DWORD>((std::wcslen(path) + 1) * sizeof(wchar_t));
    return HRESULT_FROM_WIN32(
        static_cast<DWORD>(RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, L"Path", REG_SZ, path, size)));
}

__declspec(dllexport) HRESULT __stdcall DllUnregisterServer() {
    return HRESULT_FROM_WIN32(static_cast<DWORD>(RegDeleteTreeW(HKEY_LOCAL_MACHINE, kKey)));
}

} // extern "C"
