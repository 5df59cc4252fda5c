"""The report's page, read as a browser would: its tree, its texts and its bars."""

import base64
import hashlib
import re
from collections import Counter
from dataclasses import dataclass, field, fields
from html.parser import HTMLParser
from typing import Iterator

import pytest
from jinja2 import UndefinedError
from report_samples import (
    DATA,
    HOSTILE,
    TRACE,
    changes,
    checks,
    every_outcome,
    good_session,
    report,
    run,
    session,
)

from installer import page
from installer.facts import Expectation, Finding, PackageCheck, Report, SessionFacts
from installer.log import ActionRun, Outcome
from installer.machine import Area, Change, Difference, Kind
from installer.page import visible
from installer.session import shown_exit_code

VOID = {"meta", "wbr"}
STYLE = page.STYLE.read_text()


@dataclass
class Node:
    tag: str
    attributes: dict[str, str | None] = field(default_factory=dict)
    parts: "list[Node | str]" = field(default_factory=list)

    def all(self, tag: str = "", class_: str = "") -> "Iterator[Node]":
        """The elements below of this name and class, in their order."""
        for part in self.parts:
            if isinstance(part, Node):
                if part.tag == (tag or part.tag) and (not class_ or class_ in part.classes):
                    yield part
                yield from part.all(tag, class_)

    def one(self, tag: str = "", class_: str = "") -> "Node":
        return next(self.all(tag, class_))

    @property
    def classes(self) -> list[str]:
        return (self.attributes.get("class") or "").split()

    @property
    def text(self) -> str:
        return "".join(part if isinstance(part, str) else part.text for part in self.parts)

    def number(self, attribute: str) -> float:
        return float(self.attributes[attribute].rstrip("%"))


class TreeBuilder(HTMLParser):
    """Refuses what a browser would have to mend."""

    def __init__(self) -> None:
        super().__init__()
        self.root = Node("document")
        self.open = [self.root]

    def handle_starttag(self, tag, attributes):
        assert len(dict(attributes)) == len(attributes), (tag, attributes)
        node = Node(tag, dict(attributes))
        self.open[-1].parts.append(node)
        if tag not in VOID:
            self.open.append(node)

    def handle_endtag(self, tag):
        assert self.open.pop().tag == tag

    def handle_data(self, data):
        self.open[-1].parts.append(data)

    def handle_comment(self, data):
        raise AssertionError(f"a comment: {data}")


def tree(*sessions: SessionFacts, **values) -> Node:
    builder = TreeBuilder()
    text = page.page(report(*sessions, **values))
    assert text.startswith("<!DOCTYPE html>\n")
    builder.feed(text)
    builder.close()
    assert builder.open == [builder.root]
    return builder.root


def actions(document: Node) -> list[Node]:
    return [part for part in document.one("ol", "actions").parts if isinstance(part, Node)]


def facts_of(node: Node) -> dict[str, Node]:
    """The list of facts in an element, by their terms."""
    terms, contents = list(node.all("dt")), list(node.all("dd"))
    return dict(zip((term.text for term in terms), contents, strict=True))


def test_the_page_is_whole_and_refers_to_nothing_outside():
    document = tree(good_session(), session())
    identities = [node.attributes["id"] for node in document.all() if "id" in node.attributes]
    assert len(set(identities)) == len(identities)
    for node in document.all():
        assert {"src", "srcset", "style", "action", "background"}.isdisjoint(node.attributes), node
        assert [name for name in node.attributes if name.startswith("on")] == []
        for name in "href", "aria-labelledby":
            if name in node.attributes:
                assert node.attributes[name].lstrip("#") in identities
        assert node.tag not in ("link", "img", "iframe", "object", "base", "form"), node
    used = re.findall(r"url\(([^)]*)\)", STYLE)
    assert used and {f"#{identity}" for identity in identities} >= set(used)
    assert "@import" not in STYLE


def test_nothing_runs_but_the_pages_own_style_and_script():
    document = tree(session())
    (policy,) = [
        node.attributes["content"]
        for node in document.all("meta")
        if node.attributes.get("http-equiv") == "Content-Security-Policy"
    ]
    assert policy.startswith("default-src 'none';")
    assert "unsafe" not in policy
    for tag in "style", "script":
        (node,) = document.all(tag)
        digest = base64.b64encode(hashlib.sha256(node.text.encode()).digest()).decode()
        assert f"{tag}-src 'sha256-{digest}'" in policy


