"""A measurement that misses its goal is seen."""

import sys

import pytest

from installer import paths

sys.path.insert(0, str(paths.ROOT / "bench"))

import run_bench  # noqa: E402
from run_bench import Figure  # noqa: E402

TIMES = {"bare": [1.0, 2.0, 9.0], "RemoveAll": [3.0, 2.2, 0.1]}


@pytest.mark.parametrize(
    "measured, arguments, code",
    [
        (1.1, ["--check"], 0),
        (1.11, ["--check"], 1),
        (float("nan"), ["--check"], 1),
        (1.11, [], 0),
        (1.0, ["--chekc"], 2),
    ],
)
def test_only_a_missed_goal_ends_the_check_with_1(measured, arguments, code, monkeypatch):
    figures = [Figure("met", 1.0, 2.0), Figure("looked at", measured, 1.1)]
    monkeypatch.setattr(run_bench, "measure", lambda: figures)
    assert run_bench.main(arguments) == code


def test_a_goal_bounds_the_ratio_of_the_medians():
    assert run_bench.ratio(TIMES, "RemoveAll", "bare", 1.1).measured == pytest.approx(1.1)
    assert run_bench.ratio(TIMES, "RemoveAll", "bare", 1.0).missed


def test_the_goals_are_told_with_their_figures(monkeypatch, capsys):
    monkeypatch.setattr(run_bench, "measure", lambda: [Figure("bytes", 3.0, 2.0)])
    run_bench.main([])
    assert "  bytes: 3.00, goal 2.00, missed\nbench: 1 of 1 goals missed\n" in capsys.readouterr().out
