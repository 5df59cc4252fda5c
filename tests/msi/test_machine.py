"""Reading a saved registry, and the difference of two snapshots."""

import subprocess
from pathlib import Path

import pytest

from installer import engines, machine, repeats
from installer.machine import Area, Change, Kind, difference, parse_saved_registry

SAVED = r"""WINE REGISTRY Version 2
;; All keys relative to REGISTRY\\Machine

#arch=win64

[Software\\Zenvo\\Companion] 1795224012
#time=1dd795674c2c220
@="chm.file"
"InstallDir"="C:\\Program Files\\Zenvo\\Companion\\"
"Quoted \"name\""=dword:00000001
"Letter"="\x00e9"
"Expanded"=str(2):"%SystemRoot%\\x"
"List"=str(7):"first\0second\0"
"Bytes"=hex:01,02,\
  03,04
"After"=dword:00000002

[System\\CurrentControlSet\\Services\\TestService]
"Start"=dword:00000003
"""


def test_keys_and_values_of_a_saved_registry():
    key = r"HKLM\Software\Zenvo\Companion"
    service = r"HKLM\System\CurrentControlSet\Services\TestService"
    assert parse_saved_registry(SAVED, "HKLM") == {
        key: "",
        f"{key} : (default)": '"chm.file"',
        f"{key} : InstallDir": '"C:\\Program Files\\Zenvo\\Companion\\"',
        f'{key} : Quoted "name"': "dword:00000001",
        f"{key} : Letter": '"é"',
        f"{key} : Expanded": '"%SystemRoot%\\x"',
        f"{key} : List": '"first", "second"',
        f"{key} : Bytes": "hex:01,02,03,04",
        f"{key} : After": "dword:00000002",
        service: "",
        f"{service} : Start": "dword:00000003",
    }


@pytest.mark.parametrize("cut", ["[", "[Software", "[Software 1\n"])
def test_a_saved_registry_that_is_cut_short_is_told(cut):
    with pytest.raises(ValueError, match="no key of a saved registry"):
        parse_saved_registry(f"WINE REGISTRY Version 2\n\n{cut}", "HKLM")


class Saving:
    """A prefix in which the program that saves the registry ends with one answer after the other."""

    def __init__(self, path: Path, monkeypatch, *answers: tuple[int, str]) -> None:
        monkeypatch.setattr(machine.paths, "windows_path", str)
        self.path = path
        self.answers = list(answers)

    def run(self, program: Path, folder: str, limit: float) -> subprocess.CompletedProcess[str]:
        code, said = self.answers.pop(0)
        if code == 0:
            (saved,) = self.path.glob("registry-*")
            for name in ("machine", "users"):
                (saved / name).write_text("WINE REGISTRY Version 2\n\n[Software] 1\n")
        return subprocess.CompletedProcess([program, folder], code, said)


def test_a_registry_that_was_not_saved_without_a_word_is_saved_once_more(tmp_path, monkeypatch):
    with repeats.counted(tmp_path / "repeated") as repeated, pytest.warns(UserWarning):
        told = machine.stored_registry(Saving(tmp_path, monkeypatch, (127, " \n"), (0, "")))
        assert repeated() == 1
    assert told == {"HKLM\\Software": "", "HKU\\Software": ""}


@pytest.mark.parametrize(
    "answers, reason",
    [
        ([(1, "no privilege to save keys"), (0, "")], "exit code 1: no privilege to save keys"),
        ([(127, ""), (126, ""), (0, "")], "exit code 126: not a word"),
    ],
)
@pytest.mark.filterwarnings("ignore::UserWarning")
def test_a_registry_that_cannot_be_saved_is_told(answers, reason, tmp_path, monkeypatch):
    counting = repeats.counted(tmp_path / "repeated")
    with counting, pytest.raises(RuntimeError, match=f"could not be saved: {reason}$"):
        machine.stored_registry(Saving(tmp_path, monkeypatch, *answers))


def test_what_was_added_removed_and_changed():
    before = {(Area.FILE, "gone"): "1", (Area.FILE, "same"): "2", (Area.REGISTRY, "other"): "3"}
    after = {(Area.FILE, "same"): "2", (Area.FILE, "new"): "4", (Area.REGISTRY, "other"): "5"}
    assert difference(before, after).changes == [
        Change(Area.FILE, Kind.REMOVED, "gone", "1", None),
        Change(Area.FILE, Kind.ADDED, "new", None, "4"),
        Change(Area.REGISTRY, Kind.CHANGED, "other", "3", "5"),
    ]


