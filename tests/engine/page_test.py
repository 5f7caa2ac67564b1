"""The page in a real browser, with a real engine and real clients."""

from __future__ import annotations

import os
import subprocess
import sys
import time
import unittest
from pathlib import Path
from typing import Callable

SOURCES = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(SOURCES / "python"), str(SOURCES / "tests" / "support")]

import arm
from arm import calls
from browser import open_browser, set_dark, set_screen
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.remote.webelement import WebElement

BIN = Path(os.environ["ARM_BUILD_DIR"]) / "bin"
# Screenshots of the last run, to be looked at.
SHOTS = Path(os.environ["ARM_BUILD_DIR"]) / "page-shots"
BOUND_SECONDS = 30
HOSTILE = (
    "<script>document.title='owned'</script>"
    "<img src=x onerror=\"document.title='owned'\">\n\"'&lt; ä€😀\u202e"
)
# Sum of the three parts of a colour.
DARK = 60 * 3
PHONE = (390, 844)


class PageTestCase(unittest.TestCase):
    """Every test has an engine and a browser of its own."""

    def setUp(self) -> None:
        self.engine = subprocess.Popen(
            [BIN / "armengine", "--listen", "0"], stdout=subprocess.PIPE, text=True
        )
        self.addCleanup(self.end_engine)
        assert self.engine.stdout is not None
        self.engine.stdout.readline()
        self.url = self.engine.stdout.readline().split(" listening on ")[1].strip()
        self.browser = open_browser(1280, 900)
        self.addCleanup(self.browser.quit)
        set_screen(self.browser, 1280, 900)
        self.browser.get(self.url)

    def end_engine(self) -> None:
        if self.engine.poll() is None:
            self.engine.terminate()
            self.engine.communicate()

    def find(self, selector: str) -> WebElement:
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def all(self, selector: str) -> list[WebElement]:
        return self.browser.find_elements(By.CSS_SELECTOR, selector)

    def run_js(self, script: str, *arguments: object) -> object:
        return self.browser.execute_script(script, *arguments)

    def texts(self, selector: str) -> list[str]:
        """What stands in these elements, in one look."""
        texts = self.run_js(
            "return [...document.querySelectorAll(arguments[0])].map(e => e.textContent)", selector
        )
        assert isinstance(texts, list)
        return [text.replace("\u00a0", " ") for text in texts]

    def wait(self, what: str, condition: Callable[[], bool]) -> None:
        end = time.monotonic() + BOUND_SECONDS
        while not condition():
            if time.monotonic() > end:
                page = self.run_js("return document.body.innerText")
                self.fail(f"{what} did not come; the page: {page}")
            time.sleep(0.02)

    def press(self, *keys: str) -> None:
        ActionChains(self.browser).send_keys(*keys).perform()

    def shot(self, name: str) -> None:
        SHOTS.mkdir(exist_ok=True)
        self.browser.save_screenshot(str(SHOTS / f"{name}.png"))

    def row(self, transaction: str) -> list[str]:
        """The figures of a class: rate, errors, p50, p95, p99, in flight."""
        for row in self.texts_of_rows():
            if row[0] == transaction:
                return row[1:]
        return []

    def texts_of_rows(self) -> list[list[str]]:
        rows = self.run_js(
            "return [...document.querySelectorAll('#class-rows tr')].map(row => "
            "[...row.querySelectorAll('.tran, td:not(.name):not(.spread)')]"
            ".map(e => e.textContent))"
        )
        assert isinstance(rows, list)
        return [[text.replace("\u00a0", " ") for text in row] for row in rows]

    def focused(self) -> str:
        text = self.run_js("return document.activeElement.textContent")
        assert isinstance(text, str)
        return text

    def expect_no_sideways_scrolling(self) -> None:
        width = self.run_js(
            "return Math.max(document.documentElement.scrollWidth, document.body.scrollWidth)"
        )
        self.assertEqual(self.run_js("return window.innerWidth"), width)


def register(application: str, name: str) -> int:
    return calls.w_ArmGetID(False, calls.w_ArmInit(False, application), name)


