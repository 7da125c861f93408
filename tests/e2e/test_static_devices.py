"""Devices that multicast cannot reach: the file that lists them, the status query, and
what a cycle with bad company costs."""

import time

from lab import static_network, wire
from lab.harness import (LIMIT, NetworkTestCase, TestCase, full_set, gaps, only_on, stays_true,
                         wait_until)
from lab.static_network import (DeviceFile, NameFiles, RoutedNetwork, ScriptedDevices,
                                TruncatingNameServer, addresses, logged_queries, query_threads,
                                reply, steady_counts)

QUERIED = ("--interface", "dev0", "--status-query", "--no-multicast", "--verbose")


class StaticDevices(TestCase):
    def scripted(self, host, scripts):
        devices = ScriptedDevices(host, scripts)
        self.addCleanup(devices.close)
        return devices

    def local_devices(self, scripts):
        """The locator's host with devices on its loopback interface, where a reply of any
        size stays in one piece."""
        here = self.network.host("here")
        here.ip("route", "add", "local", "10.20.0.0/16", "dev", "lo")
        return here, self.scripted(here, scripts)

    def name_files(self, **options):
        names = NameFiles(self.directory, **options)
        self.addCleanup(names.close)
        return names

    def start_asking(self, host, sections, gap=100, **settings):
        """A locator that asks the devices of a file, and the file."""
        file = DeviceFile(self.directory, sections)
        return self.start_locator(host, settings=static_network.settings(
            file.path, gap, **settings)), file


class Cycles(StaticDevices):
    def test_bad_company_delays_no_healthy_device_and_nothing_piles_up(self):
        net = RoutedNetwork(self.network)
        healthy = addresses(20)
        net.add_devices(healthy)
        mute = self.host_on(net.far, "mute0", "10.20.1.1/16")
        mute.ip("route", "add", "default", "via", "10.20.255.254")
        silent = self.scripted(mute, {"10.20.1.1": []})
        names = self.name_files()
        names.add("10.20.0.1", "press.example")
        names.add("10.20.0.20", "OVEN")
        simulator = self.simulate(net.there, *QUERIED, "--devices", "20", "--items", "1")
        locator, file = self.start_asking(net.here, {})
        before = steady_counts(locator)
        listed = {
            "press.example": None, "no.such.device.example": None,
            "nobody there": "10.20.77.77", "forbidden": "10.40.0.1", "silent": "10.20.1.1",
            "refused": "10.20.255.254", "no address": "press.example", "no route": "203.0.113.1",
            **dict.fromkeys(healthy[1:-2]), **dict.fromkeys(addresses(10, "10.30.0.1")),
            "Press 3 (a label)": healthy[-2], "oven": None}
        file.write(listed)
        under_way = []
        wait_until(lambda: under_way.append(query_threads(locator))
                   or len(logged_queries(simulator)) >= 4 * len(healthy), "four cycles")
        self.assertEqual({serial: one["ipv4"] for serial, one in locator.devices().items()},
                         {f"{n:07}": address for n, address in enumerate(healthy, 1)})
        self.assertEqual({serial for serial, _ in locator.items()}, set(range(1, 21)))
        self.assertGreater(max(under_way), 10)  # they are under way at the same time
        self.assertLessEqual(max(under_way), len(listed))

        queries = logged_queries(simulator)[:4 * len(healthy)]
        cycles = [queries[at:at + len(healthy)] for at in range(0, len(queries), len(healthy))]
        for cycle in cycles:
            self.assertEqual(sorted(address for _, address, _ in cycle), sorted(healthy))
            # All 38 sections are begun within 1.2 s, whatever becomes of their queries.
            self.assertLess(cycle[-1][0] - cycle[0][0], 2.8)
        # The next cycle waits for the silent device, three seconds, and for no longer.
        self.assertGreater(min(gaps([cycle[0][0] for cycle in cycles])), 3)
        self.assertLess(sorted(gaps([cycle[0][0] for cycle in cycles]))[1], 5)
        self.assertGreaterEqual(len(silent.exchanges), 4)
        self.assertEqual(len({sid for _, _, sid in queries}), len(queries))

        file.write({})
        wait_until(lambda: query_threads(locator) == 0, "the end of the last cycle")
        self.assertEqual(steady_counts(locator), before)

    @full_set
    @only_on("linux", "Wine asks the system's resolver too, in a process of its own")
    def test_a_name_server_that_says_nothing_delays_a_cycle_only(self):
        here, devices = self.local_devices({"10.20.0.1": [reply(wire.record(1))]})
        server = TruncatingNameServer(here, "10.20.0.53")
        self.addCleanup(server.close)
        self.name_files(server="10.20.0.53")
        self.start_asking(here, {"no.answer.example": None, "10.20.0.1": None})
        wait_until(lambda: server.taken, "a question over TCP")
        wait_until(lambda: len(devices.exchanges) >= 2 and len(server.taken) >= 2,
                   "another cycle")

    def test_what_is_refused_costs_no_time(self):
        net = RoutedNetwork(self.network)
        net.add_devices(addresses(1))
        simulator = self.simulate(net.there, *QUERIED)
        self.start_asking(net.here, {
            "refused": "10.20.255.254", "forbidden": "10.40.0.1", "no route": "203.0.113.1",
            "no address": "10.20.0.256", "10.20.0.1": None})
        wait_until(lambda: len(logged_queries(simulator)) >= 10, "ten cycles")
        # 90 ms between two cycles, 150 for five sections, and 100 of rest. Windows knocks at
        # a door that is refused for a second.
        self.assertLess(min(gaps([when for when, _, _ in logged_queries(simulator)])),
                        0.9 if self.target.NAME == "linux" else 2.5)

    @only_on("linux", "Windows asks no program without a window to end")
    def test_a_cycle_that_has_begun_is_finished_before_the_end(self):
        listed = addresses(300)
        here, devices = self.local_devices({address: [] for address in listed})
        locator, _ = self.start_asking(here, dict.fromkeys(listed))
        wait_until(lambda: len(devices.exchanges) >= 10, "some queries")
        began = time.monotonic()
        locator.stop()
        # Nine seconds for the others, three for the last silent one.
        self.assertLess(time.monotonic() - began, 12 + LIMIT)
        self.assertEqual(len(devices.exchanges), len(listed))
        self.assertEqual(locator.trace[-1], "Wait for Exit Multicast-Thread OK")
        self.assertNotIn(None, [one.sid for one in devices.exchanges])


