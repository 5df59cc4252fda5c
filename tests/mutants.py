"""What can be broken in a source, one line at a time, and how the results are judged: the part of
mutate.py that runs nothing.

A mutant is known by its file, its kind, the line before and after, and by which of several alike it
is, so that it stays the same when lines around it move.
"""

import hashlib
import re
import tomllib
from collections import Counter
from dataclasses import dataclass
from pathlib import Path
from typing import Iterable, Iterator, Mapping, Sequence

SURVIVED, NOT_REACHED, KILLED = "survived", "not reached", "killed"

COMPARISONS = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
COMPARISON = re.compile(r"(?<= )(==|!=|<=|>=|<|>)(?=[ \n])")
LOGIC = {"&&": "||", "||": "&&", "true": "false", "false": "true", "TRUE": "FALSE", "FALSE": "TRUE"}
LOGICAL = re.compile(r"(?<= )(&&|\|\|)(?=[ \n])|\b(?:true|false|TRUE|FALSE)\b")
NEGATION = re.compile(r"(?<![\w)\]])!(?=[\w(:])")
NUMBER = re.compile(r"(?<![\w.'])(0[xX])?([\da-fA-F]+)([uUlL]*)(?![\w.'])")
# Access, kind or place of something, and what is near it.
FLAGS = {
    "CREATE_ALWAYS": "OPEN_ALWAYS",
    "CREATE_NO_WINDOW": "CREATE_NEW_CONSOLE",
    "DACL_SECURITY_INFORMATION": "OWNER_SECURITY_INFORMATION",
    "DELETE": "SYNCHRONIZE",
    "FILE_SHARE_READ": "FILE_SHARE_WRITE",
    "FILE_SHARE_WRITE": "FILE_SHARE_DELETE",
    "GENERIC_READ": "GENERIC_WRITE",
    "GENERIC_WRITE": "GENERIC_READ",
    "HKEY_CURRENT_USER": "HKEY_LOCAL_MACHINE",
    "HKEY_LOCAL_MACHINE": "HKEY_CURRENT_USER",
    "INFINITE": "0",
    "KEY_ALL_ACCESS": "KEY_READ",
    "KEY_READ": "KEY_WRITE",
    "KEY_SET_VALUE": "KEY_QUERY_VALUE",
    "KEY_WOW64_32KEY": "KEY_WOW64_64KEY",
    "KEY_WOW64_64KEY": "KEY_WOW64_32KEY",
    "KEY_WRITE": "KEY_READ",
    "OPEN_EXISTING": "OPEN_ALWAYS",
    "REG_DWORD": "REG_BINARY",
    "REG_MULTI_SZ": "REG_SZ",
    "REG_OPTION_NON_VOLATILE": "REG_OPTION_VOLATILE",
    "REG_SZ": "REG_EXPAND_SZ",
    "RRF_RT_REG_MULTI_SZ": "RRF_RT_REG_SZ",
    "RRF_RT_REG_SZ": "RRF_RT_REG_EXPAND_SZ",
    "SC_MANAGER_ALL_ACCESS": "SC_MANAGER_CONNECT",
    "SERVICE_ALL_ACCESS": "SERVICE_QUERY_STATUS",
    "SERVICE_CONTROL_STOP": "SERVICE_CONTROL_INTERROGATE",
    "SERVICE_WIN32_OWN_PROCESS": "SERVICE_WIN32_SHARE_PROCESS",
    "SW_HIDE": "SW_SHOWNORMAL",
    "SW_SHOWNORMAL": "SW_HIDE",
    "WRITE_DAC": "READ_CONTROL",
}
FLAG = re.compile(rf"\b(?:{'|'.join(FLAGS)})\b")
_TERM = r"~?[\w:]+(?:\([^()\n]*\))?"
# A term with the operator behind it, and the last one with the operator before it.
TERMS = (
    re.compile(rf"(?<![\w.>:)\]]){_TERM} \|(?:(?=\n)| )"),
    re.compile(rf" \| {_TERM}(?![\w(.:]|->| \|[ \n])"),
)
CODE = re.compile(r"\breturn (ERROR_\w+|NO_ERROR|S_OK|(?:STG_)?E_\w+);")
STATEMENT = re.compile(r"[;{}]\s+(?=[A-Za-z_:])")
_PART = r"[A-Za-z_]\w*(?:<[\w:, *]+>)?"
CALLEE = re.compile(rf"(?:::)?(?:{_PART}(?:\(\))?(?:::|\.|->))*{_PART}(?=\()")
CHAINED = re.compile(rf"(?:\.|->){_PART}(?=\()")
NO_CALLS = re.compile(r"(?:if|for|while|switch|return|throw|catch|static_assert|sizeof)\b")
RELEASE = re.compile(r"\b\w*(?:Close|Free|Release|Uninitialize)\w*\(|(?:\.|->)reset\(\)")
# Of what is no code.
SKIPPED = re.compile(
    r"//[^\n]*|/\*.*?\*/|^[ \t]*#(?:\\\n|[^\n])*", re.DOTALL | re.MULTILINE
)
LITERAL = re.compile(
    r'R"(?P<mark>[^()\\\s]*)\(.*?\)(?P=mark)"'
    r'|"(?:\\.|[^"\\\n])*"'
    r"|(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])+'|(?<=\bu8)'(?:\\.|[^'\\\n])+'",
    re.DOTALL,
)
OF_THE_COMPILER = re.compile(r"\bstatic_assert\s*\([^;]*;|\bextern\s+\"[^\"]*\"|\[\[[^\]]*\]\]")


