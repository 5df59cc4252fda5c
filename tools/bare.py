"""Runs both commands of README.md in a fresh Debian, from bare.

    bare.py RELEASE [COMMAND...]

RELEASE is bookworm or trixie. The Debian is a folder below build/bare, made anew by debootstrap
from the package source of this machine, with nothing in it but what debootstrap puts there and
this checkout, as it is, changes included. With a COMMAND that alone is run, in the Debian of the
last time (its own build folder included), which is how to look at a failure.

The exit code is 0 when all commands ended with 0, and 1 otherwise.
"""

import os
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path

import progress

ROOT = Path(__file__).resolve().parents[1]
FOLDER = ROOT / "build/bare"
RELEASES = ("bookworm", "trixie")
COMMANDS = (["./run", "demo"], ["./run", "test"])
# Where the checkout lies in the Debian.
CHECKOUT = "/halvard"
# Nothing of the machine's own environment reaches a bare one.
ENVIRONMENT = {
    "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
    "HOME": "/root",
    "TERM": "dumb",
}
# In a mount and a process namespace of their own: whatever is mounted or left running goes with it.
ENTER = """
mount -t proc proc "$1/proc"
mount --rbind /dev "$1/dev"
mount --rbind /sys "$1/sys"
mount --bind "$2" "$1/var/cache/apt/archives"
cd "$1"
shift 2
exec chroot . /bin/sh -c 'cd "$0" && exec "$@"' "$@"
"""


def main(arguments: list[str]) -> int:
    if not arguments or arguments[0] not in RELEASES:
        print(__doc__, file=sys.stderr)
        return 2
    release, command = arguments[0], arguments[1:]
    debian = FOLDER / release
    packages = FOLDER / f"packages-{release}"
    packages.mkdir(parents=True, exist_ok=True)
    start = time.monotonic()
    if not command or not (debian / "usr").is_dir():
        make_debian(release, debian, packages)
        print(f"== {release}: made in {time.monotonic() - start:.0f} s", flush=True)
    copy_checkout(debian / CHECKOUT.lstrip("/"))
    outcomes = [run(debian, packages, each) for each in ([command] if command else COMMANDS)]
    for line, _ in outcomes:
        print(f"{release}: {line}")
    return 0 if all(code == 0 for _, code in outcomes) else 1


def make_debian(release: str, debian: Path, packages: Path) -> None:
    source = package_source()
    print(f"== {release}: debootstrap from {source}", flush=True)
    if debian.exists():
        shutil.rmtree(debian)
    log = FOLDER / f"debootstrap-{release}.log"
    command = ["debootstrap", "--variant=minbase", f"--cache-dir={packages}"]
    with open(log, "wb") as output:
        made = subprocess.Popen(
            [*command, release, str(debian), source], stdout=output, stderr=subprocess.STDOUT
        )
        code = progress.follow(made, lambda: progress.how_far(log))
    if code != 0:
        sys.exit(f"debootstrap failed, see {log}: {log.read_text(errors='replace')[-500:]}")
    # apt would empty the folder of packages behind every installation.
    (debian / "etc/apt/apt.conf.d/keep-packages").write_text(
        'Binary::apt-get::APT::Keep-Downloaded-Packages "true";\nAPT::Keep-Downloaded-Packages "true";\n'
    )


def package_source() -> str:
    """Where this machine's apt has the packages of Debian from."""
    command = ["apt-get", "indextargets", "--format", "$(REPO_URI)"]
    choice = ["Created-By: Packages", "Origin: Debian", "Label: Debian", "Component: main"]
    listed = subprocess.run([*command, *choice], stdout=subprocess.PIPE, text=True)
    sources = listed.stdout.split()
    if not sources:
        sys.exit("apt knows no package source of Debian: run apt-get update first")
    return sources[0]


def copy_checkout(target: Path) -> None:
    """The checkout as it is: its history and its files, changed and new ones too."""
    if not target.exists():
        subprocess.run(["git", "clone", "-q", "--no-hardlinks", str(ROOT), str(target)], check=True)
    listing = ["git", "ls-files", "-z", "-co", "--exclude-standard"]
    here, there = (
        set(subprocess.check_output(listing, cwd=each, text=True).split("\0")) - {""}
        for each in (ROOT, target)
    )
    here = {name for name in here if (ROOT / name).is_file()}
    for name in there - here:
        (target / name).unlink(missing_ok=True)
    for name in here:
        copy = target / name
        if not copy.is_file() or copy.read_bytes() != (ROOT / name).read_bytes():
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / name, copy)
    # New files count as the checkout's there too.
    subprocess.run(["git", "add", "-A"], cwd=target, check=True)


def run(debian: Path, packages: Path, command: list[str]) -> tuple[str, int]:
    """Runs a command in the Debian, its output here and in a log."""
    words = " ".join(command)
    log = FOLDER / f"{debian.name}-{re.sub(r'[^0-9A-Za-z]+', '-', words).strip('-')[:60]}.log"
    print(f"== {debian.name}: {words}", flush=True)
    start = time.monotonic()
    inside = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", "-eu", "-c", ENTER]
    inside += ["sh", str(debian), str(packages), CHECKOUT, *command]
    last = ""
    with open(log, "wb") as kept:
        process = subprocess.Popen(
            inside,
            env=ENVIRONMENT,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
        )
        for line in process.stdout:
            kept.write(line)
            sys.stdout.buffer.write(line)
            sys.stdout.flush()
            last = line.decode(errors="replace").strip() or last
    code = process.wait()
    taken = time.monotonic() - start
    return f"{words} ended with {code} after {taken:.0f} s: {last}", code


if __name__ == "__main__":
    os.chdir(ROOT)
    sys.exit(main(sys.argv[1:]))
