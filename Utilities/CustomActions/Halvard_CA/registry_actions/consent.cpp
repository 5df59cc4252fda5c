#include "registry_actions/consent.h"

#include "runtime/registry.h"
#include "runtime/session.h"
#include "runtime/text.h"

#include <msiquery.h>

namespace {

constexpr wchar_t kConsentKey[] = L"SOFTWARE\\Zenvo\\ZenvoAnalytics";
constexpr wchar_t kMarkerKey[] = L"SOFTWARE\\ZenvoDVR";

// Null when the key cannot be opened.
halvard::KeyHolder OpenKey(const wchar_t* path) {
    HKEY opened = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_ALL_ACCESS, &opened);
    return halvard::KeyHolder(status == ERROR_SUCCESS ? opened : nullptr);
}

// Null, and the code in `status`, when the key cannot be created.
halvard::KeyHolder CreateKey(const wchar_t* path, REGSAM access, LSTATUS& status) {
    HKEY created = nullptr;
    status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, REG_OPTION_NON_VOLATILE, access,
                             nullptr, &created, nullptr);
    return halvard::KeyHolder(status == ERROR_SUCCESS ? created : nullptr);
}

bool SetNumber(HKEY key, const wchar_t* name, DWORD number) {
    return RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number),
                          sizeof(number)) == ERROR_SUCCESS;
}

// True when the key was there to be written to, whatever became of the value.
bool SetConsent(const std::wstring& accepted) {
    const halvard::KeyHolder key = OpenKey(kConsentKey);
    if (key == nullptr) {
        return false;
    }
    RegSetValueExW(key.get(), L"AnalyticsAccepted", 0, REG_SZ,
                   reinterpret_cast<const BYTE*>(accepted.c_str()),
                   static_cast<DWORD>(2 * accepted.size() + 2));
    return true;
}

void CreateConsentKey() {
    LSTATUS status = ERROR_SUCCESS;
    if (CreateKey(L"SOFTWARE\\Zenvo\\ZenvoAnalytics\\", KEY_READ | KEY_WRITE, status) == nullptr) {
        throw halvard::RegKeyError(static_cast<int>(status), std::system_category(),
                                   "Unable to get create registry key");
    }
}

bool RecorderIsEnabled() {
    const halvard::KeyHolder install = OpenKey(L"SOFTWARE\\Qorta Technologies\\Install");
    DWORD enabled = 0;
    DWORD size = sizeof(enabled);
    return install != nullptr &&
           RegQueryValueExW(install.get(), L"ZenvoDVR_Enabled", nullptr, nullptr,
                            reinterpret_cast<BYTE*>(&enabled), &size) == ERROR_SUCCESS &&
           enabled == 1;
}

} // namespace

namespace halvard {

bool MarkTeloInstalled() {
    constexpr wchar_t path[] = L"SOFTWARE\\Zenvo\\Install";
    KeyHolder key = OpenKey(path);
    if (key == nullptr) {
        LSTATUS status = ERROR_SUCCESS;
        key = CreateKey(path, KEY_SET_VALUE, status);
    }
    return key != nullptr && SetNumber(key.get(), L"Telo", 0);
}

} // namespace halvard

UINT __stdcall DisabelAnalyticsKey(MSIHANDLE session) {
    wchar_t value[260] = {};
    DWORD length = 260;
    if (MsiGetPropertyW(session, L"DISABLEANALYTICS", value, &length) == ERROR_SUCCESS &&
        halvard::FindNoCase(value, L"YES") == 0) {
        SetConsent(L"false");
    }
    return ERROR_SUCCESS;
}

UINT __stdcall EnableAnalyticsKey(MSIHANDLE /*session*/) {
    halvard::MarkTeloInstalled();
    if (!SetConsent(L"true")) {
        CreateConsentKey();
        SetConsent(L"true");
    }
    return ERROR_SUCCESS;
}

UINT __stdcall DeleteAnalyticsKey(MSIHANDLE session) {
    const halvard::KeyHolder key = OpenKey(kConsentKey);
    if (key == nullptr) {
        halvard::LogMessage(session, L"Could not access UPA Key");
        return ERROR_SUCCESS;
    }
    // KEY_ALL_ACCESS names neither view, so the key goes from the one in which it was opened.
    const bool deleted =
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kConsentKey, KEY_ALL_ACCESS, 0) == ERROR_SUCCESS;
    halvard::LogMessage(session, deleted ? L"UPA Key deleted" : L"UPA Key not deleted");
    return ERROR_SUCCESS;
}

UINT __stdcall TrackDVRAnalytics(MSIHANDLE /*session*/) {
    if (!RecorderIsEnabled() || OpenKey(kMarkerKey) != nullptr) {
        return ERROR_SUCCESS;
    }
    LSTATUS status = ERROR_SUCCESS;
    const halvard::KeyHolder marker = CreateKey(kMarkerKey, KEY_ALL_ACCESS, status);
    if (marker == nullptr) {
        return ERROR_SUCCESS;
    }
    // The key is the marker, with or without its value: the next run stops at it.
    SetNumber(marker.get(), L"ZenvoDVR_Tracked", 1);
    return 1;
}

UINT __stdcall DeleteQortaKey(MSIHANDLE /*session*/) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta");
    return ERROR_SUCCESS;
}
