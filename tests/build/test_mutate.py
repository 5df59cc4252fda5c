"""What breaks the sources does so as it should and nowhere else, and judges rightly."""

import json
import sys
import threading
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

import mutants  # noqa: E402
import mutate  # noqa: E402
import reached  # noqa: E402
from mutants import KILLED, NOT_REACHED, SURVIVED, code_of, compared  # noqa: E402
from mutants import drawn, judge, mutants_of  # noqa: E402
from reached import Reached  # noqa: E402


def made(line: str, kind: str | None = None) -> list[str]:
    """What a line of a function becomes, mutant by mutant."""
    text = f"void f() {{\n    {line}\n}}\n"
    found = mutants_of("a.cpp", text)
    assert {each.line for each in found} <= {2}
    return [each.after for each in found if kind in (None, each.kind)]


@pytest.mark.parametrize(
    "line, kind, after",
    [
        ("x = a == b;", "comparison", ["x = a != b;"]),
        ("x = a != b;", "comparison", ["x = a == b;"]),
        ("x = a < b;", "comparison", ["x = a <= b;"]),
        ("x = a <= b;", "comparison", ["x = a < b;"]),
        ("x = a > b;", "comparison", ["x = a >= b;"]),
        ("x = a >= b;", "comparison", ["x = a > b;"]),
        ("x = a ==", "comparison", ["x = a !="]),
        ("x = a && b;", "logic", ["x = a || b;"]),
        ("x = a || b;", "logic", ["x = a && b;"]),
        ("x = !a;", "logic", ["x = a;"]),
        ("x = true;", "logic", ["x = false;"]),
        ("x = FALSE;", "logic", ["x = TRUE;"]),
        ("x = 260;", "constant", ["x = 261;"]),
        ("x = 0x1fU;", "constant", ["x = 0x20U;"]),
        ("x = y - 1;", "constant", ["x = y - 2;"]),
        ("Log(session);", "call", ["if (false) Log(session);"]),
        ("halvard::Log(f(a), g(b)->c);", "call", ["if (false) halvard::Log(f(a), g(b)->c);"]),
        ("a.b()->c(d);", "call", ["if (false) a.b()->c(d);"]),
        ("static_cast<void>(Log(x));", "call", ["if (false) static_cast<void>(Log(x));"]),
        ("RegCloseKey(key);", "release", ["if (false) RegCloseKey(key);"]),
        ("CloseServiceHandle(a);", "release", ["if (false) CloseServiceHandle(a);"]),
        ("key.reset();", "release", ["if (false) key.reset();"]),
        ("folder.Close();", "release", ["if (false) folder.Close();"]),
        ("LocalFree(a);", "release", ["if (false) LocalFree(a);"]),
        ("holder.reset(opened);", "call", ["if (false) holder.reset(opened);"]),
        ('x = L"abc";', "text", ['x = L"abc~";']),
        ('x = L"";', "text", ['x = L"~";']),
        ('x = "a\\"b";', "text", ['x = "a\\"b~";']),
        ("x = L'\\\\';", "text", ["x = L'~';"]),
        ("x = '~';", "text", ["x = '+';"]),
        ('x = R"(a"b)";', "text", ['x = R"(a"b~)";']),
        ("x = A | B;", "flag", ["x = B;", "x = A;"]),
        ("x = A | ~B | f(c);", "flag", ["x = ~B | f(c);", "x = A | f(c);", "x = A | ~B;"]),
        ("Open(k, A | B, c);", "flag", ["Open(k, B, c);", "Open(k, A, c);"]),
        ("x = KEY_WOW64_64KEY;", "flag", ["x = KEY_WOW64_32KEY;"]),
        ("x = HKEY_LOCAL_MACHINE;", "flag", ["x = HKEY_CURRENT_USER;"]),
        ("return ERROR_SUCCESS;", "code", ["return ERROR_INSTALL_FAILURE;"]),
        ("return ERROR_DIRECTORY;", "code", ["return ERROR_SUCCESS;"]),
        ("return S_OK;", "code", ["return E_FAIL;"]),
        ("return STG_E_INVALIDFUNCTION;", "code", ["return S_OK;"]),
    ],
)
def test_each_kind_makes_the_mutant_that_it_should(line, kind, after):
    assert made(line, kind) == after


