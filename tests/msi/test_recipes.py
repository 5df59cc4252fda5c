"""docs/recipes.md and the two sources of docs/worked-example.md: what they show makes a package."""

import re
import shutil
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from typing import Iterator

import pytest

import generate
from installer import package, paths
from installer.prefix import Prefix
from test_check import checked, found

RECIPES = paths.ROOT / "docs/recipes.md"
EXAMPLE = paths.ROOT / "docs/worked-example.md"
NOT_SIGNED = (703, "Halvard_CA")
# The include file declares all actions, of which no package needs each.
NOT_ALL_SCHEDULED = (107, None)
ERROR_ACTION = 19
PACKAGE = "Transform.msi"

FRAME = """\
<Wix xmlns="{namespace}">
  <Product Id="$(var.ProductCode)" UpgradeCode="$(var.UpgradeCode)" Name="Recipes" Manufacturer="Zenvo"
           Version="$(var.Version)" Language="1033">
    <Package InstallerVersion="500" InstallScope="perMachine" Compressed="yes"/>
    <Media Id="1" Cabinet="recipes.cab" EmbedCab="yes"/>
    <MajorUpgrade DowngradeErrorMessage="A newer version is there."/>
    <Binary Id="Halvard_CA" SourceFile="Halvard_CA.dll"/>
    <?include halvard_actions.wxi ?>
    <InstallExecuteSequence><RemoveExistingProducts Sequence="1450"/></InstallExecuteSequence>
    <Directory Id="TARGETDIR" Name="SourceDir">
      <Directory Id="ProgramFiles64Folder">
        <Directory Id="INSTALLDIR" Name="Recipes">
          <Directory Id="DataFolder" Name="Data"/>
          <Directory Id="CacheFolder" Name="Cache"/>
          <Directory Id="PivotFolder" Name="Pivot"/>
          <Directory Id="DvrFolder" Name="DVR"/>
          <Directory Id="PlainServerFolder" Name="Plain"/>
          <Directory Id="ServerFolder" Name="Server">
            <Component Id="Server" Guid="C4E81F27-6A3D-4B59-90E2-7D1B5A8F3C06" Win64="yes">
              <File Id="Server" Source="Server.dll" KeyPath="yes"/>
            </Component>
          </Directory>
        </Directory>
      </Directory>
    </Directory>
{recipes}
    <Feature Id="Complete" Level="1">
      <ComponentRef Id="Server"/>
      <ComponentRef Id="Pivot"/>
      <ComponentRef Id="PlainServer"/>
      <ComponentRef Id="Dvr"/>
    </Feature>
  </Product>
</Wix>
"""


def blocks(document: Path) -> list[str]:
    return re.findall(r"^```xml\n(.*?)^```$", document.read_text(), re.MULTILINE | re.DOTALL)


@pytest.fixture(scope="module")
def prefix() -> Iterator[Prefix]:
    with Prefix("prefix-msi-recipes") as running:
        yield running


def error_actions(text: str) -> dict[str, str]:
    """The actions that end the session with a text, which wixl does not know."""
    return dict(re.findall(r'<CustomAction Id="(\w+)" Error="([^"]*)"/>', text))


def built(folder: Path, recipes: str, name: str) -> Path:
    """A package of the recipes, with what wixl leaves out of it."""
    refusals = error_actions(recipes)
    for action, text in refusals.items():
        recipes = recipes.replace(f'<CustomAction Id="{action}" Error="{text}"/>', "")
    source = folder / f"{name}.wxs"
    source.write_text(FRAME.format(namespace=generate.WIX_3.namespace, recipes=recipes))
    for stand_in in ("Server.dll", "Plain.dll", "pvcmd.exe", "VSServCmd.exe"):
        (folder / stand_in).write_bytes(b"MZ")
    shutil.copy(paths.LIBRARY, folder)
    shutil.copy(paths.PACKAGE_SOURCES / "halvard_actions.wxi", folder)
    shutil.copy(paths.PACKAGE_SOURCES / "Pivot/StartPV.xml", folder)
    rows = [
        "INSERT INTO CustomAction (Action, Type, Target) "
        f"VALUES ('{action}', {ERROR_ACTION}, '{text}')"
        for action, text in refusals.items()
    ]
    return package.changed_copy(package.build(source), f"{name}-whole", *rows)


