#include "runtime/open_service_manager.h"

namespace halvard {

OwnedService OpenServiceManager(const wchar_t* database) noexcept {
    return OwnedService(OpenSCManagerW(nullptr, database, SC_MANAGER_ALL_ACCESS));
}

} // namespace halvard
