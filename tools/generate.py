"""Writes what the table of actions says wherever it has to stand.

    generate.py

The table is actions.toml beside the library's sources. From it come the module definition, the
declarations for packages in the language of WiX 3 and in that of WiX 4 and 5, and of the reference
the two tables, the first sentence of each section and its lines Schedule, Data, Results and Throws.
The rest of the reference is written by hand and stays.
"""

import re
import sys
import textwrap
import tomllib
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Iterable

from installer import package, paths
from installer.actions import Action, actions

TABLE = paths.ACTIONS.relative_to(paths.ROOT)
NOTICE = f"Written by ./run generate from {TABLE}"
DEFINITION = paths.LIBRARY_EXPORTS
INCLUDE = paths.PACKAGE_SOURCES / "halvard_actions.wxi"
INCLUDE_OF_WIX_4 = paths.PACKAGE_SOURCES / "halvard_actions.v4.wxi"
RULES = paths.ROOT / "tools/runner/check/rules.toml"
RULE_TABLE = RULES.with_name("rule_table.cpp")
RULES_DOCUMENT = paths.ROOT / "docs/check.md"
RUNNER_TABLE = paths.ROOT / "tools/runner/action_table.cpp"
REFERENCE = paths.ROOT / "docs/actions.md"
# The width of the documents, in characters.
WIDTH = 105


@dataclass(frozen=True)
class Language:
    """A language of packages: its namespace, and how it names the Binary of an action."""

    name: str
    namespace: str
    binary: str


WIX_3 = Language("WiX 3", "http://schemas.microsoft.com/wix/2006/wi", "BinaryKey")
WIX_4 = Language("WiX 4 and 5", "http://wixtoolset.org/schemas/v4/wxs", "BinaryRef")

INCLUDE_HEAD = """\
<?xml version="1.0" encoding="utf-8"?><!-- {notice}.
     The custom actions of Halvard_CA {version}, each as it has to be declared. Include this file in a
     product and put into its sequences what it needs; what stands in no sequence never runs.

     What is the package's own is not here: the Binary of the Id Halvard_CA, the sequences and their
     conditions, and a deferred action's data. It comes from a property of the action's name, set
     by an action that stands before it in the same sequence:

       <CustomAction Id="SetUnregisterDLL" Property="UnregisterDLL"
                     Value="InstallDir=[ServerFolder];DLLName=Server.dll" Impersonate="yes"/>

     A value ends at the next semicolon, and a folder may have one in its name: InstallDir=C:\\A;B is
     the folder C:\\A. Refuse such a folder by a launch condition (NOT INSTALLDIR &gt;&lt; ";") before an
     action deletes in it or opens it to users.

     The language is that of {language}.{wixl}

     Deferred actions run as the system, for they change what belongs to all users; the one that
     does not says why. Return="check" lets a failure end and undo the session, which only
     suits actions that answer 0 for done: 1 is a failure to the installer. With Return="ignore" the
     session goes on whatever comes back; that it does so after an exception is assumed of Windows, and
     not so under Wine. A package that needs an action declared otherwise declares it again, with
     another Id.

     UndoACTION is the counterpart of ACTION for rollback: put it in front of that action, under the same
     condition. What needs data there gets it from a property of its own name, UndoACTION.
-->
<Include xmlns="{namespace}">
"""
OF_WIXL = """ Where wixl compiles it, schedule by Sequence: it puts actions with
     Before and After elsewhere from run to run, deferred ones also where they cannot run. Before its
     release 0.106 it makes immediate actions of those for rollback, which would undo at once: set the
     Type in the table CustomAction (UPDATE CustomAction SET Type=3393 WHERE Action=...) or leave them out.
     An immediate action that does not say Impersonate="yes" gets the bit of one without from it."""


