"""Calls one action of the library in a fresh Wine prefix, without a package.

The arguments are those of halvard_run; `--dll` and `--check` may name a file of this machine, which the
prefix gets a copy of. What halvard_run prints comes out as it is, and its exit code is the one here, but for 125
when no prefix could be had and 130 after Ctrl-C, 143 or 129 after SIGTERM or SIGHUP. What cannot be
written, as on a full disk, is told with the exit code that halvard_run has for it.
A second call waits until the first one has ended; ./run refuses it before.
"""

import fcntl
import os
import shutil
import subprocess
import sys
import threading
from typing import BinaryIO

from installer import ending, paths
from installer.prefix import Prefix

NO_PREFIX = 125
NOT_WRITTEN = 9
OPTIONS = ("--dll", "--check")


def main(arguments: list[str]) -> int:
    try:
        return _call(arguments)
    except ending.Told as told:
        print(f"action: {told}", file=sys.stderr)
        return told.code
    except (OSError, RuntimeError) as failure:
        print(f"action: {failure}", file=sys.stderr)
        return NO_PREFIX


def _call(arguments: list[str]) -> int:
    paths.BUILD.mkdir(exist_ok=True)
    with open(paths.BUILD / "prefix-action.lock", "w") as lock:
        # One folder for all calls: the next one's prefix takes the place of this one's.
        fcntl.flock(lock, fcntl.LOCK_EX)
        return _call_alone(arguments)


def _call_alone(arguments: list[str]) -> int:
    with Prefix("prefix-action") as prefix:
        # Pipes, for at a terminal the engine would draw a console of its own.
        process = prefix.start(
            paths.RUNNER,
            *_with_copied_files(arguments, prefix),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        failures: list[OSError] = []
        forwarded = [
            _forward(process.stdout, sys.stdout.fileno(), failures),
            _forward(process.stderr, sys.stderr.fileno(), failures),
        ]
        try:
            code = process.wait()
        finally:
            process.kill()
            process.wait()
    # What the action has left running holds the pipes open until the prefix ends.
    for thread in forwarded:
        thread.join()
    if failures:
        print(f"action: not all could be written: {failures[0]}", file=sys.stderr)
        return NOT_WRITTEN
    return code


def _with_copied_files(arguments: list[str], prefix: Prefix) -> list[str]:
    """The arguments with the paths that the prefix has for files of this machine."""
    changed = list(arguments)
    for position, argument in enumerate(arguments):
        option, equals, path = argument.partition("=")
        if option in OPTIONS and equals:
            changed[position] = f"{option}={_copied(path, prefix)}"
        elif argument in OPTIONS and position + 1 < len(arguments):
            changed[position + 1] = _copied(arguments[position + 1], prefix)
    return changed


def _copied(path: str, prefix: Prefix) -> str:
    file = paths.of_caller(path)
    if not file.is_file():
        return path
    shutil.copy(file, prefix.throwaway)
    return rf"t:\{file.name}"


def _forward(source: BinaryIO, target: int, failures: list[OSError]) -> threading.Thread:
    def copy() -> None:
        while data := source.read1():
            try:
                while data:
                    data = data[os.write(target, data) :]
            except BrokenPipeError:
                # A reader that has gone does not keep the action from its end.
                continue
            except OSError as failure:
                failures.append(failure)

    thread = threading.Thread(target=copy, daemon=True)
    thread.start()
    return thread


if __name__ == "__main__":
    sys.exit(ending.orderly(lambda: main(sys.argv[1:])))
