#include "agent/client_decision.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>

using halvard::ClientDecision;
using halvard::ClientList;
using halvard::ClientRecord;
using halvard::DecideForClient;
using halvard::IsVersionAtLeast;
using halvard::ListClients;
using halvard::ParseVersion;
using halvard::StatusNameIn;
using halvard::StatusNameOf;
using halvard::StatusValue;
using halvard::VersionKind;
using halvard::VersionParts;
using Components = std::array<std::wstring, 4>;
using Records = std::vector<ClientRecord>;
using Values = std::vector<StatusValue>;
using namespace std::string_literals;

namespace halvard {

bool operator==(const ClientRecord& left, const ClientRecord& right) {
    return std::tie(left.clientName, left.enabled, left.self, left.status) ==
           std::tie(right.clientName, right.enabled, right.self, right.status);
}

} // namespace halvard

namespace {

const Components kNoVersion = {L"x", L"x", L"x", L"x"};

bool AtLeast(const std::wstring& a, const std::wstring& b) {
    return IsVersionAtLeast(ParseVersion(a), ParseVersion(b));
}

std::wstring OneAnd(int zeros) {
    return L"1" + std::wstring(static_cast<std::size_t>(zeros), L'0');
}

} // namespace

TEST(ParseVersion, TakesTwoToFourComponents) {
    struct Case {
        std::wstring text;
        VersionKind kind;
        Components components;
    };
    const std::wstring large = L"18446744073709551616";
    const Case cases[] = {
        {L"1.2", VersionKind::Two, {L"1", L"2", L"0", L"0"}},
        {L"1.2.3", VersionKind::Three, {L"1", L"2", L"3", L"0"}},
        {L"1.2.3.4", VersionKind::Four, {L"1", L"2", L"3", L"4"}},
        {L"0123456789.0", VersionKind::Two, {L"0123456789", L"0", L"0", L"0"}},
        {L"007.000", VersionKind::Two, {L"007", L"000", L"0", L"0"}},
        {L".", VersionKind::Two, {L"", L"", L"0", L"0"}},
        {L"1.", VersionKind::Two, {L"1", L"", L"0", L"0"}},
        {L"..", VersionKind::Three, {L"", L"", L"", L"0"}},
        {L"1..3", VersionKind::Three, {L"1", L"", L"3", L"0"}},
        {L"...", VersionKind::Four, {L"", L"", L"", L""}},
        {L".2.3.4", VersionKind::Four, {L"", L"2", L"3", L"4"}},
        {L"1." + large, VersionKind::Two, {L"1", large, L"0", L"0"}},
    };
    for (const Case& tested : cases) {
        const VersionParts version = ParseVersion(tested.text);
        EXPECT_EQ(version.kind, tested.kind) << tested.text.c_str();
        EXPECT_EQ(version.components, tested.components) << tested.text.c_str();
    }
    EXPECT_EQ(static_cast<int>(VersionKind::Two), 1);
    EXPECT_EQ(static_cast<int>(VersionKind::Three), 2);
    EXPECT_EQ(static_cast<int>(VersionKind::Four), 3);
}

TEST(ParseVersion, TakesNoCharacterButTheTenDigits) {
    for (wchar_t character = 1; character < 0x180; ++character) {
        const bool isDigit = L'0' <= character && character <= L'9';
        const std::wstring piece = {L'1', character};
        if (character != L'.') {
            EXPECT_EQ(ParseVersion(L"1." + piece).kind,
                      isDigit ? VersionKind::Two : VersionKind::Invalid)
                << static_cast<int>(character);
        }
    }
}

TEST(ParseVersion, TakesTheWildcardAloneOnly) {
    const VersionParts wildcard = ParseVersion(L"*");
    EXPECT_EQ(wildcard.kind, VersionKind::Wildcard);
    EXPECT_EQ(static_cast<int>(wildcard.kind), 4);
    EXPECT_EQ(wildcard.components, (Components{L"*", L"*", L"*", L"*"}));
    for (const wchar_t* text : {L"**", L"*.*", L"1.*", L"*.1", L"1.2.3.*", L"*.*.*.*", L" *"}) {
        EXPECT_EQ(ParseVersion(text).kind, VersionKind::Invalid) << text;
    }
}

