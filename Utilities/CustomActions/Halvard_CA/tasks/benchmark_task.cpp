#include "tasks/benchmark_task.h"

#include "runtime/file_paths.h"
#include "runtime/pivot.h"
#include "runtime/registry.h"
#include "tasks/schtasks_actions.h"
#include "tasks/schtasks_commands.h"
#include "tasks/task_xml_rewriter.h"

namespace {

constexpr wchar_t kTaskName[] = L"StartPVBM";
constexpr wchar_t kXmlFile[] = L"StartPVBM.xml";

} // namespace

UINT __stdcall CreateBenchMarkRunOnceSchTask(MSIHANDLE /*session*/) {
    halvard::LookUpSystemFolder();

    // The marker counts only where something bears its text as a name; that is how it is tested.
    const std::wstring marker = halvard::ReadRequiredString(
        HKEY_CURRENT_USER, L"SOFTWARE\\Zenvo\\PV", KEY_READ | KEY_WRITE, L"VxBench");
    if (halvard::PathExists(marker) && marker == L"1") {
        return ERROR_SUCCESS;
    }

    const std::wstring location = halvard::ReadRequiredString(
        HKEY_LOCAL_MACHINE, halvard::kPivotInstallKey, KEY_READ | KEY_WRITE, L"Location");
    if (!halvard::PathExists(location)) {
        return ERROR_SUCCESS;
    }
    const std::wstring installedXml = halvard::FileInFolder(location, kXmlFile);
    if (!halvard::PathExists(installedXml)) {
        return ERROR_SUCCESS;
    }

    // Unlike the logon tasks this one is made from the rewritten copy, which has the new start.
    const std::wstring rewrittenXml = halvard::TemporaryXmlPath(kXmlFile);
    halvard::RewriteTaskStartBoundary(installedXml, rewrittenXml);
    halvard::RunSchtasks(halvard::CreateTaskCommand(kTaskName, rewrittenXml), location, true);

    const std::wstring program = halvard::ProgramInFolder(location, halvard::kPivotProgram);
    halvard::RunSchtasks(halvard::ChangeTaskCommand(kTaskName, program, L"benchmark"), location,
                         false);
    return ERROR_SUCCESS;
}

UINT __stdcall RemoveBenchMarkRunOnceSchedularTask(MSIHANDLE /*session*/) {
    return halvard::DeleteTask(kTaskName);
}
