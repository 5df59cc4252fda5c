"""What a package's author is told of an export is the same wherever it stands.

The table of actions tells it; what is written from the table is current, and the comments of the
headers, the prose of the reference and the code itself say nothing else.
"""

import re
import subprocess
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, fields, replace
from functools import cached_property
from pathlib import Path
from typing import Callable, Iterable

import pytest

import generate
from installer import paths
from installer.actions import Action, DataKey, Place, Result, actions
from installer.package import COMPANION, table

LIBRARY_SOURCES = paths.ROOT / "Utilities/CustomActions/Halvard_CA"
INCLUDE = generate.INCLUDE
NAMESPACE = generate.WIX_3.namespace

DOCUMENTS = sorted((paths.ROOT / "docs").glob("*.md"))
README = paths.ROOT / "README.md"
RELEASE_README = paths.ROOT / "docs/release/README.md"

# The parts of a section of the reference, in their order.
PARTS = ("Schedule", "Data", "Reads", "Effects", "Results", "Throws", "Take care")
# Running out of memory is told of all actions at once.
EXCEPTION = re.compile(r"\b(RegKeyError|std::(?:filesystem::)?\w+_error|std::out_of_range)\b")
KEY_OF_DATA = re.compile(r"\b([A-Z]\w*=)(?=[^\w\"]|$)")
REGISTRY_KEY = re.compile(r"(?:SOFTWARE|SYSTEM)\\[^\"`]+", re.IGNORECASE)


@dataclass(frozen=True)
class Told:
    """What one source tells of an export; None is what the source does not tell."""

    schedule: tuple[str, bool, str] | None = None
    results: frozenset[str] | None = None
    data_keys: frozenset[str] | None = None
    exceptions: frozenset[str] | None = None


@dataclass(frozen=True)
class Sources:
    """The table, and the texts that tell of the exports without being written from it."""

    table: tuple[Action, ...]
    headers: str
    reference: str
    code: str

    @cached_property
    def sections(self) -> dict[str, str]:
        """The sections of the reference that tell of one export each."""
        pieces = re.split(r"^### (.*)\n", self.reference, flags=re.MULTILINE)
        return {
            name: re.split(r"^## ", text, flags=re.MULTILINE)[0]
            for name, text in zip(pieces[1::2], pieces[2::2])
        }

    def in_table(self) -> dict[str, Told]:
        return {
            action.name: Told(
                (
                    action.execution,
                    action.execution == "immediate" or action.impersonate,
                    action.return_attribute,
                ),
                frozenset(str(result.value) for result in action.results),
                frozenset(f"{key.name}=" for key in action.data),
                frozenset(action.exceptions),
            )
            for action in self.table
        }

    def in_headers(self) -> dict[str, Told]:
        pattern = r"((?:^///.*\n)+)^UINT __stdcall (\w+)\(MSIHANDLE session\);"
        return {
            name: _of_comment(re.sub(r"\s*\n/// ?", " ", comment))
            for comment, name in re.findall(pattern, self.headers, re.MULTILINE)
        }

    @cached_property
    def bodies(self) -> dict[str, str]:
        """What the exports do, as far as it stands in their own functions."""
        pattern = r"^UINT __stdcall (\w+)\(MSIHANDLE[^)]*\) \{\n(.*?)^\}"
        return dict(re.findall(pattern, self.code, re.MULTILINE | re.DOTALL))

    def in_code(self) -> dict[str, Told]:
        definition = r"^\w[^\n;={}#]*?\b(\w+)\([^{};]*\) (?:noexcept )?\{\n(.*?)^\}"
        keys = {
            name: set(re.findall(r'\b\w+\(data, L"(\w+=)"\)', body))
            for name, body in re.findall(definition, self.code, re.MULTILINE | re.DOTALL)
        }
        # Of what an export calls, too: some read the same items.
        return {
            name: Told(
                data_keys=frozenset().union(
                    keys.get(name, ()),
                    *(keys.get(called, ()) for called in re.findall(r"\b(\w+)\(", body)),
                )
            )
            for name, body in self.bodies.items()
        }


