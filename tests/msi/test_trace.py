"""What halvard_run tells of an action while it runs, and of one that is only tried."""

import json
import re
import shutil
from typing import Any, Iterator

import pytest

from installer import machine, paths
from installer.machine import Kind
from installer.prefix import Prefix
from programs import Done, ran
from waiting import until

FAULTS = ("--dll", paths.windows_path(paths.FAULT_ACTIONS))
HKLM = "HKEY_LOCAL_MACHINE\\"
PIVOT_KEY = r"SOFTWARE\Qorta Technologies\Install\Pivot"
RUN_KEY = r"SOFTWARE\Microsoft\Windows\CurrentVersion\Run"
FIELDS = ["milliseconds", "group", "event", "target", "result", "code", "details"]
WRONG_ARGUMENTS, RUNNER_FAILED = 2, 10
# Seconds.
LIMIT = 60


class Run(Done):
    @property
    def json(self) -> dict[str, Any]:
        return json.loads(self.output)

    @property
    def events(self) -> list[tuple[str, str, str, str, int | None]]:
        """Without times and details."""
        names = ("group", "event", "target", "result", "code")
        return [tuple(event[name] for name in names) for event in self.json["trace"]]

    def of(self, group: str) -> list[tuple[str, str, str, int | None]]:
        return [event[1:] for event in self.events if event[0] == group]

    def details(self, what: str, target: str) -> dict[str, str]:
        found = [
            event["details"]
            for event in self.json["trace"]
            if event["event"] == what and event["target"] == target
        ]
        assert len(found) == 1, self.json["trace"]
        return found[0]


class Machine:
    def __init__(self, prefix: Prefix) -> None:
        self.prefix = prefix

    def call(self, *arguments: str) -> Run:
        return Run(**vars(ran(self.prefix, paths.RUNNER, *arguments, limit=LIMIT)))

    def trace(self, *arguments: str) -> Run:
        return self.call(*arguments, "--trace", "--json")

    def write(self, key: str, name: str, data: str, type_name: str = "REG_SZ") -> None:
        self.reg("add", rf"HKLM\{key}", "/v", name, "/t", type_name, "/d", data, "/f")

    def reg(self, *arguments: str) -> None:
        assert self.prefix.run("reg.exe", *arguments).returncode == 0

    def folder(self, path: str, *files: str) -> None:
        for file in files or (".",):
            place = self.prefix.host_path(path) / file.replace("\\", "/")
            if file == ".":
                place.mkdir(parents=True)
            else:
                place.parent.mkdir(parents=True, exist_ok=True)
                place.write_text("x")


@pytest.fixture
def made() -> Iterator[Machine]:
    with Prefix("prefix-msi-trace") as prefix:
        yield Machine(prefix)


def test_without_the_word_nothing_is_traced(made):
    assert "trace" not in made.call("BlockLaunch", "--json").json
    assert "property " not in made.call("BlockLaunch").output


def test_keys_and_values_are_told_with_their_paths_and_codes(made):
    made.write(RUN_KEY, "StartPV", "old")
    told = made.trace("CreateLogonSchTask")
    assert told.of("registry") == [
        ("opens key", HKLM + RUN_KEY, "done", None),
        ("deletes value", rf"{HKLM}{RUN_KEY} : StartPV", "done", None),
        ("opens key", HKLM + PIVOT_KEY, "failed", 2),
    ]
    assert told.details("opens key", HKLM + PIVOT_KEY) == {"means": "File not found"}
    assert [list(event) for event in told.json["trace"]] == [FIELDS] * 3
    times = [event["milliseconds"] for event in told.json["trace"]]
    assert times == sorted(times) and 0 <= times[-1] <= 60000
    # What is told to the installer is told as ever.
    assert told.json["exception"]["type"] == "halvard::RegKeyError"
    line = rf"registry +\d+\.\d ms  opens key +FAILED 2 +{re.escape(HKLM + PIVOT_KEY)} \(File not found\)$"
    assert re.search(line, made.call("CreateLogonSchTask", "--trace").output, re.MULTILINE)


