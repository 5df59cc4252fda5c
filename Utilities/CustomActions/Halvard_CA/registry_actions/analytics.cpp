#include "registry_actions/analytics.h"

#include "runtime/registry.h"
#include "runtime/session.h"
#include "runtime/text.h"

#include <msiquery.h>

namespace halvard {

namespace {

constexpr wchar_t kConsentKey[] = L"SOFTWARE\\Zenvo\\ZenvoAnalytics";
constexpr wchar_t kMarkerKey[] = L"SOFTWARE\\ZenvoDVR";

// None when the key cannot be opened.
OwnedKey OpenMachineKey(const wchar_t* path) {
    return OpenKey(HKEY_LOCAL_MACHINE, path, KEY_ALL_ACCESS);
}

// True when the key was there to be written to, whatever became of the value.
bool SetConsent(const std::wstring& accepted) {
    const OwnedKey key = OpenMachineKey(kConsentKey);
    if (key) {
        SetText(key.get(), L"AnalyticsAccepted", accepted);
    }
    return static_cast<bool>(key);
}

void CreateConsentKey() {
    OwnedKey key;
    const LSTATUS status = CreateKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Zenvo\\ZenvoAnalytics\\",
                                     KEY_READ | KEY_WRITE, key);
    if (status != ERROR_SUCCESS) {
        throw RegKeyError(static_cast<int>(status), std::system_category(),
                          "Unable to get create registry key");
    }
}

bool RecorderIsEnabled() {
    const OwnedKey install = OpenMachineKey(L"SOFTWARE\\Qorta Technologies\\Install");
    return install && ReadNumber(install.get(), L"ZenvoDVR_Enabled") == DWORD{1};
}

} // namespace

bool MarkTeloInstalled() {
    constexpr wchar_t path[] = L"SOFTWARE\\Zenvo\\Install";
    OwnedKey key = OpenMachineKey(path);
    if (!key) {
        static_cast<void>(CreateKey(HKEY_LOCAL_MACHINE, path, KEY_SET_VALUE, key));
    }
    return key && SetNumber(key.get(), L"Telo", 0) == ERROR_SUCCESS;
}

UINT __stdcall DisabelAnalyticsKey(MSIHANDLE session) {
    wchar_t value[260] = {};
    DWORD length = 260;
    if (MsiGetPropertyW(session, L"DISABLEANALYTICS", value, &length) == ERROR_SUCCESS &&
        FindNoCase(value, L"YES") == 0) {
        SetConsent(L"false");
    }
    return ERROR_SUCCESS;
}

UINT __stdcall EnableAnalyticsKey(MSIHANDLE /*session*/) {
    MarkTeloInstalled();
    if (!SetConsent(L"true")) {
        CreateConsentKey();
        SetConsent(L"true");
    }
    return ERROR_SUCCESS;
}

UINT __stdcall DeleteAnalyticsKey(MSIHANDLE session) {
    const OwnedKey key = OpenMachineKey(kConsentKey);
    if (!key) {
        LogMessage(session, L"Could not access UPA Key");
        return ERROR_SUCCESS;
    }
    // KEY_ALL_ACCESS names neither view, so the key goes from the one in which it was opened.
    const bool deleted =
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kConsentKey, KEY_ALL_ACCESS, 0) == ERROR_SUCCESS;
    LogMessage(session, deleted ? L"UPA Key deleted" : L"UPA Key not deleted");
    return ERROR_SUCCESS;
}

UINT __stdcall TrackDVRAnalytics(MSIHANDLE /*session*/) {
    if (!RecorderIsEnabled() || OpenMachineKey(kMarkerKey)) {
        return ERROR_SUCCESS;
    }
    OwnedKey marker;
    if (CreateKey(HKEY_LOCAL_MACHINE, kMarkerKey, KEY_ALL_ACCESS, marker) != ERROR_SUCCESS) {
        return ERROR_SUCCESS;
    }
    // The key is the marker, with or without its value: the next run stops at it.
    SetNumber(marker.get(), L"ZenvoDVR_Tracked", 1);
    return 1;
}

} // namespace halvard
