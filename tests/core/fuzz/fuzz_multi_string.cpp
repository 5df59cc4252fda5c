#include "fuzz_input.h"

#include "runtime/multi_string.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    using halvard_tests::Require;
    const std::wstring characters = halvard_tests::Characters(bytes, size);

    const std::list<std::wstring> strings = halvard::SplitMultiString(characters);
    const auto terminators = std::count(characters.begin(), characters.end(), L'\0');
    Require(strings.size() == static_cast<std::size_t>(terminators));

    // Joining gives back everything up to the last terminator, and one more terminator.
    const std::size_t last = characters.rfind(L'\0');
    std::wstring expected = last == std::wstring::npos ? L"" : characters.substr(0, last + 1);
    expected += L'\0';
    Require(halvard::JoinMultiString(strings) == expected);
    return 0;
}
