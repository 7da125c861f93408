"""The command server as client programs see it, the ill-behaved ones included."""

import contextlib
import os
import random
import signal
import socket
import struct
import sys
import threading

from lab import wire
from lab.harness import Program, TestCase, native, only_on, wait_until
from lab.linux_target import memory_file


class Commands(TestCase):
    def setUp(self):
        super().setUp()
        self.locator = self.start_locator(self.network.host("alone"),
                                          settings={"Log Path": "D:\\Start"})

    def test_replies_byte_by_byte(self):
        unknown = b"UNKNOWN COMMAND: "
        path = "D:\\Logs\\"
        temporary = self.locator.temporary.encode() + b"\0"
        cases = [
            ("GETVERSION", (2, 8, b"1.0.0.0\0")), ("getVersion", (2, 8, b"1.0.0.0\0")),
            ("GETVERSION ", (0, 29, unknown + b"GETVERSION \0")),
            ("GETINFO", (3, 0, bytes(367))), ("GetInfo", (3, 0, bytes(367))),
            ("GETITEMS", (4, 0, b"\0")),
            ("GETINFOX", (0, 26, unknown + b"GETINFOX\0")),
            ("GETLOGPATH", (5, 9, b"D:\\Start\0")),
            ("SETLOGPATH;D:\\Logs", None), ("GETLOGPATHS", (5, 9, b"D:\\Logs\\\0")),
            ("SETLOGPATH;D:\\Logs\\", None), ("GETLOGPATH", (5, 9, path.encode() + b"\0")),
            ("SETLOGPATHx;/var/log", None),
            ("GETLOGPATH", (5, 10, b"/var/log" + self.target.AFTER_A_SLASH + b"\0")),
            ("setlogpath;", None), ("GETLOGPATH", (5, 2, b"\\\0")),
            ("SETLOGPATH;a;b", None), ("GETLOGPATH", (5, 5, b"a;b\\\0")),
            ("SETLOGPATH", None),
            ("GETLOGPATH", (5, len(temporary), temporary)),
            ("STARTLOG", None), ("STARTLOGGING", None), ("STOPLOGGING", None),
            ("%s%n %x", (0, 25, unknown + b"%s%n %x\0")),
            ("\x80\xff", (0, 20, unknown + "\x80".encode("latin-1") + b"\xff\0")),
            ("x" * 1006, (0, 1024, unknown + b"x" * 1006 + b"\0")),
            ("x" * 1007, (0, 1, b"\0")), ("x" * 1023, (0, 1, b"\0")), ("", None),
        ]
        with self.locator.client() as client:
            for command, expected in cases:
                with self.subTest(command=command):
                    message = (wire.client_request("", wire.mailslot_name(client.name))[:140]
                               + command.encode("latin-1") + b"\0")
                    client.send(message)
                    if expected is None:  # what comes next must answer the next command
                        client.send(wire.client_request("GETVERSION",
                                                        wire.mailslot_name(client.name)))
                        expected = (2, 8, b"1.0.0.0\0")
                    reply = client.receive()
                    self.assertEqual(struct.unpack("<III", reply[:12]) + (reply[12:],),
                                     (len(reply), *expected))

    def test_reply_name(self):
        long_name = "n" * 50  # 63 characters with the prefix: the longest there is
        with self.locator.client() as default, self.locator.client(long_name) as long:
            default.send(wire.client_request("GETVERSION"))
            self.assertEqual(len(default.receive()), 20)
            self.assertTrue(long.is_served())
            # Too short for a request: answered where the last good one was.
            for size in (0, 4, 7):
                long.send(bytes(size))
                self.assertEqual(long.receive()[12:], b"UNKNOWN COMMAND: INVALID COMMAND\0")
            default.send(wire.client_request("GETVERSION"))
            self.assertEqual(len(default.receive()), 20)
            default.send(b"abcd")
            self.assertEqual(default.receive()[12:], b"UNKNOWN COMMAND: INVALID COMMAND\0")
            # Names count without case, and may hold blanks and dots.
            with self.locator.client("my name. here") as client:
                client.send(wire.client_request("GETVERSION", "\\\\.\\MailSlot\\My Name. here"))
                self.assertEqual(len(client.receive()), 20)
            with self.locator.client("with\\a path") as client:
                self.assertTrue(client.is_served())

    def test_requests_outside_the_limits_are_dropped(self):
        with self.locator.client("victim") as client:
            name = wire.mailslot_name("victim")
            good = wire.client_request("GETVERSION", name)
            field = name.encode("utf-16-le")
            bad = {
                "another type": wire.client_request("GETVERSION", name, kind=2),
                "reply type": wire.client_request("GETVERSION", name, kind=0xffffffff),
                "command of 1024": wire.client_request("x" * 1024, name),
                "command of many": wire.client_request("x" * 100000, name),
                "command without end": good[:-1],
                "no command": good[:140], "no name": good[:8], "half a name": good[:139],
                "name of 64": good[:8] + ("\\\\.\\mailslot\\" + "n" * 51).encode("utf-16-le")
                              .ljust(132, b"\0") + good[140:],
                "name without end": good[:8] + field + b"n\0" * (66 - len(field) // 2) + good[140:],
            }
            for what, message in bad.items():
                with self.subTest(what):
                    client.send(message)
                    self.assertTrue(client.is_served())  # and no other reply came before
            client.send(good + b"trailing" * 1000)
            self.assertEqual(len(client.receive()), 20)

    def test_reply_names_that_are_no_mailslot(self):
        prefix = "\\\\.\\mailslot\\"
        names = [prefix + rest for rest in (
            "", ".", "..", "../outside", "..\\outside", "sub/inner", "sub\\\\good", "sub\\..\\good",
            "good\\", "\\good", "absent\\good", "absent",
            "good\n", "./good", "good/", "/good", "talvorn_out", "\x01", "\ud83d", "g\u00f6\u00f6d",
            "good:stream", "*")]
        names += ["good", "\\\\.\\pipe\\good", "\\\\.\\PhysicalDrive0", "C:\\windows\\x", "CON",
                  "/tmp/x", "\\\\server\\mailslot\\good", "\\\\*\\mailslot\\good",
                  "\\\\?\\mailslot\\good", "//./mailslot/good", "\\\\.\\mailslot", prefix[1:] + "good"]
        with self.locator.client("good") as good:
            self.assert_unanswered(good, names)
        if self.target.NAME == "windows":  # where every opening is seen
            opened = [name for name in self.locator.event_log.opened if name != "\\\\.\\Nsi"]
            self.assertIn(prefix + "good", opened)
            for name in opened:
                self.assertTrue(name.startswith(prefix), name)
                self.assertNotIn("/", name)
                self.assertTrue({"", ".", ".."}.isdisjoint(name[len(prefix):].split("\\")), name)

    def assert_unanswered(self, good, names):
        for name in names:
            with self.subTest(name):
                units = name.encode("utf-16-le", "surrogatepass")
                if len(units) > 126:
                    continue
                good.send(struct.pack("<II", 0, 1) + units.ljust(132, b"\0") + b"GETVERSION\0")
                self.assertTrue(good.is_served())  # and no other reply came before

    @only_on("linux", "mailslots are files there")
    def test_what_stands_beside_the_mailslots(self):
        folder = os.path.dirname(self.locator.mailslot("x"))
        os.mkdir(self.locator.mailslot("sub"), 0o777)
        with self.locator.client("sub/inner") as inner, \
                self.locator.client("../outside") as outside, \
                self.locator.client("good") as good:
            os.symlink("good", self.locator.mailslot("link"))
            os.symlink(outside.path, self.locator.mailslot("link_outside"))
            os.mkfifo(self.locator.mailslot("pipe"), 0o666)
            with open(self.locator.mailslot("file"), "w", encoding="ascii") as file:
                file.write("untouched")
            self.assert_unanswered(good, [wire.mailslot_name(name) for name in (
                "../outside", "sub/inner", "sub", "link", "link_outside", "pipe", "file",
                outside.path)] + [outside.path, inner.path])
            for other in (inner, outside):
                self.assertIsNone(other.receive(0))
            with open(self.locator.mailslot("file"), encoding="ascii") as file:
                self.assertEqual(file.read(), "untouched")
            self.assertEqual(sorted(os.listdir(folder)),
                             ["file", "good", "link", "link_outside", "pipe", "sub"])
        for name in ("link", "link_outside", "pipe", "file"):
            os.unlink(self.locator.mailslot(name))
        os.rmdir(self.locator.mailslot("sub"))

    @only_on("linux", "messages carry descriptors there")
    def test_strange_carriers(self):
        """Datagrams with descriptors that are no sealed memory files."""
        with self.locator.client() as client:
            good = wire.client_request("GETVERSION", wire.mailslot_name(client.name))
            pipe = os.pipe()
            endless = os.memfd_create("endless", os.MFD_ALLOW_SEALING)
            os.truncate(endless, 1 << 40)
            cases = {"unsealed": memory_file(good, seals=0), "a pipe": pipe[0],
                     "endless": endless, "a folder": os.open("/", os.O_RDONLY),
                     "a device": os.open("/dev/zero", os.O_RDONLY),
                     "the mailslot itself": client.fileno()}
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
                sender.connect(self.locator.mailslot("talvorn_out"))
                for what, descriptor in cases.items():
                    with self.subTest(what):
                        for content in (b"", b"text"):
                            self._send_along(sender, content, [descriptor])
                            self._send_along(sender, content, [descriptor] * 100)
                        self._served_in_the_end(client)
                for _ in range(300):
                    self._send_along(sender, b"", [pipe[0], pipe[1]])
                self._served_in_the_end(client)
                wait_until(lambda: len(os.listdir(f"/proc/{self.locator.pid}/fd")) < 100,
                           "what was sent along to be closed")

    @staticmethod
    def _send_along(sender, content, descriptors):
        """Newer kernels keep descriptors from the locator's mailslot altogether."""
        with contextlib.suppress(PermissionError):
            socket.send_fds(sender, [content], descriptors)

    def _served_in_the_end(self, client):
        """None of the strange ones was served; each may have been too short a message."""
        client.ask("GETLOGPATH")
        while True:
            reply = client.receive()
            self.assertIsNotNone(reply)
            if reply[4] == 5:
                return
            self.assertEqual(reply[12:], b"UNKNOWN COMMAND: INVALID COMMAND\0")


class IllBehavedClients(TestCase):
    def setUp(self):
        super().setUp()
        here, there = self.simple_network()
        self.locator = self.start_listening(here, settings={"Time Response Valid": 600000})
        station = self.station(there, "dev0", "192.168.10.20")
        for serial in range(1, 51):
            station.send(wire.record(serial))
        wait_until(lambda: len(self.locator.devices()) == 50, "the devices")

    def assert_served(self, times=20):
        with self.locator.client("well_behaved") as client:
            for _ in range(times):
                self.assertEqual(len(client.devices()), 50)

    def test_one_that_never_reads(self):
        with self.locator.client("never_reads") as client:
            for _ in range(500):
                client.ask("GETINFO")
            self.assert_served()

    def test_many_that_flood(self):
        stop = threading.Event()

        def flood(seed):
            chance = random.Random(seed)
            good = wire.client_request("GETINFO", wire.mailslot_name(f"nobody{seed}"))
            with self.locator.client(f"flood{seed}") as client:
                # What is shorter than 8 bytes is answered to whoever asked last.
                while not stop.is_set():
                    with contextlib.suppress(OSError):
                        client.send(chance.choice((good, chance.randbytes(chance.randrange(8, 2000)))))
        threads = [threading.Thread(target=flood, args=(seed,)) for seed in range(3)]
        for thread in threads:
            thread.start()
        try:
            self.assert_served()
        finally:
            stop.set()
            for thread in threads:
                thread.join()

    def test_killed_in_mid_exchange(self):
        for _ in range(5):
            tool = self.tool(self.locator, "devices", "--watch")
            wait_until(lambda: tool.out, "its first table")
            tool.signal(signal.SIGKILL)
            tool.wait()
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
    def test_another_account(self):
        with open("/proc/self/uid_map", encoding="ascii") as accounts:
            if accounts.read().split()[2] == "1":
                self.skipTest("there is only one account here")
        os.chmod(self.directory, 0o755)
        tool = self.tool(self.locator, "devices", "--json", user=65534)
        self.assertEqual(tool.wait(), 0, tool.err)
        self.assertEqual(tool.out.count('"serial"'), 50)
        # It cannot be the locator for others.
        second = self.start(self.locator.host, native("talvorn-locator"), user=65534,
                            environment=self.locator.environment)
        self.assertEqual(second.wait(), 1)
        self.assertIn("cannot use the runtime directory", second.err)
        self.assert_served()

    @only_on("linux", "the session of one account under Wine")
    def test_answers_of_another_account(self):
        """Somebody who writes to all reply mailslots is heard by none."""
        with open("/proc/self/uid_map", encoding="ascii") as accounts:
            if accounts.read().split()[2] == "1":
                self.skipTest("there is only one account here")
        os.chmod(self.directory, 0o755)
        liar = self.start(self.locator.host, Program("liar", [sys.executable, "-c", _LIAR,
                                                       self.locator.mailslot("")]), user=65534)
        for _ in range(20):
            tool = self.tool(self.locator, "version")
            self.assertEqual(tool.wait(), 0, tool.err)
            self.assertIn("1.0.0.0", tool.out)
        liar.signal(signal.SIGKILL)
        liar.wait()


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
