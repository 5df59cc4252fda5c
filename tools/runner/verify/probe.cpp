// verify_probe: the custom actions of the package that --verify-installer installs. Each writes
// what it sees into a report, the path of which it is told together with a name for itself.

#include <windows.h>
#include <msi.h>
#include <msiquery.h>
#include <sddl.h>

#include <cwchar>
#include <initializer_list>

namespace {

constexpr DWORD kCapacity = 1024;

struct Text {
    wchar_t characters[kCapacity] = {};
};

struct ProbeException {};

// Empty where it is not set, not to be seen or too long.
Text PropertyOf(MSIHANDLE session, const wchar_t* name) {
    Text value;
    DWORD length = kCapacity;
    if (MsiGetPropertyW(session, name, value.characters, &length) != ERROR_SUCCESS) {
        value.characters[0] = L'\0';
    }
    return value;
}

// "Path|Name" from CustomActionData, or from a property where the action is immediate.
struct Report {
    Text path;
    const wchar_t* name = L"";
};

void ReadReport(MSIHANDLE session, Report& report) {
    report.path = PropertyOf(session, L"CustomActionData");
    if (report.path.characters[0] == L'\0') {
        report.path = PropertyOf(session, L"HALVARDREPORT");
    }
    wchar_t* const end = std::wcschr(report.path.characters, L'|');
    if (end != nullptr) {
        *end = L'\0';
        report.name = end + 1;
    }
}

void Tell(const Report& report, const wchar_t* what, const wchar_t* value) {
    void* const file = CreateFileW(report.path.characters, FILE_APPEND_DATA, FILE_SHARE_READ,
                                   nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return;
    }
    for (const wchar_t* const part : {report.name, L".", what, L"=", value, L"\n"}) {
        DWORD written = 0;
        WriteFile(file, part, static_cast<DWORD>(std::wcslen(part) * sizeof(wchar_t)), &written,
                  nullptr);
    }
    CloseHandle(file);
}

void TellTime(const Report& report) {
    LARGE_INTEGER now = {};
    LARGE_INTEGER frequency = {};
    QueryPerformanceCounter(&now);
    QueryPerformanceFrequency(&frequency);
    wchar_t text[32] = {};
    static_cast<void>(
        std::swprintf(text, 32, L"%lld", now.QuadPart * 1000000 / frequency.QuadPart));
    Tell(report, L"time", text);
}

void TellUser(const Report& report) {
    HANDLE token = nullptr;
    if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token) == FALSE &&
        OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) == FALSE) {
        return;
    }
    alignas(TOKEN_USER) BYTE buffer[256] = {};
    DWORD size = sizeof(buffer);
    wchar_t* identity = nullptr;
    if (GetTokenInformation(token, TokenUser, buffer, size, &size) != FALSE &&
        ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER*>(buffer)->User.Sid, &identity) !=
            FALSE) {
        Tell(report, L"user", identity);
        LocalFree(identity);
    }
    CloseHandle(token);
}

void TellPlace(const Report& report) {
    Text text;
    GetModuleFileNameW(nullptr, text.characters, kCapacity);
    Tell(report, L"host", text.characters);
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                           GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<const wchar_t*>(&TellPlace), &self);
    GetModuleFileNameW(self, text.characters, kCapacity);
    Tell(report, L"library", text.characters);
    GetCurrentDirectoryW(kCapacity, text.characters);
    Tell(report, L"directory", text.characters);
    GetTempPathW(kCapacity, text.characters);
    Tell(report, L"temporary", text.characters);
    TellUser(report);
}

void TellProperties(MSIHANDLE session, const Report& report) {
    for (const wchar_t* const name :
         {L"CustomActionData", L"ProductCode", L"UserSID", L"ProductName"}) {
        Tell(report, name, PropertyOf(session, name).characters);
    }
}

} // namespace

extern "C" {

__declspec(dllexport) UINT __stdcall Look(MSIHANDLE session) {
    Report report;
    ReadReport(session, report);
    TellPlace(report);
    TellProperties(session, report);
    return ERROR_SUCCESS;
}

__declspec(dllexport) UINT __stdcall Mark(MSIHANDLE session) {
    Report report;
    ReadReport(session, report);
    TellTime(report);
    return ERROR_SUCCESS;
}

__declspec(dllexport) UINT __stdcall SkipTheRest(MSIHANDLE /*session*/) {
    return ERROR_NO_MORE_ITEMS;
}

__declspec(dllexport) UINT __stdcall Fail(MSIHANDLE /*session*/) {
    return ERROR_INSTALL_FAILURE;
}

__declspec(dllexport) UINT __stdcall Throw(MSIHANDLE /*session*/) {
    throw ProbeException();
}

} // extern "C"
