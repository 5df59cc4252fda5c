"""Whether the install manager started an installation, and what comes of it when it did not."""

from pathlib import Path

import pytest

from installer import companion, package, session

LONGEST_VALUE = "1" * 259
# Nothing behind them runs.
CONDITIONS_ALONE = "UPDATE InstallExecuteSequence SET `Condition`='0' WHERE Sequence > 100"
WITHOUT_BLOCK = "DELETE FROM InstallExecuteSequence WHERE Action='BlockLaunch'"


@pytest.fixture(scope="session")
def conditions_package(companion_package: Path) -> Path:
    """The sample package that ends behind its conditions."""
    return package.changed_copy(companion_package, "conditions", CONDITIONS_ALONE)


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
    clean_machine, conditions_package, runs_of, properties
):
    result = clean_machine.install(conditions_package, *properties)

    assert result.exit_code == session.as_exit_code(session.INSTALL_FAILURE), result.report()
    runs = [(run.name, run.verdict, run.lines) for run in runs_of(result)]
    refusal = [companion.REFUSAL_LINE, *companion.REFUSAL_MESSAGE]
    assert runs == [("BlockLaunch", 0, refusal)], result.report()
    assert result.texts.count(companion.REFUSAL_MESSAGE[0]) == 1, result.report()


@pytest.mark.parametrize(
    "value",
    ["1", "1x", "100", "1é", pytest.param(LONGEST_VALUE, id="259-characters")],
)
def test_an_installation_by_the_install_manager_is_let_in(
    clean_machine, conditions_package, runs_of, value
):
    result = clean_machine.install(conditions_package, f"LAUNCHED_FROM_MIM={value}")

    assert result.exit_code == 0, result.report()
    line = [companion.acceptance_line(value)]
    runs = [(run.name, run.verdict, run.lines) for run in runs_of(result)]
    assert runs == [("BlockLaunch", 1, line), ("LaunchedFromMIM", 1, line)], result.report()


@pytest.mark.parametrize(
    "action_type, verdict, ended",
    [
        pytest.param(0x0001 + 0x0040, 1, 0, id="ignored"),
        pytest.param(0x0001, 0, session.INSTALL_FAILURE, id="checked"),
    ],
)
def test_a_missing_install_source_ends_the_installation_where_it_is_checked(
    clean_machine, conditions_package, runs_of, action_type, verdict, ended
):
    changed = package.changed_copy(
        conditions_package,
        "install-source",
        WITHOUT_BLOCK,
        f"UPDATE CustomAction SET Type={action_type} WHERE Action='LaunchedFromMIM'",
    )
    result = clean_machine.install(changed)

    assert result.exit_code == session.as_exit_code(ended), result.report()
    runs = [(run.name, run.verdict, run.lines) for run in runs_of(result)]
    refusal = [companion.REFUSAL_LINE, *companion.REFUSAL_MESSAGE]
    assert runs == [("LaunchedFromMIM", verdict, refusal)], result.report()
