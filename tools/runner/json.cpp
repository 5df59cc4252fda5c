#include "json.h"

#include "text.h"

namespace halvard_runner {

namespace {

bool IsHighSurrogate(wchar_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}

bool IsLowSurrogate(wchar_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

std::wstring Escaped(wchar_t c) {
    return L"\\u" + HexadecimalDigits(static_cast<std::uint32_t>(c), 4);
}

} // namespace

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

std::wstring JsonStringOrNull(const std::wstring& text) {
    return text.empty() ? L"null" : JsonString(text);
}

std::wstring JsonBool(bool value) {
    return value ? L"true" : L"false";
}

std::wstring JsonObject(const JsonMembers& members) {
    std::wstring text;
    for (const auto& [name, value] : members) {
        text += text.empty() ? L"{" : L", ";
        text += JsonString(name) + L": " + value;
    }
    return text.empty() ? L"{}" : text + L"}";
}

} // namespace halvard_runner
