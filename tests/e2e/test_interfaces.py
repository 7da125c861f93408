"""Networks that come and go while the locator runs."""

import os
import resource
import signal
import socket

from lab import wire
from lab.harness import (INTERFACES_KEY, Registry, TestCase, needs_ipv6, only_on, stays_true,
                     wait_until)

CHANGED = "Network interfaces have been changed!\n"


def located(address):
    return f"Network interface IPv4: {address}  located !"


def switched_down(address):
    return f"Network interface IPv4: {address} switched down !"


class InterfaceWatch(TestCase):
    def setUp(self):
        super().setUp()
        self.here, self.there = self.simple_network()

    def reports(self, locator):
        return [text for text in locator.event_log.texts("TALVORN") if text.startswith("Network")]

    def new_reports(self, locator, count):
        """The next reports after those already there."""
        before = getattr(self, "_reported", len(self.reports(locator)))
        wait_until(lambda: len(self.reports(locator)) >= before + count, f"{count} reports")
        self._reported = before + count
        return self.reports(locator)[before:]

    def started(self, **options):
        locator = self.start_locator(self.here, **options)
        locator.event_log.wait_for(located("192.168.10.1"))
        expected = [located("192.168.10.1")]
        if 6 in self.families:
            expected.insert(0, f"Network interface IPv6: {self.here.index('net0')} located !")
        self.assertEqual(self.reports(locator), expected)
        self._reported = len(expected)
        return locator

    def test_addresses_come_and_go(self):
        capture = self.capture(self.there, "dev0")
        locator = self.started()
        self.here.add_address("net0", "192.168.30.1/24")
        self.assertEqual(self.new_reports(locator, 2), [CHANGED, located("192.168.30.1")])
        request = wait_until(lambda: capture.requests("192.168.30.1"), "its requests")[0]
        self.assertEqual(wire.parse_request(request.payload)["cidr"].rstrip(b"\0"),
                         b"192.168.30.1/24")
        if self.target.NAME == "linux":  # to Wine, every address is a first one
            # A second address of a network that already has one gets no thread.
            self.here.add_address("net0", "192.168.30.2/24")
            self.assertEqual(self.new_reports(locator, 1), [CHANGED])
            self.here.remove_address("net0", "192.168.30.2/24")
            self.assertEqual(self.new_reports(locator, 1), [CHANGED])
        # Vanished threads are stopped before new ones start.
        self.here.ip("addr", "flush", "dev", "net0", "to", "192.168.30.1/24")
        self.assertEqual(self.new_reports(locator, 2), [CHANGED, switched_down("192.168.30.1")])
        sent = len(capture.requests("192.168.30.1"))
        self.assertTrue(stays_true(lambda: len(capture.requests("192.168.30.1")) == sent, 1))
        self.assertIn("Network interface IPv4: 192.168.30.1 (18786496) switched down [0x",
                      locator.debug_output)
        self.assertEqual({entry.kind for entry in locator.event_log.entries}, {"information"})

    def test_an_interface_made_anew_finds_its_devices_again(self):
        self.simulate(self.there, "--interface", "dev0", "--devices", "3")
        locator = self.started()
        wait_until(lambda: len(locator.devices()) == 3, "the devices")
        # Wine goes on with the number that an interface of this name had at first.
        for seen in (False, True) if self.target.NAME == "linux" else (True,):
            before = len(self.reports(locator))
            if not seen:  # as if it happened between two looks of the locator
                locator.signal(signal.SIGSTOP)
            self.here.disconnect("net0")
            if seen:
                wait_until(lambda: switched_down("192.168.10.1") in
                           self.reports(locator)[before:], "the stop")
                wait_until(lambda: not locator.devices(), "the devices to expire")
            self.here.connect(self.switch, "net9" if seen else "net0", "192.168.10.1/24",
                              "fe80::1/64", "fd00:10::1/64")
            if not seen:
                locator.signal(signal.SIGCONT)
            heard = len(locator.event_log.texts("CAST RESPONSE"))
            for sender in ("IPV4 Address: \t192.168.10.20\n",
                           "IPV6 Address: \tfd00:10::20\n")[:len(self.families)]:
                wait_until(lambda: any(f"Device {sender}" in text for text in
                                       locator.event_log.texts("CAST RESPONSE")[heard:]),
                           f"answers from {sender}")
            wait_until(lambda: len(locator.devices()) == 3, "the devices")
            if not seen:
                self.assertNotIn(switched_down("192.168.10.1"), self.reports(locator))

    @needs_ipv6
    def test_ipv6_that_comes_back_between_two_looks_is_heard(self):
        if self.target.NAME != "linux":
            self.skipTest("Wine does not tell when an address was made")
        locator = self.started()
        locator.wait_listening(self.here.index("net0"))
        device = self.station(self.there, "dev0", "fd00:10::20")
        locator.signal(signal.SIGSTOP)
        self.here.ip("link", "set", "net0", "mtu", "1000")
        self.here.ip("link", "set", "net0", "mtu", "1500")
        self.here.add_address("net0", "fe80::1/64")
        self.here.add_address("net0", "fd00:10::1/64")
        locator.signal(signal.SIGCONT)

        def heard():
            device.send(wire.record(66))
            return "66" in locator.devices()
        wait_until(heard, "a device by IPv6")
        self.assertEqual(self.reports(locator)[self._reported:], [])

    def test_a_port_that_another_program_leaves_is_heard(self):
        with self.here:
            holders = [socket.socket(family, socket.SOCK_DGRAM)
                       for family in (socket.AF_INET, socket.AF_INET6)]
        for holder in holders:
            self.addCleanup(holder.close)
            if holder.family == socket.AF_INET6:
                holder.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
            holder.bind(("", wire.PORT))
        locator = self.started()
        device = self.station(self.there, "dev0", "192.168.10.20")
        locator.wait_listening("192.168.10.1")
        device.send(wire.record(66))
        self.assertTrue(stays_true(lambda: not locator.devices(), 0.5))
        for holder in holders:
            holder.close()

        def heard():
            device.send(wire.record(66))
            return "66" in locator.devices()
        wait_until(heard, "a device")

    @only_on("linux", "how many descriptors a process has is a limit of Linux")
    def test_interfaces_that_come_when_descriptors_are_short_are_heard_later(self):
        locator = self.start_listening(self.here)
        switch = self.network.switch()
        far = self.host_on(switch, "far0", "192.168.20.20/24")
        soft, hard = resource.prlimit(locator.pid, resource.RLIMIT_NOFILE)
        # From none for a look at the interfaces to some for a part of a request thread.
        for number, spare in enumerate((0, 2, 6, 12)):
            used = len(os.listdir(f"/proc/{locator.pid}/fd"))
            resource.prlimit(locator.pid, resource.RLIMIT_NOFILE, (used + spare, hard))
            self.here.connect(switch, f"net{number + 1}", f"192.168.20.{number + 1}/24")
            self.assertTrue(stays_true(lambda: not locator.ended, 0.6))
            resource.prlimit(locator.pid, resource.RLIMIT_NOFILE, (soft, hard))
            locator.wait_listening(f"192.168.20.{number + 1}")
        station = self.station(far, "far0", "192.168.20.20")
        wait_until(lambda: (station.send(wire.record(5)), locator.devices())[1], "the device")
        locator.stop()

    @needs_ipv6
    def test_ipv6_interfaces_come_and_go(self):
        locator = self.started()
        other = self.network.switch()
        self.here.connect(other, "net1", "fe80::5/64")
        index = self.here.index("net1")
        self.assertEqual(self.new_reports(locator, 1),
                         [f"Network interface IPv6: {index} located !"])
        far = self.host_on(other, "far0", "fe80::6/64")
        self.station(far, "far0", "fe80::6").send(wire.record(66))
        wait_until(lambda: "66" in locator.devices(), "a device by its link-local address")
        self.assertTrue(locator.devices()["66"]["ipv6"].startswith("fe80::6"))
        self.here.ip("link", "set", "net1", "down")
        self.assertEqual(self.new_reports(locator, 1),
                         [f"Network IPv6 interface: {index} shut down !"])
        self.here.ip("link", "set", "net1", "up")
        self.here.add_address("net1", "fe80::5/64")
        self.assertEqual(self.new_reports(locator, 1),
                         [f"Network interface IPv6: {index} located !"])
        self.here.disconnect("net1")
        self.assertEqual(self.new_reports(locator, 1),
                         [f"Network IPv6 interface: {index} shut down !"])

    @needs_ipv6
    def test_ipv6_can_be_switched_off(self):
        capture = self.capture(self.there, "dev0")
        locator = self.start_locator(self.here, settings={"IPv6 Active": 0})
        wait_until(lambda: len(capture.requests(family=4)) > 4, "requests")
        self.assertEqual(capture.requests(family=6), [])
        self.assertEqual(self.reports(locator), [located("192.168.10.1")])
        self.assertNotIn("Ipv6IfIndex", locator.debug_output)


