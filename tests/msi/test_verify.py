"""halvard_run --verify and --verify-installer: what every fact comes to here, and that nothing is left."""

import json
import os
import re
import shutil
import signal
from contextlib import contextmanager, suppress
from dataclasses import dataclass, field
from functools import partial
from pathlib import Path
from typing import Iterator

import pytest

from installer import engines, machine, paths, verified
from installer.machine import Snapshot
from installer.prefix import Prefix
from installer.verified import Fact
from processes import running_in
from programs import ran

ALL = verified.facts()
FACTS = [fact for fact in ALL if fact.subject != verified.INSTALLER]
INSTALLER_FACTS = [fact for fact in ALL if fact.subject == verified.INSTALLER]
DURATIONS = ("call-duration", "library-duration")
# Seconds, on a machine that is busy with other tests.
LIMIT = 400.0
SOME_DIFFER, WRONG_ARGUMENTS, SOMETHING_IS_LEFT, NOT_CARRIED_OUT = 1, 2, 20, 21
run = partial(ran, limit=LIMIT)


@dataclass
class Asked:
    """A machine that was asked, and what it was before and after."""

    prefix: Prefix
    code: int
    output: str
    before: Snapshot
    after: Snapshot

    @property
    def told(self) -> dict:
        return json.loads(self.output)


# What makes a program start elevated where it otherwise does not.
MANIFEST = """<?xml version="1.0" encoding="UTF-8" standalone="yes"?>
<assembly xmlns="urn:schemas-microsoft-com:asm.v1" manifestVersion="1.0">
  <trustInfo xmlns="urn:schemas-microsoft-com:asm.v3"><security><requestedPrivileges>
    <requestedExecutionLevel level="requireAdministrator" uiAccess="false"/>
  </requestedPrivileges></security></trustInfo>
</assembly>
"""
COPIED_RUNNER = rf"t:\runner\{paths.RUNNER.name}"


def copied_runner(prefix: Prefix) -> Path:
    """The program, which starts elevated there, and the library once more, where they can be taken
    away."""
    folder = prefix.throwaway / "runner"
    folder.mkdir()
    for file in (paths.RUNNER, paths.LIBRARY):
        shutil.copy(file, folder)
    (folder / f"{paths.RUNNER.name}.manifest").write_text(MANIFEST)
    return folder / paths.RUNNER.name


@contextmanager
def asking(name: str, *arguments: str, program: str | Path = paths.RUNNER) -> Iterator[Asked]:
    with Prefix(name) as prefix:
        copied_runner(prefix)
        # What the first program of this kind leaves in a fresh prefix is no work of this one.
        prefix.run("schtasks.exe", "/query")
        before = machine.snapshot(prefix)
        done = run(prefix, program, *arguments, "--json")
        yield Asked(prefix, done.code, done.output, before, machine.snapshot(prefix))


@pytest.fixture(scope="module")
def asked() -> Iterator[Asked]:
    with asking("prefix-msi-verify", "--verify") as answered:
        yield answered


@pytest.fixture(scope="module")
def installed() -> Iterator[Asked]:
    arguments = ("--verify-installer", "--yes")
    with asking("prefix-msi-verify-installer", *arguments, program=COPIED_RUNNER) as answered:
        yield answered


@pytest.fixture(scope="module")
def installed_once_more() -> Iterator[Asked]:
    arguments = ("--verify-installer", "--yes")
    with asking("prefix-msi-verify-again", *arguments, program=COPIED_RUNNER) as answered:
        yield answered


def fact_of(answered: Asked, fact: Fact) -> dict:
    (told,) = [each for each in answered.told["facts"] if each["name"] == fact.name]
    return told


def check_nothing_is_left(answered: Asked) -> None:
    assert answered.told["left_behind"] == []
    assert machine.difference(answered.before, answered.after).changes == []


def test_one_object_tells_all_facts_in_their_order(asked):
    assert [fact["name"] for fact in asked.told["facts"]] == [fact.name for fact in FACTS]
    assert asked.told["wine"]
    assert asked.told["elevated"] is engines.value("elevation-of-programs")


@pytest.mark.parametrize("fact", FACTS, ids=lambda fact: fact.name)
def test_the_engine_does_what_the_table_says(asked, fact):
    told = fact_of(asked, fact)
    assert (told["here"] or told["verdict"]) == fact.expected(), told["why"]
    assert (told["here"] is None) == bool(told["why"])


