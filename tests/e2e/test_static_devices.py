"""Devices that multicast cannot reach: the file that lists them, the status query, and
what a cycle with bad company costs."""

import re
import time

from lab import static_network, wire
from lab.harness import LIMIT, TestCase, full_set, only_on, stays_true, wait_until
from lab.static_network import (CLOSE, DeviceFile, NameFiles, RoutedNetwork, ScriptedDevices,
                            TruncatingNameServer, addresses, logged_queries, query_threads, reply,
                            steady_counts)


def static_settings(file, **others):
    return static_network.settings(file.path, **others)


class Lists(TestCase):
    """Which devices are asked, and how long they stay in the list."""

    def local_devices(self, scripts):
        """The locator's host with devices on its loopback interface, where a reply of any
        size stays in one piece."""
        here = self.network.host("here")
        here.ip("route", "add", "local", "10.20.0.0/16", "dev", "lo")
        devices = ScriptedDevices(here, scripts)
        self.addCleanup(devices.close)
        return here, devices

    def test_bad_company_delays_no_healthy_device(self):
        net = RoutedNetwork(self.network)
        net.add_devices(addresses(4))
        mute = self.network.host("mute")
        mute.connect(net.far, "mute0", "10.20.1.1/16")
        mute.ip("route", "add", "default", "via", "10.20.255.254")
        silent = ScriptedDevices(mute, {"10.20.1.1": []})
        self.addCleanup(silent.close)
        names = NameFiles(self.directory)
        self.addCleanup(names.close)
        names.add("10.20.0.1", "press.example")
        names.add("10.20.0.4", "OVEN")
        simulator = self.simulate(net.there, "--interface", "dev0", "--devices", "4", "--items",
                                  "1", "--status-query", "--no-multicast", "--verbose")
        file = DeviceFile(self.directory, {
            "press.example": None, "no.such.device.example": None,
            "black-holed": "10.30.0.1", "nobody there": "10.20.77.77", "forbidden": "10.40.0.1",
            "silent": "10.20.1.1", "refused": "10.20.255.254", "no address": "press.example",
            "10.20.0.2": None, "10.30.0.2": None, "Press 3 (a label)": "10.20.0.3",
            "no route": "203.0.113.1", "oven": None})
        locator = self.start_locator(net.here, settings=static_settings(file))
        healthy = {f"000000{n}": f"10.20.0.{n}" for n in (1, 2, 3, 4)}

        def rounds():
            return len(logged_queries(simulator)) // 4
        wait_until(lambda: rounds() >= 4, "four cycles")
        devices = locator.devices()
        self.assertEqual({serial: one["ipv4"] for serial, one in devices.items()}, healthy)
        self.assertEqual({serial for serial, _ in locator.items()}, {1, 2, 3, 4})

        queries = logged_queries(simulator)[:16]
        cycles = [queries[at:at + 4] for at in range(0, 16, 4)]
        for cycle in cycles:
            self.assertEqual(sorted(address for _, address, _ in cycle), sorted(healthy.values()))
            # All 13 sections are begun within 0.4 s, whatever becomes of their queries.
            self.assertLess(cycle[-1][0] - cycle[0][0], 2)
        # The next cycle waits for the silent device, three seconds, and for no longer.
        gaps = [later[0][0] - earlier[0][0] for earlier, later in zip(cycles, cycles[1:])]
        self.assertGreater(min(gaps), 3)
        self.assertLess(sorted(gaps)[1], 5)
        self.assertEqual(len({sid for _, _, sid in queries}), 16)
        asked = [one.began for one in silent.exchanges]
        self.assertGreaterEqual(len(asked), 4)
        self.assertGreater(min(later - earlier for earlier, later in zip(asked, asked[1:])), 3)

    @full_set
    @only_on("linux", "Wine asks the system's resolver too, in a process of its own")
    def test_a_name_server_that_says_nothing_delays_a_cycle_only(self):
        here, devices = self.local_devices({"10.20.0.1": [reply(wire.record(1)), CLOSE]})
        server = TruncatingNameServer(here, "10.20.0.53")
        self.addCleanup(server.close)
        names = NameFiles(self.directory, server="10.20.0.53")
        self.addCleanup(names.close)
        file = DeviceFile(self.directory, {"no.answer.example": None, "10.20.0.1": "10.20.0.1"})
        locator = self.start_locator(here, settings=static_settings(file))
        wait_until(lambda: server.taken, "a question over TCP")
        wait_until(lambda: len(devices.of("10.20.0.1")) >= 2, "another cycle")
        wait_until(lambda: len(server.taken) >= 2, "the question of that cycle")
        locator.stop()

    def test_what_is_refused_costs_no_time(self):
        net = RoutedNetwork(self.network)
        net.add_devices(addresses(1))
        simulator = self.simulate(net.there, "--interface", "dev0", "--status-query",
                                  "--no-multicast", "--verbose")
        file = DeviceFile(self.directory, {
            "refused": "10.20.255.254", "forbidden": "10.40.0.1", "no route": "203.0.113.1",
            "no address": "10.20.0.256", "10.20.0.1": None})
        self.start_locator(net.here, settings=static_settings(file))
        wait_until(lambda: len(logged_queries(simulator)) >= 10, "ten cycles")
        times = [when for when, _, _ in logged_queries(simulator)]
        # 90 ms between two cycles, 150 for five sections, and 100 of rest. Windows knocks at
        # a door that is refused for a second.
        limit = 0.9 if self.target.NAME == "linux" else 2.5
        self.assertLess(min(later - earlier for earlier, later in zip(times, times[1:])), limit)

    def test_file_changes_while_running(self):
        record = wire.record(1, ipv4="10.20.0.1")
        here, devices = self.local_devices({
            "10.20.0.1": [reply(record)], "10.20.0.2": [reply(wire.record(2))],
            "10.20.0.3": [reply(wire.record(3, items=[wire.item(b"content")]))]})
        file = DeviceFile(self.directory)
        valid = 3.0
        locator = self.start_locator(here, settings=static_settings(
            file, valid=3000, **{"Time Response Valid": 500}))
        self.assertTrue(stays_true(lambda: not devices.exchanges, 0.5))
        file.write({"a": "10.20.0.1"})
        wait_until(lambda: set(locator.devices()) == {"1"}, "the first device")
        file.write({"a": "10.20.0.1", "10.20.0.2": None, "c": "10.20.0.3"})
        wait_until(lambda: set(locator.devices()) == {"1", "2", "3"}, "the others")
        wait_until(locator.items, "the item")

        file.write({"c": "10.20.0.3"})
        wait_until(lambda: "1" not in locator.devices(), "the first device to go")
        gone = time.monotonic()
        last = devices.of("10.20.0.1")[-1].began
        self.assertGreaterEqual(gone - last, valid)
        self.assertLess(gone - last, valid + 6)
        wait_until(lambda: set(locator.devices()) == {"3"}, "the second device to go")
        # The one that is still listed has been asked all the time.
        times = [one.began for one in devices.of("10.20.0.3")]
        self.assertLess(max(later - earlier for earlier, later in zip(times, times[1:])), valid)
        self.assertTrue(locator.items())

        file.write_text("; nothing is listed any more\n")
        asked = len(devices.exchanges)
        wait_until(lambda: not locator.devices(), "an empty list")
        self.assertLessEqual(len(devices.exchanges) - asked, 1)

    def test_how_sections_are_written(self):
        here, devices = self.local_devices(
            {f"10.20.0.{n}": [reply(wire.record(n))] for n in range(1, 10)})
        longest = "x" * 1025
        file = DeviceFile(self.directory)
        file.write_text(
            "IpAddress=10.20.0.9\n"          # belongs to no section
            "[ quoted ]\r\n  ipaddress = \"10.20.0.1\"\r\n; IpAddress=10.20.0.9\r\n"
            "Other=10.20.0.9\r\nIPADDRESS=10.20.0.9\r\n"   # the first one counts
            f"[{longest}]\nIpAddress=10.20.0.2\n"
            f"[{longest}y]\nIpAddress=10.20.0.9\n"
            "[10.20.0.3]\nIpAddress=\n"      # as if it were missing
            "[cut]\nIpAddress=" + "12.024.0.42".rjust(100, "0") + "\n"   # octal; the 2 is lost
            "[octal]\nIpAddress=10.20.0.05\n"
            "[short form]\nIpAddress=10.1310726\n"    # 10.20.0.6
            "[twice]\nIpAddress=10.20.0.8\n[TWICE]\nIpAddress=10.20.0.9\n"
            "[]\nIpAddress=10.20.0.9\n")
        locator = self.start_locator(here, settings=static_settings(file))
        wait_until(lambda: len(devices.of("10.20.0.1")) >= 2, "a second cycle")
        second = devices.of("10.20.0.1")[1].began
        self.assertEqual(sorted(one.address for one in devices.exchanges if one.began < second),
                         [f"10.20.0.{n}" for n in (1, 2, 3, 4, 5, 6, 8, 8)])
        (line,) = {line for line in locator.trace if "ignore" in line}
        self.assertTrue(line.startswith(
            "DeviceByHostName: ERROR : hostname with size more than 1025 characters - ignore "
            "(is=1026 name:xxx"), line)

        text = "\ufeff[r\u00f6hre]\r\nIpAddress='10.20.0.7'\r\n"
        for encoding in ("utf-16-le", "utf-16-be"):
            with open(file.path, "wb") as raw:
                raw.write(text.encode(encoding))
            before = len(devices.of("10.20.0.7"))
            wait_until(lambda: len(devices.of("10.20.0.7")) > before, encoding)

    def test_what_the_trace_says_of_the_file(self):
        warning = "DeviceByHostName: Warning : static devices ini file not accessible (name:%s)"
        nothing = "DeviceByHostName: Info : static devices ini file has no entry (name:%s)"
        missing = self.directory + "/missing.ini"
        empty = DeviceFile(self.directory, {})
        for path, line in (("", warning), ("/a/b.in", warning), (missing, nothing),
                           (empty.path, nothing)):
            with self.subTest(path=path):
                locator = self.start_locator(self.network.host("alone"),
                                             settings=static_network.settings(path))
                wait_until(lambda: line % path in locator.trace, "the line")
                self.assertEqual([one for one in locator.trace if "DeviceByHostName" in one],
                                 [line % path])
                locator.stop()
                if self.target.NAME == "linux":  # where it can be asked to end
                    self.assertIn("DeviceByHostName Stop", locator.trace)


