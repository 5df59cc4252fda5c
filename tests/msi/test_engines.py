"""The probes of those differences between the engines that show in an installer session or in the
engine's own programs: each finds out what the engine at work does.

The others are in tests/wine/engines_test.cpp.
"""

import codecs
import shutil
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterator

import pytest

from installer import companion, engines, machine, package, paths, session
from installer.log import ActionRun, action_runs
from installer.prefix import START_LIMIT, Prefix
from installer.session import SessionResult
from waiting import until

SOURCE = Path(__file__).with_name("engine_probes.wxs")
FOLDER = r"C:\Program Files\Engine probes"
SERVICE = "EngineProbe"
TASK = "EngineProbe"
TASK_FILE = r"T:\task.xml"
TASK_TEXT = """<?xml version="1.0"?>
<Task version="1.2" xmlns="http://schemas.microsoft.com/windows/2004/02/mit/task">
  <RegistrationInfo><Author>probe</Author></RegistrationInfo>
  <Triggers><LogonTrigger/></Triggers>
  <Principals><Principal id="Author"><LogonType>InteractiveToken</LogonType></Principal></Principals>
  <Actions Context="Author"><Exec><Command>C:\\first.exe</Command></Exec></Actions>
</Task>
"""
RECORD = r"T:\engine-probe.txt"

# What each probe observes, by the name of its difference.
PROBES: dict[str, Callable[["Probed"], engines.Value]] = {}


def probe(name: str) -> Callable:
    """Registers the probe of a difference."""

    def register(observe: Callable[["Probed"], engines.Value]):
        assert name not in PROBES, f"two probes of {name}"
        PROBES[name] = observe
        return observe

    return register


@dataclass
class Probed:
    """The machine of the probes and the sessions that several of them look at."""

    prefix: Prefix
    older: Path
    newer: Path

    def session(self, case: str, *properties: str) -> SessionResult:
        """One installation that runs the actions of a case, and is taken back."""
        result = session.install(
            self.prefix, self.older, f"CASE={case}", *properties, log_name=f"engine-{case}"
        )
        if result.exit_code == 0:
            session.remove(self.prefix, self.older, log_name="engine-back")
        return result

    def run_of(self, result: SessionResult, action: str) -> ActionRun | None:
        runs = action_runs(result.lines, package.library_actions(self.older))
        return next((run for run in runs if run.name == action), None)

    def logged(self, result: SessionResult, action: str) -> bool:
        """Whether an action was called that logs its folder."""
        run = self.run_of(result, action)
        return run is not None and bool(run.lines)

    def clear(self) -> None:
        """Takes away what a rollback has left."""
        self.prefix.run("sc.exe", "delete", SERVICE)
        shutil.rmtree(self.prefix.host_path(FOLDER), ignore_errors=True)


@pytest.fixture(scope="module")
def probed() -> Iterator[Probed]:
    older, newer = (
        package.build(SOURCE, paths.FAULT_ACTIONS, version)
        for version in (None, companion.NEXT_VERSION)
    )
    with Prefix("prefix-engines") as prefix:
        yield Probed(prefix, older, newer)


# The engine's programs.


@probe("exit-code")
def exit_code(probed: Probed) -> int:
    return probed.prefix.run("cmd.exe", "/c", "exit 1603").returncode


@probe("icacls")
def icacls(probed: Probed) -> int:
    return probed.prefix.run("icacls.exe", r"T:\missing", "/setowner", "nobody").returncode


@probe("powershell")
def powershell(probed: Probed) -> int:
    return probed.prefix.run("powershell.exe", "-Command", "exit 7").returncode


def made_task(probed: Probed) -> Path:
    """The file in the store of a task that was just made."""
    probed.prefix.host_path(TASK_FILE).write_text(TASK_TEXT)
    made = probed.prefix.run("schtasks.exe", "/create", "/tn", TASK, "/xml", TASK_FILE, "/f")
    assert made.returncode == 0, made.stdout
    return probed.prefix.host_path(rf"C:\windows\system32\tasks\{TASK}")


@probe("schtasks-change")
def schtasks_change(probed: Probed) -> bool:
    stored = made_task(probed)
    before = stored.read_bytes()
    changed = probed.prefix.run("schtasks.exe", "/change", "/tn", TASK, "/tr", r"C:\second.exe")
    assert changed.returncode == 0, changed.stdout
    return stored.read_bytes() != before


@probe("schtasks-run")
def schtasks_run(probed: Probed) -> int:
    return probed.prefix.run("schtasks.exe", "/run", "/tn", "no such task").returncode


