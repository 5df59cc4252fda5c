"""The parser of installer logs, on recorded texts."""

from pathlib import Path
from typing import Sequence

import pytest

from installer import engines
from installer.log import (
    ActionDefinition,
    ActionRun,
    Call,
    Execution,
    ExportCall,
    LogLine,
    Outcome,
    action_runs,
    inner_calls,
)
from installer.session import GrowingLog, traced_calls

IMMEDIATE = ActionDefinition(Execution.IMMEDIATE)

ACCEPTED = """\
Action start 1:24:50: INSTALL.
1: Zenvo Companion 2: {3A6BCE62-AACC-5A0C-9DA7-71A85561F2B8}
Action 1:24:50: BlockLaunch.
Action start 1:24:50: BlockLaunch.
QUENBY_CA Launched from MIM: 1 

Action ended 1:24:51: BlockLaunch. Return value 1.
Action 1:24:51: CostInitialize. Computing space requirements
Action start 1:24:51: CostInitialize.
not a line of an action of the library
Action ended 1:24:51: CostInitialize. Return value 1.
Action ended 1:24:51: INSTALL. Return value 1.
"""

SCHEDULED = """\
Action start 1:30:57: INSTALL.
Action start 1:30:57: Rollback.
Action ended 1:30:57: Rollback. Return value 1.
Action start 1:30:57: Deferred.
Action ended 1:30:57: Deferred. Return value 1.
Action start 1:30:57: InstallFinalize.
Action start 1:30:57: InstallFiles.
File: readme.txt,  Directory: INSTALLDIR,  Size: 22
Action ended 1:30:57: InstallFiles. Return value 1.
Action start 1:30:57: Deferred.
CustomActionData: TaskName=Start
Action ended 1:30:58: Deferred. Return value 0.
Action ended 1:30:58: InstallFinalize. Return value 0.
Action ended 1:30:58: INSTALL. Return value 0.
Property(S): Deferred = TaskName=Start
Action start 1:30:58: Rollback.
rolled back
Action ended 1:30:58: Rollback. Return value 1.
"""


TRACED = """\
00cc:trace:relay:load_list L"RelayInclude" = L"msi.__wine_msi_call_dll_function"
0134:Call KERNEL32.GetProcAddress(392c80000,392d0984b "BlockLaunch") ret=392c7d303
0134:Call msi.__wine_msi_call_dll_function(000000e0,0206fe20) ret=140001e39
0140:Call PE DLL (proc=0000000170068C10,module=0000000170000000 L"ntdll.dll",res=0) retval=1
0134:Call KERNEL32.GetProcAddress(7b600000,1800b5ac5 "IsWow64Process") ret=1800b0331
0134:Ret  KERNEL32.GetProcAddress() retval=7b60e484 ret=1800b0331
0134:Call KERNEL32.GetProcAddress(180000000,010a8f10 "CheckForClients") ret=392c89d17
0134:Ret  KERNEL32.GetProcAddress() retval=18001cde0 ret=392c89d17
0134:Call KERNEL32.GetProcAddress(180000000,010a8f10 "BlockLaunch") ret=392c89d17
0134:Ret  msi.__wine_msi_call_dll_function() retval=00000103 ret=140001e39
0144:Call msi.__wine_msi_call_dll_function(000000e0,0236fe20) ret=140001e39
0144:Call KERNEL32.GetProcAddress(180000000,010a8f10 "LaunchPV") ret=392c89d17
0168:Call msi.__wine_msi_call_dll_function(000000e0,0206fe20) ret=140001e39
0168:Call KERNEL32.GetProcAddress(180000000,010a8f10 "BlockLaunch") ret=392c89d17
0168:Ret  msi.__wine_msi_call_dll_function() retval=00000643 ret=140001e39
0134:Call msi.__wine_msi_call_dll_function(000000e0,0206fe20) ret=140001e39
0134:Ret  msi.__wine_msi_call_dll_function() retval=00000000 ret=140001e39
0999:Ret  msi.__wine_msi_call_dll_function() retval=00000001 ret=140001e39
"""


def runs(
    text: str, calls: Sequence[ExportCall] = (), **definitions: ActionDefinition
) -> list[ActionRun]:
    """The runs in a text whose lines arrive 10 ms apart."""
    lines = [LogLine(line, 10.0 * number) for number, line in enumerate(text.splitlines())]
    return action_runs(lines, definitions, calls)


