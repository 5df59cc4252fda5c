#include "tasks/benchmark_task.h"

#include "runtime/file_paths.h"
#include "runtime/file_status.h"
#include "runtime/pivot.h"
#include "runtime/registry.h"
#include "tasks/run_schtasks.h"
#include "tasks/schtasks_commands.h"
#include "tasks/task_xml_rewriter.h"

namespace halvard {

namespace {

constexpr wchar_t kTaskName[] = L"StartPVBM";
constexpr wchar_t kXmlFile[] = L"StartPVBM.xml";

} // namespace

UINT __stdcall CreateBenchMarkRunOnceSchTask(MSIHANDLE /*session*/) {
    LookUpSystemFolder();

    // The marker counts only where something bears its text as a name; that is how it is tested.
    const std::wstring marker = ReadRequiredString(HKEY_CURRENT_USER, L"SOFTWARE\\Zenvo\\PV",
                                                   KEY_READ | KEY_WRITE, L"VxBench");
    if (ExistsByAttributes(marker) && marker == L"1") {
        return ERROR_SUCCESS;
    }

    const std::wstring location = ReadPivotLocation();
    if (!ExistsByAttributes(location)) {
        return ERROR_SUCCESS;
    }
    const std::wstring installedXml = FileInFolder(location, kXmlFile);
    if (!ExistsByAttributes(installedXml)) {
        return ERROR_SUCCESS;
    }

    // Unlike the logon tasks this one is made from the rewritten copy, which has the new start.
    const std::wstring rewrittenXml = TemporaryXmlPath(kXmlFile);
    RewriteTaskStartBoundary(installedXml, rewrittenXml);
    RunSchtasks(CreateTaskCommand(kTaskName, rewrittenXml), location, true);

    const std::wstring program = ProgramInFolder(location, kPivotProgram);
    RunSchtasks(ChangeTaskCommand(kTaskName, program, L"benchmark"), location, false);
    return ERROR_SUCCESS;
}

UINT __stdcall RemoveBenchMarkRunOnceSchedularTask(MSIHANDLE /*session*/) {
    return DeleteTask(kTaskName);
}

} // namespace halvard
