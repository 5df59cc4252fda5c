"""Runs the test rings and closes with one line 'N passed, N failed, N skipped' over all of them.

    run_tests.py [--no-skips] [RING] [-- ARGUMENT...]

RING is core, wine, msi, build or time; without one all run at once, but for time, which runs by
itself when the others have ended. The arguments go to the ring's own runner: GoogleTest for core,
wine and time (--gtest_filter=...), pytest for msi and build (-k ...). What the rings run must have
been built. With --no-skips a test that was skipped counts as failed.

A ring asks its program which tests it has, and one of them that was not run is a failure. Behind
the numbers the last line tells how often something was repeated because the engine had hung or
ended before it did anything.
"""

import contextlib
import io
import math
import os
import re
import signal
import subprocess
import sys
import threading
import time
import xml.etree.ElementTree as ElementTree
from concurrent.futures import ThreadPoolExecutor, as_completed
from contextlib import contextmanager, nullcontext, suppress
from dataclasses import dataclass, field
from functools import partial
from pathlib import Path
from typing import Callable, Iterator, Mapping, Sequence

ROOT = Path(__file__).resolve().parents[1]
BUILD = ROOT / "build"
RESULTS = BUILD / "test-results"
FUZZED, GROWN = RESULTS / "fuzz", RESULTS / "fuzz-grown"
sys.path[:0] = [str(ROOT / "tests"), str(ROOT / "tools")]

import fuzz  # noqa: E402
import progress  # noqa: E402
import sweep  # noqa: E402
from fuzz import Fuzzer  # noqa: E402
from installer import ending, heap_check, repeats  # noqa: E402
from installer.prefix import Prefix  # noqa: E402

NO_SKIPS = "--no-skips"
# For a ring that runs beside others: what it prints is read by the process that began it.
PART = "--part"
LIST_TESTS = "--gtest_list_tests"
# It tells where a test is that takes longer than 300 seconds.
PYTEST = [sys.executable, "-B", "-m", "pytest", "-p", "no:cacheprovider"]
PYTEST += ["-o", "faulthandler_timeout=300"]
# A letter for each test that has ended, in lines that begin with the file's name or run on.
PYTEST_LETTERS = re.compile(r"^(?:tests/\S+ )?([.FEsxX]+)(?: +\[ *\d+%\])?$", re.MULTILINE)
# Plug-ins that happen to be on a machine change nothing.
PYTEST_ENVIRONMENT = {"NO_COLOR": "1", "COLUMNS": "100", "PYTEST_DISABLE_PLUGIN_AUTOLOAD": "1"}

