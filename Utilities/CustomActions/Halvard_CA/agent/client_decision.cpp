#include "agent/client_decision.h"

#include "runtime/text.h"
#include "runtime/value_path.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <list>

namespace halvard {

namespace {

constexpr wchar_t kStatusMarker[] = L"TeloStatus";

VersionParts FourTimes(const wchar_t* component, VersionKind kind) {
    return {{component, component, component, component}, kind};
}

bool HasDigitsOnly(const std::wstring& piece) {
    return piece.find_first_not_of(L"0123456789") == std::wstring::npos;
}

// The locale of the process changes nothing: it decides about signs, separators and other scripts'
// digits, and a component of a valid version has none of them.
double NumberOf(const std::wstring& digits) {
#ifdef _WIN32
    // MinGW has a std::wcstod of its own, which writes through a null pointer when memory runs out.
    return _wtof(digits.c_str());
#else
    return std::wcstod(digits.c_str(), nullptr);
#endif
}

std::array<double, 4> NumbersOf(const VersionParts& version) {
    std::array<double, 4> numbers = {};
    std::transform(version.components.begin(), version.components.end(), numbers.begin(), NumberOf);
    return numbers;
}

} // namespace

VersionParts ParseVersion(const std::wstring& text) {
    const std::list<std::wstring> pieces = SplitString(text, L'.');
    if (text == L"*") {
        return FourTimes(L"*", VersionKind::Wildcard);
    }
    VersionParts version = FourTimes(L"0", VersionKind::Invalid);
    switch (pieces.size()) {
    case 2:
        version.kind = VersionKind::Two;
        break;
    case 3:
        version.kind = VersionKind::Three;
        break;
    case 4:
        version.kind = VersionKind::Four;
        break;
    default:
        break;
    }
    if (version.kind == VersionKind::Invalid ||
        !std::all_of(pieces.begin(), pieces.end(), HasDigitsOnly)) {
        return FourTimes(L"x", VersionKind::Invalid);
    }
    std::copy(pieces.begin(), pieces.end(), version.components.begin());
    return version;
}

bool IsVersionAtLeast(const VersionParts& a, const VersionParts& b) {
    if (a.kind == VersionKind::Wildcard || b.kind == VersionKind::Wildcard) {
        return true;
    }
    if (a.kind == VersionKind::Invalid || b.kind == VersionKind::Invalid) {
        return false;
    }
    return NumbersOf(a) >= NumbersOf(b);
}

std::wstring StatusNameOf(const std::wstring& clientName) {
    return clientName + L"_" + kStatusMarker;
}

std::optional<std::wstring> StatusNameIn(const std::wstring& path) {
    std::wstring name = path.substr(ValueNameStart(path));
    if (name.find(kStatusMarker) == std::wstring::npos) {
        return std::nullopt;
    }
    return name;
}

ClientList ListClients(const std::vector<StatusValue>& values, const std::wstring& clientName) {
    ClientList clients = {{}, StatusNameOf(clientName)};
    std::uint32_t status = 0;
    for (const StatusValue& value : values) {
        status = value.number.value_or(status);
        std::wstring owner = value.name.substr(0, value.name.find(L'_'));
        const bool self = owner == clientName;
        if (self) {
            clients.statusName = value.name;
        }
        clients.records.push_back(
            {std::move(owner), value.number == kClientInstalled, self, status});
    }
    return clients;
}

ClientDecision DecideForClient(const ClientList& clients, bool removal,
                               const std::optional<std::wstring>& installedVersion,
                               const std::wstring& currentVersion) {
    const bool anotherIsActive =
        std::any_of(clients.records.begin(), clients.records.end(),
                    [](const ClientRecord& client) { return client.enabled && !client.self; });
    const bool agentIsUpToDate =
        !removal && !clients.records.empty() && installedVersion &&
        IsVersionAtLeast(ParseVersion(*installedVersion), ParseVersion(currentVersion));
    return {anotherIsActive || agentIsUpToDate, clients.statusName,
            removal ? kClientRemoved : kClientInstalled};
}

} // namespace halvard
