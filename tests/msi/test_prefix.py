"""Prefixes are checked before use, end with all their processes, and nothing waits for ever."""

import shutil
from pathlib import Path

import pytest

from installer import package, paths, session
from installer.prefix import Prefix, UnsafePrefix, link_danger

NAME = "prefix-msi-checked"


def processes_of(prefix: Path) -> list[str]:
    """The command lines of the running processes that belong to a prefix."""
    mark = f"WINEPREFIX={prefix}".encode()
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if mark in (process / "environ").read_bytes().split(b"\0"):
                found.append((process / "cmdline").read_bytes().replace(b"\0", b" ").decode())
        except OSError:
            continue
    return found


def test_a_prefix_without_a_guard_is_refused():
    missing = paths.BUILD / "no-guard.exe"
    with pytest.raises(UnsafePrefix, match="the guard is missing"), Prefix(NAME, guard=missing):
        pytest.fail("the prefix was taken")


def test_a_prefix_with_another_drive_is_refused(monkeypatch, tmp_path):
    unsafe = tmp_path / "make_prefix.sh"
    unsafe.write_text(
        f'sh "{paths.MAKE_PREFIX}" "$1" && ln -s "$1.throwaway" "$1/dosdevices/z:"\n'
    )
    monkeypatch.setattr(paths, "MAKE_PREFIX", unsafe)
    with pytest.raises(UnsafePrefix, match="drive z: leads to"), Prefix(NAME):
        pytest.fail("the prefix was taken")
    assert processes_of(paths.BUILD / NAME) == []


@pytest.mark.parametrize(
    "link, target, reason",
    [
        ("dosdevices/z:", "..", "drive Z: leads somewhere unknown"),
        ("dosdevices/t:", "/", "drive T: shows the root of the real file system"),
        ("dosdevices/t:", None, "drive T: is missing"),
        ("drive_c/users/USER/Music", "/usr/share", "Music is a link"),
        ("drive_c/users/Public/Music", "/usr/share", "Music is a link"),
    ],
)
def test_the_guard_refuses_from_inside(link, target, reason):
    with Prefix(NAME) as prefix:
        users = (prefix.drive_c / "users").iterdir()
        user = next(profile.name for profile in users if profile.name != "Public")
        path = prefix.path / link.replace("USER", user)
        path.rmdir() if path.is_dir() and not path.is_symlink() else path.unlink(missing_ok=True)
        if target is not None:
            path.symlink_to(target)
        refused = prefix.run(paths.PREFIX_GUARD)
    assert refused.returncode == 1
    assert reason in refused.stdout


def test_a_prefix_that_the_guard_refuses_is_refused():
    refusing = paths.PREFIX_GUARD.with_name("recorder.exe")
    with pytest.raises(UnsafePrefix), Prefix(
        NAME, guard=refusing, environment={"HALVARD_RECORD_EXIT": "1"}
    ):
        pytest.fail("the prefix was taken")


def test_a_prefix_outside_of_the_build_folder_is_not_made():
    with pytest.raises(UnsafePrefix, match="is not below"), Prefix("../prefix-outside"):
        pytest.fail("the prefix was taken")


def test_no_process_is_left_when_the_block_ends_with_a_failure():
    with pytest.raises(ZeroDivisionError), Prefix(NAME) as prefix:
        assert processes_of(prefix.path) != []
        raise ZeroDivisionError
    assert processes_of(paths.BUILD / NAME) == []


def test_a_program_that_does_not_end_is_ended(prefix):
    with pytest.raises(TimeoutError, match="ping.exe did not end within 0.5 s"):
        prefix.run("ping.exe", "-n", "60", "127.0.0.1", limit=0.5)
    assert [line for line in processes_of(prefix.path) if "ping" in line] == []


@pytest.fixture
def endless_package(companion_package: Path) -> Path:
    """A package whose installation waits for a program that runs for a minute."""
    run_program_and_wait = 50
    endless = paths.PACKAGES / "endless.msi"
    shutil.copyfile(companion_package, endless)
    package.change(
        endless,
        "INSERT INTO Property (Property, Value) VALUES ('WAIT', 'ping.exe')",
        "INSERT INTO CustomAction (Action, Type, Source, Target) "
        f"VALUES ('Wait', {run_program_and_wait}, 'WAIT', '-n 60 127.0.0.1')",
        "INSERT INTO InstallExecuteSequence (Action, Sequence) VALUES ('Wait', 5)",
    )
    return endless


def test_an_installer_that_does_not_end_is_ended(prefix, endless_package):
    progress = []
    with pytest.raises(TimeoutError, match="within 2.5 s.*build/installer-logs/endless.log"):
        session.install(
            prefix,
            endless_package,
            log_name="endless",
            limit=session.PROGRESS_INTERVAL + 0.5,
            progress=lambda seconds, line: progress.append((seconds, line)),
        )
    ((seconds, line),) = progress
    assert seconds >= session.PROGRESS_INTERVAL
    assert line.startswith("Action start") and line.endswith("Wait.")


@pytest.fixture
def made(tmp_path) -> tuple[Path, Path]:
    """The links of a safe prefix, and nothing behind them."""
    prefix, throwaway = tmp_path / "prefix", tmp_path / "prefix.throwaway"
    (prefix / "dosdevices").mkdir(parents=True)
    (prefix / "drive_c/users").mkdir(parents=True)
    throwaway.mkdir()
    for drive, target in (("b:", paths.BUILD), ("c:", prefix / "drive_c"), ("t:", throwaway)):
        (prefix / "dosdevices" / drive).symlink_to(target)
    (prefix / "dosdevices/com1").symlink_to("/dev/ttyS0")
    return prefix, throwaway


def test_a_prefix_with_its_own_links_only_is_safe(made):
    assert link_danger(*made) == ""


@pytest.mark.parametrize(
    "link", ["dosdevices/z:", "dosdevices/d::", "drive_c/users/Desktop", "drive_c/deep"]
)
def test_every_other_link_is_a_danger(made, link):
    (made[0] / link).symlink_to("/usr/share")
    assert link.rpartition("/")[2] in link_danger(*made)


def test_a_link_in_the_throwaway_folder_is_a_danger(made):
    (made[1] / "link").symlink_to("/usr/share")
    assert "is a link" in link_danger(*made)


@pytest.mark.parametrize("drive", ["b:", "c:", "t:"])
def test_a_drive_that_leads_elsewhere_or_is_missing_is_a_danger(made, drive):
    device = made[0] / "dosdevices" / drive
    device.unlink()
    assert link_danger(*made) == f"drive {drive} is missing"
    device.symlink_to("/usr/share")
    assert link_danger(*made) == f"drive {drive} leads to /usr/share"
