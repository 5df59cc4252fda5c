"""What a package's author is told of an export is the same wherever it stands.

The exports stand in the module definition, their declarations in the include file of the packages,
and both with results, data and exceptions in the comments of the headers, the table of the README
and the reference. Keys of CustomActionData and of the registry are those that the code names.
"""

import re
import subprocess
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, replace
from functools import cached_property
from pathlib import Path

import pytest

from installer import paths
from installer.package import COMPANION, table

LIBRARY_SOURCES = paths.ROOT / "Utilities/CustomActions/Halvard_CA"
INCLUDE = paths.PACKAGE_SOURCES / "halvard_actions.wxi"
NAMESPACE = "http://schemas.microsoft.com/wix/2006/wi"

DOCUMENTS = sorted((paths.ROOT / "docs").glob("*.md"))
README = paths.ROOT / "README.md"

# The parts of a section of the reference, in their order.
PARTS = ("Schedule", "Data", "Reads", "Effects", "Results", "Throws", "Take care")
# Running out of memory is told of all actions at once.
EXCEPTION = re.compile(r"\b(RegKeyError|std::(?:filesystem::)?\w+_error|std::out_of_range)\b")
# How results that are no fixed numbers are named in the README.
OTHER_RESULTS = ("another number", "a registry type")
KEY_OF_DATA = re.compile(r"\b([A-Z]\w*=)(?=[^\w\"]|$)")
REGISTRY_KEY = re.compile(r"(?:SOFTWARE|SYSTEM)\\[^\"`]+", re.IGNORECASE)


@dataclass(frozen=True)
class Schedule:
    """How an action is declared."""

    execution: str
    impersonated: bool
    result_ignored: bool


@dataclass(frozen=True)
class Action:
    """What one source tells of an export; None is what the source does not tell."""

    schedule: Schedule | None = None
    results: frozenset[str] | None = None
    data_keys: frozenset[str] | None = None
    exceptions: frozenset[str] | None = None


@dataclass(frozen=True)
class Sources:
    """The texts that tell of the exports."""

    definition: str
    include: str
    headers: str
    readme: str
    reference: str
    code: str

    @cached_property
    def exports(self) -> dict[str, str]:
        """The exports with the subsystem of each, in their order."""
        found = {}
        subsystem = ""
        for line in self.definition.split("EXPORTS")[1].splitlines():
            word = line.strip()
            if word.startswith(";"):
                subsystem = word.lstrip("; ")
            elif word:
                found[word] = subsystem
        return found

    @cached_property
    def sections(self) -> dict[str, str]:
        """The sections of the reference that tell of one export each."""
        pieces = re.split(r"^### (.*)\n", self.reference, flags=re.MULTILINE)
        return {
            name: re.split(r"^## ", text, flags=re.MULTILINE)[0]
            for name, text in zip(pieces[1::2], pieces[2::2])
        }

    def in_include(self) -> dict[str, Action]:
        """Of an action whose names differ nothing is told, so it counts as missing."""
        return {
            element.attrib["DllEntry"]: Action(
                Schedule(
                    element.attrib["Execute"],
                    element.attrib["Execute"] == "immediate" or element.get("Impersonate") != "no",
                    element.attrib["Return"] == "ignore",
                )
            )
            for element in ElementTree.fromstring(self.include).iter(f"{{{NAMESPACE}}}CustomAction")
            if element.attrib["Id"] == element.attrib["DllEntry"]
        }

    def in_headers(self) -> dict[str, Action]:
        pattern = r"((?:^///.*\n)+)^UINT __stdcall (\w+)\(MSIHANDLE session\);"
        return {
            name: _of_comment(re.sub(r"\s*\n/// ?", " ", comment))
            for comment, name in re.findall(pattern, self.headers, re.MULTILINE)
        }

    def in_readme(self) -> dict[str, Action]:
        found = {}
        table = self.readme.partition("| Export |")[2].partition("\n\n")[0]
        for row in re.findall(r"^\| `.*$", table, re.MULTILINE):
            names, schedule, _, results = (cell.strip() for cell in row.strip("| ").split(" | "))
            for words in OTHER_RESULTS:
                results = results.replace(words, "other")
            action = Action(_of_attributes(schedule), _codes(results))
            found |= {name: action for name in re.findall(r"`(\w+)`", names)}
        return found

    def in_reference(self) -> dict[str, Action]:
        return {name: _of_section(text) for name, text in self.sections.items()}

    @cached_property
    def bodies(self) -> dict[str, str]:
        """What the exports do, as far as it stands in their own functions."""
        pattern = r"^UINT __stdcall (\w+)\(MSIHANDLE[^)]*\) \{\n(.*?)^\}"
        return dict(re.findall(pattern, self.code, re.MULTILINE | re.DOTALL))

    def in_code(self) -> dict[str, Action]:
        reader = re.compile(r'GetDataValue(?:OrEmpty)?\(data, L"(\w+=)"\)')
        return {
            name: Action(data_keys=frozenset(reader.findall(body)))
            for name, body in self.bodies.items()
        }