class Reinitialisation(TestCase):
    """Values under the Interfaces key ask for one interface's thread to be made anew."""

    def test_requests_are_served_and_marked(self):
        here, _ = self.simple_network()
        locator = self.start_locator(here)
        locator.event_log.wait_for(located("192.168.10.1"))
        left_alone = [Registry.value_line("192.168.10.7", "0"),
                      Registry.value_line("192.168.10.8", 1),
                      Registry.value_line("192.168.10.9", bytes(8)),
                      Registry.value_line("1" * 100, 0)]
        asked = ("192.168.10.1", "192.168.10.99", "no address")
        lines = ["; a note above", f"[{INTERFACES_KEY}]",
                 *(Registry.value_line(name, 0) for name in asked[:1]), "; a note between",
                 *(Registry.value_line(name, 0) for name in asked[1:]),
                 *left_alone, "; a note below", ""]
        locator.registry.extra = "\n".join(lines)
        before = len(locator.event_log.entries)
        locator.registry.write()
        locator.event_log.wait_for(located("192.168.10.1"), 2)

        texts = [entry.text for entry in locator.event_log.entries[before:]
                 if entry.source == "TALVORN"]
        self.assertEqual(texts, [switched_down("192.168.10.1"), CHANGED, located("192.168.10.1")])
        for name in asked:
            wait_until(lambda: locator.registry.line(INTERFACES_KEY, name)
                       == Registry.value_line(name, 1), "the marks")
        for line in left_alone:
            name = line.split('"')[1]
            self.assertEqual(locator.registry.line(INTERFACES_KEY, name), line)
        if self.target.NAME == "linux":  # everything else in the file stays as it is
            served = [line.replace("dword:00000000", "dword:00000001")
                      if line.split('"')[1:2] and line.split('"')[1] in asked else line
                      for line in lines]
            self.assertEqual([line for line in locator.registry.read().splitlines() if line]
                             [-len(served) + 1:], served[:-1])
            self.assertIn("DebugView", locator.registry.read())
        banner = ["#" * 80] * 2
        for name in asked:
            line = f"#### Network interface thread for {name} will be reinitialized!"
            at = locator.trace.index(line)
            self.assertEqual(locator.trace[at - 2:at], banner)
            self.assertEqual(locator.trace[at + 1:at + 3], banner)
            self.assertEqual(locator.trace.count(line), 1)

    def test_the_tool_asks_for_it(self):
        here, _ = self.simple_network()
        locator = self.start_locator(here)
        locator.event_log.wait_for(located("192.168.10.1"))
        for times in (2, 3):
            tool = self.tool(locator, "reinit", "192.168.10.1")
            self.assertEqual(tool.wait(), 0, tool.err)
            locator.event_log.wait_for(located("192.168.10.1"), times)
