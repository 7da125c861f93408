"""From a device's answer on the network to the list that a client gets."""

import time

from lab import wire
from lab.harness import NetworkTestCase, needs_ipv6, wait_until

LONG = {"Time Response Valid": 600000}


class FoundDevices(NetworkTestCase):
    @needs_ipv6
    def test_both_families_are_merged_into_one_device(self):
        locator = self.start_listening(self.here, settings=LONG)
        fields = {"status": "RDY", "clip": "C7", "host_ipv4": "10.1.2.3",
                  "host_ipv6": "2001:db8::77", "host_alias": "press room"}
        over4, over6 = self.device(), self.device("fd00:10::20")

        def shown(serial, *names):
            return tuple(locator.devices()[serial][name] for name in names)
        # What a device says of its own address is lost: the sender's address counts.
        over4.send(wire.record(1000, ipv4="10.9.9.9", ipv6="2001:db8::9", alias="first", **fields))
        wait_until(lambda: "1000" in locator.devices(), "the device over IPv4")
        self.assertEqual(shown("1000", "ipv4", "ipv6", "status", "clip", "alias", "hostIpv4",
                               "hostIpv6", "hostAlias"),
                         ("192.168.10.20", "", "RDY", "C7", "first", "10.1.2.3", "2001:db8::77",
                          "press room"))
        over6.send(wire.record(1000, ipv4="10.9.9.9", alias="second", **fields))
        locator.event_log.wait_for(
            "Device Serial: \t\t1000\nDevice Status: \t\tRDY\nDevice Clip: \t\tC7\n"
            "Device Alias: \t\tsecond\nDevice IPV4 Address: \t--\n"
            "Device IPV6 Address: \tfd00:10::20\nHost Alias: \t\tpress room\n"
            "Host IPV4 Address: \t\t10.1.2.3\nHost IPV6 Address: \t\t2001:db8::77")
        self.assertEqual(shown("1000", "ipv4", "ipv6", "alias"), ("192.168.10.20", "", "first"))
        # The preference counts from the next answer on, without a restart.
        for preference, addresses in ((6, ("", "fd00:10::20")), (5, ("192.168.10.20", ""))):
            locator.registry.set("Prefered IP Version", preference)
            self.assertEqual(shown("1000", "ipv4", "ipv6"), addresses)
        # Whoever is known by one address only keeps it, whatever is preferred.
        over6.send(wire.record(999, alias="six"))
        wait_until(lambda: "999" in locator.devices(), "the device over IPv6")
        self.assertEqual(shown("999", "ipv4", "ipv6"), ("", "fd00:10::20"))
        self.assertEqual(list(locator.devices()), ["1000", "999"])  # as texts, not as numbers

    def test_the_older_layout_becomes_a_full_record(self):
        locator = self.start_listening(self.here, settings=LONG)
        fields = {"status": "BUSY", "clip": "B", "alias": "old one", "host_ipv4": "10.1.2.3",
                  "host_alias": "h"}
        self.device().send(wire.short_record(1234567, ipv4="10.9.9.9", **fields))
        wait_until(lambda: "1234567" in locator.devices(), "the device")
        self.assertEqual(locator.exchange("GETINFO"),
                         (3, 1, wire.record(1234567, ipv4="192.168.10.20", **fields)))
        # Empty fields are shown as "--" and stay empty in the record.
        self.assertIn("Device IPV6 Address: \t--\n", locator.event_log.texts("CAST RESPONSE")[0])

    def test_a_silent_device_expires_and_an_answering_one_stays(self):
        locator = self.start_listening(self.here)
        stays = self.device()
        goes = self.device("fd00:10::21" if 6 in self.families else "192.168.10.21")

        def known():
            stays.send(wire.record(1))
            return set(locator.devices())
        wait_until(lambda: (goes.send(wire.record(2)), known() == {"1", "2"})[1], "both devices")
        goes.send(wire.record(2))
        last = time.monotonic()
        wait_until(lambda: known() == {"1"}, "the expiry")
        self.assertGreaterEqual(time.monotonic() - last, 1.4)  # Time Response Valid
        locator.wait_devices(0)

    def test_simulated_devices_answer_each_request(self):
        locator = self.start_listening(self.here)
        simulator = self.simulate(self.there, "--interface", "dev0", "--devices", "6")
        locator.wait_devices(6)
        self.assertEqual(locator.event_log.texts("CAST RECEIVE"), [])
        simulator.discard()
        locator.wait_devices(0)


class Items(NetworkTestCase):
    def test_items_are_kept_by_content_and_expire(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 3000})
        device = self.device()
        first, second = wire.item(b"first" * 10), wire.item(b"second" * 10)
        chain = wire.item_chain([first, second])
        wait_until(lambda: (device.send(wire.record(7, items=[first, second])),
                            len(locator.items()) == 2)[1], "both items")
        self.assertEqual(locator.items(),  # newest first
                         [(7, chain[len(first):]), (7, chain[:len(first)])])
        # The digest covers the first bytes only: the stored copy stays as it was.
        partly, like_it = (wire.item(text, hash_length=30) for text in
                           (b"same start, one end", b"same sXXXX, two end"))
        self.assertEqual(partly[:30], like_it[:30])
        device.send(wire.record(7, items=[partly]))
        wait_until(lambda: (7, partly) in locator.items(), "the third item")
        device.send(wire.record(7, items=[like_it]))
        device.send(wire.record(8, items=[first]))
        wait_until(lambda: 8 in dict(locator.items()), "the item of another device")
        self.assertEqual([item for _, item in locator.items() if item[:30] == partly[:30]],
                         [partly])
        wait_until(lambda: not locator.items(), "the expiry of the items")

    def test_a_cut_datagram_hands_on_the_items_that_are_whole(self):
        locator = self.start_listening(self.here, settings=LONG)
        device = self.device()
        whole = wire.record(9, items=[wire.item(bytes([65 + n]) * 76) for n in range(3)])
        self.assertEqual(len(whole), 667)
        device.send(whole[:600])
        # Without an offset there are no items, whatever follows the record.
        device.send(wire.record(11, items=[wire.item(b"unseen")], item_offset=0))
        self.wait_heard(locator, device)
        self.assertEqual(set(locator.devices()), {"9", "11", "66"})
        self.assertEqual([item[24:25] for _, item in locator.items()], [b"B", b"A"])
