"""The tool and the simulator as people and programs use them."""

import json
import os
import pty
import re
import signal
import time

from lab import wire
from lab.harness import TestCase, wait_until

NASTY = "\x1b[2J\x9b31m\x07\r\n\x7f evil"


class Tool(TestCase):
    def test_exit_status(self):
        here, _ = self.simple_network()
        locator = self.start_locator(here)
        cases = [(("version",), 0), (("devices",), 0), (("items", "--json"), 0),
                 (("--help",), 0), ((), 2), (("nonsense",), 2), (("devices", "--nonsense"), 2),
                 (("reinit",), 2), (("reinit", "no.address"), 2), (("log", "nonsense"), 2)]
        for arguments, status in cases:
            with self.subTest(arguments):
                tool = self.tool(locator, *arguments)
                self.assertEqual(tool.wait(), status, tool.err)
                self.assertEqual(bool(tool.err), status != 0)
        self.assertEqual(self.waited(locator, "version").out, "1.0.0.0\n")
        locator.stop()
        for command in ("version", "devices", "items", "log"):
            arguments = (command, "path") if command == "log" else (command,)
            tool = self.tool(locator, *arguments)
            self.assertEqual(tool.wait(), 1)
            self.assertIn("talvorn-locator", tool.err)  # what to do
            self.assertEqual(tool.out, "")

    def waited(self, locator, *arguments):
        tool = self.tool(locator, *arguments)
        self.assertEqual(tool.wait(), 0, tool.err)
        return tool

    def test_texts_of_the_network_cannot_command_a_terminal(self):
        here, there = self.simple_network()
        locator = self.start_listening(here, settings={"Time Response Valid": 600000})
        self.station(there, "dev0", "192.168.10.20").send(wire.record(
            5, alias=NASTY, host_alias=NASTY, items=[wire.item(NASTY.encode("latin-1"))]))
        wait_until(lambda: locator.items(), "the device")
        for arguments in (("devices",), ("items",), ("devices", "--json"), ("items", "--json")):
            with self.subTest(arguments):
                out = self.waited(locator, *arguments).out
                self.assertTrue(all(c == "\n" or c.isprintable() for c in out), repr(out))
                if "--json" in arguments and "devices" in arguments:
                    (device,) = json.loads(out)["devices"]
                    self.assertEqual(device["serial"], "5")
                    self.assertEqual(device["ipv4"], "192.168.10.20")
                    # 0x9b is a quotation mark there, in the code page of the devices.
                    self.assertEqual(device["alias"], NASTY.replace("\x9b", "\u203a"))

    def test_tables_one_after_the_other_where_there_is_no_terminal(self):
        here, there = self.simple_network()
        locator = self.start_listening(here)
        station = self.station(there, "dev0", "192.168.10.20")
        tool = self.tool(locator, "devices", "--watch", "1")
        wait_until(lambda: (station.send(wire.record(5, alias="Press")),
                            tool.out.count("Press") >= 2)[1], "two tables with the device")
        # Under Wine that is TerminateProcess.
        tool.signal(signal.SIGTERM if self.target.NAME == "linux" else signal.SIGINT)
        self.assertEqual(tool.wait(), 0)
        self.assertNotIn("\x1b", tool.out)

    def test_live_table_on_a_terminal(self):
        here, there = self.simple_network()
        locator = self.start_listening(here)
        station = self.station(there, "dev0", "192.168.10.20")
        primary, secondary = pty.openpty()
        self.addCleanup(os.close, primary)
        os.set_blocking(primary, False)
        tool = self.tool(locator, "devices", "--watch", stdout=secondary)
        os.close(secondary)
        shown = bytearray()

        def screen():
            try:
                shown.extend(os.read(primary, 65536))
            except OSError:
                pass
            return bytes(shown)
        wait_until(lambda: (station.send(wire.record(5, alias="Press")),
                            b"Press" in screen())[1], "the device")
        wait_until(lambda: re.search(rb"\n(\x1b\[\d+m)?- +5 +Press", screen()),
                   "its end to be marked")
        locator.stop(leftovers=locator.left_by_clients())
        wait_until(lambda: b"does not answer" in screen(), "the locator's end to be shown")
        tool.signal(signal.SIGINT)
        self.assertEqual(tool.wait(), 0)
        self.assertIn(b"\x1b[?25h", screen())  # the cursor is back

    def test_a_closed_pipe_ends_it_quietly(self):
        locator = self.start_locator(self.network.host("alone"))
        reader, writer = os.pipe()
        tool = self.tool(locator, "devices", "--watch", "1", stdout=writer)
        os.close(writer)
        os.close(reader)
        tool.wait()
        self.assertEqual(tool.err, "")
        with open("/dev/full", "wb") as full:
            tool = self.tool(locator, "devices", stdout=full)
        self.assertEqual(tool.wait(), 1)
        self.assertEqual(len(tool.err.splitlines()), 1)


class Simulator(TestCase):
    def test_devices_with_their_own_ways(self):
        here, there = self.simple_network()
        locator = self.start_listening(here)
        before = time.monotonic()
        self.simulate(there, "--interface", "dev0", "--devices", "4", "--first-serial", "100",
                      "--layout", "mixed", "--items", "2", "--absent", "4000/8000",
                      "--absent-devices", "1", "--announce", "200")
        wait_until(lambda: {"0000100", "0000101", "0000102"} <= set(locator.devices()), "the devices")
        wait_until(lambda: "0000103" in locator.devices(), "the last device")
        wait_until(lambda: "0000103" not in locator.devices(), "it to go")
        wait_until(lambda: "0000103" in locator.devices(), "it to return")
        self.assertGreaterEqual(time.monotonic() - before, 4)
        self.assertTrue(locator.items())

    def test_nothing_to_appear_on(self):
        host = self.network.host("alone")
        for arguments, status in ((("--interface", "none0"), 1), ((), 2)):
            simulator = self.simulate(host, *arguments)
            self.assertEqual(simulator.wait(), status)
            self.assertIn("talvorn-sim: ", simulator.err)
