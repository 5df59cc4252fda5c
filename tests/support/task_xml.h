#pragma once

#include <string>

namespace halvard_tests {

/// A small task definition as the package ships it, its elements in the order of the task schema.
inline std::wstring TaskXml(const std::wstring& trigger) {
    return L"<?xml version=\"1.0\" encoding=\"UTF-16\"?>"
           L"<Task version=\"1.2\" xmlns=\"http://schemas.microsoft.com/windows/2004/02/mit/task\">"
           L"<RegistrationInfo><Author>Zenvo</Author></RegistrationInfo><Triggers>" +
           trigger +
           L"</Triggers><Settings><Enabled>true</Enabled></Settings><Actions><Exec>"
           L"<Command>pvcmd.exe</Command><WorkingDirectory>shipped</WorkingDirectory>"
           L"</Exec></Actions></Task>";
}

} // namespace halvard_tests
