"""Start, end, and what stands in their way."""

import os
import shutil
import signal
import socket

from lab import network, wire
from lab.harness import NetworkTestCase, TestCase, native, only_on, wait_until


@only_on("linux", "Windows asks no program without a window to end")
class Ends(NetworkTestCase):
    def test_signals_end_it_in_order_in_both_modes(self):
        for arguments, number in (((), signal.SIGINT), (("/dynamic",), signal.SIGTERM)):
            with self.subTest(arguments=arguments, signal=number):
                locator = self.start_locator(self.here, *arguments)
                with locator.client() as client:
                    client.tell("STARTLOG")
                locator.stop(number)
                self.assertEqual(locator.event_log.texts("TALVORN")[-1],
                                 "Service loop terminated")

    def test_signals_end_it_in_order_at_any_moment_of_the_start(self):
        for lines in (1, 2, 4, 7, 10, 14, 18):
            locator = self.start_locator(self.here, ready=False)
            wait_until(lambda: locator.ended or len(locator.trace) >= lines, "some trace")
            for _ in range(3):
                locator.signal(signal.SIGTERM)
            locator.stop()


@only_on("linux", "Windows has no service manager that waits to be told")
class Starts(NetworkTestCase):
    def test_the_service_manager_is_told_when_clients_are_served(self):
        path = os.path.join(self.directory, "notify")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(path)
            manager.settimeout(30)
            locator = self.start_locator(self.here, ready=False,
                                         environment={"NOTIFY_SOCKET": path})
            self.assertEqual(manager.recv(100), b"READY=1")
            self.assertTrue(locator.takes_messages())


class Neighbours(NetworkTestCase):
    def setUp(self):
        super().setUp()
        self.simulate(self.there, "--interface", "dev0", "--devices", "3")
        self.first = self.start_locator(self.here)

    def test_a_second_locator_leaves_the_first_alone(self):
        second = self.start_locator(self.here, beside=self.first, ready=False)
        for locator in (self.first, second):
            wait_until(lambda: len(locator.event_log.texts("CAST RESPONSE")) > 3, "the devices")
        self.first.wait_devices(3)
        second.stop(leftovers=self.first.files())
        self.first.wait_devices(3)

    def test_what_a_killed_one_left_is_no_obstacle(self):
        with self.first.client() as client:
            client.tell("STARTLOG")
        self.first.kill()
        self.assertEqual(bool(self.first.files()), self.target.NAME == "linux")
        self.assertEqual(self.tool(self.first, "devices").wait(), 1)
        locator = self.start_locator(self.here, beside=self.first)
        locator.wait_devices(3)
        with locator.client() as client:
            client.tell("STARTLOG")
            client.tell("STOPLOG")


@only_on("linux", "there is no directory to lose on Windows")
class LostDirectory(NetworkTestCase):
    def test_clients_find_a_directory_that_was_made_anew(self):
        simulator = self.simulate(self.there, "--interface", "dev0", "--devices", "2")
        first = self.start_locator(self.here)
        first.wait_devices(2)
        objects = os.path.join(first.runtime_directory, "objects")

        def held():
            return os.listdir(objects) if os.path.isdir(objects) else []
        watch = self.tool(first, "watch", "--json", "--interval", "0.2", "--timeout", "1")
        hold = self.tool(first, "hold")
        wait_until(lambda: len(held()) >= 2, "the mutex and the event")
        before = set(held())
        first.signal(signal.SIGTERM)
        first.wait()
        shutil.rmtree(first.runtime_directory)
        os.mkdir(first.runtime_directory, 0o755)
        second = self.start_locator(self.here, beside=first)
        wait_until(lambda: before <= set(held()), "the same objects again")
        second.wait_devices(2)
        simulator.kill()
        wait_until(lambda: watch.out.count("device-gone") >= 2, "news of the second locator")
        for tool in (watch, hold):
            tool.signal(signal.SIGINT)
            tool.wait()


@only_on("linux", "there are no files in its way on Windows")
class RuntimeDirectory(TestCase):
    def folder(self, name, mode=0o755):
        path = os.path.join(self.directory, name)
        os.makedirs(path)
        os.chmod(path, mode)
        return path

    def test_one_that_will_not_do_is_refused_in_a_sentence(self):
        file = os.path.join(self.directory, "file")
        with open(file, "w", encoding="ascii"):
            pass
        read_only = self.folder("read_only")
        network.mount_read_only(read_only)
        self.addCleanup(network.unmount, read_only)
        for directory, says in ((os.path.join(file, "talvorn"), "talvorn"), (file, "file"),
                                ("/proc/none/of/this", "/proc/none"), (read_only, read_only),
                                (self.folder("open", 0o1777), "Other accounts may write to it")):
            with self.subTest(directory):
                process = self.start(self.network.host("alone"), native("talvorn-locator"),
                                     environment={"TALVORN_RUNTIME_DIR": directory})
                self.assertEqual((process.wait(), process.out), (1, ""))
                self.assertRegex(process.err, r"^talvorn-locator: [^\n]*\.\n$")
                self.assertIn(says, process.err)

    def test_its_path_may_have_any_length(self):
        deep = self.folder("/".join(["deep" * 10] * 5))
        locator = self.start_locator(self.network.host("alone"), runtime_directory=deep)
        self.tool_says(locator, "version")

    def test_a_squatter_on_the_mailslot_is_told_and_not_removed(self):
        runtime = self.folder("runtime")
        taken = self.folder("runtime/talvorn_out")
        locator = self.start_locator(self.network.host("alone"), runtime_directory=runtime,
                                     ready=False, settings={"DebugView": 0})
        wait_until(lambda: locator.err.endswith("\n"), "the sentence")
        os.rmdir(taken)
        wait_until(locator.takes_messages, "the mailslot, which is tried again")
        self.assertRegex(locator.err, r"^[^\n]*talvorn_out[^\n]*\n$")


@only_on("linux", "there are no such obstacles on Windows")
class Obstacles(NetworkTestCase):
    def test_another_program_that_has_the_port_is_told(self):
        with self.here:
            other = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        other.bind(("", wire.PORT))
        locator = self.start_locator(self.here, settings={"DebugView": 0, "IPv6 Active": 0})
        wait_until(lambda: locator.err, "the sentence")
        other.close()
        self.wait_heard(locator, self.device())
        self.assertEqual(locator.err, "talvorn-locator: another program uses UDP port 4817 "
                         "exclusively, so that no device can be heard; find it with \"ss -ulnp\" "
                         "and end it.\n")

    def test_without_a_journal_it_works_on(self):
        locator = self.start_locator(
            self.here, ready=False, environment={"TALVORN_JOURNAL_SOCKET": "/run/no/journal"})
        wait_until(locator.takes_messages, "the mailslot")
        self.wait_heard(locator, self.device())

    def test_help_and_version_need_nothing_but_a_place_to_write_to(self):
        nowhere = {"TALVORN_RUNTIME_DIR": "/proc/none"}
        for program in ("talvorn-locator", "talvorn", "talvorn-sim"):
            for argument in ("--help", "--version"):
                with self.subTest(program=program, argument=argument):
                    shown = self.start(self.here, native(program), argument, environment=nowhere)
                    self.assertEqual((shown.wait(), shown.err), (0, ""))
                    self.assertIn(program, shown.out)
                    with open("/dev/full", "wb") as full:
                        lost = self.start(self.here, native(program), argument,
                                          environment=nowhere, stdout=full)
                    self.assertEqual(lost.wait(), 1)
                    self.assertEqual(len(lost.err.splitlines()), 1, lost.err)
