"""No action of the shipped library writes outside of a block of the heap.

The engine marks what lies behind each block and in each free one, and looks at all marks of a heap
with each block that is taken from it or given back. It looks at no heap when a process ends: what an
action writes shows when that process goes on using the same heap, as both hosts of actions do. The
blocks of the library come from the heap of the run-time (msvcrt.dll) that all of a process share.
"""

import re
from dataclasses import dataclass
from pathlib import Path
from subprocess import CompletedProcess
from typing import Iterator, Mapping

import pytest

from installer import actions, companion, package, paths, session
from installer.heap_check import MARKS_AND_REPORTS, check_heap
from installer.prefix import Prefix
from installer.session import SessionResult

REPORTS = "err+heap,warn+heap"
LIMIT = 120.0

# The process that hosts the actions has this name whatever its client is called. The client does
# nothing of the library's, and to look at its heap would take most of the time.
HOST = "msiexec.exe"
CLIENT = r"C:\windows\system32\client.exe"

EXECUTIONS = Path(__file__).with_name("executions.wxs")
BEHIND, IN_FREE = "invalid block tail", "free block overwritten"


@dataclass(frozen=True)
class Hosts:
    """A prefix whose hosts of actions run with the check."""

    prefix: Prefix
    watching: Mapping[str, str]

    def session(self, switch: str, source: Path, *properties: str) -> SessionResult:
        """A session of the installer, which tells what the exports returned."""
        return session.run(
            self.prefix,
            [switch, paths.windows_path(source), *properties],
            log_name=f"heap-{source.stem}-{switch[1]}",
            limit=LIMIT,
            environment={"WINEDEBUG": f"{self.watching['WINEDEBUG']},{REPORTS}"},
            program=CLIENT,
        )

    def alone(self, *arguments: str) -> CompletedProcess[str]:
        """One action without a package."""
        environment = {"WINEDEBUG": f"-all,{REPORTS}"}
        return self.prefix.run(paths.RUNNER, *arguments, limit=LIMIT, environment=environment)


@pytest.fixture(scope="module")
def hosts() -> Iterator[Hosts]:
    with Prefix("prefix-msi-heap") as prefix:
        for program in (HOST, paths.RUNNER.name):
            check_heap(prefix, program, MARKS_AND_REPORTS)
        client = prefix.host_path(CLIENT)
        client.write_bytes(client.with_name(HOST).read_bytes())
        yield Hosts(prefix, session.watch_results(prefix))


def heap_reports(output: str) -> set[str]:
    """What the engine says of damaged heaps, each kind once."""
    lines = re.findall(r"^\w+:(?:err|warn):heap:(.*)$", output, re.MULTILINE)
    return {line.rpartition(": ")[2] for line in lines}


def faulty_package(execution: str, fault: str) -> Path:
    """One whose only action of the library has a fault."""
    built = package.build(EXECUTIONS, paths.FAULT_ACTIONS, companion.NEXT_VERSION)
    other = "Immediate" if execution == "Deferred" else "Deferred"
    return package.changed_copy(
        built,
        f"heap-{fault}",
        f"UPDATE CustomAction SET Target='{fault}' WHERE Action='{execution}'",
        f"DELETE FROM InstallExecuteSequence WHERE Action='{other}'",
    )


@pytest.mark.parametrize(
    "execution, fault, report",
    [
        ("Immediate", "WriteBehindAKeptBlock", BEHIND),
        ("Deferred", "WriteBehindABlockOfTheSystem", BEHIND),
    ],
)
def test_a_fault_is_reported_in_a_session(hosts, execution, fault, report):
    done = hosts.session("/i", faulty_package(execution, fault))
    assert done.exit_code == session.as_exit_code(session.INSTALL_FAILURE)
    assert heap_reports(done.printed.read_text(errors="replace")) == {report}


@pytest.mark.parametrize(
    "fault, report", [("WriteBehindABlock", BEHIND), ("WriteIntoAFreeBlock", IN_FREE)]
)
def test_a_fault_is_reported_of_an_action_alone(hosts, fault, report):
    done = hosts.alone(fault, "--dll", paths.windows_path(paths.FAULT_ACTIONS))
    assert heap_reports(done.stdout) == {report}


def test_no_action_of_a_session_damages_the_heap(hosts, companion_package):
    returned = set()
    for switch in ("/i", "/x"):
        properties = ("LAUNCHED_FROM_MIM=1", companion.WITH_AGENT)
        done = hosts.session(switch, companion_package, *properties)
        assert heap_reports(done.printed.read_text(errors="replace")) == set()
        assert done.exit_code == 0, done.report()
        returned |= {call.export for call in done.calls if call.result is not None}
    assert returned == set(actions.exports())


@pytest.mark.parametrize(
    "arguments, shown",
    [
        (["BlockLaunch"], "1603 ERROR_INSTALL_FAILURE"),
        (["DeletePVFolder"], "halvard::RegKeyError"),
        (["DeleteDMFTDirectory", r"CustomActionData=InstallDir=t:\tree"], "0 ERROR_SUCCESS"),
    ],
)
def test_no_action_alone_damages_the_heap(hosts, arguments, shown):
    """One action for each way of ending: a start with the check takes a second."""
    tree = hosts.prefix.throwaway / "tree"
    (tree / "folder").mkdir(parents=True, exist_ok=True)
    (tree / "folder/file").touch()
    done = hosts.alone(*arguments)
    assert heap_reports(done.stdout) == set()
    assert shown in done.stdout