# What ends the run of a fuzzer over a fixed sequence of inputs, and the least number of them, which
# a machine that is too slow for it comes to without a limit of time.
FUZZ_LIMITS = fuzz.Limits(runs=200_000, seconds=2)
FUZZ_LEAST = 200
# A planted fault comes sooner or later.
FUZZ_CANARY_LIMITS = fuzz.Limits(runs=200_000)
# Faults that are planted to see that they are reported, and what the report of each says.
CORE_CANARIES = {
    "WritesBehindABlock": "ERROR: AddressSanitizer: heap-buffer-overflow",
    "WritesIntoAFreeBlock": "ERROR: AddressSanitizer: heap-use-after-free",
    "ShiftsTooFar": "runtime error: shift exponent 40 is too large",
    "OverflowsAnInt": "runtime error: signed integer overflow",
}
OUTSIDE_A_BLOCK = "memory was written outside a block"
UNDEFINED_ARITHMETIC = "ERROR: arithmetic that is not defined"
WINE_CANARIES = {
    "WritesBehindABlock": OUTSIDE_A_BLOCK,
    "WritesBehindABlockOfTheSystem": OUTSIDE_A_BLOCK,
    "WritesBehindABlockOfTheRunTime": OUTSIDE_A_BLOCK,
    "WritesIntoAFreeBlock": OUTSIDE_A_BLOCK,
    "ShiftsTooFar": UNDEFINED_ARITHMETIC,
    "OverflowsAnInt": UNDEFINED_ARITHMETIC,
}
FUZZ_CANARIES = {
    "overflow": "ERROR: AddressSanitizer: heap-buffer-overflow",
    "property": "ERROR: libFuzzer: deadly signal",
}
WINE_FUZZ_CANARIES = {
    "property": "ERROR: a property does not hold",
    "write": f"ERROR: {OUTSIDE_A_BLOCK}",
    "arithmetic": UNDEFINED_ARITHMETIC,
    "abort": "ERROR: an abort",
    "exception": "ERROR: an exception that nothing catches",
}
# Seconds without output, while one test is at work: the engine's debugger may take long to report a
# planted fault.
TEST_SILENCE = 300.0
# Seconds.
PROGRAM_LIMIT = PYTEST_LIMIT = 1800.0
# Programs of the system folder that copies of the recorder may stand in for.
RECORDED = ("icacls", "powershell", "regsvr32", "schtasks", "taskkill")
WINE_OVERRIDES = "mscoree,mshtml,winemenubuilder.exe=;" + ";".join(
    f"{name}.exe=n,b" for name in RECORDED
)
# What one ring closes with is said again over all rings.
CLOSING_LINES = re.compile(
    r"^((FAILED, repeat with|SKIPPED): .*|\d+ passed, \d+ failed, .*)\n", re.MULTILINE
)
# What looks at the local time is run once more as on machines in other zones than this one: east
# and west of the meridian, with and without daylight-saving time, on the half and quarter hour.
ZONES = ("NPT-5:45", "NST3:30NDT,M3.2.0,M11.1.0")
TESTS_OF_ZONES = "--gtest_filter=*Midnight*:*StartBoundary*"
# Ring msi in parts of about the same time, each by what takes the longest in it, and what is not
# named as the last. The names end those of a part's files. No part uses a prefix of another.
MSI_PARTS = {
    "-scenarios": ("test_scenarios.py",),
    "-runner": ("test_check.py", "test_engines.py", "test_runner.py"),
    "-trace": ("test_heap.py", "test_removal_race.py", "test_trace.py"),
}
MSI_REST = "-rest"
PARTS_THAT_TELL = ("", *MSI_PARTS, MSI_REST)
# Not run by a ring: another test starts it as a program beside itself.
STARTED_BY_TESTS = {"AgentInstallation.DISABLED_SetsUpTheAgent"}
# Seconds.
LISTING_SILENCE = 60.0
LISTING_LIMIT = 60.0
ENDING_LIMIT = 60.0
PROGRESS_POLL = 0.5


@dataclass
class Outcome:
    """What came of tests: `failed` are the commands that repeat them, `skipped` their names, and
    `repeated` is how often a hung engine had to be given a second try."""

    passed: int = 0
    failed: list[str] = field(default_factory=list)
    skipped: list[str] = field(default_factory=list)
    repeated: int = 0

    def add(self, other: "Outcome") -> None:
        self.passed += other.passed
        self.failed += other.failed
        self.skipped += other.skipped
        self.repeated += other.repeated

    @property
    def reached(self) -> int:
        return self.passed + len(self.failed) + len(self.skipped)

    def closing_line(self) -> str:
        line = f"{self.passed} passed, {len(self.failed)} failed, {len(self.skipped)} skipped"
        return line + repeats.behind(self.repeated)


def main(arguments: list[str]) -> int:
    own, passed_on = _partition(arguments)
    switches = [each for each in own if each in (NO_SKIPS, PART)]
    rings = [each for each in own if each not in switches]
    if len(rings) > 1 or (rings and rings[0] not in RINGS):
        print(__doc__, file=sys.stderr)
        return 2
    if passed_on and not rings:
        print("arguments behind -- need the ring that they are for", file=sys.stderr)
        return 2

    RESULTS.mkdir(parents=True, exist_ok=True)
    with progress_of(rings or list(RINGS), shown=PART not in switches):
        total = _run_ring(rings[0], passed_on) if rings else _run_all()
    for repeat in total.failed:
        print(f"FAILED, repeat with: {repeat}")
    for name in total.skipped:
        print(f"SKIPPED: {name}")
    if total.reached == 0:
        print("no test matches", file=sys.stderr)
        return 2
    print(total.closing_line())
    return 1 if total.failed or (total.skipped and NO_SKIPS in switches) else 0


def _run_all() -> Outcome:
    total = Outcome()
    running: list[subprocess.Popen[bytes]] = []
    pool = ThreadPoolExecutor(len(TOGETHER))
    try:
        for outcome in pool.map(lambda ring: _run_in_own_process(ring, running), TOGETHER):
            total.add(outcome)
        total.add(_run_in_own_process("time", running))
    finally:
        pool.shutdown(wait=False)
        for process in running:
            process.terminate()
            process.wait()
    return total


