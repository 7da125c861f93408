"""What the end-to-end tests stand on: the real programs in private networks, their
event log, raw mailslot clients, stations that speak the wire format, and captures of
what really went over a network.

The locator and the tool are those of one target, Linux or Windows under Wine; the
modules linux_target and windows_target say how each is started and looked at from
outside. Nothing here sleeps and hopes: tests wait for conditions with wait_until().
"""

import contextlib
import datetime
import functools
import os
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time
import unittest
from typing import NamedTuple

from lab import wire
from lab.network import Network

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")  # of the project
LIMIT = 60.0  # seconds that any condition may take on a slow, busy machine

SETTINGS_KEY = r"HKEY_LOCAL_MACHINE\Software\Kestrow\TAL-VORN\Settings"
INTERFACES_KEY = r"HKEY_LOCAL_MACHINE\SOFTWARE\Kestrow\TAL-VORN\Interfaces"

# Times that keep the tests short. What a test says itself goes before these.
QUICK_SETTINGS = {
    "DebugView": 1,
    "Time Request": 300,
    "Time Master": 2000,
    "Time Response Valid": 1500,
    "Time Network Changes": 150,
}

_SANITIZER_REPORT = re.compile(
    r"==\d+==\s*ERROR|AddressSanitizer|LeakSanitizer|ThreadSanitizer|runtime error:")
_SANITIZER_SETTINGS = {
    "ASAN_OPTIONS": "exitcode=86:detect_leaks=1:detect_stack_use_after_return=1",
    "UBSAN_OPTIONS": "halt_on_error=1:print_stacktrace=1",
    "TSAN_OPTIONS": "exitcode=66:halt_on_error=1:second_deadlock_stack=1",
}


class Options:
    """Set once, before the tests are loaded."""
    binaries = ""  # the folder of the programs for Linux
    target = None  # the module of the locator under test
    short = False


def _left_out_when(condition, reason):
    """Marks a test, or each of a class; looks when it is to run."""
    def mark(test):
        if isinstance(test, type):
            test.setUp = mark(test.setUp)
            return test

        @functools.wraps(test)
        def run(self, *arguments):
            if condition():
                self.skipTest(reason)
            test(self, *arguments)
        return run
    return mark


def _accounts():
    with open("/proc/self/uid_map", encoding="ascii") as accounts:
        return int(accounts.read().split()[2])


def only_on(name, reason):
    """Marks what the other target leaves out."""
    return _left_out_when(lambda: Options.target.NAME != name, reason)


needs_ipv6 = _left_out_when(lambda: 6 not in Options.target.FAMILIES,
                            "Wine 8 tells no program of the IPv6 interfaces")
needs_tshark = _left_out_when(lambda: not shutil.which("tshark"), "there is no tshark here")
needs_accounts = _left_out_when(lambda: _accounts() == 1, "there is only one account here")
# What the shorter set, for slow builds, leaves out.
full_set = _left_out_when(lambda: Options.short, "left out of the short set")


def wait_until(condition, what="the condition", limit=LIMIT):
    """Returns the condition's value as soon as it is true."""
    deadline = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {limit:.0f} s in vain for {what}")
        time.sleep(0.01)


