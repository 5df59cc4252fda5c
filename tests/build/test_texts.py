"""What the documents have to say: where a statement about Windows comes from, what is dangerous first."""

import json
import re
import subprocess
from pathlib import Path

import pytest

import generate
from installer import paths
from installer.actions import actions

LIBRARY_SOURCES = paths.ROOT / "Utilities/CustomActions/Halvard_CA"
DOCUMENTS = [
    paths.ROOT / "README.md",
    paths.ROOT / "docs/release/README.md",
    *sorted((paths.ROOT / "docs").glob("*.md")),
]
HEADERS = sorted(LIBRARY_SOURCES.rglob("*.h"))
# What Windows does of itself; that it does not tell something is what the code meets and handles.
VERBS = (
    "adds carries ends expands gives keeps leaves lets looks passes reads records refuses runs shows skips "
    "stops stores takes translates writes"
)
STATEMENT = re.compile(
    rf"\bWindows (?:Installer )?(?:then |no longer |always )?(?:{VERBS.replace(' ', '|')})\b"
)
BASIS = re.compile(r"\b(?:documented|assumed|[Ww]hether|[Ss]hould)\b")
FOLDERS_AS_DATA = [
    action.name
    for action in actions()
    if {key.name for key in action.data} & {"InstallDir", "DirectoryOfBinary"}
]


def sentences(text: str) -> list[str]:
    """The sentences of prose: neither code nor what is made of the table of engines."""
    prose = re.sub(r"^( *)```.*?^\1```$", "", text, flags=re.MULTILINE | re.DOTALL)
    prose = re.sub(r"\s*\n(?:///? ?| +|(?=\w|[`*(\"]))", " ", prose)
    return re.split(r"(?<=[.!?]) (?=[A-Z`*])|\n| \| ", prose)


def without_basis(text: str) -> list[str]:
    return [
        each for each in sentences(text) if STATEMENT.search(each) and not BASIS.search(each)
    ]


@pytest.mark.parametrize("file", [*DOCUMENTS, *HEADERS], ids=lambda file: file.name)
def test_what_is_said_of_windows_is_documented_or_assumed(file: Path):
    if file == paths.ENGINES_DOCUMENT:
        # Each line of Windows there has its basis from the table.
        lines = [line for line in file.read_text().splitlines() if line.startswith("- Windows")]
        assert lines and all(re.match(r"- Windows \((documented: |assumed\))", line) for line in lines)
        return
    assert without_basis(file.read_text()) == []


@pytest.mark.parametrize(
    "text, found",
    [
        ("Windows refuses both. Logs nothing.", 1),
        ("Then Windows\n/// takes it for one.", 1),
        ("Windows refuses both (assumed).", 0),
        ("Windows refuses it (documented: *CreateProcessW function*).", 0),
        ("Windows Installer stores it in quotes.", 1),
        ("empty when Windows does not tell.", 0),
        ("```\nWindows refuses\n```", 0),
    ],
)
def test_a_statement_without_a_basis_is_found(text, found):
    assert len(without_basis(text)) == found


def test_what_is_documented_names_its_page():
    for file in [*DOCUMENTS, *HEADERS]:
        text = re.sub(r"\s*\n(?:/// ?| +)?", " ", file.read_text())
        for place in re.finditer(r"\(?documented(?::| for) ?(.{0,90})", text):
            assert re.match(r"[*`\"]|custom actions at large", place[1]), f"{file.name}: {place[0]}"


@pytest.mark.parametrize("name", FOLDERS_AS_DATA)
def test_the_semicolon_comes_first_of_what_to_take_care_of(name):
    section = re.search(
        rf"^### {name}\n(.*?)^```", generate.REFERENCE.read_text(), re.MULTILINE | re.DOTALL
    )[1]
    assert "- **Take care:** a `;` in the folder's name ends the value" in section


def test_the_actions_that_take_folders_are_known():
    assert FOLDERS_AS_DATA == [
        "DeleteDMFTDirectory",
        "SetPermissionsRegisterDLL",
        "UnregisterDLL",
        "DeleteServiceIfBinaryIsInDirectory",
    ]


CONDITION = 'NOT INSTALLDIR &gt;&lt; ";"'


