"""The copies of the task definitions that the shipped library writes into the temporary folder."""

import re
import time
import xml.etree.ElementTree as ElementTree
from datetime import date, timedelta

import pytest

from installer import companion, paths
from installer.prefix import Prefix

STARTED = "LAUNCHED_FROM_MIM=1"
# The engine's writer repeats it at every element, and once as a prefix, which no parser takes.
NAMESPACE = re.compile(r' xmlns(:\w+)?="[^"]*"')
# As the package stores it, with a backslash at its end, which the shipped definitions do not have.
LOCATION = f"{companion.FOLDER}\\Pivot\\"

# An element, its attributes and its text: the copies are indented, the shipped definitions not.
Element = tuple[str, dict[str, str], str]


def elements(definition: bytes) -> list[Element]:
    declaration, end, text = definition.decode("utf-16").partition("?>")
    assert 'encoding="utf-16"' in declaration.lower() and end
    return [
        (element.tag, element.attrib, (element.text or "").strip())
        for element in ElementTree.fromstring(NAMESPACE.sub("", text)).iter()
    ]


def shipped(name: str) -> list[Element]:
    return elements((paths.PACKAGE_SOURCES / f"Pivot/{name}.xml").read_bytes())


def copied(prefix: Prefix, name: str) -> list[Element]:
    (copy,) = (
        folder / f"{name}.xml"
        for folder in prefix.temporary_folders()
        if (folder / f"{name}.xml").exists()
    )
    return elements(copy.read_bytes())


def with_text(found: list[Element], tag: str, text: str) -> list[Element]:
    changed = [(each[0], each[1], text) if each[0] == tag else each for each in found]
    assert changed != found, f"{tag} has this text already: {text}"
    return changed


def next_midnight() -> str:
    hour = 1 if time.localtime().tm_isdst else 0
    return f"{date.today() + timedelta(days=1)}T{hour:02}:00:00"


@pytest.fixture
def installed(clean_machine, companion_package) -> set[str]:
    """An installed package; the midnights before and behind its installation."""
    before = next_midnight()
    assert clean_machine.install(companion_package, STARTED).exit_code == 0
    return {before, next_midnight()}


def test_the_copies_differ_from_the_shipped_definitions_in_one_text_each(installed, prefix):
    for name, program in (("StartPV", "pvcmd.exe"), ("StartDVR", "VSServCmd.exe")):
        copy = copied(prefix, name)
        assert copy == with_text(shipped(name), "WorkingDirectory", LOCATION)
        assert ("Command", {}, program) in copy
    copy = copied(prefix, "StartPVBM")
    assert copy in [with_text(shipped("StartPVBM"), "StartBoundary", each) for each in installed]
    assert ("Command", {}, "pvcmd.exe") in copy
