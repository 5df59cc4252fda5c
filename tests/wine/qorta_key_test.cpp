#include "registry_actions/qorta_key.h"

#include "call_trace.h"
#include "lines.h"
#include "registry_key.h"

#include <gtest/gtest.h>

using halvard::DeleteQortaKey;
using halvard_tests::CallTrace;
using halvard_tests::KeyExists;
using halvard_tests::kRegistry;
using halvard_tests::ScratchKey;
using namespace std::string_literals;

TEST(DeleteQortaKey, DeletesTheKeyWithEverythingUnderItAndNoOther) {
    const ScratchKey qorta(L"SOFTWARE\\Qorta");
    qorta.SetString(L"Name", L"x");
    qorta.CreateSubkey(L"a\\b\\c");
    const ScratchKey longer(L"SOFTWARE\\QortaX");
    // That of 32-bit programs is another key.
    const ScratchKey otherView(L"SOFTWARE\\Wow6432Node\\Qorta");
    otherView.SetString(L"Name", L"x");
    const ScratchKey install(L"SOFTWARE\\Qorta Technologies\\Install");
    {
        const CallTrace calls(kRegistry, 0);
        EXPECT_EQ(DeleteQortaKey(0), 0U);
        EXPECT_EQ(calls.All(), Lines{L"delete tree HKLM\\SOFTWARE\\Qorta"});
    }
    EXPECT_FALSE(KeyExists(L"SOFTWARE\\Qorta"));
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\QortaX"));
    EXPECT_EQ(otherView.ReadCharacters(L"Name"), L"x\0"s);
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Qorta Technologies\\Install"));
}

TEST(DeleteQortaKey, IgnoresAKeyThatIsMissingOrRefused) {
    EXPECT_EQ(DeleteQortaKey(0), 0U);
    const ScratchKey qorta(L"SOFTWARE\\Qorta");
    {
        const CallTrace refused(kRegistry, 1);
        EXPECT_EQ(DeleteQortaKey(0), 0U);
    }
    EXPECT_TRUE(KeyExists(L"SOFTWARE\\Qorta"));
}
