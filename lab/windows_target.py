"""The locator for Windows under Wine: what stands around it, and its clients.

Everything of one host shares a Wine session: a copy of the prepared prefix, whose
processes all live in the host's network namespace. A probe beside the locator, a
Windows program of the tests' own, speaks through mailslots and looks at named objects.
The event log and the debugger's output are read from Wine's own traces.
"""

import contextlib
import os
import re
import subprocess
import tempfile
import threading
import time

from lab import harness, network
from lab.harness import LIMIT, Entry, Program

NAME = "windows"
FAMILIES = (4,)
AFTER_A_SLASH = b"\\"
CODE_PAGE = "cp1252"
ACCOUNT = "given"  # Wine does not show which

_WINE = os.path.join(harness.ROOT, "cmake", "run_under_wine.sh")
# What Wine traces of a locator: reports with their sources, files that it opens, and
# the debugger's output.
_TRACED = "-all,err+virtual,+eventlog,+relay"
_RELAYED = ("advapi32.RegisterEventSourceW;advapi32.ReportEventW;kernel32.CreateFileW;"
            "kernel32.OutputDebugStringA;kernel32.OutputDebugStringW")
# What Wine says when it could not load a program that is there, as happens now and then
# where addresses are random; it exits with 1.
_REFUSALS = ("ShellExecuteEx failed: Internal error", "failed to map the shared user data")
_ALREADY_EXISTS = "error 183"
_KINDS = {1: "error", 2: "warning", 4: "information"}
# Sources that one thread has open at once: Wine gives all of them the same handle.
_SOURCE_OF = {"Multicast request sent": "CAST REQUEST",
              "Multicast request received": "CAST RECEIVE"}
_ESCAPE = re.compile(r"\\(?:([nrt\\\"'])|x([0-9a-f]{2})|([0-9a-f]{4}))")
_PLAIN = {"n": "\n", "r": "\r", "t": "\t"}


class Settings:
    """Set once, by run.py."""
    binaries = ""  # the folder of the programs for Windows
    template = ""  # a prepared Wine prefix


class Session:
    """Wine in a host's network namespace, until the host goes."""

    def __init__(self, host):
        self.host = host
        folder, name = os.path.split(Settings.template)
        self._prefix = tempfile.mkdtemp(prefix=name + ".copy-", dir=folder)
        self._wine("--copy", self._prefix)
        with open(os.path.join(self._prefix, "user.reg"), "a", encoding="ascii") as registry:
            registry.write(f'\n[Software\\\\Wine\\\\Debug] 1\n"RelayInclude"="{_RELAYED}"\n')
        self._lock = threading.Lock()
        # Nothing else starts before it answers: it keeps the session's server alive.
        for _ in range(harness.Process.STARTS):
            with host:
                self._probe = subprocess.Popen(
                    self.program("talvorn-probe").command, stdin=subprocess.PIPE,
                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, encoding="utf-8")
            with contextlib.suppress(OSError):
                if self.order("exists", "mutex", "of_nobody") == "no":
                    return
            print("talvorn-probe is started again")
            self._probe.communicate()
        raise AssertionError("the probe cannot be started")

    @staticmethod
    def of(host):
        """The host's session, which begins with the first call."""
        if not hasattr(host, "wine"):
            host.wine = Session(host)
            host.on_close(host.wine.close)
        return host.wine

    def _wine(self, *arguments):
        with self.host:
            subprocess.run([_WINE, *arguments], check=True, timeout=LIMIT,
                           stdin=subprocess.DEVNULL)

    def program(self, name, traced=False):
        return self.any_program(os.path.join(Settings.binaries, name + ".exe"), name,
                                {"WINEDEBUG": _TRACED} if traced else {})

    def any_program(self, path, name=None, environment=()):
        """One of Windows, by its name, or any other, by its path."""
        return Program(name or path, [_WINE, "--in", self._prefix, path], dict(environment),
                       _REFUSALS)

    @property
    def drive(self):
        """The folder that drive C is."""
        return os.path.join(self._prefix, "drive_c")

    def order(self, *words):
        """The probe's answer, of which "error NUMBER" is raised as OSError."""
        with self._lock:
            self._probe.stdin.write(" ".join(map(str, words)) + "\n")
            self._probe.stdin.flush()
            answer = self._probe.stdout.readline().rstrip("\n")
        kind, _, rest = answer.partition(" ")
        if kind == "error" or not kind:
            raise OSError(f"{' '.join(map(str, words))[:100]}: {answer or 'the probe has ended'}")
        return rest if kind == "ok" else answer

    def import_file(self, path):
        with tempfile.TemporaryDirectory() as directory:
            status = harness.Process(self.host, self.any_program("regedit"), "/S",
                                     windows_path(path),
                                     directory=directory).wait()
        if status != 0:
            raise AssertionError(f"regedit ended with {status}")

    def close(self):
        self._probe.stdin.close()
        self._probe.stdout.close()
        self._wine("--drop", self._prefix)
        self._probe.wait()


