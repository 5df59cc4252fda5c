#include <windows.h>
#include <msi.h>

UINT __stdcall LaunchedFromMIM(MSIHANDLE session) {
    (void)session;
    return ERROR_SUCCESS;
}
