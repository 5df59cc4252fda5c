#include "arguments.h"
#include "runner_error.h"

#include <gtest/gtest.h>

using halvard_runner::Arguments;
using halvard_runner::ExitCode;
using halvard_runner::ParseArguments;
using halvard_runner::Property;
using halvard_runner::Request;
using halvard_runner::RunnerError;
using halvard_runner::TraceMode;
using Words = std::vector<std::wstring>;

namespace {

void ExpectRefusal(const Words& words, const std::wstring& text) {
    try {
        ParseArguments(words);
        ADD_FAILURE() << "the arguments were taken";
    } catch (const RunnerError& error) {
        EXPECT_EQ(error.Code(), ExitCode::WrongArguments);
        EXPECT_EQ(error.Text(), text);
    }
}

} // namespace

TEST(ParseArguments, TakesAnActionAndItsPropertiesInTheirOrder) {
    const Arguments parsed = ParseArguments({L"LaunchPV", L"B=2", L"A_.9=x=y [z] ", L"_a="});
    EXPECT_EQ(parsed.request, Request::Call);
    EXPECT_EQ(parsed.action, L"LaunchPV");
    const std::vector<Property> expected = {{L"B", L"2"}, {L"A_.9", L"x=y [z] "}, {L"_a", L""}};
    EXPECT_EQ(parsed.properties, expected);
    EXPECT_EQ(parsed.dll, L"");
    EXPECT_FALSE(parsed.json);
    EXPECT_EQ(parsed.limit, 600U);
}

TEST(ParseArguments, TakesALimitInWholeSeconds) {
    EXPECT_EQ(ParseArguments({L"LaunchPV", L"--limit", L"0"}).limit, 0U);
    EXPECT_EQ(ParseArguments({L"--limit=1000000", L"LaunchPV"}).limit, 1000000U);
    EXPECT_EQ(ParseArguments({L"LaunchPV", L"--limit", L"007"}).limit, 7U);
    for (const wchar_t* const wrong :
         {L"", L"1000001", L"99999999999999999999", L"-1", L"1.5", L"1s", L" 1"}) {
        ExpectRefusal({L"LaunchPV", L"--limit", wrong},
                      L"--limit needs a whole number of seconds, at most 1000000");
    }
    ExpectRefusal({L"LaunchPV", L"--limit"},
                  L"--limit needs a whole number of seconds, at most 1000000");
}

TEST(ParseArguments, TakesATraceAndADryRun) {
    EXPECT_EQ(ParseArguments({L"LaunchPV"}).trace, TraceMode::None);
    EXPECT_EQ(ParseArguments({L"--trace", L"LaunchPV"}).trace, TraceMode::Trace);
    EXPECT_EQ(ParseArguments({L"DeletePVFolder", L"--dry-run"}).trace, TraceMode::DryRun);
    EXPECT_EQ(ParseArguments({L"DeletePVFolder", L"--dry-run", L"--trace"}).trace,
              TraceMode::DryRun);
    ExpectRefusal({L"list", L"--trace"}, L"--trace and --dry-run belong to an action");
    ExpectRefusal({L"--check", L"a.msi", L"--dry-run"},
                  L"--trace and --dry-run belong to an action");
    ExpectRefusal({L"LaunchPV", L"--dry-run"},
                  L"LaunchPV has no dry run: it does more than remove. These have one: "
                  L"DeleteandRetainValues, DeletePVFolder, DeletePVINSTALLDIRFolder, "
                  L"DeletePVSlimINSTALLDIRFolder, DeleteDMFTDirectory, DeleteXVRFolder, "
                  L"DeleteAnalyticsKey, DeleteQortaKey, DelInstallProxyKey");
}

TEST(ParseArguments, AsksWhetherAQuoteIsMeant) {
    const std::wstring remedy = L" holds a quote. A backslash right before a closing quote makes "
                                L"one, and takes what follows "
                                L"into the value: double that backslash, as in "
                                L"\"CustomActionData=InstallDir=C:\\my folder\\\\\"";
    ExpectRefusal({L"LaunchPV", L"A=1", L"B=c:\\a b\" --json"},
                  L"the value of B" + remedy + L"; where the quote is meant, add --quotes");
    ExpectRefusal({L"list", L"--quotes", L"--dll", L"c:\\a b\""}, L"the path of --dll" + remedy);
    const Arguments meant = ParseArguments({L"LaunchPV", L"B=\"c\"", L"--quotes"});
    EXPECT_EQ(meant.properties.front().value, L"\"c\"");
}