def stays_true(condition, seconds):
    """Whether the condition holds for all of that time."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if not condition():
            return False
        time.sleep(0.01)
    return True


def gaps(times):
    return [later - earlier for earlier, later in zip(times, times[1:])]


class Program(NamedTuple):
    """How a program of ours is started."""
    name: str
    command: list
    environment: dict = {}
    refusals: tuple = ()  # in its output: the system could not start it, and may the next time


def native(name):
    return Program(name, [os.path.join(Options.binaries, name)])


class Process:
    """A program in a host's namespace, its output kept in files. One that the system could
    not start is started again."""

    STARTS = 3
    _lost = 0

    def __init__(self, host, program, *arguments, directory, environment=(), stdin=None,
                 stdout=None, stderr=None, user=None, process_group=None):
        self.name = program.name
        self._refusals = program.refusals  # none once it is to end
        self._starts = 0
        command = list(program.command)
        if user is not None:  # who may not enter the folder of the programs
            command[0] = shutil.copy(command[0], tempfile.mkdtemp(dir=directory))
            os.chmod(os.path.dirname(command[0]), 0o755)
        base = tempfile.mktemp(prefix=program.name + "-", dir=directory)
        self._out_path, self._err_path = base + ".out", base + ".err"
        whole = {**os.environ, **_SANITIZER_SETTINGS, **program.environment, **dict(environment)}

        def launch():
            with host, open(self._err_path, "wb") as err, open(self._out_path, "wb") as out:
                return subprocess.Popen(
                    [*command, *arguments], env=whole, stdin=stdin or subprocess.DEVNULL,
                    stdout=stdout or out, stderr=stderr or err, user=user,
                    process_group=process_group)
        self._launch = launch
        self._start()

    def _start(self):
        self._starts += 1
        self._popen = self._launch()
        self.pid = self._popen.pid

    def _was_refused(self):
        """Of one that has ended: whether it was not started, and is now started again."""
        said = self.out + self.err
        if self._starts == self.STARTS or not any(one in said for one in self._refusals):
            return False
        print(f"{self.name} is started again:", said.strip())
        self._start()
        return True

    @property
    def out(self):
        with open(self._out_path, encoding="utf-8", errors="replace") as file:
            return file.read()

    @property
    def err(self):
        with open(self._err_path, encoding="utf-8", errors="replace") as file:
            return file.read()

    @property
    def ended(self):
        return self._popen.poll() is not None and not self._was_refused()

    def signal(self, number):
        self._popen.send_signal(number)

    def wait(self, limit=LIMIT):
        """The exit status; checks that no sanitizer had anything to say."""
        try:
            status = self._popen.wait(limit)
        except subprocess.TimeoutExpired:
            self._refusals = ()
            self._popen.kill()
            self._popen.wait()
            raise AssertionError(f"{self.name} did not end within {limit:.0f} s") from None
        if self._was_refused():
            return self.wait(limit)
        if status == -signal.SIGKILL and self._refusals:
            self._lose_status()
        report = _SANITIZER_REPORT.search(self.err)
        if report:
            raise AssertionError(f"{self.name}: sanitizer report\n" + self.err[report.start():])
        return status

    def _lose_status(self):
        """Wine kills a process that takes longer than a second to end, as on a busy machine;
        nobody can tell its status then. Twice in a run is no accident."""
        Process._lost += 1
        if Process._lost > 1:
            raise AssertionError(f"{self.name} has to be killed to end")
        raise unittest.SkipTest(f"{self.name} took so long to end that its status is lost")

    def kill(self):
        self._refusals = ()
        self._popen.kill()
        self.wait()

    def discard(self):
        """Ends it if it still runs, whatever it makes of that."""
        self._refusals = ()
        if not self.ended:
            self._popen.terminate()
        self.wait()

    def task_values(self, file):
        """Contents of a file of /proc for every thread."""
        base = f"/proc/{self.pid}/task"
        values = []
        for task in os.listdir(base):
            with contextlib.suppress(OSError), open(f"{base}/{task}/{file}",
                                                    encoding="ascii") as one:
                values.append(one.read())
        return values


class Entry(NamedTuple):
    """One entry of the event log."""
    text: str
    kind: str  # "error", "warning" or "information"
    source: str
    event_id: int
    category: int
    account: str
    is_cut: bool = False  # the text is longer than what could be seen of it

    def says(self, text):
        return text.startswith(self.text) if self.is_cut else text == self.text


class EventLog:
    """What the locator reported; a target fills `entries`."""

    def texts(self, source=None):
        """The messages in order, of one source or of all."""
        return [entry.text for entry in list(self.entries) if source in (None, entry.source)]

    def count(self, text):
        return sum(entry.says(text) for entry in list(self.entries))

    def wait_for(self, text, count=1):
        wait_until(lambda: self.count(text) >= count, f"{count} x {text!r} in the event log")


class Registry:
    """The locator's settings, as a file in the format of an exported key. Numbers are
    REG_DWORD, texts REG_SZ, bytes REG_BINARY."""

    def __init__(self, settings):
        """Without settings (None) there is no key."""
        self.extra = ""
        self.settings = {}
        if settings is not None:
            self.settings = {**QUICK_SETTINGS, **dict(settings)}
            self.write()

    @staticmethod
    def value_line(name, value):
        if isinstance(value, int):
            text = f"dword:{value:08x}"
        elif isinstance(value, bytes):
            text = "hex:" + ",".join(f"{byte:02x}" for byte in value)
        else:
            text = '"' + value.replace("\\", "\\\\").replace('"', '\\"') + '"'
        return f'"{name}"={text}'

    def text(self):
        lines = [self.value_line(*pair) for pair in self.settings.items()]
        return "\n".join(["Windows Registry Editor Version 5.00", "", f"[{SETTINGS_KEY}]", *lines,
                          "", self.extra])

    def set(self, name, value):
        self.settings[name] = value
        self.write()


class Locator(Process):
    """A locator and what stands around it. A target adds: registry, event_log,
    debug_output, takes_messages(), client(), stop(), and what it knows of named objects:
    exists(), is_set() and watch()."""

    @property
    def trace(self):
        """The lines of the trace, without the prefix."""
        prefix = "TALVORNApp: "
        return [line.removeprefix(prefix) for line in self.debug_output.splitlines()]

    def wait_ready(self):
        wait_until(lambda: self.ended or ("Service loop entry" in self.event_log.texts()
                                          and self.takes_messages()),
                   "the locator to serve")
        if self.ended:
            raise AssertionError(f"the locator ended with {self.wait()}:\n{self.err}{self.out}")
        return self

    def wait_listening(self, *interfaces):
        """Waits until the receivers of these interfaces are open; each is an IPv4 address
        or an IPv6 index. The request of a thread's first pass tells."""
        count = 1 if self.registry.settings.get("Time Multicast Request Allowed") else 2
        for shown in interfaces:
            family = " IPv6 interface" if isinstance(shown, int) else " IPv4interface"
            self.event_log.wait_for(f"Multicast request sent from network{family}: {shown}", count)
        return self

    def wait_end(self):
        """Its end, by itself and in order."""
        wait_until(lambda: self.ended, "the end")
        self.stop()

    def exchange(self, command):
        """What a client that comes for this command gets."""
        with self.client(f"once_{time.monotonic_ns()}") as client:
            return client.exchange(command)

    def devices(self):
        """{serial: device} as GETINFO gives it now."""
        with self.client(f"devices_{time.monotonic_ns()}") as client:
            return {device["serial"]: device for device in client.devices()}

    def wait_devices(self, count):
        wait_until(lambda: len(self.devices()) == count, f"{count} devices")

    def items(self):
        with self.client(f"items_{time.monotonic_ns()}") as client:
            return client.items()


