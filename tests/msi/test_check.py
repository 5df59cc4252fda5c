"""halvard_run --check: the sample packages, and packages that differ from them by one mistake."""

import json
import re
import shutil
import subprocess
import sys
from typing import Iterator

import pytest

import generate
from checking import LIMIT, NOT_ALL_SCHEDULED, NOT_CHECKED, NOT_SIGNED, NOTHING, found
from documents import write_example
from installer import package, paths
from installer.prefix import Prefix

DOCUMENT = paths.ROOT / "docs/check.md"
# What the sample packages mean to show.
SHOWN = {
    package.COMPANION: {NOT_SIGNED},
    package.SECOND_CLIENT: {NOT_ALL_SCHEDULED, NOT_SIGNED},
}


@pytest.fixture(scope="module")
def prefix() -> Iterator[Prefix]:
    with Prefix("prefix-msi-check") as running:
        yield running


@pytest.mark.parametrize("source", SHOWN, ids=lambda source: source.stem)
def test_a_sample_package_has_no_finding_but_those_that_it_means_to_show(prefix, source):
    assert found(prefix, package.build(source)) == SHOWN[source]


TYPE = "UPDATE CustomAction SET Type={} WHERE Action='{}'"
TARGET = "UPDATE CustomAction SET Target='{}' WHERE Action='{}'"
MOVE = "UPDATE InstallExecuteSequence SET Sequence={} WHERE Action='{}'"
CONDITION = "UPDATE InstallExecuteSequence SET Condition='{}' WHERE Action='{}'"
LEAVE_OUT = "DELETE FROM InstallExecuteSequence WHERE Action='{}'"
VALUE = "UPDATE Property SET Value='{}' WHERE Property='{}'"
SERVER = "InstallDir=[ServerFolder];DLLName=CompanionServer.dll"


@pytest.mark.parametrize(
    "number, row, queries",
    [
        (101, "LaunchPV", [TARGET.format("LaunchPv", "LaunchPV")]),
        (102, "DeleteQortaKey", [TYPE.format(65, "DeleteQortaKey")]),
        (104, "DeleteQortaKey", [TYPE.format(1089, "DeleteQortaKey")]),
        (105, "RemovePVSchedularTask", [TYPE.format(3073, "RemovePVSchedularTask")]),
        (106, "CheckForClients", [TYPE.format(3137, "CheckForClients")]),
        (107, None, [LEAVE_OUT.format("TrackDVRAnalytics")]),
        (108, "LaunchPV", [TYPE.format(3265, "LaunchPV")]),
        (201, "UnregisterDLL", [LEAVE_OUT.format("SetUnregisterDLL")]),
        (202, "SetUnregisterDLL", [TARGET.format("InstallDir=[ServerFolder]", "SetUnregisterDLL")]),
        (204, "SetUnregisterDLL", [TARGET.format(f"{SERVER};odd", "SetUnregisterDLL")]),
        (205, "SetUnregisterDLL", [TARGET.format(f"{SERVER};Odd=1", "SetUnregisterDLL")]),
        (206, "SetUnregisterDLL", [TARGET.format(SERVER.replace("nS", "n S"), "SetUnregisterDLL")]),
        (207, "SetCheckForClients",
         [TARGET.format("ClientName=A_B;Action=[REMOVE];CurrentVersion=1.0", "SetCheckForClients")]),
        (208, "UnregisterDLL", [CONDITION.format("NOT Installed", "SetUnregisterDLL")]),
        (301, "DelInstallProxyKey", [MOVE.format(1490, "DelInstallProxyKey")]),
        (303, "TrackDVRAnalytics", [MOVE.format(4500, "TrackDVRAnalytics")]),
        (304, "RemoveDVRSchedularTask", [MOVE.format(3600, "RemoveDVRSchedularTask")]),
        (306, "TerminatePivotApp", [MOVE.format(1712, "TerminatePivotApp")]),
        (307, "DeleteXVRFolder", [MOVE.format(1712, "DeleteXVRFolder")]),
        (308, "PreInstallUPA", [LEAVE_OUT.format("StopAgent")]),
        (309, "RemoveExistingProducts", [MOVE.format(6505, "RemoveExistingProducts")]),
        (310, "UndoEnableAnalyticsKey", [MOVE.format(6205, "UndoEnableAnalyticsKey")]),
        (401, "BlockLaunch", [CONDITION.format("", "BlockLaunch")]),
        (403, "DeletePVFolder", [CONDITION.format("REMOVE", "DeletePVFolder")]),
        (404, "LaunchPV", [CONDITION.format("", "LaunchPV")]),
        (405, "TrackDVRAnalytics", [MOVE.format(6590, "TrackDVRAnalytics")]),
        (406, "LaunchPV", [CONDITION.format("NOT", "LaunchPV")]),
        (501, "LAUNCHED_FROM_MIM", [VALUE.format("DISABLEANALYTICS", "SecureCustomProperties")]),
        (502, "INSTALLDIR",
         [VALUE.format("DISABLEANALYTICS;LAUNCHED_FROM_MIM;INSTALLDIR", "SecureCustomProperties")]),
        (503, "SetDeleteDMFTDirectory",
         [TARGET.format("InstallDir=[INSTALLDIR]", "SetDeleteDMFTDirectory")]),
        (704, None, ["DELETE FROM Binary WHERE Name='Halvard_CA'"]),
    ],
    ids=lambda value: value if isinstance(value, int) else "",
)
def test_a_mistake_is_found(prefix, number, row, queries):
    good = package.build()
    broken = package.changed_copy(good, f"Mistake-{number}", *queries)
    assert (number, row) in found(prefix, broken)
    assert found(prefix, broken, "--skip", str(number)) <= SHOWN[package.COMPANION]


