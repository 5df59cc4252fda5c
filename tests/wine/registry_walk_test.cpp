#include "runtime/registry_walk.h"

#include "allocation_failure.h"
#include "import_hook.h"
#include "open_handles.h"
#include "registry_key.h"
#include "standard_output.h"

#include <gtest/gtest.h>

#include <functional>
#include <algorithm>
using halvard::EnumerateKeyTree;
using halvard::QueryKey;
using halvard_tests::ScratchKey;
using halvard_tests::StandardOutputOf;
using Paths = std::vector<std::wstring>;

namespace {

// Root: value v0, keys a (values v1, v2; key a\deep with value v1) and b.
void MakeSmallTree(const ScratchKey& key) {
    key.SetString(L"v0", L"");
    key.CreateSubkey(L"a\\deep");
    key.CreateSubkey(L"b");
    HKEY child = nullptr;
    ASSERT_EQ(RegOpenKeyExW(key.Get(), L"a", 0, KEY_WRITE, &child), ERROR_SUCCESS);
    RegSetValueExW(child, L"v1", 0, REG_SZ, nullptr, 0);
    RegSetValueExW(child, L"v2", 0, REG_SZ, nullptr, 0);
    RegSetKeyValueW(child, L"deep", L"v1", REG_SZ, L"", 2);
    RegCloseKey(child);
}

Paths Below(const ScratchKey& key, const Paths& relative) {
    Paths paths;
    for (const std::wstring& path : relative) {
        paths.push_back(key.FullPath() + L"\\" + path);
    }
    return paths;
}

const Paths kNoNames;

struct Walked {
    Paths keys;
    Paths values;
};

Walked Walk(HKEY root, const std::wstring& path, const Paths& names = kNoNames, Walked found = {}) {
    EnumerateKeyTree(root, path, found.keys, found.values, names);
    return found;
}

Walked Walk(const ScratchKey& key, const Paths& names = kNoNames, Walked found = {}) {
    return Walk(HKEY_LOCAL_MACHINE, key.Path(), names, std::move(found));
}

Paths Query(HKEY root, const std::wstring& path, Paths paths = {}) {
    QueryKey(root, path, paths);
    return paths;
}

} // namespace

TEST(EnumerateKeyTree, AppendsKeysDepthFirstAndValuesOfEachKeyBehindItsKeys) {
    const ScratchKey key;
    MakeSmallTree(key);
    const Walked found = Walk(key);
    EXPECT_EQ(found.keys, Below(key, {L"a", L"a\\deep", L"b"}));
    EXPECT_EQ(found.values, Below(key, {L"a\\deep\\v1", L"a\\v1", L"a\\v2", L"v0"}));
}

TEST(EnumerateKeyTree, AppendsBehindWhatTheVectorsHold) {
    const ScratchKey key;
    key.CreateSubkey(L"a");
    key.SetString(L"v", L"");
    const Walked found = Walk(key, kNoNames, {{L"older key"}, {L"older value"}});
    EXPECT_EQ(found.keys, (Paths{L"older key", key.FullPath() + L"\\a"}));
    EXPECT_EQ(found.values, (Paths{L"older value", key.FullPath() + L"\\v"}));
}

TEST(EnumerateKeyTree, APathThatDoesNotExistLeavesTheVectorsUnchanged) {
    const ScratchKey key;
    const Walked before = {{L"k"}, {L"v"}};
    const Walked found = Walk(HKEY_LOCAL_MACHINE, key.Path() + L"\\Missing", kNoNames, before);
    EXPECT_EQ(found.keys, before.keys);
    EXPECT_EQ(found.values, before.values);
}

TEST(EnumerateKeyTree, SkipsAKnownKeyWithAllBelowIt) {
    const ScratchKey key;
    MakeSmallTree(key);
    const Walked found = Walk(key, kNoNames, {Below(key, {L"a"}), {}});
    EXPECT_EQ(found.keys, Below(key, {L"a", L"b"}));
    EXPECT_EQ(found.values, Below(key, {L"v0"}));
}

TEST(EnumerateKeyTree, SkipsKnownValues) {
    const ScratchKey key;
    MakeSmallTree(key);
    const Walked found = Walk(key, kNoNames, {{}, Below(key, {L"a\\v1"})});
    EXPECT_EQ(found.values, Below(key, {L"a\\v1", L"a\\deep\\v1", L"a\\v2", L"v0"}));
}

