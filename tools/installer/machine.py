"""What is on the machine of a prefix, and what an installer run changed there.

A snapshot holds the registry without its volatile keys, the files of drives c: and t:, the
scheduled tasks and the services as they are registered. Of those that one process takes only
the first is read as a whole.
"""

import os
import re
import tempfile
from collections import Counter
from dataclasses import dataclass, field
from datetime import datetime
from enum import Enum
from functools import cache, lru_cache
from pathlib import Path
from typing import Iterable, Mapping

from installer import engines, paths, repeats
from installer.prefix import Prefix

SAVE_LIMIT = 30.0

# Stands between a file's size and the time of its last write.
TIME_MARK = ", written "


class Area(Enum):
    """A part of the machine that readers look at by itself."""

    FILE = "file"
    REGISTRY = "registry"
    SERVICE = "service"
    TASK = "task"


class Kind(Enum):
    """What happened to an item between two snapshots."""

    ADDED = "added"
    REMOVED = "removed"
    CHANGED = "changed"


@dataclass(frozen=True)
class Change:
    """One item that differs; `before` and `after` are its contents, None where it is absent."""

    area: Area
    kind: Kind
    name: str
    before: str | None
    after: str | None


@dataclass
class Difference:
    """The changes between two snapshots.

    `noise` counts what every installer run or every start of a program changes, by its cause.
    """

    changes: list[Change] = field(default_factory=list)
    noise: Counter[str] = field(default_factory=Counter)

    def of(self, area: Area, kind: Kind) -> list[str]:
        """The names of the items of an area to which this happened."""
        return [
            change.name for change in self.changes if change.area is area and change.kind is kind
        ]

    def noise_summary(self) -> str:
        """One line with the counts, or an empty text."""
        if not self.noise:
            return ""
        counts = ", ".join(f"{cause}: {count}" for cause, count in sorted(self.noise.items()))
        return f"not listed: {counts}"


# The contents of each item by area and name.
Snapshot = Mapping[tuple[Area, str], str]

_CONTROL_KEY = r"HKLM\\System\\CurrentControlSet\\Control"
_TASK = re.compile(r"C:\\windows\\system32\\tasks\\(?P<name>.+)", re.IGNORECASE)
_SERVICE = re.compile(r"HKLM\\System\\CurrentControlSet\\Services\\(?P<name>.+)", re.IGNORECASE)


def snapshot(prefix: Prefix) -> Snapshot:
    """Looks at the machine as it is now; the prefix goes on running."""
    items = {}
    for name, content in (_by_usual_names(stored_registry(prefix)) | _files(prefix)).items():
        items[place(name)] = content
    return items


def difference(before: Snapshot, after: Snapshot) -> Difference:
    """What differs between two snapshots, by area and name."""
    result = Difference()
    places = before.keys() | after.keys()
    changed = [each for each in places if before.get(each) != after.get(each)]
    for area, name in sorted(changed, key=lambda each: (each[0].value, each[1])):
        old, new = before.get((area, name)), after.get((area, name))
        if cause := _noise_cause(name):
            result.noise[cause] += 1
            continue
        kind = Kind.ADDED if old is None else Kind.REMOVED if new is None else Kind.CHANGED
        result.changes.append(Change(area, kind, name, old, new))
    return result


def parse_saved_registry(text: str, root: str) -> dict[str, str]:
    """The keys and values of a saved registry tree.

    A key 'ROOT\\path' has an empty content, a value is named 'ROOT\\path : name'.
    """
    items: dict[str, str] = {}
    # A line that begins with a bracket is a key's: what a value has of them stands in quotes.
    for section in text.split("\n[")[1:]:
        items.update(_saved_key(root, section))
    return items


# Little of a registry differs between two snapshots, and reading is most of what one costs.
@lru_cache(maxsize=100_000)
def _saved_key(root: str, section: str) -> Mapping[str, str]:
    """A key with its values, from what stands behind its opening bracket."""
    lines = iter(_joined_lines(section))
    match = _KEY.match(next(lines, ""))
    if match is None:
        raise ValueError(f"no key of a saved registry: {section[:200]}")
    key = f"{root}\\{_unescaped(match['path'])}"
    items = {key: ""}
    for line in lines:
        if match := _VALUE.match(line):
            name = "(default)" if match["name"] is None else _unescaped(match["name"])
            items[f"{key} : {name}"] = _shown_data(match["data"])
    return items


_KEY = re.compile(r"(?P<path>.*)\](?: \d+)?$")
_VALUE = re.compile(r'(?:@|"(?P<name>(?:[^"\\]|\\.)*)")=(?P<data>.*)$')
_STRING = re.compile(r'(?:str\([0-9a-f]+\):)?"(?P<text>.*)"$')
_ESCAPE = re.compile(r"\\(?:x(?P<code>[0-9a-f]{1,4})|(?P<character>.))")
_CONTROL = {"0": "\0", "n": "\n", "r": "\r", "t": "\t"}


def _joined_lines(text: str) -> Iterable[str]:
    pending = ""
    for line in text.splitlines():
        if line.endswith("\\") and "=" in pending + line:
            pending += line[:-1].strip()
            continue
        yield pending + line.strip() if pending else line
        pending = ""


