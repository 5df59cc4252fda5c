"""What the sample package says and leaves on a machine, for the demo and the tests."""

from dataclasses import dataclass
from typing import Sequence

from installer import engines, package, session
from installer.log import ActionRun, Execution, ExportCall, Outcome
from installer.prefix import Prefix

_IDENTITY = package.project_identity()
VERSION = _IDENTITY.version
# That of a package that upgrades this one.
_MAJOR, _MINOR, _ = VERSION.split(".")
NEXT_VERSION = f"{_MAJOR}.{int(_MINOR) + 1}.0"

NAME = f"{_IDENTITY.company} Companion"
FOLDER = f"C:\\Program Files\\{_IDENTITY.company}\\Companion"
KEY = f"HKLM\\Software\\{_IDENTITY.company}\\Companion"

FILES = [
    f"{FOLDER}\\Brand\\Brand.ini",
    f"{FOLDER}\\DVR\\VSServCmd.exe",
    f"{FOLDER}\\DVR\\ZenvoVSServ.exe",
    f"{FOLDER}\\Kiln-InstallProxy-Net4\\Kiln.InstallProxy.exe",
    f"{FOLDER}\\Pivot\\Pivot.ini",
    f"{FOLDER}\\Pivot\\Profiles.ini",
    f"{FOLDER}\\Pivot\\StartDVR.xml",
    f"{FOLDER}\\Pivot\\StartPV.xml",
    f"{FOLDER}\\Pivot\\StartPVBM.xml",
    f"{FOLDER}\\Pivot\\pvcmd.exe",
    f"{FOLDER}\\Recorder\\XVR\\Recorder.ini",
    f"{FOLDER}\\Server\\CompanionServer.dll",
    f"{FOLDER}\\Service\\CompanionService.exe",
    f"{FOLDER}\\Slim\\CLI.exe",
    f"{FOLDER}\\Slim\\Slim.ini",
    f"{FOLDER}\\Transform\\Transform.ini",
    f"{FOLDER}\\readme.txt",
]
# These lie where the library looks for them.
CONTEXT_MENU_FILES = [
    r"C:\Program Files\ContextMenuDemo\MyKey.cer",
    r"C:\Program Files\ContextMenuDemo\PhotoStoreDemoPkg.msix",
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
    f"{KEY} : Version": f'"{VERSION}"',
}

# Of the only user that a prefix has.
USER_SID = "S-1-5-21-0-0-0-1000"

SERVICE = f"{_IDENTITY.company}Companion"
SERVER_VALUE = r"HKLM\Software\HalvardComServer : Path"
TASKS = ["StartDVR", "StartPV", "StartPVBM", "ZenvoElevated"]

# The products that carry the agent, by the names under which it knows them, and where it does.
CLIENT = "Companion"
SECOND_CLIENT = "SecondClient"
SECOND_FOLDER = f"C:\\Program Files\\{_IDENTITY.company}\\Second Client"
STATUS_KEY = r"HKLM\Software\Telo"
LAST_CLIENT_KEY = r"HKCU\Software\Telo"

# The agent, which the products carry and install on request: its actions stand behind
# CheckForClients.
WITH_AGENT = "ADDLOCAL=ALL"
AGENT_FOLDER = f"C:\\Program Files\\{_IDENTITY.company}\\Usage Profile Agent"
AGENT_FILES = [f"{AGENT_FOLDER}\\TeloDU.exe", f"{AGENT_FOLDER}\\TeloMaster.exe"]
AGENT_SERVICE = "TeloLauncher"
AGENT_TASK = "ZenvoAgent"
AGENT_IDENTITY = f"{STATUS_KEY} : GUID"
# A key below those of the services that PostInstallUPA writes, and its value.
COUNTERS = r"PerfOS\Performance"
COUNTERS_VALUE = f"{COUNTERS} : Disable Performance Counters"

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


@dataclass(frozen=True)
class Row:
    """A run of an action as it should be: what it came to, what it returned, what data it got and
    which lines it logged."""

    action: str
    kind: Execution
    outcome: Outcome
    result: int | None
    data: str | None = None
    lines: tuple[str, ...] = ()


def row(run: ActionRun) -> Row:
    """A run as it came."""
    kind = run.definition.execution
    return Row(run.name, kind, run.outcome, run.result, run.data, tuple(run.lines))


def lines(rows: Sequence[Row]) -> list[str]:
    """What all of them log."""
    return [line for each in rows for line in each.lines]


def calls(rows: Sequence[Row]) -> list[ExportCall]:
    """The calls of these runs, whose actions have the names of their exports."""
    return [ExportCall(each.action, each.result) for each in rows]


