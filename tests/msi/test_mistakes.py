"""halvard_run --check and a package with 20 mistakes of use, made by somebody who had only the
reference: what is found of them, and that nothing else is."""

import json
import shutil
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator

import pytest

from installer import package, paths
from installer.prefix import Prefix

SOURCE = Path(__file__).with_name("mistakes.wxs")
FOLDER = paths.BUILD / "mistakes"
LEAST_FOUND = 18
TYPE = "UPDATE CustomAction SET Type={} WHERE Action='{}'"
IMMEDIATE_COPY = 2113
UNDOING = ("UndoCreateLogonSchTask", "UndoSetPermissionsRegisterDLL", "UndoEnableAnalyticsKey")
# As an old wixl leaves the package: no property is secure but those of the upgrade, and what undoes
# is immediate.
BY_THE_COMPILER = [
    "UPDATE Property SET Value='WIX_UPGRADE_DETECTED' WHERE Property='SecureCustomProperties'",
    *(TYPE.format(IMMEDIATE_COPY, action) for action in UNDOING),
]
LOCATION = r"SOFTWARE\Qorta Technologies\Install\Zenvo DVR"
RECORDER = r"SOFTWARE\Qorta Technologies\Install\XVR64"
BRANDING = r"SOFTWARE\ZenvoBranding"


@dataclass(frozen=True)
class Mistake:
    """`found` are the numbers and rows by which it is found, none where it is not. Rows of the table
    Registry, which have names of the compiler's, are named by their keys."""

    number: int
    what: str
    found: tuple[tuple[int, str], ...]


MISTAKES = [
    Mistake(1, "a launch condition in both sequences", ((402, "BlockLaunch"),)),
    Mistake(2, "properties that are not secure",
            ((501, "LAUNCHED_FROM_MIM"), (501, "DISABLEANALYTICS"))),
    Mistake(3, "an export spelled as it should be", ((101, "RemoveStartTask"),)),
    Mistake(4, "rollback actions that have become immediate",
            (*((102, action) for action in UNDOING),
             # They run with the installation then.
             (403, "UndoSetPermissionsRegisterDLL"), (403, "UndoEnableAnalyticsKey"))),
    Mistake(5, "an elevated task that is never deleted",
            ((311, "CreateTriggerlessElevatedScheduleTask"),)),
    Mistake(6, "1 for done, and checked", ((105, "TrackRecorder"),)),
    Mistake(7, "keys of the machine written as the user", ((104, "SetDriverLog"),)),
    Mistake(8, "data set before the folders are known", ((210, "SetUnregisterDLL"),)),
    Mistake(9, "data in the property of the export", ((201, "DeleteModelCache"),)),
    Mistake(10, "a key in other letters",
            ((202, "SetDeleteServiceIfBinaryIsInDirectory"),
             (205, "SetDeleteServiceIfBinaryIsInDirectory"))),
    Mistake(11, "a folder to delete that anybody may name", ((503, "SetDeleteDMFTDirectory"),)),
    Mistake(12, "a task whose name has an ampersand",
            ((206, "SetCreateTriggerlessElevatedScheduleTask"),)),
    Mistake(13, "the recorder's folder without its last backslash", ((803, RECORDER),)),
    Mistake(14, "the refusal of consent too early", ((303, "DisabelAnalyticsKey"),)),
    Mistake(15, "the folder of pvcmd.exe before what needs it", ((307, "DeleteXVRFolder"),)),
    Mistake(16, "a client's name with an underscore", ((207, "SetCheckForClients"),)),
    Mistake(17, "a folder given to all users in a repair", ((408, "SetPermissionsRegisterDLL"),)),
    Mistake(18, "a location in the 32-bit view", ((804, LOCATION),)),
    Mistake(19, "a kept path that is too long", ((604, BRANDING),)),
    # The service is named by the misspelled key of mistake 10.
    Mistake(20, "a service without ServiceControl", ()),
]
# That the library is not signed, and that the included file declares what this package does not use.
SHOWN = {(703, "Halvard_CA"), (107, "")}


@pytest.fixture(scope="module")
def findings() -> Iterator[set[tuple[int, str]]]:
    FOLDER.mkdir(parents=True, exist_ok=True)
    for file in (SOURCE, paths.PACKAGE_SOURCES / "halvard_actions.wxi"):
        shutil.copy(file, FOLDER)
    built = package.build(FOLDER / SOURCE.name)
    broken = package.changed_copy(built, "mistakes-broken", *BY_THE_COMPILER)
    keys = {row[0]: row[2] for row in package.table(broken, "Registry")}
    with Prefix("prefix-msi-mistakes") as prefix:
        done = prefix.run(paths.RUNNER, "--check", paths.windows_path(broken), "--json")
    rows = [(each["number"], each["row"] or "") for each in json.loads(done.stdout)["findings"]]
    yield {(number, keys.get(row, row)) for number, row in rows}


@pytest.mark.parametrize(
    "mistake", [each for each in MISTAKES if each.found], ids=lambda mistake: f"{mistake.number}"
)
def test_a_mistake_is_found_by_its_rules(findings, mistake):
    assert set(mistake.found) <= findings


def test_most_mistakes_are_found_and_nothing_else(findings):
    met = [mistake.number for mistake in MISTAKES if findings.intersection(mistake.found)]
    assert len(met) >= LEAST_FOUND and len(MISTAKES) == 20, met
    assert findings - SHOWN == {each for mistake in MISTAKES for each in mistake.found}
