#include "json.h"
#include "names.h"
#include "report.h"

#include <gtest/gtest.h>

using halvard_runner::EndLines;
using halvard_runner::EscapedException;
using halvard_runner::ExitCode;
using halvard_runner::JsonString;
using halvard_runner::MessageLines;
using halvard_runner::NamesNear;
using halvard_runner::Outcome;
using halvard_runner::ResultEffect;
using halvard_runner::ResultName;

namespace {

constexpr std::uint32_t kLog = 0x04000000;
constexpr std::uint32_t kError = 0x01000010;

Outcome Returned(std::uint32_t result) {
    Outcome outcome;
    outcome.result = result;
    outcome.milliseconds = 12.34;
    return outcome;
}

Outcome Left(const EscapedException& exception) {
    Outcome outcome;
    outcome.exception = exception;
    return outcome;
}

} // namespace

TEST(ResultName, KnowsTheResultsOfActions) {
    EXPECT_STREQ(ResultName(0), L"ERROR_SUCCESS");
    EXPECT_STREQ(ResultName(259), L"ERROR_NO_MORE_ITEMS");
    EXPECT_STREQ(ResultName(1602), L"ERROR_INSTALL_USEREXIT");
    EXPECT_STREQ(ResultName(1603), L"ERROR_INSTALL_FAILURE");
    EXPECT_STREQ(ResultName(1604), L"ERROR_INSTALL_SUSPEND");
    EXPECT_STREQ(ResultName(1612), L"ERROR_INSTALL_SOURCE_ABSENT");
    EXPECT_STREQ(ResultName(1626), L"ERROR_FUNCTION_NOT_CALLED");
    for (const std::uint32_t other : {1U, 2U, 258U, 260U, 1605U, 0xFFFFFFFFU}) {
        EXPECT_EQ(ResultName(other), nullptr) << other;
    }
}

TEST(ResultEffect, TellsWhatACheckedResultDoes) {
    EXPECT_STREQ(ResultEffect(0), L"goes on");
    EXPECT_STREQ(ResultEffect(259), L"skips the rest of the sequence, without an error");
    for (const std::uint32_t other : {1U, 1603U, 1612U, 0xFFFFFFFFU}) {
        EXPECT_STREQ(ResultEffect(other), L"fails the installation") << other;
    }
}

TEST(MessageKind, IgnoresButtonsAndIcons) {
    EXPECT_STREQ(halvard_runner::MessageKind(kError), L"error");
    EXPECT_STREQ(halvard_runner::MessageKind(0x03000000), L"user");
    EXPECT_STREQ(halvard_runner::MessageKind(kLog), L"log");
    EXPECT_STREQ(halvard_runner::MessageKind(0x7F000000), L"other");
}

TEST(ExceptionNames, TellStructuredOnesFromThoseOfCompilers) {
    EXPECT_STREQ(halvard_runner::StructuredExceptionName(0xC0000005),
                 L"EXCEPTION_ACCESS_VIOLATION");
    EXPECT_EQ(halvard_runner::StructuredExceptionName(0xE06D7363), nullptr);
    EXPECT_STREQ(halvard_runner::CompilerOfException(0xE06D7363), L"Visual C++");
    EXPECT_STREQ(halvard_runner::CompilerOfException(0x20474343), L"g++");
    EXPECT_EQ(halvard_runner::CompilerOfException(0xC0000005), nullptr);
}

TEST(NamesNear, FindsWhatWasMeant) {
    using Names = std::vector<std::wstring>;
    const Names names = {L"BlockLaunch", L"DeletePVFolder", L"DeleteXVRFolder", L"LaunchPV"};
    EXPECT_EQ(NamesNear(L"launchpv", names), Names{L"LaunchPV"});
    EXPECT_EQ(NamesNear(L"BlokLaunch", names), Names{L"BlockLaunch"});
    EXPECT_EQ(NamesNear(L"LaunchPVabc", names), Names{L"LaunchPV"});
    EXPECT_EQ(NamesNear(L"LaunchPVabcd", names), Names{});
    EXPECT_EQ(NamesNear(L"DeletePXVRFolder", names), Names{L"DeleteXVRFolder"});
    EXPECT_EQ(NamesNear(L"DeleteVRFolder", names), Names{L"DeleteXVRFolder"});
    EXPECT_EQ(NamesNear(L"DeleteVFolder", names), Names{L"DeletePVFolder"});
    EXPECT_EQ(NamesNear(L"DeleteQVFolder", {L"DeletePVFolder", L"DeleteRVFolder"}),
              (Names{L"DeletePVFolder", L"DeleteRVFolder"}));
    EXPECT_EQ(NamesNear(L"", names), Names{});
    EXPECT_EQ(NamesNear(L"LaunchPV", {}), Names{});
}

