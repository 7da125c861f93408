"""What the dissector for Wireshark makes of traffic: that of the real programs, that of
stations whose bytes are known, and of packets that are cut and spoilt."""

import os
import random
import re
import socket
import struct
import subprocess

from lab import static_network, wire
from lab.harness import (ROOT, Capture, NetworkTestCase, full_set, needs_tshark, only_on,
                         wait_until)
from lab.network import mount_read_only, unmount
from lab.static_network import DeviceFile, ScriptedDevices, reply

SCRIPT = os.path.join(ROOT, "packaging", "wireshark", "talvorn.lua")
EXPECTED = os.path.join(os.path.dirname(__file__), "data", "wireshark.txt")
_RAW_IP = 101  # a capture's link type: nothing before the IP header

RECORD = ("talvorn.serial", "talvorn.alias", "talvorn.status", "talvorn.clip", "talvorn.ipv4",
          "talvorn.ipv6", "talvorn.host.ipv4", "talvorn.host.ipv6", "talvorn.host.alias")
ITEMS = ("talvorn.items", "talvorn.item.length", "talvorn.item.identity_length",
         "talvorn.item.header", "talvorn.item.next_offset", "talvorn.item.body_length",
         "talvorn.item.body")
FRAME = ("talvorn.length", "talvorn.magic", "talvorn.type", "talvorn.cidr", "talvorn.item_offset",
         "talvorn.frame.length", "talvorn.frame.type")
INFO = "_ws.col.Info"


class Recording(Capture):
    """Every IP packet that passes an interface of a host."""

    def __init__(self, host, interface):
        self.packets = []
        super().__init__(host, interface)

    def _take(self, packet):
        super()._take(packet)
        if packet[0] >> 4 in (4, 6):
            self.packets.append(packet)

    def having(self, bytes_):
        return sum(bytes_ in packet for packet in list(self.packets))


def write_capture(path, packets):
    """A file of (packet, its length on the wire), a millisecond apart."""
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, _RAW_IP))
        for number, (packet, length) in enumerate(packets):
            seconds, rest = divmod(number, 1000)
            file.write(struct.pack("<IIII", 1_800_000_000 + seconds, 1000 * rest, len(packet),
                                   length) + packet)


