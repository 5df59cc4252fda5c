#include "check/condition.h"

#include <gtest/gtest.h>

using halvard_runner::Evaluated;
using halvard_runner::KnownProperties;
using halvard_runner::Truth;

namespace {

const KnownProperties kKnown = {{L"Installed", L""},  {L"REMOVE", L"ALL"}, {L"Text", L"AbC"},
                                {L"Number", L"5"},    {L"Bits", L"6"},     {L"Packed", L"131075"},
                                {L"Path", L"C:\\A;B"}};

void Expect(std::optional<Truth> truth, const std::vector<const wchar_t*>& conditions) {
    for (const wchar_t* const condition : conditions) {
        const std::wstring text = condition;
        EXPECT_EQ(Evaluated(text, kKnown), truth) << std::string(text.begin(), text.end());
    }
}

} // namespace

TEST(Condition, ComparesNumbers) {
    Expect(Truth::True, {L"Number=5", L"Number<>4", L"Number<6", L"Number>4", L"Number<=5",
                         L"Number>=5", L"Bits><2", L"Packed<<2", L"Packed>>3", L"1", L"-1 < 0"});
    Expect(Truth::False, {L"Number=4", L"Number<>5", L"Number<5", L"Number>5", L"Number<=4",
                          L"Number>=6", L"Bits><1", L"Packed<<3", L"Packed>>2", L"0"});
}

TEST(Condition, ComparesTexts) {
    Expect(Truth::True,
           {L"Text=\"AbC\"", L"Text~=\"abc\"", L"Text<>\"abc\"", L"Text><\"b\"", L"Text<<\"Ab\"",
            L"Text>>\"bC\"", L"Text~>>\"BC\"", L"Text<\"B\"", L"Path >< \";\"", L"Text", L"\"x\""});
    Expect(Truth::False, {L"Text=\"abc\"", L"Text~<>\"abc\"", L"Text><\"B\"", L"Text<<\"ab\"",
                          L"Text>>\"c\"", L"Installed", L"\"\"", L"NOT Path >< \";\""});
}

TEST(Condition, TakesANumberAndATextThatIsNoneForDifferent) {
    Expect(Truth::True, {L"Text<>5", L"5<>Text", L"Installed<>0", L"\"b\"<>5", L"Text~<>5"});
    Expect(Truth::False,
           {L"Text=5", L"Text>5", L"Text<5", L"Text>=5", L"Installed<5", L"Installed<=0",
            L"5>Installed", L"Text><5", L"Text<<5", L"Text>>5", L"\"b\">5", L"5<\"b\""});
}

TEST(Condition, JoinsWhatIsKnown) {
    Expect(Truth::True, {L"", L" ", L"NOT Installed", L"not Installed", L"NOT NOT Text",
                         L"Text AND REMOVE=\"ALL\"", L"Installed OR Text", L"Installed XOR Text",
                         L"Text EQV Number", L"Installed IMP Text", L"Text OR Text AND Installed",
                         L"Installed OR NOT (Text AND Installed)"});
    Expect(Truth::False,
           {L"Text AND Installed", L"Installed OR NOT Text", L"Text XOR Number",
            L"Text EQV Installed", L"Text IMP Installed", L"(Text OR Text) AND Installed"});
}

TEST(Condition, SaysWhatItDoesNotKnow) {
    Expect(Truth::Unknown,
           {L"Other", L"NOT Other", L"Other=\"1\"", L"Other AND Text", L"Other OR Installed",
            L"Other XOR Text", L"!F=3", L"?C=2", L"%PATH", L"&F=2", L"&F=-1", L"$C=2", L"&F"});
    Expect(Truth::True, {L"Other OR Text", L"Installed IMP Other"});
    Expect(Truth::False, {L"Other AND Installed"});
    Expect(Truth::False, {L"&F=3", L"$C=4"});
    EXPECT_EQ(Evaluated(L"&F=3", {{L"REMOVE", L""}}), Truth::Unknown);
    EXPECT_EQ(Evaluated(L"&F=3", {}), Truth::Unknown);
}

TEST(Condition, RefusesWhatIsNone) {
    Expect(std::nullopt,
           {L"AND", L"NOT", L"Text AND", L"(Text", L"Text)", L"Text=", L"=\"1\"", L"\"open",
            L"Text Number", L"Text==1", L"Text # 1", L"Text ~", L"~Text", L"()", L"Text = AND"});
}
