"""What `halvard_run --verify` asks a machine for, and what each engine is expected to answer.

The table is facts.toml beside the program's sources.
"""

import tomllib
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Mapping

from installer import engines, paths
from installer.engines import Engine

# What stands in the place of an outcome that an engine does not let anyone find out.
NOT_ASKED = "cannot be asked"
ASSUMED = "assumed"
# The subject of what --verify-installer asks for, and --verify does not.
INSTALLER = "installer"


@dataclass(frozen=True)
class Fact:
    """One fact: `outcomes` are what each engine answers, several where one is as good as the other."""

    name: str
    subject: str
    about: str
    relies: str
    basis: str
    outcomes: Mapping[Engine, tuple[str, ...]]
    difference: str = ""

    def expected(self) -> str:
        """The outcome at the engine at work."""
        (outcome,) = self.outcomes[engines.at_work()]
        return outcome

    def differs(self, engine: Engine) -> bool:
        """Whether an engine answers otherwise than Windows."""
        return self.outcomes[engine][0] not in self.outcomes[Engine.WINDOWS]


def facts(source: Path = paths.FACTS) -> list[Fact]:
    """The whole table; ValueError tells what is wrong with it."""
    with open(source, "rb") as file:
        rows = tomllib.load(file)
    return [_fact(name, row) for name, row in rows.items()]


def _fact(name: str, row: Mapping[str, Any]) -> Fact:
    told = dict(row)
    if "wine" in told:
        told["wine8"] = told["wine10"] = told.pop("wine")
    outcomes = {engine: _outcomes(name, told.pop(engine.value)) for engine in Engine}
    if any(len(outcomes[engine]) > 1 for engine in (Engine.WINE_8, Engine.WINE_10)):
        raise ValueError(f"{name}: an engine that is at hand has one outcome")
    if not told["about"].endswith(".") or told["about"].count(". "):
        raise ValueError(f"{name}: not one sentence: {told['about']}")
    return Fact(name=name, outcomes=outcomes, **told)


def _outcomes(name: str, given: str | list[str]) -> tuple[str, ...]:
    outcomes = tuple([given] if isinstance(given, str) else given)
    if not outcomes or any(not each or " or " in each for each in outcomes):
        raise ValueError(f"{name}: no outcome: {given}")
    return outcomes
