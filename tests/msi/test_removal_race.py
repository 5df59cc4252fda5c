"""Removals of a tree that somebody else works on: folders and files exchanged for links to a victim.

The attacker works outside of the engine, where no open handle keeps a folder from being moved. What it
must not reach is the victim: files that the removal was never given. The engine's own `rd`, which works
by path, shows that the attack would reach it.
"""

import ctypes
import errno
import json
import os
import random
import shutil
import sys
import threading
import time
from contextlib import suppress
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Iterator

import pytest

from installer import paths, repeats
from installer.prefix import Prefix
from programs import Done, ran

FOLDERS = 4
SUBFOLDERS = 10
FILES = 20
# Of each attack, so that a run of all has more than 200, and those that a removal at work has met.
LEAST_SWAPS = 42
LEAST_SWAPS_MET = 15
LEAST_ROUNDS = 5
LEAST_TOPS = 15
MOST_ROUNDS = 60
LIMIT = 60.0
# Upper bounds of the time that a swap stays, in seconds: from less than one call of the removal to that
# of many files.
STAYS = 0.0001, 0.002, 0.02

AT_FDCWD = -100
RENAME_EXCHANGE = 2

_libc = ctypes.CDLL(None, use_errno=True)


@pytest.fixture(scope="module")
def prefix() -> Iterator[Prefix]:
    with Prefix("prefix-msi-race") as running:
        yield running


@dataclass
class Grounds:
    """The tree that is removed, the victim beside it, and a link to the victim.

    The victim has folders of the same names on every level, so that whatever is looked up by a path
    through the link is there. Its files have other names: Wine deletes a file by its path, right after
    it has looked whether that still leads to the file, and so does a plain DeleteFileW. What falls into
    that gap is not what is asked here.
    """

    root: Path
    random: random.Random
    exchanges: int = 0
    swaps_met: int = 0
    added: int = 0
    remaining: int = 0
    unanswered: bool = False
    peace: threading.Lock = field(default_factory=threading.Lock, repr=False)

    def __post_init__(self) -> None:
        self.tree = self.root / "tree"
        self.middle = self.tree / "middle"
        self.link = self.root / "link"
        self.victim = self.root / "victim"
        for inside in (self.victim, self.victim / "middle"):
            for folder in [inside, *_folders_in(inside)]:
                for subfolder in _subfolders_in(folder):
                    _fill(subfolder, "kept")

    def victims(self) -> set[str]:
        return {
            os.path.join(folder, name)
            for folder, _, files in os.walk(self.victim)
            for name in files
        }

    def plant(self) -> None:
        """Makes the tree and the link anew; no attack is carried out meanwhile."""
        with self.peace:
            for remains in (self.tree, self.link):
                _remove(remains)
            for folder in _folders_in(self.middle):
                for subfolder in _subfolders_in(folder):
                    _fill(subfolder, "file")
            self.link.symlink_to(self.victim)
            self.remaining = self.entries_left()

    def entries_left(self) -> int:
        """How many entries there are in the tree, wherever a part of it has been moved."""
        return sum(
            len(folders) + len(files)
            for top in (self.tree, self.link)
            for _, folders, files in os.walk(top)
            if not top.is_symlink()
        )

    def folder_at_work(self) -> Path | None:
        """The one that has lost some of its subfolders and not yet all."""
        for folder in _folders_in(self.middle):
            with suppress(OSError):
                if 0 < len(os.listdir(folder)) < SUBFOLDERS:
                    return folder
        return None

    def swap(self, target: Path | None) -> None:
        """Puts the link in the place of a folder or file for a moment; counted if the removal has gone
        on since the last one."""
        if target is None or not self.link.is_symlink() or not _exchange(target, self.link):
            return
        self.exchanges += 1
        time.sleep(self.random.choice(STAYS) * self.random.random())
        _exchange(target, self.link)
        self.count()

    def count(self) -> None:
        left = self.entries_left()
        self.swaps_met += left != self.remaining
        self.remaining = left


def _folders_in(folder: Path) -> list[Path]:
    return [folder / f"folder {number}" for number in range(FOLDERS)]


def _subfolders_in(folder: Path) -> list[Path]:
    return [folder / f"subfolder {number:02}" for number in range(SUBFOLDERS)]