class ListedDevices(StaticDevices):
    def test_each_cycle_follows_the_file_and_the_list_follows_the_answers(self):
        here, devices = self.local_devices({
            "10.20.0.1": [reply(wire.record(1))], "10.20.0.2": [reply(wire.record(2))],
            "10.20.0.3": [reply(wire.record(3, items=[wire.item(b"content")]))]})
        valid = 3.0
        locator, file = self.start_asking(here, None, valid=3000, **{"Time Response Valid": 500})
        self.assertTrue(stays_true(lambda: not devices.exchanges, 0.5))

        def lists(serials):
            wait_until(lambda: set(locator.devices()) == set(serials), f"the devices {serials}")
        file.write({"a": "10.20.0.1"})
        lists("1")
        file.write({"a": "10.20.0.1", "10.20.0.2": None, "c": "10.20.0.3"})
        lists("123")
        wait_until(locator.items, "the item")
        file.write({"c": "10.20.0.3"})
        wait_until(lambda: "1" not in locator.devices(), "the first device to go")
        lived = time.monotonic() - devices.of("10.20.0.1")[-1].began
        self.assertGreaterEqual(lived, valid)
        self.assertLess(lived, valid + 6)
        lists("3")
        # The one that is still listed has been asked all the time.
        self.assertLess(max(gaps([one.began for one in devices.of("10.20.0.3")])), valid)
        self.assertTrue(locator.items())
        file.write_text("; nothing is listed any more\n")
        asked = len(devices.exchanges)
        lists("")
        self.assertLessEqual(len(devices.exchanges) - asked, 1)

    def test_a_section_is_asked_at_its_address_or_by_its_name(self):
        here, devices = self.local_devices(
            {f"10.20.0.{n}": [reply(wire.record(n))] for n in range(1, 10)})
        locator, file = self.start_asking(here, None)
        longest = "x" * 1025
        file.write_text(
            "[ quoted ]\r\n  ipaddress = \"10.20.0.1\"\r\nIPADDRESS=10.20.0.9\r\n"
            f"[{longest}]\nIpAddress=10.20.0.2\n"
            f"[{longest}y]\nIpAddress=10.20.0.9\n"
            "[10.20.0.3]\nIpAddress=\n"      # as if it were missing
            "[cut]\nIpAddress=" + "12.024.0.42".rjust(100, "0") + "\n"   # octal; the 2 is lost
            "[octal]\nIpAddress=10.20.0.05\n"
            "[short form]\nIpAddress=10.1310726\n"    # 10.20.0.6
            "[twice]\nIpAddress=10.20.0.8\n[TWICE]\nIpAddress=10.20.0.9\n")
        wait_until(lambda: len(devices.of("10.20.0.1")) >= 2, "a second cycle")
        second = devices.of("10.20.0.1")[1].began
        self.assertEqual(sorted(one.address for one in devices.exchanges if one.began < second),
                         [f"10.20.0.{n}" for n in (1, 2, 3, 4, 5, 6, 8, 8)])
        (line,) = {line for line in locator.trace if "ignore" in line}
        self.assertTrue(line.startswith(
            "DeviceByHostName: ERROR : hostname with size more than 1025 characters - ignore "
            "(is=1026 name:xxx"), line)

        for encoding in ("utf-16-le", "utf-16-be"):
            before = len(devices.of("10.20.0.7"))
            with open(file.path, "wb") as raw:
                raw.write("\ufeff[r\u00f6hre]\r\nIpAddress='10.20.0.7'\r\n".encode(encoding))
            wait_until(lambda: len(devices.of("10.20.0.7")) > before, encoding)

    def test_the_trace_says_of_a_file_that_nothing_is_in_it(self):
        warning = "DeviceByHostName: Warning : static devices ini file not accessible (name:%s)"
        nothing = "DeviceByHostName: Info : static devices ini file has no entry (name:%s)"
        empty = DeviceFile(self.directory, {}).path
        for path, line in (("", warning), ("/a/b.in", warning),
                           (self.directory + "/missing.ini", nothing), (empty, nothing)):
            with self.subTest(path=path):
                locator = self.start_locator(self.network.host("alone"),
                                             settings=static_network.settings(path))
                wait_until(lambda: line % path in locator.trace, "the line")
                self.assertEqual([one for one in locator.trace if "DeviceByHostName" in one],
                                 [line % path])
                locator.stop()
                if self.target.NAME == "linux":  # where it can be asked to end
                    self.assertIn("DeviceByHostName Stop", locator.trace)


