"""The command server as client programs see it, the ill-behaved ones included."""

import contextlib
import os
import socket
import struct
import sys
import threading

from lab import wire
from lab.harness import NetworkTestCase, Program, TestCase, native, needs_accounts, only_on
from lab.harness import wait_until
from lab.linux_target import memory_file

VERSION = (2, 8, b"1.0.0.0\0")
PREFIX = wire.mailslot_name("")


def unknown(command):
    text = b"UNKNOWN COMMAND: " + command + b"\0"
    return 0, len(text), text


class Commands(TestCase):
    def setUp(self):
        super().setUp()
        self.locator = self.start_locator(self.network.host("alone"),
                                          settings={"Log Path": "D:\\Start"})

    def test_each_command_has_its_reply_or_none(self):
        def log_path(text):
            return 5, len(text) + 1, text + b"\0"
        cases = [
            ("GETVERSION", VERSION), ("getVersion", VERSION),
            ("GETVERSION ", unknown(b"GETVERSION ")), ("GETINFOX", unknown(b"GETINFOX")),
            ("GETINFO", (3, 0, bytes(367))), ("GetInfo", (3, 0, bytes(367))),
            ("GETITEMS", (4, 0, b"\0")),
            ("GETLOGPATH", log_path(b"D:\\Start")),
            ("SETLOGPATH;D:\\Logs", None), ("GETLOGPATHS", log_path(b"D:\\Logs\\")),
            ("SETLOGPATH;D:\\Logs\\", None), ("GETLOGPATH", log_path(b"D:\\Logs\\")),
            ("SETLOGPATHx;/var/log", None),
            ("GETLOGPATH", log_path(b"/var/log" + self.target.AFTER_A_SLASH)),
            ("setlogpath;", None), ("GETLOGPATH", log_path(b"\\")),
            ("SETLOGPATH;a;b", None), ("GETLOGPATH", log_path(b"a;b\\")),
            ("SETLOGPATH", None), ("GETLOGPATH", log_path(self.locator.temporary.encode())),
            ("STARTLOG", None), ("STARTLOGGING", None), ("STOPLOGGING", None),
            ("%s%n %x", unknown(b"%s%n %x")), ("\x80\xff", unknown(b"\x80\xff")),
            ("x" * 1006, unknown(b"x" * 1006)),
            ("x" * 1007, (0, 1, b"\0")), ("x" * 1023, (0, 1, b"\0")), ("", None),
        ]
        with self.locator.client() as client:
            for command, expected in cases:
                with self.subTest(command=command):
                    if expected is None:
                        client.tell(command)
                    else:
                        self.assertEqual(client.exchange(command), expected)

    def assert_invalid(self, client, message):
        client.send(message)
        self.assertEqual(client.receive()[12:], unknown(b"INVALID COMMAND")[2])

    def test_a_reply_goes_to_the_name_given_and_else_to_the_last_one(self):
        long_name = "n" * 50  # 63 characters with the prefix: the longest there is
        with self.locator.client() as default, self.locator.client(long_name) as long:
            default.send(wire.client_request("GETVERSION"))
            self.assertEqual(len(default.receive()), 20)
            self.assertTrue(long.is_served())
            for size in (0, 4, 7):  # too short for a request
                self.assert_invalid(long, bytes(size))
            default.send(wire.client_request("GETVERSION"))
            self.assertEqual(len(default.receive()), 20)
            self.assert_invalid(default, b"abcd")
        # Names count without case, and may hold blanks, dots and folders.
        with self.locator.client("my name. here") as client:
            client.send(wire.client_request("GETVERSION", "\\\\.\\MailSlot\\My Name. here"))
            self.assertEqual(len(client.receive()), 20)
        with self.locator.client("with\\a path") as client:
            self.assertTrue(client.is_served())

    def assert_unanswered(self, client, messages):
        for what, message in messages.items():
            with self.subTest(what):
                client.send(message)
                self.assertTrue(client.is_served())  # and no other reply came before

    def test_requests_outside_the_limits_are_dropped(self):
        with self.locator.client("victim") as client:
            name = wire.mailslot_name("victim")
            good = wire.client_request("GETVERSION", name)
            units = name.encode("utf-16-le")
            self.assert_unanswered(client, {
                "another type": wire.client_request("GETVERSION", name, kind=2),
                "reply type": wire.client_request("GETVERSION", name, kind=0xffffffff),
                "command of 1024": wire.client_request("x" * 1024, name),
                "command of many": wire.client_request("x" * 100000, name),
                "command without end": good[:-1],
                "no command": good[:140], "no name": good[:8], "half a name": good[:139],
                "name of 64": wire.client_request("GETVERSION", wire.mailslot_name("n" * 51)),
                "name without end": good[:8] + units + b"n\0" * (66 - len(units) // 2) + good[140:],
            })
            client.send(good + b"trailing" * 1000)
            self.assertEqual(len(client.receive()), 20)

    def assert_names_unanswered(self, client, names):
        self.assert_unanswered(client, {
            name: struct.pack("<II", 0, 1) + name.encode("utf-16-le", "surrogatepass")
                  .ljust(132, b"\0") + b"GETVERSION\0" for name in names})

    def test_reply_names_that_are_no_mailslot_are_not_opened(self):
        names = [PREFIX + rest for rest in (
            "", ".", "..", "../outside", "..\\outside", "sub/inner", "sub\\\\good", "sub\\..\\good",
            "good\\", "\\good", "absent\\good", "absent", "good\n", "./good", "good/", "/good",
            "talvorn_out", "\x01", "\ud83d", "g\u00f6\u00f6d", "good:stream", "*")]
        names += ["good", "\\\\.\\pipe\\good", "\\\\.\\PhysicalDrive0", "C:\\windows\\x", "CON",
                  "/tmp/x", "\\\\server\\mailslot\\good", "\\\\*\\mailslot\\good",
                  "\\\\?\\mailslot\\good", "//./mailslot/good", "\\\\.\\mailslot", PREFIX[1:] + "good"]
        with self.locator.client("good") as good:
            self.assert_names_unanswered(good, names)
        if self.target.NAME == "windows":  # where every opening is seen
            opened = [name for name in self.locator.event_log.opened if name != "\\\\.\\Nsi"]
            self.assertIn(PREFIX + "good", opened)
            for name in opened:
                self.assertTrue(name.startswith(PREFIX), name)
                self.assertNotIn("/", name)
                self.assertTrue({"", ".", ".."}.isdisjoint(name[len(PREFIX):].split("\\")), name)

    @only_on("linux", "mailslots are files there")
    def test_no_reply_leaves_the_folder_of_the_mailslots(self):
        os.mkdir(self.locator.mailslot("sub"), 0o777)
        self.addCleanup(os.rmdir, self.locator.mailslot("sub"))
        with self.locator.client("sub/inner") as inner, \
                self.locator.client("../outside") as outside, \
                self.locator.client("good") as good:
            link = self.locator.mailslot("link")
            os.symlink(outside.path, link)
            self.assert_names_unanswered(good, [
                outside.path, inner.path,
                *(PREFIX + name for name in ("../outside", "sub/inner", "sub", "link"))])
            for other in (inner, outside):
                self.assertIsNone(other.receive(0))
            os.unlink(link)

    @only_on("linux", "messages carry descriptors there")
    def test_descriptors_that_are_no_sealed_memory_files_do_no_harm(self):
        with self.locator.client() as client:
            good = wire.client_request("GETVERSION", wire.mailslot_name(client.name))
            endless = os.memfd_create("endless", os.MFD_ALLOW_SEALING)
            os.truncate(endless, 1 << 40)
            cases = {"unsealed": memory_file(good, seals=0), "a pipe": os.pipe()[0],
                     "endless": endless, "a folder": os.open("/", os.O_RDONLY),
                     "a device": os.open("/dev/zero", os.O_RDONLY),
                     "the mailslot itself": client.fileno()}
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
                sender.connect(self.locator.mailslot("talvorn_out"))
                for what, descriptor in cases.items():
                    with self.subTest(what):
                        for count in (1, 2, 100):
                            for content in (b"", b"text"):
                                # Newer kernels keep them from the locator's mailslot altogether.
                                with contextlib.suppress(PermissionError):
                                    socket.send_fds(sender, [content], [descriptor] * count)
                        client.ask("GETLOGPATH")
                        # None of them was served; each may have been too short a message.
                        while (reply := client.receive())[4] != 5:
                            self.assertEqual(reply[12:], unknown(b"INVALID COMMAND")[2])
                wait_until(lambda: len(os.listdir(f"/proc/{self.locator.pid}/fd")) < 100,
                           "what was sent along to be closed")


class IllBehavedClients(NetworkTestCase):
    def setUp(self):
        super().setUp()
        self.locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        device = self.device()
        for serial in range(1, 51):
            device.send(wire.record(serial))
        self.locator.wait_devices(50)

    def assert_served(self):
        with self.locator.client("well_behaved") as client:
            for _ in range(20):
                self.assertEqual(len(client.devices()), 50)

    def test_one_that_never_reads_delays_nobody(self):
        with self.locator.client("never_reads") as client:
            for _ in range(500):
                client.ask("GETINFO")
            self.assert_served()

    def test_many_that_flood_delay_nobody_for_ever(self):
        stop = threading.Event()

        def flood(number):
            good = wire.client_request("GETINFO", wire.mailslot_name(f"nobody{number}"))
            with self.locator.client(f"flood{number}") as client:
                while not stop.is_set():
                    with contextlib.suppress(OSError):
                        client.send(good)
                        client.send(os.urandom(1000))
        threads = [threading.Thread(target=flood, args=(number,)) for number in range(3)]
        for thread in threads:
            thread.start()
        try:
            self.assert_served()
        finally:
            stop.set()
            for thread in threads:
                thread.join()

    def test_those_that_are_killed_in_mid_exchange_leave_no_obstacle(self):
        for _ in range(5):
            tool = self.tool(self.locator, "devices", "--watch")
            wait_until(lambda: tool.out, "its first table")
            tool.kill()
        # One that is gone before the reply comes, its mailslot left behind.
        client = self.locator.client("gone")
        client.ask("GETINFO")
        client.die()
        self.assert_served()
        with self.locator.client() as other:
            other.send(wire.client_request("GETINFO", wire.mailslot_name("gone")))
        self.assert_served()
        self.locator.remove_what_clients_left()

    @only_on("linux", "the session of one account under Wine")
    @needs_accounts
    def test_another_account_is_served_and_neither_takes_over_nor_answers(self):
        os.chmod(self.directory, 0o755)
        shown = self.tool_says(self.locator, "devices", "--json", user=65534)
        self.assertEqual(shown.count('"serial"'), 50)
        second = self.start(self.locator.host, native("talvorn-locator"), user=65534,
                            environment=self.locator.environment)
        self.assertEqual(second.wait(), 1)
        self.assertIn("cannot use the runtime directory", second.err)
        self.assert_served()
        # Somebody who writes to all reply mailslots is heard by none.
        liar = self.start(self.locator.host, Program("liar", [
            sys.executable, "-c", _LIAR, self.locator.mailslot("")]), user=65534)
        for _ in range(20):
            self.assertIn("1.0.0.0", self.tool_says(self.locator, "version"))
        liar.kill()


# Answers every client that has a mailslot, as soon and as often as it can.
_LIAR = """
import os, socket, struct, sys
answer = struct.pack("<III", 20, 2, 8) + b"9.9.9.9" + bytes(1)
sender = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
sender.setblocking(False)
while True:
    for name in os.listdir(sys.argv[1]):
        try:
            sender.sendto(answer, os.path.join(sys.argv[1], name))
        except OSError:
            pass
"""
