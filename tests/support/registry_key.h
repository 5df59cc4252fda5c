#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace halvard_tests {

/// The bytes of characters, with no terminator added.
std::vector<BYTE> BytesOf(const std::wstring& characters);

/// A key of its own below HKEY_LOCAL_MACHINE\SOFTWARE\HalvardTests, or at a path below
/// HKEY_LOCAL_MACHINE, empty at the start and removed with all below it at the end.
class ScratchKey {
public:
    ScratchKey();
    explicit ScratchKey(const std::wstring& path);
    ~ScratchKey();
    ScratchKey(const ScratchKey&) = delete;
    ScratchKey& operator=(const ScratchKey&) = delete;

    /// The path below HKEY_LOCAL_MACHINE, and with the root's name in front.
    const std::wstring& Path() const { return path_; }
    std::wstring FullPath() const { return L"HKEY_LOCAL_MACHINE\\" + path_; }
    HKEY Get() const { return key_; }

    void CreateSubkey(const std::wstring& subkey) const;
    void SetString(const std::wstring& name, const std::wstring& text) const;
    /// Stores exactly these characters under any type, with no terminator added.
    void SetCharacters(const std::wstring& name, DWORD type, const std::wstring& characters) const;
    void SetBytes(const std::wstring& name, DWORD type, const std::vector<BYTE>& bytes) const;

    struct Value {
        DWORD type;
        std::vector<BYTE> bytes;
    };
    /// Throws std::runtime_error when the value is missing.
    Value Read(const std::wstring& name) const;
    /// The bytes of a value as characters.
    std::wstring ReadCharacters(const std::wstring& name) const;

private:
    ScratchKey(const std::wstring& path, const std::wstring& removed);

    std::wstring path_;
    std::wstring removed_;
    HKEY key_ = nullptr;
};

/// Sets a text, with its terminator, in a key that is made where there is none.
void SetRegistryString(HKEY root, const std::wstring& key, const std::wstring& name,
                       const std::wstring& text);

/// Keys that are absent, with all below them, at the start and at the end.
class AbsentKeys {
public:
    explicit AbsentKeys(std::vector<std::wstring> keys, HKEY root = HKEY_LOCAL_MACHINE);
    ~AbsentKeys();
    AbsentKeys(const AbsentKeys&) = delete;
    AbsentKeys& operator=(const AbsentKeys&) = delete;

    /// Removes them now as well.
    void Remove() const;

private:
    std::vector<std::wstring> keys_;
    HKEY root_;
};

bool operator==(const ScratchKey::Value& left, const ScratchKey::Value& right);

/// A value of a key below HKEY_LOCAL_MACHINE; nothing when the key or the value is missing.
std::optional<ScratchKey::Value> RegistryValueAt(const std::wstring& key, const std::wstring& name);

/// The same below another root.
std::optional<ScratchKey::Value> RegistryValueAt(HKEY root, const std::wstring& key,
                                                 const std::wstring& name);

/// Whether there is this key below HKEY_LOCAL_MACHINE.
bool KeyExists(const std::wstring& key);

} // namespace halvard_tests
