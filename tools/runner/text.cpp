#include "text.h"

#include <algorithm>
#include <cmath>

namespace halvard_runner {

namespace {

constexpr std::size_t kConsoleWidth = 80;
constexpr std::size_t kLabelWidth = 12;

} // namespace

std::wstring HexadecimalDigits(std::uint64_t number, std::size_t leastDigits) {
    std::wstring text;
    for (; number > 0 || text.size() < leastDigits; number /= 16) {
        text.insert(text.begin(), L"0123456789ABCDEF"[number % 16]);
    }
    return text;
}

std::vector<std::wstring> Wrapped(const std::wstring& text, std::size_t width) {
    std::vector<std::wstring> lines;
    std::size_t start = text.find_first_not_of(L' ');
    while (start != std::wstring::npos) {
        std::size_t end = text.size();
        if (end - start > width) {
            end = text.rfind(L' ', start + width);
            if (end == std::wstring::npos || end <= start) {
                end = std::min(text.find(L' ', start), text.size());
            }
        }
        const std::wstring line = text.substr(start, end - start);
        lines.push_back(line.substr(0, line.find_last_not_of(L' ') + 1));
        start = text.find_first_not_of(L' ', end);
    }
    return lines;
}

std::wstring Tenths(double number) {
    const long long tenths = std::llround(number * 10);
    return std::to_wstring(tenths / 10) + L"." + std::to_wstring(tenths % 10);
}

std::wstring LowerCase(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) {
        return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
    });
    return text;
}

std::wstring Padded(std::wstring label) {
    label.resize(std::max(kLabelWidth, label.size() + 2), L' ');
    return label;
}

std::wstring Described(const std::wstring& label, const std::wstring& text) {
    std::wstring margin = Padded(label);
    std::wstring lines;
    for (const std::wstring& line : Wrapped(text, kConsoleWidth - margin.size())) {
        lines += margin + line + L"\n";
        margin.assign(margin.size(), L' ');
    }
    return lines;
}

std::wstring Joined(const std::vector<std::wstring>& texts, const wchar_t* between) {
    std::wstring joined;
    for (const std::wstring& text : texts) {
        joined += joined.empty() ? text : between + text;
    }
    return joined;
}

} // namespace halvard_runner