@probe("task-store")
def task_store(probed: Probed) -> bool:
    return all(word in made_task(probed).read_text() for word in ("LogonTrigger", "first.exe"))


@probe("taskkill-by-name")
def taskkill_by_name(probed: Probed) -> int:
    prefix = probed.prefix
    program = r"T:\engine-probe.exe"
    shutil.copyfile(paths.STAND_INS["Recorder"], prefix.host_path(program))
    record = prefix.host_path(RECORD)
    environment = {"HALVARD_RECORD": RECORD, "HALVARD_RECORD_DELAY": "120000"}
    started = [prefix.start(program, environment=environment) for _ in range(2)]
    try:
        until(lambda: record.exists() and len(record.read_text().splitlines()) == 2, START_LIMIT)
        prefix.run("taskkill.exe", "/IM", "engine-probe.exe", "/F")
        until(lambda: any(process.poll() is not None for process in started), START_LIMIT)
        # The second one is told together with the first, or not at all.
        time.sleep(1.0)
        return sum(process.poll() is not None for process in started)
    finally:
        for process in started:
            process.kill()
            process.wait()
        record.unlink()


# What is stored where.


@probe("control-set")
def control_set(probed: Probed) -> str:
    key = r"HKLM\System\%s\Control\HalvardProbe"
    assert probed.prefix.run("reg.exe", "add", key % "CurrentControlSet", "/f").returncode == 0
    stored = machine.stored_registry(probed.prefix)
    probed.prefix.run("reg.exe", "delete", key % "CurrentControlSet", "/f")
    (name,) = [name for name in stored if name.endswith(r"\Control\HalvardProbe")]
    return name.split("\\")[2]


@probe("temporary-folder")
def temporary_folder(probed: Probed) -> str:
    shown = probed.prefix.run("cmd.exe", "/c", "echo %TEMP%").stdout.strip()
    return shown.split("\\", 3)[3]


# What a session does.


@probe("log-encoding")
def log_encoding(probed: Probed) -> str:
    log = probed.session("none").log.read_bytes()
    marked = log.startswith((codecs.BOM_UTF16_LE, codecs.BOM_UTF16_BE))
    return "utf-16" if marked else "cp1252"


@probe("failed-action")
def failed_action(probed: Probed) -> int | None:
    return probed.run_of(probed.session("checked"), "Answer").verdict


@probe("ignored-result")
def ignored_result(probed: Probed) -> bool:
    result = probed.session("ignored")
    assert result.exit_code == 0, result.report()
    return any("AnswerIgnored" in text and "1603" in text for text in result.texts)


@probe("no-more-items")
def no_more_items(probed: Probed) -> bool:
    result = probed.session("checked", f"RESULT={session.NO_MORE_ITEMS}")
    assert result.exit_code == 0, result.report()
    return not probed.logged(result, "Behind")


@probe("deferred-properties")
def deferred_properties(probed: Probed) -> bool:
    # The action returns what the property RESULT says, and 0 where it sees none.
    result = probed.session("deferred")
    probed.clear()
    answer = probed.run_of(result, "AnswerDeferred")
    assert answer is not None, result.report()
    failed = answer.verdict == engines.value("failed-action")
    assert failed == (result.exit_code != 0), result.report()
    return failed


@probe("rollback-calls")
def rollback_calls(probed: Probed) -> bool:
    result = probed.session("deferred")
    probed.clear()
    assert probed.logged(result, "UndoBefore"), result.report()
    return not probed.logged(result, "UndoBehind")


@probe("rollback-of-services")
def rollback_of_services(probed: Probed) -> bool:
    result = probed.session("deferred")
    gone = probed.prefix.run("sc.exe", "query", SERVICE).returncode != 0
    gone = gone and not probed.prefix.host_path(rf"{FOLDER}\service.exe").exists()
    probed.clear()
    assert result.exit_code != 0, result.report()
    return gone


@probe("exception-in-action")
def exception_in_action(probed: Probed) -> bool:
    result = probed.session("throw")
    probed.clear()
    assert probed.run_of(result, "BehindThrow") is not None, result.report()
    return probed.logged(result, "BehindThrow")


@probe("rollback-behind-exception")
def rollback_behind_exception(probed: Probed) -> bool:
    result = probed.session("throw checked")
    probed.clear()
    assert result.exit_code != 0, result.report()
    assert probed.run_of(result, "UndoBefore") is not None, result.report()
    return probed.logged(result, "UndoBefore")