def test_the_trace_tells_what_the_exports_returned_in_the_order_of_their_calls():
    exports = ["BlockLaunch", "CheckForClients", "LaunchPV"]
    # The second one did not return, and the last call found no export.
    assert traced_calls(TRACED.splitlines(), exports) == [
        ExportCall("CheckForClients", 259),
        ExportCall("LaunchPV", None),
        ExportCall("BlockLaunch", 1603),
    ]
    assert traced_calls([], exports) == []


def test_runs_get_the_results_of_their_calls():
    deferred = ActionDefinition(Execution.DEFERRED)
    rollback = ActionDefinition(Execution.ROLLBACK, export="LaunchPV")
    calls = [ExportCall("Deferred", 259), ExportCall("LaunchPV", None)]
    came = runs(SCHEDULED, calls, Deferred=deferred, Rollback=rollback)
    assert [(run.name, run.result) for run in came] == [("Deferred", 259), ("Rollback", None)]
    assert [run.call for run in came] == [Call.RETURNED, Call.NOT_RETURNED]
    assert inner_calls(came, calls) == []
    came = runs(SCHEDULED, [], Deferred=deferred, Rollback=rollback)
    assert [(run.call, run.result) for run in came] == [(Call.NOT_WATCHED, None)] * 2


def test_nothing_is_called_behind_an_action_that_did_not_return():
    defined = {name: ActionDefinition(Execution.IMMEDIATE) for name in ("A", "B", "C", "D")}
    ends = "".join(
        f"Action start 1:00:00: {name}.\nAction ended 1:00:00: {name}. Return value 1.\n"
        for name in defined
    )
    came = runs(ends, [ExportCall("A", 0), ExportCall("B", None)], **defined)
    assert [(run.call, run.result) for run in came] == [
        (Call.RETURNED, 0),
        (Call.NOT_RETURNED, None),
        (Call.NOT_CALLED, None),
        (Call.NOT_CALLED, None),
    ]


def test_calls_of_a_session_inside_are_told_from_those_of_the_runs():
    inside = [ExportCall("Rollback", 1), ExportCall("Other", 0)]
    calls = [*inside, ExportCall("Deferred", 259), ExportCall("Deferred", 0)]
    deferred = ActionDefinition(Execution.DEFERRED)
    rollback = ActionDefinition(Execution.ROLLBACK)
    came = runs(SCHEDULED, calls, Deferred=deferred, Rollback=rollback)
    assert [(run.call, run.result) for run in came] == [
        (Call.RETURNED, 259),
        # The one call of its export stands before that of the run before it.
        (Call.NOT_CALLED, None),
    ]
    assert inner_calls(came, calls) == [*inside, ExportCall("Deferred", 0)]


def test_a_run_has_the_lines_between_its_start_and_its_end():
    (run,) = runs(ACCEPTED, BlockLaunch=IMMEDIATE)
    assert run == ActionRun(
        name="BlockLaunch",
        definition=IMMEDIATE,
        start=30.0,
        verdict=1,
        duration=30.0,
        lines=["QUENBY_CA Launched from MIM: 1 "],
    )


def test_actions_that_the_package_does_not_define_are_left_out():
    assert runs(ACCEPTED) == []
    assert [run.name for run in runs(ACCEPTED, CostInitialize=IMMEDIATE)] == ["CostInitialize"]


def test_a_deferred_action_counts_when_it_runs_and_not_when_it_is_scheduled():
    (run,) = runs(SCHEDULED, Deferred=ActionDefinition(Execution.DEFERRED))
    assert (run.verdict, run.start, run.lines) == (0, 90.0, ["CustomActionData: TaskName=Start"])
    assert run.data == "TaskName=Start"


def test_a_rollback_action_counts_when_it_runs_behind_the_failed_sequence():
    (run,) = runs(SCHEDULED, Rollback=ActionDefinition(Execution.ROLLBACK))
    assert (run.verdict, run.lines, run.data) == (1, ["rolled back"], None)


def test_an_immediate_action_has_no_data():
    (run,) = runs(ACCEPTED + "Property(S): BlockLaunch = text\n", BlockLaunch=IMMEDIATE)
    assert run.data is None


def test_an_action_called_twice_has_two_runs():
    assert len(runs(ACCEPTED + ACCEPTED, BlockLaunch=IMMEDIATE)) == 2


def test_an_action_whose_end_is_missing_has_no_verdict():
    text = ACCEPTED.replace("Action ended 1:24:51: BlockLaunch. Return value 1.\n", "")
    (run,) = runs(text, BlockLaunch=IMMEDIATE)
    assert (run.verdict, run.duration, run.meaning) == (None, None, "did not end")


