"""Runs the fuzzers with fresh seeds, for as long as somebody likes.

    fuzz.py list
    fuzz.py TARGET [SECONDS]
    fuzz.py all MINUTES

A target is a source fuzz_TARGET.cpp of tests/core/fuzz (native, guided by libFuzzer) or of
tests/wine/fuzz (in a Wine prefix, by chance). `all` gives each the same share of the time. What
the native ones come upon on the way stays in build/fuzz/TARGET, and the next run goes on from there;
an input that breaks something is kept in build/fuzz/found. The last line tells how many inputs
there were, and the exit code is 1 when something was found.
"""

import os
import random
import re
import shutil
import subprocess
import sys
import time
from contextlib import nullcontext
from dataclasses import dataclass, field
from pathlib import Path
from typing import Mapping

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))

import progress  # noqa: E402
from installer import ending, repeats  # noqa: E402
from installer.paths import BUILD  # noqa: E402
from installer.prefix import Prefix  # noqa: E402

NATIVE, WINE = ROOT / "tests/core/fuzz", ROOT / "tests/wine/fuzz"
KEPT = BUILD / "fuzz"
FOUND = KEPT / "found"
PREFIX = "prefix-fuzz"
# No seed is longer, in bytes.
LONGEST_INPUT = 160
# Of a fuzzer alone, in seconds, and how much longer than its time one may take to come to its end.
USUAL_TIME = 600
GRACE = 120.0
# Freed blocks that are held back from use: what such a fuzzer frees is small, and a store of the
# usual size costs two thirds of its time.
SANITIZER_OPTIONS = "quarantine_size_mb=8:malloc_context_size=4"
SEED_LIMIT = 2**31
# Seconds of one input from which on libFuzzer keeps it as if it were a finding; a machine that stands
# still for a while is none.
SLOW_INPUT = 100


@dataclass(frozen=True)
class Fuzzer:
    name: str
    sources: Path

    @property
    def is_native(self) -> bool:
        return self.sources == NATIVE

    @property
    def seeds(self) -> Path:
        return self.sources / "corpus" / self.name


@dataclass(frozen=True)
class Limits:
    """The end of a run; 0 stands for no limit. `seconds` are whole."""

    runs: int = 0
    seconds: int = 0
    seed: int = 1


@dataclass
class Result:
    """What came of a run: its inputs, the seconds that it took and the files of what was found.
    `problem` is its output where it did not come to its end."""

    fuzzer: Fuzzer
    inputs: int = 0
    seconds: float = 0.0
    found: list[Path] = field(default_factory=list)
    problem: str = ""


def main(arguments: list[str]) -> int:
    if arguments == ["list"]:
        print("\n".join(fuzzer.name for fuzzer in fuzzers()))
        return 0
    try:
        chosen, seconds = read_arguments(arguments)
    except ValueError:
        print(__doc__, file=sys.stderr)
        return 2
    for folder in (KEPT, FOUND):
        folder.mkdir(parents=True, exist_ok=True)
    needs_prefix = not all(fuzzer.is_native for fuzzer in chosen)
    with Prefix(PREFIX, results=[FOUND, KEPT]) if needs_prefix else nullcontext() as prefix:
        results = [search(fuzzer, seconds, prefix) for fuzzer in chosen]
    print(closing_line(results))
    return 1 if any(result.found or result.problem for result in results) else 0


def fuzzers() -> list[Fuzzer]:
    """All there are, by their sources."""
    files = [file for folder in (NATIVE, WINE) for file in sorted(folder.glob("fuzz_*.cpp"))]
    return [Fuzzer(file.stem.removeprefix("fuzz_"), file.parent) for file in files]


