"""Made-up sessions for the tests of the report, with every outcome and every kind of change."""

from collections import Counter
from typing import Sequence

from installer import paths
from installer.facts import Expectation, Finding, PackageCheck, Report, SessionFacts
from installer.log import ActionDefinition, ActionRun, Call, Execution
from installer.machine import Area, Change, Difference, Kind
from installer.session import SessionResult

DATA = r"InstallDir=C:\Program Files\Zenvo\;DLLName=a.dll;Username=root"
TRACE = ["   0.2 ms  registry  opens key  <HKLM>  missing (2)", "result 1603"]
HOSTILE = [
    "</li></ul><script>alert('line')</script>",
    '"><img src=x onerror="alert(1)">',
    "&lt;b&gt; & <!-- ]]> -->",
    "\x1b[31m\x00 turned \u202e round \ud800",
    "",
    "  indented\twith a tab",
]


def run(name: str, start: float, duration: float | None, **values) -> ActionRun:
    ignored = values.pop("ignored", False)
    execution = values.pop("execution", Execution.DEFERRED)
    return ActionRun(
        name, ActionDefinition(execution, ignored), start, duration=duration, **values
    )


def returned(name: str, start: float, duration: float, result: int, **values) -> ActionRun:
    return run(name, start, duration, result=result, call=Call.RETURNED, **values)


def every_outcome() -> list[ActionRun]:
    return [
        returned("BlockLaunch", 100.0, 200.0, 0, verdict=1, execution=Execution.IMMEDIATE),
        returned("TerminatePivotApp", 300.0, 50.0, 1603, verdict=1, ignored=True, data=DATA),
        returned("CreateLogonSchTask", 350.0, 0.5, 1603, verdict=0, lines=HOSTILE, trace=TRACE),
        returned("UnregisterDLL", 400.0, 100.0, 0, verdict=7),
        run("DeletePVFolder", 500.0, 125.0, verdict=1, ignored=True, call=Call.NOT_RETURNED),
        run("LaunchPV", 625.0, 0.0, verdict=1, ignored=True, call=Call.NOT_CALLED),
        run("CheckForClients", 700.0, 5.0, verdict=0, call=Call.NOT_CALLED, data="Action=ALL"),
        run("DeleteQortaKey", 900.0, None, data="", lines=["begun"]),
    ]


def session(title: str = "Remove", **values) -> SessionFacts:
    return SessionFacts(
        **{
            "title": title,
            "result": SessionResult(
                ["/x", r"b:\package\Companion.msi", "/qn"], 67, paths.LOGS / "remove.log", 1.0, []
            ),
            "runs": every_outcome(),
            "difference": Difference(changes(), Counter({"records of the installer": 7})),
            "note": "A note on the session.",
            "told": [r'"C:\pvcmd.exe" exit'],
            "expectations": [
                Expectation("exit code", "0", "67"),
                Expectation("actions", "all of them", "all of them"),
            ],
        }
        | values
    )


def changes() -> list[Change]:
    key = r"HKLM\Software\Zenvo"
    return [
        Change(Area.FILE, Kind.ADDED, "C:\\<new>.txt", None, "4 bytes, written 2026-01-01"),
        Change(Area.FILE, Kind.REMOVED, "C:\\old.txt", "5 bytes, written 2026-01-02", None),
        Change(Area.REGISTRY, Kind.REMOVED, key, "", None),
        Change(Area.REGISTRY, Kind.CHANGED, f"{key} : Mode", '"<a>"', '"&b;"'),
        Change(Area.SERVICE, Kind.ADDED, "TeloLauncher : Start", None, "dword:00000002"),
        Change(Area.TASK, Kind.REMOVED, "StartPV", "1045 bytes, written 2026-01-03", None),
    ]


def good_session(title: str = "Install") -> SessionFacts:
    """One in which all went as it should, and nothing was changed."""
    return session(
        title,
        runs=every_outcome()[:1],
        difference=Difference(),
        expectations=[Expectation("exit code", "0", "0")],
        note="",
        told=[],
    )


def checks() -> list[PackageCheck]:
    return [
        PackageCheck(
            "Companion.msi",
            [
                Finding(
                    304, "error", "InstallExecuteSequence", "DeletePVFolder", "An action too late.",
                    "DeletePVFolder behind RemoveFiles", "It finds nothing.", "Schedule it before.",
                ),
                Finding(703, "hint", "Binary", "", "No signature.", "", "It warns.", "Sign it."),
                Finding(107, "hint", "CustomAction", "", "Not called.", "", "It waits.", "Call it."),
            ],
        ),
        PackageCheck("Second.msi", []),
    ]


def report(
    *sessions: SessionFacts,
    planned: int | None = None,
    failure: str = "",
    checks: Sequence[PackageCheck] = (),
) -> Report:
    return Report(
        "Installer sessions",
        "2026-11-21T13:01:47",
        "1.2.3",
        len(sessions) if planned is None else planned,
        list(sessions),
        failure,
        list(checks),
    )
