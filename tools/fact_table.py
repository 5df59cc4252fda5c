"""Writes what is made of the table of facts, tools/runner/verify/facts.toml.

    fact_table.py    the source of the program's own table, and the list in docs/verify.md
"""

import re
import sys

from installer import paths, verified
from installer.engines import Engine
from installer.verified import Fact

SOURCE_HEAD = """\
// Written by ./run generate from facts.toml.

#include "verify/fact.h"

namespace halvard_runner {

const std::vector<FactText>& FactTexts() {
    // clang-format off
    static const std::vector<FactText> texts = {
"""
SOURCE_END = """\
    };
    // clang-format on
    return texts;
}

} // namespace halvard_runner
"""
BEGIN, END = "<!-- facts -->\n", "<!-- end of facts -->\n"


def main() -> int:
    facts = verified.facts()
    _write(paths.FACT_TABLE, source(facts))
    _write(paths.FACTS_DOCUMENT, document(facts, paths.FACTS_DOCUMENT.read_text()))
    return 0


def source(facts: list[Fact]) -> str:
    """The table in C++."""
    return SOURCE_HEAD + "".join(map(_entry, facts)) + SOURCE_END


def document(facts: list[Fact], text: str) -> str:
    """The page with its list renewed."""
    head, found, rest = text.partition(BEGIN)
    _, ended, tail = rest.partition(END)
    if not found or not ended:
        raise ValueError("the page has no place for the list of facts")
    return head + BEGIN + listing(facts) + END + tail


def listing(facts: list[Fact]) -> str:
    """The facts for readers, a table for each subject."""
    text = ""
    for subject in dict.fromkeys(fact.subject for fact in facts):
        own = [fact for fact in facts if fact.subject == subject]
        text += f"\n### {subject}\n\n| Fact | Windows | Wine 8, Wine 10 |\n|---|---|---|\n"
        text += "".join(map(_row, own))
    return text + "\n"


def _row(fact: Fact) -> str:
    windows = " or ".join(map(_code, fact.outcomes[Engine.WINDOWS]))
    basis = fact.basis
    if basis != verified.ASSUMED:
        page, *assumed = basis.split(";", 1)
        basis = ";".join([f'documented: "{page}"', *assumed])
    wine = list(dict.fromkeys(fact.outcomes[e][0] for e in (Engine.WINE_8, Engine.WINE_10)))
    told = f"**{fact.name}**: {fact.about} Relied on by {fact.relies}."
    return f"| {told} | {windows} ({basis}) | {', '.join(map(_code, wine))} |\n"


def _code(outcome: str) -> str:
    return f"`{outcome}`"


def _entry(fact: Fact) -> str:
    columns = [
        fact.name,
        fact.subject,
        _plain(fact.about),
        _plain(fact.relies),
        " or ".join(fact.outcomes[Engine.WINDOWS]),
        fact.basis,
        *(fact.outcomes[engine][0] for engine in (Engine.WINE_8, Engine.WINE_10)),
    ]
    literals = ",\n         ".join(map(_literal, columns))
    return f"        {{{literals}}},\n"


def _plain(text: str) -> str:
    """Without the marks of a page."""
    return re.sub("`", "", text)


def _literal(text: str) -> str:
    escaped = text.replace("\\", "\\\\").replace('"', '\\"')
    return f'L"{escaped}"'


def _write(file, text: str) -> None:
    if not file.exists() or file.read_text() != text:
        file.write_text(text)
        print(f"written: {paths.shown(file)}")


if __name__ == "__main__":
    sys.exit(main())
