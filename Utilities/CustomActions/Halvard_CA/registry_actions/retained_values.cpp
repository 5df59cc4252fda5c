#include "registry_actions/retained_values.h"

#include "cleanup/directory_tree.h"
#include "registry_actions/retain_list.h"
#include "runtime/file_paths.h"
#include "runtime/file_status.h"
#include "runtime/owned.h"
#include "runtime/registry.h"

#include <shlwapi.h>

#include <algorithm>
#include <cwchar>
#include <iterator>

namespace halvard {

namespace {

constexpr DWORD kKeyNameCapacity = 255;
constexpr DWORD kValueNameCapacity = 16383;
constexpr DWORD kDataLimit = 260;
constexpr std::size_t kFilePathCapacity = 256;

/// Room for a value's data. Not every writer terminates a text, or writes whole characters.
struct ValueData {
    wchar_t characters[kDataLimit / sizeof(wchar_t)] = {};
    DWORD size = kDataLimit;

    BYTE* Bytes() { return reinterpret_cast<BYTE*>(characters); }

    /// Up to the first null character or the last whole one.
    [[nodiscard]] std::wstring Text() const {
        const auto* const first = std::begin(characters);
        return {first, std::find(first, first + size / sizeof(wchar_t), L'\0')};
    }
};

std::vector<std::wstring> ReadRetainList() {
    std::vector<std::wstring> retainList;
    const OwnedKey key = OpenKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\ZenvoBranding", KEY_READ);
    if (!key) {
        return retainList;
    }
    DWORD keyCount = 0;
    DWORD valueCount = 0;
    RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &keyCount, nullptr, nullptr, &valueCount,
                     nullptr, nullptr, nullptr, nullptr);

    std::wstring name(kValueNameCapacity, L'\0');
    for (DWORD index = 0; index < keyCount; ++index) {
        DWORD length = kKeyNameCapacity;
        if (RegEnumKeyExW(key.get(), index, name.data(), &length, nullptr, nullptr, nullptr,
                          nullptr) == ERROR_SUCCESS) {
            retainList.push_back(name.substr(0, length));
        }
    }
    for (DWORD index = 0; index < valueCount; ++index) {
        DWORD length = kValueNameCapacity;
        DWORD type = REG_NONE;
        ValueData data;
        if (RegEnumValueW(key.get(), index, name.data(), &length, nullptr, &type, data.Bytes(),
                          &data.size) == ERROR_SUCCESS &&
            type == REG_SZ) {
            retainList.push_back(WithSlashes(data.Text()));
        }
    }
    return retainList;
}

// Empty when it cannot be read.
std::wstring ReadBrandingFolder() {
    const OwnedKey key = OpenKey(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Zenvo\\PV\\", KEY_READ);
    ValueData data;
    if (!key || RegQueryValueExW(key.get(), L"PVBrandingInstallDir", nullptr, nullptr, data.Bytes(),
                                 &data.size) != ERROR_SUCCESS) {
        return {};
    }
    return data.Text();
}

std::vector<std::wstring> ListFolder(const std::wstring& folder) {
    std::vector<std::wstring> entries;
    if (PathIsDirectoryW(folder.c_str()) == FALSE) {
        return entries;
    }
    WIN32_FIND_DATAW found = {};
    const OwnedSearch search(FindFirstFileW(FileInFolder(folder, L"*.*").c_str(), &found));
    if (!search) {
        return entries;
    }
    do {
        const std::wstring name = found.cFileName;
        if (name != L"." && name != L"..") {
            entries.push_back(WithSlashes(FileInFolder(folder, name)));
        }
    } while (FindNextFileW(search.get(), &found) != FALSE);
    return entries;
}

void DeleteEntry(const std::wstring& entry) {
    // Windows drops dots and blanks at the end of a name: what it would delete is another entry,
    // and that one may have to stay.
    if (entry.back() == L'.' || entry.back() == L' ') {
        return;
    }
    const std::wstring path = WithBackslashes(entry);
    if (PathIsDirectoryW(path.c_str()) != FALSE) {
        RemoveDirectoryTree(path);
    } else if (path.size() < kFilePathCapacity) {
        _wremove(path.c_str());
    }
}

} // namespace

UINT __stdcall DeleteandRetainValues(MSIHANDLE /*session*/) {
    const std::vector<std::wstring> retainList = ReadRetainList();
    const std::wstring folder = ReadBrandingFolder();
    if (!ExistsOrThrow(folder)) {
        return ERROR_SUCCESS;
    }
    for (const std::wstring& entry : EntriesToDelete(ListFolder(folder), retainList)) {
        DeleteEntry(entry);
    }
    return ERROR_SUCCESS;
}

} // namespace halvard
