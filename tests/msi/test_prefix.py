"""Prefixes are checked before use, end with all their processes, and nothing waits for ever."""

import os
import shutil
import warnings
from concurrent.futures import ThreadPoolExecutor
from contextlib import suppress
from pathlib import Path
from typing import Callable, TypeVar

import pytest

import progress
from installer import confinement, package, paths, repeats, session, steady
from installer.log import LogLine
from installer.prefix import INSTALLER, NotStarted, Prefix, UnsafePrefix, command_of, link_danger
from processes import processes_of, running_in
from waiting import until

NAME = "prefix-msi-checked"
LIMIT = 20.0
Trait = TypeVar("Trait")


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


def test_a_prefix_that_takes_its_time_is_told_of_on_standard_error(monkeypatch, tmp_path, capsys):
    slow = tmp_path / "make_prefix.sh"
    slow.write_text("sleep 0.5; exit 1\n")
    monkeypatch.setattr(paths, "MAKE_PREFIX", slow)
    for name, seconds in (("QUIET", 0.05), ("POLL", 0.05), ("INTERVAL", 0.1)):
        monkeypatch.setattr(progress, name, seconds)
    with pytest.raises(UnsafePrefix, match="no prefix could be made"), Prefix(NAME):
        pytest.fail("the prefix was taken")
    out, err = capsys.readouterr()
    assert out == "" and " s: making a Wine prefix\n" in err


def test_no_process_is_left_when_the_block_ends_with_a_failure():
    with pytest.raises(ZeroDivisionError), Prefix(NAME) as prefix:
        assert processes_of(prefix.path) != []
        raise ZeroDivisionError
    assert processes_of(paths.BUILD / NAME) == []


def of_each_process(prefix: Prefix, ask: Callable[[int], Trait]) -> list[Trait]:
    """What is asked of each process of a prefix; one that ends meanwhile is left out."""
    answers = []
    for number, _ in running_in(prefix.path):
        with suppress(OSError):
            answers.append(ask(number))
    return answers


def test_the_programs_of_a_prefix_share_a_processor_with_as_few_others_as_possible(monkeypatch, tmp_path):
    monkeypatch.setattr(steady, "CLAIMS", tmp_path / "processors")
    usable = os.sched_getaffinity(0)
    with Prefix(NAME) as prefix, Prefix("prefix-msi-checked-too") as other:
        own, others = (of_each_process(each, os.sched_getaffinity) for each in (prefix, other))
    # The server at least, and what keeps it.
    assert len(own) > 1 and len(others) > 1
    assert own == [own[0]] * len(own) and others == [others[0]] * len(others)
    assert len(own[0]) == 1 and len(own[0] | others[0]) == min(2, len(usable))
    assert os.sched_getaffinity(0) == usable


def test_the_programs_of_a_prefix_do_not_draw_their_addresses(prefix):
    traits = of_each_process(prefix, lambda number: Path(f"/proc/{number}/personality").read_text())
    fixed = [bool(int(each, 16) & steady.ADDR_NO_RANDOMIZE) for each in traits]
    assert len(fixed) > 1
    # Where that is refused, in some containers, they run as anywhere.
    with ThreadPoolExecutor(1) as pool:
        assert set(fixed) == {pool.submit(steady.fix_addresses).result()}


def test_processors_are_claimed_in_turn_and_again_when_they_are_free(monkeypatch, tmp_path):
    monkeypatch.setattr(steady, "CLAIMS", tmp_path / "processors")
    monkeypatch.setattr(os, "sched_getaffinity", lambda process: {7, 3})
    claims = [steady.ProcessorClaim() for _ in range(5)]
    assert [claim.processor for claim in claims] == [3, 7, 3, 7, 3]
    # What is left has processor 3, at the second place.
    for claim in [*claims[:2], *claims[3:]]:
        claim.release()
    again = [steady.ProcessorClaim() for _ in range(3)]
    assert [claim.processor for claim in again] == [7, 3, 7]
    for claim in [claims[2], *again]:
        claim.release()


