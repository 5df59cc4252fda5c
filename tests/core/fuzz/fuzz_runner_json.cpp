#include "json_reading.h"

#include "action_page.h"
#include "report.h"

#include <cmath>
#include <iterator>

namespace {

using halvard_runner::Outcome;
using halvard_tests::Json;
using halvard_tests::Require;
using halvard_tests::Texts;

// What is expected is written down here once more, and not asked of the runner.
struct Result {
    std::uint32_t number;
    std::wstring name;
    std::wstring effect;
};

const Result kResults[] = {
    {0, L"ERROR_SUCCESS", L"goes on"},
    {259, L"ERROR_NO_MORE_ITEMS", L"skips the rest of the sequence, without an error"},
    {1602, L"ERROR_INSTALL_USEREXIT", L"ends the installation as cancelled"},
    {1603, L"ERROR_INSTALL_FAILURE", L"fails the installation"},
};

const Texts kMessageKinds = {
    L"fatal exit",   L"error",        L"warning",        L"user",
    L"log",          L"files in use", L"resolve source", L"out of disk space",
    L"action start", L"action data",  L"progress",       L"common data",
    L"other",        L"other",        L"other",          L"other",
};

// Mostly one that has a name.
Result ResultOf(std::uint32_t seed) {
    const std::size_t index = seed / 3 % (std::size(kResults) + 1);
    return index < std::size(kResults) ? kResults[index]
                                       : Result{seed | 0x80000000U, L"", L"fails the installation"};
}

std::wstring TextAt(const Texts& texts, std::size_t index) {
    return index < texts.size() ? texts[index] : L"";
}

// One line, and no surrogate without its partner: it can be written in UTF-8 and read line by line.
void RequireWritable(const std::wstring& text) {
    Require(!text.empty() && text.find(L'\n') == text.size() - 1);
    for (std::size_t index = 0; index < text.size(); ++index) {
        const unsigned kind = static_cast<unsigned>(text[index]) >> 10U;
        const bool isHigh = kind == 0xD800U >> 10U;
        Require(kind != 0xDC00U >> 10U);
        if (isHigh) {
            Require(static_cast<unsigned>(text[++index]) >> 10U == 0xDC00U >> 10U);
        }
    }
}

Json Read(const std::wstring& text) {
    RequireWritable(text);
    std::optional<Json> json = halvard_tests::ReadJson(text);
    Require(json.has_value());
    return *json;
}

void RequireNames(const Json& object, const Texts& names) {
    Require(object.kind == Json::Object && object.names == names &&
            object.items.size() == names.size());
}

void RequireText(const Json& json, const std::wstring& text) {
    Require(json.kind == Json::String && json.text == text);
}

void RequireTextOrNull(const Json& json, const std::wstring& text) {
    Require(text.empty() ? json.kind == Json::Null
                         : json.kind == Json::String && json.text == text);
}

void RequireTexts(const Json& json, const Texts& texts) {
    Require(json.kind == Json::Array && json.items.size() == texts.size());
    for (std::size_t index = 0; index < texts.size(); ++index) {
        RequireText(json.items[index], texts[index]);
    }
}

void RequireNumber(const Json& json, std::int64_t number) {
    Require(json.kind == Json::Number && json.text == std::to_wstring(number));
}

halvard_runner::EscapedException ExceptionOf(const Texts& texts, std::uint32_t seed) {
    halvard_runner::EscapedException exception = {
        TextAt(texts, 1), TextAt(texts, 2), {}, TextAt(texts, 3), TextAt(texts, 4)};
    if (seed % 2 == 0) {
        exception.code = static_cast<std::int64_t>(seed) - 0x40000000;
    }
    return exception;
}

void CheckException(const Json& json, const Outcome& outcome) {
    if (!outcome.exception) {
        Require(json.kind == Json::Null);
        return;
    }
    RequireNames(json, {L"kind", L"type", L"code", L"category", L"text"});
    RequireText(json.items[0], outcome.exception->kind);
    RequireTextOrNull(json.items[1], outcome.exception->type);
    if (outcome.exception->code) {
        RequireNumber(json.items[2], *outcome.exception->code);
    } else {
        Require(json.items[2].kind == Json::Null);
    }
    RequireTextOrNull(json.items[3], outcome.exception->category);
    RequireText(json.items[4], outcome.exception->text);
}

// Lines of the log stand apart from other messages, each in the order of their coming.
void CheckMessages(const Json& log, const Json& others, const Outcome& outcome) {
    Require(log.kind == Json::Array && others.kind == Json::Array);
    std::size_t line = 0;
    std::size_t other = 0;
    for (const halvard_runner::Message& message : outcome.messages) {
        if ((message.type & 0xFF000000U) == 0x04000000U) {
            Require(line < log.items.size());
            RequireText(log.items[line++], message.text);
            continue;
        }
        Require(other < others.items.size());
        const Json& json = others.items[other++];
        RequireNames(json, {L"kind", L"type", L"text"});
        RequireText(json.items[0], kMessageKinds[message.type >> 24U]);
        RequireNumber(json.items[1], message.type);
        RequireText(json.items[2], message.text);
    }
    Require(line == log.items.size() && other == others.items.size());
}

void CheckOutcome(const Texts& texts, std::uint32_t seed) {
    halvard_runner::Arguments arguments;
    arguments.action = TextAt(texts, 0);
    Outcome outcome;
    const Result expected = ResultOf(seed);
    if (seed % 3 != 0) {
        outcome.result = expected.number;
    } else {
        outcome.exception = ExceptionOf(texts, seed);
    }
    outcome.milliseconds = static_cast<double>(seed % 1000000) / 64;
    for (std::size_t index = 0; index < texts.size(); ++index) {
        arguments.properties.push_back({L"P" + std::to_wstring(index), texts[index]});
        const std::uint32_t kind = (seed >> index % 8U) % 16;
        outcome.messages.push_back({kind << 24U | (seed & 0x40U), texts[index]});
        (kind % 2 == 0 ? outcome.standardOutput : outcome.standardError).push_back(texts[index]);
    }

    const Json json = Read(OutcomeJson(arguments, TextAt(texts, 5), outcome));
    RequireNames(json, {L"action", L"dll", L"properties", L"log", L"messages", L"standard_output",
                        L"standard_error", L"result", L"result_name", L"if_checked", L"exception",
                        L"milliseconds", L"exit_code"});
    RequireText(json.items[0], arguments.action);
    RequireText(json.items[1], TextAt(texts, 5));
    const Json& properties = json.items[2];
    Require(properties.kind == Json::Object && properties.items.size() == texts.size());
    for (std::size_t index = 0; index < texts.size(); ++index) {
        Require(properties.names[index] == L"P" + std::to_wstring(index));
        RequireText(properties.items[index], texts[index]);
    }
    CheckMessages(json.items[3], json.items[4], outcome);
    RequireTexts(json.items[5], outcome.standardOutput);
    RequireTexts(json.items[6], outcome.standardError);
    if (outcome.result) {
        RequireNumber(json.items[7], expected.number);
    } else {
        Require(json.items[7].kind == Json::Null);
    }
    RequireTextOrNull(json.items[8], outcome.result ? expected.name : L"");
    RequireTextOrNull(json.items[9], outcome.result ? expected.effect : L"");
    CheckException(json.items[10], outcome);
    Require(json.items[11].kind == Json::Number);
    Require(std::abs(std::stod(json.items[11].text) - outcome.milliseconds) <= 0.0501);
    RequireNumber(json.items[12], !outcome.result ? 7 : expected.number == 0 ? 0 : 1);
}

void CheckOthers(const Texts& texts) {
    const Json list = Read(halvard_runner::ListJson(TextAt(texts, 0), texts));
    RequireNames(list, {L"dll", L"actions", L"exit_code"});
    RequireText(list.items[0], TextAt(texts, 0));
    Require(list.items[1].kind == Json::Array && list.items[1].items.size() == texts.size());
    for (std::size_t index = 0; index < texts.size(); ++index) {
        const Json& action = list.items[1].items[index];
        const bool isKnown = halvard_runner::FindFacts(texts[index]) != nullptr;
        Require(action.kind == Json::Object && action.names[0] == L"name");
        RequireText(action.items[0], texts[index]);
        Require((action.items.size() > 1) == isKnown);
    }
    RequireNumber(list.items[2], 0);
    const Json error = Read(halvard_runner::ErrorJson(TextAt(texts, 0), 6));
    RequireNames(error, {L"error", L"exit_code"});
    RequireText(error.items[0], TextAt(texts, 0));
    RequireNumber(error.items[1], 6);
}

// For a reader: every line of the text in its order, behind its label or as much white space.
void CheckLines(const std::wstring& text) {
    const std::wstring shown = halvard_runner::MessageLines({0x04000000, text});
    const std::size_t end = text.find_last_not_of(L"\r\n") + 1;
    std::wstring expected;
    std::wstring label = L"log         ";
    for (std::wstring rest = text.substr(0, end) + L"\n"; !rest.empty();) {
        auto [line, behind] = halvard_tests::CutAtLineFeed(rest);
        line.erase(line.find_last_not_of(L'\r') + 1);
        expected += line.empty() ? label.substr(0, label.find_last_not_of(L' ') + 1) : label + line;
        expected += L'\n';
        label.assign(label.size(), L' ');
        rest = behind;
    }
    Require(shown == expected);
}

} // namespace

// Four bytes for numbers, the last of which chooses what is written, then at most six texts, cut at
// unit separators (31).
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size < 4) {
        return 0;
    }
    const std::uint32_t seed = bytes[0] | static_cast<std::uint32_t>(bytes[1]) << 8U |
                               static_cast<std::uint32_t>(bytes[2]) << 16U |
                               static_cast<std::uint32_t>(bytes[3]) << 24U;
    static const Texts words = {
        L"\"",      L"\\",   L"\r\n", {wchar_t{0xD83D}, wchar_t{0xDE00}}, {wchar_t{0xDBFF}},
        L"\\u0041", L"\x1F",
    };
    Texts texts(1);
    for (const wchar_t character : halvard_tests::Text(bytes + 4, size - 4, words)) {
        if (character == 31 && texts.size() < 6) {
            texts.emplace_back();
        } else {
            texts.back() += character;
        }
    }
    switch (bytes[3] % 4) {
    case 1:
        CheckOthers(texts);
        break;
    case 2:
        CheckLines(texts[0]);
        break;
    default:
        CheckOutcome(texts, seed);
    }
    return 0;
}
