"""Runs the test rings and closes with one line 'N passed, N failed' over all of them.

    run_tests.py [RING] [-- ARGUMENT...]

RING is core, wine, msi, build or time; without one all run, two at a time, and time by itself
when the others have ended. The arguments go to the ring's own runner: GoogleTest for core, wine
and time (--gtest_filter=...), pytest for msi and build (-k ...). What the rings run must have been
built.
"""

import os
import re
import signal
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable

ROOT = Path(__file__).resolve().parents[1]
BUILD = ROOT / "build"
RESULTS = BUILD / "test-results"
sys.path.insert(0, str(ROOT / "tools"))

from installer.prefix import Prefix  # noqa: E402

FUZZ_TARGETS = ("get_data_value", "find_no_case", "multi_string", "retain_list", "client_decision")
FUZZ_INPUTS = 200_000
TESTS_LIMIT = 480.0
PYTEST_LIMIT = 1800.0
# Programs of the system folder that copies of the recorder may stand in for.
RECORDED = ("icacls", "powershell", "regsvr32", "schtasks", "taskkill")
WINE_OVERRIDES = "mscoree,mshtml,winemenubuilder.exe=;" + ";".join(
    f"{name}.exe=n,b" for name in RECORDED
)
# What one ring closes with is said again over all rings.
CLOSING_LINES = re.compile(r"^(FAILED, repeat with: .*|\d+ passed, \d+ failed)\n", re.MULTILINE)
IMAGE_OPTIONS = r"HKLM\Software\Microsoft\Windows NT\CurrentVersion\Image File Execution Options"


@dataclass
class Outcome:
    passed: int = 0
    failed: list[str] = field(default_factory=list)

    def add(self, other: "Outcome") -> None:
        self.passed += other.passed
        self.failed += other.failed


def main(arguments: list[str]) -> int:
    own, _, passed_on = _partition(arguments)
    if len(own) > 1 or (own and own[0] not in RINGS):
        print(__doc__, file=sys.stderr)
        return 2
    if passed_on and not own:
        print("arguments behind -- need the ring that they are for", file=sys.stderr)
        return 2

    # A run that is told to end still ends the prefixes that it has started.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    RESULTS.mkdir(parents=True, exist_ok=True)
    total = _run_ring(own[0], passed_on) if own else _run_all()
    for repeat in total.failed:
        print(f"FAILED, repeat with: {repeat}")
    if total.passed + len(total.failed) == 0:
        print("no test matches", file=sys.stderr)
        return 2
    print(f"{total.passed} passed, {len(total.failed)} failed")
    return 1 if total.failed else 0


def _run_all() -> Outcome:
    total = Outcome()
    running: list[subprocess.Popen[bytes]] = []
    lanes = ThreadPoolExecutor(max_workers=2)
    try:
        for outcome in lanes.map(lambda ring: _run_alone(ring, running), TOGETHER):
            total.add(outcome)
        total.add(_run_alone("time", running))
    finally:
        lanes.shutdown(wait=False, cancel_futures=True)
        for process in running:
            process.terminate()
            process.wait()
    return total


def _run_alone(name: str, running: list[subprocess.Popen[bytes]]) -> Outcome:
    """Runs one ring in a process of its own and shows what it printed when it has ended."""
    log = RESULTS / f"ring-{name}.txt"
    with open(log, "wb") as output:
        process = subprocess.Popen(
            [sys.executable, "-B", __file__, name], stdout=output, stderr=subprocess.STDOUT
        )
        running.append(process)
        code = process.wait()
    text = log.read_text(errors="replace")
    outcome = read_ring_log(name, text, code)
    print(CLOSING_LINES.sub("", text), end="", flush=True)
    return outcome


def read_ring_log(name: str, log: str, code: int) -> Outcome:
    """Reads what `main` printed for one ring; `code` is its exit code."""
    last = re.search(r"^(\d+) passed, (\d+) failed\n\Z", log, re.MULTILINE)
    failed = re.findall(r"^FAILED, repeat with: (.*)$", log, re.MULTILINE)
    passed = int(last[1]) if last else 0
    if last is None or int(last[2]) != len(failed) or code != (1 if failed else 0):
        failed.append(f"./run test {name}")
    return Outcome(passed, failed)


def _run_ring(name: str, arguments: list[str]) -> Outcome:
    print(f"== {name}", flush=True)
    start = time.monotonic()
    try:
        outcome = RINGS[name](arguments)
    except (RuntimeError, OSError, subprocess.TimeoutExpired) as error:
        print(f"ring {name} could not be run: {error}")
        outcome = Outcome(failed=[f"./run test {name}"])
    if not arguments and outcome.passed + len(outcome.failed) == 0:
        print(f"ring {name} has no test")
        outcome.failed.append(f"./run test {name}")
    duration = time.monotonic() - start
    print(f"   {outcome.passed} passed, {len(outcome.failed)} failed, {duration:.0f} s", flush=True)
    return outcome


def run_core(arguments: list[str]) -> Outcome:
    tests = BUILD / "native/tests/core"
    outcome = _google_tests("core", [str(tests / "core_tests"), *arguments])
    if not arguments:
        for target in FUZZ_TARGETS:
            outcome.add(_fuzz(tests, target))
    return outcome


def run_wine(arguments: list[str]) -> Outcome:
    return _wine_tests("wine", "wine_tests", arguments, check_heap=True)


def run_time(arguments: list[str]) -> Outcome:
    return _wine_tests("time", "wine_time_tests", arguments, check_heap=False)


