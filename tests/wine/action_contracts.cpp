#include "action_contracts.h"

#include "agent/agent_install.h"
#include "agent/check_for_clients.h"
#include "cleanup/folder_actions.h"
#include "com_server/registration.h"
#include "launch/context_menu.h"
#include "launch/install_proxy.h"
#include "processes/application_actions.h"
#include "processes/service_removal.h"
#include "registry_actions/analytics.h"
#include "registry_actions/camera_chains.h"
#include "registry_actions/display_log.h"
#include "registry_actions/qorta_key.h"
#include "registry_actions/retained_values.h"
#include "runtime/launch_conditions.h"
#include "tasks/benchmark_task.h"
#include "tasks/elevated_task.h"
#include "tasks/launch_pv.h"
#include "tasks/pv_dvr_tasks.h"

#include "agent_calls.h"
#include "child_programs.h"
#include "display_adapter.h"
#include "files.h"
#include "installed_service.h"
#include "pivot_installation.h"
#include "registry_key.h"
#include "restart_renames.h"
#include "task_scheduler_stand_in.h"

namespace halvard_tests {

namespace {

const std::wstring kZenvo = L"SOFTWARE\\Zenvo";
const std::wstring kQorta = L"SOFTWARE\\Qorta Technologies";
const std::wstring kCameras = L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\"
                              L"{e5323777-f976-4f5b-9b55-b94699c46e44}";

void SetNumber(HKEY root, const std::wstring& key, const wchar_t* name, DWORD number) {
    RegSetKeyValueW(root, key.c_str(), name, REG_DWORD, &number, sizeof(number));
}

struct Nothing {};

struct Pivot : PivotInstallation {
    Pivot() {
        for (const wchar_t* task : {L"StartPV.xml", L"StartDVR.xml", L"StartPVBM.xml"}) {
            WriteWholeFile(File(task), TaskXml(L"<LogonTrigger/>"));
        }
        WriteFileAt(File(L"pvcmd.exe"));
        CreateFolders(File(L"below"));
        WriteFileAt(File(L"below\\file"));
        SetRegistryString(HKEY_CURRENT_USER, kUserKey, L"VxBench", L"0");
        SetNumber(HKEY_LOCAL_MACHINE, kUserKey, L"LazeStart", 1);
    }
};

struct Recorder : PivotInstallation {
    Recorder() {
        CreateFolders(scratch.File(L"Suite\\XVR\\below"));
        WriteFileAt(scratch.File(L"Suite\\VSServCmd.exe"));
        WriteFileAt(scratch.File(L"Suite\\XVR\\below\\file"));
        SetRegistryString(HKEY_LOCAL_MACHINE, kQorta + L"\\Install\\Zenvo DVR", L"Location",
                          scratch.File(L"Suite"));
        SetRegistryString(HKEY_LOCAL_MACHINE, kQorta + L"\\Install\\XVR64", L"InstallDir",
                          scratch.File(L"Suite\\"));
    }
    ScratchFolder scratch;
};

// The folder of the application framework, and the key of its proxy.
struct Framework {
    Framework() {
        CreateFolders(scratch.File(L"F\\below"));
        WriteFileAt(scratch.File(L"F\\file"));
        for (const wchar_t* key : {L"SOFTWARE\\Qorta\\Sable\\Packages\\Core-Static",
                                   L"SOFTWARE\\Wow6432Node\\Qorta\\Sable\\Packages\\Core-Static"}) {
            SetRegistryString(HKEY_LOCAL_MACHINE, key, L"Location", scratch.File(L"F"));
        }
        SetRegistryString(HKEY_LOCAL_MACHINE,
                          L"SOFTWARE\\Wow6432Node\\Qorta\\Sable\\Settings\\Kiln\\Install", L"",
                          L"");
    }
    AbsentKeys keys{{L"SOFTWARE\\Qorta", L"SOFTWARE\\Wow6432Node\\Qorta"}};
    ScratchFolder scratch;
};

// A folder with something in it.
struct Folder {
    Folder() {
        CreateFolders(scratch.File(L"S\\below"));
        WriteFileAt(scratch.File(L"S\\below\\file"));
        WriteFileAt(scratch.File(L"S\\server.dll"));
    }
    ScratchFolder scratch;
};

struct Service : Folder {
    Service() { CopyTestService(scratch.File(L"S\\svc.exe")); }
    InstalledService service{L"HalvardTestService", L"T:\\Scratch\\S\\svc.exe"};
};

struct Branding : Folder {
    Branding() {
        SetRegistryString(HKEY_LOCAL_MACHINE, kZenvo + L"\\PV", L"PVBrandingInstallDir",
                          scratch.File(L"S"));
        SetRegistryString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\ZenvoBranding", L"kept",
                          scratch.File(L"S\\server.dll"));
    }
    AbsentKeys keys{{kZenvo, L"SOFTWARE\\ZenvoBranding"}};
};

struct Camera {
    Camera() {
        using namespace std::string_literals;
        device.SetCharacters(L"CameraDeviceMftClsidChain", REG_MULTI_SZ,
                             L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}\0{other}\0\0"s);
    }
    ScratchKey deviceClass{kCameras};
    ScratchKey device{kCameras + L"\\device"};
};

struct Consent {
    Consent() {
        SetRegistryString(HKEY_LOCAL_MACHINE, kZenvo + L"\\ZenvoAnalytics", L"AnalyticsAccepted",
                          L"true");
        SetNumber(HKEY_LOCAL_MACHINE, kQorta + L"\\Install", L"ZenvoDVR_Enabled", 1);
    }
    AbsentKeys keys{{kZenvo, kQorta, L"SOFTWARE\\ZenvoDVR"}};
};

struct NoConsent {
    AbsentKeys keys{{kZenvo}};
};

struct Adapter {
    ScratchFolder scratch;
    EnvironmentVariable temporaryFolder{L"TMP", scratch.Path()};
    ScratchKey driver{L"SYSTEM\\CurrentControlSet\\Control\\Class\\HalvardTests\\9001"};
    DisplayAdapter adapter{L"Zenvo", L"HalvardTests\\9001"};
};

struct Clients {
    Clients() {
        SetNumber(HKEY_LOCAL_MACHINE, kTeloKey, L"Bar_TeloStatus", 1);
        SetRegistryString(HKEY_CURRENT_USER, kTeloKey, L"TeloClient", L"Bar");
        SetRegistryString(HKEY_LOCAL_MACHINE, kQorta + L"\\Install\\UPA", L"ProductVersion",
                          L"1.2");
    }
    AbsentKeys keys{{kTeloKey, kQorta}};
    AbsentKeys userKeys{{kTeloKey}, HKEY_CURRENT_USER};
};

// The agent's folders and an older service; no service starts by itself, and no task is kept.
struct Agent : AgentMachine {
    Agent() { CopyAgent(); }

