#pragma once

#include <optional>
#include <string>

// What the display driver's log is called, and whose display adapters have one.

namespace halvard {

struct DisplayLogPaths {
    std::wstring folder;
    std::wstring file;
};

/// The log folder and the log file below the temporary folder, whose path ends in a backslash.
/// Nothing when that path is empty, since what is left would lead somewhere else, or when a path
/// would have 1024 wide characters and more.
std::optional<DisplayLogPaths> DisplayLogPathsIn(const std::wstring& temporaryFolder);

/// Whether the maker's name stands in an adapter's manufacturer text: the full name anywhere, the
/// short names at its start. Upper and lower case count.
bool IsMadeByTheMaker(const std::wstring& manufacturer);

/// The class key of a driver, below HKEY_LOCAL_MACHINE. Nothing for an empty name, which would lead
/// to the key of all classes, and for a path of 256 wide characters and more.
std::optional<std::wstring> DriverClassKey(const std::wstring& driverKeyName);

} // namespace halvard
