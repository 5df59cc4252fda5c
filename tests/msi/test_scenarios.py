"""The sample packages through their lives: which actions of the library run in each installer
session, in which order, with which data, verdict and result, and what they make of the machine.

Each scenario is a chain of sessions in a prefix of its own, played once for all tests of it.
"""

import getpass
from dataclasses import replace
from typing import Callable, Sequence

import pytest

from installer import actions, companion, engines, log, session
from installer.companion import FOLDER, Row
from installer.log import Execution
from installer.prefix import START_LIMIT, Prefix
from scenario import Machine, Played, Scenario, Session, play, together
from waiting import until

USER = getpass.getuser()
STARTED = "LAUNCHED_FROM_MIM=1"
WITH_AGENT = (STARTED, companion.WITH_AGENT)
REPAIR = ("REINSTALL=ALL", "REINSTALLMODE=amus")
SKIP = session.NO_MORE_ITEMS
NEXT = companion.NEXT_VERSION

POWERSHELL = r'"C:\windows\System32\WindowsPowerShell\v1.0\powershell.exe"'
# As the package calls it.
OWN_POWERSHELL = r'"C:\windows\system32\WindowsPowerShell\v1.0\powershell.exe" -NoProfile -Command'

CHAIN = (
    r"HKLM\System\CurrentControlSet\Control\DeviceClasses"
    r"\{e5323777-f976-4f5b-9b55-b94699c46e44}\camera\#GLOBAL\Device Parameters"
    " : CameraDeviceMftClsidChain"
)
RENAMES = r"HKLM\System\CurrentControlSet\Control\Session Manager : PendingFileRenameOperations"
OWN_TRANSFORM = "{55E09F33-D6B5-4A6D-99ED-87DC666C6710}"
OTHER_TRANSFORM = "{0F3A6C11-3C5D-4F0B-8A39-6B1D2E7C9F04}"
ADAPTER = (
    r"HKLM\System\CurrentControlSet\Enum\PCI"
    r"\VEN_0000&DEV_0000&SUBSYS_00000000&REV_00\00000000"
)
DISPLAY = r"HKLM\System\CurrentControlSet\Control\Class\{4D36E968-E325-11CE-BFC1-08002BE10318}\0000"
OTHER_FOLDER = r"C:\Програми Zenvo\Über 日本"
LICENCE = rf"{FOLDER}\Brand\licence.txt"
LEFT_BY_OLDER_AGENT = rf"{companion.AGENT_FOLDER}\left.dll"
OTHER_RENAMED = r"C:\other.dll"
HELD = r"T:\held.txt"
BESIDE = r"C:\A\own.txt"


# What sessions leave, part by part.


def files(folder: str = FOLDER) -> list[str]:
    own = [folder + name.removeprefix(FOLDER) for name in companion.FILES]
    return [*own, *companion.CONTEXT_MENU_FILES, *LEFT.files]


def values(
    folder: str = FOLDER, version: str = companion.VERSION, lazy: int = 0, consent: str = "true"
) -> dict[str, str]:
    return {
        companion.SERVER_VALUE: rf'"{folder}\Server\CompanionServer.dll"',
        r"HKLM\Software\Qorta Technologies\Install : ZenvoDVR_Enabled": "dword:00000001",
        r"HKLM\Software\Qorta Technologies\Install\Pivot : Location": f'"{folder}\\Pivot\\"',
        r"HKLM\Software\Qorta Technologies\Install\XVR64 : InstallDir": f'"{folder}\\Recorder\\"',
        r"HKLM\Software\Qorta Technologies\Install\Zenvo DVR : Location": f'"{folder}\\DVR\\"',
        r"HKLM\Software\Qorta\Sable\Packages\Core-Static : Location": f'"{folder}\\Slim\\"',
        r"HKLM\Software\Wow6432Node\Qorta\Sable\Packages\Core-Static : Location": (
            f'"{folder}\\Slim\\"'
        ),
        r"HKLM\Software\Wow6432Node\Qorta\Sable\Settings\Kiln\Install : InstallDir": (
            f'"{folder}\\"'
        ),
        r"HKLM\Software\ZenvoBranding : Licence": rf'"{folder}\Brand\licence.txt"',
        rf"{companion.KEY} : InstallDir": f'"{folder}\\"',
        rf"{companion.KEY} : Version": f'"{version}"',
        r"HKLM\Software\Zenvo\PV : LazeStart": f"dword:{lazy:08}",
        r"HKLM\Software\Zenvo\PV : PVBrandingInstallDir": f'"{folder}\\Brand\\"',
        r"HKLM\Software\Zenvo\ZenvoAnalytics : AnalyticsAccepted": f'"{consent}"',
        r"HKCU\Software\Zenvo\PV : VxBench": '"0"',
        f"{companion.SERVICE} : ImagePath": rf'"{folder}\Service\CompanionService.exe"',
        **LEFT.values,
    }