def test_what_a_session_is_called_and_did_stands_on_the_page_as_text():
    markup = "<script>alert(1)</script>&amp;\"'"
    given = session(
        title=markup,
        note=markup,
        told=[markup],
        runs=[run(markup, 0.0, 1.0, verdict=1, data=f"A={markup};B=1", lines=[markup])],
    )
    given.result.arguments.append(markup)
    document = tree(given)
    assert len(list(document.all("script"))) == 1
    section = document.one("section")
    assert section.one("h2").text == f"1. {markup}"
    assert markup in section.one("p", "command").text
    assert [node.text for node in section.all("p")][1] == markup
    (action,) = actions(document)
    assert action.one(class_="name").text == markup
    assert facts_of(action)["Data"].text == f"A={markup};B=1"
    assert [node.text for node in document.all("ul", "lines")] == [markup, markup]


def test_hostile_log_lines_are_lines_of_text():
    document = tree(session())
    lines = actions(document)[2].one("ul", "lines")
    assert [node.text for node in lines.all("li")] == [visible(line) for line in HOSTILE]
    assert len(list(lines.all())) == len(HOSTILE)


def test_the_trace_of_an_action_stands_with_it():
    failed, *others = [actions(tree(session()))[index] for index in (2, 0, 1)]
    _, trace = failed.all("ul", "lines")
    assert [node.text for node in trace.all("li")] == TRACE
    assert "once more by itself" in facts_of(failed)["Trace"].text
    assert all("Trace" not in facts_of(other) for other in others)


def test_no_text_of_the_facts_becomes_markup():
    text = "".join(HOSTILE)
    hostile = session(
        title=text,
        note=text,
        told=[text],
        runs=[run(text, 0.0, 1.0, verdict=1, data=text, lines=[text], trace=[text])],
        difference=Difference(
            [Change(Area.FILE, Kind.CHANGED, text, text, text)], Counter([text])
        ),
        expectations=[Expectation(text, text, "else"), Expectation(text, text, text)],
    )
    hostile.result.arguments.append(text)
    checks = [PackageCheck(text, [Finding(1, text, text, text, text, text, text, text)])]
    places = ["failure", "title", "title", "argument", "note", "what", "expected", "what", "came"]
    places += ["name", "data", "line", "trace", "told", "item", "before", "after", "noise"]
    places += ["package", "sum", "severity", "table", "row", "rule", "found", "why", "remedy"]
    document = tree(hostile, planned=2, failure=text, checks=checks)
    assert document.text.count(visible(text)) == len(places)


def test_what_the_checks_found_stands_before_the_sessions():
    document = tree(session(), checks=checks())
    first, second = document.one("main").one("section").all("details")
    assert first.one("summary").text.strip() == "Companion.msi: 1 error, 2 hints"
    assert second.one("summary").text.strip() == "Second.msi: nothing found"
    error, hint, _ = first.all("div", "finding")
    assert error.one("p").text == (
        "error 304, InstallExecuteSequence, DeletePVFolder: An action too late."
    )
    assert {term: node.text for term, node in facts_of(error).items()} == {
        "Found": "DeletePVFolder behind RemoveFiles",
        "Why": "It finds nothing.",
        "Do": "Schedule it before.",
    }
    assert hint.one("p").text == "hint 703, Binary: No signature."
    assert list(facts_of(hint)) == ["Why", "Do"]
    assert "#packages" in [node.attributes.get("href") for node in document.all("a")]
    assert "checked" not in tree(session()).text


class Without:
    """Facts that lack a field."""

    def __init__(self, facts: object, missing: str) -> None:
        self._facts, self._missing = facts, missing

    def __getattr__(self, name: str) -> object:
        if name == self._missing:
            raise AttributeError(name)
        return getattr(self._facts, name)


@pytest.mark.parametrize(
    "kind, missing",
    [
        (kind, each.name)
        for kind in (Report, PackageCheck, Finding, SessionFacts, ActionRun, Change, Expectation)
        for each in fields(kind)
    ],
    ids=lambda value: value if isinstance(value, str) else value.__name__,
)
def test_a_missing_field_is_an_error_and_no_empty_text(kind, missing):
    def shown(name: str) -> str:
        def lacking(facts):
            return Without(facts, name) if type(facts) is kind else facts

        given = session(
            runs=[lacking(each) for each in every_outcome()],
            difference=Difference([lacking(each) for each in changes()]),
            expectations=[lacking(each) for each in session().expectations],
        )
        shown = [
            lacking(PackageCheck(each.package, [lacking(finding) for finding in each.findings]))
            for each in checks()
        ]
        return page.page(lacking(report(lacking(given), planned=2, checks=shown)))

    assert shown("what is never asked for")
    with pytest.raises((UndefinedError, AttributeError, TypeError)):
        shown(missing)


