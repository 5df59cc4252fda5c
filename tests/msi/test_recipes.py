"""docs/recipes.md: what it shows makes a package."""

import re
import shutil
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from typing import Iterator

import pytest

import generate
from checking import NOT_ALL_SCHEDULED, NOT_SIGNED, found
from documents import blocks
from installer import package, paths
from installer.prefix import Prefix

RECIPES = paths.ROOT / "docs/recipes.md"
ERROR_ACTION = 19

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
          <Directory Id="TaskFolder" Name="Task"/>
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
      <ComponentRef Id="OwnTask"/>
      <ComponentRef Id="Refusal"/>
    </Feature>
  </Product>
</Wix>
"""


@pytest.fixture(scope="module")
def prefix() -> Iterator[Prefix]:
    with Prefix("prefix-msi-recipes") as running:
        yield running


def error_actions(text: str) -> dict[str, str]:
    """The actions that end the session with a text, which wixl does not know."""
    return dict(re.findall(r'<CustomAction Id="(\w+)" Error="([^"]*)"/>', text))


def without_dialogs(text: str) -> str:
    """The text without what shows dialogs, which wixl does not have."""
    return re.sub(r"<UI>.*?</UI>|<UIRef [^>]*/>", "", text, flags=re.DOTALL)


def component_conditions(text: str) -> dict[str, str]:
    """The conditions of components, which wixl does not know."""
    product = ElementTree.fromstring(f"<Product>{text}</Product>")
    return {
        component.attrib["Id"]: condition.text or ""
        for component in product.iter("Component")
        for condition in component.iterfind("Condition")
    }


def without_component_conditions(text: str) -> str:
    return re.sub(r"(<Component [^>]*>\s*)<Condition>.*?</Condition>", r"\1", text)


def built(folder: Path, recipes: str, name: str) -> Path:
    """A package of the recipes, with what wixl leaves out of it."""
    refusals = error_actions(recipes)
    for action, text in refusals.items():
        recipes = recipes.replace(f'<CustomAction Id="{action}" Error="{text}"/>', "")
    conditions = component_conditions(recipes)
    recipes = without_component_conditions(without_dialogs(recipes))
    source = folder / f"{name}.wxs"
    source.write_text(FRAME.format(namespace=generate.WIX_3.namespace, recipes=recipes))
    for stand_in in ("Server.dll", "Plain.dll", "pvcmd.exe", "VSServCmd.exe"):
        (folder / stand_in).write_bytes(b"MZ")
    shutil.copy(paths.LIBRARY, folder)
    shutil.copy(paths.PACKAGE_SOURCES / "halvard_actions.wxi", folder)
    shutil.copy(paths.PACKAGE_SOURCES / "Pivot/StartPV.xml", folder)
    shutil.copy(paths.PACKAGE_SOURCES / "Pivot/StartPV.xml", folder / "OwnTask.xml")
    rows = [
        "INSERT INTO CustomAction (Action, Type, Target) "
        f"VALUES ('{action}', {ERROR_ACTION}, '{text}')"
        for action, text in refusals.items()
    ] + [
        f"UPDATE Component SET Condition='{condition}' WHERE Component='{component}'"
        for component, condition in conditions.items()
    ]
    return package.changed_copy(package.build(source), f"{name}-whole", *rows)


@pytest.fixture(scope="module")
def recipes_package(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return built(tmp_path_factory.mktemp("recipes"), "\n".join(blocks(RECIPES, "xml")), "Recipes")


def test_every_recipe_is_in_the_package_and_each_action_is_declared_and_scheduled(recipes_package):
    texts = blocks(RECIPES, "xml")
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


def test_the_refusal_of_analytics_is_installed_where_it_was_told(recipes_package):
    conditions = {row[0]: row[4] for row in package.table(recipes_package, "Component")}
    assert conditions["Refusal"] == 'DISABLEANALYTICS ~<< "YES"'
    assert [name for name, condition in conditions.items() if condition] == ["Refusal"]


def test_nothing_is_wrong_with_a_package_of_all_recipes(prefix, recipes_package):
    assert found(prefix, recipes_package) == {NOT_SIGNED, NOT_ALL_SCHEDULED}


@pytest.mark.parametrize(
    "old, new, finding",
    [
        ('Property="DeleteCache"', 'Property="DeleteCash"', (201, "DeleteCache")),
        ('Sequence="6102"', 'Sequence="6112"', (305, "ClearStartPV")),
        ("NOT INSTALLDIR", "NOT INSTALLFOLDER", (504, "SetUnregisterDLL")),
        ('Sequence="1665"', 'Sequence="1651"', (306, "ShutDownDVR")),
        ('<Property Id="DISABLEANALYTICS" Secure="yes"/>', "", (501, "DISABLEANALYTICS")),
        ('Sequence="6195"', 'Sequence="6205"', (310, "UndoEnableAnalyticsKey")),
    ],
)
def test_a_recipe_with_a_mistake_is_found(prefix, tmp_path, old, new, finding):
    text = "\n".join(blocks(RECIPES, "xml"))
    assert old in text
    assert finding in found(prefix, built(tmp_path, text.replace(old, new), f"Recipes-{finding[0]}"))


def test_a_task_may_be_brought_back_by_a_repair_as_the_recipe_says(prefix, tmp_path):
    text = "\n".join(blocks(RECIPES, "xml"))
    condition = 'NOT (REMOVE="ALL")'
    assert f"`{condition}`" in RECIPES.read_text()
    for number in ("6102", "6105", "6110"):
        assert f'Sequence="{number}">NOT Installed<' in text
        text = text.replace(f'"{number}">NOT Installed<', f'"{number}">{condition}<')
    assert found(prefix, built(tmp_path, text, "Recipes-repair")) == {NOT_SIGNED, NOT_ALL_SCHEDULED}
