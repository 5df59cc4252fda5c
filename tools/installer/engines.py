"""The known differences between the engines that run the library, and which engine is at work.

The table is tests/engines.toml. Tests and the demo ask it by name for what they expect.
"""

import re
import subprocess
import tomllib
import warnings
from dataclasses import dataclass
from enum import Enum
from functools import cache
from pathlib import Path
from typing import Any, Mapping

from installer import paths

WINE = "/usr/lib/wine/wine64"
VERSION_LIMIT = 60.0  # seconds

Value = bool | int | str | list[str]


class Engine(Enum):
    """What the library can run on, by the names of the table."""

    WINE_8 = "wine8"
    WINE_10 = "wine10"
    WINDOWS = "windows"


# The releases of Wine that the table knows, from the oldest.
_KNOWN = {8: Engine.WINE_8, 10: Engine.WINE_10}


@dataclass(frozen=True)
class Behaviour:
    """What one engine does, in words and as the value that is expected of it.

    `basis` is the document that says so where nobody has run the library, or "assumed"; empty
    where a probe observes it.
    """

    does: str
    value: Value
    basis: str = ""


@dataclass(frozen=True)
class Difference:
    """One difference: its name, what it is about, and the behaviour of each engine.

    `unasked` says why it stands in the table although nothing but its probe asks for its value.
    """

    name: str
    about: str
    behaviours: Mapping[Engine, Behaviour]
    unasked: str = ""


def differences(source: Path = paths.ENGINES) -> dict[str, Difference]:
    """The whole table by name; ValueError tells what is wrong with it."""
    with open(source, "rb") as file:
        rows = tomllib.load(file)
    return {name: _difference(name, row) for name, row in rows.items()}


def value(name: str) -> Any:
    """What the engine at work is expected to come to."""
    return _table()[name].behaviours[at_work()].value


@cache
def at_work() -> Engine:
    """The engine of this machine. Found out from the program; warns of a Wine that is not known."""
    asked = subprocess.run(
        [WINE, "--version"], capture_output=True, text=True, check=True, timeout=VERSION_LIMIT
    )
    engine, known = engine_of(asked.stdout)
    if not known:
        warnings.warn(f"{asked.stdout.strip()} is not known, taken for {engine.value}")
    return engine


def engine_of(version: str) -> tuple[Engine, bool]:
    """The engine that calls itself so, "wine-10.0 (Debian ...)" say, and whether it is known: for
    another one the nearest older one stands, or the oldest."""
    match = re.match(r"wine-(\d+)\.", version)
    if match is None:
        raise ValueError(f"no version of Wine: {version.strip()}")
    release = int(match[1])
    nearest = max((known for known in _KNOWN if known <= release), default=min(_KNOWN))
    return _KNOWN[nearest], release == nearest


@cache
def _table() -> dict[str, Difference]:
    return differences()


def _difference(name: str, row: Mapping[str, Any]) -> Difference:
    both = {"wine8": row["wine"], "wine10": row["wine"]} if "wine" in row else {}
    told = [key for key in row if key not in ("about", "unasked")]
    parts = both | {key: row[key] for key in told if key != "wine"}
    if set(parts) != {engine.value for engine in Engine} or ("wine" in row and len(told) != 2):
        raise ValueError(f"{name}: not the three engines: {', '.join(sorted(row))}")
    behaviours = {engine: Behaviour(**parts[engine.value]) for engine in Engine}
    if any(bool(each.basis) != (engine is Engine.WINDOWS) for engine, each in behaviours.items()):
        raise ValueError(f"{name}: a basis belongs to Windows and to no other engine")
    values = [each.value for each in behaviours.values()]
    if len({type(each) for each in values}) != 1 or all(each == values[0] for each in values):
        raise ValueError(f"{name}: the values do not differ, or are not of one kind: {values}")
    return Difference(name, row["about"], behaviours, row.get("unasked", ""))