def _of_comment(text: str) -> Told:
    schedule = re.search(
        r"\b(Immediate|Deferred) action,( as the user who installs,)? result (check|ignore)e?d\b",
        text,
    )
    results = re.search(r"\bResults: ((?:\d+|other)(?:, (?:\d+|other))*)[.,]", text)
    inputs = text.partition("Inputs: ")[2].partition("Results:")[0]
    of_data = inputs.partition("Further inputs:")[0]
    return Told(
        schedule
        and (
            schedule[1].lower(),
            schedule[1] == "Immediate" or schedule[2] is not None,
            schedule[3],
        ),
        results and frozenset(re.findall(r"\b(\d+|other)\b", results[1])),
        frozenset(KEY_OF_DATA.findall(of_data)),
        frozenset(EXCEPTION.findall(text.partition("Throws")[2])),
    )


def disagreements(sources: Sources) -> list[str]:
    """One line for everything that the sources do not tell alike."""
    exports = [action.name for action in sources.table]
    told = {
        "table": sources.in_table(),
        "headers": sources.in_headers(),
        "code": sources.in_code(),
    }
    found = [
        f"{where}: {name} is {'missing' if name in exports else 'no export'}"
        for where, tellers in told.items()
        for name in sorted(tellers.keys() ^ set(exports))
    ]
    for name in exports:
        for what in ("schedule", "results", "data_keys", "exceptions"):
            answers = {where: getattr(tellers.get(name, Told()), what) for where, tellers in told.items()}
            if what != "data_keys":
                del answers["code"]
            if None in answers.values() or len(set(answers.values())) > 1:
                found.append(f"{name}: {what} {answers}")
    return found + _disagreements_of_sections(sources) + _disagreements_of_names(sources)


def _disagreements_of_sections(sources: Sources) -> list[str]:
    found = []
    if list(sources.sections) != [action.name for action in sources.table]:
        found.append("sections of the reference: not the exports in their order")
    for action in sources.table:
        section = sources.sections.get(action.name, "")
        prose = re.sub(r"^- \*\*Throws:.*?(?=^- )", "", section, flags=re.MULTILINE | re.DOTALL)
        parts = re.findall(r"^- \*\*([\w ]+):\*\*", section.partition("```")[0], re.MULTILINE)
        if tuple(parts) != PARTS:
            found.append(f"{action.name}: the lines of its section are {parts}")
        keys = re.findall(r"`(HK(?:LM|CU)\\[^`]*)`", prose)
        if as_names(keys) - as_names(action.registry):
            found.append(f"{action.name}: registry keys of the section that the table lacks")
    return found


def _disagreements_of_names(sources: Sources) -> list[str]:
    """What the code names of the registry and of the session, and the table too."""
    # A literal may go on in the next line.
    literals = re.findall(r'L"((?:[^"\\\n]|\\.)*)"', re.sub(r'"\s*\n\s*L"', "", sources.code))
    plain = [literal.replace("\\\\", "\\") for literal in literals]
    in_code = as_names([text for text in plain if REGISTRY_KEY.fullmatch(text)])
    in_table = as_names([key[5:] for action in sources.table for key in action.registry])
    properties = {name for action in sources.table for name in action.properties}
    return [
        *(f"registry key {key}: code or table lacks it" for key in in_code ^ in_table),
        *(f"property {name}: the code does not ask for it" for name in properties - set(plain)),
    ]


def as_names(keys: Iterable[str]) -> set[str]:
    """Keys are told apart as the registry does: not by upper and lower case."""
    return {key.rstrip("\\").upper() for key in keys}


@pytest.fixture(scope="module")
def sources() -> Sources:
    def joined(*suffixes: str) -> str:
        files = sorted(file for file in LIBRARY_SOURCES.rglob("*") if file.suffix in suffixes)
        return "\n".join(file.read_text() for file in files)

    return Sources(
        table=tuple(actions()),
        headers=joined(".h"),
        reference=generate.REFERENCE.read_text(),
        code=joined(".h", ".cpp"),
    )


def test_all_sources_tell_the_same_of_every_export(sources):
    assert "\n".join(disagreements(sources)) == ""
    assert len(sources.table) == 38


