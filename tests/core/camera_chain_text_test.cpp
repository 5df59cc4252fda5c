#include "registry_actions/camera_chain_text.h"

#include <gtest/gtest.h>

using halvard::RemoveTransformId;
using Strings = std::list<std::wstring>;

namespace {

constexpr wchar_t kId[] = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}";

Strings Cleaned(Strings strings) {
    RemoveTransformId(strings);
    return strings;
}

} // namespace

TEST(RemoveTransformId, RemovesEveryElementThatIsTheIdentifier) {
    EXPECT_EQ(Cleaned({kId}), Strings());
    EXPECT_EQ(Cleaned({kId, L"{a}", L""}), (Strings{L"{a}", L""}));
    EXPECT_EQ(Cleaned({L"{b}", kId, kId, L"{a}", kId}), (Strings{L"{b}", L"{a}"}));
}

TEST(RemoveTransformId, KeepsWhatDiffersInAnyCharacter) {
    const std::wstring id = kId;
    ASSERT_EQ(id.size(), 38U);
    Strings others = {L"",
                      L"{55e09f33-d6b5-4a6d-99ed-87dc666c6710}",
                      id + L" ",
                      L" " + id,
                      id.substr(0, 37),
                      id.substr(1),
                      id + std::wstring(1, L'\0')};
    for (std::size_t index = 0; index < id.size(); ++index) {
        others.push_back(id);
        others.back()[index] = L'x';
    }
    EXPECT_EQ(Cleaned(others), others);
    EXPECT_EQ(Cleaned({}), Strings());
}
