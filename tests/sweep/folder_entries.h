#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace halvard_sweep {

/// What a folder holds; nothing when it cannot be listed.
inline std::vector<WIN32_FIND_DATAW> EntriesOf(const std::wstring& folder) {
    std::vector<WIN32_FIND_DATAW> entries;
    WIN32_FIND_DATAW entry = {};
    void* const search = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (search == INVALID_HANDLE_VALUE) {
        return entries;
    }
    do {
        const std::wstring name = entry.cFileName;
        if (name != L"." && name != L"..") {
            entries.push_back(entry);
        }
    } while (FindNextFileW(search, &entry) != FALSE);
    FindClose(search);
    return entries;
}

} // namespace halvard_sweep
