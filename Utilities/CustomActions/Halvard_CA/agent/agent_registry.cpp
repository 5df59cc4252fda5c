#include "agent/agent_registry.h"

#include "runtime/registry.h"

namespace halvard {

namespace {

// Null when the key can neither be opened nor created.
KeyHolder OpenOrCreateKey(HKEY root, const std::wstring& subkey) {
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, subkey.c_str(), 0, KEY_ALL_ACCESS, &key) == ERROR_SUCCESS ||
        RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE,
                        nullptr, &key, nullptr) == ERROR_SUCCESS) {
        return KeyHolder(key);
    }
    return nullptr;
}

bool WriteValue(HKEY root, const std::wstring& subkey, const std::wstring& name, DWORD type,
                const void* data, std::size_t bytes) {
    const KeyHolder key = OpenOrCreateKey(root, subkey);
    if (key != nullptr) {
        RegSetValueExW(key.get(), name.c_str(), 0, type, static_cast<const BYTE*>(data),
                       static_cast<DWORD>(bytes));
    }
    return key != nullptr;
}

} // namespace

bool ReadRegistryDword(const std::wstring& subkey, const std::wstring& name, DWORD& value) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey.c_str(), 0, KEY_ALL_ACCESS, &opened) !=
        ERROR_SUCCESS) {
        return false;
    }
    const KeyHolder key(opened);
    // Not into `value` itself: a read that fails may leave part of the data behind.
    DWORD number = 0;
    DWORD size = sizeof(number);
    if (RegQueryValueExW(key.get(), name.c_str(), nullptr, nullptr,
                         reinterpret_cast<BYTE*>(&number), &size) != ERROR_SUCCESS) {
        return false;
    }
    value = number;
    return true;
}

bool WriteRegistryDword(const std::wstring& subkey, const std::wstring& name, DWORD value) {
    return WriteValue(HKEY_LOCAL_MACHINE, subkey, name, REG_DWORD, &value, sizeof(value));
}

bool WriteRegistryString(const std::wstring& subkey, const std::wstring& name,
                         const std::wstring& text) {
    return WriteRegistryString(HKEY_LOCAL_MACHINE, subkey, name, text);
}

bool WriteRegistryString(HKEY root, const std::wstring& subkey, const std::wstring& name,
                         const std::wstring& text) {
    return WriteValue(root, subkey, name, REG_SZ, text.c_str(),
                      (text.size() + 1) * sizeof(wchar_t));
}

} // namespace halvard