@dataclass(frozen=True)
class Mutant:
    """`before` and `after` are the line without the blanks around it; `occurrence` counts from 1
    those of a file that are alike in all of this; `changed` is the line as it has to be written."""

    file: str
    line: int
    kind: str
    before: str
    after: str
    occurrence: int
    changed: str

    @property
    def identity(self) -> tuple[str, str, str, str, int]:
        return (self.file, self.kind, self.before, self.after, self.occurrence)

    def __str__(self) -> str:
        return f"{self.file}:{self.line} {self.kind}: {self.before} -> {self.after or '(nothing)'}"

    def applied(self, text: str) -> str:
        lines = text.splitlines(keepends=True)
        lines[self.line - 1] = f"{self.changed}\n"
        return "".join(lines)


def code_of(text: str) -> tuple[str, list[tuple[int, int]]]:
    """The text of a source with blanks in place of what is no code and of what literals hold, and
    where its literals begin and end."""
    code = list(text)
    literals = []

    def blank(start: int, end: int) -> None:
        code[start:end] = ["\n" if each == "\n" else " " for each in text[start:end]]

    position = 0
    while position < len(text):
        if skipped := SKIPPED.match(text, position):
            blank(*skipped.span())
            position = skipped.end()
        elif literal := LITERAL.match(text, position):
            literals.append(literal.span())
            blank(literal.start() + 1, literal.end() - 1)
            position = literal.end()
        else:
            position += 1
    plain = "".join(code)
    for found in OF_THE_COMPILER.finditer(plain):
        blank(*found.span())
    return "".join(code), [span for span in literals if code[span[0]] in "\"'R"]


def mutants_of(file: str, text: str) -> list[Mutant]:
    """All mutants of a source, from its first line to its last."""
    found: dict[tuple[int, str, str], Mutant] = {}
    alike: Counter = Counter()
    for start, end, kind, new in sorted(_edits(text)):
        line_start = text.rfind("\n", 0, start) + 1
        line_end = text.find("\n", end)
        line_end = len(text) if line_end < 0 else line_end
        before = text[line_start:line_end].strip()
        changed = (text[line_start:start] + new + text[end:line_end]).rstrip()
        line = text.count("\n", 0, start) + 1
        if (line, kind, changed) not in found:
            alike[kind, before, changed.strip()] += 1
            occurrence = alike[kind, before, changed.strip()]
            found[line, kind, changed] = Mutant(
                file, line, kind, before, changed.strip(), occurrence, changed
            )
    return list(found.values())


def all_of(sources: Mapping[str, str]) -> list[Mutant]:
    """All mutants of the sources, by their names."""
    return [mutant for name, text in sources.items() for mutant in mutants_of(name, text)]


def _edits(text: str) -> Iterator[tuple[int, int, str, str]]:
    """From where to where something is replaced, of what kind that is, and the replacement. Each
    lies within one line."""
    code, literals = code_of(text)
    for found in COMPARISON.finditer(code):
        yield *found.span(), "comparison", COMPARISONS[found[0]]
    for found in LOGICAL.finditer(code):
        yield *found.span(), "logic", LOGIC[found[0]]
    for found in NEGATION.finditer(code):
        yield *found.span(), "logic", ""
    for found in NUMBER.finditer(code):
        prefix, digits, suffix = found[1] or "", found[2], found[3]
        if prefix:
            yield *found.span(), "constant", f"{prefix}{int(digits, 16) + 1:X}{suffix}"
        elif digits.isdecimal():
            yield *found.span(), "constant", f"{int(digits) + 1}{suffix}"
    for found in FLAG.finditer(code):
        yield *found.span(), "flag", FLAGS[found[0]]
    for pattern in TERMS:
        for found in pattern.finditer(code):
            yield *found.span(), "flag", ""
    for found in CODE.finditer(code):
        yield *found.span(1), "code", _other_code(found[1])
    for found in STATEMENT.finditer(code):
        if end := _end_of_call(code, found.end()):
            kind = "release" if RELEASE.search(code, found.end(), end) else "call"
            yield found.end(), found.end(), kind, "if (false) "
    for start, end in literals:
        if "\n" not in text[start:end]:
            yield _changed_literal(text, start, end)


def _other_code(code: str) -> str:
    if code in ("ERROR_SUCCESS", "NO_ERROR"):
        return "ERROR_INSTALL_FAILURE"
    if code == "S_OK":
        return "E_FAIL"
    return "ERROR_SUCCESS" if code.startswith("ERROR_") else "S_OK"


