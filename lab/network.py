"""Private virtual networks for the end-to-end tests and the demo.

isolate() moves the program into namespaces of its own; Network then makes hosts
(network namespaces) and joins them by switches (bridges). All of it is nameless:
the kernel removes it when the program ends, however it ends, and every process
that the program has started ends with it.
"""

import contextlib
import ctypes
import fcntl
import os
import select
import signal
import subprocess
import sys
import threading

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNS, _CLONE_NEWUSER = 0x00020000, 0x10000000
_CLONE_NEWPID, _CLONE_NEWNET = 0x20000000, 0x40000000
_MS_RDONLY, _MS_REC, _MS_PRIVATE = 0x1, 0x4000, 0x40000
_MNT_DETACH = 2
_PR_SET_PDEATHSIG = 1
_THREAD_NAMESPACE = "/proc/thread-self/ns/net"

ENDING_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)

_NO_NAMESPACES = (
    "no private network can be made here: this needs root, or a kernel that lets an"
    " unprivileged user make user and network namespaces (sysctl"
    " kernel.unprivileged_userns_clone=1, or fewer limits on the container)."
)


class NotAllowed(Exception):
    """Neither root nor an unprivileged user namespace gets a private network."""


def _check(result):
    if result < 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number))


def die_with_parent():
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)


def mount_memory(directory):
    """A file system in memory, visible to this program and its children only."""
    _check(_libc.mount(b"tmpfs", directory.encode(), b"tmpfs", 0, b"mode=0755"))


def mount_read_only(directory):
    _check(_libc.mount(b"tmpfs", directory.encode(), b"tmpfs", _MS_RDONLY, None))


def unmount(directory):
    _check(_libc.umount2(directory.encode(), _MNT_DETACH))


def bring_up_loopback():
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def let_sockets_queue(messages):
    """How many datagrams a Unix socket made here holds before its senders must wait."""
    with open("/proc/sys/net/unix/max_dgram_qlen", "w", encoding="ascii") as file:
        file.write(str(messages))


def _enter(flags):
    """Moves the process into namespaces; a new process id begins with the next fork."""
    user, group = os.getuid(), os.getgid()
    _check(_libc.unshare(flags))
    if flags & _CLONE_NEWUSER:
        for name, text in (("setgroups", "deny"), ("uid_map", f"0 {user} 1"),
                           ("gid_map", f"0 {group} 1")):
            with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
                file.write(text)


def _settle():
    """In the first process of the namespaces: mounts and /proc that fit them."""
    _check(_libc.mount(b"none", b"/", None, _MS_REC | _MS_PRIVATE, None))
    _check(_libc.mount(b"proc", b"/proc", b"proc", 0, None))
    mount_memory("/run")


def _works(flags):
    """Whether the namespaces can be had, with virtual links in them."""
    sys.stdout.flush()
    child = os.fork()
    if child == 0:
        status = 1
        try:
            _enter(flags)
            first = os.fork()
            if first == 0:
                _settle()
                subprocess.run(["ip", "link", "add", "probe0", "type", "veth", "peer", "name",
                                "probe1"], check=True, stderr=subprocess.DEVNULL)
                os._exit(0)
            status = os.waitstatus_to_exitcode(os.waitpid(first, 0)[1])
        except (OSError, subprocess.SubprocessError):
            pass
        finally:
            os._exit(0 if status == 0 else 1)
    return os.waitpid(child, 0)[1] == 0


def fork_guarded(on_parents_death):
    """Goes on in a child process, which gets the signal when its parent dies. The
    parent passes signals on to it, waits for it, and leaves with SystemExit and the
    child's status."""
    alive, parents_end = os.pipe()
    child = os.fork()
    if child == 0:
        _libc.prctl(_PR_SET_PDEATHSIG, on_parents_death)
        os.close(parents_end)
        if select.select([alive], [], [], 0)[0]:  # the parent died before it could count
            os._exit(1)
        os.close(alive)
        # The first process of a namespace ignores what it has no handler for.
        for number in ENDING_SIGNALS:
            signal.signal(number, lambda received, _frame: sys.exit(128 + received))
        return
    for number in ENDING_SIGNALS:
        signal.signal(number, lambda received, _frame: os.kill(child, received))
    status = os.waitpid(child, 0)[1]
    sys.exit(os.waitstatus_to_exitcode(status) if os.WIFEXITED(status) else 1)


def isolate():
    """Goes on in a child process inside namespaces of its own, as fork_guarded does.
    When parent or child is killed, everything that was started is gone with them.

    Raises NotAllowed where the machine does not let us."""
    os.environ["PATH"] = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"
    spaces = _CLONE_NEWNET | _CLONE_NEWNS | _CLONE_NEWPID
    for flags in (spaces, spaces | _CLONE_NEWUSER):
        if _works(flags):
            break
    else:
        raise NotAllowed(_NO_NAMESPACES)

    _outside.descriptor = os.open(_THREAD_NAMESPACE, os.O_RDONLY)
    _enter(flags)
    fork_guarded(signal.SIGKILL)
    _settle()
    bring_up_loopback()


