"""Reads the custom actions out of the lines of an installer log.

Pure: lines in, runs out. Which actions are the package's own, and when they execute, stands in the
package and not in the log, so the caller says it.
"""

import re
from dataclasses import dataclass, field
from enum import Enum
from typing import Iterable, Mapping, Sequence

FAILED = 0
SUCCEEDED = 1

_START = re.compile(r"Action start \d+:\d\d:\d\d: (?P<name>.+)\.")
_END = re.compile(r"Action ended \d+:\d\d:\d\d: (?P<name>.+)\. Return value (?P<verdict>\d+)\.")
_PROPERTY = re.compile(r"Property\(S\): (?P<name>\S+) = (?P<value>.*)")

# Between the start and the end of these the engine runs what it has only scheduled before.
_EXECUTORS = {"InstallExecute", "InstallExecuteAgain", "InstallFinalize"}


class Execution(Enum):
    """When the engine calls an action."""

    IMMEDIATE = "immediate"
    DEFERRED = "deferred"
    ROLLBACK = "rollback"
    COMMIT = "commit"


class Call(Enum):
    """What is known of the call of an action's export."""

    NOT_WATCHED = "not watched"
    RETURNED = "returned"
    NOT_RETURNED = "did not return"
    # The process that hosts the actions had ended before.
    NOT_CALLED = "not called"


class Outcome(Enum):
    """What an action came to: the installer's verdict and the call in one word."""

    SUCCEEDED = "succeeded"
    IGNORED = "result ignored"
    FAILED = "failed"
    NOT_RETURNED = "did not return"
    NOT_CALLED = "not called"
    NOT_ENDED = "did not end"
    UNKNOWN = "unknown"


@dataclass(frozen=True)
class ActionDefinition:
    """What the package says of a custom action."""

    execution: Execution
    result_ignored: bool = False


@dataclass(frozen=True)
class LogLine:
    """A line of the log and the milliseconds from the session's start to its arrival."""

    text: str
    arrival: float


@dataclass
class ActionRun:
    """One call of a custom action.

    `verdict` is the 'Return value' of the log, which is not what the action returned; None when the
    log does not tell of the action's end. `result` is what the action returned, None unless `call`
    says that it returned. `duration` is in milliseconds and includes what the engine needs to
    unpack and load the library. `data` is what a deferred action got as CustomActionData.
    """

    name: str
    definition: ActionDefinition
    start: float
    verdict: int | None = None
    duration: float | None = None
    data: str | None = None
    result: int | None = None
    call: Call = Call.NOT_WATCHED
    lines: list[str] = field(default_factory=list)

    @property
    def meaning(self) -> str:
        """The verdict in words."""
        if self.verdict is None:
            return "did not end"
        if self.definition.result_ignored:
            return "result ignored"
        return {FAILED: "failed", SUCCEEDED: "succeeded"}.get(self.verdict, "unknown")

    @property
    def answer(self) -> str:
        """What came of the call in words, empty when it was not watched."""
        if self.call is Call.RETURNED:
            return f"returned {self.result}"
        return "" if self.call is Call.NOT_WATCHED else self.call.value

    @property
    def outcome(self) -> Outcome:
        """The verdict, unless the call tells worse than the verdict does."""
        if self.verdict is not None and self.call is Call.NOT_RETURNED:
            return Outcome.NOT_RETURNED
        if self.call is Call.NOT_CALLED and self.meaning != Outcome.FAILED.value:
            return Outcome.NOT_CALLED
        return Outcome(self.meaning)


def action_runs(
    lines: Sequence[LogLine],
    definitions: Mapping[str, ActionDefinition],
    results: Sequence[int | None] = (),
) -> list[ActionRun]:
    """The calls of the defined actions, in the order of their starts.

    `results` are those of all calls of the session. An action that does not return ends the process
    that hosts the actions, so the runs behind it are not called. Where the number of results differs
    from that of the runs for another reason, no run gets one.
    """
    runs: list[ActionRun] = []
    open_actions: list[tuple[str, ActionRun | None]] = []
    for line in lines:
        if start := _START.fullmatch(line.text):
            run = _begun(start["name"], [name for name, _ in open_actions], line, definitions)
            open_actions.append((start["name"], run))
            if run is not None:
                runs.append(run)
        elif end := _END.fullmatch(line.text):
            _close(open_actions, end["name"], int(end["verdict"]), line.arrival)
        elif open_actions and open_actions[-1][1] is not None:
            open_actions[-1][1].lines.append(line.text)

    properties = _properties(lines)
    for run in runs:
        run.lines = _without_trailing_blanks(run.lines)
        if run.definition.execution is not Execution.IMMEDIATE:
            run.data = properties.get(run.name)
    _give_results(runs, results)
    return runs


def _give_results(runs: Sequence[ActionRun], results: Sequence[int | None]) -> None:
    cut_short = None in results and results.index(None) == len(results) - 1 < len(runs) - 1
    if len(results) != len(runs) and not cut_short:
        return
    for run, result in zip(runs, results):
        run.result = result
        run.call = Call.NOT_RETURNED if result is None else Call.RETURNED
    for run in runs[len(results) :]:
        run.call = Call.NOT_CALLED


def _begun(
    name: str,
    enclosing: Sequence[str],
    line: LogLine,
    definitions: Mapping[str, ActionDefinition],
) -> ActionRun | None:
    definition = definitions.get(name)
    if definition is None:
        return None
    executing = not enclosing or not _EXECUTORS.isdisjoint(enclosing)
    if definition.execution is not Execution.IMMEDIATE and not executing:
        return None  # Only scheduled. A rollback runs after the whole sequence has ended.
    return ActionRun(name, definition, line.arrival)


def _close(
    open_actions: list[tuple[str, ActionRun | None]], name: str, verdict: int, arrival: float
) -> None:
    if name not in (open_name for open_name, _ in open_actions):
        return
    # What was begun inside and is still open never ended.
    while open_actions[-1][0] != name:
        open_actions.pop()
    _, run = open_actions.pop()
    if run is not None:
        run.verdict = verdict
        run.duration = arrival - run.start


def _properties(lines: Iterable[LogLine]) -> dict[str, str]:
    matches = (_PROPERTY.fullmatch(line.text) for line in lines)
    return {match["name"]: match["value"] for match in matches if match}


def _without_trailing_blanks(lines: list[str]) -> list[str]:
    end = len(lines)
    while end and not lines[end - 1].strip():
        end -= 1
    return lines[:end]
