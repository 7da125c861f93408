"""The tool and the simulator as people and programs use them."""

import fcntl
import json
import os
import pty
import re
import signal
import struct
import termios
import time

from lab import wire
from lab.harness import NetworkTestCase, only_on, wait_until

NASTY = "\x1b[2J\x9b31m\x07\r\n\x7f evil"


class Tool(NetworkTestCase):
    def test_its_exit_status_tells_success_failure_and_misuse(self):
        locator = self.start_locator(self.here)
        for arguments, status in (
                (("version",), 0), (("items", "--json"), 0), (("--help",), 0), ((), 2),
                (("nonsense",), 2), (("devices", "--nonsense"), 2), (("reinit",), 2),
                (("reinit", "no.address"), 2), (("log", "nonsense"), 2)):
            with self.subTest(arguments):
                tool = self.tool(locator, *arguments)
                self.assertEqual(tool.wait(), status, tool.err)
                self.assertEqual(bool(tool.err), status != 0)
        self.assertEqual(self.tool_says(locator, "version"), "1.0.0.0\n")
        nothing = self.tool(locator, "devices")
        self.assertEqual((nothing.wait(), nothing.out, nothing.err), (0, "", "no devices\n"))
        locator.stop()
        for arguments in (("version",), ("devices",), ("items",), ("log", "path")):
            tool = self.tool(locator, *arguments)
            self.assertEqual((tool.wait(), tool.out), (1, ""))
            self.assertIn("talvorn-locator", tool.err)  # what to do

    def test_texts_of_the_network_cannot_command_a_terminal(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        self.device().send(wire.record(5, alias=NASTY, host_alias=NASTY,
                                       items=[wire.item(NASTY.encode("latin-1"))]))
        wait_until(locator.items, "the device")
        shown = {arguments: self.tool_says(locator, *arguments) for arguments in
                 (("devices",), ("items",), ("items", "--json"), ("devices", "--json"))}
        for out in shown.values():
            self.assertTrue(all(c == "\n" or c.isprintable() for c in out), repr(out))
        (device,) = json.loads(shown["devices", "--json"])["devices"]
        # 0x9b is a quotation mark there, in the code page of the devices.
        self.assertEqual((device["serial"], device["ipv4"], device["alias"]),
                         ("5", "192.168.10.20", NASTY.replace("\x9b", "\u203a")))

    @only_on("linux", "Windows has a code page of its own")
    def test_devices_speak_the_code_page_that_the_user_names(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        alias = "\u0426\u0435\u0445 7"
        self.device().send(wire.record(5, alias=alias.encode("cp1251").decode("latin-1")))
        wait_until(locator.devices, "the device")

        def said(page, *arguments):
            tool = self.tool(locator, *arguments, environment={"TALVORN_CODE_PAGE": page})
            return tool.wait(), tool.out, tool.err
        self.assertIn(alias, said("1251", "devices")[1])
        (device,) = json.loads(said("utf-8,CP1251", "devices", "--json")[1])["devices"]
        self.assertEqual(device["alias"], alias)
        self.assertIn("\u00d6\u00e5\u00f5 7", said("", "devices")[1])
        status, out, err = said("\x1b[2J", "devices")
        self.assertEqual((status, out), (2, ""))
        self.assertIn('TALVORN_CODE_PAGE is "\\x1b[2J", which is no code page to be used', err)

    def test_tables_come_one_after_the_other_where_there_is_no_terminal(self):
        locator = self.start_listening(self.here)
        device = self.device()
        tool = self.tool(locator, "devices", "--watch", "1")
        wait_until(lambda: (device.send(wire.record(5, alias="Press")),
                            tool.out.count("Press") >= 2)[1], "two tables with the device")
        # Under Wine that is TerminateProcess.
        tool.signal(signal.SIGTERM if self.target.NAME == "linux" else signal.SIGINT)
        self.assertEqual(tool.wait(), 0)
        self.assertNotIn("\x1b", tool.out)

    def test_a_terminal_shows_a_live_table(self):
        locator = self.start_listening(self.here)
        device = self.device()
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
        wait_until(lambda: (device.send(wire.record(5, alias="Press")),
                            b"Press" in screen())[1], "the device")
        wait_until(lambda: re.search(rb"\n(\x1b\[\d+m)?- +5 +Press", screen()),
                   "its end to be marked")
        locator.stop(leftovers=locator.left_by_clients())
        wait_until(lambda: b"does not answer" in screen(), "the locator's end to be shown")
        tool.signal(signal.SIGINT)
        self.assertEqual(tool.wait(), 0)
        self.assertIn(b"\x1b[?25h", screen())  # the cursor is back

    def test_rows_and_columns_are_chosen(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        device = self.device()
        for serial, alias in ((9, "Press 2"), (10, "Oven"), (2, "Press 10")):
            self.wait_heard(locator, device, serial, alias=alias)

        def says(*arguments):
            return self.tool_says(locator, "devices", *arguments).splitlines()
        self.assertEqual(says("--columns", "alias,serial", "--sort", "alias", "press"),
                         ["ALIAS     SERIAL", "Press 2   9", "Press 10  2"])
        self.assertEqual([one["serial"] for one in json.loads(
            says("--json", "--sort=serial", "*")[0])["devices"]], ["2", "9", "10"])
        self.assertEqual([one["serial"] for one in json.loads(says("--json", "ov?n")[0])["devices"]],
                         ["10"])
        nothing = self.tool(locator, "devices", "Lathe")
        self.assertEqual((nothing.wait(), nothing.out, nothing.err),
                         (0, "", "no devices that match\n"))
        for wrong in (("--sort", "colour"), ("--columns", "serial,colour"), ("--columns", ","),
                      ("--json", "--columns", "serial"), ("a", "b")):
            tool = self.tool(locator, "devices", *wrong)
            self.assertEqual((tool.wait(), tool.out), (2, ""), wrong)

    @only_on("linux", "Wine has no terminal here")
    def test_a_narrow_terminal_is_never_written_over_its_edge(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        self.wait_heard(locator, self.device(), 5, alias="\x1b[2J" + "\xff" * 26,
                        host_alias="h" * 60)
        primary, secondary = pty.openpty()
        self.addCleanup(os.close, primary)
        fcntl.ioctl(secondary, termios.TIOCSWINSZ, struct.pack("HHHH", 10, 40, 0, 0))
        before = termios.tcgetattr(secondary)
        for arguments in (("devices",), ("devices", "--watch")):
            tool = self.tool(locator, *arguments, stdin=secondary, stdout=secondary)
            if "--watch" in arguments:
                wait_until(lambda: termios.tcgetattr(secondary)[3] != before[3], "single keys")
                os.write(primary, b"/hhh\r")
                wait_until(lambda: b"with 'hhh'" in os.read(primary, 65536), "the filter")
                os.write(primary, b"q")
            self.assertEqual(tool.wait(), 0)
            if "--watch" not in arguments:
                lines = os.read(primary, 65536).decode().split("\r\n")
                self.assertLessEqual(max(map(len, lines)), 40)
                self.assertIn("SERIAL  ALIAS", lines[0])
                self.assertNotIn("HOST", lines[0])
        self.assertEqual(termios.tcgetattr(secondary), before)
        os.close(secondary)

    @only_on("linux", "Wine has no terminal here")
    def test_stopped_the_terminal_is_the_shells(self):
        locator = self.start_listening(self.here)
        primary, secondary = pty.openpty()
        self.addCleanup(os.close, primary)
        self.addCleanup(os.close, secondary)
        before = termios.tcgetattr(secondary)
        tool = self.tool(locator, "devices", "--watch", stdin=secondary, stdout=secondary,
                         process_group=0)  # what stops it is not to stop the tests

        def reads_single_keys():
            return termios.tcgetattr(secondary)[3] != before[3]

        def shown_by(key):
            wait_until(reads_single_keys, "single keys")
            shown = bytearray()
            os.write(primary, key)
            wait_until(lambda: shown.extend(os.read(primary, 65536)) or b"\x1b[?25h" in shown,
                       "the cursor")
        shown_by(b"\x1a")
        wait_until(lambda: os.waitid(os.P_PID, tool.pid, os.WSTOPPED | os.WNOHANG), "its stop")
        self.assertFalse(reads_single_keys())
        tool.signal(signal.SIGCONT)
        shown_by(b"q")
        self.assertEqual(tool.wait(), 0)

    def test_a_closed_pipe_ends_it_quietly_and_a_full_disk_in_a_sentence(self):
        locator = self.start_locator(self.here)
        reader, writer = os.pipe()
        tool = self.tool(locator, "devices", "--watch", "1", stdout=writer)
        os.close(writer)
        os.close(reader)
        tool.wait()
        self.assertEqual(tool.err, "")
        with open("/dev/full", "wb") as full:
            tool = self.tool(locator, "version", stdout=full)
        self.assertEqual(tool.wait(), 1)
        self.assertEqual(len(tool.err.splitlines()), 1)


class Simulator(NetworkTestCase):
    def test_its_devices_have_their_own_ways(self):
        locator = self.start_listening(self.here)
        before = time.monotonic()
        self.simulate(self.there, "--interface", "dev0", "--devices", "4", "--first-serial", "100",
                      "--layout", "mixed", "--items", "2", "--absent", "4000/8000",
                      "--absent-devices", "1", "--announce", "200")
        locator.wait_devices(4)
        wait_until(lambda: "0000103" not in locator.devices(), "the last one to go")
        locator.wait_devices(4)
        self.assertGreaterEqual(time.monotonic() - before, 4)
        self.assertTrue(locator.items())

    def test_it_says_that_there_is_nothing_to_appear_on(self):
        for arguments, status in ((("--interface", "none0"), 1), ((), 2)):
            simulator = self.simulate(self.here, *arguments)
            self.assertEqual(simulator.wait(), status)
            self.assertIn("talvorn-sim: ", simulator.err)
