#pragma once

#include <windows.h>

#include <memory>

namespace halvard {

struct HandleCloser {
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};

/// Owns a Win32 handle whose invalid value is null, and closes it on every path.
using OwnedHandle = std::unique_ptr<void, HandleCloser>;

} // namespace halvard
