"""The sources: layout, layers, a second compiler and its static analysis."""

import hashlib
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

from installer import paths

LIBRARY_SOURCES = paths.ROOT / "Utilities/CustomActions/Halvard_CA"
RUNNER_SOURCES = paths.ROOT / "tools/runner"
STANDARD_LIBRARY = Path("/usr/lib/gcc/x86_64-w64-mingw32/12-posix/include/c++")
# What the second compiler needs to read the sources as the first one does.
CLANG_FLAGS = [
    "--target=x86_64-w64-mingw32",
    "-std=c++17",
    *("-DUNICODE", "-D_UNICODE", "-DWIN32_LEAN_AND_MEAN", "-DNOMINMAX", "-D_WIN32_WINNT=0x0A00"),
    *(f"-isystem{STANDARD_LIBRARY / folder}" for folder in ("", "x86_64-w64-mingw32", "backward")),
    *(f"-I{folder}" for folder in (LIBRARY_SOURCES, RUNNER_SOURCES, paths.LIBRARY.parent)),
]
TIDY_SETTINGS = paths.ROOT / ".clang-tidy"
TIDY = ["clang-tidy", f"--config-file={TIDY_SETTINGS}", "--quiet"]
PASSED = paths.BUILD / "checked-sources"
WARNINGS = ["-Wall", "-Wextra", "-Wconversion", "-Wshadow", "-Werror"]


def tracked(*patterns: str) -> list[Path]:
    command = ["git", "ls-files", "-co", "--exclude-standard", "--", *patterns]
    listed = subprocess.run(command, cwd=paths.ROOT, capture_output=True, text=True, check=True)
    return [paths.ROOT / name for name in listed.stdout.splitlines()]


def library_files(*suffixes: str) -> list[Path]:
    return sorted(file for file in LIBRARY_SOURCES.rglob("*") if file.suffix in suffixes)


def checked_sources() -> list[Path]:
    """What the second compiler and its analysis read: all that is shipped."""
    return [*library_files(".cpp"), *sorted(RUNNER_SOURCES.glob("*.cpp"))]


def includes(file: Path) -> list[str]:
    return re.findall(r'^#include ["<](.*)[">]', file.read_text(), re.MULTILINE)


def own_includes(file: Path) -> list[Path]:
    folders = (LIBRARY_SOURCES, RUNNER_SOURCES)
    found = [folder / name for folder in folders for name in includes(file)]
    return [name for name in found if name.exists()]


def closure(file: Path) -> set[Path]:
    """A source with the project's own headers that it includes, in whatever depth."""
    found = {file}
    for included in own_includes(file):
        found |= closure(included)
    return found


def fingerprint(command: list[str], file: Path) -> str:
    """Of all that a check of one source reads, but for the tools and headers of the system."""
    read = [TIDY_SETTINGS, *sorted(closure(file))]
    digest = hashlib.sha256(repr(command).encode())
    for name in read:
        digest.update(b"\0" + name.read_bytes())
    return digest.hexdigest()


def run_on_each(command: list[str], files: list[Path], behind: tuple[str, ...] = ()) -> str:
    """The output of the runs that failed, two at a time; each source stands before `behind`.

    A source that has passed is read again when it, a header of it or the command has changed.
    """

    def run(file: Path) -> str:
        passed = PASSED / fingerprint([*command, str(file), *behind], file)
        if passed.exists():
            return ""
        done = subprocess.run(
            [*command, str(file), *behind], capture_output=True, text=True, cwd=paths.ROOT
        )
        if done.returncode != 0:
            return f"{file}\n{done.stdout}{done.stderr}"
        PASSED.mkdir(parents=True, exist_ok=True)
        passed.touch()
        return ""

    with ThreadPoolExecutor(2) as pool:
        return "".join(pool.map(run, files))


def test_a_check_is_made_again_when_what_it_reads_has_changed(tmp_path):
    source = tmp_path / "source.cpp"
    source.write_text('#include "runtime/text.h"\n')
    first = fingerprint(["check"], source)
    assert LIBRARY_SOURCES / "runtime/text.h" in closure(source)
    assert fingerprint(["check"], source) == first
    assert fingerprint(["check", "-more"], source) != first
    source.write_text('#include "runtime/text.h"\n\n')
    assert fingerprint(["check"], source) != first


def test_the_checks_read_the_library_and_the_runner():
    names = {file.name for file in checked_sources()}
    assert names >= {"session.cpp", "registry.cpp", "launch.cpp", "report.cpp", "library.cpp"}


def test_sources_are_laid_out_as_clang_format_says():
    files = tracked("*.cpp", "*.h")
    assert files
    command = ["clang-format", "--dry-run", "-Werror", *map(str, files)]
    done = subprocess.run(command, capture_output=True, text=True)
    assert done.returncode == 0, done.stderr


def test_a_second_compiler_reads_the_sources_without_a_warning():
    command = ["clang++", *CLANG_FLAGS, *WARNINGS, "-fsyntax-only"]
    assert run_on_each(command, checked_sources()) == ""


def test_clang_tidy_has_no_complaint():
    assert run_on_each(TIDY, checked_sources(), ("--", *CLANG_FLAGS)) == ""


@pytest.mark.parametrize("tool", ["clang++", "clang-tidy"])
def test_the_second_compiler_and_its_analysis_can_complain(tool, tmp_path):
    faulty = tmp_path / "faulty.cpp"
    faulty.write_text("#include <windows.h>\nint Cut(DWORD size) { short s = size; return s; }\n")
    if tool == "clang++":
        complaint = run_on_each(["clang++", *CLANG_FLAGS, *WARNINGS, "-fsyntax-only"], [faulty])
        assert "-Wimplicit-int-conversion" in complaint
    else:
        complaint = run_on_each(TIDY, [faulty], ("--", *CLANG_FLAGS))
        assert "bugprone-narrowing-conversions" in complaint


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
        RUNNER_SOURCES: r"add_library\(halvard_runner_text OBJECT (.*?)\)",
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