def _fill(folder: Path, name: str) -> None:
    folder.mkdir(parents=True)
    for number in range(FILES):
        (folder / f"{name} {number}").touch()


def _remove(path: Path) -> None:
    if path.is_symlink():
        path.unlink()
    elif path.exists():
        shutil.rmtree(path)


def _first_in(folder: Path) -> Path | None:
    with suppress(OSError):
        with os.scandir(folder) as entries:
            return next((Path(entry.path) for entry in entries), None)
    return None


def _exchange(first: Path, second: Path) -> bool:
    """Both change places in one step, so that there is no moment without either."""
    done = _libc.renameat2(
        AT_FDCWD, os.fsencode(first), AT_FDCWD, os.fsencode(second), RENAME_EXCHANGE
    )
    if done != 0 and ctypes.get_errno() not in (errno.ENOENT, errno.ENOTDIR):
        raise OSError(ctypes.get_errno(), f"{first} and {second} cannot be exchanged")
    return done == 0


def swap_the_folder_at_work(grounds: Grounds) -> None:
    grounds.swap(grounds.folder_at_work())


def swap_the_parent_of_the_folder_at_work(grounds: Grounds) -> None:
    if grounds.folder_at_work() is not None:
        grounds.swap(grounds.middle)


def swap_a_folder_that_comes_next(grounds: Grounds) -> None:
    folder = grounds.folder_at_work()
    grounds.swap(folder and _subfolders_in(folder)[-1])


def swap_the_top(grounds: Grounds) -> None:
    grounds.swap(grounds.tree)


def swap_the_top_at_work(grounds: Grounds) -> None:
    if grounds.folder_at_work() is not None:
        grounds.swap(grounds.tree)


def swap_a_file(grounds: Grounds) -> None:
    folder = grounds.folder_at_work()
    grounds.swap(folder and _first_in(_subfolders_in(folder)[-1]))


def add_entries(grounds: Grounds) -> None:
    folder = grounds.folder_at_work()
    if folder is not None:
        with suppress(OSError):
            (folder / f"added {grounds.added}").touch()
            (folder / f"added folder {grounds.added}").mkdir()
            grounds.added += 1
    time.sleep(0.001 * grounds.random.random())


@dataclass
class Attacker:
    """Attacks again and again in a thread of its own, for the length of a `with` block."""

    attack: Callable[[Grounds], None]
    grounds: Grounds
    failure: list[BaseException] = field(default_factory=list)

    def __enter__(self) -> "Attacker":
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._over.set()
        self._thread.join()

    def _run(self) -> None:
        try:
            while not self._over.is_set():
                with self.grounds.peace:
                    self.attack(self.grounds)
                # Leaves the removal some of the machine.
                time.sleep(0.0002)
        except BaseException as failure:
            self.failure.append(failure)


@pytest.fixture
def grounds(prefix: Prefix) -> Iterator[Grounds]:
    seed = random.randrange(1_000_000)
    # Shown when the test fails.
    print(f"seed {seed}")
    root = prefix.throwaway / f"race-{seed}"
    root.mkdir()
    yield Grounds(root, random.Random(seed))
    shutil.rmtree(root)


def call_runner(prefix: Prefix, grounds: Grounds) -> Done:
    data = rf"CustomActionData=InstallDir=t:\{grounds.root.name}\tree"
    return ran(prefix, paths.RUNNER, "DeleteDMFTDirectory", data, "--json", limit=LIMIT)


def remove(prefix: Prefix, grounds: Grounds) -> dict:
    """Lets the action remove the tree and tells its result or exception, which has to be its own. Once
    in a test a removal may go without a word: then another one tells, of a fresh tree."""
    ended = call_runner(prefix, grounds)
    if not (ended.output or ended.errors or grounds.unanswered):
        # The runner answers for whatever becomes of the library, so the engine has lost it.
        grounds.unanswered = True
        repeats.tell(f"the runner ended without a word, exit code {ended.code}")
        grounds.plant()
        ended = call_runner(prefix, grounds)
    assert ended.output, f"no answer, exit code {ended.code}, errors: {ended.errors}"
    called = json.loads(ended.output)
    assert called["result"] == 0 or "remove_all" in called["exception"]["text"], called
    return called


