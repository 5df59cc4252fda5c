#include <windows.h>
#include <msi.h>
#include <msiquery.h>

UINT __stdcall LaunchedFromMIM(MSIHANDLE session) {
    wchar_t value[260];
    DWORD length = 260;
    MsiGetPropertyW(session, L"LAUNCHED_FROM_MIM", value, &length);

    MSIHANDLE record = MsiCreateRecord(0);
    MsiRecordSetStringW(record, 0, L"QUENBY_CA Launched from MIM: 1 \n");
    MsiProcessMessage(session, INSTALLMESSAGE_INFO, record);
    MsiCloseHandle(record);
    return ERROR_SUCCESS;
}
