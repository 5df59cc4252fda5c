// What the registry gives back, and what deletion takes away.

#include "verify/place.h"

#include "runtime/owned.h"
#include "runtime/registry.h"

#include <string>
#include <system_error>

namespace halvard_runner {

namespace {

using halvard::OwnedKey;
using namespace std::string_literals;

void SetBytes(HKEY key, const wchar_t* name, DWORD type, const std::wstring& characters,
              DWORD bytes) {
    // A null character that happens to stand behind a text would be stored with it.
    const std::wstring stored = characters + L'x';
    RequireSuccess(
        RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(stored.data()), bytes),
        L"writing a value");
}

void SetCharacters(HKEY key, const wchar_t* name, DWORD type, const std::wstring& characters) {
    SetBytes(key, name, type, characters, static_cast<DWORD>(characters.size() * sizeof(wchar_t)));
}

std::wstring SizeAsked(const ScratchPlace& place, const wchar_t* name, DWORD flags) {
    DWORD size = 0;
    const LSTATUS status = RegGetValueW(place.Key(), L"", name, flags, nullptr, nullptr, &size);
    return status == ERROR_SUCCESS ? std::to_wstring(size)
                                   : L"refused with " + std::to_wstring(status);
}

OwnedKey Created(HKEY root, const std::wstring& path, REGSAM view) {
    HKEY key = nullptr;
    RequireSuccess(RegCreateKeyExW(root, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                   KEY_ALL_ACCESS | view, nullptr, &key, nullptr),
                   L"making the key " + path);
    return OwnedKey(key);
}

OwnedKey Created(const std::wstring& path) {
    return Created(HKEY_CURRENT_USER, path, 0);
}

bool KeyIsThere(const std::wstring& path) {
    return static_cast<bool>(halvard::OpenKey(HKEY_CURRENT_USER, path.c_str(), KEY_READ));
}

std::wstring SizeOfText(const ScratchPlace& place) {
    SetCharacters(place.Key(), L"Text", REG_SZ, L"abc\0"s);
    return SizeAsked(place, L"Text", RRF_RT_REG_SZ);
}

std::wstring SizeReadOfText(const ScratchPlace& place) {
    SetCharacters(place.Key(), L"Text", REG_SZ, L"abc\0"s);
    wchar_t text[32] = {};
    DWORD size = sizeof(text);
    RequireSuccess(RegGetValueW(place.Key(), L"", L"Text", RRF_RT_REG_SZ, nullptr, text, &size),
                   L"reading the text");
    return std::to_wstring(size);
}

std::wstring UnterminatedText(const ScratchPlace& place) {
    SetCharacters(place.Key(), L"Text", REG_SZ, L"abc");
    try {
        return halvard::ReadRegistryString(place.Key(), L"", L"Text", true) == L"abc" ? L"read"
                                                                                      : L"changed";
    } catch (const halvard::RegKeyError& error) {
        return L"throws with " + std::to_wstring(error.code().value());
    }
}

std::wstring OddText(const ScratchPlace& place) {
    SetBytes(place.Key(), L"Text", REG_SZ, L"abc", 5);
    try {
        return halvard::ReadRegistryString(place.Key(), L"", L"Text", true).substr(0, 2) == L"ab"
                   ? L"read"
                   : L"changed";
    } catch (const halvard::RegKeyError& error) {
        return L"throws with " + std::to_wstring(error.code().value());
    }
}

std::wstring VariablesInText(const ScratchPlace& place) {
    SetCharacters(place.Key(), L"Text", REG_EXPAND_SZ, L"%SystemRoot%\\x\0"s);
    const std::wstring read = halvard::ReadRegistryString(place.Key(), L"", L"Text", false);
    if (read.empty()) {
        return L"not read";
    }
    return read.find(L'%') == std::wstring::npos ? L"expanded" : L"not expanded";
}

std::wstring SizeOfList(const ScratchPlace& place) {
    SetCharacters(place.Key(), L"List", REG_MULTI_SZ, L"a\0b\0\0"s);
    return SizeAsked(place, L"List", RRF_RT_REG_MULTI_SZ);
}

std::wstring EmptyList(const ScratchPlace& place) {
    SetBytes(place.Key(), L"List", REG_MULTI_SZ, L"", 0);
    return std::to_wstring(halvard::ReadMultiString(place.Key(), L"List").size());
}

std::wstring UnterminatedList(const ScratchPlace& place) {
    SetCharacters(place.Key(), L"List", REG_MULTI_SZ, L"a\0b"s);
    return std::to_wstring(halvard::ReadMultiString(place.Key(), L"List").size());
}

std::wstring ShortNumber(const ScratchPlace& place) {
    SetBytes(place.Key(), L"Number", REG_BINARY, L"\x0102", 2);
    const std::optional<DWORD> number = halvard::ReadNumber(place.Key(), L"Number");
    return number ? std::to_wstring(*number) : L"not read";
}

std::wstring LongValue(const ScratchPlace& place) {
    SetCharacters(place.Key(), L"Text", REG_SZ, std::wstring(300, L'x'));
    wchar_t room[130] = {};
    DWORD size = 260;
    return std::to_wstring(RegQueryValueExW(place.Key(), L"Text", nullptr, nullptr,
                                            reinterpret_cast<BYTE*>(room), &size));
}

std::wstring KeyOpenForReading(const ScratchPlace& place) {
    const OwnedKey key =
        halvard::OpenRequiredKey(HKEY_CURRENT_USER, place.KeyPath().c_str(), KEY_READ);
    try {
        halvard::WriteMultiString(key.get(), L"List", {L"a"});
    } catch (const halvard::RegKeyError& error) {
        return L"throws with " + std::to_wstring(error.code().value());
    }
    return L"written";
}

std::wstring BackslashBehindKey(const ScratchPlace& place) {
    return halvard::OpenKey(HKEY_CURRENT_USER, (place.KeyPath() + L"\\").c_str(), KEY_READ)
               ? L"the same key"
               : L"no key";
}

std::wstring CaseOfKey(const ScratchPlace& place) {
    const OwnedKey made = Created(place.KeyPath() + L"\\Telo");
    return KeyIsThere(place.KeyPath() + L"\\TELO") ? L"the same key" : L"no key";
}

std::wstring LongKeyName(const ScratchPlace& place) {
    const OwnedKey made = Created(place.KeyPath() + L"\\" + std::wstring(255, L'k'));
    std::wstring name(300, L'\0');
    DWORD length = 255;
    return std::to_wstring(
        RegEnumKeyExW(place.Key(), 0, name.data(), &length, nullptr, nullptr, nullptr, nullptr));
}

std::wstring KeyWithSubkeys(const ScratchPlace& place) {
    const OwnedKey made = Created(place.KeyPath() + L"\\key\\below");
    return std::to_wstring(RegDeleteKeyExW(HKEY_CURRENT_USER, (place.KeyPath() + L"\\key").c_str(),
                                           KEY_ALL_ACCESS, 0));
}

std::wstring KeyTree(const ScratchPlace& place) {
    Created(place.KeyPath() + L"\\key\\below\\deeper");
    const std::wstring key = place.KeyPath() + L"\\key";
    RegDeleteTreeW(HKEY_CURRENT_USER, key.c_str());
    return KeyIsThere(key) ? L"stays" : L"gone";
}

/// A key that has one place in each view: below the software of the machine, where the library's
/// keys are, or without elevation below the classes of the user. Removing the scratch removes it.
class KeyInBothViews {
public:
    explicit KeyInBothViews(const ScratchPlace& place) {
        const auto& [machine, user] = KeysInBothViews(place.UniqueName());
        key_ = CanBeMade(machine) ? machine : user;
        Make(KEY_WOW64_64KEY);
        Make(KEY_WOW64_32KEY);
        RegDeleteKeyExW(key_.root, key_.path.c_str(), KEY_WOW64_32KEY, 0);
        if (!IsThere(KEY_WOW64_64KEY)) {
            throw CannotBeAsked(L"the views are not kept apart here");
        }
        Make(KEY_WOW64_32KEY);
    }
    ~KeyInBothViews() { RemoveInBothViews(key_); }
    KeyInBothViews(const KeyInBothViews&) = delete;
    KeyInBothViews& operator=(const KeyInBothViews&) = delete;

