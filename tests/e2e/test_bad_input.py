"""Whatever a network sends, the locator works on. Many more bytes than here go through
the programs of fuzz/."""

import struct

from lab import wire
from lab.harness import NetworkTestCase, wait_until


class BadInput(NetworkTestCase):
    def setUp(self):
        super().setUp()
        self.locator = self.start_listening(self.here, settings={
            "DebugView": 0, "Time Master": 1000, "Time Response Valid": 600000})
        self.devices = [self.device(address) for address in
                        ("192.168.10.20", "fd00:10::20")[:len(self.families)]]

    def assert_works(self):
        """Every family's receivers still hear, and the requests go on in the end."""
        for device in self.devices:
            self.wait_heard(self.locator, device, 9000000 + device.family)
        before = len(self.locator.event_log.texts("CAST REQUEST"))
        wait_until(lambda: len(self.locator.event_log.texts("CAST REQUEST")) > before + 4,
                   "requests to go on")

    def send(self, *datagrams):
        for data in datagrams:
            for device in self.devices:
                device.send(data)

    def test_lengths_about_every_limit_do_no_harm(self):
        full = wire.record(1, items=[wire.item(b"x" * 300) for _ in range(3)]).ljust(1600, b"\xff")
        short = wire.short_record(2, alias="short").ljust(1600, b"\xff")
        for length in (*range(48), 158, 159, 160, 366, 367, 368, 391, 1499, 1500, 1501, 1600):
            self.send(full[:length], short[:length], bytes(length))
            for device in self.devices:
                device.send_request(full[:length])
        self.send(full + bytes(10000))
        self.assert_works()

    def test_texts_without_end_are_cut(self):
        self.send((wire.short_record(0)[:12] + b"100\0").ljust(159, b"7"),
                  (wire.record(0)[:12] + b"101\0\0\0\0\0").ljust(367, b"7"))
        self.locator.wait_devices(1)
        device = self.locator.devices()["7777777"]
        self.assertLessEqual(len(device["alias"]), 24)
        self.assertLessEqual(len(device["hostAlias"]), 63)
        self.assert_works()

    def test_items_that_lie_are_cut_or_left_out(self):
        good = wire.item(b"good" * 10)
        size = len(good)

        def with_chain(chain, offset=367, serial=6):
            return wire.record(serial, item_offset=offset) + chain

        def with_word(at, value):
            return good[:at] + struct.pack(">I", value) + good[at + 4:]
        self.send(*(with_chain(with_word(0, identity)) for identity in (0xffffffff, size + 1)),
                  *(with_chain(with_word(20, body)) for body in
                    (0xffffffff, 0xffffffec, size - 19)),
                  with_chain(good[:23]), with_chain(b""),
                  *(with_chain(good, offset) for offset in
                    (1, 400, 411, 1500, 0x7fffffff, 0xffffffff, 0xfffffff0)))
        # What stands before the lie counts, and a chain that goes nowhere ends.
        self.send(*(with_chain(with_word(16, follow)) for follow in
                    (0xffffffff, 0xffffffff - size + 1, size + 1000, 1 << 31)),
                  *(with_chain(wire.item(bytes(800), next_offset=step, hash_length=0),
                               serial=60 + step) for step in (1, 4)))
        self.assert_works()
        items = self.locator.items()
        self.assertIn((6, with_word(16, 0xffffffff)), items)
        for serial, item in items:
            (body_length,) = struct.unpack_from(">I", item, 20)
            self.assertEqual(len(item), 20 + body_length, serial)

    def test_serials_that_are_no_numbers_are_texts_in_order(self):
        for serial in ("", "abc", "12ab", "-5", "99999999"[:7], " 42", "%s%n"):
            self.send(wire.record(serial, items=[wire.item(serial.encode().ljust(9))]))
        self.locator.wait_devices(7)
        self.assertEqual(list(self.locator.devices()), sorted(self.locator.devices()))
        self.assert_works()