def test_a_program_that_does_not_end_is_ended(prefix):
    with pytest.raises(TimeoutError, match="ping.exe did not end within 0.5 s"):
        prefix.run("ping.exe", "-n", "60", "127.0.0.1", limit=0.5)
    assert [line for line in processes_of(prefix.path) if "ping" in line] == []


def endless_package(companion_package: Path, place: int) -> Path:
    """A package whose installation waits at this place for a program that runs for a minute."""
    run_program_and_wait = 50
    endless = paths.PACKAGES / "endless.msi"
    shutil.copyfile(companion_package, endless)
    package.change(
        endless,
        "INSERT INTO Property (Property, Value) VALUES ('WAIT', 'ping.exe')",
        "INSERT INTO CustomAction (Action, Type, Source, Target) "
        f"VALUES ('Wait', {run_program_and_wait}, 'WAIT', '-n 60 127.0.0.1')",
        "INSERT INTO InstallExecuteSequence (Action, Sequence) "
        f"VALUES ('Wait', {place})",
    )
    return endless


@pytest.mark.parametrize("place", [5, 60], ids=["before all actions", "behind others"])
def test_an_installer_that_does_not_end_is_ended(prefix, companion_package, place):
    progress = []
    with pytest.raises(TimeoutError, match="within 2.5 s.*build/installer-logs/endless.log") as ended:
        session.install(
            prefix,
            endless_package(companion_package, place),
            "LAUNCHED_FROM_MIM=1",
            log_name="endless",
            limit=session.PROGRESS_INTERVAL + 0.5,
            progress=lambda seconds, line: progress.append((seconds, line)),
        )
    assert not isinstance(ended.value, session.NothingDone), "one of its actions had started"
    ((seconds, line),) = progress
    assert seconds >= session.PROGRESS_INTERVAL
    assert line.startswith("Action start") and line.endswith("Wait.")


def test_an_installer_that_starts_no_action_has_done_nothing(prefix, companion_package, monkeypatch):
    start = prefix.start
    monkeypatch.setattr(
        prefix, "start", lambda *_, **options: start("ping.exe", "-n", "60", "127.0.0.1", **options)
    )
    with pytest.raises(session.NothingDone, match="within 0.5 s"):
        session.install(prefix, companion_package, limit=0.5)


@pytest.mark.parametrize(
    "line, started",
    [
        ("Action start 9:09:52: INSTALL.", False),
        ("Action start 9:09:52: AppSearch.", True),
        ("Action ended 9:09:52: INSTALL. Return value 0.", False),
        ("Action 9:09:52: INSTALL. ", False),
    ],
)
def test_the_sequence_itself_is_no_action_that_has_started(line, started):
    assert session.any_action_started([LogLine("before", 0), LogLine(line, 1)]) is started


@pytest.mark.parametrize("failures", [1, 2])
def test_a_prefix_that_starts_no_program_is_begun_once_more(failures, monkeypatch, tmp_path):
    counted = tmp_path / "counted"
    monkeypatch.setenv(repeats.COUNTED_IN, str(counted))
    keep_alive, left = Prefix._keep_alive, [None] * failures

    def hang(prefix: Prefix) -> None:
        if left:
            left.pop()
            (prefix.drive_c / "of the first one").touch()
            raise NotStarted("it hangs")
        keep_alive(prefix)

    monkeypatch.setattr(Prefix, "_keep_alive", hang)
    with pytest.warns(UserWarning, match="once more: it hangs"):
        if failures == 1:
            with Prefix(NAME) as prefix:
                assert not (prefix.drive_c / "of the first one").exists()
        else:
            with pytest.raises(NotStarted), Prefix(NAME):
                pytest.fail("the prefix was taken")
    assert counted.read_text() == "it hangs\n"
    assert processes_of(paths.BUILD / NAME) == []