class LookingTestCase(PageTestCase):
    def test_from_the_empty_page_to_a_table_in_every_look(self) -> None:
        self.expect_empty_state()
        self.expect_known_figures()
        self.expect_hostile_names_to_be_texts()
        self.expect_phone_width()
        self.expect_dark_mode()
        self.expect_end_of_the_engine_to_be_told()
        errors = [
            entry for entry in self.browser.get_log("browser") if "REFUSED" not in entry["message"]
        ]
        self.assertEqual([], errors)

    def expect_empty_state(self) -> None:
        self.wait("the empty state", lambda: self.find("#empty").is_displayed())
        self.assertFalse(self.find("#full").is_displayed())
        command = self.find("#empty-command").text
        self.assertEqual("armrun --app shop --transaction order -- sleep 0.2", command)
        self.shot("empty")
        # What the page says is what works.
        words = command.split()
        subprocess.run([BIN / words[0], *words[1:]], check=True)
        self.wait("the first transaction", lambda: self.row("order") != [])
        self.assertFalse(self.find("#empty").is_displayed())

    def expect_known_figures(self) -> None:
        search = register("shop", "search")
        for milliseconds in range(1, 101):
            status = arm.Status.FAILED if milliseconds <= 20 else arm.Status.GOOD
            self.assertEqual(
                0,
                calls.arm_transactionReport(
                    search, report_value1=status, report_value2=milliseconds
                ),
            )
        handle = calls.arm_start(search)
        self.assertGreater(handle, 0)
        self.find("input[value='0'] + span").click()
        self.wait("one in flight", lambda: self.row("search")[-1:] == ["1"])
        self.assertEqual("20 %", self.row("search")[1])
        for exact, shown in zip((50, 95, 99), self.row("search")[2:5]):
            self.assertRegex(shown, r"^[0-9.]+ ms$")
            self.assertTrue(exact <= float(shown.split()[0]) <= exact * 129 / 128 + 0.05, shown)
        self.assertEqual(["1"], self.texts("#sum-open"))
        slowest = self.texts("#slow-rows .time")
        self.assertEqual("100 ms", slowest[1])
        self.assertEqual(30, len(slowest))
        calls.arm_stop(handle, arm.Status.GOOD)
        self.wait("none in flight", lambda: self.row("search")[-1:] == ["0"])
        self.wait("a plot", lambda: self.drawn("heat") and self.drawn("rates"))

    def drawn(self, canvas: str) -> bool:
        """Whether a plot shows more than its axes: more than a handful of colours."""
        colours = self.run_js(
            "const c = document.getElementById(arguments[0]);"
            "const half = c.width * 0.5;"
            "const context = c.getContext('2d');"
            "const d = context.getImageData(half, 0, half - 12, c.height - 20).data;"
            "const seen = new Set();"
            "for (let i = 0; i < d.length; i += 4)"
            " if (d[i + 3] > 0) seen.add(d.slice(i, i + 4).join());"
            "return seen.size",
            canvas,
        )
        assert isinstance(colours, int)
        return colours >= 3

    def expect_hostile_names_to_be_texts(self) -> None:
        longest = HOSTILE + "x" * (3619 - len(HOSTILE.encode()))
        identifier = register(HOSTILE, longest)
        self.assertEqual(0, calls.arm_transactionReport(identifier, report_value2=250))
        shown = HOSTILE.replace("\n", "↵").replace("\u202e", "⟨202e⟩")
        self.wait(
            "the hostile name", lambda: any(r[0].startswith(shown) for r in self.texts_of_rows())
        )
        row = next(
            at for at, text in enumerate(self.texts("#class-rows .tran")) if text.startswith(shown)
        )
        self.all("#class-rows tr")[row].click()
        self.wait(
            "its complete name",
            lambda: self.texts("#chart-of")
            == [shown + " / " + shown + "x" * (3619 - len(HOSTILE.encode()))],
        )
        self.find("#slow-rows button").click()
        self.wait("its trace", lambda: self.texts("#trace-rows .app") == [shown])
        self.press(Keys.ENTER)
        self.wait("its details", lambda: self.texts("#trace-rows dd")[:1] == [shown])
        self.expect_no_sideways_scrolling()
        self.press(Keys.ESCAPE)
        self.assertEqual("armengine", self.browser.title)
        self.assertEqual([], self.all("main script, main img, dialog script, dialog img"))
        self.shot("light")

    def expect_phone_width(self) -> None:
        set_screen(self.browser, *PHONE)
        self.expect_no_sideways_scrolling()
        self.shot("phone")
        for element in self.all("#class-rows tr:first-child td"):
            if element.get_attribute("class") != "spread":
                self.assertTrue(element.is_displayed())
        self.find("#slow-rows button").click()
        self.wait("a trace", lambda: self.texts("#trace-rows .took") != [])
        self.expect_no_sideways_scrolling()
        self.shot("phone-trace")
        self.find("#trace-close").click()
        set_screen(self.browser, 1280, 900)

    def expect_dark_mode(self) -> None:
        light = self.brightness()
        set_dark(self.browser, True)
        self.assertLess(self.brightness(), DARK)
        self.assertGreater(light, 3 * 255 - DARK)
        self.shot("dark")
        set_dark(self.browser, False)

    def brightness(self) -> int:
        colour = self.run_js("return getComputedStyle(document.body).backgroundColor")
        assert isinstance(colour, str)
        return sum(int(part) for part in colour[4:-1].split(","))

    def expect_end_of_the_engine_to_be_told(self) -> None:
        self.end_engine()
        self.wait("the notice", lambda: self.find("#gone").is_displayed())
        self.assertIn("has not answered since", self.find("#gone").text)
        self.assertTrue(self.row("order"), "the last figures stay")
        self.shot("gone")


