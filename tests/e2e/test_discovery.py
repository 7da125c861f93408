"""From a device's answer on the network to the list that a client gets."""

import time

from lab import wire
from lab.harness import TestCase, needs_ipv6, wait_until

LONG = {"Time Response Valid": 600000}


class FoundDevices(TestCase):
    @needs_ipv6
    def test_both_families_are_merged_into_one_device(self):
        here, there = self.simple_network()
        locator = self.start_listening(here, settings=LONG)
        fields = {"status": "RDY", "clip": "C7", "host_ipv4": "10.1.2.3",
                  "host_ipv6": "2001:db8::77", "host_alias": "press room"}
        over4 = self.station(there, "dev0", "192.168.10.20")
        over6 = self.station(there, "dev0", "fd00:10::20")
        # What a device says of its own address is lost: the sender's address counts.
        over4.send(wire.record(1000, ipv4="10.9.9.9", ipv6="2001:db8::9", alias="first", **fields))
        device = wait_until(lambda: locator.devices().get("1000"), "the device over IPv4")
        self.assertEqual((device["ipv4"], device["ipv6"]), ("192.168.10.20", ""))
        self.assertEqual(
            [device[name] for name in ("status", "clip", "alias", "hostIpv4", "hostIpv6",
                                       "hostAlias")],
            ["RDY", "C7", "first", "10.1.2.3", "2001:db8::77", "press room"])

        over6.send(wire.record(1000, ipv4="10.9.9.9", alias="second", **fields))
        locator.event_log.wait_for(self._report("1000", "second", "--", "fd00:10::20", fields))
        device = locator.devices()["1000"]
        self.assertEqual((device["ipv4"], device["ipv6"], device["alias"]),
                         ("192.168.10.20", "", "first"))
        # The preference counts from the next answer on, without a restart.
        for preference, shown in ((6, ("", "fd00:10::20")), (5, ("192.168.10.20", ""))):
            locator.registry.set("Prefered IP Version", preference)
            device = locator.devices()["1000"]
            self.assertEqual((device["ipv4"], device["ipv6"]), shown)

        # Whoever is known by one address only keeps it, whatever is preferred.
        over6.send(wire.record(999, alias="six"))
        device = wait_until(lambda: locator.devices().get("999"), "the device over IPv6")
        self.assertEqual((device["ipv4"], device["ipv6"]), ("", "fd00:10::20"))
        self.assertEqual(list(locator.devices()), ["1000", "999"])  # as texts, not as numbers

    @staticmethod
    def _report(serial, alias, ipv4, ipv6, fields):
        return (f"Device Serial: \t\t{serial}\nDevice Status: \t\t{fields['status']}\n"
                f"Device Clip: \t\t{fields['clip']}\nDevice Alias: \t\t{alias}\n"
                f"Device IPV4 Address: \t{ipv4}\nDevice IPV6 Address: \t{ipv6}\n"
                f"Host Alias: \t\t{fields['host_alias']}\n"
                f"Host IPV4 Address: \t\t{fields['host_ipv4']}\n"
                f"Host IPV6 Address: \t\t{fields['host_ipv6']}")

    def test_the_older_layout_becomes_a_full_record(self):
        here, there = self.simple_network()
        locator = self.start_listening(here, settings=LONG)
        station = self.station(there, "dev0", "192.168.10.20")
        station.send(wire.short_record(1234567, ipv4="10.9.9.9", status="BUSY", clip="B",
                                       alias="old one", host_ipv4="10.1.2.3", host_alias="h"))
        wait_until(lambda: "1234567" in locator.devices(), "the device")
        with locator.client() as client:
            kind, count, payload = client.exchange("GETINFO")
        expected = wire.record(1234567, ipv4="192.168.10.20", status="BUSY", clip="B",
                               alias="old one", host_ipv4="10.1.2.3", host_alias="h")
        self.assertEqual((kind, count, payload), (3, 1, expected))
        # Empty fields are shown as "--" and stay empty in the record.
        self.assertIn("Device IPV6 Address: \t--\n", locator.event_log.texts("CAST RESPONSE")[0])

    def test_a_silent_device_expires_and_an_answering_one_stays(self):
        here, there = self.simple_network()
        locator = self.start_listening(here)
        stays = self.station(there, "dev0", "192.168.10.20")
        goes = self.station(there, "dev0",
                            "fd00:10::21" if 6 in self.families else "192.168.10.21")

        def both():
            stays.send(wire.record(1))
            goes.send(wire.record(2))
            return set(locator.devices()) == {"1", "2"}

        wait_until(both, "both devices")
        goes.send(wire.record(2))
        last = time.monotonic()
        lived = wait_until(lambda: (stays.send(wire.record(1)),
                                    "2" not in locator.devices() and time.monotonic() - last)[1],
                           "the expiry")
        self.assertGreaterEqual(lived, 1.4)  # Time Response Valid
        self.assertIn("1", locator.devices())
        wait_until(lambda: not locator.devices(), "the expiry of the other")

    def test_simulated_devices_answer_each_request(self):
        here, there = self.simple_network()
        locator = self.start_listening(here)
        simulator = self.simulate(there, "--interface", "dev0", "--devices", "6")
        wait_until(lambda: len(locator.devices()) == 6, "six devices")
        self.assertEqual(locator.event_log.texts("CAST RECEIVE"), [])
        simulator.discard()
        wait_until(lambda: not locator.devices(), "the devices to go")


