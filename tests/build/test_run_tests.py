"""The test runner counts every way in which a test program can end, and misses no test."""

import ast
import os
import re
import signal
import subprocess
import sys
import time
from pathlib import Path
from typing import Callable

import pytest

import fuzz
import run_tests
from fuzz import Fuzzer, Limits, Result
from installer import repeats
from run_tests import (
    PYTEST_ENVIRONMENT,
    ROOT,
    STARTED_BY_TESTS,
    Outcome,
    judge_canary,
    pytest_command,
    pytest_done,
    read_google_test_list,
    read_google_test_log,
    read_pytest_report,
    read_ring_log,
    run_aloud,
    run_to_file,
)

FUZZER = Fuzzer("made", fuzz.NATIVE)

TWO_PASSED = """\
[==========] Running 2 tests from 1 test suite.
[ RUN      ] Suite.First
[       OK ] Suite.First (0 ms)
[ RUN      ] Suite.Second
[       OK ] Suite.Second (0 ms)
[==========] 2 tests from 1 test suite ran. (1 ms total)
[  PASSED  ] 2 tests.
"""
ONE_FAILED = """\
[==========] Running 2 tests from 1 test suite.
[ RUN      ] Suite.First
file.cpp:1: Failure
[  FAILED  ] Suite.First (0 ms)
[ RUN      ] Suite.Second
[       OK ] Suite.Second (0 ms)
[==========] 2 tests from 1 test suite ran. (1 ms total)
[  PASSED  ] 1 test.
[  FAILED  ] 1 test, listed below:
[  FAILED  ] Suite.First
"""
ONE_SKIPPED = TWO_PASSED.replace("[       OK ] Suite.First", "[  SKIPPED ] Suite.First")
NONE_MATCHES = """\
[==========] Running 0 tests from 0 test suites.
[==========] 0 tests from 0 test suites ran. (0 ms total)
[  PASSED  ] 0 tests.
"""


def half(log: str) -> str:
    """The log of a program that ends while its second test runs."""
    return log.partition("[ RUN      ] Suite.Second\n")[0] + "[ RUN      ] Suite.Second\n"


LISTED = {"Suite.First", "Suite.Second"}


@pytest.mark.parametrize(
    "log, ended, passed, failed",
    [
        (TWO_PASSED, "exit code 0", 2, []),
        (TWO_PASSED.replace("[       OK ]", "printed[       OK ]"), "exit code 0", 2, []),
        (ONE_FAILED, "exit code 1", 1, ["Suite.First"]),
        (half(TWO_PASSED), "exit code 5", 1, ["Suite.Second"]),
        (half(TWO_PASSED), "exit code 0", 1, ["Suite.Second"]),
        (half(TWO_PASSED), "no end within 1 s", 1, ["Suite.Second"]),
        (half(ONE_FAILED), "exit code 5", 0, ["Suite.First", "Suite.Second"]),
        (TWO_PASSED, "exit code 3", 2, ["*"]),
        (TWO_PASSED, "no end within 1 s", 2, ["*"]),
        (ONE_FAILED, "exit code 0", 1, ["Suite.First", "*"]),
        ("", "exit code 0", 0, ["*"]),
        # A filter of the environment's, or one part of several: the program itself sees no fault.
        (NONE_MATCHES, "exit code 0", 0, ["Suite.First", "Suite.Second"]),
    ],
)
def test_google_test_logs(log, ended, passed, failed):
    outcome = read_google_test_log("wine", log, ended, LISTED)
    assert outcome.passed == passed
    assert outcome.failed == [f"./run test wine -- --gtest_filter={name}" for name in failed]


def test_a_filter_that_matches_nothing_is_no_failure_of_a_test():
    assert read_google_test_log("wine", NONE_MATCHES, "exit code 0", set()) == Outcome()


