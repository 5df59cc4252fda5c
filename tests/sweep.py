"""Lets each call that an action makes fail once, and looks at what comes of it.

    sweep.py [--first] [SCENE...]

The library as it is shipped is called in a Wine prefix by `tests/sweep`, which takes the place of
its imports. For each scene, which is an action on a machine where it goes all the way, the calls of
such a run are counted. Then each imported function fails at each of its positions (all up to 20,
then every tenth), with access denied and with out of memory; allocations only the latter way, all of
them. With --first only the first call of each function fails, with access denied.

Each run has to end within `LIMIT` seconds, by a result or exception that the action's row in
actions.toml has, with nothing kept and nothing changed beyond what `sweep.toml` says. A table tells
what was seen; the exit code is 1 when something was found.
"""

import os
import re
import select
import subprocess
import sys
import time
import tomllib
from collections import Counter
from collections.abc import Callable, Iterable, Iterator, Mapping, Sequence
from concurrent.futures import ThreadPoolExecutor
from contextlib import nullcontext, suppress
from dataclasses import dataclass, field, replace
from functools import partial
from pathlib import Path
from queue import Empty, SimpleQueue

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))

import progress  # noqa: E402
from installer import actions, ending, machine, paths, repeats  # noqa: E402
from installer.prefix import Prefix  # noqa: E402

TABLE = Path(__file__).with_name("sweep.toml")
PROGRAM = r"b:\mingw-test\tests\sweep\sweep.exe"
CANARIES = paths.BUILD / "mingw-test/tests/sweep/sweep_canaries.dll"
FIRST = "--first"
# Where the programs find what they are to do; no scene changes it.
OWN_FOLDER = r"T:\Sweep"
LANES = 2
# Seconds: of a call, and of what is prepared for it and looked at behind it.
LIMIT = 10.0
PREPARING_LIMIT = 120.0
# Runs by one process. Each loads the library anew, and some of what a load takes stays.
RUNS_OF_A_PROCESS = 200
ALL_POSITIONS_UP_TO = 20
STEP = 10
# Fewer, and the sweep has not reached what it is there for.
LEAST_RUNS = 3000
ALLOCATING = "null"
ACCESS, MEMORY = "access", "memory"
ALWAYS_THROWN = "std::bad_alloc"
# As the library's own run-time calls them.
CLASSES = {
    "halvard::RegKeyError": "RegKeyError",
    "std::filesystem::__cxx11::filesystem_error": "std::filesystem::filesystem_error",
}
THROWN = "C++ exception "
RETURNED = "result "
FAULTLESS = "HasNoFault"
LEFT = "left on the machine: "
ENDED_PROCESS = "the process ended"
NO_END = f"no end within {LIMIT:g} s"


@dataclass(frozen=True)
class Failure:
    """The call that fails in a run; of the first run none does."""

    function: str = "-"
    position: int = 0
    code: str = ACCESS

    def __str__(self) -> str:
        if self.function == "-":
            return "nothing fails"
        return f"{self.function} {self.position}, {self.code}"


@dataclass(frozen=True)
class Run:
    """What came of a run."""

    failure: Failure
    reached: bool
    ended: str
    kept: Mapping[str, int] = field(default_factory=dict)
    changed: tuple[str, ...] = ()
    started: tuple[str, ...] = ()


@dataclass(frozen=True)
class Scene:
    """A row of the table, whose file says what its fields are."""

    name: str
    ends: str
    keeps: Mapping[str, int] = field(default_factory=dict)
    why: str = ""
    touches: tuple[str, ...] = ()
    starts: tuple[str, ...] = ()

    @property
    def action(self) -> str:
        return self.name.partition(":")[0]


@dataclass(frozen=True)
class Limit:
    """What may come of functions that fail in these scenes, or in all, beside what the scenes say."""

    functions: tuple[str, ...]
    why: str
    scenes: tuple[str, ...] = ()
    ends: tuple[str, ...] = ()
    keeps: Mapping[str, int] = field(default_factory=dict)
    starts: tuple[str, ...] = ()

    def holds_for(self, scene: Scene, function: str) -> bool:
        return function in self.functions and (not self.scenes or scene.name in self.scenes)