def test_views_and_data_are_told(made):
    made.write(r"SOFTWARE\Qorta Technologies\Install", "ZenvoDVR_Enabled", "1", "REG_DWORD")
    told = made.trace("TrackDVRAnalytics")
    install = rf"{HKLM}SOFTWARE\Qorta Technologies\Install"
    marker = rf"{HKLM}SOFTWARE\ZenvoDVR"
    assert told.of("registry") == [
        ("opens key", install, "done", None),
        ("reads value", rf"{install} : ZenvoDVR_Enabled", "done", None),
        ("opens key", marker, "failed", 2),
        ("creates key", marker, "done", None),
        ("writes value", rf"{marker} : ZenvoDVR_Tracked", "done", None),
    ]
    data = {"type": "REG_DWORD", "data": "1"}
    assert told.details("reads value", rf"{install} : ZenvoDVR_Enabled") == data
    assert told.details("writes value", rf"{marker} : ZenvoDVR_Tracked") == data
    slim = rf"{HKLM}SOFTWARE\Qorta\Sable\Packages\Core-Static"
    view = made.trace("DeletePVSlimINSTALLDIRFolder").details("opens key", slim)
    assert view == {"means": "File not found", "view": "32-bit"}


def test_programs_are_told_with_folder_exit_code_and_what_they_print(made):
    made.folder(r"T:\server")
    told = made.trace(
        "SetPermissionsRegisterDLL",
        r"CustomActionData=InstallDir=T:\server;DLLName=Missing.dll;Username=me",
    )
    register = r'cmd.exe /C "regsvr32.exe /s "T:\server\Missing.dll""'
    assert told.of("program")[-2:] == [
        ("starts", register, "done", None),
        ("ends", register, "failed", 3),
    ]
    assert told.details("starts", register) == {"folder": r"T:\server"}
    # The library gives this one nothing to print to.
    kill = '"C:\\windows\\system32\\TaskKill.exe" /IM ZenvoUPAM.exe /F'
    told = made.trace("PreInstallUPA")
    assert told.details("ends", kill)["printed"] == 'Error: Could not find process "ZenvoUPAM.exe".'
    assert ("ends", kill, "failed", 128) in told.of("program")


def test_what_the_library_reads_to_drop_it_is_told(made):
    made.folder(r"T:\server", "Server.dll")
    script = "@echo one\r\n@echo two 1>&2\r\n@exit /b 5\r\n"
    made.prefix.host_path(r"T:\server\icacls.cmd").write_text(script)
    told = made.trace(
        "SetPermissionsRegisterDLL",
        r"CustomActionData=InstallDir=T:\server;DLLName=Missing.dll;Username=me",
    )
    owner = r'cmd.exe /C "icacls "T:\server" /setowner me"'
    assert ("ends", owner, "failed", 5) in told.of("program")
    assert [line.strip() for line in told.details("ends", owner)["printed"].split("\n")] == ["one", "two"]


def test_a_program_that_is_not_waited_for_is_told_when_it_has_ended(made):
    made.folder("T:\\pv\\")
    made.write(PIVOT_KEY, "Location", "T:\\pv\\")
    told = made.trace("CreateLogonSchTask")
    (change,) = [event for event in told.json["trace"] if event["details"].get("waited for")]
    assert change["event"] == "ends" and change["target"].startswith("schtasks /change")
    assert change["details"]["waited for"] == "no"


def test_lost_lines_are_told_as_lost(made):
    made.folder("T:\\pv\\")
    made.write(PIVOT_KEY, "Location", "T:\\pv\\")
    told = made.trace("CreateLogonSchTask")
    line = "Error creating file reader, error is 80070002"
    assert told.of("lost") == [("to stdout", line, "done", None)]
    assert line in told.json["standard_output"]
    output = made.call("CreateLogonSchTask", "--trace").output
    assert output.count(line) == 1
    assert re.search(rf"^lost .* LOST +{line}$", output, re.MULTILINE)

    data = r"CustomActionData=InstallDir=T:\pv;ServiceName=NoSuchService"
    told = made.trace("DeleteServiceIfBinaryIsInDirectory", data)
    lost = [target for what, target, _, _ in told.of("lost") if what == "to session 0"]
    assert lost == ["Unable to open service NoSuchService. Error code: 1060"]
    assert lost[0] not in told.json["log"]
    assert ("opens service", "NoSuchService", "failed", 1060) in told.of("service")


def test_an_action_that_crashes_or_hangs_shows_what_came_before(made):
    waits = ["LogAndWait", "MILLISECONDS=60000", "--limit", "15", *FAULTS]
    ends = ["EndOwnProcess", "CODE=7", *FAULTS]
    for words, code in ((waits, 8), (ends, 7)):
        done = made.trace(*words)
        name = words[1].partition("=")[0]
        assert (done.code, done.of("property")) == (code, [("reads", name, "done", None)])


