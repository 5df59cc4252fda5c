#include "many_files.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace halvard_tests {

namespace {

std::wstring FastestPath(const std::wstring& folder) {
    using GetHostPath = char*(CDECL*)(const wchar_t*);
    const FARPROC found = GetProcAddress(GetModuleHandleW(L"kernel32"), "wine_get_unix_file_name");
    GetHostPath getHostPath = nullptr;
    std::memcpy(&getHostPath, &found, sizeof(found));
    char* const host = getHostPath == nullptr ? nullptr : getHostPath(folder.c_str());
    if (host == nullptr) {
        return folder;
    }
    wchar_t wide[MAX_PATH] = {};
    const int length = MultiByteToWideChar(CP_UTF8, 0, host, -1, wide, MAX_PATH);
    HeapFree(GetProcessHeap(), 0, host);
    if (length == 0) {
        return folder;
    }
    std::wstring path = std::wstring(L"\\\\?\\unix") + wide;
    std::replace(path.begin(), path.end(), L'/', L'\\');
    return path;
}

} // namespace

std::wstring Numbered(const std::wstring& name, int number) {
    const std::wstring digits = std::to_wstring(number);
    return name + std::wstring(6 - digits.size(), L'0') + digits;
}

void MakeManyFiles(const std::wstring& folder, int count) {
    const std::wstring start = FastestPath(folder) + L"\\file ";
    for (int number = 0; number < count; ++number) {
        const HANDLE file = CreateFileW(Numbered(start, number).c_str(), GENERIC_WRITE, 0, nullptr,
                                        CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            throw std::runtime_error("a file cannot be made");
        }
        CloseHandle(file);
    }
}

void RemoveBare(const std::wstring& folder) {
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..") {
                continue;
            }
            const std::wstring path = folder + L"\\" + name;
            if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
                RemoveBare(path);
            } else {
                DeleteFileW(path.c_str());
            }
        } while (FindNextFileW(search, &found) != FALSE);
        FindClose(search);
    }
    RemoveDirectoryW(folder.c_str());
}

} // namespace halvard_tests
