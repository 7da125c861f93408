"""Networks that come and go while the locator runs."""

import os
import resource
import signal
import socket

from lab import wire
from lab.harness import (INTERFACES_KEY, NetworkTestCase, Registry, needs_ipv6, only_on, stays_true,
                         wait_until)

CHANGED = "Network interfaces have been changed!\n"


def located(interface):
    return (f"Network interface IPv6: {interface} located !" if isinstance(interface, int)
            else f"Network interface IPv4: {interface}  located !")


def switched_down(address):
    return f"Network interface IPv4: {address} switched down !"


class InterfaceWatch(NetworkTestCase):
    def reports(self, locator):
        return [text for text in locator.event_log.texts("TALVORN") if text.startswith("Network")]

    def started(self, **options):
        locator = self.start_locator(self.here, **options)
        self._reported = 0
        self.assert_reported(locator, *[located(self.here.index("net0"))][:6 in self.families],
                             located("192.168.10.1"))
        return locator

    def assert_reported(self, locator, *expected):
        """What the next reports are, behind those that were looked at before."""
        end = self._reported + len(expected)
        wait_until(lambda: len(self.reports(locator)) >= end, f"reports {expected}")
        self.assertEqual(self.reports(locator)[self._reported:end], [*expected])
        self._reported = end

    def test_addresses_come_and_go(self):
        capture = self.capture(self.there, "dev0")
        locator = self.started()
        self.here.add_address("net0", "192.168.30.1/24")
        self.assert_reported(locator, CHANGED, located("192.168.30.1"))
        request = wait_until(lambda: capture.requests("192.168.30.1"), "its requests")[0]
        self.assertEqual(wire.parse_request(request.payload)["cidr"].rstrip(b"\0"),
                         b"192.168.30.1/24")
        if self.target.NAME == "linux":  # to Wine, every address is a first one
            # A second address of a network that already has one gets no thread.
            self.here.add_address("net0", "192.168.30.2/24")
            self.assert_reported(locator, CHANGED)
            self.here.remove_address("net0", "192.168.30.2/24")
            self.assert_reported(locator, CHANGED)
        self.here.ip("addr", "flush", "dev", "net0", "to", "192.168.30.1/24")
        self.assert_reported(locator, CHANGED, switched_down("192.168.30.1"))
        sent = len(capture.requests("192.168.30.1"))
        self.assertTrue(stays_true(lambda: len(capture.requests("192.168.30.1")) == sent, 1))
        self.assertIn("Network interface IPv4: 192.168.30.1 (18786496) switched down [0x",
                      locator.debug_output)
        self.assertEqual({entry.kind for entry in locator.event_log.entries}, {"information"})

    def assert_all_answer_again(self, locator):
        heard = len(locator.event_log.texts("CAST RESPONSE"))
        for sender in ("IPV4 Address: \t192.168.10.20\n",
                       "IPV6 Address: \tfd00:10::20\n")[:len(self.families)]:
            wait_until(lambda: any(f"Device {sender}" in text for text in
                                   locator.event_log.texts("CAST RESPONSE")[heard:]),
                       f"answers from {sender}")
        locator.wait_devices(3)

    def test_an_interface_made_anew_finds_its_devices_again(self):
        self.simulate(self.there, "--interface", "dev0", "--devices", "3")
        locator = self.started()
        locator.wait_devices(3)
        addresses = "192.168.10.1/24", "fe80::1/64", "fd00:10::1/64"
        # Wine goes on with the number that an interface of this name had at first.
        if self.target.NAME == "linux":
            locator.signal(signal.SIGSTOP)  # it happens between two looks of the locator
            self.here.disconnect("net0")
            self.here.connect(self.switch, "net0", *addresses)
            locator.signal(signal.SIGCONT)
            self.assert_all_answer_again(locator)
            self.assertNotIn(switched_down("192.168.10.1"), self.reports(locator))
        self.here.disconnect("net0")
        locator.event_log.wait_for(switched_down("192.168.10.1"))
        locator.wait_devices(0)
        self.here.connect(self.switch, "net9", *addresses)
        self.assert_all_answer_again(locator)

    @needs_ipv6
    @only_on("linux", "Wine does not tell when an address was made")
    def test_ipv6_that_comes_back_between_two_looks_is_heard(self):
        locator = self.started()
        locator.wait_listening(self.here.index("net0"))
        device = self.device("fd00:10::20")
        locator.signal(signal.SIGSTOP)
        self.here.ip("link", "set", "net0", "mtu", "1000")
        self.here.ip("link", "set", "net0", "mtu", "1500")
        self.here.add_address("net0", "fe80::1/64")
        self.here.add_address("net0", "fd00:10::1/64")
        locator.signal(signal.SIGCONT)
        self.wait_heard(locator, device)
        self.assertEqual(self.reports(locator)[self._reported:], [])

    def test_a_port_that_another_program_leaves_is_heard(self):
        with self.here:
            holders = [socket.socket(family, socket.SOCK_DGRAM)
                       for family in (socket.AF_INET, socket.AF_INET6)]
        holders[1].setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
        for holder in holders:
            self.addCleanup(holder.close)
            holder.bind(("", wire.PORT))
        locator = self.started().wait_listening("192.168.10.1")
        device = self.device()
        device.send(wire.record(66))
        self.assertTrue(stays_true(lambda: not locator.devices(), 0.5))
        for holder in holders:
            holder.close()
        self.wait_heard(locator, device)

    @only_on("linux", "how many descriptors a process has is a limit of Linux")
    def test_interfaces_that_come_when_descriptors_are_short_are_heard_later(self):
        locator = self.start_listening(self.here)
        switch = self.network.switch()
        far = self.host_on(switch, "far0", "192.168.20.20/24")
        soft, hard = resource.prlimit(locator.pid, resource.RLIMIT_NOFILE)
        # From none for a look at the interfaces to some for a part of a request thread.
        for number, spare in enumerate((0, 2, 6, 12), 1):
            used = len(os.listdir(f"/proc/{locator.pid}/fd"))
            resource.prlimit(locator.pid, resource.RLIMIT_NOFILE, (used + spare, hard))
            self.here.connect(switch, f"net{number}", f"192.168.20.{number}/24")
            self.assertTrue(stays_true(lambda: not locator.ended, 0.6))
            resource.prlimit(locator.pid, resource.RLIMIT_NOFILE, (soft, hard))
            locator.wait_listening(f"192.168.20.{number}")
        self.wait_heard(locator, self.station(far, "far0", "192.168.20.20"))

    @needs_ipv6
    def test_ipv6_interfaces_come_and_go(self):
        locator = self.started()
        other = self.network.switch()
        self.here.connect(other, "net1", "fe80::5/64")
        index = self.here.index("net1")
        self.assert_reported(locator, located(index))
        far = self.host_on(other, "far0", "fe80::6/64")
        self.wait_heard(locator, self.station(far, "far0", "fe80::6"))
        self.assertTrue(locator.devices()["66"]["ipv6"].startswith("fe80::6"))
        shut_down = f"Network IPv6 interface: {index} shut down !"
        self.here.ip("link", "set", "net1", "down")
        self.assert_reported(locator, shut_down)
        self.here.ip("link", "set", "net1", "up")
        self.here.add_address("net1", "fe80::5/64")
        self.assert_reported(locator, located(index))
        self.here.disconnect("net1")
        self.assert_reported(locator, shut_down)

    @needs_ipv6
    def test_ipv6_can_be_switched_off(self):
        capture = self.capture(self.there, "dev0")
        locator = self.start_locator(self.here, settings={"IPv6 Active": 0})
        wait_until(lambda: len(capture.requests(family=4)) > 4, "requests")
        self.assertEqual(capture.requests(family=6), [])
        self.assertEqual(self.reports(locator), [located("192.168.10.1")])
        self.assertNotIn("Ipv6IfIndex", locator.debug_output)


