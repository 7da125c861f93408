"""Whatever a network sends, the locator works on."""

import random
import struct

from lab import wire
from lab.harness import TestCase, wait_until

SEED = 20260117


class BadInput(TestCase):
    def setUp(self):
        super().setUp()
        here, there = self.simple_network()
        self.locator = self.start_listening(here, settings={"DebugView": 0, "Time Master": 1000,
                                                            "Time Response Valid": 600000})
        self.stations = [self.station(there, "dev0", address)
                         for address in ("192.168.10.20", "fd00:10::20")[:len(self.families)]]

    def assert_works(self):
        """Every family's receivers still hear, and the requests go on in the end."""
        self.serial = getattr(self, "serial", 9000000) + 10
        for station in self.stations:
            wait_until(lambda: (station.send(wire.record(self.serial + station.family)),
                                str(self.serial + station.family) in self.locator.devices())[1],
                       f"a device over IPv{station.family}")
        before = len(self.locator.event_log.texts("CAST REQUEST"))
        wait_until(lambda: len(self.locator.event_log.texts("CAST REQUEST")) > before + 4,
                   "requests to go on")

    def send(self, data):
        for station in self.stations:
            station.send(data)

    def test_datagrams_of_every_length(self):
        chance = random.Random(SEED)
        full = wire.record(1, items=[wire.item(b"x" * 300) for _ in range(3)]).ljust(1600, b"\xff")
        short = wire.short_record(2, alias="short").ljust(1600, b"\xff")
        for length in range(1601):
            # Few serials: every device must fit into one reply.
            noise = chance.randbytes(78) + b"%07d\0" % (length % 50) + chance.randbytes(1498)
            self.send((full, short, bytes(1600), full[:16] + noise)[length % 4][:length])
            if length in (158, 159, 160, 366, 367, 368, 1499, 1500, 1501):
                self.send(short[:length])
                self.send(full[:length])
            if length % 5 == 0:
                self.stations[length % len(self.stations)].send_request(full[:length])
        self.send(full + bytes(10000))
        self.assert_works()

    def test_texts_without_end(self):
        for size in (159, 367):
            header = wire.record(0)[:12] if size == 367 else wire.short_record(0)[:12]
            kind = b"101\0\0\0\0\0" if size == 367 else b"100\0"
            self.send((header + kind).ljust(size, b"7"))
        devices = wait_until(lambda: len(self.locator.devices()) >= 1
                             and self.locator.devices(), "the device")
        self.assertEqual(set(devices), {"7777777"})
        with self.locator.client() as client:
            for device in client.devices():
                self.assertLessEqual(len(device["alias"]), 24)
                self.assertLessEqual(len(device["hostAlias"]), 63)
        self.assert_works()

    def test_items_that_lie(self):
        good = wire.item(b"good" * 10)
        size = len(good)

        def chain(*items):
            return wire.record(6, item_offset=367) + b"".join(items)

        def word(item, at, value):
            return item[:at] + struct.pack(">I", value) + item[at + 4:]

        lies = [
            chain(word(good, 0, 0xffffffff)), chain(word(good, 0, size + 1)),
            chain(word(good, 20, 0xffffffff)), chain(word(good, 20, 0xffffffec)),
            chain(word(good, 20, size - 19)), chain(good[:23]), chain(b""),
            *(wire.record(6, item_offset=offset) + good
              for offset in (1, 400, 411, 1500, 0x7fffffff, 0xffffffff, 0xfffffff0)),
        ]
        for lie in lies:
            self.send(lie)
        # What stands before the lie counts, and a chain that goes nowhere ends.
        for follow in (0xffffffff, 0xffffffff - size + 1, size + 1000, 1 << 31):
            self.send(chain(word(good, 16, follow)))
        for serial, step in ((61, 1), (62, 4)):
            zeros = wire.item(bytes(800), next_offset=step, hash_length=0)
            self.send(wire.record(serial, item_offset=367) + zeros)
        self.assert_works()
        items = self.locator.items()
        self.assertIn((6, word(good, 16, 0xffffffff)), items)
        for serial, item in items:
            (body_length,) = struct.unpack_from(">I", item, 20)
            self.assertEqual(len(item), 20 + body_length, serial)

    def test_serials_that_are_no_numbers(self):
        for serial in ("", "abc", "12ab", "-5", "99999999"[:7], " 42", "%s%n"):
            self.send(wire.record(serial, items=[wire.item(serial.encode().ljust(9))]))
        devices = wait_until(lambda: len(self.locator.devices()) == 7 and self.locator.devices(),
                             "the devices")
        self.assertEqual(list(devices), sorted(devices))
        self.assert_works()
