#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

namespace halvard_tests {

/// Asks for the size of a value and for the value itself, as who reads a text of any length does.
inline void ReadValueBare(HKEY key, const wchar_t* name) {
    BYTE bytes[200] = {};
    DWORD size = 0;
    RegQueryValueExW(key, name, nullptr, nullptr, nullptr, &size);
    size = sizeof(bytes);
    RegQueryValueExW(key, name, nullptr, nullptr, bytes, &size);
}

/// The number of a key's values, counted by the system's calls alone; hands each name to `visit`.
template <class Visit>
std::size_t EnumerateValuesBare(HKEY key, Visit visit) {
    constexpr DWORD capacity = 16383;
    std::wstring name(capacity, L'\0');
    DWORD index = 0;
    for (DWORD length = capacity; RegEnumValueW(key, index, name.data(), &length, nullptr, nullptr,
                                                nullptr, nullptr) == ERROR_SUCCESS;
         length = capacity) {
        visit(name.c_str());
        ++index;
    }
    return index;
}

/// The number of a key's subkeys, counted by the system's calls alone; hands each to `visit` while
/// it is open for reading and writing.
template <class Visit>
std::size_t EnumerateKeysBare(HKEY key, Visit visit) {
    wchar_t name[256] = {};
    DWORD index = 0;
    for (DWORD length = 256; RegEnumKeyExW(key, index, name, &length, nullptr, nullptr, nullptr,
                                           nullptr) == ERROR_SUCCESS;
         length = 256) {
        HKEY subkey = nullptr;
        RegOpenKeyExW(key, name, 0, KEY_READ | KEY_WRITE, &subkey);
        visit(subkey);
        RegCloseKey(subkey);
        ++index;
    }
    return index;
}

} // namespace halvard_tests
