#include "tasks/elevated_task.h"

#include "runtime/custom_action_data.h"
#include "runtime/session.h"
#include "tasks/task_registration.h"
#include "tasks/task_templates.h"

UINT __stdcall CreateTriggerlessElevatedScheduleTask(MSIHANDLE session) {
    halvard::SetCurrentSession(session);
    const std::wstring data = halvard::ReadCustomActionData(session);
    const std::wstring taskName = halvard::GetDataValue(data, L"TaskName=");
    // What GetDataValue yields for an absent key must not become a command that runs elevated.
    const std::wstring command = halvard::GetDataValueOrEmpty(data, L"CommandToLaunch=");
    const std::wstring userName = halvard::GetDataValue(data, L"Username=");

    halvard::LogMessage(halvard::CurrentSession(), L"Task Name %s", taskName.c_str());
    halvard::LogMessage(halvard::CurrentSession(), L"Command to launch %s", command.c_str());
    halvard::LogMessage(halvard::CurrentSession(), L"Username %s", userName.c_str());

    return halvard::RegisterTaskFromXml(taskName, halvard::ElevatedTaskXml(taskName, command),
                                        userName);
}