def test_a_text_that_is_none_is_an_error():
    with pytest.raises(TypeError, match="None"):
        page.page(report(session(title=None)))


@pytest.mark.parametrize(
    "text, shown",
    [
        ("plain <b>&amp;", "plain <b>&amp;"),
        ("tab\tand é ✓ 漢", "tab\tand é ✓ 漢"),
        ("\x00\x1b[1m\x7f", "[U+0000][U+001B][1m[U+007F]"),
        ("a\u202eb\u2066c\u200fd", "a[U+202E]b[U+2066]c[U+200F]d"),
        ("\ud800 \ufeff\u200b", "[U+D800] [U+FEFF][U+200B]"),
        ("two\nlines\r", "two[U+000A]lines[U+000D]"),
    ],
)
def test_what_cannot_be_seen_is_shown_as_its_code(text, shown):
    assert visible(text) == shown


def test_every_action_appears_with_verdict_result_data_and_lines():
    given = session()
    for run_, node in zip(given.runs, actions(tree(given)), strict=True):
        row, facts = node.one("summary"), facts_of(node)
        assert row.one(class_="name").text == run_.name
        words = [run_.meaning] + ([run_.answer] if run_.answer else [])
        assert row.one(class_="verdict").text == ", ".join(words)
        assert row.one(class_="sign").text == page.SIGNS[run_.outcome]
        verdict = run_.meaning if run_.verdict is None else f"{run_.verdict}, {run_.meaning}"
        assert facts["Verdict"].text == verdict
        assert facts["Runs"].text == run_.definition.execution.value
        assert facts["Data"].text == ("none" if run_.data is None else run_.data)
        shown = [line.text for line in facts["Log lines"].all("li")]
        assert shown == [visible(line) for line in run_.lines]
    assert [facts_of(node)["Returned"].text.split(":")[0] for node in actions(tree(given))] == [
        *("0", "1603", "1603", "0"),
        *("nothing, did not return", "nothing, not called", "nothing, not called", "not watched"),
    ]


def test_lines_break_in_data_and_names_without_a_change_of_the_text():
    action = actions(tree(session()))[1]
    data = facts_of(action)["Data"]
    assert data.text == DATA and len(list(data.all("wbr"))) == DATA.count(";")
    assert len(list(action.one(class_="name").all("wbr"))) == 2


def test_what_failed_did_not_return_or_did_not_end_is_shown_as_such_and_at_once():
    outcomes = [run_.outcome for run_ in every_outcome()]
    bad = {Outcome.FAILED, Outcome.NOT_RETURNED, Outcome.NOT_ENDED, Outcome.UNKNOWN}
    for outcome, action in zip(outcomes, actions(tree(session())), strict=True):
        name = outcome.name.lower().replace("_", "-")
        assert name in action.one("rect").classes and name in action.one(class_="sign").classes
        assert ("open" in action.one("details").attributes) == (outcome in bad)
        assert outcome.value in action.one(class_="verdict").text


def test_no_two_outcomes_look_alike_without_colours():
    assert len(set(page.SIGNS.values())) == len(page.SIGNS) == len(Outcome)
    looks = []
    document = tree(session())
    for outcome in Outcome:
        name = outcome.name.lower().replace("_", "-")
        rule = re.search(rf"^\.bar\.{name} {{ (.*) }}$", STYLE, re.MULTILINE)[1]
        pattern = [
            node.one("path").attributes["d"]
            for node in document.all("pattern")
            if node.attributes["id"] == f"pattern-{name}"
        ]
        assert bool(pattern) == (f"url(#pattern-{name})" in rule)
        looks.append((re.sub(r"var\(.*?\)|url\(.*?\)", "", rule), *pattern))
    assert len(set(looks)) == len(Outcome)


def test_bars_lie_where_the_actions_ran_and_add_up_to_their_time():
    given = session()
    bars = [action.one("rect") for action in actions(tree(given))]
    for run_, bar in zip(given.runs, bars, strict=True):
        assert bar.number("x") == pytest.approx(100 * run_.start / 1000, abs=0.001)
        assert bar.number("width") == pytest.approx(100 * given.duration_of(run_) / 1000, abs=0.001)
        assert bar.number("x") + bar.number("width") <= 100.001
    total = sum(bar.number("width") for bar in bars)
    assert total == pytest.approx(100 * given.in_actions / given.milliseconds, abs=0.01)
    assert "580 ms of the session's 1,000 ms" in tree(given).text