def chain(*sizes):
    """Items of these sizes, the first words of each of its own."""
    return [wire.item(bytes([65 + number]) * (size - 24)) for number, size in enumerate(sizes)]


def with_items(serial, *sizes):
    return wire.record(serial, alias="with items", items=chain(*sizes))


def with_next_offset(record, offset):
    """The record's first item points this far."""
    return record[:367 + 16] + offset.to_bytes(4, "big") + record[367 + 20:]


class Replies(TestCase):
    """What becomes of replies in the two lists; how frames are cut out of what comes in,
    FrameReceiver's test knows."""

    def test_replies_to_the_letter(self):
        plain = {n: wire.record(n, ipv4="10.1.2.3", alias=f"device {n}") for n in range(100, 160)}
        odd = wire.record(150, ipv6="2001:db8::5", status="AB7D", clip="Z9", alias="M\xfchle",
                          host_ipv4="10.9.9.9", host_ipv6="2001:db8::9", host_alias="h" * 63,
                          magic=b"ANOTHER\0", kind=b"999\0", length=7)[:263] + bytes(range(104))
        spread = with_items(140, 60, 60)  # with a hole between the two items
        spread = with_next_offset(spread[:427] + b"hole" + spread[427:], 64)
        greedy = with_items(142, 60, 60)  # is to be identified by more than there is
        greedy = greedy[:427] + (61).to_bytes(4, "big") + greedy[427 + 4:]

        # Script, records that reach the list, and items: (serial, item).
        def items(record, *cuts):
            serial = int(record[94:102].split(b"\0")[0])
            return [(serial, record[367 + start:367 + end]) for start, end in cuts]
        cases = {
            "one segment": ([reply(plain[102])], [plain[102]], []),
            "not examined": ([reply(odd, length=1)], [odd], []),
            "items": ([reply(with_items(104, 24, 100, 30))], [with_items(104, 24, 100, 30)],
                      items(with_items(104, 24, 100, 30), (0, 24), (24, 124), (124, 154))),
            "three": ([reply(with_items(113, 50)) + reply(with_items(114, 50))
                       + reply(plain[115]), CLOSE],
                      [with_items(113, 50), with_items(114, 50), plain[115]],
                      items(with_items(113, 50), (0, 50)) + items(with_items(114, 50), (0, 50))),
            "hole between items": ([reply(spread)], [spread], items(spread, (0, 60), (64, 124))),
            "identity too long": ([reply(greedy)], [greedy], items(greedy, (0, 60))),
            "closed at once": ([CLOSE], [], []),
            "silence": ([], [], []),
            "drip": ([b"x", 1.0] * 8 + [CLOSE], [], []),
            "third digit 8": (
                [reply(wire.record(135, ipv4="10.1.2.3", ipv6="2001:db8::3", status="AB8"))],
                ["AB8"], []),
            "fourth digit 8": (
                [reply(wire.record(136, ipv6="2001:db8::3", status="AB78"))],
                [wire.record(136, ipv6="2001:db8::3", status="AB78")], []),
            "two digits": ([reply(wire.record(137, ipv4="10.1.2.3", status="88"))],
                           [wire.record(137, ipv4="10.1.2.3", status="88")], []),
            "digit 8 behind a NUL": (
                [reply(wire.record(139, ipv6="2001:db8::3", status="A\0008"))],
                ["A\0008"], []),
            "every digit but the third": (
                [reply(wire.record(138, ipv6="2001:db8::3", status="8898"))],
                [wire.record(138, ipv6="2001:db8::3", status="8898")], []),
        }
        address = dict(zip(cases, addresses(len(cases))))
        corrected = {
            "AB8": wire.record(135, ipv4=address["third digit 8"], status="AB8"),
            "A\0008": wire.record(139, ipv4=address["digit 8 behind a NUL"], status="A\0008")}

        here = self.network.host("here")
        here.ip("route", "add", "local", "10.20.0.0/16", "dev", "lo")
        devices = ScriptedDevices(here, {address[name]: script
                                         for name, (script, _, _) in cases.items()})
        self.addCleanup(devices.close)
        file = DeviceFile(self.directory, {name: address[name] for name in cases})
        locator = self.start_locator(here, settings=static_settings(file, gap=600000))
        wait_until(lambda: len(devices.exchanges) == len(cases)
                   and all(one.ended for one in devices.exchanges), "the end of all queries")
        wait_until(lambda: query_threads(locator) == 0, "the end of the cycle")

        with locator.client() as client:
            kind, count, payload = client.exchange("GETINFO")
        records = [payload[at:at + 367] for at in range(0, len(payload), 367)]
        expected = {}
        for name, (_, taken, _) in cases.items():
            for record in taken:
                record = corrected.get(record, record[:367])
                expected[record[94:102]] = (name, record)
        found = {record[94:102]: record for record in records}
        for serial, (name, record) in expected.items():
            self.assertEqual(found.get(serial), record, name)
        self.assertEqual(sorted(found), sorted(expected))
        self.assertEqual((kind, count), (3, len(expected)))
        expected_items = [one for _, _, taken in cases.values() for one in taken]
        self.assertEqual(sorted(locator.items()), sorted(expected_items))

        lasted = {name: devices.of(address[name])[0].ended - devices.of(address[name])[0].began
                  for name in cases}
        self.assertGreater(lasted["silence"], 3)
        self.assertLess(lasted["silence"], 3 + 5)
        self.assertGreater(lasted["drip"], 7)  # it is listened to as long as it goes on
        self.assertLess(lasted["one segment"], 2)
        # A request of 175 bytes each, nothing else, and a SID of its own.
        for exchange in devices.exchanges:
            self.assertRegex(exchange.request, static_network.REQUEST)
        self.assertEqual(len({exchange.sid for exchange in devices.exchanges}), len(cases))


