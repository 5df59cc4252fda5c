"""Removals of the sample package that meet what they must not touch."""

import shutil

from installer import companion, package
from installer.log import Call, Outcome
from installer.machine import Area, Kind


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
        # The installer's own removal would take it.
        "DELETE FROM ServiceControl",
    )
    assert clean_machine.install(elsewhere, "LAUNCHED_FROM_MIM=1").exit_code == 0
    result = clean_machine.remove(elsewhere)
    stays = companion.SERVICE in clean_machine.changes().of(Area.SERVICE, Kind.ADDED)
    clean_machine.end_service(companion.SERVICE)
    assert stays, result.report()
