"""What ./run takes from its caller, what it refuses, and what it leaves running: nothing.

The script is tried in a checkout of its own, with programs in place of apt and cmake.
"""

import os
import pty
import re
import shutil
import signal
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

import pytest

import bare
import progress
import supervise
from installer import paths
from waiting import until

LIMIT = 20.0
# What the script and the programs in place of others need of the machine.
TOOLS = (
    "awk cat chroot dirname env find flock grep head mkdir readlink rm setsid sh sleep tail uname"
).split()
INSTALLED = "echo 'install ok installed'"
# Leaves one process in a session of its own behind a parent that has ended, and tells both numbers.
LEAVE_A_PROCESS = 'setsid sh -c \'sleep 300 & echo $! >>"$0"\' "$PWD/started"\n'


@dataclass
class Checkout:
    folder: Path
    tools: Path

    def replace(self, tool: str, script: str) -> None:
        file = self.tools / tool
        file.unlink(missing_ok=True)
        file.write_text(f"#!/bin/sh\n{script}\n")
        file.chmod(0o755)

    def start(self, *arguments: str, **options) -> "subprocess.Popen[str]":
        environment = options.pop("environment", {})
        return subprocess.Popen(
            [str(self.folder / "run"), *arguments],
            env={"PATH": str(self.tools), "HOME": "/"} | environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            **options,
        )

    def run(self, *arguments: str, **options) -> tuple[int, str]:
        process = self.start(*arguments, **options)
        output, _ = process.communicate(timeout=LIMIT)
        return process.returncode, output

    def started(self, count: int) -> list[int]:
        """The numbers that started processes have written."""
        file = self.folder / "started"
        until(lambda: file.exists() and len(file.read_text().split()) >= count, LIMIT)
        return [int(number) for number in file.read_text().split()]


def is_running(process: int) -> bool:
    try:
        state = Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[0]
    except FileNotFoundError:
        return False
    return state != "Z"


@pytest.fixture
def checkout(tmp_path) -> Checkout:
    made = Checkout(tmp_path / "checkout", tmp_path / "bin")
    made.tools.mkdir()
    (made.folder / "tools").mkdir(parents=True)
    for tool in TOOLS:
        (made.tools / tool).symlink_to(shutil.which(tool))
    for name in ("run", "tools/supervise.py", "tools/progress.py"):
        shutil.copy(paths.ROOT / name, made.folder / name)
    (made.folder / "tools/build_package.py").write_text("print('built')\n")
    # Nothing here puts anything in order, so that nobody needs the time for it.
    supervise = (made.folder / "tools/supervise.py").read_text()
    assert "GRACE = 45.0\n" in supervise
    (made.folder / "tools/supervise.py").write_text(supervise.replace("GRACE = 45.0", "GRACE = 3.0"))
    (made.folder / "os-release").write_text("ID=debian\nVERSION_ID=12\n")
    script = (made.folder / "run").read_text()
    assert "os_release=/etc/os-release\n" in script
    (made.folder / "run").write_text(
        script.replace("=/etc/os-release\n", f"={made.folder}/os-release\n")
    )
    made.replace("dpkg-query", INSTALLED)
    made.replace("id", "echo 0")
    made.replace("cmake", ":")
    return made


def test_it_builds_where_nothing_is_missing(checkout):
    assert checkout.run("build") == (0, "== building mingw-release\nbuilt\n")


@pytest.mark.parametrize(
    "arguments", [["nothing"], ["test", "nothing"], ["fuzz"], ["fuzz", "nothing"]]
)
def test_an_unknown_word_is_told_the_known_ones(checkout, arguments):
    code, output = checkout.run(*arguments)
    assert code == 2 and output.startswith("./run demo")