def _codes(text: str) -> frozenset[str]:
    return frozenset(re.findall(r"\b(\d+|other)\b", text))


def _of_attributes(text: str) -> Schedule | None:
    execution = re.match(r"(immediate|deferred)\b", text)
    result = re.search(r'`Return="(check|ignore)"`', text)
    if execution is None or result is None:
        return None
    impersonated = execution[1] == "immediate" or '`Impersonate="yes"`' in text
    return Schedule(execution[1], impersonated, result[1] == "ignore")


def _of_comment(text: str) -> Action:
    schedule = re.search(
        r"\b(Immediate|Deferred) action,( as the user who installs,)? result (checked|ignored)\b",
        text,
    )
    results = re.search(r"\bResults: ((?:\d+|other)(?:, (?:\d+|other))*)[.,]", text)
    inputs = text.partition("Inputs: ")[2].partition("Results:")[0]
    of_data = inputs.partition("Further inputs:")[0]
    return Action(
        schedule
        and Schedule(
            schedule[1].lower(),
            schedule[1] == "Immediate" or schedule[2] is not None,
            schedule[3] == "ignored",
        ),
        results and _codes(results[1]),
        frozenset(KEY_OF_DATA.findall(of_data)),
        frozenset(EXCEPTION.findall(text.partition("Throws")[2])),
    )


def _of_section(text: str) -> Action:
    parts = dict(_parts(text))
    if tuple(parts) != PARTS:
        return Action()
    results = re.findall(r"^  - `(\w+)`:", parts["Results"], re.MULTILINE)
    return Action(
        _of_attributes(parts["Schedule"]),
        frozenset(results),
        frozenset(re.findall(r"`(\w+=)`", parts["Data"])),
        frozenset(EXCEPTION.findall(parts["Throws"])),
    )


def _parts(section: str) -> list[tuple[str, str]]:
    pieces = re.split(r"^- \*\*([\w ]+):\*\* ?", section.partition("```")[0], flags=re.MULTILINE)
    return list(zip(pieces[1::2], pieces[2::2]))


def disagreements(sources: Sources) -> list[str]:
    """One line for everything that the sources do not tell alike."""
    told = {
        "include": sources.in_include(),
        "headers": sources.in_headers(),
        "README": sources.in_readme(),
        "reference": sources.in_reference(),
        "code": sources.in_code(),
    }
    found = [
        f"{where}: {name} is {'missing' if name in sources.exports else 'no export'}"
        for where, actions in told.items()
        for name in sorted(actions.keys() ^ sources.exports.keys())
    ]
    for name in sources.exports:
        for what, tellers in (
            ("schedule", ("include", "headers", "README", "reference")),
            ("results", ("headers", "README", "reference")),
            ("data_keys", ("code", "headers", "reference")),
            ("exceptions", ("headers", "reference")),
        ):
            answers = {where: getattr(told[where].get(name, Action()), what) for where in tellers}
            if None in answers.values() or len(set(answers.values())) > 1:
                found.append(f"{name}: {what} {answers}")
    return found + _disagreements_of_index(sources) + _disagreements_of_keys(sources)


def _disagreements_of_index(sources: Sources) -> list[str]:
    rows = re.findall(r"^\| \[(\w+)\]\(#(\w+)\) \| (.*) \|$", sources.reference, re.MULTILINE)
    index = {
        name: subsystem
        for subsystem, anchor, entries in rows
        for name, link in re.findall(r"\[(\w+)\]\(#(\w+)\)", entries)
        if link == name.lower() and anchor == subsystem
    }
    headings = re.findall(r"^(##|###) ([a-z_]+|[A-Z]\w+)$", sources.reference, re.MULTILINE)
    placed = {}
    subsystem = ""
    for level, title in headings:
        if level == "##":
            subsystem = title
        else:
            placed[title] = subsystem
    wanted = list(sources.exports.items())
    return [
        f"{where} of the reference: not the exports in their order"
        for where, told in (("index", index), ("sections", placed))
        if list(told.items()) != wanted
    ]


def _disagreements_of_keys(sources: Sources) -> list[str]:
    """Keys are told apart as the registry does: not by upper and lower case."""

    def names(texts: list[str]) -> set[str]:
        return {text.rstrip("\\").upper() for text in texts if REGISTRY_KEY.fullmatch(text)}

    # A literal may go on in the next line.
    literals = re.findall(r'L"((?:[^"\\\n]|\\.)*)"', re.sub(r'"\s*\n\s*L"', "", sources.code))
    in_code = names([literal.replace("\\\\", "\\") for literal in literals])
    in_reference = names(re.findall(r"`HK(?:LM|CU)\\([^`]*)`", sources.reference))
    return [f"registry key {key}: code or reference lacks it" for key in in_code ^ in_reference]


