"""Measures side by side, in one run, and prints medians and their ratios.

Absolute times say something of this machine only; the ratios are what counts.
"""

import statistics
import sys
from collections import defaultdict
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))

from installer import package, paths, session  # noqa: E402
from installer.prefix import Prefix  # noqa: E402

WALK_RUNS = 7
REWRITE_RUNS = 7
CALLS = 100
INSTALLS = 5
BENCH = paths.PROGRAMS / "bench"
SOURCES = paths.BUILD / "bench"

CALLED = {
    "empty C DLL": BENCH / "empty_action.dll",
    "C DLL with the same installer calls": BENCH / "same_calls_action.dll",
    "Halvard_CA.dll": paths.LIBRARY,
}


def main() -> int:
    with Prefix("prefix-bench") as prefix:
        measure_walks(prefix)
        measure_rewriters(prefix)
        measure_calls(prefix)
    print_sizes()
    return 0


def measure_walks(prefix: Prefix) -> None:
    print(f"Walk of 20,000 registry values in 20 keys, median of {WALK_RUNS} alternated runs")
    print_medians(measured_by(prefix, "walk_bench", WALK_RUNS), reference="bare", unit="ms")


def measure_rewriters(prefix: Prefix) -> None:
    print(
        "\nCopy of a task definition of 3,000 characters from file to file: median of"
        f" {REWRITE_RUNS} alternated runs\nof 200 copies, by copy"
    )
    times = measured_by(prefix, "rewrite_bench", REWRITE_RUNS)
    print_medians(times, reference="bare reader-writer copy", unit="ms")


def measured_by(prefix: Prefix, program: str, runs: int) -> dict[str, list[float]]:
    """The times that a program prints as lines "NAME MILLISECONDS"."""
    done = prefix.run(paths.windows_path(BENCH / f"{program}.exe"), str(runs), limit=300.0)
    if done.returncode != 0:
        raise RuntimeError(f"{program}: exit code {done.returncode}\n{done.stdout}")
    times: dict[str, list[float]] = defaultdict(list)
    for line in done.stdout.splitlines():
        name, _, milliseconds = line.rpartition(" ")
        times[name].append(float(milliseconds))
    return times


def measure_calls(prefix: Prefix) -> None:
    print(
        f"\nOne call of a trivial action by msiexec: {INSTALLS} installs with {CALLS} calls of each"
        " DLL, alternated;\nmedian install time less that of a package without calls, by call"
    )
    without_calls = bench_package("bench_no_calls", paths.LIBRARY, 0)
    packages = {
        name: bench_package(f"bench_{library.stem}", library, CALLS)
        for name, library in CALLED.items()
    }
    empty_installs = []
    installs: dict[str, list[float]] = defaultdict(list)
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


def bench_package(name: str, library: Path, calls: int) -> Path:
    """A package that installs one file and calls one action many times."""
    numbers = range(calls)
    binary = '<Binary Id="Halvard_CA" SourceFile="$(var.Library)"/>' if calls else ""
    actions = "".join(
        f'<CustomAction Id="Call{number}" BinaryKey="Halvard_CA" DllEntry="LaunchedFromMIM"'
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


def print_sizes() -> None:
    print("\nSize of the DLLs")
    for name, library in CALLED.items():
        print(f"  {name:<36}{library.stat().st_size:>9,} bytes")


if __name__ == "__main__":
    sys.exit(main())
