"""A test is run once more only when a session of it hung before one action had started."""

import re
import subprocess
import sys
from pathlib import Path

import pytest

from installer import paths, repeats

CONFTEST = f"""
import sys
sys.path[:0] = [{str(Path(__file__).parent)!r}, {str(paths.ROOT / "tools")!r}]
import importlib.util
spec = importlib.util.spec_from_file_location("hooks", {str(Path(__file__).with_name("conftest.py"))!r})
hooks = importlib.util.module_from_spec(spec)
sys.modules["hooks"] = hooks
spec.loader.exec_module(hooks)
pytest_runtest_protocol = hooks.pytest_runtest_protocol
pytest_runtest_makereport = hooks.pytest_runtest_makereport
"""
TEST = """
import pytest
from installer.session import NothingDone

attempts = []

@pytest.fixture(scope="session")
def machine():
    print("fresh machine")
    return []

def test_before(machine):
    machine.append("dirty")

def test_hangs(machine):
    attempts.append(list(machine))
    if len(attempts) <= {failures}:
        raise {error}("it hung")
    assert attempts[1:] in ([], [[]])
"""


@pytest.mark.parametrize(
    "failures, error, passed, repeated",
    [(0, "NothingDone", 2, 0), (1, "NothingDone", 2, 1), (2, "NothingDone", 1, 1)]
    + [(1, "TimeoutError", 1, 0)],
)
def test_a_hung_session_gives_its_test_a_second_try(failures, error, passed, repeated, tmp_path):
    (tmp_path / "conftest.py").write_text(CONFTEST)
    (tmp_path / "test_hung.py").write_text(TEST.format(failures=failures, error=error))
    counted = tmp_path / "counted"
    done = subprocess.run(
        [sys.executable, "-B", "-m", "pytest", "-p", "no:cacheprovider", "-s", str(tmp_path)],
        env={repeats.COUNTED_IN: str(counted), "PATH": "/usr/bin:/bin"},
        stdout=subprocess.PIPE,
        text=True,
        timeout=60,
    )
    found = re.search(r"(\d+) passed", done.stdout)
    assert int(found[1]) == passed, done.stdout
    assert done.stdout.count("fresh machine") == 1 + repeated
    assert counted.exists() == (repeated > 0)
    if repeated:
        assert counted.read_text() == "it hung\n"
