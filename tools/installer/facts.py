"""What installer sessions came to, for the page that people read and for programs.

Pure: nothing here looks at a machine or a file. `document` gives the facts as they stand in
report.json; docs/demo-report.md names its fields.
"""

from dataclasses import asdict, dataclass, field
from typing import Any

from installer import paths
from installer.log import ActionRun, Outcome
from installer.machine import Change, Difference
from installer.session import SessionResult

# Rises when a field changes its name or its meaning, not when one is added.
FORMAT = 1


@dataclass(frozen=True)
class Expectation:
    """Something that must hold after an installer session, as texts that a reader can compare."""

    what: str
    expected: str
    came: str

    @property
    def met(self) -> bool:
        return self.expected == self.came


@dataclass(frozen=True)
class Finding:
    """What a rule says of a package; `found` and `row` are empty where the table says it all."""

    number: int
    severity: str
    table: str
    row: str
    rule: str
    found: str
    why: str
    remedy: str


@dataclass(frozen=True)
class PackageCheck:
    """What `halvard_run --check` says of a package, which is named by its file."""

    package: str
    findings: list[Finding]


@dataclass(frozen=True)
class SessionFacts:
    """One installer session; `told` are the commands that the companion tools got."""

    title: str
    result: SessionResult
    runs: list[ActionRun]
    difference: Difference
    note: str = ""
    told: list[str] = field(default_factory=list)
    expectations: list[Expectation] = field(default_factory=list)

    @property
    def as_expected(self) -> bool:
        return all(expectation.met for expectation in self.expectations)

    @property
    def command(self) -> str:
        return f"msiexec {' '.join(self.result.arguments)}"

    @property
    def milliseconds(self) -> float:
        """The length of the session."""
        return self.result.seconds * 1000

    def duration_of(self, run: ActionRun) -> float:
        """Milliseconds; an action whose end the log does not tell lasts to the session's end."""
        return max(0.0, self.milliseconds - run.start) if run.duration is None else run.duration

    @property
    def in_actions(self) -> float:
        """The milliseconds that the session spent in its actions."""
        return sum(self.duration_of(run) for run in self.runs)

    def outcomes(self) -> dict[Outcome, int]:
        """How many actions came to each outcome; those that none came to are left out."""
        came = [run.outcome for run in self.runs]
        return {outcome: came.count(outcome) for outcome in Outcome if outcome in came}


@dataclass(frozen=True)
class Report:
    """Sessions in the order of their runs, and the packages that they are about.

    `made` is a date and time in ISO 8601; `planned` is the number of sessions that there should be,
    and `failure` says what kept the others from their end, where that is known.
    """

    title: str
    made: str
    version: str
    planned: int
    sessions: list[SessionFacts]
    failure: str = ""
    checks: list[PackageCheck] = field(default_factory=list)

    @property
    def complete(self) -> bool:
        return len(self.sessions) == self.planned

    @property
    def as_expected(self) -> bool:
        return self.complete and all(session.as_expected for session in self.sessions)


def document(report: Report) -> dict[str, Any]:
    """The report as lists, dictionaries, texts and numbers alone."""
    return {
        "format": FORMAT,
        "title": report.title,
        "made": report.made,
        "library_version": report.version,
        "planned_sessions": report.planned,
        "failure": report.failure,
        "as_expected": report.as_expected,
        "checks": [_check(check) for check in report.checks],
        "sessions": [_session(session) for session in report.sessions],
    }


def _check(check: PackageCheck) -> dict[str, Any]:
    return {
        "package": check.package,
        "findings": [asdict(finding) for finding in check.findings],
    }


def _session(session: SessionFacts) -> dict[str, Any]:
    return {
        "title": session.title,
        "note": session.note,
        "arguments": list(session.result.arguments),
        "exit_code": session.result.exit_code,
        "duration_ms": session.milliseconds,
        "log": paths.shown(session.result.log),
        "as_expected": session.as_expected,
        "actions": [_action(run) for run in session.runs],
        "changes": [_change(change) for change in session.difference.changes],
        "changes_not_listed": dict(session.difference.noise),
        "told": list(session.told),
        "expectations": [_expectation(each) for each in session.expectations],
    }


def _action(run: ActionRun) -> dict[str, Any]:
    return {
        "name": run.name,
        "execution": run.definition.execution.value,
        "result_ignored": run.definition.result_ignored,
        "outcome": run.outcome.value,
        "verdict": run.verdict,
        "call": run.call.value,
        "returned": run.result,
        "start_ms": run.start,
        "duration_ms": run.duration,
        "data": run.data,
        "lines": list(run.lines),
        "trace": list(run.trace),
    }


def _change(change: Change) -> dict[str, Any]:
    return {
        "area": change.area.value,
        "kind": change.kind.value,
        "name": change.name,
        "before": change.before,
        "after": change.after,
    }


def _expectation(expectation: Expectation) -> dict[str, Any]:
    return {
        "what": expectation.what,
        "expected": expectation.expected,
        "came": expectation.came,
        "met": expectation.met,
    }
