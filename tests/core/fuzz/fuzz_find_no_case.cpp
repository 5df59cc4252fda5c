#include "fuzz_input.h"

#include "runtime/text.h"

namespace {

bool EqualNoCase(wchar_t left, wchar_t right) {
    const auto fold = [](wchar_t character) {
        return character >= L'A' && character <= L'Z' ? character + 32 : +character;
    };
    return fold(left) == fold(right);
}

} // namespace

// The pattern stands before the first line feed of the input, the text behind it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const auto [pattern, text] =
        halvard_tests::CutAtLineFeed(halvard_tests::Characters(bytes, size));

    std::int32_t expected = -1;
    for (std::size_t index = 0; index + pattern.size() <= text.size() && expected < 0; ++index) {
        std::size_t matched = 0;
        while (matched < pattern.size() && EqualNoCase(text[index + matched], pattern[matched])) {
            ++matched;
        }
        if (matched == pattern.size()) {
            expected = static_cast<std::int32_t>(index);
        }
    }
    halvard_tests::Require(halvard::FindNoCase(text, pattern) == expected);
    return 0;
}
