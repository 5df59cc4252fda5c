"""What the library's bytes are: its sections, and the objects that the linker took them from."""

import re
import subprocess
from collections import defaultdict
from pathlib import Path

# The lines of lld's map: address, size and alignment, and the object with its section.
MAP_LINE = re.compile(r"^[0-9a-f]{8} ([0-9a-f]{8}) +\d+ {9}(\S.*):\((\S*)\)$")
SECTION_LINE = re.compile(r"^ +\d+ (\S+) +([0-9a-f]{8}) ")


def sections(library: Path) -> dict[str, int]:
    """The bytes of the sections in memory, by name, in the order of the file."""
    listing = subprocess.run(
        ["x86_64-w64-mingw32-objdump", "-h", library], capture_output=True, text=True, check=True
    ).stdout
    sizes: dict[str, int] = defaultdict(int)
    for found in filter(None, map(SECTION_LINE.match, listing.splitlines())):
        sizes[found[1]] += int(found[2], 16)
    return sizes


def objects(link_map: Path) -> dict[str, int]:
    """The bytes that each object gave, by its file name; those of debug information apart."""
    sizes: dict[str, int] = defaultdict(int)
    for line in link_map.read_text(encoding="utf-8").splitlines():
        found = MAP_LINE.match(line)
        if found and not found[3].startswith(".debug"):
            sizes[found[2].rpartition("/")[2]] += int(found[1], 16)
    return {name: size for name, size in sizes.items() if size}