class Simulator(TestCase):
    def test_misbehaves_on_demand(self):
        switch = self.network.switch()
        here = self.host_on(switch, "net0", "10.20.255.1/16")
        # All but "drip", which a cycle listens to for a minute.
        faults = ["none", "silent", "pieces", "two-frames", "long-chain", "endless-chain",
                  "early-close", "other-type"]
        simulators = {}
        for number, (fault, address) in enumerate(zip(faults, addresses(len(faults)))):
            there = self.host_on(switch, "dev0", address + "/16", name=fault)
            simulators[fault] = self.simulate(
                there, "--interface", "dev0", "--devices", "2", "--first-serial",
                str(10 * (number + 1)), "--items", "2", "--status-query", "--no-multicast",
                "--verbose", *(("--status-fault", fault) if fault != "none" else ()))
        file = DeviceFile(self.directory, {address: None for address in addresses(len(faults))})
        locator = self.start_locator(here, settings=static_settings(file))
        wait_until(lambda: all(len(logged_queries(one)) >= 2 for one in simulators.values()),
                   "two cycles")
        # The first of two devices on one address, and what follows the other's reply.
        self.assertEqual(sorted(locator.devices()), ["0000010", "0000040", "0000041"])
        self.assertEqual(sorted({serial for serial, _ in locator.items()}), [10, 40, 41])
        self.assertEqual([one.err for one in simulators.values()], len(faults) * [""])

    def test_beside_multicast(self):
        here, there = self.simple_network()
        simulator = self.simulate(there, "--interface", "dev0", "--devices", "1",
                                  "--status-query", "--verbose")
        file = DeviceFile(self.directory, {"192.168.10.21": None, "192.168.10.20": None})
        locator = self.start_locator(here, settings=static_settings(file))
        for line in ("status query at 192.168.10.20, SID=", "request from 192.168.10.1, 43 bytes",
                     "status query at 192.168.10.21, where no device is"):
            wait_until(lambda: line in simulator.out, line)
        device = wait_until(lambda: locator.devices().get("0000001"), "the device")
        self.assertEqual(device["ipv4"], "192.168.10.20")


