#include "runtime/registry_values.h"

#include "runtime/registry.h"

namespace halvard {

namespace {

// None when the key can neither be opened nor created.
OwnedKey OpenOrCreateKey(HKEY root, const std::wstring& subkey) {
    OwnedKey key = OpenKey(root, subkey.c_str(), KEY_ALL_ACCESS);
    if (!key) {
        static_cast<void>(CreateKey(root, subkey.c_str(), KEY_SET_VALUE, key));
    }
    return key;
}

} // namespace

bool ReadRegistryDword(const std::wstring& subkey, const std::wstring& name, DWORD& value) {
    const OwnedKey key = OpenKey(HKEY_LOCAL_MACHINE, subkey.c_str(), KEY_ALL_ACCESS);
    const std::optional<DWORD> number = key ? ReadNumber(key.get(), name.c_str()) : std::nullopt;
    value = number.value_or(value);
    return number.has_value();
}

bool WriteRegistryDword(const std::wstring& subkey, const std::wstring& name, DWORD value) {
    const OwnedKey key = OpenOrCreateKey(HKEY_LOCAL_MACHINE, subkey);
    if (key) {
        SetNumber(key.get(), name.c_str(), value);
    }
    return static_cast<bool>(key);
}

bool WriteRegistryString(const std::wstring& subkey, const std::wstring& name,
                         const std::wstring& text) {
    return WriteRegistryString(HKEY_LOCAL_MACHINE, subkey, name, text);
}

bool WriteRegistryString(HKEY root, const std::wstring& subkey, const std::wstring& name,
                         const std::wstring& text) {
    const OwnedKey key = OpenOrCreateKey(root, subkey);
    if (key) {
        SetText(key.get(), name.c_str(), text);
    }
    return static_cast<bool>(key);
}

} // namespace halvard
