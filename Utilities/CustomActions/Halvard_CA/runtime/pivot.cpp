#include "runtime/pivot.h"

#include "runtime/registry.h"

namespace halvard {

std::wstring ReadPivotLocation() {
    return ReadRequiredString(HKEY_LOCAL_MACHINE, kPivotInstallKey, KEY_READ | KEY_WRITE,
                              L"Location");
}

} // namespace halvard
