"""Has the engine look after the heaps of a program, for all of a prefix."""

from enum import IntFlag

from installer.prefix import Prefix

IMAGE_OPTIONS = r"HKLM\Software\Microsoft\Windows NT\CurrentVersion\Image File Execution Options"


class HeapFlag(IntFlag):
    """Bits of the value GlobalFlag, which the engine reads when a program starts."""

    # Marks behind each block show what was written behind its end.
    TAIL = 0x10
    # A pattern in each free block shows what was written after it was given back.
    FREE = 0x20
    # All marks of a heap are looked at with each block that is taken from it or given back: for a
    # process in which no test looks at them. The start of a program takes a second then.
    EACH_CALL = 0x80


# For a program that looks at the marks itself.
MARKS = HeapFlag.TAIL | HeapFlag.FREE
# For one of which only what the engine prints is known.
MARKS_AND_REPORTS = MARKS | HeapFlag.EACH_CALL


def check_heap(prefix: Prefix, program: str, flags: HeapFlag) -> None:
    """Sets the flags for the programs of this file name; RuntimeError when that cannot be done."""
    key = rf"{IMAGE_OPTIONS}\{program}"
    # A text has no effect.
    value = ["/v", "GlobalFlag", "/t", "REG_DWORD", "/d", f"{flags.value:#x}"]
    added = prefix.run("reg.exe", "add", key, *value, "/f")
    if added.returncode != 0:
        raise RuntimeError(f"the heap check cannot be switched on: {added.stdout}")
