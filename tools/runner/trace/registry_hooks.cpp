#include "trace/hook.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

namespace halvard_runner {

namespace {

using namespace trace_words;

// Characters of a value's data that are told.
constexpr std::size_t kMostData = 1000;
constexpr REGSAM kViews = KEY_WOW64_32KEY | KEY_WOW64_64KEY;

auto& keys = NeverDestroyed<std::map<HKEY, std::wstring>>();
auto& keysLock = NeverDestroyed<std::mutex>();

const wchar_t* RootName(HKEY key) {
    const std::pair<HKEY, const wchar_t*> roots[] = {{HKEY_CLASSES_ROOT, L"HKEY_CLASSES_ROOT"},
                                                     {HKEY_CURRENT_USER, L"HKEY_CURRENT_USER"},
                                                     {HKEY_LOCAL_MACHINE, L"HKEY_LOCAL_MACHINE"},
                                                     {HKEY_USERS, L"HKEY_USERS"},
                                                     {HKEY_CURRENT_CONFIG, L"HKEY_CURRENT_CONFIG"}};
    for (const auto& [root, name] : roots) {
        if (root == key) {
            return name;
        }
    }
    return nullptr;
}

std::wstring KeyPath(HKEY key, const std::wstring& below) {
    std::wstring path;
    if (const wchar_t* const root = RootName(key)) {
        path = root;
    } else {
        const std::lock_guard<std::mutex> lock(keysLock);
        const auto known = keys.find(key);
        path = known != keys.end() ? known->second
               : key == nullptr    ? L"(no key)"
                                   : L"(unknown key)";
    }
    path += below.empty() ? L"" : L"\\" + below;
    return path.substr(0, path.find_last_not_of(L'\\') + 1);
}

std::wstring ValuePath(const std::wstring& key, const std::wstring& name) {
    return key + L" : " + (name.empty() ? L"(default)" : name);
}

const wchar_t* TypeName(DWORD type) {
    constexpr const wchar_t* names[] = {L"REG_NONE",
                                        L"REG_SZ",
                                        L"REG_EXPAND_SZ",
                                        L"REG_BINARY",
                                        L"REG_DWORD",
                                        L"REG_DWORD_BIG_ENDIAN",
                                        L"REG_LINK",
                                        L"REG_MULTI_SZ",
                                        L"REG_RESOURCE_LIST",
                                        L"REG_FULL_RESOURCE_DESCRIPTOR",
                                        L"REG_RESOURCE_REQUIREMENTS_LIST",
                                        L"REG_QWORD"};
    return type < std::size(names) ? names[type] : L"(another type)";
}

/// What stands in a value, for a reader.
std::wstring DataText(DWORD type, const BYTE* data, DWORD size) {
    if (type == REG_DWORD && size == sizeof(DWORD)) {
        DWORD number = 0;
        std::memcpy(&number, data, sizeof(number));
        return std::to_wstring(number);
    }
    if (type != REG_SZ && type != REG_EXPAND_SZ && type != REG_MULTI_SZ) {
        return std::to_wstring(size) + L" bytes";
    }
    std::wstring text(size / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), data, text.size() * sizeof(wchar_t));
    if (type == REG_MULTI_SZ) {
        text.resize(text.find_last_not_of(L'\0') + 1);
        std::replace(text.begin(), text.end(), L'\0', L'|');
    }
    text.resize(std::min(text.find(L'\0'), text.size()));
    return text.size() <= kMostData ? text : text.substr(0, kMostData) + L"...";
}

TraceDetails ViewOf(REGSAM access) {
    if ((access & KEY_WOW64_32KEY) != 0) {
        return {{L"view", L"32-bit"}};
    }
    if ((access & KEY_WOW64_64KEY) != 0) {
        return {{L"view", L"64-bit"}};
    }
    return {};
}

/// A function that names a key by another and a path below it.
struct KeyCall {
    const char* function;
    const wchar_t* what;
    std::size_t access; // the parameter that has the view
    std::size_t opened; // the parameter for a key that is opened
};

Word RunKeyCall(const KeyCall& function, HookedCall& call) {
    const std::wstring path = KeyPath(call.Parameter<HKEY>(0), call.Text(1));
    const auto access =
        function.access == kNone ? REGSAM{0} : call.Parameter<REGSAM>(function.access);
    const Word result = call.Forward();
    const DWORD code = call.Code(FailureSign::Status, result);
    if (code == ERROR_SUCCESS && function.opened != kNone) {
        const std::lock_guard<std::mutex> lock(keysLock);
        keys[*call.Parameter<HKEY*>(function.opened)] = path;
    }
    Tell(TraceGroup::Registry, function.what, path, code, ViewOf(access));
    return result;
}

/// What a deletion of a key would answer: it has to be there, may be deleted, and, unless what is
/// below it goes too, has no keys below it.
DWORD DeletionCode(HKEY key, const wchar_t* below, REGSAM view, bool tree) {
    HKEY opened = nullptr;
    LSTATUS code = RegOpenKeyExW(key, below, 0, DELETE | KEY_READ | view, &opened);
    if (code != ERROR_SUCCESS) {
        return static_cast<DWORD>(code);
    }
    DWORD keysBelow = 0;
    RegQueryInfoKeyW(opened, nullptr, nullptr, nullptr, &keysBelow, nullptr, nullptr, nullptr,
                     nullptr, nullptr, nullptr, nullptr);
    RegCloseKey(opened);
    return !tree && keysBelow > 0 ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
}

Word RunKeyDeletion(const KeyCall& function, HookedCall& call) {
    if (!IsDryRun()) {
        return RunKeyCall(function, call);
    }
    const auto access =
        function.access == kNone ? REGSAM{0} : call.Parameter<REGSAM>(function.access);
    const DWORD code =
        DeletionCode(call.Parameter<HKEY>(0), call.Parameter<const wchar_t*>(1), access & kViews,
                     std::wstring(function.what) == kDeletesKeyTree);
    TellNotMade(TraceGroup::Registry, function.what, KeyPath(call.Parameter<HKEY>(0), call.Text(1)),
                code, ViewOf(access));
    return call.Answer(FailureSign::Status, code);
}

/// A function that reads, writes or deletes a value. Those without a type have no data.
struct ValueCall {
    const char* function;
    const wchar_t* what;
    std::size_t below; // the parameter for a path below the key
    std::size_t name;
    std::size_t type; // a pointer to it where it is read
    std::size_t data;
    std::size_t size; // likewise
    bool changes;
};

bool Reads(const ValueCall& function) {
    return !function.changes;
}

std::wstring TargetOf(const ValueCall& function, const HookedCall& call) {
    const std::wstring below = function.below == kNone ? L"" : call.Text(function.below);
    return ValuePath(KeyPath(call.Parameter<HKEY>(0), below), call.Text(function.name));
}

/// The type and data that a call has read or is to write.
TraceDetails DataOf(const ValueCall& function, const HookedCall& call, DWORD knownType) {
    DWORD type = knownType;
    DWORD size = 0;
    if (Reads(function)) {
        const auto* const told = call.Parameter<const DWORD*>(function.type);
        type = told == nullptr ? type : *told;
        size = *call.Parameter<const DWORD*>(function.size);
    } else {
        type = call.Parameter<DWORD>(function.type);
        size = call.Parameter<DWORD>(function.size);
    }
    const auto* const data = call.Parameter<const BYTE*>(function.data);
    if (data == nullptr) {
        return {};
    }
    return {{kType, TypeName(type)}, {kData, DataText(type, data, size)}};
}

/// Asks for the value that a call names, and whether its key may be opened with these rights. The
/// type is left as it is where that fails.
DWORD AskForValue(const ValueCall& function, const HookedCall& call, REGSAM access,
                  DWORD* type = nullptr) {
    const wchar_t* const below =
        function.below == kNone ? nullptr : call.Parameter<const wchar_t*>(function.below);
    HKEY opened = nullptr;
    LSTATUS status = RegOpenKeyExW(call.Parameter<HKEY>(0), below, 0, access, &opened);
    if (status == ERROR_SUCCESS) {
        status = RegQueryValueExW(opened, call.Parameter<const wchar_t*>(function.name), nullptr,
                                  type, nullptr, nullptr);
        RegCloseKey(opened);
    }
    return static_cast<DWORD>(status);
}

Word RunValueCall(const ValueCall& function, HookedCall& call) {
    const std::wstring target = TargetOf(function, call);
    const bool hasData = function.type != kNone;
    if (function.changes && IsDryRun()) {
        const DWORD code = hasData ? DWORD{ERROR_SUCCESS}
                                   : AskForValue(function, call, KEY_QUERY_VALUE | KEY_SET_VALUE);
        TellNotMade(TraceGroup::Registry, function.what, target, code,
                    hasData ? DataOf(function, call, REG_NONE) : TraceDetails{});
        return call.Answer(FailureSign::Status, code);
    }
    // A call without room for the data asks for its size alone.
    const bool asksForSize =
        hasData && Reads(function) && call.Parameter<const void*>(function.data) == nullptr;
    const Word result = call.Forward();
    const DWORD code = call.Code(FailureSign::Status, result);
    if (asksForSize && code == ERROR_SUCCESS) {
        return result;
    }
    TraceDetails details;
    if (hasData && code == ERROR_SUCCESS) {
        DWORD type = REG_NONE;
        if (Reads(function) && call.Parameter<const void*>(function.type) == nullptr) {
            AskForValue(function, call, KEY_QUERY_VALUE, &type);
        }
        details = DataOf(function, call, type);
    } else if (code == ERROR_MORE_DATA) {
        details = {{kBytes, std::to_wstring(*call.Parameter<const DWORD*>(function.size))}};
    }
    Tell(TraceGroup::Registry, function.what, target, code, std::move(details));
    return result;
}

Word ListKey(HookedCall& call) {
    const std::wstring above = KeyPath(call.Parameter<HKEY>(0), L"");
    const Word result = call.Forward();
    const DWORD code = call.Code(FailureSign::Status, result);
    const std::wstring name = code == ERROR_SUCCESS
                                  ? call.Text(2)
                                  : L"(number " + std::to_wstring(call.Parameter<DWORD>(1)) + L")";
    Tell(TraceGroup::Registry, kListsKey, above + L"\\" + name, code);
    return result;
}

/// A listed value as it is, whatever room the library has for it.
struct ListedValue {
    std::wstring name;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
};

ListedValue ReadListed(HKEY key, DWORD index) {
    constexpr DWORD kNameCapacity = 16384;
    constexpr DWORD kDataCapacity = 65536;
    ListedValue value;
    value.data.resize(kDataCapacity);
    DWORD length = 0;
    DWORD size = 0;
    LSTATUS code = ERROR_MORE_DATA;
    for (bool hasGrown = true; hasGrown && code == ERROR_MORE_DATA;) {
        value.name.resize(kNameCapacity);
        length = kNameCapacity;
        size = static_cast<DWORD>(value.data.size());
        code = RegEnumValueW(key, index, value.name.data(), &length, nullptr, &value.type,
                             value.data.data(), &size);
        hasGrown = size > value.data.size();
        value.data.resize(std::max<std::size_t>(size, value.data.size()));
    }
    value.name.resize(code == ERROR_SUCCESS ? length : 0);
    value.data.resize(code == ERROR_SUCCESS ? size : 0);
    return value;
}

Word ListValue(HookedCall& call) {
    auto* const key = call.Parameter<HKEY>(0);
    const Word result = call.Forward();
    const DWORD code = call.Code(FailureSign::Status, result);
    const auto index = call.Parameter<DWORD>(1);
    if (code != ERROR_SUCCESS && code != ERROR_MORE_DATA) {
        const std::wstring name = L"(number " + std::to_wstring(index) + L")";
        Tell(TraceGroup::Registry, kListsValue, ValuePath(KeyPath(key, L""), name), code);
        return result;
    }
    const ListedValue value = ReadListed(key, index);
    const auto size = static_cast<DWORD>(value.data.size());
    TraceDetails details;
    // The walk over a tree lists names alone.
    if (call.Parameter<const void*>(6) != nullptr) {
        details = {{kType, TypeName(value.type)},
                   {kData, DataText(value.type, value.data.data(), size)}};
    }
    if (code == ERROR_MORE_DATA) {
        details.emplace_back(kBytes, std::to_wstring(size));
    }
    Tell(TraceGroup::Registry, kListsValue, ValuePath(KeyPath(key, L""), value.name), code,
         std::move(details));
    return result;
}

Word CloseKey(HookedCall& call) {
    {
        const std::lock_guard<std::mutex> lock(keysLock);
        keys.erase(call.Parameter<HKEY>(0));
    }
    return call.Forward();
}

/// A key that is there is opened; one that is not cannot be made without a change.
Word CreateKeyDry(const KeyCall& function, HookedCall& call) {
    HKEY opened = nullptr;
    const auto access = call.Parameter<REGSAM>(function.access);
    const LSTATUS status = RegOpenKeyExW(call.Parameter<HKEY>(0), call.Parameter<const wchar_t*>(1),
                                         0, access, &opened);
    const std::wstring path = KeyPath(call.Parameter<HKEY>(0), call.Text(1));
    if (status == ERROR_SUCCESS) {
        const std::lock_guard<std::mutex> lock(keysLock);
        keys[opened] = path;
        *call.Parameter<HKEY*>(function.opened) = opened;
        if (auto* const disposition = call.Parameter<DWORD*>(8)) {
            *disposition = REG_OPENED_EXISTING_KEY;
        }
    }
    const auto code = static_cast<DWORD>(status);
    if (MeansMissing(code)) {
        TellNotMade(TraceGroup::Registry, function.what, path, ERROR_SUCCESS, ViewOf(access));
        return call.Answer(FailureSign::Status, ERROR_ACCESS_DENIED);
    }
    Tell(TraceGroup::Registry, kOpensKey, path, code, ViewOf(access));
    return call.Answer(FailureSign::Status, code);
}

constexpr KeyCall kOpening = {"RegOpenKeyExW", kOpensKey, 3, 4};
constexpr KeyCall kCreation = {"RegCreateKeyExW", L"creates key", 5, 7};
constexpr KeyCall kDeletions[] = {
    {"RegDeleteKeyW", kDeletesKey, kNone, kNone},
    {"RegDeleteKeyExW", kDeletesKey, 2, kNone},
    {"RegDeleteTreeW", kDeletesKeyTree, kNone, kNone},
};

constexpr ValueCall kValueCalls[] = {
    {"RegQueryValueExW", L"reads value", kNone, 1, 3, 4, 5, false},
    {"RegGetValueW", L"reads value", 1, 2, 4, 5, 6, false},
    {"RegSetValueExW", L"writes value", kNone, 1, 3, 4, 5, true},
    {"RegDeleteValueW", kDeletesValue, kNone, 1, kNone, kNone, kNone, true},
    {"RegDeleteKeyValueW", kDeletesValue, 1, 2, kNone, kNone, kNone, true},
};

} // namespace

std::vector<Hook> RegistryHooks() {
    std::vector<Hook> hooks = {
        {kOpening.function,
         [](HookedCall& call) {
             return RunKeyCall(kOpening, call);
         }},
        {kCreation.function,
         [](HookedCall& call) {
             return IsDryRun() ? CreateKeyDry(kCreation, call) : RunKeyCall(kCreation, call);
         }},
        {"RegEnumKeyExW", ListKey},
        {"RegEnumValueW", ListValue},
        {"RegCloseKey", CloseKey},
    };
    AddRows(hooks, kDeletions, RunKeyDeletion);
    AddRows(hooks, kValueCalls, RunValueCall);
    return hooks;
}

} // namespace halvard_runner
