"""Builds the sample package and reads what it says of its custom actions."""

import fcntl
import hashlib
import os
import re
import shutil
import subprocess
import uuid
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass
from pathlib import Path
from typing import Iterable, Iterator

from installer import paths
from installer.log import ActionDefinition, Execution

COMPANION = paths.PACKAGE_SOURCES / "Companion.wxs"
SECOND_CLIENT = paths.PACKAGE_SOURCES / "SecondClient.wxs"
LIBRARY_STREAM = "Halvard_CA"

_PRODUCTS = uuid.UUID("8C0B7A52-1F0E-4B7C-9D5E-6B8A5E3F2D41")
_SOURCE_NAMESPACE = {"wix": "http://schemas.microsoft.com/wix/2006/wi"}
_COPIED_TO = "DestinationDirectory"
_INCLUDE = re.compile(r"<\?include (\S+) \?>")

# Bits of the Type column of the table CustomAction.
_LIBRARY_IN_BINARY_TABLE = 0x0001
_COMMAND_IN_FOLDER = 0x0022
_ERROR_ACTION = 0x0013
_SOURCE_KIND = 0x003F
_RESULT_IGNORED = 0x0040
_EXECUTIONS = {
    Execution.IMMEDIATE: 0x0000,
    Execution.DEFERRED: 0x0400,
    Execution.ROLLBACK: 0x0500,
    Execution.COMMIT: 0x0600,
}
_EXECUTION = 0x0700
_NO_IMPERSONATION = 0x0800


class ToolFailed(RuntimeError):
    """A tool that makes or reads packages ended with a failure; the text is what it printed."""


@dataclass(frozen=True)
class Identity:
    """What the project calls itself."""

    company: str
    version: str
    description: str
    # Where faults are reported.
    faults: str


def project_identity() -> Identity:
    """Reads all of it where the project keeps it."""
    text = paths.CMAKE_LISTS.read_text()
    return Identity(
        company=_only_match(r'set\(HALVARD_COMPANY "([^"]+)"\)', text),
        version=_only_match(r"project\(Halvard_CA\s+VERSION (\d+\.\d+\.\d+)", text),
        description=_only_match(r'DESCRIPTION "([^"]+)"', text),
        faults=_only_match(r'set\(HALVARD_FAULTS "([^"]+)"\)', text),
    )


def build(
    source: Path = COMPANION, library: Path = paths.LIBRARY, version: str | None = None
) -> Path:
    """Builds a package around the library; its name is that of the source.

    With a version that is not the project's, the package upgrades that of the project and has the
    version in its name. One that is there, made of the same, stays.
    """
    identity = project_identity()
    package = paths.PACKAGES / f"{source.stem}{f'-{version}' if version else ''}.msi"
    version = version or identity.version
    # The same codes for every build of a version: a rebuilt package still removes its product.
    upgrade_code = uuid.uuid5(_PRODUCTS, source.stem)
    product_code = uuid.uuid5(upgrade_code, version)
    definitions = {
        "Company": identity.company,
        "Version": version,
        "Description": identity.description,
        "UpgradeCode": str(upgrade_code).upper(),
        "ProductCode": str(product_code).upper(),
        # What the source has for this compiler alone.
        "Wixl": "yes",
    }
    files = {"Library": library} | paths.STAND_INS
    # wixl takes a path that begins with a slash for a missing file.
    definitions |= {name: os.path.relpath(file, source.parent) for name, file in files.items()}
    package.parent.mkdir(parents=True, exist_ok=True)
    with open(paths.PACKAGES / "build.lock", "w") as lock:
        # Others may build, or use, the same package now: nobody changes one that is as it should be.
        fcntl.flock(lock, fcntl.LOCK_EX)
        made_of = _fingerprint(source, definitions, [*files.values(), Path(__file__)])
        told = package.with_suffix(".made-of")
        if not (package.exists() and told.exists() and told.read_text() == made_of):
            told.unlink(missing_ok=True)
            package.unlink(missing_ok=True)
            _compile(package, source, definitions)
            told.write_text(made_of)
    return package


