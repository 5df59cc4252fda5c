#include "verify/fact.h"

#include "report.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <utility>

namespace halvard_runner {

namespace {

constexpr wchar_t kAlternative[] = L" or ";
constexpr wchar_t kFound = L'+';
constexpr wchar_t kNotFound = L'-';

bool IsOneOf(const std::wstring& outcome, const std::wstring& alternatives) {
    const std::size_t length = std::size(kAlternative) - 1;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = alternatives.find(kAlternative, start);
        if (alternatives.substr(start, end - start) == outcome) {
            return true;
        }
        if (end == std::wstring::npos) {
            return false;
        }
        start = end + length;
    }
}

const wchar_t* VerdictText(Verdict verdict) {
    switch (verdict) {
    case Verdict::Agrees:
        return L"agrees";
    case Verdict::Differs:
        return L"differs";
    case Verdict::NotAsked:
        break;
    }
    return L"cannot be asked";
}

bool IsAssumed(const FactText& text) {
    return std::wstring(text.basis) == L"assumed";
}

std::wstring BasisText(const FactText& text) {
    return IsAssumed(text) ? L"assumed" : L"documented: " + std::wstring(text.basis);
}

std::wstring SystemText(const AskedSystem& system) {
    std::wstring text = system.program + L" on Windows " + system.windows;
    if (!system.wine.empty()) {
        text += L", which is Wine " + system.wine;
    }
    return text + (system.elevated ? L", elevated" : L", not elevated") + L"\n";
}

constexpr std::size_t kColumns = 6;
using Row = std::array<std::wstring, kColumns>;

Row HeadRow() {
    return {L"Fact", L"Windows", L"Wine 8", L"Wine 10", L"Here", L"Verdict"};
}

Row RowOf(const FactResult& result) {
    const FactText& text = *result.text;
    return {text.name,
            text.windows,
            text.wine8,
            text.wine10,
            result.outcome.empty() ? L"-" : result.outcome,
            VerdictText(VerdictOf(result))};
}

std::array<std::size_t, kColumns> WidthsOf(const std::vector<Row>& rows) {
    std::array<std::size_t, kColumns> widths = {};
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < kColumns; ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    return widths;
}

std::wstring LineOf(const Row& row, const std::array<std::size_t, kColumns>& widths) {
    std::wstring line;
    for (std::size_t column = 0; column < kColumns; ++column) {
        std::wstring cell = row[column];
        cell.resize(widths[column] + 2, L' ');
        line += cell;
    }
    return line.substr(0, line.find_last_not_of(L' ') + 1) + L"\n";
}

std::wstring Explanation(const FactResult& result) {
    const FactText& text = *result.text;
    const bool asked = VerdictOf(result) != Verdict::NotAsked;
    return std::wstring(text.name) + L": " + text.about + L"\n    relied on by: " + text.relies +
           L"\n    Windows: " + text.windows + L" (" + BasisText(text) + L")\n" +
           (asked ? L"    here: " + result.outcome : L"    cannot be asked") +
           (result.why.empty() ? L"" : L" (" + result.why + L")") + L"\n";
}

std::size_t CountOf(const std::vector<FactResult>& results, Verdict verdict) {
    return static_cast<std::size_t>(
        std::count_if(results.begin(), results.end(), [verdict](const FactResult& result) {
            return VerdictOf(result) == verdict;
        }));
}

std::wstring ResultJson(const FactResult& result) {
    const FactText& text = *result.text;
    return JsonObject({
        {L"name", JsonString(text.name)},
        {L"subject", JsonString(text.subject)},
        {L"fact", JsonString(text.about)},
        {L"relied_on_by", JsonString(text.relies)},
        {L"windows", JsonString(text.windows)},
        {L"basis", JsonString(text.basis)},
        {L"wine8", JsonString(text.wine8)},
        {L"wine10", JsonString(text.wine10)},
        {L"here", JsonStringOrNull(result.outcome)},
        {L"why", JsonStringOrNull(result.why)},
        {L"verdict", JsonString(VerdictText(VerdictOf(result)))},
        {L"milliseconds", Tenths(result.milliseconds)},
    });
}

} // namespace

Verdict VerdictOf(const FactResult& result) {
    if (result.outcome.empty()) {
        return Verdict::NotAsked;
    }
    return IsOneOf(result.outcome, result.text->windows) ? Verdict::Agrees : Verdict::Differs;
}

std::wstring AnswerText(const FactResult& result) {
    return result.outcome.empty() ? kNotFound + result.why : kFound + result.outcome;
}

void TakeAnswer(const std::wstring& answer, FactResult& result) {
    if (answer.size() > 1 && answer.front() == kFound) {
        result.outcome = answer.substr(1);
    } else if (answer.size() > 1 && answer.front() == kNotFound) {
        result.why = answer.substr(1);
    } else {
        result.why = L"it told nothing";
    }
}

VerifyExit ExitOf(const std::vector<FactResult>& results, const std::vector<std::wstring>& left) {
    if (!left.empty()) {
        return VerifyExit::SomethingIsLeft;
    }
    if (CountOf(results, Verdict::NotAsked) == results.size()) {
        return VerifyExit::NotCarriedOut;
    }
    return CountOf(results, Verdict::Differs) > 0 ? VerifyExit::SomeDiffer
                                                  : VerifyExit::NoneDiffers;
}

std::wstring FactTable(const AskedSystem& system, const std::vector<FactResult>& results,
                       const std::vector<std::wstring>& left) {
    std::vector<Row> rows = {HeadRow()};
    std::wstring explanations;
    for (const FactResult& result : results) {
        rows.push_back(RowOf(result));
        if (VerdictOf(result) != Verdict::Agrees || !result.why.empty()) {
            explanations += L"\n" + Explanation(result);
        }
    }
    const auto widths = WidthsOf(rows);
    std::wstring table = SystemText(system) + L"\n";
    for (const Row& row : rows) {
        table += LineOf(row, widths);
    }
    table += explanations + L"\n";
    for (const std::wstring& each : left) {
        table += L"left behind: " + each + L"\n";
    }
    return table + std::to_wstring(results.size()) + L" facts: " +
           std::to_wstring(CountOf(results, Verdict::Agrees)) + L" agree, " +
           std::to_wstring(CountOf(results, Verdict::Differs)) + L" differ, " +
           std::to_wstring(CountOf(results, Verdict::NotAsked)) + L" cannot be asked here\n";
}

std::wstring FactJson(const AskedSystem& system, const std::vector<FactResult>& results,
                      const std::vector<std::wstring>& left) {
    const auto number = [](std::size_t count) {
        return std::to_wstring(count);
    };
    return JsonObject({
               {L"program", JsonString(system.program)},
               {L"windows", JsonString(system.windows)},
               {L"wine", JsonStringOrNull(system.wine)},
               {L"elevated", JsonBool(system.elevated)},
               {L"facts", JsonArray(results, ResultJson)},
               {L"agree", number(CountOf(results, Verdict::Agrees))},
               {L"differ", number(CountOf(results, Verdict::Differs))},
               {L"cannot_be_asked", number(CountOf(results, Verdict::NotAsked))},
               {L"left_behind", JsonArray(left, JsonString)},
               {L"exit_code", std::to_wstring(static_cast<int>(ExitOf(results, left)))},
           }) +
           L"\n";
}

} // namespace halvard_runner
