"""The report of installer sessions as one HTML page that needs nothing beside it.

Pure: facts in, text out. What stands where on the page is told by page.html.j2; here is what the
facts do not tell by themselves. The template engine escapes every text, and a policy in the page's
head lets nothing run or load but its own style and script.
"""

import base64
import hashlib
import math
import re
from collections import Counter
from dataclasses import dataclass
from functools import cache
from pathlib import Path
from typing import Sequence, Sized

from jinja2 import Environment, FileSystemLoader, StrictUndefined, Template
from markupsafe import Markup

from installer import paths
from installer.facts import Finding, Report, SessionFacts
from installer.log import ActionRun, Call, Outcome
from installer.machine import Area, Change, Difference, Kind
from installer.session import shown_exit_code

TEMPLATE = Path(__file__).with_name("page.html.j2")
STYLE = TEMPLATE.with_name("page.css")
SCRIPT = TEMPLATE.with_name("page.js")

# A longer list of changes is shown when the reader opens it.
OPEN_CHANGES = 12
# Labels of a time axis that still stand apart in a narrow window.
MOST_TICKS = 8

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

# Behind each item of an action's data, and between the words of its name.
_ITEMS = re.compile("(?<=;)")
_WORDS = re.compile("(?<=[a-z])(?=[A-Z])")


@dataclass(frozen=True)
class Tick:
    """A time on a session's axis; `at` is its place in percent, where the label has its anchor."""

    at: float
    label: str
    anchor: str


def page(report: Report) -> str:
    """The whole HTML document."""
    style, script = STYLE.read_text(), SCRIPT.read_text()
    return _template().render(report=report, style=Markup(style), script=Markup(script))


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


def _axis(session: SessionFacts) -> list[Tick]:
    axis = []
    for time in ticks(session.milliseconds):
        at = 100 * time / session.milliseconds if time else 0.0
        anchor = "start" if at == 0 else "end" if at > 95 else "middle"
        axis.append(Tick(at, f"{time / 1000:g} s", anchor))
    return axis


def _sum(report: Report) -> str:
    if not report.complete:
        reason = f": {report.failure}" if report.failure else "."
        return f"Only {len(report.sessions)} of {report.planned} sessions came to their end{reason}"
    if report.as_expected and len(report.sessions) == 1:
        return "The session went as it should."
    if report.as_expected:
        return f"All {_count(report.sessions, 'session')} went as they should."
    failed = sum(not session.as_expected for session in report.sessions)
    return f"{failed} of {_count(report.sessions, 'session')} did not go as they should."


def _as_expected(session: SessionFacts) -> str:
    if not session.expectations:
        return "nothing was expected"
    met = sum(each.met for each in session.expectations)
    return f"{met} of {_count(session.expectations, 'check')} as expected"


def _returned(run: ActionRun) -> str:
    if run.call is Call.RETURNED:
        return str(run.result)
    reasons = {Call.NOT_RETURNED: Outcome.NOT_RETURNED, Call.NOT_CALLED: Outcome.NOT_CALLED}
    reason = reasons.get(run.call)
    return run.call.value if reason is None else f"nothing, {run.call.value}: {_MEANINGS[reason]}"


def _time(run: ActionRun) -> str:
    begin = f"from {_milliseconds(run.start)}"
    if run.duration is None:
        return f"{begin} on"
    return f"{begin} to {_milliseconds(run.start + run.duration)}, {_milliseconds(run.duration)}"


def _by_area(difference: Difference) -> dict[str, list[Change]]:
    """The changes below the titles of their areas; an area without changes is left out."""
    areas = {
        title: [change for change in difference.changes if change.area is area]
        for area, title in _AREAS.items()
    }
    return {title: changes for title, changes in areas.items() if changes}


def _kinds(changes: Sequence[Change]) -> str:
    kinds = [change.kind for change in changes]
    return ", ".join(f"{kinds.count(kind)} {kind.value}" for kind in Kind if kind in kinds)


def severities(findings: Sequence[Finding]) -> str:
    counts = Counter(finding.severity for finding in findings)
    told = [f"{number} {severity}{'' if number == 1 else 's'}" for severity, number in counts.items()]
    return ", ".join(told) or "nothing found"


def _seconds(session: SessionFacts) -> str:
    return f"{session.result.seconds:.1f} s"


def _milliseconds(milliseconds: float) -> str:
    return f"{milliseconds:,.0f} ms"


def _percent(share: float) -> str:
    return f"{share:.3f}%"


def _count(items: Sized, what: str) -> str:
    return f"{len(items)} {what}{'' if len(items) == 1 else 's'}"


def _hashed(text: str) -> str:
    digest = hashlib.sha256(text.encode()).digest()
    return f"'sha256-{base64.b64encode(digest).decode()}'"


def _can_be_seen(character: str) -> bool:
    # Lone surrogates, formatting characters and controls are none of these.
    return character.isprintable() or character in "\t\u00a0\u3000"


def _shown(value: object) -> str:
    """What the template prints, before it is escaped. What the facts lack has no text."""
    if isinstance(value, Markup):
        return value
    if value is None:
        raise TypeError("the page would show None")
    return visible(str(value))


@cache
def _template() -> Template:
    environment = Environment(
        loader=FileSystemLoader(TEMPLATE.parent),
        autoescape=True,
        undefined=StrictUndefined,
        finalize=_shown,
        trim_blocks=True,
        lstrip_blocks=True,
        keep_trailing_newline=True,
    )
    environment.globals.update(
        Outcome=Outcome,
        signs=SIGNS,
        meanings=_MEANINGS,
        shown_at_once=_SHOWN_AT_ONCE,
        kind_signs=_KIND_SIGNS,
        open_changes=OPEN_CHANGES,
        sum=_sum,
        as_expected=_as_expected,
        axis=_axis,
        extent=extent,
        returned=_returned,
        time=_time,
        by_area=_by_area,
        kinds=_kinds,
        severities=severities,
        words=_WORDS.split,
        items=_ITEMS.split,
        count=_count,
        seconds=_seconds,
        milliseconds=_milliseconds,
        percent=_percent,
        exit_code=shown_exit_code,
        path=paths.shown,
        hashed=_hashed,
    )
    return environment.get_template(TEMPLATE.name)
