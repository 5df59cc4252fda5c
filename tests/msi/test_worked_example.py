"""docs/worked-example.md: its commands print what it says, its package does what it says, and both of
its sources are that package."""

import re
import shutil
import subprocess
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from typing import Iterator

import pytest

import generate
from checking import NOT_ALL_SCHEDULED, NOT_SIGNED, found
from documents import EXAMPLE, blocks, write_example
from installer import package, paths, session
from installer.log import ActionDefinition, Execution, action_runs
from installer.machine import Area, Kind
from installer.prefix import START_LIMIT, Prefix
from programs import ran

SOURCE, PACKAGE = "Transform.wxs", "Transform.msi"
FOLDER = r"C:\Program Files\Zenvo\Transform"
SETTINGS, WRITTEN_LATER = rf"{FOLDER}\Transform.ini", rf"{FOLDER}\cache.bin"
KEY = r"HKLM\Software\Wow6432Node\Qorta\Sable\Settings\Kiln\Install"

OTHERWISE = ["UndoTask", "CommitTask"]
DEFERRED = ["DelInstallProxyKey", "DeleteDMFTDirectory"]
# About half of them show it.
BUILDS = 40

PROMPT = re.compile(r"^([>$]) ", re.MULTILINE)
# The command and the lines of the log behind it.
SESSION = re.compile(
    r"`msiexec (/\w) Transform\.msi ((?:\w+=\w+ )*)/qn /l\*v (\w+)\.log`.*?^```text\n(.*?)^```$",
    re.MULTILINE | re.DOTALL,
)
TIME = re.compile(r"\b\d+:\d\d:\d\d\b")
DURATION = re.compile(r"\d+\.\d ms")
# Of an event of a trace, and how long a program ran.
EVENT_TIME = re.compile(r"^(\w+) +\d+\.\d ms  ", re.MULTILINE)
AFTER = re.compile(r"\bafter: \d+\.\d s")
WORD = re.compile(r'(?:"[^"]*"|\S)+')

MOVE = "UPDATE InstallExecuteSequence SET Sequence={} WHERE Action='{}'"


def commands(prompt: str) -> list[tuple[str, str]]:
    """The commands at this prompt, each with what it printed."""
    found = []
    for block in blocks(EXAMPLE, "console"):
        before, *pieces = PROMPT.split(block)
        assert before == "", block
        for sign, piece in zip(pieces[::2], pieces[1::2]):
            command, _, output = piece.partition("\n")
            if sign == prompt:
                found.append((command, output))
    return found


def trimmed(text: str) -> str:
    """As the document shows a text: without blanks at the ends of lines, and one duration for all."""
    text = EVENT_TIME.sub(lambda found: f"{found[1]:<12}      1.0 ms  ", text)
    text = AFTER.sub("after: 0.1 s", DURATION.sub("1.0 ms", text))
    lines = [line.rstrip() for line in text.splitlines()]
    return "".join(f"{line}\n" for line in lines)


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The source with what the document says lies beside it."""
    folder = tmp_path_factory.mktemp("example")
    write_example(folder, SOURCE)
    (command,) = [command for command, _ in commands("$") if command.startswith("sed ")]
    subprocess.run(["bash", "-c", command], cwd=folder, check=True)
    assert "SecureCustomProperties" in (folder / SOURCE).read_text()
    return folder


def built_as_told(folder: Path) -> Path:
    ((command, _),) = [step for step in commands("$") if step[0].startswith("wixl ")]
    subprocess.run(["bash", "-c", command], cwd=folder, check=True, capture_output=True)
    paths.PACKAGES.mkdir(parents=True, exist_ok=True)
    return Path(shutil.copy(folder / PACKAGE, paths.PACKAGES))


@pytest.fixture(scope="module", params=["as told", "as the sample packages"])
def example_package(folder: Path, request: pytest.FixtureRequest) -> Path:
    return built_as_told(folder) if request.param == "as told" else package.build(folder / SOURCE)


@pytest.fixture
def unused_prefix() -> Iterator[Prefix]:
    with Prefix("prefix-msi-example") as running:
        yield running


def test_the_calls_of_the_runner_print_what_the_example_shows(unused_prefix):
    programs = {"halvard_run": [paths.RUNNER], "reg": ["reg.exe"]}
    code = 0
    calls = 0
    for command, output in commands(">"):
        words = [word.replace('"', "") for word in WORD.findall(command)]
        if command == "echo %errorlevel%":
            assert output == f"{code}\n", command
            continue
        program, *first = programs.get(words[0], ["cmd.exe", "/c", words[0]])
        done = ran(unused_prefix, program, *first, *words[1:], limit=START_LIMIT)
        assert trimmed(done.output) == output, command
        code = done.code
        calls += words[0] == "halvard_run"
    assert calls == 8


def test_the_build_prints_what_the_example_shows(folder):
    steps = commands("$")
    assert len(steps) == 3
    for command, output in steps:
        done = subprocess.run(
            ["bash", "-o", "pipefail", "-c", command], cwd=folder, capture_output=True, text=True
        )
        assert (done.returncode, done.stdout, done.stderr) == (0, output, ""), command


def read_in_order(excerpt: str, log: str) -> None:
    """The pieces of an excerpt stand in the log in their order, each in one piece."""
    for piece in excerpt.split("...\n"):
        before, found, log = log.partition(piece)
        assert found, f"{piece}\nnot in what is left of the log:\n{before}"


def run_as_told(machine, example_package: Path, told: tuple[str, str, str, str], watching):
    """Runs one session of the document, compares its log and returns it with the actions' results."""
    switch, properties, _, excerpt = told
    call = {"/i": machine.install, "/x": machine.remove}[switch]
    result = call(example_package, *properties.split(), environment=watching)
    read_in_order(excerpt, TIME.sub("h:mm:ss", trimmed("\n".join(result.texts))))
    runs = action_runs(result.lines, package.library_actions(example_package), result.calls)
    return result, [(run.name, run.verdict, run.result, run.data) for run in runs]


