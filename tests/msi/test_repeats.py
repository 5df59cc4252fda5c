"""A test is run once more only when a session of it hung before one action had started."""

import re
import subprocess
import sys
from pathlib import Path

import pytest

import demo
from installer import paths, repeats, session

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


@pytest.mark.parametrize("hangs, failures", [(0, []), (1, []), (1, ["one"])])
def test_the_demo_tells_how_often_it_began_once_more(
    hangs, failures, monkeypatch, tmp_path, capsys, recwarn
):
    left = [session.NothingDone("it hung")] * hangs

    def run_steps(*_: object) -> list[str]:
        if left:
            raise left.pop()
        return failures

    monkeypatch.setattr(paths, "REPORT", tmp_path)
    monkeypatch.setattr(demo, "_run_steps", run_steps)
    monkeypatch.setattr(demo, "_write", lambda report: None)
    assert demo.main() == len(failures)
    told = "1 expectations failed" if failures else "installer runs went as they should"
    line = next(line for line in capsys.readouterr().out.splitlines() if told in line)
    assert line.endswith((told + "; 1 repeated" if hangs else told) + ":" * len(failures))
    assert len(recwarn) == hangs


def test_a_count_ends_with_its_block(monkeypatch, tmp_path):
    outer, inner = tmp_path / "outer", tmp_path / "folder/inner"
    monkeypatch.setenv(repeats.COUNTED_IN, str(outer))
    with pytest.warns(UserWarning):
        with repeats.counted(inner) as count:
            assert count() == 0
            repeats.tell("inside")
            assert count() == 1
        repeats.tell("outside")
    assert (inner.read_text(), outer.read_text()) == ("inside\n", "outside\n")
