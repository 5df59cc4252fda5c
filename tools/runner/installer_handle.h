#pragma once

#include <windows.h>
#include <msi.h>

namespace halvard_runner {

/// A handle of the installer, closed with its scope.
class InstallerHandle {
public:
    InstallerHandle() = default;
    ~InstallerHandle() { MsiCloseHandle(handle_); }
    InstallerHandle(const InstallerHandle&) = delete;
    InstallerHandle& operator=(const InstallerHandle&) = delete;

    [[nodiscard]] MSIHANDLE Get() const noexcept { return handle_; }
    MSIHANDLE* Receive() noexcept { return &handle_; }

private:
    MSIHANDLE handle_ = 0;
};

} // namespace halvard_runner
