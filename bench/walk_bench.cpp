// walk_bench RUNS: walks a tree of 20,000 values in 20 keys in four ways, one after the other, RUNS
// times over, and prints a line "NAME MILLISECONDS" for each walk. Exit code 1 when a walk has not
// found all that there is.

#include "runtime/registry_walk.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr wchar_t kTree[] = L"SOFTWARE\\HalvardBench";
constexpr std::size_t kKeys = 20;
constexpr std::size_t kValuesOfAKey = 1000;

bool MakeTree() {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTree);
    for (std::size_t key = 0; key < kKeys; ++key) {
        const std::wstring path = std::wstring(kTree) + L"\\key " + std::to_wstring(key);
        HKEY opened = nullptr;
        if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr,
                            &opened, nullptr) != ERROR_SUCCESS) {
            return false;
        }
        for (std::size_t value = 0; value < kValuesOfAKey; ++value) {
            const std::wstring name = L"value " + std::to_wstring(value);
            const DWORD data = 1;
            RegSetValueExW(opened, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&data),
                           sizeof(data));
        }
        RegCloseKey(opened);
    }
    return true;
}

std::size_t WalkBare() {
    HKEY tree = nullptr;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTree, 0, KEY_READ, &tree);
    std::wstring name(16383, L'\0');
    std::size_t found = 0;
    for (DWORD index = 0, length = 255; RegEnumKeyExW(tree, index, name.data(), &length, nullptr,
                                                      nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++index, length = 255) {
        ++found;
        HKEY key = nullptr;
        RegOpenKeyExW(tree, name.c_str(), 0, KEY_READ, &key);
        DWORD value = 0;
        for (DWORD valueLength = 16383;
             RegEnumValueW(key, value, name.data(), &valueLength, nullptr, nullptr, nullptr,
                           nullptr) == ERROR_SUCCESS;
             ++value, valueLength = 16383) {
        }
        found += value;
        RegCloseKey(key);
    }
    RegCloseKey(tree);
    return found;
}

std::size_t WalkWithEnumerateKeyTree() {
    std::vector<std::wstring> keys;
    std::vector<std::wstring> values;
    halvard::EnumerateKeyTree(HKEY_LOCAL_MACHINE, kTree, keys, values, {});
    return keys.size() + values.size();
}

std::size_t WalkWithQueryKey() {
    std::vector<std::wstring> paths;
    halvard::QueryKey(HKEY_LOCAL_MACHINE, kTree, paths);
    return paths.size();
}

// `reg query` prints what it finds: its output goes to the null device and is not counted.
std::size_t WalkWithRegQuery() {
    const std::string command = "reg query \"HKLM\\SOFTWARE\\HalvardBench\" /s >nul";
    return std::system(command.c_str()) == 0 ? kKeys + kKeys * kValuesOfAKey : 0;
}

bool Measure(const char* name, std::size_t (*walk)()) {
    const auto start = std::chrono::steady_clock::now();
    const std::size_t found = walk();
    const std::chrono::duration<double, std::milli> taken =
        std::chrono::steady_clock::now() - start;
    std::printf("%s %.3f\n", name, taken.count());
    return found == kKeys + kKeys * kValuesOfAKey;
}

} // namespace

int main(int count, char** arguments) {
    const long runs = count == 2 ? std::strtol(arguments[1], nullptr, 10) : 0;
    if (runs < 1 || !MakeTree()) {
        std::fputs("usage: walk_bench RUNS\n", stderr);
        return 2;
    }
    bool complete = true;
    for (long run = 0; run < runs; ++run) {
        complete &= Measure("bare", WalkBare);
        complete &= Measure("EnumerateKeyTree", WalkWithEnumerateKeyTree);
        complete &= Measure("QueryKey", WalkWithQueryKey);
        complete &= Measure("reg query", WalkWithRegQuery);
    }
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTree);
    return complete ? 0 : 1;
}
