"""halvard_run, which calls one action without a package."""

import json
import os
import re
import signal
import subprocess
import sys
from pathlib import Path
from typing import Iterator

import pytest

import generate
from installer import actions, companion, engines, paths
from installer.prefix import Prefix
from processes import processes_of
from programs import Done, ran, running
from waiting import until

LIBRARY = ("--dll", paths.windows_path(paths.FAULT_ACTIONS))
LIMIT = 60.0

SUCCESS, OTHER_RESULT, WRONG_ARGUMENTS, NO_LIBRARY, NO_ACTION, NO_SESSION = 0, 1, 2, 4, 5, 6
EXCEPTION, OVER_THE_LIMIT, NOT_WRITTEN, RUNNER_FAILED = 7, 8, 9, 10
DURATION = re.compile(r"^duration    \d+\.\d ms\n\Z", re.MULTILINE)
PIVOT_KEY = r"HKLM\SOFTWARE\Qorta Technologies\Install\Pivot"


class Run(Done):
    @property
    def json(self) -> dict:
        assert self.errors == ""
        return json.loads(self.output)


@pytest.fixture(scope="module")
def prefix() -> Iterator[Prefix]:
    """One of its own: what actions change without a package, no package takes back."""
    with Prefix("prefix-msi-runner") as running:
        yield running


@pytest.fixture
def call(prefix):
    def call(*arguments: str, program: str | Path = paths.RUNNER) -> Run:
        return Run(**vars(ran(prefix, program, *arguments, limit=LIMIT)))

    return call


def named_by_runner(file: Path) -> str:
    """The path of a file of the build as a program tells it that found it beside itself."""
    path = paths.windows_path(file)
    return path[0].upper() + path[1:]


def exported() -> list[str]:
    return sorted(actions.exports())


def without_duration(output: str) -> str:
    text, count = DURATION.subn("", output)
    assert count == 1, output
    return text


def told_of(action: actions.Action) -> dict:
    """What the runner tells scripts of an action."""
    return {
        "name": action.name,
        "subsystem": action.subsystem,
        "does": generate.plain(action.does),
        "execution": action.execution,
        "impersonated": action.impersonate or action.execution == "immediate",
        "checked": action.return_attribute == "check",
        "why": generate.plain(action.why),
        "schedule": generate.plain(action.schedule),
        "data": [{"key": key.name, "needed": key.needed} for key in action.data],
        "whole_data": generate.plain(action.whole_data) or None,
        "properties": list(action.properties),
        "registry": list(action.registry),
        "results": [
            {
                "value": each.value if each.fixed else None,
                "note": each.note or None,
                "means": generate.plain(each.means),
            }
            for each in action.results
        ],
        "exceptions": list(action.exceptions),
        "throws": generate.plain(action.throws) or None,
    }


def test_the_actions_are_listed_with_what_they_do(call):
    done = call("list")
    assert (done.code, done.errors) == (SUCCESS, "")
    assert re.findall(r"^(\w+)\n    ", done.output, re.MULTILINE) == exported()
    assert "    immediate, Return=\"check\"\n    Stops an installation that" in done.output


def test_the_actions_are_listed_for_scripts(call):
    listed = call("list", "--json").json
    by_name = {action.name: told_of(action) for action in actions.actions()}
    assert listed == {
        "dll": named_by_runner(paths.LIBRARY),
        "actions": [by_name[name] for name in exported()],
        "exit_code": SUCCESS,
    }


def test_one_action_is_told_of(call):
    (facts,) = [each for each in actions.actions() if each.name == "UnregisterDLL"]
    expected = told_of(facts) | {"exit_code": SUCCESS}
    assert call("UnregisterDLL", "--help", "--json").json == expected
    done = call("UnregisterDLL", "-h")
    assert (done.code, done.errors) == (SUCCESS, "")
    assert done.output.startswith("UnregisterDLL\n    Unregisters a COM server.\n\n")
    assert "data        InstallDir= (needed), DLLName= (needed)\n" in done.output
    assert "results     0: unregistered.\n            1603: regsvr32.exe answered" in done.output


