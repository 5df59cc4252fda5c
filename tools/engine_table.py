"""Writes what is made of the table of engines, tests/engines.toml.

    engine_table.py header FILE    the values for tests in C++
    engine_table.py document       docs/engines.md
"""

import sys
from pathlib import Path

from installer import engines, paths
from installer.engines import Difference, Engine, Value

INTRODUCTION = """# What differs between the engines

Written by `./run generate` from `tests/engines.toml`, from which the tests and the demo
take what they expect. The library is tested under Wine 8 (Debian 12) and Wine 10 (Debian 13), where a
test of each difference finds out that it is still there. Nobody has run the library on Windows: what
stands here of it is what its documentation says, or assumed.
"""


def main(arguments: list[str]) -> int:
    match arguments:
        case ["header", file]:
            Path(file).write_text(header(engines.differences()))
        case ["document"]:
            paths.ENGINES_DOCUMENT.write_text(document(engines.differences()))
        case _:
            print(__doc__, file=sys.stderr)
            return 2
    return 0


def header(differences: dict[str, Difference]) -> str:
    """Constants for C++, one for each difference whose value is a number, a text or a truth."""
    lines = ["#pragma once", "", '#include "engine.h"', "", "namespace halvard_tests::engines {", ""]
    for name, difference in differences.items():
        values = [difference.behaviours[engine].value for engine in Engine]
        if not isinstance(values[0], list):
            constant = "k" + "".join(word.capitalize() for word in name.split("-"))
            literals = ", ".join(map(_literal, values))
            lines.append(f"inline constexpr PerEngine<{_type(values[0])}> {constant}{{{literals}}};")
    return "\n".join([*lines, "", "} // namespace halvard_tests::engines", ""])


def document(differences: dict[str, Difference]) -> str:
    """The table for readers."""
    return "\n".join([INTRODUCTION, *map(_section, differences.values())])


def _type(value: Value) -> str:
    return {bool: "bool", int: "unsigned", str: "const wchar_t*"}[type(value)]


def _literal(value: Value) -> str:
    if isinstance(value, bool):
        return str(value).lower()
    if isinstance(value, int):
        return f"{value}U"
    escaped = value.replace("\\", "\\\\").replace('"', '\\"')
    return f'L"{escaped}"'


def _section(difference: Difference) -> str:
    lines = [f"## {difference.name}", "", difference.about, ""]
    wine_8, wine_10, windows = (difference.behaviours[engine] for engine in Engine)
    if wine_8 == wine_10:
        lines.append(f"- Wine 8 and Wine 10: {wine_8.does}")
    else:
        lines += [f"- Wine 8: {wine_8.does}", f"- Wine 10: {wine_10.does}"]
    basis = "assumed" if windows.basis == "assumed" else f"documented: {windows.basis}"
    return "\n".join([*lines, f"- Windows ({basis}): {windows.does}", ""])


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
