"""The sweep plans its runs as it should, and judges what comes of them rightly."""

import subprocess
import sys
from collections import Counter
from dataclasses import replace
from pathlib import Path
from typing import IO

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

import sweep  # noqa: E402
from installer import actions, paths, repeats  # noqa: E402
from sweep import ACCESS, MEMORY, Failure, Limit, Row, Run, Scene  # noqa: E402

ACTION = actions.Action(
    name="Act",
    subsystem="",
    does="",
    execution="deferred",
    return_attribute="check",
    why="",
    schedule="",
    place=actions.Place("installation"),
    results=(actions.Result(0, "done"), actions.Result(1603, "failed")),
    exceptions=("RegKeyError", "std::filesystem::filesystem_error"),
    throws="now and then",
)
SCENE = Scene(
    "Act:there",
    "0",
    keeps={"RegOpenKeyExW": 1},
    why="never closed",
    touches=("T:\\Apps", "HKLM\\SOFTWARE\\Key : Name"),
    starts=("known .*",),
)
THROWN = {"CreateSemaphoreA": 2, "malloc": 4}
LIMIT = Limit(
    ("LoadLibraryA",),
    "the loader's own",
    ends=("abort",),
    keeps={"RegOpenKeyExW": 1},
    starts=("other",),
)
SUBJECT = sweep.Subject("a.dll", {"Act": ACTION}, sweep.Table({}, (SCENE,), THROWN, (LIMIT,)))
WHOLE = Run(Failure(), False, "result 0", started=("usual",))
FAILURE = Failure("RegGetValueW", 3, MEMORY)
DONE = Run(FAILURE, True, "result 0")


def complaints(run: Run, scene: Scene = SCENE) -> list[str]:
    return list(sweep.complaints(SUBJECT, scene, WHOLE, run))


@pytest.mark.parametrize(
    "count, allocates, expected",
    [
        (0, False, []),
        (3, False, [1, 2, 3]),
        (20, False, [*range(1, 21)]),
        (29, False, [*range(1, 21)]),
        (45, False, [*range(1, 21), 30, 40]),
        (50, False, [*range(1, 21), 30, 40, 50]),
        (45, True, [*range(1, 46)]),
    ],
)
def test_calls_fail_densely_at_first(count, allocates, expected):
    assert sweep.positions(count, allocates) == expected


def test_the_plan_has_each_call_with_each_reason():
    signs = {"malloc": "null", "RegOpenKeyExW": "status"}
    calls = {"RegOpenKeyExW": 2, "malloc": 2}
    assert sweep.plan(calls, signs, first=False) == [
        Failure("RegOpenKeyExW", 1, ACCESS),
        Failure("RegOpenKeyExW", 1, MEMORY),
        Failure("RegOpenKeyExW", 2, ACCESS),
        Failure("RegOpenKeyExW", 2, MEMORY),
        Failure("malloc", 1, MEMORY),
        Failure("malloc", 2, MEMORY),
    ]
    assert sweep.plan(calls, signs, first=True) == [
        Failure("RegOpenKeyExW", 1, ACCESS),
        Failure("malloc", 1, MEMORY),
    ]


@pytest.mark.parametrize(
    "ended",
    [
        "result 0",
        "result 1603",
        "C++ exception halvard::RegKeyError",
        "C++ exception std::filesystem::__cxx11::filesystem_error",
        "C++ exception std::bad_alloc",
    ],
)
def test_what_the_contract_names_is_no_finding(ended):
    assert complaints(replace(DONE, ended=ended)) == []


@pytest.mark.parametrize(
    "ended",
    [
        "result 1",
        "C++ exception std::out_of_range",
        "C++ exception",
        "RegKeyError",
        "structured exception EXCEPTION_ACCESS_VIOLATION 0xC0000005",
        "abort",
        sweep.NO_END,
        sweep.ENDED_PROCESS,
    ],
)
def test_every_other_end_is_a_finding(ended):
    assert complaints(replace(DONE, ended=ended)) == [f"ends with {ended}"]


