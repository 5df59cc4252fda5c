#pragma once

#include <windows.h>

#include <string>

// Single values of keys that are opened for each of them, in the view that a 64-bit process sees by
// default. Nothing here throws: a registry that refuses must not fail an installation.

namespace halvard {

/// Reads a value of a key below HKEY_LOCAL_MACHINE into `value`: at most 4 bytes, of whatever type;
/// those of a shorter value are its low bytes.
///
/// The key is opened with KEY_ALL_ACCESS, so callers need administrative rights even to read.
/// Returns whether the value was read; `value` is left as it is when it was not.
bool ReadRegistryDword(const std::wstring& subkey, const std::wstring& name, DWORD& value);

/// Sets a REG_DWORD value of a key below HKEY_LOCAL_MACHINE. A key that cannot be opened with
/// KEY_ALL_ACCESS is created.
///
/// Returns whether there was a key to write to, whatever became of the value.
bool WriteRegistryDword(const std::wstring& subkey, const std::wstring& name, DWORD value);

/// Sets a REG_SZ value, with its terminator, as WriteRegistryDword sets a number.
bool WriteRegistryString(const std::wstring& subkey, const std::wstring& name,
                         const std::wstring& text);

/// The same below another predefined root.
bool WriteRegistryString(HKEY root, const std::wstring& subkey, const std::wstring& name,
                         const std::wstring& text);

} // namespace halvard
