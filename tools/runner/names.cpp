#include "names.h"

#include "text.h"

#include <algorithm>
#include <numeric>

namespace halvard_runner {

namespace {

struct Name {
    std::uint32_t number;
    const wchar_t* text;
};

struct Result {
    std::uint32_t number;
    const wchar_t* name;
    const wchar_t* effect;
};

constexpr const wchar_t* kFails = L"fails the installation";

constexpr Result kResults[] = {
    {0, L"ERROR_SUCCESS", L"goes on"},
    {259, L"ERROR_NO_MORE_ITEMS", L"skips the rest of the sequence, without an error"},
    {1602, L"ERROR_INSTALL_USEREXIT", L"ends the installation as cancelled"},
    {1603, L"ERROR_INSTALL_FAILURE", kFails},
    {1604, L"ERROR_INSTALL_SUSPEND", L"suspends the installation"},
    {1612, L"ERROR_INSTALL_SOURCE_ABSENT", kFails},
    {1626, L"ERROR_FUNCTION_NOT_CALLED", L"goes on"},
};

constexpr std::uint32_t kMessageKindBits = 0xFF000000;

constexpr Name kMessageKinds[] = {
    {0x00000000, L"fatal exit"},
    {0x01000000, L"error"},
    {0x02000000, L"warning"},
    {0x03000000, L"user"},
    {0x04000000, L"log"},
    {0x05000000, L"files in use"},
    {0x06000000, L"resolve source"},
    {0x07000000, L"out of disk space"},
    {0x08000000, L"action start"},
    {0x09000000, L"action data"},
    {0x0A000000, L"progress"},
    {0x0B000000, L"common data"},
};

constexpr Name kStructuredExceptions[] = {
    {0x80000002, L"EXCEPTION_DATATYPE_MISALIGNMENT"},
    {0x80000003, L"EXCEPTION_BREAKPOINT"},
    {0xC0000005, L"EXCEPTION_ACCESS_VIOLATION"},
    {0xC0000006, L"EXCEPTION_IN_PAGE_ERROR"},
    {0xC000001D, L"EXCEPTION_ILLEGAL_INSTRUCTION"},
    {0xC0000094, L"EXCEPTION_INT_DIVIDE_BY_ZERO"},
    {0xC0000096, L"EXCEPTION_PRIV_INSTRUCTION"},
    {0xC00000FD, L"EXCEPTION_STACK_OVERFLOW"},
    {0xC000013A, L"STATUS_CONTROL_C_EXIT"},
    {0xC0000374, L"STATUS_HEAP_CORRUPTION"},
    {0xC0000409, L"STATUS_STACK_BUFFER_OVERRUN"},
    {0xC0000417, L"STATUS_INVALID_CRUNTIME_PARAMETER"},
    {0xC0000602, L"STATUS_FAIL_FAST_EXCEPTION"},
};

constexpr Name kCompilers[] = {
    {0x20474343, L"g++"},
    {0xE06D7363, L"Visual C++"},
};

constexpr std::size_t kFarthest = 3;

const Result* FindResult(std::uint32_t number) {
    const auto* const found =
        std::find_if(std::begin(kResults), std::end(kResults),
                     [&](const Result& result) { return result.number == number; });
    return found == std::end(kResults) ? nullptr : found;
}

template <std::size_t size>
const wchar_t* FindName(const Name (&names)[size], std::uint32_t number) {
    const auto* const found = std::find_if(std::begin(names), std::end(names),
                                           [&](const Name& name) { return name.number == number; });
    return found == std::end(names) ? nullptr : found->text;
}

/// How many characters have to be added, removed or replaced to make one text of the other.
std::size_t Distance(const std::wstring& left, const std::wstring& right) {
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < left.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < right.size(); ++j) {
            const std::size_t replaced = diagonal + (left[i] == right[j] ? 0U : 1U);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

} // namespace

const wchar_t* ResultName(std::uint32_t result) {
    const Result* const found = FindResult(result);
    return found == nullptr ? nullptr : found->name;
}

const wchar_t* ResultEffect(std::uint32_t result) {
    const Result* const found = FindResult(result);
    return found == nullptr ? kFails : found->effect;
}

const wchar_t* MessageKind(std::uint32_t type) {
    const wchar_t* const name = FindName(kMessageKinds, type & kMessageKindBits);
    return name == nullptr ? L"other" : name;
}

const wchar_t* StructuredExceptionName(std::uint32_t code) {
    return FindName(kStructuredExceptions, code);
}

const wchar_t* CompilerOfException(std::uint32_t code) {
    return FindName(kCompilers, code);
}

std::vector<std::wstring> NamesNear(const std::wstring& name,
                                    const std::vector<std::wstring>& names) {
    const std::wstring wanted = LowerCase(name);
    std::vector<std::wstring> nearest;
    std::size_t least = kFarthest;
    for (const std::wstring& candidate : names) {
        const std::size_t distance = Distance(wanted, LowerCase(candidate));
        if (distance < least) {
            least = distance;
            nearest.clear();
        }
        if (distance == least) {
            nearest.push_back(candidate);
        }
    }
    return nearest;
}

std::wstring MeantText(const std::wstring& name, const std::vector<std::wstring>& names) {
    const std::vector<std::wstring> meant = NamesNear(name, names);
    return meant.empty() ? L"; halvard_run list shows them"
                         : L"; did you mean " + Joined(meant, L" or ") + L"?";
}

} // namespace halvard_runner