class Client:
    """A program on the locator's machine that speaks with it through raw mailslots. A
    target adds send(), receive() and close()."""

    def __init__(self, name):
        self.name = name

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def ask(self, command, **options):
        self.send(wire.client_request(command, wire.mailslot_name(self.name), **options))

    def tell(self, command):
        """A command without a reply, and waits until the locator has obeyed."""
        self.ask(command)
        assert self.is_served()

    def exchange(self, command):
        """(type, count, payload) of the reply, whose length is checked."""
        self.ask(command)
        reply = self.receive()
        if reply is None:
            raise AssertionError(f"no reply to {command!r}")
        length, kind, count = struct.unpack_from("<III", reply)
        if length != len(reply):
            raise AssertionError(f"a reply of {len(reply)} bytes says {length}")
        return kind, count, reply[12:]

    def devices(self):
        kind, count, payload = self.exchange("GETINFO")
        assert kind == 3
        return wire.parse_records(payload[:count * wire.RECORD_SIZE])

    def items(self):
        kind, size, payload = self.exchange("GETITEMS")
        assert kind == 4
        return wire.parse_items(payload[:size])

    def is_served(self):
        return self.exchange("GETVERSION") == (2, 8, b"1.0.0.0\0")


class Station:
    """Something on a network that sends datagrams from one address of a host."""

    def __init__(self, host, interface, address, port=0):
        self.family = 6 if ":" in address else 4
        index = host.index(interface)
        with host:
            if self.family == 6:
                self._socket = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
                self._socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, index)
                local = (address, port, 0, index if address.startswith("fe80") else 0)
            else:
                self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                self._socket.setsockopt(
                    socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                    struct.pack("=4s4si", b"", socket.inet_aton(address), index))
                local = (address, port)
            self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            self._socket.bind(local)

    def send(self, data, group=None, port=wire.PORT):
        """To the response group, or to another address."""
        self._socket.sendto(data, (group or wire.RESPONSE_GROUP[self.family], port))

    def send_request(self, data=None):
        self.send(wire.request() if data is None else data, wire.REQUEST_GROUP[self.family])

    def close(self):
        self._socket.close()


