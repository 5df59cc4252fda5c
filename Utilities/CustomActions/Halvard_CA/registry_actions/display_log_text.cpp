#include "registry_actions/display_log_text.h"

namespace halvard {

namespace {

// In wide characters, terminators included.
constexpr std::size_t kPathCapacity = 1024;
constexpr std::size_t kKeyCapacity = 256;

bool StartsWith(const std::wstring& text, const wchar_t* start) {
    return text.rfind(start, 0) == 0;
}

} // namespace

std::optional<DisplayLogPaths> DisplayLogPathsIn(const std::wstring& temporaryFolder) {
    if (temporaryFolder.empty()) {
        return std::nullopt;
    }
    DisplayLogPaths paths;
    paths.folder = temporaryFolder + L"Zenvo\\PV\\Analytics";
    paths.file = paths.folder + L"\\qtkmd_dce.log";
    if (paths.file.size() >= kPathCapacity) {
        return std::nullopt;
    }
    return paths;
}

bool IsMadeByTheMaker(const std::wstring& manufacturer) {
    return manufacturer.find(L"Zenvo Corporation") != std::wstring::npos ||
           StartsWith(manufacturer, L"Zenvo") || StartsWith(manufacturer, L"Qorta");
}

std::optional<std::wstring> DriverClassKey(const std::wstring& driverKeyName) {
    std::wstring key = L"SYSTEM\\CurrentControlSet\\Control\\Class\\" + driverKeyName;
    if (driverKeyName.empty() || key.size() >= kKeyCapacity) {
        return std::nullopt;
    }
    return key;
}

} // namespace halvard