@pytest.mark.parametrize(
    "start, duration, bar",
    [
        (0.0, 1000.0, (0, 100)),
        (950.0, 100.0, (95, 5)),
        (1200.0, 10.0, (100, 0)),
        (1200.0, None, (100, 0)),
        (250.0, None, (25, 75)),
    ],
)
def test_no_bar_leaves_its_session(start, duration, bar):
    # The last line of a log may arrive behind the end of the installer's process.
    given = session(runs=[run("A", start, duration, verdict=1)])
    assert page.extent(given, given.runs[0]) == bar


def test_the_axis_and_the_lines_behind_the_bars_have_the_same_times():
    document = tree(session())
    labels = list(document.one(class_="axis").all("text"))
    assert [label.text for label in labels] == ["0 s", "0.2 s", "0.4 s", "0.6 s", "0.8 s", "1 s"]
    anchors = [label.attributes["text-anchor"] for label in labels]
    assert anchors == ["start", *["middle"] * 4, "end"]
    places = [label.number("x") for label in labels]
    assert places == [0, 20, 40, 60, 80, 100]
    for action in actions(document):
        lines = [(line.number("x1"), line.number("x2")) for line in action.all("line")]
        assert lines == [(place, place) for place in places[1:]]


def test_the_times_of_actions_in_words():
    first, *_, last = actions(tree(session()))
    assert first.one(class_="duration").text == "200 ms"
    assert facts_of(first)["Time"].text == "from 100 ms to 300 ms, 200 ms"
    assert last.one(class_="duration").text == "no end"
    assert facts_of(last)["Time"].text == "from 900 ms on"


def test_a_session_tells_its_exit_code_its_log_and_how_its_actions_ended():
    document = tree(session())
    head, body = document.one("header").text, document.one("section")
    code = shown_exit_code(67)
    assert f"exit code {code}, 1.0 s" in head
    words = f"Exit code {code}, 1.0 s, log build/installer-logs/remove.log"
    assert words in [node.text for node in body.all("p")]
    for outcome, number in session().outcomes().items():
        shown = f"{page.SIGNS[outcome]} {number} {outcome.value}"
        assert shown in body.one("p", "counts").text
    assert "What was as expected (1)" in body.text
    assert facts_of(body.one("dl", "checks"))["actions"].text == "all of them"


def test_the_legend_explains_every_outcome():
    entries = list(tree(session()).one("ul", "legend").all("li"))
    for outcome, entry in zip(Outcome, entries, strict=True):
        assert entry.one(class_="sign").text == page.SIGNS[outcome]
        assert entry.one("rect").number("width") == 100
        assert f"{outcome.value}: {page._MEANINGS[outcome]}" in entry.text


def test_a_session_that_took_no_time_has_a_page():
    given = session()
    given.result.seconds = 0.0
    assert all(action.one("rect").number("width") == 0 for action in actions(tree(given)))


@pytest.mark.parametrize(
    "milliseconds, times",
    [
        (0, [0]),
        (458, [0, 100, 200, 300, 400]),
        (1000, [0, 200, 400, 600, 800, 1000]),
        (6562, [0, 1000, 2000, 3000, 4000, 5000, 6000]),
        (61000, [0, 10000, 20000, 30000, 40000, 50000, 60000]),
    ],
)
def test_the_times_on_an_axis_are_round(milliseconds, times):
    assert page.ticks(milliseconds) == times


def test_an_axis_never_has_more_times_than_a_narrow_window_takes():
    for milliseconds in range(1, 30_000, 7):
        times = page.ticks(milliseconds)
        assert 2 <= len(times) <= page.MOST_TICKS and times[-1] <= milliseconds, milliseconds


def test_every_change_appears_before_and_after():
    given = session()
    rows = [row for body in tree(given).all("tbody") for row in body.all("tr")]
    cells = [[cell.text for cell in row.all("td")] for row in rows]
    assert cells == [
        ["− removed", r"HKLM\Software\Zenvo", "there", "absent"],
        ["~ changed", r"HKLM\Software\Zenvo : Mode", '"<a>"', '"&b;"'],
        ["+ added", "C:\\<new>.txt", "absent", "4 bytes, written 2026-01-01"],
        ["− removed", "C:\\old.txt", "5 bytes, written 2026-01-02", "absent"],
        ["− removed", "StartPV", "1045 bytes, written 2026-01-03", "absent"],
        ["+ added", "TeloLauncher : Start", "absent", "dword:00000002"],
    ]
    text = tree(given).text
    for heading in "Registry: 1 removed, 1 changed", "Files: 1 added, 1 removed":
        assert heading in text
    assert "records of the installer: 7" in text