def test_nothing_of_the_callers_environment_reaches_the_work(checkout):
    checkout.replace("cmake", 'env >"$PWD/seen"')
    inherited = {
        **{name: "changed" for name in ("GTEST_FILTER", "GTEST_TOTAL_SHARDS", "PYTEST_ADDOPTS")},
        **{name: "changed" for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "CMAKE_GENERATOR")},
        **{name: "changed" for name in ("CXXFLAGS", "CFLAGS", "LDFLAGS", "CMAKE_BUILD_TYPE")},
        **{name: "changed" for name in ("TZ", "LANG", "LC_ALL", "PYTHONPATH", "WINEDEBUG")},
        **{name: "changed" for name in ("DISPLAY", "TMPDIR", "TWO\nLINES", "FUNC%%")},
        **{name: "changed" for name in ("python", "os_release", "caller", "word", "name", "log")},
    }
    code, _ = checkout.run("build", environment={**inherited, "http_proxy": "kept"})
    names = {line.partition("=")[0] for line in (checkout.folder / "seen").read_text().split("\n")}
    assert code == 0
    assert names - {""} <= {"PATH", "HOME", "PWD", "OLDPWD", "HALVARD_CALLER", "http_proxy", "LC_CTYPE",
                            "PYTHONNOUSERSITE"}
    assert "changed" not in (checkout.folder / "seen").read_text()
    assert "http_proxy=kept" in (checkout.folder / "seen").read_text()


def test_paths_of_arguments_are_the_callers(checkout, tmp_path):
    (checkout.folder / "tools/dist.py").write_text(
        "import os, sys\nprint(os.environ['HALVARD_CALLER'], os.getcwd(), sys.argv[1:])\n"
    )
    caller = tmp_path / "caller"
    caller.mkdir()
    (caller / "link").symlink_to(checkout.folder / "run")
    for script in ("../checkout/run", "./link"):
        done = subprocess.run(
            [script, "dist", "--key", "a b"],
            cwd=caller,
            env={"PATH": str(checkout.tools)},
            stdout=subprocess.PIPE,
            text=True,
            timeout=LIMIT,
        )
        assert done.stdout.splitlines()[-1] == f"{caller} {checkout.folder} ['--key', 'a b']"


def test_a_relative_path_starts_where_the_caller_is(monkeypatch, tmp_path):
    monkeypatch.setenv("HALVARD_CALLER", str(tmp_path))
    assert paths.of_caller("key.pem") == tmp_path / "key.pem"
    assert paths.of_caller("/other/key.pem") == Path("/other/key.pem")


def test_a_build_that_fails_shows_its_end_and_its_code(checkout):
    checkout.replace("cmake", "echo first; echo last; exit 3")
    assert checkout.run("build") == (3, "== building mingw-release\nfirst\nlast\n")


@pytest.mark.parametrize(
    "system, told",
    [
        ("ID=ubuntu\nVERSION_ID=24.04\n", "ubuntu 24.04 x86_64"),
        ("ID=debian\nVERSION_ID=11\n", "debian 11 x86_64"),
        ("ID=debian\n", "debian  x86_64"),
        (None, "unknown"),
    ],
)
def test_another_system_is_refused_in_one_line(checkout, system, told):
    file = checkout.folder / "os-release"
    file.unlink() if system is None else file.write_text(system)
    code, output = checkout.run("test")
    assert code == 1
    assert output == (
        f"run: this system is not Debian 12 or 13 on x86_64 but {told}; use such a machine, or a "
        "container of debian:12 or debian:13\n"
    )
    assert not (checkout.folder / "build").exists()


@pytest.mark.parametrize("sudo", [None, "exit 1"], ids=["no sudo", "sudo that refuses"])
def test_missing_packages_without_rights_are_told_in_one_line(checkout, sudo):
    checkout.replace("dpkg-query", f'[ "$3" = wixl ] || {INSTALLED}')
    checkout.replace("id", "echo 1000")
    if sudo is not None:
        checkout.replace("sudo", sudo)
    code, output = checkout.run("demo")
    assert code == 1 and output.count("\n") == 1
    assert output.startswith("run: packages are missing, and ")
    assert "let root run: apt-get install --no-install-recommends wixl" in output
    assert not (checkout.folder / "build").exists()


def test_without_rights_it_works_where_nothing_is_missing(checkout):
    checkout.replace("id", "echo 1000")
    assert checkout.run("build")[0] == 0