    struct StandIns : AgentStandIns {
        explicit StandIns(const AgentFolders& folders) : AgentStandIns(folders) {}
    } standIns{*this};
    StandInTaskScheduler scheduler;
    HOOK(starting, StartServiceW, [](SC_HANDLE, DWORD, LPCWSTR*) { return TRUE; });
};

struct OlderAgent : Agent {
    InstalledService older{kOlderService, L"C:\\none.exe"};
    InstalledService agent{kAgentService, L"C:\\none.exe"};
};

struct InstalledAgent : Agent {
    PendingRenames renames;
    InstalledService agent{kAgentService, L"C:\\none.exe"};
};

template <class Machine>
std::shared_ptr<void> Make(const StandInSession& /*session*/) {
    return std::make_shared<Machine>();
}

// The same with a property of the session.
template <class Machine>
auto MakeWith(const wchar_t* property, const std::wstring& value) {
    return [property, value](const StandInSession& session) -> std::shared_ptr<void> {
        session.SetProperty(property, value);
        return std::make_shared<Machine>();
    };
}

template <class Machine>
auto MakeWithData(const std::wstring& data) {
    return MakeWith<Machine>(L"CustomActionData", data);
}

const std::wstring kPivotKey = L"open HKLM\\SOFTWARE\\Qorta Technologies\\Install\\Pivot";
const std::wstring kServer = L"InstallDir=T:\\Scratch\\S;DLLName=server.dll";
const std::wstring kTask = L"TaskName=HalvardAgentTask;CommandToLaunch=C:\\A B\\a.exe -x;"
                           L"Username=A user";

} // namespace