TEST(MeantText, NamesWhatWasMeant) {
    EXPECT_EQ(halvard_runner::MeantText(L"launchpv", {L"LaunchPV"}), L"; did you mean LaunchPV?");
    EXPECT_EQ(halvard_runner::MeantText(L"AC", {L"AA", L"AB"}), L"; did you mean AA or AB?");
    EXPECT_EQ(halvard_runner::MeantText(L"Other", {L"LaunchPV"}), L"; halvard_run list shows them");
}

TEST(MessageLines, IndentsFurtherLinesAndDropsTheLastEnds) {
    EXPECT_EQ(MessageLines({kLog, L"one\r\n\r\ntwo\n\r\n"}),
              L"log         one\n\n            two\n");
    EXPECT_EQ(MessageLines({kLog, L"with space \r\n more "}),
              L"log         with space \n             more \n");
    EXPECT_EQ(MessageLines({kLog, L"\r\n"}), L"log\n");
    EXPECT_EQ(MessageLines({kLog, L""}), L"log\n");
    EXPECT_EQ(MessageLines({0x07000000, L"full"}), L"out of disk space  full\n");
}

TEST(EndLines, TellAResultByNumberAndName) {
    EXPECT_EQ(EndLines(Returned(1603)), L"result      1603 ERROR_INSTALL_FAILURE\n"
                                        L"if checked  fails the installation\n"
                                        L"duration    12.3 ms\n");
    EXPECT_EQ(EndLines(Returned(1)), L"result      1 (no code of the installer)\n"
                                     L"if checked  fails the installation\n"
                                     L"duration    12.3 ms\n");
}

TEST(EndLines, TellAllThatIsKnownOfAnException) {
    EXPECT_EQ(EndLines(Left({L"C++ exception", L"std::system_error", -7, L"system", L"why\nso"})),
              L"exception   C++ exception std::system_error, code -7 (system)\n"
              L"            why\n"
              L"            so\n"
              L"duration    0.0 ms\n");
    EXPECT_EQ(EndLines(Left({L"C++ exception", L"", -2147024891, L"", L""})),
              L"exception   C++ exception, code 0x80070005\n"
              L"duration    0.0 ms\n");
    EXPECT_EQ(EndLines(Left({L"structured exception", L"", 0xC0000374, L"", L""})),
              L"exception   structured exception, code 0xC0000374\n"
              L"duration    0.0 ms\n");
}

TEST(ExitCodeOf, TellsSuccessOtherResultsAndExceptionsApart) {
    EXPECT_EQ(ExitCodeOf(Returned(0)), ExitCode::Success);
    EXPECT_EQ(ExitCodeOf(Returned(1)), ExitCode::OtherResult);
    EXPECT_EQ(ExitCodeOf(Returned(256)), ExitCode::OtherResult);
    EXPECT_EQ(ExitCodeOf(Left({})), ExitCode::Exception);
    EXPECT_EQ(ExitCodeOf(Left(halvard_runner::EndedProcess(0))), ExitCode::Exception);
    EXPECT_EQ(ExitCodeOf(Left(halvard_runner::OverTheLimit(5))), ExitCode::OverTheLimit);
}

TEST(EndedProcess, TellsACrashFromAnEndOfItsOwn) {
    using halvard_runner::EndedProcess;
    for (const std::uint32_t own : {0U, 1U, 259U, 0x7FFFFFFFU, 0x80000001U, 0xFFFFFFFFU}) {
        EXPECT_EQ(EndedProcess(own).kind, L"ended process") << own;
        EXPECT_EQ(EndedProcess(own).code, own);
    }
    for (const std::uint32_t crash :
         {0xC0000005U, 0xC0000999U, 0xE06D7363U, 0x20474343U, 0x80000003U, 0xE0000042U}) {
        EXPECT_EQ(EndedProcess(crash).kind, L"structured exception") << crash;
        EXPECT_EQ(EndedProcess(crash).code, crash);
    }
    EXPECT_EQ(EndedProcess(0xC0000374).type, L"STATUS_HEAP_CORRUPTION");
    EXPECT_EQ(EndedProcess(0xC0000999).type, L"");
}

