#pragma once

#include "runtime/owned.h"

#include <windows.h>

namespace halvard {

/// The service control manager of this machine, with all rights to it. None, and the reason as the
/// last error, when it cannot be opened. `database` is its name, or null for the active one.
OwnedService OpenServiceManager(const wchar_t* database) noexcept;

} // namespace halvard