def test_a_result_that_is_not_fixed_allows_all():
    other = actions.Result(actions.OTHER, "a number", "whatever")
    assert sweep.is_known(replace(ACTION, results=(other,)), "result 77")


def test_what_is_kept_beyond_the_contract_is_a_finding():
    assert complaints(replace(DONE, kept={"RegOpenKeyExW": 1})) == []
    assert complaints(replace(DONE, kept={"RegOpenKeyExW": 2})) == ["keeps 2 of RegOpenKeyExW"]
    assert complaints(replace(DONE, kept={"CreateFileW": 1})) == ["keeps 1 of CreateFileW"]


def test_what_an_exception_leaves_counts_only_as_a_whole():
    assert complaints(replace(DONE, kept=THROWN)) == []
    assert complaints(replace(DONE, kept=THROWN | {"malloc": 5})) == ["keeps 5 of malloc"]
    assert complaints(replace(DONE, kept={"malloc": 4})) == ["keeps 4 of malloc"]


def test_what_changes_elsewhere_is_a_finding():
    inside = ("T:\\Apps", "t:\\apps\\file", "HKLM\\SOFTWARE\\Key : Name")
    outside = ("T:\\Apps2", "T:\\Other", "HKLM\\SOFTWARE\\Key", "restart T:\\Apps\\file")
    found = complaints(replace(DONE, changed=inside + outside))
    assert found == [f"changes {name}" for name in outside]


def test_what_starts_only_when_a_call_fails_is_a_finding():
    assert complaints(replace(DONE, started=("usual", "known one"))) == []
    assert complaints(replace(DONE, started=("other",))) == ["starts other"]


def test_a_limit_holds_for_its_functions_and_scenes():
    limited = replace(DONE, failure=Failure("LoadLibraryA", 1))
    assert complaints(replace(limited, ended="abort", kept={"CreateFileW": 9})) == []
    assert complaints(replace(limited, kept={"RegOpenKeyExW": 2}, started=("other",))) == []
    assert complaints(replace(DONE, ended="abort")) == ["ends with abort"]
    elsewhere = replace(LIMIT, scenes=("Act:elsewhere",))
    assert not elsewhere.holds_for(SCENE, "LoadLibraryA")
    assert replace(LIMIT, scenes=("Act:there",)).holds_for(SCENE, "LoadLibraryA")


def test_a_line_of_the_program_is_a_run():
    words = ["7", "1", "result 0", "malloc 2|CreateFileW 1", "T:\\a b|HKLM\\c : d", ""]
    read = sweep.read_run(FAILURE, words)
    assert read == Run(
        FAILURE, True, "result 0", {"malloc": 2, "CreateFileW": 1}, ("T:\\a b", "HKLM\\c : d"), ()
    )


def test_the_table_tells_what_was_seen_and_found():
    row = Row("Act", 3, 12, Counter({"0": 11, "RegKeyError": 1}), ["it keeps a key"])
    lines = sweep.table([row]).splitlines()
    assert lines[1].split() == ["Act", "3", "12", "1", "0", "(11),", "RegKeyError", "(1)"]
    assert lines[2:] == ["Act: it keeps a key", "sweep: 1 scenes, 12 runs, 1 findings"]


@pytest.mark.parametrize(
    "arguments, runs, findings, code",
    [
        ([], sweep.LEAST_RUNS, [], 0),
        ([], sweep.LEAST_RUNS, ["something"], 1),
        ([], sweep.LEAST_RUNS - 1, [], 1),
        (["--first"], 1, [], 0),
        (["BlockLaunch"], 1, [], 0),
        (["BlockLaunch"], 1, ["something"], 1),
        (["NoSuchScene"], 1, [], 2),
    ],
)
def test_the_exit_code_tells_of_findings_and_of_too_few_runs(
    monkeypatch, arguments, runs, findings, code
):
    monkeypatch.setattr(
        sweep, "sweep", lambda *_, **__: [Row("Act", 1, runs, Counter(), list(findings))]
    )
    assert sweep.main(arguments) == code


