"""The client library, as programs of other languages use it: the examples, and what happens
when the locator does not do its part."""

import json
import os
import shutil
import signal
import subprocess
import sys

from lab import wire
from lab.harness import NetworkTestCase, Options, Program, full_set, needs_accounts, only_on
from lab.harness import wait_until

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXAMPLES = os.path.join(ROOT, "examples")

# Python programs under test begin so.
PREAMBLE = """
import select, sys, threading, time
import talvorn
from talvorn import Status

def status_of(call, *arguments):
    started = time.monotonic()
    try:
        call(*arguments)
        return "OK"
    except talvorn.Error as error:
        return Status(error.code).name

def say(*words):
    print(*words, flush=True)

def told():
    return sys.stdin.readline().strip()
"""


def library():
    return os.path.join(Options.binaries, "libtalvorn.so.1")


class LibraryTestCase(NetworkTestCase):
    def beside(self, locator, name, *command, **options):
        """A program that reaches this locator through the library."""
        program = Program(name, list(command), {
            **locator.environment, "LD_LIBRARY_PATH": Options.binaries,
            "TALVORN_LIBRARY": library(), "PYTHONPATH": os.path.join(EXAMPLES, "python")})
        return self.start(locator.host, program, **options)

    def python(self, locator, code):
        """A program of Python; `tell` writes it a line."""
        read, write = os.pipe()
        told = self.enterContext(os.fdopen(write, "w"))
        with os.fdopen(read) as stdin:
            process = self.beside(locator, "python", sys.executable, "-B", "-c", PREAMBLE + code,
                                  stdin=stdin)
        process.tell = lambda line: print(line, file=told, flush=True)
        return process

    def simulated(self, locator, count=2):
        self.simulate(self.there, "--interface", "dev0", "--ipv4", "--devices", str(count))
        locator.wait_devices(count)


