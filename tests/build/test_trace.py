"""The hooks of a trace: what the library imports that changes something is answered by a dry run."""

import re
import subprocess

from installer import paths

HOOKS = (paths.ROOT / "tools/runner/trace").glob("*_hooks.cpp")
ROW = re.compile(r'\{"(\w+)",')
CHANGING = re.compile(
    r"(Nt(Open|Create)File|_w?(remove|rename|unlink|mkdir|rmdir)|Reg(Create|Delete|Set|Replace|Restore)"
    r"|(Create|Delete|Set|Write|Move|Copy|Replace|Remove|Start|Control|Change|Terminate|ShellExecute"
    r"|SHCreate|SHFile|CoCreateInstance))"
)
# They change this process alone, or memory. CreatePipe and WriteFile are hooked and handed on: a dry
# run opens nothing to be written to.
HARMLESS = {
    "CreateEventA",
    "CreateSemaphoreA",
    "DeleteCriticalSection",
    "RemoveVectoredExceptionHandler",
    "SetEntriesInAclW",
    "SetEvent",
    "SetFilePointerEx",
    "SetHandleInformation",
    "SetLastError",
    "SetProcessAffinityMask",
    "SetThreadContext",
    "SetThreadPriority",
    "CoCreateGuid",
}
def imports() -> set[str]:
    command = ["x86_64-w64-mingw32-objdump", "-p", str(paths.LIBRARY)]
    text = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    table = text[text.index("The Import Tables") : text.index("The Export Tables")]
    return set(re.findall(r"^\s+[0-9a-f]+\s+\d+\s+(\w+)\s*$", table, re.MULTILINE))


def hooked() -> set[str]:
    return {name for file in HOOKS for name in ROW.findall(file.read_text())}


def test_what_changes_something_is_hooked():
    changing = {name for name in imports() if CHANGING.match(name)} - HARMLESS
    assert {"RegDeleteTreeW", "SetFileInformationByHandle", "CreateProcessW"} <= changing
    assert changing - hooked() == set()