def test_an_action_outside_of_the_table_cannot_be_told_of(call):
    done = call("UnregisterDl", "--help")
    assert (done.code, done.output) == (NO_ACTION, "")
    assert "has no UnregisterDl; did you mean UnregisterDLL?" in done.errors


def test_another_library_is_listed(call):
    assert "OverflowTheStack\n    not in the table" in call("list", *LIBRARY).output


def test_an_action_gets_its_properties_and_its_log_lines_are_shown(call):
    done = call("LaunchedFromMIM", "LAUNCHED_FROM_MIM=1")
    assert (done.code, done.errors) == (SUCCESS, "")
    assert without_duration(done.output) == (
        f"log         {companion.acceptance_line('1')}\n"
        "result      0 ERROR_SUCCESS\n"
        "if checked  goes on\n"
    )


def test_a_result_is_told_by_its_name_and_the_box_by_its_text(call):
    done = call("BlockLaunch")
    assert (done.code, done.errors) == (OTHER_RESULT, "")
    first, *further = companion.REFUSAL_MESSAGE
    assert without_duration(done.output) == "".join(
        [f"log         {companion.REFUSAL_LINE}\n", f"user        {first}\n"]
        + [f"            {line}\n" for line in further]
        + ["result      1603 ERROR_INSTALL_FAILURE\n", "if checked  fails the installation\n"]
    )


@pytest.mark.parametrize(
    "result, name, code",
    [
        (0, "ERROR_SUCCESS", SUCCESS),
        (1, None, OTHER_RESULT),
        (256, None, OTHER_RESULT),
        (259, "ERROR_NO_MORE_ITEMS", OTHER_RESULT),
        (1602, "ERROR_INSTALL_USEREXIT", OTHER_RESULT),
        (1603, "ERROR_INSTALL_FAILURE", OTHER_RESULT),
        (1612, "ERROR_INSTALL_SOURCE_ABSENT", OTHER_RESULT),
        (4294967295, None, OTHER_RESULT),
    ],
)
def test_every_result_is_told(call, result, name, code):
    done = call("ReturnResult", f"RESULT={result}", "--json", *LIBRARY)
    assert done.code == code
    told = done.json
    assert (told["result"], told["result_name"], told["exit_code"]) == (result, name, code)
    assert told["exception"] is None


def test_a_script_gets_all_of_a_call(call):
    data = 'ClientName=J\u00fcrgen "J";Action=;CurrentVersion=1.0 \\'
    done = call("CheckForClients", f"CustomActionData={data}", "OTHER=", "--json", "--quotes")
    assert done.code == SUCCESS
    told = done.json
    assert told.pop("milliseconds") > 0
    assert told == {
        "action": "CheckForClients",
        "dll": named_by_runner(paths.LIBRARY),
        "properties": {"CustomActionData": data, "OTHER": ""},
        "log": [
            f"CustomActionData: {data}",
            'Client Name J\u00fcrgen "J"',
            "Action ",
            "Current Version 1.0 \\",
        ],
        "messages": [],
        "standard_output": [],
        "standard_error": [],
        "result": 0,
        "result_name": "ERROR_SUCCESS",
        "if_checked": "goes on",
        "exception": None,
        "exit_code": 0,
    }


def test_messages_of_every_kind_are_told(call):
    told = call("SendEachKind", "--json", *LIBRARY).json
    assert told["log"] == ["first line\r\nsecond line\r\n"]
    assert told["messages"] == [
        {"kind": "warning", "type": 0x02000000, "text": "careful"},
        {"kind": "error", "type": 0x01000010, "text": '"quoted" and \\'},
        {"kind": "user", "type": 0x03000000, "text": "\u0416 \U0001F600"},
    ]


