"""Runs the test rings and closes with one line 'N passed, N failed' over all of them.

    run_tests.py [RING] [-- ARGUMENT...]

RING is core, wine, msi or build; without one all four run. The arguments go to the ring's own
runner: GoogleTest for core and wine (--gtest_filter=...), pytest for msi and build (-k ...).
What the rings run must have been built.
"""

import os
import re
import signal
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable

ROOT = Path(__file__).resolve().parents[1]
BUILD = ROOT / "build"
RESULTS = BUILD / "test-results"
sys.path.insert(0, str(ROOT / "tools"))

from installer.prefix import Prefix  # noqa: E402

FUZZ_TARGETS = ("get_data_value", "find_no_case", "multi_string")
FUZZ_INPUTS = 200_000
TESTS_LIMIT = 240.0
PYTEST_LIMIT = 900.0
# Lets copies of the recorder stand in for programs of the system folder.
WINE_OVERRIDES = "mscoree,mshtml,winemenubuilder.exe=;schtasks.exe=n,b"
HEAP_REPORTS = {"WINEDEBUG": "-all,err+heap,warn+heap"}
IMAGE_OPTIONS = r"HKLM\Software\Microsoft\Windows NT\CurrentVersion\Image File Execution Options"


@dataclass
class Outcome:
    passed: int = 0
    failed: list[str] = field(default_factory=list)

    def add(self, other: "Outcome") -> None:
        self.passed += other.passed
        self.failed += other.failed


def main(arguments: list[str]) -> int:
    rings = {"core": run_core, "wine": run_wine, "msi": run_msi, "build": run_build}
    own, _, passed_on = _partition(arguments)
    if len(own) > 1 or (own and own[0] not in rings):
        print(__doc__, file=sys.stderr)
        return 2
    if passed_on and not own:
        print("arguments behind -- need the ring that they are for", file=sys.stderr)
        return 2

    # A run that is told to end still ends the prefixes that it has started.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    RESULTS.mkdir(parents=True, exist_ok=True)
    total = Outcome()
    for name in own or rings:
        print(f"== {name}", flush=True)
        outcome = _run_ring(name, rings[name], passed_on)
        print(f"   {outcome.passed} passed, {len(outcome.failed)} failed", flush=True)
        total.add(outcome)

    for repeat in total.failed:
        print(f"FAILED, repeat with: {repeat}")
    if total.passed + len(total.failed) == 0:
        print("no test matches", file=sys.stderr)
        return 2
    print(f"{total.passed} passed, {len(total.failed)} failed")
    return 1 if total.failed else 0


def _run_ring(name: str, ring: Callable[[list[str]], Outcome], arguments: list[str]) -> Outcome:
    try:
        outcome = ring(arguments)
    except (RuntimeError, OSError, subprocess.TimeoutExpired) as error:
        print(f"ring {name} could not be run: {error}")
        return Outcome(failed=[f"./run test {name}"])
    if not arguments and outcome.passed + len(outcome.failed) == 0:
        print(f"ring {name} has no test")
        outcome.failed.append(f"./run test {name}")
    return outcome


def run_core(arguments: list[str]) -> Outcome:
    tests = BUILD / "native/tests/core"
    outcome = _google_tests("core", [str(tests / "core_tests"), *arguments])
    if not arguments:
        for target in FUZZ_TARGETS:
            outcome.add(_fuzz(tests, target))
    return outcome


def run_wine(arguments: list[str]) -> Outcome:
    with Prefix("prefix-wine", environment={"WINEDLLOVERRIDES": WINE_OVERRIDES}) as prefix:
        outcome = Outcome()
        # Tests of time stand in a program of their own.
        for program in ("wine_tests", "wine_time_tests"):
            outcome.add(_wine_tests(prefix, program, arguments))
        if not arguments:
            outcome.add(_heap_is_sound(prefix))
    return outcome


def _wine_tests(prefix: Prefix, program: str, arguments: list[str], **options) -> Outcome:
    log = RESULTS / f"{options.pop('log_name', program)}.log"
    return _google_tests(
        "wine",
        [rf"b:\mingw-test\tests\wine\{program}.exe", *arguments],
        start=lambda command, **more: prefix.start(*command, **options, **more),
        log=log,
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
    """Lets Wine check every heap block of a program (0xf0: tail, free, parameters, all blocks)."""
    key = rf"{IMAGE_OPTIONS}\{program}"
    value = ["/v", "GlobalFlag", "/t", "REG_DWORD", "/d", "0xf0"]
    added = prefix.run("reg.exe", "add", key, *value, "/f")
    if added.returncode != 0:
        raise RuntimeError(f"the heap check cannot be switched on: {added.stdout}")


def _heap_is_sound(prefix: Prefix) -> Outcome:
    """Runs the tests once more with every heap block checked at every heap call, after a look
    whether a write behind an allocation is reported at all. One test, whatever it runs."""
    for program in ("heap_overflow.exe", "wine_tests.exe"):
        _check_heap_of(prefix, program)
    overflow = r"b:\mingw-test\tests\support\heap_overflow.exe"
    reported = prefix.run(overflow, environment=HEAP_REPORTS).stdout
    if "invalid block tail" not in reported:
        print(f"a write behind an allocation was not reported: {reported!r}")
        return Outcome(failed=["./run test wine"])

    errors = RESULTS / "wine.stderr.txt"
    with open(errors, "w") as stream:
        tests = _wine_tests(
            prefix,
            "wine_tests",
            [],
            log_name="wine_tests.heap",
            environment=HEAP_REPORTS,
            stderr=stream,
        )
    reports = [line for line in errors.read_text(errors="replace").splitlines() if "heap" in line]
    print("\n".join(reports[:20]), end="")
    if tests.failed or reports:
        return Outcome(failed=tests.failed or ["./run test wine"])
    return Outcome(passed=1)


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


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
