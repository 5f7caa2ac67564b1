"""Makes the pictures of the documents again, from a real run of five minutes: './run pictures'.

make.py BUILD-TREE [SECONDS]
"""

from __future__ import annotations

import html
import json
import os
import re
import subprocess
import sys
import time
import urllib.request
from pathlib import Path

HERE = Path(__file__).resolve().parent
SOURCES = HERE.parents[1]
sys.path.insert(0, str(SOURCES / "tests" / "support"))

from browser import open_browser, set_dark, set_screen

BIN = Path(sys.argv[1]).resolve() / "bin"
SECONDS = int(sys.argv[2]) if len(sys.argv) > 2 else 305
COLUMNS, LINES = 96, 13
TERMINAL = """<!doctype html><meta charset="utf-8"><style>
body {{ margin: 0; background: #11171d; }}
pre {{ margin: 0; padding: 16px 20px; width: max-content; color: #dbe4ec;
  font: 14px/1.4 "DejaVu Sans Mono", monospace; }}
b {{ color: #fff; }} i {{ font-style: normal; background: #dbe4ec; color: #11171d; }}
</style><pre>{}</pre>"""


def start_engine() -> tuple[subprocess.Popen[str], str]:
    engine = subprocess.Popen(
        [BIN / "armengine", "--listen", "0"], stdout=subprocess.PIPE, text=True
    )
    assert engine.stdout is not None
    engine.stdout.readline()
    return engine, engine.stdout.readline().split(" listening on ")[1].strip()


def start_programs() -> subprocess.Popen[bytes]:
    environment = {
        **os.environ,
        "PYTHONPATH": str(SOURCES / "python"),
        "LD_LIBRARY_PATH": str(BIN.parent / "lib"),
    }
    return subprocess.Popen(
        [sys.executable, "-B", str(HERE / "workload.py"), str(SECONDS + 60)], env=environment
    )


def ask(url: str) -> dict:
    with urllib.request.urlopen(url, timeout=10) as answer:
        return json.load(answer)


def slow_trace(url: str) -> str:
    """The slowest of the orders that have failed, or else of all."""
    classes = ask(url + "api/classes")["classes"]
    key = next(one["key"] for one in classes if one["transaction"] == "order")
    orders = ask(url + "api/slowest?limit=200&class=" + key)["transactions"]
    failed = [one for one in orders if one["outcome"] == "failed"]
    return (failed or orders)[0]["trace"]


def start_armtop(url: str) -> None:
    address = url.split("/")[2]
    command = f"{BIN}/armtop --engine {address} --window 30"
    size = ["-x", str(COLUMNS), "-y", str(LINES)]
    subprocess.run(["tmux", "-L", "pictures", "new-session", "-d", *size, command], check=True)


def capture_armtop() -> str:
    """What is on the screen, with bold and reversed text as elements."""
    command = ["tmux", "-L", "pictures", "capture-pane", "-p", "-e"]
    screen = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    out = []
    closing = ""
    for part in re.split(r"(\x1b\[[0-9;]*m)", screen.rstrip()):
        if not part.startswith("\x1b"):
            out.append(html.escape(part))
            continue
        out.append(closing)
        codes = part[2:-1].split(";")
        opening, closing = (
            ("<i>", "</i>") if "7" in codes else ("<b>", "</b>") if "1" in codes else ("", "")
        )
        out.append(opening)
    return "".join(out) + closing


def main() -> None:
    engine, url = start_engine()
    programs = start_programs()
    browser = open_browser(1360, 900)
    try:
        time.sleep(SECONDS - 35)
        start_armtop(url)
        time.sleep(35)
        terminal = capture_armtop()
        set_screen(browser, 1360, 1010)
        browser.get(url)
        time.sleep(3)
        browser.save_screenshot(str(HERE / "page.png"))
        set_screen(browser, 1360, 540)
        set_dark(browser, True)
        browser.get("about:blank")
        browser.get(url + "#trace=" + slow_trace(url))
        time.sleep(3)
        browser.find_element("css selector", "#trace").screenshot(str(HERE / "trace.png"))
        page = Path("/tmp/armtop.html")
        page.write_text(TERMINAL.format(terminal), encoding="utf-8")
        browser.get(f"file://{page}")
        browser.find_element("css selector", "pre").screenshot(str(HERE / "armtop.png"))
        pictures = [str(HERE / f"{name}.png") for name in ("page", "trace", "armtop")]
        subprocess.run(["pngquant", "--force", "--strip", "--ext", ".png", *pictures], check=True)
    finally:
        browser.quit()
        subprocess.run(["tmux", "-L", "pictures", "kill-server"], check=False)
        programs.terminate()
        engine.terminate()
        programs.wait()
        engine.wait()


main()
