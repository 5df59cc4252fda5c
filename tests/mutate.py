"""Breaks the library's sources one line at a time, and lists what no test sees.

    mutate.py [--seed N] [--count N] [FILE...]
    mutate.py --compare A.json B.json

Each mutant is a line of Utilities/CustomActions/Halvard_CA/**/*.cpp with one thing changed
(tests/mutants.py). It is compiled in a copy of the sources, without warnings, and linked with the
tests of ring wine, which hold those of ring core too; the suites that reach its line
(tests/reached.py) then run in a fresh prefix until one test fails. A mutant is killed when a test
fails, the program breaks off, or the suites take many times as long as usual. What does not compile
is counted, and the next mutant of the draw takes its place. A line that no suite reaches survives.

Ring msi reaches lines as well, but takes minutes for each mutant, so it is not asked; nor are the
ring's further runs in other time zones, and headers are not broken.

FILE is a source of the library, or its name below the library's folder; without one all are broken.
The results are in build/mutate/result.json. tests/mutants.toml names survivors that are judged
equivalent. The exit code is 1 when a survivor is not listed there, or something listed is killed or is
no mutant of the sources any more. --compare tells what survives in B and did not in A.
"""

import argparse
import json
import re
import shlex
import shutil
import subprocess
import sys
import threading
import time
from pathlib import Path
from typing import Callable, Mapping, Sequence

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))

import mutants  # noqa: E402
import progress  # noqa: E402
from coverage import BUILD as TEST_BUILD  # noqa: E402
from coverage import LIBRARY  # noqa: E402
from installer import confinement, ending, heap_check, paths, repeats  # noqa: E402
from installer.prefix import Prefix  # noqa: E402
from mutants import KILLED, NOT_REACHED, SURVIVED, Mutant  # noqa: E402
from reached import LANES, STARTED, Reached, Runner, batches, in_lanes, reached  # noqa: E402
from run_tests import WINE_OVERRIDES  # noqa: E402

OUTPUT = paths.BUILD / "mutate"
RESULT = OUTPUT / "result.json"
LISTED = ROOT / "tests/mutants.toml"
PROGRAM = "wine_tests.exe"
OBJECTS = "halvard_objects.dir"
COUNT, SEED = 150, 1
NO_TEST = "no test had begun"
NO_END = "no end"
# Seconds.
COMPILE_LIMIT = 300.0
QUICK = 5.0
START = 60.0
# How many times as long as usual the suites may take.
PATIENCE = 6.0


def main(arguments: Sequence[str]) -> int:
    parser = argparse.ArgumentParser(prog="./run mutate", description=__doc__.partition("\n")[0])
    parser.add_argument("--seed", type=int, default=SEED, help=f"of the draw, {SEED} by default")
    parser.add_argument("--count", type=int, default=COUNT, help=f"mutants, {COUNT} by default")
    parser.add_argument("--compare", nargs=2, metavar=("A.json", "B.json"), help="two results")
    parser.add_argument("files", nargs="*", metavar="FILE", help="sources of the library")
    options = parser.parse_args(arguments)
    if options.compare:
        return compare(*(paths.of_caller(name) for name in options.compare))
    if confinement.rights() == 0:
        print("mutants may delete anything: none is run that is not confined", file=sys.stderr)
        return 2
    sources = library_sources()
    try:
        names = [source_name(file, sources) for file in options.files] or list(sources)
    except ValueError as unknown:
        parser.error(str(unknown))
    listed = mutants.read_listed(LISTED)
    OUTPUT.mkdir(parents=True, exist_ok=True)
    draw = Draw(mutants.drawn({name: sources[name] for name in names}, options.seed), options.count)
    work = Work(sources, draw)
    try:
        work.run()
    finally:
        work.line.clear()
    results = sorted(work.results, key=lambda each: (each["file"], each["line"], each["kind"]))
    data = {"seed": options.seed, "count": options.count, "files": names}
    data |= {"not_compiled": sorted(map(str, draw.not_compiled)), "mutants": results}
    RESULT.write_text(json.dumps(data, indent=1) + "\n")
    return tell(results, len(draw.not_compiled), listed, mutants.all_of(sources))


def compare(before: Path, after: Path) -> int:
    lines = mutants.compared(json.loads(before.read_text()), json.loads(after.read_text()))
    print("\n".join([*lines, f"{len(lines)} survive that did not before"]))
    return 1 if lines else 0


def library_sources() -> dict[str, str]:
    folder = ROOT / LIBRARY
    files = sorted(folder.rglob("*.cpp"))
    return {str(file.relative_to(folder)): file.read_text() for file in files}