TEST(EnumerateKeyTree, ComparesKnownPathsWithTheirCase) {
    const ScratchKey key;
    key.CreateSubkey(L"a");
    key.SetString(L"v", L"");
    const Walked found = Walk(key, kNoNames, {Below(key, {L"A"}), Below(key, {L"V"})});
    EXPECT_EQ(found.keys, Below(key, {L"A", L"a"}));
    EXPECT_EQ(found.values, Below(key, {L"V", L"v"}));
}

TEST(EnumerateKeyTree, FiltersValuesByNameWithoutCase) {
    const ScratchKey key;
    MakeSmallTree(key);
    const Walked found = Walk(key, {L"V1", L"v0"});
    EXPECT_EQ(found.keys, Below(key, {L"a", L"a\\deep", L"b"}));
    EXPECT_EQ(found.values, Below(key, {L"a\\deep\\v1", L"a\\v1", L"v0"}));
}

TEST(EnumerateKeyTree, AFilterThatHoldsANameTwiceAppendsTwice) {
    const ScratchKey key;
    key.SetString(L"v", L"");
    EXPECT_EQ(Walk(key, {L"v", L"other", L"V"}).values, Below(key, {L"v", L"v"}));
    EXPECT_EQ(Walk(key, {L"v", L"V"}, {{}, Below(key, {L"v"})}).values, Below(key, {L"v"}));
}

TEST(EnumerateKeyTree, TakesTheTextBehindTheLastBackslashForTheValueName) {
    const ScratchKey key;
    key.SetString(L"left\\right", L"");
    EXPECT_EQ(Walk(key, {L"right"}).values, Below(key, {L"left\\right"}));
    EXPECT_EQ(Walk(key, {L"left\\right"}).values, Paths{});
    key.SetString(L"", L"the default value");
    EXPECT_EQ(Walk(key, {L""}).values, Below(key, {L""}));
}

TEST(EnumerateKeyTree, NamesTheFivePredefinedRoots) {
    const std::pair<HKEY, std::wstring> roots[] = {
        {HKEY_CLASSES_ROOT, L"HKEY_CLASSES_ROOT\\"},
        {HKEY_CURRENT_USER, L"HKEY_CURRENT_USER\\"},
        {HKEY_LOCAL_MACHINE, L"HKEY_LOCAL_MACHINE\\"},
        {HKEY_USERS, L"HKEY_USERS\\"},
        {HKEY_CURRENT_CONFIG, L"HKEY_CURRENT_CONFIG\\"},
    };
    const ScratchKey key;
    key.CreateSubkey(L"child");
    key.SetString(L"value", L"");
    // Every root shows the scratch key here, so that the test knows what lies below it.
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             return opening.Original(HKEY_LOCAL_MACHINE,
                                     std::wstring(subkey) == L"path" ? key.Path().c_str() : L"none",
                                     options, access, opened);
         });
    for (const auto& [root, prefix] : roots) {
        const Walked found = Walk(root, L"path");
        EXPECT_EQ(found.keys, Paths{prefix + L"path\\child"});
        EXPECT_EQ(found.values, Paths{prefix + L"path\\value"});
        EXPECT_EQ(Query(root, L"path"), (Paths{prefix + L"path\\child", prefix + L"path\\value"}));
    }
}

TEST(EnumerateKeyTree, AnyOtherHandleHasNoPrefix) {
    const ScratchKey key;
    MakeSmallTree(key);
    EXPECT_EQ(Walk(key.Get(), L"a").keys, Paths{L"a\\deep"});
    EXPECT_EQ(Walk(key.Get(), L"a").values, (Paths{L"a\\deep\\v1", L"a\\v1", L"a\\v2"}));
}

TEST(EnumerateKeyTree, AnEmptyPathAddsNoBackslash) {
    const ScratchKey key;
    MakeSmallTree(key);
    EXPECT_EQ(Walk(key.Get(), L"").keys, (Paths{L"a", L"a\\deep", L"b"}));
    EXPECT_EQ(Walk(key.Get(), L"").values, (Paths{L"a\\deep\\v1", L"a\\v1", L"a\\v2", L"v0"}));
}

