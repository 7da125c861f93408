"""Asks the TALVORN locator on this machine, through the client library.

    with talvorn.Client() as client:
        for device in client.devices():
            print(device.serial, device.alias)

What fails raises talvorn.Error, whose `code` is one of the library's statuses. A client or a
watch is for one thread at a time.
"""

from __future__ import annotations

import ctypes
import enum
import os
import sys
from ctypes import POINTER, Structure, c_char_p, c_int32, c_size_t, c_ssize_t, c_uint8, c_uint32
from ctypes import c_void_p
from typing import NamedTuple, Sequence

_LIBRARY = os.environ.get("TALVORN_LIBRARY") or (
    "talvorn.dll" if sys.platform == "win32" else "libtalvorn.so.1")


class Status(enum.IntEnum):
    OK = 0
    NO_LOCATOR = 1
    NO_ANSWER = 2
    BAD_REPLY = 3
    NO_MAILSLOT = 4
    BAD_REQUEST = 5
    INTERRUPTED = 6
    TIMEOUT = 7
    PENDING = 8
    NOT_ASKED = 9
    NOT_WRITTEN = 10
    NO_OBJECT = 11
    BAD_ARGUMENT = 12
    NOT_SUPPORTED = 13
    NO_RESOURCES = 14


class Error(Exception):
    def __init__(self, code: int):
        super().__init__(_library.talvorn_status_text(code).decode())
        self.code = code


class Device(NamedTuple):
    serial: str
    alias: str
    status: str
    clip: str
    ipv4: str
    ipv6: str
    host_alias: str
    host_ipv4: str
    host_ipv6: str
    number: int


class Item(NamedTuple):
    device: int
    digest: str
    header: bytes
    content: bytes
    bytes: bytes
    hash_length: int
    next_offset: int


class _ClientOptions(Structure):
    _fields_ = [("size", c_size_t), ("timeout_ms", c_uint32), ("reply_mailslot", c_char_p)]


class _WatchOptions(Structure):
    _fields_ = [("size", c_size_t), ("device", c_uint32), ("interval_ms", c_uint32)]


class _Device(Structure):
    _fields_ = [("size", c_size_t), *((name, c_char_p) for name in Device._fields[:-1]),
                ("number", c_uint32)]


class _Item(Structure):
    _fields_ = [("size", c_size_t), ("digest", c_char_p), ("header", POINTER(c_uint8)),
                ("content", POINTER(c_uint8)), ("content_size", c_size_t),
                ("bytes", POINTER(c_uint8)), ("bytes_size", c_size_t), ("device", c_uint32),
                ("hash_length", c_uint32), ("next_offset", c_uint32)]


def _check(status: int) -> None:
    if status != Status.OK:
        raise Error(status)


def _load() -> ctypes.CDLL:
    library = ctypes.CDLL(_LIBRARY)

    def declare(result, name, *arguments):
        function = getattr(library, "talvorn_" + name)
        function.restype = result
        function.argtypes = arguments

    declare(c_char_p, "status_text", c_int32)
    declare(c_char_p, "library_version")
    declare(c_int32, "client_open", POINTER(_ClientOptions), POINTER(c_void_p))
    for name in ("client_close", "client_interrupt", "device_list_free", "item_list_free",
                 "watch_close", "presence_close"):
        declare(None, name, c_void_p)
    for name in ("client_get_version", "client_get_log_path"):
        declare(c_int32, name, c_void_p, POINTER(c_char_p))
    for name in ("client_get_devices", "client_get_items"):
        declare(c_int32, name, c_void_p, POINTER(c_void_p))
    declare(c_int32, "client_set_log_path", c_void_p, c_char_p)
    for name in ("client_start_log", "client_stop_log", "presence_get_status"):
        declare(c_int32, name, c_void_p)
    for name in ("device_list_size", "item_list_size"):
        declare(c_size_t, name, c_void_p)
    declare(c_int32, "device_list_get", c_void_p, c_size_t, POINTER(_Device))
    declare(c_int32, "item_list_get", c_void_p, c_size_t, POINTER(_Item))
    declare(c_int32, "watch_open", POINTER(_WatchOptions), POINTER(c_void_p))
    declare(c_int32, "watch_wait", c_void_p, c_uint32)
    declare(c_ssize_t, "watch_get_waitable", c_void_p)
    declare(c_int32, "presence_open", POINTER(c_void_p))
    for name in ("reinitialisation_request", "reinitialisation_query"):
        declare(c_int32, name, c_char_p)
    return library