@pytest.mark.parametrize(
    "line",
    [
        "// a == b && !c, 5, \"text\"; Log(x);",
        "/* a == b; Log(5); */",
        'static_assert(sizeof(x) == 8, "text");',
        "std::vector<std::wstring> names;",
        "Type name{};",
        "Key key(opened);",
        "x = y->z;",
        "a1 = b2_3c;",
        "value = 1.5e3;",
        "throw Error(code);",
        "auto&& rest = x;",
        "x = a & b;",
        "return code;",
    ],
)
def test_what_is_no_kind_of_mutant_is_left_alone(line):
    assert made(line) == []


def test_nothing_is_broken_in_comments_preprocessor_lines_and_the_compilers_own_literals():
    text = """\
#include "runtime/text.h"
#define TWICE(x) \\
    ((x) == 2 ? "a" : "b")
// A comment with "a quote, that's open
/* over
   lines == 3 */
extern "C" void f();
[[deprecated("no")]] void g();
static_assert(sizeof(int) ==
              4, "wide");
"""
    assert mutants_of("a.cpp", text) == []


def test_literals_hide_what_looks_like_code():
    text = 'void f() {\n    x = L"a == b // 5 \\" && !c";\n    y = 3;\n}\n'
    assert [(each.line, each.kind) for each in mutants_of("a.cpp", text)] == [
        (2, "text"),
        (3, "constant"),
    ]
    code, literals = code_of("x = 1'000; // 'a\ny = 'b';\n")
    assert code == "x = 1'000;      \ny = ' ';\n" and len(literals) == 1


def test_a_call_over_several_lines_is_left_out_by_its_first():
    text = 'void f() {\n    a.Log(b,\n          c == d);\n    return;\n}\n'
    (call,) = (each for each in mutants_of("a.cpp", text) if each.kind == "call")
    assert call.applied(text) == text.replace("    a.Log(b,", "    if (false) a.Log(b,")


def test_a_call_that_is_part_of_a_statement_is_none_of_its_own():
    for line in ("if (a) {", "x = f(a);", "return f(a);", "f(a) + g(b);", "while (f()) {"):
        assert made(line, "call") == []


def test_a_term_with_its_operator_at_the_end_of_a_line_goes_with_it():
    text = "void f() {\n    Open(A |\n             B);\n}\n"
    (flag,) = (each for each in mutants_of("a.cpp", text) if each.kind == "flag")
    assert flag.applied(text) == "void f() {\n    Open(\n             B);\n}\n"


def test_every_mutant_is_one_changed_line():
    text = "void f() {\n    if (a == b && !c) {\n        Log(A | B, 5, \"x\");\n    }\n}\n"
    found = mutants_of("a.cpp", text)
    assert len({each.identity for each in found}) == len(found) == 8
    for each in found:
        pairs = list(zip(text.splitlines(), each.applied(text).splitlines(), strict=True))
        changed = [number for number, (old, new) in enumerate(pairs, start=1) if old != new]
        assert changed == [each.line]
        assert pairs[each.line - 1][0].strip() == each.before
        assert pairs[each.line - 1][1].strip() == each.after
    assert str(found[0]) == "a.cpp:2 comparison: if (a == b && !c) { -> if (a != b && !c) {"


def test_an_identity_stays_when_other_lines_move():
    text = "void f() {\n    x = 1;\n    y = 2;\n    x = 1;\n}\n"
    first, second, third = mutants_of("a.cpp", text)
    assert (first.occurrence, second.occurrence, third.occurrence) == (1, 1, 2)
    moved = mutants_of("a.cpp", text.replace("    y", "\n    // why\n    z = 7;\n    y"))
    assert {first.identity, second.identity, third.identity} <= {each.identity for each in moved}
    assert moved[-1].line == third.line + 3


SOURCES = {
    "a.cpp": "".join(f"bool a{number} = b == {number};\n" for number in range(40)),
    "b.cpp": "int b = 1;\n",
    "c.cpp": "".join(f'auto c{number} = "c";\n' for number in range(20)),
    "none.cpp": "int none();\n",
}


def test_a_draw_is_the_same_for_the_same_seed_and_has_each_file():
    order = drawn(SOURCES, 1)
    assert order == drawn(dict(reversed(SOURCES.items())), 1)
    assert order != drawn(SOURCES, 2)
    assert len(order) == len(set(order)) == 101
    assert {each.file for each in order[:3]} == {"a.cpp", "b.cpp", "c.cpp"}
    files = [each.file for each in order[:51]]
    assert 38 <= files.count("a.cpp") <= 42 and 8 <= files.count("c.cpp") <= 12
    kinds = [each.kind for each in order if each.file == "a.cpp"][:20]
    assert 8 <= kinds.count("comparison") <= 12