def _run_in_own_process(name: str, running: list[subprocess.Popen[bytes]]) -> Outcome:
    """Runs one ring in a process of its own and shows what it printed when it has ended."""
    log = RESULTS / f"ring-{name}.txt"
    with open(log, "wb") as output:
        process = subprocess.Popen(
            [sys.executable, "-B", __file__, PART, name], stdout=output, stderr=subprocess.STDOUT
        )
        running.append(process)
        code = process.wait()
    text = log.read_text(errors="replace")
    outcome = read_ring_log(name, text, code)
    print(CLOSING_LINES.sub("", text), end="", flush=True)
    return outcome


def read_ring_log(name: str, log: str, code: int) -> Outcome:
    """Reads what `main` printed for one ring; `code` is its exit code."""
    last = re.search(
        r"^(\d+) passed, (\d+) failed, (\d+) skipped(?:; (\d+) repeated)?\n\Z", log, re.MULTILINE
    )
    outcome = Outcome(
        failed=re.findall(r"^FAILED, repeat with: (.*)$", log, re.MULTILINE),
        skipped=re.findall(r"^SKIPPED: (.*)$", log, re.MULTILINE),
    )
    expected_code = 1 if outcome.failed else 0
    if last is not None:
        outcome.passed, outcome.repeated = int(last[1]), int(last[4] or 0)
    if last is None or last[0] != f"{outcome.closing_line()}\n" or code != expected_code:
        outcome.failed.append(f"./run test {name}")
    return outcome


def _run_ring(name: str, arguments: list[str]) -> Outcome:
    print(f"== {name}", flush=True)
    start = time.monotonic()
    with repeats.counted(RESULTS / f"repeated-{name}.txt") as repeated:
        try:
            outcome = RINGS[name](arguments)
        except (RuntimeError, OSError, subprocess.TimeoutExpired) as error:
            print(f"ring {name} could not be run: {error}")
            outcome = Outcome(failed=[f"./run test {name}"])
        outcome.repeated = repeated()
    if not arguments and outcome.reached == 0:
        print(f"ring {name} has no test")
        outcome.failed.append(f"./run test {name}")
    for reason in repeats.reasons(RESULTS / f"repeated-{name}.txt"):
        print(f"   once more: {reason}")
    duration = time.monotonic() - start
    print(f"   {outcome.closing_line()}, {duration:.0f} s", flush=True)
    return outcome


@contextmanager
def progress_of(rings: Sequence[str], shown: bool) -> Iterator[None]:
    """Shows how many of their tests rings have run, for the length of a `with` block."""
    parts = [(ring, part) for ring in rings for part in PARTS_THAT_TELL]
    for each in parts:
        progress_file(*each).unlink(missing_ok=True)

    def told() -> str:
        begun = [each for each in parts if progress_file(*each).exists()]
        lines = [f"{ring}{part} {_text(progress_file(ring, part))}" for ring, part in begun]
        return ", ".join(lines) or "begun"

    with progress.shown(told) if shown else nullcontext():
        yield


def progress_file(ring: str, part: str = "") -> Path:
    """Where a ring, or a part of it, writes how far it is, as '12 of 300'."""
    return RESULTS / f"progress-{ring}{part}.txt"


def run_core(arguments: list[str]) -> Outcome:
    tests = BUILD / "native/tests/core"
    outcome = _google_tests("core", [str(tests / "core_tests"), *arguments])
    if not arguments:
        outcome.add(_fuzzers("core", FUZZ_CANARIES))
        outcome.add(_google_canaries("core", str(tests / "core_canaries"), CORE_CANARIES))
    return outcome


def run_wine(arguments: list[str]) -> Outcome:
    outcome = wine_tests("wine", "wine_tests", arguments, check_heap=True)
    if not arguments:
        with Prefix(fuzz.PREFIX, results=[_folder(FUZZED), _folder(GROWN)]) as prefix:
            outcome.add(_fuzzers("wine", WINE_FUZZ_CANARIES, prefix))
        outcome.add(_first_failures())
        outcome.add(_sweep_canaries())
    return outcome


