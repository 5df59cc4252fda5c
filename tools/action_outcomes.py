"""Writes what the table of actions says of results and exceptions as a header for the tests.

    action_outcomes.py FILE
"""

import sys
from pathlib import Path

from installer.actions import Action, actions


def main(arguments: list[str]) -> int:
    if len(arguments) != 1:
        print(__doc__, file=sys.stderr)
        return 2
    Path(arguments[0]).write_text(header(actions()))
    return 0


def header(table: list[Action]) -> str:
    lines = [
        "#pragma once",
        "",
        "#include <set>",
        "#include <string>",
        "#include <vector>",
        "",
        "namespace halvard_tests {",
        "",
        "/// What an action may answer, and the types of what may leave it.",
        "struct Outcomes {",
        "    const char* action;",
        "    std::set<unsigned> results;",
        "    bool anyResult;",
        "    std::set<std::string> exceptions;",
        "};",
        "",
        "inline const std::vector<Outcomes> kOutcomes = {",
        *map(_row, table),
        "};",
        "",
        "} // namespace halvard_tests",
        "",
    ]
    return "\n".join(lines)


def _row(action: Action) -> str:
    results = ", ".join(f"{each.value}U" for each in action.results if each.fixed)
    any_result = str(not all(each.fixed for each in action.results)).lower()
    exceptions = ", ".join(f'"{each}"' for each in action.exceptions)
    return f'    {{"{action.name}", {{{results}}}, {any_result}, {{{exceptions}}}}},'


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
