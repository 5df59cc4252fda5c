#include "tasks/launch_pv.h"

#include "runtime/pivot.h"
#include "tasks/run_schtasks.h"
#include "tasks/schtasks_commands.h"

namespace halvard {

UINT __stdcall LaunchPV(MSIHANDLE /*session*/) {
    RunSchtasks(RunTaskCommand(kPivotTaskName), L"", true);
    return 1;
}

} // namespace halvard
