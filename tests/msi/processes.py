"""What runs in a prefix."""

from pathlib import Path


def processes_of(prefix: Path) -> list[str]:
    """The command lines of the running processes that belong to a prefix."""
    mark = f"WINEPREFIX={prefix}".encode()
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if mark in (process / "environ").read_bytes().split(b"\0"):
                found.append((process / "cmdline").read_bytes().replace(b"\0", b" ").decode())
        except OSError:
            continue
    return found