def source_name(file: str, sources: Mapping[str, str]) -> str:
    path = paths.of_caller(file).resolve()
    name = str(path.relative_to(ROOT / LIBRARY)) if path.is_relative_to(ROOT / LIBRARY) else ""
    for known in (file, name):
        if known in sources:
            return known
    raise ValueError(f"no source of the library: {file}")


def tell(
    results: Sequence[Mapping],
    not_compiled: int,
    listed: Sequence[Mapping],
    possible: Sequence[Mutant],
) -> int:
    """Prints what came of the mutants; the exit code."""
    unlisted, stale = mutants.judge(results, listed, possible)
    survived = mutants.survivors(results)
    for each in survived:
        note = "" if each in unlisted else " (listed)"
        print(f"{each['verdict']}: {mutants.told(each)}{note}")
    print("".join(f"{line}\n" for line in stale), end="")
    killed = len(results) - len(survived)
    counts = f"{killed} killed, {len(survived)} survived, {not_compiled} did not compile"
    print(f"{len(results)} mutants: {counts}")
    return 1 if unlisted or stale else 0


class Draw:
    """Gives mutants to lanes that ask, until enough of them have compiled. One is given only when
    those before it cannot be enough, so that the same are tried however fast the lanes are."""

    def __init__(self, order: Sequence[Mutant], count: int) -> None:
        self._waiting = list(reversed(order))
        self._left = count
        self._changed = threading.Condition()
        self._given = 0
        self.not_compiled: list[Mutant] = []

    def take(self, go_on: Callable[[], None]) -> Mutant | None:
        with self._changed:
            while self._waiting and self._given >= self._left and self._left > 0:
                go_on()
                self._changed.wait(0.5)
            if not self._waiting or self._left == 0:
                return None
            self._given += 1
            return self._waiting.pop()

    def compiled(self, mutant: Mutant, does: bool) -> None:
        with self._changed:
            self._given -= 1
            if does:
                self._left -= 1
            else:
                self.not_compiled.append(mutant)
            self._changed.notify_all()


class Work:
    """All lanes with what they share."""

    def __init__(self, sources: Mapping[str, str], draw: Draw) -> None:
        self.sources = sources
        self.draw = draw
        self.results: list[dict] = []
        self.runner = Runner()
        self.line = progress.Line()
        self.reached = Reached({}, {})

    def run(self) -> None:
        self.reached = reached(OUTPUT / "reached.json", self.runner, self.line.show)
        in_lanes(self._lane, self.runner)

    def _lane(self, number: int) -> None:
        lane = Lane(number, self.sources)
        lane.check(self.runner, self.reached, list(self.reached.suites)[number::LANES])
        while mutant := self.draw.take(self.runner.go_on):
            self.runner.go_on()
            start = time.monotonic()
            does = lane.compile(mutant)
            self.draw.compiled(mutant, does)
            if not does:
                continue
            suites = self.reached.by(mutant.file, self.sources[mutant.file], mutant.line)
            verdict, by = NOT_REACHED, ""
            if suites:
                lane.link(mutant.file)
                verdict, by = lane.judge(self.runner, self.reached, suites)
            seconds = round(time.monotonic() - start, 1)
            told = {"file": mutant.file, "line": mutant.line, "kind": mutant.kind}
            told |= {"before": mutant.before, "after": mutant.after}
            told |= {"occurrence": mutant.occurrence, "verdict": verdict, "by": by}
            self.results.append(told | {"suites": len(suites), "seconds": seconds})
            survived = len(mutants.survivors(self.results))
            self.line.show(f"{len(self.results)} mutants, {survived} survived")


