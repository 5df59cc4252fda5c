#include "registry_key.h"

#include <stdexcept>
#include <utility>

namespace halvard_tests {

namespace {

void Check(LSTATUS status, const char* what) {
    if (status != ERROR_SUCCESS) {
        throw std::runtime_error(std::string(what) + " failed with " + std::to_string(status));
    }
}

// `value` of an open key; the code that the registry answered.
LSTATUS ReadValue(HKEY key, const std::wstring& name, ScratchKey::Value& value) {
    DWORD size = 0;
    const LSTATUS status = RegQueryValueExW(key, name.c_str(), nullptr, nullptr, nullptr, &size);
    if (status != ERROR_SUCCESS) {
        return status;
    }
    // The engine writes a terminator behind a single byte whether or not there is room for it.
    value.bytes.resize(size + sizeof(wchar_t));
    const LSTATUS read =
        RegQueryValueExW(key, name.c_str(), nullptr, &value.type, value.bytes.data(), &size);
    value.bytes.resize(read == ERROR_SUCCESS ? size : 0);
    return read;
}

} // namespace

std::vector<BYTE> BytesOf(const std::wstring& characters) {
    const auto* const first = reinterpret_cast<const BYTE*>(characters.data());
    return {first, first + characters.size() * sizeof(wchar_t)};
}

ScratchKey::ScratchKey()
    : ScratchKey(L"SOFTWARE\\HalvardTests\\" + std::to_wstring(GetTickCount64()),
                 L"SOFTWARE\\HalvardTests") {}

ScratchKey::ScratchKey(const std::wstring& path) : ScratchKey(path, path) {}

ScratchKey::ScratchKey(const std::wstring& path, const std::wstring& removed)
    : path_(path), removed_(removed) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, removed_.c_str());
    Check(RegCreateKeyExW(HKEY_LOCAL_MACHINE, path_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                          &key_, nullptr),
          "RegCreateKeyExW");
}

ScratchKey::~ScratchKey() {
    RegCloseKey(key_);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, removed_.c_str());
}

void ScratchKey::CreateSubkey(const std::wstring& subkey) const {
    HKEY created = nullptr;
    Check(RegCreateKeyExW(key_, subkey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &created,
                          nullptr),
          "RegCreateKeyExW");
    RegCloseKey(created);
}

void ScratchKey::SetString(const std::wstring& name, const std::wstring& text) const {
    SetCharacters(name, REG_SZ, text + L'\0');
}

void ScratchKey::SetCharacters(const std::wstring& name, DWORD type,
                               const std::wstring& characters) const {
    SetBytes(name, type, BytesOf(characters));
}

void ScratchKey::SetBytes(const std::wstring& name, DWORD type,
                          const std::vector<BYTE>& bytes) const {
    // A null character that happens to stand behind a text would be stored with it.
    std::vector<BYTE> stored = bytes;
    stored.insert(stored.end(), sizeof(wchar_t), BYTE{0xFF});
    Check(RegSetValueExW(key_, name.c_str(), 0, type, stored.data(),
                         static_cast<DWORD>(bytes.size())),
          "RegSetValueExW");
}

ScratchKey::Value ScratchKey::Read(const std::wstring& name) const {
    Value value = {};
    Check(ReadValue(key_, name, value), "RegQueryValueExW");
    return value;
}

std::wstring ScratchKey::ReadCharacters(const std::wstring& name) const {
    const Value value = Read(name);
    const auto* const first = reinterpret_cast<const wchar_t*>(value.bytes.data());
    return {first, first + value.bytes.size() / sizeof(wchar_t)};
}

void SetRegistryString(HKEY root, const std::wstring& key, const std::wstring& name,
                       const std::wstring& text) {
    Check(RegSetKeyValueW(root, key.c_str(), name.c_str(), REG_SZ, text.c_str(),
                          static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
          "RegSetKeyValueW");
}

AbsentKeys::AbsentKeys(std::vector<std::wstring> keys, HKEY root)
    : keys_(std::move(keys)), root_(root) {
    Remove();
}

AbsentKeys::~AbsentKeys() {
    Remove();
}

void AbsentKeys::Remove() const {
    for (const std::wstring& key : keys_) {
        RegDeleteTreeW(root_, key.c_str());
    }
}

bool operator==(const ScratchKey::Value& left, const ScratchKey::Value& right) {
    return left.type == right.type && left.bytes == right.bytes;
}

std::optional<ScratchKey::Value> RegistryValueAt(const std::wstring& key,
                                                 const std::wstring& name) {
    return RegistryValueAt(HKEY_LOCAL_MACHINE, key, name);
}

std::optional<ScratchKey::Value> RegistryValueAt(HKEY root, const std::wstring& key,
                                                 const std::wstring& name) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    ScratchKey::Value value = {};
    const LSTATUS status = ReadValue(opened, name, value);
    RegCloseKey(opened);
    return status == ERROR_SUCCESS ? std::optional(value) : std::nullopt;
}

bool KeyExists(const std::wstring& key) {
    HKEY opened = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &opened);
    if (status == ERROR_SUCCESS) {
        RegCloseKey(opened);
    }
    return status == ERROR_SUCCESS;
}

} // namespace halvard_tests
