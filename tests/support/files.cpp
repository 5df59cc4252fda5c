#include "files.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace halvard_tests {

namespace {

constexpr ULONGLONG kHostLimitMilliseconds = 20000;
// For a machine under load; what happens as it should is not waited for any longer.
constexpr ULONGLONG kHeldLimitMilliseconds = 60000;

void CheckDrive(const std::wstring& folder) {
    if (folder.compare(0, 3, L"T:\\") != 0) {
        throw std::logic_error("not on the throw-away drive");
    }
}

void RemoveFolder(const std::wstring& folder) {
    WIN32_FIND_DATAW entry = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = entry.cFileName;
            const std::wstring path = folder + L"\\" + name;
            if (name == L"." || name == L".." ||
                (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
                continue;
            }
            SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
            if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
                RemoveFolder(path);
            } else {
                DeleteFileW(path.c_str());
            }
        } while (FindNextFileW(search, &entry) != FALSE);
        FindClose(search);
    }
    RemoveDirectoryW(folder.c_str());
}

// The system cannot make or remove a link here, a program of the host can. There is no handle to
// wait for such a program: what it does to `name` in the folder is waited for.
void ChangeByHost(const std::wstring& folder, const std::wstring& name, const std::wstring& program,
                  std::wstring command, bool there) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION child = {};
    if (CreateProcessW((L"\\\\?\\unix\\bin\\" + program).c_str(), command.data(), nullptr, nullptr,
                       FALSE, 0, nullptr, folder.c_str(), &startup, &child) == FALSE) {
        throw std::runtime_error("a program of the host cannot be started");
    }
    const ULONGLONG start = GetTickCount64();
    // Not by a search, which could not share a folder that is open for its deletion.
    while (IsThere(folder + L"\\" + name) != there) {
        if (GetTickCount64() - start > kHostLimitMilliseconds) {
            throw std::runtime_error("a program of the host did nothing");
        }
        Sleep(1);
    }
}

} // namespace

void CreateFolders(const std::wstring& folder) {
    for (std::size_t slash = folder.find(L'\\', 3); slash != std::wstring::npos;
         slash = folder.find(L'\\', slash + 1)) {
        CreateDirectoryW(folder.substr(0, slash).c_str(), nullptr);
    }
    CreateDirectoryW(folder.c_str(), nullptr);
}

void RemoveTree(const std::wstring& folder) {
    CheckDrive(folder);
    // In the extended-length form, which knows names of every kind and length.
    RemoveFolder(L"\\\\?\\" + folder);
}

void RemoveForGood(const std::wstring& folder) {
    const ULONGLONG start = GetTickCount64();
    RemoveTree(folder);
    while (IsThere(folder)) {
        if (GetTickCount64() - start > kHeldLimitMilliseconds) {
            std::fwprintf(stderr, L"cannot be removed, still in use: %ls\n", folder.c_str());
            std::abort();
        }
        Sleep(10);
        RemoveTree(folder);
    }
}

Link::Link(const std::wstring& folder, const std::wstring& name, const std::wstring& target)
    : folder_(folder), name_(name) {
    CheckDrive(folder);
    ChangeByHost(folder, name, L"ln", L"ln -s -- \"" + target + L"\" \"" + name + L"\"", true);
}

Link::~Link() {
    ChangeByHost(folder_, name_, L"rm", L"rm -- \"" + name_ + L"\"", false);
}

void WriteWholeFile(const std::wstring& path, const std::string& bytes) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        throw std::runtime_error("a file cannot be written");
    }
    DWORD written = 0;
    WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(file);
}

void WriteWholeFile(const std::wstring& path, const std::wstring& utf16) {
    const std::wstring marked = L"\xFEFF" + utf16;
    const auto* const first = reinterpret_cast<const char*>(marked.data());
    WriteWholeFile(path, std::string(first, marked.size() * sizeof(wchar_t)));
}

void WriteFileAt(const std::wstring& path) {
    WriteWholeFile(path, std::string("x"));
}

std::string ReadWholeFile(const std::wstring& path) {
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return "no such file";
    }
    std::string bytes(GetFileSize(file, nullptr), '\0');
    DWORD read = 0;
    ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
    CloseHandle(file);
    return bytes;
}

bool IsThere(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring CurrentDirectory() {
    wchar_t directory[MAX_PATH] = {};
    GetCurrentDirectoryW(MAX_PATH, directory);
    return directory;
}

CurrentDirectoryScope::CurrentDirectoryScope(const std::wstring& directory)
    : former_(CurrentDirectory()) {
    if (SetCurrentDirectoryW(directory.c_str()) == FALSE) {
        throw std::runtime_error("the current directory cannot be set");
    }
}

CurrentDirectoryScope::~CurrentDirectoryScope() {
    SetCurrentDirectoryW(former_.c_str());
}

ScratchFolder::ScratchFolder() : path_(L"T:\\Scratch") {
    RemoveTree(path_);
    CreateFolders(path_);
}

ScratchFolder::~ScratchFolder() {
    RemoveTree(path_);
}

} // namespace halvard_tests
