"""The locator for Linux: what stands around it, and its clients."""

import array
import contextlib
import fcntl
import os
import pwd
import select
import shutil
import signal
import socket
import struct
import tempfile
import threading

from lab import harness
from lab.harness import LIMIT, Entry, Program

NAME = "linux"
FAMILIES = (4, 6)
CODE_PAGE = "utf-8"
ACCOUNT = pwd.getpwuid(os.getuid()).pw_name
AFTER_A_SLASH = b"/"  # what ends a log path that begins with one

LARGE_MESSAGE = 128 * 1024  # a longer mailslot message travels as a memory file
_F_OFD_SETLK = 37  # a lock that belongs to the open file; Python does not name it yet
_KINDS = {"3": "error", "4": "warning", "6": "information"}


class Journal(harness.EventLog):
    """Takes the place of the system's journal; keeps every entry."""

    def __init__(self, path):
        self.path = path
        self.entries = []
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)
        self._thread = threading.Thread(target=self._collect, daemon=True)
        self._thread.start()

    def _collect(self):
        while True:
            data, descriptors = _receive(self._socket)
            if data == b"end":
                return
            if not data and descriptors:
                data = _whole_file(descriptors[0])
            for descriptor in descriptors:
                os.close(descriptor)
            self.entries.append(self._parse(data))

    @staticmethod
    def _parse(data):
        fields = {}
        while data:
            line, data = data.split(b"\n", 1)
            name, separator, value = line.partition(b"=")
            if not separator:
                (size,) = struct.unpack_from("<Q", data)
                value, data = data[8:8 + size], data[9 + size:]
            fields[name.decode()] = value.decode()
        return Entry(fields["MESSAGE"], _KINDS[fields["PRIORITY"]], fields["SYSLOG_IDENTIFIER"],
                     int(fields["TALVORN_EVENT_ID"]), int(fields["TALVORN_CATEGORY"]),
                     fields["TALVORN_USER"])

    def close(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(b"end", self.path)
        self._thread.join()
        self._socket.close()


def _receive(receiver, size=1 << 20):
    data, ancillary, _, _ = receiver.recvmsg(size, socket.CMSG_SPACE(64))
    descriptors = array.array("i")
    for level, kind, content in ancillary:
        if (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS):
            descriptors.frombytes(content[:len(content) - len(content) % descriptors.itemsize])
    return data, list(descriptors)


def _whole_file(descriptor):
    size = os.fstat(descriptor).st_size
    parts = []
    while sum(map(len, parts)) < size:
        parts.append(os.pread(descriptor, size, sum(map(len, parts))))
    return b"".join(parts)


class Registry(harness.Registry):
    """The settings file."""

    def __init__(self, path, settings):
        self.path = path
        super().__init__(settings)

    def write(self, text=None):
        """Replaces the file in one step."""
        with open(self.path + ".new", "w", encoding="utf-8") as file:
            file.write(self.text() if text is None else text)
        os.rename(self.path + ".new", self.path)

    def take(self, path):
        shutil.copy(path, self.path)

    def read(self):
        with open(self.path, encoding="utf-8") as file:
            return file.read()

    def line(self, key, name):
        """A value as it stands in the file."""
        section = self.read().partition(f"[{key}]")[2].partition("\n[")[0]
        return next(line for line in section.splitlines() if line.startswith(f'"{name}"='))


class Locator(harness.Locator):
    """talvorn-locator with a runtime directory, settings and a journal of its own."""

    def __init__(self, host, *arguments, directory, settings=(), settings_file=None,
                 registry=None, beside=None, runtime_directory=None, environment=(), **options):
        """In a runtime directory of its own, unless one is given, or that of a locator
        beside it."""
        self.host = host
        home = tempfile.mkdtemp(prefix="locator-", dir=directory)
        os.chmod(home, 0o755)
        if beside:
            runtime_directory = beside.runtime_directory
        self.runtime_directory = runtime_directory or os.path.join(home, "runtime")
        if not runtime_directory:
            os.mkdir(self.runtime_directory, 0o755)
        self.registry = registry or Registry(os.path.join(home, "talvorn.reg"),
                                             settings)
        if settings_file:
            self.registry.take(settings_file)
        self.event_log = Journal(os.path.join(home, "journal"))
        self.environment = {
            "TALVORN_RUNTIME_DIR": self.runtime_directory,
            "TALVORN_REGISTRY": self.registry.path,
            "TALVORN_JOURNAL_SOCKET": self.event_log.path,
        }
        super().__init__(host, harness.native("talvorn-locator"), *arguments, directory=home,
                         environment={**self.environment, **dict(environment)}, **options)

    @property
    def debug_output(self):
        return self.err

    @property
    def temporary(self):
        """The directory for temporary files, as the locator names it."""
        return (os.environ.get("TMPDIR") or "/tmp").rstrip("/") + "/"

    def takes_messages(self):
        """Whether a living process has its mailslot."""
        folder, name = os.path.split(self.mailslot("talvorn_out"))
        with contextlib.suppress(OSError), contextlib.ExitStack() as stack:
            # The path itself may be longer than the address of a socket.
            descriptor = os.open(folder, os.O_PATH)
            stack.callback(os.close, descriptor)
            probe = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
            probe.connect(f"/proc/self/fd/{descriptor}/{name}")
            return True
        return False

    def mailslot(self, name):
        folder = () if name == "talvorn_out" else ("mailslot",)
        return os.path.join(self.runtime_directory, *folder, name)

    def object(self, name):
        return os.path.join(self.runtime_directory, "objects", name.removeprefix("Global\\"))

    def files(self):
        """What is in its runtime directory."""
        return [os.path.join(folder, name) for folder, _, files in os.walk(self.runtime_directory)
                for name in files]

    def stop(self, number=signal.SIGTERM, leftovers=()):
        """Ends it in order and checks that it leaves nothing behind."""
        if not self.ended:
            self.signal(number)
        status = self.wait()
        if status != 0:
            raise AssertionError(f"the locator ended with {status}:\n{self.err[-4000:]}")
        left = [path for path in self.files() if path not in leftovers]
        if left:
            raise AssertionError(f"left behind in the runtime directory: {left}")

    def kill(self):
        super().kill()
        self.event_log.close()

    def left_by_clients(self):
        """The files of clients, of the living and of those that were killed."""
        return ([self.mailslot(name) for name in os.listdir(self.mailslot(""))]
                + [self.object(name) for name in os.listdir(self.object(""))
                   if "IN-USE" in name or "DRAVIK_CHANGES" in name])

    def remove_what_clients_left(self):
        for path in self.left_by_clients():
            os.unlink(path)

    def client(self, name="talvorn_in"):
        return Client(self, name)

    def exists(self, _kind, name):
        """Whether a mutex or an event of this name exists."""
        return os.path.exists(self.object(name))

    def is_set(self, name):
        return _event_state(self.object(name))[0]

    def watch(self, name):
        return WatchedEvent(self.object(name))


def _event_state(path):
    """(whether it is set, a number that is another one after each pulse)"""
    with open(path, "rb") as file:
        mark, _, state, _, signal_number, _ = struct.unpack("<4sIIIQQ", file.read(32))
    assert mark == b"TLVO"
    return state != 0, signal_number


class WatchedEvent:
    """An event as another program makes it: a file that it holds a lock on."""

    def __init__(self, path):
        self._path = path
        self._file = open(path, "w+b")
        self._file.write(struct.pack("<4sIIIQQ", b"TLVO", 2, 0, 0, 7, 0))
        self._file.flush()
        lock = struct.pack("hhxxxxqqixxxx", fcntl.F_RDLCK, os.SEEK_SET, 0, 1, 0)
        fcntl.fcntl(self._file, _F_OFD_SETLK, lock)

    @property
    def signal(self):
        """Another value after each pulse."""
        return _event_state(self._path)[1]

    def close(self):
        self._file.close()
        os.unlink(self._path)


def tool(locator):
    """The command-line tool beside a locator."""
    return Program(*harness.native("talvorn")[:2], locator.environment)


class Client(harness.Client):
    def __init__(self, locator, name):
        super().__init__(name)
        self._locator = locator
        self.path = locator.mailslot(name)
        with locator.host:  # whose limits count, such as the number of messages that wait
            self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(self.path)

    def fileno(self):
        return self._socket.fileno()

    def close(self):
        self.die()
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)

    def die(self):
        """Ends as a killed program does, its mailslot left behind."""
        self._socket.close()

    def send(self, message):
        """Sends raw bytes, as a memory file when they are many."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.settimeout(LIMIT)
            sender.connect(self._locator.mailslot("talvorn_out"))
            if len(message) <= LARGE_MESSAGE:
                sender.send(message)
                return
            descriptor = memory_file(message)
            socket.send_fds(sender, [b""], [descriptor])
            os.close(descriptor)

    def receive(self, limit=LIMIT):
        """The next reply, or None when none comes in time."""
        if not select.select([self._socket], [], [], limit)[0]:
            return None
        data, descriptors = _receive(self._socket)
        if not data and descriptors:
            data = _whole_file(descriptors[0])
        for descriptor in descriptors:
            os.close(descriptor)
        return data


def memory_file(content, seals=None):
    descriptor = os.memfd_create("message", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
    os.write(descriptor, content)
    if seals is None:
        seals = fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_GROW | fcntl.F_SEAL_WRITE | fcntl.F_SEAL_SEAL
    if seals:
        fcntl.fcntl(descriptor, fcntl.F_ADD_SEALS, seals)
    return descriptor
