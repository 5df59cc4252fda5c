"""Reads the custom actions out of the lines of an installer log.

Lines in, runs out. Which actions are the package's own, and when they execute, stands in the
package and not in the log, so the caller says it.
"""

import re
from dataclasses import dataclass, field
from enum import Enum
from typing import Iterable, Iterator, Mapping, Sequence

from installer import engines

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
    """What the package says of a custom action; without an export it is that of the same name."""

    execution: Execution
    result_ignored: bool = False
    export: str = ""


@dataclass(frozen=True)
class ExportCall:
    """A call of one of the library's exports; `result` is None when it did not return."""

    export: str
    result: int | None


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
    unpack and load the library. `data` is what a deferred action got as CustomActionData. `trace` is
    what the runner told of a call of the same action behind the session, for one that went wrong.
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
    trace: list[str] = field(default_factory=list)

    @property
    def meaning(self) -> str:
        """The verdict in words."""
        if self.verdict is None:
            return "did not end"
        if self.definition.result_ignored:
            return "result ignored"
        verdicts = {engines.value("failed-action"): "failed", SUCCEEDED: "succeeded"}
        return verdicts.get(self.verdict, "unknown")

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
    calls: Sequence[ExportCall] = (),
) -> list[ActionRun]:
    """The runs of the defined actions, in the order of their starts.

    `calls` are those that the session's trace tells of, in their order, empty where it was not
    watched. An action that does not return ends the process that hosts the actions, so those behind
    it are not called.
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
    if calls:
        _give_results(runs, calls)
    return runs


def inner_calls(runs: Sequence[ActionRun], calls: Sequence[ExportCall]) -> list[ExportCall]:
    """The calls that are none of these runs': those of a session inside of this one, which has no
    log of its own, as when an older version is removed by the installation of a newer one."""
    own = {call for _, call in _own_calls(runs, calls)}
    return [call for number, call in enumerate(calls) if number not in own]


def _give_results(runs: Sequence[ActionRun], calls: Sequence[ExportCall]) -> None:
    for run in runs:
        run.call = Call.NOT_CALLED
    for run, number in _own_calls(runs, calls):
        run.result = calls[number].result
        run.call = Call.NOT_RETURNED if run.result is None else Call.RETURNED


def _own_calls(
    runs: Sequence[ActionRun], calls: Sequence[ExportCall]
) -> Iterator[tuple[ActionRun, int]]:
    """Each run with the number of its call: the next one of its export."""
    exports = [call.export for call in calls]
    start = 0
    for run in runs:
        export = run.definition.export or run.name
        if export in exports[start:]:
            number = exports.index(export, start)
            start = number + 1
            yield run, number


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
