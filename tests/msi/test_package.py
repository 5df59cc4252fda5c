"""The sample package as it was built."""

import re
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import pytest

from installer import actions, companion, engines, package, paths
from installer.log import Execution


AGENT_SEQUENCE = [
    "CheckForClients",
    "StopAgent",
    "PreInstallUPA",
    "DuplicateFiles",
    "SetPostInstallUPA",
    "PostInstallUPA",
    "AfterInstallUPA",
    "RemoveAgentTask",
    "RemoveEmptyFolders",
    "InstallFinalize",
]


def test_the_library_in_the_package_is_the_one_just_built(companion_package):
    assert package.library_bytes(companion_package) == paths.LIBRARY.read_bytes()


def test_company_version_and_description_are_those_of_the_project(companion_package):
    properties = dict(package.table(companion_package, "Property"))
    identity = package.project_identity()
    assert package.comments(companion_package) == identity.description
    assert properties["Manufacturer"] == identity.company
    assert properties["ProductName"] == f"{identity.company} Companion"
    assert properties["ProductVersion"] == identity.version


def test_the_properties_of_the_package_reach_an_elevated_installation(companion_package):
    properties = dict(package.table(companion_package, "Property"))
    passed_on = properties["SecureCustomProperties"].split(";")
    # The first ones are those of the upgrade.
    assert passed_on[-4:] == ["DISABLEANALYTICS", "LAUNCHED_FROM_MIM", "FORMERCONSENT", "LAZESTART"]
    assert len(passed_on) == 6


def test_the_package_installs_for_the_machine(companion_package):
    assert dict(package.table(companion_package, "Property"))["ALLUSERS"] == "1"


def test_the_refusal_comes_before_every_other_action(companion_package):
    rows = package.table(companion_package, "InstallExecuteSequence")
    ordered = sorted(rows, key=lambda row: int(row[2]))
    assert [row[:2] for row in ordered[:2]] == [
        ["BlockLaunch", "NOT Installed"],
        ["LaunchedFromMIM", "NOT Installed"],
    ]


def test_no_action_of_the_library_runs_a_second_time_in_the_user_interface(companion_package):
    in_interface = {row[0] for row in package.table(companion_package, "InstallUISequence")}
    assert in_interface.isdisjoint(package.library_actions(companion_package))


SETS_A_PROPERTY = 51


@pytest.mark.parametrize("carrier", ["companion_package", "second_package"])
def test_immediate_actions_run_as_the_user_and_rollback_actions_as_the_system(carrier, request):
    carrier_package = request.getfixturevalue(carrier)
    types = {row[0]: int(row[1]) for row in package.table(carrier_package, "CustomAction")}
    executions = {
        name: definition.execution
        for name, definition in package.library_actions(carrier_package).items()
    }
    setting = [name for name in types if name.startswith("Set") and name not in executions]
    assert setting and {types[name] for name in setting} == {SETS_A_PROPERTY}
    for name, execution in executions.items():
        as_user = execution is Execution.IMMEDIATE or name in (
            "CreateBenchMarkRunOnceSchTask",
            "InstallContextMenuMSIXAsUser",
        )
        assert bool(types[name] & 0x0800) != as_user, name
    undoing = {name for name, execution in executions.items() if execution is Execution.ROLLBACK}
    assert undoing == {action.undoing for action in actions.actions() if action.undone_by}


def test_a_folder_with_a_semicolon_is_refused_where_it_is_known_for_good(companion_package):
    (row,) = [row for row in package.table(companion_package, "CustomAction") if row[0] == "RefuseSemicolon"]
    assert row[1] == "19" and "semicolon" in row[3]
    sequence = {row[0]: row[1:] for row in package.table(companion_package, "InstallExecuteSequence")}
    condition, number = sequence["RefuseSemicolon"]
    assert condition == 'INSTALLDIR >< ";"'
    assert int(sequence["CostFinalize"][1]) < int(number) < int(sequence["InstallValidate"][1])


def test_consent_is_set_or_refused_and_never_both(companion_package):
    refused = 'DISABLEANALYTICS ~<< "YES"'
    rows = package.table(companion_package, "InstallExecuteSequence")
    conditions = {row[0]: row[1] for row in rows}
    for action in ("EnableAnalyticsKey", "UndoEnableAnalyticsKey"):
        assert conditions[action] == f"NOT Installed AND NOT ({refused})"
    conditions = {row[0]: row[4] for row in package.table(companion_package, "Component")}
    assert conditions.pop("Refusal") == refused
    assert set(conditions.values()) == {""}


def test_what_the_context_menu_brings_is_taken_back(companion_package):
    sequence = {row[0]: int(row[2]) for row in package.table(companion_package, "InstallExecuteSequence")}
    for before, behind in (
        ("UndoContextMenuCertificate", "InstallContextMenuMSIX"),
        ("InstallContextMenuMSIX", "UndoContextMenuPackage"),
        ("UndoContextMenuPackage", "InstallContextMenuMSIXAsUser"),
        ("RemoveContextMenuPackage", "RemoveFiles"),
        ("RemoveContextMenuCertificate", "RemoveFiles"),
    ):
        assert sequence[before] < sequence[behind], (before, behind)


