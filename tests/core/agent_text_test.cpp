#include "agent/agent_text.h"

#include <gtest/gtest.h>

using halvard::AgentDataFolderIn;
using halvard::AgentFilePath;
using halvard::AgentFolderIn;
using halvard::kAgentFileLimit;
using halvard::WithoutBraces;

TEST(AgentFolders, LieBelowTheFolderThatTheShellTells) {
    EXPECT_EQ(AgentFolderIn(L"C:\\Program Files"),
              L"C:\\Program Files\\Zenvo\\Usage Profile Agent");
    EXPECT_EQ(AgentDataFolderIn(L"C:\\ProgramData"), L"C:\\ProgramData\\Zenvo\\UPA");
}

TEST(AgentFolders, TakeWhatTheShellTellsAsItStands) {
    EXPECT_EQ(AgentFolderIn(L""), L"\\Zenvo\\Usage Profile Agent");
    EXPECT_EQ(AgentDataFolderIn(L""), L"\\Zenvo\\UPA");
    EXPECT_EQ(AgentFolderIn(L"T:\\"), L"T:\\\\Zenvo\\Usage Profile Agent");
    EXPECT_EQ(AgentDataFolderIn(L"T:\\"), L"T:\\\\Zenvo\\UPA");
}

TEST(AgentFilePath, IsNothingWhenItDoesNotFitItsLimit) {
    EXPECT_EQ(AgentFilePath(L"C:\\A", L"b.dll"), L"C:\\A\\b.dll");
    for (std::size_t length = 0; length < 2 * kAgentFileLimit; ++length) {
        const std::wstring folder(length, L'x');
        const auto path = AgentFilePath(folder, L"b.dll");
        // Separator and name have six characters, and the terminator has to fit too.
        ASSERT_EQ(path.has_value(), length + 6 + 1 <= 256) << length;
        if (path) {
            EXPECT_EQ(*path, folder + L"\\b.dll");
        }
    }
}

TEST(WithoutBraces, DropsEveryBraceAndNothingElse) {
    EXPECT_EQ(WithoutBraces(L"{0A1B2C3D-0001-0002-0003-0123456789AB}"),
              L"0A1B2C3D-0001-0002-0003-0123456789AB");
    EXPECT_EQ(WithoutBraces(L"}}a{b}c{{"), L"abc");
    EXPECT_EQ(WithoutBraces(L"[a] (b)"), L"[a] (b)");
    EXPECT_EQ(WithoutBraces(L"{}"), L"");
    EXPECT_EQ(WithoutBraces(L""), L"");
}