def _unescaped(text: str) -> str:
    def character(match: re.Match[str]) -> str:
        if match["code"]:
            return chr(int(match["code"], 16))
        return _CONTROL.get(match["character"], match["character"])

    return _ESCAPE.sub(character, text)


def _shown_data(data: str) -> str:
    match = _STRING.match(data)
    if match is None:
        return data
    # The parts of a list of strings stand behind each other, each with a terminator.
    return '"' + _unescaped(match["text"]).rstrip("\0").replace("\0", '", "') + '"'


def stored_registry(prefix: Prefix) -> dict[str, str]:
    """The keys and values of the registry under the names by which the engine stores them."""
    try:
        return _saved_registry(prefix)
    except NotSaved as failure:
        if failure.said:
            raise
        # The engine ends a program before its first word now and then; this one changes nothing.
        repeats.tell(str(failure))
        return _saved_registry(prefix)


class NotSaved(RuntimeError):
    """The registry could not be saved; `said` is what the program that saves it printed."""

    def __init__(self, code: int, said: str) -> None:
        super().__init__(f"the registry could not be saved: exit code {code}: {said or 'not a word'}")
        self.said = said


def _saved_registry(prefix: Prefix) -> dict[str, str]:
    with tempfile.TemporaryDirectory(dir=prefix.path, prefix="registry-") as folder:
        saved = prefix.run(
            paths.REGISTRY_SAVE, paths.windows_path(Path(folder)), limit=SAVE_LIMIT
        )
        if saved.returncode != 0:
            raise NotSaved(saved.returncode, saved.stdout.strip())
        return parse_saved_registry(_text(folder, "machine"), "HKLM") | parse_saved_registry(
            _text(folder, "users"), "HKU"
        )


def _by_usual_names(stored: dict[str, str]) -> dict[str, str]:
    """The control set under the name by which programs ask for it, wherever it is stored."""
    there = f"HKLM\\System\\{engines.value('control-set')}\\"
    usual = "HKLM\\System\\CurrentControlSet\\"
    return {
        usual + name.removeprefix(there) if name.startswith(there) else name: content
        for name, content in stored.items()
    }


def _text(folder: str, name: str) -> str:
    return (Path(folder) / name).read_text(encoding="utf-8", errors="replace")


def _files(prefix: Prefix) -> dict[str, str]:
    return _tree("C:", prefix.drive_c) | _tree("T:", prefix.throwaway)


def _tree(drive: str, root: Path) -> dict[str, str]:
    items = {}
    for folder, folder_names, file_names in os.walk(root):
        shown = drive + folder.removeprefix(str(root)).replace("/", "\\")
        for name in folder_names:
            items[f"{shown}\\{name}"] = "folder"
        for name in file_names:
            status = os.lstat(os.path.join(folder, name))
            written = datetime.fromtimestamp(status.st_mtime).isoformat(" ", "milliseconds")
            items[f"{shown}\\{name}"] = f"{status.st_size} bytes{TIME_MARK}{written}"
    return items


# As with the keys: most names are those of the last snapshot.
@lru_cache(maxsize=100_000)
def place(name: str) -> tuple[Area, str]:
    """The area that an item belongs to, and its name there."""
    if service := _SERVICE.match(name):
        return Area.SERVICE, service["name"]
    if task := _TASK.match(name):
        return Area.TASK, task["name"]
    return (Area.REGISTRY if name.startswith(("HKLM\\", "HKU\\")) else Area.FILE), name


@cache
def _noise_patterns() -> Mapping[str, re.Pattern[str]]:
    """What is noise, by its cause."""
    temporary = re.escape(engines.value("temporary-folder"))
    display_values = map(re.escape, engines.value("display-values"))
    noise = {
        "records of the installer": (
            r"HKLM\\Software\\Classes\\Installer\b",
            r"HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Installer\b",
            r"HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\b",
            r"C:\\windows\\Installer\b",
        ),
        "Wine's own state": (
            r"HKLM\\Software\\Microsoft\\Windows( NT)?\\CurrentVersion\\Fonts\b",
            r"HKLM\\Software\\Microsoft\\Windows NT\\CurrentVersion\\NetworkCards\b",
            *(rf"{_CONTROL_KEY}\\{name}$" for name in display_values),
            rf"{_CONTROL_KEY}\\Video\b",
            r"HKLM\\System\\CurrentControlSet\\Enum\b",
            r"HKU\\[^\\]+\\Software\\Wine\b",
            # The copy of the library that an action ran from, when its process ended late.
            rf"C:\\users\\[^\\]+\\{temporary}\\msi[0-9a-f]+\.tmp$",
            # The Task Scheduler's service starts by itself once a task was made.
            r"Schedule : Start$",
        ),
    }
    return {
        cause: re.compile("|".join(f"(?:{pattern})" for pattern in patterns), re.IGNORECASE)
        for cause, patterns in noise.items()
    }


def _noise_cause(name: str) -> str | None:
    for cause, pattern in _noise_patterns().items():
        if pattern.match(name):
            return cause
    return None
