#include "tasks/schtasks_commands.h"

#include <gtest/gtest.h>

using halvard::ChangeTaskCommand;
using halvard::CreateTaskCommand;
using halvard::RunTaskParameters;

TEST(CreateTaskCommand, QuotesNameAndFile) {
    EXPECT_EQ(CreateTaskCommand(L"StartPV", L"C:\\A B\\StartPV.xml"),
              L"schtasks /Create /TN \"StartPV\" /XML \"C:\\A B\\StartPV.xml\"");
    EXPECT_EQ(CreateTaskCommand(L"StartPVBM", L""),
              L"schtasks /Create /TN \"StartPVBM\" /XML \"\"");
}

TEST(CreateTaskCommand, FitsUpTo259Characters) {
    const std::size_t room = 259 - CreateTaskCommand(L"StartPV", L"")->size();
    EXPECT_EQ(CreateTaskCommand(L"StartPV", std::wstring(room, L'x'))->size(), 259U);
    EXPECT_EQ(CreateTaskCommand(L"StartPV", std::wstring(room + 1, L'x')), std::nullopt);
    EXPECT_EQ(CreateTaskCommand(L"StartPV", std::wstring(30000, L'x')), std::nullopt);
}

TEST(ChangeTaskCommand, EscapesTheQuotesOfTheProgram) {
    EXPECT_EQ(
        ChangeTaskCommand(L"StartPV", L"C:\\A B\\pvcmd.exe", L"startwithdelay"),
        L"schtasks /change /TN \"StartPV\" /TR \"\\\"C:\\A B\\pvcmd.exe\\\" startwithdelay\"");
}

TEST(ChangeTaskCommand, EndsInABlankForAnEmptyArgument) {
    EXPECT_EQ(ChangeTaskCommand(L"StartDVR", L"C:\\V\\VSServCmd.exe", L""),
              L"schtasks /change /TN \"StartDVR\" /TR \"\\\"C:\\V\\VSServCmd.exe\\\" \"");
}

TEST(ChangeTaskCommand, FitsUpTo259Characters) {
    const std::size_t room = 259 - ChangeTaskCommand(L"StartPV", L"", L"benchmark")->size();
    EXPECT_EQ(ChangeTaskCommand(L"StartPV", std::wstring(room, L'x'), L"benchmark")->size(), 259U);
    EXPECT_EQ(ChangeTaskCommand(L"StartPV", std::wstring(room + 1, L'x'), L"benchmark"),
              std::nullopt);
}

TEST(DeleteTaskCommand, ForcesTheDeletion) {
    EXPECT_EQ(halvard::DeleteTaskCommand(L"StartDVR"), L"schtasks /delete /TN \"StartDVR\" /F");
}

TEST(RunTaskCommand, NamesTheTask) {
    EXPECT_EQ(halvard::RunTaskCommand(L"StartPV"), L"schtasks /run /TN \"StartPV\"");
}

TEST(RunTaskParameters, HoldTheNameAsItIs) {
    EXPECT_EQ(RunTaskParameters(L"StartAgent"), L" /run /TN StartAgent");
    EXPECT_EQ(RunTaskParameters(L"A \"task\""), L" /run /TN A \"task\"");
    EXPECT_EQ(RunTaskParameters(L""), L" /run /TN ");
}
