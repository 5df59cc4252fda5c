"""Builds the DLL and halvard_run once more, in a folder of another name, and compares the bytes.

Both are built as `./run build` does it, from the files of the checkout as they are. The exit code is
0 when the bytes are the same, 1 when they or the version differ, and that of the build when it fails.
The copy stays where something differs.
"""

import hashlib
import re
import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tools"))

import dist  # noqa: E402
from installer import ending, package, paths  # noqa: E402

COPY = paths.BUILD / "reproduced" / "a folder of another name"
LOG = paths.BUILD / "reproduced.log"
PRESET = "mingw-release"
# Relative to a checkout.
FOLDER = paths.LIBRARY.parent.relative_to(ROOT)
NAMES = (paths.LIBRARY.name, f"{paths.LIBRARY.name}.debug", paths.RUNNER.name)


def main() -> int:
    copy_files(ROOT, COPY)
    version = package.project_identity().version
    commit = commit_of(dist.product_version(paths.LIBRARY), version)
    build(COPY)
    # Outside of a repository there is no commit to tell.
    told = dist.product_version(COPY / FOLDER / paths.LIBRARY.name)
    found = [] if told == version else [f"without a repository the version is {told}, not {version}"]
    build(COPY, f"-DHALVARD_COMMIT={commit}")
    found += differences(ROOT / FOLDER, COPY / FOLDER)
    if found:
        print("\n".join(found))
        return 1
    print(f"reproduce: {', '.join(NAMES)}: the same bytes")
    shutil.rmtree(COPY.parent)
    return 0


def copy_files(source: Path, copy: Path) -> None:
    """The files of a checkout as they are, changed and new ones too, and nothing else."""
    if copy.exists():
        shutil.rmtree(copy)
    listing = ["git", "ls-files", "-z", "-co", "--exclude-standard"]
    listed = subprocess.run(listing, cwd=source, stdout=subprocess.PIPE, text=True)
    if listed.returncode != 0:
        sys.exit("reproduce: git does not list the files of the checkout")
    for name in listed.stdout.split("\0"):
        file = source / name
        if name and file.is_file():
            (copy / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(file, copy / name)


def commit_of(told: str, version: str) -> str:
    """The commit that a built file tells behind its version."""
    match = re.fullmatch(rf"{re.escape(version)} \((\S+)\)", told)
    if match is None:
        sys.exit(f"reproduce: the last build tells no commit: {told}")
    return match[1]


def build(folder: Path, *definitions: str) -> None:
    shown = [sys.executable, "-B", str(ROOT / "tools/progress.py"), str(LOG)]
    for command in (
        ["cmake", "--preset", PRESET, *definitions],
        ["cmake", "--build", "--preset", PRESET, "--target", "Halvard_CA", "halvard_run"],
    ):
        code = subprocess.run([*shown, *command], cwd=folder).returncode
        if code != 0:
            sys.exit(code)


def differences(folder: Path, other: Path) -> list[str]:
    """A line for each file that has not the same bytes in both folders."""
    found = []
    for name in NAMES:
        one, two = (hashlib.sha256((each / name).read_bytes()).hexdigest() for each in (folder, other))
        if one != two:
            found.append(f"{name} differs: {one} in {folder}, {two} in {other}")
    return found


if __name__ == "__main__":
    sys.exit(ending.orderly(main))