def test_nothing_is_wrong_with_the_package_of_the_example(prefix, example_package):
    assert found(prefix, example_package) == {NOT_SIGNED, NOT_ALL_SCHEDULED}


def test_the_installer_does_what_the_example_says(clean_machine, example_package, watching):
    sessions = SESSION.findall(EXAMPLE.read_text())
    assert [name for _, _, name, _ in sessions] == ["refused", "installed", "removed"]
    refused, installed, removed = sessions

    result, runs = run_as_told(clean_machine, example_package, refused, watching)
    assert result.exit_code == session.as_exit_code(session.INSTALL_FAILURE), result.report()
    assert runs == [("BlockLaunch", 0, session.INSTALL_FAILURE, None)]
    assert clean_machine.changes().changes == []

    result, runs = run_as_told(clean_machine, example_package, installed, watching)
    assert result.exit_code == 0, result.report()
    assert runs == [("BlockLaunch", 1, 0, None)]
    added = clean_machine.changes()
    assert SETTINGS in added.of(Area.FILE, Kind.ADDED)
    assert f"{KEY} : InstallDir" in added.of(Area.REGISTRY, Kind.ADDED)

    clean_machine.prefix.host_path(WRITTEN_LATER).write_text("written later")
    result, runs = run_as_told(clean_machine, example_package, removed, watching)
    assert result.exit_code == 0, result.report()
    assert runs == [
        ("DelInstallProxyKey", 1, 1, None),
        ("DeleteDMFTDirectory", 1, 0, f"InstallDir={FOLDER}\\"),
    ]
    assert [change.name for change in clean_machine.changes().changes] == [KEY.rpartition("\\")[0]]


@pytest.mark.parametrize(
    "query, runs, left",
    [
        # The installer takes the value first, and with it the key.
        (
            MOVE.format(2610, "DelInstallProxyKey"),
            [("DelInstallProxyKey", 0), ("DeleteDMFTDirectory", 0)],
            [],
        ),
        # The data is not known yet, so the folder stays with what was written later.
        (
            MOVE.format(790, "SetDeleteDMFTDirectory"),
            [("DelInstallProxyKey", 1), ("DeleteDMFTDirectory", 0)],
            [FOLDER.rpartition("\\")[0], FOLDER, WRITTEN_LATER],
        ),
    ],
    ids=["key behind values", "data before costs"],
)
def test_actions_at_other_places_miss_what_they_need(
    clean_machine, folder, watching, query, runs, left
):
    changed = package.changed_copy(built_as_told(folder), "Transform-moved", query)
    clean_machine.install(changed, "LAUNCHED_FROM_MIM=1")
    clean_machine.prefix.host_path(WRITTEN_LATER).write_text("written later")
    try:
        result = clean_machine.remove(changed, environment=watching)

        came = action_runs(result.lines, package.library_actions(changed), result.calls)
        assert [(run.name, run.result) for run in came] == runs, result.report()
        assert clean_machine.changes().of(Area.FILE, Kind.ADDED) == left
    finally:
        outermost = clean_machine.prefix.host_path(FOLDER.rpartition("\\")[0])
        shutil.rmtree(outermost, ignore_errors=True)


