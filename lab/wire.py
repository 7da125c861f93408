"""Bytes on the wire and in mailslots, written and read independently of the product."""

import struct

PORT = 4817
REQUEST_GROUP = {4: "239.255.240.1", 6: "ff04:4817::1"}
RESPONSE_GROUP = {4: "239.255.240.2", 6: "ff04:4817::2"}

_MAGIC = b"TALVORN\0"
_RECORD = struct.Struct(">I8s4sI19s50s5s8s3s25s19s50s64s104s")
_SHORT = struct.Struct(">I8s4s19s5s8s3s25s19s64s")
RECORD_SIZE = _RECORD.size
assert (RECORD_SIZE, _SHORT.size) == (367, 159)


def _text(field):
    return field.split(b"\0", 1)[0].decode("latin-1")


def request(cidr="", timestamp=0, length=43, magic=_MAGIC, kind=b"000\0"):
    return struct.pack(">I8s4s19sQ", length, magic, kind, cidr.encode(), timestamp)


def parse_request(data):
    length, magic, kind, cidr, timestamp = struct.unpack(">I8s4s19sQ", data)
    return {"length": length, "magic": magic, "type": kind, "cidr": cidr, "timestamp": timestamp}


def record(serial, *, ipv4="", ipv6="", status="RDY", clip="A1", alias="", host_ipv4="",
           host_ipv6="", host_alias="", items=(), kind=b"101\0", magic=_MAGIC, length=RECORD_SIZE,
           item_offset=None):
    chain = item_chain(items)
    if item_offset is None:
        item_offset = RECORD_SIZE if chain else 0
    texts = [text.encode("latin-1") for text in (ipv4, ipv6, status, str(serial), clip, alias,
                                                host_ipv4, host_ipv6, host_alias)]
    return _RECORD.pack(length, magic, kind, item_offset, *texts, b"") + chain


def short_record(serial, *, ipv4="", status="RDY", clip="A1", alias="", host_ipv4="",
                 host_alias=""):
    texts = [text.encode("latin-1") for text in (ipv4, status, str(serial), clip, alias, host_ipv4,
                                                host_alias)]
    return _SHORT.pack(_SHORT.size, _MAGIC, b"100\0", *texts)


def item(body, *, hash_length=None, body_length=None, next_offset=0, carried=b"carried 12 b"):
    """One item; `body` is what follows the body's own length word."""
    if body_length is None:
        body_length = 4 + len(body)
    if hash_length is None:
        hash_length = 24 + len(body)
    return struct.pack(">I12sII", hash_length, carried, next_offset, body_length) + body


def item_chain(items):
    """Items back to back, each pointing at the next."""
    chain = b""
    for position, one in enumerate(items):
        last = position == len(items) - 1
        chain += one[:16] + struct.pack(">I", 0 if last else len(one)) + one[20:]
    return chain


def parse_records(payload):
    names = ("length", "magic", "type", "itemOffset", "ipv4", "ipv6", "status", "serial", "clip",
             "alias", "hostIpv4", "hostIpv6", "hostAlias", "reserved")
    devices = []
    for values in _RECORD.iter_unpack(payload):
        device = dict(zip(names, values))
        for name in names[4:13]:
            device[name] = _text(device[name])
        devices.append(device)
    return devices


def parse_items(payload):
    """[(serial, item)] of an item snapshot."""
    entries = []
    while payload:
        (serial,) = struct.unpack_from("<I", payload)
        (body_length,) = struct.unpack_from(">I", payload, 24)
        entries.append((serial, payload[4:24 + body_length]))
        payload = payload[24 + body_length:]
    return entries


def client_request(command, reply="", *, kind=1, name_units=66):
    name = reply.encode("utf-16-le")
    return (struct.pack("<II", 0, kind) + name.ljust(2 * name_units, b"\0")
            + command.encode("latin-1") + b"\0")


def mailslot_name(name):
    return "\\\\.\\mailslot\\" + name