@pytest.mark.parametrize(
    "name",
    [
        "README.md",
        "docs/packaging.md",
        "docs/release/README.md",
        "docs/worked-example.md",
        "package/Companion.wxs",
        "package/halvard_actions.wxi",
        "package/halvard_actions.v4.wxi",
    ],
)
def test_whoever_begins_from_an_example_gets_the_launch_condition(name):
    assert CONDITION in (paths.ROOT / name).read_text()


def test_who_runs_names_every_declaration_that_runs_as_the_user():
    table = (paths.ROOT / "docs/security.md").read_text().partition("## Who runs\n")[2].partition("\n\n|")[0]
    as_user = [each.name for each in actions() if each.execution == "deferred" and each.impersonate]
    as_user += [each.once_more for each in actions() if each.as_user]
    assert len(as_user) == 2
    assert [name for name in as_user if f"`{name}`" not in table] == []


# What public documentation names, and where the reader of the action finds it.
TRAPS = {
    "InstallContextMenuMSIX": ["0x80073CF9", "InstallContextMenuMSIXAsUser", "for rollback"],
    "DeletePVINSTALLDIRFolder": ["SEE_MASK_DOENVSUBST", "RemoveStorePackage"],
    "CreateLogonSchTask": ["asks for the password", "S-1-5-18", "(32)"],
    "DeleteServiceIfBinaryIsInDirectory": [
        "sc qc NAME", "ServiceControl", "in quotes (assumed)", "while the service still exists",
    ],
    "AfterInstallUPA": ["it throws on every machine on which renames wait"],
    "CheckForClients": ["for a deferred action not observed"],
    "PostInstallUPA": ["SetSecurityInfo", "7030"],
    "ShutDownDVR": ["260 characters and more counts as not there (assumed", "PathFileExistsW", "518"],
    "DisabelAnalyticsKey": ["an exception of `AfterInstallUPA`", 'a component with the condition `DISABLEANALYTICS ~<< "YES"`'],
    "DeletePVFolder": ["taskkill /F /IM VireoSettings.exe"],
    "TerminatePivotApp": ["assumed: 267 or 123"],
}


@pytest.mark.parametrize("name", TRAPS)
def test_a_trap_is_told_where_its_action_is(name):
    section = re.search(
        rf"^### {name}\n(.*?)(?=^##|\Z)", generate.REFERENCE.read_text(), re.MULTILINE | re.DOTALL
    )[1]
    text = re.sub(r"\s*\n\s*", " ", section)
    assert [each for each in TRAPS[name] if each not in text] == []


def test_visual_studio_is_told_to_be_not_verified_with_the_flags_that_it_gets():
    presets = json.loads((paths.ROOT / "CMakePresets.json").read_text())
    (configure,) = [each for each in presets["configurePresets"] if each["name"] == "msvc"]
    (build,) = [each for each in presets["buildPresets"] if each["name"] == "msvc"]
    assert "not verified" in configure["displayName"] and "not verified" in build["displayName"]
    assert (configure["architecture"], build["configuration"]) == ("x64", "Release")
    lists = paths.CMAKE_LISTS.read_text() + (LIBRARY_SOURCES / "CMakeLists.txt").read_text()
    document = (paths.ROOT / "docs/development.md").read_text()
    part = document.partition("### On Windows\n")[2].partition("\n## ")[0]
    for flag in re.findall(r"`(/\w[\w:.,-]*)`", part):
        if flag in ("/MT", "/Zi"):
            continue
        if flag == "/EHsc":
            assert 'string(REPLACE "/EHsc" "/EHs"' in lists
            continue
        assert flag in lists, flag
    assert "MultiThreaded" in lists and "MSVC_DEBUG_INFORMATION_FORMAT ProgramDatabase" in lists
    for wanted in ("/Zi", "/DEBUG:FULL", "/OPT:REF,ICF", "/guard:cf", "/CETCOMPAT", "/MT", "ARM64"):
        assert wanted in part, wanted
    listed = subprocess.run(
        ["cmake", "--list-presets"], cwd=paths.ROOT, capture_output=True, text=True, check=True
    )
    assert '"mingw-release"' in listed.stdout and "msvc" not in listed.stdout