@pytest.mark.parametrize(
    "source, old, new, complaint",
    [
        ("headers", "UINT __stdcall UnregisterDLL(", "UINT __stdcall UnRegisterDLL(",
         "headers: UnregisterDLL is missing"),
        ("headers", "Results: 0, 1612.", "Results: 0.", "LaunchedFromMIM: results"),
        ("headers", "Deferred action, as the user who installs, result", "Deferred action, result",
         "CreateBenchMarkRunOnceSchTask: schedule"),
        ("headers", "items ServiceName= (the", "items Service= (the",
         "DeleteServiceIfBinaryIsInDirectory: data_keys"),
        ("headers", "std::length_error (\"list too long\") for a version", "a version",
         "CheckForClients: exceptions"),
        ("reference", "### LaunchPV\n", "### LaunchPivot\n", "not the exports in their order"),
        ("reference", r"`HKLM\SOFTWARE\ZenvoBranding`", r"`HKLM\SOFTWARE\Branding`",
         "DeleteandRetainValues: registry keys"),
        ("reference", "- **Reads:** the configuration", "- **Looks at:** the configuration",
         "DeleteServiceIfBinaryIsInDirectory: the lines"),
        ("code", 'GetDataValue(data, L"DirectoryOfBinary=")', 'GetDataValue(data, L"Directory=")',
         "DeleteServiceIfBinaryIsInDirectory: data_keys"),
        ("code", '(data, L"CommandToLaunch=")', '(data, L"Command=")', "PostInstallUPA: data_keys"),
        ("code", r'L"SOFTWARE\\Qorta"', r'L"SOFTWARE\\Quorta"', r"registry key SOFTWARE\QORTA"),
        ("code", 'L"DISABLEANALYTICS"', 'L"DISABLE"', "property DISABLEANALYTICS"),
    ],
)
def test_a_source_that_tells_something_else_is_found(sources, source, old, new, complaint):
    text = getattr(sources, source)
    assert old in text
    broken = replace(sources, **{source: text.replace(old, new, 1)})
    assert any(complaint in line for line in disagreements(broken)), disagreements(broken)


WRITINGS: dict[str, Callable[[list[Action]], object]] = {
    "definition": generate.definition,
    "include": lambda rows: generate.include(rows, generate.WIX_3),
    "include of WiX 4": lambda rows: generate.include(rows, generate.WIX_4),
    "index": generate.index,
    "exports": generate.exports,
    "section": lambda rows: [generate.section(row, {}) for row in rows],
    "runner": generate.runner_table,
}
INCLUDES = {"include", "include of WiX 4"}
# A change of one field, or of some that go together, and the writings that show it.
SHOWN_IN: list[tuple[dict[str, object], set[str]]] = [
    ({"name": "Other"}, {"definition", "index", "exports", "runner", *INCLUDES}),
    ({"subsystem": "launch"}, {"definition", "index", "runner", *INCLUDES}),
    ({"does": "Other."}, {"exports", "section", "runner"}),
    ({"execution": "immediate"}, {"exports", "section", "runner", *INCLUDES}),
    ({"impersonate": True}, {"exports", "section", "runner", *INCLUDES}),
    ({"return_attribute": "check"}, {"exports", "section", "runner", *INCLUDES}),
    ({"why": "Other."}, {"runner", *INCLUDES}),
    ({"schedule": "otherwise."}, {"section", "runner"}),
    ({"place": Place("removal", ("InstallFiles",))}, {"runner"}),
    ({"data": (DataKey("Other", True),)}, {"section", "runner"}),
    ({"whole_data": "other."}, {"section", "runner"}),
    ({"results": (Result(259, "other."),)}, {"exports", "section", "runner"}),
    ({"undone_by": "LaunchPV"}, {"section", "runner", *INCLUDES}),
    ({"as_user": "Other."}, {"section", "runner", *INCLUDES}),
    ({"exceptions": ("RegKeyError",), "throws": "`RegKeyError`."}, {"section", "runner"}),
    ({"properties": ("OTHER",)}, {"runner"}),
    ({"registry": (r"HKLM\OTHER",)}, {"runner"}),
]


def test_every_field_of_the_table_is_changed_once():
    changed = [name for change, _ in SHOWN_IN for name in change]
    assert sorted(changed) == sorted(field.name for field in fields(Action))


@pytest.mark.parametrize(
    "change, shown_in", SHOWN_IN, ids=[next(iter(change)) for change, _ in SHOWN_IN]
)
def test_a_change_of_the_table_shows_in_what_is_written_from_it(sources, change, shown_in):
    row = next(action for action in sources.table if action.name == "LaunchPV")
    other = replace(row, **change)
    assert {name for name, write in WRITINGS.items() if write([row]) != write([other])} == shown_in


