"""The prefix and the package that the installer tests share."""

import shutil
import sys
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path
from typing import Iterator, Mapping

import pytest
from _pytest.runner import runtestprotocol

_TESTS = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(_TESTS.parent / "tools"), str(_TESTS)]

from installer import companion, ending, machine, package, repeats, session  # noqa: E402
from installer.log import ActionRun, action_runs  # noqa: E402
from installer.machine import Difference, Snapshot  # noqa: E402
from installer.prefix import Prefix  # noqa: E402
from installer.session import SessionResult  # noqa: E402

ending.watch()

# What an installer session of a test was found to hang in, before one action had started.
_HUNG = pytest.StashKey[list[str]]()


def pytest_runtest_protocol(item: pytest.Item, nextitem: pytest.Item | None) -> bool:
    """Runs a test once more, with fresh prefixes, when an installer session of it hung before one
    action had started."""
    item.ihook.pytest_runtest_logstart(nodeid=item.nodeid, location=item.location)
    hung: list[str] = []
    item.stash[_HUNG] = hung
    reports = runtestprotocol(item, log=False, nextitem=nextitem)
    if hung:
        repeats.tell(hung[0])
        # The prefixes that tests share as well.
        item.session._setupstate.teardown_exact(None)
        item._initrequest()
        reports = runtestprotocol(item, log=False, nextitem=nextitem)
    for report in reports:
        item.ihook.pytest_runtest_logreport(report=report)
    item.ihook.pytest_runtest_logfinish(nodeid=item.nodeid, location=item.location)
    return True


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]) -> Iterator[None]:
    if call.excinfo is not None and call.excinfo.errisinstance(session.NothingDone):
        item.stash[_HUNG].append(str(call.excinfo.value))
    yield


@dataclass
class CleanMachine:
    """A machine without the product; what a test installs is removed after it."""

    prefix: Prefix
    test_name: str
    beginning: Snapshot = field(repr=False)
    installed: list[Path] = field(default_factory=list)

    def install(self, package_path: Path, *properties: str, **options) -> SessionResult:
        if package_path not in self.installed:
            self.installed.append(package_path)
        return session.install(
            self.prefix, package_path, *properties, log_name=self._log_name("install"), **options
        )

    def remove(self, package_path: Path, **options) -> SessionResult:
        return session.remove(
            self.prefix, package_path, log_name=self._log_name("remove"), **options
        )

    def changes(self) -> Difference:
        """What differs from the clean machine now."""
        return machine.difference(self.beginning, machine.snapshot(self.prefix))

    def end_service(self, name: str) -> None:
        """Stops and deletes a service that a test has left."""
        for command in ("stop", "delete"):
            self.prefix.run("sc.exe", command, name)

    def clean_up(self) -> None:
        registered = [name for _, name in machine.snapshot(self.prefix)]
        for package_path in self.installed:
            # The removal of what is not there runs as an installation here.
            code = dict(package.table(package_path, "Property"))["ProductCode"]
            if any(name.endswith(rf"\Uninstall\{code}") for name in registered):
                session.remove(self.prefix, package_path, log_name=self._log_name("clean-up"))
        # A service that ran while its product was removed has kept its folder, and so those above.
        folder = self.prefix.host_path(companion.FOLDER)
        shutil.rmtree(folder, ignore_errors=True)
        with suppress(OSError):
            folder.parent.rmdir()
        for temporary in self.prefix.temporary_folders():
            for name in companion.COPIES_LEFT_BEHIND:
                (temporary / name).unlink(missing_ok=True)
            shutil.rmtree(temporary / companion.LOG_FOLDER[0], ignore_errors=True)
        for key in companion.KEYS_TO_DELETE:
            self.prefix.run("reg.exe", "delete", key, "/f")
        self.prefix.host_path(companion.RECORD).unlink(missing_ok=True)

    def _log_name(self, what: str) -> str:
        return f"{self.test_name}-{what}"


@pytest.fixture(scope="session")
def companion_package() -> Path:
    return package.build()


@pytest.fixture(scope="session")
def second_package() -> Path:
    return package.build(package.SECOND_CLIENT)


@pytest.fixture(scope="session")
def executions_package() -> Path:
    return package.build(Path(__file__).with_name("executions.wxs"))


@pytest.fixture(scope="session")
def prefix() -> Iterator[Prefix]:
    with Prefix("prefix-msi") as running:
        yield running


@pytest.fixture(scope="session")
def watching(prefix: Prefix) -> Mapping[str, str]:
    """The environment of runs that tell what actions returned."""
    return session.watch_results(prefix)


# Behind what watching writes to the registry.
@pytest.fixture(scope="session")
def clean_snapshot(prefix: Prefix, watching: Mapping[str, str]) -> Snapshot:
    return machine.snapshot(prefix)


@pytest.fixture
def clean_machine(
    prefix: Prefix, clean_snapshot: Snapshot, request: pytest.FixtureRequest
) -> Iterator[CleanMachine]:
    name = "".join(c if c.isalnum() else "-" for c in request.node.name)[:80]
    tested = CleanMachine(prefix, name, clean_snapshot)
    assert tested.changes().changes == [], "the machine is not clean before the test"
    yield tested
    tested.clean_up()
    assert tested.changes().changes == [], "the machine is not clean after the test"


@pytest.fixture
def runs_of(companion_package: Path):
    """Reads the runs of the library's actions out of a session's log."""
    definitions = package.library_actions(companion_package)

    def read(result: SessionResult) -> list[ActionRun]:
        return action_runs(result.lines, definitions, result.calls)

    return read
