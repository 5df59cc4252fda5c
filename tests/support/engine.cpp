#include "engine.h"

#include <windows.h>

#include <cstdlib>
#include <iostream>

namespace halvard_tests {

namespace {

constexpr int kOlderRelease = 8;
constexpr int kNewerRelease = 10;

int ReleaseOf(const char* wineVersion) {
    return std::atoi(wineVersion);
}

const char* WineVersion() {
    const FARPROC found = GetProcAddress(GetModuleHandleW(L"ntdll"), "wine_get_version");
    using Version = const char*(CDECL*)();
    return found == nullptr ? nullptr : reinterpret_cast<Version>(reinterpret_cast<void*>(found))();
}

Engine FindEngine() {
    const char* const version = WineVersion();
    if (version != nullptr && ReleaseOf(version) != kOlderRelease &&
        ReleaseOf(version) != kNewerRelease) {
        std::cout << "Wine " << version << " is not known, the nearest older release stands for it"
                  << std::endl;
    }
    return EngineOf(version);
}

} // namespace

Engine EngineOf(const char* wineVersion) {
    if (wineVersion == nullptr) {
        return Engine::kWindows;
    }
    return ReleaseOf(wineVersion) < kNewerRelease ? Engine::kWine8 : Engine::kWine10;
}

Engine EngineAtWork() {
    static const Engine engine = FindEngine();
    return engine;
}

} // namespace halvard_tests