class TraceTestCase(PageTestCase):
    def test_trace_of_three_by_keyboard_alone(self) -> None:
        self.make_trace()
        self.wait("all three", lambda: len(self.texts("#slow-rows li")) == 3)
        self.expect_keys_to_sort_filter_and_choose()
        self.expect_keys_to_move_through_the_plot()
        self.expect_waterfall()
        self.expect_address_to_lead_to_the_trace()
        self.assertEqual([], self.browser.get_log("browser"))

    def make_trace(self) -> None:
        shop = arm.Application("shop")
        stock = arm.Application("stock")
        with arm.transaction(shop.transaction_class("order"), correlator=True) as order:
            reserve = stock.transaction_class("reserve")
            with arm.transaction(reserve, parent=order.correlator, correlator=True) as one:
                time.sleep(0.04)
                with arm.transaction(
                    stock.transaction_class("count"), parent=one.correlator
                ) as two:
                    time.sleep(0.04)
                    two.fail()
            time.sleep(0.02)

    def expect_keys_to_sort_filter_and_choose(self) -> None:
        self.press("/", "stock")
        self.wait(
            "the filter", lambda: sorted(r[0] for r in self.texts_of_rows()) == ["count", "reserve"]
        )
        self.assertEqual(["2 of 3"], self.texts("#classes-count"))
        self.press(*[Keys.BACKSPACE] * len("stock"))
        self.wait("all classes", lambda: len(self.texts_of_rows()) == 3)
        self.press(Keys.TAB, Keys.ENTER)
        self.wait(
            "the order",
            lambda: [r[0] for r in self.texts_of_rows()] == ["count", "order", "reserve"],
        )
        self.assertEqual("ascending", self.find("th.name").get_attribute("aria-sort"))
        self.press(*[Keys.TAB] * 7)
        self.assertIn("count", self.focused())
        self.press(Keys.ARROW_DOWN)
        self.assertIn("order", self.focused())
        outline = self.run_js("return getComputedStyle(document.activeElement).outlineStyle")
        self.assertEqual("solid", outline, "the focus is seen")
        self.press(Keys.ENTER)
        self.wait("its plot", lambda: self.texts("#chart-of") == ["shop / order"])
        self.wait("its slowest", lambda: self.texts("#slow-rows .tran") == ["order"])
        self.assertIn("order", self.focused(), "a refresh moves no focus")
        self.assertEqual("true", self.find("tr.chosen button").get_attribute("aria-pressed"))
        self.press(Keys.ESCAPE)
        self.wait("all again", lambda: self.texts("#chart-of") == ["all classes"])
        self.wait("all slowest", lambda: len(self.texts("#slow-rows li")) == 3)

    def expect_keys_to_move_through_the_plot(self) -> None:
        self.run_js("document.getElementById('plots').focus()")
        for _ in range(20):
            self.press(Keys.ARROW_LEFT)
            if "failed 1" in self.texts("#readout")[0]:
                break
        self.assertIn("failed 1", self.texts("#readout")[0])
        self.assertEqual(
            self.texts("#readout")[0],
            (self.find("#plots").get_attribute("aria-valuetext") or "").replace("\u00a0", " "),
        )

    def expect_waterfall(self) -> None:
        self.run_js("document.querySelector('#slow-rows button').focus()")
        self.press(Keys.ENTER)
        self.wait(
            "three rows", lambda: self.texts("#trace-rows .tran") == ["order", "reserve", "count"]
        )
        self.assertEqual(
            ["0", "1", "2"],
            [e.get_attribute("data-depth") or "" for e in self.all("#trace-rows > li")],
        )
        self.assertEqual([" · failed"], self.texts("#trace-rows .outcome"))
        self.assertIn("3 transactions", self.texts("#trace-summary")[0])
        boxes = [bar.rect for bar in self.all("#trace-rows .lane i")]
        lane = self.all("#trace-rows .lane")[0].rect
        self.assertAlmostEqual(lane["width"], boxes[0]["width"], delta=1.5)
        # What waits 40 ms twice holds what waits 40 ms; a busy machine only makes both longer.
        for outer, inner in zip(boxes, boxes[1:]):
            self.assertGreaterEqual(inner["x"], outer["x"])
            self.assertLessEqual(inner["x"] + inner["width"], outer["x"] + outer["width"] + 1)
            self.assertLess(inner["width"], outer["width"])
        self.assertGreater(boxes[2]["x"], boxes[1]["x"] + 5)
        self.press(Keys.ARROW_DOWN, Keys.ARROW_DOWN, Keys.ENTER)
        self.wait(
            "details",
            lambda: self.texts("#trace-rows dd")[:3] == ["stock", "count", "failed (status 2)"],
        )
        self.shot("trace")

    def expect_address_to_lead_to_the_trace(self) -> None:
        address = self.browser.current_url
        self.assertIn("#trace=", address)
        self.press(Keys.ESCAPE)
        self.wait("its end", lambda: not self.find("#trace").is_displayed())
        self.assertNotIn("#", self.browser.current_url)
        self.browser.get("about:blank")
        self.browser.get(address)
        self.wait("the same trace", lambda: len(self.texts("#trace-rows > li")) == 3)


if __name__ == "__main__":
    unittest.main()