def test_an_action_runs_where_the_installer_runs_it(call):
    told = call("LogCurrentDirectory", "--json", *LIBRARY).json
    assert [line.lower() for line in told["log"]] == [r"c:\windows\system32"]


def test_the_duration_is_that_of_the_action(call):
    done = call("LogAndWait", "MILLISECONDS=300", "--json", *LIBRARY)
    assert 290 <= done.json["milliseconds"] < LIMIT * 1000


def test_a_line_is_shown_when_it_comes(prefix):
    command = [paths.RUNNER, "LogAndWait", f"MILLISECONDS={3 * LIMIT * 1000:.0f}", *LIBRARY]
    with running(prefix, *command) as (process, output, _):
        until(output.read_text, LIMIT)
        assert output.read_text() == "log         waiting\n"
        assert process.poll() is None


def escaped(done: Run) -> dict:
    assert done.code == EXCEPTION
    told = done.json
    assert (told["result"], told["result_name"], told["exit_code"]) == (None, None, EXCEPTION)
    return told["exception"]


def test_an_exception_is_told_to_a_reader(call):
    done = call("DeletePVFolder")
    assert (done.code, done.errors) == (EXCEPTION, "")
    assert without_duration(done.output) == (
        "exception   C++ exception halvard::RegKeyError, code 2 (system)\n"
        "            Unable to open registry key: File not found\n"
    )


def test_an_exception_of_the_registry_is_told(call):
    assert escaped(call("DeletePVFolder", "--json")) == {
        "kind": "C++ exception",
        "type": "halvard::RegKeyError",
        "code": 2,
        "category": "system",
        "text": "Unable to open registry key: File not found",
    }


def test_an_exception_of_a_process_that_does_not_start_is_told(call, prefix):
    key = [PIVOT_KEY, "/v", "Location", "/d", r"t:\nowhere"]
    assert prefix.run("reg.exe", "add", *key, "/f").returncode == 0
    try:
        exception = escaped(call("DeletePVFolder", "--json"))
    finally:
        prefix.run("reg.exe", "delete", PIVOT_KEY, "/f")
    assert exception["type"] == "std::system_error"
    assert exception["code"] in (2, 3)
    assert exception["text"].startswith("Unable to create process")


def test_an_exception_of_the_file_system_is_told(call, prefix):
    # The system may remove no link whose target is not empty.
    refused = engines.value("link-removal")
    kept, tree = prefix.throwaway / "kept", prefix.throwaway / "tree"
    kept.mkdir()
    (kept / "file").touch()
    tree.mkdir()
    (tree / "link").symlink_to(kept)
    try:
        done = call("DeleteDMFTDirectory", r"CustomActionData=InstallDir=t:\tree", "--json")
        assert (kept / "file").exists()
    finally:
        (tree / "link").unlink()
        tree.rmdir()
    exception = escaped(done)
    assert exception["type"].startswith("std::filesystem::")
    assert exception["type"].endswith("::filesystem_error")
    assert (exception["code"], exception["category"]) == (refused, "system")
    assert "remove_all" in exception["text"] and r"t:\tree" in exception["text"]
    assert done.json["log"] == [r"CustomActionData: InstallDir=t:\tree"]


