"""What the log says of actions that the engine calls in each of its ways."""

from installer import companion, package, session
from installer.log import action_runs

LINE = [companion.acceptance_line("1")]
DATA = "TaskName=Start;Username="


def test_each_kind_of_action_is_found_once(clean_machine, executions_package):
    result = clean_machine.install(executions_package, "LAUNCHED_FROM_MIM=1")

    assert result.exit_code == 0, result.report()
    runs = action_runs(result.lines, package.library_actions(executions_package))
    found = [(run.name, run.definition.execution.value, run.verdict, run.lines) for run in runs]
    assert found == [
        ("Immediate", "immediate", 1, LINE),
        ("Deferred", "deferred", 1, LINE),
        ("Commit", "commit", 1, LINE),
    ], result.report()
    assert [run.data for run in runs if run.name != "Deferred"] == [None, None], result.report()
    (deferred,) = [run for run in runs if run.name == "Deferred"]
    assert deferred.data.startswith(DATA), result.report()


def test_a_failing_deferred_action_is_rolled_back(clean_machine, executions_package):
    result = clean_machine.install(executions_package, "LAUNCHED_FROM_MIM=1", "FAIL=1")

    assert result.exit_code == session.as_exit_code(session.INSTALL_FAILURE), result.report()
    runs = action_runs(result.lines, package.library_actions(executions_package))
    assert [(run.name, run.meaning) for run in runs] == [
        ("Immediate", "succeeded"),
        ("Deferred", "failed"),
        ("Rollback", "result ignored"),
    ], result.report()
    assert runs[1].lines == [companion.REFUSAL_LINE, *companion.REFUSAL_MESSAGE], result.report()
