"""Reads the table of actions, actions.toml, and refuses rows that contradict themselves."""

import tomllib
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from installer import paths

OTHER = "other"
SESSIONS = ("installation", "removal", "any")


@dataclass(frozen=True)
class DataKey:
    """A key of CustomActionData; an action is of no use without a needed one."""

    name: str
    needed: bool


@dataclass(frozen=True)
class Result:
    """What an action returns: a number, or "other" for one that is not fixed."""

    value: int | str
    means: str
    note: str = ""

    @property
    def fixed(self) -> bool:
        return self.value != OTHER


@dataclass(frozen=True)
class Place:
    """Where an action stands in a sequence: in which sessions, and behind and before what."""

    on: str
    behind: tuple[str, ...] = ()
    before: tuple[str, ...] = ()


@dataclass(frozen=True)
class Action:
    """A row of the table, whose file says what its fields are."""

    name: str
    subsystem: str
    does: str
    execution: str
    return_attribute: str
    why: str
    schedule: str
    place: Place
    results: tuple[Result, ...]
    impersonate: bool = False
    data: tuple[DataKey, ...] = ()
    whole_data: str = ""
    properties: tuple[str, ...] = ()
    registry: tuple[str, ...] = ()
    exceptions: tuple[str, ...] = ()
    throws: str = ""
    undone_by: str = ""
    as_user: str = ""

    @property
    def undoing(self) -> str:
        """The name under which the counterpart of this action is declared for rollback."""
        return f"Undo{self.name}"

    @property
    def once_more(self) -> str:
        """The name under which this action is declared with the rights of the user."""
        return f"{self.name}AsUser"

    def __post_init__(self) -> None:
        """ValueError for a row that contradicts itself."""
        if self.execution not in ("immediate", "deferred"):
            raise ValueError(f"{self.name}: no such execution")
        if self.return_attribute not in ("check", "ignore"):
            raise ValueError(f"{self.name}: no such return")
        if self.execution == "immediate" and (self.data or self.whole_data or self.impersonate):
            raise ValueError(f"{self.name}: what only a deferred action has")
        if self.place.on not in SESSIONS:
            raise ValueError(f"{self.name}: no such session")
        if bool(self.exceptions) != bool(self.throws):
            raise ValueError(f"{self.name}: exceptions and when they are thrown go together")
        if self.data and self.whole_data:
            raise ValueError(f"{self.name}: data has keys or is taken whole")
        if (self.undone_by or self.as_user) and (self.execution == "immediate"):
            raise ValueError(f"{self.name}: what only a deferred action has")
        if self.as_user and self.impersonate:
            raise ValueError(f"{self.name}: runs as the user already")
        if any(each.fixed and not isinstance(each.value, int) for each in self.results):
            raise ValueError(f"{self.name}: a result is a number or {OTHER}")
        if not self.results or any(not each.fixed and not each.note for each in self.results):
            raise ValueError(f"{self.name}: each has a result, one that is not fixed has a note")


def actions(file: Path = paths.ACTIONS) -> list[Action]:
    """The rows of the table in their order. ValueError, TypeError or KeyError for a faulty table."""
    with open(file, "rb") as table:
        rows = tomllib.load(table)["action"]
    found = [_action(row) for row in rows]
    if len({action.name for action in found}) != len(found):
        raise ValueError("an action stands twice in the table")
    names = {action.name for action in found if action.execution == "deferred"}
    for action in found:
        if action.undone_by and action.undone_by not in names:
            raise ValueError(f"{action.name}: undone by what is no deferred action")
    return found


def exports() -> list[str]:
    """The names under which the library offers its actions."""
    return [action.name for action in actions()]


def _action(row: dict[str, Any]) -> Action:
    fields = dict(row)
    fields["return_attribute"] = fields.pop("return")
    fields["results"] = tuple(Result(**each) for each in fields["results"])
    place = fields["place"]
    fields["place"] = Place(
        place["on"], tuple(place.get("behind", ())), tuple(place.get("before", ()))
    )
    fields["data"] = tuple(DataKey(each["key"], each["needed"]) for each in fields.get("data", ()))
    for name in ("properties", "registry", "exceptions"):
        fields[name] = tuple(fields.get(name, ()))
    return Action(**fields)
