#pragma once

#include <windows.h>
#include <msi.h>

#include <string>

namespace halvard {

/// What an action is told of the task that it registers.
struct TaskItems {
    std::wstring taskName;
    std::wstring command;
    std::wstring userName;
};

/// Reads the items TaskName=, CommandToLaunch= and Username= of the session's CustomActionData, and
/// logs them to the current session when all have been read. `readCommand` is how the command is
/// picked: GetDataValue or GetDataValueOrEmpty.
///
/// Throws std::out_of_range as GetDataValue does.
TaskItems ReadTaskItems(MSIHANDLE session, std::wstring (*readCommand)(const std::wstring& data,
                                                                       const std::wstring& key));

} // namespace halvard