def test_a_skipped_test_is_counted_as_skipped():
    outcome = read_google_test_log("wine", ONE_SKIPPED, "exit code 0", LISTED)
    assert outcome == Outcome(passed=1, skipped=["Suite.First"])
    assert outcome.closing_line() == "1 passed, 0 failed, 1 skipped"


def test_a_list_of_tests_is_read_whole():
    listing = (
        "Suite.\n  First\n  DISABLED_Second\n"
        "Some/Values.  # TypeParam = int\n  Third/0  # GetParam() = 4\n  Third/named\n"
    )
    assert read_google_test_list(listing) == {
        "Suite.First",
        "Suite.DISABLED_Second",
        "Some/Values.Third/0",
        "Some/Values.Third/named",
    }


def test_only_what_another_test_starts_is_switched_off():
    switched_off = {
        f"{suite}.{name}"
        for source in (ROOT / "tests").rglob("*.cpp")
        for suite, name in re.findall(
            r"TEST(?:_[FP])?\((DISABLED_\w+|\w+), (\w+)\)", source.read_text()
        )
        if "DISABLED_" in suite + name
    }
    assert switched_off == STARTED_BY_TESTS


# Of the conftest of ring msi: the prefix that tests share, and what works in it.
SHARED_FIXTURES = {"prefix", "watching", "clean_snapshot", "clean_machine"}


def fixtures_used(source: str) -> set[str]:
    """What the tests and fixtures of a source ask for and the source itself does not make."""
    functions = [each for each in ast.parse(source).body if isinstance(each, ast.FunctionDef)]
    asking = [
        each
        for each in functions
        if each.name.startswith("test_") or "fixture" in "".join(map(ast.unparse, each.decorator_list))
    ]
    used = {argument.arg for each in asking for argument in each.args.args}
    return used - {each.name for each in asking}


MSI_TESTS = ROOT / "tests/msi"
IN_OTHER_PARTS = [name for names in run_tests.MSI_PARTS.values() for name in names]


@pytest.mark.parametrize("name", IN_OTHER_PARTS)
def test_what_runs_beside_the_tests_of_the_shared_prefix_does_not_use_it(name):
    used = fixtures_used((MSI_TESTS / name).read_text())
    assert used & SHARED_FIXTURES == set()


def test_no_two_parts_of_the_ring_use_a_prefix_of_one_name():
    rest = [file.name for file in MSI_TESTS.glob("test_*.py") if file.name not in IN_OTHER_PARTS]
    rest.append("conftest.py")
    used = [
        set().union(*(prefixes_named((MSI_TESTS / name).read_text()) for name in names))
        for names in (*run_tests.MSI_PARTS.values(), rest)
    ]
    assert all(used)
    assert sum(map(len, used)) == len(set().union(*used))


def prefixes_named(source: str) -> set[str]:
    """The names of prefixes in a test's source and in what it imports of the ring's own."""
    modules = [MSI_TESTS / f"{name}.py" for name in re.findall(r"^from (\w+) import", source, re.MULTILINE)]
    sources = [source, *(module.read_text() for module in modules if module.is_file())]
    return {name for each in sources for name in re.findall(r'"(prefix-[\w-]+)"', each)}


def test_the_shared_prefix_is_seen_where_it_is_used():
    assert "clean_machine" in fixtures_used((MSI_TESTS / "test_agent.py").read_text())


REPORT = (
    '<testsuites><testsuite><testcase classname="a" name="one"/>'
    '<testcase classname="a" name="two[x]">{}</testcase></testsuite></testsuites>'
)


@pytest.mark.parametrize(
    "report, listed, outcome",
    [
        (REPORT.format(""), 2, Outcome(2)),
        (REPORT.format("<skipped/>"), 2, Outcome(1, [], ["a.two[x]"])),
        (REPORT.format("<failure/>"), 2, Outcome(1, ["./run test msi -- -k two"])),
        (REPORT.format("<error/>"), 2, Outcome(1, ["./run test msi -- -k two"])),
        (REPORT.format(""), 3, Outcome(2, ["./run test msi"])),
        ("", 2, Outcome(0, ["./run test msi"])),
        (REPORT.format("")[:-9], 2, Outcome(0, ["./run test msi"])),
    ],
)
def test_pytest_reports(report, listed, outcome):
    assert read_pytest_report("msi", report, listed) == outcome


