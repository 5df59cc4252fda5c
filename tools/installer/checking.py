"""What `halvard_run --check` says of packages."""

import json
from pathlib import Path
from typing import Sequence

from installer import paths
from installer.facts import Finding, PackageCheck
from installer.prefix import Prefix

PREFIX = "prefix-check"
# Nothing found, warnings, errors.
CHECKED = (0, 1, 2)


def checked(packages: Sequence[Path]) -> list[PackageCheck]:
    """The findings in each package, in a prefix of their own. RuntimeError for one that cannot be
    checked."""
    with Prefix(PREFIX) as prefix:
        return [PackageCheck(package.name, _findings(prefix, package)) for package in packages]


def _findings(prefix: Prefix, package: Path) -> list[Finding]:
    done = prefix.run(paths.RUNNER, "--check", paths.windows_path(package), "--json")
    if done.returncode not in CHECKED:
        raise RuntimeError(f"{package.name} cannot be checked: {done.stdout.strip()}")
    return [
        Finding(**{name: "" if each is None else each for name, each in finding.items()})
        for finding in json.loads(done.stdout)["findings"]
    ]