@pytest.mark.parametrize(
    "action, expected",
    [
        (
            "ThrowOwnCategory",
            ("C++ exception", "std::system_error", -7, "own", "what was done: a text of its own"),
        ),
        ("ThrowSystemText", ("C++ exception", "std::runtime_error", None, None, "caf\u00e9")),
        ("ThrowUtf8", ("C++ exception", "std::runtime_error", None, None, "caf\u00e9")),
        ("ThrowNoMemory", ("C++ exception", "std::bad_alloc", None, None, "std::bad_alloc")),
        (
            "ThrowNoStandardException",
            ("C++ exception", "(anonymous namespace)::NoStandardException", None, None, ""),
        ),
        (
            "WriteToNull",
            (
                "structured exception", "EXCEPTION_ACCESS_VIOLATION", 0xC0000005, None,
                r"writing 0x0 at fault_actions\.dll\+0x[0-9A-F]+",
            ),
        ),
        (
            "WriteToNullInAnotherThread",
            (
                "structured exception", "EXCEPTION_ACCESS_VIOLATION", 0xC0000005, None,
                r"writing 0x0 at fault_actions\.dll\+0x[0-9A-F]+",
            ),
        ),
        (
            "RaiseCodeWithoutName",
            ("structured exception", None, 0xE0000042, None, r"at \S+\.dll\+0x[0-9A-F]+"),
        ),
        (
            "RaiseAsVisualCpp",
            (
                "foreign C++ exception", None, 0xE06D7363, None,
                r"of Visual C\+\+, whose classes this program cannot read, at .*",
            ),
        ),
        ("EndOwnThread", ("ended thread", None, 12, None, ".* ended without a result")),
        # Windows would tell 0xC00000FD; here the thread ends without a word.
        ("OverflowTheStack", ("ended thread", None, 0, None, ".* ended without a result")),
        ("Abort", ("abort", None, None, None, r"the action gave up .*")),
    ],
)
def test_every_other_end_is_told(call, action, expected):
    exception = escaped(call(action, "--json", *LIBRARY))
    *told, text = (exception[key] for key in ("kind", "type", "code", "category", "text"))
    assert tuple(told) == expected[:-1]
    assert text == expected[-1] or re.fullmatch(expected[-1], text)


def test_what_came_before_an_exception_is_told(call):
    done = call("ThrowOwnCategory", *LIBRARY)
    assert without_duration(done.output) == (
        "log         before\n"
        "exception   C++ exception std::system_error, code -7 (own)\n"
        "            what was done: a text of its own\n"
    )


def test_an_exception_that_may_not_leave_ends_in_an_abort(call):
    done = call("ThrowWhereItIsForbidden", "--json", *LIBRARY)
    assert escaped(done)["kind"] == "abort"
    first = "terminate called after throwing an instance of 'std::out_of_range'"
    assert done.json["standard_error"][0] == first


@pytest.mark.parametrize(
    "action, code, expected",
    [
        ("EndOwnProcess", 0, ("ended process", None)),
        ("EndOwnProcess", 12, ("ended process", None)),
        ("EndOwnProcess", 0xFFFFFFFF, ("ended process", None)),
        ("EndOwnProcessAtOnce", 0xC0000374, ("structured exception", "STATUS_HEAP_CORRUPTION")),
        ("EndOwnProcessAtOnce", 0xC0000999, ("structured exception", None)),
        ("EndOwnProcessAtOnce", 0xE0000042, ("structured exception", None)),
        ("EndOwnProcessAtOnce", 0x80000003, ("structured exception", "EXCEPTION_BREAKPOINT")),
        ("FailFast", 0xC0000602, ("structured exception", "STATUS_FAIL_FAST_EXCEPTION")),
    ],
)
def test_the_end_of_its_process_is_told(call, action, code, expected):
    done = call(action, f"CODE={code}", "--json", *LIBRARY)
    exception = escaped(done)
    assert (exception["kind"], exception["type"], exception["code"]) == (*expected, code)
    assert done.json["log"] == (["before"] if action == "EndOwnProcess" else [])


def test_an_install_proxy_command_that_does_not_fit_is_told(call, prefix):
    key = r"HKLM\SOFTWARE\Qorta\Sable\Packages\Core-Static"
    folder = "t:\\" + "\\".join(["f" * 100] * 2)
    prefix.host_path("T" + folder[1:]).mkdir(parents=True)
    assert prefix.run("reg.exe", "add", key, "/v", "Location", "/d", folder, "/f").returncode == 0
    try:
        data = "CustomActionData=" + "d" * 259
        done = call("LaunchInstallProxyPV", data, "--json")
        plain = call("LaunchInstallProxyPV", data)
    finally:
        prefix.run("reg.exe", "delete", key, "/f")
    assert escaped(done)["kind"] == "structured exception"
    assert done.json["log"][0].startswith("QUENBY_CA DeleteFolder: ")
    assert plain.code == EXCEPTION
    assert "\n            it ended the process that called the action\n" in plain.output


