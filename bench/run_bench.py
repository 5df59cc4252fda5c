"""Measures side by side, in one run, and prints medians and their ratios.

    run_bench.py [--check]

Absolute times say something of this machine only; the ratios are what counts, and some of them have
goals. With --check the exit code is 1 when a goal was missed.
"""

import statistics
import sys
from collections import defaultdict
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(ROOT / "tools"), str(ROOT / "bench")]

import library_size  # noqa: E402
import progress  # noqa: E402
from installer import ending, package, paths, session  # noqa: E402
from installer.prefix import Prefix  # noqa: E402

WALK_RUNS = 7
REWRITE_RUNS = 7
REMOVAL_RUNS = 5
SIZE_RUNS = 3
# Many short installs: what disturbs one of them is then small in the median.
CALLS = 50
INSTALLS = 15
PROGRAM_LIMIT = 1200.0
# How many times as long as bare calls walks and rewriters may take.
WALK_GOALS = {"EnumerateKeyTree": 1.15, "QueryKey": 1.15}
BARE_COPY = "bare reader-writer copy"
BOUNDARIES = "24 boundaries"
REWRITE_GOALS = {
    "RewriteTaskWorkingDirectory": (BARE_COPY, 1.1),
    f"RewriteTaskStartBoundary ({BOUNDARIES})": (f"{BARE_COPY} ({BOUNDARIES})", 1.1),
}
# How many times as long as the others a removal may take, and one of 100,000 files as one of 10,000.
GROWTH_GOAL = 11.0
REMOVAL_GOALS = {
    "bare loop": 1.15,
    "bare calls by handle": 1.1,
    "std::filesystem::remove_all": 1.0,
    "cmd /c rd /s /q": 0.25,
}
BENCH = paths.PROGRAMS / "bench"
SOURCES = paths.BUILD / "bench"

# The DLLs and what is called of them. DeleteQortaKey looks for a key that is not there and makes no
# call of the installer.
CALLED = {
    "empty C DLL": (BENCH / "empty_action.dll", "LaunchedFromMIM"),
    "DeleteQortaKey of Halvard_CA.dll": (paths.LIBRARY, "DeleteQortaKey"),
    "C DLL with the calls of LaunchedFromMIM": (BENCH / "same_calls_action.dll", "LaunchedFromMIM"),
    "LaunchedFromMIM of Halvard_CA.dll": (paths.LIBRARY, "LaunchedFromMIM"),
}
# The calls that are compared, with the goal for their ratio.
CALL_GOALS = [
    ("DeleteQortaKey of Halvard_CA.dll", "empty C DLL", 1.1),
    ("LaunchedFromMIM of Halvard_CA.dll", "C DLL with the calls of LaunchedFromMIM", 1.1),
]
SIZE_GOAL = 710_000
OBJECTS_SHOWN = 25
CHECK = "--check"


@dataclass(frozen=True)
class Figure:
    """What was measured of something that has a goal: the most that it may be."""

    name: str
    measured: float
    goal: float

    @property
    def missed(self) -> bool:
        return not self.measured <= self.goal

    def __str__(self) -> str:
        verdict = "missed" if self.missed else "met"
        return f"{self.name}: {self.measured:,.2f}, goal {self.goal:,.2f}, {verdict}"


def main(arguments: list[str]) -> int:
    if arguments not in ([], [CHECK]):
        print(__doc__, file=sys.stderr)
        return 2
    figures = measure()
    print("\nGoals")
    for figure in figures:
        print(f"  {figure}")
    missed = sum(figure.missed for figure in figures)
    print(f"bench: {missed} of {len(figures)} goals missed")
    return 1 if missed and CHECK in arguments else 0


def measure() -> list[Figure]:
    with Prefix("prefix-bench") as prefix:
        figures = measure_walks(prefix) + measure_rewriters(prefix)
        figures += measure_removals(prefix) + measure_calls(prefix)
    return [*figures, *print_sizes()]


def measure_walks(prefix: Prefix) -> list[Figure]:
    print(f"Walk of 20,000 registry values in 20 keys, median of {WALK_RUNS} alternated runs")
    times = measured_by(prefix, "walk_bench", WALK_RUNS)
    print_medians(times, reference="bare", unit="ms")
    return [ratio(times, name, "bare", goal) for name, goal in WALK_GOALS.items()]


def measure_rewriters(prefix: Prefix) -> list[Figure]:
    print(
        "\nCopy of a task definition of 3,000 characters from file to file: median of"
        f" {REWRITE_RUNS} alternated runs\nof 200 copies, by copy"
    )
    times = measured_by(prefix, "rewrite_bench", REWRITE_RUNS)
    print_medians(times, reference=BARE_COPY, unit="ms")
    return [ratio(times, name, other, goal) for name, (other, goal) in REWRITE_GOALS.items()]


def measure_removals(prefix: Prefix) -> list[Figure]:
    print(
        f"\nRemoval of 10,000 files in 100 folders, median of {REMOVAL_RUNS} alternated runs, each"
        " of a new tree"
    )
    times = measured_by(prefix, "removal_bench", "ways", REMOVAL_RUNS)
    print_medians(times, reference="bare loop", unit="ms")
    figures = [ratio(times, "RemoveAll", other, goal) for other, goal in REMOVAL_GOALS.items()]

    print(f"\nRemoveAll by number of files, 100 in a folder, median of {SIZE_RUNS} alternated runs")
    times = measured_by(prefix, "removal_bench", "sizes", SIZE_RUNS)
    print_medians(times, reference="1,000 files", unit="ms")
    figures.append(ratio(times, "100,000 files", "10,000 files", GROWTH_GOAL))

    print("\nRemoveAll of one folder: the most bytes that it held of its own heap")
    bytes_held = measured_by(prefix, "removal_bench", "memory", 1)
    print_medians(bytes_held, reference="1,000 files", unit="bytes")
    held = ratio(bytes_held, "100,000 files", "1,000 files", 1.0)
    return [*figures, Figure(f"bytes of the heap, {held.name}", held.measured, held.goal)]


