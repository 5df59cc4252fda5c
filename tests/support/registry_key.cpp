#include "registry_key.h"

#include <stdexcept>

namespace halvard_tests {

namespace {

void Check(LSTATUS status, const char* what) {
    if (status != ERROR_SUCCESS) {
        throw std::runtime_error(std::string(what) + " failed with " + std::to_string(status));
    }
}

} // namespace

ScratchKey::ScratchKey() : path_(L"SOFTWARE\\HalvardTests\\" + std::to_wstring(GetTickCount64())) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\HalvardTests");
    Check(RegCreateKeyExW(HKEY_LOCAL_MACHINE, path_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                          &key_, nullptr),
          "RegCreateKeyExW");
}

ScratchKey::~ScratchKey() {
    RegCloseKey(key_);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\HalvardTests");
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
    const auto* const first = reinterpret_cast<const BYTE*>(characters.data());
    SetBytes(name, type, {first, first + characters.size() * sizeof(wchar_t)});
}

void ScratchKey::SetBytes(const std::wstring& name, DWORD type,
                          const std::vector<BYTE>& bytes) const {
    Check(
        RegSetValueExW(key_, name.c_str(), 0, type, bytes.data(), static_cast<DWORD>(bytes.size())),
        "RegSetValueExW");
}

ScratchKey::Value ScratchKey::Read(const std::wstring& name) const {
    DWORD size = 0;
    Check(RegQueryValueExW(key_, name.c_str(), nullptr, nullptr, nullptr, &size),
          "RegQueryValueExW");
    Value value = {0, std::vector<BYTE>(size)};
    Check(RegQueryValueExW(key_, name.c_str(), nullptr, &value.type, value.bytes.data(), &size),
          "RegQueryValueExW");
    return value;
}

std::wstring ScratchKey::ReadCharacters(const std::wstring& name) const {
    const Value value = Read(name);
    const auto* const first = reinterpret_cast<const wchar_t*>(value.bytes.data());
    return {first, first + value.bytes.size() / sizeof(wchar_t)};
}

} // namespace halvard_tests
