"""What the fuzzers are, how long each runs, and that what they find is told and kept."""

import subprocess
import sys
from pathlib import Path

import pytest

import fuzz
import run_tests
from installer import paths, repeats

NAMES = [fuzzer.name for fuzzer in fuzz.fuzzers()]


def made_fuzzer(folder: Path, script: str, monkeypatch) -> fuzz.Fuzzer:
    """A native fuzzer that is a shell script; its artifacts are to be named after "$artifacts"."""
    monkeypatch.setattr(fuzz, "BUILD", folder)
    program = folder / "native/tests/core/fuzz_made"
    program.parent.mkdir(parents=True)
    find = 'for each; do case $each in -artifact_prefix=*) artifacts=${each#*=};; esac; done'
    program.write_text(f"#!/bin/sh\n{find}\n{script}\n")
    program.chmod(0o755)
    return fuzz.Fuzzer("made", fuzz.NATIVE)


def run_made(folder: Path, script: str, monkeypatch) -> fuzz.Result:
    fuzzer = made_fuzzer(folder, script, monkeypatch)
    limits = fuzz.Limits(runs=1000)
    return fuzz.run(fuzzer, limits, folder / "log.txt", folder / "found", folder / "grown")


# One that has to come to its end has 6 seconds for it, on a machine that is busy.
@pytest.mark.parametrize("begins, inputs, seconds", [("exit 0", 9, 6), ("exec sleep 60", 0, 2)])
@pytest.mark.filterwarnings("ignore:once more")
def test_one_that_hung_before_its_first_word_is_started_again(
    begins, inputs, seconds, monkeypatch, tmp_path
):
    monkeypatch.setattr(fuzz, "USUAL_TIME", 1)
    monkeypatch.setattr(fuzz, "GRACE", seconds - 1)
    begun = tmp_path / "begun"
    script = f"[ -e {begun} ] || {{ touch {begun}; exec sleep 60; }}; [ {inputs} = 0 ] || echo '#9 DONE'; {begins}"
    with repeats.counted(tmp_path / "repeated.txt") as count:
        result = run_made(tmp_path, script, monkeypatch)
        assert (result.inputs, bool(result.problem), count()) == (inputs, inputs == 0, 1)


def test_every_fuzzer_has_a_name_of_its_own_and_seeds():
    assert len(set(NAMES)) == len(NAMES) > 0
    for fuzzer in fuzz.fuzzers():
        assert any(fuzzer.seeds.iterdir()), fuzzer.name
        for seed in fuzzer.seeds.iterdir():
            assert seed.stat().st_size <= fuzz.LONGEST_INPUT, seed
    folders = {fuzzer.seeds for fuzzer in fuzz.fuzzers()}
    for sources in {fuzzer.sources for fuzzer in fuzz.fuzzers()}:
        assert set((sources / "corpus").iterdir()) <= folders


def test_the_word_lists_them():
    program = [sys.executable, "-B", str(paths.ROOT / "tests/fuzz.py"), "list"]
    assert subprocess.run(program, capture_output=True, text=True).stdout.split() == NAMES


def test_all_share_the_time():
    chosen, seconds = fuzz.read_arguments(["all", "10"])
    assert [fuzzer.name for fuzzer in chosen] == NAMES and seconds == 600 // len(NAMES)
    assert fuzz.read_arguments(["midnight", "7"])[1] == 7
    assert fuzz.read_arguments(["midnight"])[1] == fuzz.USUAL_TIME


@pytest.mark.parametrize(
    "arguments", [[], ["all"], ["nothing"], ["midnight", "0"], ["midnight", "x"], ["all", "1", "1"]]
)
def test_other_arguments_are_refused(arguments):
    with pytest.raises(ValueError):
        fuzz.read_arguments(arguments)


def test_a_run_to_the_end_is_counted(tmp_path, monkeypatch):
    result = run_made(tmp_path, "echo '#2 INITED'; echo '#1000 DONE   cov: 1'", monkeypatch)
    assert (result.inputs, result.found, result.problem) == (1000, [], "")
    assert run_tests.judge_fuzzer("core", result) == run_tests.Outcome(passed=1)


@pytest.mark.parametrize(
    "script, inputs, found",
    [
        ("echo '#8 pulse'; echo broken >${artifacts}crash-1; exit 77", 8, ["made-crash-1"]),
        ("echo '#1000 DONE'; echo slow >${artifacts}slow-unit-1", 1000, ["made-slow-unit-1"]),
        ("echo '#1000 DONE'; exit 1", 1000, []),
        ("echo '#16 pulse'", 16, []),
        (":", 0, []),
    ],
)
def test_a_finding_or_another_end_fails(script, inputs, found, tmp_path, monkeypatch):
    result = run_made(tmp_path, script, monkeypatch)
    assert result.inputs == inputs and [file.name for file in result.found] == found
    assert result.problem
    assert run_tests.judge_fuzzer("core", result).failed == ["./run test core # fuzz_made"]


def test_too_few_inputs_fail(tmp_path, monkeypatch):
    result = run_made(tmp_path, "echo '#3 DONE'", monkeypatch)
    assert run_tests.judge_fuzzer("core", result).failed == ["./run test core # fuzz_made"]


@pytest.mark.parametrize("script, code", [("echo '#5 DONE'", 0), ("echo >${artifacts}crash-1", 1)])
def test_the_last_line_and_the_exit_code_tell_of_findings(
    script, code, tmp_path, monkeypatch, capsys
):
    fuzzer = made_fuzzer(tmp_path, script, monkeypatch)
    monkeypatch.setattr(fuzz, "fuzzers", lambda: [fuzzer])
    monkeypatch.setattr(fuzz, "KEPT", tmp_path / "kept")
    monkeypatch.setattr(fuzz, "FOUND", tmp_path / "kept/found")
    assert fuzz.main(["made", "1"]) == code
    lines = capsys.readouterr().out.splitlines()
    inputs = 0 if code else 5
    assert lines[-1] == f"fuzz: {inputs} inputs (made {inputs}), {code} found"
    assert any("kept/found/made-crash-1 tests/core/fuzz/corpus/made/NAME" in each for each in lines) == (
        code == 1
    )


def test_the_last_line_tells_inputs_by_fuzzer_and_over_all():
    results = [
        fuzz.Result(fuzzer, inputs=1000 * number)
        for number, fuzzer in enumerate(fuzz.fuzzers()[:2], start=1)
    ]
    assert fuzz.closing_line(results) == (
        f"fuzz: 3,000 inputs ({NAMES[0]} 1,000, {NAMES[1]} 2,000), 0 found"
    )