def refused_rows() -> list[Row]:
    """The runs of an installation that the install manager did not start."""
    logged = [REFUSAL_LINE, *REFUSAL_MESSAGE]
    return [_immediate("BlockLaunch", Outcome.FAILED, session.INSTALL_FAILURE, logged)]


def accepted_rows() -> list[Row]:
    """The first runs of an installation that the install manager started."""
    logged = [acceptance_line("1")]
    return [
        _immediate("BlockLaunch", Outcome.SUCCEEDED, 0, logged),
        _immediate("LaunchedFromMIM", Outcome.IGNORED, 0, logged),
    ]


def install_rows(
    user: str,
    folder: str = FOLDER,
    version: str = VERSION,
    agent: bool = False,
    tracked: int = 1,
    refused: bool = False,
) -> list[Row]:
    """The runs of an installation by this user; `tracked` is what TrackDVRAnalytics returns, and
    `refused` whether this user refuses analytics."""
    return [
        *accepted_rows(),
        _checked("CreateLogonSchTask"),
        _checked("CreateDVRLogonSchTask"),
        _ignored("CreateBenchMarkRunOnceSchTask", 0),
        elevated_task_row(user, folder),
        _checked("DeleteSchedTaskonBranding"),
        _ignored("LaunchPV", 1),
        _server_row("SetPermissionsRegisterDLL", folder, f"*{USER_SID}"),
        *([] if refused else [_checked("EnableAnalyticsKey")]),
        _ignored("TrackDVRAnalytics", tracked),
        _ignored("SetDCLogFileRegistry", 0),
        _ignored("InstallContextMenuMSIX", 0),
        _ignored("InstallContextMenuMSIXAsUser", 0),
        # Nothing is deleted, whatever the line says, and the tool is not started.
        _ignored(
            "LaunchInstallProxyPV",
            0,
            f"{folder}\\",
            [f"QUENBY_CA DeleteFolder: {folder}\\Slim\\CLI.exe "],
        ),
        *clients_rows(CLIENT, user, version, agent=agent),
        _immediate("DisabelAnalyticsKey", Outcome.SUCCEEDED, 0),
    ]


def remove_rows(
    folder: str = FOLDER,
    version: str = VERSION,
    last_client: str = CLIENT,
    answer: int = 0,
    agent: bool = False,
) -> list[Row]:
    """The runs of a removal, which counts for the client that ran last."""
    service = f"ServiceName={SERVICE};DirectoryOfBinary={folder}\\Service\\"
    transform = f"InstallDir={folder}\\Transform\\"
    return [
        _ignored("RemovePVSchedularTask", 1),
        _ignored("RemoveDVRSchedularTask", 1),
        _ignored("RemoveBenchMarkRunOnceSchedularTask", 1),
        _ignored("ShutDownPivotConsole", 0),
        # Its start is refused for its working directory.
        _ignored("TerminatePivotApp", session.INSTALL_FAILURE),
        _ignored("ShutDownDVR", 0),
        _ignored("TerminateDVRApp", 0),
        _server_row("UnregisterDLL", folder),
        # Reversed: this is a clean run.
        _ignored("DeleteOptiqCameraGUID", session.INSTALL_FAILURE),
        _ignored("DeleteAnalyticsKey", 0, None, ["UPA Key deleted"]),
        _ignored(
            "DelInstallProxyKey",
            1,
            None,
            [
                "QUENBY_CA: DelInstallProxyKey  ",
                "",
                "QUENBY_CA: DelInstallProxyKey successfully  ",
            ],
        ),
        _ignored("DeleteQortaKey", 0),
        _ignored("DeleteXVRFolder", 0),
        _ignored("DeleteDMFTDirectory", 0, transform, [f"CustomActionData: {transform}"]),
        _ignored("DeletePVSlimINSTALLDIRFolder", 0),
        _ignored("DeletePVFolder", 0),
        _ignored("DeleteandRetainValues", 0),
        _ignored("DeletePVINSTALLDIRFolder", 0),
        _ignored(
            "DeleteServiceIfBinaryIsInDirectory", 0, service, [f"CustomActionData: {service}"]
        ),
        *clients_removal_rows(CLIENT, last_client, version, answer, agent),
    ]


def clients_rows(
    client: str, user: str, version: str = VERSION, answer: int = 0, agent: bool = True
) -> list[Row]:
    """The runs for the agent when a product that carries it is installed or repaired."""
    rows = [_clients_row(client, "", version, answer)]
    if agent and _goes_on(answer):
        rows += [_ignored("PreInstallUPA", 0), _agent_row(user), _ignored("AfterInstallUPA", 0)]
    return rows


