"""Plays chains of installer sessions, each chain in a prefix of its own."""

import re
import shutil
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Mapping, Sequence

from installer import companion, engines, machine, package, paths, session
from installer.companion import Row
from installer.log import ActionRun, ExportCall, action_runs, inner_calls
from installer.machine import Area, Kind, Snapshot
from installer.prefix import Prefix
from installer.session import SessionResult

IDENTITY = re.compile(r'"[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"')
USER_ROOT = re.compile(r"HKU\\S-1-5-21-[0-9-]+\\")

# These do nothing here and report success; copies of the recorder stand in for them, so that it
# shows what they were told.
SYSTEM = r"C:\windows\system32"
RECORDED = [rf"{SYSTEM}\icacls.exe", rf"{SYSTEM}\WindowsPowerShell\v1.0\powershell.exe"]
OVERRIDES = "mscoree,mshtml,winemenubuilder.exe=;icacls.exe,powershell.exe=n,b"

PACKAGES: dict[str, Callable[[], Path]] = {
    "Companion": package.build,
    "newer Companion": lambda: package.build(version=companion.NEXT_VERSION),
    "Second Client": lambda: package.build(package.SECOND_CLIENT),
}


@dataclass(frozen=True)
class Machine:
    """What a machine has more than a fresh one, but for what belongs to the installer: files,
    values of the registry and of services, tasks, and which services run."""

    files: Sequence[str] = ()
    values: dict[str, str] = field(default_factory=dict)
    tasks: Sequence[str] = ()
    running: Sequence[str] = ()


@dataclass(frozen=True)
class Session:
    """One installer session of a scenario and what it should come to.

    `inner` are the calls of the session inside that has no log; `told` the commands that the
    programs got which are not the library's own, sorted; `empty` the folders and keys that are left
    with nothing in them, sorted; `prepare` does what happens before.
    """

    name: str
    package: str
    rows: Sequence[Row]
    machine: Machine
    properties: Sequence[str] = ()
    removal: bool = False
    result: int = 0
    inner: Sequence[ExportCall] = ()
    told: Sequence[str] = ()
    empty: Sequence[str] = ()
    prepare: Callable[[Prefix], None] = lambda prefix: None


@dataclass(frozen=True)
class Scenario:
    """Sessions on one machine; `queries` change the package of a name before it is used."""

    name: str
    sessions: Sequence[Session]
    queries: Mapping[str, Sequence[str]] = field(default_factory=dict)
    prepare: Callable[[Prefix], None] = lambda prefix: None


@dataclass
class Played:
    """What came of a session."""

    result: SessionResult
    runs: list[ActionRun]
    inner: list[ExportCall]
    machine: Machine
    empty: list[str]
    told: list[str]


def together(*parts: Machine | Mapping[str, str]) -> Machine:
    """A machine that has all of these; a plain mapping stands for values, and of values with the
    same name the last one counts."""
    machines = [part if isinstance(part, Machine) else Machine(values=part) for part in parts]
    merged: dict[str, str] = {}
    for part in machines:
        merged.update(part.values)
    return Machine(
        sorted(name for part in machines for name in part.files),
        merged,
        sorted(name for part in machines for name in part.tasks),
        sorted(name for part in machines for name in part.running),
    )


def play(scenario: Scenario) -> dict[str, Played]:
    """Runs the sessions of a scenario and says what came of each, by its name; those behind one
    that did not end as it should are left out."""
    sources = {}
    for name in {each.package for each in scenario.sessions}:
        sources[name] = PACKAGES[name]()
        if name in scenario.queries:
            copy = f"{sources[name].stem}-{scenario.name}"
            sources[name] = package.changed_copy(sources[name], copy, *scenario.queries[name])
    outcomes = {}
    identity = None
    with Prefix("prefix-scenario") as prefix:
        environment = {**session.watch_results(prefix), "WINEDLLOVERRIDES": OVERRIDES}
        for name in RECORDED:
            prefix.host_path(name).unlink()
            shutil.copyfile(paths.STAND_INS["Recorder"], prefix.host_path(name))
        beginning = machine.snapshot(prefix)
        scenario.prepare(prefix)
        for each in scenario.sessions:
            each.prepare(prefix)
            source = sources[each.package]
            result = (session.remove if each.removal else session.install)(
                prefix,
                source,
                *each.properties,
                log_name=f"{scenario.name}-{each.name}",
                environment=environment,
            )
            now = machine.snapshot(prefix)
            runs = action_runs(result.lines, package.library_actions(source), result.calls)
            outcomes[each.name] = Played(
                result,
                runs,
                inner_calls(runs, result.calls),
                state(prefix, beginning, now),
                empty(beginning, now),
                companion.told(prefix),
            )
            # The first identity is the one that has to stay.
            made = outcomes[each.name].machine.values
            identity = identity or made.get(companion.AGENT_IDENTITY)
            if identity and IDENTITY.fullmatch(identity):
                for name, content in made.items():
                    made[name] = "the identity" if content == identity else content
            if result.exit_code != session.as_exit_code(each.result):
                break
            prefix.host_path(companion.RECORD).unlink(missing_ok=True)
    return outcomes


def state(prefix: Prefix, beginning: Snapshot, now: Snapshot) -> Machine:
    """What a machine has more than at the beginning; a change of another kind shows as a value."""
    found: dict[str, str] = {}
    names: dict[Area, list[str]] = {Area.FILE: [], Area.TASK: []}
    for change in machine.difference(beginning, now).changes:
        name = general(change.name)
        if change.kind is not Kind.ADDED:
            found[f"{change.kind.value} {name}"] = str(change.after)
        elif change.area in names and change.after != "folder" and name != companion.RECORD:
            names[change.area].append(name)
        elif name.endswith((" : ImagePath", companion.COUNTERS_VALUE)):
            found[name] = change.after
        elif change.area is Area.REGISTRY and " : " in name:
            found[name] = general(change.after)
    services = (companion.SERVICE, companion.AGENT_SERVICE)
    running = [name for name in services if f"{name} : ImagePath" in found]
    return Machine(
        sorted(names[Area.FILE]),
        found,
        sorted(names[Area.TASK]),
        sorted(name for name in running if "RUNNING" in prefix.run("sc.exe", "query", name).stdout),
    )


def empty(beginning: Snapshot, now: Snapshot) -> list[str]:
    """The folders and registry keys that are there since the beginning and hold nothing."""
    added = [
        change
        for change in machine.difference(beginning, now).changes
        if change.kind is Kind.ADDED and change.area in (Area.FILE, Area.REGISTRY)
    ]
    holding = set()
    for change in added:
        key, is_value, _ = change.name.partition(" : ")
        holding.add(key if is_value else change.name.rpartition("\\")[0])
    return sorted(
        general(change.name)
        for change in added
        if change.after in ("folder", "") and " : " not in change.name and change.name not in holding
    )


def general(text: str) -> str:
    """A name or content without the account of the user."""
    temporary = re.escape(engines.value("temporary-folder"))
    text = re.sub(rf"C:\\users\\[^\\]+\\{temporary}(?=\\|$)", "%TEMP%", text)
    return USER_ROOT.sub(r"HKCU\\", text)