def test_a_new_line_changes_little_of_a_draw():
    more = SOURCES | {"a.cpp": f"int more = 3;\n{SOURCES['a.cpp']}"}
    before, after = ({each.identity for each in drawn(each, 1)[:50]} for each in (SOURCES, more))
    assert len(before & after) >= 45


def test_the_librarys_sources_all_have_mutants_that_differ():
    sources = mutate.library_sources()
    order = drawn(sources, 1)
    assert {each.file for each in order[: len(sources)]} == set(sources)
    assert len({each.identity for each in order}) == len(order) > 1000


def result(mutant: mutants.Mutant, verdict: str, **other: object) -> dict:
    names = ("file", "line", "kind", "before", "after", "occurrence")
    return {name: getattr(mutant, name) for name in names} | {"verdict": verdict} | other


def entry(mutant: mutants.Mutant, **other: object) -> dict:
    names = ("file", "kind", "before", "after", "occurrence")
    return {name: getattr(mutant, name) for name in names} | {"reason": "why"} | other


ONE, TWO, THREE = mutants_of("a.cpp", "int x = 1;\nint y = 2;\nint z = 3;\n")
ALL = (ONE, TWO, THREE)
EQUIVALENT = [entry(ONE), entry(TWO)]
GONE = entry(ONE, before="int old = 1;", after="int old = 2;")


def test_survivors_have_to_be_listed():
    results = [result(ONE, SURVIVED), result(TWO, NOT_REACHED), result(THREE, KILLED)]
    assert judge(results, [], ALL) == (results[:2], [])
    assert judge(results, [entry(ONE)], ALL) == ([results[1]], [])
    assert judge(results, [entry(ONE), entry(TWO)], ALL) == ([], [])
    assert judge([], [entry(ONE)], ALL) == ([], []), "not tried this time"


def test_what_is_listed_and_killed_or_gone_is_stale():
    unlisted, stale = judge([result(THREE, KILLED)], [entry(THREE), GONE], ALL)
    assert unlisted == []
    assert stale == [
        "listed, but killed: a.cpp constant: int z = 3;",
        "listed, but not there any more: a.cpp constant: int old = 1;",
    ]


@pytest.mark.parametrize(
    "listed, code",
    [
        ([], 1),
        ([entry(ONE)], 1),
        (EQUIVALENT, 0),
        ([*EQUIVALENT, entry(THREE)], 1),
        ([*EQUIVALENT, GONE], 1),
    ],
)
def test_the_exit_code_tells_a_survivor_that_is_not_listed_and_a_list_that_is_wrong(
    listed, code, capsys
):
    results = [result(ONE, SURVIVED), result(TWO, NOT_REACHED), result(THREE, KILLED)]
    assert mutate.tell(results, 4, listed, ALL) == code
    lines = capsys.readouterr().out.splitlines()
    note = " (listed)" if listed else ""
    assert lines[0] == f"survived: a.cpp:1 constant: int x = 1; -> int x = 2;{note}"
    assert lines[-1] == "3 mutants: 1 killed, 2 survived, 4 did not compile"


def test_a_listed_mutant_needs_a_reason(tmp_path):
    file = tmp_path / "mutants.toml"
    text = "[[equivalent]]\nfile = 'a.cpp'\nkind = 'code'\nbefore = 'x'\nafter = 'y'\n"
    file.write_text(text + "reason = 'nobody sees it'\n")
    (read,) = mutants.read_listed(file)
    assert mutants.identity_of(read) == ("a.cpp", "code", "x", "y", 1)
    file.write_text(text)
    with pytest.raises(ValueError, match="no reason"):
        mutants.read_listed(file)
    file.write_text("")
    assert mutants.read_listed(file) == []


def test_the_list_names_each_mutant_once_and_only_those_of_the_sources():
    identities = list(map(mutants.identity_of, mutants.read_listed(mutate.LISTED)))
    assert len(set(identities)) == len(identities) > 0
    possible = {each.identity for each in mutants.all_of(mutate.library_sources())}
    assert [each for each in identities if each not in possible] == []