def windows_path(path):
    return "Z:" + os.path.realpath(path).replace("/", "\\")


class WineTrace(harness.EventLog):
    """What Wine says of a process, read as it is written. Of each text it shows some 300
    characters."""

    _LINE = re.compile(r"([0-9a-f]{4}):(.*)")
    _REGISTER = re.compile(r'Call advapi32\.RegisterEventSourceW\([0-9a-f]+,[0-9a-f]+ L"(.*?)"\)')
    _REPORT = re.compile(r"Call advapi32\.ReportEventW\(([0-9a-f,]+)\)")
    _TEXT = re.compile(r'\w+:eventlog:ReportEventW L"((?:[^"\\]|\\.)*)"(\.\.\.)?')
    _OUTPUT = re.compile(
        r'Call KERNEL32\.OutputDebugString[AW]\([0-9a-f]+ L?"((?:[^"\\]|\\.)*)"(\.\.\.)?')
    _OPEN = re.compile(r'Call KERNEL32\.CreateFileW\([0-9a-f]+ L"((?:[^"\\]|\\.)*)"')

    def __init__(self, path):
        self._path = path
        self._offset = 0
        self._entries, self._output, self._opened = [], [], []
        self._sources = {}  # of each thread, in the order in which it opened them
        self._reports = {}
        self._lock = threading.Lock()

    def _take(self):
        with self._lock:
            with open(self._path, "rb") as file:
                file.seek(self._offset)
                text = file.read()
            text = text[:text.rfind(b"\n") + 1]
            self._offset += len(text)
            for line in text.decode("latin-1").splitlines():
                match = self._LINE.match(line)
                if match:
                    self._take_line(*match.groups())

    def _take_line(self, thread, line):
        if found := self._REGISTER.match(line):
            self._sources.setdefault(thread, []).append(found[1])
        elif found := self._REPORT.match(line):
            self._reports[thread] = [int(one, 16) for one in found[1].split(",")]
        elif found := self._TEXT.match(line):
            text = _unescaped(found[1])
            _, kind, category, event_id, account, *_ = self._reports.pop(thread)
            self._entries.append(Entry(
                text, _KINDS[kind & 0xffff], self._source(thread, text), event_id & 0xffffffff,
                category & 0xffff, ACCOUNT if account else "none", bool(found[2])))
        elif found := self._OUTPUT.match(line):
            self._output.append(_unescaped(found[1]) + ("\n" if found[2] else ""))
        elif found := self._OPEN.match(line):
            self._opened.append(_unescaped(found[1]))

    def _source(self, thread, text):
        sources = self._sources.get(thread, [])
        said = [source for start, source in _SOURCE_OF.items() if text.startswith(start)]
        return next((source for source in said if source in sources), (sources or [""])[-1])

    @property
    def entries(self):
        self._take()
        return self._entries

    @property
    def output(self):
        self._take()
        return "".join(self._output)

    @property
    def opened(self):
        """The names of the files and devices that the process opened."""
        self._take()
        return list(self._opened)


def _unescaped(text):
    def plain(match):
        simple, byte, unit = match.groups()
        if simple:
            return _PLAIN.get(simple, simple)
        return bytes.fromhex(byte).decode("cp1252") if byte else chr(int(unit, 16))
    return _ESCAPE.sub(plain, text)