@pytest.mark.parametrize(
    "arguments, line",
    [
        (["/i", "b:\\a b.msi", "/l*v", "b:\\a.log"], None),
        (["/i", "b:\\a.msi", "NAME=value", "EMPTY=", "INSTALLDIR=C:\\a\\"], None),
        (["/i", "b:\\a.msi", "NAME=a b"], 'msiexec.exe /i b:\\a.msi NAME="a b"'),
        (
            ["/i", "b:\\a b.msi", "NAME=a\tb", "OTHER=c", "/l*v", "b:\\c d\\"],
            'msiexec.exe /i "b:\\a b.msi" NAME="a\tb" OTHER=c /l*v "b:\\c d\\\\"',
        ),
        (["/i", "", "NAME= ", 'say "no"'], 'msiexec.exe /i "" NAME=" " "say \\"no\\""'),
    ],
)
def test_the_installer_gets_what_has_blanks_in_quotes(arguments, line):
    command, environment = command_of(INSTALLER, arguments)
    if line is None:
        assert (command, environment) == ([INSTALLER, *arguments], {})
    else:
        ((variable, value),) = environment.items()
        assert (command, value) == (["cmd.exe", "/c", f"%{variable}%"], line)


def test_another_program_gets_its_arguments_as_they_are():
    arguments = ["NAME=a b", 'NAME="a"']
    assert command_of("reg.exe", arguments) == (["reg.exe", *arguments], {})


@pytest.mark.parametrize("argument", ['NAME=a"b', 'NAME="a b"', 'NAME="'])
def test_a_quotation_mark_in_the_value_of_a_property_is_refused(prefix, argument):
    with pytest.raises(ValueError, match="the value of NAME has a quotation mark"):
        prefix.start(INSTALLER, "/i", r"b:\a.msi", argument)


def test_a_log_and_a_property_with_blanks_reach_the_installer(prefix, companion_package):
    refused = session.install(prefix, companion_package, "NAME=a b", log_name="with blanks")
    assert refused.exit_code == session.as_exit_code(session.INSTALL_FAILURE)
    assert "Property(S): NAME = a b" in refused.texts


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


RECORDER = paths.PREFIX_GUARD.with_name("recorder.exe")


def unix_form(folder: Path) -> str:
    """The path by which a program reaches any file of the host, whatever the drives are."""
    return "\\\\?\\unix" + str(folder).replace("/", "\\")


def change(prefix: Prefix, folder: Path, windows_folder: str) -> set[str]:
    """What a program of the prefix can do in a folder: make and write a file, remove both kinds."""
    shutil.rmtree(folder, ignore_errors=True)
    (folder / "empty").mkdir(parents=True)
    (folder / "file").write_text("as it was")
    (folder / "grows").write_text("as it was")
    for name in ("made", "grows"):
        prefix.run(RECORDER, environment={"HALVARD_RECORD": rf"{windows_folder}\{name}"})
    prefix.run("cmd.exe", "/c", "del", rf"{windows_folder}\file")
    prefix.run("cmd.exe", "/c", "rd", rf"{windows_folder}\empty")
    happened = {
        "made a file": (folder / "made").exists(),
        "wrote a file": (folder / "grows").read_text() != "as it was",
        "removed a file": not (folder / "file").exists(),
        "removed a folder": not (folder / "empty").exists(),
    }
    return {what for what, did in happened.items() if did}


EVERYTHING = {"made a file", "wrote a file", "removed a file", "removed a folder"}


@pytest.fixture
def build_folder():
    folder = paths.BUILD / "test-confinement"
    yield folder
    shutil.rmtree(folder, ignore_errors=True)


@pytest.fixture
def confining_kernel():
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        if not confinement.rights():
            pytest.skip("this kernel cannot confine programs")


def test_a_program_changes_nothing_outside_of_its_prefix(
    confining_kernel, prefix, build_folder, tmp_path
):
    assert change(prefix, tmp_path / "outside", unix_form(tmp_path / "outside")) == set()
    assert change(prefix, build_folder, r"b:\test-confinement") == set()
    assert change(prefix, build_folder, unix_form(build_folder)) == set()


