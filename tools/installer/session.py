"""One run of the real installer, its log stamped line by line as it is written.

The installer's own stamps are whole seconds. The log is therefore followed while it grows, and each
line gets the time of its arrival: milliseconds since the start, late by up to `POLL` on an idle machine.

What an action returned does not stand in the log, nor what a session inside of another one did; the
trace of the engine's calls tells it.
"""

import codecs
import re
import subprocess
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Collection, Iterable, Mapping, Sequence

from installer import actions, engines, paths
from installer.log import ExportCall, LogLine
from installer.prefix import Prefix

POLL = 0.002
LIMIT = 60.0
PROGRESS_INTERVAL = 2.0

INSTALL_FAILURE = 1603
NO_MORE_ITEMS = 259

# The engine runs each action of a library on a thread of its own, through this function, in which
# it looks the export up.
_CALL = "msi.__wine_msi_call_dll_function"
_LOOK_UP = "kernel32.GetProcAddress"
_TRACED_CALL = re.compile(rf"(?P<thread>\w+):Call {re.escape(_CALL)}\(")
_TRACED_RETURN = re.compile(
    rf"(?P<thread>\w+):Ret  {re.escape(_CALL)}\(\) retval=(?P<result>[0-9a-f]+) "
)
_TRACED_LOOK_UP = re.compile(
    r'(?P<thread>\w+):Call KERNEL32\.GetProcAddress\(\w+,\w+ "(?P<name>\w+)"'
)
_STARTED = re.compile(r"Action start \d+:\d+:\d+: (?P<action>\S+)\.$")
_TRACE = {"WINEDEBUG": "-all,trace+relay"}

Progress = Callable[[float, str], None]


def as_exit_code(result: int) -> int:
    """What is left of an installer result in the exit code of a process of the engine at work."""
    whole = engines.value("exit-code") == INSTALL_FAILURE
    return result if whole else result % 256


def shown_exit_code(exit_code: int) -> str:
    """An exit code as text, and the refusal of the installer by its whole number."""
    refused = as_exit_code(INSTALL_FAILURE)
    if exit_code == refused != INSTALL_FAILURE:
        return f"{INSTALL_FAILURE}, seen as {refused}"
    return str(exit_code)


@dataclass
class SessionResult:
    """What is known of an installer run that has ended."""

    arguments: list[str]
    exit_code: int
    log: Path
    seconds: float
    lines: list[LogLine] = field(repr=False)
    # The library's exports that the engine called, in their order, with what they returned. Empty
    # in a prefix that does not watch them.
    calls: list[ExportCall] = field(default_factory=list)

    @property
    def printed(self) -> Path:
        """Where what the programs of the session printed lies, the trace of the engine's calls too."""
        return printed_beside(self.log)

    @property
    def texts(self) -> list[str]:
        return [line.text for line in self.lines]

    def report(self) -> str:
        """What a failing test shows: the command, its exit code and where the log lies."""
        return (
            f"msiexec {' '.join(self.arguments)}\n"
            f"exit code {self.exit_code}, installer log {paths.shown(self.log)}"
        )


def printed_beside(log: Path) -> Path:
    return log.with_suffix(".output")


def watch_results(prefix: Prefix) -> Mapping[str, str]:
    """Prepares a prefix for runs that tell what actions returned: the environment for them."""
    key = r"HKCU\Software\Wine\Debug"
    watched = f"{_CALL};{_LOOK_UP}"
    added = prefix.run("reg.exe", "add", key, "/v", "RelayInclude", "/d", watched, "/f")
    if added.returncode != 0:
        raise RuntimeError(f"the results of actions cannot be watched: {added.stdout}")
    return _TRACE


def install(prefix: Prefix, package: Path, *properties: str, **options) -> SessionResult:
    """Installs a package, or repairs it where the properties say so; never shows a window."""
    return run(prefix, ["/i", paths.windows_path(package), *properties], **options)


def remove(prefix: Prefix, package: Path, *properties: str, **options) -> SessionResult:
    """Removes what a package installed."""
    return run(prefix, ["/x", paths.windows_path(package), *properties], **options)


class NothingDone(TimeoutError):
    """A run did not end in time, and none of its actions had started.

    Wine's engine hangs so in one of some hundred runs. Whoever made the run may make it once more, in
    a fresh prefix and with all that came before it, and tells so (`repeats`).
    """


