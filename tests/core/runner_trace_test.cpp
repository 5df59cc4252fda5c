#include "report.h"
#include "trace/dry_run.h"
#include "trace/event.h"

#include <gtest/gtest.h>

using halvard_runner::DryRun;
using halvard_runner::DryRunJson;
using halvard_runner::DryRunLines;
using halvard_runner::DryRunOf;
using halvard_runner::HasDryRun;
using halvard_runner::LinesWithoutEvent;
using halvard_runner::Outcome;
using halvard_runner::Reasoned;
using halvard_runner::ShownPath;
using halvard_runner::TraceDetails;
using halvard_runner::TraceEvent;
using halvard_runner::TraceGroup;
using halvard_runner::TraceJson;
using halvard_runner::TraceLines;
using halvard_runner::TraceResult;
namespace words = halvard_runner::trace_words;

namespace {

constexpr const wchar_t* kBranding = L"DeleteandRetainValues";
constexpr const wchar_t* kRetainKey = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\ZenvoBranding";

TraceEvent Event(TraceGroup group, const std::wstring& what, const std::wstring& target) {
    TraceEvent event;
    event.milliseconds = 12.34;
    event.group = group;
    event.what = what;
    event.target = target;
    return event;
}

TraceEvent Failed(TraceEvent event, std::int64_t code, const std::wstring& means) {
    event.result = TraceResult::Failed;
    event.code = code;
    event.details.insert(event.details.begin(), {words::kMeans, means});
    return event;
}

TraceEvent NotMade(const std::wstring& what, const std::wstring& target) {
    TraceEvent event = Event(TraceGroup::File, what, target);
    event.result = TraceResult::NotMade;
    return event;
}

TraceEvent Listed(const std::wstring& path, const std::wstring& kind = L"file") {
    TraceEvent event = Event(TraceGroup::File, words::kLists, path);
    event.details = {{words::kKind, kind}};
    return event;
}

TraceEvent RetainedKey(const std::wstring& name) {
    return Event(TraceGroup::Registry, words::kListsKey, std::wstring(kRetainKey) + L"\\" + name);
}

TraceEvent RetainedValue(const std::wstring& data, const std::wstring& type = L"REG_SZ") {
    TraceEvent event =
        Event(TraceGroup::Registry, words::kListsValue, std::wstring(kRetainKey) + L" : name");
    event.details = {{words::kType, type}, {words::kData, data}};
    return event;
}

std::wstring WhyOf(const std::vector<Reasoned>& all, const std::wstring& name) {
    for (const Reasoned& each : all) {
        if (each.name == name) {
            return each.why;
        }
    }
    return L"(not told)";
}

} // namespace

TEST(TraceLines, TellAnEventInOneLine) {
    EXPECT_EQ(TraceLines(Event(TraceGroup::Registry, L"opens key", L"HKEY_USERS\\a")),
              L"registry         12.3 ms  opens key         ok              HKEY_USERS\\a\n");
    EXPECT_EQ(TraceLines(Failed(Event(TraceGroup::File, L"removes", L"C:\\a"), 32, L"In use")),
              L"file             12.3 ms  removes           FAILED 32       C:\\a (In use)\n");
    EXPECT_EQ(TraceLines(NotMade(L"removes", L"C:\\a")),
              L"file             12.3 ms  removes           not made        C:\\a\n");
    EXPECT_EQ(TraceLines(Event(TraceGroup::Lost, L"to session 0", L"two\r\nlines \r\n")),
              L"lost             12.3 ms  to session 0      LOST            two  lines \n");
}

TEST(TraceLines, TellDetailsBehindTheTarget) {
    TraceEvent value = RetainedValue(L"a b");
    EXPECT_NE(TraceLines(value).find(L" : name = a b\n"), std::wstring::npos);
    value.details[0].second = L"REG_DWORD";
    EXPECT_NE(TraceLines(value).find(L" : name; type: REG_DWORD = a b\n"), std::wstring::npos);

    TraceEvent asked = Event(TraceGroup::File, L"asks for", L"C:\\a");
    asked.details = {{words::kAnswer, L"no"}};
    EXPECT_EQ(TraceLines(asked),
              L"file             12.3 ms  asks for          no              C:\\a\n");
}