def test_what_an_action_writes_belongs_to_what_is_told(call):
    told = call("WriteToStreams", "--json", *LIBRARY).json
    assert told["standard_output"] == ["one", "", "two caf\u00e9"]
    assert told["standard_error"] == ['three "quoted"']
    assert told["log"] == ["logged"]
    assert call("WriteWithoutFlushing", "--json", *LIBRARY).json["standard_output"] == ["kept back"]
    done = call("WriteToStreams", *LIBRARY)
    assert (done.code, done.errors) == (SUCCESS, "")
    for line in ("stdout      one\n", "stdout      two caf\u00e9\n", 'stderr      three "quoted"\n'):
        assert line in done.output


def test_what_the_library_itself_writes_is_told(call, prefix):
    prefix.host_path(r"T:\no_tasks").mkdir()
    key = [PIVOT_KEY, "/v", "Location", "/d", "t:\\no_tasks\\"]
    assert prefix.run("reg.exe", "add", *key, "/f").returncode == 0
    try:
        told = call("CreateLogonSchTask", "--json").json
    finally:
        prefix.run("reg.exe", "delete", PIVOT_KEY, "/f")
    assert told["result"] == 0
    assert "Error creating file reader, error is 80070002" in told["standard_output"]


def runner_processes(prefix: Prefix) -> list[str]:
    return [line for line in processes_of(prefix.path) if paths.RUNNER.name in line]


def test_an_action_that_does_not_end_is_ended_with_all_that_it_has_started(prefix):
    wait = f"MILLISECONDS={3 * LIMIT * 1000:.0f}"
    limit = 30
    command = [paths.RUNNER, "StartOthersAndWait", wait, "--limit", str(limit), "--json", *LIBRARY]
    with running(prefix, *command) as (process, output, _):
        # The program, the process of its action, and the same of the program that this has started.
        until(lambda: len(runner_processes(prefix)) == 4, limit)
        assert process.wait(LIMIT) == OVER_THE_LIMIT
        told = json.loads(output.read_text())
    assert (told["result"], told["exit_code"]) == (None, OVER_THE_LIMIT)
    assert told["exception"]["kind"] == "over the limit"
    assert f"did not end within {limit} s" in told["exception"]["text"]
    assert 1000 * limit <= told["milliseconds"] < 1000 * (limit + LIMIT)
    until(lambda: not runner_processes(prefix), LIMIT)


def test_a_limit_may_stand_behind_an_equals_sign(call):
    done = call("LogAndWait", f"MILLISECONDS={3 * LIMIT * 1000:.0f}", "--limit=1", *LIBRARY)
    assert done.code == OVER_THE_LIMIT
    assert "did not end within 1 s" in done.output


def test_what_an_action_has_left_running_goes_on(call, prefix):
    done = call("StartOthersAndWait", "MILLISECONDS=2000", *LIBRARY)
    assert done.code == SUCCESS
    # Of the program that was started, and of the one that this started to call its action.
    until(lambda: len(runner_processes(prefix)) == 2, LIMIT)
    # They are still there when another program of its kind has come and gone.
    assert call("LaunchedFromMIM", "LAUNCHED_FROM_MIM=1").code == SUCCESS
    until(lambda: len(runner_processes(prefix)) == 2, LIMIT)
    prefix.run("taskkill.exe", "/f", "/im", paths.RUNNER.name)
    until(lambda: not runner_processes(prefix), LIMIT)


