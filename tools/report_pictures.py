"""Takes pictures of the demo's report in headless Chromium, and tries there what it must hold.

build/demo gets a picture of each view, docs/demo-report.png the one that the README shows.
Exit code 0 when the page fits each window, answers the keyboard and the browser has no complaint.
"""

import base64
import os
import subprocess
import sys
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator

from selenium import webdriver
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from installer import ending, paths

PAGE = paths.REPORT / "report.html"
PICTURE = paths.ROOT / "docs/demo-report.png"
BROWSER, DRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
LARGEST_PICTURE = 300_000
COLOURS = 64
# Pixels. A picture of a page is cut there.
TALLEST = 6000
MARGIN = 16
# What readers of the project see: a session of many actions, the first one with data open.
PICTURE_SESSION = "session-2"
PICTURE_DETAILS = f"#{PICTURE_SESSION} ~ .actions details:has(code)"
PICTURE_HEIGHT = 1175


@dataclass(frozen=True)
class View:
    """How someone may look at the page; the width is in pixels."""

    name: str
    width: int
    scheme: str = "light"
    vision: str = "none"
    opened: bool = False


VIEWS = (
    View("wide", 1280),
    View("narrow", 360),
    View("narrow-open", 360, opened=True),
    View("wide-open", 1280, opened=True),
    View("wide-dark", 1280, scheme="dark"),
    View("narrow-dark", 360, scheme="dark"),
    View("wide-grey", 1280, vision="achromatopsia"),
    View("narrow-grey", 360, vision="achromatopsia"),
)


def main() -> int:
    try:
        complaints = _look()
    except (OSError, subprocess.CalledProcessError, WebDriverException) as failure:
        complaints = [str(failure)]
    for complaint in complaints:
        print(f"report_pictures: {complaint}", file=sys.stderr)
    return 1 if complaints else 0


def _look() -> list[str]:
    if not PAGE.is_file():
        raise FileNotFoundError(f"{paths.shown(PAGE)} is missing: ./run demo writes it")
    complaints = []
    with _browser() as browser:
        for view in VIEWS:
            _open(browser, view)
            complaints += _too_wide(browser, view)
            _save(paths.REPORT / f"{view.name}.png", _photograph(browser, view, TALLEST))
        complaints += _keyboard(browser)
        _open(browser, VIEWS[0])
        details = browser.find_element(By.CSS_SELECTOR, PICTURE_DETAILS)
        browser.execute_script("arguments[0].open = true", details)
        complaints += _keep(_photograph(browser, VIEWS[0], PICTURE_HEIGHT, PICTURE_SESSION))
        complaints += [entry["message"] for entry in browser.get_log("browser")]
    return complaints


@contextmanager
def _browser() -> Iterator[webdriver.Chrome]:
    options = webdriver.ChromeOptions()
    options.binary_location = BROWSER
    for switch in ("--headless=new", "--hide-scrollbars", "--force-device-scale-factor=1"):
        options.add_argument(switch)
    if os.getuid() == 0:
        # Chromium's sandbox refuses this account. It sees no page but the project's own.
        options.add_argument("--no-sandbox")
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    browser = webdriver.Chrome(service=Service(DRIVER), options=options)
    try:
        yield browser
    finally:
        browser.quit()


def _open(browser: webdriver.Chrome, view: View) -> None:
    command = browser.execute_cdp_cmd
    command(
        "Emulation.setDeviceMetricsOverride",
        {"width": view.width, "height": 800, "deviceScaleFactor": 1, "mobile": False},
    )
    command(
        "Emulation.setEmulatedMedia",
        {"features": [{"name": "prefers-color-scheme", "value": view.scheme}]},
    )
    command("Emulation.setEmulatedVisionDeficiency", {"type": view.vision})
    browser.get(PAGE.as_uri())
    if view.opened:
        browser.find_element(By.CSS_SELECTOR, "button[data-open=yes]").click()


def _too_wide(browser: webdriver.Chrome, view: View) -> list[str]:
    width = browser.execute_script("return document.documentElement.scrollWidth")
    if width <= view.width:
        return []
    return [f"{view.name}: the page is {width} pixels wide in a window of {view.width}"]


def _keyboard(browser: webdriver.Chrome) -> list[str]:
    """Opens an action's details with the keys alone."""
    _open(browser, VIEWS[0])
    closed = "return document.activeElement.matches('.actions details:not([open]) > summary')"
    stops = browser.execute_script("return document.querySelectorAll('a,button,summary').length")
    for _ in range(stops + 1):
        browser.switch_to.active_element.send_keys(Keys.TAB)
        if browser.execute_script(closed):
            browser.switch_to.active_element.send_keys(Keys.ENTER)
            opened = "return document.activeElement.parentElement.open"
            return [] if browser.execute_script(opened) else ["Enter opens no details"]
    return ["the Tab key reaches no action with closed details"]


def _photograph(
    browser: webdriver.Chrome, view: View, tallest: int, element: str | None = None
) -> bytes:
    top = 0
    if element is not None:
        script = "return arguments[0].getBoundingClientRect().top + scrollY"
        found = browser.find_element(By.ID, element)
        top = browser.execute_script(script, found) - MARGIN
    height = browser.execute_script("return document.documentElement.scrollHeight")
    clip = {
        "x": 0,
        "y": top,
        "width": view.width,
        "height": min(height - top, tallest),
        "scale": 1,
    }
    answer = browser.execute_cdp_cmd(
        "Page.captureScreenshot", {"clip": clip, "captureBeyondViewport": True}
    )
    return base64.b64decode(answer["data"])


def _save(path: Path, picture: bytes) -> None:
    path.write_bytes(picture)
    print(f"{paths.shown(path)}: {len(picture)} bytes")


def _keep(picture: bytes) -> list[str]:
    smaller = subprocess.run(
        ["convert", "png:-", "-colors", str(COLOURS), "-strip", "png:-"],
        input=picture,
        capture_output=True,
        check=True,
    ).stdout
    if len(smaller) > LARGEST_PICTURE:
        return [f"{paths.shown(PICTURE)} would have {len(smaller)} bytes"]
    _save(PICTURE, smaller)
    return []


if __name__ == "__main__":
    sys.exit(ending.orderly(main))
