"""section_symbols.py ARCHIVE COPY: copies an archive of COFF objects (x86-64) and gives each
section ".pdata$NAME" and ".xdata$NAME" the section symbol that it lacks.

Debian strips its run-time libraries of these symbols. lld knows by them alone which function unwind
data belongs to, and leaves out what it cannot tell: an exception that passes through such a function
then takes registers from wrong places. The copy has no index of symbols; ranlib makes one.
"""

import struct
import sys
from pathlib import Path
from typing import Iterator

MAGIC = b"!<arch>\n"
MEMBER_HEADER = 60
# The index of symbols is for the archive as it was.
INDEX = b"/"
X86_64 = 0x8664
SECTION_SIZE = 40
SYMBOL_SIZE = 18
STATIC = 3
# The unwind data go with the function of the same COMDAT section name.
ASSOCIATED = (b".pdata$", b".xdata$")
SELECT_ANY = 2


def main(arguments: list[str]) -> int:
    if len(arguments) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    archive, copy = map(Path, arguments)
    parts = [MAGIC]
    for header, content in members(archive.read_bytes()):
        if header[:16].rstrip() == INDEX:
            continue
        changed = with_section_symbols(content)
        parts.append(header[:48] + b"%-10d" % len(changed) + header[58:])
        parts.append(changed + b"\n" * (len(changed) % 2))
    copy.write_bytes(b"".join(parts))
    return 0


def members(archive: bytes) -> Iterator[tuple[bytes, bytes]]:
    """The header and the content of each member."""
    if not archive.startswith(MAGIC):
        raise ValueError("not an archive")
    offset = len(MAGIC)
    while offset < len(archive):
        header = archive[offset : offset + MEMBER_HEADER]
        size = int(header[48:58])
        offset += MEMBER_HEADER
        yield header, archive[offset : offset + size]
        offset += size + size % 2


def with_section_symbols(content: bytes) -> bytes:
    """The object with a symbol for each section of unwind data that has none; anything else as it is."""
    if content[:2] != struct.pack("<H", X86_64):
        return content
    sections, _, symbol_table, symbols, optional, _ = struct.unpack_from("<HIIIHH", content, 2)
    strings = symbol_table + SYMBOL_SIZE * symbols
    known = sections_with_symbol(content, symbol_table, symbols)
    added = []
    for number in range(1, sections + 1):
        header = content[20 + optional + SECTION_SIZE * (number - 1) :][:SECTION_SIZE]
        # A name of more than eight characters stands among the strings.
        if number in known or not header.startswith(b"/"):
            continue
        at = int(header[1:8].rstrip(b"\0"))
        name = content[strings + at : content.index(0, strings + at)]
        if name.startswith(ASSOCIATED):
            size, relocations = struct.unpack_from("<I12xH", header, 16)
            added.append(struct.pack("<IIIhHBB", 0, at, 0, number, 0, STATIC, 1))
            added.append(struct.pack("<IHHIHB3x", size, relocations, 0, 0, 0, SELECT_ANY))
    counted = content[:12] + struct.pack("<I", symbols + len(added)) + content[16:strings]
    return counted + b"".join(added) + content[strings:]


def sections_with_symbol(content: bytes, symbol_table: int, symbols: int) -> set[int]:
    """The numbers of the sections that have a section symbol: a static one with a description."""
    known = set()
    index = 0
    while index < symbols:
        symbol = content[symbol_table + SYMBOL_SIZE * index :][:SYMBOL_SIZE]
        section, _, storage, more = struct.unpack_from("<hHBB", symbol, 12)
        if storage == STATIC and more:
            known.add(section)
        index += 1 + more
    return known


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
