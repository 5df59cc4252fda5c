#include "agent/client_registry.h"

#include "agent/agent_registry.h"
#include "runtime/custom_action_data.h"
#include "runtime/registry.h"
#include "runtime/session.h"
#include "runtime/text.h"

#include <array>
#include <optional>

namespace {

constexpr wchar_t kTeloKey[] = L"SOFTWARE\\Telo";
constexpr wchar_t kLastClient[] = L"TeloClient";
constexpr DWORD kTextBytes = 260;

// Nothing when the value cannot be read or has more than kTextBytes.
std::optional<std::wstring> ReadText(HKEY root, const wchar_t* subkey, const wchar_t* name) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(root, subkey, 0, KEY_ALL_ACCESS, &opened) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    const halvard::KeyHolder key(opened);
    // Zeros, and more room than is read into: a value need not bring a terminator.
    std::array<wchar_t, kTextBytes> text = {};
    DWORD size = kTextBytes;
    if (RegQueryValueExW(key.get(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(text.data()),
                         &size) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    return text.data();
}

std::vector<std::wstring> ListStatusKey() {
    std::vector<std::wstring> paths;
    halvard::QueryKey(HKEY_LOCAL_MACHINE, kTeloKey, paths);
    return paths;
}

} // namespace

namespace halvard {

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

} // namespace halvard

UINT __stdcall CheckForClients(MSIHANDLE session) {
    halvard::SetCurrentSession(session);
    const std::wstring data = halvard::ReadCustomActionData(session);
    std::wstring clientName = halvard::GetDataValueOrEmpty(data, L"ClientName=");
    const std::wstring action = halvard::GetDataValue(data, L"Action=");
    const std::wstring currentVersion = halvard::GetDataValue(data, L"CurrentVersion=");
    halvard::LogMessage(session, L"Client Name %s", clientName.c_str());
    halvard::LogMessage(session, L"Action %s", action.c_str());
    halvard::LogMessage(session, L"Current Version %s", currentVersion.c_str());

    const bool removal = halvard::FindNoCase(action, L"ALL") == 0;
    if (removal) {
        if (const auto lastClient = ReadText(HKEY_CURRENT_USER, kTeloKey, kLastClient)) {
            clientName = *lastClient;
            halvard::LogMessage(session, L"Client Name (Uninstall) %s", clientName.c_str());
        }
    }

    const std::vector<std::wstring> paths = ListStatusKey();
    halvard::WriteRegistryString(HKEY_CURRENT_USER, kTeloKey, kLastClient, clientName);
    const halvard::ClientList clients = halvard::ReadClients(paths, clientName);
    if (clients.records.empty()) {
        halvard::SetClientStatus(clientName,
                                 removal ? halvard::kClientRemoved : halvard::kClientInstalled);
        return ERROR_SUCCESS;
    }

    const auto installedVersion =
        removal ? std::nullopt
                : ReadText(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies\\Install\\UPA",
                           L"ProductVersion");
    const halvard::ClientDecision decision =
        halvard::DecideForClient(clients, removal, installedVersion, currentVersion);
    halvard::WriteRegistryDword(kTeloKey, decision.statusName, decision.status);
    return decision.skipsAgent ? ERROR_NO_MORE_ITEMS : ERROR_SUCCESS;
}
