"""What clients are told without asking: change events and the log mode."""

import json
import signal
import struct
import time

from lab import wire
from lab.harness import TestCase, stays_true, wait_until


class ChangeEvents(TestCase):
    EVENT = "Global\\DRAVIK_CHANGES_ITEM_LIST_TALVORN_"

    def test_new_changed_and_expired_items_are_told(self):
        here, there = self.simple_network()
        locator = self.start_listening(here, settings={"Time Response Valid": 4000})
        station = self.station(there, "dev0", "192.168.10.20")

        def header(number):
            return struct.pack(">III", number, 0, 0)
        stays, first = wire.item(b"stays", carried=header(1)), wire.item(b"one", carried=header(2))
        second = wire.item(b"two", carried=header(2))
        station.send(wire.record(42, items=[stays, first]))
        wait_until(lambda: len(locator.items()) == 2, "the items")

        # Looks by itself once an hour: what it tells comes from the events.
        watch = self.tool(locator, "watch", "--all", "--json", "--interval", "3600")

        def told():
            return [(one["event"], bytes.fromhex(one["item"]["content"]))
                    for one in map(json.loads, watch.out.splitlines()) if "item" in one]

        def wait_told(*what):
            wait_until(lambda: (station.send(wire.record(42, items=sent)),
                                set(what) <= set(told()))[1], f"{what} to be told")
        sent = [stays, first]
        wait_told(("item-new", b"stays"), ("item-new", b"one"))
        sent = [stays, second]
        wait_told(("item-changed", b"two"))
        wait_told(("item-expired", b"one"))  # the old one goes when its time has passed
        sent = []
        wait_told(("item-gone", b"stays"), ("item-gone", b"two"))
        self.assertEqual(len(told()), 6)
        watch.signal(signal.SIGINT)
        self.assertEqual(watch.wait(), 0)

    def test_one_devices_event_is_not_anothers(self):
        here, there = self.simple_network()
        locator = self.start_listening(here, settings={"Time Response Valid": 3000})
        station = self.station(there, "dev0", "192.168.10.20")
        watched = {}
        for name in ("0000042", "0000043", "0000000"):
            watched[name] = locator.watch(self.EVENT + name)
            self.addCleanup(watched[name].close)

        def signals():
            return {name: event.signal for name, event in watched.items()}

        def wait_told(before, *names):
            wait_until(lambda: all(signals()[name] != before[name] for name in names),
                       f"{names} to be told")
        never = signals()
        station.send(wire.record(42, items=[wire.item(b"one")]))
        wait_told(never, "0000042", "0000000")
        # The devices that nobody watches have no event, and none is made.
        first = signals()
        station.send(wire.record(44, items=[wire.item(b"one")]))
        wait_told(first, "0000000")
        # What is only confirmed is no change, however long that goes on.
        before = signals()
        self.assertEqual(before["0000042"], first["0000042"])
        self.assertTrue(stays_true(lambda: (
            [station.send(wire.record(serial, items=[wire.item(b"one")])) for serial in (42, 44)],
            before == signals())[1], 5))
        self.assertFalse(locator.exists("event", self.EVENT + "0000044"))

        # Each change and each end is told. Whoever does not wait at the moment of a pulse
        # misses it: there are five of them, a second apart.
        contents = []

        def change():
            second = f"second {time.monotonic():.0f}".encode()
            if second not in contents:
                contents.append(second)
                station.send(wire.record(42, items=[wire.item(second)]))
            return len(contents) == 5
        wait_until(change, "five changes")
        wait_told(before, "0000042", "0000000")
        changed = signals()
        wait_until(lambda: not locator.items(), "the end of all items")
        wait_told(changed, "0000042", "0000000")
        self.assertEqual(signals()["0000043"], never["0000043"])


class LogMode(TestCase):
    def state(self, locator):
        return locator.exists("mutex", "MUTEX_LOGMODE"), locator.is_set("Global\\DRAVIK_LOGMODE")

    def test_event_and_mutex(self):
        locator = self.start_locator(self.network.host("alone"))
        with locator.client() as client:
            self.assertTrue(client.is_served())
        self.assertEqual(self.state(locator), (False, False))
        for command, on in (("STARTLOG", True), ("STARTLOG", True), ("STOPLOG", False),
                            ("STOPLOG", False), ("STARTLOGxyz", True), ("StopLog", False)):
            with self.subTest(command), locator.client() as client:
                client.ask(command)
                self.assertTrue(client.is_served())
                self.assertEqual(self.state(locator), (on, on))
        for verb, on in (("start", True), ("stop", False)):
            tool = self.tool(locator, "log", verb)
            self.assertEqual(tool.wait(), 0, tool.err)
            self.assertEqual(self.state(locator), (on, on))

    def test_the_log_path_by_the_tool(self):
        locator = self.start_locator(self.network.host("alone"))
        shown = "/var/log/Küche" + self.target.AFTER_A_SLASH.decode() + "\n"
        for arguments in (("/var/log/Küche",), ()):
            tool = self.tool(locator, "log", "path", *arguments)
            self.assertEqual((tool.wait(), tool.out), (0, shown), tool.err)
        tool = self.tool(locator, "log", "path", "--reset")
        self.assertEqual((tool.wait(), tool.out), (0, locator.temporary + "\n"), tool.err)