def test_what_tests_give_up_waiting_for_is_ended(prefix):
    wait = f"MILLISECONDS={3 * LIMIT * 1000:.0f}"
    with pytest.raises(subprocess.TimeoutExpired):
        ran(prefix, paths.RUNNER, "LogAndWait", wait, *LIBRARY, limit=5)
    until(lambda: not runner_processes(prefix), 30)


def test_the_process_of_the_action_ends_with_the_program(prefix):
    command = [paths.RUNNER, "LogAndWait", f"MILLISECONDS={3 * LIMIT * 1000:.0f}", *LIBRARY]
    with running(prefix, *command) as (process, output, _):
        until(output.read_text, LIMIT)
        assert len(runner_processes(prefix)) == 2
        process.kill()
        process.wait()
        until(lambda: not runner_processes(prefix), LIMIT)


@pytest.mark.parametrize("json_wanted", [[], ["--json"]])
@pytest.mark.parametrize("command", [["list"], ["--help"], ["LaunchedFromMIM"]])
def test_a_full_disk_is_noticed(prefix, tmp_path, command, json_wanted):
    errors = tmp_path / "errors"
    with open("/dev/full", "wb") as full, errors.open("wb") as told:
        process = prefix.start(paths.RUNNER, *command, *json_wanted, stdout=full, stderr=told)
        assert process.wait(LIMIT) == NOT_WRITTEN
    assert "not all could be written: Win32 error 112" in errors.read_text()


@pytest.mark.parametrize("words", [["list"], ["--json", "list"]])
def test_a_reader_that_has_gone_is_no_failure_of_the_program(prefix, tmp_path, words):
    read_end, write_end = os.pipe()
    os.close(read_end)
    errors = tmp_path / "errors"
    with errors.open("wb") as told:
        process = prefix.start(paths.RUNNER, *words, stdout=write_end, stderr=told)
        os.close(write_end)
        assert process.wait(LIMIT) == SUCCESS
    assert errors.read_text() == ""


def test_there_is_an_answer_also_without_memory(call):
    library = ("--dll", paths.windows_path(paths.STARVING_LIBRARY))
    text = "halvard_run itself failed, as for want of memory"
    plain = call("list", *library)
    assert plain.errors == f"halvard_run: {text}\n"
    assert (plain.code, plain.output) == (RUNNER_FAILED, "")
    scripted = call("list", "--json", *library)
    assert scripted.code == RUNNER_FAILED
    assert scripted.json == {"error": text, "exit_code": RUNNER_FAILED}


@pytest.mark.parametrize(
    "arguments, code, text",
    [
        ([], WRONG_ARGUMENTS, "no action is named"),
        (["LaunchPV", "Name"], WRONG_ARGUMENTS, '"Name" is no property'),
        (["LaunchPV", "=1"], WRONG_ARGUMENTS, '"" is no name of a property'),
        (["LaunchPV", "9=1"], WRONG_ARGUMENTS, '"9" is no name of a property'),
        (["LaunchPV", "A=1", "A=2"], WRONG_ARGUMENTS, "the property A is given twice"),
        (["LaunchPV", "--quiet"], WRONG_ARGUMENTS, "unknown option --quiet"),
        (["LaunchPV", "--limit", "1.5"], WRONG_ARGUMENTS, "--limit needs a whole number of seconds"),
        (["LaunchPV", 'A="'], WRONG_ARGUMENTS, "where the quote is meant, add --quotes"),
        (["list", "--dll", r"c:\none.dll"], NO_LIBRARY, r"there is no library c:\none.dll"),
        (["list", "--dll", r"c:\windows"], NO_LIBRARY, r"there is no library c:\windows"),
        (
            ["LaunchPV", "--dll", r"c:\windows\win.ini"],
            NO_LIBRARY,
            r"c:\windows\win.ini cannot be loaded into this 64-bit program: Win32 error 193",
        ),
        (["launchpv"], NO_ACTION, "has no action launchpv; did you mean LaunchPV?"),
        (["Nothing"], NO_ACTION, "has no action Nothing; halvard_run list shows them"),
    ],
)
def test_what_cannot_be_called_is_told_with_its_exit_code(call, arguments, code, text):
    plain = call(*arguments)
    assert (plain.code, plain.output) == (code, "")
    assert plain.errors.startswith("halvard_run: ") and text in plain.errors
    assert ("--help" in plain.errors) == (code == WRONG_ARGUMENTS)
    scripted = call(*arguments, "--json")
    assert scripted.code == code
    assert scripted.json["exit_code"] == code and text in scripted.json["error"]


