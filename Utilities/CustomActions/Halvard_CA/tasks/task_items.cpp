#include "tasks/task_items.h"

#include "runtime/custom_action_data.h"
#include "runtime/session.h"

namespace halvard {

TaskItems ReadTaskItems(MSIHANDLE session, std::wstring (*readCommand)(const std::wstring& data,
                                                                       const std::wstring& key)) {
    const std::wstring data = ReadCustomActionData(session);
    TaskItems items;
    items.taskName = GetDataValue(data, L"TaskName=");
    items.command = readCommand(data, L"CommandToLaunch=");
    items.userName = GetDataValue(data, L"Username=");
    LogMessage(CurrentSession(), L"Task Name %s", items.taskName.c_str());
    LogMessage(CurrentSession(), L"Command to launch %s", items.command.c_str());
    LogMessage(CurrentSession(), L"Username %s", items.userName.c_str());
    return items;
}

} // namespace halvard