def test_a_difference_between_archives_is_told_at_once(tmp_path):
    (tmp_path / "tests").mkdir()
    (tmp_path / "tests/test_archives.py").write_text(
        "import pytest\nfrom random import randbytes\n\n"
        "@pytest.mark.parametrize('number', range(150))\n"
        "def test_many(number): pass\n\n"
        "def test_one(): assert randbytes(2_000_000) == randbytes(2_000_000)\n"
    )
    done = subprocess.run(
        pytest_command(tmp_path / "report.xml", ["tests"]),
        cwd=tmp_path,
        env=os.environ | PYTEST_ENVIRONMENT,
        stdout=subprocess.PIPE,
        text=True,
        timeout=30,
    )
    assert "1 failed, 150 passed" in done.stdout
    assert pytest_done(done.stdout) == 151


@pytest.mark.parametrize(
    "log, code, outcome",
    [
        ("== core\n2 passed, 0 failed, 0 skipped\n", 0, Outcome(2)),
        ("2 passed, 0 failed, 0 skipped; 3 repeated\n", 0, Outcome(2, repeated=3)),
        ("SKIPPED: b\n1 passed, 0 failed, 1 skipped\n", 0, Outcome(1, skipped=["b"])),
        ("FAILED, repeat with: a\n1 passed, 1 failed, 0 skipped\n", 1, Outcome(1, ["a"])),
        ("2 passed, 0 failed, 0 skipped\n", 1, Outcome(2, ["./run test core"])),
        ("2 passed, 0 failed, 0 skipped\nmore\n", 0, Outcome(0, ["./run test core"])),
        ("2 passed, 0 failed, 1 skipped\n", 0, Outcome(2, ["./run test core"])),
        (
            "FAILED, repeat with: a\n1 passed, 1 failed, 0 skipped\n",
            0,
            Outcome(1, ["a", "./run test core"]),
        ),
        ("1 passed, 1 failed, 0 skipped\n", 1, Outcome(1, ["./run test core"])),
        ("", -9, Outcome(0, ["./run test core"])),
    ],
)
def test_ring_logs(log, code, outcome):
    assert read_ring_log("core", log, code) == outcome


@pytest.mark.parametrize(
    "has_failed, text, passed, failed",
    [
        (True, "ERROR: overflow at 0x10\n", 1, []),
        (False, "ERROR: overflow at 0x10\n", 0, ["./run test core # Fault"]),
        (True, "ERROR: no memory\n", 0, ["./run test core # Fault"]),
        (True, "", 0, ["./run test core # Fault"]),
    ],
)
def test_a_planted_fault_has_to_fail_its_run_and_to_be_reported(has_failed, text, passed, failed):
    outcome = judge_canary("core Fault", has_failed, text, "ERROR: overflow")
    assert (outcome.passed, outcome.failed) == (passed, failed)


def in_shell(script: str, run: Callable[..., str], folder: Path, **limits: float) -> tuple[str, str]:
    """How a script ended, and what it printed."""
    log = folder / "log.txt"
    ended = run(["sh", "-c", f"cd '{folder}'; {script}"], log, subprocess.Popen, **limits)
    return ended, log.read_text()


# Where a script has to say something in time, a busy machine has 5 seconds for it.
@pytest.mark.parametrize(
    "script, limit, silence, ended",
    [
        ("echo a; exit 3", 30, 30, ("exit code 3", "a\n")),
        ("for each in $(seq 12); do printf a; sleep 0.5; done", 60, 5, ("exit code 0", 12 * "a")),
        ("printf a; exec sleep 60", 30, 5, ("silent for 5 s", "a")),
        ("while :; do printf a; sleep 0.1; done", 5, 30, ("no end within 5 s", None)),
    ],
)
def test_a_program_may_be_silent_for_a_while(script, limit, silence, ended, tmp_path):
    how, printed = in_shell(script, run_to_file, tmp_path, limit=limit, silence=silence)
    assert how == ended[0] and printed == (ended[1] or printed) and printed


