"""Shows a locator at work: python3 -m lab.demo DIRECTORY-OF-BINARIES [--host]

Simulated devices in a private virtual network, the locator, and the live table of
what it finds; with --host the locator alone, on this machine's own interfaces.
Ctrl-C ends everything. Whatever dies, nothing stays behind.
"""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from lab import network

PATIENCE = 15  # seconds that a program gets to end by itself
ADDRESSES = 8

SETTINGS = """Windows Registry Editor Version 5.00

[HKEY_LOCAL_MACHINE\\Software\\Kestrow\\TAL-VORN\\Settings]
"Time Request"=dword:000005dc
"Time Response Valid"=dword:00000fa0
"Time Multicast Request Allowed"=dword:00000000
"""

SIMULATED = (
    # Devices that are reached over both families, with items; two come and go.
    ("--devices", "6", "--first-serial", "4100", "--items", "2", "--change-items", "7000",
     "--change-status", "11000", "--absent", "9000/27000", "--absent-devices", "2"),
    # On IPv6 only; one comes and goes.
    ("--devices", "4", "--first-serial", "6200", "--ipv6", "--items", "1", "--seed", "6",
     "--absent", "7000/19000", "--absent-devices", "1"),
    # Older ones, whose records know IPv4 only; slow to answer.
    ("--devices", "3", "--first-serial", "712", "--layout", "short", "--ipv4", "--seed", "9",
     "--delay", "20-300", "--absent", "12000/40000", "--absent-devices", "1"),
)


class Stopped(Exception):
    pass


def _stop(_number, _frame):
    for number in network.ENDING_SIGNALS:
        signal.signal(number, signal.SIG_IGN)
    raise Stopped


class Demo:
    def __init__(self, binaries, directory):
        self._binaries = binaries
        self._directory = directory
        self._started = []  # (process, path of what it says)

    def start(self, host, program, *arguments):
        """A program in the background, in a group that Ctrl-C does not reach."""
        path = os.path.join(self._directory, f"{program}-{len(self._started)}.txt")
        with host, open(path, "wb") as output:
            process = subprocess.Popen(
                [os.path.join(self._binaries, program), *arguments], stdin=subprocess.DEVNULL,
                stdout=output, stderr=output, start_new_session=True,
                preexec_fn=network.die_with_parent)
        self._started.append((process, path))
        return process

    def show(self, host, *arguments):
        """A program in the foreground, until it or one of the others ends."""
        with host:
            front = subprocess.Popen([os.path.join(self._binaries, "talvorn"), *arguments],
                                     preexec_fn=network.die_with_parent)
        try:
            while front.poll() is None:
                for process, path in self._started:
                    if process.poll() is not None:
                        self._end(front)
                        return self._complain(process, path)
                time.sleep(0.1)
        except Stopped:
            self._end(front)
            return 0
        if front.returncode >= 0:
            return front.returncode
        if sys.stdout.isatty():  # killed before it could put the terminal right
            print("\x1b[0m\x1b[?7h\x1b[?25h")
            subprocess.run(["stty", "sane"], stderr=subprocess.DEVNULL, check=False)
        print(f"talvorn was ended by signal {-front.returncode}.", file=sys.stderr)
        return 1

    @staticmethod
    def _complain(process, path):
        program = os.path.basename(process.args[0])
        with open(path, encoding="utf-8", errors="replace") as file:
            said = file.read().strip()
        print(f"\n{program} has ended by itself (status {process.returncode}).\n{said[-2000:]}",
              file=sys.stderr)
        return 1

    def wait_for_file(self, path):
        deadline = time.monotonic() + PATIENCE
        while not os.path.exists(path) and time.monotonic() < deadline:
            if any(process.poll() is not None for process, _ in self._started):
                return  # show() tells
            time.sleep(0.05)

    @staticmethod
    def _end(process):
        if process.poll() is None:
            process.terminate()
            try:
                process.wait(PATIENCE)
            except subprocess.TimeoutExpired:
                process.kill()
        process.wait()

    def end_all(self):
        for process, _ in self._started:
            if process.poll() is None:
                process.terminate()
        for process, _ in self._started:
            self._end(process)


class _NoNamespace:
    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass


def _virtual(demo):
    net = network.Network()
    switch = net.switch()
    here, there = net.host("locator"), net.host("devices")
    here.connect(switch, "demo0", "192.168.77.1/24", "fe80::1/64", "fd00:77::1/64")
    there.connect(switch, "dev0")
    there.add_addresses("dev0", [f"192.168.77.{20 + n}/24" for n in range(ADDRESSES)]
                        + [f"fd00:77::{20 + n}/64" for n in range(ADDRESSES)])
    for arguments in SIMULATED:
        demo.start(there, "talvorn-sim", "--interface", "dev0", *arguments)
    return here


def _run(binaries, directory, on_host):
    runtime = os.path.join(directory, "runtime")
    if on_host and os.getuid() == 0:
        runtime = os.environ.get("TALVORN_RUNTIME_DIR", "/run/talvorn")
    os.environ["TALVORN_RUNTIME_DIR"] = runtime
    if not on_host:
        os.environ["TALVORN_REGISTRY"] = os.path.join(directory, "talvorn.reg")
        with open(os.environ["TALVORN_REGISTRY"], "w", encoding="utf-8") as file:
            file.write(SETTINGS)
        os.environ["TALVORN_JOURNAL_SOCKET"] = os.path.join(directory, "no-journal")

    demo = Demo(binaries, directory)
    try:
        for number in network.ENDING_SIGNALS:
            signal.signal(number, _stop)
        here = _NoNamespace() if on_host else _virtual(demo)
        demo.start(here, "talvorn-locator")
        demo.wait_for_file(os.path.join(runtime, "talvorn_out"))
        return demo.show(here, "devices", "--watch")
    except Stopped:
        return 0
    finally:
        demo.end_all()


def main():
    if len(sys.argv) not in (2, 3) or sys.argv[2:] not in ([], ["--host"]):
        print(__doc__, file=sys.stderr)
        return 2
    binaries, on_host = os.path.abspath(sys.argv[1]), len(sys.argv) == 3
    if on_host:
        directory = tempfile.mkdtemp(prefix="talvorn-")
        try:
            network.fork_guarded(signal.SIGTERM)
            return _run(binaries, directory, True)
        finally:
            shutil.rmtree(directory, ignore_errors=True)
    try:
        network.isolate()
    except network.NotAllowed as reason:
        print(f"{str(reason).capitalize()} Run this as root instead, or use ./dev run --host:"
              " the locator on this machine's own interfaces.", file=sys.stderr)
        return 1
    return _run(binaries, tempfile.mkdtemp(dir="/run"), False)


if __name__ == "__main__":
    sys.exit(main())
