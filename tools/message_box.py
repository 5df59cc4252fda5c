"""Takes docs/message-box.png: what a user sees who starts the package without the install manager.

Everything runs on a display of its own, which the script starts and ends.
"""

import os
import select
import shutil
import subprocess
import sys
import time
from contextlib import contextmanager
from pathlib import Path
from typing import Iterator

from installer import ending, package, paths
from installer.prefix import Prefix

PICTURE = paths.ROOT / "docs/message-box.png"
# Pixels: the box with some desktop around it.
WIDTH, HEIGHT = 460, 220
COLOURS = 32

WINDOW_TITLE = "Windows Installer"
FONTS = Path("/usr/share/wine/fonts")

# Seconds.
DISPLAY_LIMIT = 20.0
BOX_LIMIT = 60.0
DRAWING_LIMIT = 20.0
STILL = 1.5
POLL = 0.3


def main() -> int:
    try:
        picture = _photograph()
    except (OSError, RuntimeError) as failure:
        print(f"message_box: {failure}", file=sys.stderr)
        return 1
    PICTURE.parent.mkdir(exist_ok=True)
    PICTURE.write_bytes(picture)
    print(f"{paths.shown(PICTURE)}: {len(picture)} bytes")
    return 0


def _photograph() -> bytes:
    sample = package.build()
    with (
        _display() as display,
        Prefix("prefix-screenshot", environment={"DISPLAY": display}) as prefix,
        open(paths.BUILD / "message-box.output", "wb") as output,
    ):
        # Wine finds its own fonts through the drive that this prefix does not have.
        for font in FONTS.glob("*.ttf"):
            shutil.copy(font, prefix.drive_c / "windows/Fonts")
        # Wine draws title bars only on a desktop of its own; it fills the screen.
        desktop = prefix.start(
            "explorer.exe",
            f"/desktop=message,{WIDTH}x{HEIGHT}",
            "msiexec.exe",
            "/i",
            paths.windows_path(sample),
            stdout=output,
            stderr=output,
        )
        try:
            _wait_for_box(display)
            return _drawn_picture(display)
        finally:
            desktop.kill()
            desktop.wait()


@contextmanager
def _display() -> Iterator[str]:
    """A screen of its own on a display number that was free."""
    read_end, write_end = os.pipe()
    server = subprocess.Popen(
        ["Xvfb", "-displayfd", str(write_end), "-nolisten", "tcp"]
        + ["-screen", "0", f"{WIDTH}x{HEIGHT}x24"],
        pass_fds=[write_end],
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
        start_new_session=True,
    )
    os.close(write_end)
    try:
        ready, _, _ = select.select([read_end], [], [], DISPLAY_LIMIT)
        number = os.read(read_end, 16).decode().strip() if ready else ""
        if not number:
            raise RuntimeError("Xvfb did not start")
        yield f":{number}"
    finally:
        os.close(read_end)
        server.terminate()
        server.wait(DISPLAY_LIMIT)


def _wait_for_box(display: str) -> None:
    end = time.monotonic() + BOX_LIMIT
    while f'"{WINDOW_TITLE}"' not in _tool(display, "xwininfo", "-root", "-tree").decode():
        if time.monotonic() > end:
            raise TimeoutError(f"no window {WINDOW_TITLE} within {BOX_LIMIT:g} s")
        time.sleep(POLL)


def _drawn_picture(display: str) -> bytes:
    """The screen as a PNG, once it has not changed for `STILL`: the box is drawn then."""
    grab = ["import", "-window", "root", "-colors", str(COLOURS), "-strip", "png:-"]
    begin = last_change = time.monotonic()
    picture = b""
    while time.monotonic() - last_change < STILL:
        if time.monotonic() - begin > DRAWING_LIMIT:
            raise TimeoutError(f"the box still changes after {DRAWING_LIMIT:g} s")
        time.sleep(POLL)
        now = _tool(display, *grab)
        if now != picture:
            picture, last_change = now, time.monotonic()
    return picture


def _tool(display: str, *command: str) -> bytes:
    done = subprocess.run(
        command,
        env=os.environ | {"DISPLAY": display},
        stdin=subprocess.DEVNULL,
        capture_output=True,
        timeout=DISPLAY_LIMIT,
    )
    if done.returncode != 0:
        raise RuntimeError(f"{command[0]}: {done.stderr.decode(errors='replace').strip()}")
    return done.stdout


if __name__ == "__main__":
    sys.exit(ending.orderly(main))