class Lane:
    """A copy of the library's sources in which one mutant at a time is made, its test program, and
    the prefix in which that runs."""

    def __init__(self, number: int, sources: Mapping[str, str]) -> None:
        self._sources = sources
        self._folder = OUTPUT / f"lane-{number}"
        self._prefix = f"prefix-mutate-{number}"
        self._copy = self._folder / "library"
        self._object = self._folder / "mutant.obj"
        self._program = self._folder / "tests/wine" / PROGRAM
        self._log = self._folder / "log.txt"
        shutil.rmtree(self._folder, ignore_errors=True)
        shutil.copytree(ROOT / LIBRARY, self._copy)
        # What the tests look for beside their program.
        shutil.copytree(
            TEST_BUILD / "tests/support",
            self._folder / "tests/support",
            ignore=shutil.ignore_patterns("CMakeFiles", "*.a"),
        )
        self._program.parent.mkdir()
        self._compilations = compile_commands()
        self._link = link_command()

    def compile(self, mutant: Mutant) -> bool:
        source = self._copy / mutant.file
        command = [
            word.replace(str(ROOT / LIBRARY), str(self._copy))
            for word in self._compilations[mutant.file]
        ]
        command[command.index("-o") + 1] = str(self._object)
        source.write_text(mutant.applied(self._sources[mutant.file]))
        try:
            # Without warnings: what is no longer used is no error of a mutant.
            return _tool([*command, "-w"]).returncode == 0
        finally:
            source.write_text(self._sources[mutant.file])

    def link(self, broken: str = "") -> None:
        """Links the tests, with the mutant's object in place of that of the file named."""
        own = f"{OBJECTS}/{broken}.obj"
        command = [str(self._object) if word.endswith(own) else word for word in self._link]
        if broken and str(self._object) not in command:
            raise RuntimeError(f"{PROGRAM} is not linked from {own}")
        command[command.index("-o") + 1] = str(self._program)
        # Nobody debugs it, and so it is linked in two thirds of the time.
        done = _tool([*command, "-Wl,--strip-debug"])
        if done.returncode != 0:
            raise RuntimeError(f"{PROGRAM} cannot be linked: {done.stdout}")

    def check(self, runner: Runner, found: Reached, suites: Sequence[str]) -> None:
        """Sees that here nothing fails without a mutant."""
        self.link()
        verdict, by = self.judge(runner, found, suites)
        if verdict != SURVIVED:
            raise RuntimeError(f"fails without a mutant: {by} ({self._log})")

    def judge(self, runner: Runner, found: Reached, suites: Sequence[str]) -> tuple[str, str]:
        """Whether the suites see the mutant, and which test does."""
        by = self._seen_by(runner, found, suites)
        if by.startswith(f"{NO_TEST}: {NO_END}"):
            # The engine's own hang, before any code of the library had run.
            repeats.tell(by)
            by = self._seen_by(runner, found, suites)
        return (KILLED, by) if by else (SURVIVED, "")

    def _seen_by(self, runner: Runner, found: Reached, suites: Sequence[str]) -> str:
        environment = {"WINEDLLOVERRIDES": WINE_OVERRIDES}
        # A fresh one: what the last mutant left behind must not be seen.
        with Prefix(self._prefix, environment=environment) as prefix:
            heap_check.check_heap(prefix, PROGRAM, heap_check.MARKS)
            for batch in batches(found, suites, QUICK):
                limit = START + PATIENCE * sum(found.suites[suite] for suite in batch)
                names = ":".join(f"{suite}.*" for suite in batch)
                arguments = ["--gtest_fail_fast", f"--gtest_filter={names}"]
                program = paths.windows_path(self._program)
                ended = runner.run(prefix, program, arguments, self._log, limit)
                if by := seen_by(self._log.read_text(errors="replace"), ended):
                    return by
        return ""


def seen_by(log: str, ended: str) -> str:
    """Which test sees a mutant, and how if it is by more than a failure; empty when none does."""
    if ended == "exit code 0" and re.search(r"\[  PASSED  \] \d+ tests?\.", log):
        return ""
    if failed := re.search(r"\[  FAILED  \] ([^\s,]+).* \(\d+ ms\)$", log, re.M):
        return failed[1]
    begun = STARTED.findall(log)
    return f"{begun[-1] if begun else NO_TEST}: {ended}"


def compile_commands() -> dict[str, list[str]]:
    """The command for each source of the library, as the tests' own build has it."""
    commands = {}
    for entry in json.loads((TEST_BUILD / "compile_commands.json").read_text()):
        words = shlex.split(entry["command"])
        if any(f"/{OBJECTS}/" in word for word in words):
            commands[str(Path(entry["file"]).relative_to(ROOT / LIBRARY))] = words
    return commands


def link_command() -> list[str]:
    listed = _tool(["ninja", "-t", "compdb", "-x"])
    (command,) = (
        entry["command"]
        for entry in json.loads(listed.stdout)
        if entry["output"] == f"tests/wine/{PROGRAM}"
    )
    # Between the two empty commands of the build's rule.
    words = shlex.split(command.removeprefix(": && ").removesuffix(" && :"))
    return [word for word in words if not word.startswith("-Wl,--out-implib")]


def _tool(command: Sequence[str]) -> "subprocess.CompletedProcess[str]":
    return subprocess.run(
        command,
        cwd=TEST_BUILD,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=COMPILE_LIMIT,
    )


if __name__ == "__main__":
    sys.exit(ending.orderly(lambda: main(sys.argv[1:])))