class _Outside:
    """The machine itself, as the program found it. Not everybody may go there."""

    def __enter__(self):
        self._before = os.open(_THREAD_NAMESPACE, os.O_RDONLY)
        try:
            _check(_libc.setns(self.descriptor, _CLONE_NEWNET))
        except OSError:
            os.close(self._before)
            raise

    def __exit__(self, *_):
        _check(_libc.setns(self._before, _CLONE_NEWNET))
        os.close(self._before)


_outside = _Outside()


@contextlib.contextmanager
def larger_sockets():
    """Unix sockets that are made meanwhile hold 8 MiB, if True is yielded. The limit is the
    whole machine's and put back at the end; not everybody may change it."""
    larger = False
    with contextlib.ExitStack() as stack:
        with contextlib.suppress(OSError):
            # One at a time, whatever namespaces the others are in.
            lock = os.open("/", os.O_RDONLY)
            stack.callback(os.close, lock)
            fcntl.flock(lock, fcntl.LOCK_EX)
            with _outside:
                file = stack.enter_context(open("/proc/sys/net/core/wmem_default", "r+",
                                                encoding="ascii"))
            before = file.read()

            def put(value):
                file.seek(0)
                file.write(value)
                file.flush()
            put(str(8 << 20))
            stack.callback(put, before)
            larger = True
        yield larger


class Host:
    """A network namespace. `with host:` puts the calling thread into it; sockets and
    processes made there belong to it."""

    def __init__(self, network, name):
        self.network = network
        self.name = name
        self._entered = threading.local()
        self._leaving = []
        before = os.open(_THREAD_NAMESPACE, os.O_RDONLY)
        _check(_libc.unshare(_CLONE_NEWNET))
        self.descriptor = os.open(_THREAD_NAMESPACE, os.O_RDONLY)
        bring_up_loopback()
        _check(_libc.setns(before, _CLONE_NEWNET))
        os.close(before)

    def __enter__(self):
        stack = self._entered.__dict__.setdefault("stack", [])
        stack.append(os.open(_THREAD_NAMESPACE, os.O_RDONLY))
        _check(_libc.setns(self.descriptor, _CLONE_NEWNET))
        return self

    def __exit__(self, *_):
        before = self._entered.stack.pop()
        _check(_libc.setns(before, _CLONE_NEWNET))
        os.close(before)

    def ip(self, *arguments):
        """Runs `ip ARGUMENTS` in the namespace; returns its output."""
        with self:
            return subprocess.run(["ip", *arguments], check=True, capture_output=True,
                                  text=True).stdout

    def ip_batch(self, commands):
        """Runs many `ip` commands in the namespace, given without `ip`."""
        with self:
            subprocess.run(["ip", "-batch", "-"], check=True, capture_output=True, text=True,
                           input="\n".join(commands))

    def connect(self, switch, interface, *addresses):
        """A new interface of this host, plugged into the switch and up. Addresses are
        "192.0.2.1/24" or "2001:db8::1/64"; none is made up by the system."""
        port = switch.new_port()
        path = f"/proc/self/fd/{switch.host.descriptor}"
        with self:
            subprocess.run(["ip", "link", "add", interface, "type", "veth", "peer", "name", port,
                            "netns", path], check=True, pass_fds=[switch.host.descriptor])
        switch.host.ip("link", "set", port, "master", switch.bridge, "up")
        self.ip("link", "set", interface, "addrgenmode", "none", "up")
        for address in addresses:
            self.add_address(interface, address)

    def disconnect(self, interface):
        """Removes an interface with everything on it."""
        self.ip("link", "del", interface)

    def add_address(self, interface, address):
        family = ["-6"] if ":" in address else []
        self.ip(*family, "addr", "add", address, "dev", interface,
                *(["nodad"] if family else ["broadcast", "+"]))

    def remove_address(self, interface, address):
        self.ip("addr", "del", address, "dev", interface)

    def add_addresses(self, interface, addresses):
        """Many addresses in one go."""
        lines = "".join(
            f"addr add {address} dev {interface} {'nodad' if ':' in address else ''}\n"
            for address in addresses)
        with self:
            subprocess.run(["ip", "-batch", "-"], input=lines, text=True, check=True,
                           capture_output=True)

    def index(self, interface):
        """The interface's index in this namespace."""
        return int(self.ip("-o", "link", "show", "dev", interface).split(":", 1)[0])

    def on_close(self, action):
        """What is to be done before the host goes."""
        self._leaving.append(action)

    def close(self):
        while self._leaving:
            self._leaving.pop()()
        os.close(self.descriptor)


class Switch:
    """Joins interfaces of hosts into one network. It forwards every multicast."""

    def __init__(self, host, bridge):
        self.host = host
        self.bridge = bridge
        self._ports = 0
        host.ip("link", "add", bridge, "type", "bridge", "mcast_snooping", "0")
        host.ip("link", "set", bridge, "addrgenmode", "none", "up")

    def new_port(self):
        self._ports += 1
        return f"{self.bridge}p{self._ports}"


class Network:
    """Hosts and the switches between them."""

    def __init__(self):
        self._hosts = []
        self._switches = 0
        self._closet = self.host("closet")

    def host(self, name):
        self._hosts.append(Host(self, name))
        return self._hosts[-1]

    def switch(self):
        self._switches += 1
        return Switch(self._closet, f"sw{self._switches}")

    def close(self):
        for host in self._hosts:
            host.close()
        self._hosts.clear()
