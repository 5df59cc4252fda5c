"""Finds out which test suites of ring wine reach which lines of the library.

Each suite runs alone with library objects that count. What was found is kept with a fingerprint of
the sources and the tests, and found anew when that has changed.
"""

import hashlib
import json
import re
import shutil
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterable, Sequence

from coverage import COUNTERS, LIBRARY
from coverage import BUILD as TEST_BUILD
from installer import heap_check, paths
from installer.prefix import Prefix
from mutants import statement_of
from run_tests import LIST_TESTS, WINE_OVERRIDES, read_google_test_list, run_to_file

ROOT = paths.ROOT
PROGRAM = TEST_BUILD / "tests/wine/wine_coverage_tests.exe"
GCOV = "x86_64-w64-mingw32-gcov-posix"
LANES = 2
# Seconds.
SUITE_LIMIT = 240.0
# What decides which lines a suite reaches.
TESTS = (
    "tests/wine",
    "tests/core",
    "tests/support",
    "tests/engines.toml",
    "tests/run_tests.py",
    "tests/coverage.py",
    "tests/mutants.py",
    "tools/action_outcomes.py",
    "tools/engine_table.py",
    "tools/installer",
)
BUILD_FILES = ("CMakeLists.txt", "CMakePresets.json", "cmake")
STARTED = re.compile(r"\[ RUN      \] (\S+)$", re.MULTILINE)


class Stopped(Exception):
    """The work is to end."""


@dataclass
class Reached:
    """The seconds that each suite took, and of each file the suites that reach each of the lines
    that have code."""

    suites: dict[str, float]
    lines: dict[str, dict[int, list[str]]]

    def by(self, file: str, text: str, line: int) -> list[str]:
        """The suites that reach a line. One without code of its own is reached with its statement,
        and what is no statement, as a constant of the file, with any line of the file."""
        lines = self.lines.get(file, {})
        if line in lines:
            return sorted(lines[line])
        statement = [lines[number] for number in statement_of(text, line) if number in lines]
        return sorted(set().union(*(statement or lines.values())))


class Runner:
    """Runs test programs in a prefix, with the heap checked, until it is told to stop."""

    def __init__(self) -> None:
        self._stopping = threading.Event()

    def run(
        self, prefix: Prefix, program: str, arguments: Sequence[str], log: Path, limit: float
    ) -> str:
        """How the program ended; what it printed is in the log."""

        def start(command: Sequence[str], **options) -> "subprocess.Popen[bytes]":
            # With what the engine itself says.
            return prefix.start(*command, stderr=subprocess.STDOUT, **options)

        return run_to_file([program, *arguments], log, start, limit, self.go_on)

    def go_on(self) -> None:
        if self._stopping.is_set():
            raise Stopped

    def stop(self) -> None:
        self._stopping.set()


def fingerprint() -> str:
    files = [ROOT / LIBRARY, *(ROOT / name for name in TESTS + BUILD_FILES)]
    every = [each for file in files for each in ([file] if file.is_file() else file.rglob("*"))]
    digest = hashlib.sha256()
    for file in sorted(each for each in every if each.is_file() and each.suffix != ".pyc"):
        content = hashlib.sha256(file.read_bytes()).hexdigest()
        digest.update(f"{file.relative_to(ROOT)} {content}\n".encode())
    return digest.hexdigest()


def reached(kept: Path, runner: Runner, tell: Callable[[str], None]) -> Reached:
    """What was kept, if it is of these sources and tests; otherwise what is found now."""
    now = fingerprint()
    if kept.exists():
        data = json.loads(kept.read_text())
        if data["fingerprint"] == now:
            return unpacked(data)
    found = _measure(kept.parent, runner, tell)
    kept.write_text(json.dumps({"fingerprint": now} | packed(found)))
    return found


def packed(found: Reached) -> dict:
    """In a form for JSON, with numbers in place of the suites' names."""
    number = {suite: place for place, suite in enumerate(found.suites)}
    lines = {
        file: {str(line): [number[suite] for suite in suites] for line, suites in lines.items()}
        for file, lines in found.lines.items()
    }
    return {"suites": found.suites, "lines": lines}


def unpacked(data: dict) -> Reached:
    names = list(data["suites"])
    lines = {
        file: {int(line): [names[number] for number in suites] for line, suites in lines.items()}
        for file, lines in data["lines"].items()
    }
    return Reached(data["suites"], lines)