@dataclass(frozen=True)
class Table:
    """What `sweep.toml` says: the sign of each function, what an exception leaves, and its rows."""

    signs: Mapping[str, str]
    scenes: tuple[Scene, ...]
    thrown: Mapping[str, int] = field(default_factory=dict)
    limits: tuple[Limit, ...] = ()


@dataclass
class Row:
    """What was seen of a scene."""

    scene: str
    functions: int = 0
    runs: int = 0
    seen: Counter[str] = field(default_factory=Counter)
    findings: list[str] = field(default_factory=list)


@dataclass(frozen=True)
class Subject:
    """A library whose actions are swept, and what is known of them."""

    library: str
    contract: Mapping[str, actions.Action]
    table: Table


def main(arguments: list[str]) -> int:
    wanted = [each for each in arguments if each != FIRST]
    subject = shipped()
    unknown = set(wanted) - {scene.name for scene in subject.table.scenes}
    if unknown:
        print(f"no such scene: {', '.join(sorted(unknown))}", file=sys.stderr)
        return 2
    scenes = [scene for scene in subject.table.scenes if not wanted or scene.name in wanted]
    rows = sweep(subject, scenes, first=FIRST in arguments, shown=True)
    print(table(rows))
    runs = sum(row.runs for row in rows)
    missing = not arguments and runs < LEAST_RUNS
    if missing:
        print(f"fewer than {LEAST_RUNS} runs")
    return 1 if missing or any(row.findings for row in rows) else 0


def shipped() -> Subject:
    """The library as it is shipped, with its own table."""
    known = read_table(TABLE)
    contract = {action.name: action for action in actions.actions()}
    missing = set(contract) - {scene.action for scene in known.scenes}
    if missing:
        raise ValueError(f"without a scene: {', '.join(sorted(missing))}")
    return Subject(paths.windows_path(paths.LIBRARY), contract, known)


def read_table(file: Path) -> Table:
    """ValueError for a function that stands twice, and for what is kept without a reason."""
    with open(file, "rb") as opened:
        content = tomllib.load(opened)
    named = [(name, sign) for sign, names in content["signs"].items() for name in names]
    for row in content["spared"]:
        named += [(name, "none") for name in row["functions"]]
    twice = [name for name, count in Counter(name for name, _ in named).items() if count > 1]
    if twice:
        raise ValueError(f"stands twice: {', '.join(twice)}")
    scenes = tuple(Scene(**_with_tuples(row)) for row in content["scene"])
    for scene in scenes:
        if bool(scene.keeps) != bool(scene.why):
            raise ValueError(f"{scene.name}: what is kept and why go together")
    limits = tuple(Limit(**_with_tuples(row)) for row in content.get("limit", []))
    return Table(dict(named), scenes, content["exception"]["keeps"], limits)


def _with_tuples(row: Mapping) -> dict:
    return {name: tuple(each) if isinstance(each, list) else each for name, each in row.items()}


def sweep(
    subject: Subject,
    scenes: Sequence[Scene],
    first: bool,
    name: str = "prefix-sweep",
    shown: bool = False,
) -> list[Row]:
    """A row for each scene, in their order; how far it is can be shown meanwhile."""
    waiting: SimpleQueue[Scene] = SimpleQueue()
    for scene in scenes:
        waiting.put(scene)
    rows: dict[str, Row] = {}

    def told() -> str:
        runs = sum(row.runs for row in list(rows.values()))
        return f"{len(rows)} of {len(scenes)} scenes, {runs} runs"

    def lane(number: int) -> None:
        with Prefix(f"{name}-{number}") as prefix:
            before = machine.snapshot(prefix)
            last: Row | None = None
            with suppress(Empty):
                while True:
                    scene = waiting.get_nowait()
                    row = rows[scene.name] = Row(scene.name)
                    last = row
                    try:
                        sweep_scene(prefix, subject, scene, first, row)
                        if not first:
                            left_behind(before, prefix, row)
                    except (RuntimeError, OSError) as failure:
                        row.findings.append(f"not swept: {failure}")
            if first and last is not None:
                left_behind(before, prefix, last)

    lanes = min(LANES, len(scenes))
    with progress.shown(told) if shown else nullcontext(), ThreadPoolExecutor(lanes) as pool:
        for done in [pool.submit(lane, number) for number in range(lanes)]:
            done.result()
    return [rows[scene.name] for scene in scenes]


