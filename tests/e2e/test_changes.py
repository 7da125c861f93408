"""What clients are told without asking: change events and the log mode."""

import fcntl
import json
import os
import signal
import struct

import wire
from harness import TestCase, stays_true, wait_until

F_OFD_SETLK = 37  # a lock that belongs to the open file; Python does not name it yet


class ChangeEvents(TestCase):
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
        for name in ("0000042", "0000043", "0000000"):
            self.make_event("DRAVIK_CHANGES_ITEM_LIST_TALVORN_" + name, locator)
        station.send(wire.record(42, items=[wire.item(b"one")]))
        wait_until(lambda: locator.items(), "the item")
        # The devices that nobody watches have no event, and none is made.
        station.send(wire.record(44, items=[wire.item(b"one")]))
        wait_until(lambda: len(locator.items()) == 2, "the item")
        # What is only confirmed is no change, however long that goes on.
        both = {name: self.signal_number(path) for name, path in self.events.items()}
        self.assertTrue(stays_true(lambda: (
            [station.send(wire.record(serial, items=[wire.item(b"one")])) for serial in (42, 44)],
            both == {name: self.signal_number(path) for name, path in self.events.items()})[1], 5))
        signals = {name: self.signal_number(path) for name, path in self.events.items()}
        self.assertNotEqual(signals.pop("DRAVIK_CHANGES_ITEM_LIST_TALVORN_0000042"), self.START)
        self.assertNotEqual(signals.pop("DRAVIK_CHANGES_ITEM_LIST_TALVORN_0000000"), self.START)
        self.assertEqual(list(signals.values()), [self.START])
        objects = os.path.join(locator.runtime_directory, "objects")
        self.assertNotIn("DRAVIK_CHANGES_ITEM_LIST_TALVORN_0000044", os.listdir(objects))
        for path in self.events.values():
            os.unlink(path)

    START = 7

    def make_event(self, name, locator):
        """An event as another program would make it: a file that it holds a lock on."""
        path = os.path.join(locator.runtime_directory, "objects", name)
        file = open(path, "w+b")
        self.addCleanup(file.close)
        file.write(struct.pack("<4sIIIQQ", b"TLVO", 2, 0, 0, self.START, 0))
        file.flush()
        lock = struct.pack("hhxxxxqqixxxx", fcntl.F_RDLCK, os.SEEK_SET, 0, 1, 0)
        fcntl.fcntl(file, F_OFD_SETLK, lock)
        self.events = {**getattr(self, "events", {}), name: path}

    @staticmethod
    def signal_number(path):
        with open(path, "rb") as file:
            return struct.unpack("<4sIIIQQ", file.read(32))[4]


class LogMode(TestCase):
    def event_is_set(self, locator):
        path = os.path.join(locator.runtime_directory, "objects", "DRAVIK_LOGMODE")
        with open(path, "rb") as file:
            mark, kind, state = struct.unpack("<4sII", file.read(12))
        self.assertEqual((mark, kind), (b"TLVO", 3))
        return state != 0

    def test_event_and_mutex(self):
        locator = self.start_locator(self.network.host("alone"))
        mutex = os.path.join(locator.runtime_directory, "objects", "MUTEX_LOGMODE")
        self.assertFalse(os.path.exists(mutex) or self.event_is_set(locator))
        for command, on in (("STARTLOG", True), ("STARTLOG", True), ("STOPLOG", False),
                            ("STOPLOG", False), ("STARTLOGxyz", True), ("StopLog", False)):
            with self.subTest(command), locator.client() as client:
                client.ask(command)
                self.assertTrue(client.is_served())
                self.assertEqual((os.path.exists(mutex), self.event_is_set(locator)), (on, on))
        for verb, on in (("start", True), ("stop", False)):
            tool = self.tool(locator, "log", verb)
            self.assertEqual(tool.wait(), 0, tool.err)
            self.assertEqual((os.path.exists(mutex), self.event_is_set(locator)), (on, on))

    def test_the_log_path_by_the_tool(self):
        locator = self.start_locator(self.network.host("alone"))
        for arguments, shown in ((("/var/log/Küche",), "/var/log/Küche/\n"), ((),
                                 "/var/log/Küche/\n")):
            tool = self.tool(locator, "log", "path", *arguments)
            self.assertEqual((tool.wait(), tool.out), (0, shown), tool.err)
