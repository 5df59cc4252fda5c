#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace halvard_tests {

/// A key of its own below HKEY_LOCAL_MACHINE\SOFTWARE\HalvardTests, empty at the start and removed
/// with all below it at the end.
class ScratchKey {
public:
    ScratchKey();
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
    std::wstring path_;
    HKEY key_ = nullptr;
};

} // namespace halvard_tests
