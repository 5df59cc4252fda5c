"""The test runner counts every way in which a test program can end."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from run_tests import read_google_test_log, read_ring_log  # noqa: E402

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
NONE_MATCHES = """\
[==========] Running 0 tests from 0 test suites.
[==========] 0 tests from 0 test suites ran. (0 ms total)
[  PASSED  ] 0 tests.
"""


def half(log: str) -> str:
    """The log of a program that ends while its second test runs."""
    return log.partition("[ RUN      ] Suite.Second\n")[0] + "[ RUN      ] Suite.Second\n"


@pytest.mark.parametrize(
    "log, ended, passed, failed",
    [
        (TWO_PASSED, "exit code 0", 2, []),
        (TWO_PASSED.replace("[       OK ]", "printed[       OK ]"), "exit code 0", 2, []),
        (NONE_MATCHES, "exit code 0", 0, []),
        (ONE_FAILED, "exit code 1", 1, ["Suite.First"]),
        (half(TWO_PASSED), "exit code 5", 1, ["Suite.Second"]),
        (half(TWO_PASSED), "exit code 0", 1, ["Suite.Second"]),
        (half(TWO_PASSED), "no end within 1 s", 1, ["Suite.Second"]),
        (half(ONE_FAILED), "exit code 5", 0, ["Suite.First", "Suite.Second"]),
        (TWO_PASSED, "exit code 3", 2, ["*"]),
        (TWO_PASSED, "no end within 1 s", 2, ["*"]),
        (ONE_FAILED, "exit code 0", 1, ["Suite.First", "*"]),
        ("", "exit code 0", 0, ["*"]),
    ],
)
def test_google_test_logs(log, ended, passed, failed):
    outcome = read_google_test_log("wine", log, ended)
    assert outcome.passed == passed
    assert outcome.failed == [f"./run test wine -- --gtest_filter={name}" for name in failed]


@pytest.mark.parametrize(
    "log, code, passed, failed",
    [
        ("== core\n2 passed, 0 failed\n", 0, 2, []),
        ("FAILED, repeat with: a\n1 passed, 1 failed\n", 1, 1, ["a"]),
        ("2 passed, 0 failed\n", 1, 2, ["./run test core"]),
        ("2 passed, 0 failed\nmore\n", 0, 0, ["./run test core"]),
        ("FAILED, repeat with: a\n1 passed, 1 failed\n", 0, 1, ["a", "./run test core"]),
        ("1 passed, 1 failed\n", 1, 1, ["./run test core"]),
        ("", -9, 0, ["./run test core"]),
    ],
)
def test_ring_logs(log, code, passed, failed):
    outcome = read_ring_log("core", log, code)
    assert (outcome.passed, outcome.failed) == (passed, failed)
