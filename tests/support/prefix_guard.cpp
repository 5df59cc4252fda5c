#include "prefix_guard.h"

#include <windows.h>

namespace halvard_tests {

namespace {

bool Exists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring LinkInFolder(const std::wstring& folder) {
    WIN32_FIND_DATAW entry = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (search == INVALID_HANDLE_VALUE) {
        return {};
    }
    std::wstring link;
    do {
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
            link = folder + L"\\" + entry.cFileName;
        }
    } while (link.empty() && FindNextFileW(search, &entry) != FALSE);
    FindClose(search);
    return link;
}

} // namespace

std::wstring PrefixDanger() {
    const std::wstring expected = L"BCT";
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter) {
        // Asked of each letter: the list of drives misses those that came after the first process.
        const std::wstring root = std::wstring(1, letter) + L":\\";
        const bool present = Exists(root);
        const bool wanted = expected.find(letter) != std::wstring::npos;
        if (present && !wanted) {
            return std::wstring(L"drive ") + letter + L": leads somewhere unknown";
        }
        if (wanted && !present) {
            return std::wstring(L"drive ") + letter + L": is missing";
        }
        if (present && (Exists(root + L"proc\\self") || Exists(root + L"etc\\passwd"))) {
            return std::wstring(L"drive ") + letter + L": shows the root of the real file system";
        }
    }

    wchar_t profile[MAX_PATH] = {};
    const DWORD length = GetEnvironmentVariableW(L"USERPROFILE", profile, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) {
        return L"the user's profile folder is not known";
    }
    for (const std::wstring& folder : {std::wstring(profile), std::wstring(L"C:\\users\\Public")}) {
        const std::wstring link = LinkInFolder(folder);
        if (!link.empty()) {
            return link + L" is a link";
        }
    }
    return {};
}

} // namespace halvard_tests