# Of the rules of --check, by the hundreds of their numbers.
RULE_GROUPS = {
    1: "Declaring",
    2: "Data",
    3: "Order",
    4: "Conditions",
    5: "Properties and folders",
    6: "Lengths",
    7: "The library",
    8: "What the package installs",
}
SEVERITIES = ("error", "warning", "hint")
RULES_NOTICE = f"Written by ./run generate from {RULES.relative_to(paths.ROOT)}"
RULES_HEAD = """\
// {notice}.

#include "check/rule_table.h"

namespace halvard_runner {{

// clang-format off
const std::vector<RuleText>& RuleTable() {{
    static const std::vector<RuleText> table = {{
"""

RUNNER_HEAD = """\
// {notice}.

#include "action_table.h"

namespace halvard_runner {{

// clang-format off
const std::vector<ActionFacts>& ActionTable() {{
    static const std::vector<ActionFacts> table = {{
"""
RUNNER_END = """\
    };
    return table;
}
// clang-format on

} // namespace halvard_runner
"""


def main() -> int:
    for file, text in generated().items():
        if not file.exists() or file.read_text(encoding="utf-8") != text:
            file.write_text(text, encoding="utf-8")
            print(f"written: {paths.shown(file)}")
    return 0


def generated() -> dict[Path, str]:
    """What each file has to hold."""
    table = actions()
    return {
        DEFINITION: definition(table),
        INCLUDE: include(table, WIX_3),
        INCLUDE_OF_WIX_4: include(table, WIX_4),
        RUNNER_TABLE: runner_table(table),
        RULE_TABLE: rule_table(rules()),
        RULES_DOCUMENT: rules_document(rules(), RULES_DOCUMENT.read_text(encoding="utf-8")),
        REFERENCE: reference(table, REFERENCE.read_text(encoding="utf-8")),
    }


def by_subsystem(table: list[Action]) -> dict[str, list[Action]]:
    return {
        subsystem: [action for action in table if action.subsystem == subsystem]
        for subsystem in dict.fromkeys(action.subsystem for action in table)
    }


def definition(table: list[Action]) -> str:
    """The module definition: what the library exports."""
    lines = [f"; {NOTICE}.", "LIBRARY Halvard_CA", "", "EXPORTS"]
    for subsystem, own in by_subsystem(table).items():
        lines += [f"    ; {subsystem}", *(f"    {action.name}" for action in own)]
    return "\n".join(lines) + "\n"


def include(table: list[Action], language: Language) -> str:
    """The declarations of all actions for a package."""
    text = INCLUDE_HEAD.format(
        notice=NOTICE,
        language=language.name,
        namespace=language.namespace,
        version=package.project_identity().version,
        wixl=OF_WIXL if language is WIX_3 else "",
    )
    groups = [
        f"    <!-- {subsystem} -->\n"
        + "".join(declarations(action, language, table) for action in own)
        for subsystem, own in by_subsystem(table).items()
    ]
    return text + "\n".join(groups) + "</Include>\n"


def declarations(action: Action, language: Language, table: list[Action]) -> str:
    """An action, and what else of it a package may schedule."""
    text = declaration(action, language)
    if action.as_user:
        once_more = replace(action, why=action.as_user, impersonate=True, as_user="")
        text += declaration(once_more, language, action.once_more)
    if action.undone_by:
        for counterpart in table:
            if counterpart.name == action.undone_by:
                text += declaration(
                    replace(counterpart, why=f"Takes back what {action.name} has done."),
                    language,
                    action.undoing,
                    "rollback",
                )
    return text


def declaration(action: Action, language: Language, name: str = "", execution: str = "") -> str:
    """The declaration of an action under its name or another one."""
    attributes = {
        "Execute": execution or action.execution,
        # Said of immediate actions too: wixl takes "no" for what is not said.
        "Impersonate": "yes" if action.execution == "immediate" or action.impersonate else "no",
        "Return": action.return_attribute,
    }
    if "--" in action.why:
        raise ValueError(f"{action.name}: a comment of XML cannot hold --")
    declared = " ".join(f'{key}="{value}"' for key, value in attributes.items())
    return (
        f"    <!-- {action.why} -->\n"
        f'    <CustomAction Id="{name or action.name}" {language.binary}="Halvard_CA"\n'
        f'                  DllEntry="{action.name}"\n'
        f"                  {declared}/>\n"
    )


