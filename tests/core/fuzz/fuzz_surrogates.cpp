#include "fuzz_input.h"

#include "runtime/file_paths.h"

namespace {

using halvard_tests::Require;

// The kind of a UTF-16 unit by its six high bits.
constexpr unsigned kHigh = 0xD800U >> 10U;
constexpr unsigned kLow = 0xDC00U >> 10U;

unsigned KindOf(wchar_t unit) {
    return static_cast<unsigned>(unit) >> 10U;
}

} // namespace

// One text.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const halvard_tests::Texts halves = {
        {wchar_t{0xD83D}, wchar_t{0xDE00}}, {wchar_t{0xDBFF}}, {wchar_t{0xDC00}}};
    // Many surrogates, or units of 16 bits as they come.
    const bool isDense = size > 0 && bytes[0] % 2 == 0;
    const std::wstring text =
        isDense ? halvard_tests::Text(bytes, size, halves) : halvard_tests::Characters(bytes, size);
    // Marks whole pairs, from the end: no unit can belong to two.
    std::wstring expected = text;
    for (std::size_t behind = text.size(); behind > 0; --behind) {
        const std::size_t index = behind - 1;
        const unsigned kind = KindOf(text[index]);
        const bool hasPartner =
            (kind == kHigh && behind < text.size() && KindOf(text[behind]) == kLow) ||
            (kind == kLow && index > 0 && KindOf(text[index - 1]) == kHigh);
        if ((kind == kHigh || kind == kLow) && !hasPartner) {
            expected[index] = 0xFFFD;
        }
    }
    const std::wstring mended = halvard::WithoutLoneSurrogates(text);
    Require(mended == expected);
    Require(halvard::WithoutLoneSurrogates(mended) == mended);
    return 0;
}