def left_behind(before: machine.Snapshot, prefix: Prefix, row: Row) -> None:
    """Finds what all runs of a scene together have left, wherever it is."""
    for change in machine.difference(before, machine.snapshot(prefix)).changes:
        if not change.name.startswith(OWN_FOLDER):
            row.findings.append(f"{LEFT}{change.kind.value} {change.name}")


def sweep_scene(prefix: Prefix, subject: Subject, scene: Scene, first: bool, row: Row) -> None:
    calls: Counter[str] = Counter()
    (whole,) = execute(prefix, subject, scene, [Failure()], calls)
    row.runs += 1
    row.functions = len(calls)
    _judge(subject, scene, whole, whole, row)
    if shown_end(whole.ended) != scene.ends:
        row.findings.append(f"does not go all the way: {whole.ended}")
        return
    for run in execute(prefix, subject, scene, plan(calls, subject.table.signs, first), Counter()):
        if run.reached:
            row.runs += 1
            _judge(subject, scene, whole, run, row)


def plan(calls: Mapping[str, int], signs: Mapping[str, str], first: bool) -> list[Failure]:
    """The runs that a run with these calls asks for."""
    runs = []
    for function, count in calls.items():
        allocates = signs.get(function) == ALLOCATING
        codes = [MEMORY] if allocates else [ACCESS] if first else [ACCESS, MEMORY]
        for position in [1] if first else positions(count, allocates):
            runs += [Failure(function, position, code) for code in codes]
    return runs


def positions(count: int, allocates: bool) -> list[int]:
    """Which calls of a function fail in turn."""
    if allocates:
        return list(range(1, count + 1))
    dense = list(range(1, min(count, ALL_POSITIONS_UP_TO) + 1))
    return dense + list(range(ALL_POSITIONS_UP_TO + STEP, count + 1, STEP))


def execute(
    prefix: Prefix,
    subject: Subject,
    scene: Scene,
    failures: Sequence[Failure],
    calls: Counter[str],
) -> Iterator[Run]:
    """The runs in their order; one that does not end, or ends its process, ends as such."""
    folder = prefix.host_path(OWN_FOLDER)
    folder.mkdir(exist_ok=True)
    functions = "".join(f"{name} {sign}\n" for name, sign in subject.table.signs.items())
    (folder / "functions.txt").write_text(functions)
    for first in range(0, len(failures), RUNS_OF_A_PROCESS):
        part = failures[first : first + RUNS_OF_A_PROCESS]
        lines = [f"{each.function} {each.position} {each.code}\n" for each in part]
        (folder / "plan.txt").write_text("".join(lines))
        number = 0
        while number < len(part):
            start = partial(_of_one_process, prefix, subject, scene, part, number, calls)
            for run in _with_a_second_start(start):
                number += 1
                yield run


class NotReady(RuntimeError):
    """A process of the sweep came to no call."""


def _with_a_second_start(start: Callable[[], Iterator[Run]]) -> Iterator[Run]:
    """The runs of a process, which is started once more where it came to no call."""
    try:
        yield from start()
    except NotReady as failure:
        repeats.tell(str(failure))
        yield from start()


def _of_one_process(
    prefix: Prefix,
    subject: Subject,
    scene: Scene,
    failures: Sequence[Failure],
    number: int,
    calls: Counter[str],
) -> Iterator[Run]:
    process = prefix.start(
        PROGRAM,
        subject.library,
        scene.name,
        rf"{OWN_FOLDER}\functions.txt",
        rf"{OWN_FOLDER}\plan.txt",
        str(number),
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
    )
    called = False
    problem: type[RuntimeError] = NotReady
    limit = PREPARING_LIMIT
    try:
        for line in lines_of(process.stdout, lambda: limit):
            kind, *words = line.split("\t")
            if kind == "call":
                called, limit, problem = True, LIMIT, RuntimeError
            elif kind == "ended":
                called, limit = False, PREPARING_LIMIT
            elif kind == "run":
                if int(words[0]) != number:
                    raise RuntimeError(f"{scene.name}: run {words[0]} in place of {number}")
                yield read_run(failures[number], words)
                number += 1
            elif kind == "calls":
                calls[words[0]] += int(words[1])
            elif kind == "error":
                raise problem(f"{scene.name}: {words[0]}")
            elif kind == "done":
                return
    except TimeoutError:
        if not called:
            told = f"{scene.name}: the machine of a run cannot be made or looked at"
            raise problem(told) from None
        yield Run(failures[number], True, NO_END)
        return
    finally:
        process.kill()
        process.stdout.close()
        process.wait()
    if not called:
        raise problem(f"{scene.name}: the sweep ended by itself")
    yield Run(failures[number], True, ENDED_PROCESS)


