#pragma once

// Where the settings application, Pivot, is recorded and how its command tool is called.

namespace halvard {

/// The key of the installation, below HKEY_LOCAL_MACHINE.
inline constexpr wchar_t kPivotInstallKey[] = L"SOFTWARE\\Qorta Technologies\\Install\\Pivot";

/// The command tool.
inline constexpr wchar_t kPivotProgram[] = L"pvcmd.exe";

} // namespace halvard
