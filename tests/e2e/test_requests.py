"""The requests that leave the locator: bytes, number, rhythm, and who is asked."""

import socket
import struct
import time

from lab import wire
from lab.harness import (NetworkTestCase, gaps, local_seconds, needs_ipv6, stays_true, wait_until)

HEARD = "Multicast request received from network interface: "
LONG = {"Time Response Valid": 600000}


class Requests(NetworkTestCase):
    def test_a_request_tells_its_network_and_the_local_time(self):
        self.here.connect(self.network.switch(), "net1", "10.20.30.40/30")
        capture = self.capture(self.there, "dev0")
        capture1 = self.capture(self.here, "net1")
        # A clock that shows another time than UTC, without zone files.
        locator = self.start_locator(self.here, environment={"TZ": "IST-5:30"})
        for seen, family, cidr in ((capture, 4, "192.168.10.1/24"),
                                   (capture1, 4, "10.20.30.40/30"),
                                   (capture, 6, ""))[:1 + len(self.families)]:
            datagram = wait_until(lambda: seen.requests(family=family), "a request")[0]
            request = wire.parse_request(datagram.payload)
            self.assertEqual(request["cidr"], cidr.encode().ljust(19, b"\0"))
            self.assertEqual((request["length"], request["magic"], request["type"]),
                             (43, b"TALVORN\0", b"000\0"))
            self.assertEqual(datagram.payload[35:39], bytes(4))
            self.assertAlmostEqual(request["timestamp"], local_seconds(datagram.when, 330),
                                   delta=2)
            self.assertEqual(datagram.hops, 64)
        # The time is written anew before each request.
        first = wire.parse_request(capture.requests(family=4)[0].payload)["timestamp"]
        wait_until(lambda: wire.parse_request(
            capture.requests(family=4)[-1].payload)["timestamp"] >= first + 2, "a later time stamp")
        expected = {"Multicast request sent from network IPv4interface: 192.168.10.1",
                    "Multicast request sent from network IPv4interface: 10.20.30.40"}
        if 6 in self.families:
            expected.add("Multicast request sent from network IPv6 interface: "
                         f"{self.here.index('net0')}")
        self.assertEqual(set(locator.event_log.texts("CAST REQUEST")), expected)

    def test_the_first_requests_are_two_or_one_and_a_period_of_zero_adds_none(self):
        capture = self.capture(self.there, "dev0")
        for allowed, period, expected in ((0, 0, 2), (1, 600000, 1)):
            with self.subTest(allowed=allowed):
                before = len(capture.requests())
                locator = self.start_locator(self.here, settings={
                    "Time Multicast Request Allowed": allowed, "Time Request": period})
                wait_until(lambda: len(capture.requests()) - before
                           >= expected * len(self.families), "the requests")
                # Long enough for the timers, which start a second late, to have their say.
                self.assertTrue(stays_true(
                    lambda: len(capture.requests()) - before == expected * len(self.families),
                    2.5))
                self.assertEqual(len(locator.event_log.texts("CAST REQUEST")),
                                 len(self.families) * expected)
                locator.stop()

    def test_requests_follow_their_period(self):
        capture = self.capture(self.there, "dev0")
        self.start_locator(self.here)
        wait_until(lambda: len(capture.requests(family=4)) >= 10, "ten requests")
        first, pause, *periods = gaps([one.when for one in capture.requests(family=4)])
        self.assertGreaterEqual(pause, 0.9)  # the timer's own start-up pause
        self.assertGreaterEqual(min(periods), 0.2)
        self.assertLess(sorted(periods)[len(periods) // 2], 0.6)


class Silence(NetworkTestCase):
    """The locator falls silent while another one asks on the same network."""

    def setUp(self):
        super().setUp()
        self.seen = self.capture(self.there, "dev0")

    def wait_request(self, family, source=None, count=1):
        """Requests that leave from now on."""
        before = len(self.seen.requests(source, family))
        wait_until(lambda: len(self.seen.requests(source, family)) >= before + count,
                   f"{count} requests over IPv{family}")

    def test_any_datagram_with_the_magic_counts_as_a_request(self):
        locator = self.start_listening(self.here, settings={"Time Master": 600000})
        other = self.device()
        for ignored in (b"", b"abc", wire.request(length=15), wire.request(magic=b"TALVORX\0"),
                        wire.request()[:3], bytes(43)):
            other.send_request(ignored)
        self.wait_request(4, "192.168.10.1", 2)
        self.assertEqual(locator.event_log.texts("CAST RECEIVE"), [])
        other.send_request(wire.request(magic=b"TALVORN!", kind=b"xyz!", length=16)[:16])
        locator.event_log.wait_for(HEARD + "192.168.10.1")

    def test_own_requests_and_answers_never_silence(self):
        # Another address of the same interface, a second interface on the same network
        # that hears what the first one sends, and answers from everywhere.
        self.here.add_address("net0", "192.168.11.1/24")
        self.here.connect(self.switch, "net1", "192.168.12.1/24", "fe80::12/64")
        self.simulate(self.there, "--interface", "dev0", "--devices", "20")
        locator = self.start_locator(self.here)
        locator.wait_devices(20)
        for source in ("192.168.10.1", "192.168.11.1", "192.168.12.1"):
            self.wait_request(4, source, 5)
        if 6 in self.families:
            self.wait_request(6, "fe80::12", 5)
        self.assertEqual(locator.event_log.texts("CAST RECEIVE"), [])

    @needs_ipv6
    def test_another_locator_may_have_an_own_address_on_another_link(self):
        switch = self.network.switch()
        self.here.connect(switch, "net1", "fe80::5/64")
        far = self.host_on(switch, "far0", "fe80::1/64")  # as net0 has it here
        index = self.here.index("net1")
        locator = self.start_listening(self.here).wait_listening(index)
        self.station(far, "far0", "fe80::1").send_request()
        locator.event_log.wait_for(f"{HEARD}{index}.0.0.0")
        self.assertEqual(len(locator.event_log.texts("CAST RECEIVE")), 1)

    def test_of_two_locators_one_asks_and_both_know_the_devices(self):
        far = self.host_on(self.switch, "net0", "192.168.10.2/24", "fe80::2/64", "fd00:10::2/64",
                           name="other")
        self.simulate(self.there, "--interface", "dev0", "--devices", "4")
        # Seldom enough for the other one's start to fall between two requests: of two that
        # cross, both are silent for a while.
        first = self.start_listening(self.here, settings={"Time Request": 8000})
        first.wait_devices(4)
        second = self.start_locator(far)
        first.event_log.wait_for(HEARD + "192.168.10.1")
        if 6 in self.families:
            first.event_log.wait_for(f"{HEARD}{self.here.index('net0')}.0.0.0")
        self.wait_request(4, "192.168.10.2")
        quiet_since = time.time()
        self.wait_request(4, "192.168.10.2", 6)
        if 6 in self.families:
            self.wait_request(6, count=6)
        # The answers to the other one's requests keep the devices in both lists.
        self.assertEqual([len(one.devices()) for one in (first, second)], [4, 4])
        self.assertEqual([one for one in self.seen.requests() if one.when > quiet_since
                          and one.source in ("192.168.10.1", "fe80::1", "fd00:10::1")], [])
        self.assertEqual(second.event_log.texts("CAST RECEIVE"), [])
        second.stop()
        last = self.seen.requests("192.168.10.2")[-1].when
        self.wait_request(4, "192.168.10.1")
        self.assertGreaterEqual(self.seen.requests("192.168.10.1")[-1].when - last, 1.9)


class SeveralNetworks(NetworkTestCase):
    """Each network has its own thread and receivers, and only its own traffic."""

    def setUp(self):
        super().setUp()
        switch = self.network.switch()
        self.here.connect(switch, "net1", "192.168.20.1/24", "fe80::1/64", "fd00:20::1/64")
        self.far = self.host_on(switch, "far0", "192.168.20.20/24", "fe80::20/64",
                                "fd00:20::20/64")

    def start_listening(self, host, **options):
        locator = super().start_listening(host, **options)
        return locator.wait_listening(
            *["192.168.20.1", host.index("net1")][:len(self.families)])

    def far_device(self, address="192.168.20.20"):
        return self.station(self.far, "far0", address)

    def test_a_request_silences_its_own_network_and_family_only(self):
        near_seen, far_seen = self.capture(self.there, "dev0"), self.capture(self.far, "far0")
        locator = self.start_listening(self.here, settings={"Time Master": 600000})
        self.far_device().send_request()
        heard = [HEARD + "192.168.20.1"]
        if 6 in self.families:
            self.device("fd00:10::20").send_request()
            heard.append(f"{HEARD}{self.here.index('net0')}.0.0.0")
        for text in heard:
            locator.event_log.wait_for(text)
        before = time.time() + 0.2

        def since(seen, family):
            return [one for one in seen.requests(family=family) if one.when > before]
        # IPv4 goes on near, IPv6 far; the other two are silent.
        for seen, family in ((near_seen, 4), (far_seen, 6))[:len(self.families)]:
            wait_until(lambda: len(since(seen, family)) > 4, "requests to go on")
        self.assertEqual(since(far_seen, 4) + since(near_seen, 6), [])
        self.assertEqual(sorted(locator.event_log.texts("CAST RECEIVE")), sorted(heard))

    def test_a_datagram_is_handled_once(self):
        locator = self.start_listening(self.here, settings=LONG)
        senders = [self.device(), self.far_device()]
        if 6 in self.families:
            senders += [self.device("fd00:10::20"), self.far_device("fd00:20::20")]

        def reported(alias):
            return [text for text in locator.event_log.texts("CAST RESPONSE") if alias in text]
        for alias in ("once", "marker"):
            for serial, sender in enumerate(senders, 100):
                sender.send(wire.record(serial, alias=alias))
            # Behind the markers: what was to be reported twice would be reported by now.
            wait_until(lambda: len(reported(alias)) >= len(senders), "the reports")
        self.assertEqual(len(reported("once")), len(senders), reported("once"))

    def test_what_was_not_sent_to_a_group_is_ignored(self):
        locator = self.start_listening(self.here, settings=LONG)
        over4, over6 = self.device(), self.device("fd00:10::20")
        devices = (over4, over6)[:len(self.families)]
        self._join_on_the_locators_host("239.255.240.3")
        for data in (wire.record(666), wire.request()):
            over4.send(data, "192.168.10.1")
            over4.send(data, "239.255.240.3")
            over6.send(data, "fd00:10::1")
            over4.send(data, wire.RESPONSE_GROUP[4], port=wire.PORT + 1)
        self._broadcast(wire.record(666))
        for device in devices:
            device.send(wire.record(1000 + device.family))
            # The request group's receivers stand apart: a device's answer there counts
            # as a request, and is never stored.
            device.send(wire.record(667), wire.REQUEST_GROUP[device.family])
        wait_until(lambda: len(locator.event_log.texts("CAST RECEIVE")) >= len(devices),
                   "all to be heard")
        known = {str(1000 + device.family) for device in devices}
        wait_until(lambda: known <= set(locator.devices()), "the devices")
        self.assertEqual(set(locator.devices()), known)
        self.assertEqual(len(locator.event_log.texts("CAST RECEIVE")), len(devices))

    def _join_on_the_locators_host(self, group):
        """Another program's membership, so that the host itself takes the datagrams."""
        with self.here:
            other = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(other.close)
        other.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, struct.pack(
            "=4s4si", socket.inet_aton(group), bytes(4), self.here.index("net0")))

    def _broadcast(self, data):
        with self.there, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
            sender.sendto(data, ("192.168.10.255", wire.PORT))
