#include "watched.h"

#include "files.h"
#include "folder_entries.h"
#include "scenes.h"

#include <windows.h>

#include <optional>
#include <set>

namespace halvard_sweep {

namespace {

constexpr DWORD kLongestName = 16384;

// `shown` is what stands for the folder in names.
void AddFolder(Machine& machine, const std::wstring& folder, const std::wstring& shown) {
    for (const WIN32_FIND_DATAW& entry : EntriesOf(folder)) {
        const std::wstring name = entry.cFileName;
        const std::wstring path = shown + L"\\" + name;
        std::wstring& content = machine[path];
        content = std::to_wstring(entry.dwFileAttributes);
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            AddFolder(machine, folder + L"\\" + name, path);
        } else {
            const std::string bytes = halvard_tests::ReadWholeFile(folder + L"\\" + name);
            content += L" " + std::wstring(bytes.begin(), bytes.end());
        }
    }
}

void AddValues(Machine& machine, HKEY key, const std::wstring& name) {
    std::wstring valueName(kLongestName, L'\0');
    for (DWORD index = 0;; ++index) {
        DWORD length = kLongestName;
        DWORD type = REG_NONE;
        DWORD size = 0;
        if (RegEnumValueW(key, index, valueName.data(), &length, nullptr, &type, nullptr, &size) !=
            ERROR_SUCCESS) {
            return;
        }
        const std::wstring shown = valueName.substr(0, length);
        std::vector<BYTE> bytes(size);
        RegQueryValueExW(key, shown.c_str(), nullptr, nullptr, bytes.data(), &size);
        std::wstring& content = machine[name + L" : " + shown];
        content = std::to_wstring(type);
        for (const BYTE byte : bytes) {
            content += L' ' + std::to_wstring(byte);
        }
    }
}

enum class Depth { Values, Names, All };

void AddKey(Machine& machine, HKEY root, const std::wstring& path, const std::wstring& name,
            Depth depth) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
        return;
    }
    machine[name] = L"key";
    AddValues(machine, key, name);
    std::wstring subkey(256, L'\0');
    for (DWORD index = 0; depth != Depth::Values; ++index) {
        DWORD length = 256;
        if (RegEnumKeyExW(key, index, subkey.data(), &length, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS) {
            break;
        }
        const std::wstring shown = subkey.substr(0, length);
        if (depth == Depth::All) {
            AddKey(machine, key, shown, name + L"\\" + shown, Depth::All);
        } else {
            machine[name + L"\\" + shown] = L"key";
        }
    }
    RegCloseKey(key);
}

void AddRenames(Machine& machine) {
    constexpr wchar_t manager[] = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
    DWORD size = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, manager, kRenames, RRF_RT_ANY, nullptr, nullptr, &size) !=
        ERROR_SUCCESS) {
        return;
    }
    std::wstring text(size / sizeof(wchar_t), L'\0');
    RegGetValueW(HKEY_LOCAL_MACHINE, manager, kRenames, RRF_RT_ANY, nullptr, text.data(), &size);
    std::size_t first = 0;
    for (std::size_t end = text.find(L'\0'); end != std::wstring::npos;
         end = text.find(L'\0', first)) {
        std::wstring path = text.substr(first, end - first);
        if (path.compare(0, 4, L"\\??\\") == 0) {
            path.erase(0, 4);
        }
        if (!path.empty()) {
            machine[L"restart " + path] = L"";
        }
        first = end + 1;
    }
}

} // namespace

Machine LookAtMachine() {
    Machine machine;
    for (const wchar_t* const folder :
         {L"T:", L"C:\\Program Files", L"C:\\ProgramData", L"C:\\windows\\system32\\tasks"}) {
        AddFolder(machine, folder, folder);
    }
    AddFolder(machine, TemporaryFolder(), L"TEMP");
    for (const std::wstring& key : MachineKeys()) {
        AddKey(machine, HKEY_LOCAL_MACHINE, key, L"HKLM\\" + key, Depth::All);
    }
    for (const wchar_t* const key : {L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run",
                                     L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall",
                                     L"SYSTEM\\CurrentControlSet\\Services\\TeloLauncher",
                                     L"SYSTEM\\CurrentControlSet\\Services\\UPAL",
                                     L"SYSTEM\\CurrentControlSet\\Services\\HalvardSweep",
                                     L"SYSTEM\\CurrentControlSet\\Control\\Class\\"
                                     L"{4d36e968-e325-11ce-bfc1-08002be10318}"}) {
        AddKey(machine, HKEY_LOCAL_MACHINE, key, std::wstring(L"HKLM\\") + key, Depth::All);
    }
    for (const wchar_t* const key :
         {L"SOFTWARE", L"SYSTEM\\CurrentControlSet\\Services",
          L"SYSTEM\\CurrentControlSet\\Control", L"SYSTEM\\CurrentControlSet\\Control\\Class"}) {
        AddKey(machine, HKEY_LOCAL_MACHINE, key, std::wstring(L"HKLM\\") + key, Depth::Names);
    }
    AddKey(machine, HKEY_CURRENT_USER, L"SOFTWARE", L"HKCU\\SOFTWARE", Depth::Names);
    for (const std::wstring& key : UserKeys()) {
        AddKey(machine, HKEY_CURRENT_USER, key, L"HKCU\\" + key, Depth::All);
    }
    AddRenames(machine);
    return machine;
}

std::vector<std::wstring> Differences(const Machine& before, const Machine& after) {
    std::set<std::wstring> names;
    for (const auto& [name, content] : before) {
        const auto found = after.find(name);
        if (found == after.end() || found->second != content) {
            names.insert(name);
        }
    }
    for (const auto& [name, content] : after) {
        if (before.count(name) == 0) {
            names.insert(name);
        }
    }
    return {names.begin(), names.end()};
}

} // namespace halvard_sweep
