#include "runtime/registry.h"

#include "registry_key.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

using halvard_tests::ScratchKey;
using Paths = std::vector<std::wstring>;

namespace {

using Duration = std::chrono::duration<double>;

template <class Action>
Duration TimeOf(Action action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - start;
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
    // The shortest of three runs, taken in turns: what disturbs a run only makes it longer.
    constexpr int runs = 3;
    const ScratchKey key;
    MakeValues(key, 2000);
    Duration walkOfFew = Duration::max();
    for (int run = 0; run < runs; ++run) {
        walkOfFew = std::min(walkOfFew, TimeOf([&] { WalkValues(key); }));
    }

    MakeValues(key, 20000);
    Duration bare = Duration::max();
    Duration walk = Duration::max();
    Duration query = Duration::max();
    for (int run = 0; run < runs; ++run) {
        bare = std::min(bare, TimeOf([&] { EXPECT_EQ(EnumerateValuesBare(key.Get()), 20000U); }));
        walk = std::min(walk, TimeOf([&] { EXPECT_EQ(WalkValues(key).size(), 20000U); }));
        query = std::min(query, TimeOf([&] { EXPECT_EQ(QueryPaths(key).size(), 20000U); }));
    }
    EXPECT_LE(walk.count(), 2 * bare.count());
    EXPECT_LE(query.count(), 2 * bare.count());
    EXPECT_LE(walk.count(), 12 * walkOfFew.count());
}

TEST(WalkTime, OfKeysGrowsLinearly) {
    const ScratchKey key;
    const auto makeKeys = [&](int count) {
        for (int index = 0; index < count; ++index) {
            key.CreateSubkey(L"key " + std::to_wstring(index));
        }
    };
    Duration few = Duration::max();
    Duration many = Duration::max();
    makeKeys(300);
    for (int run = 0; run < 3; ++run) {
        few = std::min(few, TimeOf([&] { EXPECT_EQ(QueryPaths(key).size(), 300U); }));
    }
    makeKeys(3000);
    for (int run = 0; run < 3; ++run) {
        many = std::min(many, TimeOf([&] { EXPECT_EQ(QueryPaths(key).size(), 3000U); }));
    }
    EXPECT_LE(many.count(), 12 * few.count());
}