def known(last: str, **status: int) -> dict[str, str]:
    """What the registry tells of the agent's clients."""
    told = {
        rf"{companion.STATUS_KEY} : {client}_TeloStatus": f"dword:{number:08}"
        for client, number in status.items()
    }
    return told | {rf"{companion.LAST_CLIENT_KEY} : TeloClient": f'"{last}"'}


# What the actions of a product leave when it is removed.
LEFT = Machine(
    [rf"%TEMP%\{name}" for name in companion.COPIES_LEFT_BEHIND],
    {
        r"HKLM\Software\ZenvoDVR : ZenvoDVR_Tracked": "dword:00000001",
        r"HKLM\Software\Zenvo\Install : Telo": "dword:00000000",
    },
)
# Where consent is refused the marker is the package's own, and goes with it.
LEFT_REFUSED = replace(
    LEFT, values={name: LEFT.values[name] for name in LEFT.values if not name.endswith(" : Telo")}
)
# Of these the log's folder and the parent of the proxy's key hold nothing.
LEFT_EMPTY = [
    r"%TEMP%\Zenvo\PV\Analytics",
    r"HKLM\Software\Wow6432Node\Qorta\Sable\Settings\Kiln",
]
# A rollback removes what the removal would, and here no folder above the product.
LEFT_BY_ROLLBACK = r"C:\Program Files\Zenvo"
# The identity is whatever the first session made.
AGENT_LEFT = Machine(
    values={
        companion.AGENT_IDENTITY: "the identity",
        companion.COUNTERS_VALUE: '"0"',
    }
)
# Carried by products, which share these.
AGENT_SOURCE = Machine(
    [
        r"C:\Program Files\Zenvo\Agent\TeloDU.exe",
        r"C:\Program Files\Zenvo\Agent\TeloMaster.exe",
        r"C:\ProgramData\Zenvo\UPA\Profile.ini",
    ]
)
AGENT = Machine(
    companion.AGENT_FILES,
    {
        f"{companion.AGENT_SERVICE} : ImagePath": (
            '""C:\\Program Files\\Zenvo\\Agent\\\\..\\Usage Profile Agent\\TeloDU.exe""'
        )
    },
    [companion.AGENT_TASK],
    [companion.AGENT_SERVICE],
)
SECOND = Machine(
    [rf"{companion.SECOND_FOLDER}\readme.txt"],
    {r"HKLM\Software\Zenvo\Second Client : InstallDir": f'"{companion.SECOND_FOLDER}\\"'},
)
INSTALLED = Machine(files(), values(), companion.TASKS, [companion.SERVICE])
WHOLE_AGENT = (AGENT_LEFT, AGENT_SOURCE, AGENT)


# What sessions tell other programs.


def told_on_install(folder: str = FOLDER) -> list[str]:
    certificate, added = companion.CONTEXT_MENU_FILES
    # As the system, and as the user.
    return [
        *permissions(folder),
        *[
            rf"""{POWERSHELL} "Import-Certificate -FilePath '{certificate}' """
            r'''-CertStoreLocation Cert:\LocalMachine\Root"''',
            f'''{POWERSHELL} "Add-AppxPackage -Path '{added}'"''',
        ]
        * 2,
    ]


