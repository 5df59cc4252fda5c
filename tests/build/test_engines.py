"""The table of differences between the engines: whole, probed and told."""

import ast
import re
import subprocess
import sys
from collections import Counter

import pytest

from installer import engines, paths
from installer.engines import Engine

import engine_table

PYTHON_PROBES = paths.ROOT / "tests/msi/test_engines.py"
CPP_PROBES = paths.ROOT / "tests/wine/engines_test.cpp"


def in_python(source: str) -> list[str]:
    """The names for which probes are registered."""
    return [
        decorator.args[0].value
        for node in ast.walk(ast.parse(source))
        if isinstance(node, ast.FunctionDef)
        for decorator in node.decorator_list
        if isinstance(decorator, ast.Call) and getattr(decorator.func, "id", "") == "probe"
    ]


def in_cpp(source: str) -> list[str]:
    names = re.findall(r"^TEST\(EngineProbe, (\w+)\) \{$", source, re.MULTILINE)
    return [as_name(name) for name in names]


def as_name(constant: str) -> str:
    """The name of the table for its constant in C++."""
    return re.sub(r"(?<!^)(?=[A-Z])", "-", constant).lower()


def test_every_difference_has_one_probe():
    probes = Counter(in_python(PYTHON_PROBES.read_text()) + in_cpp(CPP_PROBES.read_text()))
    assert probes == Counter(engines.differences().keys())
    assert len(probes) > 20


def asked() -> set[str]:
    """The names whose values something asks for that is no probe."""
    names = set()
    for folder in ("tests", "tools", "bench"):
        for file in (paths.ROOT / folder).rglob("*.py"):
            if file != PYTHON_PROBES:
                names |= set(re.findall(r"""engines\.value\(["']([a-z-]+)["']\)""", file.read_text()))
    for file in (paths.ROOT / "tests").rglob("*.cpp"):
        if file != CPP_PROBES:
            names |= set(map(as_name, re.findall(r"engines::k(\w+)", file.read_text())))
    return names


def test_a_difference_is_asked_for_or_says_why_it_is_told():
    unasked = {name for name, each in engines.differences().items() if each.unasked}
    assert asked() == engines.differences().keys() - unasked
    assert len(asked()) > 10


def test_every_probe_compares_with_the_value_of_its_name():
    for body in re.split(r"^TEST\(", CPP_PROBES.read_text(), flags=re.MULTILINE)[1:]:
        if body.startswith("EngineProbe, "):
            name = re.match(r"EngineProbe, (\w+)", body)[1]
            assert re.findall(r"engines::k(\w+)", body) == [name]


def test_the_document_is_made_of_the_table():
    made = engine_table.document(engines.differences())
    assert paths.ENGINES_DOCUMENT.read_text() == made, "./run generate writes it anew"


def test_the_header_has_a_constant_for_each_engine():
    header = engine_table.header(engines.differences())
    assert "PerEngine<unsigned> kExitCode{67U, 67U, 1603U};" in header
    assert r'kTemporaryFolder{L"Temp", L"AppData\\Local\\Temp", L"AppData\\Local\\Temp"};' in header
    assert "PerEngine<bool> kLongXml{false, false, true};" in header


@pytest.mark.parametrize(
    "version, engine, known",
    [
        ("wine-8.0 (Debian 8.0~repack-4)\n", Engine.WINE_8, True),
        ("wine-8.0.2", Engine.WINE_8, True),
        ("wine-10.0 (Debian 10.0~repack-6)\n", Engine.WINE_10, True),
        ("wine-6.0.3", Engine.WINE_8, False),
        ("wine-9.0", Engine.WINE_8, False),
        ("wine-11.2", Engine.WINE_10, False),
    ],
)
def test_the_nearest_older_release_stands_for_one_that_is_not_known(version, engine, known):
    assert engines.engine_of(version) == (engine, known)


def test_what_is_no_wine_is_refused():
    with pytest.raises(ValueError, match="no version of Wine: mine 8"):
        engines.engine_of("mine 8")


def test_what_expects_something_of_the_engine_asks_only_when_it_is_needed():
    folders = [str(paths.ROOT / name) for name in ("tools", "tests/msi")]
    script = (
        f"import sys; sys.path[:0] = {folders!r}\n"
        "from installer import engines\n"
        "engines.WINE = '/no such program'\n"
        "import demo, scenario\n"
        "try: engines.value('exit-code')\n"
        "except FileNotFoundError: print('asked')\n"
    )
    done = subprocess.run([sys.executable, "-B", "-c", script], capture_output=True, text=True)
    assert (done.stdout, done.stderr) == ("asked\n", "")


GOOD = """
[name]
about = "What."
wine.does = "This."
wine.value = 1
windows.does = "That."
windows.value = 2
windows.basis = "assumed"
"""


@pytest.mark.parametrize(
    "old, new, reason",
    [
        ("wine.", "wine8.", "not the three engines"),
        ('wine.does = "This."', 'wine.does = "This."\nwine8.does = ""', "not the three engines"),
        ("windows.value = 2", "windows.value = 1", "do not differ"),
        ("windows.value = 2", 'windows.value = "2"', "not of one kind"),
        ('windows.basis = "assumed"', "", "a basis belongs to Windows"),
        ("wine.value = 1", 'wine.value = 1\nwine.basis = "seen"', "a basis belongs to Windows"),
    ],
)
def test_a_row_that_lacks_something_is_refused(tmp_path, old, new, reason):
    file = tmp_path / "engines.toml"
    file.write_text(GOOD)
    assert list(engines.differences(file)) == ["name"]
    file.write_text(GOOD.replace(old, new))
    with pytest.raises(ValueError, match=reason):
        engines.differences(file)
