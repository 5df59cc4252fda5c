"""The usage-profile agent in the sample packages: cleared away, copied, set up, kept and removed."""

import getpass
import re
import shutil
import time

import pytest

from installer import companion
from installer.log import Call
from installer.machine import Kind
from installer.prefix import START_LIMIT

IDENTITY = re.compile(r'"[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"')
REPAIR = ("REINSTALL=ALL", "REINSTALLMODE=amus")


def contents(clean_machine) -> dict[str, str]:
    """What the machine has more than before, by name."""
    changes = clean_machine.changes().changes
    return {change.name: change.after for change in changes if change.kind is Kind.ADDED}


def identity(clean_machine) -> str | None:
    return contents(clean_machine).get(companion.AGENT_IDENTITY)


def agent(clean_machine) -> list[str]:
    """Which of the agent's files, service and task are there."""
    own = [*companion.AGENT_FILES, companion.AGENT_SERVICE, companion.AGENT_TASK]
    return [name for name in contents(clean_machine) if name in own]


def is_running(clean_machine) -> bool:
    asked = clean_machine.prefix.run("sc.exe", "query", companion.AGENT_SERVICE)
    return "RUNNING" in asked.stdout


def verdicts(runs) -> list[str]:
    return [f"{run.name} {run.verdict} {run.meaning}" for run in runs]


@pytest.fixture
def installed(clean_machine, companion_package, watching):
    result = clean_machine.install(
        companion_package, "LAUNCHED_FROM_MIM=1", companion.WITH_AGENT, environment=watching
    )
    assert result.exit_code == 0, result.report()
    return result


def test_installation_sets_the_agent_up(clean_machine, installed, runs_of):
    runs = runs_of(installed)
    expected = companion.with_agent(companion.INSTALL_RUNS, companion.AGENT_INSTALL_RUNS)
    assert verdicts(runs) == expected, installed.report()
    by_name = {run.name: run for run in runs}
    names = ("PreInstallUPA", "PostInstallUPA", "AfterInstallUPA")
    assert [by_name[name].result for name in names] == [0, 0, 0], installed.report()
    lines = companion.agent_lines(getpass.getuser())
    assert [by_name[name].lines for name in names] == [[], lines, []], installed.report()

    there = contents(clean_machine)
    assert IDENTITY.fullmatch(there[companion.AGENT_IDENTITY]), installed.report()
    assert there[companion.COUNTERS_VALUE] == '"0"'
    program = r"\Agent\\..\Usage Profile Agent\TeloDU.exe"
    assert there[f"{companion.AGENT_SERVICE} : ImagePath"].strip('"').endswith(program)
    assert len(agent(clean_machine)) == 4
    assert is_running(clean_machine)


def test_without_the_request_a_product_leaves_the_agent_alone(
    clean_machine, companion_package, runs_of
):
    result = clean_machine.install(companion_package, "LAUNCHED_FROM_MIM=1")
    assert verdicts(runs_of(result)) == companion.INSTALL_RUNS, result.report()
    assert agent(clean_machine) == [] and identity(clean_machine) is None
    result = clean_machine.remove(companion_package)
    assert verdicts(runs_of(result)) == companion.REMOVE_RUNS, result.report()


def test_a_repair_replaces_the_running_agent_and_keeps_the_identity(
    clean_machine, companion_package, installed, runs_of, watching
):
    before = identity(clean_machine)
    program = clean_machine.prefix.host_path(companion.AGENT_FILES[0])
    (program.parent / "left.dll").write_text("of an older agent")
    result = clean_machine.install(companion_package, *REPAIR, environment=watching)
    runs = {run.name: run for run in runs_of(result)}
    assert [run.result for run in runs.values()] == [0, 0, 0, 0], result.report()
    assert not (program.parent / "left.dll").exists(), result.report()
    assert identity(clean_machine) == before, result.report()
    assert len(agent(clean_machine)) == 4, result.report()
    assert is_running(clean_machine), result.report()


# The engine here goes on behind 259, so that the second product works on the agent too.
def test_the_identity_outlives_a_second_client_and_the_last_removal(
    clean_machine, companion_package, second_package, installed
):
    before = identity(clean_machine)
    assert clean_machine.install(second_package, companion.WITH_AGENT).exit_code == 0
    assert len(agent(clean_machine)) == 4 and is_running(clean_machine)
    assert clean_machine.remove(second_package).exit_code == 0
    assert agent(clean_machine) == []
    assert clean_machine.install(companion_package, *REPAIR).exit_code == 0
    assert len(agent(clean_machine)) == 4 and is_running(clean_machine)
    result = clean_machine.remove(companion_package)
    assert result.exit_code == 0, result.report()
    assert agent(clean_machine) == []
    assert identity(clean_machine) == before
    left = [name for name in contents(clean_machine) if not name.endswith(companion.LEFT_BEHIND)]
    assert left == []


# What the removal of the folder raises ends the process that hosts the actions. Its result is
# ignored, and CheckForClients has run: the product is removed.
def test_a_removal_with_a_locked_agent_file_keeps_identity_and_status(
    clean_machine, companion_package, installed, runs_of, watching
):
    before = identity(clean_machine)
    folder = clean_machine.prefix.host_path(companion.AGENT_FOLDER)
    shutil.copy(folder / "TeloMaster.exe", folder / "held.exe")
    # A program that runs cannot be deleted.
    held = clean_machine.prefix.start(
        rf"{companion.AGENT_FOLDER}\held.exe",
        environment={"HALVARD_RECORD_DELAY": "60000", "HALVARD_RECORD": r"T:\held.txt"},
    )
    record = clean_machine.prefix.host_path(r"T:\held.txt")
    try:
        start = time.monotonic()
        while not record.exists() and time.monotonic() - start < START_LIMIT:
            time.sleep(0.01)
        result = clean_machine.remove(companion_package, environment=watching)
    finally:
        held.kill()
        held.wait()
        record.unlink(missing_ok=True)
    (run,) = [run for run in runs_of(result) if run.name == "PreInstallUPA"]
    there = contents(clean_machine)
    was_held = (folder / "held.exe").exists()
    service = companion.AGENT_SERVICE in there
    clean_machine.end_service(companion.AGENT_SERVICE)
    shutil.rmtree(folder.parent)
    assert result.exit_code == 0, result.report()
    assert run.call is Call.NOT_RETURNED, result.report()
    assert was_held and service, result.report()
    # By the package itself.
    assert companion.AGENT_TASK not in there, result.report()
    assert there[companion.AGENT_IDENTITY] == before, result.report()
    assert there[f"{companion.STATUS_KEY} : Companion_TeloStatus"] == "dword:00000002"