def context_menu_removed() -> list[str]:
    certificate, _ = companion.CONTEXT_MENU_FILES
    return [
        rf'''{OWN_POWERSHELL} "Remove-Item (Join-Path Cert:\LocalMachine\Root '''
        rf'''(Get-PfxCertificate \"{certificate}\").Thumbprint)"''',
        f'''{OWN_POWERSHELL} "Get-AppxPackage PhotoStoreDemoPkg | Remove-AppxPackage"''',
    ]


def permissions(folder: str = FOLDER) -> list[str]:
    server = rf"{folder}\Server"
    return [
        f'icacls "{place}" {change}'
        for place in (server, rf"{server}\CompanionServer.dll")
        for change in (f"/setowner *{companion.USER_SID}", "/grant Users:F")
    ]


def told_on_removal(folder: str = FOLDER) -> list[str]:
    return [
        *[command.replace(FOLDER, folder) for command in companion.told_on_removal()],
        f"{POWERSHELL} Get-AppxPackage ZenvoCorporationInc-VSXCM* | Remove-AppxPackage -AllUsers",
        f'''{OWN_POWERSHELL} "Get-AppxPackage -AllUsers ZenvoCorporationInc-VSXCM* '''
        '''| Remove-AppxPackage -AllUsers"''',
        *context_menu_removed(),
    ]


# What the runs are in other words.


def ended_rows(
    rows: Sequence[Row], action: str, outcome: log.Outcome, result: int | None = None
) -> list[Row]:
    """These runs up to this action, which comes to something else."""
    (number,) = [number for number, row in enumerate(rows) if row.action == action]
    return [*rows[:number], replace(rows[number], outcome=outcome, result=result)]


def not_called(row: Row) -> Row:
    """This run where the process that hosts the actions has ended, and its result is checked."""
    return replace(row, outcome=log.Outcome.FAILED, result=None, lines=())


def undo_row(
    action: str, result: int, data: str | None = None, logged: Sequence[str] = ()
) -> Row:
    return Row(action, Execution.ROLLBACK, log.Outcome.IGNORED, result, data, tuple(logged))


SERVER_DATA = rf"InstallDir={FOLDER}\Server\;DLLName=CompanionServer.dll"
# The engine here calls the rollback actions of all that was to run, whether it ran or not; where
# the process that hosts them has ended, it records them and calls none.
UNDO_RUNS = [
    undo_row("UndoEnableAnalyticsKey", 0, None, ["Could not access UPA Key"]),
    undo_row(
        "UndoSetPermissionsRegisterDLL",
        session.INSTALL_FAILURE,
        SERVER_DATA,
        [
            f"CustomActionData: {SERVER_DATA}",
            f"DLL Path {FOLDER}\\Server\\",
            "DLL Name CompanionServer.dll",
        ],
    ),
    undo_row("UndoCreateBenchMarkRunOnceSchTask", 1),
    undo_row("UndoCreateDVRLogonSchTask", 1),
    undo_row("UndoCreateLogonSchTask", 1),
]
# Values that actions have written, not the installer.
NOT_UNDONE = {
    name: value
    for name, value in values().items()
    if name == companion.SERVER_VALUE or name.endswith("AnalyticsAccepted")
}
UNDO_NOT_CALLED = [
    replace(row, outcome=log.Outcome.NOT_CALLED, result=None, lines=()) for row in UNDO_RUNS
]


def logged(text: str) -> str:
    """A text as the log has it."""
    encoding = engines.value("log-encoding")
    return text.encode(encoding, errors="replace").decode(encoding)


# What happens between sessions.


def write_beside(prefix: Prefix) -> None:
    """Somebody's file lies where a value of the data would end."""
    file = prefix.host_path(BESIDE)
    file.parent.mkdir()
    file.write_text("somebody's own")


def damage(prefix: Prefix) -> None:
    """A file of the product is lost, one of an older agent is left, and the next restart is to
    rename files, one of the agent among them."""
    prefix.host_path(rf"{FOLDER}\readme.txt").unlink()
    prefix.host_path(LEFT_BY_OLDER_AGENT).write_text("of an older agent")
    add_list(prefix, RENAMES, LEFT_BY_OLDER_AGENT, OTHER_RENAMED)