TEST(OverTheLimit, TellsTheLimit) {
    EXPECT_EQ(EndLines(Left(halvard_runner::OverTheLimit(5))),
              L"exception   over the limit\n"
              L"            the action did not end within 5 s; it was ended, with all that it had "
              L"started\n"
              L"duration    0.0 ms\n");
}

TEST(StreamLine, TellsTheStream) {
    using halvard_runner::Stream;
    EXPECT_EQ(halvard_runner::StreamLine(Stream::Output, L"a"), L"stdout      a\n");
    EXPECT_EQ(halvard_runner::StreamLine(Stream::Error, L""), L"stderr\n");
}

TEST(JsonString, EscapesWhatJsonDoesNotTake) {
    EXPECT_EQ(JsonString(L"a \"b\" c:\\d\r\n\t\x1F\x7F\u0416"),
              L"\"a \\\"b\\\" c:\\\\d\\u000D\\n\\u0009\\u001F\x7F\u0416\"");
    EXPECT_EQ(JsonString(std::wstring(1, L'\0')), L"\"\\u0000\"");
}

TEST(JsonString, EscapesSurrogatesWithoutAPartner) {
    const wchar_t high = 0xD83D;
    const wchar_t low = 0xDE00;
    EXPECT_EQ(JsonString({high, low}), (std::wstring{L'"', high, low, L'"'}));
    EXPECT_EQ(JsonString({low, high}), L"\"\\uDE00\\uD83D\"");
    EXPECT_EQ(JsonString({high, L'x'}), L"\"\\uD83Dx\"");
}

TEST(OutcomeJson, HoldsAllOfACall) {
    halvard_runner::Arguments arguments;
    arguments.action = L"BlockLaunch";
    arguments.properties = {{L"B", L"\"2\""}, {L"A", L""}};
    Outcome outcome = Returned(1603);
    outcome.messages = {{kLog, L"one"}, {kError, L"two"}, {kLog, L"three"}};
    outcome.standardOutput = {L"a", L""};
    outcome.standardError = {L"\"b\""};
    EXPECT_EQ(OutcomeJson(arguments, L"c:\\a.dll", outcome),
              L"{\"action\": \"BlockLaunch\", \"dll\": \"c:\\\\a.dll\", "
              L"\"properties\": {\"B\": \"\\\"2\\\"\", \"A\": \"\"}, "
              L"\"log\": [\"one\", \"three\"], "
              L"\"messages\": [{\"kind\": \"error\", \"type\": 16777232, \"text\": \"two\"}], "
              L"\"standard_output\": [\"a\", \"\"], \"standard_error\": [\"\\\"b\\\"\"], "
              L"\"result\": 1603, \"result_name\": \"ERROR_INSTALL_FAILURE\", "
              L"\"if_checked\": \"fails the installation\", "
              L"\"exception\": null, \"milliseconds\": 12.3, \"exit_code\": 1}\n");
}

TEST(OutcomeJson, HasNullForWhatIsNotKnown) {
    EXPECT_EQ(OutcomeJson({}, L"", Left({L"abort", L"", std::nullopt, L"", L""})),
              L"{\"action\": \"\", \"dll\": \"\", \"properties\": {}, \"log\": [], "
              L"\"messages\": [], \"standard_output\": [], \"standard_error\": [], "
              L"\"result\": null, \"result_name\": null, \"if_checked\": null, "
              L"\"exception\": {\"kind\": \"abort\", \"type\": null, \"code\": null, "
              L"\"category\": null, \"text\": \"\"}, \"milliseconds\": 0.0, \"exit_code\": 7}\n");
}

TEST(VersionJson, TellsProgramAndVersion) {
    EXPECT_EQ(halvard_runner::VersionJson(L"1.2.3"),
              L"{\"program\": \"halvard_run\", \"version\": \"1.2.3\", \"exit_code\": 0}\n");
}

TEST(ErrorJson, HoldsTextAndExitCode) {
    EXPECT_EQ(halvard_runner::ErrorJson(L"no \"X\"", 5),
              L"{\"error\": \"no \\\"X\\\"\", \"exit_code\": 5}\n");
}