def _first_failures() -> Outcome:
    """Each scene of the sweep, with only the first call of each function failing."""
    subject = sweep.shipped()
    outcome = Outcome()
    for row in sweep.sweep(subject, subject.table.scenes, first=True):
        if row.findings:
            print("\n".join(f"{row.scene}: {finding}" for finding in row.findings), flush=True)
            outcome.failed.append(f"./run sweep --first '{row.scene}'")
        else:
            outcome.passed += 1
    return outcome


def _sweep_canaries() -> Outcome:
    """The sweep of a library of planted faults, each of which it has to find."""
    subject = sweep.canaries()
    rows = sweep.sweep(subject, subject.table.scenes, first=True, name="prefix-sweep-canaries")
    missed = sweep.missed_faults(rows)
    for scene, told in missed.items():
        print(f"{scene}: {told}", flush=True)
    return Outcome(len(rows) - len(missed), [repeat_of("wine", f"sweep of {each}") for each in missed])


def repeat_of(ring: str, what: str) -> str:
    """The command that repeats what can only be run with its ring."""
    return f"./run test {ring} # {what}"


def run_time(arguments: list[str]) -> Outcome:
    return wine_tests("time", "wine_time_tests", arguments, check_heap=False)


def wine_tests(
    ring: str,
    program: str,
    arguments: list[str],
    check_heap: bool,
    environment: Mapping[str, str] | None = None,
    results: Sequence[Path] = (),
) -> Outcome:
    """Runs a GoogleTest program in a prefix named after it. The environment is an addition, and
    `results` are folders that the program may change too."""
    environment = {"WINEDLLOVERRIDES": WINE_OVERRIDES} | dict(environment or {})
    command = [rf"b:\mingw-test\tests\wine\{program}.exe"]
    with Prefix(f"prefix-{program}", environment=environment, results=results) as prefix:

        def start(command: Sequence[str], **options) -> "subprocess.Popen[bytes]":
            return prefix.start(*command, **options)

        if check_heap:
            heap_check.check_heap(prefix, f"{program}.exe", heap_check.MARKS)
        outcome = _google_tests(ring, [*command, *arguments], start)
        if program == "wine_tests" and not arguments:
            for number, zone in enumerate(ZONES):
                in_zone = partial(start, environment={"TZ": zone})
                of_zone = [*command, TESTS_OF_ZONES]
                in_this = _google_tests(ring, of_zone, in_zone, part=f"-zone-{number}")
                if in_this.reached == 0:
                    in_this.failed.append(f"./run test {ring}")
                outcome.add(in_this)
            outcome.add(_wine_canaries(prefix, start))
    return outcome


def _wine_canaries(prefix: Prefix, start: Callable[..., "subprocess.Popen[bytes]"]) -> Outcome:
    heap_check.check_heap(prefix, "wine_canaries.exe", heap_check.MARKS)
    program = r"b:\mingw-test\tests\wine\wine_canaries.exe"
    return _google_canaries("wine", program, WINE_CANARIES, start)


def run_msi(arguments: list[str]) -> Outcome:
    if arguments:
        return _pytest("msi", ["tests/msi", *arguments])
    parts = {part: [f"tests/msi/{name}" for name in names] for part, names in MSI_PARTS.items()}
    elsewhere = [f"--ignore={test}" for tests in parts.values() for test in tests]
    parts[MSI_REST] = ["tests/msi", *elsewhere]
    outcome = Outcome()
    interrupted = threading.Event()
    # Its end waits for all.
    with ThreadPoolExecutor(len(parts)) as pool:
        try:
            running = [
                pool.submit(_pytest, "msi", tests, part, interrupted)
                for part, tests in parts.items()
            ]
            for part in as_completed(running):
                outcome.add(part.result())
        except BaseException:
            interrupted.set()
            raise
    return outcome


def run_build(arguments: list[str]) -> Outcome:
    return _pytest("build", ["tests/build", *arguments])


def _partition(arguments: list[str]) -> tuple[list[str], list[str]]:
    """The own arguments, and those behind -- for a ring's runner."""
    if "--" not in arguments:
        return arguments, []
    split = arguments.index("--")
    return arguments[:split], arguments[split + 1 :]


