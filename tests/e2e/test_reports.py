"""Event log and trace: texts, kinds and order."""

import os
import pwd
import re
import socket

import wire
from harness import LIMIT, TestCase, full_set, wait_until


class EventLog(TestCase):
    def test_from_start_to_end(self):
        here, there = self.simple_network()
        locator = self.start_listening(here)
        index = here.index("net0")
        self.station(there, "dev0", "192.168.10.20").send(wire.record(5))
        wait_until(lambda: locator.journal.texts("CAST RESPONSE"), "the device")
        locator.stop()
        entries = locator.journal.entries
        texts = locator.journal.texts("TALVORN")
        # The first comes from the main thread, beside the service thread's own.
        thread_id = [text for text in texts if text.startswith("ThreadServiceMain")]
        self.assertEqual(len(thread_id), 1)
        self.assertRegex(thread_id[0], r"^ThreadServiceMain --> Thread Id = [1-9]\d*$")
        self.assertEqual([text for text in texts if text not in thread_id], [
            "Application started!", "Service loop entry",
            f"Network interface IPv6: {index} located !",
            "Network interface IPv4: 192.168.10.1  located !", "Service loop terminated"])
        account = pwd.getpwuid(os.getuid()).pw_name
        for entry in entries:
            warning = entry["MESSAGE"] == "Service loop terminated"
            self.assertEqual(entry["PRIORITY"], "4" if warning else "6", entry)
            self.assertEqual((entry["TALVORN_EVENT_ID"], entry["TALVORN_CATEGORY"],
                              entry["TALVORN_USER"]), ("1000", "0", account))
        self.assertEqual({entry["SYSLOG_IDENTIFIER"] for entry in entries},
                         {"TALVORN", "CAST REQUEST", "CAST RESPONSE"})

    def test_missing_settings_are_an_error_and_no_obstacle(self):
        here, _ = self.simple_network()
        locator = self.start_locator(here, ready=False,
                                     environment={"TALVORN_REGISTRY": "/run/nowhere/talvorn.reg"})
        locator.wait_ready()
        entry = [entry for entry in locator.journal.entries
                 if entry["MESSAGE"] == "Registry RetrieveValues() failed"]
        self.assertEqual([one["PRIORITY"] for one in entry], ["3"])
        locator.journal.wait_for("Network interface IPv4: 192.168.10.1  located !")
        self.assertEqual(locator.trace, [])  # and no trace: the switch's default is off

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
        locator = self.start_locator(here)
        index = here.index("net0")
        locator.journal.wait_for("Network interface IPv4: 192.168.10.1  located !")
        locator.stop()
        self.assertEqual(locator.trace[0], "PERMANENT")
        for line in locator.err.splitlines():
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
                patterns += [banner, f"ThreadList {step % self.THREAD} ID = {number}"]
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
            wait_until(lambda: locator.err.splitlines() == [
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
        self.assertEqual(locator.trace[at:at + 10], [
            "ThreadMulticastReceive() CAST RESPONSE", "Device Serial:     77",
            "Device Status:     RDY", "Device Clip:       A1", "Device Alias:      Küche",
            "Device IPV4 Address: 192.168.10.20", "Device IPV6 Address: --",
            "Host Alias:        --", "Host IPV4 Address:   --", "Host IPV6 Address:   --"])
        locator.registry.set("DebugView", 0)
        wait_until(lambda: "REFRESH REGINFO" in locator.trace, "the refresh")
        before = len(locator.journal.texts("CAST REQUEST"))
        size = len(locator.err)
        wait_until(lambda: len(locator.journal.texts("CAST REQUEST")) > before + 4, "requests")
        self.assertEqual(len(locator.err), size)
