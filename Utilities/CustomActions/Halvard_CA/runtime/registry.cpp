#include "runtime/registry.h"

#include "runtime/multi_string.h"

#include <cwchar>

namespace halvard {

namespace {

constexpr std::size_t kMessageCapacity = 260;

LSTATUS Open(HKEY root, const wchar_t* subkey, REGSAM access, OwnedKey& key) noexcept {
    HKEY opened = nullptr;
    const LSTATUS status = RegOpenKeyExW(root, subkey, 0, access, &opened);
    if (status == ERROR_SUCCESS) {
        key.reset(opened);
    }
    return status;
}

[[noreturn]] void ThrowRegKeyError(LSTATUS status, const char* message) {
    throw RegKeyError(static_cast<int>(status), std::system_category(), message);
}

// Wide characters that `bytes` fill, and one more: an odd last byte goes there, and not over the
// terminator of the string.
std::size_t BufferLength(DWORD bytes) {
    return bytes / sizeof(wchar_t) + 1;
}

// Up to the first null character, where the registry takes a name to end too.
std::string InAnsiCodePage(const wchar_t* text) {
    const int length = static_cast<int>(std::wcslen(text));
    const int size = WideCharToMultiByte(CP_ACP, 0, text, length, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_ACP, 0, text, length, narrow.data(), size, nullptr, nullptr);
    return narrow;
}

} // namespace

void CloseRegistryKey(OwnedKey& key) noexcept {
    key.reset();
}

OwnedKey OpenKey(HKEY root, const wchar_t* subkey, REGSAM access) noexcept {
    OwnedKey key;
    static_cast<void>(Open(root, subkey, access, key));
    return key;
}

LSTATUS CreateKey(HKEY root, const wchar_t* subkey, REGSAM access, OwnedKey& key) noexcept {
    HKEY created = nullptr;
    const LSTATUS status = RegCreateKeyExW(root, subkey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                           access, nullptr, &created, nullptr);
    if (status == ERROR_SUCCESS) {
        key.reset(created);
    }
    return status;
}

LSTATUS SetText(HKEY key, const wchar_t* name, const std::wstring& text) noexcept {
    return RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                          static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

LSTATUS SetNumber(HKEY key, const wchar_t* name, DWORD number) noexcept {
    return RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number),
                          sizeof(number));
}

std::optional<DWORD> ReadNumber(HKEY key, const wchar_t* name) noexcept {
    DWORD number = 0;
    const bool isRead = ReadBytes(key, name, &number, sizeof(number), nullptr);
    return isRead ? std::optional<DWORD>(number) : std::nullopt;
}

bool ReadBytes(HKEY key, const wchar_t* name, void* room, DWORD bytes, DWORD* type) noexcept {
    return RegQueryValueExW(key, name, nullptr, type, static_cast<BYTE*>(room), &bytes) ==
           ERROR_SUCCESS;
}

std::wstring ReadRegistryString(HKEY key, const std::wstring& subkey, const std::wstring& name,
                                bool throwOnError) {
    DWORD size = 0;
    const LSTATUS sizeStatus =
        RegGetValueW(key, subkey.c_str(), name.c_str(), RRF_RT_REG_SZ, nullptr, nullptr, &size);
    const std::size_t characters = size / sizeof(wchar_t);
    std::wstring text(BufferLength(size), L'\0');
    const LSTATUS readStatus = RegGetValueW(key, subkey.c_str(), name.c_str(), RRF_RT_REG_SZ,
                                            nullptr, size == 0 ? nullptr : text.data(), &size);
    if (readStatus != ERROR_SUCCESS) {
        if (throwOnError) {
            // The code of the first call, so that callers see 0 for a value that changed in
            // between.
            ThrowRegKeyError(sizeStatus, "Unable to get registry value");
        }
        return {};
    }
    text.resize(characters);
    text.resize(std::wcslen(text.c_str()));
    return text;
}

OwnedKey OpenRequiredKey(HKEY root, const wchar_t* subkey, REGSAM access) {
    OwnedKey key;
    const LSTATUS status = Open(root, subkey, access, key);
    if (status != ERROR_SUCCESS) {
        ThrowRegKeyError(status, "Unable to open registry key");
    }
    return key;
}

OwnedKey OpenRegistryKey(std::wstring subkey) { // NOLINT(performance-unnecessary-value-param)
    return OpenRequiredKey(HKEY_LOCAL_MACHINE, subkey.c_str(), KEY_READ | KEY_WRITE);
}

std::wstring ReadRequiredString(HKEY root, const wchar_t* subkey, REGSAM access,
                                const wchar_t* name) {
    const OwnedKey key = OpenRequiredKey(root, subkey, access);
    return ReadRegistryString(key.get(), L"", name, true);
}

std::list<std::wstring> ReadMultiString(HKEY key, const std::wstring& name) {
    DWORD size = 0;
    const LSTATUS sizeStatus =
        RegGetValueW(key, L"", name.c_str(), RRF_RT_REG_MULTI_SZ, nullptr, nullptr, &size);
    if (sizeStatus != ERROR_SUCCESS) {
        ThrowRegKeyError(sizeStatus, "Unable to get registry value");
    }
    std::wstring characters(BufferLength(size), L'\0');
    RegGetValueW(key, L"", name.c_str(), RRF_RT_REG_MULTI_SZ, nullptr, characters.data(), &size);
    // The size that the read left: a value that grew in between gives as many empty elements.
    characters.resize(size / sizeof(wchar_t));
    return SplitMultiString(characters);
}

void WriteMultiString(HKEY key, const std::wstring& name, const std::list<std::wstring>& strings) {
    const std::wstring characters = JoinMultiString(strings);
    const LSTATUS status = RegSetValueExW(key, name.c_str(), 0, REG_MULTI_SZ,
                                          reinterpret_cast<const BYTE*>(characters.data()),
                                          static_cast<DWORD>(characters.size() * sizeof(wchar_t)));
    if (status != ERROR_SUCCESS) {
        const std::string message =
            "Unable to write REG_MULTI_SZ value = " + InAnsiCodePage(name.c_str());
        throw RegKeyError(static_cast<int>(status), std::system_category(),
                          message.substr(0, kMessageCapacity - 1));
    }
}

} // namespace halvard