def runner_table(table: list[Action]) -> str:
    """The table that halvard_run knows the actions by, in C++."""
    return RUNNER_HEAD.format(notice=NOTICE) + "".join(map(runner_row, table)) + RUNNER_END


def runner_row(action: Action) -> str:
    fields = [
        wide(action.name),
        wide(action.subsystem),
        wide(plain(action.does)),
        f"Execution::{action.execution.capitalize()}",
        # What runs at once runs as the user whatever is declared.
        cpp(action.impersonate or action.execution == "immediate"),
        cpp(action.return_attribute == "check"),
        wide(plain(action.why)),
        wide(plain(action.schedule)),
        braced(
            [
                f"Session::{action.place.on.capitalize()}",
                braced(map(wide, action.place.behind)),
                braced(map(wide, action.place.before)),
            ]
        ),
        braced(braced([wide(key.name), cpp(key.needed)]) for key in action.data),
        wide(plain(action.whole_data)),
        braced(map(wide, action.properties)),
        braced(map(wide, action.registry)),
        braced(
            braced([wide(str(each.value)), wide(each.note), wide(plain(each.means))])
            for each in action.results
        ),
        braced(map(wide, action.exceptions)),
        wide(plain(action.throws)),
        wide(action.undone_by),
        cpp(bool(action.as_user)),
    ]
    return "        {" + ",\n         ".join(fields) + "},\n"


@dataclass(frozen=True)
class Rule:
    """A row of the table of rules, whose file says what its fields are."""

    number: int
    severity: str
    rule: str
    why: str
    remedy: str

    def __post_init__(self) -> None:
        if self.severity not in SEVERITIES or self.number // 100 not in RULE_GROUPS:
            raise ValueError(f"rule {self.number}: no such severity or group")


def rules(file: Path = RULES) -> list[Rule]:
    """The rows of the table of rules. ValueError, TypeError or KeyError for a faulty table."""
    with open(file, "rb") as table:
        found = [Rule(**row) for row in tomllib.load(table)["rule"]]
    numbers = [rule.number for rule in found]
    if numbers != sorted(set(numbers)):
        raise ValueError("the rules do not stand by their numbers")
    return found


def rule_table(rows: list[Rule]) -> str:
    """The texts of the rules, in C++."""
    text = "".join(
        f"        {{{row.number}, Severity::{row.severity.capitalize()},\n"
        f"         {wide(plain(row.rule))},\n"
        f"         {wide(plain(row.why))},\n"
        f"         {wide(plain(row.remedy))}}},\n"
        for row in rows
    )
    return RULES_HEAD.format(notice=RULES_NOTICE) + text + RUNNER_END


def rules_document(rows: list[Rule], text: str) -> str:
    """The page of the rules, with what comes from the table renewed in it."""
    parts = []
    for hundreds, group in RULE_GROUPS.items():
        parts.append(f"### {group}\n\n| Rule | Severity | Found | Why | What to do |\n|---|---|---|---|---|")
        parts[-1] += "".join(
            f"\n| {row.number} | {row.severity} | {cell(row.rule)} | {cell(row.why)} | {cell(row.remedy)} |"
            for row in rows
            if row.number // 100 == hundreds
        )
    return _with_part(text, "rules", "\n\n".join(parts))


def cell(text: str) -> str:
    """A text in a cell of a table, in which a sign of the form is none."""
    return text.replace("|", "\\|").replace("<", "&lt;") if "`" not in text else text


def cpp(value: bool) -> str:
    return "true" if value else "false"


def braced(items: Iterable[str]) -> str:
    return "{" + ", ".join(items) + "}"


def wide(text: str) -> str:
    """A text as a literal of C++."""
    if not text.isascii() or not text.isprintable():
        raise ValueError(f"no literal of C++ is made of {text!r}")
    return 'L"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def plain(text: str) -> str:
    """A text without marks for code, but for quotes where blanks would else be lost."""
    return re.sub(
        r"`([^`]*)`", lambda code: code[1] if code[1] == code[1].strip() else f'"{code[1]}"', text
    )


