"""How a program of the project ends when it is told to."""

import signal
from collections.abc import Callable
from typing import NoReturn

_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Told(KeyboardInterrupt):
    """The program is to end; `code` is its exit code, 128 and the number of the signal."""

    def __init__(self, number: int) -> None:
        super().__init__(f"told to end by {signal.Signals(number).name}")
        self.code = 128 + number


def watch() -> None:
    """From now on the first of SIGINT, SIGTERM and SIGHUP raises `Told`, so that prefixes and files
    are put in order. Later ones are ignored: a terminal, a supervisor and a time limit may all tell
    the same."""
    for number in _SIGNALS:
        signal.signal(number, _tell)


def orderly(main: Callable[[], int]) -> int:
    """Runs a program's main function; its exit code, also where it was told to end."""
    watch()
    try:
        return main()
    except Told as told:
        return told.code


def _tell(number: int, _frame: object) -> NoReturn:
    for each in _SIGNALS:
        signal.signal(each, signal.SIG_IGN)
    raise Told(number)
