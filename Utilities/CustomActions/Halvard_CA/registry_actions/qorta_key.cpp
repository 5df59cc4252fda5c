#include "registry_actions/qorta_key.h"

namespace halvard {

UINT __stdcall DeleteQortaKey(MSIHANDLE /*session*/) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta");
    return ERROR_SUCCESS;
}

} // namespace halvard