def test_equal_snapshots_have_no_difference():
    items = {(Area.FILE, "same"): "2"}
    result = difference(items, dict(items))
    assert (result.changes, result.noise_summary()) == ([], "")


def test_noise_is_counted_and_not_listed():
    installer = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Installer\Products"
    after = {
        (Area.REGISTRY, installer): "",
        (Area.REGISTRY, f"{installer} : name"): "",
        (Area.FILE, r"C:\windows\Installer\1.msi"): "",
        (Area.REGISTRY, r"HKLM\System\CurrentControlSet\Enum\PCI"): "",
    }
    result = difference({}, after)
    assert result.changes == []
    assert result.noise_summary() == (
        "not listed: Wine's own state: 1, records of the installer: 3"
    )


def test_names_that_only_begin_like_noise_are_listed():
    after = {(Area.REGISTRY, r"HKLM\Software\Classes\InstallerOfOthers"): ""}
    assert len(difference({}, after).changes) == 1


def test_services_and_tasks_stand_in_areas_of_their_own():
    services = r"HKLM\System\CurrentControlSet\Services"
    assert machine.place(rf"{services}\Telo : Start") == (Area.SERVICE, "Telo : Start")
    assert machine.place(r"C:\windows\system32\Tasks\StartPV") == (Area.TASK, "StartPV")
    assert machine.place(r"C:\windows\system32\other") == (
        Area.FILE,
        r"C:\windows\system32\other",
    )
    assert machine.place(r"HKU\S-1-5-18\x") == (Area.REGISTRY, r"HKU\S-1-5-18\x")


def test_a_snapshot_sees_a_new_key_file_task_and_service(prefix):
    before = machine.snapshot(prefix)
    task = prefix.drive_c / "windows/system32/tasks/SnapshotTask"
    task.parent.mkdir(exist_ok=True)
    task.write_text("task")
    file = prefix.throwaway / "snapshot.txt"
    file.write_text("file")
    key = r"HKCU\Software\SnapshotTest"
    try:
        assert prefix.run("reg.exe", "add", key, "/v", "Name", "/d", "é \\ \"x\"").returncode == 0
        created = prefix.run("sc.exe", "create", "SnapshotService", "binPath=", "x.exe")
        assert created.returncode == 0, created.stdout
        seen = machine.difference(before, machine.snapshot(prefix))
    finally:
        task.unlink()
        file.unlink()
        prefix.run("reg.exe", "delete", key, "/f")
        prefix.run("sc.exe", "delete", "SnapshotService")

    assert seen.of(Area.FILE, Kind.ADDED) == [r"T:\snapshot.txt"]
    assert seen.of(Area.TASK, Kind.ADDED) == ["SnapshotTask"]
    assert "SnapshotService" in seen.of(Area.SERVICE, Kind.ADDED)
    (value,) = [change for change in seen.changes if change.name.endswith("SnapshotTest : Name")]
    assert value.after == '"é \\ "x""'
    assert machine.difference(before, machine.snapshot(prefix)).changes == []


@pytest.mark.parametrize(
    "name",
    [
        r"Class\{4D36E968-E325-11CE-BFC1-08002BE10318}\0000 : Planted",
        r"Class\{4D36E968-E325-11CE-BFC1-08002BE10318} : Planted",
        r"Class\{4D36E968-E325-11CE-BFC1-08002BE10318}\0000 : DriverDateDataOfOthers",
        r"DeviceClasses\{e5323777-f976-4f5b-9b55-b94699c46e44} : Planted",
    ],
)
def test_a_value_planted_among_the_devices_shows_as_a_change(prefix, name):
    before = machine.snapshot(prefix)
    key, _, value = rf"HKLM\System\CurrentControlSet\Control\{name}".partition(" : ")
    there = (Area.REGISTRY, key) in before
    try:
        added = prefix.run("reg.exe", "add", key, "/v", value, "/d", "x", "/f")
        assert added.returncode == 0, added.stdout
        seen = machine.difference(before, machine.snapshot(prefix))
    finally:
        delete = ["/v", value] if there else []
        prefix.run("reg.exe", "delete", key, *delete, "/f")
    assert rf"{key} : {value}" in seen.of(Area.REGISTRY, Kind.ADDED)


def test_values_that_the_engine_changes_are_counted_and_not_listed():
    names = engines.value("display-values")
    control = r"HKLM\System\CurrentControlSet\Control"
    seen = difference({}, {(Area.REGISTRY, rf"{control}\{name}"): "" for name in names})
    assert seen.changes == []
    assert seen.noise == {"Wine's own state": len(names)}