TEST(EnumerateKeyTree, AnEmptyPathBelowAPredefinedRootIsTheRootItself) {
    const ScratchKey key;
    MakeSmallTree(key);
    // The root shows the scratch key here, so that the test knows what lies below it.
    Paths opened;
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY child) {
             EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
             opened.push_back(subkey);
             return opening.Original(key.Get(), subkey, options, access, child);
         });
    const Paths keys = {L"HKEY_LOCAL_MACHINE\\a", L"HKEY_LOCAL_MACHINE\\a\\deep",
                        L"HKEY_LOCAL_MACHINE\\b"};
    const Paths values = {L"HKEY_LOCAL_MACHINE\\a\\deep\\v1", L"HKEY_LOCAL_MACHINE\\a\\v1",
                          L"HKEY_LOCAL_MACHINE\\a\\v2", L"HKEY_LOCAL_MACHINE\\v0"};
    const Walked found = Walk(HKEY_LOCAL_MACHINE, L"");
    EXPECT_EQ(found.keys, keys);
    EXPECT_EQ(found.values, values);
    EXPECT_EQ(opened, (Paths{L"", L"a", L"a\\deep", L"b"}));
    EXPECT_EQ(Query(HKEY_LOCAL_MACHINE, L""),
              (Paths{keys[0], keys[1], values[0], values[1], values[2], keys[2], values[3]}));
}

TEST(EnumerateKeyTree, SkipsKeyNamesOf255Characters) {
    const ScratchKey key;
    key.CreateSubkey(std::wstring(254, L'k'));
    key.CreateSubkey(std::wstring(255, L'k'));
    EXPECT_EQ(Walk(key).keys, Below(key, {std::wstring(254, L'k')}));
}

TEST(EnumerateKeyTree, SkipsValueNamesOf16383Characters) {
    const ScratchKey key;
    key.SetString(std::wstring(16382, L'v'), L"");
    key.SetString(std::wstring(16383, L'v'), L"");
    EXPECT_EQ(Walk(key).values, Below(key, {std::wstring(16382, L'v')}));
}

TEST(EnumerateKeyTree, TakesNamesWithEveryLegalCharacter) {
    const ScratchKey key;
    std::wstring name = L"\u0416\u00e9\U0001F600 /:*?\"<>|.%[]{}~";
    key.CreateSubkey(name);
    key.SetString(name, L"");
    EXPECT_EQ(Walk(key).keys, Below(key, {name}));
    EXPECT_EQ(Walk(key).values, Below(key, {name}));
}

TEST(EnumerateKeyTree, OpensForReadingOnlyAndPassesTheBufferLimits) {
    const ScratchKey key;
    key.CreateSubkey(L"a");
    key.SetString(L"v", L"");
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             EXPECT_EQ(options, 0U);
             EXPECT_EQ(access, 0x20019U);
             return opening.Original(root, subkey, options, access, opened);
         });
    HOOK(information, RegQueryInfoKeyW,
         [&](HKEY handle, LPWSTR name, LPDWORD length, LPDWORD reserved, LPDWORD keys, LPDWORD a,
             LPDWORD b, LPDWORD values, LPDWORD c, LPDWORD d, LPDWORD e, PFILETIME f) {
             EXPECT_NE(name, nullptr);
             EXPECT_EQ(*length, 260U);
             return information.Original(handle, name, length, reserved, keys, a, b, values, c, d,
                                         e, f);
         });
    HOOK(keyNames, RegEnumKeyExW,
         [&](HKEY handle, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved, LPWSTR type,
             LPDWORD typeLength, PFILETIME written) {
             EXPECT_EQ(*length, 255U);
             return keyNames.Original(handle, index, name, length, reserved, type, typeLength,
                                      written);
         });
    HOOK(valueNames, RegEnumValueW,
         [&](HKEY handle, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved, LPDWORD type,
             LPBYTE data, LPDWORD size) {
             EXPECT_EQ(*length, 16383U);
             return valueNames.Original(handle, index, name, length, reserved, type, data, size);
         });
    Walk(key);
    Query(HKEY_LOCAL_MACHINE, key.Path());
    EXPECT_EQ(opening.Calls(), 4);
    EXPECT_EQ(information.Calls(), 4);
    EXPECT_EQ(keyNames.Calls(), 2);
    EXPECT_EQ(valueNames.Calls(), 2);
}

