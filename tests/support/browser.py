"""A headless Chromium, driven over its debugging protocol: Debian's packages chromium,
chromium-driver and python3-selenium."""

from __future__ import annotations

import os
import tempfile
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

CHROMIUM = "/usr/lib/chromium/chromium"
DRIVER = "/usr/bin/chromedriver"


# Where /etc is an empty one, nothing else says which fonts there are.
FONTS = """<?xml version="1.0"?>
<!DOCTYPE fontconfig SYSTEM "fonts.dtd">
<fontconfig>
  <dir>/usr/share/fonts</dir>
  <cachedir>/tmp/fontconfig</cachedir>
  <alias><family>system-ui</family><prefer><family>Inter</family></prefer></alias>
  <alias><family>sans-serif</family><prefer><family>Inter</family></prefer></alias>
  <alias><family>ui-monospace</family><prefer><family>DejaVu Sans Mono</family></prefer></alias>
</fontconfig>
"""


def open_browser(width: int, height: int) -> webdriver.Chrome:
    """A browser with a fresh profile. Nothing but this machine is asked."""
    options = webdriver.ChromeOptions()
    options.binary_location = CHROMIUM
    profile = tempfile.mkdtemp(prefix="chromium.")
    fonts = Path(profile) / "fonts.conf"
    fonts.write_text(FONTS, encoding="utf-8")
    os.environ["FONTCONFIG_FILE"] = str(fonts)
    for argument in (
        "--headless=new",
        "--no-sandbox",
        "--disable-gpu",
        "--disable-dev-shm-usage",
        "--disable-background-networking",
        "--disable-component-update",
        "--disable-sync",
        "--no-first-run",
        "--hide-scrollbars",
        "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1",
        "--lang=en-GB",
        f"--user-data-dir={profile}",
        f"--window-size={width},{height}",
    ):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(options=options, service=Service(DRIVER))


def set_screen(browser: webdriver.Chrome, width: int, height: int, scale: float = 1) -> None:
    """The size of the page, also where windows cannot be that narrow."""
    browser.execute_cdp_cmd(
        "Emulation.setDeviceMetricsOverride",
        {"width": width, "height": height, "deviceScaleFactor": scale, "mobile": width < 700},
    )


def set_dark(browser: webdriver.Chrome, dark: bool) -> None:
    """What the page sees as the reader's preference."""
    value = "dark" if dark else "light"
    browser.execute_cdp_cmd(
        "Emulation.setEmulatedMedia",
        {"features": [{"name": "prefers-color-scheme", "value": value}]},
    )
