#pragma once

#include "fuzz_input.h"

#include <algorithm>
#include <optional>

namespace halvard_tests {

/// A value of a JSON text: the characters of a string, or a number as it is written.
struct Json {
    enum Kind { Null, True, False, Number, String, Array, Object };
    Kind kind = Null;
    std::wstring text;
    /// Of an object's members, in their order.
    Texts names;
    std::vector<Json> items;
};

/// Reads JSON as RFC 8259 has it. A surrogate may stand alone in an escape.
class JsonReading {
public:
    explicit JsonReading(const std::wstring& text) : text_(text) {}

    std::optional<Json> Whole() {
        std::optional<Json> json = Value();
        SkipBlanks();
        return at_ == text_.size() ? json : std::nullopt;
    }

private:
    inline static const std::vector<std::pair<std::wstring, Json::Kind>> kWords = {
        {L"null", Json::Null}, {L"true", Json::True}, {L"false", Json::False}};

    bool Take(wchar_t character) {
        SkipBlanks();
        const bool taken = at_ < text_.size() && text_[at_] == character;
        at_ += taken ? 1 : 0;
        return taken;
    }

    void SkipBlanks() { at_ = std::min(text_.find_first_not_of(L" \t\r\n", at_), text_.size()); }

    std::optional<Json> Value() {
        SkipBlanks();
        Json json;
        for (const auto& [word, kind] : kWords) {
            if (text_.compare(at_, word.size(), word) == 0) {
                at_ += word.size();
                json.kind = kind;
                return json;
            }
        }
        if (at_ < text_.size() && text_[at_] == L'"') {
            json.kind = Json::String;
            return String(json.text) ? std::optional(std::move(json)) : std::nullopt;
        }
        if (Take(L'[')) {
            json.kind = Json::Array;
            return Items(json, L']');
        }
        if (Take(L'{')) {
            json.kind = Json::Object;
            return Items(json, L'}');
        }
        json.kind = Json::Number;
        return Digits(json.text) ? std::optional(json) : std::nullopt;
    }

    std::optional<Json> Items(Json& json, wchar_t end) {
        if (Take(end)) {
            return json;
        }
        do {
            std::wstring name;
            if (json.kind == Json::Object) {
                SkipBlanks();
                if (!String(name) || !Take(L':')) {
                    return std::nullopt;
                }
                json.names.push_back(std::move(name));
            }
            std::optional<Json> item = Value();
            if (!item) {
                return std::nullopt;
            }
            json.items.push_back(std::move(*item));
        } while (Take(L','));
        return Take(end) ? std::optional(std::move(json)) : std::nullopt;
    }

    // "-"? then "0" or digits without a zero in front, and digits behind a point.
    bool Digits(std::wstring& number) {
        const std::size_t start = at_;
        at_ += at_ < text_.size() && text_[at_] == L'-' ? 1 : 0;
        const std::size_t first = at_;
        const std::size_t whole = SkipDigits();
        if (whole == 0 || (whole > 1 && text_[first] == L'0')) {
            return false;
        }
        if (at_ < text_.size() && text_[at_] == L'.') {
            ++at_;
            if (SkipDigits() == 0) {
                return false;
            }
        }
        number = text_.substr(start, at_ - start);
        return true;
    }

    std::size_t SkipDigits() {
        const std::size_t start = at_;
        at_ = std::min(text_.find_first_not_of(L"0123456789", at_), text_.size());
        return at_ - start;
    }

    bool String(std::wstring& characters) {
        if (at_ == text_.size() || text_[at_++] != L'"') {
            return false;
        }
        while (at_ < text_.size()) {
            const wchar_t character = text_[at_++];
            if (character == L'"') {
                return true;
            }
            if (character < 0x20 || (character == L'\\' && !Escape(characters))) {
                return false;
            }
            if (character != L'\\') {
                characters += character;
            }
        }
        return false;
    }

    bool Escape(std::wstring& characters) {
        const std::wstring letters = L"\"\\/bfnrt";
        const std::wstring meant = L"\"\\/\b\f\n\r\t";
        if (at_ == text_.size()) {
            return false;
        }
        const wchar_t letter = text_[at_++];
        if (letter != L'u') {
            const std::size_t index = letters.find(letter);
            characters += index == std::wstring::npos ? std::wstring() : meant.substr(index, 1);
            return index != std::wstring::npos;
        }
        const std::wstring digits = text_.substr(at_, 4);
        if (digits.size() < 4 ||
            digits.find_first_not_of(L"0123456789abcdefABCDEF") != std::wstring::npos) {
            return false;
        }
        characters += static_cast<wchar_t>(std::stoul(digits, nullptr, 16));
        at_ += 4;
        return true;
    }

    const std::wstring& text_;
    std::size_t at_ = 0;
};

inline std::optional<Json> ReadJson(const std::wstring& text) {
    return JsonReading(text).Whole();
}

} // namespace halvard_tests
