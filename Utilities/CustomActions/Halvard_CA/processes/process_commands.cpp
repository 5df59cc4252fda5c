#include "processes/process_commands.h"

#include "runtime/file_paths.h"
#include "runtime/launch_text.h"

namespace halvard {

std::optional<std::wstring> ExitCommand(const std::wstring& programPath) {
    return CommandIfItFits(L"\"" + programPath + L"\" exit", kLaunchCommandLimit);
}

std::optional<std::wstring> TaskKillCommand(const std::wstring& systemFolder,
                                            const std::wstring& imageName,
                                            const std::wstring& end) {
    return CommandIfItFits(L"\"" + ProgramInFolder(systemFolder, L"TaskKill.exe") + L"\" /IM " +
                               imageName + L" /F" + end,
                           kLaunchCommandLimit);
}

} // namespace halvard
