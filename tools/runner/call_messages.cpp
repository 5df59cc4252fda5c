#include "call_messages.h"

#include <cmath>
#include <cstdint>

namespace halvard_runner {

namespace {

constexpr std::size_t kLengthSize = 4;
constexpr double kUnitsOfAMillisecond = 1000.0;

// The order of the alternatives of CallReport.
enum class Kind : std::uint64_t { Stage, Message, Refusal, Outcome, Event };

class Writer {
public:
    void Number(std::uint64_t number, std::size_t size = 8) {
        for (std::size_t i = 0; i < size; ++i) {
            bytes_ += static_cast<char>(number >> (8 * i) & 0xFF);
        }
    }

    void Text(const std::wstring& text) {
        Number(text.size(), kLengthSize);
        for (const wchar_t c : text) {
            Number(static_cast<std::uint32_t>(c), 4);
        }
    }

    [[nodiscard]] const std::string& Bytes() const { return bytes_; }

private:
    std::string bytes_;
};

/// After a read past the end everything reads as nothing, and Whole() says so.
class Reader {
public:
    explicit Reader(const std::string& bytes) : bytes_(bytes) {}

    std::uint64_t Number(std::size_t size = 8) {
        if (bytes_.size() - position_ < size) {
            whole_ = false;
            position_ = bytes_.size();
            return 0;
        }
        std::uint64_t number = 0;
        for (std::size_t i = 0; i < size; ++i) {
            number |= std::uint64_t{static_cast<unsigned char>(bytes_[position_++])} << (8 * i);
        }
        return number;
    }

    std::wstring Text() {
        const std::uint64_t length = Number(kLengthSize);
        std::wstring text;
        for (std::uint64_t i = 0; i < length && whole_; ++i) {
            text += static_cast<wchar_t>(Number(4));
        }
        return text;
    }

