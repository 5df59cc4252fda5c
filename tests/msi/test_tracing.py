"""The demo asks the runner why an action went wrong."""

from typing import Iterator

import pytest

from installer.log import ActionDefinition, ActionRun, Call, Execution
from installer.prefix import Prefix
from installer.tracing import traced

DEFERRED = ActionDefinition(Execution.DEFERRED, export="CreateLogonSchTask")
IMMEDIATE = ActionDefinition(Execution.IMMEDIATE)


@pytest.fixture(scope="module")
def prefix() -> Iterator[Prefix]:
    with Prefix("prefix-msi-tracing") as running:
        yield running


def trace(prefix: Prefix, run: ActionRun, *arguments: str) -> str:
    (told,) = traced(prefix, [run], arguments)
    return "\n".join(told.trace)


def test_an_action_that_threw_is_traced_by_its_export(prefix):
    run = ActionRun("MakeTask", DEFERRED, 0.0, verdict=0, call=Call.NOT_RETURNED)
    told = trace(prefix, run)
    assert r"SOFTWARE\Qorta Technologies\Install\Pivot" in told and "RegKeyError" in told


def test_an_immediate_action_has_the_properties_of_the_session(prefix):
    run = ActionRun("BlockLaunch", IMMEDIATE, 0.0, verdict=0, result=1602, call=Call.RETURNED)
    refused = trace(prefix, run, "/i", "a.msi")
    allowed = trace(prefix, run, "/i", "a.msi", "LAUNCHED_FROM_MIM=1")
    assert refused and allowed and refused != allowed
    assert "result      0" in allowed and "result      0" not in refused


def test_a_deferred_action_has_its_data(prefix):
    definition = ActionDefinition(Execution.DEFERRED, export="UnregisterDLL")
    run = ActionRun("Undo", definition, 0.0, verdict=0, result=1603, call=Call.RETURNED)
    data = r"InstallDir=C:\None\;DLLName=a.dll"
    assert r"C:\None\a.dll" in trace(prefix, ActionRun(**vars(run) | {"data": data}))


def test_a_deferred_action_without_data_sees_no_property_of_the_session(prefix):
    definition = ActionDefinition(Execution.DEFERRED, export="BlockLaunch")
    run = ActionRun("BlockLaunch", definition, 0.0, verdict=0, result=1603, call=Call.RETURNED)
    assert "result      1603" in trace(prefix, run, "/i", "a.msi", "LAUNCHED_FROM_MIM=1")


@pytest.mark.parametrize("ignored", [False, True])
def test_what_went_well_is_not_called_again(prefix, ignored):
    definition = ActionDefinition(Execution.IMMEDIATE, ignored)
    run = ActionRun("BlockLaunch", definition, 0.0, verdict=1, result=0, call=Call.RETURNED)
    assert traced(prefix, [run], []) == [run]