TEST(ParseVersion, AnythingElseIsNoVersion) {
    for (const std::wstring& text :
         {L""s,     L"1"s,      L"5"s,     L"x"s,        L"1.2.3.4.5"s, L"1.2.3.4."s, L".1.2.3.4"s,
          L"...."s, L"1.2a.3"s, L"a.2"s,   L"1.b"s,      L"1.2.3.d"s,   L"x.x.x.x"s,  L"-1.2"s,
          L"1.+2"s, L"1.-0"s,   L" 1.2"s,  L"1.2 "s,     L"1. 2"s,      L"1.2\t"s,    L"1.2\n"s,
          L"1,2"s,  L"1.2,5"s,  L"0x1.2"s, L"1e3.2"s,    L"1.inf"s,     L"1.nan"s,    L"1.2\0"s,
          L"1.\0"s, L"/.2"s,    L":.2"s,   L"1.\u0662"s, L"1.\uFF12"s,  L"1.\u00B2"s}) {
        const VersionParts version = ParseVersion(text);
        EXPECT_EQ(version.kind, VersionKind::Invalid) << text.c_str();
        EXPECT_EQ(version.components, kNoVersion) << text.c_str();
    }
    EXPECT_EQ(static_cast<int>(VersionKind::Invalid), 0);
}

TEST(IsVersionAtLeast, EqualVersionsAreInBothDirections) {
    for (const auto& [a, b] : std::vector<std::pair<std::wstring, std::wstring>>{
             {L"1.2.3", L"1.2.3.0"},
             {L"1.2", L"1.2.0.0"},
             {L"1.2.3.4", L"1.2.3.4"},
             {L"01.002.0003.4", L"1.2.3.04"},
             {L"1..3", L"1.0.3"},
             {L".", L"0.0.0.0"},
             {L"1.", L"1.0"},
             {L"...", L"0.0"},
             // Beyond the 53 bits of a double, and beyond all that it can tell.
             {L"1.9007199254740992", L"1.9007199254740993"},
             {L"1.18446744073709551616", L"1.18446744073709551617"},
             {L"1." + OneAnd(400), L"1." + OneAnd(500)},
             {L"1." + OneAnd(20000), L"1." + OneAnd(400)},
         }) {
        EXPECT_TRUE(AtLeast(a, b)) << a.c_str() << " " << b.c_str();
        EXPECT_TRUE(AtLeast(b, a)) << a.c_str() << " " << b.c_str();
    }
}

TEST(IsVersionAtLeast, TheFirstDifferenceDecides) {
    for (const auto& [later, earlier] : std::vector<std::pair<std::wstring, std::wstring>>{
             {L"2.0.0.0", L"1.9.9.9"},
             {L"1.3.0.0", L"1.2.9.9"},
             {L"1.2.10.0", L"1.2.9.9"},
             {L"1.2.3.5", L"1.2.3.4"},
             {L"1.3", L"1.2.3.4"},
             {L"1.2.3.1", L"1.2.3"},
             {L"1.2.0.1", L"1.2"},
             {L"10.0", L"9.0"},
             {L"1.10", L"1.9"},
             {L"1.2.3.10", L"1.2.3.9"},
             {L"1.0010", L"1.009"},
             {L"1.1", L"1."},
             {L"0.1", L"..."},
             {L"1.9007199254740994", L"1.9007199254740993"},
             {L"1.18446744073709555712", L"1.18446744073709551615"},
             {L"1." + OneAnd(300), L"1." + OneAnd(299)},
             {L"1." + OneAnd(400), L"1." + OneAnd(300)},
             {OneAnd(400) + L".1", OneAnd(500) + L".0"},
         }) {
        EXPECT_TRUE(AtLeast(later, earlier)) << later.c_str() << " " << earlier.c_str();
        EXPECT_FALSE(AtLeast(earlier, later)) << later.c_str() << " " << earlier.c_str();
    }
}

