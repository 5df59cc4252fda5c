#include "runtime/launch_conditions.h"

#include "runtime/session.h"
#include "runtime/text.h"

#include <msiquery.h>

namespace halvard {

namespace {

// The maker's public web domain.
#define MAKER_DOMAIN L"www.zenvo.example"

constexpr wchar_t kInstallManagerMissing[] =
    L"This package requires Zenvo Installer Setup.\n"
    L"Please obtain and install Zenvo Installer "
    L"from " MAKER_DOMAIN L" to continue installing this package.\n"
    L"This application will now abort.";

} // namespace

UINT __stdcall LaunchedFromMIM(MSIHANDLE session) {
    wchar_t value[260] = {};
    DWORD length = 260;
    const UINT status = MsiGetPropertyW(session, L"LAUNCHED_FROM_MIM", value, &length);
    if (status == ERROR_SUCCESS && FindNoCase(value, L"1") == 0) {
        LogMessage(session, L"QUENBY_CA Launched from MIM: %s \n", value);
        return ERROR_SUCCESS;
    }

    LogMessage(session, L"QUENBY_CA Not Launched from MIM and unable to get property");
    SendMessageRecord(session, INSTALLMESSAGE_USER, 2, kInstallManagerMissing);
    return ERROR_INSTALL_SOURCE_ABSENT;
}

UINT __stdcall BlockLaunch(MSIHANDLE session) {
    SetCurrentSession(session);
    return LaunchedFromMIM(session) == ERROR_SUCCESS ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
}

} // namespace halvard
