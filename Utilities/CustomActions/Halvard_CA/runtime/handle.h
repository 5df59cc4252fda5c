#pragma once

#include <windows.h>

#include <memory>

namespace halvard {

struct HandleCloser {
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};

/// Owns a Win32 handle whose invalid value is null, and closes it on every path.
using OwnedHandle = std::unique_ptr<void, HandleCloser>;

struct SearchCloser {
    void operator()(HANDLE search) const noexcept { FindClose(search); }
};

/// Owns the search handle of a folder's listing. The invalid value, which is not null, has to stay
/// outside.
using OwnedSearch = std::unique_ptr<void, SearchCloser>;

} // namespace halvard
