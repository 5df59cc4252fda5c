"""A Wine prefix of the project's own: made, checked, kept alive and ended.

All times are seconds.
"""

import os
import re
import select
import signal
import subprocess
import sys
import tempfile
from contextlib import suppress
from pathlib import Path
from typing import Mapping, Sequence

import progress
from installer import engines, paths, repeats
from installer.confinement import ConfinedThread
from installer.engines import WINE
from installer.steady import ProcessorClaim, settle_thread

MAKE_LIMIT = 180.0
START_LIMIT = 60.0
STOP_LIMIT = 20.0

INSTALLER = "msiexec.exe"
_PROPERTY = re.compile(r"(?P<name>\w+)=(?P<value>.*)", re.DOTALL)
_BLANK = re.compile(r"\s")
_LINE_VARIABLE = "HALVARD_COMMAND_LINE"


class UnsafePrefix(RuntimeError):
    """The library must not run in this prefix: it could delete files outside of it."""


class NotStarted(TimeoutError):
    """A fresh prefix in which not one program could be started in time."""


class Prefix:
    """A fresh prefix for the length of a `with` block.

    Its programs can change files of the prefix, of its throw-away folder, of the folder of
    installer logs and of `results`, and no others. They run on one processor.

    One process of the prefix is kept alive for all of the block: services end with the last
    process, and starting a program in a living prefix takes a tenth of the time.
    """

    def __init__(
        self,
        name: str,
        guard: Path = paths.PREFIX_GUARD,
        environment: Mapping[str, str] | None = None,
        results: Sequence[Path] = (),
    ) -> None:
        self.path = paths.BUILD / name
        self.drive_c = self.path / "drive_c"
        self.throwaway = paths.BUILD / f"{name}.throwaway"
        self._guard = guard
        self._results = results
        self._environment = _environment(self.path) | dict(environment or {})
        self._keeper: subprocess.Popen[bytes] | None = None
        self._starter: ConfinedThread | None = None
        self._claim: ProcessorClaim | None = None

    def __enter__(self) -> "Prefix":
        try:
            try:
                self._begin()
            except NotStarted as hanging:
                # Nothing has run in it yet, so nothing is lost with it.
                repeats.tell(str(hanging))
                self.stop()
                self._begin()
        except BaseException:
            self.stop()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def start(
        self,
        program: str | Path,
        *arguments: str,
        environment: Mapping[str, str] | None = None,
        **options,
    ) -> subprocess.Popen[bytes]:
        """Starts a program with additions to its environment; the options are those of Popen.

        A session of its own keeps Ctrl-C away from the program, which is ended with its prefix.
        """
        if self._starter is None:
            starter = ConfinedThread(self._writable())
            starter.call(settle_thread, self._claim.processor)
            self._starter = starter
        command, added = command_of(str(program), arguments)
        return self._starter.call(
            subprocess.Popen,
            [WINE, *command],
            env=self._environment | dict(environment or {}) | added,
            cwd=self.drive_c / "windows/system32",
            start_new_session=True,
            **{"stdin": subprocess.DEVNULL} | options,
        )

    def run(
        self, program: str | Path, *arguments: str, limit: float = START_LIMIT, **options
    ) -> subprocess.CompletedProcess[str]:
        """Runs a program to its end. TimeoutError tells which program did not end in time."""
        # A file and not a pipe: what the program leaves running would hold a pipe open.
        with tempfile.TemporaryFile() as output:
            process = self.start(program, *arguments, stdout=output, stderr=output, **options)
            try:
                process.wait(limit)
            except subprocess.TimeoutExpired:
                raise TimeoutError(f"{program} did not end within {limit:g} s") from None
            finally:
                process.kill()
                process.wait()
            output.seek(0)
            text = output.read().decode(errors="replace")
        return subprocess.CompletedProcess([str(program), *arguments], process.returncode, text)

    def host_path(self, path: str) -> Path:
        """Where a path of drive c: or t: lies on the host."""
        drives = {"C:": self.drive_c, "T:": self.throwaway}
        drive, *names = path.split("\\")
        return drives[drive].joinpath(*names)

    def temporary_folders(self) -> list[Path]:
        """Where the temporary folders of the users lie on the host."""
        below = engines.value("temporary-folder").replace("\\", "/")
        return list(self.drive_c.glob(f"users/*/{below}"))

    def stop(self) -> None:
        """Ends every process of this prefix and of no other."""
        # First, for a program that is still starting would bring the ended prefix back to life.
        if self._keeper is not None:
            self._keeper.kill()
            self._keeper.stdin.close()
            self._keeper.stdout.close()
            self._keeper.wait()
            self._keeper = None
        if (self.path / "dosdevices").is_dir() and not self._wineserver("-k", "-w"):
            self._wineserver("-k9", "-w")
        if self._starter is not None:
            self._starter.end()
            self._starter = None
        if self._claim is not None:
            self._claim.release()
            self._claim = None

    def _begin(self) -> None:
        self._claim = ProcessorClaim()
        self._make()
        self._check_links()
        # Before the guard: a prefix whose only program ends between two starts may hang or refuse.
        self._keep_alive()
        self._check_from_inside()

    def _make(self) -> None:
        # Not by the thread that starts what runs in the prefix: that can change nothing beside it.
        command = ["taskset", "--cpu-list", str(self._claim.processor)]
        command += ["sh", str(paths.MAKE_PREFIX), str(self.path)]
        # Standard output may belong to what the prefix is made for.
        with progress.shown(lambda: "making a Wine prefix", sys.stderr):
            made = _run_tool(command, MAKE_LIMIT, _environment(self.path))
        if made.returncode != 0:
            raise UnsafePrefix(f"no prefix could be made: {made.stdout.strip()}")

    def _writable(self) -> list[Path]:
        paths.LOGS.mkdir(parents=True, exist_ok=True)
        own = [self.path, self.throwaway, _server_folder(self.path)]
        return [*own, paths.LOGS, *self._results, Path(os.devnull)]

    def _check_links(self) -> None:
        danger = link_danger(self.path, self.throwaway)
        if danger:
            raise UnsafePrefix(f"{self.path}: {danger}")
        if not self._guard.is_file():
            raise UnsafePrefix(f"the guard is missing: {self._guard} (build first)")

    def _check_from_inside(self) -> None:
        verdict = self.run(self._guard)
        if verdict.returncode != 0:
            raise UnsafePrefix(f"{self.path}: {verdict.stdout.strip()}")

    def _keep_alive(self) -> None:
        # The command interpreter waits for its input, which ends when this program does.
        self._keeper = self.start(
            "cmd.exe",
            "/q",
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
        )
        ready, _, _ = select.select([self._keeper.stdout], [], [], START_LIMIT)
        if not ready or not os.read(self._keeper.stdout.fileno(), 1):
            raise NotStarted(f"{self.path}: no program can be kept running")

    def _wineserver(self, *switches: str) -> bool:
        try:
            _run_tool(["wineserver", *switches], STOP_LIMIT, self._environment)
        except subprocess.TimeoutExpired:
            return False
        return True


