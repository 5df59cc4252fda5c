#include "trace/event.h"

#include "json.h"
#include "text.h"

#include <algorithm>

namespace halvard_runner {

namespace {

constexpr std::size_t kGroupWidth = 12;
constexpr std::size_t kTimeWidth = 9;
constexpr std::size_t kWhatWidth = 18;
constexpr std::size_t kResultWidth = 16;
// Codes of Windows.
constexpr std::int64_t kFileNotFound = 2;
constexpr std::int64_t kPathNotFound = 3;

const wchar_t* GroupName(TraceGroup group) {
    switch (group) {
    case TraceGroup::Program:
        return L"program";
    case TraceGroup::Registry:
        return L"registry";
    case TraceGroup::File:
        return L"file";
    case TraceGroup::Service:
        return L"service";
    case TraceGroup::Task:
        return L"task";
    case TraceGroup::Property:
        return L"property";
    case TraceGroup::Lost:
        break;
    }
    return L"lost";
}

const wchar_t* ResultName(TraceResult result) {
    switch (result) {
    case TraceResult::Done:
        return L"done";
    case TraceResult::Failed:
        return L"failed";
    case TraceResult::NotMade:
        break;
    }
    return L"not made";
}

/// Results of COM and of the kernel as they are usually written.
std::wstring CodeText(std::int64_t code) {
    return code > 0xFFFF || code < 0
               ? L"0x" + HexadecimalDigits(static_cast<std::uint32_t>(code), 8)
               : std::to_wstring(code);
}

std::wstring ResultText(const TraceEvent& event) {
    if (const std::wstring* const answer = FindDetail(event, trace_words::kAnswer)) {
        return *answer;
    }
    if (event.what == trace_words::kEnds && event.code) {
        return (event.result == TraceResult::Failed ? L"FAILED exit " : L"exit code ") +
               CodeText(*event.code);
    }
    switch (event.result) {
    case TraceResult::Done:
        return event.group == TraceGroup::Lost ? L"LOST" : L"ok";
    case TraceResult::Failed:
        return event.code ? L"FAILED " + CodeText(*event.code) : L"FAILED";
    case TraceResult::NotMade:
        break;
    }
    return L"not made";
}

/// In one line, so that an event is one.
std::wstring InOneLine(const std::wstring& text) {
    std::wstring line;
    for (const wchar_t c : text.substr(0, text.find_last_not_of(L"\r\n") + 1)) {
        line += c == L'\r' || c == L'\n' || c == L'\t' ? L' ' : c;
    }
    return line;
}

/// A detail in the line of its event.
std::wstring DetailText(const std::wstring& name, const std::wstring& text) {
    if (name == trace_words::kMeans) {
        return L" (" + InOneLine(text) + L")";
    }
    if (name == trace_words::kData) {
        return L" = " + InOneLine(text);
    }
    const bool isKnown = name == trace_words::kAnswer || name == trace_words::kPrinted ||
                         (name == trace_words::kType && text == L"REG_SZ");
    return isKnown ? L"" : L"; " + name + L": " + InOneLine(text);
}

std::wstring Padded(std::wstring text, std::size_t width) {
    text += L' ';
    if (text.size() < width) {
        text.resize(width, L' ');
    }
    return text;
}

std::vector<std::wstring> LinesOf(const std::wstring& text) {
    std::vector<std::wstring> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find(L'\n', start), text.size());
        lines.push_back(InOneLine(text.substr(start, end - start)));
        start = end + 1;
    }
    return lines;
}

} // namespace

const std::wstring* FindDetail(const TraceEvent& event, const std::wstring& name) {
    for (const auto& [each, text] : event.details) {
        if (each == name) {
            return &text;
        }
    }
    return nullptr;
}

bool MeansMissing(std::int64_t code) {
    return code == kFileNotFound || code == kPathNotFound;
}

std::wstring ShownPath(const std::wstring& path) {
    if (path.rfind(L"\\\\?\\UNC\\", 0) == 0) {
        return L"\\\\" + path.substr(8);
    }
    return path.rfind(L"\\\\?\\", 0) == 0 ? path.substr(4) : path;
}

std::wstring TraceLines(const TraceEvent& event) {
    const std::wstring time = Tenths(event.milliseconds);
    std::wstring line = Padded(GroupName(event.group), kGroupWidth) +
                        std::wstring(kTimeWidth - std::min(kTimeWidth, time.size()), L' ') + time +
                        L" ms  " + Padded(event.what, kWhatWidth) +
                        Padded(ResultText(event), kResultWidth) + InOneLine(event.target);
    for (const auto& [name, text] : event.details) {
        line += DetailText(name, text);
    }
    line += L"\n";
    if (const std::wstring* const printed = FindDetail(event, trace_words::kPrinted)) {
        for (const std::wstring& each : LinesOf(*printed)) {
            line += Padded(L"", kGroupWidth) + L"    printed: " + each + L"\n";
        }
    }
    return line;
}

std::wstring TraceJson(const TraceEvent& event) {
    JsonMembers details;
    for (const auto& [name, text] : event.details) {
        details.emplace_back(name, JsonString(text));
    }
    return JsonObject({
        {L"milliseconds", Tenths(event.milliseconds)},
        {L"group", JsonString(GroupName(event.group))},
        {L"event", JsonString(event.what)},
        {L"target", JsonString(event.target)},
        {L"result", JsonString(ResultName(event.result))},
        {L"code", event.code ? std::to_wstring(*event.code) : L"null"},
        {L"details", JsonObject(details)},
    });
}

} // namespace halvard_runner
