"""That a second build with other bytes is seen. The build itself is `./run reproduce`."""

import subprocess
from pathlib import Path

import pytest

import reproduce
from installer import package, paths

VERSION = package.project_identity().version


@pytest.fixture
def built(tmp_path, monkeypatch) -> dict[str, bytes]:
    """What a build leaves, by file name: at first the bytes of the last one."""
    folder = paths.LIBRARY.parent
    left = {name: (folder / name).read_bytes() for name in reproduce.NAMES}

    def build(copy: Path, *definitions: str) -> None:
        (copy / reproduce.FOLDER).mkdir(parents=True, exist_ok=True)
        for name, content in left.items():
            (copy / reproduce.FOLDER / name).write_bytes(content)

    versions = {paths.LIBRARY: f"{VERSION} (abc)"}
    monkeypatch.setattr(reproduce, "build", build)
    monkeypatch.setattr(reproduce, "COPY", tmp_path / "reproduced/copy")
    monkeypatch.setattr(reproduce, "copy_files", lambda source, copy: None)
    monkeypatch.setattr(reproduce.dist, "product_version", lambda file: versions.get(file, VERSION))
    return left


def test_the_same_bytes_pass(built, capsys):
    assert reproduce.main() == 0
    assert capsys.readouterr().out.endswith(": the same bytes\n")
    assert not reproduce.COPY.parent.exists()


@pytest.mark.parametrize("name", reproduce.NAMES)
def test_one_byte_that_differs_is_told(name, built, capsys):
    built[name] = built[name][:-1] + bytes([built[name][-1] ^ 1])
    assert reproduce.main() == 1
    (line,) = capsys.readouterr().out.splitlines()
    assert line.startswith(f"{name} differs: ")


def test_a_copy_that_tells_a_commit_of_its_own_is_told(built, capsys, monkeypatch):
    monkeypatch.setattr(reproduce.dist, "product_version", lambda file: f"{VERSION} (abc)")
    assert reproduce.main() == 1
    told = f"without a repository the version is {VERSION} (abc), not {VERSION}\n"
    assert capsys.readouterr().out == told


@pytest.mark.parametrize("told", ["", VERSION, f"{VERSION} ()", "1.2.3 (abc)"])
def test_a_build_without_a_commit_is_told(told):
    with pytest.raises(SystemExit, match="tells no commit"):
        reproduce.commit_of(told, VERSION)


PRESETS = """{
    "version": 5,
    "configurePresets": [
        {"name": "mingw-release", "generator": "Ninja", "binaryDir": "${sourceDir}/build"}
    ],
    "buildPresets": [{"name": "mingw-release", "configurePreset": "mingw-release"}]
}"""
FAILS_TO_CONFIGURE = 'cmake_minimum_required(VERSION 3.20)\nproject(made NONE)\nmessage(FATAL_ERROR "wrong")'
FAILS_TO_BUILD = """cmake_minimum_required(VERSION 3.20)
project(made NONE)
add_custom_target(Halvard_CA COMMAND false)
add_custom_target(halvard_run)
"""


@pytest.mark.parametrize(
    "project, told", [(FAILS_TO_CONFIGURE, "CMake Error at"), (FAILS_TO_BUILD, "FAILED: ")]
)
def test_a_build_that_fails_ends_it_with_its_code(project, told, tmp_path, monkeypatch, capfd):
    monkeypatch.setattr(reproduce, "LOG", tmp_path / "log")
    (tmp_path / "CMakeLists.txt").write_text(project)
    (tmp_path / "CMakePresets.json").write_text(PRESETS)
    with pytest.raises(SystemExit) as ended:
        reproduce.build(tmp_path)
    assert ended.value.code == 1
    assert told in capfd.readouterr().out


def test_a_folder_without_a_repository_is_told(tmp_path):
    with pytest.raises(SystemExit, match="git does not list"):
        reproduce.copy_files(tmp_path, tmp_path / "copy")


def test_the_copy_has_the_files_of_the_checkout_as_they_are(tmp_path):
    source, copy = tmp_path / "source", tmp_path / "copy"
    source.mkdir()
    subprocess.run(["git", "init", "-q", source], check=True)
    for name, content in {".gitignore": "build\n", "a": "1", "gone": "2", "build/b": "3"}.items():
        (source / name).parent.mkdir(exist_ok=True)
        (source / name).write_text(content)
    subprocess.run(["git", "add", "-A"], cwd=source, check=True)
    (source / "a").write_text("changed")
    (source / "sub").mkdir()
    (source / "sub/new").write_text("4")
    (source / "gone").unlink()
    (copy / "left").mkdir(parents=True)
    reproduce.copy_files(source, copy)
    files = {str(file.relative_to(copy)): file.read_text() for file in copy.rglob("*") if file.is_file()}
    assert files == {".gitignore": "build\n", "a": "changed", "sub/new": "4"}