def test_two_results_are_compared():
    before = {"files": ["a.cpp"], "mutants": [result(ONE, SURVIVED), result(TWO, KILLED)]}
    after = {"files": ["a.cpp"], "mutants": [result(each, SURVIVED) for each in ALL]}
    assert compared(before, before) == []
    assert compared(before, after) == [
        "a.cpp:2 constant: int y = 2; -> int y = 3; (killed before)",
        "a.cpp:3 constant: int z = 3; -> int z = 4; (not tried before)",
    ]


def test_mutants_of_a_renamed_file_are_the_same():
    before = {"files": ["old.cpp"], "mutants": [result(ONE, SURVIVED) | {"file": "old.cpp"}]}
    after = {"files": ["a.cpp"], "mutants": [result(ONE, SURVIVED), result(TWO, SURVIVED)]}
    assert compared(before, after) == [
        "a.cpp:2 constant: int y = 2; -> int y = 3; (not tried before)"
    ]
    # The same text in another file, where the file itself is known, is another mutant.
    assert len(compared(before | {"files": ["old.cpp", "a.cpp"]}, after)) == 2


def test_two_results_are_compared_from_their_files(tmp_path, capsys, monkeypatch):
    monkeypatch.setenv("HALVARD_CALLER", str(tmp_path))
    for name, verdict in (("before.json", KILLED), ("after.json", SURVIVED)):
        data = {"files": ["a.cpp"], "mutants": [result(ONE, verdict)]}
        (tmp_path / name).write_text(json.dumps(data))
    assert mutate.main(["--compare", "before.json", "after.json"]) == 1
    assert capsys.readouterr().out.splitlines()[-1] == "1 survive that did not before"
    assert mutate.main(["--compare", "after.json", "before.json"]) == 0


def never() -> None:
    raise AssertionError("nobody has to wait")


def test_what_does_not_compile_is_replaced_by_the_next():
    draw = mutate.Draw([ONE, TWO, THREE], 2)
    assert [draw.take(never), draw.take(never)] == [ONE, TWO]
    draw.compiled(ONE, False)
    assert draw.take(never) == THREE
    draw.compiled(TWO, True)
    draw.compiled(THREE, True)
    assert draw.take(never) is None and draw.not_compiled == [ONE]


def test_a_mutant_is_given_only_when_those_before_it_are_not_enough():
    draw = mutate.Draw([ONE, TWO, THREE], 1)
    assert draw.take(never) == ONE
    given = []
    other = threading.Thread(target=lambda: given.append(draw.take(lambda: None)))
    other.start()
    other.join(0.2)
    assert other.is_alive()
    draw.compiled(ONE, True)
    other.join(10)
    assert given == [None]
    assert mutate.Draw([], 3).take(never) is None


PASSED = "[ RUN      ] A.B\n[       OK ] A.B (1 ms)\n[  PASSED  ] 1 test.\n"


@pytest.mark.parametrize(
    "log, ended, by",
    [
        (PASSED, "exit code 0", ""),
        (PASSED, "exit code 3", "A.B: exit code 3"),
        ("[ RUN      ] A.B\n[  FAILED  ] A.B (1 ms)\n", "exit code 1", "A.B"),
        ("[  FAILED  ] A/B.C/1, where GetParam() = 5 (1 ms)\n", "exit code 1", "A/B.C/1"),
        ("[ RUN      ] A.B\n", "no end within 60 s", "A.B: no end within 60 s"),
        ("[ RUN      ] A.B\n", "exit code 0", "A.B: exit code 0"),
        ("", "exit code 5", "no test had begun: exit code 5"),
    ],
)
def test_who_sees_a_mutant_is_told(log, ended, by):
    assert mutate.seen_by(log, ended) == by


@pytest.mark.parametrize(
    "seen, times, verdict",
    [
        (["no test had begun: no end within 60 s", ""], 2, (SURVIVED, "")),
        (["no test had begun: exit code 5"], 1, (KILLED, "no test had begun: exit code 5")),
        (["A.B: no end within 60 s"], 1, (KILLED, "A.B: no end within 60 s")),
        ([""], 1, (SURVIVED, "")),
    ],
)
def test_only_a_hang_before_the_first_test_is_tried_once_more(seen, times, verdict, monkeypatch):
    lane, answers = object.__new__(mutate.Lane), iter(seen)
    asked, counted = [], []
    monkeypatch.setattr(mutate.repeats, "tell", counted.append)
    monkeypatch.setattr(lane, "_seen_by", lambda *_: asked.append("once") or next(answers))
    assert lane.judge(reached.Runner(), REACHED, ["One"]) == verdict
    assert len(asked) == times == len(counted) + 1


