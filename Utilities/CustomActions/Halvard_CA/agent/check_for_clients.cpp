#include "agent/check_for_clients.h"

#include "runtime/registry_values.h"
#include "runtime/custom_action_data.h"
#include "runtime/registry.h"
#include "runtime/registry_walk.h"
#include "runtime/session.h"
#include "runtime/text.h"

#include <optional>

namespace halvard {

namespace {

constexpr wchar_t kTeloKey[] = L"SOFTWARE\\Telo";
constexpr wchar_t kLastClient[] = L"TeloClient";
constexpr DWORD kTextBytes = 260;

// Nothing when the value cannot be read or has more than kTextBytes.
std::optional<std::wstring> ReadText(HKEY root, const wchar_t* subkey, const wchar_t* name) {
    const OwnedKey key = OpenKey(root, subkey, KEY_ALL_ACCESS);
    // Room for as many characters as the registry is told of bytes: what answers in characters by
    // mistake stays inside.
    BoundedText<kTextBytes * sizeof(wchar_t)> text;
    if (!key || !ReadBytes(key.get(), name, text.characters, kTextBytes, nullptr)) {
        return std::nullopt;
    }
    return text.characters;
}

std::vector<std::wstring> ListStatusKey() {
    std::vector<std::wstring> paths;
    QueryKey(HKEY_LOCAL_MACHINE, kTeloKey, paths);
    return paths;
}

} // namespace

ClientList ReadClients(const std::vector<std::wstring>& paths, const std::wstring& clientName) {
    std::vector<StatusValue> values;
    for (const std::wstring& path : paths) {
        std::optional<std::wstring> name = StatusNameIn(path);
        if (!name) {
            continue;
        }
        DWORD number = 0;
        // By its name alone: what stands in a key below counts too, and is read from this one.
        const bool read = ReadRegistryDword(kTeloKey, *name, number);
        values.push_back({std::move(*name), read ? std::optional(number) : std::nullopt});
    }
    return ListClients(values, clientName);
}

void SetClientStatus(const std::wstring& clientName, DWORD status) {
    WriteRegistryDword(kTeloKey, StatusNameOf(clientName), status);
}

UINT __stdcall CheckForClients(MSIHANDLE session) {
    SetCurrentSession(session);
    const std::wstring data = ReadCustomActionData(session);
    std::wstring clientName = GetDataValueOrEmpty(data, L"ClientName=");
    const std::wstring action = GetDataValue(data, L"Action=");
    const std::wstring currentVersion = GetDataValue(data, L"CurrentVersion=");
    LogMessage(session, L"Client Name %s", clientName.c_str());
    LogMessage(session, L"Action %s", action.c_str());
    LogMessage(session, L"Current Version %s", currentVersion.c_str());

    const bool removal = FindNoCase(action, L"ALL") == 0;
    if (removal) {
        if (const auto lastClient = ReadText(HKEY_CURRENT_USER, kTeloKey, kLastClient)) {
            clientName = *lastClient;
            LogMessage(session, L"Client Name (Uninstall) %s", clientName.c_str());
        }
    }

    const std::vector<std::wstring> paths = ListStatusKey();
    WriteRegistryString(HKEY_CURRENT_USER, kTeloKey, kLastClient, clientName);
    const ClientList clients = ReadClients(paths, clientName);
    if (clients.records.empty()) {
        SetClientStatus(clientName, removal ? kClientRemoved : kClientInstalled);
        return ERROR_SUCCESS;
    }

    const auto installedVersion =
        removal ? std::nullopt
                : ReadText(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies\\Install\\UPA",
                           L"ProductVersion");
    const ClientDecision decision =
        DecideForClient(clients, removal, installedVersion, currentVersion);
    WriteRegistryDword(kTeloKey, decision.statusName, decision.status);
    return decision.skipsAgent ? ERROR_NO_MORE_ITEMS : ERROR_SUCCESS;
}

} // namespace halvard
