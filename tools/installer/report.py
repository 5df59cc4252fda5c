"""Installer runs and changes of the machine as plain text of at most `WIDTH` columns."""

import textwrap
from typing import Sequence

from installer.log import ActionRun
from installer.machine import TIME_MARK, Change, Difference

WIDTH = 100
LISTED_CHANGES = 40

_HEADINGS = ("Action", "Runs", "Verdict", "Duration")


def action_table(runs: Sequence[ActionRun]) -> list[str]:
    """A row for each run, and below it the data that it got and the lines that it logged."""
    if not runs:
        return ["No custom action ran."]
    rows = [_cells(run) for run in runs]
    widths = [max(len(row[column]) for row in [_HEADINGS, *rows]) for column in range(4)]
    table = [_row(_HEADINGS, widths), _row(["-" * width for width in widths], widths)]
    for run, row in zip(runs, rows):
        table.append(_row(row, widths))
        if run.data is not None:
            table += _wrapped(f"data: {run.data}", "    ")
        for line in run.lines:
            table += _wrapped(line, "    ")
    return table


def change_list(difference: Difference) -> list[str]:
    """A line for each change, the first `LISTED_CHANGES` of them, and one for the noise."""
    lines = []
    for change in difference.changes[:LISTED_CHANGES]:
        lines += _wrapped(_change_text(change), "", " " * 18)
    if len(difference.changes) > LISTED_CHANGES:
        lines.append(f"and {len(difference.changes) - LISTED_CHANGES} more")
    if not lines:
        lines.append("nothing")
    if difference.noise:
        lines += _wrapped(difference.noise_summary(), "", "    ")
    return lines


def _cells(run: ActionRun) -> tuple[str, str, str, str]:
    verdict = run.meaning if run.verdict is None else f"{run.verdict} {run.meaning}"
    if run.answer:
        verdict += f", {run.answer}"
    duration = "" if run.duration is None else f"{run.duration:.0f} ms"
    return run.name, run.definition.execution.value, verdict, duration


def _row(cells: Sequence[str], widths: Sequence[int]) -> str:
    *left, duration = (cell.ljust(width) for cell, width in zip(cells, widths))
    return "  ".join([*left, duration.strip().rjust(widths[-1])])


def _change_text(change: Change) -> str:
    place = f"{change.kind.value:<8} {change.area.value:<9}{change.name}"
    if change.before is not None and change.after is not None:
        return f"{place} = {change.before} -> {change.after}"
    content = change.after if change.before is None else change.before
    content = content.partition(TIME_MARK)[0]
    return f"{place} = {content}" if content else place


def _wrapped(text: str, indent: str, further: str | None = None) -> list[str]:
    further = indent + "    " if further is None else further
    return textwrap.wrap(
        text, WIDTH, initial_indent=indent, subsequent_indent=further, break_on_hyphens=False
    ) or [""]
