"""The report of installer sessions as one HTML page that needs nothing beside it.

Pure: facts in, text out. The page is built as a tree, whose serializer escapes every text, and a
policy in its head lets nothing run or load but its own style and script.
"""

import base64
import hashlib
import math
import re
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from typing import Iterable, Sequence

from installer import paths
from installer.facts import Expectation, Report, SessionFacts
from installer.log import ActionRun, Call, Outcome
from installer.machine import Area, Change, Difference, Kind
from installer.session import shown_exit_code

STYLE = Path(__file__).with_name("page.css")
SCRIPT = Path(__file__).with_name("page.js")

# A longer list of changes is shown when the reader opens it.
OPEN_CHANGES = 12
# Labels of a time axis that still stand apart in a narrow window.
MOST_TICKS = 8

Content = ElementTree.Element | str

# What tells an outcome without colours: its sign, and its word in each row. The names of the styles
# and patterns are those of the outcomes.
SIGNS = {
    Outcome.SUCCEEDED: "✓",
    Outcome.IGNORED: "○",
    Outcome.FAILED: "✗",
    Outcome.NOT_RETURNED: "!",
    Outcome.NOT_CALLED: "–",
    Outcome.NOT_ENDED: "…",
    Outcome.UNKNOWN: "?",
}
_MEANINGS = {
    Outcome.SUCCEEDED: "the installer took the result for success",
    Outcome.IGNORED: "the package lets the session go on, whatever the action returns",
    Outcome.FAILED: "the installer took the result for a failure",
    Outcome.NOT_RETURNED: "an exception left the action, or its process ended",
    Outcome.NOT_CALLED: "the process that hosts the actions had ended before",
    Outcome.NOT_ENDED: "the log does not tell of the action's end; the bar lasts to the session's",
    Outcome.UNKNOWN: "the installer's verdict is none that is known here",
}
_SHOWN_AT_ONCE = {Outcome.FAILED, Outcome.NOT_RETURNED, Outcome.NOT_ENDED, Outcome.UNKNOWN}
_AREAS = {
    Area.REGISTRY: "Registry",
    Area.FILE: "Files",
    Area.TASK: "Tasks",
    Area.SERVICE: "Services",
}
_KIND_SIGNS = {Kind.ADDED: "+", Kind.REMOVED: "−", Kind.CHANGED: "~"}

# Lines on squares of 8 units. The bars of the other outcomes are full or empty.
_PATTERNS = {
    Outcome.IGNORED: "M-2 2 2 -2M-2 10 10 -2M6 10 10 6",
    Outcome.FAILED: "M0 0 8 8M8 0 0 8",
    Outcome.NOT_RETURNED: "M2 0V8M6 0V8",
    Outcome.NOT_ENDED: "M2 2h2M6 6h2",
    Outcome.UNKNOWN: "M0 2H8M0 6H8",
}

# Behind each item of an action's data, and between the words of its name.
_ITEMS = re.compile("(?<=;)")
_WORDS = re.compile("(?<=[a-z])(?=[A-Z])")


def page(report: Report) -> str:
    """The whole HTML document."""
    style, script = STYLE.read_text(), SCRIPT.read_text()
    head = _element(
        "head",
        _element("meta", charset="utf-8"),
        _element(
            "meta", {"http-equiv": "Content-Security-Policy"}, content=_policy(style, script)
        ),
        _element("meta", name="viewport", content="width=device-width, initial-scale=1"),
        _element("meta", name="color-scheme", content="light dark"),
        _element("title", report.title),
        _raw("style", style),
    )
    body = _element(
        "body",
        _patterns(),
        _header(report),
        _element("main", *map(_session, range(1, len(report.sessions) + 1), report.sessions)),
        _footer(),
        _raw("script", script),
    )
    document = _element("html", head, body, lang="en")
    return "<!DOCTYPE html>\n" + ElementTree.tostring(document, "unicode", method="html") + "\n"


def visible(text: str) -> str:
    """The text with what cannot be seen, or turns the order of letters, as its code in brackets."""
    return "".join(each if _can_be_seen(each) else f"[U+{ord(each):04X}]" for each in text)


def ticks(milliseconds: float) -> list[float]:
    """Round times from 0 on, at most `MOST_TICKS`, none beyond the end."""
    if milliseconds <= 0:
        return [0.0]
    least = milliseconds / (MOST_TICKS - 1)
    power = 10 ** math.floor(math.log10(least))
    step = next(factor * power for factor in (1, 2, 5, 10) if factor * power >= least)
    return [number * step for number in range(math.floor(milliseconds / step) + 1)]