def test_the_verdicts_are_about_windows(asked):
    for told in asked.told["facts"]:
        if told["here"] is not None:
            agrees = told["here"] in told["windows"].split(" or ")
            assert told["verdict"] == ("agrees" if agrees else "differs"), told["name"]
    verdicts = [told["verdict"] for told in asked.told["facts"]]
    counts = {"agree": "agrees", "differ": "differs", "cannot_be_asked": verified.NOT_ASKED}
    for name, verdict in counts.items():
        assert asked.told[name] == verdicts.count(verdict) > 0
    assert asked.code == asked.told["exit_code"] == SOME_DIFFER


def test_nothing_is_left(asked):
    check_nothing_is_left(asked)


def test_the_table_is_for_readers(asked):
    done = run(asked.prefix, paths.RUNNER, "--verify")
    assert (done.code, done.errors) == (SOME_DIFFER, "")
    for fact in FACTS:
        assert f"\n{fact.name} " in done.output
    told = asked.told
    assert done.output.endswith(
        f"{len(FACTS)} facts: {told['agree']} agree, {told['differ']} differ, "
        f"{told['cannot_be_asked']} cannot be asked here\n"
    )


@pytest.mark.parametrize(
    "word, refused",
    [
        ("--verify", "LaunchPV"),
        ("--verify", "--dll"),
        ("--verify", "--yes"),
        ("--verify-installer", "LaunchPV"),
    ],
)
def test_what_it_does_not_take_is_refused(asked, word, refused):
    done = run(asked.prefix, paths.RUNNER, word, refused)
    assert (done.code, done.output) == (WRONG_ARGUMENTS, "")
    assert f"{word} takes no {refused}" in done.errors
    scripted = run(asked.prefix, paths.RUNNER, word, refused, "--json")
    assert json.loads(scripted.output)["exit_code"] == done.code


@pytest.mark.parametrize("word", ["--verify", "--verify-installer"])
def test_it_has_a_help_of_its_own(asked, word):
    done = run(asked.prefix, paths.RUNNER, word, "--help")
    assert (done.code, done.errors) == (0, "")
    assert "halvard_run --verify-installer [--yes]" in done.output
    scripted = run(asked.prefix, paths.RUNNER, word, "--help", "--json")
    assert json.loads(scripted.output) == {"help": done.output, "exit_code": 0}


@pytest.mark.parametrize("answer", [b"no\r\n", b"\r\n", b""])
def test_nothing_is_installed_without_a_yes(asked, answer):
    before = machine.snapshot(asked.prefix)
    done = run(asked.prefix, COPIED_RUNNER, "--verify-installer", answer=answer)
    assert (done.code, done.output) == (NOT_CARRIED_OUT, "")
    assert "Type yes: " in done.errors and "nothing was installed" in done.errors
    scripted = run(asked.prefix, COPIED_RUNNER, "--verify-installer", "--json", answer=answer)
    told = {"error": "nothing was installed", "exit_code": NOT_CARRIED_OUT}
    assert (scripted.code, json.loads(scripted.output)) == (NOT_CARRIED_OUT, told)
    assert machine.difference(before, machine.snapshot(asked.prefix)).changes == []


def test_the_installer_tells_all_its_facts(installed):
    told = [fact["name"] for fact in installed.told["facts"]]
    assert told == [fact.name for fact in INSTALLER_FACTS]
    assert installed.code == installed.told["exit_code"] == SOME_DIFFER


@pytest.mark.parametrize("fact", INSTALLER_FACTS, ids=lambda fact: fact.name)
def test_the_installer_does_what_the_table_says(installed, fact, request):
    told = fact_of(installed, fact)
    if fact.name in DURATIONS and told["here"] not in (None, fact.expected()):
        # For a moment the machine may have had other work.
        told = fact_of(request.getfixturevalue("installed_once_more"), fact)
    assert told["here"] == fact.expected(), told["why"]


def test_durations_and_places_are_told_with_what_they_were_read_from(installed):
    why = {told["name"]: told["why"] for told in installed.told["facts"]}
    assert re.fullmatch(r"\d+ ms", why["call-duration"])
    assert re.match(r"\d+ ms", why["library-duration"])
    assert why["host-program"].lower() == r"c:\windows\system32\msiexec.exe"
    assert re.fullmatch(r"C:\\Program Files\\Halvard verify \d+\\probe\.exe", why["service-path"])


def test_nothing_of_the_installations_is_left(installed):
    check_nothing_is_left(installed)


ENDED_FACT = "change-of-user-task"
# For what takes the place of schtasks beside the program: tasks are made and deleted as ever, and it
# waits where one is to be changed.
WAITING = {"HALVARD_RECORD_ONLY": "/change", "HALVARD_RECORD_DELAY": "60000"}


