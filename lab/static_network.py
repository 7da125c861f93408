"""What the tests of static devices stand on: a network behind a router, the file that
lists the devices, and devices that answer the status query to the letter of a script.
"""

import contextlib
import os
import re
import socket
import struct
import subprocess
import threading
import time

from lab import wire
from lab.harness import stays_true, wait_until

REPLY_TYPE = 0x80000006
REQUEST = re.compile(rb"\0\0\0\xaf\0\0\0\x06\0\0\0\0DEVICE STATUS;SID="
                     rb"([0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12})\0{109}", re.DOTALL)
CLOSE = object()  # in a script: close the connection


def reply(record, kind=REPLY_TYPE, length=None):
    """A reply frame; `record` is a device record with its items."""
    length = 12 + len(record) if length is None else length
    return struct.pack(">III", length, kind, 0x55AA55AA) + record


def settings(file, gap=100, valid=600000, **others):
    """Settings of a locator that works with that file, and asks nobody by multicast."""
    return {"TAL-VORN INI-File Static Devices": file, "Time Request Gap IFSTATIC": gap,
            "Time Response Valid IFSTATIC": valid, "Time Response Valid": 600000,
            "Time Request": 600000, **others}


class DeviceFile:
    """The file that lists the devices: {section: address, or None to resolve its name}."""

    def __init__(self, directory, sections=None):
        self.path = os.path.join(directory, "static-devices.ini")
        if sections is not None:
            self.write(sections)

    def write(self, sections):
        text = "".join(f"[{name}]\n" + (f"IpAddress={address}\n" if address else "")
                       for name, address in sections.items())
        self.write_text(text)

    def write_text(self, text):
        """Replaces the file in one step."""
        with open(self.path + ".new", "w", encoding="latin-1") as file:
            file.write(text)
        os.rename(self.path + ".new", self.path)


class RoutedNetwork:
    """The locator's host (192.168.10.1), a router, and behind it a host of devices whose
    addresses are in 10.20.0.0/16, where nobody else answers. What goes to 10.30.0.0/16
    the router drops without a word; what goes to 10.40.0.0/16 it refuses."""

    def __init__(self, network):
        near, self.far = network.switch(), network.switch()
        self.here, self.router, self.there = (network.host(name) for name in
                                              ("here", "router", "there"))
        self.here.connect(near, "net0", "192.168.10.1/24")
        self.router.connect(near, "r0", "192.168.10.254/24")
        self.router.connect(self.far, "r1", "10.20.255.254/16")
        self.there.connect(self.far, "dev0")
        self.here.ip("route", "add", "10.0.0.0/8", "via", "192.168.10.254")
        self.router.ip("route", "add", "blackhole", "10.30.0.0/16")
        self.router.ip("route", "add", "prohibit", "10.40.0.0/16")
        with self.router, open("/proc/sys/net/ipv4/ip_forward", "w", encoding="ascii") as file:
            file.write("1")

    def add_devices(self, addresses):
        """Gives the host of devices these addresses, and its way back."""
        self.there.add_addresses("dev0", [f"{address}/16" for address in addresses])
        self.there.ip("route", "replace", "default", "via", "10.20.255.254")


class Exchange:
    """One connection of a locator to a scripted device; times as of time.monotonic()."""

    def __init__(self, address):
        self.address = address
        self.request = b""
        self.began = time.monotonic()
        self.ended = None  # when the locator had closed, or the script had

    @property
    def sid(self):
        match = REQUEST.fullmatch(self.request)
        return match and match.group(1).decode()