class Datagram:
    def __init__(self, when, source, destination, hops, payload):
        self.when = when  # seconds since 1970, by the kernel's clock on arrival
        self.source, self.destination = source, destination
        self.hops = hops
        self.payload = payload


class Capture:
    """Every UDP datagram to our port that passes an interface of a host."""

    def __init__(self, host, interface):
        self.datagrams = []
        with host:
            self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(3))
            self._socket.bind((interface, 3))
        self._stop, self._stop_writer = os.pipe()
        self._thread = threading.Thread(target=self._collect, daemon=True)
        self._thread.start()

    def _collect(self):
        while True:
            ready = select.select([self._socket, self._stop], [], [])[0]
            if self._stop in ready:
                return
            try:
                packet = self._socket.recv(65536)
            except OSError:  # the interface went away
                continue
            self._take(packet)

    def _take(self, packet):
        datagram = self._parse(packet)
        if datagram:
            self.datagrams.append(datagram)

    @staticmethod
    def _parse(packet):
        version = packet[0] >> 4
        if version == 4 and packet[9] == socket.IPPROTO_UDP:
            header, hops = (packet[0] & 15) * 4, packet[8]
            source, destination = (socket.inet_ntop(socket.AF_INET, packet[at:at + 4])
                                   for at in (12, 16))
        elif version == 6 and packet[6] == socket.IPPROTO_UDP:
            header, hops = 40, packet[7]
            source, destination = (socket.inet_ntop(socket.AF_INET6, packet[at:at + 16])
                                   for at in (8, 24))
        else:
            return None
        port, length = struct.unpack_from(">HH", packet, header + 2)
        if port != wire.PORT:
            return None
        payload = packet[header + 8:header + length]
        return Datagram(time.time(), source, destination, hops, payload)

    def requests(self, source=None, family=None):
        """Datagrams to a request group, of one sender or of all."""
        groups = [wire.REQUEST_GROUP[one] for one in (4, 6) if family in (None, one)]
        return [datagram for datagram in list(self.datagrams)
                if datagram.destination in groups and source in (None, datagram.source)]

    def close(self):
        os.write(self._stop_writer, b"x")
        self._thread.join()
        self._socket.close()
        os.close(self._stop)
        os.close(self._stop_writer)


