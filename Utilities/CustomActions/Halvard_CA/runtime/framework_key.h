#pragma once

// Where the framework of the applications, which the slim package installs, is recorded.

namespace halvard {

/// The key of the installation, below HKEY_LOCAL_MACHINE. Its users differ in the view.
inline constexpr wchar_t kFrameworkKey[] = L"SOFTWARE\\Qorta\\Sable\\Packages\\Core-Static";

} // namespace halvard
