"""Lets the real installer refuse, install, upgrade and remove the sample package, a second product
that carries the agent meanwhile, and shows what happened: in the terminal, in
build/demo/report.html and in build/demo/report.json.

Exit code 0 when all runs went as they should, 1 when one did not, and 128 and the signal's number
when it was told to end.
"""

import getpass
import json
import sys
import textwrap
import time
from dataclasses import dataclass
from datetime import datetime
from typing import Callable

from installer import checking, companion, ending, facts, machine, package, page, paths, repeats, report, session, tracing
from installer.facts import Expectation, PackageCheck, Report, SessionFacts
from installer.log import ActionDefinition, ActionRun, ExportCall, action_runs, inner_calls
from installer.machine import Area, Difference, Kind
from installer.prefix import Prefix
from installer.session import SessionResult

TITLE = "Installer sessions of the sample packages"


@dataclass
class Outcome:
    """What came of one installer run; `inner` are the calls of the session inside of it that
    removed an older version, `told` the commands that the companion tools got."""

    result: SessionResult
    runs: list[ActionRun]
    inner: list[ExportCall]
    difference: Difference
    since_beginning: Difference
    told: list[str]


@dataclass(frozen=True)
class Step:
    """One installer run of the demo and what it should come to."""

    title: str
    log_name: str
    arguments: tuple[str, ...]
    expectations: Callable[[Outcome], list[Expectation]]
    prepare: Callable[[Prefix], None] = lambda prefix: None
    note: str = ""


def main() -> int:
    try:
        with repeats.counted(paths.REPORT / "repeated.txt") as repeated:
            return _run_demo(repeated)
    except ending.Told as told:
        _say(f"demo: {told}")
        return told.code
    except (OSError, RuntimeError) as failure:
        _say(f"demo: {failure}")
        return 1


def _run_demo(repeated: Callable[[], int]) -> int:
    progress = _Progress()
    progress.say("building the packages")
    companion_package = package.build()
    newer_package = package.build(version=companion.NEXT_VERSION)
    second_package = package.build(package.SECOND_CLIENT)
    definitions = package.library_actions(companion_package)
    definitions |= package.library_actions(second_package)
    steps = _steps(*map(paths.windows_path, (companion_package, newer_package, second_package)))

    progress.say("making a fresh Wine prefix")
    made = datetime.now().isoformat(timespec="seconds")
    sessions: list[SessionFacts] = []
    checks: list[PackageCheck] = []
    failure = ""
    try:
        progress.say("checking the packages")
        checks += checking.checked([companion_package, newer_package, second_package])
        for each in checks:
            _say(f"    {each.package}: {page.severities(each.findings)}")
        try:
            failures = _run_steps(steps, definitions, progress, sessions)
        except session.NothingDone as hanging:
            repeats.tell(str(hanging))
            progress.say("once more, from the beginning, in a fresh Wine prefix")
            sessions.clear()
            failures = _run_steps(steps, definitions, progress, sessions)
    except (OSError, RuntimeError) as raised:
        failure = str(raised)
        raise
    finally:
        version = package.project_identity().version
        _write(Report(TITLE, made, version, len(steps), sessions, failure, checks))
    return _conclude(failures, len(steps), repeated())


def _run_steps(
    steps: list[Step],
    definitions: dict[str, ActionDefinition],
    progress: "_Progress",
    sessions: list[SessionFacts],
) -> list[str]:
    """Puts the facts of each step's session behind `sessions`; returns the failed expectations."""
    failures: list[str] = []
    with Prefix("prefix-demo") as prefix:
        watching = session.watch_results(prefix)
        progress.say("looking at the machine")
        beginning = before = machine.snapshot(prefix)
        for number, step in enumerate(steps, 1):
            progress.say(step.title)
            step.prepare(prefix)
            result = session.run(
                prefix,
                step.arguments,
                log_name=step.log_name,
                progress=progress.still_running,
                environment=watching,
            )
            told = companion.told(prefix)
            prefix.host_path(companion.RECORD).unlink(missing_ok=True)
            after = machine.snapshot(prefix)
            runs = action_runs(result.lines, definitions, result.calls)
            runs = tracing.traced(prefix, runs, step.arguments)
            outcome = Outcome(
                result,
                runs,
                inner_calls(runs, result.calls),
                machine.difference(before, after),
                machine.difference(beginning, after),
                told,
            )
            expectations = step.expectations(outcome)
            sessions.append(
                SessionFacts(
                    step.title,
                    result,
                    outcome.runs,
                    outcome.difference,
                    step.note,
                    outcome.told,
                    expectations,
                )
            )
            failures += _show(number, step, outcome, expectations)
            # The next session has no part in what a trace changed.
            before = machine.snapshot(prefix) if any(run.trace for run in runs) else after
        progress.say("ending the Wine prefix")
    return failures