def run(
    prefix: Prefix,
    arguments: Sequence[str],
    log_name: str = "session",
    limit: float = LIMIT,
    progress: Progress | None = None,
    environment: Mapping[str, str] | None = None,
    program: str = "msiexec.exe",
) -> SessionResult:
    """Runs msiexec without a user interface and follows its log.

    `limit` is in seconds; TimeoutError says where the log of a run lies that did not end in time,
    `NothingDone` that no action of it had started. `progress` is called every `PROGRESS_INTERVAL`
    with the seconds since the start and the last line of the log. `program` is the installer's, where
    it has another name.
    """
    log = paths.LOGS / f"{log_name}.log"
    log.parent.mkdir(parents=True, exist_ok=True)
    log.unlink(missing_ok=True)
    command = [*arguments, "/qn", "/l*v", paths.windows_path(log)]

    start = time.monotonic()
    printed = printed_beside(log)
    with open(printed, "wb") as output:
        process = prefix.start(
            program,
            *command,
            environment=environment,
            stdout=output,
            stderr=subprocess.STDOUT,
        )
    try:
        lines = _follow(process, log, start, limit, progress)
        in_time = process.poll() is not None
    finally:
        process.kill()
        process.wait()
    seconds = time.monotonic() - start
    calls = traced_calls(printed.read_text(errors="replace").splitlines(), actions.exports())
    if not in_time:
        raise (TimeoutError if calls or any_action_started(lines) else NothingDone)(
            f"msiexec {' '.join(command)} did not end within {limit:g} s, "
            f"installer log {paths.shown(log)}"
        )
    return SessionResult(command, process.returncode, log, seconds, lines, calls)


def any_action_started(lines: Iterable[LogLine]) -> bool:
    """Whether a log tells of the start of an action other than INSTALL, which is the sequence."""
    started = (_STARTED.match(line.text) for line in lines)
    return any(match and match["action"] != "INSTALL" for match in started)


def traced_calls(trace: Iterable[str], exports: Collection[str]) -> list[ExportCall]:
    """The calls of these exports that a trace tells of, in their order."""
    calls: list[ExportCall] = []
    # By thread the number of its open call, None before the export has been looked up.
    open_calls: dict[str, int | None] = {}
    for line in trace:
        if begun := _TRACED_CALL.match(line):
            open_calls[begun["thread"]] = None
        elif (found := _TRACED_LOOK_UP.match(line)) and found["name"] in exports:
            if open_calls.get(found["thread"], 0) is None:
                open_calls[found["thread"]] = len(calls)
                calls.append(ExportCall(found["name"], None))
        elif ended := _TRACED_RETURN.match(line):
            number = open_calls.pop(ended["thread"], None)
            if number is not None:
                calls[number] = ExportCall(calls[number].export, int(ended["result"], 16))
    return calls


def _follow(
    process: subprocess.Popen[bytes],
    log: Path,
    start: float,
    limit: float,
    progress: Progress | None,
) -> list[LogLine]:
    growing = GrowingLog(log)
    next_progress = PROGRESS_INTERVAL
    while True:
        ended = process.poll() is not None
        elapsed = time.monotonic() - start
        growing.read(elapsed * 1000)
        if ended or elapsed > limit:
            growing.close(elapsed * 1000)
            return growing.lines
        if progress is not None and elapsed >= next_progress:
            progress(elapsed, growing.lines[-1].text if growing.lines else "")
            next_progress += PROGRESS_INTERVAL
        time.sleep(POLL)


class GrowingLog:
    """Collects the lines of a file that another process writes, each with its time of arrival."""

    def __init__(self, path: Path) -> None:
        self.lines: list[LogLine] = []
        self._path = path
        self._file = None
        self._decoder = None
        self._rest = ""

    def read(self, arrival: float) -> None:
        """Takes what has been written since; a line that is not complete yet waits."""
        if self._file is None:
            if not self._path.exists():
                return
            self._file = open(self._path, "rb")
        data = self._file.read()
        if not data:
            return
        if self._decoder is None:
            self._decoder = codecs.getincrementaldecoder(engines.value("log-encoding"))(
                errors="replace"
            )
        *complete, self._rest = (self._rest + self._decoder.decode(data)).split("\n")
        self.lines += [LogLine(text.removesuffix("\r"), arrival) for text in complete]

    def close(self, arrival: float) -> None:
        """Takes the last line even if it has no end."""
        if self._file is not None:
            self._file.close()
        if self._rest:
            self.lines.append(LogLine(self._rest, arrival))