def read_arguments(arguments: list[str]) -> tuple[list[Fuzzer], int]:
    """Which fuzzers are to run, and for how many seconds each. ValueError when they say no such
    thing."""
    known = fuzzers()
    target, *times = arguments or [""]
    if len(times) > 1 or not all(each.isdecimal() and int(each) > 0 for each in times):
        raise ValueError(arguments)
    if target == "all" and times:
        return known, max(1, int(times[0]) * 60 // len(known))
    chosen = [fuzzer for fuzzer in known if fuzzer.name == target]
    if not chosen:
        raise ValueError(target)
    return chosen, int(times[0]) if times else USUAL_TIME


def search(fuzzer: Fuzzer, seconds: int, prefix: Prefix | None) -> Result:
    """Runs one fuzzer with a fresh seed, and tells what came of it."""
    log = KEPT / f"{fuzzer.name}.txt"
    limits = Limits(seconds=seconds, seed=random.randrange(1, SEED_LIMIT))
    with progress.shown(lambda: f"{fuzzer.name}, {inputs_in(log)} inputs"):
        result = run(fuzzer, limits, log, FOUND, KEPT / fuzzer.name, prefix)
    print(
        f"{fuzzer.name:20} {result.inputs:>12,} inputs {result.seconds:>6.0f} s "
        f"{len(result.found):>3} found, seed {limits.seed}",
        flush=True,
    )
    for file in result.found:
        shown, output, seeds = (os.path.relpath(each, ROOT) for each in (file, log, fuzzer.seeds))
        print(f"   {shown}, see {output}")
        print(f"   keep it with: cp {shown} {seeds}/NAME")
    if result.problem:
        print(result.problem[-4000:])
    return result


def run(
    fuzzer: Fuzzer,
    limits: Limits,
    log: Path,
    found: Path,
    grown: Path,
    prefix: Prefix | None = None,
    suffix: str = "",
    environment: Mapping[str, str] | None = None,
) -> Result:
    """Runs a fuzzer, or with a suffix a program of it, to its end. New inputs that reach more go to
    `grown`, what breaks something to `found`, and the output to `log`."""
    for folder in (found, grown):
        folder.mkdir(parents=True, exist_ok=True)
    before = set(found.iterdir())
    start = time.monotonic()

    def to_its_end() -> str:
        with open(log, "wb") as output:
            process = begin(fuzzer, limits, found, grown, prefix, suffix, environment or {}, output)
            limit = (limits.seconds or USUAL_TIME) + GRACE
            try:
                return f"exit code {process.wait(limit)}"
            except subprocess.TimeoutExpired:
                return f"no end within {limit:g} s"
            finally:
                process.kill()
                process.wait()

    ended = to_its_end()
    if ended.startswith("no end") and log.stat().st_size == 0:
        repeats.tell(f"{fuzzer.name} did not say a word")
        ended = to_its_end()
    text = log.read_text(errors="replace")
    new = sorted(file for file in set(found.iterdir()) - before if f"{fuzzer.name}-" in file.name)
    done = re.search(r"^#(\d+)\s+DONE", text, re.MULTILINE)
    good = ended == "exit code 0" and done is not None and not new
    return Result(
        fuzzer,
        inputs=int(done[1]) if done else inputs_in(log),
        seconds=time.monotonic() - start,
        found=new,
        problem="" if good else f"{text}\n{fuzzer.name}: {ended}",
    )


def begin(
    fuzzer: Fuzzer,
    limits: Limits,
    found: Path,
    grown: Path,
    prefix: Prefix | None,
    suffix: str,
    environment: Mapping[str, str],
    output,
) -> "subprocess.Popen[bytes]":
    options = [f"-seed={limits.seed}", f"-max_len={LONGEST_INPUT}"]
    options += [f"-runs={limits.runs}"] if limits.runs else []
    options += [f"-max_total_time={limits.seconds}"] if limits.seconds else []
    program = f"fuzz_{fuzzer.name}{suffix}"
    if fuzzer.is_native:
        return subprocess.Popen(
            [
                str(BUILD / "native/tests/core" / program),
                *options,
                f"-report_slow_units={SLOW_INPUT}",
                f"-artifact_prefix={found}/{fuzzer.name}-",
                # Where there are several, new inputs go to the first.
                str(grown),
                str(fuzzer.seeds),
            ],
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=subprocess.STDOUT,
            env=os.environ | {"ASAN_OPTIONS": SANITIZER_OPTIONS} | dict(environment),
        )
    # The prefix does not see the sources.
    shutil.rmtree(grown)
    shutil.copytree(fuzzer.seeds, grown)
    return prefix.start(
        rf"b:\mingw-test\tests\wine\{program}.exe",
        *options,
        f"-artifact_prefix={seen_from_inside(found)}\\{fuzzer.name}-",
        seen_from_inside(grown),
        stdout=output,
        stderr=subprocess.STDOUT,
        environment=environment,
    )


def seen_from_inside(folder: Path) -> str:
    """What a folder below the build folder is called in a prefix."""
    return "b:\\" + str(folder.relative_to(BUILD)).replace("/", "\\")


def inputs_in(log: Path) -> int:
    """How many inputs a log tells of, so far."""
    told = re.findall(r"^#(\d+)\s", log.read_text(errors="replace"), re.MULTILINE)
    return int(told[-1]) if told else 0


def closing_line(results: list[Result]) -> str:
    counts = ", ".join(f"{result.fuzzer.name} {result.inputs:,}" for result in results)
    total = sum(result.inputs for result in results)
    found = sum(len(result.found) for result in results)
    failed = sum(1 for result in results if result.problem and not result.found)
    line = f"fuzz: {total:,} inputs ({counts}), {found} found"
    return line + (f", {failed} did not come to an end" if failed else "")


if __name__ == "__main__":
    sys.exit(ending.orderly(lambda: main(sys.argv[1:])))
