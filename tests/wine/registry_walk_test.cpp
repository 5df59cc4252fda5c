#include "runtime/registry.h"

#include "import_hook.h"
#include "open_handles.h"
#include "registry_key.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <io.h>

using halvard::EnumerateKeyTree;
using halvard::QueryKey;
using halvard_tests::ScratchKey;
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

// What standard output receives while `action` runs.
std::string StandardOutputOf(const std::function<void()>& action) {
    const char* const file = "T:\\standard_output.txt";
    std::fflush(stdout);
    const int kept = _dup(1);
    std::FILE* const redirected = std::fopen(file, "w");
    _dup2(_fileno(redirected), 1);
    action();
    _dup2(kept, 1);
    _close(kept);
    std::fclose(redirected);

    std::string text(4096, '\0');
    std::FILE* const written = std::fopen(file, "rb");
    text.resize(std::fread(text.data(), 1, text.size(), written));
    std::fclose(written);
    std::remove(file);
    return text;
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
    EXPECT_EQ(opening.Calls(), 2);
    EXPECT_EQ(information.Calls(), 2);
    EXPECT_EQ(keyNames.Calls(), 1);
    EXPECT_EQ(valueNames.Calls(), 1);
}

TEST(EnumerateKeyTree, SkipsWhatACallRefuses) {
    const ScratchKey key;
    MakeSmallTree(key);
    {
        // The second key to be opened is "a".
        FAIL_CALL(opening, RegOpenKeyExW, 2, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(Walk(key).keys, Below(key, {L"a", L"b"}));
    }
    {
        FAIL_CALL(opening, RegOpenKeyExW, 2, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(Walk(key).values, Below(key, {L"v0"}));
    }
    {
        FAIL_CALL(information, RegQueryInfoKeyW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(Walk(key).keys, Paths{});
    }
    {
        FAIL_CALL(keyNames, RegEnumKeyExW, 1, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(Walk(key).keys, Below(key, {L"b"}));
    }
    {
        // The second value of "a": the first to be enumerated is that of "a\deep".
        FAIL_CALL(valueNames, RegEnumValueW, 2, ERROR_ACCESS_DENIED, NO_ERROR);
        EXPECT_EQ(Walk(key).values, Below(key, {L"a\\deep\\v1", L"a\\v2", L"v0"}));
    }
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
