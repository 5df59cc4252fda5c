"""Removal of the sample package: folders with all they hold, processes, the service, the COM server."""

import getpass
import shutil

import pytest

from installer import companion, package
from installer.log import Call, Outcome
from installer.machine import Area, Kind


@pytest.fixture
def installed(clean_machine, companion_package):
    result = clean_machine.install(companion_package, "LAUNCHED_FROM_MIM=1")
    assert result.exit_code == 0, result.report()
    return result


def test_installation_starts_the_service_and_registers_the_server(clean_machine, installed, runs_of):
    changes = clean_machine.changes()
    assert companion.SERVICE in changes.of(Area.SERVICE, Kind.ADDED)
    assert companion.SERVER_VALUE in changes.of(Area.REGISTRY, Kind.ADDED)
    runs = {run.name: run for run in runs_of(installed)}
    lines = companion.server_lines(getpass.getuser())
    assert runs["SetPermissionsRegisterDLL"].lines == lines, installed.report()


def test_removal_takes_away_what_the_installer_does_not_know(
    clean_machine, companion_package, installed, runs_of
):
    companion.write_as_the_applications_do(clean_machine.prefix)
    result = clean_machine.remove(companion_package)
    runs = runs_of(result)

    assert result.exit_code == 0, result.report()
    verdicts = [f"{run.name} {run.verdict} {run.meaning}" for run in runs]
    assert verdicts == companion.REMOVE_RUNS, result.report()
    lines = [line for run in runs for line in run.lines]
    assert lines == companion.removal_lines(), result.report()
    assert companion.told(clean_machine.prefix) == companion.TOLD_ON_REMOVAL, result.report()
    assert not clean_machine.prefix.host_path(companion.FOLDER).exists(), result.report()
    left = [change.name for change in clean_machine.changes().changes]
    assert [name for name in left if not name.endswith(companion.LEFT_BEHIND)] == []


def test_a_link_in_a_folder_keeps_what_lies_behind_it(
    clean_machine, companion_package, runs_of, watching
):
    # The link stays too: here the system cannot remove it without what it leads to. The exception
    # ends the process that hosts the actions, and the engine here starts no other one, so that the
    # actions behind it do not run and the one whose result counts would fail the removal.
    ignoring = package.changed_copy(
        companion_package,
        "clients-ignored",
        f"UPDATE CustomAction SET Type={0x0001 + 0x0040 + 0x0400 + 0x0800} "
        "WHERE Action='CheckForClients'",
    )
    assert clean_machine.install(ignoring, "LAUNCHED_FROM_MIM=1").exit_code == 0
    folder = clean_machine.prefix.host_path(rf"{companion.FOLDER}\Transform")
    behind = clean_machine.prefix.host_path(r"T:\behind")
    behind.mkdir()
    (behind / "kept.txt").write_text("kept")
    (folder / "link").symlink_to(behind)
    result = clean_machine.remove(ignoring, environment=watching)
    kept = (behind / "kept.txt").exists()
    (folder / "link").unlink()
    (behind / "kept.txt").unlink(missing_ok=True)
    behind.rmdir()
    shutil.rmtree(folder.parent.parent)
    assert kept, result.report()
    assert result.exit_code == 0, result.report()
    runs = {run.name: run for run in runs_of(result)}
    names = list(runs)
    ended = names.index("DeleteDMFTDirectory")
    assert {runs[name].call for name in names[:ended]} == {Call.RETURNED}, result.report()
    assert runs["DeleteDMFTDirectory"].outcome is Outcome.NOT_RETURNED, result.report()
    behind_it = {runs[name].call for name in names[ended + 1 :]}
    assert behind_it == {Call.NOT_CALLED}, result.report()


def test_a_service_that_runs_from_elsewhere_stays(clean_machine, companion_package):
    elsewhere = package.changed_copy(
        companion_package,
        "service-elsewhere",
        f"UPDATE CustomAction SET Target='ServiceName={companion.SERVICE};"
        "DirectoryOfBinary=[SlimFolder]' WHERE Action='SetDeleteServiceIfBinaryIsInDirectory'",
    )
    assert clean_machine.install(elsewhere, "LAUNCHED_FROM_MIM=1").exit_code == 0
    result = clean_machine.remove(elsewhere)
    stays = companion.SERVICE in clean_machine.changes().of(Area.SERVICE, Kind.ADDED)
    clean_machine.end_service(companion.SERVICE)
    assert stays, result.report()