    [[nodiscard]] const ViewedKey& Key() const { return key_; }

    /// Which of the two has gone.
    [[nodiscard]] std::wstring Gone() const {
        const bool wide = IsThere(KEY_WOW64_64KEY);
        const bool narrow = IsThere(KEY_WOW64_32KEY);
        if (wide == narrow) {
            return wide ? L"none" : L"both";
        }
        return wide ? L"that of 32 bits" : L"that of 64 bits";
    }

private:
    static bool CanBeMade(const ViewedKey& key) {
        HKEY made = nullptr;
        const bool isMade =
            RegCreateKeyExW(key.root, key.path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                            KEY_ALL_ACCESS, nullptr, &made, nullptr) == ERROR_SUCCESS;
        const OwnedKey owned(made);
        return isMade;
    }
    void Make(REGSAM view) const { Created(key_.root, key_.path, view); }
    [[nodiscard]] bool IsThere(REGSAM view) const {
        return static_cast<bool>(halvard::OpenKey(key_.root, key_.path.c_str(), KEY_READ | view));
    }

    ViewedKey key_;
};

std::wstring DeletionInAView(const ScratchPlace& place) {
    const KeyInBothViews key(place);
    RegDeleteKeyExW(key.Key().root, key.Key().path.c_str(), KEY_ALL_ACCESS, 0);
    return key.Gone();
}

std::wstring ViewInPath(const ScratchPlace& place) {
    const KeyInBothViews key(place);
    RegDeleteKeyW(key.Key().root, key.Key().pathOfNarrowView.c_str());
    return key.Gone();
}

} // namespace

std::vector<Fact> RegistryFacts() {
    return {
        {L"size-of-text", SizeOfText},
        {L"size-read-of-text", SizeReadOfText},
        {L"unterminated-text", UnterminatedText},
        {L"odd-text", OddText},
        {L"variables-in-text", VariablesInText},
        {L"size-of-list", SizeOfList},
        {L"empty-list", EmptyList},
        {L"unterminated-list", UnterminatedList},
        {L"short-number", ShortNumber},
        {L"long-value", LongValue},
        {L"key-open-for-reading", KeyOpenForReading},
        {L"backslash-behind-key", BackslashBehindKey},
        {L"case-of-key", CaseOfKey},
        {L"long-key-name", LongKeyName},
        {L"key-with-subkeys", KeyWithSubkeys},
        {L"key-tree", KeyTree},
        {L"deletion-in-a-view", DeletionInAView},
        {L"view-in-path", ViewInPath},
    };
}

} // namespace halvard_runner
