"""What makes the programs of a prefix quicker, and their starts sure.

One processor: nearly every call of a program is a question to the server of its prefix, and one of the
two always waits for the other. On two processors each question and each answer wakes a sleeping one,
which takes several times as long as the answer.

No addresses drawn by chance: where the host's loader puts its own parts at places that the engine
needs, the program ends before it has begun, which happens once in some thousand starts.
"""

import ctypes
import fcntl
import itertools
import os
from typing import TextIO

from installer import paths

CLAIMS = paths.BUILD / "processors"
# Of Linux, the same on every architecture.
ADDR_NO_RANDOMIZE = 0x0040000
ASK_PERSONALITY = 0xFFFFFFFF

_libc = ctypes.CDLL(None)


class Claim:
    """A processor that as few others as possible have claimed, until it is released or this process
    ends."""

    def __init__(self) -> None:
        CLAIMS.mkdir(parents=True, exist_ok=True)
        usable = sorted(os.sched_getaffinity(0))
        places = ((number, turn) for turn in itertools.count() for number in usable)
        self.processor, self._lock = next(
            (number, lock) for number, turn in places if (lock := _locked(f"{number}-{turn}"))
        )

    def release(self) -> None:
        self._lock.close()


def settle_thread(processor: int) -> None:
    """Of this thread alone and of what it starts. Some containers do not let addresses be fixed; what
    is started there is started as anywhere."""
    os.sched_setaffinity(0, [processor])
    _libc.personality(_libc.personality(ASK_PERSONALITY) | ADDR_NO_RANDOMIZE)


def _locked(name: str) -> TextIO | None:
    lock = open(CLAIMS / name, "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        lock.close()
        return None
    return lock
