"""The gate of the coverage sees each way in which a run can be a bad one."""

import pytest

import coverage
import run_tests
from coverage import LIBRARY, NotReached, judge, lines_not_understood, read_gcovr
from installer import repeats
from run_tests import Outcome, read_google_test_log

PASSED = Outcome(passed=2)
SOURCES = {
    "runtime/a.cpp": ["int f(int x) {", "if (x) {", "return 1;", "}", "g();", "return 1;", "}"],
    "runtime/a.h": ["int f(int x);"],
}
FIRST_RETURN = NotReached("runtime/a.cpp", "return 1;", "a reason", above="if (x) {")
CALL = NotReached("runtime/a.cpp", "g();", "a reason")


def line(number: int, count: int, branches: tuple[int, ...] = (), noncode: bool = False) -> dict:
    """One line as gcovr reports it; the numbers are how often it and its branches were taken."""
    taken = [{"count": each, "fallthrough": False, "throw": False} for each in branches]
    return {
        "line_number": number,
        "count": count,
        "branches": taken,
        "gcovr/noncode": noncode,
        "gcovr/excluded": False,
    }


def counted(changed: dict[int, int] | None = None, branches: tuple[int, ...] = (1,) * 100) -> dict:
    """What was counted when each line ran once, but for the changed ones; line 2 branches."""
    counts = {1: 1, 2: 1, 3: 1, 5: 1, 6: 1} | (changed or {})
    lines = [line(number, count) for number, count in counts.items()]
    lines[1] = line(2, counts[2], branches)
    lines.append(line(4, 0, noncode=True))
    return read_gcovr({"files": [{"file": f"{LIBRARY}/runtime/a.cpp", "lines": lines}]})


def test_a_good_run_has_no_complaint():
    assert judge(PASSED, counted(), SOURCES, []) == []
    assert judge(PASSED, counted({3: 0, 5: 0}), SOURCES, [FIRST_RETURN, CALL]) == []


def test_a_line_that_is_neither_reached_nor_named_is_told():
    for named in ([], [CALL]):
        wrong = judge(PASSED, counted({3: 0, 5: 0}), SOURCES, named)
        assert "not reached: runtime/a.cpp:3: return 1;" in wrong
        assert ("not reached: runtime/a.cpp:5: g();" in wrong) == (not named)


def test_a_named_line_does_not_excuse_another_of_the_same_text():
    wrong = judge(PASSED, counted({3: 0, 6: 0}), SOURCES, [FIRST_RETURN])
    assert wrong == ["not reached: runtime/a.cpp:6: return 1;"]


@pytest.mark.parametrize(
    "name, complaint",
    [
        (CALL, "named, but reached: runtime/a.cpp:5: g();"),
        (FIRST_RETURN, "named, but reached: runtime/a.cpp:3: return 1;"),
        (
            NotReached("runtime/a.cpp", "gone();", "a reason"),
            "named, but there 0 times: runtime/a.cpp: gone();",
        ),
        (
            NotReached("runtime/a.cpp", "g();", "a reason", above="gone();"),
            "named, but there 0 times: runtime/a.cpp: g();",
        ),
        (
            NotReached("runtime/a.cpp", "return 1;", "a reason"),
            "named, but there 2 times: runtime/a.cpp: return 1;",
        ),
        (
            NotReached("runtime/gone.cpp", "g();", "a reason"),
            "named, but there 0 times: runtime/gone.cpp: g();",
        ),
        (
            NotReached("runtime/a.cpp", "}", "a reason", above="return 1;"),
            "named, but there 2 times: runtime/a.cpp: }",
        ),
        (
            NotReached("runtime/a.h", "int f(int x);", "a reason"),
            "named, but no line that counts: runtime/a.h: int f(int x);",
        ),
    ],
)
def test_a_named_line_has_to_be_there_once_and_not_reached(name, complaint):
    assert judge(PASSED, counted(), SOURCES, [name]) == [complaint]


def test_a_line_is_named_once():
    wrong = judge(PASSED, counted({5: 0}), SOURCES, [CALL, CALL])
    assert wrong == ["named twice: runtime/a.cpp: g();"]


