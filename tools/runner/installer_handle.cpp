#include "installer_handle.h"

#include <msidefs.h>
#include <msiquery.h>
#include <wtypes.h>

namespace halvard_runner {

namespace {

constexpr UINT kProperties = 4;
constexpr const wchar_t* kPlatformAndLanguage = L"x64;1033";
// The least version of the engine, times 100, that takes 64-bit packages.
constexpr int kEngineVersion = 200;

} // namespace

UINT Execute(MSIHANDLE database, const wchar_t* statement, MSIHANDLE record) {
    InstallerHandle view;
    const UINT status = MsiDatabaseOpenViewW(database, statement, view.Receive());
    return status == ERROR_SUCCESS ? MsiViewExecute(view.Get(), record) : status;
}

UINT WriteSummary(MSIHANDLE database, const wchar_t* packageCode, int source) {
    InstallerHandle summary;
    UINT status = MsiGetSummaryInformationW(database, nullptr, kProperties, summary.Receive());
    const auto set = [&](UINT property, UINT type, int number, const wchar_t* text) {
        if (status == ERROR_SUCCESS) {
            status =
                MsiSummaryInfoSetPropertyW(summary.Get(), property, type, number, nullptr, text);
        }
    };
    set(PID_TEMPLATE, VT_LPSTR, 0, kPlatformAndLanguage);
    set(PID_REVNUMBER, VT_LPSTR, 0, packageCode);
    set(PID_PAGECOUNT, VT_I4, kEngineVersion, nullptr);
    set(PID_WORDCOUNT, VT_I4, source, nullptr);
    return status == ERROR_SUCCESS ? MsiSummaryInfoPersist(summary.Get()) : status;
}

} // namespace halvard_runner
