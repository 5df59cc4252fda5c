"""Installing, repairing and removing the sample package, with and without the install manager."""

from pathlib import Path

import pytest

from installer import companion, package, session
from installer.machine import Area, Kind

LONGEST_VALUE = "1" * 259

WITHOUT_BLOCK = "DELETE FROM InstallExecuteSequence WHERE Action='BlockLaunch'"


@pytest.fixture(scope="session")
def recording_package(companion_package: Path) -> Path:
    """The sample package without the action that refuses."""
    return package.changed_copy(companion_package, "recording", WITHOUT_BLOCK)


def installed_files(clean_machine) -> list[str]:
    added = clean_machine.changes().of(Area.FILE, Kind.ADDED)
    return [name for name in added if name in companion.FILES]


@pytest.mark.parametrize(
    "properties",
    [
        pytest.param([], id="missing"),
        pytest.param(["LAUNCHED_FROM_MIM=0"], id="zero"),
        pytest.param(["LAUNCHED_FROM_MIM= 1"], id="blank-before-one"),
        pytest.param(["LAUNCHED_FROM_MIM=01"], id="zero-before-one"),
        pytest.param([f"LAUNCHED_FROM_MIM={LONGEST_VALUE}1"], id="260-characters"),
    ],
)
def test_an_installation_without_the_install_manager_is_refused(
    clean_machine, companion_package, runs_of, properties
):
    result = clean_machine.install(companion_package, *properties)

    assert result.exit_code == session.as_exit_code(session.INSTALL_FAILURE), result.report()
    runs = [(run.name, run.verdict, run.lines) for run in runs_of(result)]
    refusal = [companion.REFUSAL_LINE, *companion.REFUSAL_MESSAGE]
    assert runs == [("BlockLaunch", 0, refusal)], result.report()
    assert clean_machine.changes().changes == [], result.report()


@pytest.mark.parametrize(
    "value",
    ["1", "1x", "100", "1é", pytest.param(LONGEST_VALUE, id="259-characters")],
)
def test_an_installation_by_the_install_manager_is_let_in(
    clean_machine, companion_package, runs_of, value
):
    result = clean_machine.install(companion_package, f"LAUNCHED_FROM_MIM={value}")

    assert result.exit_code == 0, result.report()
    line = [companion.acceptance_line(value)]
    runs = [(run.name, run.verdict, run.lines) for run in runs_of(result)[:2]]
    assert runs == [("BlockLaunch", 1, line), ("LaunchedFromMIM", 1, line)], result.report()
    assert installed_files(clean_machine) == companion.FILES, result.report()
    values = {
        change.name: change.after
        for change in clean_machine.changes().changes
        if change.name in companion.VALUES
    }
    assert values == companion.VALUES, result.report()


def test_the_message_is_in_the_log_once(clean_machine, companion_package):
    result = clean_machine.install(companion_package)
    assert result.texts.count(companion.REFUSAL_MESSAGE[0]) == 1, result.report()


def test_a_result_that_is_ignored_lets_the_installation_go_on(
    clean_machine, recording_package, runs_of
):
    result = clean_machine.install(recording_package)

    assert result.exit_code == 0, result.report()
    run = runs_of(result)[0]
    assert (run.name, run.verdict) == ("LaunchedFromMIM", 1), result.report()
    assert run.lines == [companion.REFUSAL_LINE, *companion.REFUSAL_MESSAGE], result.report()
    assert installed_files(clean_machine) == companion.FILES, result.report()


def test_a_missing_install_source_that_is_not_ignored_ends_the_installation(
    clean_machine, companion_package, runs_of
):
    checked = package.changed_copy(
        companion_package,
        "checked",
        WITHOUT_BLOCK,
        "UPDATE CustomAction SET Type=1 WHERE Action='LaunchedFromMIM'",
    )
    result = clean_machine.install(checked)

    assert result.exit_code == session.as_exit_code(session.INSTALL_FAILURE), result.report()
    runs = [(run.name, run.verdict) for run in runs_of(result)]
    assert runs == [("LaunchedFromMIM", 0)], result.report()
    assert clean_machine.changes().changes == [], result.report()


def test_removal_is_not_refused(clean_machine, companion_package, runs_of):
    installed = clean_machine.install(companion_package, "LAUNCHED_FROM_MIM=1")
    assert installed_files(clean_machine) == companion.FILES, installed.report()

    result = clean_machine.remove(companion_package)

    assert result.exit_code == 0, result.report()
    assert "BlockLaunch" not in [run.name for run in runs_of(result)], result.report()
    left = [change.name for change in clean_machine.changes().changes]
    assert left and all(name.endswith(companion.LEFT_BEHIND) for name in left), result.report()


def test_repair_is_not_refused_and_restores_a_file(clean_machine, companion_package, runs_of):
    installed = clean_machine.install(companion_package, "LAUNCHED_FROM_MIM=1")
    readme = clean_machine.prefix.drive_c / companion.FILES[-1][3:].replace("\\", "/")
    assert readme.is_file(), installed.report()
    readme.unlink()

    result = clean_machine.install(companion_package, "REINSTALL=ALL", "REINSTALLMODE=amus")

    assert result.exit_code == 0, result.report()
    verdicts = [f"{run.name} {run.verdict} {run.meaning}" for run in runs_of(result)]
    assert verdicts == companion.REPAIR_RUNS, result.report()
    assert readme.is_file(), result.report()


def test_durations_are_positive_and_shorter_than_the_session(
    clean_machine, companion_package, runs_of
):
    result = clean_machine.install(companion_package, "LAUNCHED_FROM_MIM=1")
    durations = [run.duration for run in runs_of(result)]
    assert all(duration > 0 for duration in durations), f"{durations}\n{result.report()}"
    assert sum(durations) < result.seconds * 1000, f"{durations}\n{result.report()}"
