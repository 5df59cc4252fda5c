"""Programs of a prefix whose output and errors are read apart, from files: what the engine starts
beside a program would hold pipes open."""

import subprocess
import time
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from tempfile import TemporaryDirectory
from typing import Callable, Iterator

from installer.prefix import Prefix
from waiting import POLL


@dataclass
class Done:
    """How a program ended, and what it said."""

    code: int
    output: str
    errors: str


@contextmanager
def running(
    prefix: Prefix, *command: str | Path, answer: bytes = b""
) -> Iterator[tuple[subprocess.Popen[bytes], Path, Path]]:
    """A program and the files of its output and errors, for the length of a `with` block; `answer` is
    all of its input."""
    with TemporaryDirectory() as folder:
        typed, output, errors = (Path(folder) / name for name in ("typed", "output", "errors"))
        typed.write_bytes(answer)
        with typed.open("rb") as stdin, output.open("wb") as stdout, errors.open("wb") as stderr:
            process = prefix.start(*command, stdin=stdin, stdout=stdout, stderr=stderr)
        try:
            yield process, output, errors
        finally:
            process.kill()
            process.wait()


def ran(
    prefix: Prefix,
    *command: str | Path,
    limit: float,
    answer: bytes = b"",
    meanwhile: Callable[[], object] = lambda: None,
) -> Done:
    """Runs a program to its end; `meanwhile` is called again and again until then. TimeoutExpired when
    it does not end within so many seconds."""
    with running(prefix, *command, answer=answer) as (process, output, errors):
        end = time.monotonic() + limit
        while process.poll() is None:
            if time.monotonic() > end:
                raise subprocess.TimeoutExpired(list(map(str, command)), limit)
            meanwhile()
            time.sleep(POLL)
        # The engine's own words need not be in any encoding.
        return Done(process.returncode, output.read_text(), errors.read_text(errors="replace"))
