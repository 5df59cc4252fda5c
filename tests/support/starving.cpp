// starving: a library that takes away the memory of the program that loads it: from then on the
// program's own malloc gives small blocks alone. Without those the run-time itself cannot throw.

#include <windows.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kSmall = 1024;

void* GiveSmallBlocks(std::size_t size) {
    return size > kSmall ? nullptr : std::malloc(size);
}

template <typename Type>
Type* At(HMODULE module, std::size_t offset) {
    return reinterpret_cast<Type*>(reinterpret_cast<unsigned char*>(module) + offset);
}

void Replace(ULONGLONG& slot) {
    DWORD former = 0;
    VirtualProtect(&slot, sizeof slot, PAGE_READWRITE, &former);
    slot = reinterpret_cast<ULONGLONG>(&GiveSmallBlocks);
    VirtualProtect(&slot, sizeof slot, former, &former);
}

void Starve(HMODULE program) {
    const auto* const dosHeader = At<IMAGE_DOS_HEADER>(program, 0);
    const auto* const headers =
        At<IMAGE_NT_HEADERS>(program, static_cast<std::size_t>(dosHeader->e_lfanew));
    const DWORD imports =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (const auto* library = At<IMAGE_IMPORT_DESCRIPTOR>(program, imports);
         library->FirstThunk != 0; ++library) {
        const auto* name = At<IMAGE_THUNK_DATA>(program, library->OriginalFirstThunk);
        auto* slot = At<IMAGE_THUNK_DATA>(program, library->FirstThunk);
        for (; name->u1.AddressOfData != 0; ++name, ++slot) {
            const bool isByNumber = (name->u1.Ordinal & IMAGE_ORDINAL_FLAG64) != 0;
            if (!isByNumber &&
                std::strcmp(At<IMAGE_IMPORT_BY_NAME>(program, name->u1.AddressOfData)->Name,
                            "malloc") == 0) {
                Replace(slot->u1.Function);
            }
        }
    }
}

} // namespace

extern "C" __declspec(dllexport) UINT WINAPI Nothing() {
    return 0;
}

BOOL WINAPI DllMain(HINSTANCE /*library*/, DWORD reason, void* /*reserved*/) {
    if (reason == DLL_PROCESS_ATTACH) {
        Starve(GetModuleHandleW(nullptr));
    }
    return TRUE;
}