def ratio(times: dict[str, list[float]], name: str, reference: str, goal: float) -> Figure:
    """How many times as long something takes as a reference, by their medians."""
    measured = statistics.median(times[name]) / statistics.median(times[reference])
    return Figure(f"{name} x {reference}", measured, goal)


def measured_by(prefix: Prefix, program: str, *arguments: str | int) -> dict[str, list[float]]:
    """The numbers that a program prints as lines "NAME NUMBER"."""
    program_path = paths.windows_path(BENCH / f"{program}.exe")
    with progress.shown(lambda: f"{program} at work"):
        done = prefix.run(program_path, *map(str, arguments), limit=PROGRAM_LIMIT)
    if done.returncode != 0:
        raise RuntimeError(f"{program}: exit code {done.returncode}\n{done.stdout}")
    numbers: dict[str, list[float]] = defaultdict(list)
    for line in done.stdout.splitlines():
        name, _, number = line.rpartition(" ")
        numbers[name].append(float(number))
    return numbers


def measure_calls(prefix: Prefix) -> list[Figure]:
    print(
        f"\nOne call of a trivial action by msiexec: {INSTALLS} installs with {CALLS} calls of each"
        " DLL, alternated;\nmedian install time less that of a package without calls, by call"
    )
    empty_installs: list[float] = []
    installs: dict[str, list[float]] = defaultdict(list)
    with progress.shown(lambda: f"{len(empty_installs)} of {INSTALLS} rounds of installs begun"):
        without_calls = bench_package("bench_no_calls", paths.LIBRARY, "", 0)
        packages = {
            name: bench_package(f"bench_{library.stem}_{action}", library, action, CALLS)
            for name, (library, action) in CALLED.items()
        }
        for _ in range(INSTALLS):
            empty_installs.append(install_seconds(prefix, without_calls, 0))
            for name, package_path in packages.items():
                installs[name].append(install_seconds(prefix, package_path, CALLS))
    floor = statistics.median(empty_installs)
    times = {
        name: [1000 * (seconds - floor) / CALLS for seconds in measured]
        for name, measured in installs.items()
    }
    print_medians(times, reference="empty C DLL", unit="ms")
    return [ratio(times, name, reference, goal) for name, reference, goal in CALL_GOALS]


def bench_package(name: str, library: Path, action: str, calls: int) -> Path:
    """A package that installs one file and calls one action many times."""
    numbers = range(calls)
    binary = '<Binary Id="Halvard_CA" SourceFile="$(var.Library)"/>' if calls else ""
    actions = "".join(
        f'<CustomAction Id="Call{number}" BinaryKey="Halvard_CA" DllEntry="{action}"'
        ' Execute="immediate" Return="check"/>\n'
        for number in numbers
    )
    sequence = "".join(
        f'<Custom Action="Call{number}" Sequence="{10 + number}">NOT Installed</Custom>\n'
        for number in numbers
    )
    SOURCES.mkdir(exist_ok=True)
    source = SOURCES / f"{name}.wxs"
    source.write_text((ROOT / "bench/calls.wxs.in").read_text().format(
        name=name, binary=binary, actions=actions, sequence=sequence
    ))
    return package.build(source, library)


def install_seconds(prefix: Prefix, package_path: Path, calls: int) -> float:
    """The duration of an install in which every call was really made and succeeded."""
    result = session.install(prefix, package_path, "LAUNCHED_FROM_MIM=1", log_name="bench")
    ended = sum("Return value 1" in text and ": Call" in text for text in result.texts)
    if result.exit_code != 0 or ended != calls:
        raise RuntimeError(f"{ended} of {calls} calls succeeded\n{result.report()}")
    session.remove(prefix, package_path, log_name="bench-remove")
    return result.seconds


def print_medians(times: dict[str, list[float]], reference: str, unit: str) -> None:
    base = statistics.median(times[reference])
    width = max(map(len, times))
    for name, measured in times.items():
        median = statistics.median(measured)
        print(
            f"  {name:<{width}}  {median:9.2f} {unit}  {median / base:5.2f} x {reference}"
            f"  ({min(measured):.2f} to {max(measured):.2f})"
        )


def print_sizes() -> list[Figure]:
    print("\nSize of the DLLs")
    for library in dict.fromkeys(library for library, _ in CALLED.values()):
        print(f"  {library.name:<36}{library.stat().st_size:>9,} bytes")

    print(f"\nSections of {paths.LIBRARY.name}, in bytes")
    for name, size in library_size.sections(paths.LIBRARY).items():
        print(f"  {name:<36}{size:>9,}")

    objects = library_size.objects(paths.LIBRARY.with_name(paths.LIBRARY.name + ".map"))
    print(f"\nThe {OBJECTS_SHOWN} largest of {len(objects)} objects in it, in bytes")
    for name, size in sorted(objects.items(), key=lambda item: -item[1])[:OBJECTS_SHOWN]:
        print(f"  {name:<36}{size:>9,}")
    own = sum(size for name, size in objects.items() if name.endswith(".cpp.obj"))
    print(f"  the library's own objects{own:>20,} of {sum(objects.values()):,}")
    return [Figure(f"bytes of {paths.LIBRARY.name}", paths.LIBRARY.stat().st_size, SIZE_GOAL)]


if __name__ == "__main__":
    sys.exit(ending.orderly(lambda: main(sys.argv[1:])))