class Cycles(TestCase):
    HEALTHY = 40
    BLACK_HOLED = 20

    def test_each_device_once_and_nothing_piles_up(self):
        net = RoutedNetwork(self.network)
        healthy = addresses(self.HEALTHY)
        net.add_devices(healthy)
        simulator = self.simulate(net.there, "--interface", "dev0", "--devices",
                                  str(self.HEALTHY), "--status-query", "--no-multicast",
                                  "--verbose")
        file = DeviceFile(self.directory)
        locator = self.start_locator(net.here, settings=static_settings(file))
        locator.wait_listening("192.168.10.1")
        before = steady_counts(locator)
        black_holed = addresses(self.BLACK_HOLED, "10.30.0.1")
        listed = []
        for position, address in enumerate(healthy):  # every third one is black-holed
            listed.append(address)
            if position % 2 == 1:
                listed.append(black_holed[position // 2])
        file.write({address: None for address in listed})

        under_way = []
        wait_until(lambda: under_way.append(query_threads(locator))
                   or len(logged_queries(simulator)) >= 4 * self.HEALTHY, "four cycles")
        self.assertEqual(len(locator.devices()), self.HEALTHY)
        self.assertGreater(max(under_way), 10)  # they are under way at the same time
        self.assertLessEqual(max(under_way), len(listed))
        queries = logged_queries(simulator)[:4 * self.HEALTHY]
        cycles = [queries[at:at + self.HEALTHY] for at in range(0, len(queries), self.HEALTHY)]
        for cycle in cycles:
            self.assertEqual(sorted(address for _, address, _ in cycle), sorted(healthy))
        # The last section is black-holed; the next cycle begins after its second is over.
        for earlier, later in zip(cycles, cycles[1:]):
            self.assertGreater(later[0][0] - earlier[-1][0], 1)
        self.assertEqual(len({sid for _, _, sid in queries}), len(queries))

        file.write({})
        wait_until(lambda: query_threads(locator) == 0, "the end of the last cycle")
        self.assertEqual(steady_counts(locator), before)

    @only_on("linux", "Windows asks no program without a window to end")
    def test_stop_in_the_middle_of_a_cycle(self):
        here = self.network.host("here")
        here.ip("route", "add", "local", "10.20.0.0/16", "dev", "lo")
        here.ip("route", "add", "blackhole", "10.30.0.0/16")
        listed = addresses(300)
        scripts = {address: [] for address in listed}
        devices = ScriptedDevices(here, scripts)
        self.addCleanup(devices.close)
        file = DeviceFile(self.directory, {address: None for address in listed})
        locator = self.start_locator(here, settings=static_settings(file))
        wait_until(lambda: len(devices.exchanges) >= 10, "some queries")
        began = time.monotonic()
        locator.stop()
        # The cycle is finished: nine seconds for the others, three for the last silent one.
        self.assertLess(time.monotonic() - began, 12 + LIMIT)
        self.assertEqual(len(devices.exchanges), len(listed))
        self.assertEqual(locator.trace[-1], "Wait for Exit Multicast-Thread OK")
        self.assertTrue(all(re.fullmatch(static_network.REQUEST, one.request)
                            for one in devices.exchanges))
