"""Sends announcements of devices as fast as is asked for, many in one call."""

import ctypes
import os
import socket
import time

_GROUP = ("239.255.240.2", 4817)
_AT_ONCE = 1024  # as many as one call of the system takes
_libc = ctypes.CDLL(None, use_errno=True)


class _Part(ctypes.Structure):
    _fields_ = [("base", ctypes.c_char_p), ("length", ctypes.c_size_t)]


class _Message(ctypes.Structure):  # struct mmsghdr of a connected socket
    _fields_ = [("name", ctypes.c_void_p), ("name_length", ctypes.c_uint32),
                ("parts", ctypes.POINTER(_Part)), ("part_count", ctypes.c_size_t),
                ("control", ctypes.c_void_p), ("control_length", ctypes.c_size_t),
                ("flags", ctypes.c_size_t), ("sent", ctypes.c_size_t)]


class Announcer:
    """Each of the datagrams in turn, from an address of the calling thread's host."""

    def __init__(self, address, datagrams):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                                socket.inet_aton(address))
        self._socket.connect(_GROUP)
        self._count = len(datagrams)
        self._parts = (_Part * self._count)(*((one, len(one)) for one in datagrams))
        size = ctypes.sizeof(_Part)
        first = ctypes.addressof(self._parts)
        self._messages = (_Message * self._count)(*(
            _Message(parts=ctypes.cast(first + size * at, ctypes.POINTER(_Part)), part_count=1)
            for at in range(self._count)))
        self._next = 0

    def send(self, count, rate):
        """So many, `rate` of them a second; returns how many seconds that took."""
        began = time.monotonic()
        sent = 0
        while sent < count:
            due = min(count, int((time.monotonic() - began) * rate) + 1)
            if due > sent:
                sent += self._send(due - sent)
            time.sleep(max(0, began + sent / rate - time.monotonic()))
        return time.monotonic() - began

    def _send(self, count):
        at = self._next
        count = min(count, _AT_ONCE, self._count - at)
        sent = _libc.sendmmsg(self._socket.fileno(), ctypes.byref(self._messages[at]), count, 0)
        if sent < 0:
            raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))
        self._next = (at + sent) % self._count
        return sent