def _measure(folder: Path, runner: Runner, tell: Callable[[str], None]) -> Reached:
    found = Reached({}, {})
    lock = threading.Lock()
    suites = _suites(folder, runner)
    waiting = list(reversed(suites))

    def lane(number: int) -> None:
        counters, log = folder / f"counters-{number}", folder / f"suite-{number}.txt"
        _make_counters(counters)
        with _prefix(number, counters) as prefix:
            heap_check.check_heap(prefix, PROGRAM.name, heap_check.MARKS)
            while True:
                with lock:
                    if not waiting:
                        return
                    suite = waiting.pop()
                seconds = _run(runner, prefix, [f"--gtest_filter={suite}.*"], log)
                hits = _read(counters)
                with lock:
                    found.suites[suite] = round(seconds, 2)
                    _enter(found, suite, hits)
                    tell(f"{len(found.suites)} of {len(suites)} suites alone")

    in_lanes(lane, runner)
    return Reached(dict(sorted(found.suites.items())), found.lines)


def _prefix(number: int, counters: Path) -> Prefix:
    environment = {
        "WINEDLLOVERRIDES": WINE_OVERRIDES,
        "GCOV_PREFIX": paths.windows_path(counters),
        "GCOV_PREFIX_STRIP": str(len(COUNTERS.parts) - 1),
    }
    return Prefix(f"prefix-mutate-{number}", environment=environment, results=[counters])


def _run(runner: Runner, prefix: Prefix, arguments: Sequence[str], log: Path) -> float:
    """The seconds that the tests took."""
    start = time.monotonic()
    ended = runner.run(prefix, paths.windows_path(PROGRAM), arguments, log, SUITE_LIMIT)
    if ended != "exit code 0":
        raise RuntimeError(f"{' '.join(arguments)} fails ({ended}): {log}")
    return time.monotonic() - start


def _suites(folder: Path, runner: Runner) -> list[str]:
    counters, log = folder / "counters-0", folder / "suites.txt"
    _make_counters(counters)
    with _prefix(0, counters) as prefix:
        _run(runner, prefix, [LIST_TESTS], log)
    tests = read_google_test_list(log.read_text(errors="replace"))
    return sorted({test.partition(".")[0] for test in tests})


def in_lanes(lane: Callable[[int], None], runner: Runner) -> None:
    """Runs the lanes beside each other; when one fails or the program is to end, all do."""
    with ThreadPoolExecutor(LANES) as pool:
        running = [pool.submit(lane, number) for number in range(LANES)]
        try:
            # With a limit, so that a signal comes through.
            while not all(each.done() for each in running):
                for each in running:
                    if each.done():
                        each.result()
                time.sleep(0.1)
        except BaseException:
            runner.stop()
            raise
    for each in running:
        each.result()


def _make_counters(counters: Path) -> None:
    """A tree for the files that the program writes, with the compiler's description beside each."""
    shutil.rmtree(counters, ignore_errors=True)
    for description in COUNTERS.rglob("*.gcno"):
        link = counters / description.relative_to(COUNTERS)
        link.parent.mkdir(parents=True, exist_ok=True)
        link.symlink_to(description)


def _read(counters: Path) -> dict[str, dict[int, bool]]:
    """The lines of each file that have code, and whether they ran. The counters are gone then."""
    files = sorted(counters.rglob("*.gcda"))
    # As JSON: its text also tells how often a call came back, and that wrongly.
    command = [GCOV, "--json-format", "--stdout", "--relative-only", "--source-prefix", str(ROOT)]
    done = subprocess.run([*command, *map(str, files)], cwd=ROOT, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"gcov: {done.stderr}")
    for file in files:
        file.unlink()
    return read_gcov(done.stdout)


def read_gcov(output: str) -> dict[str, dict[int, bool]]:
    """What gcov tells of the library's sources, each of which may be told of more than once."""
    hits: dict[str, dict[int, bool]] = {}
    for document in output.splitlines():
        for file in json.loads(document)["files"]:
            _, found, name = file["file"].partition(f"{LIBRARY}/")
            if found and name.endswith(".cpp"):
                lines = hits.setdefault(name, {})
                for line in file["lines"]:
                    number = line["line_number"]
                    # Not > 0: sums of counters of a process that was ended may be anything.
                    lines[number] = lines.get(number, False) or line["count"] != 0
    return hits


def _enter(found: Reached, suite: str, hits: dict[str, dict[int, bool]]) -> None:
    for file, lines in hits.items():
        entered = found.lines.setdefault(file, {})
        for number, ran in lines.items():
            suites = entered.setdefault(number, [])
            if ran:
                suites.append(suite)


def batches(found: Reached, suites: Iterable[str], seconds: float) -> list[list[str]]:
    """The suites in one or two runs, first the quick ones that together take so many seconds."""
    quick: list[str] = []
    slow: list[str] = []
    for suite in sorted(suites, key=lambda each: (found.suites[each], each)):
        taken = sum(found.suites[each] for each in quick)
        (quick if taken + found.suites[suite] <= seconds else slow).append(suite)
    return [each for each in (quick, slow) if each]
