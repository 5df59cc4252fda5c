"""Lets the real installer refuse, install and remove the sample package, and shows what happened.

Exit code 0 when all three runs went as they should, 1 when one did not, 130 after Ctrl-C.
"""

import getpass
import signal
import sys
import time
from dataclasses import dataclass
from typing import Callable

from installer import companion, machine, package, paths, report, session
from installer.log import ActionRun, action_runs
from installer.machine import Area, Difference, Kind
from installer.prefix import Prefix
from installer.session import SessionResult

INTERRUPTED = 130


@dataclass
class Outcome:
    """What came of one installer run."""

    result: SessionResult
    runs: list[ActionRun]
    difference: Difference
    since_beginning: Difference


@dataclass(frozen=True)
class Expectation:
    """Something that must hold after an installer run, as texts that a reader can compare."""

    what: str
    expected: str
    came: str

    @property
    def met(self) -> bool:
        return self.expected == self.came


@dataclass(frozen=True)
class Step:
    """One installer run of the demo and what it should come to."""

    title: str
    log_name: str
    arguments: tuple[str, ...]
    expectations: Callable[[Outcome], list[Expectation]]


def main() -> int:
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    try:
        return _run_demo()
    except KeyboardInterrupt:
        _say("demo: interrupted")
        return INTERRUPTED
    except (OSError, RuntimeError) as failure:
        _say(f"demo: {failure}")
        return 1


def _run_demo() -> int:
    progress = _Progress()
    progress.say("building the package")
    companion_package = package.build()
    definitions = package.library_actions(companion_package)
    steps = _steps(paths.windows_path(companion_package))

    progress.say("making a fresh Wine prefix")
    failures: list[str] = []
    with Prefix("prefix-demo") as prefix:
        progress.say("looking at the machine")
        beginning = before = machine.snapshot(prefix)
        for number, step in enumerate(steps, 1):
            progress.say(step.title)
            result = session.run(
                prefix, step.arguments, log_name=step.log_name, progress=progress.still_running
            )
            after = machine.snapshot(prefix)
            outcome = Outcome(
                result,
                action_runs(result.lines, definitions),
                machine.difference(before, after),
                machine.difference(beginning, after),
            )
            failures += _show(number, step, outcome)
            before = after
        progress.say("ending the Wine prefix")
    return _conclude(failures, len(steps))


def _steps(package_path: str) -> list[Step]:
    return [
        Step(
            "Install without LAUNCHED_FROM_MIM",
            "demo-refused",
            ("/i", package_path),
            _refused,
        ),
        Step(
            "Install with LAUNCHED_FROM_MIM=1",
            "demo-installed",
            ("/i", package_path, "LAUNCHED_FROM_MIM=1"),
            _installed,
        ),
        Step("Remove", "demo-removed", ("/x", package_path), _removed),
    ]


def _refused(outcome: Outcome) -> list[Expectation]:
    return [
        _exit_code(outcome, session.INSTALL_FAILURE),
        _verdicts(outcome, "BlockLaunch 0 failed"),
        _logged(outcome, [companion.REFUSAL_LINE, *companion.REFUSAL_MESSAGE]),
        _untouched(outcome),
    ]


def _installed(outcome: Outcome) -> list[Expectation]:
    return [
        _exit_code(outcome, 0),
        _verdicts(outcome, ", ".join(companion.INSTALL_RUNS)),
        _logged(
            outcome,
            [companion.acceptance_line("1")] * 2
            + companion.elevated_task_lines(getpass.getuser()),
        ),
        _files(outcome, Kind.ADDED),
        _tasks(outcome, Kind.ADDED),
    ]


def _removed(outcome: Outcome) -> list[Expectation]:
    return [
        _exit_code(outcome, 0),
        _verdicts(outcome, ", ".join(companion.REMOVE_RUNS)),
        _files(outcome, Kind.REMOVED),
        _tasks(outcome, Kind.REMOVED),
        _untouched(outcome),
    ]