def link_danger(prefix: Path, throwaway: Path) -> str:
    """Which link of a prefix leads out of it; empty when none does.

    Seen from outside, where a link is a link: from inside, a folder linked to the real file system
    looks like any other.
    """
    drives = {"b:": paths.BUILD, "c:": prefix / "drive_c", "t:": throwaway}
    for device in (prefix / "dosdevices").iterdir():
        if device.name in drives:
            if device.resolve() != drives.pop(device.name).resolve():
                return f"drive {device.name} leads to {device.resolve()}"
        elif not re.fullmatch(r"(com|lpt)\d+", device.name):
            return f"drive {device.name} leads to {device.resolve()}"
    if drives:
        return f"drive {min(drives)} is missing"
    for root in (prefix / "drive_c", throwaway):
        for folder, folders, files in os.walk(root):
            for name in [*folders, *files]:
                path = os.path.join(folder, name)
                if os.path.islink(path):
                    return f"{path} is a link"
    return ""


def command_of(program: str, arguments: Sequence[str]) -> tuple[list[str], dict[str, str]]:
    """What to start for a program with these arguments, and what its environment needs for it.

    The installer takes the value of a property in quotes, and not the whole in them, which is what
    becomes of an argument with blanks: the command interpreter passes such a line on as it is.
    ValueError for a property whose value has a quotation mark, which would end it.
    """
    properties = [match for match in map(_PROPERTY.fullmatch, arguments) if match is not None]
    if program != INSTALLER or not properties:
        return [program, *arguments], {}
    for each in properties:
        if '"' in each["value"]:
            raise ValueError(f"the value of {each['name']} has a quotation mark: {each['value']}")
    if not any(_BLANK.search(each["value"]) for each in properties):
        return [program, *arguments], {}
    line = " ".join([program, *map(_quoted, arguments)])
    return ["cmd.exe", "/c", f"%{_LINE_VARIABLE}%"], {_LINE_VARIABLE: line}


def _quoted(argument: str) -> str:
    """An argument of the installer as it stands in its command line."""
    match = _PROPERTY.fullmatch(argument)
    if match is None:
        return subprocess.list2cmdline([argument])
    return f'{match["name"]}="{match["value"]}"' if _BLANK.search(match["value"]) else argument


def _server_folder(prefix: Path) -> Path:
    """The folder in which the processes of a prefix meet; made here, for they cannot make it."""
    runtime = Path(f"/run/user/{os.getuid()}")
    # Debian's Wine keeps a name of its own choice, others have a fixed one.
    chosen = prefix / "wineserver"
    if runtime.is_dir():
        parent = runtime / "wine"
    elif chosen.is_file():
        parent = Path("/tmp") / Path(chosen.read_text().strip()).name
    else:
        parent = Path(f"/tmp/.wine-{os.getuid()}")
    identity = prefix.stat()
    folder = parent / f"server-{identity.st_dev:x}-{identity.st_ino:x}"
    for made in (parent, folder):
        made.mkdir(mode=0o700, exist_ok=True)
    return folder


def _environment(prefix: Path) -> dict[str, str]:
    environment = {
        name: value
        for name, value in os.environ.items()
        if name not in ("DISPLAY", "WAYLAND_DISPLAY") and not name.startswith("WINE")
    }
    return environment | {
        "WINEPREFIX": str(prefix),
        "WINEDEBUG": "-all",
        "WINEDLLOVERRIDES": "mscoree,mshtml,winemenubuilder.exe=",
        # Fixes the language of messages and the code page of installer logs.
        "LC_ALL": "C.UTF-8",
        # Where no window system is to be found, and found missing without a word on standard error.
        "XDG_RUNTIME_DIR": str(prefix),
    }


def _run_tool(
    command: Sequence[str], limit: float, environment: Mapping[str, str] | None = None
) -> subprocess.CompletedProcess[str]:
    process = subprocess.Popen(
        command,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        env=environment,
        start_new_session=True,
    )
    try:
        output, _ = process.communicate(timeout=limit)
    except BaseException:
        # With all that it started: a copy that goes on would disturb the next prefix.
        with suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        raise
    return subprocess.CompletedProcess(command, process.returncode, output)
