#include "pivot_installation.h"

namespace halvard_tests {

namespace {

std::wstring WithoutTrailingSlash(std::wstring path) {
    while (!path.empty() && (path.back() == L'\\' || path.back() == L'/')) {
        path.pop_back();
    }
    return path;
}

} // namespace

PivotInstallation::PivotInstallation(const std::wstring& location)
    : location_(location), folder_(WithoutTrailingSlash(location)) {
    CreateFolders(folder_);
    SetRegistryString(HKEY_LOCAL_MACHINE, kInstallKey, L"Location", location_);
}

PivotInstallation::~PivotInstallation() {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Qorta Technologies");
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Zenvo");
    RegDeleteTreeW(HKEY_CURRENT_USER, L"SOFTWARE\\Zenvo");
    RemoveForGood(folder_);
    for (const wchar_t* file : {L"StartPV.xml", L"StartDVR.xml", L"StartPVBM.xml"}) {
        DeleteFileW(InTemporaryFolder(file).c_str());
    }
}

Lines ReadingOf(const std::wstring& key, const std::wstring& name, const std::wstring& access,
                const std::wstring& flags) {
    const std::wstring value = key + L" " + name + L" " + flags;
    return {L"open " + key + L" " + access, L"size of " + value, L"get " + value, L"close " + key};
}

Lines CreationOf(const std::wstring& definition, const std::wstring& copy,
                 const std::wstring& create, const std::wstring& change,
                 const std::wstring& folder) {
    return {L"temporary folder 260",
            L"open file 0x80000000 " + definition,
            L"open file 0x40000000 " + copy,
            L"run " + create + L" in " + folder,
            L"wait for " + create + L" 4294967295",
            L"run " + change + L" in " + folder};
}

std::wstring InTemporaryFolder(const std::wstring& name) {
    wchar_t folder[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, folder);
    return folder + name;
}

} // namespace halvard_tests