TEST(IsVersionAtLeast, AWildcardOnEitherSideIs) {
    for (const wchar_t* other : {L"1.2.3.4", L"*", L"", L"5", L"1.2a.3"}) {
        EXPECT_TRUE(AtLeast(L"*", other)) << other;
        EXPECT_TRUE(AtLeast(other, L"*")) << other;
    }
}

TEST(IsVersionAtLeast, WhatIsNoVersionIsNot) {
    for (const wchar_t* other : {L"1.2.3.4", L"0.0", L".", L"", L"5", L"1.2a.3"}) {
        for (const wchar_t* invalid : {L"", L"5", L"1.2a.3", L"1.2.3.4.5"}) {
            EXPECT_FALSE(AtLeast(invalid, other)) << invalid << " " << other;
            EXPECT_FALSE(AtLeast(other, invalid)) << invalid << " " << other;
        }
    }
}

TEST(StatusNameIn, IsTheLastPartOfAPathThatContainsTheMarker) {
    EXPECT_EQ(StatusNameIn(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Telo\\Foo_TeloStatus"),
              L"Foo_TeloStatus");
    EXPECT_EQ(StatusNameIn(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Telo\\below\\Foo_TeloStatus"),
              L"Foo_TeloStatus");
    EXPECT_EQ(StatusNameIn(L"A\\Foo\\Bar_TeloStatus"), L"Bar_TeloStatus");
    for (const wchar_t* name :
         {L"TeloStatus", L"_TeloStatus", L"FooTeloStatus", L"Foo_TeloStatus_old", L"TeloStatus_",
          L"Foo_X_TeloStatus", L" TeloStatus "}) {
        EXPECT_EQ(StatusNameIn(L"A\\"s + name), name);
        EXPECT_EQ(StatusNameIn(name), name);
    }
}

TEST(StatusNameIn, IsNothingForOtherPaths) {
    for (const wchar_t* path : {L"", L"\\", L"A\\GUID", L"A\\", L"A\\Foo_telostatus",
                                L"A\\Foo_TELOSTATUS", L"A\\Foo_TeloStatu", L"A\\Foo_Telo_Status",
                                L"A\\TeloStatus\\GUID", L"A\\TeloStatus\\", L"Telo\\Status"}) {
        EXPECT_EQ(StatusNameIn(path), std::nullopt) << path;
    }
}

TEST(StatusNameOf, IsTheClientsNameAndTheMarker) {
    EXPECT_EQ(StatusNameOf(L"Foo"), L"Foo_TeloStatus");
    EXPECT_EQ(StatusNameOf(L"Foo_X"), L"Foo_X_TeloStatus");
    EXPECT_EQ(StatusNameOf(L""), L"_TeloStatus");
}

TEST(ListClients, KeepsTheOrderAndTellsWhoIsEnabled) {
    const ClientList clients = ListClients({{L"B_TeloStatus", 1U},
                                            {L"A_TeloStatus", 2U},
                                            {L"D_TeloStatus", 0U},
                                            {L"C_TeloStatus", 1U},
                                            {L"E_TeloStatus", 0x101U},
                                            {L"F_TeloStatus", 0xFFFFFFFFU}},
                                           L"A");
    EXPECT_EQ(clients.records, (Records{{L"B", true, false, 1},
                                        {L"A", false, true, 2},
                                        {L"D", false, false, 0},
                                        {L"C", true, false, 1},
                                        {L"E", false, false, 0x101},
                                        {L"F", false, false, 0xFFFFFFFF}}));
    EXPECT_EQ(clients.statusName, L"A_TeloStatus");
}

TEST(ListClients, AnUnreadableValueTakesOverTheStatusAndIsNotEnabled) {
    const ClientList clients = ListClients({{L"A_TeloStatus", {}},
                                            {L"B_TeloStatus", 1U},
                                            {L"C_TeloStatus", {}},
                                            {L"D_TeloStatus", {}},
                                            {L"E_TeloStatus", 2U},
                                            {L"F_TeloStatus", {}}},
                                           L"C");
    EXPECT_EQ(clients.records, (Records{{L"A", false, false, 0},
                                        {L"B", true, false, 1},
                                        {L"C", false, true, 1},
                                        {L"D", false, false, 1},
                                        {L"E", false, false, 2},
                                        {L"F", false, false, 2}}));
    EXPECT_EQ(clients.statusName, L"C_TeloStatus");
}

TEST(ListClients, TheOwnerStandsBeforeTheFirstUnderscore) {
    struct Case {
        std::wstring valueName;
        std::wstring owner;
    };
    const std::wstring longName(130, L'n');
    const Case cases[] = {
        {L"Foo_TeloStatus", L"Foo"},
        {L"Foo_X_TeloStatus", L"Foo"},
        {L"Foo__TeloStatus", L"Foo"},
        {L"TeloStatus", L"TeloStatus"},
        {L"FooTeloStatus", L"FooTeloStatus"},
        {L"FooTeloStatus_old", L"FooTeloStatus"},
        {L"_TeloStatus", L""},
        {L"__TeloStatus", L""},
        {L"Foo Bar_TeloStatus", L"Foo Bar"},
        {longName + L"_TeloStatus", longName},
    };
    for (const Case& tested : cases) {
        const ClientList own = ListClients({{tested.valueName, 1U}}, tested.owner);
        EXPECT_EQ(own.records, (Records{{tested.owner, true, true, 1}}));
        EXPECT_EQ(own.statusName, tested.valueName);
        const ClientList foreign = ListClients({{tested.valueName, 1U}}, tested.owner + L"x");
        EXPECT_EQ(foreign.records, (Records{{tested.owner, true, false, 1}}));
        EXPECT_EQ(foreign.statusName, tested.owner + L"x_TeloStatus");
    }
}

TEST(ListClients, ComparesNamesExactly) {
    for (const std::wstring& other : {L"foo"s, L"FOO"s, L"Fo"s, L"Fooo"s, L" Foo"s, L"Foo "s, L""s,
                                      L"Foo_X"s, L"Foo\0"s, L"Foo_TeloStatus"s}) {
        const ClientList clients = ListClients({{L"Foo_TeloStatus", 1U}}, other);
        EXPECT_EQ(clients.records, (Records{{L"Foo", true, false, 1}})) << other.c_str();
        EXPECT_EQ(clients.statusName, other + L"_TeloStatus");
    }
}

TEST(ListClients, ALaterValueOfTheClientIsTheOneToWrite) {
    const Values values = {{L"Foo_X_TeloStatus", 1U},
                           {L"Foo_TeloStatus", 2U},
                           {L"Foo_Y_TeloStatus_old", {}},
                           {L"Other_TeloStatus", 1U}};
    const ClientList clients = ListClients(values, L"Foo");
    EXPECT_EQ(clients.statusName, L"Foo_Y_TeloStatus_old");
    EXPECT_EQ(clients.records.size(), 4U);
    EXPECT_EQ(ListClients({values[2], values[0]}, L"Foo").statusName, L"Foo_X_TeloStatus");
}

TEST(ListClients, WithoutAValueOfTheClientItsOwnNameIsTheOneToWrite) {
    EXPECT_EQ(ListClients({}, L"Foo").statusName, L"Foo_TeloStatus");
    EXPECT_TRUE(ListClients({}, L"Foo").records.empty());
    EXPECT_EQ(ListClients({{L"A_TeloStatus", 1U}}, L"").statusName, L"_TeloStatus");
    for (const std::size_t length : {129U, 130U, 16383U}) {
        const std::wstring name(length, L'n');
        EXPECT_EQ(ListClients({{L"A_TeloStatus", 1U}}, name).statusName, name + L"_TeloStatus");
    }
}

TEST(DecideForClient, GoesByTheOtherClients) {
    struct Case {
        const char* what;
        Values values;
        bool skips;
    };
    const Case cases[] = {
        {"no client ever", {}, false},
        {"this client installed", {{L"Foo_TeloStatus", 1U}}, false},
        {"this client removed", {{L"Foo_TeloStatus", 2U}}, false},
        {"this client unreadable", {{L"Foo_TeloStatus", {}}}, false},
        {"two values of this client", {{L"Foo_TeloStatus", 1U}, {L"Foo_X_TeloStatus", 1U}}, false},
        {"another installed", {{L"Bar_TeloStatus", 1U}}, true},
        {"another removed", {{L"Bar_TeloStatus", 2U}}, false},
        {"another with some other number", {{L"Bar_TeloStatus", 3U}}, false},
        {"another unreadable", {{L"Bar_TeloStatus", {}}}, false},
        {"another unreadable behind an installed one of this client",
         {{L"Foo_TeloStatus", 1U}, {L"Bar_TeloStatus", {}}},
         false},
        {"both installed", {{L"Foo_TeloStatus", 1U}, {L"Bar_TeloStatus", 1U}}, true},
        {"the other installed, this one removed",
         {{L"Foo_TeloStatus", 2U}, {L"Bar_TeloStatus", 1U}},
         true},
        {"the last of many installed",
         {{L"A_TeloStatus", 2U}, {L"B_TeloStatus", {}}, {L"C_TeloStatus", 1U}},
         true},
        {"the first of many installed",
         {{L"A_TeloStatus", 1U}, {L"B_TeloStatus", {}}, {L"C_TeloStatus", 2U}},
         true},
        {"none of many installed", {{L"A_TeloStatus", 2U}, {L"B_TeloStatus", 0U}}, false},
        {"the same name in other letters", {{L"foo_TeloStatus", 1U}}, true},
        {"a value without underscore", {{L"FooTeloStatus", 1U}}, true},
    };
    for (const Case& tested : cases) {
        const ClientList clients = ListClients(tested.values, L"Foo");
        const ClientDecision install = DecideForClient(clients, false, {}, L"1.2.3.4");
        EXPECT_EQ(install.skipsAgent, tested.skips) << tested.what;
        EXPECT_EQ(install.status, 1U);
        EXPECT_EQ(install.statusName, clients.statusName);
        const ClientDecision removal = DecideForClient(clients, true, {}, L"1.2.3.4");
        EXPECT_EQ(removal.skipsAgent, tested.skips) << tested.what;
        EXPECT_EQ(removal.status, 2U);
        EXPECT_EQ(removal.statusName, clients.statusName);
    }
}

TEST(DecideForClient, AnInstallationIsSkippedWhenTheAgentIsNotOlder) {
    struct Case {
        std::optional<std::wstring> installed;
        std::wstring current;
        bool skips;
    };
    const Case cases[] = {
        {L"1.2.3", L"1.2.3.0", true},
        {L"1.2.10.0", L"1.2.9.9", true},
        {L"1.2.3.4", L"1.3", false},
        {L"1.3", L"1.2.3.4", true},
        {L"*", L"1.2", true},
        {L"1.2", L"*", true},
        {L"5", L"1.2", false},
        {L"1.2a.3", L"1.2", false},
        {L"1.2", L"1.2a.3", false},
        {L"5", L"*", true},
        {L"", L"", false},
        {L"", L"1.2", false},
        {L"1.2", L"", false},
        {{}, L"*", false},
        {{}, L"1.2", false},
    };
    const ClientList registered = ListClients({{L"Foo_TeloStatus", 2U}}, L"Foo");
    const ClientList active = ListClients({{L"Bar_TeloStatus", 1U}}, L"Foo");
    const ClientList first = ListClients({}, L"Foo");
    for (const Case& tested : cases) {
        const auto skips = [&](const ClientList& clients, bool removal) {
            return DecideForClient(clients, removal, tested.installed, tested.current).skipsAgent;
        };
        EXPECT_EQ(skips(registered, false), tested.skips) << tested.current.c_str();
        EXPECT_FALSE(skips(registered, true));
        EXPECT_TRUE(skips(active, false));
        EXPECT_TRUE(skips(active, true));
        EXPECT_FALSE(skips(first, false));
        EXPECT_FALSE(skips(first, true));
    }
}
