"""Where the build leaves what the installer tools need."""

import os
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = ROOT / "build"
PROGRAMS = BUILD / "mingw-release"

ENGINES = ROOT / "tests/engines.toml"
ENGINES_DOCUMENT = ROOT / "docs/engines.md"
FACTS = ROOT / "tools/runner/verify/facts.toml"
FACT_TABLE = FACTS.with_name("fact_table.cpp")
FACTS_DOCUMENT = ROOT / "docs/verify.md"
CMAKE_LISTS = ROOT / "CMakeLists.txt"
LIBRARY = PROGRAMS / "Utilities/CustomActions/Halvard_CA/Halvard_CA.dll"
LIBRARY_EXPORTS = ROOT / "Utilities/CustomActions/Halvard_CA/Halvard_CA.def"
ACTIONS = LIBRARY_EXPORTS.with_name("actions.toml")
RUNNER = LIBRARY.with_name("halvard_run.exe")
PREFIX_GUARD = PROGRAMS / "tests/support/prefix_guard.exe"
REGISTRY_SAVE = PROGRAMS / "tools/registry_save.exe"
# What stands in for the suite's own programs in packages: a tool that records what it was told, a
# service and a COM server.
STAND_INS = {
    "Recorder": PROGRAMS / "tests/support/recorder.exe",
    "Service": PROGRAMS / "tests/support/test_service.exe",
    "SampleAgent": PROGRAMS / "tests/support/sample_agent.exe",
    "Server": PROGRAMS / "tests/support/com_server.dll",
}
# A library for tests of the runner, whose actions end in every way.
FAULT_ACTIONS = PROGRAMS / "tests/support/fault_actions.dll"
STARVING_LIBRARY = PROGRAMS / "tests/support/starving.dll"
MAKE_PREFIX = ROOT / "tests/support/make_prefix.sh"

PACKAGE_SOURCES = ROOT / "package"
PACKAGES = BUILD / "package"
LOGS = BUILD / "installer-logs"
REPORT = BUILD / "demo"


def of_caller(path: str | Path) -> Path:
    """A path of the command line: a relative one starts where ./run was called."""
    return Path(os.environ.get("HALVARD_CALLER", ""), path)


def windows_path(path: Path) -> str:
    """The path as programs in a prefix see it: drive b: is the build folder."""
    return "b:\\" + str(path.resolve().relative_to(BUILD.resolve())).replace("/", "\\")


def shown(path: Path) -> str:
    """The path as a reader may type it in the project's folder."""
    return str(path.relative_to(ROOT))
