#include "call_messages.h"

#include <gtest/gtest.h>

using halvard_runner::CallReport;
using halvard_runner::CallRequest;
using halvard_runner::CallStage;
using halvard_runner::DecodedRequest;
using halvard_runner::Encoded;
using halvard_runner::EscapedException;
using halvard_runner::ExitCode;
using halvard_runner::Message;
using halvard_runner::Outcome;
using halvard_runner::Refusal;
using halvard_runner::RefusalAt;
using halvard_runner::ReportReader;
using halvard_runner::TraceEvent;
using halvard_runner::TraceGroup;
using halvard_runner::TraceMode;
using halvard_runner::TraceResult;

namespace {

CallReport Read(const std::string& bytes) {
    ReportReader reader;
    reader.Add(bytes);
    const std::optional<CallReport> report = reader.Next();
    EXPECT_TRUE(report.has_value());
    EXPECT_FALSE(reader.Next().has_value());
    return report.value_or(Message{});
}

} // namespace

TEST(CallRequest, ComesAsItWent) {
    const CallRequest request = {L"Action",
                                 {{L"A", L"1;\"\\\x0416"}, {L"B", L""}},
                                 L"c:\\a.dll",
                                 L"c:\\p",
                                 TraceMode::DryRun};
    const std::optional<CallRequest> read = DecodedRequest(Encoded(request));
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->action, request.action);
    EXPECT_EQ(read->properties, request.properties);
    EXPECT_EQ(read->dll, request.dll);
    EXPECT_EQ(read->package, request.package);
    EXPECT_EQ(read->trace, request.trace);
}

TEST(CallRequest, IsRefusedWhereBytesLackOrAreTooMany) {
    const std::string bytes = Encoded(CallRequest{L"Action", {{L"A", L"1"}}, L"", L"p"});
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        EXPECT_FALSE(DecodedRequest(bytes.substr(0, length)).has_value()) << length;
    }
    EXPECT_FALSE(DecodedRequest(bytes + "x").has_value());
    EXPECT_FALSE(DecodedRequest(std::string(64, '\xFF')).has_value());
}

TEST(CallReport, ComesAsItWent) {
    EXPECT_EQ(std::get<CallStage>(Read(Encoded(CallStage::Found))), CallStage::Found);

    const auto message = std::get<Message>(Read(Encoded(Message{0x04000000, L"text"})));
    EXPECT_EQ(message.type, 0x04000000U);
    EXPECT_EQ(message.text, L"text");

    const auto refusal = std::get<Refusal>(Read(Encoded(Refusal{ExitCode::NoLibrary, L"why"})));
    EXPECT_EQ(refusal.code, ExitCode::NoLibrary);
    EXPECT_EQ(refusal.text, L"why");

    Outcome returned;
    returned.result = 1603;
    returned.milliseconds = 12.345;
    const auto result = std::get<Outcome>(Read(Encoded(returned)));
    EXPECT_EQ(result.result, 1603U);
    EXPECT_DOUBLE_EQ(result.milliseconds, 12.345);
    EXPECT_FALSE(result.exception.has_value());

    Outcome left;
    left.exception = EscapedException{L"kind", L"type", -7, L"own", L"why"};
    const auto outcome = std::get<Outcome>(Read(Encoded(left)));
    EXPECT_FALSE(outcome.result.has_value());
    ASSERT_TRUE(outcome.exception.has_value());
    EXPECT_EQ(outcome.exception->kind, L"kind");
    EXPECT_EQ(outcome.exception->type, L"type");
    EXPECT_EQ(outcome.exception->code, -7);
    EXPECT_EQ(outcome.exception->category, L"own");
    EXPECT_EQ(outcome.exception->text, L"why");

    const TraceEvent sent = {1.5,
                             TraceGroup::Service,
                             L"opens",
                             L"UPAL",
                             TraceResult::Failed,
                             -7,
                             {{L"means", L"why"}, {L"", L""}}};
    const auto event = std::get<TraceEvent>(Read(Encoded(sent)));
    EXPECT_DOUBLE_EQ(event.milliseconds, 1.5);
    EXPECT_EQ(event.group, sent.group);
    EXPECT_EQ(event.what, sent.what);
    EXPECT_EQ(event.target, sent.target);
    EXPECT_EQ(event.result, sent.result);
    EXPECT_EQ(event.code, sent.code);
    EXPECT_EQ(event.details, sent.details);
    EXPECT_FALSE(std::get<TraceEvent>(Read(Encoded(TraceEvent{}))).code.has_value());

    left.exception->code.reset();
    EXPECT_FALSE(std::get<Outcome>(Read(Encoded(left))).exception->code.has_value());
}

TEST(RefusalAt, TellsTheFaultOfEachStage) {
    const EscapedException end = halvard_runner::EndedProcess(10);
    for (const CallStage own : {CallStage::Begun, CallStage::Found}) {
        const std::optional<Refusal> refusal = RefusalAt(own, L"c:\\a.dll", end);
        ASSERT_TRUE(refusal.has_value());
        EXPECT_EQ(refusal->code, ExitCode::RunnerFailed);
        EXPECT_EQ(refusal->text,
                  L"halvard_run itself failed before the call: ended process, code 10");
    }
    const std::optional<Refusal> loading = RefusalAt(CallStage::Loads, L"c:\\a.dll", end);
    ASSERT_TRUE(loading.has_value());
    EXPECT_EQ(loading->code, ExitCode::NoLibrary);
    EXPECT_EQ(loading->text, L"c:\\a.dll ended the process that loaded it: ended process, code 10");
    EXPECT_FALSE(RefusalAt(CallStage::Calls, L"c:\\a.dll", end).has_value());
}

TEST(ReportReader, GivesWholeReportsOnly) {
    const std::string bytes = Encoded(Message{1, L"one"}) + Encoded(Message{2, L"two"});
    ReportReader reader;
    std::vector<std::uint32_t> types;
    for (const char byte : bytes) {
        reader.Add(std::string(1, byte));
        while (const std::optional<CallReport> report = reader.Next()) {
            types.push_back(std::get<Message>(*report).type);
        }
    }
    EXPECT_EQ(types, (std::vector<std::uint32_t>{1, 2}));
}

TEST(ReportReader, GivesNothingForBytesThatAreNoReport) {
    ReportReader reader;
    reader.Add(std::string("\x01\x00\x00\x00\x63", 5));
    EXPECT_FALSE(reader.Next().has_value());
    reader.Add(std::string("\x08\x00\x00\x00\x63\x00\x00\x00\x00\x00\x00\x00", 12));
    EXPECT_FALSE(reader.Next().has_value());
    reader.Add(Encoded(CallStage::Found));
    EXPECT_TRUE(reader.Next().has_value());
}