@only_on("linux", "what Wireshark shows does not depend on the locator's system")
@full_set
@needs_tshark
class WiresharkTestCase(NetworkTestCase):
    def setUp(self):
        super().setUp()
        self.hide_installed()
        self.recording = Recording(self.here, "net0")
        self.addCleanup(self.recording.close)

    def hide_installed(self):
        """A dissector that is installed would stand beside ours, or in its way."""
        folders = subprocess.run(["tshark", "-G", "folders"], capture_output=True, text=True,
                                 check=True).stdout
        installed = re.search(r"^Global Lua Plugins:\s*(.+)$", folders, re.MULTILINE)
        if installed and os.path.isdir(installed[1]):
            mount_read_only(installed[1])
            self.addCleanup(unmount, installed[1])

    def tshark(self, packets, *arguments):
        """What it prints of packets; none of it an error of the script."""
        path = os.path.join(self.directory, "recorded.pcap")
        write_capture(path, packets)
        environment = {**os.environ, "HOME": self.directory, "XDG_CONFIG_HOME": self.directory,
                       "LC_ALL": "C.UTF-8"}
        command = ["tshark", "-n", "-r", path, "-X", "lua_script:" + SCRIPT, *arguments]
        done = subprocess.run(command, capture_output=True, encoding="utf-8", env=environment,
                              check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertNotRegex(done.stdout + done.stderr, "Lua|[Dd]issector bug")
        return done.stdout

    def shows(self, *fields):
        """The fields' values, packet by packet, of what has been recorded of ours."""
        arguments = [part for field in fields for part in ("-e", field)]
        packets = [(packet, len(packet)) for packet in list(self.recording.packets)]
        lines = self.tshark(packets, "-Y", "talvorn", "-T", "fields", *arguments).splitlines()
        return [tuple(line.split("\t")) for line in lines]

    def conversation(self):
        """Real programs ask and answer, by multicast and over TCP."""
        self.simulate(self.there, "--interface", "dev0", "--devices", "2", "--items", "2",
                      "--layout", "mixed", "--status-query")
        file = DeviceFile(self.directory, {"192.168.10.20": None})
        self.start_listening(self.here, settings={
            "TAL-VORN INI-File Static Devices": file.path, "Time Request Gap IFSTATIC": 100})
        for group in (*wire.REQUEST_GROUP.values(), *wire.RESPONSE_GROUP.values()):
            wait_until(lambda: sum(datagram.destination == group for datagram in
                                   list(self.recording.datagrams)) >= 4, f"datagrams to {group}")
        frame = struct.pack(">I", static_network.REPLY_TYPE)
        wait_until(lambda: self.recording.having(frame) >= 2, "replies")


class RealPrograms(WiresharkTestCase):
    def test_their_traffic_is_shown_as_expected(self):
        self.conversation()
        self.check_fields()
        self.check_times()

    def check_fields(self):
        fields = ("ip.dst", "ipv6.dst", INFO, *FRAME, *RECORD, *ITEMS)
        shown = sorted({"\n".join(f"{name}: {value}" for name, value in zip(fields, packet)
                                  if value) for packet in self.shows(*fields)})
        with open(EXPECTED, encoding="utf-8") as file:
            self.assertEqual("\n\n".join(shown) + "\n", file.read())

    def check_times(self):
        """Each answer tells its request."""
        packets = self.shows("frame.number", "talvorn.type", "talvorn.request_in", "talvorn.time",
                             "talvorn.sid", "tcp.stream")
        requests = {number for number, kind, *_ in packets if kind == "000"}
        sids = {stream: (number, sid) for number, _, _, _, sid, stream in packets if sid}
        self.assertTrue(requests and sids)
        answers = [packet for packet in packets if packet[1] in ("100", "101")]
        for number, _, request, seconds, _, stream in answers:
            if stream:
                self.assertEqual(request, sids[stream][0])
            else:
                self.assertIn(request, requests)
            self.assertAlmostEqual(float(seconds), (int(number) - int(request)) / 1000, places=5)
        for _, sid in sids.values():
            self.assertRegex(sid, r"\A[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}\Z")


class WhatWasSent(WiresharkTestCase):
    def shown_after(self, device, *fields):
        """Once everything that was sent has been recorded, and a last request."""
        device.send_request(wire.request("last"))
        wait_until(lambda: self.recording.having(b"last"), "the last datagram")
        return self.shows(*fields)[:-1]

    def test_texts_are_safe_and_their_fields_whole(self):
        device = self.device()
        hostile = "\x1b[2J\x07\n\x7f"
        fields = {"status": "A\x1b8", "clip": "\xe9", "ipv4": "1.2.3.4", "host_ipv4": "10.1.2.3"}
        device.send(wire.record(42, alias=hostile, host_alias="M\xfchle \x80\x81\x9f \xa7",
                                ipv6="fe80::1", host_ipv6="::1", **fields))
        device.send(wire.short_record(1234567, alias="x" * 25, host_alias="y" * 63, **fields))
        self.assertEqual(
            self.shown_after(device, INFO, *RECORD, "talvorn.unterminated"),
            [(r"Answer 42 '\x1b[2J\x07\x0a\x7f' A\x1b8", "42", r"\x1b[2J\x07\x0a\x7f", r"A\x1b8",
              "é", "1.2.3.4", "fe80::1", "10.1.2.3", "::1", r"Mühle €\x81Ÿ §", ""),
             (f"Answer 1234567 '{'x' * 24}' A\\x1b8 (older layout)", "1234567", "x" * 24, r"A\x1b8",
              "é", "1.2.3.4", "", "10.1.2.3", "", "y" * 63, "1")])

    def test_items_are_shown_as_far_as_they_count(self):
        device = self.device()
        first, second = wire.item(b"first"), wire.item(b"the second", hash_length=20)
        whole = wire.record(1, items=[first, second])
        overlapping = first[:16] + struct.pack(">I", 24) + first[20:24] + second[:5] + second
        spoilt = {
            "": whole,
            "talvorn.item.outside": whole[:-1],
            "talvorn.item.overlap": wire.record(1, item_offset=367) + overlapping,
            "talvorn.item.gap": wire.record(1, item_offset=367) + first[:16] + struct.pack(">I", 40)
                                + first[20:] + bytes(11) + second,
        }
        names = [name for name in spoilt if name]
        for datagram in spoilt.values():
            device.send(datagram)
        device.send(whole[:16] + bytes(4) + whole[20:])  # no offset: no items
        device.send(wire.record(1, items=[wire.item(b"A", body_length=2000)]))
        device.send(wire.record(1, items=[wire.item(b"A", hash_length=2000)]))
        device.send(wire.record(1, item_offset=4_000_000_000))
        shown = self.shown_after(device, "talvorn.items", "talvorn.item.length",
                                 "talvorn.item.identity_length", *names)
        self.assertEqual(shown[0], ("2", "29,34", "29,20", "", "", ""))
        self.assertEqual(shown[1], ("1", "29,34", "29,20", "1", "", ""))
        self.assertEqual([packet[3:] for packet in shown[2:4]], [("1", "1", ""), ("", "", "1")])
        self.assertEqual(shown[4], ("", "", "", "", "", ""))
        self.assertEqual([(packet[0], packet[3]) for packet in shown[5:]], 3 * [("0", "1")])

    def test_what_a_locator_drops_or_takes_differently_is_marked(self):
        device, other = self.device(), self.device("192.168.10.21")
        marks = ["talvorn." + name for name in
                 ("bad_magic", "bad_length", "unterminated", "cut", "too_long", "unknown_type",
                  "wrong_group", "another_locator")]
        cases = [
            (wire.record(1), None, []),
            (wire.record(1, magic=b"TALVORM\0"), None, ["bad_magic"]),
            (wire.record(1, magic=b"TALVORNX"), None, ["unterminated"]),  # seven bytes are compared
            (wire.record(1, length=15), None, ["bad_length"]),
            (wire.record(1, length=368), None, ["bad_length"]),
            (wire.record(1)[:300], None, ["bad_length", "cut"]),
            (wire.record(1) + bytes(1200), None, ["too_long"]),
            (wire.record(1, kind=b"10\xff\xff"), None, ["unterminated", "unknown_type"]),
            (wire.record(1, kind=b"1010"), None, ["unterminated"]),
            (wire.request(), None, ["wrong_group"]),
            (wire.record(1), wire.REQUEST_GROUP[4], ["wrong_group"]),
            (wire.request("a"), wire.REQUEST_GROUP[4], []),
            (wire.request("b"), wire.REQUEST_GROUP[4], []),
        ]
        for datagram, group, _ in cases:
            device.send(datagram, group)
        other.send_request()
        wait_until(lambda: len(self.recording.datagrams) > len(cases), "all of them")
        shown = [[name for name, value in zip(marks, packet) if value]
                 for packet in self.shown_after(device, *marks)]
        expected = [["talvorn." + name for name in names] for _, _, names in cases]
        self.assertEqual(shown, [*expected, ["talvorn.another_locator"]])

    def test_other_traffic_is_left_alone(self):
        device = self.device()
        device.send(b"hello, this is something else", "192.168.10.1")
        device.send(b"x", "192.168.10.1")
        self.assertEqual(self.shown_after(device, INFO), [])


class Streams(WiresharkTestCase):
    def test_replies_are_cut_out_of_the_stream_as_they_come(self):
        def record(serial, count, **options):
            return wire.record(serial, items=[wire.item(b"content")] * count, **options)
        pieces = reply(record(3, 2))
        endless = reply(wire.record(5, item_offset=367)
                        + 31 * wire.item(bytes(76), next_offset=100))
        scripts = {
            "192.168.10.20": [reply(record(1, 2)) + reply(record(2, 0, status="AB8"))],
            "192.168.10.21": [pieces[:100], 0.2, pieces[100:390], 0.2,
                              pieces[390:] + reply(record(4, 1), length=7)],
            "192.168.10.22": [endless[:1000], 0.2, endless[1000:]],
            "192.168.10.23": [reply(record(6, 0), kind=6)],  # the query's own number
        }
        self.there.add_addresses("dev0", ["192.168.10.22/24", "192.168.10.23/24"])
        devices = ScriptedDevices(self.there, scripts)
        self.addCleanup(devices.close)
        file = DeviceFile(self.directory, dict.fromkeys(scripts))
        self.start_locator(self.here, settings=static_network.settings(file.path, 600000))
        wait_until(lambda: len(devices.exchanges) == len(scripts)
                   and all(one.ended for one in devices.exchanges), "the end of all queries")
        shown = self.shows("ip.src", INFO, "talvorn.serial", "talvorn.items", "talvorn.sid",
                           "talvorn.in_pieces", "talvorn.bad_length", "talvorn.address_disowned",
                           "talvorn.too_long", "talvorn.unknown_type")
        shown = [packet for packet in shown if packet[4] or packet[0] in scripts]
        sids = {one.sid for one in devices.exchanges}
        self.assertEqual({packet[4] for packet in shown if packet[4]}, sids)
        self.assertEqual(sorted(packet for packet in shown if not packet[4]), [
            ("192.168.10.20", "Status reply 1 '' RDY, 2 items; Status reply 2 '' AB8",
             "1,2", "2", "", "", "", "1", "", ""),
            ("192.168.10.21", "Status reply 3 '' RDY, 2 items; Status reply 4 '' RDY, 1 item",
             "3,4", "2,1", "", "1", "1", "", "", ""),
            ("192.168.10.22", "Status reply 5 '' RDY, 15 items", "5", "15", "", "1", "", "", "1", ""),
            ("192.168.10.23", "Frame of another type", "", "", "", "", "", "", "", "1")])


class BrokenPackets(WiresharkTestCase):
    ROUNDS = 40

    def test_none_of_them_is_an_error_of_the_script(self):
        self.conversation()
        whole = [packet for packet in self.recording.packets if self.payload_at(packet)]
        chance = random.Random(4817)
        packets = []
        for port in range(self.ROUNDS):
            for packet in chance.sample(whole, min(len(whole), 40)):
                packets.append(self.broken(packet, 10_000 + port, chance))
        for arguments in ((), ("-2",), ("-o", "tcp.desegment_tcp_streams:FALSE")):
            with self.subTest(arguments=arguments):
                said = self.tshark(packets, "-V", *arguments)
                self.assertGreater(said.count("TALVORN device location"), len(packets) / 2)

    @staticmethod
    def payload_at(packet):
        """Where it begins, in a packet that has one."""
        at, protocol = (20, packet[9]) if packet[0] >> 4 == 4 else (40, packet[6])
        if protocol == socket.IPPROTO_TCP:
            at += (packet[at + 12] >> 4) * 4
        elif protocol == socket.IPPROTO_UDP:
            at += 8
        else:
            return None
        return at if at < len(packet) else None

    def broken(self, packet, port, chance):
        """Spoilt in some bytes, cut by its sender or by who captured it."""
        packet, at = bytearray(packet), self.payload_at(packet)
        for _ in range(chance.choice((0, 1, 2, 8))):
            word = chance.choice((0, 4, 12, 16, 28, 367, 379, 383, 387, 395, 399))
            where = min(at + word + chance.randrange(4), len(packet) - 1)
            packet[where] = chance.choice((0, 1, 8, 128, 255, chance.randrange(256)))
        length = chance.choice((len(packet), chance.randrange(at, len(packet) + 1)))
        if chance.randrange(2):
            del packet[length:]
        if packet[0] >> 4 == 4:
            struct.pack_into(">H", packet, 2, len(packet))
            if packet[9] == socket.IPPROTO_TCP:  # in a stream of its own
                client = 20 if struct.unpack_from(">H", packet, 20)[0] != wire.PORT else 22
                struct.pack_into(">H", packet, client, port)
            else:
                struct.pack_into(">H", packet, 24, len(packet) - 20)
        else:
            struct.pack_into(">H", packet, 4, len(packet) - 40)
            struct.pack_into(">H", packet, 44, len(packet) - 40)
        return bytes(packet[:length]), len(packet)
