"""What the sample package says and leaves on a machine, for the demo and the tests."""

from installer import package
from installer.prefix import Prefix

_IDENTITY = package.project_identity()

NAME = f"{_IDENTITY.company} Companion"
FOLDER = f"C:\\Program Files\\{_IDENTITY.company}\\Companion"
KEY = f"HKLM\\Software\\{_IDENTITY.company}\\Companion"

FILES = [
    f"{FOLDER}\\Brand\\Brand.ini",
    f"{FOLDER}\\DVR\\VSServCmd.exe",
    f"{FOLDER}\\Pivot\\Pivot.ini",
    f"{FOLDER}\\Pivot\\Profiles.ini",
    f"{FOLDER}\\Pivot\\StartDVR.xml",
    f"{FOLDER}\\Pivot\\StartPV.xml",
    f"{FOLDER}\\Pivot\\StartPVBM.xml",
    f"{FOLDER}\\Pivot\\pvcmd.exe",
    f"{FOLDER}\\Recorder\\XVR\\Recorder.ini",
    f"{FOLDER}\\Server\\CompanionServer.dll",
    f"{FOLDER}\\Service\\CompanionService.exe",
    f"{FOLDER}\\Slim\\Slim.ini",
    f"{FOLDER}\\Transform\\Transform.ini",
    f"{FOLDER}\\readme.txt",
]
# Files that the applications write while they are installed. The installer does not know them: only
# the actions that remove whole folders take them away.
WRITTEN_SINCE = [
    f"{FOLDER}\\Brand\\logo.png",
    f"{FOLDER}\\Brand\\Skins\\dark.skin",
    f"{FOLDER}\\Pivot\\Cache\\history.dat",
    f"{FOLDER}\\Recorder\\XVR\\capture.tmp",
    f"{FOLDER}\\Slim\\slim.log",
    f"{FOLDER}\\Transform\\frames.bin",
]
VALUES = {
    f"{KEY} : InstallDir": f'"{FOLDER}\\"',
    f"{KEY} : Version": f'"{_IDENTITY.version}"',
}

SERVICE = f"{_IDENTITY.company}Companion"
SERVER_VALUE = r"HKLM\Software\HalvardComServer : Path"
TASKS = ["StartDVR", "StartPV", "StartPVBM", "ZenvoElevated"]

# The actions of the library that an installation and a removal run, in their order, as the installer
# judges them. What an action declared to be ignored returned does not show.
INSTALL_RUNS = [
    "BlockLaunch 1 succeeded",
    "LaunchedFromMIM 1 result ignored",
    "CreateLogonSchTask 1 succeeded",
    "CreateDVRLogonSchTask 1 succeeded",
    "CreateBenchMarkRunOnceSchTask 1 result ignored",
    "CreateTriggerlessElevatedScheduleTask 1 succeeded",
    "DeleteSchedTaskonBranding 1 succeeded",
    "LaunchPV 1 result ignored",
    "SetPermissionsRegisterDLL 1 succeeded",
    "EnableAnalyticsKey 1 succeeded",
    "TrackDVRAnalytics 1 result ignored",
    "SetDCLogFileRegistry 1 result ignored",
    "InstallContextMenuMSIX 1 result ignored",
    "LaunchInstallProxyPV 1 result ignored",
    "CheckForClients 1 succeeded",
    "DisabelAnalyticsKey 1 succeeded",
]
REMOVE_RUNS = [
    "RemovePVSchedularTask 1 result ignored",
    "RemoveDVRSchedularTask 1 result ignored",
    "RemoveBenchMarkRunOnceSchedularTask 1 result ignored",
    "ShutDownPivotConsole 1 result ignored",
    "TerminatePivotApp 1 result ignored",
    "ShutDownDVR 1 result ignored",
    "TerminateDVRApp 1 result ignored",
    "DeleteServiceIfBinaryIsInDirectory 1 result ignored",
    "UnregisterDLL 1 result ignored",
    "DeleteXVRFolder 1 result ignored",
    "DeleteDMFTDirectory 1 result ignored",
    "DeletePVSlimINSTALLDIRFolder 1 result ignored",
    "DeletePVFolder 1 result ignored",
    "DeletePVINSTALLDIRFolder 1 result ignored",
    "DeleteandRetainValues 1 result ignored",
    "DeleteOptiqCameraGUID 1 result ignored",
    "DeleteAnalyticsKey 1 result ignored",
    "DelInstallProxyKey 1 result ignored",
    "DeleteQortaKey 1 result ignored",
    "CheckForClients 1 succeeded",
]
# A repair is an installation to the agent, and nothing to the other actions.
REPAIR_RUNS = ["CheckForClients 1 succeeded"]