def extent(session: SessionFacts, run: ActionRun) -> tuple[float, float]:
    """Begin and length of an action's bar in percent of its session."""
    if session.milliseconds <= 0:
        return 0.0, 0.0
    begin = min(100.0, 100 * run.start / session.milliseconds)
    return begin, min(100.0 - begin, 100 * session.duration_of(run) / session.milliseconds)


def _header(report: Report) -> ElementTree.Element:
    sessions = [_overview(number, each) for number, each in enumerate(report.sessions, 1)]
    return _element(
        "header",
        _element("h1", report.title),
        _element(
            "p",
            f"Halvard_CA {report.version}, {report.made.replace('T', ' ')}. ",
            _judgement(report.as_expected, _sum(report)),
        ),
        _element("nav", _element("ol", *sessions, class_="overview"), aria_label="Sessions"),
        _legend(),
        # Hidden until the script shows them: without it they would do nothing.
        _element(
            "p",
            _element("button", "Open all details", type="button", data_open="yes"),
            _element("button", "Close all details", type="button", data_open="no"),
            id="switches",
            hidden="",
        ),
    )


def _sum(report: Report) -> str:
    if not report.complete:
        reason = f": {report.failure}" if report.failure else "."
        return f"Only {len(report.sessions)} of {report.planned} sessions came to their end{reason}"
    if report.as_expected and len(report.sessions) == 1:
        return "The session went as it should."
    if report.as_expected:
        return f"All {_count(len(report.sessions), 'session')} went as they should."
    failed = sum(not session.as_expected for session in report.sessions)
    return f"{failed} of {_count(len(report.sessions), 'session')} did not go as they should."


def _overview(number: int, session: SessionFacts) -> ElementTree.Element:
    facts = (
        f"exit code {shown_exit_code(session.result.exit_code)}, "
        f"{session.result.seconds:.1f} s, {_count(len(session.runs), 'action')}, "
        f"{_count(len(session.difference.changes), 'change')}"
    )
    return _element(
        "li",
        _mark(session.as_expected),
        _element(
            "span",
            _element("a", _title(number, session), href=f"#{_session_id(number)}"),
            " ",
            _element("span", f"{facts}, {_as_expected(session)}", class_="facts"),
        ),
    )


def _legend() -> ElementTree.Element:
    entries = [
        _element(
            "li",
            _sign(outcome),
            _element(
                "svg",
                _bar(outcome, 0, 100),
                class_="sample",
                aria_hidden="true",
            ),
            _element("span", _element("b", outcome.value), f": {_MEANINGS[outcome]}"),
        )
        for outcome in Outcome
    ]
    return _element(
        "details",
        _element("summary", "Signs and patterns"),
        _element("ul", *entries, class_="legend"),
    )


def _session(number: int, session: SessionFacts) -> ElementTree.Element:
    identity = _session_id(number)
    section = _element(
        "section",
        _element("h2", _title(number, session), id=identity),
        _element("p", _code(session.command), class_="command"),
        *([_element("p", session.note)] if session.note else []),
        _element(
            "p",
            f"Exit code {shown_exit_code(session.result.exit_code)}, "
            f"{session.result.seconds:.1f} s, log ",
            _code(paths.shown(session.result.log)),
        ),
        aria_labelledby=identity,
    )
    section.extend(_expectations(session))
    section.extend(_actions(identity, session))
    if session.told:
        section.append(_element("h3", "What the companion tools were told"))
        section.append(_lines(session.told))
    section.extend(_changes(session.difference))
    return section


def _expectations(session: SessionFacts) -> Iterable[ElementTree.Element]:
    if not session.expectations:
        return
    met = [(each.what, each.came or "nothing") for each in session.expectations if each.met]
    yield _element("p", _judgement(session.as_expected, _as_expected(session) + "."))
    for each in session.expectations:
        if not each.met:
            yield _failed_expectation(each)
    if met:
        yield _element(
            "details",
            _element("summary", f"What was as expected ({len(met)})"),
            _facts(*met, class_="checks"),
        )


def _failed_expectation(expectation: Expectation) -> ElementTree.Element:
    return _element(
        "div",
        _element("p", f"Not as expected: {expectation.what}"),
        _facts(("Expected", expectation.expected), ("Came", expectation.came or "nothing")),
        class_="wrong",
    )


def _actions(identity: str, session: SessionFacts) -> Iterable[ElementTree.Element]:
    yield _element("h3", "Actions")
    if not session.runs:
        yield _element("p", "No custom action ran.")
        return
    counts = [
        part
        for outcome, count in session.outcomes().items()
        for part in (_sign(outcome), f" {count} {outcome.value} ")
    ]
    yield _element("p", *counts, class_="counts")
    yield _element(
        "p",
        f"{_milliseconds(session.in_actions)} of the session's "
        f"{_milliseconds(session.milliseconds)} were spent in its actions.",
    )
    yield _axis(session)
    yield _element(
        "ol",
        *[
            _action(f"{identity}-action-{number}", session, run)
            for number, run in enumerate(session.runs, 1)
        ],
        class_="actions",
    )