def lines_of(stream, limit: Callable[[], float]) -> Iterator[str]:
    """The lines that a program prints. TimeoutError when none comes for so many seconds."""
    pending = b""
    end = time.monotonic() + limit()
    while True:
        ready, _, _ = select.select([stream], [], [], max(0.0, end - time.monotonic()))
        if not ready:
            raise TimeoutError
        read = os.read(stream.fileno(), 65536)
        if not read:
            return
        *whole, pending = (pending + read).split(b"\n")
        for line in whole:
            yield line.decode(errors="replace").rstrip("\r")
            end = time.monotonic() + limit()


def read_run(failure: Failure, words: Sequence[str]) -> Run:
    """What the program tells of a run behind its kind."""
    _, reached, ended, kept, changed, started = words
    counts = {}
    for each in _listed(kept):
        function, count = each.split(" ")
        counts[function] = int(count)
    return Run(failure, reached == "1", ended, counts, _listed(changed), _listed(started))


def _listed(text: str) -> tuple[str, ...]:
    return tuple(text.split("|")) if text else ()


def _judge(subject: Subject, scene: Scene, whole: Run, run: Run, row: Row) -> None:
    row.seen[shown_end(run.ended)] += 1
    row.findings += [f"{run.failure}: {each}" for each in complaints(subject, scene, whole, run)]


def complaints(subject: Subject, scene: Scene, whole: Run, run: Run) -> Iterator[str]:
    """What is wrong with a run; `whole` is the one in which nothing fails."""
    limits = [
        limit for limit in subject.table.limits if limit.holds_for(scene, run.failure.function)
    ]
    if any(run.ended in limit.ends for limit in limits):
        # The process is gone, and with it what the action held.
        return
    if not is_known(subject.contract[scene.action], run.ended):
        yield f"ends with {run.ended}"
    may_keep = Counter(scene.keeps)
    for limit in limits:
        may_keep.update(limit.keeps)
    if has_thrown(subject.table, run):
        may_keep.update(subject.table.thrown)
    for function, count in run.kept.items():
        if count > may_keep[function]:
            yield f"keeps {count} of {function}"
    for name in run.changed:
        if not is_within(name, scene.touches):
            yield f"changes {name}"
    starts = [*scene.starts, *(pattern for limit in limits for pattern in limit.starts)]
    for program in run.started:
        if program not in whole.started and not any(
            re.fullmatch(pattern, program) for pattern in starts
        ):
            yield f"starts {program}"


def has_thrown(known: Table, run: Run) -> bool:
    """Whether the run-time has thrown in this run, also when the action caught it: by all of what
    the first exception leaves."""
    return bool(known.thrown) and all(
        run.kept.get(function, 0) >= count for function, count in known.thrown.items()
    )


def is_known(contract: actions.Action, ended: str) -> bool:
    """Whether the action's row has this result or exception."""
    if ended.startswith(RETURNED):
        value = int(ended.removeprefix(RETURNED))
        return any(not each.fixed or each.value == value for each in contract.results)
    return ended.startswith(THROWN) and shown_end(ended) in (ALWAYS_THROWN, *contract.exceptions)


def shown_end(ended: str) -> str:
    """How a run ended, with classes as the contract calls them."""
    name = ended.removeprefix(THROWN)
    return CLASSES.get(name, name).removeprefix(RETURNED)


def is_within(name: str, places: Iterable[str]) -> bool:
    """Whether something lies at one of the places or below it."""
    lower = name.lower()
    return any(
        lower == place.lower() or lower.startswith((place.lower() + "\\", place.lower() + " : "))
        for place in places
    )


