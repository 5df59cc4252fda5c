"""Reads the sources of all that is shipped with the second compiler and its static analysis, and the
layout of all C++ sources with clang-format.

A source that has passed is read again when it, a header of it, the tool or its arguments have
changed. Layout is judged by one version of clang-format, since each lays out a little otherwise:
with another one it is said that nobody judged. The exit code is 0 when nothing was found, 1 when
something was.
"""

import hashlib
import re
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from functools import cache
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))

import progress  # noqa: E402
from installer import ending, paths  # noqa: E402

LIBRARY_SOURCES = ROOT / "Utilities/CustomActions/Halvard_CA"
RUNNER_SOURCES = ROOT / "tools/runner"
LAYOUT_VERSION = 14
WARNINGS = ["-Wall", "-Wextra", "-Wconversion", "-Wshadow", "-Werror"]
TIDY_SETTINGS = ROOT / ".clang-tidy"
PASSED = paths.BUILD / "checked-sources"
POLL = 0.5


@dataclass(frozen=True)
class Check:
    """A tool that reads one source; the source stands before `behind`."""

    name: str
    command: tuple[str, ...]
    behind: tuple[str, ...] = ()


def main() -> int:
    progress_line = progress.Line()
    found = layout_complaints()
    work = [(check, file) for check in (second_compiler(), analysis()) for file in checked_sources()]
    with ThreadPoolExecutor(2) as pool:
        waiting = [pool.submit(complaint, check, file) for check, file in work]
        for number, each in enumerate(waiting):
            while not each.done():
                progress_line.show(f"read {number} of {len(work)}")
                time.sleep(POLL)
            found += each.result()
    progress_line.clear()
    if found:
        print(found)
    print(f"lint: {len(work)} readings, {'something' if found else 'nothing'} found")
    return 1 if found else 0


def layout_complaints() -> str:
    """What clang-format finds; nothing where it is another version than the one that judges."""
    version = layout_version(tool_version("clang-format"))
    if version != LAYOUT_VERSION:
        print(f"layout: not judged, clang-format {LAYOUT_VERSION} does that and here is {version}")
        return ""
    files = tracked("*.cpp", "*.h")
    command = ["clang-format", "--dry-run", "-Werror", *map(str, files)]
    done = subprocess.run(command, capture_output=True, text=True)
    return "" if files and done.returncode == 0 else f"layout:\n{done.stderr}"


def layout_version(told: str) -> int:
    """The main number of what `clang-format --version` tells."""
    return int(re.search(r"version (\d+)\.", told)[1])


@cache
def tool_version(tool: str) -> str:
    return subprocess.run([tool, "--version"], capture_output=True, text=True, check=True).stdout


def second_compiler() -> Check:
    return Check("clang++", ("clang++", *clang_flags(), *WARNINGS, "-fsyntax-only"))


def analysis() -> Check:
    tidy = ("clang-tidy", f"--config-file={TIDY_SETTINGS}", "--quiet")
    return Check("clang-tidy", tidy, ("--", *clang_flags()))


@cache
def clang_flags() -> tuple[str, ...]:
    """What the second compiler needs to read the sources as the first one does."""
    own = subprocess.run(
        ["x86_64-w64-mingw32-g++-posix", "-print-libgcc-file-name"],
        capture_output=True,
        text=True,
        check=True,
    )
    standard_library = Path(own.stdout.strip()).parent / "include/c++"
    folders = ("", "x86_64-w64-mingw32", "backward")
    return (
        "--target=x86_64-w64-mingw32",
        "-std=c++17",
        *("-DUNICODE", "-D_UNICODE", "-DWIN32_LEAN_AND_MEAN", "-DNOMINMAX", "-D_WIN32_WINNT=0x0A00"),
        *(f"-isystem{standard_library / folder}" for folder in folders),
        *(f"-I{folder}" for folder in (LIBRARY_SOURCES, RUNNER_SOURCES, paths.LIBRARY.parent)),
    )


def complaint(check: Check, file: Path) -> str:
    """The output of a check that did not pass; nothing for one that did, now or before."""
    passed = PASSED / fingerprint(check, file)
    if passed.exists():
        return ""
    done = subprocess.run(
        [*check.command, str(file), *check.behind], capture_output=True, text=True, cwd=ROOT
    )
    if done.returncode != 0:
        return f"{check.name}: {file}\n{done.stdout}{done.stderr}"
    PASSED.mkdir(parents=True, exist_ok=True)
    passed.touch()
    return ""


def fingerprint(check: Check, file: Path) -> str:
    """Of all that a check of one source reads, but for the headers of the system."""
    digest = hashlib.sha256(f"{check}{tool_version(check.name)}{file}".encode())
    for name in [TIDY_SETTINGS, *sorted(closure(file))]:
        digest.update(b"\0" + name.read_bytes())
    return digest.hexdigest()


def checked_sources() -> list[Path]:
    """What the second compiler and its analysis read: all that is shipped."""
    return [*sorted(LIBRARY_SOURCES.rglob("*.cpp")), *sorted(RUNNER_SOURCES.rglob("*.cpp"))]


def tracked(*patterns: str) -> list[Path]:
    command = ["git", "ls-files", "-co", "--exclude-standard", "--", *patterns]
    listed = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=True)
    files = [ROOT / name for name in listed.stdout.splitlines()]
    return [file for file in files if file.is_file()]


def includes(file: Path) -> list[str]:
    return re.findall(r'^#include ["<](.*)[">]', file.read_text(), re.MULTILINE)


def own_includes(file: Path) -> list[Path]:
    # The generated version header lies in the folder of the build.
    folders = (LIBRARY_SOURCES, RUNNER_SOURCES, paths.LIBRARY.parent)
    found = [folder / name for folder in folders for name in includes(file)]
    return [name for name in found if name.exists()]


def closure(file: Path) -> set[Path]:
    """A source with the project's own headers that it includes, in whatever depth."""
    found: set[Path] = set()
    waiting = [file]
    while waiting:
        read = waiting.pop()
        if read not in found:
            found.add(read)
            waiting += own_includes(read)
    return found


if __name__ == "__main__":
    sys.exit(ending.orderly(main))
