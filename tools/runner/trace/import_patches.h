#pragma once

#include <windows.h>

#include <functional>
#include <vector>

// The import table of a module that is loaded, and what to put in the place of what stands there.

namespace halvard_runner {

/// Sees an import: its name, null for one by a number, and the slot of its address.
using ImportVisitor = std::function<void(const char* name, void** slot)>;

void VisitImports(HMODULE module, const ImportVisitor& visit);

/// The imports that are looked up with their first call. The runner leaves them to that look-up, by
/// GetProcAddress, which it hooks; what judges a library before any call reads them here.
void VisitDelayedImports(HMODULE module, const ImportVisitor& visit);

/// Throws std::runtime_error.
void WriteImportSlot(void** slot, void* address);

/// Imports that lead elsewhere for the length of a scope. In the runner that is the rest of the
/// process: there they are never put back.
class ImportPatches {
public:
    ImportPatches() = default;
    ~ImportPatches();
    ImportPatches(const ImportPatches&) = delete;
    ImportPatches& operator=(const ImportPatches&) = delete;

    /// Throws std::runtime_error.
    void Redirect(void** slot, void* address);

private:
    struct Patch {
        void** slot;
        void* former;
    };
    std::vector<Patch> patches_;
};

} // namespace halvard_runner
