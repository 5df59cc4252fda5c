#pragma once

#include <string>

// Where the settings application, Pivot, is recorded and how its command tool is called.

namespace halvard {

/// The key of the installation, below HKEY_LOCAL_MACHINE.
inline constexpr wchar_t kPivotInstallKey[] = L"SOFTWARE\\Qorta Technologies\\Install\\Pivot";

/// The command tool.
inline constexpr wchar_t kPivotProgram[] = L"pvcmd.exe";

/// The task that starts the application when somebody logs on.
inline constexpr wchar_t kPivotTaskName[] = L"StartPV";

/// The folder that it is installed in. The key is opened for writing too, so that callers need
/// administrative rights, and is closed again. Throws RegKeyError ("Unable to open registry key",
/// "Unable to get registry value").
std::wstring ReadPivotLocation();

} // namespace halvard
