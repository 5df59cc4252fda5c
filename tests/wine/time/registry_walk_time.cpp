#include "runtime/registry_walk.h"

#include "bare_enumeration.h"
#include "registry_key.h"
#include "time_of.h"

#include <gtest/gtest.h>

#include <algorithm>

using halvard_tests::EnumerateValuesBare;
using halvard_tests::Growth;
using halvard_tests::OneOfTen;
using halvard_tests::ScratchKey;
using halvard_tests::TimeOf;
using Paths = std::vector<std::wstring>;

namespace {

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

void MakeKeys(const ScratchKey& key, int count) {
    for (int index = 0; index < count; ++index) {
        key.CreateSubkey(L"key " + std::to_wstring(index));
    }
}

} // namespace

TEST(WalkTime, GrowsLinearlyAndStaysWithinTwiceABareEnumeration) {
    const ScratchKey few(L"SOFTWARE\\HalvardFewValues");
    const ScratchKey many(L"SOFTWARE\\HalvardManyValues");
    MakeValues(few, 2000);
    MakeValues(many, 20000);
    const auto walk = [](const ScratchKey& key, std::size_t count) {
        return TimeOf([&] { EXPECT_EQ(WalkValues(key).size(), count); });
    };
    const auto walkOfFew = [&] {
        return OneOfTen([&] { return walk(few, 2000); });
    };
    const auto walkOfMany = [&] {
        return walk(many, 20000);
    };
    const auto query = [&] {
        return TimeOf([&] { EXPECT_EQ(QueryPaths(many).size(), 20000U); });
    };
    const auto bare = [&] {
        return TimeOf([&] { EXPECT_EQ(EnumerateValuesBare(many.Get()), 20000U); });
    };
    EXPECT_LE(Growth(bare, walkOfMany, 2), 2);
    EXPECT_LE(Growth(bare, query, 2), 2);
    EXPECT_LE(Growth(walkOfFew, walkOfMany, 12), 12);
}

TEST(WalkTime, OfKeysGrowsLinearly) {
    const ScratchKey few(L"SOFTWARE\\HalvardFewKeys");
    const ScratchKey many(L"SOFTWARE\\HalvardManyKeys");
    const auto timeOf = [](const ScratchKey& key, std::size_t count) {
        return TimeOf([&] { EXPECT_EQ(QueryPaths(key).size(), count); });
    };
    MakeKeys(few, 300);
    MakeKeys(many, 3000);
    const auto walkOfFew = [&] {
        return OneOfTen([&] { return timeOf(few, 300); });
    };
    const auto walkOfMany = [&] {
        return timeOf(many, 3000);
    };
    EXPECT_LE(Growth(walkOfFew, walkOfMany, 12), 12);
}