def test_branches_below_the_limit_are_told():
    assert judge(PASSED, counted(branches=(1,) * 98 + (0,) * 2), SOURCES, []) == []
    wrong = judge(PASSED, counted(branches=(1,) * 97 + (0,) * 3), SOURCES, [])
    assert wrong == ["branches: 97/100  97.0 %, fewer than 98 %"]
    assert judge(PASSED, counted(branches=()), SOURCES, []) == ["branches: none, fewer than 98 %"]


def test_a_source_file_that_nothing_is_counted_of_is_told():
    wrong = judge(PASSED, counted(), SOURCES | {"runtime/b.cpp": []}, [])
    assert wrong == ["not counted: runtime/b.cpp"]


@pytest.mark.parametrize(
    "outcome, complaint",
    [
        (Outcome(passed=1, failed=["./run test wine"]), "failed, repeat with: ./run test wine"),
        (Outcome(), "no test has passed"),
    ],
)
def test_a_run_that_failed_or_ran_nothing_is_told(outcome, complaint):
    assert judge(outcome, counted(), SOURCES, []) == [complaint]


def test_a_run_that_ended_half_way_is_told():
    log = """\
[==========] Running 2 tests from 1 test suite.
[ RUN      ] Suite.First
[       OK ] Suite.First (0 ms)
"""
    outcome = read_google_test_log("wine", log, "exit code 0", {"Suite.First", "Suite.Second"})
    assert judge(outcome, counted(), SOURCES, []) == [
        "failed, repeat with: ./run test wine -- --gtest_filter=*"
    ]


@pytest.mark.parametrize(
    "outcome, changed, code",
    [(PASSED, {}, 0), (PASSED, {5: 0}, 1), (Outcome(1, ["./run test wine"]), {}, 1)],
)
def test_the_exit_code_tells_a_bad_run(monkeypatch, outcome, changed, code):
    monkeypatch.setattr(coverage, "run_tests", lambda: outcome)
    monkeypatch.setattr(coverage, "gcovr", dict)
    monkeypatch.setattr(coverage, "read_gcovr", lambda _: counted(changed))
    monkeypatch.setattr(coverage, "library_sources", lambda: SOURCES)
    monkeypatch.setattr(coverage, "NOT_REACHED", ())
    assert coverage.main() == code


def test_every_named_line_has_a_reason():
    assert [name for name in coverage.NOT_REACHED if not name.reason.strip()] == []


def test_the_table_tells_files_and_their_sum():
    rows = [row.split() for row in coverage.table(counted({5: 0}))]
    assert rows[1:] == [
        ["runtime/a.cpp", "4/5", "80.0", "%", "100/100", "100.0", "%"],
        ["all", "4/5", "80.0", "%", "100/100", "100.0", "%"],
    ]


@pytest.mark.parametrize(
    "line, understood",
    [
        ("call    3 returned -292", True),
        ("        -5:   84:    line of the library;", False),
        ("branch  2 taken -4", False),
    ],
)
def test_only_calls_that_came_back_less_than_never_are_left_out(line, understood):
    errors = f"(WARNING) Unrecognized GCOV output\n\t  {line}\nUnknownLineType: {line}\n"
    assert (lines_not_understood(errors) == []) is understood


@pytest.mark.parametrize("wrong", [[], ["not reached: a.cpp:1: f();"]])
@pytest.mark.parametrize("hangs", [0, 1])
def test_the_last_line_tells_what_was_done_once_more(
    hangs, wrong, monkeypatch, tmp_path, capsys, recwarn
):
    def tests() -> Outcome:
        for _ in range(hangs):
            repeats.tell("it hung")
        return Outcome(passed=2)

    for module in (coverage, run_tests):
        monkeypatch.setattr(module, "RESULTS", tmp_path)
    monkeypatch.setattr(coverage, "run_tests", tests)
    monkeypatch.setattr(coverage, "gcovr", lambda: {"files": []})
    monkeypatch.setattr(coverage, "judge", lambda *_: wrong)
    assert coverage.main() == len(wrong)
    *_, last = capsys.readouterr().out.splitlines()
    assert last == f"2 tests, {len(coverage.NOT_REACHED)} lines named{'; 1 repeated' * hangs}"
