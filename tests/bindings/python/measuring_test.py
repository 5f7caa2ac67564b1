"""Applications, classes and transactions with an engine."""

import asyncio
import os
import subprocess
import sys
import threading
import unittest

import arm
from engine import EngineTestCase, run_python

CHILD = """
import arm
worker = arm.Application("worker")
with arm.transaction(worker.transaction_class("part"), parent=arm.Correlator.from_environment()):
    pass
"""


class TransactionTestCase(EngineTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.shop = arm.Application("shop")
        self.order = self.shop.transaction_class("order")

    def order_counts(self) -> list[int]:
        return self.counts(self.end_engine(), "shop", "order")

    def test_with_block_is_a_good_transaction(self) -> None:
        with arm.transaction(self.order) as measured:
            self.assertTrue(measured.running)
            self.assertGreater(measured.handle, 0)
            self.assertEqual(0, measured.update())
            self.assertEqual(0, measured.update("half-way"))
            self.assertEqual(0, measured.update(b"x" * 2000))
            self.assertEqual(0, measured.update(arm.DataBlock().gauge32(1, 5)))
        self.assertFalse(measured.running)
        self.assertEqual([1, 1, 0, 0], self.order_counts())

    def test_exception_is_a_failure_and_goes_on(self) -> None:
        with self.assertRaises(KeyError):
            with arm.transaction(self.order):
                raise KeyError("the work failed")
        with self.assertRaises(KeyboardInterrupt):
            with arm.transaction(self.order):
                raise KeyboardInterrupt
        self.assertEqual([2, 0, 2, 0], self.order_counts())

    def test_good_exit_is_no_failure(self) -> None:
        for code in (None, 0, 3):
            with self.assertRaises(SystemExit):
                with arm.transaction(self.order):
                    sys.exit(code)
        self.assertEqual([3, 2, 1, 0], self.order_counts())

    def test_status_that_was_set_is_the_one_it_stops_with(self) -> None:
        with arm.transaction(self.order) as measured:
            measured.fail()
        with arm.transaction(self.order) as measured:
            measured.abort()
        with self.assertRaises(KeyError):
            with arm.transaction(self.order) as measured:
                measured.set_status(arm.Status.GOOD)
                raise KeyError
        self.assertEqual([3, 1, 1, 1], self.order_counts())

    def test_transaction_stops_once(self) -> None:
        measured = arm.transaction(self.order).start()
        self.assertEqual(0, measured.stop(arm.Status.ABORTED, arm.DataBlock().counter32(1, 1)))
        self.assertLess(measured.stop(), 0)
        self.assertLess(measured.update(), 0)
        self.assertEqual([1, 0, 0, 1], self.order_counts())

    def test_started_again_it_is_another_transaction(self) -> None:
        measured = arm.transaction(self.order).start()
        with measured:
            pass
        self.assertEqual([2, 2, 0, 0], self.order_counts())

    def test_threads_measure_at_once(self) -> None:
        def work() -> None:
            for _ in range(25):
                with arm.transaction(self.order):
                    pass

        threads = [threading.Thread(target=work) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([100, 100, 0, 0], self.order_counts())

    def test_forked_child_measures_too(self) -> None:
        with arm.transaction(self.order):
            child = os.fork()
            if child == 0:
                with arm.transaction(self.order) as own:
                    os._exit(0 if own.running and own.stop() == 0 else 1)
            self.assertEqual(0, os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
        self.assertEqual([2, 2, 0, 0], self.order_counts())

    def test_application_ends_with_its_block(self) -> None:
        with self.shop:
            with arm.transaction(self.order):
                pass
            first, ended = self.shop.id, self.order.id
        self.assertLess(arm.calls.arm_start(ended), 0)
        # Used again, it registers again.
        with arm.transaction(self.order) as measured:
            self.assertTrue(measured.running)
        self.assertNotEqual(first, self.shop.id)
        self.assertEqual([2, 2, 0, 0], self.order_counts())

    def test_metrics_go_with_class_and_start(self) -> None:
        metrics = arm.MetricDescriptions().describe(1, arm.MetricType.COUNTER64, "bytes")
        described = self.shop.transaction_class("order", "with metrics", metrics)
        with arm.transaction(described, data=arm.DataBlock().counter64(1, 2**40)) as measured:
            self.assertTrue(measured.running)
        self.assertNotEqual(described.id, self.order.id)


class MeasuredTestCase(EngineTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.order = arm.Application("shop").transaction_class("order")

    def test_each_call_is_a_transaction(self) -> None:
        @arm.measured(self.order)
        def add(a: int, *, b: int) -> int:
            """Adds."""
            return a + b

        self.assertEqual(3, add(1, b=2))
        with self.assertRaises(TypeError):
            add("1", b=2)
        self.assertEqual(("add", "Adds."), (add.__name__, add.__doc__))
        self.assertEqual([2, 1, 1, 0], self.counts(self.end_engine(), "shop", "order"))

    def test_coroutine_is_measured_to_its_end(self) -> None:
        running = []

        @arm.measured(self.order)
        async def wait(name: str) -> str:
            running.append(name)
            await asyncio.sleep(0)
            return name

        async def both() -> list[str]:
            return list(await asyncio.gather(wait("a"), wait("b")))

        self.assertEqual(["a", "b"], asyncio.run(both()))
        self.assertEqual([2, 2, 0, 0], self.counts(self.end_engine(), "shop", "order"))

    def test_generators_are_refused(self) -> None:
        with self.assertRaises(TypeError):

            @arm.measured(self.order)
            def numbers():  # type: ignore[no-untyped-def]
                yield 1


class CorrelationTestCase(EngineTestCase):
    def setUp(self) -> None:
        super().setUp()
        self.order = arm.Application("shop").transaction_class("order")

    def test_child_process_is_a_child_transaction(self) -> None:
        with arm.transaction(self.order, correlator=True) as measured:
            child = run_python(CHILD, **measured.environment())
        self.assertEqual((0, ""), (child.returncode, child.stderr))
        report = self.end_engine()
        self.assertIn("shop: order", report)
        self.assertIn("`- part", report)

    def test_child_in_the_same_process(self) -> None:
        with arm.transaction(self.order, correlator=True) as outer:
            part = self.order.application.transaction_class("part")
            with arm.transaction(part, parent=outer.correlator, correlator=True) as inner:
                self.assertIsNotNone(inner.correlator)
                self.assertNotEqual(outer.correlator, inner.correlator)
        self.assertIn("`- part", self.end_engine())

    def test_without_being_asked_for_there_is_none(self) -> None:
        with arm.transaction(self.order) as measured:
            self.assertIsNone(measured.correlator)
            # Somebody else's is not handed on as one's own.
            self.assertNotIn("ARM_CORRELATOR", measured.environment({"ARM_CORRELATOR": "00"}))

    def test_started_again_it_is_not_its_own_child(self) -> None:
        measured = arm.transaction(self.order, correlator=True)
        with measured:
            first = measured.correlator
        with measured:
            self.assertNotEqual(first, measured.correlator)
        self.assertNotIn("`- ", self.end_engine())

    def test_shell_hands_it_on(self) -> None:
        with arm.transaction(self.order, correlator=True) as measured:
            code = "import arm; print(arm.Correlator.from_environment().hex())"
            output = subprocess.run(
                ["sh", "-c", f"'{sys.executable}' -B -c '{code}'"],
                env=measured.environment(),
                capture_output=True,
                text=True,
                check=True,
            ).stdout
            assert measured.correlator is not None
            self.assertEqual(measured.correlator.hex(), output.strip())


class EngineThatComesAndGoesTestCase(EngineTestCase):
    def test_registration_follows_the_engine(self) -> None:
        order = arm.Application("shop").transaction_class("order")
        with arm.transaction(order) as measured:
            self.assertTrue(measured.running)
        self.end_engine()
        with arm.transaction(order) as measured:
            self.assertFalse(measured.running)
        EngineTestCase.setUp(self)
        with arm.transaction(order) as measured:
            self.assertTrue(measured.running)
        self.assertEqual([1, 1, 0, 0], self.counts(self.end_engine(), "shop", "order"))


if __name__ == "__main__":
    unittest.main()
