"""What was done once more because the engine hung or ended before it had done anything.

Such a repeat hides no failure of the library, which had not been called yet; it is told and counted
all the same, for an engine that hangs more often is worth knowing of.
"""

import os
import warnings
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

# The environment variable that names the file in which they are counted: a line each.
COUNTED_IN = "HALVARD_REPEATS"


@contextmanager
def counted(file: Path) -> Iterator[Callable[[], int]]:
    """Counts in a file what is done once more, by this process and by those that it starts, for the
    length of a `with` block; what it gives tells how often so far."""
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text("")
    former = os.environ.get(COUNTED_IN)
    os.environ[COUNTED_IN] = str(file)
    try:
        yield lambda: len(reasons(file))
    finally:
        del os.environ[COUNTED_IN]
        if former is not None:
            os.environ[COUNTED_IN] = former


def behind(count: int) -> str:
    """What stands behind the last line of a run with so many repeats."""
    return f"; {count} repeated" if count else ""


def reasons(counted_in: Path) -> list[str]:
    """What was said of each, in such a file."""
    return counted_in.read_text().splitlines()


def tell(reason: str) -> None:
    """Says that something is done once more, and counts it where somebody counts."""
    warnings.warn(f"once more: {reason}", stacklevel=3)
    if counted_in := os.environ.get(COUNTED_IN):
        with open(counted_in, "a", encoding="utf-8") as file:
            file.write(f"{reason}\n")
