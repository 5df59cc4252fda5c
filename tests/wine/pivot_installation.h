#pragma once

#include "child_programs.h"
#include "files.h"
#include "lines.h"
#include "registry_key.h"
#include "task_xml.h"

#include <windows.h>

#include <string>

namespace halvard_tests {

inline constexpr wchar_t kSchtasks[] = L"C:\\windows\\system32\\schtasks.exe";
inline constexpr wchar_t kInstallKey[] = L"SOFTWARE\\Qorta Technologies\\Install\\Pivot";
inline constexpr wchar_t kUserKey[] = L"SOFTWARE\\Zenvo\\PV";

/// The registry entries and the folder of an installed settings application. Everything goes at
/// the end, with what the actions left in the temporary folder.
class PivotInstallation {
public:
    explicit PivotInstallation(const std::wstring& location = L"T:\\Apps\\Pivot");
    ~PivotInstallation();
    PivotInstallation(const PivotInstallation&) = delete;
    PivotInstallation& operator=(const PivotInstallation&) = delete;

    const std::wstring& Location() const { return location_; }
    std::wstring File(const std::wstring& name) const { return folder_ + L"\\" + name; }

private:
    std::wstring location_;
    std::wstring folder_;
};

/// How a trace tells that a text is read: by its size, and then its bytes.
Lines ReadingOf(const std::wstring& key, const std::wstring& name, const std::wstring& access,
                const std::wstring& flags = L"0x2");

/// How a trace tells that a task is created of a rewritten copy of its definition, and changed
/// without a wait, both in a folder.
Lines CreationOf(const std::wstring& definition, const std::wstring& copy,
                 const std::wstring& create, const std::wstring& change,
                 const std::wstring& folder);

/// Where the temporary folder keeps a file.
std::wstring InTemporaryFolder(const std::wstring& name);

} // namespace halvard_tests
