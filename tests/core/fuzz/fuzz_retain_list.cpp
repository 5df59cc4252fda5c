#include "fuzz_input.h"

#include "registry_actions/retain_list.h"

#include <algorithm>

namespace {

using Paths = std::vector<std::wstring>;

bool IsKept(const std::wstring& entry, const Paths& retainList) {
    const auto holds = [&](const std::wstring& text) {
        return std::find(retainList.begin(), retainList.end(), text) != retainList.end();
    };
    return holds(entry) || (holds(L"Skins") && entry.find(L"Skins") != std::wstring::npos);
}

} // namespace

// One text a line: the retain list up to the first empty line, the listing behind it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    using halvard_tests::Require;
    Paths retainList;
    Paths listing;
    Paths* texts = &retainList;
    for (std::wstring rest = halvard_tests::Characters(bytes, size); !rest.empty();) {
        auto [line, behind] = halvard_tests::CutAtLineFeed(rest);
        if (line.empty()) {
            texts = &listing;
        } else {
            texts->push_back(halvard::WithSlashes(line));
            Require(texts->back().size() == line.size());
            Require(texts->back().find(L'\\') == std::wstring::npos);
            Require(halvard::WithBackslashes(texts->back()) == halvard::WithBackslashes(line));
        }
        rest = std::move(behind);
    }

    Paths expected;
    for (const std::wstring& entry : listing) {
        if (!IsKept(entry, retainList)) {
            expected.push_back(entry);
        }
    }
    Require(halvard::EntriesToDelete(listing, retainList) == expected);
    // The order of the retain list and repetitions in it say nothing.
    Paths turned = retainList;
    turned.insert(turned.end(), retainList.rbegin(), retainList.rend());
    Require(halvard::EntriesToDelete(listing, turned) == expected);
    return 0;
}