@pytest.mark.parametrize("missing", ["wixl", "python3"])
def test_without_a_network_nothing_is_installed(checkout, missing):
    checkout.replace("dpkg-query", f'[ "$3" = {missing} ] || {INSTALLED}')
    checkout.replace(
        "apt-get",
        'case "$*" in *--download-only*) echo "E: Unable to locate package"; exit 100 ;; '
        '*update*) exit 100 ;; *) touch "$PWD/installed" ;; esac',
    )
    code, output = checkout.run("build")
    assert code == 1
    installing, told = output.splitlines()
    assert installing.strip() == f"== installing: {missing}"
    assert told.strip().startswith(f"run: cannot get the packages {missing}: E: Unable to locate")
    assert not (checkout.folder / "installed").exists()


def test_packages_are_fetched_before_one_is_installed(checkout):
    checkout.replace("dpkg-query", f'[ -e installed ] || [ "$3" != wixl ] && {INSTALLED}')
    checkout.replace("apt-get", 'echo "$*" >>asked\ncase "$*" in *download*) ;; *wixl) : >installed ;; esac')
    assert checkout.run("build")[0] == 0
    assert (checkout.folder / "asked").read_text().splitlines() == [
        "-q -y update",
        "-q -y install --no-install-recommends --download-only wixl",
        "-q -y install --no-install-recommends wixl",
    ]


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
@pytest.mark.parametrize("ignored", [False, True], ids=["heeded", "ignored by the caller"])
def test_a_signal_ends_all_that_was_started(checkout, number, ignored):
    checkout.replace("cmake", f'{LEAVE_A_PROCESS}echo $$ >>"$PWD/started"\nsleep 300')
    process = checkout.start(
        "build",
        preexec_fn=(lambda: signal.signal(number, signal.SIG_IGN)) if ignored else None,
    )
    started = checkout.started(2)
    assert all(map(is_running, started))
    process.send_signal(number)
    process.communicate(timeout=LIMIT)
    assert process.returncode == 128 + number
    assert [each for each in started if is_running(each)] == []


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_a_signal_ends_an_installation_before_anything_else_runs(checkout, number):
    checkout.replace("dpkg-query", f'[ "$3" = python3 ] || {INSTALLED}')
    checkout.replace("apt-get", 'echo $$ >>"$PWD/started"\nexec sleep 300')
    process = checkout.start("build")
    (started,) = checkout.started(1)
    process.send_signal(number)
    process.communicate(timeout=LIMIT)
    assert process.returncode != 0
    until(lambda: not is_running(started), LIMIT)


def test_a_process_of_another_user_ends_by_itself(monkeypatch):
    def refuse(process: int, number: int) -> None:
        raise PermissionError

    monkeypatch.setattr(supervise.os, "kill", refuse)
    assert supervise._tell([1, 2], signal.SIGTERM) is False
    monkeypatch.setattr(supervise, "descendants", lambda own_session=False: [1])
    start = time.monotonic()
    supervise._end(0.2)
    assert time.monotonic() - start < 5


def test_who_does_not_heed_a_signal_is_ended_by_the_next_one(checkout):
    checkout.replace("cmake", 'trap "" TERM\necho $$ >>"$PWD/started"\nwhile :; do sleep 1; done')
    process = checkout.start("build")
    (started,) = checkout.started(1)
    process.terminate()
    time.sleep(1.5)
    assert is_running(started)
    process.terminate()
    process.communicate(timeout=LIMIT)
    assert process.returncode == 128 + signal.SIGTERM
    assert not is_running(started)


def test_what_a_word_leaves_running_is_ended_with_it(checkout):
    checkout.replace("cmake", LEAVE_A_PROCESS)
    assert checkout.run("build")[0] == 0
    started = checkout.started(1)
    assert [each for each in started if is_running(each)] == []


def test_a_second_run_in_a_checkout_says_so_and_ends(checkout):
    checkout.replace("cmake", 'echo $$ >>"$PWD/started"\nwhile [ ! -e go ]; do sleep 0.05; done')
    first = checkout.start("build")
    checkout.started(1)
    told = f"run: ./run build (process {first.pid}) is at work in this checkout; wait for its end\n"
    assert checkout.run("clean") == (75, told)
    assert checkout.run("demo") == (75, told)
    assert checkout.run("action", "list") == (125, told)
    assert (checkout.folder / "build/mingw-release.log").exists()
    (checkout.folder / "go").touch()
    output, _ = first.communicate(timeout=LIMIT)
    assert (first.returncode, output) == (0, "== building mingw-release\nbuilt\n")
    assert checkout.run("clean") == (0, "")
    assert not (checkout.folder / "build/mingw-release.log").exists()