def test_the_service_is_stopped_and_removed_by_the_installer_too(companion_package):
    start_on_install, stop_on_removal, delete_on_removal = 0x01, 0x20, 0x80
    ((_, name, event, *_),) = package.table(companion_package, "ServiceControl")
    assert name == f"{package.project_identity().company}Companion"
    assert int(event) == start_on_install | stop_on_removal | delete_on_removal


def test_a_command_that_wixl_leaves_out_is_in_the_package(companion_package):
    rows = {row[0]: row[1:4] for row in package.table(companion_package, "CustomAction")}
    assert rows["RemoveElevatedTask"] == [
        str(0x0022 + 0x0040 + 0x0400 + 0x0800),
        "TARGETDIR",
        'schtasks /delete /TN "ZenvoElevated" /F',
    ]


@pytest.mark.parametrize("carrier", ["companion_package", "second_package"])
def test_all_of_the_agent_stands_behind_the_question_for_its_clients(carrier, request):
    carrier_package = request.getfixturevalue(carrier)
    rows = package.table(carrier_package, "InstallExecuteSequence")
    ordered = [row[0] for row in sorted(rows, key=lambda row: int(row[2]))]
    start = ordered.index("CheckForClients")
    assert ordered[start:][: len(AGENT_SEQUENCE)] == AGENT_SEQUENCE
    copies = {row[2]: row[4] for row in package.table(carrier_package, "DuplicateFile")}
    assert copies == {"AgentService": "AgentFolder", "AgentMaster": "AgentFolder"}
    features = {row[0]: row[5] for row in package.table(carrier_package, "Feature")}
    assert features["Agent"] == "2"


@pytest.mark.parametrize("name", ["StartPV", "StartDVR", "StartPVBM"])
def test_task_definitions_are_compact_and_in_the_order_of_the_task_schema(name):
    text = (paths.PACKAGE_SOURCES / f"Pivot/{name}.xml").read_bytes().decode("utf-16")
    task = ElementTree.fromstring(text)
    namespace = "{http://schemas.microsoft.com/windows/2004/02/mit/task}"
    order = ["RegistrationInfo", "Triggers", "Principals", "Settings", "Actions"]
    assert [child.tag for child in task] == [namespace + part for part in order]
    assert re.search(r">\s+<", text) is None
    texts = {element.tag.removeprefix(namespace): element.text for element in task.iter()}
    assert texts["Command"] == ("VSServCmd.exe" if name == "StartDVR" else "pvcmd.exe")
    assert texts["WorkingDirectory"] == f"{companion.FOLDER}\\Pivot"
    if name == "StartPVBM":
        assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d", texts["StartBoundary"])
    else:
        assert "LogonTrigger" in texts
    if not engines.value("long-xml"):
        assert len(text) < 4000


def test_a_newer_package_is_another_product_that_upgrades_the_older_one(companion_package):
    older, newer = (
        dict(package.table(source, "Property"))
        for source in (companion_package, package.build(version=companion.NEXT_VERSION))
    )
    assert newer["ProductVersion"] == companion.NEXT_VERSION != older["ProductVersion"]
    assert newer["ProductCode"] != older["ProductCode"]
    assert newer["UpgradeCode"] == older["UpgradeCode"]


def test_every_action_gets_the_type_that_its_source_asks_for(executions_package):
    types = {row[0]: int(row[1]) for row in package.table(executions_package, "CustomAction")}
    del types["SetDeferred"], types["ForgetStart"]
    assert types == {
        "Immediate": 0x0001,
        "Rollback": 0x0001 + 0x0040 + 0x0500 + 0x0800,
        "Deferred": 0x0001 + 0x0400 + 0x0800,
        "Commit": 0x0001 + 0x0040 + 0x0600,
    }


def test_a_source_that_cannot_be_built_says_why(tmp_path):
    source = tmp_path / "broken.wxs"
    source.write_text("<Wix")
    with pytest.raises(package.ToolFailed, match="wixl: "):
        package.build(source)


def test_a_package_is_built_anew_only_when_what_it_is_made_of_has_changed(tmp_path):
    source = tmp_path / "rebuilt.wxs"
    # The source installs itself by the name that it usually has.
    for copy in (source, tmp_path / "executions.wxs"):
        copy.write_bytes(Path(__file__).with_name("executions.wxs").read_bytes())
    built = package.build(source)
    first = built.read_bytes()
    built.touch()
    stamp = built.stat().st_mtime_ns
    assert package.build(source) == built and built.stat().st_mtime_ns == stamp
    (tmp_path / "beside.wxi").write_text("<Include/>")
    assert package.build(source).stat().st_mtime_ns != stamp
    stamp = built.stat().st_mtime_ns
    package.build(source, paths.FAULT_ACTIONS)
    assert built.stat().st_mtime_ns != stamp and built.read_bytes() != first
    built.unlink()
    assert package.build(source).exists()