_library = _load()


def library_version() -> str:
    return _library.talvorn_library_version().decode()


class _Handle:
    """What the library has opened for us; closed by close(), at the end of a with, or at last."""

    def __init__(self, kind: str, *options):
        self._close = getattr(_library, f"talvorn_{kind}_close")
        self._handle = c_void_p()
        _check(getattr(_library, f"talvorn_{kind}_open")(*options, ctypes.byref(self._handle)))

    def close(self) -> None:
        self._close(self._handle)
        self._handle = c_void_p()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def __del__(self):
        if getattr(self, "_handle", None):
            self.close()


class Client(_Handle):
    def __init__(self, timeout: float = 3.0, reply_mailslot: str | None = None):
        name = reply_mailslot.encode() if reply_mailslot is not None else None
        super().__init__("client", ctypes.byref(_ClientOptions(
            ctypes.sizeof(_ClientOptions), round(timeout * 1000), name)))

    def interrupt(self) -> None:
        """From any thread: ends the request that runs, or the next one."""
        _library.talvorn_client_interrupt(self._handle)

    def version(self) -> str:
        return self._text("version")

    def devices(self) -> Sequence[Device]:
        return self._list("device", _Device, lambda of: Device(
            *(getattr(of, name).decode() for name in Device._fields[:-1]), of.number))

    def items(self) -> Sequence[Item]:
        return self._list("item", _Item, lambda of: Item(
            of.device, of.digest.decode(), bytes(of.header[:12]),
            bytes(of.content[:of.content_size]), bytes(of.bytes[:of.bytes_size]),
            of.hash_length, of.next_offset))

    def log_path(self) -> str:
        return self._text("log_path")

    def set_log_path(self, path: str | None) -> None:
        """None: back to the directory for temporary files."""
        _check(_library.talvorn_client_set_log_path(
            self._handle, path.encode() if path is not None else None))

    def start_log(self) -> None:
        _check(_library.talvorn_client_start_log(self._handle))

    def stop_log(self) -> None:
        _check(_library.talvorn_client_stop_log(self._handle))

    def _text(self, name):
        text = c_char_p()
        _check(getattr(_library, "talvorn_client_get_" + name)(self._handle, ctypes.byref(text)))
        return text.value.decode()

    def _list(self, kind, structure, convert):
        found = c_void_p()
        _check(getattr(_library, f"talvorn_client_get_{kind}s")(self._handle,
                                                               ctypes.byref(found)))
        try:
            of = structure(size=ctypes.sizeof(structure))
            result = []
            for index in range(getattr(_library, f"talvorn_{kind}_list_size")(found)):
                _check(getattr(_library, f"talvorn_{kind}_list_get")(found, index,
                                                                    ctypes.byref(of)))
                result.append(convert(of))
            return result
        finally:
            getattr(_library, f"talvorn_{kind}_list_free")(found)


class Watch(_Handle):
    """Says when it is time to read the lists again."""

    def __init__(self, device: int = 0, interval: float = 5.0):
        super().__init__("watch", ctypes.byref(_WatchOptions(
            ctypes.sizeof(_WatchOptions), device, round(interval * 1000))))

    def wait(self, timeout: float) -> bool:
        status = _library.talvorn_watch_wait(self._handle, round(timeout * 1000))
        if status == Status.TIMEOUT:
            return False
        _check(status)
        return True

    def fileno(self) -> int:
        """For select() and event loops on Linux; readable until wait(0) has said so."""
        return _library.talvorn_watch_get_waitable(self._handle)


class Presence(_Handle):
    """As long as one is open, a locator that was started with /dynamic stays."""

    def __init__(self):
        super().__init__("presence")

    def status(self) -> Status:
        return Status(_library.talvorn_presence_get_status(self._handle))


def request_reinitialisation(ipv4: str) -> Status:
    return Status(_library.talvorn_reinitialisation_request(ipv4.encode()))


def query_reinitialisation(ipv4: str) -> Status:
    return Status(_library.talvorn_reinitialisation_query(ipv4.encode()))