def test_each_action_has_a_scene_and_each_import_a_place():
    subject = sweep.shipped()
    assert {scene.action for scene in subject.table.scenes} == set(actions.exports())
    imported = sweep.import_names(paths.LIBRARY)
    assert "RegOpenKeyExW" in imported
    assert set(imported) <= set(subject.table.signs)


ROWS = "[signs]\nzero = ['A']\n[exception]\nkeeps = {}\n"
SPARED = "[[spared]]\nwhy = 'so'\nfunctions = ['B']\n"


@pytest.mark.parametrize(
    "text, wrong",
    [
        (ROWS + SPARED.replace("'B'", "'A'") + "[[scene]]\nname = 'C'\nends = '0'\n", "A"),
        (ROWS + SPARED + "[[scene]]\nname = 'C'\nends = '0'\nkeeps = { A = 1 }\n", "C"),
    ],
)
def test_a_table_that_contradicts_itself_is_refused(tmp_path, text, wrong):
    file = tmp_path / "sweep.toml"
    file.write_text(text)
    with pytest.raises(ValueError, match=wrong):
        sweep.read_table(file)


def test_a_planted_fault_that_is_not_found_is_told():
    rows = [Row(name, findings=[found]) for name, found in sweep.expected_findings().items()]
    rows.append(Row(sweep.FAULTLESS))
    assert sweep.missed_faults(rows) == {}
    first = rows[0].findings.pop()
    rows[-1].findings.append("something")
    assert sweep.missed_faults(rows) == {
        rows[0].scene: f"not found: {first}, but nothing",
        sweep.FAULTLESS: "something",
    }


NOT_STARTED = "error\tno program can be started: 8"
CALLED = "call\t0"
ENDED = "run\t0\t1\tresult 0\t\t\t"


class Played:
    """A prefix in which each process prints the lines that are told for it."""

    def __init__(self, tmp_path: Path, *outputs: list[str]) -> None:
        self.path = tmp_path
        self.outputs = list(outputs)

    def host_path(self, _folder: str) -> Path:
        return self.path / "own"

    def start(self, *_words: str, **streams: int | IO[bytes]) -> "subprocess.Popen[bytes]":
        lines = "".join(f"{line}\n" for line in self.outputs.pop(0))
        return subprocess.Popen(["printf", "%s", lines], **streams)


@pytest.mark.parametrize(
    "outputs, repeated",
    [
        ([[CALLED, ENDED, "done"]], 0),
        ([[NOT_STARTED], [CALLED, ENDED, "done"]], 1),
        ([[], [CALLED, ENDED, "done"]], 1),
    ],
)
def test_what_came_to_no_call_is_started_once_more(tmp_path, outputs, repeated):
    prefix = Played(tmp_path, *outputs)
    with repeats.counted(tmp_path / "repeated.txt") as count:
        runs = list(sweep.execute(prefix, sweep.shipped(), SCENE, [FAILURE], Counter()))
        assert count() == repeated
    assert [run.ended for run in runs] == ["result 0"]
    assert prefix.outputs == []


@pytest.mark.parametrize(
    "outputs, told, repeated",
    [
        ([[NOT_STARTED], [NOT_STARTED]], "no program can be started: 8", 1),
        ([[CALLED, "error\tthe table does not know"]], "the table does not know", 0),
        ([[CALLED, "ended\t0"]], "the sweep ended by itself", 0),
    ],
)
def test_what_fails_twice_or_behind_a_call_is_told(tmp_path, outputs, told, repeated):
    prefix = Played(tmp_path, *outputs)
    with repeats.counted(tmp_path / "repeated.txt") as count:
        with pytest.raises(RuntimeError, match=told):
            list(sweep.execute(prefix, sweep.shipped(), SCENE, [FAILURE], Counter()))
        assert count() == repeated
    assert prefix.outputs == []
