#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

namespace halvard_tests {

/// The number of a key's values, counted by the system's calls alone.
inline std::size_t EnumerateValuesBare(HKEY key) {
    constexpr DWORD capacity = 16383;
    std::wstring name(capacity, L'\0');
    DWORD index = 0;
    for (DWORD length = capacity; RegEnumValueW(key, index, name.data(), &length, nullptr, nullptr,
                                                nullptr, nullptr) == ERROR_SUCCESS;
         length = capacity) {
        ++index;
    }
    return index;
}

} // namespace halvard_tests