def _write(shown: Report) -> None:
    paths.REPORT.mkdir(parents=True, exist_ok=True)
    for name, text in (
        ("report.html", page.page(shown)),
        ("report.json", json.dumps(facts.document(shown), indent=1) + "\n"),
    ):
        (paths.REPORT / name).write_text(text, encoding="utf-8")
        _say(f"report: {paths.shown(paths.REPORT / name)}")


def _steps(package_path: str, newer_path: str, second_path: str) -> list[Step]:
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
            ("/i", package_path, "LAUNCHED_FROM_MIM=1", companion.WITH_AGENT),
            _installed,
        ),
        Step(
            "Install a second product that carries the agent",
            "demo-second-installed",
            ("/i", second_path, companion.WITH_AGENT),
            _second_installed,
            note="CheckForClients answers 259: the first client has the agent installed already. "
            "Windows then skips the rest of the sequence without an error; the engine here takes "
            "259 for success, goes on, and sets the agent up once more.",
        ),
        Step(
            "Remove the second product, while the first still needs the agent",
            "demo-second-removed",
            ("/x", second_path),
            _second_removed,
            note="Again 259, and again the engine here goes on: it takes the agent away, which "
            "Windows leaves to the first product. The machine keeps its identity.",
        ),
        Step(
            "Repair the first product, which makes it this account's last client",
            "demo-repaired",
            ("/i", package_path, "REINSTALL=ALL", "REINSTALLMODE=amus"),
            _repaired,
            note="A removal counts for the client that ran last, whichever product is removed. "
            "Without this run the next removal would be taken for that of the second product "
            "once more, and answered 259. It also brings back the agent that the engine here has "
            "taken away.",
        ),
        Step(
            f"Upgrade to version {companion.NEXT_VERSION}, which removes the older one first",
            "demo-upgraded",
            ("/i", newer_path, "LAUNCHED_FROM_MIM=1", companion.WITH_AGENT),
            _upgraded,
            note="The removal is a session inside of this one and has no log here, so only what "
            "its actions returned can be shown. The choice of features is made again: the engine "
            "here does not carry it over.",
        ),
        Step(
            "Remove, after the applications have written files of their own",
            "demo-removed",
            ("/x", newer_path),
            _removed,
            companion.write_as_the_applications_do,
            note="No client is left: CheckForClients answers 0, and the agent goes.",
        ),
    ]


def _refused(outcome: Outcome) -> list[Expectation]:
    return [
        _exit_code(outcome, session.INSTALL_FAILURE),
        *_actions(outcome, companion.refused_rows()),
        _untouched(outcome),
    ]


def _installed(outcome: Outcome) -> list[Expectation]:
    return [
        _exit_code(outcome, 0),
        *_actions(outcome, companion.install_rows(getpass.getuser(), agent=True)),
        _status(outcome, companion.CLIENT, 1),
        _files(outcome, Kind.ADDED),
        _agent(outcome, Kind.ADDED),
        _identity(outcome, Kind.ADDED),
        _tasks(outcome, Kind.ADDED),
        _services(outcome, Kind.ADDED, companion.COUNTERS, companion.SERVICE),
        _server(outcome, Kind.ADDED),
    ]


