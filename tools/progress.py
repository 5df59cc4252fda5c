"""Runs a command with its output in a file and shows meanwhile how far it is.

    progress.py [--no-end] LOG COMMAND...

At a terminal one line is written over again, elsewhere a line comes every `INTERVAL` seconds. When
the command fails, the end of its output follows, but not with --no-end. The exit code is the
command's.
"""

import os
import re
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import TextIO

# Seconds between two lines where nobody looks at a terminal, and between two looks.
INTERVAL = 30.0
POLL = 0.5
# What is quicker than this many seconds needs no progress.
QUIET = 5.0
# Of a file that grows, this many bytes at its end tell how far the work is.
END = 4096
LINES_OF_A_FAILURE = 60
STEP = re.compile(r"^\[(\d+)/(\d+)\]", re.MULTILINE)
USUAL_WIDTH = 80
NO_END = "--no-end"
ANSI_CLEAR_LINE = "\r\x1b[K"


def main(arguments: list[str]) -> int:
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    shows_end = arguments[0] != NO_END
    log_name, *command = arguments if shows_end else arguments[1:]
    log = Path(log_name)
    log.parent.mkdir(parents=True, exist_ok=True)
    with open(log, "wb") as output:
        process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT
        )
    code = follow(process, lambda: how_far(log))
    if code != 0 and shows_end:
        lines = log.read_text(errors="replace").splitlines()
        print("\n".join(lines[-LINES_OF_A_FAILURE:]), flush=True)
    return code if code >= 0 else 128 - code


def follow(process: "subprocess.Popen[bytes]", told: Callable[[], str]) -> int:
    """Shows what `told` says until the process has ended; returns its exit code."""
    shown = Line()
    while True:
        try:
            code = process.wait(POLL)
            shown.clear()
            return code
        except subprocess.TimeoutExpired:
            shown.show(told())


@contextmanager
def shown(told: Callable[[], str], stream: TextIO | None = None) -> Iterator[None]:
    """Shows what `told` says for the length of a `with` block, on standard output or the stream."""
    ended = threading.Event()
    line = Line(stream)

    def follow() -> None:
        while not ended.wait(POLL):
            line.show(told())
        line.clear()

    thread = threading.Thread(target=follow, daemon=True)
    thread.start()
    try:
        yield
    finally:
        ended.set()
        thread.join()


class Line:
    """The line that tells how far something is; of what is quick it tells nothing."""

    def __init__(self, stream: TextIO | None = None) -> None:
        self._stream = stream or sys.stdout
        self._start = self._last = time.monotonic()
        self._terminal = self._stream.isatty()
        self._standing = False

    def show(self, text: str) -> None:
        now = time.monotonic()
        if now - self._start < QUIET:
            return
        line = f"   {now - self._start:.0f} s: {text}"
        if self._terminal:
            width = os.get_terminal_size(self._stream.fileno()).columns or USUAL_WIDTH
            self._write(ANSI_CLEAR_LINE + line[: max(width - 1, 0)])
            self._standing = True
        elif now - self._last >= INTERVAL:
            self._write(f"{line}\n")
            self._last = now

    def clear(self) -> None:
        if self._standing:
            self._write(ANSI_CLEAR_LINE)
            self._standing = False

    def _write(self, text: str) -> None:
        print(text, end="", file=self._stream, flush=True)


def how_far(log: Path) -> str:
    """What the end of a log tells: the last step of a build, or the last line."""
    with open(log, "rb") as file:
        file.seek(max(0, log.stat().st_size - END))
        text = file.read().decode(errors="replace")
    if steps := STEP.findall(text):
        done, all_steps = steps[-1]
        return f"built {done} of {all_steps}"
    lines = [line.strip() for line in text.splitlines() if line.strip()]
    return lines[-1] if lines else "begun"


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
