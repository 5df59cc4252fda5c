#include "scenes.h"

#include "folder_entries.h"

#include "display_adapter.h"
#include "files.h"
#include "registry_key.h"
#include "task_xml.h"

#include <windows.h>
#include <setupapi.h>

#include <stdexcept>
#include <utility>

using halvard_tests::CreateFolders;
using halvard_tests::IsThere;
using halvard_tests::TaskXml;
using halvard_tests::WriteFileAt;
using halvard_tests::WriteWholeFile;
using namespace std::string_literals;

namespace halvard_sweep {

namespace {

constexpr wchar_t kApps[] = L"T:\\Apps";
const std::wstring kPivot = L"T:\\Apps\\Pivot";
const std::wstring kInstall = L"SOFTWARE\\Qorta Technologies\\Install";
const std::wstring kAgentFolder = L"C:\\Program Files\\Zenvo\\Usage Profile Agent";
const std::wstring kCameras = L"SYSTEM\\CurrentControlSet\\Control\\DeviceClasses\\"
                              L"{e5323777-f976-4f5b-9b55-b94699c46e44}";
const std::wstring kSessionManager = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
const std::wstring kDriver = L"{4d36e968-e325-11ce-bfc1-08002be10318}\\9001";
const std::wstring kClass = L"SYSTEM\\CurrentControlSet\\Control\\Class\\";
const std::wstring kUninstall = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\"
                                L"Zenvo Meridian Install Manager";
constexpr const wchar_t* kServices[] = {L"TeloLauncher", L"UPAL", L"HalvardSweep"};
constexpr const wchar_t* kTaskFiles[] = {L"StartPV.xml", L"StartDVR.xml", L"StartPVBM.xml"};

void* lockedFile = INVALID_HANDLE_VALUE;

void Check(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error("the scene cannot be made: "s + what);
    }
}

void SetValue(HKEY root, const std::wstring& key, const std::wstring& name, DWORD type,
              const void* data, std::size_t size) {
    Check(RegSetKeyValueW(root, key.c_str(), name.c_str(), type, data, static_cast<DWORD>(size)) ==
              ERROR_SUCCESS,
          "RegSetKeyValueW");
}

void SetText(const std::wstring& key, const std::wstring& name, const std::wstring& text,
             HKEY root = HKEY_LOCAL_MACHINE, DWORD type = REG_SZ) {
    SetValue(root, key, name, type, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

void SetNumber(const std::wstring& key, const std::wstring& name, DWORD number) {
    SetValue(HKEY_LOCAL_MACHINE, key, name, REG_DWORD, &number, sizeof(number));
}

// Trees that actions work on by themselves, and that lie on no drive of the tests' own.
void RemoveTreeOnC(const std::wstring& folder) {
    for (const WIN32_FIND_DATAW& entry : EntriesOf(folder)) {
        const std::wstring path = folder + L"\\" + entry.cFileName;
        if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            RemoveTreeOnC(path);
        } else {
            DeleteFileW(path.c_str());
        }
    }
    RemoveDirectoryW(folder.c_str());
}

void DeleteServices() {
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    for (const wchar_t* const name : kServices) {
        SC_HANDLE service = OpenServiceW(manager, name, SERVICE_ALL_ACCESS);
        if (service != nullptr) {
            DeleteService(service);
            CloseServiceHandle(service);
        }
    }
    CloseServiceHandle(manager);
}

void MakeService(const wchar_t* name, const wchar_t* program) {
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    SC_HANDLE service = CreateServiceW(
        manager, name, name, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
        SERVICE_ERROR_NORMAL, program, nullptr, nullptr, nullptr, nullptr, nullptr);
    Check(service != nullptr, "CreateServiceW");
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
}

void MakeTree(const std::wstring& folder) {
    CreateFolders(folder + L"\\Cache\\Old");
    WriteFileAt(folder + L"\\settings.ini");
    WriteFileAt(folder + L"\\Cache\\history.dat");
    WriteFileAt(folder + L"\\Cache\\Old\\first.dat");
}

void MakePivot() {
    SetText(kInstall + L"\\Pivot", L"Location", kPivot);
    CreateFolders(kPivot);
    WriteFileAt(kPivot + L"\\pvcmd.exe");
    WriteFileAt(kPivot + L"\\VSServCmd.exe");
}

void MakePivotTree() {
    MakePivot();
    MakeTree(kPivot);
}

void MakeLockedPivotTree() {
    MakePivotTree();
    lockedFile = CreateFileW((kPivot + L"\\settings.ini").c_str(), GENERIC_READ, FILE_SHARE_READ,
                             nullptr, OPEN_EXISTING, 0, nullptr);
}

void MakeTaskFiles() {
    MakePivot();
    const std::wstring logon = TaskXml(L"<LogonTrigger><Enabled>true</Enabled></LogonTrigger>");
    WriteWholeFile(kPivot + L"\\StartPV.xml", logon);
    WriteWholeFile(kPivot + L"\\StartDVR.xml", logon);
    WriteWholeFile(kPivot + L"\\StartPVBM.xml",
                   TaskXml(L"<TimeTrigger><StartBoundary>2020-01-01T12:00:00</StartBoundary>"
                           L"<Enabled>true</Enabled></TimeTrigger>"));
    SetText(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run", L"StartPV", L"pvcmd.exe");
    SetText(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run", L"StartDVR", L"VSServCmd.exe");
    SetText(L"SOFTWARE\\Zenvo\\PV", L"VxBench", L"0", HKEY_CURRENT_USER);
}

void MakeNothing() {}

void MakeBrandedStart() {
    SetNumber(L"SOFTWARE\\Zenvo\\PV", L"LazeStart", 1);
}

void MakeSlimTree() {
    SetText(L"SOFTWARE\\Wow6432Node\\Qorta\\Sable\\Packages\\Core-Static", L"Location",
            L"T:\\Apps\\Slim");
    MakeTree(L"T:\\Apps\\Slim");
}

void MakeTransformTree() {
    MakeTree(L"T:\\Apps\\Transform");
}

void MakeRecorderTree() {
    MakePivot();
    SetText(kInstall + L"\\XVR64", L"InstallDir", L"T:\\Apps\\Recorder\\");
    MakeTree(L"T:\\Apps\\Recorder\\XVR");
}

void MakeServer() {
    CreateFolders(L"T:\\Apps\\Server\\Data");
    WriteFileAt(L"T:\\Apps\\Server\\server.dll");
    WriteFileAt(L"T:\\Apps\\Server\\Data\\table.dat");
}

void MakeRecorderTool() {
    MakePivot();
    SetText(kInstall + L"\\Zenvo DVR", L"Location", kPivot);
}

void MakeServiceInFolder() {
    CreateFolders(L"T:\\Apps\\Service");
    WriteFileAt(L"T:\\Apps\\Service\\service.exe");
    MakeService(L"HalvardSweep", L"T:\\Apps\\Service\\service.exe");
}

void MakeBranding() {
    SetText(L"SOFTWARE\\Zenvo\\PV", L"PVBrandingInstallDir", L"T:\\Apps\\Brand");
    SetText(L"SOFTWARE\\ZenvoBranding", L"Kept", L"T:\\Apps\\Brand\\kept.ini");
    SetText(L"SOFTWARE\\ZenvoBranding\\Skins", L"Name", L"Skins");
    MakeTree(L"T:\\Apps\\Brand");
    WriteFileAt(L"T:\\Apps\\Brand\\kept.ini");
    WriteFileAt(L"T:\\Apps\\Brand\\logo.png");
}

void MakeCameras() {
    const std::wstring chain = L"{55E09F33-D6B5-4A6D-99ED-87DC666C6710}\0{other}\0"s;
    for (const wchar_t* const device : {L"\\##?#USB#VID_1", L"\\##?#USB#VID_2"}) {
        SetText(kCameras + device, L"CameraDeviceMftClsidChain", chain, HKEY_LOCAL_MACHINE,
                REG_MULTI_SZ);
        SetNumber(kCameras + device + L"\\#GLOBAL", L"Flags", 1);
    }
}

void MakeConsent() {
    SetText(L"SOFTWARE\\Zenvo\\ZenvoAnalytics", L"AnalyticsAccepted", L"true");
}

void MakeRecorderEnabled() {
    SetNumber(kInstall, L"ZenvoDVR_Enabled", 1);
}

void MakeQortaKey() {
    SetText(L"SOFTWARE\\Qorta\\Sable", L"Name", L"text");
}

// Made once: what the action changes is the driver's key.
void MakeAdapter() {
    static const bool made = [] {
        const HDEVINFO adapters =
            SetupDiCreateDeviceInfoList(&halvard_tests::kDisplayAdapters, nullptr);
        SP_DEVINFO_DATA adapter = {};
        const DWORD code =
            halvard_tests::RegisterAdapter(adapters, L"ROOT\\HALVARDSWEEP\\0001", adapter);
        // Made by a process before this one.
        return code == ERROR_DEVINST_ALREADY_EXISTS ||
               (code == NO_ERROR &&
                halvard_tests::SetAdapterText(adapters, adapter, SPDRP_MFG, L"Zenvo") &&
                halvard_tests::SetAdapterText(adapters, adapter, SPDRP_DRIVER, kDriver));
    }();
    Check(made, "SetupDiRegisterDeviceInfo");
    SetText(kClass + kDriver, L"DriverDesc", L"an adapter");
}

void MakeClients() {
    SetNumber(L"SOFTWARE\\Telo", L"First_TeloStatus", 1);
    SetNumber(L"SOFTWARE\\Telo", L"Second_TeloStatus", 1);
    SetText(L"SOFTWARE\\Telo", L"TeloClient", L"Second", HKEY_CURRENT_USER);
    SetText(kInstall + L"\\UPA", L"ProductVersion", L"1.2.3.4");
}

void MakeOldAgent() {
    CreateFolders(kAgentFolder);
    WriteFileAt(kAgentFolder + L"\\TeloDU.exe");
    WriteFileAt(kAgentFolder + L"\\ZenvoUPAUF.exe");
    MakeService(L"UPAL", L"C:\\older.exe");
    MakeService(L"TeloLauncher", L"C:\\agent.exe");
}

void MakeNewAgent() {
    CreateFolders(kAgentFolder);
    WriteFileAt(kAgentFolder + L"\\TeloDU.exe");
    CreateFolders(L"C:\\ProgramData\\Zenvo\\UPA");
    SetText(kUninstall, L"InstallDir", L"C:\\Program Files\\Zenvo\\Manager");
}

void MakeAgentService() {
    MakeService(L"TeloLauncher", L"C:\\agent.exe");
}

void MakeAgentToBeRenamed() {
    MakeAgentService();
    SetText(kSessionManager, kRenames,
            L"\\??\\" + kAgentFolder + L"\\old.exe\0\0\\??\\T:\\Other\\kept.txt\0\0"s,
            HKEY_LOCAL_MACHINE, REG_MULTI_SZ);
}

void MakeFramework() {
    SetText(L"SOFTWARE\\Qorta\\Sable\\Packages\\Core-Static", L"Location", L"T:\\Apps\\Slim");
    CreateFolders(L"T:\\Apps\\Slim");
    WriteFileAt(L"T:\\Apps\\Slim\\CLI.exe");
}

void MakeProxyKey() {
    SetText(L"SOFTWARE\\Wow6432Node\\Qorta\\Sable\\Settings\\Kiln\\Install", L"InstallDir",
            L"C:\\Proxy");
}

void MakeBystanders() {
    CreateFolders(L"T:\\Apps\\Other");
    WriteFileAt(L"T:\\Apps\\Other\\kept.txt");
    CreateFolders(L"T:\\Other");
    WriteFileAt(L"T:\\Other\\kept.txt");
    CreateFolders(L"C:\\Program Files\\Zenvo\\Other");
    WriteFileAt(L"C:\\Program Files\\Zenvo\\Other\\kept.txt");
    WriteFileAt(TemporaryFolder() + L"\\kept.tmp");
    SetText(L"SOFTWARE\\ZenvoOther", L"Name", L"kept");
    SetText(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run", L"Other", L"kept");
}

void RemoveOrThrow(const std::wstring& folder) {
    halvard_tests::RemoveTree(folder);
    Check(!IsThere(folder), "what a run has left cannot be removed");
}

const std::wstring kTask = L"Username=User;TaskName=HalvardSweep;CommandToLaunch=C:\\agent.exe";
const std::wstring kServer = L"InstallDir=T:\\Apps\\Server\\;DLLName=server.dll";

std::map<std::wstring, std::wstring> Data(const std::wstring& text) {
    return {{L"CustomActionData", text}};
}

} // namespace

const std::vector<std::wstring>& MachineKeys() {
    static const std::vector<std::wstring> keys = {
        L"SOFTWARE\\Qorta",
        L"SOFTWARE\\Qorta Technologies",
        L"SOFTWARE\\Zenvo",
        L"SOFTWARE\\ZenvoBranding",
        L"SOFTWARE\\ZenvoDVR",
        L"SOFTWARE\\ZenvoOther",
        L"SOFTWARE\\Telo",
        L"SOFTWARE\\Wow6432Node\\Qorta",
        L"SYSTEM\\CurrentControlSet\\Services\\PerfOS",
        kCameras,
    };
    return keys;
}

const std::vector<std::wstring>& UserKeys() {
    static const std::vector<std::wstring> keys = {L"SOFTWARE\\Zenvo", L"SOFTWARE\\Telo"};
    return keys;
}

std::string Scene::Action() const {
    return name.substr(0, name.find(':'));
}

const std::vector<Scene>& Scenes() {
    static const std::vector<Scene> scenes = {
        {"LaunchedFromMIM", MakeNothing, {{L"LAUNCHED_FROM_MIM", L"1"}}, false},
        {"LaunchedFromMIM:refused", MakeNothing, {}, false},
        {"BlockLaunch", MakeNothing, {{L"LAUNCHED_FROM_MIM", L"1"}}, false},
        {"BlockLaunch:refused", MakeNothing, {}, false},
        {"CreateLogonSchTask", MakeTaskFiles, {}, false},
        {"CreateDVRLogonSchTask", MakeTaskFiles, {}, false},
        {"RemovePVSchedularTask", MakeNothing, {}, false},
        {"RemoveDVRSchedularTask", MakeNothing, {}, false},
        {"LaunchPV", MakeNothing, {}, false},
        {"DeleteSchedTaskonBranding", MakeBrandedStart, {}, false},
        {"CreateBenchMarkRunOnceSchTask", MakeTaskFiles, {}, false},
        {"RemoveBenchMarkRunOnceSchedularTask", MakeNothing, {}, false},
        {"CreateTriggerlessElevatedScheduleTask", MakeNothing, Data(kTask), false},
        {"DeletePVFolder", MakePivotTree, {}, false},
        {"DeletePVFolder:in use", MakeLockedPivotTree, {}, false},
        {"DeletePVINSTALLDIRFolder", MakePivotTree, {}, false},
        {"DeletePVSlimINSTALLDIRFolder", MakeSlimTree, {}, false},
        {"DeleteDMFTDirectory", MakeTransformTree, Data(L"InstallDir=T:\\Apps\\Transform\\"),
         false},
        {"DeleteXVRFolder", MakeRecorderTree, {}, false},
        {"SetPermissionsRegisterDLL", MakeServer, Data(kServer + L";Username=User"), false},
        {"UnregisterDLL", MakeServer, Data(kServer), false},
        {"ShutDownPivotConsole", MakePivot, {}, false},
        {"TerminatePivotApp", MakeNothing, {}, false},
        {"ShutDownDVR", MakeRecorderTool, {}, false},
        {"TerminateDVRApp", MakeNothing, {}, false},
        {"DeleteServiceIfBinaryIsInDirectory", MakeServiceInFolder,
         Data(L"ServiceName=HalvardSweep;DirectoryOfBinary=T:\\Apps\\Service\\"), true},
        {"DeleteandRetainValues", MakeBranding, {}, false},
        {"DeleteOptiqCameraGUID", MakeCameras, {}, false},
        {"DisabelAnalyticsKey", MakeConsent, {{L"DISABLEANALYTICS", L"YES"}}, false},
        {"EnableAnalyticsKey", MakeNothing, {}, false},
        {"DeleteAnalyticsKey", MakeConsent, {}, false},
        {"TrackDVRAnalytics", MakeRecorderEnabled, {}, false},
        {"DeleteQortaKey", MakeQortaKey, {}, false},
        {"SetDCLogFileRegistry", MakeAdapter, {}, false},
        {"CheckForClients", MakeClients, Data(L"ClientName=Third;Action=;CurrentVersion=2.0.0.0"),
         false},
        {"CheckForClients:first", MakeNothing,
         Data(L"ClientName=First;Action=;CurrentVersion=2.0.0.0"), false},
        {"CheckForClients:removal", MakeClients,
         Data(L"ClientName=Second;Action=ALL;CurrentVersion=2.0.0.0"), false},
        {"PreInstallUPA", MakeOldAgent, {}, true},
        {"PostInstallUPA", MakeNewAgent, Data(kTask), false},
        {"AfterInstallUPA", MakeAgentService, {}, false},
        {"AfterInstallUPA:renames", MakeAgentToBeRenamed, {}, false},
        {"LaunchInstallProxyPV", MakeFramework, Data(L"C:\\Product\\"), false},
        {"DelInstallProxyKey", MakeProxyKey, {}, false},
        {"InstallContextMenuMSIX", MakeNothing, {}, false},
    };
    return scenes;
}

Scene SceneNamed(const std::string& name) {
    for (const Scene& scene : Scenes()) {
        if (scene.name == name) {
            return scene;
        }
    }
    return {name, MakeNothing, {}, false};
}

void ClearMachine() {
    CloseHandle(std::exchange(lockedFile, INVALID_HANDLE_VALUE));
    RemoveOrThrow(kApps);
    RemoveOrThrow(L"T:\\Other");
    RemoveTreeOnC(L"C:\\Program Files\\Zenvo");
    RemoveTreeOnC(L"C:\\ProgramData\\Zenvo");
    RemoveTreeOnC(TemporaryFolder() + L"\\Zenvo");
    for (const wchar_t* const file : kTaskFiles) {
        DeleteFileW((TemporaryFolder() + L"\\" + file).c_str());
    }
    DeleteFileW((TemporaryFolder() + L"\\kept.tmp").c_str());
    DeleteFileW(L"C:\\windows\\system32\\tasks\\HalvardSweep");
    for (const std::wstring& key : MachineKeys()) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
    }
    for (const std::wstring& key : {kUninstall, kClass + kDriver}) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
    }
    for (const std::wstring& key : UserKeys()) {
        RegDeleteTreeW(HKEY_CURRENT_USER, key.c_str());
    }
    for (const wchar_t* const name : {L"StartPV", L"StartDVR", L"Other"}) {
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Run",
                           name);
    }
    RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kSessionManager.c_str(), kRenames);
    DeleteServices();
}

void Make(const Scene& scene) {
    ClearMachine();
    MakeBystanders();
    scene.make();
}

std::wstring TemporaryFolder() {
    wchar_t folder[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, folder);
    std::wstring path = folder;
    path.pop_back();
    return path;
}

} // namespace halvard_sweep
