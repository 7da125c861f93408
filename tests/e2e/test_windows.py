"""The locator for Windows: beside the one for Linux on one network, and what its
executable holds."""

import os
import time

from lab import linux_target, wire
from lab.harness import ROOT, Registry, TestCase, only_on, wait_until
from lab.windows_target import Session, Settings, windows_path

IPV4 = {"IPv6 Active": 0}


@only_on("windows", "needs both")
class BothBuilds(TestCase):
    def setUp(self):
        super().setUp()
        self.here, self.there = self.simple_network()
        self.other = self.host_on(self.switch, "net0", "192.168.10.2/24", name="other")
        self.seen = self.capture(self.there, "dev0")

    def start_both(self, **settings):
        """(locator for Windows, at 192.168.10.1; locator for Linux, at 192.168.10.2)"""
        windows = self.start_locator(self.here, settings={**IPV4, **settings})
        windows.wait_listening("192.168.10.1")
        linux = self.start_locator(self.other, settings={**IPV4, **settings}, target=linux_target)
        return windows, linux.wait_listening("192.168.10.2")

    def test_their_requests_are_the_same(self):
        seen = {}
        for target in (self.target, linux_target):
            before = len(self.seen.requests())
            locator = self.start_locator(self.here, settings=IPV4, target=target)
            seen[target.NAME] = wait_until(lambda: self.seen.requests()[before:], "a request")[0]
            locator.stop()
        windows, linux = seen["windows"], seen["linux"]
        at = len(wire.request()) - 4  # the seconds; before them are four bytes of zero
        self.assertEqual(windows.payload[:at], linux.payload[:at])
        self.assertEqual(len(windows.payload), len(linux.payload))
        for one in (windows, linux):
            self.assertAlmostEqual(int.from_bytes(one.payload[at:], "big"), one.when, delta=5)
        self.assertEqual((windows.source, windows.destination, windows.hops),
                         (linux.source, linux.destination, linux.hops))

    def test_each_silences_the_other(self):
        addresses = {"windows": "192.168.10.1", "linux": "192.168.10.2"}
        hosts = {"windows": self.here, "linux": self.other}
        for first, second in ((self.target, linux_target), (linux_target, self.target)):
            with self.subTest(second=second.NAME):
                asking = self.start_locator(hosts[first.NAME], settings=IPV4, target=first)
                asking.wait_listening(addresses[first.NAME])
                newer = self.start_locator(hosts[second.NAME], settings=IPV4, target=second)
                asking.event_log.wait_for("Multicast request received from network interface: "
                                          + addresses[first.NAME])
                began = time.time()
                source = addresses[second.NAME]
                wait_until(lambda: len([one for one in self.seen.requests(source)
                                        if one.when > began]) >= 12, "the other's requests")
                self.assertEqual([one for one in self.seen.requests(addresses[first.NAME])
                                  if one.when > began + 0.2], [])
                for locator in (newer, asking):
                    locator.stop()

    def test_what_one_finds_the_other_finds(self):
        self.simulate(self.there, "--interface", "dev0", "--ipv4", "--devices", "12", "--layout",
                      "mixed", "--items", "2")
        locators = self.start_both(**{"Time Response Valid": 600000})
        replies = []
        for locator in locators:
            wait_until(lambda: len(locator.devices()) == 12, "the devices")
            with locator.client() as client:
                replies.append((client.exchange("GETINFO"), sorted(client.items())))
        self.assertEqual(replies[0], replies[1])


@only_on("windows", "Windows looks for it")
class EventSources(TestCase):
    """What the event viewer needs: the sources' keys, and the text of their message."""

    KEY = r"HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Services\EventLog\Application"

    def test_they_can_be_imported_and_have_their_message(self):
        session = Session.of(self.network.host("alone"))
        registry = self.target.Registry(session, os.path.join(self.directory, "unused"), None)
        registry.take(os.path.join(ROOT, "packaging", "event-sources.reg"))
        for source in ("TALVORN", "CAST REQUEST", "CAST RECEIVE", "CAST RESPONSE"):
            self.assertEqual(registry.line(f"{self.KEY}\\{source}", "TypesSupported"),
                             Registry.value_line("TypesSupported", 7))
            self.assertIn("talvorn-locator.exe",
                          registry.line(f"{self.KEY}\\{source}", "EventMessageFile"))
        locator = windows_path(os.path.join(Settings.binaries, "talvorn-locator.exe"))
        self.assertEqual(session.order("message", locator + "|Any text, 100 % Küche"),
                         "Any text, 100 % Küche")