class Registry(harness.Registry):
    """The settings of a session. Whatever is written is imported as users do it."""

    def __init__(self, session, path, settings):
        self._session = session
        self.path = path
        super().__init__(settings)

    def write(self, text=None):
        # As an exported key is encoded.
        with open(self.path, "w", encoding="utf-16") as file:
            file.write(self.text() if text is None else text)
        self._session.import_file(self.path)

    def take(self, path):
        self._session.import_file(path)

    def line(self, key, name):
        """A value as an export would show it."""
        kind, _, content = self._session.order(
            "value", key.removeprefix("HKEY_LOCAL_MACHINE\\") + "|" + name).partition(" ")
        content = bytes.fromhex(content)
        if kind == "4" and len(content) == 4:
            return self.value_line(name, int.from_bytes(content, "little"))
        return self.value_line(name, content.decode("utf-16-le")[:-1] if kind == "1" else content)


class Locator(harness.Locator):
    """talvorn-locator.exe in its host's Wine session."""

    def __init__(self, host, *arguments, directory, settings=(), settings_file=None,
                 registry=None, beside=None, environment=(), **options):
        """Whether or not it is to be beside another one: a session shares everything."""
        self.host = host
        self.session = Session.of(host)
        home = tempfile.mkdtemp(prefix="locator-", dir=directory)
        self.registry = registry or Registry(self.session, os.path.join(home, "settings.reg"),
                                             settings)
        if settings_file:
            self.registry.take(settings_file)
        super().__init__(host, self.session.program("talvorn-locator", traced=True), *arguments,
                         directory=home, environment=environment, **options)

    def _start(self):
        super()._start()
        self.event_log = WineTrace(self._err_path)

    @property
    def temporary(self):
        """The directory for temporary files, as the locator names it."""
        return self.session.order("temporary")

    @property
    def debug_output(self):
        return self.event_log.output

    def takes_messages(self):
        return self.exists("mailslot", "talvorn_out")

    def stop(self, **_):
        """Ends it from outside, as its users do; one that has ended by itself did so in
        order."""
        if self.ended:
            status = self.wait()
            if status != 0:
                raise AssertionError(f"the locator ended with {status}:\n{self.err[-4000:]}")
        else:
            self.kill()

    def files(self):
        return []

    def left_by_clients(self):
        return []

    def remove_what_clients_left(self):
        """Nothing stays of a process that has ended."""

    def client(self, name="talvorn_in"):
        return Client(self, name)

    def exists(self, kind, name):
        """Whether a mutex, an event or a mailslot of this name exists."""
        return self.session.order("exists", kind, name) == "yes"

    def is_set(self, name):
        return self.session.order("set", name) == "yes"

    def watch(self, name):
        return WatchedEvent(self.session, name)


class WatchedEvent:
    """An event that another program waits for."""

    def __init__(self, session, name):
        self._session = session
        self._id = session.order("watch", name)

    @property
    def signal(self):
        """Another value after each pulse that was not missed."""
        return int(self._session.order("pulses", self._id))

    def close(self):
        self._session.order("close", self._id)


def tool(locator):
    """The command-line tool beside a locator."""
    return locator.session.program("talvorn")


class Client(harness.Client):
    def __init__(self, locator, name):
        super().__init__(name)
        self._session = locator.session
        with network.larger_sockets():
            self._id = harness.wait_until(self._made, f"the name {name} to be free")

    def _made(self):
        try:
            return self._session.order("mailslot", self.name)
        except OSError as error:
            # The last one of this name stays for as long as somebody writes to it.
            if not str(error).endswith(_ALREADY_EXISTS):
                raise
            return None

    def close(self):
        with contextlib.suppress(OSError):
            self._session.order("close", self._id)

    die = close

    def send(self, message):
        self._session.order("write", "talvorn_out", message.hex())

    def receive(self, limit=LIMIT):
        """The next reply, or None when none comes in time."""
        deadline = time.monotonic() + limit
        while True:
            answer = self._session.order("read", self._id)
            if answer != "none":
                return bytes.fromhex(answer.removeprefix("message").strip())
            if time.monotonic() >= deadline:
                return None
            time.sleep(0.005)