def renames_wait(prefix: Prefix) -> None:
    """The next restart is to rename a file that is none of the package's."""
    add_list(prefix, RENAMES, OTHER_RENAMED)


def restart(prefix: Prefix) -> None:
    """As far as renames that wait are concerned."""
    key, _, name = RENAMES.partition(" : ")
    deleted = prefix.run("reg.exe", "delete", key, "/v", name, "/f")
    assert deleted.returncode == 0, deleted.stdout


def use(prefix: Prefix) -> None:
    """The applications write files, and the recorder runs."""
    companion.write_as_the_applications_do(prefix)
    prefix.start(
        rf"{FOLDER}\DVR\ZenvoVSServ.exe",
        environment={"HALVARD_RECORD": HELD, "HALVARD_RECORD_DELAY": "120000"},
    )
    started = prefix.host_path(HELD)
    until(started.exists, START_LIMIT)
    started.unlink()


def brand(prefix: Prefix) -> None:
    """The applications write files, among them one that the branding key keeps."""
    companion.write_as_the_applications_do(prefix)
    prefix.host_path(LICENCE).write_text("kept")


def plug_in(prefix: Prefix) -> None:
    """A camera that uses the package's transform, and a display adapter of the maker."""
    add_list(prefix, CHAIN, OWN_TRANSFORM, OTHER_TRANSFORM)
    added = prefix.run("reg.exe", "add", ADAPTER, "/v", "Mfg", "/d", "Zenvo Corporation", "/f")
    assert added.returncode == 0, added.stdout


def add_list(prefix: Prefix, value: str, *texts: str) -> None:
    key, _, name = value.partition(" : ")
    data = ["/t", "REG_MULTI_SZ", "/d", r"\0".join(texts)]
    added = prefix.run("reg.exe", "add", key, "/v", name, *data, "/f")
    assert added.returncode == 0, added.stdout


INSTALL = Session(
    "install",
    "Companion",
    companion.install_rows(USER, agent=True),
    together(INSTALLED, *WHOLE_AGENT, known("Companion", Companion=1)),
    WITH_AGENT,
    told=told_on_install(),
)
ALONE = Session(
    "install",
    "Companion",
    companion.install_rows(USER),
    together(INSTALLED, known("Companion", Companion=1)),
    (STARTED,),
    told=told_on_install(),
)
ELSEWHERE = replace(
    ALONE,
    rows=companion.install_rows(USER, logged(OTHER_FOLDER)),
    machine=together(
        Machine(files(OTHER_FOLDER), values(OTHER_FOLDER), companion.TASKS, [companion.SERVICE]),
        known("Companion", Companion=1),
    ),
    properties=(STARTED, f"INSTALLDIR={OTHER_FOLDER}\\"),
    told=told_on_install(OTHER_FOLDER),
)
# The user refuses analytics, once for all versions.
REFUSING = together(INSTALL.machine, values(consent="false"))
UPGRADED = together(INSTALL.machine, values(version=NEXT, consent="false"))
DRIVER_LOG = {
    f"{DISPLAY} : DalDCEFilePathSize": '"260"',
    f"{DISPLAY} : DalDCELogFilePath": r'"%TEMP%\Zenvo\PV\Analytics\qtkmd_dce.log"',
}
MISSING_SERVER = (
    "UPDATE CustomAction SET Target='InstallDir=[ServerFolder];DLLName=missing.dll;"
    "Username=*[UserSID]' WHERE Action='SetSetPermissionsRegisterDLL'"
)


