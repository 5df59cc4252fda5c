#include "fuzz_input.h"

#include "agent/client_decision.h"
#include "runtime/text.h"

#include <algorithm>

namespace {

constexpr std::size_t kExactDigits = 15;

// Digits without leading zeros: their length and then their order is that of the numbers.
std::wstring Trimmed(const std::wstring& digits) {
    const std::size_t first = digits.find_first_not_of(L'0');
    return first == std::wstring::npos ? L"" : digits.substr(first);
}

bool IsLess(const std::wstring& left, const std::wstring& right) {
    return left.size() != right.size() ? left.size() < right.size() : left < right;
}

void CheckSplitting(const std::wstring& text) {
    using halvard_tests::Require;
    std::wstring joined;
    std::size_t count = 0;
    for (const std::wstring& piece : halvard::SplitString(text, L'.')) {
        Require(piece.find(L'.') == std::wstring::npos);
        joined += (count++ == 0 ? L"" : L".") + piece;
    }
    Require(joined == text);
    Require(count == static_cast<std::size_t>(std::count(text.begin(), text.end(), L'.')) + 1);
}

void CheckComparison(const halvard::VersionParts& a, const halvard::VersionParts& b) {
    using halvard::VersionKind;
    using halvard_tests::Require;
    const bool atLeast = halvard::IsVersionAtLeast(a, b);
    if (a.kind == VersionKind::Wildcard || b.kind == VersionKind::Wildcard) {
        Require(atLeast);
        return;
    }
    if (a.kind == VersionKind::Invalid || b.kind == VersionKind::Invalid) {
        Require(!atLeast);
        return;
    }
    Require(atLeast || halvard::IsVersionAtLeast(b, a));
    for (std::size_t index = 0; index < 4; ++index) {
        const std::wstring left = Trimmed(a.components[index]);
        const std::wstring right = Trimmed(b.components[index]);
        if (left.size() > kExactDigits || right.size() > kExactDigits) {
            return;
        }
        if (left != right) {
            Require(atLeast == IsLess(right, left));
            return;
        }
    }
    Require(atLeast);
}

} // namespace

// One text a line: the client, the installed and the carried version, then status values, whose
// first character is the number ("-" for none).
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    using halvard_tests::Require;
    const auto [client, others] =
        halvard_tests::CutAtLineFeed(halvard_tests::Characters(bytes, size));
    const auto [installedText, behind] = halvard_tests::CutAtLineFeed(others);
    auto [currentText, rest] = halvard_tests::CutAtLineFeed(behind);

    CheckSplitting(installedText);
    CheckSplitting(currentText);
    const halvard::VersionParts installed = halvard::ParseVersion(installedText);
    const halvard::VersionParts current = halvard::ParseVersion(currentText);
    CheckComparison(installed, current);
    CheckComparison(current, installed);

    std::vector<halvard::StatusValue> values;
    bool anotherIsActive = false;
    std::wstring statusName = client + L"_TeloStatus";
    while (!rest.empty()) {
        auto [line, next] = halvard_tests::CutAtLineFeed(rest);
        rest = std::move(next);
        const auto name = halvard::StatusNameIn(line);
        Require(name.has_value() ==
                (line.rfind(L"TeloStatus") != std::wstring::npos &&
                 line.find(L'\\', line.rfind(L"TeloStatus")) == std::wstring::npos));
        if (!name) {
            continue;
        }
        const auto number = static_cast<std::uint32_t>(line[0] - L'0');
        values.push_back({*name, line[0] == L'-' ? std::nullopt : std::optional(number)});
        if (*name == client || name->compare(0, client.size() + 1, client + L"_") == 0) {
            if (client.find(L'_') == std::wstring::npos) {
                statusName = *name;
                continue;
            }
        }
        anotherIsActive |= line[0] == L'1';
    }

    const halvard::ClientList clients = halvard::ListClients(values, client);
    Require(clients.records.size() == values.size());
    std::uint32_t status = 0;
    for (std::size_t index = 0; index < values.size(); ++index) {
        status = values[index].number ? *values[index].number : status;
        const halvard::ClientRecord& record = clients.records[index];
        Require(record.status == status);
        const std::wstring& name = values[index].name;
        Require(record.clientName.find(L'_') == std::wstring::npos);
        Require(name == record.clientName ||
                name.compare(0, record.clientName.size() + 1, record.clientName + L"_") == 0);
        Require(record.self == (record.clientName == client));
        Require(record.enabled == (values[index].number == std::optional<std::uint32_t>(1)));
    }
    // A version that cannot be read leaves the decision to the other clients.
    Require(halvard::DecideForClient(clients, false, std::nullopt, currentText).skipsAgent ==
            anotherIsActive);
    for (const bool removal : {false, true}) {
        const halvard::ClientDecision decision =
            halvard::DecideForClient(clients, removal, installedText, currentText);
        Require(decision.statusName == statusName);
        Require(decision.status == (removal ? 2U : 1U));
        Require(decision.skipsAgent ==
                (anotherIsActive ||
                 (!removal && !values.empty() && halvard::IsVersionAtLeast(installed, current))));
    }
    return 0;
}
