"""The sources: which read which, and that the tools which read them all can complain."""

import re
from pathlib import Path

import pytest

import lint
from lint import LIBRARY_SOURCES, RUNNER_SOURCES, includes, own_includes


def library_files(*suffixes: str) -> list[Path]:
    return sorted(file for file in LIBRARY_SOURCES.rglob("*") if file.suffix in suffixes)


def test_a_check_is_made_again_when_what_it_reads_has_changed(tmp_path, monkeypatch):
    source = tmp_path / "source.cpp"
    source.write_text('#include "runtime/text.h"\n')
    check = lint.Check("clang++", ("clang++",))
    first = lint.fingerprint(check, source)
    assert LIBRARY_SOURCES / "runtime/text.h" in lint.closure(source)
    assert lint.fingerprint(check, source) == first
    assert lint.fingerprint(lint.Check("clang++", ("clang++", "-more")), source) != first
    source.write_text('#include "runtime/text.h"\n\n')
    second = lint.fingerprint(check, source)
    assert second != first
    monkeypatch.setattr(lint, "tool_version", lambda tool: "another version")
    assert lint.fingerprint(check, source) != second


def test_the_checks_read_the_library_and_the_runner():
    names = {file.name for file in lint.checked_sources()}
    assert names >= {"session.cpp", "registry.cpp", "launch.cpp", "report.cpp", "library.cpp", "verify.cpp"}


@pytest.mark.parametrize(
    "check, warning",
    [
        (lint.second_compiler, "-Wimplicit-int-conversion"),
        (lint.analysis, "bugprone-narrowing-conversions"),
    ],
    ids=["second compiler", "analysis"],
)
def test_the_second_compiler_and_its_analysis_can_complain(check, warning, tmp_path):
    faulty = tmp_path / "faulty.cpp"
    faulty.write_text("#include <windows.h>\nint Cut(DWORD size) { short s = size; return s; }\n")
    assert warning in lint.complaint(check(), faulty)


def test_the_layout_of_a_faulty_source_is_a_complaint(tmp_path, monkeypatch):
    faulty = tmp_path / "faulty.cpp"
    faulty.write_text("int  main( ) {return 0;}\n")
    monkeypatch.setattr(lint, "tracked", lambda *patterns: [faulty])
    here = lint.layout_version(lint.tool_version("clang-format"))
    monkeypatch.setattr(lint, "LAYOUT_VERSION", here)
    assert "-Wclang-format-violations" in lint.layout_complaints()


def test_another_version_of_the_layout_tool_says_that_it_does_not_judge(monkeypatch, capsys):
    monkeypatch.setattr(lint, "tool_version", lambda tool: "clang-format version 99.1.2")
    assert lint.layout_complaints() == ""
    assert capsys.readouterr().out == "layout: not judged, clang-format 14 does that and here is 99\n"


@pytest.mark.parametrize("found", ["", "layout:\nfaulty.cpp"])
def test_lint_is_red_when_something_is_found(found, monkeypatch, capsys):
    monkeypatch.setattr(lint, "layout_complaints", lambda: found)
    monkeypatch.setattr(lint, "checked_sources", lambda: [])
    assert lint.main() == (1 if found else 0)
    assert found in capsys.readouterr().out


def test_the_runtime_includes_no_other_subsystem():
    for file in (LIBRARY_SOURCES / "runtime").iterdir():
        quoted = re.findall(r'^#include "(.*)"', file.read_text(), re.MULTILINE)
        assert [name for name in quoted if not name.startswith("runtime/")] == [], file


def test_no_two_files_include_each_other_in_a_circle():
    def visit(file: Path, above: list[Path]) -> None:
        assert file not in above, [str(step) for step in [*above, file]]
        for included in own_includes(file):
            visit(included, [*above, file])

    for header in library_files(".h"):
        visit(header, [])


def portable_sources() -> list[Path]:
    lists = {
        LIBRARY_SOURCES: r"set\(portable_sources\s+(.*?)\)",
        RUNNER_SOURCES: r"add_library\(halvard_runner_text OBJECT\s+(.*?)\)",
    }
    return [
        folder / name
        for folder, pattern in lists.items()
        for name in re.search(
            pattern, (folder / "CMakeLists.txt").read_text(), re.DOTALL
        )[1].split()
    ]


def test_logic_without_windows_calls_includes_no_windows_header():
    def all_includes(file: Path) -> set[str]:
        found = set(includes(file))
        for included in own_includes(file):
            found |= all_includes(included)
        return found

    windows = {"windows.h", "msi.h", "msiquery.h", "objidl.h", "shellapi.h", "shlobj.h", "xmllite.h"}
    assert {file.parent.name for file in portable_sources()} >= {"runtime", "runner"}
    for source in portable_sources():
        assert all_includes(source) & windows == set(), source


def test_every_source_of_the_library_is_built():
    text = (LIBRARY_SOURCES / "CMakeLists.txt").read_text()
    for source in library_files(".cpp"):
        assert str(source.relative_to(LIBRARY_SOURCES)) in text, source