CHOSEN_LATE = [
    "INSERT INTO CustomAction (Action, Type, Source, Target) "
    r"VALUES ('ChooseFolder', 51, 'INSTALLDIR', 'C:\A;B\')",
    # Behind LaunchConditions, as the choice in a dialog is.
    "INSERT INTO InstallExecuteSequence (Action, Sequence) VALUES ('ChooseFolder', 150)",
]
SERVICE_DATA = rf"ServiceName={companion.SERVICE};DirectoryOfBinary=C:\None"
SERVICE_IN_ANOTHER_FOLDER = [
    f"UPDATE CustomAction SET Target='{SERVICE_DATA}' "
    "WHERE Action='SetDeleteServiceIfBinaryIsInDirectory'",
    "UPDATE InstallExecuteSequence SET Sequence=1755 "
    "WHERE Action='SetDeleteServiceIfBinaryIsInDirectory'",
    "UPDATE InstallExecuteSequence SET Sequence=1760 "
    "WHERE Action='DeleteServiceIfBinaryIsInDirectory'",
]


def without_server(rows: Sequence[Row]) -> list[Row]:
    """These runs, ended by SetPermissionsRegisterDLL, which finds no server, and undone."""
    *before, last = ended_rows(
        rows, "SetPermissionsRegisterDLL", log.Outcome.FAILED, session.INSTALL_FAILURE
    )
    return [
        *before,
        replace(
            last,
            data=last.data.replace("CompanionServer", "missing"),
            lines=tuple(line.replace("CompanionServer", "missing") for line in last.lines),
        ),
        *UNDO_RUNS,
    ]


def thrown_for_the_service(rows: Sequence[Row]) -> list[Row]:
    """These runs, ended by DeleteServiceIfBinaryIsInDirectory, whose data leads nowhere."""
    *before, last = ended_rows(
        rows, "DeleteServiceIfBinaryIsInDirectory", log.Outcome.NOT_RETURNED
    )
    lines = (f"CustomActionData: {SERVICE_DATA}",)
    return [*before, replace(last, data=SERVICE_DATA, lines=lines), not_called(rows[-1])]