TEST(WantsJson, SeesTheOptionThatAQuoteHasTaken) {
    using halvard_runner::WantsJson;
    EXPECT_TRUE(WantsJson({L"LaunchPV", L"--json"}));
    EXPECT_TRUE(WantsJson({L"LaunchPV", L"A=c:\\a b\" --json"}));
    EXPECT_FALSE(WantsJson({L"LaunchPV", L"A=c:\\a b --json"}));
    EXPECT_FALSE(WantsJson({L"LaunchPV", L"A= --json \""}));
    EXPECT_FALSE(WantsJson({L"LaunchPV"}));
}

TEST(ParseArguments, TakesOptionsWhereverTheyStand) {
    for (const Words& words : {Words{L"--json", L"--dll", L"c:\\a b.dll", L"LaunchPV", L"A=1"},
                               Words{L"LaunchPV", L"A=1", L"--dll=c:\\a b.dll", L"--json"},
                               Words{L"LaunchPV", L"--dll", L"c:\\a b.dll", L"--json", L"A=1"}}) {
        const Arguments parsed = ParseArguments(words);
        EXPECT_EQ(parsed.action, L"LaunchPV");
        EXPECT_EQ(parsed.dll, L"c:\\a b.dll");
        EXPECT_TRUE(parsed.json);
        EXPECT_EQ(parsed.properties.size(), 1U);
    }
}

TEST(ParseArguments, TakesAPathThatLooksLikeAnOption) {
    EXPECT_EQ(ParseArguments({L"list", L"--dll", L"--json.dll"}).dll, L"--json.dll");
}

TEST(ParseArguments, KnowsTheRequests) {
    EXPECT_EQ(ParseArguments({L"list"}).request, Request::List);
    EXPECT_EQ(ParseArguments({L"--version"}).request, Request::Version);
    EXPECT_EQ(ParseArguments({L"--help"}).request, Request::Help);
    EXPECT_EQ(ParseArguments({L"-h"}).request, Request::Help);
}

TEST(ParseArguments, LetsTheHelpWinOverAllThatIsWrong) {
    EXPECT_EQ(ParseArguments({L"LaunchPV", L"--nonsense", L"=", L"-h"}).request, Request::Help);
}

TEST(ParseArguments, TakesTheActionThatTheHelpIsAskedOf) {
    EXPECT_EQ(ParseArguments({L"--dll", L"a.dll", L"--help", L"LaunchPV"}).action, L"LaunchPV");
    EXPECT_EQ(ParseArguments({L"LaunchPV", L"A=1", L"-h"}).action, L"LaunchPV");
    for (const Words& words :
         {Words{L"-h"}, Words{L"list", L"-h"}, Words{L"", L"A=1", L"-h"}, Words{L"-h", L"--dll"}}) {
        EXPECT_EQ(ParseArguments(words).action, L"");
    }
}

TEST(ParseArguments, TakesAPackageToCheck) {
    const Arguments parsed =
        ParseArguments({L"--check", L"a b.msi", L"--skip", L"107,703", L"--skip=101", L"--json"});
    EXPECT_EQ(parsed.request, Request::Check);
    EXPECT_EQ(parsed.package, L"a b.msi");
    EXPECT_EQ(parsed.skipped, (std::vector<int>{107, 703, 101}));
    EXPECT_TRUE(parsed.json);
    EXPECT_EQ(ParseArguments({L"--check=a.msi"}).package, L"a.msi");
    ExpectRefusal({L"--check"}, L"--check needs the path of one package");
    ExpectRefusal({L"--check", L"--json"}, L"--check needs the path of one package");
    ExpectRefusal({L"--check=a", L"--check=b"}, L"--check needs the path of one package");
    ExpectRefusal({L"--check=a", L"LaunchPV"}, L"--check takes a package and no action or library");
    ExpectRefusal({L"--check=a", L"--dll=b"}, L"--check takes a package and no action or library");
    ExpectRefusal({L"LaunchPV", L"--skip=107"}, L"--skip belongs to --check");
    for (const wchar_t* const wrong : {L"", L",", L"1,", L"a", L"-1", L"0", L"99999999", L"1 2"}) {
        ExpectRefusal({L"--check=a", L"--skip", wrong},
                      L"--skip needs numbers of rules, with commas between them");
    }
}

