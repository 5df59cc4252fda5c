#include "runtime/text.h"

#include <stdexcept>

namespace halvard {

namespace {

std::wstring LowerCaseCopy(std::wstring text) {
    for (wchar_t& character : text) {
        if (character >= L'A' && character <= L'Z') {
            character = static_cast<wchar_t>(character - L'A' + L'a');
        }
    }
    return text;
}

} // namespace

std::int32_t FindNoCase(const std::wstring& text, const std::wstring& pattern) {
    const std::size_t position = LowerCaseCopy(text).find(LowerCaseCopy(pattern));
    return position == std::wstring::npos ? -1 : static_cast<std::int32_t>(position);
}

std::list<std::wstring> SplitString(const std::wstring& text, wchar_t delimiter,
                                    std::size_t largestList) {
    std::list<std::wstring> pieces;
    std::size_t start = 0;
    for (;;) {
        if (pieces.size() == largestList) {
            throw std::length_error("list too long");
        }
        const std::size_t end = text.find(delimiter, start);
        if (end == std::wstring::npos) {
            pieces.push_back(text.substr(start));
            return pieces;
        }
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

} // namespace halvard