@pytest.fixture(scope="module")
def sources() -> Sources:
    def joined(*suffixes: str) -> str:
        files = sorted(file for file in LIBRARY_SOURCES.rglob("*") if file.suffix in suffixes)
        return "\n".join(file.read_text() for file in files)

    return Sources(
        definition=(LIBRARY_SOURCES / "Halvard_CA.def").read_text(),
        include=INCLUDE.read_text(),
        headers=joined(".h"),
        readme=README.read_text(),
        reference=(paths.ROOT / "docs/actions.md").read_text(),
        code=joined(".h", ".cpp"),
    )


def test_all_sources_tell_the_same_of_every_export(sources):
    assert "\n".join(disagreements(sources)) == ""
    assert len(sources.exports) == 38


@pytest.mark.parametrize(
    "source, old, new, complaint",
    [
        ("definition", "    LaunchPV\n", "", "README: LaunchPV is no export"),
        ("definition", "    ; agent\n", "", "index of the reference: not the exports"),
        ("include", 'DllEntry="DeleteQortaKey"', 'DllEntry="Other"', "DeleteQortaKey is missing"),
        ("include", 'Impersonate="yes"', 'Impersonate="no"', "MarkRunOnceSchTask: schedule"),
        ("include", 'Execute="immediate" Return="check"', 'Execute="immediate" Return="ignore"',
         "BlockLaunch: schedule"),
        ("headers", "UINT __stdcall UnregisterDLL(", "UINT __stdcall UnRegisterDLL(",
         "headers: UnregisterDLL is missing"),
        ("headers", "Results: 0, 1612.", "Results: 0.", "LaunchedFromMIM: results"),
        ("headers", "Deferred action, as the user who installs, result", "Deferred action, result",
         "CreateBenchMarkRunOnceSchTask: schedule"),
        ("headers", "items ServiceName= (the", "items Service= (the",
         "DeleteServiceIfBinaryIsInDirectory: data_keys"),
        ("headers", "std::length_error (\"list too long\") for a version", "a version",
         "CheckForClients: exceptions"),
        ("readme", "| `LaunchPV` | deferred, ", "| `LaunchPV` | immediate, ", "LaunchPV: schedule"),
        ("readme", "| 0, 259 to skip the agent |", "| 0 |", "CheckForClients: results"),
        ("readme", "| `DeleteQortaKey` |", "| `DeleteOtherKey` |", "DeleteQortaKey is missing"),
        ("reference", "### LaunchPV\n", "### LaunchPivot\n", "reference: LaunchPV is missing"),
        ("reference", "  - `259`: skip", "  - `250`: skip", "CheckForClients: results"),
        ("reference", "[PostInstallUPA](#postinstallupa)", "[PostInstallUPA](#post)",
         "index of the reference"),
        ("reference", "- **Data:** `InstallDir=`, `DLLName=`.", "- **Data:** `InstallDir=`.",
         "UnregisterDLL: data_keys"),
        ("reference", r"`HKLM\SOFTWARE\ZenvoBranding`", r"`HKLM\SOFTWARE\Branding`",
         r"registry key SOFTWARE\ZENVOBRANDING"),
        ("reference", "- **Reads:** the configuration", "- **Looks at:** the configuration",
         "DeleteServiceIfBinaryIsInDirectory: schedule"),
        ("code", 'GetDataValue(data, L"DirectoryOfBinary=")', 'GetDataValue(data, L"Directory=")',
         "DeleteServiceIfBinaryIsInDirectory: data_keys"),
        ("code", r'L"SOFTWARE\\Qorta"', r'L"SOFTWARE\\Quorta"', r"registry key SOFTWARE\QORTA"),
    ],
)
def test_a_source_that_tells_something_else_is_found(sources, source, old, new, complaint):
    text = getattr(sources, source)
    assert old in text
    broken = replace(sources, **{source: text.replace(old, new, 1)})
    assert any(complaint in line for line in disagreements(broken)), disagreements(broken)


def test_every_declaration_gives_its_reason(sources):
    pattern = r'^    <!-- .+ -->\n    <CustomAction Id="(\w+)"'
    told = re.findall(pattern, sources.include, re.MULTILINE)
    assert told == list(sources.in_include())


def test_only_results_that_the_installer_takes_for_what_they_are_get_checked(sources):
    told = sources.in_reference()
    for name, action in sources.in_include().items():
        results = told[name].results
        if "0" not in results or "other" in results:
            assert action.schedule.result_ignored, f"{name} ends an installation with {results}"


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
        assert customs == [*setters, name]
        keys = sources.in_code()[name].data_keys
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
        in_example = [number(custom["Action"]) for custom in scheduled_in(example)]
        assert max(in_example) == number(name), f"{name}: its data comes too late"
        if sources.in_include()[name].schedule.execution == "deferred":
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
        names = [name for name in re.findall(r"`(\w+)`", order) if name in sources.exports]
        assert names == sorted(names, key=sequence.__getitem__)
        advised |= set(names)
    assert advised == sources.exports.keys()


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