@probe("service-path")
def service_path(probed: Probed) -> str:
    installed = session.install(probed.prefix, probed.older, log_name="engine-service")
    assert installed.exit_code == 0, installed.report()
    saved = machine.stored_registry(probed.prefix)
    session.remove(probed.prefix, probed.older, log_name="engine-service-back")
    (path,) = [saved[name] for name in saved if name.endswith(rf"\{SERVICE} : ImagePath")]
    return path[1:-1].replace(FOLDER, "FOLDER")


@probe("elevation-of-programs")
def elevation_of_programs(probed: Probed) -> bool:
    # Without an answer nothing is installed.
    asked = probed.prefix.run(
        paths.RUNNER, "--verify-installer", "--json", stdin=subprocess.DEVNULL
    )
    told = asked.stdout
    assert "nothing was installed" in told or "--verify-installer needs elevation" in told
    return "nothing was installed" in told


@probe("removal-of-nothing")
def removal_of_nothing(probed: Probed) -> int:
    result = session.remove(probed.prefix, probed.older, log_name="engine-nothing")
    if probed.prefix.host_path(FOLDER).exists():
        session.remove(probed.prefix, probed.older, log_name="engine-nothing-back")
    return result.exit_code


@probe("repair-by-fa")
def repair_by_fa(probed: Probed) -> int:
    installed = session.install(probed.prefix, probed.older, log_name="engine-repair")
    assert installed.exit_code == 0, installed.report()
    lost = probed.prefix.host_path(rf"{FOLDER}\service.exe")
    name = paths.windows_path(probed.older)
    lost.unlink()
    result = session.run(probed.prefix, ("/fa", name), log_name="engine-repair-fa")
    assert lost.exists() == (result.exit_code == 0), result.report()
    other = session.install(
        probed.prefix,
        probed.older,
        *("REINSTALL=ALL", "REINSTALLMODE=amus"),
        log_name="engine-repair-reinstall",
    )
    assert other.exit_code == 0 and lost.exists(), other.report()
    session.remove(probed.prefix, probed.older, log_name="engine-repair-back")
    probed.clear()
    return result.exit_code


def upgrade(probed: Probed, *properties: str) -> SessionResult:
    """An upgrade of a product with a feature that is not installed unless it is chosen."""
    installed = session.install(
        probed.prefix, probed.older, "ADDLOCAL=ALL", log_name="engine-older"
    )
    assert installed.exit_code == 0, installed.report()
    return session.install(probed.prefix, probed.newer, *properties, log_name="engine-newer")


def end_upgrade(probed: Probed) -> None:
    for source in (probed.newer, probed.older):
        if probed.prefix.host_path(FOLDER).exists():
            session.remove(probed.prefix, source, log_name="engine-upgrade-back")
    probed.clear()


@probe("upgrade-features")
def upgrade_features(probed: Probed) -> bool:
    upgrade(probed)
    carried = probed.prefix.host_path(rf"{FOLDER}\chosen.wxs").exists()
    end_upgrade(probed)
    return carried


@probe("upgrading-product-code")
def upgrading_product_code(probed: Probed) -> bool:
    # The removal inside fails where the property is set.
    result = upgrade(probed)
    end_upgrade(probed)
    return result.exit_code != 0


@probe("inner-session-log")
def inner_session_log(probed: Probed) -> bool:
    result = upgrade(probed)
    end_upgrade(probed)
    return any(": Removing." in text for text in result.texts)


@probe("display-values")
def display_values(probed: Probed) -> list[str]:
    control = rf"HKLM\System\{engines.value('control-set')}\Control"
    adapter = rf"{control}\Class\{{4D36E968-E325-11CE-BFC1-08002BE10318}}\0000"
    # Today's date would hide that the value is written.
    with Prefix("prefix-engines-display") as prefix:
        planted = ["/v", "DriverDate", "/d", "01-01-2000", "/f"]
        assert prefix.run("reg.exe", "add", adapter, *planted).returncode == 0
        before = machine.stored_registry(prefix)
        session.install(prefix, probed.older, log_name="engine-display")
        after = machine.stored_registry(prefix)
    return sorted(
        name.removeprefix(f"{control}\\")
        for name in before.keys() | after.keys()
        if name.startswith((rf"{control}\Class", rf"{control}\DeviceClasses"))
        and before.get(name) != after.get(name)
    )


@pytest.mark.parametrize("name", PROBES)
def test_the_engine_does_what_the_table_says(probed, name):
    assert PROBES[name](probed) == engines.value(name)
