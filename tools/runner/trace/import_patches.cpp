#include "trace/import_patches.h"

#include <stdexcept>

namespace halvard_runner {

namespace {

template <class Type>
Type* At(HMODULE module, DWORD offset) {
    return reinterpret_cast<Type*>(reinterpret_cast<BYTE*>(module) + offset);
}

const IMAGE_DATA_DIRECTORY& Directory(HMODULE module, int which) {
    const auto* const dos = At<IMAGE_DOS_HEADER>(module, 0);
    const auto* const headers = At<IMAGE_NT_HEADERS>(module, static_cast<DWORD>(dos->e_lfanew));
    return headers->OptionalHeader.DataDirectory[which];
}

void VisitNames(HMODULE module, DWORD names, DWORD addresses, const ImportVisitor& visit) {
    const auto* name = At<IMAGE_THUNK_DATA>(module, names);
    auto* address = At<IMAGE_THUNK_DATA>(module, addresses);
    for (; name->u1.AddressOfData != 0; ++name, ++address) {
        auto** const slot = reinterpret_cast<void**>(&address->u1.Function);
        if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal)) {
            visit(nullptr, slot);
            continue;
        }
        const auto* const import =
            At<IMAGE_IMPORT_BY_NAME>(module, static_cast<DWORD>(name->u1.AddressOfData));
        visit(reinterpret_cast<const char*>(import->Name), slot);
    }
}

bool TryToWrite(void** slot, void* address) noexcept {
    DWORD protection = 0;
    if (VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &protection) == FALSE) {
        return false;
    }
    *slot = address;
    VirtualProtect(slot, sizeof(*slot), protection, &protection);
    return true;
}

} // namespace

void VisitImports(HMODULE module, const ImportVisitor& visit) {
    const IMAGE_DATA_DIRECTORY& place = Directory(module, IMAGE_DIRECTORY_ENTRY_IMPORT);
    if (place.Size == 0) {
        return;
    }
    for (auto* each = At<IMAGE_IMPORT_DESCRIPTOR>(module, place.VirtualAddress); each->Name != 0;
         ++each) {
        VisitNames(module, each->OriginalFirstThunk, each->FirstThunk, visit);
    }
}

void VisitDelayedImports(HMODULE module, const ImportVisitor& visit) {
    const IMAGE_DATA_DIRECTORY& place = Directory(module, IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT);
    if (place.Size == 0) {
        return;
    }
    for (auto* each = At<IMAGE_DELAYLOAD_DESCRIPTOR>(module, place.VirtualAddress);
         each->DllNameRVA != 0; ++each) {
        VisitNames(module, each->ImportNameTableRVA, each->ImportAddressTableRVA, visit);
    }
}

void WriteImportSlot(void** slot, void* address) {
    if (!TryToWrite(slot, address)) {
        throw std::runtime_error("the import table cannot be made writable");
    }
}

ImportPatches::~ImportPatches() {
    for (const Patch& each : patches_) {
        // It could be written before.
        TryToWrite(each.slot, each.former);
    }
}

void ImportPatches::Redirect(void** slot, void* address) {
    patches_.push_back({slot, *slot});
    WriteImportSlot(slot, address);
}

} // namespace halvard_runner