class Replies(StaticDevices):
    """What becomes of replies in the two lists; how frames are cut out of what comes in,
    FrameReceiver's test knows."""

    def test_a_record_is_listed_as_it_came_unless_its_status_disowns_its_address(self):
        good = wire.record(150, ipv6="2001:db8::5", status="AB7D", clip="Z9", alias="M\xfchle",
                           host_ipv4="10.9.9.9", host_ipv6="2001:db8::9", host_alias="h" * 63,
                           magic=b"ANOTHER\0", kind=b"999\0", length=7,
                           items=[wire.item(b"A" * 36), wire.item(b"B" * 76)])
        good = good[:263] + bytes(range(104)) + good[367:]
        silent = "10.20.0.2"
        scripts = {"10.20.0.1": [reply(good, length=1)], silent: []}
        expected = [good[:367]]
        # Where the third digit is an 8, the address that was asked stands in its place.
        for status, is_disowned in {"AB8": True, "A\0008": True, "AB78": False, "88": False,
                                    "8898": False}.items():
            serial = len(scripts) + 1
            address = f"10.20.0.{serial}"
            record = wire.record(serial, ipv6="2001:db8::3", status=status)
            scripts[address] = [reply(record)]
            expected.append(wire.record(serial, ipv4=address, status=status) if is_disowned
                            else record)
        here, devices = self.local_devices(scripts)
        locator, _ = self.start_asking(here, dict.fromkeys(scripts), gap=600000)
        wait_until(lambda: len(devices.exchanges) == len(scripts)
                   and all(one.ended for one in devices.exchanges), "the end of all queries")
        wait_until(lambda: query_threads(locator) == 0, "the end of the cycle")

        kind, count, payload = locator.exchange("GETINFO")
        self.assertEqual((kind, count), (3, len(expected)))
        self.assertEqual(sorted(payload[at:at + 367] for at in range(0, len(payload), 367)),
                         sorted(expected))
        self.assertEqual(sorted(locator.items()), [(150, good[367:427]), (150, good[427:])])
        (bad,) = devices.of(silent)
        self.assertGreater(bad.ended - bad.began, 3)
        self.assertLess(bad.ended - bad.began, 3 + 5)
        # One request each, nothing else, with a SID of its own.
        for exchange in devices.exchanges:
            self.assertRegex(exchange.request, static_network.REQUEST)
        self.assertEqual(len({exchange.sid for exchange in devices.exchanges}), len(scripts))


class SimulatedDevices(StaticDevices, NetworkTestCase):
    def test_they_misbehave_on_demand(self):
        # All but "drip", which a cycle listens to for a minute.
        faults = ["none", "silent", "pieces", "two-frames", "long-chain", "endless-chain",
                  "early-close", "other-type"]
        listed = [f"192.168.10.{n}" for n in range(100, 100 + len(faults))]
        simulators = []
        for number, (fault, address) in enumerate(zip(faults, listed), 1):
            there = self.host_on(self.switch, "dev0", address + "/24", name=fault)
            simulators.append(self.simulate(
                there, *QUERIED, "--devices", "2", "--first-serial", str(10 * number), "--items",
                "2", *(("--status-fault", fault) if fault != "none" else ())))
        locator, _ = self.start_asking(self.here, dict.fromkeys(listed))
        wait_until(lambda: all(len(logged_queries(one)) >= 2 for one in simulators), "two cycles")
        # The first of two devices on one address, and what follows the other's reply.
        self.assertEqual(sorted(locator.devices()), ["0000010", "0000040", "0000041"])
        self.assertEqual(sorted({serial for serial, _ in locator.items()}), [10, 40, 41])
        self.assertEqual([one.err for one in simulators], len(faults) * [""])

    def test_they_answer_queries_and_requests_alike(self):
        simulator = self.simulate(self.there, "--interface", "dev0", "--devices", "1",
                                  "--status-query", "--verbose")
        locator, _ = self.start_asking(self.here, {"192.168.10.21": None, "192.168.10.20": None})
        for line in ("status query at 192.168.10.20, SID=", "request from 192.168.10.1, 43 bytes",
                     "status query at 192.168.10.21, where no device is"):
            wait_until(lambda: line in simulator.out, line)
        device = wait_until(lambda: locator.devices().get("0000001"), "the device")
        self.assertEqual(device["ipv4"], "192.168.10.20")
