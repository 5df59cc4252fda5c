#include "agent/pending_renames.h"

#include "agent/pending_renames_text.h"
#include "runtime/registry.h"

#include <optional>

namespace halvard {

namespace {

constexpr wchar_t kValue[] = L"PendingFileRenameOperations";

OwnedKey OpenSessionManager() {
    return OpenRequiredKey(HKEY_LOCAL_MACHINE,
                           L"SYSTEM\\CurrentControlSet\\Control\\Session Manager", KEY_READ);
}

// Nothing when there is nothing to read: most restarts have no renames to carry out.
std::optional<std::list<std::wstring>> ReadRenames() {
    try {
        const OwnedKey key = OpenSessionManager();
        return ReadMultiString(key.get(), kValue);
    } catch (const RegKeyError&) {
        return std::nullopt;
    }
}

} // namespace

void CleanPendingRenames() {
    const std::optional<std::list<std::wstring>> renames = ReadRenames();
    if (!renames) {
        return;
    }
    const std::list<std::wstring> kept = RenamesToKeep(*renames);
    if (kept.size() == renames->size()) {
        return;
    }
    // Not guarded, and a key opened for reading: packages ignore what the refused write makes of
    // the action, and a write that went through would change the next restart of their machines.
    const OwnedKey key = OpenSessionManager();
    WriteMultiString(key.get(), kValue, kept);
}

} // namespace halvard