class Items(TestCase):
    def test_items_are_kept_by_content_and_expire(self):
        here, there = self.simple_network()
        locator = self.start_listening(here, settings={"Time Response Valid": 3000})
        station = self.station(there, "dev0", "192.168.10.20")
        first, second = wire.item(b"first" * 10), wire.item(b"second" * 10)
        known = wire.item_chain([first, second])
        stored = [known[:len(first)], known[len(first):]]

        def both():
            station.send(wire.record(7, items=[first, second]))
            return len(locator.items()) == 2

        wait_until(both, "both items")
        self.assertEqual(locator.items(), [(7, stored[1]), (7, stored[0])])  # newest first
        # The digest covers the first bytes only: the stored copy stays as it was.
        partly = wire.item(b"same start, one end", hash_length=30)
        self.assertEqual(partly[:30], wire.item(b"same sXXXX, two end", hash_length=30)[:30])
        station.send(wire.record(7, items=[partly]))
        wait_until(lambda: (7, partly) in locator.items(), "the third item")
        station.send(wire.record(7, items=[wire.item(b"same sXXXX, two end", hash_length=30)]))
        station.send(wire.record(8, items=[first]))
        wait_until(lambda: 8 in dict(locator.items()), "the item of another device")
        self.assertEqual([item for serial, item in locator.items() if item[:30] == partly[:30]],
                         [partly])
        wait_until(lambda: not locator.items(), "the expiry of the items")

    def test_a_cut_datagram_hands_on_the_items_that_are_whole(self):
        here, there = self.simple_network()
        locator = self.start_listening(here, settings=LONG)
        station = self.station(there, "dev0", "192.168.10.20")
        whole = wire.record(9, items=[wire.item(bytes([65 + n]) * 76) for n in range(3)])
        self.assertEqual(len(whole), 667)
        station.send(whole[:600])
        wait_until(lambda: "9" in locator.devices(), "the device")
        station.send(wire.record(10))
        wait_until(lambda: "10" in locator.devices(), "the next device")
        self.assertEqual([item[24:25] for _, item in locator.items()], [b"B", b"A"])
        # Without an offset there are no items, whatever follows the record.
        station.send(wire.record(11, items=[wire.item(b"unseen")], item_offset=0))
        wait_until(lambda: "11" in locator.devices(), "the device")
        self.assertEqual(len(locator.items()), 2)
