#pragma once

#include "import_hook.h"
#include "registry_key.h"

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace halvard_tests {

/// What Windows is to rename at the next restart, for the length of a scope; what it was to rename
/// before comes back at the end. The key is the system's own and stays.
class PendingRenames {
public:
    /// No value at all.
    PendingRenames() : former_(RegistryValueAt(kKey, kName)) {
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kKey, kName);
    }
    /// A value of exactly these characters, with no terminator added.
    explicit PendingRenames(const std::wstring& characters, DWORD type = REG_MULTI_SZ)
        : PendingRenames() {
        const LSTATUS status =
            RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kName, type, characters.data(),
                            static_cast<DWORD>(characters.size() * sizeof(wchar_t)));
        if (status != ERROR_SUCCESS) {
            throw std::runtime_error("pending renames cannot be set");
        }
    }
    ~PendingRenames() {
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kKey, kName);
        if (former_) {
            RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kName, former_->type, former_->bytes.data(),
                            static_cast<DWORD>(former_->bytes.size()));
        }
    }
    PendingRenames(const PendingRenames&) = delete;
    PendingRenames& operator=(const PendingRenames&) = delete;

    bool IsThere() const { return RegistryValueAt(kKey, kName).has_value(); }
    DWORD Type() const { return RegistryValueAt(kKey, kName).value().type; }

    /// The bytes of the value as characters.
    std::wstring Read() const {
        const std::vector<BYTE> bytes = RegistryValueAt(kKey, kName).value().bytes;
        const auto* const first = reinterpret_cast<const wchar_t*>(bytes.data());
        return {first, first + bytes.size() / sizeof(wchar_t)};
    }

private:
    static constexpr wchar_t kKey[] = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
    static constexpr wchar_t kName[] = L"PendingFileRenameOperations";

    std::optional<ScratchKey::Value> former_;
};

/// Lets values be set through keys opened for reading, for the length of a scope. The system
/// refuses that, so what would be written never shows otherwise.
class WritableKeys {
private:
    HOOK(open_, RegOpenKeyExW,
         [this](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             return open_.Original(root, subkey, options, access | KEY_SET_VALUE, opened);
         });
};

} // namespace halvard_tests