SILENT_AT_FIRST = "if [ -e begun ]; then echo a; else touch begun; exec sleep 60; fi"


@pytest.mark.parametrize(
    "script, silence, ended, repeated",
    [
        (SILENT_AT_FIRST, 5, ("exit code 0", "a\n"), 1),
        ("exec sleep 60", 1, ("silent for 1 s", ""), 1),
        ("exit 5", 30, ("exit code 5", ""), 0),
        ("printf a; exec sleep 60", 5, ("silent for 5 s", "a"), 0),
    ],
)
@pytest.mark.filterwarnings("ignore:once more")
def test_only_a_program_that_hung_before_its_first_word_is_started_again(
    script, silence, ended, repeated, tmp_path
):
    with repeats.counted(tmp_path / "repeated.txt") as count:
        assert in_shell(script, run_aloud, tmp_path, silence=silence) == ended
        assert count() == repeated


@pytest.mark.filterwarnings("ignore:once more")
def test_a_ring_tells_what_it_did_once_more(monkeypatch, tmp_path, capsys):
    def ring(arguments: list[str]) -> Outcome:
        repeats.tell("it hung")
        return Outcome(1)

    monkeypatch.setattr(run_tests, "RESULTS", tmp_path)
    monkeypatch.setitem(run_tests.RINGS, "core", ring)
    assert run_tests.main(["core"]) == 0
    printed = capsys.readouterr().out
    assert "once more: it hung\n" in printed and printed.endswith("0 skipped; 1 repeated\n")


A_PROGRAM_OF_TESTS = """#!/bin/sh
if [ "$1" = --gtest_list_tests ]; then
    printf 'A.\\n  B\\n'
    exit
fi
echo '[==========] Running 1 test from 1 test suite.'
echo '[ RUN      ] A.B'
echo 'once more: the engine lost a program'
echo '[       OK ] A.B (1 ms)'
echo '[==========] 1 test from 1 test suite ran. (1 ms total)'
"""


@pytest.mark.filterwarnings("ignore:once more")
def test_what_a_program_of_tests_did_once_more_is_counted(monkeypatch, tmp_path):
    monkeypatch.setattr(run_tests, "RESULTS", tmp_path)
    program = tmp_path / "tests"
    program.write_text(A_PROGRAM_OF_TESTS)
    program.chmod(0o755)
    with repeats.counted(tmp_path / "repeated.txt") as count:
        assert run_tests._google_tests("core", [str(program)]) == Outcome(1)
        assert count() == 1


@pytest.mark.parametrize(
    "first, second, passed, failed",
    [
        (Result(FUZZER, run_tests.FUZZ_LEAST), None, 1, []),
        (Result(FUZZER, 3), Result(FUZZER, run_tests.FUZZ_LEAST), 1, []),
        (Result(FUZZER, 3), Result(FUZZER, 4), 0, ["./run test core # fuzz_made"]),
        (Result(FUZZER, 3, problem="a fault"), None, 0, ["./run test core # fuzz_made"]),
    ],
)
def test_a_fuzzer_on_a_slow_machine_runs_until_it_has_the_least_of_inputs(
    first, second, passed, failed, monkeypatch
):
    runs = []

    def run(fuzzer: Fuzzer, limits: Limits, prefix: None) -> Result:
        runs.append(limits)
        return second if len(runs) == 2 else first

    monkeypatch.setattr(run_tests, "_run_fuzzer", run)
    assert run_tests._fuzz("core", FUZZER, None) == Outcome(passed, failed)
    expected = [run_tests.FUZZ_LIMITS, Limits(runs=run_tests.FUZZ_LEAST)]
    assert runs == expected[: 2 if second else 1]


