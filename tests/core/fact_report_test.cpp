#include "verify/fact.h"

#include <gtest/gtest.h>

#include <set>

using halvard_runner::AnswerText;
using halvard_runner::AskedSystem;
using halvard_runner::ExitOf;
using halvard_runner::FactJson;
using halvard_runner::FactResult;
using halvard_runner::FactTable;
using halvard_runner::FactText;
using halvard_runner::FactTexts;
using halvard_runner::TakeAnswer;
using halvard_runner::Verdict;
using halvard_runner::VerdictOf;
using halvard_runner::VerifyExit;

namespace {

const FactText kFact = {L"a-fact",  L"files",  L"It is so.", L"this place",
                        L"5 or 32", L"a page", L"5",         L"145"};
const AskedSystem kSystem = {L"halvard_run 1.0.0", L"10.0.22631", L"", true};

FactResult Found(const wchar_t* outcome) {
    FactResult result;
    result.text = &kFact;
    result.outcome = outcome;
    result.milliseconds = 12.34;
    return result;
}

FactResult NotFound(const wchar_t* why) {
    FactResult result = Found(L"");
    result.why = why;
    return result;
}

bool Holds(const std::wstring& text, const wchar_t* part) {
    return text.find(part) != std::wstring::npos;
}

} // namespace

TEST(FactVerdict, AgreesWithEachOutcomeOfWindows) {
    EXPECT_EQ(VerdictOf(Found(L"5")), Verdict::Agrees);
    EXPECT_EQ(VerdictOf(Found(L"32")), Verdict::Agrees);
    EXPECT_EQ(VerdictOf(Found(L"3")), Verdict::Differs);
    EXPECT_EQ(VerdictOf(Found(L"5 or 32")), Verdict::Differs);
    EXPECT_EQ(VerdictOf(Found(L"or")), Verdict::Differs);
    EXPECT_EQ(VerdictOf(NotFound(L"no right")), Verdict::NotAsked);
}

TEST(FactExit, TellsFirstOfWhatIsLeft) {
    EXPECT_EQ(ExitOf({Found(L"5"), NotFound(L"no right")}, {}), VerifyExit::NoneDiffers);
    EXPECT_EQ(ExitOf({Found(L"5"), Found(L"3")}, {}), VerifyExit::SomeDiffer);
    EXPECT_EQ(ExitOf({Found(L"3")}, {L"a folder"}), VerifyExit::SomethingIsLeft);
    EXPECT_EQ(ExitOf({NotFound(L"no right")}, {L"a folder"}), VerifyExit::SomethingIsLeft);
}

TEST(FactExit, TellsThatNothingCouldBeAsked) {
    EXPECT_EQ(ExitOf({NotFound(L"no right"), NotFound(L"")}, {}), VerifyExit::NotCarriedOut);
    EXPECT_EQ(ExitOf({}, {}), VerifyExit::NotCarriedOut);
}

TEST(FactAnswer, IsTakenAsItWasToldOf) {
    for (const FactResult& told : {Found(L"5"), Found(L"-"), NotFound(L"no right")}) {
        FactResult taken = Found(L"");
        TakeAnswer(AnswerText(told), taken);
        EXPECT_EQ(taken.outcome, told.outcome);
        EXPECT_EQ(taken.why, told.why);
    }
}

TEST(FactAnswer, MayBeNone) {
    for (const wchar_t* const answer : {L"", L"+", L"-", L"5"}) {
        FactResult taken = Found(L"");
        TakeAnswer(answer, taken);
        EXPECT_EQ(taken.outcome, L"");
        EXPECT_EQ(taken.why, L"it told nothing");
    }
}

TEST(FactTable, ExplainsWhatDoesNotAgree) {
    EXPECT_EQ(FactTable(kSystem, {Found(L"5"), Found(L"3"), NotFound(L"no right")}, {}),
              L"halvard_run 1.0.0 on Windows 10.0.22631, elevated\n"
              L"\n"
              L"Fact    Windows  Wine 8  Wine 10  Here  Verdict\n"
              L"a-fact  5 or 32  5       145      5     agrees\n"
              L"a-fact  5 or 32  5       145      3     differs\n"
              L"a-fact  5 or 32  5       145      -     cannot be asked\n"
              L"\n"
              L"a-fact: It is so.\n"
              L"    relied on by: this place\n"
              L"    Windows: 5 or 32 (documented: a page)\n"
              L"    here: 3\n"
              L"\n"
              L"a-fact: It is so.\n"
              L"    relied on by: this place\n"
              L"    Windows: 5 or 32 (documented: a page)\n"
              L"    cannot be asked (no right)\n"
              L"\n"
              L"3 facts: 1 agree, 1 differ, 1 cannot be asked here\n");
}

TEST(FactTable, NamesWhatIsLeft) {
    EXPECT_TRUE(Holds(FactTable(kSystem, {}, {L"C:\\left"}), L"\nleft behind: C:\\left\n"));
    EXPECT_TRUE(Holds(FactTable({L"p", L"10.0.1", L"8.0", false}, {}, {}),
                      L"p on Windows 10.0.1, which is Wine 8.0, not elevated\n"));
}

TEST(FactJson, IsOneObject) {
    EXPECT_EQ(
        FactJson(kSystem, {Found(L"5")}, {L"C:\\left"}),
        L"{\"program\": \"halvard_run 1.0.0\", \"windows\": \"10.0.22631\", \"wine\": null, "
        L"\"elevated\": true, \"facts\": [{\"name\": \"a-fact\", \"subject\": \"files\", "
        L"\"fact\": \"It is so.\", \"relied_on_by\": \"this place\", \"windows\": \"5 or 32\", "
        L"\"basis\": \"a page\", \"wine8\": \"5\", \"wine10\": \"145\", \"here\": \"5\", "
        L"\"why\": null, \"verdict\": \"agrees\", \"milliseconds\": 12.3}], \"agree\": 1, "
        L"\"differ\": 0, \"cannot_be_asked\": 0, \"left_behind\": [\"C:\\\\left\"], "
        L"\"exit_code\": 20}\n");
}

TEST(FactTexts, HaveNamesOfTheirOwn) {
    std::set<std::wstring> names;
    for (const FactText& text : FactTexts()) {
        EXPECT_TRUE(names.insert(text.name).second) << "a name stands twice";
    }
    EXPECT_GE(names.size(), 80U);
}