# The products that carry the agent, by the names under which it knows them, and where it does.
CLIENT = "Companion"
SECOND_CLIENT = "SecondClient"
SECOND_FOLDER = f"C:\\Program Files\\{_IDENTITY.company}\\Second Client"
STATUS_KEY = r"HKLM\Software\Telo"
LAST_CLIENT_KEY = r"HKCU\Software\Telo"

# The agent, which the products carry and install on request: its actions stand behind
# CheckForClients.
WITH_AGENT = "ADDLOCAL=ALL"
AGENT_INSTALL_RUNS = [
    "PreInstallUPA 1 result ignored",
    "PostInstallUPA 1 succeeded",
    "AfterInstallUPA 1 result ignored",
]
AGENT_REMOVE_RUNS = ["PreInstallUPA 1 result ignored"]
AGENT_FOLDER = f"C:\\Program Files\\{_IDENTITY.company}\\Usage Profile Agent"
AGENT_FILES = [f"{AGENT_FOLDER}\\TeloDU.exe", f"{AGENT_FOLDER}\\TeloMaster.exe"]
AGENT_SERVICE = "TeloLauncher"
AGENT_TASK = "ZenvoAgent"
AGENT_IDENTITY = f"{STATUS_KEY} : GUID"
# A key below those of the services that PostInstallUPA writes, and its value.
COUNTERS = r"PerfOS\Performance"
COUNTERS_VALUE = f"{COUNTERS} : Disable Performance Counters"

# What a removal tells the companion tools: once each by their own action, and pvcmd.exe twice more by
# those that remove the folders of Recorder and Pivot. These always put a backslash before the name.
TOLD_ON_REMOVAL = sorted(
    [
        f'"{FOLDER}\\DVR\\VSServCmd.exe" exit',
        f'"{FOLDER}\\Pivot\\pvcmd.exe" exit',
        *[f'"{FOLDER}\\Pivot\\\\pvcmd.exe" exit'] * 2,
    ]
)

# The actions rewrite the task definitions into the temporary folder and leave them there.
COPIES_LEFT_BEHIND = ["StartDVR.xml", "StartPV.xml", "StartPVBM.xml"]
# Where the companion tools of the sample package record what they were told.
RECORD = r"T:\recorded.txt"
# Keys that the actions write, or empty, and leave: the marker of tracked analytics, that of the
# telemetry programme, the parent of the proxy's key, what is known of the agent's clients with the
# machine's identity, and the switch of the performance counters.
KEYS_LEFT_BEHIND = [
    r"HKLM\Software\ZenvoDVR",
    r"HKLM\Software\Zenvo\Install",
    r"HKLM\Software\Wow6432Node\Qorta\Sable\Settings\Kiln",
    r"\Software\Telo",
    COUNTERS,
]
# With these they are gone, and nothing else.
KEYS_TO_DELETE = [
    r"HKLM\Software\ZenvoDVR",
    r"HKLM\Software\Zenvo",
    r"HKLM\Software\Wow6432Node\Qorta",
    STATUS_KEY,
    LAST_CLIENT_KEY,
    r"HKLM\System\CurrentControlSet\Services\PerfOS",
]
# The folder of the display driver's log, in the temporary folder.
LOG_FOLDER = ["Zenvo", r"Zenvo\PV", r"Zenvo\PV\Analytics"]
LEFT_BEHIND = (
    RECORD,
    *[f"\\Temp\\{name}" for name in COPIES_LEFT_BEHIND + LOG_FOLDER],
    *KEYS_LEFT_BEHIND,
    r"HKLM\Software\ZenvoDVR : ZenvoDVR_Tracked",
    r"HKLM\Software\Zenvo\Install : Telo",
    f"{STATUS_KEY} : {CLIENT}_TeloStatus",
    f"{STATUS_KEY} : {SECOND_CLIENT}_TeloStatus",
    # Below the root of all users, where the account has a name of its own.
    r"\Software\Telo : TeloClient",
    AGENT_IDENTITY,
    COUNTERS_VALUE,
)

