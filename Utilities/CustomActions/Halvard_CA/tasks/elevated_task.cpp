#include "tasks/elevated_task.h"

#include "runtime/custom_action_data.h"
#include "runtime/session.h"
#include "tasks/task_items.h"
#include "tasks/task_registration.h"
#include "tasks/task_templates.h"

namespace halvard {

UINT __stdcall CreateTriggerlessElevatedScheduleTask(MSIHANDLE session) {
    SetCurrentSession(session);
    // What GetDataValue yields for an absent key must not become a command that runs elevated.
    const TaskItems task = ReadTaskItems(session, GetDataValueOrEmpty);
    return RegisterTaskFromXml(task.taskName, ElevatedTaskXml(task.taskName, task.command),
                               task.userName);
}

} // namespace halvard
