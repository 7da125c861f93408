"""Start, end, and what stands in their way."""

import os
import signal
import socket

from lab import network, wire
from lab.harness import TestCase, native, only_on, wait_until


@only_on("linux", "Windows asks no program without a window to end")
class Ends(TestCase):
    def test_signals_end_it_in_order_in_both_modes(self):
        here, _ = self.simple_network()
        for arguments in ((), ("/dynamic",)):
            for number in (signal.SIGTERM, signal.SIGINT):
                with self.subTest(arguments=arguments, signal=number):
                    locator = self.start_locator(here, *arguments)
                    with locator.client() as client:
                        client.ask("STARTLOG")
                        self.assertTrue(client.is_served())
                    locator.stop(number)
                    self.assertEqual(locator.event_log.texts("TALVORN")[-1],
                                     "Service loop terminated")

    def test_at_any_moment_of_the_start(self):
        here, _ = self.simple_network()
        for lines in (1, 2, 4, 7, 10, 14, 18):
            locator = self.start_locator(here, ready=False)
            wait_until(lambda: locator.ended or len(locator.trace) >= lines, "some trace")
            for _ in range(3):
                locator.signal(signal.SIGTERM)
            locator.stop()


class Neighbours(TestCase):
    def test_a_second_locator_leaves_the_first_alone(self):
        here, there = self.simple_network()
        first = self.start_locator(here)
        second = self.start_locator(here, beside=first, ready=False)
        second.event_log.wait_for("Service loop entry")
        self.simulate(there, "--interface", "dev0", "--devices", "3")
        for locator in (first, second):
            wait_until(lambda: len(locator.event_log.texts("CAST RESPONSE")) > 3, "the devices")
        self.assertEqual(len(first.devices()), 3)
        second.stop(leftovers=first.files())
        self.assertEqual(len(first.devices()), 3)
        first.stop()

    def test_what_a_killed_one_left_is_no_obstacle(self):
        here, there = self.simple_network()
        self.simulate(there, "--interface", "dev0", "--devices", "3")
        killed = self.start_locator(here)
        with killed.client() as client:
            client.ask("STARTLOG")
            self.assertTrue(client.is_served())
        killed.kill()
        self.assertEqual(bool(killed.files()), self.target.NAME == "linux")
        tool = self.tool(killed, "devices")
        self.assertEqual(tool.wait(), 1)
        locator = self.start_locator(here, beside=killed)
        wait_until(lambda: len(locator.devices()) == 3, "the devices")
        with locator.client() as client:
            client.ask("STARTLOG")
            client.ask("STOPLOG")
            self.assertTrue(client.is_served())
        locator.stop()


@only_on("linux", "there are no files in its way on Windows")
class Obstacles(TestCase):
    """Each gives one clear sentence on standard error, and exit status 1."""

    def assert_refused(self, runtime_directory, says):
        process = self.start(self.network.host("alone"), native("talvorn-locator"),
                             environment={"TALVORN_RUNTIME_DIR": runtime_directory})
        self.assertEqual(process.wait(), 1)
        lines = process.err.splitlines()
        self.assertEqual(len(lines), 1, lines)
        self.assertTrue(lines[0].startswith("talvorn-locator: "), lines)
        self.assertIn(says, lines[0])
        self.assertTrue(lines[0].endswith("."), lines)
        self.assertEqual(process.out, "")

    def test_a_runtime_directory_that_cannot_be(self):
        file = os.path.join(self.directory, "file")
        with open(file, "w", encoding="ascii"):
            pass
        self.assert_refused(os.path.join(file, "talvorn"), "talvorn")
        self.assert_refused(file, "file")
        self.assert_refused("/proc/none/of/this", "/proc/none")

    def test_a_runtime_directory_of_any_length(self):
        deep = os.path.join(self.directory, *["deep" * 10] * 5)
        os.makedirs(deep)
        os.chmod(deep, 0o755)
        locator = self.start_locator(self.network.host("alone"), runtime_directory=deep)
        self.assertEqual(self.tool(locator, "version").wait(), 0)

    def test_a_runtime_directory_that_cannot_be_written(self):
        directory = os.path.join(self.directory, "read_only")
        os.mkdir(directory)
        network.mount_read_only(directory)
        self.addCleanup(network.unmount, directory)
        self.assert_refused(directory, directory)

    def test_a_squatter_on_the_mailslot(self):
        """Something else that bears its name: not removed, and told."""
        runtime = os.path.join(self.directory, "runtime")
        taken = os.path.join(runtime, "talvorn_out")
        os.makedirs(taken)
        os.chmod(runtime, 0o755)
        locator = self.start_locator(self.network.host("alone"), runtime_directory=runtime,
                                     ready=False, settings={"DebugView": 0})
        locator.event_log.wait_for("Service loop entry")
        wait_until(lambda: locator.err, "the sentence")
        self.assertIn("talvorn_out", locator.err)
        self.assertEqual(len(locator.err.splitlines()), 1)
        os.rmdir(taken)
        wait_until(locator.takes_messages, "the mailslot, which is tried again")
        locator.stop()

    def test_another_program_has_the_port(self):
        here, there = self.simple_network()
        with here:
            other = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        other.bind(("", wire.PORT))
        locator = self.start_locator(here, settings={"DebugView": 0, "IPv6 Active": 0})
        wait_until(lambda: locator.err, "the sentence")
        other.close()
        station = self.station(there, "dev0", "192.168.10.20")
        wait_until(lambda: (station.send(wire.record(1)), locator.devices())[1], "a device")
        self.assertEqual(locator.err, "talvorn-locator: another program uses UDP port 4817 "
                         "exclusively, so that no device can be heard; find it with \"ss -ulnp\" "
                         "and end it.\n")
        locator.stop()

    def test_a_runtime_directory_that_all_may_write_to(self):
        directory = os.path.join(self.directory, "open")
        os.mkdir(directory)
        os.chmod(directory, 0o1777)
        self.assert_refused(directory, "Other accounts may write to it")

    def test_no_journal(self):
        here, there = self.simple_network()
        locator = self.start_locator(
            here, ready=False, environment={"TALVORN_JOURNAL_SOCKET": "/run/no/journal"})
        station = self.station(there, "dev0", "192.168.10.20")
        wait_until(locator.takes_messages, "the mailslot")
        wait_until(lambda: (station.send(wire.record(1)), locator.devices())[1], "a device")
        locator.stop()

    def test_help_and_version(self):
        host = self.network.host("alone")
        for program in ("talvorn-locator", "talvorn", "talvorn-sim"):
            for argument in ("--help", "--version"):
                with self.subTest(program=program, argument=argument):
                    environment = {"TALVORN_RUNTIME_DIR": "/proc/none"}
                    shown = self.start(host, native(program), argument, environment=environment)
                    self.assertEqual((shown.wait(), shown.err), (0, ""))
                    self.assertIn(program, shown.out)
                    with open("/dev/full", "wb") as full:
                        lost = self.start(host, native(program), argument, environment=environment,
                                          stdout=full)
                    self.assertEqual(lost.wait(), 1)
                    self.assertEqual(len(lost.err.splitlines()), 1, lost.err)
