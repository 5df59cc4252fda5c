"""Judges which lines and branches of the library the tests under Wine reach, file by file.

They include those of the Windows-free logic. Exit code 1 when a test fails, when a line is neither
reached nor named in `NOT_REACHED`, when a line named there is reached or gone, or when fewer than
LEAST_BRANCHES % of the branches are reached. Branches that only an exception takes do not count.
"""

import json
import os
import re
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path
from typing import Iterable, Mapping, Sequence

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))

from installer import ending, paths, repeats  # noqa: E402
from run_tests import RESULTS, Outcome, progress_of, wine_tests  # noqa: E402

LIBRARY = "Utilities/CustomActions/Halvard_CA"
BUILD = paths.BUILD / "mingw-test"
# Beside each object the compiler's description of its lines, and what they were counted to.
COUNTERS = BUILD / LIBRARY / "CMakeFiles/halvard_counted_objects.dir"
LEAST_BRANCHES = 98.0


@dataclass(frozen=True)
class NotReached:
    """A line that no test reaches, with the reason.

    `text` is the whole line, `above` the one before it where the text alone stands in the file
    more than once; both without the blanks around them.
    """

    file: str
    text: str
    reason: str
    above: str = ""


NOT_REACHED: tuple[NotReached, ...] = (
    NotReached(
        "launch/install_proxy.cpp",
        "std::abort();",
        "the call above it ends the process; a test comes back from that with an exception alone",
    ),
    NotReached(
        "processes/application_actions.cpp",
        "return false;",
        "a system folder of at most 259 characters and a fixed name fit the 518 of a command",
    ),
)


@dataclass
class Share:
    reached: int = 0
    total: int = 0

    def add(self, reached: int, total: int) -> None:
        self.reached += reached
        self.total += total

    def percent(self) -> float:
        return 100 * self.reached / self.total if self.total else 0.0

    def __str__(self) -> str:
        return f"{self.reached}/{self.total} {self.percent():5.1f} %" if self.total else "none"


@dataclass
class Counted:
    """What was counted in one file of the library; `lines` tells how often each ran, by number."""

    lines: dict[int, int]
    branches: Share

    def share(self) -> Share:
        return Share(sum(count > 0 for count in self.lines.values()), len(self.lines))


def main() -> int:
    RESULTS.mkdir(parents=True, exist_ok=True)
    with (
        progress_of(["wine"], shown=True),
        repeats.counted(RESULTS / "repeated-coverage.txt") as repeated,
    ):
        outcome = run_tests()
        outcome.repeated = repeated()
        counted = read_gcovr(gcovr())
    print("\n".join(table(counted)))
    wrong = judge(outcome, counted, library_sources(), NOT_REACHED)
    last = f"{outcome.passed} tests, {len(NOT_REACHED)} lines named"
    print("\n".join([*wrong, last + repeats.behind(outcome.repeated)]))
    return 1 if wrong else 0


def run_tests() -> Outcome:
    for old in COUNTERS.rglob("*.gcda"):
        old.unlink()
    environment = {
        # The program names its counter files as the build does; seen from Wine that is b:.
        "GCOV_PREFIX": paths.windows_path(BUILD),
        "GCOV_PREFIX_STRIP": str(len(BUILD.parts) - 1),
    }
    return wine_tests(
        "wine", "wine_coverage_tests", [], True, environment=environment, results=[COUNTERS]
    )


def gcovr() -> dict:
    """What was counted, as gcovr tells it in JSON. Neither marks in the sources nor a file with
    settings can take lines out."""
    command = ["gcovr", "--gcov-executable", "x86_64-w64-mingw32-gcov-posix", "--root", str(ROOT)]
    command += ["--config", os.devnull, "--no-markers", "--filter", f"{ROOT}/{LIBRARY}/"]
    command += [str(COUNTERS), "--gcov-ignore-parse-errors", "--exclude-throw-branches", "--json"]
    done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
    if done.returncode != 0 or lines_not_understood(done.stderr):
        raise RuntimeError(f"gcovr: {done.stderr}")
    return json.loads(done.stdout)


def lines_not_understood(errors: str) -> list[str]:
    """The lines of gcov that gcovr has left out, but for those that nothing is read from: how often
    a call came back, of which gcov may say that it was less often than never."""
    left_out = re.findall(r"UnknownLineType: *(.*)", errors)
    return [line for line in left_out if not re.fullmatch(r"call +\d+ returned -\d+", line.strip())]