def _axis(session: SessionFacts) -> ElementTree.Element:
    labels = []
    for time in ticks(session.milliseconds):
        at = 100 * time / session.milliseconds if session.milliseconds > 0 else 0.0
        anchor = "start" if at == 0 else "end" if at > 95 else "middle"
        label = _element("text", f"{time / 1000:g} s", x=_percent(at), y="14", text_anchor=anchor)
        labels.append(label)
    return _element("div", _element("svg", *labels), class_="row axis", aria_hidden="true")


def _action(identity: str, session: SessionFacts, run: ActionRun) -> ElementTree.Element:
    words = ", ".join(part for part in (run.meaning, run.answer) if part)
    lines = [
        _element("line", x1=_percent(at), x2=_percent(at), y1="0", y2="100%")
        for at in (100 * time / session.milliseconds for time in ticks(session.milliseconds)[1:])
    ]
    row = _element(
        "summary",
        _sign(run.outcome),
        _element("span", *_breakable(_WORDS, run.name), class_="name"),
        _element(
            "svg",
            *lines,
            _bar(run.outcome, *extent(session, run)),
            class_="track",
            aria_hidden="true",
        ),
        _element("span", words, class_="verdict"),
        _element("span", _duration(run), class_="duration"),
        class_="row",
    )
    facts = _facts(
        ("Verdict", _verdict(run)),
        ("Returned", _returned(run)),
        ("Runs", run.definition.execution.value),
        ("Time", _time(run)),
        ("Data", "none" if run.data is None else _code(*_breakable(_ITEMS, run.data))),
        ("Log lines", _lines(run.lines) if run.lines else "none"),
    )
    shown = {"open": ""} if run.outcome in _SHOWN_AT_ONCE else {}
    return _element("li", _element("details", shown, row, facts), id=identity)


def _verdict(run: ActionRun) -> str:
    return run.meaning if run.verdict is None else f"{run.verdict}, {run.meaning}"


def _returned(run: ActionRun) -> str:
    if run.call is Call.RETURNED:
        return str(run.result)
    reasons = {Call.NOT_RETURNED: Outcome.NOT_RETURNED, Call.NOT_CALLED: Outcome.NOT_CALLED}
    reason = reasons.get(run.call)
    return run.call.value if reason is None else f"nothing, {run.call.value}: {_MEANINGS[reason]}"


def _duration(run: ActionRun) -> str:
    return "no end" if run.duration is None else _milliseconds(run.duration)


def _time(run: ActionRun) -> str:
    begin = f"from {_milliseconds(run.start)}"
    if run.duration is None:
        return f"{begin} on"
    return f"{begin} to {_milliseconds(run.start + run.duration)}, {_milliseconds(run.duration)}"


def _breakable(places: re.Pattern[str], text: str) -> Iterable[Content]:
    """The text with places to break its line; what is copied from the page stays the text."""
    first, *further = places.split(text)
    yield first
    for part in further:
        yield _element("wbr")
        yield part


def _changes(difference: Difference) -> Iterable[ElementTree.Element]:
    yield _element("h3", "Changes on the machine")
    if not difference.changes:
        yield _element("p", "Nothing has changed.")
    for area, title in _AREAS.items():
        changes = [change for change in difference.changes if change.area is area]
        if changes:
            yield _area(title, changes)
    if difference.noise:
        yield _element("p", f"({difference.noise_summary()})", class_="facts")


def _area(title: str, changes: Sequence[Change]) -> ElementTree.Element:
    kinds = [change.kind for change in changes]
    counts = ", ".join(f"{kinds.count(kind)} {kind.value}" for kind in Kind if kind in kinds)
    headings = ("Change", "Item", "Before", "After")
    # The roles stay what they are when a narrow window shows the cells below each other.
    table = _element(
        "table",
        _element(
            "thead",
            _element(
                "tr",
                *[
                    _element("th", heading, scope="col", role="columnheader")
                    for heading in headings
                ],
                role="row",
            ),
            role="rowgroup",
        ),
        _element("tbody", *map(_change, changes), role="rowgroup"),
        role="table",
    )
    shown = {"open": ""} if len(changes) <= OPEN_CHANGES else {}
    return _element(
        "details", shown, _element("summary", _element("b", title), f": {counts}"), table
    )


