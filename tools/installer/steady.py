"""What makes the programs of a prefix quicker, and their starts sure.

One processor: nearly every call of a program is a question to the server of its prefix, and one of the
two always waits for the other. On two processors each question and each answer wakes a sleeping one,
which takes several times as long as the answer.

No addresses drawn by chance: where the host's loader puts its own parts at places that the engine
needs, the program ends before it has begun. tests/wine/steady_starts.h is for what is lost all the same,
and says how often.
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


class ProcessorClaim:
    """The processor that the fewest others have claimed, until it is released or this process ends."""

    def __init__(self) -> None:
        CLAIMS.mkdir(parents=True, exist_ok=True)
        with open(CLAIMS / "turn", "w") as turn:
            fcntl.flock(turn, fcntl.LOCK_EX)
            self.processor = min(sorted(os.sched_getaffinity(0)), key=_claims_of)
            names = (f"{self.processor}-{number}" for number in itertools.count())
            self._lock = next(lock for name in names if (lock := _locked(name)))

    def release(self) -> None:
        self._lock.close()


def settle_thread(processor: int) -> None:
    """Keeps this thread, and all that it starts, on the processor and with addresses that are not drawn
    by chance. Some containers refuse the latter, and what is started there is started as anywhere."""
    os.sched_setaffinity(0, [processor])
    fix_addresses()


def fix_addresses() -> bool:
    """For this thread and all that it starts; False where that is refused."""
    former = _libc.personality(ASK_PERSONALITY)
    return former >= 0 and _libc.personality(former | ADDR_NO_RANDOMIZE) >= 0


def _claims_of(processor: int) -> int:
    held = 0
    for file in CLAIMS.glob(f"{processor}-*"):
        lock = _locked(file.name)
        if lock is None:
            held += 1
        else:
            lock.close()
    return held


def _locked(name: str) -> TextIO | None:
    lock = open(CLAIMS / name, "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        lock.close()
        return None
    return lock
