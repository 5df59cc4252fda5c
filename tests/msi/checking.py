"""Calls of halvard_run --check."""

import json
from pathlib import Path

from installer import paths
from installer.prefix import Prefix

NOTHING, WARNINGS, ERRORS, NOT_CHECKED = 0, 1, 2, 4
# Findings in packages that are as they should be: built here, the library is not signed, and the
# include file declares all actions, of which few packages need each.
NOT_SIGNED = (703, "Halvard_CA")
NOT_ALL_SCHEDULED = (107, None)
LIMIT = 60.0


def checked(prefix: Prefix, path: str, *options: str) -> tuple[int, dict]:
    done = prefix.run(paths.RUNNER, "--check", path, "--json", *options, limit=LIMIT)
    return done.returncode, json.loads(done.stdout)


def found(prefix: Prefix, file: Path, *options: str) -> set[tuple[int, str | None]]:
    """The numbers and rows of the findings in a package."""
    code, told = checked(prefix, paths.windows_path(file), *options)
    assert told["exit_code"] == code
    worst = ERRORS if told["errors"] else WARNINGS if told["warnings"] else NOTHING
    assert code == worst
    return {(each["number"], each["row"]) for each in told["findings"]}