def remove_by_paths(prefix: Prefix, grounds: Grounds) -> None:
    prefix.run("cmd.exe", "/c", "rd", "/s", "/q", rf"t:\{grounds.root.name}\tree", limit=LIMIT)


def attack_until(
    done: Callable[[int], bool],
    grounds: Grounds,
    attack: Callable[[Grounds], None],
    act: Callable[[], object],
) -> None:
    """Removes the tree under attack, anew each round, until it is done; `done` is asked with the number
    of rounds so far, and has to say yes in the end."""
    rounds = 0
    while not done(rounds) and rounds < MOST_ROUNDS:
        rounds += 1
        grounds.plant()
        with Attacker(attack, grounds) as attacker:
            act()
        assert attacker.failure == []
    assert done(rounds), (rounds, grounds)


def test_without_an_attack_the_tree_goes(prefix, grounds):
    grounds.plant()
    assert remove(prefix, grounds)["result"] == 0
    assert not grounds.tree.exists()


SILENT = Done(3, "", "")
CRASHED = Done(3, "", "wine: Unhandled page fault")


@pytest.mark.parametrize(
    "first, failure, repeated",
    [
        ([SILENT], None, 1),
        ([SILENT, SILENT], "no answer, exit code 3", 1),
        ([CRASHED], "no answer, exit code 3, errors: wine: Unhandled page fault", 0),
    ],
)
@pytest.mark.filterwarnings("ignore:once more")
def test_only_one_removal_without_a_word_is_carried_out_once_more(
    prefix, grounds, first, failure, repeated, monkeypatch, tmp_path
):
    answers = iter(first)
    met = []
    really = call_runner

    def call(*asked: object) -> Done:
        met.append(grounds.entries_left())
        return next(answers, None) or really(*asked)

    monkeypatch.setattr(sys.modules[__name__], "call_runner", call)
    grounds.plant()
    whole = grounds.remaining
    shutil.rmtree(grounds.middle)
    with repeats.counted(tmp_path / "repeated.txt") as count:
        if failure:
            with pytest.raises(AssertionError, match=failure):
                remove(prefix, grounds)
        else:
            assert remove(prefix, grounds)["result"] == 0 and not grounds.tree.exists()
        assert count() == repeated
    assert met == [0, *[whole] * repeated] and whole > 0


def expect_no_victim(
    prefix: Prefix, grounds: Grounds, attack: Callable[[Grounds], None], done: Callable[[int], bool]
) -> None:
    victims = grounds.victims()

    def act() -> None:
        called = remove(prefix, grounds)
        assert grounds.victims() == victims, f"{grounds.exchanges} swaps: {called}"

    attack_until(done, grounds, attack, act)


@pytest.mark.parametrize(
    "attack",
    [
        swap_the_folder_at_work,
        swap_the_parent_of_the_folder_at_work,
        swap_a_folder_that_comes_next,
        swap_the_top_at_work,
        swap_a_file,
    ],
)
def test_no_race_leads_a_removal_out_of_its_tree(prefix, grounds, attack):
    expect_no_victim(
        prefix,
        grounds,
        attack,
        lambda rounds: grounds.exchanges >= LEAST_SWAPS
        and grounds.swaps_met >= LEAST_SWAPS_MET
        and rounds >= LEAST_ROUNDS,
    )


def test_no_race_for_the_top_leads_a_removal_elsewhere(prefix, grounds):
    # From before the action begins; most removals find the link, and none removes anything then.
    expect_no_victim(
        prefix,
        grounds,
        swap_the_top,
        lambda rounds: rounds >= LEAST_TOPS and grounds.exchanges >= 5 * LEAST_TOPS,
    )


def test_the_same_attack_leads_a_removal_by_paths_out_of_its_tree(prefix, grounds):
    victims = grounds.victims()
    attack_until(
        lambda _: grounds.victims() < victims,
        grounds,
        swap_the_folder_at_work,
        lambda: remove_by_paths(prefix, grounds),
    )


def test_a_removal_ends_though_entries_are_added(prefix, grounds):
    attack_until(
        lambda _: grounds.added >= LEAST_SWAPS,
        grounds,
        add_entries,
        lambda: remove(prefix, grounds),
    )