def test_no_session_is_told_with_its_exit_code(call):
    command = rf"set TMP=c:\nowhere&& {paths.windows_path(paths.RUNNER)} LaunchedFromMIM"
    done = call("/c", command, program="cmd.exe")
    assert (done.code, done.output) == (NO_SESSION, "")
    assert done.errors.startswith("halvard_run: no temporary file: Win32 error ")


@pytest.mark.parametrize("option", ["--help", "-h"])
def test_the_help_tells_the_exit_codes(call, option):
    done = call(option)
    assert (done.code, done.errors) == (SUCCESS, "")
    assert "halvard_run ACTION [Property=Value...]" in done.output
    listed = re.findall(r"^  (\d+) {2,3}\w", done.output, re.MULTILINE)
    assert [int(code) for code in listed] == [
        SUCCESS, OTHER_RESULT, WRONG_ARGUMENTS, NO_LIBRARY, NO_ACTION, NO_SESSION, EXCEPTION,
        OVER_THE_LIMIT, NOT_WRITTEN, RUNNER_FAILED,
    ]
    documented = re.findall(r"^\| (\d+) \| ", (paths.ROOT / "docs/development.md").read_text(), re.MULTILINE)
    assert documented == listed
    told = call(option, "--json").json
    assert told["help"] == done.output
    assert [str(each["code"]) for each in told["exit_codes"]] == listed
    assert told["exit_code"] == SUCCESS


def typed(call, prefix: Prefix, words: str) -> Run:
    """A command line as it is typed."""
    script = prefix.throwaway / "typed.cmd"
    script.write_text(f"@{paths.windows_path(paths.RUNNER)} {words}\r\n")
    return call("/c", rf"t:\{script.name}", program="cmd.exe")


def test_a_backslash_before_a_closing_quote_is_doubled(call, prefix):
    done = typed(call, prefix, r'DeleteDMFTDirectory "CustomActionData=InstallDir=C:\my dir\\"')
    assert (done.code, done.errors) == (SUCCESS, "")
    assert done.output.startswith("log         CustomActionData: InstallDir=C:\\my dir\\\n")


def test_a_backslash_before_a_closing_quote_swallows_nothing_in_silence(call, prefix):
    words = r'DeleteDMFTDirectory "CustomActionData=InstallDir=C:\my dir\"'
    done = typed(call, prefix, words)
    assert (done.code, done.output) == (WRONG_ARGUMENTS, "")
    assert r"double that backslash" in done.errors and "--quotes" in done.errors
    scripted = typed(call, prefix, f"{words} --json")
    assert scripted.code == WRONG_ARGUMENTS
    assert "double that backslash" in scripted.json["error"]


def test_a_quote_that_is_meant_is_taken(call, prefix):
    words = r'DeleteDMFTDirectory --quotes "CustomActionData=InstallDir=C:\my dir\"'
    done = typed(call, prefix, words)
    assert done.output.startswith('log         CustomActionData: InstallDir=C:\\my dir"\n')


def test_the_version_is_that_of_the_project(call):
    version = re.search(r"VERSION (\d+\.\d+\.\d+)\n", paths.CMAKE_LISTS.read_text())[1]
    done = call("--version")
    assert (done.code, done.output, done.errors) == (SUCCESS, f"halvard_run {version}\n", "")
    told = call("--version", "--json").json
    assert told == {"program": "halvard_run", "version": version, "exit_code": SUCCESS}


