#include "tasks/launch_pv.h"

#include "child_programs.h"
#include "files.h"
#include "import_hook.h"
#include "pivot_installation.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using halvard::LaunchPV;
using halvard_tests::CurrentDirectory;
using halvard_tests::RecorderAt;
using halvard_tests::Recording;
using halvard_tests::Recordings;

TEST(LaunchPV, RunsTheTaskAndReportsOneInAnyCase) {
    const std::wstring directory = CurrentDirectory();
    {
        const RecorderAt schtasks(halvard_tests::kSchtasks);
        COUNT_CALLS(waiting, WaitForSingleObject);
        EXPECT_EQ(LaunchPV(0), 1U);
        EXPECT_EQ(waiting.Calls(), 1);
        EXPECT_EQ(Recordings(), (std::vector<Recording>{{L"schtasks.exe", directory,
                                                         L"schtasks /run /TN \"StartPV\""}}));
    }
    FAIL_CALL(creating, CreateProcessW, 0, FALSE, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(LaunchPV(0), 1U);
    EXPECT_EQ(creating.Calls(), 1);
}
