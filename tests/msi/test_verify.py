"""halvard_run --verify: what every fact comes to here, and that nothing of it is left."""

import json
from dataclasses import dataclass
from typing import Iterator

import pytest

from installer import machine, paths, verified
from installer.machine import Snapshot
from installer.prefix import Prefix

FACTS = verified.facts()
# Seconds, on a machine that is busy with other tests.
LIMIT = 400.0
ALL_AGREE, SOME_DIFFER, WRONG_ARGUMENTS = 0, 1, 2


@dataclass
class Asked:
    """A machine that was asked, and what it was before and after."""

    prefix: Prefix
    code: int
    output: str
    before: Snapshot
    after: Snapshot
    temporary: list[list[str]]

    @property
    def told(self) -> dict:
        return json.loads(self.output)


def temporary_files(prefix: Prefix) -> list[list[str]]:
    return [sorted(file.name for file in folder.iterdir()) for folder in prefix.temporary_folders()]


@pytest.fixture(scope="module")
def asked() -> Iterator[Asked]:
    with Prefix("prefix-msi-verify") as prefix:
        # What the first program of this kind leaves in a fresh prefix is no work of this one.
        prefix.run("schtasks.exe", "/query")
        before, files = machine.snapshot(prefix), temporary_files(prefix)
        done = prefix.run(paths.RUNNER, "--verify", "--json", limit=LIMIT)
        yield Asked(
            prefix,
            done.returncode,
            done.stdout,
            before,
            machine.snapshot(prefix),
            [files, temporary_files(prefix)],
        )


def test_one_object_tells_all_facts_in_their_order(asked):
    assert [fact["name"] for fact in asked.told["facts"]] == [fact.name for fact in FACTS]
    assert asked.told["left_behind"] == []
    assert asked.told["wine"] and asked.told["elevated"] is True


@pytest.mark.parametrize("fact", FACTS, ids=lambda fact: fact.name)
def test_the_engine_does_what_the_table_says(asked, fact):
    (told,) = [each for each in asked.told["facts"] if each["name"] == fact.name]
    assert (told["here"] or told["verdict"]) == fact.expected(), told["why"]
    assert told["here"] is not None or told["why"]


def test_the_verdicts_are_about_windows(asked):
    for told in asked.told["facts"]:
        if told["here"] is not None:
            agrees = told["here"] in told["windows"].split(" or ")
            assert told["verdict"] == ("agrees" if agrees else "differs"), told["name"]
    verdicts = [told["verdict"] for told in asked.told["facts"]]
    counts = {"agree": "agrees", "differ": "differs", "cannot_be_asked": verified.NOT_ASKED}
    for name, verdict in counts.items():
        assert asked.told[name] == verdicts.count(verdict) > 0
    assert asked.code == asked.told["exit_code"] == SOME_DIFFER


def test_nothing_is_left(asked):
    assert machine.difference(asked.before, asked.after).changes == []
    before, after = asked.temporary
    assert before and before == after


def test_the_table_is_for_readers(asked):
    done = asked.prefix.run(paths.RUNNER, "--verify", limit=LIMIT)
    assert done.returncode == SOME_DIFFER
    for fact in FACTS:
        assert f"\n{fact.name} " in done.stdout
    told = asked.told
    assert done.stdout.endswith(
        f"{len(FACTS)} facts: {told['agree']} agree, {told['differ']} differ, "
        f"{told['cannot_be_asked']} cannot be asked here\n"
    )


@pytest.mark.parametrize("word", ["LaunchPV", "--dll"])
def test_what_it_does_not_take_is_refused(asked, word):
    done = asked.prefix.run(paths.RUNNER, "--verify", word)
    assert (done.returncode, f"takes no {word}" in done.stdout) == (WRONG_ARGUMENTS, True)


def test_it_has_a_help_of_its_own(asked):
    done = asked.prefix.run(paths.RUNNER, "--verify", "--help")
    assert done.returncode == 0 and "--verify-installer" in done.stdout