def test_a_section_is_written_anew_from_the_table(sources):
    row = next(action for action in sources.table if action.name == "UnregisterDLL")
    changed = replace(
        row,
        does="Does something else.",
        data=(DataKey("Other", True),),
        results=(Result(259, "never."),),
        throws="`RegKeyError` now and then.",
    )
    section = replace(
        sources, reference=generate.reference([changed], sources.reference)
    ).sections["UnregisterDLL"]
    assert section.startswith("\nDoes something else.\n\n- **Schedule:** deferred,")
    assert "- **Data:** `Other=`.\n- **Reads:** nothing else.\n" in section
    assert "- **Results:**\n  - `259`: never.\n- **Throws:** `RegKeyError` now and then.\n" in section
    assert generate.reference(list(sources.table), sources.reference) == sources.reference


@pytest.mark.parametrize("file", generate.generated(), ids=lambda file: file.name)
def test_what_is_written_from_the_table_is_current(file):
    assert file.read_text() == generate.generated()[file], "./run generate writes it anew"
    assert "Written by ./run generate from " in file.read_text().splitlines()[0]


@pytest.mark.parametrize("text", ["two\nlines", "caf\u00e9", "\t"])
def test_a_text_that_is_no_literal_of_a_program_is_refused(text):
    with pytest.raises(ValueError):
        generate.wide(text)


def test_a_text_for_a_console_has_no_marks_for_code():
    assert generate.plain("`A` is ` 1` or `b c`.") == 'A is " 1" or b c.'
    assert generate.wide(r'a\b "c"') == r'L"a\\b \"c\""'


def declarations(text: str, namespace: str, binary: str) -> list[dict[str, str]]:
    """The custom actions that an include file declares, the Binary under the same name for all."""
    found = []
    for element in ElementTree.fromstring(text).iter(f"{{{namespace}}}CustomAction"):
        attributes = dict(element.attrib)
        attributes["Binary"] = attributes.pop(binary)
        found.append(attributes)
    return found


def test_both_languages_of_packages_declare_the_same(sources):
    older, newer = (
        declarations(file.read_text(), language.namespace, language.binary)
        for file, language in (
            (generate.INCLUDE, generate.WIX_3),
            (generate.INCLUDE_OF_WIX_4, generate.WIX_4),
        )
    )
    assert older == newer
    expected = []
    for action in sources.table:
        expected.append((action.name, action.name))
        if action.as_user:
            expected.append((action.once_more, action.name))
        if action.undone_by:
            expected.append((action.undoing, action.undone_by))
    assert [(each["Id"], each["DllEntry"]) for each in older] == expected
    assert {each["Binary"] for each in older} == {"Halvard_CA"}


def test_what_takes_back_is_declared_for_rollback_and_what_is_the_users_as_the_user(sources):
    declared = {
        each["Id"]: (each["Execute"], each["Impersonate"], each["Return"])
        for each in declarations(INCLUDE.read_text(), NAMESPACE, "BinaryKey")
    }
    undoing = {action.undoing: action for action in sources.table if action.undone_by}
    assert {name for name, (kind, *_) in declared.items() if kind == "rollback"} == undoing.keys()
    assert len(undoing) == 5
    for name in undoing:
        assert declared[name] == ("rollback", "no", "ignore")
    assert declared["InstallContextMenuMSIX"] == ("deferred", "no", "ignore")
    assert declared["InstallContextMenuMSIXAsUser"] == ("deferred", "yes", "ignore")


IMMEDIATE, SETTING, AS_THE_SYSTEM, RESULT_IGNORED = 1, 51, 2048, 64


def test_immediate_actions_are_impersonated_where_wixl_compiles(sources, tmp_path):
    """It takes what does not say so for an action without impersonation."""
    elements = [each for example in fragments(sources).values() for each in example]
    built_sequence(elements, tmp_path)
    types = {row[0]: int(row[1]) for row in table(tmp_path / "examples.msi", "CustomAction")}
    for action in sources.table:
        if action.execution == "immediate":
            assert types[action.name] & ~RESULT_IGNORED == IMMEDIATE, action.name
        elif not action.impersonate:
            assert types[action.name] & AS_THE_SYSTEM, action.name
    setting = [element.attrib["Id"] for element in elements if "Property" in element.attrib]
    assert len(setting) > 5
    assert {types[name] for name in setting} == {SETTING}