    [[nodiscard]] bool Whole() const { return whole_ && position_ == bytes_.size(); }

private:
    const std::string& bytes_;
    std::size_t position_ = 0;
    bool whole_ = true;
};

void WriteException(Writer& writer, const EscapedException& exception) {
    writer.Text(exception.kind);
    writer.Text(exception.type);
    writer.Number(exception.code.has_value() ? 1 : 0);
    writer.Number(static_cast<std::uint64_t>(exception.code.value_or(0)));
    writer.Text(exception.category);
    writer.Text(exception.text);
}

EscapedException ReadException(Reader& reader) {
    EscapedException exception;
    exception.kind = reader.Text();
    exception.type = reader.Text();
    const bool hasCode = reader.Number() != 0;
    const auto code = static_cast<std::int64_t>(reader.Number());
    if (hasCode) {
        exception.code = code;
    }
    exception.category = reader.Text();
    exception.text = reader.Text();
    return exception;
}

void WriteOutcome(Writer& writer, const Outcome& outcome) {
    writer.Number(outcome.result.has_value() ? 1 : 0);
    writer.Number(outcome.result.value_or(0));
    writer.Number(
        static_cast<std::uint64_t>(std::llround(outcome.milliseconds * kUnitsOfAMillisecond)));
    writer.Number(outcome.exception.has_value() ? 1 : 0);
    WriteException(writer, outcome.exception.value_or(EscapedException{}));
}

Outcome ReadOutcome(Reader& reader) {
    Outcome outcome;
    const bool hasResult = reader.Number() != 0;
    const auto result = static_cast<std::uint32_t>(reader.Number());
    if (hasResult) {
        outcome.result = result;
    }
    outcome.milliseconds = static_cast<double>(reader.Number()) / kUnitsOfAMillisecond;
    const bool hasException = reader.Number() != 0;
    const EscapedException exception = ReadException(reader);
    if (hasException) {
        outcome.exception = exception;
    }
    return outcome;
}

void WriteEvent(Writer& writer, const TraceEvent& event) {
    writer.Number(
        static_cast<std::uint64_t>(std::llround(event.milliseconds * kUnitsOfAMillisecond)));
    writer.Number(static_cast<std::uint64_t>(event.group));
    writer.Text(event.what);
    writer.Text(event.target);
    writer.Number(static_cast<std::uint64_t>(event.result));
    writer.Number(event.code.has_value() ? 1 : 0);
    writer.Number(static_cast<std::uint64_t>(event.code.value_or(0)));
    writer.Number(event.details.size());
    for (const auto& [name, text] : event.details) {
        writer.Text(name);
        writer.Text(text);
    }
}

TraceEvent ReadEvent(Reader& reader, std::size_t bytes) {
    TraceEvent event;
    event.milliseconds = static_cast<double>(reader.Number()) / kUnitsOfAMillisecond;
    event.group = static_cast<TraceGroup>(reader.Number());
    event.what = reader.Text();
    event.target = reader.Text();
    event.result = static_cast<TraceResult>(reader.Number());
    const bool hasCode = reader.Number() != 0;
    const auto code = static_cast<std::int64_t>(reader.Number());
    if (hasCode) {
        event.code = code;
    }
    const std::uint64_t count = reader.Number();
    // Each has eight bytes and more.
    for (std::uint64_t i = 0; i < count && i < bytes; ++i) {
        std::wstring name = reader.Text();
        event.details.emplace_back(std::move(name), reader.Text());
    }
    return event;
}

void WriteReport(Writer& writer, const CallReport& report) {
    writer.Number(report.index());
    if (const auto* const stage = std::get_if<CallStage>(&report)) {
        writer.Number(static_cast<std::uint64_t>(*stage));
    } else if (const auto* const message = std::get_if<Message>(&report)) {
        writer.Number(message->type);
        writer.Text(message->text);
    } else if (const auto* const refusal = std::get_if<Refusal>(&report)) {
        writer.Number(static_cast<std::uint64_t>(refusal->code));
        writer.Text(refusal->text);
    } else if (const auto* const outcome = std::get_if<Outcome>(&report)) {
        WriteOutcome(writer, *outcome);
    } else if (const auto* const event = std::get_if<TraceEvent>(&report)) {
        WriteEvent(writer, *event);
    }
}

std::optional<CallReport> ReadReport(Reader& reader, std::size_t bytes) {
    switch (static_cast<Kind>(reader.Number())) {
    case Kind::Stage:
        return static_cast<CallStage>(reader.Number());
    case Kind::Message: {
        const auto type = static_cast<std::uint32_t>(reader.Number());
        return Message{type, reader.Text()};
    }
    case Kind::Refusal: {
        const auto code = static_cast<ExitCode>(reader.Number());
        return Refusal{code, reader.Text()};
    }
    case Kind::Outcome:
        return ReadOutcome(reader);
    case Kind::Event:
        return ReadEvent(reader, bytes);
    }
    return std::nullopt;
}

} // namespace

std::optional<Refusal> RefusalAt(CallStage stage, const std::wstring& library,
                                 const EscapedException& end) {
    switch (stage) {
    case CallStage::Calls:
        return std::nullopt;
    case CallStage::Loads:
        return Refusal{ExitCode::NoLibrary,
                       library + L" ended the process that loaded it: " + ExceptionText(end)};
    case CallStage::Begun:
    case CallStage::Found:
        break;
    }
    return Refusal{ExitCode::RunnerFailed,
                   L"halvard_run itself failed before the call: " + ExceptionText(end)};
}

std::string Encoded(const CallRequest& request) {
    Writer writer;
    writer.Text(request.action);
    writer.Text(request.dll);
    writer.Text(request.package);
    writer.Number(request.properties.size());
    for (const Property& property : request.properties) {
        writer.Text(property.name);
        writer.Text(property.value);
    }
    writer.Number(static_cast<std::uint64_t>(request.trace));
    return writer.Bytes();
}

std::optional<CallRequest> DecodedRequest(const std::string& bytes) {
    Reader reader(bytes);
    CallRequest request;
    request.action = reader.Text();
    request.dll = reader.Text();
    request.package = reader.Text();
    const std::uint64_t count = reader.Number();
    // Each has eight bytes and more.
    for (std::uint64_t i = 0; i < count && i < bytes.size(); ++i) {
        Property property;
        property.name = reader.Text();
        property.value = reader.Text();
        request.properties.push_back(property);
    }
    request.trace = static_cast<TraceMode>(reader.Number());
    return reader.Whole() ? std::optional<CallRequest>(request) : std::nullopt;
}

std::string Encoded(const CallReport& report) {
    Writer content;
    WriteReport(content, report);
    Writer whole;
    whole.Number(content.Bytes().size(), kLengthSize);
    return whole.Bytes() + content.Bytes();
}

std::optional<CallReport> ReportReader::Next() {
    if (bytes_.size() < kLengthSize) {
        return std::nullopt;
    }
    const std::string head = bytes_.substr(0, kLengthSize);
    const auto length = static_cast<std::size_t>(Reader(head).Number(kLengthSize));
    if (bytes_.size() - kLengthSize < length) {
        return std::nullopt;
    }
    const std::string content = bytes_.substr(kLengthSize, length);
    bytes_.erase(0, kLengthSize + length);
    Reader reader(content);
    std::optional<CallReport> report = ReadReport(reader, content.size());
    return reader.Whole() ? report : std::nullopt;
}

} // namespace halvard_runner
