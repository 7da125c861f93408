"""What clients are told without asking: change events and the log mode."""

import json
import signal
import struct
import time

from lab import wire
from lab.harness import NetworkTestCase, TestCase, stays_true, wait_until


class ChangeEvents(NetworkTestCase):
    EVENT = "Global\\DRAVIK_CHANGES_ITEM_LIST_TALVORN_"

    def test_new_changed_and_expired_items_are_told(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 4000})
        device = self.device()

        def item(number, content):
            return wire.item(content, carried=struct.pack(">III", number, 0, 0))
        stays, first, second = item(1, b"stays"), item(2, b"one"), item(2, b"two")
        device.send(wire.record(42, items=[stays, first]))
        wait_until(lambda: len(locator.items()) == 2, "the items")
        # Looks by itself once an hour: what it tells comes from the events.
        watch = self.tool(locator, "watch", "--all", "--json", "--interval", "3600")

        def told():
            return [(one["event"], bytes.fromhex(one["item"]["content"]))
                    for one in map(json.loads, watch.out.splitlines()) if "item" in one]

        for sent, expected in (
                ([stays, first], {("item-new", b"stays"), ("item-new", b"one")}),
                ([stays, second], {("item-changed", b"two")}),
                # The old one goes when its time has passed.
                ([stays, second], {("item-expired", b"one")}),
                ([], {("item-gone", b"stays"), ("item-gone", b"two")})):
            wait_until(lambda: (device.send(wire.record(42, items=sent)),
                                expected <= set(told()))[1], f"{expected} to be told")
        self.assertEqual(len(told()), 6)
        watch.signal(signal.SIGINT)
        self.assertEqual(watch.wait(), 0)

    def test_one_devices_event_is_not_anothers(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 3000})
        device = self.device()
        watched = {}
        for serial in (42, 43, 0):
            watched[serial] = locator.watch(f"{self.EVENT}{serial:07}")
            self.addCleanup(watched[serial].close)

        def signals():
            return {serial: event.signal for serial, event in watched.items()}

        def announce(serial, content=b"one"):
            device.send(wire.record(serial, items=[wire.item(content)]))

        def wait_told(before, *serials):
            wait_until(lambda: all(signals()[serial] != before[serial] for serial in serials),
                       f"{serials} to be told")
        never = signals()
        announce(42)
        wait_told(never, 42, 0)
        # The devices that nobody watches have no event, and none is made.
        first = signals()
        announce(44)
        wait_told(first, 0)
        before = signals()
        self.assertEqual(before[42], first[42])
        # What is only confirmed is no change, however long that goes on.
        self.assertTrue(stays_true(lambda: (announce(42), announce(44), before == signals())[2],
                                   5))
        self.assertFalse(locator.exists("event", self.EVENT + "0000044"))
        # Each change and each end is told. Whoever does not wait at the moment of a pulse
        # misses it: there are five of them, a second apart.
        changes = set()

        def change():
            second = f"second {time.monotonic():.0f}".encode()
            if second not in changes:
                changes.add(second)
                announce(42, second)
            return len(changes) == 5
        wait_until(change, "five changes")
        wait_told(before, 42, 0)
        changed = signals()
        wait_until(lambda: not locator.items(), "the end of all items")
        wait_told(changed, 42, 0)
        self.assertEqual(signals()[43], never[43])


class LogMode(TestCase):
    def setUp(self):
        super().setUp()
        self.locator = self.start_locator(self.network.host("alone"))
        self.locator.exchange("GETVERSION")  # who is answered finds the event as well

    def assert_mode(self, on):
        self.assertEqual((self.locator.exists("mutex", "MUTEX_LOGMODE"),
                          self.locator.is_set("Global\\DRAVIK_LOGMODE")), (on, on))

    def test_an_event_and_a_mutex_tell_of_it(self):
        self.assert_mode(False)
        for command, on in (("STARTLOG", True), ("STARTLOG", True), ("STOPLOG", False),
                            ("STOPLOG", False), ("STARTLOGxyz", True), ("StopLog", False)):
            with self.subTest(command), self.locator.client() as client:
                client.tell(command)
                self.assert_mode(on)
        for verb, on in (("start", True), ("stop", False)):
            self.tool_says(self.locator, "log", verb)
            self.assert_mode(on)

    def test_the_tool_shows_and_sets_the_log_path(self):
        path = "/var/log/Küche"
        with_end = path + self.target.AFTER_A_SLASH.decode()
        for arguments, shown in (((path,), with_end), ((), with_end),
                                 (("--reset",), self.locator.temporary)):
            self.assertEqual(self.tool_says(self.locator, "log", "path", *arguments), shown + "\n")