def test_a_lane_in_which_tests_fail_without_a_mutant_is_refused(monkeypatch):
    lane = object.__new__(mutate.Lane)
    monkeypatch.setattr(lane, "_log", "log.txt", raising=False)
    monkeypatch.setattr(lane, "link", lambda: None)
    monkeypatch.setattr(lane, "_seen_by", lambda *_: "A.B")
    with pytest.raises(RuntimeError, match="fails without a mutant: A.B"):
        lane.check(reached.Runner(), REACHED, ["One"])


TEXT = """\
constexpr int kLimit = 3;
int f(int x) {
    return g(x,
             "a",
             h(x));
}
"""
SECONDS = {"One": 1.0, "Two": 9.0, "Three": 2.0}
REACHED = Reached(SECONDS, {"a.cpp": {2: ["One", "Two"], 3: ["One"]}})


@pytest.mark.parametrize(
    "line, suites",
    [(2, ["One", "Two"]), (3, ["One"]), (4, ["One"]), (5, ["One"]), (1, ["One", "Two"])],
)
def test_a_line_without_code_of_its_own_is_reached_with_its_statement_or_its_file(line, suites):
    assert REACHED.by("a.cpp", TEXT, line) == suites


def test_a_line_that_nothing_reaches_has_no_suites():
    nothing = Reached({"One": 1.0}, {"a.cpp": {3: []}})
    assert nothing.by("a.cpp", TEXT, 3) == nothing.by("b.cpp", TEXT, 3) == []


def test_quick_suites_run_first():
    every = ["One", "Three", "Two"]
    assert reached.batches(REACHED, every, 5.0) == [["One", "Three"], ["Two"]]
    assert reached.batches(REACHED, ["Two"], 5.0) == [["Two"]]
    assert reached.batches(REACHED, ["One"], 5.0) == [["One"]]


def test_what_gcov_tells_is_read_of_the_librarys_sources_alone():
    def told(name: str, *lines: tuple[int, int]) -> str:
        counted = [{"line_number": number, "count": count} for number, count in lines]
        return json.dumps({"files": [{"file": name, "lines": counted}]})

    library = f"./{reached.LIBRARY}/"
    output = "\n".join(
        [
            told(f"{library}runtime/a.cpp", (1, 0), (2, 3), (2, 0), (3, -4)),
            told(f"{library}runtime/a.h", (1, 1)),
            told("tests/wine/b.cpp", (1, 1)),
        ]
    )
    assert reached.read_gcov(output) == {"runtime/a.cpp": {1: False, 2: True, 3: True}}


def test_what_was_found_is_kept_until_sources_or_tests_change(tmp_path, monkeypatch):
    asked = []

    def measure(*_: object) -> Reached:
        asked.append("once")
        return REACHED

    monkeypatch.setattr(reached, "_measure", measure)
    kept = tmp_path / "reached.json"
    for now in ("first", "first", "second"):
        monkeypatch.setattr(reached, "fingerprint", lambda now=now: now)
        assert reached.reached(kept, reached.Runner(), print) == REACHED
    assert asked == ["once", "once"]


def test_lanes_end_together_when_one_fails():
    runner = reached.Runner()

    def lane(number: int) -> None:
        if number == 0:
            raise RuntimeError("broken")
        while True:
            runner.go_on()

    with pytest.raises(RuntimeError, match="broken"):
        reached.in_lanes(lane, runner)


def test_a_source_is_named_by_its_path_or_below_the_librarys_folder(monkeypatch):
    sources = mutate.library_sources()
    monkeypatch.setenv("HALVARD_CALLER", str(mutate.ROOT / mutate.LIBRARY / "runtime"))
    assert mutate.source_name("session.cpp", sources) == "runtime/session.cpp"
    assert mutate.source_name("runtime/session.cpp", sources) == "runtime/session.cpp"
    for unknown in ("session.h", "gone.cpp", "/etc/hosts"):
        with pytest.raises(ValueError, match="no source of the library"):
            mutate.source_name(unknown, sources)


def test_without_the_kernels_help_no_mutant_is_run(monkeypatch, capsys):
    monkeypatch.setattr(mutate.confinement, "rights", lambda: 0)
    assert mutate.main([]) == 2
    assert "none is run" in capsys.readouterr().err
