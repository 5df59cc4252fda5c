#include "check/condition.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <utility>
#include <vector>

namespace halvard_runner {

namespace {

struct Malformed {};

// Of the states that a session may bring a feature or component into.
constexpr const wchar_t* kAbsent = L"2";
constexpr const wchar_t* kUnchanged = L"-1";

enum class Kind { Word, Text, Number, Operator, End };

struct Token {
    Kind kind;
    std::wstring text;
};

bool IsWordCharacter(wchar_t c) {
    return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || (c >= L'0' && c <= L'9') ||
           c == L'_' || c == L'.';
}

bool IsDigit(wchar_t c) {
    return c >= L'0' && c <= L'9';
}

std::wstring UpperCase(std::wstring text) {
    std::transform(text.begin(), text.end(), text.begin(), [](wchar_t c) {
        return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - L'a' + L'A') : c;
    });
    return text;
}

bool IsBlank(wchar_t c) {
    return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n';
}

/// Of a feature's or component's state, and of a variable of the environment.
bool IsMark(wchar_t c) {
    return c == L'$' || c == L'?' || c == L'&' || c == L'!' || c == L'%';
}

std::size_t Behind(const std::wstring& text, std::size_t start, bool (*belongs)(wchar_t)) {
    while (start < text.size() && belongs(text[start])) {
        ++start;
    }
    return start;
}

bool BeginsNumber(const std::wstring& text, std::size_t start) {
    const std::size_t digit = text[start] == L'-' ? start + 1 : start;
    return digit < text.size() && IsDigit(text[digit]);
}

std::size_t BehindSign(const std::wstring& text, std::size_t start) {
    const std::size_t sign = text[start] == L'~' ? start + 1 : start;
    std::size_t end = sign;
    while (end < text.size() && std::wcschr(L"<>=", text[end]) != nullptr && end - sign < 2) {
        ++end;
    }
    if (end == sign) {
        throw Malformed();
    }
    return end;
}

Token TakeText(const std::wstring& text, std::size_t& position) {
    const std::size_t start = position + 1;
    const std::size_t end = text.find(L'"', start);
    if (end == std::wstring::npos) {
        throw Malformed();
    }
    position = end + 1;
    return {Kind::Text, text.substr(start, end - start)};
}

Token TakeToken(const std::wstring& text, std::size_t& position) {
    const std::size_t start = position;
    const wchar_t c = text[start];
    Kind kind = Kind::Operator;
    if (c == L'"') {
        return TakeText(text, position);
    }
    if (BeginsNumber(text, start)) {
        kind = Kind::Number;
        position = Behind(text, start + 1, IsDigit);
    } else if (IsWordCharacter(c) || IsMark(c)) {
        kind = Kind::Word;
        position = Behind(text, start + 1, IsWordCharacter);
    } else if (c == L'(' || c == L')') {
        ++position;
    } else {
        position = BehindSign(text, start);
    }
    return {kind, text.substr(start, position - start)};
}

std::vector<Token> Tokens(const std::wstring& text) {
    std::vector<Token> tokens;
    std::size_t position = Behind(text, 0, IsBlank);
    while (position < text.size()) {
        tokens.push_back(TakeToken(text, position));
        position = Behind(text, position, IsBlank);
    }
    tokens.push_back({Kind::End, L""});
    return tokens;
}

/// A value of a comparison; none is one that is not known.
using Value = std::optional<std::wstring>;

Truth Of(bool value) {
    return value ? Truth::True : Truth::False;
}

Truth Not(Truth truth) {
    return truth == Truth::Unknown ? truth : Of(truth == Truth::False);
}

Truth And(Truth left, Truth right) {
    return std::min(left, right);
}

Truth Or(Truth left, Truth right) {
    return std::max(left, right);
}

Truth Xor(Truth left, Truth right) {
    if (left == Truth::Unknown || right == Truth::Unknown) {
        return Truth::Unknown;
    }
    return Of(left != right);
}

std::optional<long> NumberOf(const std::wstring& text) {
    wchar_t* end = nullptr;
    const long number = std::wcstol(text.c_str(), &end, 10);
    return text.empty() || *end != L'\0' ? std::nullopt : std::optional<long>(number);
}

bool EndsWith(const std::wstring& text, const std::wstring& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool ComparedNumbers(long left, const std::wstring& sign, long right) {
    if (sign == L"=") {
        return left == right;
    }
    if (sign == L"<>") {
        return left != right;
    }
    if (sign == L"<") {
        return left < right;
    }
    if (sign == L">") {
        return left > right;
    }
    if (sign == L"<=") {
        return left <= right;
    }
    if (sign == L">=") {
        return left >= right;
    }
    if (sign == L"><") {
        return (left & right) != 0;
    }
    if (sign == L"<<") {
        return (left >> 16) == right;
    }
    return (left & 0xFFFF) == right;
}

bool ComparedTexts(const std::wstring& left, const std::wstring& sign, const std::wstring& right) {
    if (sign == L"><") {
        return left.find(right) != std::wstring::npos;
    }
    if (sign == L"<<") {
        return left.rfind(right, 0) == 0;
    }
    if (sign == L">>") {
        return EndsWith(left, right);
    }
    return ComparedNumbers(left.compare(right), sign, 0);
}

bool IsComparison(const std::wstring& sign) {
    static const std::vector<std::wstring> signs = {L"=",  L"<>", L"<",  L">", L"<=",
                                                    L">=", L"><", L"<<", L">>"};
    return std::find(signs.begin(), signs.end(), sign) != signs.end();
}

class Parser {
public:
    Parser(std::vector<Token> tokens, const KnownProperties& known)
        : tokens_(std::move(tokens)), known_(known) {}

    Truth Whole() {
        const Truth truth = Level(0);
        if (Next().kind != Kind::End) {
            throw Malformed();
        }
        return truth;
    }

private:
    [[nodiscard]] const Token& Next() const { return tokens_[position_]; }

    bool TakeWord(const wchar_t* word) {
        if (Next().kind == Kind::Word && UpperCase(Next().text) == word) {
            ++position_;
            return true;
        }
        return false;
    }

    bool TakeSign(const wchar_t* sign) {
        if (Next().kind == Kind::Operator && Next().text == sign) {
            ++position_;
            return true;
        }
        return false;
    }

    /// Operators from the loosest to the tightest: IMP, EQV, XOR, OR, AND, NOT.
    Truth Level(int level) {
        static constexpr const wchar_t* kWords[] = {L"IMP", L"EQV", L"XOR", L"OR", L"AND"};
        if (level == 5) {
            return Negation();
        }
        Truth left = Level(level + 1);
        while (TakeWord(kWords[level])) {
            const Truth right = Level(level + 1);
            switch (level) {
            case 0:
                left = Or(Not(left), right);
                break;
            case 1:
                left = Not(Xor(left, right));
                break;
            case 2:
                left = Xor(left, right);
                break;
            case 3:
                left = Or(left, right);
                break;
            default:
                left = And(left, right);
            }
        }
        return left;
    }

    Truth Negation() {
        if (TakeWord(L"NOT")) {
            return Not(Negation());
        }
        if (TakeSign(L"(")) {
            const Truth inner = Level(0);
            if (!TakeSign(L")")) {
                throw Malformed();
            }
            return inner;
        }
        return Comparison();
    }

    Truth Comparison() {
        const bool leftIsNumber = Next().kind == Kind::Number;
        const std::wstring name = Next().kind == Kind::Word ? Next().text : L"";
        const Value left = TakeValue();
        if (Next().kind != Kind::Operator || Next().text == L"(" || Next().text == L")") {
            if (!left) {
                return Truth::Unknown;
            }
            return Of(leftIsNumber ? NumberOf(*left) != 0 : !left->empty());
        }
        std::wstring sign = tokens_[position_++].text;
        const bool anyCase = sign.front() == L'~';
        sign.erase(0, anyCase ? 1 : 0);
        if (!IsComparison(sign)) {
            throw Malformed();
        }
        const bool rightIsNumber = Next().kind == Kind::Number;
        const Value right = TakeValue();
        if (IsLeftOut(name) && sign == L"=" && right && *right != kAbsent && *right != kUnchanged) {
            return Truth::False;
        }
        if (!left || !right) {
            return Truth::Unknown;
        }
        const std::optional<long> leftNumber = NumberOf(*left);
        const std::optional<long> rightNumber = NumberOf(*right);
        if (leftNumber && rightNumber) {
            return Of(ComparedNumbers(*leftNumber, sign, *rightNumber));
        }
        if (leftIsNumber != rightIsNumber) {
            return Of(sign == L"<>"); // a number and a text that is none
        }
        return Of(anyCase ? ComparedTexts(UpperCase(*left), sign, UpperCase(*right))
                          : ComparedTexts(*left, sign, *right));
    }

    /// Whether it is the action of a feature or component in a session that removes them all.
    [[nodiscard]] bool IsLeftOut(const std::wstring& name) const {
        const auto remove = known_.find(L"REMOVE");
        return !name.empty() && (name.front() == L'&' || name.front() == L'$') &&
               remove != known_.end() && remove->second == L"ALL";
    }

    Value TakeValue() {
        const Token token = Next();
        static const std::vector<std::wstring> words = {L"AND", L"OR",  L"XOR",
                                                        L"EQV", L"IMP", L"NOT"};
        if (token.kind == Kind::End || token.kind == Kind::Operator ||
            (token.kind == Kind::Word &&
             std::find(words.begin(), words.end(), UpperCase(token.text)) != words.end())) {
            throw Malformed();
        }
        ++position_;
        if (token.kind != Kind::Word) {
            return token.text;
        }
        const auto found = known_.find(token.text);
        return found == known_.end() ? Value() : Value(found->second);
    }

    std::vector<Token> tokens_;
    const KnownProperties& known_;
    std::size_t position_ = 0;
};

} // namespace

std::optional<Truth> Evaluated(const std::wstring& condition, const KnownProperties& known) {
    try {
        std::vector<Token> tokens = Tokens(condition);
        if (tokens.size() == 1) {
            return Truth::True;
        }
        return Parser(std::move(tokens), known).Whole();
    } catch (const Malformed&) {
        return std::nullopt;
    }
}

} // namespace halvard_runner
