#include "pivot_installation.h"

#include <stdexcept>

namespace halvard_tests {

namespace {

void CreateFolders(const std::wstring& folder) {
    for (std::size_t slash = folder.find(L'\\', 3); slash != std::wstring::npos;
         slash = folder.find(L'\\', slash + 1)) {
        CreateDirectoryW(folder.substr(0, slash).c_str(), nullptr);
    }
    CreateDirectoryW(folder.c_str(), nullptr);
}

// Only below the throw-away drive.
void RemoveTree(const std::wstring& folder) {
    if (folder.compare(0, 3, L"T:\\") != 0) {
        throw std::logic_error("not on the throw-away drive");
    }
    WIN32_FIND_DATAW entry = {};
    const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = entry.cFileName;
            const std::wstring path = folder + L"\\" + name;
            if (name == L"." || name == L"..") {
                continue;
            }
            SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
            if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
                RemoveTree(path);
            } else {
                DeleteFileW(path.c_str());
            }
        } while (FindNextFileW(search, &entry) != FALSE);
        FindClose(search);
    }
    RemoveDirectoryW(folder.c_str());
}

std::wstring WithoutTrailingSlash(std::wstring path) {
    while (!path.empty() && (path.back() == L'\\' || path.back() == L'/')) {
        path.pop_back();
    }
    return path;
}

} // namespace

void SetRegistryString(HKEY root, const std::wstring& key, const std::wstring& name,
                       const std::wstring& text) {
    const LSTATUS status = RegSetKeyValueW(root, key.c_str(), name.c_str(), REG_SZ, text.c_str(),
                                           static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    if (status != ERROR_SUCCESS) {
        throw std::runtime_error("a registry value cannot be set");
    }
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

std::string ReadBytes(const std::wstring& path) {
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

std::wstring TaskXml(const std::wstring& trigger) {
    return L"<?xml version=\"1.0\" encoding=\"UTF-16\"?>"
           L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">"
           L"<RegistrationInfo><Author>Zenvo</Author></RegistrationInfo><Triggers>" +
           trigger +
           L"</Triggers><Settings><Enabled>true</Enabled></Settings><Actions><Exec>"
           L"<Command>pvcmd.exe</Command><WorkingDirectory>shipped</WorkingDirectory>"
           L"</Exec></Actions></Task>";
}

PivotInstallation::PivotInstallation(const std::wstring& location)
    : location_(location), folder_(WithoutTrailingSlash(location)) {
    CreateFolders(folder_);
    SetRegistryString(HKEY_LOCAL_MACHINE, kInstallKey, L"Location", location_);
}

PivotInstallation::~PivotInstallation() {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Zenvo");
    RegDeleteTreeW(HKEY_CURRENT_USER, L"SOFTWARE\\Zenvo");
    RemoveTree(folder_);
    for (const wchar_t* file : {L"StartPV.xml", L"StartDVR.xml", L"StartPVBM.xml"}) {
        DeleteFileW(InTemporaryFolder(file).c_str());
    }
}

std::wstring InTemporaryFolder(const std::wstring& name) {
    wchar_t folder[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, folder);
    return folder + name;
}

} // namespace halvard_tests