SCENARIOS = [
    Scenario(
        "life",
        [
            Session(
                "refused",
                "Companion",
                companion.refused_rows(),
                Machine(),
                result=session.INSTALL_FAILURE,
            ),
            replace(
                INSTALL,
                rows=companion.install_rows(USER, agent=True, refused=True),
                machine=REFUSING,
                properties=(*WITH_AGENT, "DISABLEANALYTICS=yes"),
            ),
            replace(
                INSTALL,
                name="repair",
                # The write of the last action is refused, which leaves it as an exception.
                rows=ended_rows(
                    companion.clients_rows("Companion", USER),
                    "AfterInstallUPA",
                    log.Outcome.NOT_RETURNED,
                ),
                machine=together(
                    REFUSING, {RENAMES: rf'"{LEFT_BY_OLDER_AGENT}", "{OTHER_RENAMED}"'}
                ),
                properties=REPAIR,
                told=(),
                prepare=damage,
            ),
            # The engine here does not carry the choice of features over from the older version.
            replace(
                INSTALL,
                name="upgrade",
                package="newer Companion",
                rows=companion.install_rows(
                    USER, version=NEXT, agent=True, tracked=0, refused=True
                ),
                inner=companion.calls(companion.remove_rows(agent=True)),
                machine=UPGRADED,
                prepare=restart,
                told=[*told_on_removal(), *told_on_install()],
            ),
            Session(
                "downgrade",
                "Companion",
                companion.accepted_rows(),
                UPGRADED,
                WITH_AGENT,
                result=session.INSTALL_FAILURE,
            ),
            Session(
                "removal",
                "newer Companion",
                companion.remove_rows(version=NEXT, agent=True),
                together(LEFT_REFUSED, AGENT_LEFT, known("Companion", Companion=2)),
                removal=True,
                told=told_on_removal(),
                prepare=use,
            ),
        ],
    ),
    Scenario(
        "branded",
        [
            replace(
                ALONE,
                rows=companion.install_rows(USER, refused=True),
                machine=together(
                    replace(INSTALLED, tasks=["StartDVR", "StartPVBM", "ZenvoElevated"]),
                    values(lazy=1, consent="false"),
                    known("Companion", Companion=1),
                    DRIVER_LOG,
                    {CHAIN: f'"{OWN_TRANSFORM}", "{OTHER_TRANSFORM}"'},
                ),
                properties=(STARTED, "LAZESTART=1", "DISABLEANALYTICS=yes"),
            ),
            Session(
                "removal",
                "Companion",
                companion.remove_rows(),
                together(
                    LEFT_REFUSED,
                    Machine([LICENCE]),
                    known("Companion", Companion=2),
                    DRIVER_LOG,
                    {CHAIN: f'"{OTHER_TRANSFORM}"'},
                ),
                removal=True,
                told=told_on_removal(),
                prepare=brand,
            ),
        ],
        prepare=plug_in,
    ),
    # 259 skips what stands behind it on Windows; the engine here goes on, and sets up and takes
    # away an agent that Windows would leave to the other client.
    Scenario(
        "two-clients",
        [
            INSTALL,
            Session(
                "second-install",
                "Second Client",
                companion.clients_rows("SecondClient", USER, answer=SKIP),
                together(
                    INSTALL.machine, SECOND, known("SecondClient", Companion=1, SecondClient=1)
                ),
                (companion.WITH_AGENT,),
            ),
            Session(
                "repair",
                "Companion",
                companion.clients_rows("Companion", USER, answer=SKIP),
                together(INSTALL.machine, SECOND, known("Companion", Companion=1, SecondClient=1)),
                REPAIR,
            ),
            Session(
                "removal-beside-the-second",
                "Companion",
                companion.remove_rows(answer=SKIP, agent=True),
                together(
                    LEFT,
                    AGENT_LEFT,
                    AGENT_SOURCE,
                    SECOND,
                    known("Companion", Companion=2, SecondClient=1),
                ),
                removal=True,
                told=told_on_removal(),
            ),
            Session(
                "second-repair",
                "Second Client",
                companion.clients_rows("SecondClient", USER),
                together(
                    LEFT,
                    *WHOLE_AGENT,
                    SECOND,
                    known("SecondClient", Companion=2, SecondClient=1),
                ),
                REPAIR,
            ),
            Session(
                "last-removal",
                "Second Client",
                companion.clients_removal_rows("SecondClient", "SecondClient"),
                together(
                    LEFT,
                    AGENT_LEFT,
                    known("SecondClient", Companion=2, SecondClient=2),
                ),
                removal=True,
            ),
        ],
    ),
    # Without a repair of the first product its removal is taken for the second one's.
    Scenario(
        "last-client",
        [
            ALONE,
            Session(
                "second-install",
                "Second Client",
                companion.clients_rows("SecondClient", USER, answer=SKIP, agent=False),
                together(
                    ALONE.machine, SECOND, known("SecondClient", Companion=1, SecondClient=1)
                ),
            ),
            Session(
                "second-removal",
                "Second Client",
                companion.clients_removal_rows(
                    "SecondClient", "SecondClient", answer=SKIP, agent=False
                ),
                together(ALONE.machine, known("SecondClient", Companion=1, SecondClient=2)),
                removal=True,
            ),
            Session(
                "removal",
                "Companion",
                companion.remove_rows(last_client="SecondClient", answer=SKIP),
                together(LEFT, known("SecondClient", Companion=1, SecondClient=2)),
                removal=True,
                told=told_on_removal(),
            ),
        ],
    ),
    Scenario(
        "other-folder",
        [
            ELSEWHERE,
            replace(
                ELSEWHERE,
                name="upgrade",
                package="newer Companion",
                rows=companion.install_rows(USER, logged(OTHER_FOLDER), NEXT, tracked=0),
                inner=companion.calls(companion.remove_rows()),
                machine=together(ELSEWHERE.machine, values(OTHER_FOLDER, NEXT)),
                properties=(STARTED,),
                told=[*told_on_removal(OTHER_FOLDER), *told_on_install(OTHER_FOLDER)],
            ),
            Session(
                "removal",
                "newer Companion",
                companion.remove_rows(logged(OTHER_FOLDER), NEXT),
                together(LEFT, known("Companion", Companion=2)),
                removal=True,
                told=told_on_removal(OTHER_FOLDER),
                empty=[OTHER_FOLDER.rpartition("\\")[0]],
            ),
        ],
    ),
    # Its data would name C:\A, and a removal take that whole.
    Scenario(
        "folder-with-semicolon",
        [
            Session(
                "refused",
                "Companion",
                companion.accepted_rows(),
                Machine([BESIDE]),
                (STARTED, r"INSTALLDIR=C:\A;B" + "\\"),
                result=session.INSTALL_FAILURE,
            ),
            replace(ALONE, machine=together(ALONE.machine, Machine([BESIDE]))),
            # The folder that the product remembers comes before one of the command line.
            Session(
                "removal",
                "Companion",
                companion.remove_rows(),
                together(LEFT, known("Companion", Companion=2), Machine([BESIDE])),
                (r"INSTALLDIR=C:\A;B" + "\\",),
                removal=True,
                told=told_on_removal(),
            ),
        ],
        prepare=write_beside,
    ),
    # The launch condition has let it pass by then.
    Scenario(
        "folder-with-semicolon-known-late",
        [
            Session(
                "refused",
                "Companion",
                companion.accepted_rows(),
                Machine([BESIDE]),
                (STARTED,),
                result=session.INSTALL_FAILURE,
            )
        ],
        {"Companion": CHOSEN_LATE},
        write_beside,
    ),
    # AfterInstallUPA throws for them and ends the process that hosts the actions. The refusal stands
    # without DisabelAnalyticsKey, as where the answer 259 skips that.
    Scenario(
        "renames-wait",
        [
            replace(
                INSTALL,
                rows=ended_rows(
                    companion.install_rows(USER, agent=True, refused=True),
                    "AfterInstallUPA",
                    log.Outcome.NOT_RETURNED,
                ),
                machine=together(REFUSING, {RENAMES: f'"{OTHER_RENAMED}"'}),
                properties=(*WITH_AGENT, "DISABLEANALYTICS=yes"),
            )
        ],
        {"Companion": ["DELETE FROM InstallExecuteSequence WHERE Action='DisabelAnalyticsKey'"]},
        renames_wait,
    ),
    # DisabelAnalyticsKey gives no result then, which is a failure, for it is checked.
    Scenario(
        "renames-wait-and-checked",
        [
            replace(
                INSTALL,
                rows=[
                    *ended_rows(
                        companion.install_rows(USER, agent=True),
                        "AfterInstallUPA",
                        log.Outcome.NOT_RETURNED,
                    ),
                    not_called(companion.install_rows(USER)[-1]),
                    *UNDO_NOT_CALLED,
                ],
                # What the actions have made stays. The agent's service runs, and keeps its program.
                machine=together(
                    LEFT,
                    AGENT_LEFT,
                    replace(AGENT, files=companion.AGENT_FILES[:1]),
                    Machine(values=NOT_UNDONE, tasks=["StartDVR", "StartPV", "StartPVBM"]),
                    known("Companion", Companion=1),
                    {RENAMES: f'"{OTHER_RENAMED}"'},
                ),
                result=session.INSTALL_FAILURE,
                told=[*told_on_install(), *context_menu_removed()],
                empty=[r"C:\ProgramData\Zenvo"],
            )
        ],
        prepare=renames_wait,
    ),
    # As where no table of the installer has taken the service away before. CheckForClients gives no
    # result, so the removal fails and the client keeps the agent.
    Scenario(
        "removal-by-exception",
        [
            INSTALL,
            Session(
                "removal",
                "Companion",
                thrown_for_the_service(companion.remove_rows()),
                together(LEFT, AGENT_LEFT, AGENT, known("Companion", Companion=1)),
                removal=True,
                result=session.INSTALL_FAILURE,
                told=told_on_removal(),
                empty=[r"C:\ProgramData\Zenvo"],
            ),
        ],
        {"Companion": SERVICE_IN_ANOTHER_FOLDER},
    ),
    # The exception ends the process that hosts the actions.
    Scenario(
        "failure-by-exception",
        [
            Session(
                "install",
                "Companion",
                [
                    *ended_rows(
                        companion.install_rows(USER),
                        "CreateLogonSchTask",
                        log.Outcome.NOT_RETURNED,
                    ),
                    *UNDO_NOT_CALLED,
                ],
                Machine(),
                (STARTED,),
                result=session.INSTALL_FAILURE,
                empty=[LEFT_BY_ROLLBACK],
                # Commands are called where the library's rollback actions are not.
                told=context_menu_removed(),
            )
        ],
        {"Companion": ["DELETE FROM Registry WHERE Name='Location' AND Component_='Pivot'"]},
    ),
    Scenario(
        "failure-by-result",
        [
            Session(
                "install",
                "Companion",
                without_server(companion.install_rows(USER)),
                Machine(LEFT.files),
                (STARTED,),
                result=session.INSTALL_FAILURE,
                empty=[LEFT_BY_ROLLBACK],
                told=[*permissions(), *context_menu_removed()],
            )
        ],
        {"Companion": [MISSING_SERVER]},
    ),
    # The older version has gone before the newer one begins, and does not come back.
    Scenario(
        "failed-upgrade",
        [
            INSTALL,
            Session(
                "upgrade",
                "newer Companion",
                without_server(companion.install_rows(USER, version=NEXT)),
                together(LEFT, AGENT_LEFT, known("Companion", Companion=2)),
                WITH_AGENT,
                result=session.INSTALL_FAILURE,
                inner=companion.calls(companion.remove_rows(agent=True)),
                told=[*told_on_removal(), *permissions(), *context_menu_removed()],
                empty=[LEFT_BY_ROLLBACK, r"C:\ProgramData\Zenvo"],
            ),
        ],
        {"newer Companion": [MISSING_SERVER]},
    ),
]