@dataclass
class Disturbance:
    """Ends what works on one of the facts while that has a task, and takes the program away before the
    last ones."""

    prefix: Prefix
    program: Path
    session_files: set[str] = field(default_factory=set)
    tasks_met: list[Path] = field(default_factory=list)
    waits_ended: int = 0

    def __post_init__(self) -> None:
        shutil.copy(paths.STAND_INS["Recorder"], self.program.with_name("schtasks.exe"))

    def __call__(self) -> None:
        for line in self._waits()[self.waits_ended :]:
            if f"\\{ENDED_FACT}\t" in line:
                self.tasks_met = self.tasks()
                self._end(f" fact {ENDED_FACT} ")
            # It works in the folder of its fact, and would keep that from being removed.
            self._end("schtasks /change ")
            self.waits_ended += 1
        for folder in self.prefix.temporary_folders():
            self.session_files |= {file.name for file in folder.glob("hrn*")}
            if any(folder.glob("halvard_verify_*/line-of-519.result")):
                self.program.unlink(missing_ok=True)

    def _waits(self) -> list[str]:
        record = self.prefix.host_path(r"T:\recorded.txt")
        return record.read_text().splitlines() if record.exists() else []

    def tasks(self) -> list[Path]:
        return list(self.prefix.host_path(r"C:\windows\system32\tasks").glob("halvard_verify_*"))

    def _end(self, words: str) -> None:
        for process, line in running_in(self.prefix.path):
            if words in line:
                with suppress(ProcessLookupError):
                    os.kill(process, signal.SIGKILL)


@dataclass
class Disturbed:
    disturbance: Disturbance
    code: int
    told: dict

    def fact(self, name: str) -> dict:
        (told,) = [each for each in self.told["facts"] if each["name"] == name]
        return told


@pytest.fixture(scope="module")
def disturbed() -> Iterator[Disturbed]:
    with Prefix("prefix-msi-verify-disturbed", environment=WAITING) as prefix:
        disturbance = Disturbance(prefix, copied_runner(prefix))
        done = run(prefix, COPIED_RUNNER, "--verify", "--json", meanwhile=disturbance)
        yield Disturbed(disturbance, done.code, json.loads(done.output))


def test_a_fact_that_cannot_be_asked_keeps_no_other_from_being_told(disturbed):
    assert [fact["name"] for fact in disturbed.told["facts"]] == [fact.name for fact in FACTS]
    assert disturbed.code == disturbed.told["exit_code"] == SOME_DIFFER
    last = disturbed.told["facts"][-1]
    assert last["here"] is None and re.fullmatch(r"starting .* failed with \d+", last["why"])


def test_the_task_of_a_fact_that_was_ended_is_removed(disturbed):
    assert disturbed.fact(ENDED_FACT)["here"] == "ends its process"
    assert len(disturbed.disturbance.tasks_met) == 1
    assert disturbed.told["left_behind"] == []
    assert disturbed.disturbance.tasks() == []


def test_the_sessions_lie_in_the_scratch_folder(disturbed):
    assert disturbed.disturbance.session_files == set()


def test_what_installations_that_break_off_have_left_is_named():
    with Prefix("prefix-msi-verify-broken-off") as prefix:
        program = copied_runner(prefix)
        programs = prefix.host_path(r"C:\Program Files")

        def take_the_program_away() -> None:
            if any(programs.glob("Halvard verify *")):
                program.unlink(missing_ok=True)

        arguments = ("--verify-installer", "--yes", "--json")
        done = run(prefix, COPIED_RUNNER, *arguments, meanwhile=take_the_program_away)
        told = json.loads(done.output)
        assert done.code == told["exit_code"] == SOMETHING_IS_LEFT
        (product,) = told["left_behind"]
        assert re.fullmatch(r"the product \{[0-9A-F-]{36}\}", product)
        assert [fact["name"] for fact in told["facts"]] == [fact.name for fact in INSTALLER_FACTS]
        for fact in told["facts"]:
            assert fact["here"] is None and fact["why"].startswith("starting ")


def test_a_package_that_cannot_be_made_answers_nothing():
    with Prefix("prefix-msi-verify-no-package") as prefix:
        copied_runner(prefix).with_name(paths.LIBRARY.name).unlink()
        done = run(prefix, COPIED_RUNNER, "--verify-installer", "--yes", "--json")
        told = json.loads(done.output)
        assert done.code == told["exit_code"] == NOT_CARRIED_OUT
        assert told["left_behind"] == [] and told["cannot_be_asked"] == len(INSTALLER_FACTS)
        assert all("Halvard_CA.dll" in fact["why"] for fact in told["facts"])
