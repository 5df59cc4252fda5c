#include "runtime/multi_string.h"

#include <stdexcept>

namespace halvard {

std::list<std::wstring> SplitMultiString(const std::wstring& characters, std::size_t largestList) {
    std::list<std::wstring> strings;
    std::wstring current;
    for (const wchar_t character : characters) {
        if (character != L'\0') {
            current += character;
            continue;
        }
        if (strings.size() == largestList) {
            throw std::length_error("list too long");
        }
        strings.push_back(current);
        current.clear();
    }
    return strings;
}

std::wstring JoinMultiString(const std::list<std::wstring>& strings) {
    std::wstring characters;
    for (const std::wstring& text : strings) {
        characters += text;
        characters += L'\0';
    }
    characters += L'\0';
    return characters;
}

} // namespace halvard