def _fingerprint(source: Path, definitions: dict[str, str], files: Iterable[Path]) -> str:
    """Of what a package is made of: all that lies where its source does, the definitions, the files
    that go into it, and the version that the compiler tells of itself. Of the tools that change the
    package behind the compiler nothing counts."""
    beside = sorted(file for file in source.parent.rglob("*") if file.is_file())
    digest = hashlib.sha256(f"{definitions}{_run('wixl', '--version')}".encode())
    for file in [*beside, *files]:
        digest.update(f"\0{file}\0".encode() + file.read_bytes())
    return digest.hexdigest()


def _compile(package: Path, source: Path, definitions: dict[str, str]) -> None:
    switches = [word for name, value in definitions.items() for word in ("-D", f"{name}={value}")]
    _run("wixl", "--arch", "x64", *switches, "-o", str(package), source.name, folder=source.parent)
    _correct_action_types(package, source)
    _add_commands(package, source)
    _add_refusals(package, source)
    _add_component_conditions(package, source)
    _add_copies(package, source)
    _add_secure_properties(package, source)


def change(package: Path, *queries: str) -> None:
    """Runs SQL statements on a package."""
    for query in queries:
        _run("msibuild", str(package), "-q", query)


def changed_copy(package: Path, name: str, *queries: str) -> Path:
    """A package of another name that differs by these SQL statements."""
    copy = paths.PACKAGES / f"{name}.msi"
    made = copy.with_suffix(f".{os.getpid()}")
    shutil.copyfile(package, made)
    change(made, *queries)
    # Whole, for others may use the one that is there.
    return made.replace(copy)


def table(package: Path, name: str) -> list[list[str]]:
    """The rows of a table, each a list of its columns' texts."""
    lines = _run("msiinfo", "export", str(package), name).decode().splitlines()
    return [line.split("\t") for line in lines[3:]]


def comments(package: Path) -> str:
    """What the summary of the package says of it."""
    lines = _run("msiinfo", "suminfo", str(package)).decode().splitlines()
    return next(line.partition(": ")[2] for line in lines if line.startswith("Comments: "))


def library_bytes(package: Path) -> bytes:
    """The custom-action library as it lies in the package."""
    return _run("msiinfo", "extract", str(package), f"Binary.{LIBRARY_STREAM}")


def library_actions(package: Path) -> dict[str, ActionDefinition]:
    """The custom actions of the package that a library in its Binary table carries out."""
    executions = {bits: execution for execution, bits in _EXECUTIONS.items()}
    definitions = {}
    for name, type_text, _, target, *_ in table(package, "CustomAction"):
        bits = int(type_text)
        if bits & _SOURCE_KIND == _LIBRARY_IN_BINARY_TABLE:
            definitions[name] = ActionDefinition(
                executions[bits & _EXECUTION], bool(bits & _RESULT_IGNORED), target
            )
    return definitions


def _correct_action_types(package: Path, source: Path) -> None:
    # wixl makes immediate actions of rollback and commit actions, and marks immediate ones as
    # running without impersonation.
    for element in _elements(source, "CustomAction"):
        if "DllEntry" in element.attrib:
            change(
                package,
                f"UPDATE CustomAction SET Type={_action_type(element)} "
                f"WHERE Action='{element.attrib['Id']}'",
            )


def _add_commands(package: Path, source: Path) -> None:
    # wixl leaves out actions that run a command in a folder.
    for element in _elements(source, "CustomAction"):
        if "ExeCommand" in element.attrib:
            row = [element.attrib[name] for name in ("Id", "Directory", "ExeCommand")]
            change(
                package,
                "INSERT INTO CustomAction (Action, Type, Source, Target) "
                f"VALUES ('{row[0]}', {_action_type(element, _COMMAND_IN_FOLDER)}, "
                f"'{row[1]}', '{row[2]}')",
            )