def clients_removal_rows(
    client: str,
    last_client: str,
    version: str = VERSION,
    answer: int = 0,
    agent: bool = True,
) -> list[Row]:
    """The runs for the agent when a product that carries it is removed."""
    logged = [f"Client Name (Uninstall) {last_client}"]
    rows = [_clients_row(client, "ALL", version, answer, logged)]
    if agent and _goes_on(answer):
        rows.append(_ignored("PreInstallUPA", 0))
    return rows


def _goes_on(answer: int) -> bool:
    """Whether what stands behind CheckForClients runs when it has answered so."""
    return answer != session.NO_MORE_ITEMS or not engines.value("no-more-items")


def elevated_task_row(user: str, folder: str = FOLDER) -> Row:
    command = f"{folder}\\Pivot\\pvcmd.exe"
    data = f"Username={user};TaskName=ZenvoElevated;CommandToLaunch={command}"
    return _checked(
        "CreateTriggerlessElevatedScheduleTask",
        0,
        data,
        [
            f"CustomActionData: {data}",
            "Task Name ZenvoElevated",
            f"Command to launch {command}",
            f"Username {user}",
        ],
    )


def _immediate(
    action: str, outcome: Outcome, result: int | None, logged: Sequence[str] = ()
) -> Row:
    return Row(action, Execution.IMMEDIATE, outcome, result, None, tuple(logged))


def _checked(
    action: str, result: int | None = 0, data: str | None = None, logged: Sequence[str] = ()
) -> Row:
    return Row(action, Execution.DEFERRED, Outcome.SUCCEEDED, result, data, tuple(logged))


def _ignored(
    action: str, result: int | None, data: str | None = None, logged: Sequence[str] = ()
) -> Row:
    return Row(action, Execution.DEFERRED, Outcome.IGNORED, result, data, tuple(logged))


def _server_row(action: str, folder: str, user: str | None = None) -> Row:
    data = f"InstallDir={folder}\\Server\\;DLLName=CompanionServer.dll"
    logged = [f"DLL Path {folder}\\Server\\", "DLL Name CompanionServer.dll"]
    if user is None:
        return _ignored(action, 0, data, [f"CustomActionData: {data}", *logged])
    data = f"{data};Username={user}"
    return _checked(action, 0, data, [f"CustomActionData: {data}", *logged, f"Username {user}"])


def _clients_row(
    client: str, action: str, version: str, answer: int, logged: Sequence[str] = ()
) -> Row:
    data = f"ClientName={client};Action={action};CurrentVersion={version}"
    first = [f"Client Name {client}", f"Action {action}", f"Current Version {version}"]
    return _checked("CheckForClients", answer, data, [f"CustomActionData: {data}", *first, *logged])


def _agent_row(user: str) -> Row:
    command = f"{AGENT_FOLDER}\\TeloMaster.exe"
    data = f"TaskName={AGENT_TASK};CommandToLaunch={command};Username={user}"
    return _checked(
        "PostInstallUPA",
        0,
        data,
        [
            f"CustomActionData: {data}",
            f"Task Name {AGENT_TASK}",
            f"Command to launch {command}",
            f"Username {user}",
        ],
    )


def write_as_the_applications_do(prefix: Prefix) -> None:
    """Makes the files of WRITTEN_SINCE."""
    for name in WRITTEN_SINCE:
        file = prefix.host_path(name)
        file.parent.mkdir(exist_ok=True)
        file.write_text("written by an application\n")


def told_on_removal() -> list[str]:
    """What a removal tells the companion tools: once each by their own action, and pvcmd.exe twice
    more by those that remove the folders of Recorder and Pivot."""
    # These always put a backslash before the name, and what is left of two is up to the engine.
    before_name = "\\" * engines.value("shell-backslashes")
    return sorted(
        [
            f'"{FOLDER}\\DVR\\VSServCmd.exe" exit',
            f'"{FOLDER}\\Pivot\\pvcmd.exe" exit',
            *[f'"{FOLDER}\\Pivot{before_name}pvcmd.exe" exit'] * 2,
        ]
    )


def told(prefix: Prefix) -> list[str]:
    """The command lines that the companion tools recorded, sorted: some do not wait for others."""
    record = prefix.host_path(RECORD)
    lines = record.read_text().splitlines() if record.exists() else []
    return sorted(line.split("\t")[2] for line in lines)


def acceptance_line(value: str) -> str:
    """What the actions log when LAUNCHED_FROM_MIM has this value and it lets the package in."""
    return f"QUENBY_CA Launched from MIM: {value} "
