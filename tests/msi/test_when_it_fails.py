"""docs/when-it-fails.md: the runner shows what the log does not, and an address becomes a line."""

import re
import subprocess
from dataclasses import dataclass
from typing import Iterator

import pytest

from documents import blocks
from installer import paths
from installer.prefix import Prefix

DOCUMENT = paths.ROOT / "docs/when-it-fails.md"
ACTION = "CreateLogonSchTask"
EXCEPTION = 7
TRACE = {"WINEDEBUG": "+loaddll,+seh,+unwind"}

LOADED = re.compile(r'Loaded L".*\\Halvard_CA\.dll" at ([0-9A-Fa-f]+)')
THROWN = re.compile(r"dispatch_exception code=20474343\b")
UNWOUND = re.compile(r"VirtualUnwind\w* .*?\brip ([0-9a-f]+)")
CAUGHT = "RtlUnwindEx"
# Room for the module's addresses, which is smaller.
MODULE = 0x200000
OWN = "/Utilities/CustomActions/Halvard_CA/"
PLACE = re.compile(r":\d+:\d+$", re.MULTILINE)


def told(command: str) -> tuple[str, str]:
    """The command of the document that begins so, and what it printed there."""
    ((whole, output),) = re.findall(
        rf"^[>$] ({command}.*)\n((?:(?![>$] ).*\n)*)", "".join(blocks(DOCUMENT, "console")), re.MULTILINE
    )
    return whole, output


@pytest.fixture(scope="module")
def prefix() -> Iterator[Prefix]:
    with Prefix("prefix-msi-fails") as running:
        yield running


def test_the_runner_shows_the_exception_as_told(prefix):
    command, output = told(f"halvard_run {ACTION}(?! )")
    done = prefix.run(paths.RUNNER, *command.split()[1:])
    assert re.sub(r"\d+\.\d ms", "1.0 ms", done.stdout) == output
    assert done.returncode == EXCEPTION
    assert told("echo %errorlevel%")[1] == f"{EXCEPTION}\n"


def test_the_trace_names_the_key_as_told(prefix):
    command, output = told(f"halvard_run {ACTION} --trace")
    done = prefix.run(paths.RUNNER, *command.split()[1:])
    aligned = re.sub(r"(\w) +\d+\.\d ms  ", r"\1          1.0 ms  ", done.stdout)
    assert re.sub(r"\d+\.\d ms", "1.0 ms", aligned) == output
    assert done.returncode == EXCEPTION


@dataclass(frozen=True)
class Thrown:
    """Where the library lay when it threw, and the return addresses in it from there."""

    base: int
    addresses: list[int]


@pytest.fixture(scope="module")
def thrown(prefix) -> Thrown:
    """What an observer of the process sees of the action's exception."""
    lines = prefix.run(paths.RUNNER, ACTION, environment=TRACE).stdout.splitlines()
    (base,) = {int(found[1], 16) for line in lines if (found := LOADED.search(line))}
    begin = next(number for number, line in enumerate(lines) if THROWN.search(line))
    end = next(number for number, line in enumerate(lines) if number > begin and CAUGHT in line)
    found = [int(each[1], 16) for line in lines[begin:end] if (each := UNWOUND.search(line))]
    return Thrown(base, [each for each in found if base <= each < base + MODULE])


def symbolized(command: str) -> str:
    done = subprocess.run(
        ["bash", "-c", command], cwd=paths.LIBRARY.parent, capture_output=True, text=True
    )
    assert done.returncode == 0, done.stderr
    return done.stdout


def test_the_addresses_of_an_exception_become_the_lines_that_are_told(thrown):
    command, output = told("llvm-symbolizer ")
    program, *written = re.split(r" (?=0x)", command)
    # The document takes one off each address of its stack, the base left out.
    (stack,) = [block.split() for block in blocks(DOCUMENT, "text") if block.startswith("18")]
    assert [int(each, 16) for each in written] == [int(each, 16) - 0x180000000 - 1 for each in stack]

    each = {
        address: symbolized(f"{program} {address - thrown.base - 1:#x}")
        for address in thrown.addresses
    }
    own = [address for address in thrown.addresses if OWN in each[address]]
    came = symbolized(" ".join([program, *(f"{each - thrown.base - 1:#x}" for each in own)]))
    # Lines differ from build to build.
    assert PLACE.sub("", came).strip() == PLACE.sub("", output).strip()

    file, line = re.findall(rf"{OWN}(\S+?):(\d+):", came)[-1]
    text = (paths.ROOT / OWN.strip("/") / file).read_text().splitlines()[int(line) - 1]
    assert "ReadPivotLocation()" in text


def test_the_debugger_is_asked_for_the_first_address_of_the_stack():
    ((address, start),) = re.findall(r"^\? ([0-9a-f]+)-([0-9a-f]+)$", DOCUMENT.read_text(), re.MULTILINE)
    offset = int(address, 16) - int(start, 16)
    (stack,) = [block.split() for block in blocks(DOCUMENT, "text") if block.startswith("18")]
    assert offset == int(stack[0], 16) - 0x180000000
    assert f"gives `{offset:x}`" in DOCUMENT.read_text()
    assert f" {offset - 1:#x} " in told("llvm-symbolizer ")[0]


def test_an_address_outside_of_the_code_becomes_no_line():
    program = told("llvm-symbolizer ")[0].partition(" 0x")[0]
    assert OWN not in symbolized(f"{program} 0x10")


def test_the_rest_of_the_page_says_how():
    text = DOCUMENT.read_text()
    for wanted in (
        "**The text of an exception is not in the log.**",
        "names no\nkey**",
        r"Windows Error Reporting\LocalDumps\msiexec.exe",
        "MsiBreak",
        "## What to send",
    ):
        assert wanted in text, wanted
