#include "report.h"

#include "names.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace halvard_runner {

namespace {

std::wstring Hexadecimal(std::uint64_t number, std::size_t leastDigits) {
    std::wstring text;
    for (; number > 0 || text.size() < leastDigits; number /= 16) {
        text.insert(text.begin(), L"0123456789ABCDEF"[number % 16]);
    }
    return text;
}

constexpr std::size_t kLabelWidth = 12;

using Members = std::vector<std::pair<std::wstring, std::wstring>>;

bool IsHighSurrogate(wchar_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}

bool IsLowSurrogate(wchar_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

std::wstring Escaped(wchar_t c) {
    return L"\\u" + Hexadecimal(static_cast<std::uint32_t>(c), 4);
}

std::wstring Labelled(std::wstring label, const std::wstring& text) {
    label.resize(std::max(kLabelWidth, label.size() + 2), L' ');
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

std::wstring Milliseconds(double milliseconds) {
    const long long tenths = std::llround(milliseconds * 10);
    return std::to_wstring(tenths / 10) + L"." + std::to_wstring(tenths % 10);
}

std::wstring Object(const Members& members) {
    std::wstring text;
    for (const auto& [name, value] : members) {
        text += text.empty() ? L"{" : L", ";
        text += JsonString(name) + L": " + value;
    }
    return text.empty() ? L"{}" : text + L"}";
}

template <typename Items, typename Text>
std::wstring Array(const Items& items, Text text) {
    std::wstring all;
    for (const auto& item : items) {
        all += all.empty() ? L"[" : L", ";
        all += text(item);
    }
    return all.empty() ? L"[]" : all + L"]";
}

std::wstring StringOrNull(const std::wstring& text) {
    return text.empty() ? L"null" : JsonString(text);
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
    return Object({
        {L"kind", JsonString(exception.kind)},
        {L"type", StringOrNull(exception.type)},
        {L"code", exception.code ? std::to_wstring(*exception.code) : L"null"},
        {L"category", StringOrNull(exception.category)},
        {L"text", JsonString(exception.text)},
    });
}

std::wstring ExceptionLines(const EscapedException& exception) {
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
    return Labelled(L"exception", what) +
           (exception.text.empty() ? L"" : Labelled(L"", exception.text));
}

} // namespace

std::wstring HexadecimalText(std::uint64_t number) {
    return L"0x" + Hexadecimal(number, 1);
}

ExitCode ExitCodeOf(const Outcome& outcome) {
    if (!outcome.result) {
        return ExitCode::Exception;
    }
    return *outcome.result == 0 ? ExitCode::Success : ExitCode::OtherResult;
}

std::wstring MessageLines(const Message& message) {
    return Labelled(MessageKind(message.type), message.text);
}

std::wstring EndLines(const Outcome& outcome) {
    std::wstring lines;
    if (outcome.exception) {
        lines += ExceptionLines(*outcome.exception);
    }
    if (outcome.result) {
        const wchar_t* const name = ResultName(*outcome.result);
        lines += Labelled(L"result", std::to_wstring(*outcome.result) + L" " +
                                         (name == nullptr ? L"(no code of the installer)" : name));
        lines += Labelled(L"if checked", ResultEffect(*outcome.result));
    }
    return lines + Labelled(L"duration", Milliseconds(outcome.milliseconds) + L" ms");
}

std::wstring JsonString(const std::wstring& text) {
    std::wstring quoted = L"\"";
    for (std::size_t i = 0; i < text.size(); ++i) {
        const wchar_t c = text[i];
        const bool pair = IsHighSurrogate(c) && i + 1 < text.size() && IsLowSurrogate(text[i + 1]);
        if (pair) {
            quoted += c;
            quoted += text[++i];
        } else if (c == L'"' || c == L'\\') {
            quoted += L'\\';
            quoted += c;
        } else if (c == L'\n') {
            quoted += L"\\n";
        } else if (c < 0x20 || IsHighSurrogate(c) || IsLowSurrogate(c)) {
            quoted += Escaped(c);
        } else {
            quoted += c;
        }
    }
    return quoted + L'"';
}

std::wstring OutcomeJson(const Arguments& arguments, const std::wstring& library,
                         const Outcome& outcome) {
    Members properties;
    for (const Property& property : arguments.properties) {
        properties.emplace_back(property.name, JsonString(property.value));
    }
    const wchar_t* const name = outcome.result ? ResultName(*outcome.result) : nullptr;
    const auto text = [](const Message& message) {
        return JsonString(message.text);
    };
    const auto whole = [](const Message& message) {
        return Object({{L"kind", JsonString(MessageKind(message.type))},
                       {L"type", std::to_wstring(message.type)},
                       {L"text", JsonString(message.text)}});
    };
    return Object({
               {L"action", JsonString(arguments.action)},
               {L"dll", JsonString(library)},
               {L"properties", Object(properties)},
               {L"log", Array(Chosen(outcome.messages, true), text)},
               {L"messages", Array(Chosen(outcome.messages, false), whole)},
               {L"result", outcome.result ? std::to_wstring(*outcome.result) : L"null"},
               {L"result_name", StringOrNull(name == nullptr ? L"" : name)},
               {L"exception", outcome.exception ? ExceptionJson(*outcome.exception) : L"null"},
               {L"milliseconds", Milliseconds(outcome.milliseconds)},
               {L"exit_code", std::to_wstring(static_cast<int>(ExitCodeOf(outcome)))},
           }) +
           L"\n";
}

std::wstring ListJson(const std::wstring& library, const std::vector<std::wstring>& actions) {
    return Object({{L"dll", JsonString(library)}, {L"actions", Array(actions, JsonString)}}) +
           L"\n";
}

std::wstring ErrorJson(const RunnerError& error) {
    return Object({{L"error", JsonString(error.Text())},
                   {L"exit_code", std::to_wstring(static_cast<int>(error.Code()))}}) +
           L"\n";
}

} // namespace halvard_runner