@pytest.mark.parametrize(
    "outcome, arguments, code",
    [
        (Outcome(2), [], 0),
        (Outcome(2), ["--no-skips"], 0),
        (Outcome(1, skipped=["a"]), [], 0),
        (Outcome(1, skipped=["a"]), ["--no-skips"], 1),
        (Outcome(1, failed=["b"]), [], 1),
        (Outcome(), [], 2),
        (Outcome(1), ["nothing"], 2),
        (Outcome(1), ["--", "-k", "x"], 2),
    ],
)
def test_the_exit_code_tells_of_failures_and_where_asked_of_skips(
    outcome, arguments, code, monkeypatch, tmp_path
):
    monkeypatch.setattr(run_tests, "RESULTS", tmp_path)
    monkeypatch.setattr(run_tests, "_run_all", lambda: outcome)
    assert run_tests.main(arguments) == code


PARTS = run_tests.PARTS_THAT_TELL[1:]
# In place of pytest; the file for its report names the part of the ring.
ENDLESS = """
import sys, time
from pathlib import Path
report = Path(sys.argv[1])
try:
    report.with_suffix(".begun").touch()
    time.sleep(60)
except KeyboardInterrupt:
    report.with_suffix(".interrupted").touch()
"""


@pytest.fixture
def endless_parts(monkeypatch, tmp_path) -> Callable[[], bool]:
    """The parts of ring msi do not end by themselves; tells whether all have begun."""
    monkeypatch.setattr(run_tests, "RESULTS", tmp_path)
    monkeypatch.setattr(run_tests, "_pytest_list", lambda tests: 1)
    monkeypatch.setattr(
        run_tests,
        "pytest_command",
        lambda report, tests: [sys.executable, "-c", ENDLESS, str(report)],
    )
    monkeypatch.setattr(run_tests, "PYTEST_LIMIT", 3 * INTERRUPTION_LIMIT)
    return lambda: len(list(tmp_path.glob("*.begun"))) == len(PARTS)


INTERRUPTION_LIMIT = 10.0


def assert_all_are_interrupted(error: type[BaseException], results: Path) -> None:
    start = time.monotonic()
    with pytest.raises(error, match="in between"):
        run_tests.run_msi([])
    assert time.monotonic() - start < INTERRUPTION_LIMIT
    assert len(list(results.glob("*.interrupted"))) == len(PARTS)


@pytest.mark.parametrize("failing", PARTS)
def test_a_part_that_fails_interrupts_the_others(failing, endless_parts, monkeypatch, tmp_path):
    own = run_tests.progress_file

    def fail(ring: str, part: str = "") -> Path:
        if part == failing and endless_parts():
            raise OSError("in between")
        return own(ring, part)

    monkeypatch.setattr(run_tests, "progress_file", fail)
    assert_all_are_interrupted(OSError, tmp_path)


def test_a_signal_interrupts_all_parts(endless_parts, tmp_path):
    def tell(number: int, frame: object) -> None:
        if endless_parts():
            signal.setitimer(signal.ITIMER_REAL, 0)
            raise KeyboardInterrupt("in between")

    former = signal.signal(signal.SIGALRM, tell)
    signal.setitimer(signal.ITIMER_REAL, 0.1, 0.1)
    try:
        assert_all_are_interrupted(KeyboardInterrupt, tmp_path)
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
        signal.signal(signal.SIGALRM, former)


def test_what_has_to_pass_before_a_change_is_taken():
    script = (ROOT / ".ci/run").read_text()
    words = re.findall(r"^\./run (.*)$", script, re.MULTILINE)
    assert words[0] == "test --no-skips"
    assert words[1:] == ["lint", "coverage", "sweep", "fuzz all 2", "reproduce", "demo"]
    assert "set -eu" in script