def test_a_removal_is_told_entry_by_entry_and_who_refused_it(made):
    made.folder(r"T:\tree", r"a\one", "b")
    told = made.trace("DeleteDMFTDirectory", r"CustomActionData=InstallDir=T:\tree")
    removed = [event for event in told.of("file") if event[0] == "removes"]
    assert {event[1] for event in removed} == {
        r"T:\tree", r"T:\tree\a", r"T:\tree\a\one", r"T:\tree\b"
    }
    assert {event[2] for event in removed} == {"done"}

    made.folder(r"T:\tree")
    shutil.copy(paths.STAND_INS["Recorder"], made.prefix.host_path(r"T:\tree") / "held.exe")
    holder = made.prefix.start(r"T:\tree\held.exe", environment={"HALVARD_RECORD_DELAY": "60000"})
    try:
        until(made.prefix.host_path(r"T:\recorded.txt").exists, 30)
        told = made.trace("DeleteDMFTDirectory", r"CustomActionData=InstallDir=T:\tree")
    finally:
        holder.kill()
        holder.wait()
    refused = [event for event in told.of("file") if event[2] == "failed"]
    assert refused == [("removes", r"T:\tree\held.exe", "failed", 5)]
    # Here the Restart Manager knows of nobody.
    held_by = told.details("removes", r"T:\tree\held.exe")["held by"]
    assert held_by in ("cannot be asked here", "nobody that the Restart Manager knows")


# Each dry run, and what of the machine it has to name.
DRY_RUNS = {
    "DeleteandRetainValues": [],
    "DeleteDMFTDirectory": [r"CustomActionData=InstallDir=T:\dmft"],
    "DeletePVFolder": [],
    "DeletePVINSTALLDIRFolder": [],
    "DeletePVSlimINSTALLDIRFolder": [],
    "DeleteXVRFolder": [],
    "DeleteAnalyticsKey": [],
    "DelInstallProxyKey": [],
    "DeleteQortaKey": [],
}


def make_all(made: Machine) -> None:
    made.folder(r"T:\dmft", "a", r"sub\b", r"sub\deeper\c")
    made.folder(r"T:\slim", "a")
    made.folder(r"T:\qorta", r"XVR\a")
    made.folder(r"T:\brand", "Logo.png", r"sub\deep.png", "Kept.png")
    made.folder(r"T:\pv", r"sub\a")
    shutil.copy(paths.STAND_INS["Recorder"], made.prefix.host_path(r"T:\pv") / "pvcmd.exe")
    made.write(PIVOT_KEY, "Location", "T:\\pv\\")
    made.write(r"SOFTWARE\Wow6432Node\Qorta\Sable\Packages\Core-Static", "Location", r"T:\slim")
    made.write(r"SOFTWARE\Qorta Technologies\Install\XVR64", "InstallDir", "T:\\qorta\\")
    made.write(r"SOFTWARE\Zenvo\PV", "PVBrandingInstallDir", r"T:\brand")
    made.write(r"SOFTWARE\ZenvoBranding", "kept", r"T:\brand\Kept.png")
    made.write(r"SOFTWARE\Zenvo\ZenvoAnalytics", "AnalyticsAccepted", "true")
    made.reg("add", r"HKLM\SOFTWARE\Wow6432Node\Qorta\Sable\Settings\Kiln\Install", "/f")
    made.reg("add", r"HKLM\SOFTWARE\Qorta\Below", "/f")


def names_of(snapshot: machine.Snapshot) -> set[str]:
    return {name.lower() for _, name in snapshot}


def removed_names(before: machine.Snapshot, after: machine.Snapshot) -> set[str]:
    changes = machine.difference(before, after).changes
    return {change.name.lower() for change in changes if change.kind is Kind.REMOVED}


def goes_with(name: str, named: str) -> bool:
    """Whether something is what is named or, for a key, of the values and keys that it has."""
    if name == named:
        return True
    return named.startswith("hklm\\") and name.startswith((f"{named} : ", f"{named}\\"))


@pytest.mark.parametrize("action", DRY_RUNS)
def test_a_dry_run_changes_nothing_and_names_what_then_goes(made, action):
    make_all(made)
    words = [action, *DRY_RUNS[action]]
    before = machine.snapshot(made.prefix)
    dry = made.call(*words, "--dry-run", "--json")
    assert machine.difference(before, machine.snapshot(made.prefix)).changes == []
    assert not made.prefix.host_path(r"T:\recorded.txt").exists()

    real = made.call(*words, "--json")
    # Some answer with the number of a key.
    answers = [(done.code, done.json["exception"]) for done in (dry, real)]
    assert answers[0] == answers[1]
    after = machine.snapshot(made.prefix)
    would_go = [name.lower() for name in dry.json["dry_run"]["would_go"]]
    named = [name.replace("hkey_local_machine", "hklm") for name in would_go]
    went = removed_names(before, after)
    assert went and [name for name in went if not any(goes_with(name, each) for each in named)] == []
    # The engine stores a key that has keys alone with these.
    there, left = names_of(before), names_of(after)
    for each in named:
        assert any(goes_with(name, each) for name in there), each
        assert not any(goes_with(name, each) for name in left), each
    assert dry.json["dry_run"]["ends_early"] is False


