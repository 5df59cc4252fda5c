"""Runs a command and lets nothing of it outlive it.

    supervise.py COMMAND...

Whatever the command starts is ended with it, also what has left its process group or session, as
Wine's servers do. SIGINT, SIGTERM and SIGHUP go to all of its session, which then has `GRACE` seconds
to put things in order and to end what it has put into sessions of their own; what is left then is
killed. What belongs to another user, as a program under sudo does, ends by itself. The exit code is
the command's own, or 128 and the number of the signal.
"""

import ctypes
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
# Seconds. A prefix that is told to end needs up to twice its own limit of 20.
GRACE = 45.0
# Seconds for what the command has left behind, such as a server that waits for its last client.
LEFT_BEHIND = 5.0
# Seconds within which a signal is the same one: a time limit tells a process and then its group.
SAME_SIGNAL = 1.0
POLL = 0.05
PR_SET_CHILD_SUBREAPER = 36


def main(command: list[str]) -> int:
    # Orphans become children of this process, so that its descendants are all that was started.
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        sys.exit(f"supervise: {os.strerror(ctypes.get_errno())}")
    watched = {*ENDING, signal.SIGCHLD}
    # Also where the caller ignores them, as a shell does for what it starts in the background.
    for each in ENDING:
        signal.signal(each, signal.SIG_DFL)
    signal.pthread_sigmask(signal.SIG_BLOCK, watched)
    try:
        process = subprocess.Popen(
            command, preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_UNBLOCK, watched)
        )
    except OSError as failure:
        sys.exit(f"supervise: {failure}")
    while True:
        told = signal.sigwaitinfo(watched)
        if told.si_signo != signal.SIGCHLD:
            # What stands in a session of its own is ended by whoever began that session.
            _tell(descendants(own_session=True), told.si_signo)
            _end(GRACE)
            return 128 + told.si_signo
        code = process.poll()
        _reap(process.pid)
        if code is not None:
            _tell(descendants(), signal.SIGTERM)
            _end(LEFT_BEHIND)
            return code if code >= 0 else 128 - code


def descendants(own_session: bool = False) -> list[int]:
    """The numbers of all running processes that this one has started, and of what those have; or
    only of those that are in its session."""
    children: dict[int, list[int]] = {}
    sessions: dict[int, int] = {}
    for status in Path("/proc").glob("[0-9]*/stat"):
        try:
            # Behind the name, which may hold anything: the state, then the parent.
            fields = status.read_text(errors="replace").rpartition(")")[2].split()
        except OSError:
            continue
        if fields[0] != "Z":
            process = int(status.parent.name)
            children.setdefault(int(fields[1]), []).append(process)
            sessions[process] = int(fields[3])
    found: list[int] = []
    waiting = [os.getpid()]
    while waiting:
        own = children.get(waiting.pop(), [])
        found += own
        waiting += own
    return [each for each in found if not own_session or sessions[each] == os.getsid(0)]


def _end(limit: float) -> None:
    """Waits until all descendants have ended; kills those that have not within `limit` seconds, or
    when one more signal says that somebody does not want to wait."""
    start = time.monotonic()
    while running := descendants():
        _reap()
        hurry = signal.sigtimedwait(ENDING, POLL) is not None
        waited = time.monotonic() - start
        if waited > limit or (hurry and waited > SAME_SIGNAL):
            if not _tell(running, signal.SIGKILL):
                break
    _reap()


def _tell(processes: list[int], number: int) -> bool:
    """Sends a signal; whether this process may send it to one of them."""
    sent = False
    for process in processes:
        try:
            os.kill(process, number)
            sent = True
        except (ProcessLookupError, PermissionError):
            pass
    return sent


def _reap(other_than: int = 0) -> None:
    """Takes what is left of children that have ended, but not of the one that is waited for."""
    while True:
        try:
            ended = os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT)
        except ChildProcessError:
            return
        if ended is None or ended.si_pid == other_than:
            return
        os.waitpid(ended.si_pid, 0)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
