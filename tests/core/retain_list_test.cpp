#include "registry_actions/retain_list.h"

#include <gtest/gtest.h>

using halvard::EntriesToDelete;
using halvard::WithBackslashes;
using halvard::WithSlashes;
using Paths = std::vector<std::wstring>;

TEST(EntriesToDelete, IsTheWholeListingWithoutARetainList) {
    const Paths listing = {L"C:/Brand/b", L"C:/Brand/Skins", L"C:/Brand/a"};
    EXPECT_EQ(EntriesToDelete(listing, {}), listing);
    EXPECT_EQ(EntriesToDelete({}, {L"C:/Brand/a", L"Skins"}), Paths{});
}

TEST(EntriesToDelete, LeavesOutWhatTheRetainListHoldsExactly) {
    const Paths listing = {L"C:/Brand/z", L"C:/Brand/logo.png", L"C:/Brand/a", L"C:/Brand/logo.pn"};
    EXPECT_EQ(EntriesToDelete(listing, {L"x", L"C:/Brand/logo.png", L"y"}),
              (Paths{L"C:/Brand/z", L"C:/Brand/a", L"C:/Brand/logo.pn"}));
    for (const wchar_t* other :
         {L"c:/Brand/logo.png", L"C:/Brand/LOGO.png", L"C:/Brand/logo.png/", L"C:/Brand/logo.png ",
          L"C:\\Brand\\logo.png", L"logo.png", L"C:/Brand", L"C:/Brand/logo.png/below", L""}) {
        EXPECT_EQ(EntriesToDelete(listing, {other}), listing);
    }
}

TEST(EntriesToDelete, TheWordSkinsKeepsEveryPathThatContainsIt) {
    const Paths listing = {L"C:/Brand/Skins", L"C:/Brand/mySkins.txt", L"C:/Brand/skins",
                           L"C:/Brand/SKINS", L"C:/Brand/Skin",        L"C:/Brand/Skin/s"};
    const Paths others = {L"C:/Brand/skins", L"C:/Brand/SKINS", L"C:/Brand/Skin",
                          L"C:/Brand/Skin/s"};
    EXPECT_EQ(EntriesToDelete(listing, {L"Skins"}), others);
    EXPECT_EQ(EntriesToDelete(listing, {L"a", L"Skins", L"Skins"}), others);
    for (const wchar_t* word : {L"skins", L"SKINS", L"Skins ", L" Skins", L"Skin", L"Skins/"}) {
        EXPECT_EQ(EntriesToDelete(listing, {word}), listing);
    }
    EXPECT_EQ(EntriesToDelete({L"C:/Skins/a", L"C:/Skins/b"}, {L"Skins"}), Paths{});
}

TEST(EntriesToDelete, AListedPathIsKeptBesideTheWordAndWithoutIt) {
    const Paths listing = {L"C:/Brand/Skins", L"C:/Brand/a", L"C:/Brand/b"};
    EXPECT_EQ(EntriesToDelete(listing, {L"C:/Brand/a", L"Skins"}), Paths{L"C:/Brand/b"});
    EXPECT_EQ(EntriesToDelete(listing, {L"C:/Brand/Skins"}), (Paths{L"C:/Brand/a", L"C:/Brand/b"}));
}

TEST(EntriesToDelete, APathBelowAnEntryDoesNotKeepTheEntry) {
    const Paths listing = {L"C:/Brand/folder"};
    EXPECT_EQ(EntriesToDelete(listing, {L"C:/Brand/folder/file"}), listing);
}

TEST(EntriesToDelete, ComparesAllOfATextWithNullCharacters) {
    const std::wstring withNull(L"a\0b", 3);
    EXPECT_EQ(EntriesToDelete({L"a", withNull}, {withNull}), Paths{L"a"});
    EXPECT_EQ(EntriesToDelete({L"a", withNull}, {L"a"}), Paths{withNull});
}

TEST(WithSlashes, ReplacesEveryBackslash) {
    EXPECT_EQ(WithSlashes(L""), L"");
    EXPECT_EQ(WithSlashes(L"\\\\server\\share/a\\"), L"//server/share/a/");
}

TEST(WithBackslashes, ReplacesEverySlash) {
    EXPECT_EQ(WithBackslashes(L""), L"");
    EXPECT_EQ(WithBackslashes(L"//server/share\\a/"), L"\\\\server\\share\\a\\");
}
