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

/// Carries out a statement on a database, with the values of a record in the place of its question
/// marks. The installer's status.
UINT Execute(MSIHANDLE database, const wchar_t* statement, MSIHANDLE record = 0);

/// Writes the summary of a 64-bit package; `source` is its PID_WORDCOUNT. The installer's status.
UINT WriteSummary(MSIHANDLE database, const wchar_t* packageCode, int source);

} // namespace halvard_runner
