"""What the sample package says and leaves on a machine, for the demo and the tests."""

from installer import package

_IDENTITY = package.project_identity()

NAME = f"{_IDENTITY.company} Companion"
FOLDER = f"C:\\Program Files\\{_IDENTITY.company}\\Companion"
KEY = f"HKLM\\Software\\{_IDENTITY.company}\\Companion"

FILES = [
    f"{FOLDER}\\Pivot\\Pivot.ini",
    f"{FOLDER}\\Pivot\\Profiles.ini",
    f"{FOLDER}\\Pivot\\StartDVR.xml",
    f"{FOLDER}\\Pivot\\StartPV.xml",
    f"{FOLDER}\\Pivot\\StartPVBM.xml",
    f"{FOLDER}\\readme.txt",
]
VALUES = {
    f"{KEY} : InstallDir": f'"{FOLDER}\\"',
    f"{KEY} : Version": f'"{_IDENTITY.version}"',
}

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
]
REMOVE_RUNS = [
    "RemovePVSchedularTask 1 result ignored",
    "RemoveDVRSchedularTask 1 result ignored",
    "RemoveBenchMarkRunOnceSchedularTask 1 result ignored",
]

# The actions rewrite the task definitions into the temporary folder and leave them there.
LEFT_BEHIND = ["StartDVR.xml", "StartPV.xml", "StartPVBM.xml"]

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


def acceptance_line(value: str) -> str:
    """What the actions log when LAUNCHED_FROM_MIM has this value and it lets the package in."""
    return f"QUENBY_CA Launched from MIM: {value} "