def read_gcovr(report: dict) -> dict[str, Counted]:
    """The files of gcovr's report by their names below the library's folder."""
    counted = {}
    for file in report["files"]:
        lines, branches = {}, Share()
        for line in file["lines"]:
            if not line.get("gcovr/noncode", False):
                lines[line["line_number"]] = line["count"]
                counts = [branch["count"] for branch in line["branches"]]
                branches.add(sum(count > 0 for count in counts), len(counts))
        counted[file["file"].removeprefix(f"{LIBRARY}/")] = Counted(lines, branches)
    return counted


def library_sources() -> dict[str, list[str]]:
    """The lines of the library's files, without the blanks around them."""
    folder = ROOT / LIBRARY
    return {
        str(path.relative_to(folder)): [line.strip() for line in path.read_text().splitlines()]
        for pattern in ("*.cpp", "*.h")
        for path in sorted(folder.rglob(pattern))
    }


def judge(
    outcome: Outcome,
    counted: Mapping[str, Counted],
    sources: Mapping[str, Sequence[str]],
    named: Sequence[NotReached],
) -> list[str]:
    """What is wrong with a run; nothing when it is a good one."""
    wrong = [f"failed, repeat with: {repeat}" for repeat in outcome.failed]
    if outcome.passed == 0:
        wrong.append("no test has passed")
    wrong += [
        f"not counted: {file}" for file in sources if file.endswith(".cpp") and file not in counted
    ]
    places, wrong_names = find_named(counted, sources, named)
    wrong += lines_not_reached(counted, sources, places)
    wrong += wrong_names
    branches = total(file.branches for file in counted.values())
    if branches.percent() < LEAST_BRANCHES:
        wrong.append(f"branches: {branches}, fewer than {LEAST_BRANCHES:g} %")
    return wrong


def lines_not_reached(
    counted: Mapping[str, Counted],
    sources: Mapping[str, Sequence[str]],
    named: set[tuple[str, int]],
) -> list[str]:
    return [
        f"not reached: {name}:{number}: {sources[name][number - 1]}"
        for name, file in counted.items()
        for number, count in file.lines.items()
        if count == 0 and (name, number) not in named
    ]


def find_named(
    counted: Mapping[str, Counted],
    sources: Mapping[str, Sequence[str]],
    named: Iterable[NotReached],
) -> tuple[set[tuple[str, int]], list[str]]:
    """Where the named lines stand, and which of them are named wrongly."""
    places, wrong = set(), []
    for name in named:
        numbers = line_numbers(sources.get(name.file, []), name)
        if len(numbers) != 1:
            wrong.append(f"named, but there {len(numbers)} times: {name.file}: {name.text}")
            continue
        place = (name.file, numbers[0])
        count = counted[name.file].lines.get(numbers[0]) if name.file in counted else None
        if place in places:
            wrong.append(f"named twice: {name.file}: {name.text}")
        elif count is None:
            wrong.append(f"named, but no line that counts: {name.file}: {name.text}")
        elif count > 0:
            wrong.append(f"named, but reached: {name.file}:{numbers[0]}: {name.text}")
        places.add(place)
    return places, wrong


def line_numbers(source: Sequence[str], name: NotReached) -> list[int]:
    """The numbers, counted from 1, of the lines that an entry fits."""
    return [
        number
        for number, (above, text) in enumerate(zip(["", *source], source), start=1)
        if text == name.text and name.above in ("", above)
    ]


def table(counted: Mapping[str, Counted]) -> list[str]:
    width = max([len("File"), *map(len, counted)])
    rows = [(name, file.share(), file.branches) for name, file in counted.items()]
    rows.append(("all", total(row[1] for row in rows), total(row[2] for row in rows)))
    return [
        f"{name:<{width}} {str(lines):>18} {str(branches):>18}"
        for name, lines, branches in [("File", "lines", "branches"), *rows]
    ]


def total(shares: Iterable[Share]) -> Share:
    result = Share()
    for share in shares:
        result.add(share.reached, share.total)
    return result


if __name__ == "__main__":
    sys.exit(ending.orderly(main))
