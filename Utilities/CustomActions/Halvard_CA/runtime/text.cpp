#include "runtime/text.h"

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

} // namespace halvard
