#include "trace/who_holds.h"

#include <windows.h>
#include <restartmanager.h>

#include <vector>

namespace halvard_runner {

namespace {

constexpr const wchar_t* kCannotBeAsked = L"cannot be asked here";

template <class Function>
Function LookUp(HMODULE module, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

/// The functions that are asked; loaded, for not every system has them.
struct RestartManager {
    HMODULE module = LoadLibraryW(L"rstrtmgr.dll");
    decltype(&RmStartSession) start = LookUp<decltype(start)>(module, "RmStartSession");
    decltype(&RmRegisterResources) watch = LookUp<decltype(watch)>(module, "RmRegisterResources");
    decltype(&RmGetList) list = LookUp<decltype(list)>(module, "RmGetList");
    decltype(&RmEndSession) end = LookUp<decltype(end)>(module, "RmEndSession");

    [[nodiscard]] bool IsThere() const {
        return start != nullptr && watch != nullptr && list != nullptr && end != nullptr;
    }
};

std::wstring Holders(const RestartManager& manager, DWORD session) {
    // More is not told: a few are enough to know whom to ask.
    std::vector<RM_PROCESS_INFO> found(10);
    UINT needed = 0;
    auto count = static_cast<UINT>(found.size());
    DWORD reasons = 0;
    const DWORD code = manager.list(session, &needed, &count, found.data(), &reasons);
    if (code != ERROR_SUCCESS && code != ERROR_MORE_DATA) {
        return kCannotBeAsked;
    }
    std::wstring names;
    for (UINT i = 0; i < count; ++i) {
        names += (names.empty() ? L"" : L", ") + std::wstring(found[i].strAppName) + L" (" +
                 std::to_wstring(found[i].Process.dwProcessId) + L")";
    }
    return names.empty() ? L"nobody that the Restart Manager knows" : names;
}

} // namespace

std::wstring WhoHolds(const std::wstring& path) {
    static const RestartManager manager;
    DWORD session = 0;
    wchar_t key[CCH_RM_SESSION_KEY + 1] = {};
    if (!manager.IsThere() || manager.start(&session, 0, key) != ERROR_SUCCESS) {
        return kCannotBeAsked;
    }
    const wchar_t* files[] = {path.c_str()};
    std::wstring holders = kCannotBeAsked;
    if (manager.watch(session, 1, files, 0, nullptr, 0, nullptr) == ERROR_SUCCESS) {
        holders = Holders(manager, session);
    }
    manager.end(session);
    return holders;
}

} // namespace halvard_runner
