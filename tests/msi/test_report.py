"""Tables and lists for readers."""

from installer import report
from installer.log import ActionDefinition, ActionRun, Call, Execution
from installer.machine import Area, Change, Difference, Kind

LONG_NAME = "CreateTriggerlessElevatedScheduleTask"


def run(name: str, execution: Execution, **values) -> ActionRun:
    return ActionRun(name, ActionDefinition(execution), start=0.0, **values)


def test_the_table_of_actions():
    runs = [
        run("BlockLaunch", Execution.IMMEDIATE, verdict=1, duration=94.4, lines=["accepted"]),
        run(LONG_NAME, Execution.DEFERRED, data="TaskName=Start", lines=["begun"]),
    ]
    assert report.action_table(runs) == [
        "Action                                 Runs       Verdict      Duration",
        "-------------------------------------  ---------  -----------  --------",
        "BlockLaunch                            immediate  1 succeeded     94 ms",
        "    accepted",
        "CreateTriggerlessElevatedScheduleTask  deferred   did not end          ",
        "    data: TaskName=Start",
        "    begun",
    ]


def test_the_table_tells_what_an_action_returned():
    for result in 259, 0:
        returned = run(
            "CheckForClients", Execution.DEFERRED, verdict=1, result=result, call=Call.RETURNED
        )
        assert f"1 succeeded, returned {result}" in report.action_table([returned])[2]
    thrown = run("CheckForClients", Execution.DEFERRED, verdict=0, call=Call.NOT_RETURNED)
    assert "0 failed, did not return" in report.action_table([thrown])[2]


def test_no_actions():
    assert report.action_table([]) == ["No custom action ran."]


def test_nothing_is_wider_than_the_page():
    text = "a line of many words " * 20 + "and_a_word_that_does_not_end" * 20
    changed = Change(Area.REGISTRY, Kind.CHANGED, "HKLM\\" + "key\\" * 60, text, text)
    lines = report.action_table(
        [run(LONG_NAME, Execution.IMMEDIATE, verdict=1, duration=123456.0, lines=[text])]
    ) + report.change_list(Difference([changed]))
    assert max(len(line) for line in lines) == report.WIDTH


def test_the_list_of_changes():
    changes = [
        Change(Area.FILE, Kind.ADDED, "C:\\new.txt", None, "4 bytes, written 2026-01-01"),
        Change(Area.FILE, Kind.CHANGED, "C:\\old.txt", "4 bytes, written x", "4 bytes, written y"),
        Change(Area.REGISTRY, Kind.REMOVED, "HKLM\\Key", "", None),
    ]
    difference = Difference(changes)
    difference.noise["records of the installer"] = 7
    assert report.change_list(difference) == [
        "added    file     C:\\new.txt = 4 bytes",
        "changed  file     C:\\old.txt = 4 bytes, written x -> 4 bytes, written y",
        "removed  registry HKLM\\Key",
        "not listed: records of the installer: 7",
    ]


def test_a_machine_without_changes():
    assert report.change_list(Difference()) == ["nothing"]


def test_a_long_list_of_changes_says_how_many_are_left_out():
    change = Change(Area.FILE, Kind.ADDED, "C:\\new.txt", None, "4 bytes")
    lines = report.change_list(Difference([change] * (report.LISTED_CHANGES + 3)))
    assert len(lines) == report.LISTED_CHANGES + 1
    assert lines[-1] == "and 3 more"