TEST(TraceLines, TellHowAProgramEndedAndWhatItPrinted) {
    TraceEvent ended = Event(TraceGroup::Program, words::kEnds, L"a.exe /x");
    ended.code = 3;
    ended.result = TraceResult::Failed;
    ended.details = {{L"after", L"0.2 s"}, {words::kPrinted, L"one\ntwo\tthree"}};
    EXPECT_EQ(
        TraceLines(ended),
        L"program          12.3 ms  ends              FAILED exit 3   a.exe /x; after: 0.2 s\n"
        L"                printed: one\n"
        L"                printed: two three\n");
    ended.code = 0;
    ended.result = TraceResult::Done;
    EXPECT_NE(TraceLines(ended).find(L" exit code 0     a.exe"), std::wstring::npos);
    ended.code = 0xC0000005;
    EXPECT_NE(TraceLines(ended).find(L" exit code 0xC0000005 a.exe"), std::wstring::npos);
}

TEST(TraceJson, HasTheSameFieldsForEachEvent) {
    EXPECT_EQ(TraceJson(Failed(Event(TraceGroup::Service, L"opens service", L"A\"b"), 1060, L"n")),
              L"{\"milliseconds\": 12.3, \"group\": \"service\", \"event\": \"opens service\", "
              L"\"target\": \"A\\\"b\", \"result\": \"failed\", \"code\": 1060, "
              L"\"details\": {\"means\": \"n\"}}");
    EXPECT_EQ(TraceJson(Event(TraceGroup::Task, L"reaches", L"")),
              L"{\"milliseconds\": 12.3, \"group\": \"task\", \"event\": \"reaches\", "
              L"\"target\": \"\", \"result\": \"done\", \"code\": null, \"details\": {}}");
    EXPECT_NE(TraceJson(NotMade(L"removes", L"")).find(L"\"result\": \"not made\""),
              std::wstring::npos);
}

TEST(LinesWithoutEvent, LeavesOutWhatTheTraceHas) {
    Outcome outcome;
    outcome.standardOutput = {L"one", L"two", L"one"};
    outcome.trace = {Event(TraceGroup::Lost, words::kToStandardOutput, L"one"),
                     Event(TraceGroup::Lost, L"to session 0", L"two")};
    EXPECT_EQ(LinesWithoutEvent(outcome), (std::vector<std::wstring>{L"two", L"one"}));
}

TEST(HasDryRun, KnowsTheActionsThatOnlyRemove) {
    EXPECT_TRUE(HasDryRun(kBranding));
    EXPECT_TRUE(HasDryRun(L"DeleteDMFTDirectory"));
    EXPECT_FALSE(HasDryRun(L"BlockLaunch"));
    EXPECT_FALSE(HasDryRun(L"DeletedmftDirectory"));
    EXPECT_FALSE(HasDryRun(L""));
}

TEST(DryRunOf, TellsWhatWouldGoAndWhatWouldStay) {
    const DryRun dryRun = DryRunOf(
        L"DeleteDMFTDirectory",
        {NotMade(words::kRemoves, L"C:\\a\\b"),
         Failed(Event(TraceGroup::File, words::kOpensToRemove, L"C:\\a\\c"), 32, L"In use"),
         Failed(Event(TraceGroup::File, words::kRemoves, L"C:\\a\\c\\d"), 5, L"No right"),
         NotMade(words::kRemoves, L"C:\\a\\c"), NotMade(words::kStarts, L"a.exe")});
    EXPECT_EQ(dryRun.wouldGo, (std::vector<std::wstring>{L"C:\\a\\b", L"C:\\a\\c"}));
    ASSERT_EQ(dryRun.wouldStay.size(), 1U);
    EXPECT_EQ(dryRun.wouldStay[0].name, L"C:\\a\\c\\d");
    EXPECT_EQ(dryRun.wouldStay[0].why, L"refused with 5: No right");
    EXPECT_TRUE(dryRun.endsEarly);
    EXPECT_TRUE(dryRun.nearMisses.empty());
}

