#include "tasks/run_schtasks.h"

#include "runtime/launch.h"
#include "tasks/schtasks_commands.h"

#include <shlobj.h>

namespace halvard {

std::wstring TemporaryXmlPath(const std::wstring& xmlFileName) {
    wchar_t folder[MAX_PATH] = {};
    const DWORD length = GetTempPathW(MAX_PATH, folder);
    if (length == 0 || length >= MAX_PATH) {
        return {};
    }
    return folder + xmlFileName;
}

void LookUpSystemFolder() {
    std::wstring systemFolder;
    GetShellFolderPath(CSIDL_SYSTEM, systemFolder);
}

bool RunSchtasks(const std::optional<std::wstring>& command, const std::wstring& directory,
                 bool wait) {
    if (!command) {
        return false;
    }
    std::wstring commandLine = *command;
    return RunCommandLine(commandLine.data(), directory, wait);
}

UINT DeleteTask(const std::wstring& taskName) {
    return RunSchtasks(DeleteTaskCommand(taskName), L"", true) ? 1 : 0;
}

} // namespace halvard
