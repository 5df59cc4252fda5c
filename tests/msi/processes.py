"""What runs in a prefix."""

from pathlib import Path
from typing import Iterator


def running_in(prefix: Path) -> Iterator[tuple[int, str]]:
    """The processes that belong to a prefix, with their command lines."""
    mark = f"WINEPREFIX={prefix}".encode()
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if mark in (process / "environ").read_bytes().split(b"\0"):
                line = (process / "cmdline").read_bytes().replace(b"\0", b" ").decode()
                yield int(process.name), line
        except OSError:
            continue


def processes_of(prefix: Path) -> list[str]:
    """The command lines of the running processes that belong to a prefix."""
    return [line for _, line in running_in(prefix)]
