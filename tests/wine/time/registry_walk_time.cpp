#include "runtime/registry.h"

#include "registry_key.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

using halvard_tests::ScratchKey;
using Paths = std::vector<std::wstring>;

namespace {

using Duration = std::chrono::duration<double>;

// The shorter of two runs: what disturbs a run only makes it longer.
template <class Action>
Duration ShorterOf2(Action action) {
    Duration shorter = Duration::max();
    for (int run = 0; run < 2; ++run) {
        const auto start = std::chrono::steady_clock::now();
        action();
        shorter = std::min<Duration>(shorter, std::chrono::steady_clock::now() - start);
    }
    return shorter;
}

std::size_t EnumerateValuesBare(HKEY key) {
    std::wstring name(16383, L'\0');
    std::size_t count = 0;
    for (DWORD length = 16383; RegEnumValueW(key, static_cast<DWORD>(count), name.data(), &length,
                                             nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         length = 16383) {
        ++count;
    }
    return count;
}

Paths WalkValues(const ScratchKey& key) {
    Paths keys;
    Paths values;
    halvard::EnumerateKeyTree(HKEY_LOCAL_MACHINE, key.Path(), keys, values, {});
    return values;
}

Paths QueryPaths(const ScratchKey& key) {
    Paths paths;
    halvard::QueryKey(HKEY_LOCAL_MACHINE, key.Path(), paths);
    return paths;
}

void MakeValues(const ScratchKey& key, std::size_t count) {
    for (std::size_t index = 0; index < count; ++index) {
        key.SetBytes(L"value " + std::to_wstring(index), REG_DWORD, {1, 0, 0, 0});
    }
}

} // namespace

TEST(WalkTime, GrowsLinearlyAndStaysWithinTwiceABareEnumeration) {
    const ScratchKey key;
    MakeValues(key, 2000);
    const Duration walkOfFew = ShorterOf2([&] { WalkValues(key); });

    MakeValues(key, 20000);
    std::size_t counted = 0;
    Paths values;
    Paths queried;
    const Duration bare = ShorterOf2([&] { counted = EnumerateValuesBare(key.Get()); });
    const Duration walk = ShorterOf2([&] { values = WalkValues(key); });
    const Duration query = ShorterOf2([&] { queried = QueryPaths(key); });
    EXPECT_EQ(counted, 20000U);
    EXPECT_EQ(values.size(), 20000U);
    EXPECT_EQ(queried.size(), 20000U);
    EXPECT_LE(walk.count(), 2 * bare.count());
    EXPECT_LE(query.count(), 2 * bare.count());
    EXPECT_LE(walk.count(), 12 * walkOfFew.count());
}
