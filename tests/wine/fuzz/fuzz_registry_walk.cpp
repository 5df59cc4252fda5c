// The walks of the registry over trees that are generated, and compared with them.

#include "byte_source.h"
#include "fuzz_input.h"

#include "registry_key.h"
#include "runtime/registry_walk.h"

#include <algorithm>
#include <deque>
#include <map>
#include <set>

namespace {

using halvard_tests::ByteSource;
using halvard_tests::Require;
using halvard_tests::ScratchKey;
using Paths = std::vector<std::wstring>;

constexpr std::size_t kDeepest = 4;

struct Key {
    // By their names without case: the registry keeps the first spelling.
    std::map<std::wstring, std::wstring> values;
    std::map<std::wstring, std::pair<std::wstring, Key>> keys;
};

std::wstring WithoutCase(std::wstring name) {
    for (wchar_t& character : name) {
        if (character >= L'A' && character <= L'Z') {
            character = static_cast<wchar_t>(character + 32);
        }
    }
    return name;
}

std::wstring KeyName(ByteSource& source) {
    static const Paths names = {
        L"a",     L"B",
        L"b c",   L"{e5323777-f976-4f5b-9b55-b94699c46e44}",
        L"CLSID", L"\x00C4\x6F22",
        L"1.2",   std::wstring(254, L'k'),
        L"#",     std::wstring(255, L'k'),
        L"a/b",   L"Client_TeloStatus",
    };
    return names[source.Below(names.size())];
}

std::wstring ValueName(ByteSource& source) {
    static const Paths names = {
        L"",
        L"CLSID",
        L"clsid",
        L"CameraDeviceMftClsidChain",
        L"Client_TeloStatus",
        L"a",
        L"a\\clsid",
        L"B\\a",
        L"\\",
        L"x y",
        L"\x00C4",
        std::wstring(300, L'v'),
        L"v",
    };
    return names[source.Below(names.size())];
}

void Generate(ByteSource& source, Key& key, std::size_t depth) {
    for (std::size_t values = source.Below(6); values > 0; --values) {
        const std::wstring name = ValueName(source);
        key.values.emplace(WithoutCase(name), name);
    }
    for (std::size_t keys = depth == kDeepest ? 0 : source.Below(4); keys > 0; --keys) {
        const std::wstring name = KeyName(source);
        const auto [child, isNew] = key.keys.emplace(WithoutCase(name), std::pair(name, Key()));
        if (isNew) {
            Generate(source, child->second.second, depth + 1);
        }
    }
}

void Create(HKEY parent, const Key& key) {
    for (const auto& [folded, name] : key.values) {
        Require(RegSetValueExW(parent, name.c_str(), 0, REG_SZ, nullptr, 0) == ERROR_SUCCESS);
    }
    for (const auto& [folded, child] : key.keys) {
        HKEY created = nullptr;
        Require(RegCreateKeyExW(parent, child.first.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                KEY_ALL_ACCESS, nullptr, &created, nullptr) == ERROR_SUCCESS);
        Create(created, child.second);
        RegCloseKey(created);
    }
}

/// What a walk has found, taken in its order: each key with all below it before the next one, and
/// the values of a key behind its keys. Between siblings any order will do.
class Comparison {
public:
    Comparison(const Paths& keys, const Paths* values, std::size_t knownKeys,
               std::size_t knownValues, const Paths& names)
        : keys_(keys.begin() + static_cast<std::ptrdiff_t>(knownKeys), keys.end()),
          seenKeys_(keys.begin(), keys.begin() + static_cast<std::ptrdiff_t>(knownKeys)),
          isOne_(values == nullptr), names_(names) {
        if (!isOne_) {
            const auto known = values->begin() + static_cast<std::ptrdiff_t>(knownValues);
            values_.assign(known, values->end());
            seenValues_.insert(values->begin(), known);
        }
    }

