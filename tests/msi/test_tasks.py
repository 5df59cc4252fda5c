"""The scheduled tasks of the sample package: there after installation, gone after removal."""

import getpass

import pytest

from installer import companion, package, session
from installer.machine import Area, Kind


def verdicts(runs) -> list[str]:
    return [f"{run.name} {run.verdict} {run.meaning}" for run in runs]


@pytest.fixture
def installed(clean_machine, companion_package):
    result = clean_machine.install(companion_package, "LAUNCHED_FROM_MIM=1")
    assert result.exit_code == 0, result.report()
    return result


def test_the_actions_run_in_their_order_and_make_the_tasks(clean_machine, installed, runs_of):
    assert verdicts(runs_of(installed)) == companion.INSTALL_RUNS, installed.report()
    assert clean_machine.changes().of(Area.TASK, Kind.ADDED) == companion.TASKS


def test_the_elevated_task_gets_its_data_and_logs_it(installed, runs_of):
    runs = {run.name: run for run in runs_of(installed)}
    run = runs["CreateTriggerlessElevatedScheduleTask"]
    lines = companion.elevated_task_lines(getpass.getuser())
    assert run.lines == lines, installed.report()
    assert run.data == lines[0].removeprefix("CustomActionData: "), installed.report()


def test_the_other_task_actions_write_nothing_to_the_log(installed, runs_of):
    quiet = [run for run in runs_of(installed) if "Sch" in run.name and "Elevated" not in run.name]
    assert len(quiet) == 4
    assert [run.lines for run in quiet] == [[]] * 4, installed.report()


def test_removal_takes_the_tasks_away(clean_machine, installed, companion_package, runs_of):
    result = clean_machine.remove(companion_package)
    assert result.exit_code == 0, result.report()
    assert verdicts(runs_of(result)) == companion.REMOVE_RUNS, result.report()
    assert clean_machine.changes().of(Area.TASK, Kind.ADDED) == []


def test_an_installation_without_its_location_fails(clean_machine, companion_package, runs_of):
    # The exception that leaves the action ends it, and with it the installation.
    broken = package.changed_copy(
        companion_package,
        "no-location",
        "DELETE FROM Registry WHERE Name='Location'",
        # The rollback here stops and deletes no service, which would hold its program.
        "DELETE FROM ServiceControl",
    )
    result = clean_machine.install(broken, "LAUNCHED_FROM_MIM=1")
    clean_machine.end_service(companion.SERVICE)
    assert result.exit_code == session.as_exit_code(session.INSTALL_FAILURE), result.report()
    last = runs_of(result)[-1]
    assert (last.name, last.verdict) == ("CreateLogonSchTask", 0), result.report()
    assert clean_machine.changes().of(Area.TASK, Kind.ADDED) == []