class ScriptedDevices:
    """Answers on every address of a host as the script of the address says: bytes are
    sent in one piece, numbers are pauses in seconds. After its script a device waits
    until the locator closes."""

    def __init__(self, host, scripts):
        self._scripts = scripts
        self.exchanges = []
        with host:
            self._listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self._listener.bind(("", wire.PORT))
        self._listener.listen(512)
        self._threads = [threading.Thread(target=self._accept, daemon=True)]
        self._threads[0].start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            exchange = Exchange(connection.getsockname()[0])
            self.exchanges.append(exchange)
            thread = threading.Thread(target=self._serve, args=(connection, exchange), daemon=True)
            thread.start()
            self._threads.append(thread)

    def _serve(self, connection, exchange):
        with connection, contextlib.suppress(OSError):
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            connection.settimeout(60)
            while len(exchange.request) < 175:
                part = connection.recv(1000)
                if not part:
                    break
                exchange.request += part
            for step in self._scripts[exchange.address]:
                if step is CLOSE:
                    connection.close()
                    break
                if isinstance(step, bytes):
                    connection.sendall(step)
                else:
                    time.sleep(step)
            else:
                while True:
                    part = connection.recv(1000)
                    if not part:
                        break
                    exchange.request += part
        exchange.ended = time.monotonic()

    def of(self, address):
        return [one for one in list(self.exchanges) if one.address == address]

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._threads[0].join()
        self._listener.close()
        for thread in self._threads[1:]:
            thread.join()


class TruncatingNameServer:
    """Refers whoever asks to TCP, takes the connection and says nothing. The resolver waits
    for it without end."""

    def __init__(self, host, address):
        self.taken = []
        with host:
            self._datagrams = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self._listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self._datagrams.bind((address, 53))
        self._listener.bind((address, 53))
        self._listener.listen(64)
        for work in (self._answer, self._take):
            threading.Thread(target=work, daemon=True).start()

    def _answer(self):
        with contextlib.suppress(OSError):
            while True:
                query, client = self._datagrams.recvfrom(4096)
                # An answer that is cut, to the one question.
                self._datagrams.sendto(query[:2] + b"\x83\x80" + query[4:6] + bytes(6) + query[12:],
                                       client)

    def _take(self):
        with contextlib.suppress(OSError):
            while True:
                self.taken.append(self._listener.accept()[0])

    def close(self):
        for one in (self._datagrams, self._listener, *self.taken):
            one.close()


class NameFiles:
    """The system's files for names, replaced for this program and what it starts."""

    def __init__(self, directory, server="10.30.0.53"):
        """Unless said otherwise the name server never answers: who asks for a name waits."""
        self._directory = directory
        self._mounted = []
        self._put("resolv.conf",
                  f"nameserver {server}\nsearch .\noptions timeout:2 attempts:1\n")
        self._put("nsswitch.conf", "hosts: files dns\n")
        self._hosts = self._put("hosts", "127.0.0.1 localhost\n")

    def _put(self, name, text):
        path = os.path.join(self._directory, name)
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
        target = os.path.realpath(os.path.join("/etc", name))
        if not os.path.exists(target):
            return path  # a link to what is hidden here: the resolver's own choice will do
        subprocess.run(["mount", "--bind", path, target], check=True)
        self._mounted.append(target)
        return path

    def add(self, address, *names):
        with open(self._hosts, "a", encoding="ascii") as file:
            file.write(" ".join((address, *names)) + "\n")

    def close(self):
        for target in self._mounted:
            subprocess.run(["umount", target], check=True)


_LOG_LINE = re.compile(r"^ *(\d+)\.(\d+)  status query at ([\d.]+), SID=(\S+)$", re.MULTILINE)


def logged_queries(simulator):
    """[(seconds, address, SID)] from the log of a simulator, in the order of arrival."""
    return [(int(whole) + int(part) / 1000, address, sid)
            for whole, part, address, sid in _LOG_LINE.findall(simulator.out)]


def query_threads(process):
    """How many queries are under way."""
    return sum(name.startswith("status-query") for name in process.task_values("comm"))


def _counts(process):
    return len(os.listdir(f"/proc/{process.pid}/task")), len(os.listdir(f"/proc/{process.pid}/fd"))


def steady_counts(process):
    """(threads, descriptors) of a program, once they stay the same."""
    def steady():
        found = _counts(process)
        return found if stays_true(lambda: _counts(process) == found, 2) else None
    return wait_until(steady, "steady counts")


def addresses(count, first="10.20.0.1"):
    (number,) = struct.unpack(">I", socket.inet_aton(first))
    return [socket.inet_ntoa(struct.pack(">I", number + n)) for n in range(count)]