def built_with(folder: Path, *changes: tuple[str, str], switches: str = "--arch x64 ") -> Path:
    """A package of the source with these texts exchanged, built by wixl, whatever it warns of."""
    text = (folder / SOURCE).read_text()
    for old, new in changes:
        assert old in text
        text = text.replace(old, new)
    (folder / "changed.wxs").write_text(text)
    changed = folder / "changed.msi"
    command = ["wixl", *switches.split(), "-o", changed.name, "changed.wxs"]
    subprocess.run(command, cwd=folder, check=True, capture_output=True)
    return changed


# The release of wixl that is known to keep rollback and commit actions as they are declared.
KEEPS_EXECUTIONS = (0, 106)


def wixl_version() -> tuple[int, ...]:
    told = subprocess.run(["wixl", "--version"], capture_output=True, text=True, check=True)
    return tuple(map(int, re.search(r"\d+(?:\.\d+)+", told.stdout)[0].split(".")))


# Known of the older release alone.
if wixl_version() < KEEPS_EXECUTIONS:

    @pytest.mark.parametrize(
        "former, element, complaint",
        [
            (
                "    <Feature Id=",
                '<CustomAction Id="Refuse" Error="No."/>',
                b"Unsupported CustomAction",
            ),
            (
                '              <File Id="Transform',
                "<Condition>1</Condition>",
                b"unhandled child Component node Condition",
            ),
        ],
    )
    def test_wixl_ends_with_an_error_for_what_the_example_says(
        folder, former, element, complaint
    ):
        with pytest.raises(subprocess.CalledProcessError) as failed:
            built_with(folder, (former, element + former))
        assert complaint in failed.value.stderr


def test_wixl_leaves_out_what_the_example_says(folder):
    declared = "".join(
        f'<CustomAction Id="{name}" BinaryKey="Halvard_CA" DllEntry="RemovePVSchedularTask"'
        f' Execute="{execution}" Impersonate="no" Return="ignore"/>'
        for name, execution in zip(OTHERWISE, ("rollback", "commit"))
    ) + (
        '<CustomAction Id="RemoveTask" Directory="TARGETDIR" ExeCommand="schtasks /query"'
        ' Execute="deferred" Impersonate="no" Return="ignore"/>'
    )
    secure = '<Property Id="DISABLEANALYTICS" Value="NO" Secure="yes"/>'
    elsewhere = '<RemoveFolder Id="Elsewhere" Directory="TransformFolder" On="uninstall"/>'
    changed = built_with(
        folder,
        ("    <Feature Id=", f"{declared}{secure}    <Feature Id="),
        ("            <RemoveFolder", f"            {elsewhere}<RemoveFolder"),
    )

    declared_otherwise = [package.library_actions(changed)[name] for name in OTHERWISE]
    made = [Execution.IMMEDIATE] * 2
    if wixl_version() >= KEEPS_EXECUTIONS:
        made = [Execution.ROLLBACK, Execution.COMMIT]
    assert [action.execution for action in declared_otherwise] == made
    assert "RemoveTask" not in [row[0] for row in package.table(changed, "CustomAction")]
    folders = {row[0]: row[3] for row in package.table(changed, "RemoveFile")}
    assert folders["Elsewhere"] == "ZenvoFolder"
    properties = dict(package.table(changed, "Property"))
    assert properties["DISABLEANALYTICS"] == "NO"
    assert properties["SecureCustomProperties"] == "LAUNCHED_FROM_MIM"

    (mending,) = blocks(EXAMPLE, "sh")
    command = mending.replace(PACKAGE, changed.name)
    subprocess.run(["bash", "-e", "-c", command], cwd=folder, check=True)

    mended = ActionDefinition(Execution.ROLLBACK, True, "RemovePVSchedularTask")
    assert package.library_actions(changed)["UndoTask"] == mended
    rows = {row[0]: row[1:4] for row in package.table(changed, "CustomAction")}
    command_line = "schtasks /delete /TN ZenvoElevated /F"
    assert rows["RemoveTask"] == ["3170", "TARGETDIR", command_line]


