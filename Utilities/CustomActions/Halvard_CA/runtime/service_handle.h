#pragma once

#include <windows.h>

#include <memory>
#include <type_traits>

namespace halvard {

struct ServiceHandleCloser {
    void operator()(SC_HANDLE handle) const noexcept { CloseServiceHandle(handle); }
};

/// Owns a handle of the service control manager, or of a service, and closes it on every path. The
/// handle of a service is declared behind that of its manager, and so closed before it.
using OwnedServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceHandleCloser>;

} // namespace halvard