@pytest.mark.parametrize(
    "arguments",
    [
        ["LaunchedFromMIM"],
        ["DeletePVFolder"],
        ["EndOwnProcessAtOnce", "CODE=1", *LIBRARY],
        ["LogAndWait", "MILLISECONDS=60000", "--limit", "1", *LIBRARY],
    ],
)
def test_nothing_of_the_session_is_left(call, prefix, arguments):
    folders = prefix.temporary_folders()
    before = [sorted(folder.iterdir()) for folder in folders]
    call(*arguments)
    assert folders and [sorted(folder.iterdir()) for folder in folders] == before


ACTION_SCRIPT = [sys.executable, "-B", str(paths.ROOT / "tools/action.py")]


def action_script(
    *arguments: str, stdout: int = subprocess.PIPE
) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [*ACTION_SCRIPT, *arguments],
        cwd=paths.ROOT,
        stdout=stdout,
        stderr=subprocess.PIPE,
        text=True,
        timeout=3 * LIMIT,
    )


def test_the_script_hands_on_what_the_runner_says():
    done = action_script("BlockLaunch", "--json")
    assert (done.returncode, done.stderr) == (OTHER_RESULT, "")
    assert json.loads(done.stdout)["result_name"] == "ERROR_INSTALL_FAILURE"
    done = action_script("Nothing")
    assert (done.returncode, done.stdout) == (NO_ACTION, "")
    assert "has no action Nothing" in done.stderr


RUN = str(paths.ROOT / "run")
WAIT = ["LogAndWait", f"MILLISECONDS={3 * LIMIT * 1000:.0f}", "--dll", str(paths.FAULT_ACTIONS)]


@pytest.mark.parametrize(
    "command, number, prefix_name",
    [
        ([*ACTION_SCRIPT, *WAIT], signal.SIGINT, "prefix-action"),
        ([*ACTION_SCRIPT, *WAIT], signal.SIGHUP, "prefix-action"),
        ([RUN, "action", *WAIT], signal.SIGINT, "prefix-action"),
        ([RUN, "action", *WAIT], signal.SIGTERM, "prefix-action"),
        ([RUN, "bench"], signal.SIGHUP, "prefix-bench"),
    ],
)
def test_a_signal_ends_the_prefix_and_its_servers(command, number, prefix_name):
    process = subprocess.Popen(
        command, cwd=paths.ROOT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
    )

    def has_a_server() -> bool:
        assert process.poll() is None
        return any("server" in line for line in processes_of(paths.BUILD / prefix_name))

    try:
        until(has_a_server, 3 * LIMIT)
        process.send_signal(number)
        assert process.wait(2 * LIMIT) == 128 + number
        assert processes_of(paths.BUILD / prefix_name) == []
    finally:
        process.kill()
        process.wait()


def test_the_script_notices_a_full_disk():
    with open("/dev/full", "wb") as full:
        done = action_script("BlockLaunch", stdout=full)
    assert done.returncode == NOT_WRITTEN
    assert "No space left on device" in done.stderr


def test_a_reader_that_has_gone_changes_no_exit_code():
    read_end, write_end = os.pipe()
    os.close(read_end)
    try:
        done = action_script("BlockLaunch", stdout=write_end)
    finally:
        os.close(write_end)
    assert (done.returncode, done.stderr) == (OTHER_RESULT, "")


@pytest.mark.parametrize("form", [["--dll", "{path}"], ["--dll={path}"]])
def test_the_script_takes_a_library_of_this_machine(form, tmp_path):
    library = tmp_path / "other name.dll"
    library.write_bytes(paths.FAULT_ACTIONS.read_bytes())
    option = [word.format(path=library) for word in form]
    done = action_script("ReturnResult", "RESULT=259", "--json", *option)
    assert done.returncode == OTHER_RESULT
    told = json.loads(done.stdout)
    assert (told["dll"], told["result"]) == (r"t:\other name.dll", 259)