def test_findings_are_told_to_a_reader(prefix):
    done = prefix.run(paths.RUNNER, "--check", paths.windows_path(package.build()), limit=LIMIT)
    assert done.returncode == NOTHING
    assert "hint    703  Binary, Halvard_CA\n            A library without a signature.\n" in done.stdout
    assert done.stdout.endswith("Companion.msi: 0 errors, 0 warnings, 1 hint\n")


def test_the_document_shows_what_is_printed(prefix, tmp_path):
    ((command, name, shown),) = re.findall(
        r"^```console\n> halvard_run (--check (\S+) .*)\n((?:.*\n)*?)```$",
        DOCUMENT.read_text(),
        re.MULTILINE,
    )
    source = write_example(tmp_path, "Check-example.wxs")
    shutil.copy(package.build(source), prefix.host_path(rf"C:\{name}"))
    done = prefix.run(paths.RUNNER, *command.replace(name, rf"C:\{name}").split(), limit=LIMIT)
    printed = "".join(f"{line.rstrip()}\n" for line in done.stdout.splitlines())
    assert printed.replace("C:\\", "") == shown


def test_rules_are_left_out_by_their_numbers(prefix):
    good = package.build()
    numbers = ",".join(str(number) for number, _ in SHOWN[package.COMPANION])
    assert found(prefix, good, "--skip", numbers) == set()


@pytest.mark.parametrize(
    "arguments, reason",
    [
        (["--check", r"c:\none.msi"], r"c:\none.msi cannot be read"),
        (["--check", r"c:\windows\win.ini"], "cannot be read"),
        (["--check"], "--check needs the path of one package"),
        (["--check", "a.msi", "--skip", "x"], "--skip needs numbers of rules"),
    ],
)
def test_what_cannot_be_checked_has_an_exit_code_of_its_own(prefix, arguments, reason):
    done = prefix.run(paths.RUNNER, *arguments, "--json", limit=LIMIT)
    assert done.returncode == NOT_CHECKED
    told = json.loads(done.stdout)
    assert told["exit_code"] == NOT_CHECKED and reason in told["error"]
    assert reason in prefix.run(paths.RUNNER, *arguments, limit=LIMIT).stdout


def test_a_package_of_this_machine_is_checked_from_the_sources(tmp_path):
    named = tmp_path / "a package.msi"
    named.write_bytes(package.build(package.SECOND_CLIENT).read_bytes())
    done = subprocess.run(
        [sys.executable, "-B", str(paths.ROOT / "tools/action.py"), "--check", str(named), "--json"],
        capture_output=True, text=True, timeout=3 * LIMIT,
    )
    assert (done.returncode, done.stderr) == (NOTHING, "")
    assert json.loads(done.stdout)["package"] == r"t:\a package.msi"


def test_the_rules_stand_by_their_numbers():
    rules = generate.rules()
    assert len(rules) >= 25
    numbers = [rule.number for rule in rules]
    assert numbers == sorted(set(numbers))
    assert {rule.severity for rule in rules} == set(generate.SEVERITIES)
