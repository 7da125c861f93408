"""Event log and trace: texts, kinds and order."""

import os
import re
import socket

from lab import wire
from lab.harness import NetworkTestCase, full_set, only_on, wait_until


class Reports(NetworkTestCase):
    def start_for_a_while(self):
        """A locator that ends by itself, after what is to happen before."""
        return self.start_listening(self.here, "/dynamic",
                                    settings={"Time Multicast Request Allowed": 4000})

    def test_the_event_log_from_start_to_end(self):
        locator = self.start_for_a_while()
        self.device().send(wire.record(5))
        wait_until(lambda: locator.event_log.texts("CAST RESPONSE"), "the device")
        locator.wait_end()
        texts = locator.event_log.texts("TALVORN")
        # The first comes from the main thread, beside the service thread's own.
        (thread_id,) = [text for text in texts if text.startswith("ThreadServiceMain")]
        self.assertRegex(thread_id, r"^ThreadServiceMain --> Thread Id = [1-9]\d*$")
        texts.remove(thread_id)
        self.assertEqual(texts, [
            "Application started!", "Service loop entry",
            *[f"Network interface IPv6: {self.here.index('net0')} located !"][:6 in self.families],
            "Network interface IPv4: 192.168.10.1  located !", "Service loop terminated"])
        for entry in locator.event_log.entries:
            warning = entry.text == "Service loop terminated"
            self.assertEqual((entry.kind, entry.event_id, entry.category, entry.account),
                             ("warning" if warning else "information", 1000, 0,
                              self.target.ACCOUNT), entry)
        self.assertEqual({entry.source for entry in locator.event_log.entries},
                         {"TALVORN", "CAST REQUEST", "CAST RESPONSE"})

    def test_missing_settings_are_an_error_and_no_obstacle(self):
        locator = self.start_locator(self.here, settings=None)
        self.assertEqual([entry.kind for entry in locator.event_log.entries
                          if entry.text == "Registry RetrieveValues() failed"], ["error"])
        locator.event_log.wait_for("Network interface IPv4: 192.168.10.1  located !")
        self.assertEqual(locator.trace, [])  # and no trace: the switch's default is off

    @only_on("linux", "whoever reads Windows' debugger output is a program of its own")
    def test_neither_a_full_journal_nor_a_full_pipe_holds_the_locator_up(self):
        path = os.path.join(self.directory, "full")
        with self.here:
            full = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(full.close)
        full.bind(path)
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        locator = self.start_locator(self.here, ready=False, stderr=writer,
                                     settings={"Time Response Valid": 600000},
                                     environment={"TALVORN_JOURNAL_SOCKET": path})
        os.close(writer)
        wait_until(locator.takes_messages, "the mailslot")
        device = self.device()
        wait_until(lambda: ([device.send(wire.record(serial)) for serial in range(1, 1001)],
                            len(locator.devices()) == 1000)[1], "all devices")

    def test_the_trace_of_the_end_is_in_order(self):
        locator = self.start_for_a_while()
        locator.wait_end()
        for line in locator.debug_output.splitlines():
            self.assertRegex(line, "^(TALVORN_APPL |TALVORNApp: )")
        # With a line of each thread, where there is one.
        expected = ["Service loop terminated"]
        for version, number in ((4, 17475776), (6, self.here.index("net0"))):
            for said, step in (("shut down", "ShutDownAll Thread%s"),
                               ("Wait for shut down", "WaitAll for Thread%s end"),
                               ("Delete", "DeleteItemAll Thread%s end")):
                expected.append(f"{said} all multicast IPv{version} request threads")
                if version in self.families:
                    expected.append(f"ThreadList {step % '[0xN]'} ID = {number}")
        expected += ["Exchange Stop", "DeviceByHostName Stop", "ResponseList Stop",
                     "ItemList Stop", "Service loop terminated",
                     "Wait for Exit Multicast-Thread OK"]
        lines = [re.sub(r"\[0x[0-9a-f]{8,}\]", "[0xN]", line) for line in locator.trace]
        self.assertEqual(lines[-1], expected[-1])
        self.assertEqual(lines.count("Service loop terminated"), 2)
        rest = iter(lines)
        for line in expected:  # others may stand between
            self.assertIn(line, rest)

    @full_set
    def test_the_trace_is_switched_while_running(self):
        locator = self.start_locator(self.here, settings={"DebugView": 0})
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
        wait_until(lambda: len(locator.trace) > before, "the trace")
        locator.wait_listening("192.168.10.1")
        self.device().send(wire.record(77, alias="Küche"))
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