const std::vector<Contract>& Contracts() {
    using namespace halvard;
    static const std::vector<Contract> contracts = {
        {"LaunchedFromMIM",
         LaunchedFromMIM,
         MakeWith<Nothing>(L"LAUNCHED_FROM_MIM", L"1"),
         0,
         {L"property LAUNCHED_FROM_MIM 260"},
         {},
         false,
         1},
        {"BlockLaunch",
         BlockLaunch,
         MakeWith<Nothing>(L"LAUNCHED_FROM_MIM", L"1"),
         0,
         {L"property LAUNCHED_FROM_MIM 260"},
         {},
         true,
         1},
        {"CreateLogonSchTask",
         CreateLogonSchTask,
         Make<Pivot>,
         0,
         {L"delete value ", kPivotKey, L"run schtasks /Create", L"run schtasks /change"},
         {},
         false,
         0},
        {"CreateDVRLogonSchTask",
         CreateDVRLogonSchTask,
         Make<Pivot>,
         0,
         {L"delete value ", kPivotKey, L"run schtasks /Create", L"run schtasks /change"},
         {},
         false,
         0},
        {"RemovePVSchedularTask",
         RemovePVSchedularTask,
         Make<Nothing>,
         1,
         {L"run schtasks /delete /TN \"StartPV\""},
         {},
         false,
         0},
        {"RemoveDVRSchedularTask",
         RemoveDVRSchedularTask,
         Make<Nothing>,
         1,
         {L"run schtasks /delete /TN \"StartDVR\""},
         {},
         false,
         0},
        {"LaunchPV", LaunchPV, Make<Nothing>, 1, {L"run schtasks /run"}, {}, false, 0},
        {"DeleteSchedTaskonBranding",
         DeleteSchedTaskonBranding,
         Make<Pivot>,
         0,
         {L"open HKLM\\SOFTWARE\\Zenvo\\PV", L"run schtasks /delete"},
         {L"open HKLM\\SOFTWARE\\Zenvo\\PV"},
         false,
         0},
        {"CreateBenchMarkRunOnceSchTask",
         CreateBenchMarkRunOnceSchTask,
         Make<Pivot>,
         0,
         {L"open HKCU\\SOFTWARE\\Zenvo\\PV", kPivotKey, L"run schtasks /Create",
          L"run schtasks /change"},
         {},
         false,
         0},
        {"RemoveBenchMarkRunOnceSchedularTask",
         RemoveBenchMarkRunOnceSchedularTask,
         Make<Nothing>,
         1,
         {L"run schtasks /delete /TN \"StartPVBM\""},
         {},
         false,
         0},
        {"CreateTriggerlessElevatedScheduleTask",
         CreateTriggerlessElevatedScheduleTask,
         MakeWithData<StandInTaskScheduler>(kTask),
         0,
         {L"property CustomActionData", L"enter apartment", L"create object"},
         {},
         true,
         4},

        {"DeletePVFolder",
         DeletePVFolder,
         Make<Pivot>,
         0,
         {kPivotKey, L"execute T:\\Apps\\Pivot\\pvcmd.exe|exit", kPivotKey, L"change entry"},
         {},
         true,
         0},
        {"DeletePVINSTALLDIRFolder",
         DeletePVINSTALLDIRFolder,
         Make<Pivot>,
         0,
         {L"execute %SYSTEMROOT%", kPivotKey, L"change entry"},
         {},
         true,
         0},
        {"DeletePVSlimINSTALLDIRFolder",
         DeletePVSlimINSTALLDIRFolder,
         Make<Framework>,
         0,
         {L"open HKLM\\SOFTWARE\\Qorta\\Sable\\Packages\\Core-Static", L"change entry"},
         {},
         true,
         0},
        {"DeleteDMFTDirectory",
         DeleteDMFTDirectory,
         MakeWithData<Folder>(L"InstallDir=T:\\Scratch\\S"),
         0,
         {L"property CustomActionData", L"change entry"},
         {},
         false,
         1},
        {"DeleteXVRFolder",
         DeleteXVRFolder,
         Make<Recorder>,
         0,
         {kPivotKey, L"execute T:\\Apps\\Pivot\\pvcmd.exe|exit", L"open HKLM", L"is there",
          L"change entry", L"is empty"},
         {L"open HKLM\\SOFTWARE\\Qorta Technologies\\Install\\XVR64"},
         true,
         0},

        {"SetPermissionsRegisterDLL",
         SetPermissionsRegisterDLL,
         MakeWithData<Folder>(kServer + L";Username=u"),
         0,
         {L"property CustomActionData", L"run cmd.exe /C \"icacls",
          L"run cmd.exe /C \"regsvr32.exe /u /s", L"run cmd.exe /C \"regsvr32.exe /s"},
         Lines(20, L"pipe"),
         false,
         4},
        {"UnregisterDLL",
         UnregisterDLL,
         MakeWithData<Folder>(kServer),
         0,
         {L"property CustomActionData", L"run cmd.exe /C \"regsvr32.exe /u /s"},
         Lines(2, L"pipe"),
         false,
         3},

        {"ShutDownPivotConsole",
         ShutDownPivotConsole,
         Make<Pivot>,
         0,
         {kPivotKey, L"run "},
         {},
         false,
         0},
        {"TerminatePivotApp",
         TerminatePivotApp,
         Make<Nothing>,
         0,
         {L"folder 37", L"run \"C:\\windows\\system32\\TaskKill.exe\" /IM VireoSettings.exe"},
         {},
         false,
         0},
        {"ShutDownDVR",
         ShutDownDVR,
         Make<Recorder>,
         0,
         {L"open HKLM\\SOFTWARE\\Qorta Technologies\\Install\\Zenvo DVR", L"run "},
         {},
         false,
         0},
        {"TerminateDVRApp",
         TerminateDVRApp,
         Make<Nothing>,
         0,
         {L"folder 37", L"run \"C:\\windows\\system32\\TaskKill.exe\" /IM ZenvoVSServ.exe"},
         {},
         false,
         0},
        {"DeleteServiceIfBinaryIsInDirectory",
         DeleteServiceIfBinaryIsInDirectory,
         MakeWithData<Service>(L"ServiceName=HalvardTestService;DirectoryOfBinary=T:\\Scratch\\S"),
         0,
         {L"property CustomActionData", L"open manager", L"open service HalvardTestService",
          L"configuration of service", L"delete service HalvardTestService"},
         {},
         true,
         1},

        {"DeleteandRetainValues",
         DeleteandRetainValues,
         Make<Branding>,
         0,
         {L"open HKLM\\SOFTWARE\\ZenvoBranding", L"open HKLM\\SOFTWARE\\Zenvo\\PV", L"is folder",
          L"list ", L"change entry"},
         {},
         false,
         0},
        {"DeleteOptiqCameraGUID",
         DeleteOptiqCameraGUID,
         Make<Camera>,
         1603,
         {L"open HKLM\\" + kCameras, L"get ", L"set "},
         {},
         true,
         0},
        {"DisabelAnalyticsKey",
         DisabelAnalyticsKey,
         MakeWith<Consent>(L"DISABLEANALYTICS", L"YES"),
         0,
         {L"property DISABLEANALYTICS 260", L"open HKLM", L"set HKLM"},
         {},
         false,
         0},
        {"EnableAnalyticsKey",
         EnableAnalyticsKey,
         Make<NoConsent>,
         0,
         {L"create HKLM\\SOFTWARE\\Zenvo\\Install", L"set HKLM\\SOFTWARE\\Zenvo\\Install",
          L"create HKLM\\SOFTWARE\\Zenvo\\ZenvoAnalytics",
          L"set HKLM\\SOFTWARE\\Zenvo\\ZenvoAnalytics"},
         {},
         false,
         0},
        {"DeleteAnalyticsKey",
         DeleteAnalyticsKey,
         Make<Consent>,
         0,
         {L"open HKLM\\SOFTWARE\\Zenvo\\ZenvoAnalytics", L"delete key"},
         {},
         false,
         1},
        {"TrackDVRAnalytics",
         TrackDVRAnalytics,
         Make<Consent>,
         1,
         {L"open HKLM\\SOFTWARE\\Qorta Technologies\\Install", L"create HKLM\\SOFTWARE\\ZenvoDVR",
          L"set HKLM\\SOFTWARE\\ZenvoDVR"},
         {},
         false,
         0},
        {"DeleteQortaKey",
         DeleteQortaKey,
         Make<Framework>,
         0,
         {L"delete tree HKLM\\SOFTWARE\\Qorta"},
         {},
         false,
         0},
        {"SetDCLogFileRegistry",
         SetDCLogFileRegistry,
         Make<Adapter>,
         0,
         {L"temporary folder", L"make folder", L"list devices", L"device 0", L"property 11",
          L"open HKLM\\SYSTEM\\CurrentControlSet\\Control\\Class", L"set HKLM"},
         {L"list devices", L"open HKLM\\SYSTEM\\CurrentControlSet\\Control\\Class"},
         false,
         0},

        {"CheckForClients",
         CheckForClients,
         MakeWithData<Clients>(L"ClientName=Foo;Action=;CurrentVersion=1.2"),
         259,
         {L"property CustomActionData", L"open HKLM\\SOFTWARE\\Telo", L"set HKCU\\SOFTWARE\\Telo",
          L"set HKLM\\SOFTWARE\\Telo"},
         {},
         true,
         4},
        {"PreInstallUPA",
         PreInstallUPA,
         Make<OlderAgent>,
         0,
         {L"folder 38", L"run ", L"open service UPAL", L"delete service UPAL",
          L"open service TeloLauncher", L"delete service TeloLauncher"},
         {},
         false,
         0},
        {"PostInstallUPA",
         PostInstallUPA,
         MakeWithData<Agent>(kTask),
         0,
         {L"event source null Application", L"set HKLM", L"make identity", L"set list",
          L"create service TeloLauncher", L"start service TeloLauncher", L"create object",
          L"execute schtasks"},
         {L"event source", L"open file 0x60000", L"make account", L"extend list", L"open manager"},
         true,
         4},
        {"AfterInstallUPA",
         AfterInstallUPA,
         Make<InstalledAgent>,
         0,
         {L"open HKLM", L"open service TeloLauncher", L"start service TeloLauncher"},
         {},
         false,
         0},

        {"LaunchInstallProxyPV",
         LaunchInstallProxyPV,
         MakeWithData<Framework>(L"C:\\P\\"),
         1,
         {L"open HKLM\\SOFTWARE", L"property CustomActionData", L"run "},
         {},
         true,
         1},
        {"DelInstallProxyKey",
         DelInstallProxyKey,
         Make<Framework>,
         1,
         {L"delete key HKLM\\SOFTWARE\\Wow6432Node\\Qorta"},
         {},
         true,
         2},
        {"InstallContextMenuMSIX",
         InstallContextMenuMSIX,
         Make<Nothing>,
         0,
         {L"folder of Windows", L"run cmd.exe", L"run cmd.exe"},
         Lines(4, L"pipe"),
         false,
         0},
    };
    return contracts;
}

} // namespace halvard_tests