def _wine_tests(ring: str, program: str, arguments: list[str], check_heap: bool) -> Outcome:
    environment = {"WINEDLLOVERRIDES": WINE_OVERRIDES}
    with Prefix(f"prefix-{ring}", environment=environment) as prefix:
        if check_heap:
            _check_heap_of(prefix, f"{program}.exe")
        return _google_tests(
            ring,
            [rf"b:\mingw-test\tests\wine\{program}.exe", *arguments],
            start=lambda command, **options: prefix.start(*command, **options),
            log=RESULTS / f"{program}.log",
        )


def run_msi(arguments: list[str]) -> Outcome:
    return _pytest("msi", arguments)


def run_build(arguments: list[str]) -> Outcome:
    return _pytest("build", arguments)


def _partition(arguments: list[str]) -> tuple[list[str], bool, list[str]]:
    if "--" not in arguments:
        return arguments, False, []
    split = arguments.index("--")
    return arguments[:split], True, arguments[split + 1 :]


def _google_tests(
    ring: str,
    command: list[str],
    start=subprocess.Popen,
    log: Path = RESULTS / "core.log",
    limit: float = TESTS_LIMIT,
) -> Outcome:
    """Runs a GoogleTest program, shows the failed tests and counts from its lines, so that a
    program which crashes or hangs half-way is counted too. `limit` is in seconds."""
    # A file and not a pipe: what a test leaves running would hold a pipe open.
    with open(log, "wb") as output:
        process = start(command, stdout=output)
        try:
            ended = f"exit code {process.wait(limit)}"
        except subprocess.TimeoutExpired:
            ended = f"no end within {limit:g} s"
        finally:
            process.kill()
            process.wait()
    return read_google_test_log(ring, log.read_text(errors="replace"), ended)


def read_google_test_log(ring: str, log: str, ended: str) -> Outcome:
    """Counts the tests of a GoogleTest log; `ended` tells how the program did."""
    outcome = Outcome()
    test, text, announced, complete = "", [], 0, False
    for line in log.splitlines():
        # Not only at the start of a line: what a test prints need not end with one.
        if begun := re.search(r"\[ RUN      \] (\S+)$", line):
            test, text = begun[1], []
        elif test and re.search(r"\[       OK \] \S+.* \(\d+ ms\)$", line):
            outcome.passed += 1
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
    reached = outcome.passed + len(outcome.failed)
    good_end = ended == ("exit code 1" if outcome.failed else "exit code 0")
    if test or not complete or reached != announced or not good_end:
        print("\n".join(text[-40:]))
        print(f"{reached} of {announced} tests reached, {ended}, in {test or 'no test'}")
        outcome.failed.append(f"./run test {ring} -- --gtest_filter={test or '*'}")
    return outcome


def _fuzz(tests: Path, target: str) -> Outcome:
    """One run of a fuzzer over a fixed sequence of inputs, beginning with the seeds that are kept."""
    found = RESULTS / f"fuzz-{target}"
    found.mkdir(exist_ok=True)
    command = [
        str(tests / f"fuzz_{target}"),
        f"-runs={FUZZ_INPUTS}",
        "-seed=1",
        "-max_len=512",
        f"-artifact_prefix={found}/",
        str(ROOT / "tests/core/fuzz/corpus" / target),
    ]
    # A corpus that grows would be written to the first folder, so a throw-away one stands there.
    grown = RESULTS / f"fuzz-{target}-grown"
    _empty(grown)
    command.insert(-1, str(grown))
    ended = subprocess.run(
        command,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        errors="replace",
        timeout=TESTS_LIMIT,
    )
    done = re.search(r"^#(\d+)\s+DONE", ended.stdout, re.MULTILINE)
    if ended.returncode == 0 and done and int(done[1]) >= FUZZ_INPUTS:
        return Outcome(passed=1)
    print(ended.stdout[-4000:])
    return Outcome(failed=["./run test core"])


def _empty(folder: Path) -> None:
    folder.mkdir(exist_ok=True)
    for file in folder.iterdir():
        file.unlink()


def _check_heap_of(prefix: Prefix, program: str) -> None:
    """Lets the engine mark what lies behind each heap block of a program and inside each free one
    (0x30: tail, free); the tests look at the marks after each test."""
    key = rf"{IMAGE_OPTIONS}\{program}"
    value = ["/v", "GlobalFlag", "/t", "REG_DWORD", "/d", "0x30"]
    added = prefix.run("reg.exe", "add", key, *value, "/f")
    if added.returncode != 0:
        raise RuntimeError(f"the heap check cannot be switched on: {added.stdout}")


def _pytest(ring: str, arguments: list[str]) -> Outcome:
    report = RESULTS / f"{ring}.xml"
    report.unlink(missing_ok=True)
    command = [sys.executable, "-B", "-m", "pytest", "-q", "-p", "no:cacheprovider"]
    command += [f"--junitxml={report}", f"tests/{ring}", *arguments]
    pytest = subprocess.Popen(command, cwd=ROOT, env=os.environ | {"NO_COLOR": "1"})
    try:
        code = pytest.wait(PYTEST_LIMIT)
    except BaseException:
        # Time to end its prefixes.
        pytest.send_signal(signal.SIGINT)
        pytest.wait(60.0)
        raise
    outcome = Outcome()
    cases = ElementTree.parse(report).iter("testcase") if report.exists() else []
    for case in cases:
        if case.find("failure") is not None or case.find("error") is not None:
            name = case.get("name", "").partition("[")[0]
            outcome.failed.append(f"./run test {ring} -- -k {name}")
        elif case.find("skipped") is None:
            outcome.passed += 1
    if code not in (0, 5) and not outcome.failed:
        outcome.failed.append(f"./run test {ring}")
    return outcome


RINGS: dict[str, Callable[[list[str]], Outcome]] = {
    "core": run_core,
    "wine": run_wine,
    "msi": run_msi,
    "build": run_build,
    "time": run_time,
}
# The longest first.
TOGETHER = ("wine", "msi", "build", "core")


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