@pytest.fixture(scope="module")
def recipes_package(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return built(tmp_path_factory.mktemp("recipes"), "\n".join(blocks(RECIPES)), "Recipes")


def test_every_recipe_is_in_the_package_and_each_action_is_declared_and_scheduled(recipes_package):
    texts = blocks(RECIPES)
    headings = re.findall(r"^## ", RECIPES.read_text(), re.MULTILINE)
    assert len(texts) >= len(headings) >= 5
    declared = {row[0] for row in package.table(recipes_package, "CustomAction")}
    sequence = {
        name: (condition, int(number))
        for name, condition, number in package.table(recipes_package, "InstallExecuteSequence")
    }
    for text in texts:
        tree = ElementTree.fromstring(f"<Product>{text}</Product>")
        own = [each.attrib["Id"] for each in tree.iter("CustomAction")]
        scheduled = {each.attrib["Action"]: each for each in tree.iter("Custom")}
        assert set(own) <= scheduled.keys()
        for name, custom in scheduled.items():
            assert name in declared, name
            assert sequence[name] == (custom.text, int(custom.attrib["Sequence"])), name


def test_nothing_is_wrong_with_a_package_of_all_recipes(prefix, recipes_package):
    assert found(prefix, recipes_package) == {NOT_SIGNED, NOT_ALL_SCHEDULED}


@pytest.mark.parametrize(
    "old, new, finding",
    [
        ('Property="DeleteCache"', 'Property="DeleteCash"', (201, "DeleteCache")),
        ('Sequence="6102"', 'Sequence="6112"', (305, "ClearStartPV")),
        ("NOT INSTALLDIR", "NOT INSTALLFOLDER", (504, "SetUnregisterDLL")),
        ('Sequence="1665"', 'Sequence="1651"', (306, "ShutDownDVR")),
    ],
)
def test_a_recipe_with_a_mistake_is_found(prefix, tmp_path, old, new, finding):
    text = "\n".join(blocks(RECIPES))
    assert old in text
    assert finding in found(prefix, built(tmp_path, text.replace(old, new), f"Recipes-{finding[0]}"))


def test_a_task_may_be_brought_back_by_a_repair_as_the_recipe_says(prefix, tmp_path):
    text = "\n".join(blocks(RECIPES))
    condition = 'NOT (REMOVE="ALL")'
    assert f"`{condition}`" in RECIPES.read_text()
    for number in ("6102", "6105", "6110"):
        assert f'Sequence="{number}">NOT Installed<' in text
        text = text.replace(f'"{number}">NOT Installed<', f'"{number}">{condition}<')
    assert found(prefix, built(tmp_path, text, "Recipes-repair")) == {NOT_SIGNED, NOT_ALL_SCHEDULED}


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


def plain(element: ElementTree.Element) -> tuple:
    """For comparison: blanks and the order of attributes count for nothing."""
    return (
        element.tag.rpartition("}")[2],
        tuple(sorted(element.attrib.items())),
        (element.text or "").strip(),
        tuple(map(plain, element)),
    )


def test_both_sources_of_the_example_are_the_same_package():
    older, newer = blocks(EXAMPLE)
    assert "<?include halvard_actions.wxi ?>" in older
    assert "<?include halvard_actions.v4.wxi ?>" in newer
    trees = ElementTree.fromstring(older), ElementTree.fromstring(newer)
    languages = generate.WIX_3, generate.WIX_4
    assert [tree.tag for tree in trees] == [f"{{{each.namespace}}}Wix" for each in languages]
    assert plain(in_wix_3(trees[1])) == plain(trees[0])


def test_nothing_is_wrong_with_the_package_of_the_example(prefix, tmp_path):
    source = tmp_path / "Recipes-example.wxs"
    source.write_text(blocks(EXAMPLE)[0])
    (tmp_path / "Transform.ini").write_text("")
    shutil.copy(paths.LIBRARY, tmp_path)
    shutil.copy(paths.PACKAGE_SOURCES / "halvard_actions.wxi", tmp_path)
    shutil.copy(package.build(source), prefix.host_path(rf"C:\{PACKAGE}"))
    code, told = checked(prefix, rf"C:\{PACKAGE}")
    assert code == 0
    assert {(each["number"], each["row"]) for each in told["findings"]} == {NOT_SIGNED, NOT_ALL_SCHEDULED}
    document = (paths.ROOT / "docs/check.md").read_text()
    ((command, shown),) = re.findall(
        r"^```console\n> halvard_run (.*)\n((?:.*\n)*?)```$", document, re.MULTILINE
    )
    arguments = command.replace(PACKAGE, rf"C:\{PACKAGE}").split()
    done = prefix.run(paths.RUNNER, *arguments)
    printed = "".join(f"{line.rstrip()}\n" for line in done.stdout.splitlines())
    assert printed.replace("C:\\", "") == shown