def reference(table: list[Action], text: str) -> str:
    """The reference, with what comes from the table renewed in it."""
    text = _with_part(text, "index", index(table))
    text = _with_part(text, "exports", exports(table))
    for action in table:
        text = _with_section(text, action)
    return text


def index(table: list[Action]) -> str:
    rows = ["| Subsystem | Actions |", "|---|---|"]
    for subsystem, own in by_subsystem(table).items():
        links = ", ".join(f"[{action.name}](#{action.name.lower()})" for action in own)
        rows.append(f"| [{subsystem}](#{subsystem}) | {links} |")
    return "\n".join(rows)


def exports(table: list[Action]) -> str:
    rows = ["| Export | Declare as | Does | Results |", "|---|---|---|---|"]
    for action in table:
        results = ", ".join(
            f"{each.value} {each.note}".strip() if each.fixed else each.note
            for each in action.results
        )
        rows.append(f"| `{action.name}` | {declared_as(action)} | {action.does} | {results} |")
    return "\n".join(rows)


def declared_as(action: Action) -> str:
    if action.execution == "immediate":
        return f'immediate, `Return="{action.return_attribute}"`'
    impersonated = "yes" if action.impersonate else "no"
    return f'deferred, `Impersonate="{impersonated}"`, `Return="{action.return_attribute}"`'


def facts(action: Action) -> dict[str, str]:
    """The lines of a section that come from the table."""
    data = ", ".join(f"`{key.name}=`" for key in action.data)
    results = [
        wrapped(f"  - `{each.value}`: {each.means}", "    ") for each in action.results
    ]
    schedule = f"- **Schedule:** {declared_as(action)}; {action.schedule}"
    if action.undone_by:
        schedule += f" In front of it `{action.undoing}`, which is `{action.undone_by}` for rollback."
    if action.as_user:
        schedule += f' Behind it `{action.once_more}`, the same with `Impersonate="yes"`.'
    return {
        "Schedule": wrapped(schedule, "  "),
        "Data": wrapped(f"- **Data:** {f'{data}.' if data else action.whole_data or 'none.'}", "  "),
        "Results": "\n".join(["- **Results:**", *results]),
        "Throws": wrapped(f"- **Throws:** {action.throws or 'nothing.'}", "  "),
    }


def section(action: Action, parts: dict[str, str]) -> str:
    """The text of a section up to its example; `parts` are its former lines by their names."""
    return "\n".join([wrapped(action.does, ""), "", *(parts | facts(action)).values()])


def wrapped(text: str, behind: str) -> str:
    """The text in lines, those behind the first indented; what stands in backquotes stays together."""
    together = re.sub(r"`[^`]*`", lambda code: code[0].replace(" ", "\0"), text)
    lines = textwrap.wrap(
        together, WIDTH, subsequent_indent=behind, break_long_words=False, break_on_hyphens=False
    )
    return "\n".join(lines).replace("\0", " ")


def _with_part(text: str, name: str, part: str) -> str:
    begin, end = f"<!-- {name} -->\n", f"\n<!-- end of {name} -->\n"
    head, found, rest = text.partition(begin)
    _, ended, tail = rest.partition(end)
    if not found or not ended:
        raise ValueError(f"the reference has no place for its {name}")
    return head + begin + part + end + tail


def _with_section(text: str, action: Action) -> str:
    match = re.search(
        rf"^### {action.name}\n(?P<section>.*?)(?=^```|^##)", text, re.MULTILINE | re.DOTALL
    )
    if match is None:
        raise ValueError(f"the reference has no section of {action.name}")
    pieces = re.split(r"^(?=- \*\*[\w ]+:\*\*)", match["section"], flags=re.MULTILINE)
    if any("\n\n" in piece.strip("\n") for piece in pieces):
        raise ValueError(f"{action.name}: a paragraph that would be lost")
    parts = {re.match(r"- \*\*([\w ]+):", piece)[1]: piece.rstrip("\n") for piece in pieces[1:]}
    written = section(action, parts)
    return f"{text[: match.start('section')]}\n{written}\n\n{text[match.end('section') :]}"


if __name__ == "__main__":
    sys.exit(main())