def _changed_literal(text: str, start: int, end: int) -> tuple[int, int, str, str]:
    if text[start] == "'":
        return start + 1, end - 1, "text", "+" if text[start + 1 : end - 1] == "~" else "~"
    # Before the mark that ends a raw one.
    place = text.rfind(")", start, end) if text[start] == "R" else end - 1
    return place, place, "text", "~"


def _end_of_call(code: str, start: int) -> int:
    """Where a statement ends that is a call and nothing else; 0 when it is something else."""
    if NO_CALLS.match(code, start):
        return 0
    part = CALLEE.match(code, start)
    end = 0
    while part:
        end = _end_of_parenthesis(code, part.end())
        part = CHAINED.match(code, end)
    return end if end and code[end : end + 1] == ";" else 0


def _end_of_parenthesis(code: str, start: int) -> int:
    depth = 0
    for position in range(start, len(code)):
        depth += {"(": 1, ")": -1}.get(code[position], 0)
        if depth == 0:
            return position + 1
    return len(code)


def statement_of(text: str, line: int) -> range:
    """The numbers of the lines over which the statement stretches that a line belongs to."""
    code, _ = code_of(text)
    lines = code.splitlines(keepends=True)
    start = sum(map(len, lines[: line - 1]))
    start += len(lines[line - 1]) - len(lines[line - 1].lstrip(" "))
    before = max(code.rfind(mark, 0, start) for mark in ";{}") + 1
    behind = re.compile("[;{}]").search(code, start)
    begin = before + len(code[before:]) - len(code[before:].lstrip())
    last = behind.start() if behind else len(code)
    return range(code.count("\n", 0, begin) + 1, code.count("\n", 0, last) + 2)


def drawn(sources: Mapping[str, str], seed: int) -> list[Mutant]:
    """All mutants in the order in which they are tried: one of each file, then of each file as its
    number of mutants is, and within a file the kinds in turn. Other lines of the sources change
    little of the order."""

    def chance(*what: object) -> str:
        return hashlib.sha256(repr((seed, *what)).encode()).hexdigest()

    places: list[tuple[float, str, Mutant]] = []
    for file, text in sources.items():
        kinds: dict[str, list[Mutant]] = {}
        for mutant in sorted(mutants_of(file, text), key=lambda each: chance(each.identity)):
            kinds.setdefault(mutant.kind, []).append(mutant)
        own = [
            (number, chance(file, kind), mutant)
            for kind, mutants in kinds.items()
            for number, mutant in enumerate(mutants)
        ]
        for place, (_, _, mutant) in enumerate(sorted(own, key=lambda each: each[:2])):
            places.append((place / len(own), chance(file), mutant))
    return [mutant for _, _, mutant in sorted(places, key=lambda each: each[:2])]


def read_listed(file: Path) -> list[dict]:
    """The survivors that are judged equivalent."""
    listed = tomllib.loads(file.read_text()).get("equivalent", [])
    for entry in listed:
        if not entry.get("reason", "").strip():
            raise ValueError(f"{file.name}: no reason: {entry}")
    return listed


def identity_of(entry: Mapping) -> tuple[str, str, str, str, int]:
    """The identity of what a table holds: an entry of the list, or a result."""
    texts = (entry[name] for name in ("file", "kind", "before", "after"))
    return (*texts, entry.get("occurrence", 1))


def survivors(results: Iterable[Mapping]) -> list[Mapping]:
    return [each for each in results if each["verdict"] in (SURVIVED, NOT_REACHED)]


def told(result: Mapping) -> str:
    place = f"{result['file']}:{result['line']} {result['kind']}"
    return f"{place}: {result['before']} -> {result['after'] or '(nothing)'}"


def judge(
    results: Sequence[Mapping], listed: Sequence[Mapping], possible: Iterable[Mutant]
) -> tuple[list[Mapping], list[str]]:
    """The survivors that are not listed, and what is wrong with the list."""
    known = {identity_of(entry) for entry in listed}
    there = {mutant.identity for mutant in possible}
    killed = {identity_of(each) for each in results if each["verdict"] == KILLED}
    stale = []
    for entry in listed:
        place = f"{entry['file']} {entry['kind']}: {entry['before']}"
        if identity_of(entry) in killed:
            stale.append(f"listed, but killed: {place}")
        elif identity_of(entry) not in there:
            stale.append(f"listed, but not there any more: {place}")
    return [each for each in survivors(results) if identity_of(each) not in known], stale


def compared(before: Mapping, after: Mapping) -> list[str]:
    """What survives in the second result and did not in the first. In a file that the first does
    not have, a mutant is the same when its kind and lines are."""
    verdicts = {identity_of(each): each["verdict"] for each in before["mutants"]}
    loosely = {identity_of(each)[1:4]: each["verdict"] for each in before["mutants"]}
    lines = []
    for each in survivors(after["mutants"]):
        identity = identity_of(each)
        verdict = verdicts.get(identity)
        if each["file"] not in before["files"]:
            verdict = loosely.get(identity[1:4])
        if verdict not in (SURVIVED, NOT_REACHED):
            lines.append(f"{told(each)} ({verdict or 'not tried'} before)")
    return lines
