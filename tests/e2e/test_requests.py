"""The requests that leave the locator: bytes, number, rhythm, and who is asked."""

import socket
import struct
import time

from lab import wire
from lab.harness import TestCase, local_seconds, needs_ipv6, stays_true, wait_until


class Requests(TestCase):
    def test_bytes_of_a_request(self):
        here, there = self.simple_network()
        here.connect(self.network.switch(), "net1", "10.20.30.40/30")
        capture = self.capture(there, "dev0")
        capture1 = self.capture(here, "net1")
        # A clock that shows another time than UTC, without zone files.
        locator = self.start_locator(here, environment={"TZ": "IST-5:30"})
        for found, family, cidr in ((capture, 4, "192.168.10.1/24"),
                                    (capture1, 4, "10.20.30.40/30"),
                                    (capture, 6, ""))[:1 + len(self.families)]:
            datagram = wait_until(lambda: found.requests(family=family), "a request")[0]
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
        index = here.index("net0")
        expected = {"Multicast request sent from network IPv4interface: 192.168.10.1",
                    "Multicast request sent from network IPv4interface: 10.20.30.40"}
        if 6 in self.families:
            expected.add(f"Multicast request sent from network IPv6 interface: {index}")
        self.assertEqual(set(locator.event_log.texts("CAST REQUEST")), expected)

    def test_number_of_requests_at_start(self):
        for allowed, expected in ((0, 2), (1, 1)):
            with self.subTest(allowed=allowed):
                here, there = self.simple_network()
                capture = self.capture(there, "dev0")
                locator = self.start_locator(
                    here, settings={"Time Multicast Request Allowed": allowed,
                                    "Time Request": 600000})
                for family in self.families:
                    wait_until(lambda: len(capture.requests(family=family)) >= expected,
                               "the requests")
                # Long enough for the timers, which start a second late, to have their say.
                self.assertTrue(stays_true(
                    lambda: all(len(capture.requests(family=family)) == expected
                                for family in self.families), 1.5))
                self.assertEqual(len(locator.event_log.texts("CAST REQUEST")),
                                 len(self.families) * expected)
                locator.stop()

    def test_requests_follow_their_period(self):
        here, there = self.simple_network()
        capture = self.capture(there, "dev0")
        self.start_locator(here)
        requests = wait_until(lambda: len(capture.requests(family=4)) >= 10
                              and capture.requests(family=4), "ten requests")
        gaps = [later.when - earlier.when for earlier, later in zip(requests, requests[1:])]
        self.assertGreaterEqual(gaps[1], 0.9)  # the timer's own start-up pause
        self.assertGreaterEqual(min(gaps[2:]), 0.2)
        self.assertLess(sorted(gaps[2:])[len(gaps[2:]) // 2], 0.6)

    def test_a_period_of_zero_leaves_the_first_requests_only(self):
        here, there = self.simple_network()
        capture = self.capture(there, "dev0")
        self.start_locator(here, settings={"Time Request": 0, "IPv6 Active": 0})
        wait_until(lambda: len(capture.requests()) >= 2, "the requests")
        self.assertTrue(stays_true(lambda: len(capture.requests()) == 2, 2.5))
        self.assertEqual(capture.requests(family=6), [])


class Silence(TestCase):
    """The locator falls silent while another one asks on the same network."""

    HEARD = "Multicast request received from network interface: "

    def setUp(self):
        super().setUp()
        self.here, self.there = self.simple_network()
        self.seen = self.capture(self.there, "dev0")

    def asks(self, family, source=None):
        """Whether a request leaves from now on."""
        before = len(self.seen.requests(source, family))
        wait_until(lambda: len(self.seen.requests(source, family)) > before, "a request")

    def test_silent_for_time_master_after_a_request(self):
        locator = self.start_listening(self.here)
        index = self.here.index("net0")
        cases = (4, "192.168.10.20", "192.168.10.1"), (6, "fd00:10::20", f"{index}.0.0.0")
        for family, address, shown in cases[:len(self.families)]:
            with self.subTest(family=family):
                source = "192.168.10.1" if family == 4 else None
                other = self.station(self.there, "dev0", address)
                self.asks(family, source)
                other.send_request()
                locator.event_log.wait_for(self.HEARD + shown)
                other.send_request()
                last = time.time()
                own = {"192.168.10.1", "fe80::1", "fd00:10::1"}

                def after():
                    return [one.when for one in self.seen.requests(family=family)
                            if one.source in own and one.when > last + 0.2]
                # The time counts from the last request that was heard.
                self.assertGreaterEqual(wait_until(after, "the return")[0] - last, 1.9)
                wait_until(lambda: len(after()) >= 3, "more requests")

    def test_any_datagram_with_the_magic_counts_as_a_request(self):
        locator = self.start_listening(self.here, settings={"Time Master": 600000})
        other = self.station(self.there, "dev0", "192.168.10.20")
        self.asks(4)
        for ignored in (b"", b"abc", wire.request(length=15), wire.request(magic=b"TALVORX\0"),
                        wire.request()[:3], bytes(43)):
            other.send_request(ignored)
        self.asks(4)
        self.asks(4)
        self.assertEqual(locator.event_log.texts("CAST RECEIVE"), [])
        other.send_request(wire.request(magic=b"TALVORN!", kind=b"xyz!", length=16)[:16])
        locator.event_log.wait_for(self.HEARD + "192.168.10.1")

    def test_own_requests_and_answers_never_silence(self):
        # Another address of the same interface, a second interface on the same network
        # that hears what the first one sends, and answers from everywhere.
        self.here.add_address("net0", "192.168.11.1/24")
        self.here.connect(self.switch, "net1", "192.168.12.1/24", "fe80::12/64")
        self.simulate(self.there, "--interface", "dev0", "--devices", "20")
        locator = self.start_locator(self.here)
        wait_until(lambda: len(locator.devices()) == 20, "the devices")
        for _ in range(5):
            for source in ("192.168.10.1", "192.168.11.1", "192.168.12.1"):
                self.asks(4, source)
            if 6 in self.families:
                self.asks(6, "fe80::12")
        self.assertEqual(locator.event_log.texts("CAST RECEIVE"), [])

    @needs_ipv6
    def test_another_locator_may_have_an_own_address_on_another_link(self):
        switch = self.network.switch()
        self.here.connect(switch, "net1", "fe80::5/64")
        far = self.host_on(switch, "far0", "fe80::1/64")  # as net0 has it here
        locator = self.start_listening(self.here)
        index = self.here.index("net1")
        locator.wait_listening(index)
        self.station(far, "far0", "fe80::1").send_request()
        locator.event_log.wait_for(f"{self.HEARD}{index}.0.0.0")
        self.assertEqual(len(locator.event_log.texts("CAST RECEIVE")), 1)

    def test_of_two_locators_one_asks_and_both_know_the_devices(self):
        far = self.host_on(self.switch, "net0", "192.168.10.2/24", "fe80::2/64", "fd00:10::2/64",
                           name="other")
        self.simulate(self.there, "--interface", "dev0", "--devices", "4")
        # Seldom enough for the other one's start to fall between two requests: of two that
        # cross, both are silent for a while.
        first = self.start_listening(self.here, settings={"Time Request": 8000})
        wait_until(lambda: len(first.devices()) == 4, "the devices")
        second = self.start_locator(far)
        first.event_log.wait_for(self.HEARD + "192.168.10.1")
        if 6 in self.families:
            first.event_log.wait_for(self.HEARD + f"{self.here.index('net0')}.0.0.0")
        self.asks(4, "192.168.10.2")
        quiet_since = time.time()
        for _ in range(6):
            for family in self.families:
                self.asks(family, "192.168.10.2" if family == 4 else None)
        # The answers to the other one's requests keep the devices in both lists.
        self.assertEqual(len(first.devices()), 4)
        self.assertEqual(len(second.devices()), 4)
        self.assertEqual([one for one in self.seen.requests("192.168.10.1")
                          if one.when > quiet_since], [])
        self.assertEqual(second.event_log.texts("CAST RECEIVE"), [])
        second.stop()
        last = self.seen.requests("192.168.10.2")[-1].when
        self.asks(4, "192.168.10.1")
        self.assertGreaterEqual(self.seen.requests("192.168.10.1")[-1].when - last, 1.9)


class SeveralNetworks(TestCase):
    """Each network has its own thread and receivers, and only its own traffic."""

    def setUp(self):
        super().setUp()
        self.here, self.there = self.simple_network()
        switch = self.network.switch()
        self.here.connect(switch, "net1", "192.168.20.1/24", "fe80::1/64", "fd00:20::1/64")
        self.far = self.host_on(switch, "far0", "192.168.20.20/24", "fe80::20/64",
                                "fd00:20::20/64")
        self.near_seen = self.capture(self.there, "dev0")
        self.far_seen = self.capture(self.far, "far0")

    def test_a_request_silences_its_own_network_only(self):
        locator = self.start_listening(self.here, settings={"Time Master": 600000})
        locator.wait_listening(*["192.168.20.1", self.here.index("net1")][:len(self.families)])
        self.station(self.far, "far0", "192.168.20.20").send_request()
        heard = {"Multicast request received from network interface: 192.168.20.1"}
        if 6 in self.families:
            self.station(self.there, "dev0", "fd00:10::20").send_request()
            heard.add("Multicast request received from network interface: "
                      f"{self.here.index('net0')}.0.0.0")
        for text in heard:
            locator.event_log.wait_for(text)
        # IPv4 goes on near, IPv6 far; the other two are silent.
        before = time.time() + 0.2
        for seen, family in ((self.near_seen, 4), (self.far_seen, 6))[:len(self.families)]:
            wait_until(lambda: len([1 for one in seen.requests(family=family)
                                    if one.when > before]) > 4, "requests to go on")
        self.assertEqual([one for one in self.far_seen.requests("192.168.20.1")
                          if one.when > before], [])
        self.assertEqual([one for one in self.near_seen.requests(family=6)
                          if one.when > before and one.source != "fd00:10::20"], [])
        self.assertEqual(sorted(locator.event_log.texts("CAST RECEIVE")), sorted(heard))

    def test_a_datagram_is_handled_once(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        locator.wait_listening(*["192.168.20.1", self.here.index("net1")][:len(self.families)])
        senders = {"192.168.10.20": (self.there, "dev0"), "192.168.20.20": (self.far, "far0")}
        if 6 in self.families:
            senders |= {"fd00:10::20": (self.there, "dev0"), "fd00:20::20": (self.far, "far0")}
        for serial, (address, (host, interface)) in enumerate(senders.items(), 100):
            self.station(host, interface, address).send(wire.record(serial, alias="once"))
        wait_until(lambda: len(locator.devices()) == len(senders), "the devices")
        # A marker behind them: what was to be reported twice would be reported by now.
        for address, (host, interface) in senders.items():
            self.station(host, interface, address).send(wire.record(999, alias="marker"))
        wait_until(lambda: sum("marker" in text for text in locator.event_log.texts("CAST RESPONSE"))
                   >= len(senders), "the markers")
        once = [text for text in locator.event_log.texts("CAST RESPONSE") if "once" in text]
        self.assertEqual(len(once), len(senders), once)

    def test_what_was_not_sent_to_a_group_is_ignored(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        over4 = self.station(self.there, "dev0", "192.168.10.20")
        over6 = self.station(self.there, "dev0", "fd00:10::20")
        stations = (over4, over6)[:len(self.families)]
        self._join_on_the_locators_host("239.255.240.3")
        for data in (wire.record(666), wire.request()):
            over4.send(data, "192.168.10.1")
            over4.send(data, "239.255.240.3")
            over6.send(data, "fd00:10::1")
            over4.send(data, wire.RESPONSE_GROUP[4], port=wire.PORT + 1)
        self._broadcast(wire.record(666))
        for station in stations:
            station.send(wire.record(1000 + station.family))
            # The request group's receivers stand apart: a device's answer there counts
            # as a request, and is never stored.
            station.send(wire.record(667), wire.REQUEST_GROUP[station.family])
        known = {str(1000 + station.family) for station in stations}
        wait_until(lambda: len(locator.event_log.texts("CAST RECEIVE")) >= len(stations),
                   "all to be heard")
        wait_until(lambda: known <= set(locator.devices()), "the devices")
        self.assertEqual(set(locator.devices()), known)
        self.assertEqual(len(locator.event_log.texts("CAST RECEIVE")), len(stations))

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