TEST(DryRunOf, LeavesOutWhatIsNotThere) {
    for (const std::int64_t missing : {2, 3}) {
        const DryRun dryRun = DryRunOf(
            L"DeleteQortaKey",
            {Failed(Event(TraceGroup::File, words::kRemoves, L"C:\\a"), missing, L"Not found")});
        EXPECT_TRUE(dryRun.wouldGo.empty());
        EXPECT_TRUE(dryRun.wouldStay.empty());
        EXPECT_FALSE(dryRun.endsEarly);
    }
}

TEST(DryRunOf, GoesOnBehindAFileOfTheBrandingFolder) {
    const auto refused = [](const wchar_t* action) {
        return DryRunOf(action, {Event(TraceGroup::File, words::kLists, L"C:\\b\\x"),
                                 Failed(Event(TraceGroup::File, words::kRemoves, L"C:\\b\\x"), 5,
                                        L"No right")});
    };
    EXPECT_FALSE(refused(kBranding).endsEarly);
    EXPECT_TRUE(refused(L"DeleteDMFTDirectory").endsEarly);
}

TEST(DryRunOf, TellsWhyAnEntryOfTheBrandingFolderStays) {
    const std::wstring longName = L"C:\\b\\" + std::wstring(251, L'x');
    const DryRun dryRun =
        DryRunOf(kBranding, {RetainedKey(L"Skins"), RetainedValue(L"C:\\b\\kept.png"),
                             RetainedValue(L"C:/b/too.png"), Listed(L"C:\\b\\kept.png"),
                             Listed(L"C:\\b\\too.png"), Listed(L"C:\\b\\MySkins", L"folder"),
                             Listed(L"C:\\b\\dot."), Listed(longName), Listed(L"C:\\b\\went"),
                             NotMade(words::kRemoves, L"C:\\b\\went"), Listed(L"C:\\b\\later")});
    EXPECT_EQ(dryRun.wouldGo, (std::vector<std::wstring>{L"C:\\b\\went"}));
    EXPECT_EQ(WhyOf(dryRun.wouldStay, L"C:\\b\\kept.png"), L"named to stay");
    EXPECT_EQ(WhyOf(dryRun.wouldStay, L"C:\\b\\too.png"), L"named to stay");
    EXPECT_EQ(WhyOf(dryRun.wouldStay, L"C:\\b\\MySkins"),
              L"Skins are named to stay, and its path has that word");
    EXPECT_EQ(WhyOf(dryRun.wouldStay, L"C:\\b\\dot."),
              L"a name that ends in a dot or a blank is left alone");
    EXPECT_EQ(WhyOf(dryRun.wouldStay, longName),
              L"a file with a path of 256 characters and more is left alone");
    EXPECT_EQ(WhyOf(dryRun.wouldStay, L"C:\\b\\later"), L"not reached");
    EXPECT_EQ(WhyOf(dryRun.wouldStay, L"C:\\b\\went"), L"(not told)");
    EXPECT_TRUE(dryRun.nearMisses.empty());
}

TEST(DryRunOf, FlagsWhatWasProbablyMeantToStay) {
    TraceEvent tooLong = Failed(RetainedValue(L"C:\\b\\long"), 234, L"More");
    tooLong.details.emplace_back(words::kBytes, L"300");
    const DryRun dryRun =
        DryRunOf(kBranding, {RetainedKey(L"skins"), RetainedValue(L"C:\\b\\logo.png"),
                             RetainedValue(L"C:\\b\\sub\\deep.png"), RetainedValue(L"C:/b/sub/"),
                             RetainedValue(L"LOGO.PNG"), RetainedValue(L"C:\\elsewhere"),
                             RetainedValue(L"%b%", L"REG_EXPAND_SZ"), tooLong, RetainedValue(L""),
                             Listed(L"C:\\b\\Logo.png"), Listed(L"C:\\b\\sub", L"folder")});
    const std::vector<Reasoned>& near = dryRun.nearMisses;
    EXPECT_EQ(near.size(), 7U);
    EXPECT_EQ(WhyOf(near, L"skins"), L"equal to Skins but for case");
    EXPECT_EQ(WhyOf(near, L"C:\\b\\logo.png"), L"equal but for case to C:\\b\\Logo.png");
    EXPECT_EQ(WhyOf(near, L"C:\\b\\sub\\deep.png"),
              L"names something below C:\\b\\sub, and only entries of the folder itself can stay");
    EXPECT_EQ(WhyOf(near, L"C:/b/sub/"), L"ends in a slash, which C:\\b\\sub does not");
    EXPECT_EQ(WhyOf(near, L"LOGO.PNG"),
              L"a name without its folder: C:\\b\\Logo.png would have to be written out");
    EXPECT_EQ(WhyOf(near, L"%b%"), L"of type REG_EXPAND_SZ: REG_SZ alone is read");
    EXPECT_EQ(WhyOf(near, L"C:\\b\\long"),
              L"too long to be read: 300 bytes, of which 260 are the most");
}

