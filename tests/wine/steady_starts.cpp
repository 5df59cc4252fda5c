#include "steady_starts.h"

#include "import_hook.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdio>

namespace halvard_tests {

namespace {

decltype(&CreateProcessW) createProcess = nullptr;

BOOL WINAPI CreateProcessSteadily(LPCWSTR application, LPWSTR commandLine,
                                  LPSECURITY_ATTRIBUTES process, LPSECURITY_ATTRIBUTES thread,
                                  BOOL inherit, DWORD flags, LPVOID environment, LPCWSTR directory,
                                  LPSTARTUPINFOW startup, LPPROCESS_INFORMATION created) {
    // What it allocates is no part of the code under test.
    const HookedCall call;
    const auto start = [&] {
        return createProcess(application, commandLine, process, thread, inherit, flags, environment,
                             directory, startup, created);
    };
    return StartOnceMoreIfLost(start, [] {
        std::printf("once more: the engine lost a program that it was starting\n");
        std::fflush(stdout);
    });
}

// Below every hook of a test: what a test lets fail is not done once more.
class SteadyStarts : public testing::Environment {
    void SetUp() override {
        void** const slot = ImportSlot("CreateProcessW");
        createProcess = reinterpret_cast<decltype(createProcess)>(*slot);
        WriteImportSlot(slot, reinterpret_cast<void*>(&CreateProcessSteadily));
    }
};

const testing::Environment* const kSteadyStarts =
    testing::AddGlobalTestEnvironment(new SteadyStarts);

} // namespace

int StartOnceMoreIfLost(const std::function<int()>& start, const std::function<void()>& tell) {
    const int started = start();
    if (started != FALSE || GetLastError() != ERROR_INTERNAL_ERROR) {
        return started;
    }
    tell();
    return start();
}

} // namespace halvard_tests