def _google_tests(
    ring: str,
    command: list[str],
    start=subprocess.Popen,
    part: str = "",
) -> Outcome:
    """Runs a GoogleTest program, shows the failed tests and counts from its lines, so that a
    program which crashes or hangs half-way is counted too. A part of a ring has files of its own
    for what it prints."""
    listing = RESULTS / f"{ring}{part}-tests.txt"
    ended = run_aloud([*command, LIST_TESTS], listing, start, LISTING_SILENCE)
    if ended != "exit code 0":
        raise RuntimeError(f"it does not list its tests ({ended}): {_text(listing)}")
    listed = read_google_test_list(_text(listing))
    log = google_test_log(ring, part)

    def tell() -> None:
        # The parts of a ring are quick.
        if part:
            return
        done = len(re.findall(r"^\[ RUN      \]", _text(log), re.MULTILINE))
        progress_file(ring).write_text(f"{done} of {len(listed)}")

    ended = run_aloud(command, log, start, TEST_SILENCE, tell)
    for reason in re.findall(r"^once more: (.*)$", _text(log), re.MULTILINE):
        repeats.tell(reason)
    return read_google_test_log(ring, _text(log), ended, listed)


def google_test_log(ring: str, part: str = "") -> Path:
    return RESULTS / f"{ring}{part}-output.txt"


def run_to_file(
    command: list[str],
    file: Path,
    start: Callable[..., "subprocess.Popen[bytes]"],
    limit: float,
    tell: Callable[[], None] = lambda: None,
    silence: float = math.inf,
) -> str:
    """Runs a program with its output in a file and says how it ended. `limit` and `silence` are in
    seconds: in all, and without output."""
    now = time.monotonic
    # A file and not a pipe: what a test leaves running would hold a pipe open.
    with open(file, "wb") as output:
        process = start(command, stdout=output)
        begin = heard = now()
        size = 0
        try:
            while now() < begin + limit and now() < heard + silence:
                with suppress(subprocess.TimeoutExpired):
                    return f"exit code {process.wait(PROGRESS_POLL)}"
                tell()
                if file.stat().st_size != size:
                    size, heard = file.stat().st_size, now()
            if now() < begin + limit:
                return f"silent for {silence:g} s"
            return f"no end within {limit:g} s"
        finally:
            process.kill()
            process.wait()


def run_aloud(
    command: list[str],
    file: Path,
    start: Callable[..., "subprocess.Popen[bytes]"],
    silence: float,
    tell: Callable[[], None] = lambda: None,
) -> str:
    """The same for a program that begins with a word, and is started once more where it does not."""
    ended = run_to_file(command, file, start, PROGRAM_LIMIT, tell, silence)
    if not ended.startswith("exit code") and not _text(file):
        repeats.tell(f"{command[0]} did not say a word")
        ended = run_to_file(command, file, start, PROGRAM_LIMIT, tell, silence)
    return ended


def _text(file: Path) -> str:
    return file.read_text(errors="replace")


def read_google_test_list(listing: str) -> set[str]:
    """The tests that a program names with --gtest_list_tests, those that are switched off too."""
    tests: set[str] = set()
    suite = ""
    for line in listing.splitlines():
        name = line.partition("#")[0].rstrip()
        if line.startswith("  "):
            tests.add(suite + name.strip())
        elif name.endswith("."):
            suite = name
    return tests


def read_google_test_log(ring: str, log: str, ended: str, listed: set[str]) -> Outcome:
    """Counts the tests of a GoogleTest log; `ended` tells how the program did, `listed` are the
    tests that it has to run."""
    outcome = Outcome()
    reached: set[str] = set()
    test, text, announced, complete = "", [], 0, False
    for line in log.splitlines():
        # Not only at the start of a line: what a test prints need not end with one.
        if begun := re.search(r"\[ RUN      \] (\S+)$", line):
            test, text = begun[1], []
            reached.add(test)
        elif test and re.search(r"\[       OK \] \S+.* \(\d+ ms\)$", line):
            outcome.passed += 1
            test = ""
        elif test and re.search(r"\[  SKIPPED \] \S+.* \(\d+ ms\)$", line):
            outcome.skipped.append(test)
            test = ""
        elif test and re.search(r"\[  FAILED  \] \S+.* \(\d+ ms\)$", line):
            print("\n".join(text), flush=True)
            outcome.failed.append(f"./run test {ring} -- --gtest_filter={test}")
            test = ""
        elif count := re.match(r"\[==========\] Running (\d+) tests? from", line):
            announced = int(count[1])
        elif re.match(r"\[==========\] \d+ tests? from .* ran\.", line):
            complete = True
        else:
            text.append(line)
    good_end = ended == ("exit code 1" if outcome.failed else "exit code 0")
    if test or not complete or outcome.reached != announced or not good_end:
        print("\n".join(text[-40:]))
        print(f"{outcome.reached} of {announced} tests reached, {ended}, in {test or 'no test'}")
        outcome.failed.append(f"./run test {ring} -- --gtest_filter={test or '*'}")
    elif left_out := sorted(listed - reached - STARTED_BY_TESTS):
        print(f"{len(left_out)} tests were not run: {', '.join(left_out)}")
        outcome.failed += [f"./run test {ring} -- --gtest_filter={name}" for name in left_out]
    return outcome