def test_what_a_run_starts_is_no_second_run(checkout):
    checkout.replace("cmake", '[ -e nested ] || { : >nested; "$PWD/run" build; }')
    code, output = checkout.run("build")
    assert code == 0 and output.endswith("built\n")
    assert "built" in (checkout.folder / "build/mingw-release.log").read_text()


PROGRESS = f"""
import sys
sys.path.insert(0, {str(paths.ROOT / "tools")!r})
import progress
progress.QUIET = progress.POLL = 0.05
progress.INTERVAL = 0.2
sys.exit(progress.main(sys.argv[1:]))
"""
BUILDS = "echo '[3/9] Building'; sleep 1; echo '[9/9] Linking'; exit 4"


def test_a_line_tells_now_and_then_how_far_a_build_is(tmp_path):
    command = [sys.executable, "-c", PROGRESS, str(tmp_path / "log"), "sh", "-c", BUILDS]
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, timeout=LIMIT)
    lines = done.stdout.splitlines()
    assert done.returncode == 4
    assert 2 <= lines.count("   0 s: built 3 of 9") + lines.count("   1 s: built 3 of 9") <= 5
    assert lines[-2:] == ["[3/9] Building", "[9/9] Linking"]


def test_a_terminal_shows_one_line_that_changes(tmp_path):
    end, terminal = pty.openpty()
    quiet = BUILDS.replace("exit 4", "exit 0")
    command = [sys.executable, "-c", PROGRESS, str(tmp_path / "log"), "sh", "-c", quiet]
    done = subprocess.run(command, stdout=terminal, timeout=LIMIT)
    os.close(terminal)
    shown = os.read(end, 100_000).decode()
    os.close(end)
    assert done.returncode == 0
    assert shown.count("\r\x1b[K   0 s: built 3 of 9") >= 5
    assert "\n" not in shown and shown.endswith("\r\x1b[K")


@pytest.fixture
def impatient(monkeypatch):
    """Progress is shown soon and often."""
    for name, seconds in (("QUIET", 0.05), ("POLL", 0.05), ("INTERVAL", 0.1)):
        monkeypatch.setattr(progress, name, seconds)


def test_work_without_a_log_is_told_of_where_it_is_asked_for(impatient, capsys):
    with progress.shown(lambda: "at work", sys.stderr):
        time.sleep(0.5)
    out, err = capsys.readouterr()
    assert out == "" and re.fullmatch(r"(   \d s: at work\n)+", err)
    with progress.shown(lambda: "at work"):
        time.sleep(0.5)
    out, err = capsys.readouterr()
    assert re.fullmatch(r"(   \d s: at work\n)+", out) and err == ""


def test_what_is_quick_is_not_told_of(capsys):
    with progress.shown(lambda: "at work"):
        time.sleep(2 * progress.POLL)
    assert capsys.readouterr().out == ""


@pytest.mark.parametrize("code", [0, 3])
def test_a_debian_in_the_making_shows_how_far_it_is(code, impatient, monkeypatch, tmp_path, capsys):
    tool = tmp_path / "debootstrap"
    tool.write_text(
        f'#!/bin/sh\necho "I: Retrieving $3"\nsleep 0.5\nmkdir -p "$4/etc/apt/apt.conf.d"\nexit {code}\n'
    )
    tool.chmod(0o755)
    monkeypatch.setenv("PATH", f"{tmp_path}:{os.environ['PATH']}")
    monkeypatch.setattr(bare, "FOLDER", tmp_path)
    monkeypatch.setattr(bare, "package_source", lambda: "nowhere")
    if code == 0:
        bare.make_debian("bookworm", tmp_path / "debian", tmp_path)
    else:
        with pytest.raises(SystemExit, match="debootstrap failed"):
            bare.make_debian("bookworm", tmp_path / "debian", tmp_path)
    assert " s: I: Retrieving bookworm\n" in capsys.readouterr().out
