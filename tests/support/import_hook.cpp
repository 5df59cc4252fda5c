#include "import_hook.h"

#include <cstring>

namespace halvard_tests {

namespace {

template <class Type>
Type* InModule(BYTE* module, DWORD offset) {
    return reinterpret_cast<Type*>(module + offset);
}

thread_local int depth = 0;

} // namespace

HookedCall::HookedCall() {
    ++depth;
}

HookedCall::~HookedCall() {
    --depth;
}

int HookDepth() {
    return depth;
}

void** ImportSlot(const char* function) {
    auto* const module = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
    const auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(module);
    const auto* headers = InModule<IMAGE_NT_HEADERS>(module, static_cast<DWORD>(dos->e_lfanew));
    const IMAGE_DATA_DIRECTORY& imports =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];

    for (auto* library = InModule<IMAGE_IMPORT_DESCRIPTOR>(module, imports.VirtualAddress);
         library->Name != 0; ++library) {
        auto* names = InModule<IMAGE_THUNK_DATA>(module, library->OriginalFirstThunk);
        auto* addresses = InModule<IMAGE_THUNK_DATA>(module, library->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++addresses) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) {
                continue;
            }
            const auto* import =
                InModule<IMAGE_IMPORT_BY_NAME>(module, static_cast<DWORD>(names->u1.AddressOfData));
            if (std::strcmp(reinterpret_cast<const char*>(import->Name), function) == 0) {
                return reinterpret_cast<void**>(&addresses->u1.Function);
            }
        }
    }
    throw std::runtime_error(std::string("not imported by this program: ") + function);
}

void WriteImportSlot(void** slot, void* address) {
    DWORD protection = 0;
    if (VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection) == FALSE) {
        throw std::runtime_error("the import table cannot be made writable");
    }
    *slot = address;
    VirtualProtect(slot, sizeof(*slot), protection, &protection);
}

} // namespace halvard_tests