def test_a_dry_run_leaves_an_empty_folder_too(made):
    made.folder(r"T:\empty")
    data = r"CustomActionData=InstallDir=T:\empty"
    dry = made.call("DeleteDMFTDirectory", data, "--dry-run", "--json")
    assert dry.json["dry_run"]["would_go"] == [r"T:\empty"]
    assert made.prefix.host_path(r"T:\empty").is_dir()


def test_a_dry_run_says_what_would_refuse(made):
    made.folder(r"T:\dmft", r"a\readonly")
    made.prefix.host_path(r"T:\dmft\a\readonly").chmod(0o444)
    data = r"CustomActionData=InstallDir=T:\dmft"
    dry = made.call("DeleteDMFTDirectory", data, "--dry-run", "--json")
    assert dry.json["dry_run"] == {
        "would_go": [],
        "would_stay": [
            {
                "name": r"T:\dmft\a\readonly",
                "why": "refused with 5: Access denied; attribute: read-only",
            }
        ],
        "near_misses": [],
        "ends_early": True,
    }
    real = made.call("DeleteDMFTDirectory", data, "--json")
    assert real.json["exception"]["code"] == dry.json["exception"]["code"] == 5
    assert made.prefix.host_path(r"T:\dmft\a\readonly").exists()


def test_an_action_that_does_more_than_remove_has_no_dry_run(made):
    done = made.call("CreateLogonSchTask", "--dry-run")
    assert done.code == WRONG_ARGUMENTS
    assert done.errors.startswith("halvard_run: CreateLogonSchTask has no dry run: ")


def test_what_comes_at_the_end_of_the_process_is_told(made):
    told = made.trace("WorkAtTheEndOfTheProcess", *FAULTS)
    assert told.code == 0
    assert told.of("registry") == [
        ("opens key", rf"{HKLM}SOFTWARE", "done", None),
        ("reads value", rf"{HKLM}SOFTWARE : of the end", "failed", 2),
    ]
    assert told.of("lost") == [("to the debugger", "the end", "done", None)]


def test_a_trace_that_cannot_begin_is_the_failure_of_the_runner(made):
    library = ("--dll", paths.windows_path(paths.STARVING_LIBRARY))
    done = made.trace("Nothing", *library)
    assert (done.code, done.json["exit_code"]) == (RUNNER_FAILED, RUNNER_FAILED)
    assert done.json["error"] == "halvard_run itself failed: std::bad_alloc"


def test_a_folder_in_its_extended_length_form_is_named_as_users_write_it(made):
    folder = "\\\\?\\T:\\brand"
    made.folder(r"T:\brand", "Went.png", "Kept.png")
    made.write(r"SOFTWARE\Zenvo\PV", "PVBrandingInstallDir", folder)
    made.write(r"SOFTWARE\ZenvoBranding", "kept", rf"{folder}\Kept.png")
    dry = made.call("DeleteandRetainValues", "--dry-run", "--json").json["dry_run"]
    assert r"T:\brand\Went.png" in dry["would_go"]
    assert dry["would_stay"] == [{"name": r"T:\brand\Kept.png", "why": "named to stay"}]


TASK = r"CustomActionData=TaskName=Traced task;CommandToLaunch=C:\a.exe;Username=Users"
SCHED_E_MALFORMEDXML = 0x8004131A
REGISTERED = ("registers", "Traced task", "done", None)


def test_the_answers_of_the_task_scheduler_are_told(made):
    told = made.trace("CreateTriggerlessElevatedScheduleTask", TASK)
    assert told.of("task") == [
        ("begins", "COM", "done", None),
        ("reaches", "Task Scheduler", "done", None),
        ("connects to", "Task Scheduler", "done", None),
        ("opens folder of tasks", "\\", "done", None),
        REGISTERED,
    ]
    # It makes the definition malformed.
    refused = made.trace("CreateTriggerlessElevatedScheduleTask", TASK.replace("a.exe", "<.exe"))
    assert refused.of("task")[-1] == (*REGISTERED[:2], "failed", SCHED_E_MALFORMEDXML)