namespace {

// Both walks of the tree, which must find the same and leave no key open.
void ExpectFound(const ScratchKey& key, const Paths& keys, const Paths& values,
                 const std::function<void(const std::function<void()>&)>& whileFailing) {
    const int before = halvard_tests::OpenHandleCount();
    Walked found;
    whileFailing([&] { found = Walk(key); });
    EXPECT_EQ(found.keys, Below(key, keys));
    EXPECT_EQ(found.values, Below(key, values));

    Paths queried;
    whileFailing([&] { queried = Query(HKEY_LOCAL_MACHINE, key.Path()); });
    Paths expected = found.keys;
    expected.insert(expected.end(), found.values.begin(), found.values.end());
    std::sort(expected.begin(), expected.end());
    std::sort(queried.begin(), queried.end());
    EXPECT_EQ(queried, expected);
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

} // namespace

TEST(RegistryWalk, SkipsWhatACallRefusesAndClosesItsKeys) {
    const ScratchKey key;
    MakeSmallTree(key);
    // The second key to be opened is "a".
    ExpectFound(key, {L"a", L"b"}, {L"v0"}, [](const std::function<void()>& walk) {
        FAIL_CALL(opening, RegOpenKeyExW, 2, ERROR_ACCESS_DENIED, NO_ERROR);
        walk();
    });
    ExpectFound(key, {}, {}, [](const std::function<void()>& walk) {
        FAIL_CALL(information, RegQueryInfoKeyW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        walk();
    });
    ExpectFound(key, {L"b"}, {L"v0"}, [](const std::function<void()>& walk) {
        FAIL_CALL(keyNames, RegEnumKeyExW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        walk();
    });
    // The second value is the first one of "a": before it comes that of "a\deep".
    ExpectFound(key, {L"a", L"a\\deep", L"b"}, {L"a\\deep\\v1", L"a\\v2", L"v0"},
                [](const std::function<void()>& walk) {
                    FAIL_CALL(valueNames, RegEnumValueW, 2, ERROR_ACCESS_DENIED, NO_ERROR);
                    walk();
                });
}

TEST(RegistryWalk, ClosesItsKeysWhenMemoryRunsOut) {
    const ScratchKey key;
    MakeSmallTree(key);
    // What knows the paths grows with the 33rd.
    constexpr int values = 40;
    for (int number = 0; number < values; ++number) {
        key.SetString(L"value " + std::to_wstring(number), L"");
    }
    const std::function<void()> walks[] = {[&] { Walk(key); },
                                           [&] {
                                               Query(HKEY_LOCAL_MACHINE, key.Path());
                                           }};
    for (const auto& walk : walks) {
        const int before = halvard_tests::OpenHandleCount();
        int thrown = 0;
        const int reached = halvard_tests::FailEachAllocation(
            [] {}, walk, [&](bool threw) { thrown += threw ? 1 : 0; });
        // One for each path at the least.
        EXPECT_GE(reached, values);
        EXPECT_EQ(thrown, reached);
        EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
    }
}

TEST(EnumerateKeyTree, GoesOnWithAKeyWhoseClassNameDoesNotFit) {
    const ScratchKey key;
    HKEY created = nullptr;
    std::wstring className(300, L'c');
    ASSERT_EQ(RegCreateKeyExW(key.Get(), L"classy", 0, className.data(), 0, KEY_ALL_ACCESS, nullptr,
                              &created, nullptr),
              ERROR_SUCCESS);
    RegSetValueExW(created, L"v", 0, REG_SZ, nullptr, 0);
    RegCloseKey(created);
    EXPECT_EQ(Walk(key).values, Below(key, {L"classy\\v"}));
}

TEST(EnumerateKeyTree, ASixthPredefinedRootHasNoPrefix) {
    const ScratchKey key;
    key.CreateSubkey(L"child");
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             return opening.Original(HKEY_LOCAL_MACHINE,
                                     std::wstring(subkey) == L"path" ? key.Path().c_str() : L"none",
                                     options, access, opened);
         });
    EXPECT_EQ(Walk(HKEY_PERFORMANCE_DATA, L"path").keys, Paths{L"path\\child"});
}

TEST(EnumerateKeyTree, FiltersWithBasicLatinLettersInEitherCaseOnly) {
    const ScratchKey key;
    key.SetString(L"\u00c9a", L"");
    EXPECT_EQ(Walk(key, {L"\u00c9A"}).values, Below(key, {L"\u00c9a"}));
    EXPECT_EQ(Walk(key, {L"\u00e9a"}).values, Paths{});
}

TEST(EnumerateKeyTree, SkipsAnIndexThatHasGone) {
    const ScratchKey key;
    key.CreateSubkey(L"a");
    key.CreateSubkey(L"b");
    HOOK(keyNames, RegEnumKeyExW,
         [&](HKEY handle, DWORD index, LPWSTR name, LPDWORD length, LPDWORD reserved, LPWSTR type,
             LPDWORD typeLength, PFILETIME written) {
             if (index == 1) {
                 RegDeleteKeyW(key.Get(), L"b");
             }
             return keyNames.Original(handle, index, name, length, reserved, type, typeLength,
                                      written);
         });
    EXPECT_EQ(Walk(key).keys, Below(key, {L"a"}));
    EXPECT_EQ(keyNames.Calls(), 2);
}

TEST(EnumerateKeyTree, ClosesEveryKeyItOpens) {
    const ScratchKey key;
    MakeSmallTree(key);
    const int before = halvard_tests::OpenHandleCount();
    Walk(key);
    EXPECT_EQ(halvard_tests::OpenHandleCount(), before);
}

TEST(EnumerateKeyTree, WalksDeepTrees) {
    const ScratchKey key;
    std::wstring path = L"d";
    for (int level = 1; level < 300; ++level) {
        path += L"\\d";
    }
    key.CreateSubkey(path);
    const Walked found = Walk(key);
    ASSERT_EQ(found.keys.size(), 300U);
    EXPECT_EQ(found.keys.back(), key.FullPath() + L"\\" + path);
}

TEST(QueryKey, PutsKeysAndValuesIntoOneVector) {
    const ScratchKey key;
    MakeSmallTree(key);
    EXPECT_EQ(Query(HKEY_LOCAL_MACHINE, key.Path()),
              Below(key, {L"a", L"a\\deep", L"a\\deep\\v1", L"a\\v1", L"a\\v2", L"b", L"v0"}));
}

TEST(QueryKey, SkipsEveryPathThatTheVectorHolds) {
    const ScratchKey key;
    MakeSmallTree(key);
    EXPECT_EQ(Query(HKEY_LOCAL_MACHINE, key.Path(), Below(key, {L"v0", L"a\\v2", L"b"})),
              Below(key, {L"v0", L"a\\v2", L"b", L"a", L"a\\deep", L"a\\deep\\v1", L"a\\v1"}));
}

TEST(QueryKey, AValueWithThePathOfAKeyIsSkipped) {
    const ScratchKey key;
    key.CreateSubkey(L"same");
    key.SetString(L"same", L"");
    EXPECT_EQ(Query(HKEY_LOCAL_MACHINE, key.Path()), Below(key, {L"same"}));
    const Walked found = Walk(key);
    EXPECT_EQ(found.keys, Below(key, {L"same"}));
    EXPECT_EQ(found.values, Below(key, {L"same"}));
}

TEST(QueryKey, APathThatDoesNotExistLeavesTheVectorUnchanged) {
    const ScratchKey key;
    EXPECT_EQ(Query(HKEY_LOCAL_MACHINE, key.Path() + L"\\Missing", {L"p"}), Paths{L"p"});
}

TEST(NullRoot, IsNotDescendedAndQueryKeyWritesALineForEachKey) {
    const ScratchKey key;
    MakeSmallTree(key);
    HOOK(opening, RegOpenKeyExW,
         [&](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY opened) {
             EXPECT_EQ(root, nullptr);
             EXPECT_STREQ(subkey, L"path");
             return opening.Original(HKEY_LOCAL_MACHINE, key.Path().c_str(), options, access,
                                     opened);
         });
    Paths queried = {L"path\\b"};
    const std::string line = "QueryKey: %s---------hkey is NULL---------------%s\r\n";
    // "b" is known already, so only "a" is reported.
    EXPECT_EQ(StandardOutputOf([&] { QueryKey(nullptr, L"path", queried); }), line);
    EXPECT_EQ(queried, (Paths{L"path\\b", L"path\\a", L"path\\v0"}));

    Paths all;
    EXPECT_EQ(StandardOutputOf([&] { QueryKey(nullptr, L"path", all); }), line + line);

    Walked found;
    EXPECT_EQ(StandardOutputOf([&] { found = Walk(nullptr, L"path"); }), "");
    EXPECT_EQ(found.keys, (Paths{L"path\\a", L"path\\b"}));
    EXPECT_EQ(found.values, (Paths{L"path\\v0"}));
    EXPECT_EQ(opening.Calls(), 3);
}

TEST(NullRoot, CannotBeOpenedAndContributesNothing) {
    EXPECT_EQ(Query(nullptr, L"SOFTWARE"), Paths{});
}
