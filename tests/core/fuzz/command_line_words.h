#pragma once

#include "fuzz_input.h"

#include <algorithm>

// What becomes of a command line, by the rules that are documented for CommandLineToArgvW and for
// the C run-time of Windows.

namespace halvard_tests {

inline bool IsBlank(wchar_t character) {
    return character == L' ' || character == L'\t';
}

/// The arguments behind a program's name. A backslash counts only before a quote: of a pair one is
/// left, and an odd one makes the quote a character. Two quotes inside quotes are one.
inline Texts ArgumentWords(const std::wstring& line) {
    Texts words;
    std::size_t at = 0;
    const auto next = [&] {
        return at < line.size() ? line[at] : L'\0';
    };
    while (true) {
        while (at < line.size() && IsBlank(line[at])) {
            ++at;
        }
        if (at == line.size()) {
            return words;
        }
        std::wstring word;
        for (bool quoted = false; at < line.size() && (quoted || !IsBlank(line[at]));) {
            std::size_t backslashes = 0;
            for (; next() == L'\\'; ++at) {
                ++backslashes;
            }
            if (next() != L'"') {
                word.append(backslashes, L'\\');
                if (backslashes == 0) {
                    word += line[at++];
                }
                continue;
            }
            word.append(backslashes / 2, L'\\');
            ++at;
            if (backslashes % 2 != 0) {
                word += L'"';
            } else if (quoted && next() == L'"') {
                word += L'"';
                ++at;
            } else {
                quoted = !quoted;
            }
        }
        words.push_back(word);
    }
}

/// The words of a whole command line. In the program's name backslashes are nothing special.
inline Texts CommandLineWords(const std::wstring& line) {
    const bool quoted = !line.empty() && line[0] == L'"';
    const std::size_t start = quoted ? 1 : 0;
    std::size_t end = start;
    while (end < line.size() && (quoted ? line[end] != L'"' : !IsBlank(line[end]))) {
        ++end;
    }
    const std::size_t behind = std::min(line.size(), quoted ? end + 1 : end);
    Texts words = ArgumentWords(line.substr(behind));
    words.insert(words.begin(), line.substr(start, end - start));
    return words;
}

/// What "cmd.exe /C" runs of the text behind the switch: all between its first and its last quote.
/// Nothing when it does not begin with one.
inline std::wstring RunByCommandInterpreter(const std::wstring& text) {
    if (text.empty() || text[0] != L'"') {
        return {};
    }
    std::wstring run = text;
    run.erase(run.rfind(L'"'), 1);
    return run.substr(std::min<std::size_t>(1, run.size()));
}

} // namespace halvard_tests
