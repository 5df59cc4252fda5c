"""Waits for what another process does."""

import time
from typing import Callable

POLL = 0.02


def until(holds: Callable[[], object], limit: float) -> None:
    """Looks again and again whether it holds; a failure when it does not within so many seconds."""
    end = time.monotonic() + limit
    while not holds():
        assert time.monotonic() < end, f"it did not happen within {limit:g} s"
        time.sleep(POLL)