def setters(text: str) -> list[str]:
    """The declarations of actions that set a property."""
    return [
        declared
        for declared in re.findall(r"<CustomAction\b[^>]*>", text)
        if re.search(r"\bProperty=", declared)
    ]


@pytest.mark.parametrize(
    "file",
    [*sorted((paths.ROOT / "package").glob("*.wx?")), *DOCUMENTS, README, RELEASE_README],
    ids=lambda file: "/".join(file.parts[-2:]),
)
def test_whoever_sets_data_says_as_whom_and_takes_no_public_folder(file):
    for declared in setters(file.read_text()):
        assert 'Impersonate="yes"' in declared, declared
        # The data of LaunchInstallProxyPV in the sample is a folder of which nothing is deleted.
        if file != COMPANION or "LaunchInstallProxyPV" not in declared:
            assert re.findall(r"\[[A-Z]+\]", declared) in ([], ["[REMOVE]"]), declared


@pytest.mark.parametrize(
    "fault",
    [
        {"execution": "defered"},
        {"return_attribute": "ignored"},
        {"place": Place("upgrade")},
        {"execution": "immediate", "data": (DataKey("A", True),)},
        {"exceptions": ("RegKeyError",)},
        {"results": ()},
        {"results": (Result("other", "a number."),)},
        {"results": (Result("othr", "a number.", "another number"),)},
        {"data": (DataKey("A", True),), "whole_data": "a folder."},
        {"execution": "immediate", "undone_by": "LaunchPV"},
        {"execution": "immediate", "as_user": "why."},
        {"impersonate": True, "as_user": "why."},
    ],
)
def test_a_row_that_contradicts_itself_is_refused(sources, fault):
    with pytest.raises(ValueError):
        replace(sources.table[6], **fault)


def test_an_action_stands_once_in_the_table(tmp_path):
    table = paths.ACTIONS.read_text()
    head, *rows = table.split("[[action]]")
    doubled = tmp_path / "actions.toml"
    doubled.write_text("[[action]]".join([head, *rows, rows[0]]))
    with pytest.raises(ValueError, match="twice"):
        actions(doubled)


def test_an_action_is_undone_by_one_of_the_table(tmp_path):
    other = tmp_path / "actions.toml"
    text = paths.ACTIONS.read_text()
    other.write_text(text.replace("undone_by = 'UnregisterDLL'", "undone_by = 'BlockLaunch'"))
    with pytest.raises(ValueError, match="SetPermissionsRegisterDLL: undone by"):
        actions(other)


def test_only_results_that_the_installer_takes_for_what_they_are_get_checked(sources):
    for action in sources.table:
        results = [result.value for result in action.results]
        if 0 not in results or "other" in results:
            assert action.return_attribute == "ignore", (
                f"{action.name} ends an installation with {results}"
            )


def example_of(section: str) -> tuple[str, str]:
    """The language and the text of a section's example."""
    ((language, text),) = re.findall(r"^```(\w*)\n(.*?)^```$", section, re.MULTILINE | re.DOTALL)
    return language, text


def fragments(sources: Sources) -> dict[str, list[ElementTree.Element]]:
    """The elements of the examples that are parts of a package."""
    examples = {name: example_of(section) for name, section in sources.sections.items()}
    return {
        name: list(ElementTree.fromstring(f'<Product xmlns="{NAMESPACE}">{text}</Product>'))
        for name, (language, text) in examples.items()
        if language == "xml"
    }


def scheduled_in(elements: list[ElementTree.Element]) -> list[dict[str, str]]:
    """The attributes of what the elements put into a sequence."""
    tag = f"{{{NAMESPACE}}}Custom"
    return [custom.attrib for element in elements for custom in element.iter(tag)]