@pytest.fixture(scope="session")
def played() -> Callable[[Scenario, str], Played]:
    outcomes: dict[str, dict[str, Played] | Exception] = {}

    def once(scenario: Scenario, name: str) -> Played:
        if scenario.name not in outcomes:
            try:
                outcomes[scenario.name] = play(scenario)
            except Exception as failure:
                outcomes[scenario.name] = failure
        came = outcomes[scenario.name]
        if isinstance(came, Exception):
            raise came
        assert name in came, "not played: one before it did not end as it should"
        return came[name]

    return once


EVERY_SESSION = pytest.mark.parametrize(
    "scenario, expected",
    [
        pytest.param(scenario, each, id=f"{scenario.name}-{each.name}")
        for scenario in SCENARIOS
        for each in scenario.sessions
    ],
)


@EVERY_SESSION
def test_the_actions_run_as_they_should(played, scenario, expected):
    outcome = played(scenario, expected.name)
    assert outcome.result.exit_code == session.as_exit_code(expected.result)
    rows = [companion.row(run) for run in outcome.runs]
    assert rows == list(expected.rows), outcome.result.report()
    assert outcome.inner == list(expected.inner), outcome.result.report()


@EVERY_SESSION
def test_the_machine_is_as_it_should(played, scenario, expected):
    outcome = played(scenario, expected.name)
    assert [name for name in outcome.empty if name not in LEFT_EMPTY] == list(expected.empty)
    came, right = outcome.machine, together(expected.machine)
    assert came.files == right.files, outcome.result.report()
    assert came.values == right.values, outcome.result.report()
    assert (came.tasks, came.running) == (right.tasks, right.running), outcome.result.report()


@EVERY_SESSION
def test_other_programs_are_told_what_they_should(played, scenario, expected):
    outcome = played(scenario, expected.name)
    assert outcome.told == sorted(expected.told), outcome.result.report()


def test_every_action_of_the_library_runs_in_a_scenario():
    run = {row.action for scenario in SCENARIOS for each in scenario.sessions for row in each.rows}
    assert set(actions.exports()) - run == set()


def test_durations_are_measured_and_shorter_than_the_session(played):
    outcome = played(SCENARIOS[0], "install")
    durations = [run.duration for run in outcome.runs]
    # Lines that are read together have one time.
    assert all(duration >= 0 for duration in durations), outcome.result.report()
    assert 0 < sum(durations) < outcome.result.seconds * 1000, outcome.result.report()