TEST(DryRunOf, TellsATooLongTextFromOneThatIsRefused) {
    TraceEvent refused = Failed(Event(TraceGroup::Registry, words::kListsValue,
                                      std::wstring(kRetainKey) + L" : (number 1)"),
                                5, L"Access denied");
    const TraceEvent end = Failed(refused, 259, L"No more");
    const DryRun dryRun = DryRunOf(kBranding, {refused, end});
    ASSERT_EQ(dryRun.nearMisses.size(), 1U);
    EXPECT_EQ(dryRun.nearMisses[0].name, refused.target);
    EXPECT_EQ(dryRun.nearMisses[0].why, L"cannot be read: refused with 5: Access denied");
}

TEST(DryRunOf, KnowsAPathInItsExtendedLengthForm) {
    const DryRun dryRun = DryRunOf(kBranding, {RetainedValue(L"\\\\?\\C:\\b\\kept"),
                                               Listed(L"C:\\b\\kept"), Listed(L"C:\\b\\went"),
                                               NotMade(words::kRemoves, L"\\\\?\\C:\\b\\went")});
    ASSERT_EQ(dryRun.wouldStay.size(), 1U);
    EXPECT_EQ(dryRun.wouldStay[0].name, L"C:\\b\\kept");
    EXPECT_EQ(dryRun.wouldStay[0].why, L"named to stay");
    EXPECT_TRUE(dryRun.nearMisses.empty());
}

TEST(DryRunOf, TellsATextInAnotherFormThanThatOfItsEntry) {
    const DryRun dryRun =
        DryRunOf(kBranding, {RetainedValue(L"\\\\?\\C:\\b\\went"), Listed(L"C:\\b\\went"),
                             NotMade(words::kRemoves, L"C:\\b\\went")});
    EXPECT_TRUE(dryRun.wouldStay.empty());
    ASSERT_EQ(dryRun.nearMisses.size(), 1U);
    EXPECT_EQ(dryRun.nearMisses[0].why, L"written in another form than C:\\b\\went");
}

TEST(ShownPath, IsWithoutThePrefixOfTheLongForm) {
    EXPECT_EQ(ShownPath(L"\\\\?\\C:\\a"), L"C:\\a");
    EXPECT_EQ(ShownPath(L"\\\\?\\UNC\\server\\share"), L"\\\\server\\share");
    EXPECT_EQ(ShownPath(L"C:\\a"), L"C:\\a");
}

TEST(DryRunOf, LooksForRetainedNamesOfTheBrandingFolderAlone) {
    EXPECT_TRUE(
        DryRunOf(L"DeletePVFolder", {RetainedKey(L"skins"), Listed(L"C:\\a")}).nearMisses.empty());
}

TEST(DryRunLines, EndATrace) {
    EXPECT_EQ(DryRunLines({}), L"\ndry run     nothing was removed, written or started\n"
                               L"would go    nothing\n");
    const DryRun dryRun = {{L"a"}, {{L"b", L"why"}}, {{L"c", L"so"}}, true};
    EXPECT_EQ(DryRunLines(dryRun),
              L"\ndry run     nothing was removed, written or started\n"
              L"would go    a\n"
              L"would stay  b: why\n"
              L"near miss   c: so\n"
              L"            A folder's first refusal ends its removal: what is not named stays.\n");
    EXPECT_EQ(DryRunJson(dryRun),
              L"{\"would_go\": [\"a\"], \"would_stay\": [{\"name\": \"b\", \"why\": \"why\"}], "
              L"\"near_misses\": [{\"name\": \"c\", \"why\": \"so\"}], \"ends_early\": true}");
}