@pytest.mark.parametrize("switches, template", [("--arch x64", "x64;1033"), ("", "Intel;1033")])
def test_wixl_makes_a_64_bit_package_only_when_told(folder, switches, template):
    changed = built_with(folder, switches=switches)
    summary = subprocess.run(
        ["msiinfo", "suminfo", str(changed)], capture_output=True, text=True, check=True
    )
    assert f"Template: {template}\n" in summary.stdout.replace("\r", "")


def test_wixl_places_actions_elsewhere_from_run_to_run(folder):
    places = [
        ('Sequence="10"', 'Before="AppSearch"'),
        ('Sequence="2590"', 'Before="RemoveRegistryValues"'),
        ('Sequence="3480"', 'Before="DeleteDMFTDirectory"'),
        ('Sequence="3490"', 'Before="RemoveFiles"'),
    ]
    sequences = []
    for _ in range(BUILDS):
        changed = built_with(folder, *places)
        sequences.append(package.table(changed, "InstallExecuteSequence"))
        if sequences[0] != sequences[-1] and any(map(deferred_too_early, sequences)):
            return
    pytest.fail(f"{BUILDS} builds gave no two sequences, or none with a deferred action too early")


def deferred_too_early(sequence: list[list[str]]) -> bool:
    numbers = {name: int(number) for name, _, number in sequence}
    return min(numbers[name] for name in DEFERRED) < numbers["InstallInitialize"]


# What WiX 4 and 5 write otherwise than WiX 3.
RENAMED = {"Bitness": ("Win64", {"always64": "yes"}), "BinaryRef": ("BinaryKey", {})}
OF_PACKAGE = {"InstallerVersion": "InstallerVersion", "Scope": "InstallScope", "Compressed": "Compressed"}


def in_wix_3(element: ElementTree.Element) -> ElementTree.Element:
    """An element in the language of WiX 4, written in that of WiX 3; tags without their namespace."""
    tag = element.tag.rpartition("}")[2]
    attributes = {}
    for name, value in element.attrib.items():
        renamed, values = RENAMED.get(name, (name, {}))
        attributes[renamed] = values.get(value, value)
    children = [in_wix_3(each) for each in element]
    text = (element.text or "").strip()
    if tag == "Package":
        told = {former: attributes.pop(name) for name, former in OF_PACKAGE.items()}
        attributes["Id"] = attributes.pop("ProductCode")
        tag, children = "Product", [ElementTree.Element("Package", told), *children]
    if tag == "Launch":
        tag, text = "Condition", attributes.pop("Condition")
    if tag == "Custom":
        text = attributes.pop("Condition")
    if tag == "StandardDirectory":
        inner = ElementTree.Element("Directory", attributes)
        inner.extend(children)
        attributes, children = {"Id": "TARGETDIR", "Name": "SourceDir"}, [inner]
        tag = "Directory"
    made = ElementTree.Element(tag, attributes)
    made.text = text
    made.extend(children)
    return made


# The tag of an element, its attributes, its text and its children.
Plain = tuple[str, tuple[tuple[str, str], ...], str, tuple["Plain", ...]]


def plain(element: ElementTree.Element) -> Plain:
    """For comparison: blanks and the order of attributes count for nothing."""
    return (
        element.tag.rpartition("}")[2],
        tuple(sorted(element.attrib.items())),
        (element.text or "").strip(),
        tuple(map(plain, element)),
    )


def test_both_sources_of_the_example_are_the_same_package():
    older, newer = blocks(EXAMPLE, "xml")
    assert "<?include halvard_actions.wxi ?>" in older
    assert "<?include halvard_actions.v4.wxi ?>" in newer
    trees = ElementTree.fromstring(older), ElementTree.fromstring(newer)
    languages = generate.WIX_3, generate.WIX_4
    assert [tree.tag for tree in trees] == [f"{{{each.namespace}}}Wix" for each in languages]
    assert plain(in_wix_3(trees[1])) == plain(trees[0])
