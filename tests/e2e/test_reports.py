"""Event log and trace: texts, kinds and order."""

import os
import re
import socket

from lab import wire
from lab.harness import LIMIT, TestCase, full_set, only_on, wait_until

# With /dynamic; long enough for what is to happen before.
ENDS_BY_ITSELF = {"Time Multicast Request Allowed": 4000}


class EventLog(TestCase):
    def test_from_start_to_end(self):
        here, there = self.simple_network()
        locator = self.start_listening(here, "/dynamic", settings=ENDS_BY_ITSELF)
        index = here.index("net0")
        self.station(there, "dev0", "192.168.10.20").send(wire.record(5))
        wait_until(lambda: locator.event_log.texts("CAST RESPONSE"), "the device")
        wait_until(lambda: locator.ended, "the end")
        locator.stop()
        entries = locator.event_log.entries
        texts = locator.event_log.texts("TALVORN")
        # The first comes from the main thread, beside the service thread's own.
        thread_id = [text for text in texts if text.startswith("ThreadServiceMain")]
        self.assertEqual(len(thread_id), 1)
        self.assertRegex(thread_id[0], r"^ThreadServiceMain --> Thread Id = [1-9]\d*$")
        self.assertEqual([text for text in texts if text not in thread_id], [
            "Application started!", "Service loop entry",
            *[f"Network interface IPv6: {index} located !"][:6 in self.families],
            "Network interface IPv4: 192.168.10.1  located !", "Service loop terminated"])
        for entry in entries:
            warning = entry.text == "Service loop terminated"
            self.assertEqual(entry.kind, "warning" if warning else "information", entry)
            self.assertEqual((entry.event_id, entry.category, entry.account),
                             (1000, 0, self.target.ACCOUNT))
        self.assertEqual({entry.source for entry in entries},
                         {"TALVORN", "CAST REQUEST", "CAST RESPONSE"})

    def test_missing_settings_are_an_error_and_no_obstacle(self):
        here, _ = self.simple_network()
        locator = self.start_locator(here, settings=None)
        entry = [entry for entry in locator.event_log.entries
                 if entry.text == "Registry RetrieveValues() failed"]
        self.assertEqual([one.kind for one in entry], ["error"])
        locator.event_log.wait_for("Network interface IPv4: 192.168.10.1  located !")
        self.assertEqual(locator.trace, [])  # and no trace: the switch's default is off

    @only_on("linux", "whoever reads Windows' debugger output is a program of its own")
    def test_nobody_reads_the_journal_or_the_trace(self):
        """Neither a full journal nor a full pipe holds the locator up."""
        here, there = self.simple_network()
        path = os.path.join(self.directory, "full")
        with here:
            full = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(full.close)
        full.bind(path)
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        locator = self.start_locator(here, ready=False, stderr=writer,
                                     settings={"Time Response Valid": 600000},
                                     environment={"TALVORN_JOURNAL_SOCKET": path})
        os.close(writer)
        wait_until(locator.takes_messages, "the mailslot")
        station = self.station(there, "dev0", "192.168.10.20")
        wait_until(lambda: ([station.send(wire.record(serial)) for serial in range(1, 1001)],
                            len(locator.devices()) == 1000)[1], "all devices")
        locator.stop()


class Trace(TestCase):
    THREAD = r"\[0x[0-9a-f]{8,}\]"

    def assert_in_order(self, lines, patterns):
        """Each pattern matches a whole line, in this order; other lines may stand between."""
        at = 0
        for pattern in patterns:
            while at < len(lines) and not re.fullmatch(pattern, lines[at]):
                at += 1
            self.assertLess(at, len(lines), f"no line {pattern!r} in its place")
            at += 1

    def test_order_of_shut_down(self):
        here, _ = self.simple_network()
        locator = self.start_locator(here, "/dynamic", settings=ENDS_BY_ITSELF)
        index = here.index("net0")
        wait_until(lambda: locator.ended, "the end")
        locator.stop()
        for line in locator.debug_output.splitlines():
            if not line.startswith("TALVORN_APPL "):
                self.assertTrue(line.startswith("TALVORNApp: "), line)
        patterns = ["Service loop terminated"]
        for version, number in (("IPv4", 17475776), ("IPv6", index)):
            for banner, step in ((f"shut down all multicast {version} request threads",
                                  "ShutDownAll Thread%s"),
                                 (f"Wait for shut down all multicast {version} request threads",
                                  "WaitAll for Thread%s end"),
                                 (f"Delete all multicast {version} request threads",
                                  "DeleteItemAll Thread%s end")):
                patterns.append(banner)
                if int(version[-1]) in self.families:
                    patterns.append(f"ThreadList {step % self.THREAD} ID = {number}")
        patterns += ["Exchange Stop", "DeviceByHostName Stop", "ResponseList Stop",
                     "ItemList Stop", "Service loop terminated",
                     "Wait for Exit Multicast-Thread OK"]
        self.assert_in_order(locator.trace, patterns)
        self.assertEqual(locator.trace.count("Service loop terminated"), 2)
        self.assertEqual(locator.trace[-1], "Wait for Exit Multicast-Thread OK")

    @full_set
    def test_switched_while_running(self):
        here, there = self.simple_network()
        locator = self.start_locator(here, settings={"DebugView": 0})
        with locator.client() as client:
            client.ask("SETLOGPATH;D:\\Logs")
            client.exchange("GETLOGPATH")
            # These lines come whether or not the trace is on, without the prefix.
            rule = "TALVORN_APPL ----------------------------------------"
            wait_until(lambda: locator.debug_output.splitlines() == [
                rule, "TALVORN_APPL CMD_SETLOGPATH",
                "TALVORN_APPL CMD_SETLOGPATH LogPath: D:\\Logs\\", rule,
                "TALVORN_APPL CMD_GETLOGPATH",
                "TALVORN_APPL CMD_GETLOGPATH LogPath: D:\\Logs\\"], "the lines of the log path")
        before = len(locator.trace)
        locator.registry.set("DebugView", 1)
        wait_until(lambda: len(locator.trace) > before, "the trace", limit=LIMIT)
        locator.wait_listening("192.168.10.1")
        self.station(there, "dev0", "192.168.10.20").send(wire.record(77, alias="Küche"))
        wait_until(lambda: "Device Alias:      Küche" in locator.trace, "the device")
        at = locator.trace.index("ThreadMulticastReceive() CAST RESPONSE")
        shown = 10 if self.target.NAME == "linux" else 7  # what Wine shows of it
        self.assertEqual(locator.trace[at:at + shown], [
            "ThreadMulticastReceive() CAST RESPONSE", "Device Serial:     77",
            "Device Status:     RDY", "Device Clip:       A1", "Device Alias:      Küche",
            "Device IPV4 Address: 192.168.10.20", "Device IPV6 Address: --",
            "Host Alias:        --", "Host IPV4 Address:   --", "Host IPV6 Address:   --"][:shown])
        locator.registry.set("DebugView", 0)
        wait_until(lambda: "REFRESH REGINFO" in locator.trace, "the refresh")
        before = len(locator.event_log.texts("CAST REQUEST"))
        size = len(locator.debug_output)
        wait_until(lambda: len(locator.event_log.texts("CAST REQUEST")) > before + 4, "requests")
        self.assertEqual(len(locator.debug_output), size)