def _change(change: Change) -> ElementTree.Element:
    return _element(
        "tr",
        _element(
            "td",
            _element("span", _KIND_SIGNS[change.kind], class_="sign", aria_hidden="true"),
            f" {change.kind.value}",
            class_=f"kind {change.kind.value}",
            role="cell",
        ),
        _element("td", change.name, class_="item", role="cell"),
        *[
            _element("td", *_content(content), role="cell", data_label=label)
            for label, content in (("Before", change.before), ("After", change.after))
        ],
        role="row",
    )


def _content(content: str | None) -> Iterable[Content]:
    if content is None:
        yield _element("i", "absent")
    else:
        # A key has no content of its own.
        yield content or _element("i", "there")


def _footer() -> ElementTree.Element:
    return _element(
        "footer",
        _element(
            "p",
            "Times are those of the log's lines, which are read while the installer writes them. "
            "They include what the engine needs to unpack and load the library. The verdict is "
            "the “Return value” of the log; what an action returned comes from a trace of the "
            "engine's calls.",
        ),
    )


def _session_id(number: int) -> str:
    return f"session-{number}"


def _title(number: int, session: SessionFacts) -> str:
    return f"{number}. {session.title}"


def _as_expected(session: SessionFacts) -> str:
    if not session.expectations:
        return "nothing was expected"
    met = sum(each.met for each in session.expectations)
    return f"{met} of {_count(len(session.expectations), 'check')} as expected"


def _judgement(good: bool, words: str) -> ElementTree.Element:
    return _element("span", _mark(good), f" {words}", class_="judgement")


def _mark(good: bool) -> ElementTree.Element:
    return _sign(Outcome.SUCCEEDED if good else Outcome.FAILED)


def _sign(outcome: Outcome) -> ElementTree.Element:
    return _element(
        "span", SIGNS[outcome], class_=f"sign {_style_name(outcome)}", aria_hidden="true"
    )


def _bar(outcome: Outcome, begin: float, length: float) -> ElementTree.Element:
    return _element(
        "rect",
        class_=f"bar {_style_name(outcome)}",
        x=_percent(begin),
        y="3",
        width=_percent(length),
        height="12",
    )


def _patterns() -> ElementTree.Element:
    patterns = [
        _element(
            "pattern",
            _element("rect", width="8", height="8", class_="ground"),
            _element("path", d=path, class_=f"stroke {_style_name(outcome)}"),
            id=f"pattern-{_style_name(outcome)}",
            width="8",
            height="8",
            patternUnits="userSpaceOnUse",
        )
        for outcome, path in _PATTERNS.items()
    ]
    return _element(
        "svg", _element("defs", *patterns), width="0", height="0", id="patterns", aria_hidden="true"
    )


def _style_name(outcome: Outcome) -> str:
    return outcome.name.lower().replace("_", "-")


def _facts(*pairs: tuple[str, Content], **attributes: str) -> ElementTree.Element:
    facts = _element("dl", **attributes)
    for term, content in pairs:
        facts.append(_element("dt", term))
        facts.append(_element("dd", content))
    return facts


def _lines(lines: Sequence[str]) -> ElementTree.Element:
    return _element("ul", *[_element("li", line) for line in lines], class_="lines")


def _code(*text: Content) -> ElementTree.Element:
    return _element("code", *text)


def _milliseconds(milliseconds: float) -> str:
    return f"{milliseconds:,.0f} ms"


def _percent(share: float) -> str:
    return f"{share:.3f}%"


def _count(number: int, what: str) -> str:
    return f"{number} {what}{'' if number == 1 else 's'}"


def _policy(style: str, script: str) -> str:
    def hashed(text: str) -> str:
        digest = hashlib.sha256(text.encode()).digest()
        return f"'sha256-{base64.b64encode(digest).decode()}'"

    return (
        f"default-src 'none'; style-src {hashed(style)}; script-src {hashed(script)}; "
        "base-uri 'none'; form-action 'none'"
    )


def _can_be_seen(character: str) -> bool:
    # Lone surrogates, formatting characters and controls are none of these.
    return character.isprintable() or character in "\t\u00a0\u3000"


def _element(
    tag: str, *content: Content | dict[str, str], **attributes: str
) -> ElementTree.Element:
    """An element with texts and elements in it. A dictionary, and keywords, are its attributes."""
    element = ElementTree.Element(tag)
    for part in content:
        if isinstance(part, dict):
            element.attrib.update(part)
        else:
            _append(element, part)
    for name, value in attributes.items():
        element.set(name.rstrip("_").replace("_", "-"), visible(value))
    return element


def _append(element: ElementTree.Element, part: Content) -> None:
    if isinstance(part, ElementTree.Element):
        element.append(part)
    elif len(element):
        element[-1].tail = (element[-1].tail or "") + visible(part)
    else:
        element.text = (element.text or "") + visible(part)


def _raw(tag: str, text: str) -> ElementTree.Element:
    element = ElementTree.Element(tag)
    element.text = text
    return element