def expected_findings() -> Mapping[str, str]:
    """The faults of `tests/sweep/canaries.cpp`, and what has to be found of each."""
    failing = "RegOpenKeyExW 1, access: "
    return {
        "KeepsAHandle": f"{failing}keeps 1 of CreateEventA",
        "KeepsAKey": f"{failing}keeps 1 of RegOpenKeyExW",
        "KeepsABlock": f"{failing}keeps 1 of malloc",
        "DoesNotEnd": f"{failing}ends with {NO_END}",
        "GivesAnUnknownResult": f"{failing}ends with result 42",
        "ThrowsWhatNobodyNames": f"{failing}ends with C++ exception int",
        "GivesUp": f"{failing}ends with abort",
        "EndsTheProcess": f"{failing}ends with {ENDED_PROCESS}",
        "TouchesAnotherFile": f"{failing}changes T:\\Other\\kept.txt",
        "WritesIntoAnotherFile": f"{failing}changes T:\\Other\\kept.txt",
        "TouchesAnotherKey": f"{failing}changes HKLM\\SOFTWARE\\ZenvoOther",
        "StartsAnotherProgram": f"{failing}starts another.exe",
        "CallsAnUnknownFunction": "not swept: CallsAnUnknownFunction: the table does not know how "
        "it fails: GetOEMCP",
        "LeavesAFile": "left on the machine: added C:\\windows\\left.txt",
    }


def canaries() -> Subject:
    """A library of planted faults, with actions that answer 0 or 1603."""
    known = read_table(TABLE)
    scenes = tuple(Scene(name, "0") for name in (FAULTLESS, *expected_findings()))
    results = (actions.Result(0, "done"), actions.Result(1603, "failed"))
    contract = {
        scene.name: actions.Action(
            name=scene.name,
            subsystem="",
            does="",
            execution="immediate",
            return_attribute="check",
            why="",
            schedule="",
            place=actions.Place("installation"),
            results=results,
        )
        for scene in scenes
    }
    # The run-time is linked otherwise into it, and brings imports that none of it calls.
    uncalled = {name: "none" for name in import_names(CANARIES) if name not in known.signs}
    signs = {**uncalled, **known.signs}
    library = paths.windows_path(CANARIES)
    return Subject(library, contract, replace(known, signs=signs, scenes=scenes, limits=()))


def import_names(library: Path) -> list[str]:
    """The functions that a library imports, with those that are looked up by their first call."""
    # objdump lists them in another form with every few releases.
    command = ["llvm-readobj", "--coff-imports", str(library)]
    listed = subprocess.run(command, capture_output=True, text=True, check=True)
    return re.findall(r"^ +Symbol: (\w+) \(\d+\)$", listed.stdout, re.MULTILINE)


def missed_faults(rows: Sequence[Row]) -> dict[str, str]:
    """By their scenes the planted faults that were not found, and what was found where none is."""
    by_name = {row.scene: row.findings for row in rows}
    everything = [finding for findings in by_name.values() for finding in findings]
    missed = {}
    for name, finding in expected_findings().items():
        # What all scenes of a lane have left is found behind the last of them.
        found = everything if finding.startswith(LEFT) else by_name[name]
        if finding not in found:
            missed[name] = f"not found: {finding}, but {'; '.join(by_name[name]) or 'nothing'}"
    wrong = [finding for finding in by_name[FAULTLESS] if not finding.startswith(LEFT)]
    if wrong:
        missed[FAULTLESS] = "; ".join(wrong)
    return missed


def table(rows: Sequence[Row]) -> str:
    """The rows for a reader, and behind them what was found."""
    cells = [("action", "functions", "runs", "findings", "results seen")]
    for row in rows:
        seen = ", ".join(f"{end} ({count})" for end, count in row.seen.most_common())
        cells.append((row.scene, str(row.functions), str(row.runs), str(len(row.findings)), seen))
    widths = [max(len(line[column]) for line in cells) for column in range(4)]
    lines = []
    for name, *numbers, seen in cells:
        middle = "  ".join(each.rjust(width) for each, width in zip(numbers, widths[1:]))
        lines.append(f"{name.ljust(widths[0])}  {middle}  {seen}")
    for row in rows:
        lines += [f"{row.scene}: {finding}" for finding in row.findings]
    runs, findings = sum(row.runs for row in rows), sum(len(row.findings) for row in rows)
    lines.append(f"sweep: {len(rows)} scenes, {runs} runs, {findings} findings")
    return "\n".join(lines)


if __name__ == "__main__":
    sys.exit(ending.orderly(lambda: main(sys.argv[1:])))