def _add_refusals(package: Path, source: Path) -> None:
    # wixl ends with an error where an action ends the session with a text.
    for element in _elements(source, "CustomAction"):
        if "Error" in element.attrib:
            change(
                package,
                "INSERT INTO CustomAction (Action, Type, Target) "
                f"VALUES ('{element.attrib['Id']}', {_ERROR_ACTION}, '{element.attrib['Error']}')",
            )


def _add_component_conditions(package: Path, source: Path) -> None:
    # wixl ends with an error where a component has a condition.
    for component in _elements(source, "Component"):
        for condition in component.iterfind("wix:Condition", _SOURCE_NAMESPACE):
            change(
                package,
                f"UPDATE Component SET Condition='{condition.text}' "
                f"WHERE Component='{component.attrib['Id']}'",
            )


def _add_copies(package: Path, source: Path) -> None:
    # wixl does not know files that are copied once more when they have been installed.
    rows = [
        (copy.attrib["Id"], component.attrib["Id"], file.attrib["Id"], copy.attrib[_COPIED_TO])
        for component in _elements(source, "Component")
        for file in component.iterfind("wix:File", _SOURCE_NAMESPACE)
        for copy in file.iterfind("wix:CopyFile", _SOURCE_NAMESPACE)
    ]
    if rows:
        change(
            package,
            "CREATE TABLE DuplicateFile (FileKey CHAR(72) NOT NULL, Component_ CHAR(72) NOT NULL, "
            "File_ CHAR(72) NOT NULL, DestName CHAR(255) LOCALIZABLE, DestFolder CHAR(72) "
            "PRIMARY KEY FileKey)",
        )
    for row in rows:
        change(
            package,
            "INSERT INTO DuplicateFile (FileKey, Component_, File_, DestFolder) "
            f"VALUES ('{row[0]}', '{row[1]}', '{row[2]}', '{row[3]}')",
        )


def _add_secure_properties(package: Path, source: Path) -> None:
    # wixl drops the mark, and properties without a value altogether.
    marked = [
        element.attrib["Id"]
        for element in _elements(source, "Property")
        if element.get("Secure") == "yes"
    ]
    if not marked:
        return
    name = "SecureCustomProperties"
    former = dict(table(package, "Property")).get(name)
    if former is None:
        change(
            package,
            f"INSERT INTO Property (Property, Value) VALUES ('{name}', '{';'.join(marked)}')",
        )
    else:
        value = ";".join([former, *marked])
        change(package, f"UPDATE Property SET Value='{value}' WHERE Property='{name}'")


def _elements(source: Path, tag: str) -> Iterator[ElementTree.Element]:
    """The elements of this name in a source and in what it includes."""
    files = [source.with_name(name) for name in _INCLUDE.findall(source.read_text())]
    for file in (source, *files):
        yield from ElementTree.parse(file).iterfind(f".//wix:{tag}", _SOURCE_NAMESPACE)


def _action_type(element: ElementTree.Element, kind: int = _LIBRARY_IN_BINARY_TABLE) -> int:
    execution = Execution(element.attrib["Execute"])
    bits = kind | _EXECUTIONS[execution]
    if element.attrib["Return"] == "ignore":
        bits |= _RESULT_IGNORED
    if execution is not Execution.IMMEDIATE and element.get("Impersonate") == "no":
        bits |= _NO_IMPERSONATION
    return bits


def _only_match(pattern: str, text: str) -> str:
    found = re.findall(pattern, text)
    if len(found) != 1:
        raise ToolFailed(f"{paths.shown(paths.CMAKE_LISTS)}: {len(found)} matches of {pattern}")
    return found[0]


def _run(*command: str, folder: Path = paths.BUILD) -> bytes:
    done = subprocess.run(command, cwd=folder, stdin=subprocess.DEVNULL, capture_output=True)
    if done.returncode != 0:
        raise ToolFailed(f"{command[0]}: {done.stderr.decode(errors='replace').strip()}")
    return done.stdout
