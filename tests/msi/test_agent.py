"""The usage-profile agent where it cannot be cleared away."""

import shutil

import pytest

from installer import companion
from installer.log import Call
from installer.machine import Kind
from installer.prefix import START_LIMIT
from waiting import until


def contents(clean_machine) -> dict[str, str]:
    """What the machine has more than before, by name."""
    changes = clean_machine.changes().changes
    return {change.name: change.after for change in changes if change.kind is Kind.ADDED}


def identity(clean_machine) -> str | None:
    return contents(clean_machine).get(companion.AGENT_IDENTITY)


@pytest.fixture
def installed(clean_machine, companion_package, watching):
    result = clean_machine.install(
        companion_package, "LAUNCHED_FROM_MIM=1", companion.WITH_AGENT, environment=watching
    )
    assert result.exit_code == 0, result.report()
    return result


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
        until(record.exists, START_LIMIT)
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