def _google_canaries(
    ring: str, program: str, reports: dict[str, str], start=subprocess.Popen
) -> Outcome:
    """Runs each planted fault as the tests of the ring are run. It passes when that run has failed
    and shows the report."""
    outcome = Outcome()
    for name, report in reports.items():
        part = f"-canary-{name}"
        shown = io.StringIO()
        with contextlib.redirect_stdout(shown):
            judged = _google_tests(
                ring,
                [program, f"--gtest_filter=Canary.{name}"],
                start=lambda command, **options: start(
                    command, stderr=subprocess.STDOUT, **options
                ),
                part=part,
            )
        text = _text(google_test_log(ring, part)) + shown.getvalue()
        outcome.add(judge_canary(f"{ring} {name}", bool(judged.failed), text, report))
    return outcome


def judge_canary(name: str, has_failed: bool, text: str, report: str) -> Outcome:
    """A planted fault passes when its run has failed and the output `text` has the report. `name`
    begins with that of the ring."""
    if has_failed and report in text:
        return Outcome(passed=1)
    print(text[-4000:])
    print(f"canary {name}: the planted fault is not reported as '{report}'")
    return Outcome(failed=[repeat_of(*name.split(maxsplit=1))])


def _fuzzers(ring: str, canaries: Mapping[str, str], prefix: Prefix | None = None) -> Outcome:
    """Runs the fuzzers of a ring, and each with planted faults."""
    outcome = Outcome()
    for fuzzer in fuzz.fuzzers():
        if fuzzer.is_native == (prefix is None):
            outcome.add(_fuzz(ring, fuzzer, prefix))
            outcome.add(_fuzz_canaries(ring, fuzzer, canaries, prefix))
    return outcome


def _fuzz(ring: str, fuzzer: Fuzzer, prefix: Prefix | None) -> Outcome:
    """One run of a fuzzer over a fixed sequence of inputs, beginning with the seeds that are kept."""
    result = _run_fuzzer(fuzzer, FUZZ_LIMITS, prefix)
    if not result.problem and result.inputs < FUZZ_LEAST:
        result = _run_fuzzer(fuzzer, fuzz.Limits(runs=FUZZ_LEAST), prefix)
    return judge_fuzzer(ring, result)


def judge_fuzzer(ring: str, result: fuzz.Result) -> Outcome:
    if not result.problem and result.inputs >= FUZZ_LEAST:
        return Outcome(passed=1)
    print(result.problem[-4000:])
    print(f"fuzz_{result.fuzzer.name}: {result.inputs} inputs, found {result.found}")
    return Outcome(failed=[repeat_of(ring, f"fuzz_{result.fuzzer.name}")])


def _fuzz_canaries(
    ring: str, fuzzer: Fuzzer, canaries: Mapping[str, str], prefix: Prefix | None
) -> Outcome:
    """The same run with faults in some inputs, which the fuzzer has to make itself and to keep."""
    outcome = Outcome()
    for fault, report in canaries.items():
        result = _run_fuzzer(
            fuzzer, FUZZ_CANARY_LIMITS, prefix, "_canary", {"HALVARD_CANARY": fault}
        )
        made = re.search(r"^#\d+\s+INITED", result.problem, re.MULTILINE) is not None
        name = f"{ring} fuzz_{fuzzer.name} {fault}"
        outcome.add(judge_canary(name, made and bool(result.found), result.problem, report))
    return outcome


def _run_fuzzer(
    fuzzer: Fuzzer,
    limits: fuzz.Limits,
    prefix: Prefix | None,
    suffix: str = "",
    environment: Mapping[str, str] | None = None,
) -> fuzz.Result:
    program = f"{fuzzer.name}{suffix}"
    found, grown = _folder(FUZZED / program), _folder(GROWN / program)
    _empty(found)
    _empty(grown)
    log = RESULTS / f"fuzz-{program}.txt"
    return fuzz.run(fuzzer, limits, log, found, grown, prefix, suffix, environment)


