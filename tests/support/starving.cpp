// starving: a library that takes away the memory of the program that loads it: from then on the
// program's own malloc gives small blocks alone. Without those the run-time itself cannot throw.

#include "trace/import_patches.h"

#include <windows.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kSmall = 1024;

void* GiveSmallBlocks(std::size_t size) {
    return size > kSmall ? nullptr : std::malloc(size);
}

void Starve(HMODULE program) {
    halvard_runner::VisitImports(program, [](const char* name, void** slot) {
        if (name != nullptr && std::strcmp(name, "malloc") == 0) {
            halvard_runner::WriteImportSlot(slot, reinterpret_cast<void*>(&GiveSmallBlocks));
        }
    });
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
