#include "report.h"

#include "names.h"
#include "text.h"
#include "trace/dry_run.h"

#include <algorithm>

namespace halvard_runner {

namespace {

constexpr const wchar_t* kOverTheLimit = L"over the limit";

std::wstring Labelled(const std::wstring& name, const std::wstring& text) {
    std::wstring label = Padded(name);
    const std::wstring shown = text.substr(0, text.find_last_not_of(L"\r\n") + 1);
    std::wstring lines;
    std::size_t start = 0;
    while (start <= shown.size()) {
        const std::size_t end = std::min(shown.find(L'\n', start), shown.size());
        std::wstring line = shown.substr(start, end - start);
        line.resize(line.find_last_not_of(L'\r') + 1);
        lines += line.empty() ? label.substr(0, label.find_last_not_of(L' ') + 1) : label + line;
        lines += L'\n';
        label.assign(label.size(), L' ');
        start = end + 1;
    }
    return lines;
}

bool IsLogLine(const Message& message) {
    return std::wstring(MessageKind(message.type)) == L"log";
}

std::vector<Message> Chosen(const std::vector<Message>& messages, bool logLines) {
    std::vector<Message> chosen;
    for (const Message& message : messages) {
        if (IsLogLine(message) == logLines) {
            chosen.push_back(message);
        }
    }
    return chosen;
}

/// As codes of the system's are usually written: those of structured exceptions, and results of
/// COM, which are negative as error codes, in hexadecimal.
std::wstring CodeText(std::int64_t code) {
    return code > 0xFFFF || code < -0xFFFF ? HexadecimalText(static_cast<std::uint32_t>(code))
                                           : std::to_wstring(code);
}

std::wstring ExceptionJson(const EscapedException& exception) {
    return JsonObject({
        {L"kind", JsonString(exception.kind)},
        {L"type", JsonStringOrNull(exception.type)},
        {L"code", exception.code ? std::to_wstring(*exception.code) : L"null"},
        {L"category", JsonStringOrNull(exception.category)},
        {L"text", JsonString(exception.text)},
    });
}

/// Of a process that was ended by what nobody caught: codes of the system's errors, and those that
/// run-times and programs raise. -1 is none, for programs end with it.
bool IsCodeOfException(std::uint32_t code) {
    const std::uint32_t kind = code >> 28U;
    return kind == 0xC || kind == 0xE || StructuredExceptionName(code) != nullptr ||
           CompilerOfException(code) != nullptr;
}

} // namespace

std::wstring HexadecimalText(std::uint64_t number) {
    return L"0x" + HexadecimalDigits(number, 1);
}

ExitCode ExitCodeOf(const Outcome& outcome) {
    if (!outcome.result) {
        const bool overTheLimit = outcome.exception && outcome.exception->kind == kOverTheLimit;
        return overTheLimit ? ExitCode::OverTheLimit : ExitCode::Exception;
    }
    return *outcome.result == 0 ? ExitCode::Success : ExitCode::OtherResult;
}

EscapedException EndedProcess(std::uint32_t code) {
    EscapedException exception;
    exception.code = code;
    if (!IsCodeOfException(code)) {
        exception.kind = L"ended process";
        exception.text = L"the action ended the process that called it";
        return exception;
    }
    const wchar_t* const name = StructuredExceptionName(code);
    exception.kind = L"structured exception";
    exception.type = name == nullptr ? L"" : name;
    exception.text = L"it ended the process that called the action";
    return exception;
}

EscapedException OverTheLimit(std::uint32_t seconds) {
    EscapedException exception;
    exception.kind = kOverTheLimit;
    exception.text = L"the action did not end within " + std::to_wstring(seconds) +
                     L" s; it was ended, with all that it had started";
    return exception;
}

std::wstring StreamLine(Stream stream, const std::wstring& line) {
    return Labelled(stream == Stream::Output ? L"stdout" : L"stderr", line);
}

std::wstring ExceptionText(const EscapedException& exception) {
    std::wstring what = exception.kind;
    if (!exception.type.empty()) {
        what += L" " + exception.type;
    }
    if (exception.code) {
        what += L", code " + CodeText(*exception.code);
    }
    if (!exception.category.empty()) {
        what += L" (" + exception.category + L")";
    }
    return what;
}

std::wstring MessageLines(const Message& message) {
    return Labelled(MessageKind(message.type), message.text);
}

std::vector<std::wstring> LinesWithoutEvent(const Outcome& outcome) {
    std::vector<std::wstring> told;
    for (const TraceEvent& event : outcome.trace) {
        if (event.what == trace_words::kToStandardOutput) {
            told.push_back(event.target);
        }
    }
    std::vector<std::wstring> lines;
    for (const std::wstring& line : outcome.standardOutput) {
        const auto found = std::find(told.begin(), told.end(), line);
        if (found == told.end()) {
            lines.push_back(line);
        } else {
            told.erase(found);
        }
    }
    return lines;
}

std::wstring EndLines(const Outcome& outcome) {
    std::wstring lines;
    if (outcome.exception) {
        lines += Labelled(L"exception", ExceptionText(*outcome.exception));
        if (!outcome.exception->text.empty()) {
            lines += Labelled(L"", outcome.exception->text);
        }
    }
    if (outcome.result) {
        const wchar_t* const name = ResultName(*outcome.result);
        lines += Labelled(L"result", std::to_wstring(*outcome.result) + L" " +
                                         (name == nullptr ? L"(no code of the installer)" : name));
        lines += Labelled(L"if checked", ResultEffect(*outcome.result));
    }
    return lines + Labelled(L"duration", Tenths(outcome.milliseconds) + L" ms");
}

std::wstring OutcomeJson(const Arguments& arguments, const std::wstring& library,
                         const Outcome& outcome) {
    JsonMembers properties;
    for (const Property& property : arguments.properties) {
        properties.emplace_back(property.name, JsonString(property.value));
    }
    const wchar_t* const name = outcome.result ? ResultName(*outcome.result) : nullptr;
    const auto text = [](const Message& message) {
        return JsonString(message.text);
    };
    const auto whole = [](const Message& message) {
        return JsonObject({{L"kind", JsonString(MessageKind(message.type))},
                           {L"type", std::to_wstring(message.type)},
                           {L"text", JsonString(message.text)}});
    };
    JsonMembers members = {
        {L"action", JsonString(arguments.action)},
        {L"dll", JsonString(library)},
        {L"properties", JsonObject(properties)},
        {L"log", JsonArray(Chosen(outcome.messages, true), text)},
        {L"messages", JsonArray(Chosen(outcome.messages, false), whole)},
        {L"standard_output", JsonArray(outcome.standardOutput, JsonString)},
        {L"standard_error", JsonArray(outcome.standardError, JsonString)},
        {L"result", outcome.result ? std::to_wstring(*outcome.result) : L"null"},
        {L"result_name", JsonStringOrNull(name == nullptr ? L"" : name)},
        {L"if_checked", outcome.result ? JsonString(ResultEffect(*outcome.result)) : L"null"},
        {L"exception", outcome.exception ? ExceptionJson(*outcome.exception) : L"null"},
        {L"milliseconds", Tenths(outcome.milliseconds)},
    };
    if (arguments.trace != TraceMode::None) {
        members.emplace_back(L"trace", JsonArray(outcome.trace, TraceJson));
    }
    if (arguments.trace == TraceMode::DryRun) {
        members.emplace_back(L"dry_run", DryRunJson(DryRunOf(arguments.action, outcome.trace)));
    }
    members.emplace_back(L"exit_code", std::to_wstring(static_cast<int>(ExitCodeOf(outcome))));
    return JsonObject(members) + L"\n";
}

std::wstring VersionJson(const std::wstring& version) {
    return JsonObject({{L"program", JsonString(L"halvard_run")},
                       {L"version", JsonString(version)},
                       {L"exit_code", L"0"}}) +
           L"\n";
}

std::wstring ErrorJson(const std::wstring& error, int exitCode) {
    return JsonObject({{L"error", JsonString(error)}, {L"exit_code", std::to_wstring(exitCode)}}) +
           L"\n";
}

} // namespace halvard_runner
