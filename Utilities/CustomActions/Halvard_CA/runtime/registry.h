#pragma once

#include "runtime/bounded_text.h"
#include "runtime/owned.h"

#include <windows.h>

#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <system_error>

// Access to the registry in the view that a 64-bit process sees by default. Callers that want
// another name the Wow6432Node path themselves, or the view in the access that they ask for.

namespace halvard {

/// A registry call that failed: its Win32 code in the system category, and a message.
class RegKeyError : public std::system_error {
public:
    RegKeyError(int code, const std::error_category& category, const char* message)
        : std::system_error(code, category, message) {}
    RegKeyError(int code, const std::error_category& category, const std::string& message)
        : std::system_error(code, category, message) {}
};

/// Closes the key, if there is one, and leaves its owner with none.
void CloseRegistryKey(OwnedKey& key) noexcept;

/// The REG_SZ value `name` below `key` and `subkey` (may be empty), up to its first null character.
/// A REG_EXPAND_SZ value counts as one, and comes with its variables expanded.
///
/// A value that is missing, of another type or unreadable gives an empty string, or, with
/// `throwOnError`, throws RegKeyError ("Unable to get registry value") with the code of the query
/// for the size: 0 for a value that vanished or grew between that query and the read.
std::wstring ReadRegistryString(HKEY key, const std::wstring& subkey, const std::wstring& name,
                                bool throwOnError);

/// Opens a key that need not be there; none when it cannot be opened.
OwnedKey OpenKey(HKEY root, const wchar_t* subkey, REGSAM access) noexcept;

/// Creates a key, or opens it when it is there. The result is a Win32 code.
LSTATUS CreateKey(HKEY root, const wchar_t* subkey, REGSAM access, OwnedKey& key) noexcept;

/// Sets a REG_SZ value, with its terminator. The result is a Win32 code.
LSTATUS SetText(HKEY key, const wchar_t* name, const std::wstring& text) noexcept;

/// Sets a REG_DWORD value. The result is a Win32 code.
LSTATUS SetNumber(HKEY key, const wchar_t* name, DWORD number) noexcept;

/// Reads at most 4 bytes of a value of whatever type; those of a shorter value are the low bytes of
/// the number. Nothing when it cannot be read.
std::optional<DWORD> ReadNumber(HKEY key, const wchar_t* name) noexcept;

/// Reads a value of whatever type into `room`, at most `bytes` bytes; false when it cannot be read
/// or has more. `type` may be null.
bool ReadBytes(HKEY key, const wchar_t* name, void* room, DWORD bytes, DWORD* type) noexcept;

/// Reads a value of whatever type as text: its bytes up to the first null character. False, and an
/// empty text, when it cannot be read or has more bytes than there is room for.
template <std::size_t Bytes>
bool ReadBoundedText(HKEY key, const wchar_t* name, BoundedText<Bytes>& text,
                     DWORD* type = nullptr) noexcept {
    const bool isRead = ReadBytes(key, name, text.characters, Bytes, type);
    if (!isRead) {
        text.characters[0] = L'\0';
    }
    return isRead;
}

/// Opens a key that has to be there. Throws RegKeyError ("Unable to open registry key").
OwnedKey OpenRequiredKey(HKEY root, const wchar_t* subkey, REGSAM access);

/// Opens a key below HKEY_LOCAL_MACHINE for reading and writing, so that callers need
/// administrative rights even to read. Throws as OpenRequiredKey does.
OwnedKey OpenRegistryKey(std::wstring subkey);

/// A REG_SZ value that has to be there, of a key that has to be there and is closed again. Throws
/// RegKeyError ("Unable to open registry key", "Unable to get registry value").
std::wstring ReadRequiredString(HKEY root, const wchar_t* subkey, REGSAM access,
                                const wchar_t* name);

/// The elements of a REG_MULTI_SZ value as SplitMultiString cuts them: the empty string that the
/// value's final terminator yields is kept. Throws RegKeyError ("Unable to get registry value")
/// when the size of the value cannot be learned; a failure of the read itself is not reported and
/// gives empty elements. Throws std::length_error as SplitMultiString does.
std::list<std::wstring> ReadMultiString(HKEY key, const std::wstring& name);

/// Writes a REG_MULTI_SZ value: every element with its terminator, then one more. A list as
/// ReadMultiString returns it gains one null character each time, so callers that rewrite a value
/// drop its empty elements first.
///
/// Throws RegKeyError ("Unable to write REG_MULTI_SZ value = " and the name in the system's ANSI
/// code page, at most 259 bytes in all).
void WriteMultiString(HKEY key, const std::wstring& name, const std::list<std::wstring>& strings);

} // namespace halvard