def test_the_page_can_be_heard_as_well_as_seen():
    document = tree(session(), good_session())
    assert document.one("html").attributes["lang"] == "en"
    assert document.one("nav").attributes["aria-label"] == "Sessions"
    for section in document.all("section"):
        assert section.attributes["aria-labelledby"] == section.one("h2").attributes["id"]
    table = document.one("table")
    parts = [table, table.one("thead"), table.one("tbody"), table.one("tr"), table.one("th")]
    assert [part.attributes["role"] for part in [*parts, table.one("td")]] == [
        *("table", "rowgroup", "rowgroup", "row", "columnheader", "cell")
    ]
    assert {heading.attributes["scope"] for heading in document.all("th")} == {"col"}
    # Each sign and each picture has its words beside it.
    for silent in "sign", "track", "sample", "axis":
        hidden = [node.attributes["aria-hidden"] for node in document.all(class_=silent)]
        assert hidden and set(hidden) == {"true"}, silent


def test_a_long_list_of_changes_is_whole_and_waits_for_the_reader():
    change = session().difference.changes[0]
    for count, shown in ((page.OPEN_CHANGES, True), (500, False)):
        document = tree(session(difference=Difference([change] * count)))
        (table,) = document.all("table")
        assert len(list(table.one("tbody").all("tr"))) == count
        (area,) = [
            node for node in document.all("details") if "table" in [each.tag for each in node.all()]
        ]
        assert ("open" in area.attributes) is shown


def test_every_area_and_every_kind_of_change_has_its_words():
    assert set(page._AREAS) == set(Area) and set(page._KIND_SIGNS) == set(Kind)


def test_a_session_without_actions_changes_and_expectations_says_so():
    text = tree(session(runs=[], difference=Difference(), expectations=[])).text
    for words in "No custom action ran.", "Nothing has changed.", "nothing was expected":
        assert words in text


def test_what_was_not_as_expected_is_told_with_what_came():
    document = tree(session())
    wrong = document.one(class_="wrong")
    assert wrong.one("p").text == "Not as expected: exit code"
    assert {term: node.text for term, node in facts_of(wrong).items()} == {
        "Expected": "0",
        "Came": "67",
    }
    assert "1 of 2 checks as expected" in document.one("section").text
    assert list(tree(good_session()).all(class_="wrong")) == []


@pytest.mark.parametrize(
    "sessions, planned, words",
    [
        ([good_session()] * 2, 2, "✓ All 2 sessions went as they should."),
        ([good_session()], 1, "✓ The session went as it should."),
        ([session(), good_session()], 2, "✗ 1 of 2 sessions did not go as they should."),
        ([good_session()], 3, "✗ Only 1 of 3 sessions came to their end."),
        ([], 3, "✗ Only 0 of 3 sessions came to their end."),
    ],
)
def test_the_head_tells_how_the_sessions_went(sessions, planned, words):
    assert tree(*sessions, planned=planned).one("header").one(class_="judgement").text == words


def test_the_head_tells_what_cut_the_sessions_short():
    head = tree(good_session(), planned=3, failure="msiexec <b> did not end").one("header")
    words = "✗ Only 1 of 3 sessions came to their end: msiexec <b> did not end"
    assert head.one(class_="judgement").text == words


def test_any_number_of_sessions_each_under_its_title():
    titles = [f"Session called {number}" for number in range(1, 31)]
    document = tree(*[good_session(title) for title in titles])
    numbered = [f"{number}. {title}" for number, title in enumerate(titles, 1)]
    assert [node.text for node in document.all("h2")] == numbered
    assert [node.text for node in document.one("nav").all("a")] == numbered


def colours() -> list[dict[str, str]]:
    """The colours of the light scheme and of the dark one."""
    schemes = re.findall(r":root {(.*?)}", STYLE, re.DOTALL)
    return [dict(re.findall(r"--([\w-]+): (#[0-9a-f]{6});", scheme)) for scheme in schemes]


def luminance(colour: str) -> float:
    shares = [int(colour[place : place + 2], 16) / 255 for place in (1, 3, 5)]
    linear = [
        share / 12.92 if share <= 0.04045 else ((share + 0.055) / 1.055) ** 2.4 for share in shares
    ]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


@pytest.mark.parametrize("scheme", [0, 1], ids=["light", "dark"])
def test_texts_and_signs_stand_out_from_their_ground(scheme):
    names = colours()[scheme]
    for ground in "page", "raised":
        for name in names.keys() - {"page", "raised", "line"}:
            lighter, darker = sorted(map(luminance, (names[name], names[ground])), reverse=True)
            # What the guidelines for accessible pages ask for.
            assert (lighter + 0.05) / (darker + 0.05) >= 4.5, (name, ground)
