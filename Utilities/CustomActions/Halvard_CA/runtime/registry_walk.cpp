#include "runtime/registry_walk.h"

#include "runtime/path_list.h"
#include "runtime/registry.h"
#include "runtime/value_path.h"

#include <cstdio>
#include <cwchar>

namespace halvard {

namespace {

constexpr DWORD kKeyNameCapacity = 255;
constexpr DWORD kValueNameCapacity = 16383;

const wchar_t* RootPrefix(HKEY root) {
    if (root == HKEY_CLASSES_ROOT) {
        return L"HKEY_CLASSES_ROOT\\";
    }
    if (root == HKEY_CURRENT_USER) {
        return L"HKEY_CURRENT_USER\\";
    }
    if (root == HKEY_LOCAL_MACHINE) {
        return L"HKEY_LOCAL_MACHINE\\";
    }
    if (root == HKEY_USERS) {
        return L"HKEY_USERS\\";
    }
    if (root == HKEY_CURRENT_CONFIG) {
        return L"HKEY_CURRENT_CONFIG\\";
    }
    return L"";
}

struct KeyTreeWalk {
    HKEY root;
    PathList& keys;
    PathList& values;
    const std::vector<std::wstring>& names;
    void (*reportNullRoot)();
    std::wstring nameBuffer = std::wstring(kValueNameCapacity, L'\0');
};

void AppendMatchingValue(KeyTreeWalk& walk, const std::wstring& fullPath) {
    if (walk.names.empty()) {
        walk.values.AppendNew(fullPath);
        return;
    }
    if (walk.values.Contains(fullPath)) {
        return;
    }
    const wchar_t* const name = fullPath.c_str() + ValueNameStart(fullPath);
    for (const std::wstring& wanted : walk.names) {
        if (_wcsicmp(name, wanted.c_str()) == 0) {
            walk.values.Append(fullPath);
        }
    }
}

void WalkKey(KeyTreeWalk& walk, const std::wstring& path) {
    const OwnedKey key = OpenKey(walk.root, path.c_str(), KEY_READ);
    if (!key) {
        return;
    }

    wchar_t className[260] = {};
    DWORD classLength = 260;
    DWORD keyCount = 0;
    DWORD valueCount = 0;
    RegQueryInfoKeyW(key.get(), className, &classLength, nullptr, &keyCount, nullptr, nullptr,
                     &valueCount, nullptr, nullptr, nullptr, nullptr);

    const std::wstring parent = path.empty() ? path : path + L"\\";
    const std::wstring prefix = RootPrefix(walk.root) + parent;
    std::wstring fullPath;

    for (DWORD index = 0; index < keyCount; ++index) {
        DWORD length = kKeyNameCapacity;
        if (RegEnumKeyExW(key.get(), index, walk.nameBuffer.data(), &length, nullptr, nullptr,
                          nullptr, nullptr) != ERROR_SUCCESS) {
            continue;
        }
        const std::wstring child = parent + walk.nameBuffer.substr(0, length);
        fullPath = RootPrefix(walk.root) + child;
        if (!walk.keys.AppendNew(fullPath)) {
            continue;
        }
        if (walk.root != nullptr) {
            WalkKey(walk, child);
        } else {
            walk.reportNullRoot();
        }
    }

    for (DWORD index = 0; index < valueCount; ++index) {
        DWORD length = kValueNameCapacity;
        if (RegEnumValueW(key.get(), index, walk.nameBuffer.data(), &length, nullptr, nullptr,
                          nullptr, nullptr) == ERROR_SUCCESS) {
            fullPath = prefix;
            fullPath.append(walk.nameBuffer, 0, length);
            AppendMatchingValue(walk, fullPath);
        }
    }
}

} // namespace

void EnumerateKeyTree(HKEY root, const std::wstring& path, std::vector<std::wstring>& keyPaths,
                      std::vector<std::wstring>& valuePaths,
                      const std::vector<std::wstring>& names) {
    PathList keys(keyPaths);
    PathList values(valuePaths);
    KeyTreeWalk walk{root, keys, values, names, [] {
                     }};
    WalkKey(walk, path);
}

void QueryKey(HKEY root, const std::wstring& path, std::vector<std::wstring>& paths) {
    PathList list(paths);
    const std::vector<std::wstring> everyName;
    KeyTreeWalk walk{root, list, list, everyName, [] {
                         // The placeholders stay unfilled: the line is a marker, not a report.
                         static_cast<void>(std::fputws(
                             L"QueryKey: %s---------hkey is NULL---------------%s\n", stdout));
                         static_cast<void>(std::fflush(stdout));
                     }};
    WalkKey(walk, path);
}

} // namespace halvard