def _exit_code(outcome: Outcome, result: int) -> Expectation:
    return Expectation(
        "exit code",
        _shown_exit_code(session.as_exit_code(result)),
        _shown_exit_code(outcome.result.exit_code),
    )


def _shown_exit_code(exit_code: int) -> str:
    # Only the low byte of an exit code arrives here.
    refused = session.as_exit_code(session.INSTALL_FAILURE)
    if exit_code == refused:
        return f"{session.INSTALL_FAILURE}, seen as {refused}"
    return str(exit_code)


def _verdicts(outcome: Outcome, expected: str) -> Expectation:
    came = ", ".join(f"{run.name} {run.verdict} {run.meaning}" for run in outcome.runs)
    return Expectation("actions", expected, came or "none")


def _logged(outcome: Outcome, expected: list[str]) -> Expectation:
    came = [line for run in outcome.runs for line in run.lines]
    return Expectation("lines of the actions", " / ".join(expected), " / ".join(came))


def _files(outcome: Outcome, kind: Kind) -> Expectation:
    came = [
        name
        for name in outcome.difference.of(Area.FILE, kind)
        if name.startswith(companion.FOLDER) and not name.endswith(("Companion", "Pivot"))
    ]
    return Expectation(f"files {kind.value}", ", ".join(companion.FILES), ", ".join(came))


def _tasks(outcome: Outcome, kind: Kind) -> Expectation:
    came = outcome.difference.of(Area.TASK, kind)
    return Expectation(f"tasks {kind.value}", ", ".join(companion.TASKS), ", ".join(came))


def _untouched(outcome: Outcome) -> Expectation:
    came = [
        f"{change.kind.value} {change.name}"
        for change in outcome.since_beginning.changes
        if not change.name.endswith(tuple(f"\\Temp\\{name}" for name in companion.LEFT_BEHIND))
    ]
    return Expectation("machine as before the demo, but for copies of task definitions in Temp", "no change", ", ".join(came) or "no change")


def _show(number: int, step: Step, outcome: Outcome) -> list[str]:
    """Prints what came of a step and returns the failed expectations as texts."""
    result = outcome.result
    _say("")
    _say(f"{number}. {step.title}")
    _say(f"   msiexec {' '.join(step.arguments)} /qn")
    _say(
        f"   exit code {_shown_exit_code(result.exit_code)}, {result.seconds:.1f} s, "
        f"log {paths.shown(result.log)}"
    )
    _say("")
    _say_all(report.action_table(outcome.runs))
    _say("")
    _say("Changed on the machine:")
    _say_all(report.change_list(outcome.difference))
    _say("")

    expectations = step.expectations(outcome)
    met = [expectation.what for expectation in expectations if expectation.met]
    failed = [expectation for expectation in expectations if not expectation.met]
    if met:
        _say(f"As expected: {', '.join(met)}")
    if failed:
        _say(f"NOT AS EXPECTED: {', '.join(expectation.what for expectation in failed)}")
    _say("")
    return [
        f"{step.title}: {expectation.what}\n"
        f"    expected: {expectation.expected}\n"
        f"    came:     {expectation.came or 'nothing'}\n"
        f"    log:      {paths.shown(result.log)}"
        for expectation in failed
    ]


def _conclude(failures: list[str], step_count: int) -> int:
    if failures:
        _say(f"demo: {len(failures)} expectations failed:")
        _say_all(failures)
        return 1
    _say(f"demo: all {step_count} installer runs went as they should")
    return 0


class _Progress:
    """Plain lines that tell what goes on, with the seconds since the beginning."""

    def __init__(self) -> None:
        self._start = time.monotonic()

    def say(self, text: str) -> None:
        _say(f"[{time.monotonic() - self._start:5.1f} s] {text}")

    def still_running(self, _seconds: float, last_line: str) -> None:
        self.say(f"still running, last line of the log: {last_line}"[: report.WIDTH])


def _say(text: str) -> None:
    print(text, flush=True)


def _say_all(lines: list[str]) -> None:
    for line in lines:
        _say(line)


if __name__ == "__main__":
    sys.exit(main())