    void Take(const Key& key, const std::wstring& path) {
        std::map<std::wstring, const Key*> expected;
        for (const auto& [folded, child] : key.keys) {
            const std::wstring childPath = path + L'\\' + child.first;
            // A name that does not fit the walk's buffer is left out, with all below it.
            if (child.first.size() < 255 && seenKeys_.count(childPath) == 0) {
                expected.emplace(childPath, &child.second);
            }
        }
        while (!expected.empty()) {
            const std::wstring found = Next(keys_);
            const auto child = expected.find(found);
            Require(child != expected.end());
            seenKeys_.insert(found);
            const Key& below = *child->second;
            expected.erase(child);
            Take(below, found);
        }
        TakeValues(key, path);
    }

    void End() const { Require(keys_.empty() && values_.empty()); }

private:
    static std::wstring Next(std::deque<std::wstring>& paths) {
        Require(!paths.empty());
        std::wstring path = paths.front();
        paths.pop_front();
        return path;
    }

    // The filter takes what stands behind the last backslash for the name.
    std::size_t TimesNamed(const std::wstring& path) const {
        const std::wstring name = WithoutCase(path.substr(path.rfind(L'\\') + 1));
        const auto matches = std::count_if(names_.begin(), names_.end(), [&](const auto& each) {
            return WithoutCase(each) == name;
        });
        return names_.empty() ? 1 : static_cast<std::size_t>(matches);
    }

    void TakeValues(const Key& key, const std::wstring& path) {
        std::set<std::wstring>& seen = isOne_ ? seenKeys_ : seenValues_;
        std::deque<std::wstring>& found = isOne_ ? keys_ : values_;
        std::multiset<std::wstring> expected;
        for (const auto& [folded, name] : key.values) {
            const std::wstring valuePath = path + L'\\' + name;
            if (seen.count(valuePath) != 0) {
                continue;
            }
            for (std::size_t times = TimesNamed(valuePath); times > 0; --times) {
                expected.insert(valuePath);
            }
        }
        std::multiset<std::wstring> taken;
        while (taken.size() < expected.size()) {
            taken.insert(Next(found));
        }
        Require(taken == expected);
        seen.insert(expected.begin(), expected.end());
    }

    std::deque<std::wstring> keys_;
    std::deque<std::wstring> values_;
    std::set<std::wstring> seenKeys_;
    std::set<std::wstring> seenValues_;
    bool isOne_;
    const Paths& names_;
};

// Some of these paths, some of them in another case.
Paths SomeOf(ByteSource& source, const Paths& paths) {
    Paths some;
    for (std::size_t count = source.Below(4); count > 0 && !paths.empty(); --count) {
        const std::wstring& path = paths[source.Below(paths.size())];
        some.push_back(source.Below(3) == 0 ? WithoutCase(path) : path);
    }
    return some;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    ByteSource source(bytes, size);
    Key tree;
    Generate(source, tree, 0);
    const ScratchKey scratch(L"SOFTWARE\\HalvardFuzz\\Tree");
    Create(scratch.Get(), tree);

    const Paths none;
    Paths keys;
    Paths values;
    halvard::EnumerateKeyTree(HKEY_LOCAL_MACHINE, scratch.Path(), keys, values, none);
    Comparison whole(keys, &values, 0, 0, none);
    whole.Take(tree, scratch.FullPath());
    whole.End();

    Paths knownKeys = SomeOf(source, keys);
    Paths knownValues = SomeOf(source, values);
    Paths names;
    for (std::size_t count = source.Below(4); count > 0; --count) {
        names.push_back(ValueName(source));
    }
    const std::size_t keysBefore = knownKeys.size();
    const std::size_t valuesBefore = knownValues.size();
    halvard::EnumerateKeyTree(HKEY_LOCAL_MACHINE, scratch.Path(), knownKeys, knownValues, names);
    Comparison some(knownKeys, &knownValues, keysBefore, valuesBefore, names);
    some.Take(tree, scratch.FullPath());
    some.End();

    Paths both = SomeOf(source, keys);
    const std::size_t bothBefore = both.size();
    halvard::QueryKey(HKEY_LOCAL_MACHINE, scratch.Path(), both);
    Comparison query(both, nullptr, bothBefore, 0, none);
    query.Take(tree, scratch.FullPath());
    query.End();
    return 0;
}
