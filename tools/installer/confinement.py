"""Keeps programs from changing files outside of the folders that they are given.

The kernel does it (Landlock): whatever path leads to a file, a program that is confined, and all
that it starts, can make, write and remove files beneath those folders alone. Reading, executing and
changes of attributes and owners are not restricted, nor is cutting a file short before version 3.
Where the kernel cannot do it the programs run unconfined, with one warning.
"""

import ctypes
import os
import warnings
from concurrent.futures import ThreadPoolExecutor
from functools import lru_cache
from pathlib import Path
from typing import Callable, Iterable, TypeVar

# The same numbers on every architecture.
CREATE_RULESET, ADD_RULE, RESTRICT_SELF = 444, 445, 446
ASK_VERSION = 1
PATH_BENEATH = 1
SET_NO_NEW_PRIVILEGES = 38

# Before version 2 a file cannot be moved from folder to folder at all.
LEAST_VERSION = 2
WRITE_FILE, TRUNCATE = 1 << 1, 1 << 14
# REMOVE_DIR and REMOVE_FILE, MAKE_CHAR to MAKE_SYM, REFER.
CHANGE_FOLDER = 1 << 4 | 1 << 5 | sum(1 << right for right in range(6, 13)) | 1 << 13
VERSION_OF_TRUNCATE = 3

Result = TypeVar("Result")

_libc = ctypes.CDLL(None, use_errno=True)


class _Ruleset(ctypes.Structure):
    _fields_ = [("handled_access_fs", ctypes.c_uint64)]


class _PathBeneath(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("allowed_access", ctypes.c_uint64), ("parent_fd", ctypes.c_int32)]


class ConfinedThread:
    """A thread whose child processes, with all that they start, can change nothing but `writable`:
    folders, with all they hold, and files.

    One thread starts all programs that belong together: the kernel lets a confined program read the
    memory of those alone that are confined with it, and the server of a prefix has to.
    """

    def __init__(self, writable: Iterable[Path]) -> None:
        self._thread = ThreadPoolExecutor(max_workers=1)
        try:
            self.call(_confine_this_thread, list(writable))
        except BaseException:
            self.end()
            raise

    def call(self, function: Callable[..., Result], *arguments: object, **options: object) -> Result:
        """What the function returns, or raises, in the thread."""
        return self._thread.submit(function, *arguments, **options).result()

    def end(self) -> None:
        self._thread.shutdown()


def _confine_this_thread(writable: Iterable[Path]) -> None:
    handled = rights()
    if handled == 0:
        return
    ruleset = _Ruleset(handled)
    size = ctypes.sizeof(ruleset)
    descriptor = _checked(_libc.syscall, CREATE_RULESET, ctypes.byref(ruleset), size, 0)
    try:
        for path in writable:
            _allow(descriptor, path, handled)
        _checked(_libc.prctl, SET_NO_NEW_PRIVILEGES, 1, 0, 0, 0)
        _checked(_libc.syscall, RESTRICT_SELF, descriptor, 0)
    finally:
        os.close(descriptor)


def _allow(descriptor: int, path: Path, allowed: int) -> None:
    if not path.is_dir():
        allowed &= WRITE_FILE | TRUNCATE
    opened = os.open(path, os.O_PATH | os.O_CLOEXEC)
    try:
        rule = _PathBeneath(allowed, opened)
        _checked(_libc.syscall, ADD_RULE, descriptor, PATH_BENEATH, ctypes.byref(rule), 0)
    finally:
        os.close(opened)


@lru_cache(maxsize=None)
def rights() -> int:
    """What is restricted, 0 where nothing can be; that is said once."""
    try:
        version = _checked(_libc.syscall, CREATE_RULESET, None, 0, ASK_VERSION)
        reason = f"version {version} of Landlock"
    except OSError as error:
        version, reason = 0, error.strerror
    if version < LEAST_VERSION:
        warnings.warn(
            "the kernel cannot confine the programs of a prefix"
            f" ({reason}): only its drives and its guard keep them from other files",
            RuntimeWarning,
            stacklevel=2,
        )
        return 0
    truncate = TRUNCATE if version >= VERSION_OF_TRUNCATE else 0
    return WRITE_FILE | CHANGE_FOLDER | truncate


def _checked(function: Callable[..., int], *arguments: object) -> int:
    # These functions take any number of arguments, and plain numbers would go as 32 bits.
    wide = [ctypes.c_long(value) if isinstance(value, int) else value for value in arguments]
    result = function(*wide)
    if result < 0:
        code = ctypes.get_errno()
        raise OSError(code, os.strerror(code))
    return result