TEST(WantsCheck, SeesTheOptionInBothForms) {
    using halvard_runner::WantsCheck;
    EXPECT_TRUE(WantsCheck({L"--json", L"--check"}));
    EXPECT_TRUE(WantsCheck({L"--check=a"}));
    EXPECT_FALSE(WantsCheck({L"LaunchPV", L"A=--check"}));
    EXPECT_FALSE(WantsCheck({L"LaunchPV", L"--checked"}));
}

TEST(ParseArguments, RefusesMalformedProperties) {
    ExpectRefusal({L"LaunchPV", L"Name"}, L"\"Name\" is no property: Property=Value is expected");
    for (const wchar_t* const name : {L"", L"9A", L".A", L"A B", L"A-B", L"\u00C4"}) {
        ExpectRefusal({L"LaunchPV", std::wstring(name) + L"=1"},
                      std::wstring(L"\"") + name +
                          L"\" is no name of a property: letters, digits, \"_\" and \".\", "
                          L"no digit or \".\" in front");
    }
    ExpectRefusal({L"LaunchPV", L"A=1", L"A=2"}, L"the property A is given twice");
    EXPECT_EQ(ParseArguments({L"LaunchPV", L"A=1", L"a=2"}).properties.size(), 2U);
}

TEST(ParseArguments, RefusesWhatIsMissingOrUnknown) {
    const std::wstring none = L"no action is named; halvard_run list shows them";
    ExpectRefusal({}, none);
    ExpectRefusal({L"--json"}, none);
    ExpectRefusal({L"A=1"}, L"\"A=1\" stands where the name of an action is expected");
    ExpectRefusal({L""}, L"\"\" stands where the name of an action is expected");
    ExpectRefusal({L"LaunchPV", L"--quiet"}, L"unknown option --quiet");
    ExpectRefusal({L"LaunchPV", L"-q"}, L"unknown option -q");
    ExpectRefusal({L"list", L"A=1"}, L"list takes no properties");
    ExpectRefusal({L"list", L"--dll"}, L"--dll needs the path of a library");
    ExpectRefusal({L"list", L"--dll="}, L"--dll needs the path of a library");
    ExpectRefusal({L"list", L"--dll", L"a", L"--dll=b"}, L"--dll is given twice");
}

TEST(HelpText, TellsEveryExitCode) {
    const std::wstring help = halvard_runner::HelpText();
    for (const ExitCode code :
         {ExitCode::Success, ExitCode::OtherResult, ExitCode::WrongArguments, ExitCode::NoLibrary,
          ExitCode::NoSuchAction, ExitCode::NoSession, ExitCode::Exception, ExitCode::OverTheLimit,
          ExitCode::NotWritten, ExitCode::RunnerFailed}) {
        std::wstring line = L"\n  " + std::to_wstring(static_cast<int>(code));
        line.resize(7, L' ');
        EXPECT_NE(help.find(line), std::wstring::npos) << static_cast<int>(code);
        const std::wstring member =
            L"{\"code\": " + std::to_wstring(static_cast<int>(code)) + L", ";
        EXPECT_NE(halvard_runner::HelpJson().find(member), std::wstring::npos);
    }
}

TEST(HelpText, FitsAConsole) {
    std::size_t start = 0;
    const std::wstring help = halvard_runner::HelpText();
    for (std::size_t end = help.find(L'\n'); end != std::wstring::npos;
         start = end + 1, end = help.find(L'\n', start)) {
        EXPECT_LE(end - start, 80U);
    }
    EXPECT_EQ(start, help.size());
}