class Reinitialisation(NetworkTestCase):
    """Values under the Interfaces key ask for one interface's thread to be made anew."""

    def setUp(self):
        super().setUp()
        self.locator = self.start_locator(self.here)
        self.locator.event_log.wait_for(located("192.168.10.1"))

    def test_each_request_is_served_once_and_marked(self):
        asked = "192.168.10.1", "192.168.10.99", "no address"
        left_alone = {"192.168.10.7": "0", "192.168.10.8": 1, "192.168.10.9": bytes(8),
                      "1" * 100: 0}

        def key(mark):
            return "\n".join([
                "; a note above", f"[{INTERFACES_KEY}]", Registry.value_line(asked[0], mark),
                "; a note between", *(Registry.value_line(name, mark) for name in asked[1:]),
                *(Registry.value_line(*pair) for pair in left_alone.items()), "; a note below"])
        registry = self.locator.registry
        registry.extra = key(0)
        before = len(self.locator.event_log.texts("TALVORN"))
        registry.write()
        self.locator.event_log.wait_for(located("192.168.10.1"), 2)
        self.assertEqual(self.locator.event_log.texts("TALVORN")[before:],
                         [switched_down("192.168.10.1"), CHANGED, located("192.168.10.1")])
        for name, value in {**dict.fromkeys(asked, 1), **left_alone}.items():
            wait_until(lambda: registry.line(INTERFACES_KEY, name)
                       == Registry.value_line(name, value), f"the mark of {name}")
        if self.target.NAME == "linux":  # everything else in the file stays as it is
            registry.extra = key(1)
            self.assertEqual(registry.read().split(), registry.text().split())
        trace = self.locator.trace
        for name in asked:
            line = f"#### Network interface thread for {name} will be reinitialized!"
            at = trace.index(line)
            self.assertEqual(trace[at - 2:at] + trace[at + 1:at + 3], ["#" * 80] * 4)
            self.assertEqual(trace.count(line), 1)

    def test_the_tool_asks_for_it(self):
        for times in (2, 3):
            self.tool_says(self.locator, "reinit", "192.168.10.1")
            self.locator.event_log.wait_for(located("192.168.10.1"), times)