def test_a_program_changes_what_its_prefix_holds(prefix):
    for folder, windows_folder in (
        (prefix.throwaway / "inside", r"t:\inside"),
        (prefix.throwaway / "inside", unix_form(prefix.throwaway / "inside")),
        (prefix.drive_c / "inside", r"c:\inside"),
        (paths.LOGS / "inside", r"b:\installer-logs\inside"),
    ):
        assert change(prefix, folder, windows_folder) == EVERYTHING, windows_folder
        shutil.rmtree(folder)


def test_a_program_writes_results_where_its_prefix_lets_it(build_folder):
    build_folder.mkdir()
    with Prefix(NAME, results=[build_folder]) as prefix:
        assert change(prefix, build_folder / "in", r"b:\test-confinement\in") == EVERYTHING


@pytest.mark.parametrize(
    "command",
    [
        ["cmd.exe", "/c", "cmd.exe", "/c", "del", "{outside_form}", "{inside_form}"],
        ["start.exe", "/unix", "/bin/rm", "{outside}", "{inside}"],
    ],
    ids=["a program of Windows", "a program of the host"],
)
def test_what_a_program_starts_is_confined_as_well(confining_kernel, prefix, tmp_path, command):
    outside, inside = tmp_path / "file", prefix.throwaway / "file"
    for file in (outside, inside):
        file.write_text("as it was")
    names = {"outside": outside, "inside": inside}
    names |= {f"{name}_form": unix_form(file) for name, file in names.items()}
    prefix.run(*(part.format(**names) for part in command))
    # The host's programs are not waited for.
    until(lambda: not inside.exists(), LIMIT)
    assert outside.exists()


NO_SUCH_CALL = 100_000


@pytest.fixture
def kernel_without_confinement(monkeypatch):
    confinement.rights.cache_clear()
    monkeypatch.setattr(confinement, "CREATE_RULESET", NO_SUCH_CALL)
    yield
    confinement.rights.cache_clear()


def test_a_kernel_that_cannot_confine_is_told_of_once(kernel_without_confinement, build_folder):
    with pytest.warns(RuntimeWarning) as told, Prefix(NAME) as prefix:
        done = change(prefix, build_folder, r"b:\test-confinement")
    (warning,) = told
    assert "cannot confine the programs of a prefix (Function not implemented)" in str(
        warning.message
    )
    assert done == EVERYTHING


def test_a_kernel_that_cannot_move_files_in_confinement_counts_as_none(monkeypatch):
    confinement.rights.cache_clear()
    monkeypatch.setattr(confinement, "LEAST_VERSION", 1_000)
    with pytest.warns(RuntimeWarning, match="version [0-9]+ of Landlock|not implemented"):
        assert confinement.rights() == 0
    confinement.rights.cache_clear()


def test_a_confinement_that_fails_starts_nothing(confining_kernel, monkeypatch):
    monkeypatch.setattr(confinement, "RESTRICT_SELF", NO_SUCH_CALL)
    with pytest.raises(OSError, match="Function not implemented"), Prefix(NAME):
        pass


def test_programs_of_a_prefix_see_each_other(prefix):
    # The server of the prefix reads the memory of one program for the other.
    shutil.copy(RECORDER, prefix.throwaway / "seen.exe")
    record = {"HALVARD_RECORD": r"t:\seen.txt", "HALVARD_RECORD_DELAY": "60000"}
    running = prefix.start(r"t:\seen.exe", environment=record)
    try:
        until((prefix.throwaway / "seen.txt").exists, LIMIT)
        killed = prefix.run("taskkill.exe", "/IM", "seen.exe", "/F")
    finally:
        running.kill()
        running.wait()
        for left in ("seen.exe", "seen.txt"):
            (prefix.throwaway / left).unlink(missing_ok=True)
    assert killed.returncode == 0, killed.stdout