class Examples(LibraryTestCase):
    def expected(self, locator):
        return [f"{one['serial']} {one['status']} {one['alias']}" for one in self.known(locator)]

    def known(self, locator):
        return json.loads(self.tool_says(locator, "devices", "--json"))["devices"]

    def check(self, locator, program):
        self.assertEqual((program.wait(), program.err), (0, ""))
        # States change while devices run.
        self.assertEqual([(line.split()[0], line.split(maxsplit=2)[2])
                          for line in program.out.splitlines()],
                         [(line.split()[0], line.split(maxsplit=2)[2])
                          for line in self.expected(locator)])

    def example(self, locator, name, *arguments):
        if Options.target.NAME == "windows":
            return self.start(locator.host, locator.session.program(name), *arguments)
        return self.beside(locator, name, os.path.join(Options.binaries, name), *arguments)

    def test_c(self):
        locator = self.start_listening(self.here)
        self.simulated(locator)
        self.check(locator, self.example(locator, "devices-c"))

    @only_on("linux", "Windows has a code page of its own")
    def test_the_code_page_of_the_devices(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        self.wait_heard(locator, self.device(), 5, status="RUN", alias="\xd6\xe5\xf5")
        for page, expected in (("1251", (0, "5 RUN \u0426\u0435\u0445\n")),
                               ("none", (1, "")), ("", (0, "5 RUN \xd6\xe5\xf5\n"))):
            program = self.beside(locator, "devices-c", os.path.join(Options.binaries, "devices-c"),
                                  environment={"TALVORN_CODE_PAGE": page})
            self.assertEqual((program.wait(), program.out), expected, program.err)

    @full_set
    @only_on("linux", "there are no compilers and no Python in a Wine session")
    def test_other_languages(self):
        locator = self.start_listening(self.here)
        self.simulated(locator)
        self.check(locator, self.beside(locator, "python", sys.executable, "-B",
                                        os.path.join(EXAMPLES, "python", "devices.py")))
        if mcs := shutil.which("mcs"):
            made = os.path.join(self.directory, "devices.exe")
            subprocess.run([mcs, f"-out:{made}", os.path.join(EXAMPLES, "csharp", "Devices.cs")],
                           check=True)
            self.check(locator, self.beside(locator, "csharp", "mono", made))
        if rustc := shutil.which("rustc"):
            made = os.path.join(self.directory, "devices")
            subprocess.run([rustc, "--edition", "2021", "-L", Options.binaries, "-o", made,
                            os.path.join(EXAMPLES, "rust", "devices.rs")], check=True)
            self.check(locator, self.beside(locator, "rust", made))

    def test_following_in_cpp(self):
        locator = self.start_listening(self.here)
        follow = self.example(locator, "follow-cpp", "1")
        device = self.device()
        wait_until(lambda: "0 items" in follow.out, "the first reading")
        wait_until(lambda: (device.send(wire.record(42, items=[wire.item(b"one")])),
                            follow.ended)[1], "the item")
        self.assertEqual((follow.wait(), follow.out.split()), (0, ["0", "items", "1", "items"]))


@full_set  # Python cannot load a library with a sanitizer in it
@only_on("linux", "what is tested is the same code there")
class Trouble(LibraryTestCase):
    def test_a_client_outlives_its_locator(self):
        first = self.start_listening(self.here)
        self.simulated(first)
        client = self.python(first, """
with talvorn.Client(timeout=1) as client, talvorn.Presence() as presence:
    while told():
        say(status_of(client.devices), status_of(client.version), presence.status().name)
""")

        def says():
            before = len(client.out.splitlines())
            client.tell("go")
            wait_until(lambda: len(client.out.splitlines()) > before, "the client's answer")
            return client.out.splitlines()[-1].split()

        self.assertEqual(says(), ["OK"] * 3)
        first.signal(signal.SIGSTOP)
        self.assertEqual(says(), ["NO_ANSWER", "NO_ANSWER", "OK"])
        first.signal(signal.SIGCONT)
        wait_until(lambda: says() == ["OK"] * 3, "the answer of one that goes on")
        first.signal(signal.SIGTERM)
        first.wait()
        self.assertEqual(says()[:2], ["NO_LOCATOR", "NO_LOCATOR"])
        # Also when the administrator has cleared the folder in between.
        shutil.rmtree(first.runtime_directory)
        os.mkdir(first.runtime_directory, 0o755)
        self.assertEqual(says()[:2], ["NO_LOCATOR", "NO_LOCATOR"])
        second = self.start_locator(self.here, beside=first)
        second.wait_devices(2)
        self.assertEqual(says()[:2], ["OK", "OK"])
        wait_until(lambda: says() == ["OK"] * 3, "the presence to be told again")
        client.tell("")
        self.assertEqual((client.wait(), client.err), (0, ""))

    def test_a_watch_fits_an_event_loop(self):
        locator = self.start_listening(self.here)
        device = self.device()
        watch = self.python(locator, """
with talvorn.Client() as client, talvorn.Watch(interval=3600) as watch:
    for count in (0, 1):
        while len(client.items()) != count:
            ready, _, _ = select.select([watch], [], [], 60)
            assert ready and watch.wait(0) and not watch.wait(0), "no news"
        say("seen", count)
""")
        wait_until(lambda: "seen 0" in watch.out, "the first reading")
        wait_until(lambda: (device.send(wire.record(42, items=[wire.item(b"one")])),
                            "seen 1" in watch.out)[1], "the item to be told")
        self.assertEqual((watch.wait(), watch.err), (0, ""))

    def test_each_refusal_has_its_status(self):
        locator = self.start_listening(self.here)
        client = self.python(locator, """
name = r"\\\\.\\mailslot\\mine"
with talvorn.Client() as one, talvorn.Client(reply_mailslot=name) as mine, \\
        talvorn.Client(reply_mailslot=name) as same:
    say(status_of(mine.version), status_of(same.version))
    say(status_of(one.set_log_path, "x" * 2000), status_of(one.set_log_path, "\\u4e2d"))
    one.interrupt()
    say(status_of(one.version), status_of(one.version))
    say(talvorn.query_reinitialisation("192.168.10.1").name)
    say(talvorn.request_reinitialisation("192.168.10.1").name)
    one.set_log_path("/var/tmp/x")
    say(one.log_path())
""")
        self.assertEqual((client.wait(), client.err), (0, ""))
        self.assertEqual(client.out.split("\n")[:-1],
                         ["OK NO_MAILSLOT", "BAD_REQUEST BAD_REQUEST", "INTERRUPTED OK",
                          "NOT_ASKED", "PENDING", "/var/tmp/x/"])

    def test_a_request_is_interrupted_from_another_thread(self):
        locator = self.start_listening(self.here)
        locator.signal(signal.SIGSTOP)
        self.addCleanup(locator.signal, signal.SIGCONT)
        client = self.python(locator, """
with talvorn.Client(timeout=600) as client:
    threading.Timer(0.2, client.interrupt).start()
    say(status_of(client.devices))
""")
        self.assertEqual((client.wait(), client.out, client.err), (0, "INTERRUPTED\n", ""))

    @needs_accounts
    def test_a_reply_name_of_another_account(self):
        os.chmod(self.directory, 0o755)
        locator = self.start_locator(self.here)
        occupant = self.python(locator, """
import os
os.setuid(65534)
with talvorn.Client(reply_mailslot=r"\\\\.\\mailslot\\taken") as client:
    say(status_of(client.version))
    told()
""")
        wait_until(lambda: occupant.out, "the occupant")
        self.assertEqual(occupant.out, "OK\n")
        client = self.python(locator, """
with talvorn.Client(reply_mailslot=r"\\\\.\\mailslot\\taken") as client:
    say(status_of(client.version))
""")
        self.assertEqual((client.wait(), client.out, client.err), (0, "NO_MAILSLOT\n", ""))
        occupant.tell("")
        self.assertEqual(occupant.wait(), 0)