def test_every_example_is_one_of_its_action(sources):
    in_packages = fragments(sources)
    for name, section in sources.sections.items():
        if name not in in_packages:
            assert example_of(section)[1].startswith(f"halvard_run {name}"), name
            continue
        customs = [custom["Action"] for custom in scheduled_in(in_packages[name])]
        setters = {
            element.attrib["Id"]: element
            for element in in_packages[name]
            if element.tag == f"{{{NAMESPACE}}}CustomAction"
        }
        once_more = [each.once_more for each in sources.table if each.name == name and each.as_user]
        assert customs == [*setters, name, *once_more]
        keys = sources.in_table()[name].data_keys
        for setter in setters.values():
            assert setter.attrib["Property"] == name
            items = setter.attrib["Value"].split(";") if keys else []
            assert {item.partition("=")[0] + "=" for item in items} == keys, name
        assert len(setters) == (1 if keys or name == "LaunchInstallProxyPV" else 0), name


def built_sequence(elements: list[ElementTree.Element], folder: Path) -> dict[str, int]:
    """The sequence of a package that holds the elements, by the names of its actions."""
    parts = [ElementTree.tostring(element, encoding="unicode") for element in elements]
    source = folder / "examples.wxs"
    source.write_text(
        f'<Wix xmlns="{NAMESPACE}"><Product Id="*" Name="Examples" Manufacturer="Examples"'
        ' UpgradeCode="6B1D6F0E-6D0B-4C39-9E52-0B7C2B8F7C11" Version="1.0.0" Language="1033">'
        '<Package InstallerVersion="500" InstallScope="perMachine" Compressed="yes"/>'
        '<Media Id="1" Cabinet="a.cab" EmbedCab="yes"/>'
        '<Binary Id="Halvard_CA" SourceFile="a.dll"/><?include halvard_actions.wxi ?>'
        + "".join(parts)
        + '<Directory Id="TARGETDIR" Name="SourceDir"><Component Id="C"'
        ' Guid="0D2C8C5B-7A86-4A7B-9D56-1C6E8B6D1F27"><File Id="F" Source="a.dll"/>'
        '<RegistryValue Root="HKLM" Key="Software" Name="B" Type="string" Value="C"/>'
        '</Component></Directory><Feature Id="A" Level="1"><ComponentRef Id="C"/></Feature>'
        "</Product></Wix>"
    )
    (folder / INCLUDE.name).write_bytes(INCLUDE.read_bytes())
    (folder / "a.dll").write_bytes(b"MZ")
    package = folder / "examples.msi"
    built = subprocess.run(
        ["wixl", "--arch", "x64", "-o", package.name, source.name],
        cwd=folder, capture_output=True, text=True,
    )
    assert built.returncode == 0, built.stderr
    rows = table(package, "InstallExecuteSequence")
    return {name: int(number) for name, _, number in rows}


def setting_in(elements: list[ElementTree.Element]) -> list[str]:
    return [each.attrib["Id"] for each in elements if each.tag == f"{{{NAMESPACE}}}CustomAction"]


def test_the_examples_together_make_a_package(sources, tmp_path):
    examples = fragments(sources)
    standard = built_sequence([], tmp_path)
    elements = [element for example in examples.values() for element in example]
    customs = {custom["Action"]: custom for custom in scheduled_in(elements)}
    assert customs.keys() <= built_sequence(elements, tmp_path).keys()

    # Not the numbers of the compiler, which may put an action far from the one that it is tied to.
    # What is tied to an action of the package stands nearer to it than that one to its own.
    def number_and_room(name: str) -> tuple[float, float]:
        if name in standard:
            return standard[name], 1.0
        custom = customs[name]
        if "Sequence" in custom:
            return float(custom["Sequence"]), 1.0
        before = "Before" in custom
        beside, room = number_and_room(custom["Before" if before else "After"])
        return beside + (-room if before else room) / 2, room / 2

    def number(name: str) -> float:
        return number_and_room(name)[0]

    for name, example in examples.items():
        before = [number(custom["Action"]) for custom in scheduled_in(example)
                  if custom["Action"] in (name, *setting_in(example))]
        assert max(before) == number(name), f"{name}: its data comes too late"
        if sources.in_table()[name].schedule[0] == "deferred":
            begin, end = standard["InstallInitialize"], standard["InstallFinalize"]
            assert begin < number(name) < end, name