def _second_installed(outcome: Outcome) -> list[Expectation]:
    return [
        _exit_code(outcome, 0),
        *_actions(
            outcome,
            companion.clients_rows(
                companion.SECOND_CLIENT, getpass.getuser(), answer=session.NO_MORE_ITEMS
            ),
        ),
        _status(outcome, companion.SECOND_CLIENT, 1),
        _identity(outcome),
    ]


def _second_removed(outcome: Outcome) -> list[Expectation]:
    return [
        _exit_code(outcome, 0),
        *_actions(
            outcome,
            companion.clients_removal_rows(
                companion.SECOND_CLIENT, companion.SECOND_CLIENT, answer=session.NO_MORE_ITEMS
            ),
        ),
        _status(outcome, companion.SECOND_CLIENT, 2),
        _agent(outcome, Kind.REMOVED),
        _identity(outcome),
    ]


def _repaired(outcome: Outcome) -> list[Expectation]:
    return [
        _exit_code(outcome, 0),
        *_actions(outcome, companion.clients_rows(companion.CLIENT, getpass.getuser())),
        _agent(outcome, Kind.ADDED),
        _identity(outcome),
    ]


def _upgraded(outcome: Outcome) -> list[Expectation]:
    version = companion.NEXT_VERSION
    rows = companion.install_rows(getpass.getuser(), version=version, agent=True, tracked=0)
    inner = companion.calls(companion.remove_rows(agent=True))
    versions = [
        str(change.after)
        for change in outcome.difference.changes
        if change.name == f"{companion.KEY} : Version"
    ]
    return [
        _exit_code(outcome, 0),
        *_actions(outcome, rows),
        Expectation("removal of the older version", _called(inner), _called(outcome.inner)),
        Expectation("version", f'"{version}"', ", ".join(versions)),
        _told(outcome),
        _identity(outcome),
    ]


def _removed(outcome: Outcome) -> list[Expectation]:
    return [
        _exit_code(outcome, 0),
        *_actions(outcome, companion.remove_rows(version=companion.NEXT_VERSION, agent=True)),
        _status(outcome, companion.CLIENT, 2),
        _told(outcome),
        _files(outcome, Kind.REMOVED),
        _agent(outcome, Kind.REMOVED),
        _identity(outcome),
        _tasks(outcome, Kind.REMOVED),
        _services(outcome, Kind.REMOVED, companion.SERVICE),
        _server(outcome, Kind.REMOVED),
        _untouched(outcome),
    ]


def _exit_code(outcome: Outcome, result: int) -> Expectation:
    return Expectation(
        "exit code",
        session.shown_exit_code(session.as_exit_code(result)),
        session.shown_exit_code(outcome.result.exit_code),
    )


def _actions(outcome: Outcome, rows: list[companion.Row]) -> list[Expectation]:
    """The runs with their verdicts, results and data, and the lines that they logged."""

    def shown(row: companion.Row) -> str:
        data = "" if row.data is None else f" with {row.data}"
        return f"{row.action} {row.outcome.value}, returned {row.result}{data}"

    came = [companion.row(run) for run in outcome.runs]
    return [
        Expectation("actions", " / ".join(map(shown, rows)), " / ".join(map(shown, came))),
        Expectation(
            "lines of the actions",
            " / ".join(companion.lines(rows)),
            " / ".join(companion.lines(came)),
        ),
    ]


def _called(calls: list[ExportCall]) -> str:
    return ", ".join(f"{call.export} returned {call.result}" for call in calls)


def _status(outcome: Outcome, client: str, status: int) -> Expectation:
    name = f"{companion.STATUS_KEY} : {client}_TeloStatus"
    came = [change.after for change in outcome.difference.changes if change.name == name]
    return Expectation(f"status of {client}", f"dword:{status:08}", ", ".join(map(str, came)))


def _files(outcome: Outcome, kind: Kind) -> Expectation:
    came = [
        name
        for name in outcome.difference.of(Area.FILE, kind)
        if name.startswith(f"{companion.FOLDER}\\") and "." in name
    ]
    return Expectation(f"files {kind.value}", ", ".join(companion.FILES), ", ".join(came))


