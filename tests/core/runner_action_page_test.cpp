#include "action_page.h"

#include <gtest/gtest.h>

using halvard_runner::ActionFacts;
using halvard_runner::ActionPage;
using halvard_runner::ActionPageJson;
using halvard_runner::ActionTable;
using halvard_runner::DeclarationText;
using halvard_runner::Execution;
using halvard_runner::FindFacts;
using halvard_runner::ListLines;

namespace {

ActionFacts Stub() {
    ActionFacts facts = {};
    facts.name = L"Stub";
    facts.subsystem = L"runtime";
    facts.does = L"Does little.";
    facts.execution = Execution::Deferred;
    facts.why = L"Because.";
    facts.schedule = L"anywhere.";
    facts.data = {{L"Needed", true}, {L"Other", false}};
    facts.registry = {L"HKLM\\A", L"HKLM\\B"};
    facts.results = {{L"0", L"", L"done."}, {L"other", L"a number", L"not done."}};
    return facts;
}

} // namespace

TEST(ActionTable, HoldsTheActionsInTheirOrder) {
    ASSERT_EQ(ActionTable().size(), 38U);
    EXPECT_EQ(ActionTable().front().name, L"LaunchedFromMIM");
    EXPECT_EQ(halvard_runner::TableNames().at(1), L"BlockLaunch");
    ASSERT_NE(FindFacts(L"BlockLaunch"), nullptr);
    EXPECT_EQ(FindFacts(L"BlockLaunch")->properties,
              std::vector<std::wstring>{L"LAUNCHED_FROM_MIM"});
    EXPECT_EQ(FindFacts(L"blocklaunch"), nullptr);
}

TEST(DeclarationText, TellsExecutionAndReturn) {
    ActionFacts facts = Stub();
    EXPECT_EQ(DeclarationText(facts), L"deferred, Impersonate=\"no\", Return=\"ignore\"");
    facts.impersonated = true;
    facts.checked = true;
    EXPECT_EQ(DeclarationText(facts), L"deferred, Impersonate=\"yes\", Return=\"check\"");
    facts.execution = Execution::Immediate;
    EXPECT_EQ(DeclarationText(facts), L"immediate, Return=\"check\"");
}

TEST(ActionPage, TellsAllThatTheTableSays) {
    EXPECT_EQ(ActionPage(Stub()), L"Stub\n"
                                  L"    Does little.\n"
                                  L"\n"
                                  L"declare     deferred, Impersonate=\"no\", Return=\"ignore\"\n"
                                  L"because     Because.\n"
                                  L"schedule    anywhere.\n"
                                  L"data        Needed= (needed), Other= (may be left out)\n"
                                  L"properties  none\n"
                                  L"registry    HKLM\\A\n"
                                  L"            HKLM\\B\n"
                                  L"results     0: done.\n"
                                  L"            other: not done.\n"
                                  L"throws      nothing.\n");
    ActionFacts facts = Stub();
    facts.data.clear();
    facts.wholeData = L"a folder.";
    facts.properties = {L"A", L"B"};
    facts.throws = L"often.";
    const std::wstring page = ActionPage(facts);
    for (const wchar_t* const line :
         {L"data        a folder.\n", L"properties  A, B\n", L"throws      often.\n"}) {
        EXPECT_NE(page.find(line), std::wstring::npos) << line;
    }
}

TEST(ActionPage, FitsAConsole) {
    for (const ActionFacts& facts : ActionTable()) {
        const std::wstring page = ActionPage(facts);
        std::size_t start = 0;
        for (std::size_t end = page.find(L'\n'); end != std::wstring::npos;
             start = end + 1, end = page.find(L'\n', start)) {
            // A key of the registry stays whole.
            const std::wstring line = page.substr(start, end - start);
            EXPECT_TRUE(line.size() <= 80 || line.find(L' ', 14) == std::wstring::npos ||
                        line.find(L"HKLM") != std::wstring::npos)
                << std::string(line.begin(), line.end());
        }
    }
}

TEST(ActionPageJson, TellsAllThatTheTableSays) {
    EXPECT_EQ(ActionPageJson(Stub()),
              L"{\"name\": \"Stub\", \"subsystem\": \"runtime\", \"does\": \"Does little.\", "
              L"\"execution\": \"deferred\", \"impersonated\": false, \"checked\": false, "
              L"\"why\": \"Because.\", \"schedule\": \"anywhere.\", "
              L"\"data\": [{\"key\": \"Needed\", \"needed\": true}, "
              L"{\"key\": \"Other\", \"needed\": false}], \"whole_data\": null, "
              L"\"properties\": [], \"registry\": [\"HKLM\\\\A\", \"HKLM\\\\B\"], "
              L"\"results\": [{\"value\": 0, \"note\": null, \"means\": \"done.\"}, "
              L"{\"value\": null, \"note\": \"a number\", \"means\": \"not done.\"}], "
              L"\"exceptions\": [], \"throws\": null, \"exit_code\": 0}\n");
}

TEST(ListLines, TellsDeclarationAndPurpose) {
    EXPECT_EQ(ListLines({L"LaunchPV", L"Unknown"}),
              L"LaunchPV\n"
              L"    deferred, Impersonate=\"no\", Return=\"ignore\"\n"
              L"    Runs the task StartPV now, so that the settings application need not wait\n"
              L"    for the next logon.\n"
              L"Unknown\n"
              L"    not in the table of actions\n");
    EXPECT_EQ(ListLines({}), L"");
}

TEST(ListJson, TellsOfEachWhatTheTableSays) {
    const std::wstring page = ActionPageJson(*FindFacts(L"LaunchPV"));
    const std::wstring members = page.substr(0, page.rfind(L", \"exit_code\""));
    EXPECT_EQ(halvard_runner::ListJson(L"a.dll", {L"A", L"LaunchPV"}),
              L"{\"dll\": \"a.dll\", \"actions\": [{\"name\": \"A\"}, " + members +
                  L"}], \"exit_code\": 0}\n");
    EXPECT_EQ(halvard_runner::ListJson(L"a.dll", {}),
              L"{\"dll\": \"a.dll\", \"actions\": [], \"exit_code\": 0}\n");
}
