#include "tasks/schtasks_commands.h"

#include "runtime/launch_text.h"

namespace halvard {

std::optional<std::wstring> CreateTaskCommand(const std::wstring& taskName,
                                              const std::wstring& xmlPath) {
    return CommandIfItFits(L"schtasks /Create /TN \"" + taskName + L"\" /XML \"" + xmlPath + L"\"",
                           kSchtasksCommandLimit);
}

std::optional<std::wstring> ChangeTaskCommand(const std::wstring& taskName,
                                              const std::wstring& programPath,
                                              const std::wstring& argument) {
    return CommandIfItFits(L"schtasks /change /TN \"" + taskName + L"\" /TR \"\\\"" + programPath +
                               L"\\\" " + argument + L"\"",
                           kSchtasksCommandLimit);
}

std::wstring DeleteTaskCommand(const std::wstring& taskName) {
    return L"schtasks /delete /TN \"" + taskName + L"\" /F";
}

std::wstring RunTaskCommand(const std::wstring& taskName) {
    return L"schtasks /run /TN \"" + taskName + L"\"";
}

std::wstring RunTaskParameters(const std::wstring& taskName) {
    return L" /run /TN " + taskName;
}

} // namespace halvard