def test_the_order_that_the_reference_advises_is_the_one_of_the_sample_package(sources):
    sequence = {
        custom["Action"]: int(custom["Sequence"])
        for file in (COMPANION, COMPANION.with_name("Agent.wxi"))
        for custom in scheduled_in([ElementTree.parse(file).getroot()])
    }
    advice = sources.reference.partition("## Order in a package\n")[2].partition("\n## ")[0]
    advised = set()
    for order in re.split(r"^(?:Installation|Removal):$", advice, flags=re.MULTILINE)[1:]:
        names = [name for name in re.findall(r"`(\w+)`", order) if name in sources.sections]
        assert names == sorted(names, key=sequence.__getitem__)
        advised |= set(names)
    assert advised == sources.sections.keys()


# On Windows, assumed: the sections say why. With what cannot stand before them.
LAST_ON_REMOVAL = {"CheckForClients", "PreInstallUPA"}
THROWING_AS_A_RULE = {
    "DeletePVINSTALLDIRFolder": {"DeleteServiceIfBinaryIsInDirectory", *LAST_ON_REMOVAL},
    "DeleteServiceIfBinaryIsInDirectory": LAST_ON_REMOVAL,
    "AfterInstallUPA": {"DisabelAnalyticsKey"},
}


@pytest.mark.parametrize("name", THROWING_AS_A_RULE)
def test_nothing_that_has_to_run_stands_behind_what_throws_as_a_rule(sources, name):
    sequence = {
        custom["Action"]: int(custom["Sequence"])
        for file in (COMPANION, COMPANION.with_name("Agent.wxi"))
        for custom in scheduled_in([ElementTree.parse(file).getroot()])
    }
    session = {"AfterInstallUPA": "installation"}.get(name, "removal")
    behind = {
        action.name
        for action in sources.table
        if action.place.on in (session, "any") and sequence[action.name] > sequence[name]
    }
    assert behind == THROWING_AS_A_RULE[name]
    exceptions = sources.reference.partition("- **Exceptions.**")[2].partition("\n- **")[0]
    told = exceptions.partition("throw as a rule")[2]
    assert [each for each in (name, *behind) if f"`{each}`" not in told] == []


def test_the_reference_names_the_numbers_that_the_compiler_gives(sources, tmp_path):
    numbers = re.findall(r"`(\w+)` (\d{4})\b", sources.reference)
    assert len(numbers) >= 7
    standard = built_sequence([], tmp_path)
    assert numbers == [(name, str(standard[name])) for name, _ in numbers]


def test_the_architecture_tells_which_subsystem_calls_which():
    text = (paths.ROOT / "docs/architecture.md").read_text()
    table = text.partition("| Subsystem |")[2].partition("\n\n")[0]
    rows = re.findall(r"^\| (\w+) \| ([\w, ]+) \| ", table, re.MULTILINE)
    told = {caller: set(called.split(", ")) - {"nothing"} for caller, called in rows}
    included = {
        folder.name: {
            name
            for file in folder.iterdir()
            for name in re.findall(r'^#include "(\w+)/', file.read_text(), re.MULTILINE)
        }
        - {folder.name}
        for folder in LIBRARY_SOURCES.iterdir()
        if folder.is_dir()
    }
    assert told == included


def test_the_architecture_names_the_exports_that_store_their_session(sources):
    text = (paths.ROOT / "docs/architecture.md").read_text()
    sentence = re.search(r"when they begin: ([^.]*)\.", text)[1]
    storing = [name for name, body in sources.bodies.items() if "SetCurrentSession(" in body]
    assert sorted(re.findall(r"`(\w+)`", sentence), key=str.lower) == sorted(storing, key=str.lower)


def anchor(heading: str) -> str:
    """What a heading is linked by."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


@pytest.mark.parametrize("document", [README, *DOCUMENTS], ids=lambda file: file.name)
def test_links_lead_to_what_is_there(document):
    for link in re.findall(r"\]\(([^)\s]+)\)", document.read_text()):
        path, _, fragment = link.partition("#")
        target = document.parent / path if path else document
        assert target.exists(), link
        if fragment:
            headings = re.findall(r"^#+ (.*)$", target.read_text(), re.MULTILINE)
            assert fragment in map(anchor, headings), link


def test_the_readme_leads_to_every_document():
    text = README.read_text()
    assert [file.name for file in DOCUMENTS if f"](docs/{file.name})" not in text] == []
    assert len(DOCUMENTS) >= 3
