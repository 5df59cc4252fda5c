"""The facts of installer sessions as a document for programs."""

import json
import re
import shutil

import pytest
from report_samples import DATA, HOSTILE, checks, every_outcome, good_session, report, session

import demo
from installer import facts, package, page, paths
from installer.log import Outcome

DOCUMENTATION = paths.ROOT / "docs/demo-report.md"


def names(value: object) -> set[str]:
    """The field names in a document; those that count causes of changes are none."""
    if isinstance(value, list):
        return set().union(*map(names, value))
    if not isinstance(value, dict):
        return set()
    inner = [each for name, each in value.items() if name != "changes_not_listed"]
    return set(value) | set().union(*map(names, inner))


def test_the_document_tells_the_facts():
    shown = facts.document(report(session(), planned=2))
    (told,) = shown.pop("sessions")
    assert shown.pop("checks") == []
    assert shown == {
        "format": 1,
        "title": "Installer sessions",
        "made": "2026-11-21T13:01:47",
        "library_version": "1.2.3",
        "planned_sessions": 2,
        "failure": "",
        "as_expected": False,
    }
    actions, changes = told.pop("actions"), told.pop("changes")
    assert told == {
        "title": "Remove",
        "note": "A note on the session.",
        "arguments": ["/x", r"b:\package\Companion.msi", "/qn"],
        "exit_code": 67,
        "duration_ms": 1000.0,
        "log": "build/installer-logs/remove.log",
        "as_expected": False,
        "changes_not_listed": {"records of the installer": 7},
        "told": [r'"C:\pvcmd.exe" exit'],
        "expectations": [
            {"what": "exit code", "expected": "0", "came": "67", "met": False},
            {"what": "actions", "expected": "all of them", "came": "all of them", "met": True},
        ],
    }
    assert actions[1] == {
        "name": "TerminatePivotApp",
        "execution": "deferred",
        "result_ignored": True,
        "outcome": "result ignored",
        "verdict": 1,
        "call": "returned",
        "returned": 1603,
        "start_ms": 300.0,
        "duration_ms": 50.0,
        "data": DATA,
        "lines": [],
        "trace": [],
    }
    assert changes[3] == {
        "area": "registry",
        "kind": "changed",
        "name": r"HKLM\Software\Zenvo : Mode",
        "before": '"<a>"',
        "after": '"&b;"',
    }


def test_what_the_checks_found_is_in_the_document():
    first, second = facts.document(report(checks=checks()))["checks"]
    assert second == {"package": "Second.msi", "findings": []}
    assert [each["number"] for each in first["findings"]] == [304, 703, 107]
    assert first["findings"][0] == {
        "number": 304,
        "severity": "error",
        "table": "InstallExecuteSequence",
        "row": "DeletePVFolder",
        "rule": "An action too late.",
        "found": "DeletePVFolder behind RemoveFiles",
        "why": "It finds nothing.",
        "remedy": "Schedule it before.",
    }


def test_every_action_and_every_change_is_in_the_document():
    given = session()
    (told,) = facts.document(report(given))["sessions"]
    for run, action in zip(given.runs, told["actions"], strict=True):
        assert (action["name"], action["verdict"]) == (run.name, run.verdict)
        assert (action["outcome"], action["returned"]) == (run.outcome.value, run.result)
        assert (action["start_ms"], action["duration_ms"]) == (run.start, run.duration)
        assert (action["data"], action["lines"]) == (run.data, run.lines)
    for change, entry in zip(given.difference.changes, told["changes"], strict=True):
        assert (entry["area"], entry["kind"]) == (change.area.value, change.kind.value)
        assert (entry["before"], entry["after"]) == (change.before, change.after)


def test_the_outcomes_of_actions_in_the_document():
    (told,) = facts.document(report(session()))["sessions"]
    assert [(action["outcome"], action["call"]) for action in told["actions"]] == [
        ("succeeded", "returned"),
        ("result ignored", "returned"),
        ("failed", "returned"),
        ("unknown", "returned"),
        ("did not return", "did not return"),
        ("not called", "not called"),
        ("failed", "not called"),
        ("did not end", "not watched"),
    ]


def test_texts_come_back_from_json_as_they_were():
    document = facts.document(report(session()))
    assert json.loads(json.dumps(document)) == document
    assert json.loads(json.dumps(document))["sessions"][0]["actions"][2]["lines"] == HOSTILE


@pytest.mark.parametrize(
    "sessions, planned, good",
    [
        ([good_session()], 1, True),
        ([good_session(), good_session()], 2, True),
        ([good_session()], 2, False),
        ([good_session(), session()], 2, False),
        ([], 0, True),
        ([], 6, False),
    ],
)
def test_a_report_is_good_when_all_planned_sessions_were_as_expected(sessions, planned, good):
    assert facts.document(report(*sessions, planned=planned))["as_expected"] is good


def test_an_action_without_an_end_lasts_to_the_end_of_its_session():
    given = session(runs=every_outcome())
    assert given.duration_of(given.runs[0]) == 200.0
    assert given.duration_of(given.runs[-1]) == 100.0
    assert given.in_actions == 580.5


def test_outcomes_are_counted():
    assert session().outcomes() == {
        Outcome.SUCCEEDED: 1,
        Outcome.IGNORED: 1,
        Outcome.FAILED: 2,
        Outcome.NOT_RETURNED: 1,
        Outcome.NOT_CALLED: 1,
        Outcome.NOT_ENDED: 1,
        Outcome.UNKNOWN: 1,
    }
    assert good_session().outcomes() == {Outcome.SUCCEEDED: 1}


def test_the_demo_writes_the_page_and_the_document(monkeypatch, tmp_path):
    monkeypatch.setattr(paths, "REPORT", paths.BUILD / tmp_path.name)
    given = report(session(), good_session())
    try:
        demo._write(given)
        written = {file.name: file.read_text("utf-8") for file in paths.REPORT.iterdir()}
    finally:
        shutil.rmtree(paths.REPORT)
    assert set(written) == {"report.html", "report.json"}
    assert written["report.html"] == page.page(given)
    assert json.loads(written["report.json"]) == facts.document(given)


def test_a_demo_that_is_cut_short_tells_what_it_has_and_why(monkeypatch):
    def cut_short(steps, definitions, progress, sessions):
        sessions.append(good_session())
        raise TimeoutError("msiexec did not end")

    written = []
    monkeypatch.setattr(package, "build", lambda *_, **__: paths.PACKAGES / "Companion.msi")
    monkeypatch.setattr(package, "library_actions", lambda _: {})
    monkeypatch.setattr(demo, "_run_steps", cut_short)
    monkeypatch.setattr(demo, "_write", written.append)
    with pytest.raises(TimeoutError):
        demo._run_demo(lambda: 0)
    (shown,) = map(facts.document, written)
    assert [each["title"] for each in shown["sessions"]] == ["Install"]
    assert shown["planned_sessions"] > 1 and shown["as_expected"] is False
    assert shown["failure"] == "msiexec did not end"


def test_the_documentation_names_the_fields_that_there_are():
    documented = re.findall(r"^\| `(\w+)` \|", DOCUMENTATION.read_text(), re.MULTILINE)
    assert set(documented) == names(facts.document(report(session(), checks=checks())))


def test_the_documentation_names_the_words_that_outcomes_have():
    text = DOCUMENTATION.read_text()
    assert [outcome.value for outcome in Outcome if f'"{outcome.value}"' not in text] == []