def test_lines_behind_an_action_that_never_ended_are_not_its_lines():
    text = ACCEPTED.replace("Action ended 1:24:51: BlockLaunch. Return value 1.\n", "")
    (run,) = runs(text + "Property(S): ALLUSERS = 1\n", BlockLaunch=IMMEDIATE)
    assert "Property(S): ALLUSERS = 1" not in run.lines


def test_an_end_without_a_start_is_passed_over():
    assert runs("Action ended 1:24:51: BlockLaunch. Return value 1.", BlockLaunch=IMMEDIATE) == []


def test_blank_lines_inside_a_message_stay():
    text = ACCEPTED.replace("QUENBY_CA Launched from MIM: 1 \n", "first\n\nsecond\n")
    (run,) = runs(text, BlockLaunch=IMMEDIATE)
    assert run.lines == ["first", "", "second"]


def test_verdicts_in_words():
    ignored = ActionDefinition(Execution.IMMEDIATE, result_ignored=True)
    assert ActionRun("A", IMMEDIATE, 0.0, verdict=0).meaning == "failed"
    assert ActionRun("A", IMMEDIATE, 0.0, verdict=1).meaning == "succeeded"
    assert ActionRun("A", IMMEDIATE, 0.0, verdict=4).meaning == "unknown"
    assert ActionRun("A", ignored, 0.0, verdict=1).meaning == "result ignored"


def test_what_came_of_a_call_in_words():
    def run(**values) -> ActionRun:
        return ActionRun("A", IMMEDIATE, 0.0, **values)

    assert run(verdict=1).answer == ""
    assert run(verdict=1, call=Call.RETURNED, result=0).answer == "returned 0"
    assert run(verdict=1, call=Call.NOT_RETURNED).answer == "did not return"
    assert run(verdict=1, call=Call.NOT_CALLED).answer == "not called"


def test_the_outcome_is_the_worse_of_verdict_and_call():
    ignored = ActionDefinition(Execution.IMMEDIATE, result_ignored=True)

    def outcome(definition: ActionDefinition, verdict: int | None, call: Call) -> Outcome:
        return ActionRun("A", definition, 0.0, verdict=verdict, call=call).outcome

    assert outcome(IMMEDIATE, 1, Call.NOT_WATCHED) is Outcome.SUCCEEDED
    assert outcome(IMMEDIATE, 1, Call.RETURNED) is Outcome.SUCCEEDED
    assert outcome(ignored, 1, Call.RETURNED) is Outcome.IGNORED
    assert outcome(IMMEDIATE, 0, Call.RETURNED) is Outcome.FAILED
    assert outcome(IMMEDIATE, 0, Call.NOT_RETURNED) is Outcome.NOT_RETURNED
    assert outcome(ignored, 1, Call.NOT_RETURNED) is Outcome.NOT_RETURNED
    assert outcome(ignored, 1, Call.NOT_CALLED) is Outcome.NOT_CALLED
    assert outcome(IMMEDIATE, 0, Call.NOT_CALLED) is Outcome.FAILED
    assert outcome(IMMEDIATE, None, Call.NOT_RETURNED) is Outcome.NOT_ENDED
    assert outcome(IMMEDIATE, 4, Call.RETURNED) is Outcome.UNKNOWN


def test_lines_are_stamped_when_they_are_complete(tmp_path: Path):
    file = tmp_path / "growing.log"
    growing = GrowingLog(file)
    growing.read(1.0)
    with open(file, "wb") as log:
        log.write(b"first\nsec")
        log.flush()
        growing.read(2.0)
        log.write(b"ond\r\nthird without an end")
        log.flush()
        growing.read(3.0)
    growing.close(4.0)
    assert growing.lines == [
        LogLine("first", 2.0),
        LogLine("second", 3.0),
        LogLine("third without an end", 4.0),
    ]


@pytest.mark.parametrize("encoding", ["utf-16", "cp1252"])
def test_a_log_is_read_as_the_engine_writes_it(encoding: str, tmp_path: Path, monkeypatch):
    monkeypatch.setattr(engines, "value", {"log-encoding": encoding}.__getitem__)
    file = tmp_path / "encoded.log"
    file.write_bytes("value: 1é€\r\n".encode(encoding))
    growing = GrowingLog(file)
    growing.read(0.0)
    growing.close(0.0)
    assert [line.text for line in growing.lines] == ["value: 1é€"]
