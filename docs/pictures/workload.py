"""A small shop with a stock and payments behind it, to look at: what waits here, sleeps.

workload.py SECONDS
"""

from __future__ import annotations

import math
import random
import sys
import threading
import time

import arm

SHOP = arm.Application("web-shop")
PAGE = SHOP.transaction_class("product page")
SEARCH = SHOP.transaction_class("search")
ORDER = SHOP.transaction_class("order")
STOCK = arm.Application("stock")
RESERVE = STOCK.transaction_class("reserve")
COUNT = STOCK.transaction_class("count")
PAYMENTS = arm.Application("payments")
CHARGE = PAYMENTS.transaction_class("charge")
FRAUD = PAYMENTS.transaction_class("fraud check")
NIGHTLY = arm.Application("nightly").transaction_class("export")


def work(median_ms: float, spread: float = 0.35) -> None:
    time.sleep(random.lognormvariate(math.log(median_ms / 1000), spread))


def show_page(begin: float) -> None:
    with arm.transaction(PAGE, correlator=True) as page:
        work(3)
        if random.random() < 0.3:
            with arm.transaction(COUNT, parent=page.correlator):
                work(0.6)


def search(begin: float) -> None:
    # The index is rebuilt now and then, and searches wait for it.
    slow = 6 if 0.45 < (time.monotonic() - begin) / 60 % 1 < 0.6 else 1
    with arm.transaction(SEARCH) as one:
        work(22 * slow, 0.5)
        if random.random() < 0.01:
            one.abort()


def order(begin: float) -> None:
    with arm.transaction(ORDER, correlator=True) as one:
        work(4)
        with arm.transaction(RESERVE, parent=one.correlator, correlator=True) as reserve:
            work(5)
            for _ in range(random.randint(1, 3)):
                with arm.transaction(COUNT, parent=reserve.correlator):
                    work(0.8)
        with arm.transaction(CHARGE, parent=one.correlator, correlator=True) as charge:
            work(12)
            with arm.transaction(FRAUD, parent=charge.correlator):
                work(90 if random.random() < 0.04 else 9, 0.5)
            if random.random() < 0.03:
                charge.fail()
                one.fail()
        work(3)


def export(begin: float) -> None:
    with arm.transaction(NIGHTLY):
        work(1800, 0.2)


def repeat(what, pause_ms: float, begin: float, end: float) -> None:
    while time.monotonic() < end:
        what(begin)
        time.sleep(random.expovariate(1000 / pause_ms))


def main() -> None:
    begin = time.monotonic()
    end = begin + float(sys.argv[1])
    threads = []
    for what, count, pause_ms in (
        (show_page, 3, 20),
        (search, 2, 60),
        (order, 3, 120),
        (export, 1, 4000),
    ):
        for _ in range(count):
            threads.append(threading.Thread(target=repeat, args=(what, pause_ms, begin, end)))
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


main()