REFUSAL_LINE = "QUENBY_CA Not Launched from MIM and unable to get property"
REFUSAL_MESSAGE = [
    "This package requires Zenvo Installer Setup.",
    "Please obtain and install Zenvo Installer from www.zenvo.example to continue installing this "
    "package.",
    "This application will now abort.",
]


def elevated_task_lines(user: str) -> list[str]:
    """What CreateTriggerlessElevatedScheduleTask logs when this user installs."""
    command = f"{FOLDER}\\Pivot\\pvcmd.exe"
    return [
        f"CustomActionData: Username={user};TaskName=ZenvoElevated;CommandToLaunch={command}",
        "Task Name ZenvoElevated",
        f"Command to launch {command}",
        f"Username {user}",
    ]


def server_lines(user: str) -> list[str]:
    """What SetPermissionsRegisterDLL logs when this user installs."""
    data = f"InstallDir={FOLDER}\\Server\\;DLLName=CompanionServer.dll;Username={user}"
    return [
        f"CustomActionData: {data}",
        f"DLL Path {FOLDER}\\Server\\",
        "DLL Name CompanionServer.dll",
        f"Username {user}",
    ]


def proxy_lines() -> list[str]:
    """What LaunchInstallProxyPV logs; nothing is deleted, whatever its line says."""
    return [f"QUENBY_CA DeleteFolder: {FOLDER}\\Slim\\CLI.exe "]


def client_lines(client: str, removal: bool = False) -> list[str]:
    """What CheckForClients logs for this client, on a removal the last that this user installed."""
    action = "ALL" if removal else ""
    version = _IDENTITY.version
    return [
        f"CustomActionData: ClientName={client};Action={action};CurrentVersion={version}",
        f"Client Name {client}",
        f"Action {action}",
        f"Current Version {version}",
        *([f"Client Name (Uninstall) {client}"] if removal else []),
    ]


def with_agent(runs: list[str], agent_runs: list[str]) -> list[str]:
    """These runs with those of the agent behind CheckForClients."""
    index = runs.index("CheckForClients 1 succeeded") + 1
    return [*runs[:index], *agent_runs, *runs[index:]]


def agent_lines(user: str) -> list[str]:
    """What PostInstallUPA logs when this user installs."""
    command = f"{AGENT_FOLDER}\\TeloMaster.exe"
    return [
        f"CustomActionData: TaskName={AGENT_TASK};CommandToLaunch={command};Username={user}",
        f"Task Name {AGENT_TASK}",
        f"Command to launch {command}",
        f"Username {user}",
    ]


def removal_lines() -> list[str]:
    """What the actions log during a removal."""
    server = f"InstallDir={FOLDER}\\Server\\;DLLName=CompanionServer.dll"
    return [
        f"CustomActionData: ServiceName={SERVICE};DirectoryOfBinary={FOLDER}\\Service\\",
        f"CustomActionData: {server}",
        f"DLL Path {FOLDER}\\Server\\",
        "DLL Name CompanionServer.dll",
        f"CustomActionData: InstallDir={FOLDER}\\Transform\\",
        "UPA Key deleted",
        "QUENBY_CA: DelInstallProxyKey  ",
        "",
        "QUENBY_CA: DelInstallProxyKey successfully  ",
        *client_lines(CLIENT, removal=True),
    ]


def write_as_the_applications_do(prefix: Prefix) -> None:
    """Makes the files of WRITTEN_SINCE."""
    for name in WRITTEN_SINCE:
        file = prefix.host_path(name)
        file.parent.mkdir(exist_ok=True)
        file.write_text("written by an application\n")


def told(prefix: Prefix) -> list[str]:
    """The command lines that the companion tools recorded, sorted: some do not wait for others."""
    record = prefix.host_path(RECORD)
    lines = record.read_text().splitlines() if record.exists() else []
    return sorted(line.split("\t")[2] for line in lines)


def acceptance_line(value: str) -> str:
    """What the actions log when LAUNCHED_FROM_MIM has this value and it lets the package in."""
    return f"QUENBY_CA Launched from MIM: {value} "