class TestCase(unittest.TestCase):
    """A test with a network of its own. What it starts is ended and checked: exit
    status, sanitizer reports, and what is left in the runtime directory."""

    def setUp(self):
        self.network = Network()
        self.addCleanup(self.network.close)
        self.directory = tempfile.mkdtemp(prefix="test-", dir="/run")
        self._shown = []

    def run(self, result=None):
        def faults():
            return len(result.failures) + len(result.errors) if result else 0
        before = faults()
        result = super().run(result)
        if faults() > before:
            for process in self.__dict__.get("_shown", []):
                self._show(process)
        return result

    @staticmethod
    def _show(process):
        print(f"--- {process.name} {process.pid}, end of its output:")
        print((process.out + process.err)[-1500:])
        if isinstance(process, Locator):
            print("--- end of its event log:")
            for entry in process.event_log.entries[-10:]:
                print(entry.source, entry.kind, repr(entry.text))

    @property
    def target(self):
        return Options.target

    @property
    def families(self):
        """The versions of IP in which the locator under test works."""
        return Options.target.FAMILIES

    def start_locator(self, host, *arguments, ready=True, target=None, **options):
        """A locator that serves; it is stopped in order at the end of the test. `target` is
        another module than that of the locator under test."""
        locator = (target or Options.target).Locator(host, *arguments, directory=self.directory,
                                                     **options)
        self._shown.append(locator)
        self.addCleanup(lambda: locator.ended or locator.stop())
        return locator.wait_ready() if ready else locator

    def start_listening(self, host, *arguments, **options):
        """As start_locator, in the simple network; hears its devices from now on."""
        locator = self.start_locator(host, *arguments, **options)
        shown = ["192.168.10.1"]
        if 6 in self.families and locator.registry.settings.get("IPv6 Active", 1):
            shown.append(host.index("net0"))
        return locator.wait_listening(*shown)

    def start(self, host, program, *arguments, **options):
        process = Process(host, program, *arguments, directory=self.directory, **options)
        self._shown.append(process)
        self.addCleanup(process.discard)
        return process

    def simulate(self, host, *arguments):
        return self.start(host, native("talvorn-sim"), *arguments)

    def tool(self, locator, *arguments, **options):
        """The command-line tool beside a locator."""
        return self.start(locator.host, Options.target.tool(locator), *arguments, **options)

    def tool_says(self, locator, *arguments, **options):
        """What the tool puts out, which is to succeed."""
        tool = self.tool(locator, *arguments, **options)
        self.assertEqual((tool.wait(), tool.err), (0, ""))
        return tool.out

    def station(self, host, interface, address, **options):
        station = Station(host, interface, address, **options)
        self.addCleanup(station.close)
        return station

    def capture(self, host, interface):
        capture = Capture(host, interface)
        self.addCleanup(capture.close)
        return capture

    def host_on(self, switch, interface, *addresses, name=None):
        """A new host with one interface on the switch."""
        host = self.network.host(name or interface)
        host.connect(switch, interface, *addresses)
        return host

    def simple_network(self):
        """One network: the locator's host with `net0` (192.168.10.1, fd00:10::1), and a
        host of devices with `dev0` (192.168.10.20 and .21, fd00:10::20 and ::21)."""
        switch = self.network.switch()
        self.switch = switch
        here = self.host_on(switch, "net0", "192.168.10.1/24", "fe80::1/64", "fd00:10::1/64")
        there = self.host_on(switch, "dev0", "192.168.10.20/24", "192.168.10.21/24",
                             "fe80::20/64", "fd00:10::20/64", "fd00:10::21/64")
        return here, there


class NetworkTestCase(TestCase):
    """A test in the simple network."""

    def setUp(self):
        super().setUp()
        self.here, self.there = self.simple_network()

    def device(self, address="192.168.10.20"):
        """What sends from there as a device does."""
        return self.station(self.there, "dev0", address)

    def wait_heard(self, locator, device, serial=66, **fields):
        """Sends its record until the locator knows it."""
        record = wire.record(serial, **fields)
        wait_until(lambda: (device.send(record), str(serial) in locator.devices())[1],
                   f"device {serial}")


def local_seconds(when, offset_minutes):
    """The count of seconds that a clock at this offset from UTC shows since 1970."""
    zone = datetime.timezone(datetime.timedelta(minutes=offset_minutes))
    shown = datetime.datetime.fromtimestamp(when, zone).replace(tzinfo=datetime.timezone.utc)
    return shown.timestamp()