def _folder(folder: Path) -> Path:
    folder.mkdir(parents=True, exist_ok=True)
    return folder


def _empty(folder: Path) -> None:
    for file in folder.iterdir():
        file.unlink()


def _pytest(
    ring: str, tests: list[str], part: str = "", interrupted: threading.Event | None = None
) -> Outcome:
    """Runs tests of a ring; a part of a ring has files of its own for what it prints. Whoever sets
    `interrupted` has no use for the outcome."""
    interrupted = interrupted or threading.Event()
    listed = _pytest_list(tests)
    if interrupted.is_set():
        # A program started now would not heed the signal that interrupts it.
        return Outcome()
    report, log = RESULTS / f"{ring}{part}.xml", RESULTS / f"{ring}{part}-output.txt"
    report.unlink(missing_ok=True)
    with open(log, "wb") as output:
        pytest = subprocess.Popen(
            pytest_command(report, tests),
            cwd=ROOT,
            env=os.environ | PYTEST_ENVIRONMENT,
            stdout=output,
            stderr=subprocess.STDOUT,
        )
        end = time.monotonic() + PYTEST_LIMIT
        try:
            while pytest.poll() is None and time.monotonic() < end:
                if interrupted.wait(PROGRESS_POLL):
                    break
                progress_file(ring, part).write_text(f"{pytest_done(_text(log))} of {listed}")
        finally:
            if pytest.poll() is None:
                # Time to end its prefixes.
                print(f"no end within {PYTEST_LIMIT:g} s, or told to end")
                pytest.send_signal(signal.SIGINT)
            try:
                pytest.wait(ENDING_LIMIT)
            finally:
                pytest.kill()
                pytest.wait()
    outcome = read_pytest_report(ring, _text(report) if report.exists() else "", listed)
    if pytest.returncode not in (0, 5) and not outcome.failed:
        outcome.failed.append(f"./run test {ring}")
    if outcome.failed:
        print(_text(log), flush=True)
    return outcome


def pytest_command(report: Path, tests: list[str]) -> list[str]:
    # Not -v: it has every difference between two compared values worked out, for archives without
    # an end.
    return [*PYTEST, f"--junitxml={report}", *tests]


def pytest_done(log: str) -> int:
    """How many tests have ended, by what pytest has printed so far."""
    return sum(len(letters) for letters in PYTEST_LETTERS.findall(log))


def _pytest_list(tests: list[str]) -> int:
    """How many tests there are, by pytest's own count."""
    listing = subprocess.run(
        [*PYTEST, "-qq", "--collect-only", *tests],
        cwd=ROOT,
        env=os.environ | PYTEST_ENVIRONMENT,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=LISTING_LIMIT,
    )
    if listing.returncode not in (0, 5):
        raise RuntimeError(f"pytest does not list its tests: {listing.stdout}")
    return sum(int(count) for count in re.findall(r"^tests/\S+: (\d+)$", listing.stdout, re.MULTILINE))


def read_pytest_report(ring: str, report: str, listed: int) -> Outcome:
    """Counts the tests of a report in the form of JUnit; `listed` is how many it has to hold."""
    outcome = Outcome()
    try:
        cases = list(ElementTree.fromstring(report).iter("testcase"))
    except ElementTree.ParseError:
        # None, or one that its writer did not get to the end of.
        cases = []
    names = set()
    for case in cases:
        name = case.get("name", "")
        names.add((case.get("classname"), name))
        if case.find("failure") is not None or case.find("error") is not None:
            outcome.failed.append(f"./run test {ring} -- -k {name.partition('[')[0]}")
        elif case.find("skipped") is not None:
            outcome.skipped.append(f"{case.get('classname')}.{name}")
        else:
            outcome.passed += 1
    if len(names) != listed:
        print(f"{len(names)} of {listed} tests were run")
        outcome.failed.append(f"./run test {ring}")
    return outcome


RINGS: dict[str, Callable[[list[str]], Outcome]] = {
    "core": run_core,
    "wine": run_wine,
    "msi": run_msi,
    "build": run_build,
    "time": run_time,
}
# At once, on two processors too: each waits for programs now and then.
TOGETHER = ("msi", "wine", "build", "core")


if __name__ == "__main__":
    sys.exit(ending.orderly(lambda: main(sys.argv[1:])))
