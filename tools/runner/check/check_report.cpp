#include "check/check_report.h"

#include "json.h"
#include "text.h"

#include <algorithm>

namespace halvard_runner {

namespace {

std::wstring SeverityText(Severity severity) {
    switch (severity) {
    case Severity::Hint:
        return L"hint";
    case Severity::Warning:
        return L"warning";
    case Severity::Error:
        break;
    }
    return L"error";
}

std::size_t Count(const std::vector<Finding>& findings, Severity severity) {
    return static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(), [&](const Finding& finding) {
            return TextOf(finding).severity == severity;
        }));
}

std::wstring CountText(std::size_t count, const wchar_t* what) {
    return std::to_wstring(count) + L" " + what + (count == 1 ? L"" : L"s");
}

std::wstring FindingLines(const Finding& finding) {
    const RuleText& text = TextOf(finding);
    std::wstring place = finding.table;
    if (!finding.row.empty()) {
        place += L", " + finding.row;
    }
    std::wstring label = SeverityText(text.severity);
    label.resize(8, L' ');
    std::wstring lines = Described(label + std::to_wstring(finding.number), place);
    lines += Described(L"", text.rule);
    if (!finding.what.empty()) {
        lines += Described(L"  found", finding.what);
    }
    return lines + Described(L"  why", text.why) + Described(L"  do", text.remedy);
}

} // namespace

CheckExit CheckExitCode(const std::vector<Finding>& findings) {
    if (Count(findings, Severity::Error) > 0) {
        return CheckExit::Errors;
    }
    return Count(findings, Severity::Warning) > 0 ? CheckExit::Warnings : CheckExit::NoFindings;
}

std::wstring CheckLines(const std::wstring& package, const std::vector<Finding>& findings) {
    std::wstring lines;
    for (const Finding& finding : findings) {
        lines += FindingLines(finding) + L"\n";
    }
    return lines + package + L": " + CountText(Count(findings, Severity::Error), L"error") + L", " +
           CountText(Count(findings, Severity::Warning), L"warning") + L", " +
           CountText(Count(findings, Severity::Hint), L"hint") + L"\n";
}

std::wstring CheckJson(const std::wstring& package, const std::vector<Finding>& findings,
                       const std::vector<int>& skipped) {
    const auto object = [](const Finding& finding) {
        const RuleText& text = TextOf(finding);
        return JsonObject({{L"number", std::to_wstring(finding.number)},
                           {L"severity", JsonString(SeverityText(text.severity))},
                           {L"table", JsonString(finding.table)},
                           {L"row", JsonStringOrNull(finding.row)},
                           {L"rule", JsonString(text.rule)},
                           {L"found", JsonStringOrNull(finding.what)},
                           {L"why", JsonString(text.why)},
                           {L"remedy", JsonString(text.remedy)}});
    };
    const auto number = [](int each) {
        return std::to_wstring(each);
    };
    return JsonObject(
               {{L"package", JsonString(package)},
                {L"findings", JsonArray(findings, object)},
                {L"errors", std::to_wstring(Count(findings, Severity::Error))},
                {L"warnings", std::to_wstring(Count(findings, Severity::Warning))},
                {L"hints", std::to_wstring(Count(findings, Severity::Hint))},
                {L"skipped", JsonArray(skipped, number)},
                {L"exit_code", std::to_wstring(static_cast<int>(CheckExitCode(findings)))}}) +
           L"\n";
}

} // namespace halvard_runner
