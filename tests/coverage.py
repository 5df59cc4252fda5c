"""Prints which lines and branches of the library the tests under Wine reach, file by file.

They include those of the Windows-free logic. Branches that only an exception takes are left out.
Exit code 1 when a test fails or fewer than 95 % of the lines are reached.
"""

import json
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))

from installer import ending, paths  # noqa: E402
from installer.prefix import Prefix  # noqa: E402
from run_tests import WINE_OVERRIDES  # noqa: E402

COVERED_BUILD = paths.BUILD / "mingw-coverage"
LIBRARY = "Utilities/CustomActions/Halvard_CA"
LEAST_LINES = 95.0
TESTS_LIMIT = 240.0


def main() -> int:
    if not run_tests():
        return 1
    report = gcovr("--json-summary")
    width = max(len(file["filename"]) for file in report["files"]) - len(LIBRARY)
    print(f"{'File':<{width}} {'lines':>16} {'branches':>16}")
    for file in report["files"]:
        print(row(file["filename"].removeprefix(f"{LIBRARY}/"), file, width))
    print(row("all", report, width))
    for name, number, text in lines_not_reached():
        print(f"not reached: {name}:{number}: {text}")
    if report["line_percent"] < LEAST_LINES:
        print(f"fewer than {LEAST_LINES:g} % of the lines are reached")
        return 1
    return 0


def run_tests() -> bool:
    for old in COVERED_BUILD.rglob("*.gcda"):
        old.unlink()
    environment = {
        "WINEDLLOVERRIDES": WINE_OVERRIDES,
        # The programs name their counter files as the build does; seen from Wine that is b:.
        "GCOV_PREFIX": paths.windows_path(COVERED_BUILD),
        "GCOV_PREFIX_STRIP": str(len(COVERED_BUILD.parts) - 1),
    }
    tests = paths.windows_path(COVERED_BUILD / "tests/wine/wine_tests.exe")
    counters = [COVERED_BUILD]
    with Prefix("prefix-coverage", environment=environment, results=counters) as prefix:
        done = prefix.run(tests, "--gtest_brief=1", limit=TESTS_LIMIT)
    if done.returncode != 0:
        print(done.stdout)
    return done.returncode == 0


def lines_not_reached() -> list[tuple[str, int, str]]:
    found = []
    for file in gcovr("--json")["files"]:
        source = (ROOT / file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if line["count"] == 0 and not line.get("gcovr/noncode", False):
                number = line["line_number"]
                found.append((file["file"], number, source[number - 1].strip()))
    return found


def gcovr(kind: str) -> dict:
    command = ["gcovr", "--gcov-executable", "x86_64-w64-mingw32-gcov-posix", "--root", str(ROOT)]
    command += ["--filter", f"{ROOT}/{LIBRARY}/", "--exclude-throw-branches"]
    command += [str(COVERED_BUILD / LIBRARY), kind]
    done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"gcovr: {done.stderr}")
    return json.loads(done.stdout)


def row(name: str, counted: dict, width: int) -> str:
    return f"{name:<{width}} {share(counted, 'line'):>16} {share(counted, 'branch'):>16}"


def share(counted: dict, what: str) -> str:
    total = counted[f"{what}_total"]
    if total == 0:
        return "none"
    reached = counted[f"{what}_covered"]
    return f"{reached}/{total} {100 * reached / total:5.1f} %"


if __name__ == "__main__":
    sys.exit(ending.orderly(main))