def _agent(outcome: Outcome, kind: Kind) -> Expectation:
    """The agent's files, its service and its task, and nothing else of the agent's."""
    own = [companion.AGENT_SERVICE, companion.AGENT_TASK]
    came = [
        change.name
        for change in outcome.difference.changes
        if change.kind is kind
        and (change.name.startswith(f"{companion.AGENT_FOLDER}\\") or change.name in own)
    ]
    return Expectation(
        f"agent {kind.value}", ", ".join([*companion.AGENT_FILES, *own]), ", ".join(came)
    )


def _identity(outcome: Outcome, kind: Kind | None = None) -> Expectation:
    """What has become of the machine's identity; nothing without a kind."""
    came = [
        change.kind
        for change in outcome.difference.changes
        if change.name == companion.AGENT_IDENTITY
    ]
    return Expectation(
        "identity of the machine",
        kind.value if kind else "kept",
        ", ".join(each.value for each in came) or "kept",
    )


def _tasks(outcome: Outcome, kind: Kind) -> Expectation:
    came = [
        name for name in outcome.difference.of(Area.TASK, kind) if name != companion.AGENT_TASK
    ]
    return Expectation(f"tasks {kind.value}", ", ".join(companion.TASKS), ", ".join(came))


def _services(outcome: Outcome, kind: Kind, *names: str) -> Expectation:
    came = [
        name
        for name in outcome.difference.of(Area.SERVICE, kind)
        if " : " not in name and name != companion.AGENT_SERVICE
    ]
    return Expectation(f"services {kind.value}", ", ".join(names), ", ".join(came))


def _server(outcome: Outcome, kind: Kind) -> Expectation:
    came = [
        name
        for name in outcome.difference.of(Area.REGISTRY, kind)
        if name == companion.SERVER_VALUE
    ]
    return Expectation(f"COM server's key {kind.value}", companion.SERVER_VALUE, ", ".join(came))


def _told(outcome: Outcome) -> Expectation:
    return Expectation(
        "what the companion tools were told",
        ", ".join(companion.told_on_removal()),
        ", ".join(outcome.told),
    )


def _untouched(outcome: Outcome) -> Expectation:
    came = [
        f"{change.kind.value} {change.name}"
        for change in outcome.since_beginning.changes
        if not change.name.endswith(companion.LEFT_BEHIND)
    ]
    return Expectation(
        "machine as before the demo, but for what actions leave in Temp and as markers",
        "no change",
        ", ".join(came) or "no change",
    )


def _show(
    number: int, step: Step, outcome: Outcome, expectations: list[Expectation]
) -> list[str]:
    """Prints what came of a step and returns the failed expectations as texts."""
    result = outcome.result
    _say("")
    _say(f"{number}. {step.title}")
    _say(f"   msiexec {' '.join(step.arguments)} /qn")
    _say_all(textwrap.wrap(step.note, report.WIDTH, initial_indent="   ", subsequent_indent="   "))
    _say(
        f"   exit code {session.shown_exit_code(result.exit_code)}, {result.seconds:.1f} s, "
        f"log {paths.shown(result.log)}"
    )
    _say("")
    _say_all(report.action_table(outcome.runs))
    _say("")
    if outcome.inner:
        _say("The session inside called:")
        _say_all(
            textwrap.wrap(
                _called(outcome.inner),
                report.WIDTH,
                initial_indent="    ",
                subsequent_indent="    ",
            )
        )
        _say("")
    if outcome.told:
        _say("The companion tools were told:")
        _say_all([f"    {line}" for line in outcome.told])
        _say("")
    _say("Changed on the machine:")
    _say_all(report.change_list(outcome.difference))
    _say("")

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


def _conclude(failures: list[str], step_count: int, repeated: int) -> int:
    behind = repeats.behind(repeated)
    if failures:
        _say(f"demo: {len(failures)} expectations failed{behind}:")
        _say_all(failures)
        return 1
    _say(f"demo: all {step_count} installer runs went as they should{behind}")
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
    sys.exit(ending.orderly(main))
