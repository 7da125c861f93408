"""The doctor: each fault, made on purpose, is what it complains of first."""

import json
import os
import re
import shutil
import signal
import subprocess
import unittest

from lab import wire
from lab.harness import NetworkTestCase, needs_accounts, only_on, wait_until
from lab.static_network import CLOSE, DeviceFile, ScriptedDevices, reply

FAST = {"Time Request": 1000, "Time Response Valid": 4000}


class DoctorTestCase(NetworkTestCase):
    def findings(self, locator, *arguments, **options):
        """(exit status, [(verdict, sentence)]) of an examination."""
        doctor = self.tool(locator, "doctor", *arguments, **options)
        status = doctor.wait()
        self.assertEqual(doctor.err, "")
        return status, [tuple(line.split(None, 1)) for line in doctor.out.splitlines()]

    @property
    def asks(self):
        """That the locator's requests leave, as far as the system shows them."""
        return "the locator asks, and " if self.target.NAME == "linux" else ""

    def complaints(self, locator, *arguments, **options):
        """What is not ok."""
        status, findings = self.findings(locator, *arguments, **options)
        bad = [finding for finding in findings if finding[0] != "ok"]
        self.assertEqual(status, int(any(verdict == "FAIL" for verdict, _ in bad)), bad)
        return bad

    def assert_complains_first(self, locator, verdict, pattern, *arguments, **options):
        bad = self.complaints(locator, *arguments, **options)
        self.assertTrue(bad, "all is well")
        self.assertEqual(bad[0][0], verdict, bad)
        self.assertRegex(bad[0][1], pattern)


class Healthy(DoctorTestCase):
    def test_nothing_to_complain_of(self):
        locator = self.start_listening(self.here, settings={**FAST, "Time Response Valid": 600000})
        self.simulate(self.there, "--interface", "dev0", "--devices", "3")
        locator.wait_devices(3)
        status, findings = self.findings(locator)
        self.assertEqual([one for one in findings if one[0] != "ok"], [])
        self.assertEqual(status, 0)
        said = "\n".join(sentence for _, sentence in findings)
        self.assertRegex(said, r"locator 1\.0\.0\.0 answers in \d+\.\d ms")
        self.assertRegex(said, rf"on \S.* {self.asks}3 devices answer")
        one = json.loads(self.tool_says(locator, "devices", "--json"))["devices"][0]
        asked = [one["serial"].lstrip("0"), one["ipv4"]]
        if 6 in self.families:
            self.wait_heard(locator, self.device("fd00:10::20"))
            asked.append("FD00:10:0::20")
        for device in asked:
            status, findings = self.findings(locator, device)
            self.assertEqual(status, 0)
            self.assertIn(f"the locator knows {device}: serial", findings[-1][1])


class Faults(DoctorTestCase):
    def test_no_locator(self):
        locator = self.start_locator(self.here)
        locator.kill()
        self.assert_complains_first(locator, "FAIL", "no locator runs on this machine")

    def test_a_rival_and_two_devices_with_one_serial(self):
        locator = self.start_listening(self.here, settings=FAST)
        rival = self.station(self.there, "dev0", "192.168.10.20")
        second = self.device("192.168.10.21")
        doctor = self.tool(locator, "doctor")

        def talk():
            rival.send_request()
            for device in (rival, second):
                device.send(wire.record(77))
            return doctor.ended
        wait_until(talk, "the end of the examination")
        self.assertEqual(doctor.wait(), 0)
        bad = [line for line in doctor.out.splitlines() if not line.startswith("ok")]
        self.assertRegex(bad[0], r"warn  on \S.* another locator asks, 192\.168\.10\.20")
        self.assertRegex(bad[1], r"several devices call themselves 77: .*\.20, .*\.21")

    @only_on("linux", "these are settings of Linux")
    def test_interfaces(self):
        locator = self.start_listening(self.here, settings=FAST)
        for change, back, expected in (
                ("link set net0 down", "link set net0 up", "net0 is down"),
                ("link set net0 multicast off", "link set net0 multicast on",
                 "net0 carries no multicast"),
                ("addr flush dev net0", "link set net0 up", "net0 has no address")):
            self.here.ip(*change.split())
            self.assert_complains_first(locator, "FAIL", expected)
            self.here.ip(*back.split())

    @only_on("linux", "no system call fails on demand there")
    def test_a_group_that_is_not_joined(self):
        with self.here, open("/proc/sys/net/ipv4/igmp_max_memberships", "r+") as limit:
            limit.write("0")
            limit.flush()
        locator = self.start_locator(self.here, settings={**FAST, "IPv6 Active": 0})
        wait_until(lambda: "located" in str(locator.event_log.texts()), "the interface")
        self.assert_complains_first(locator, "FAIL",
                                    r"does not listen to 239\.255\.240\.1 on net0")

    @only_on("linux", "one session is one machine under Wine")
    def test_two_locators(self):
        first = self.start_listening(self.here, settings=FAST)
        self.start_locator(self.here, settings=FAST)
        self.simulate(self.there, "--interface", "dev0", "--devices", "1")
        first.wait_devices(1)
        self.assert_complains_first(first, "warn", "2 locators run on this machine")

    @only_on("linux", "there is no such directory on Windows")
    @needs_accounts
    def test_a_directory_of_somebody_else(self):
        os.chmod(self.directory, 0o755)
        locator = self.start_locator(self.here)
        os.chmod(locator.runtime_directory, 0o700)
        self.assert_complains_first(locator, "FAIL",
                                    re.escape(locator.runtime_directory), user=65534)
        version = self.tool(locator, "version", user=65534)
        self.assertEqual(version.wait(), 1)
        self.assertIn("may not use the directory " + locator.runtime_directory, version.err)

    def test_silence_and_a_device_elsewhere(self):
        locator = self.start_listening(self.here, settings=FAST)
        self.assert_complains_first(locator, "FAIL", f"on .* {self.asks}no device answers")
        self.assertRegex(str(self.complaints(locator, "10.9.9.9")[-1]),
                         "in no network with 10.9.9.9")

    @only_on("linux", "what leaves is not to be seen on Windows")
    def test_nobody_asks(self):
        locator = self.start_listening(
            self.here, settings={**FAST, "Time Master": 600000, "IPv6 Active": 0})
        self.device().send_request()
        wait_until(lambda: locator.event_log.texts("CAST RECEIVE"), "its silence")
        self.assert_complains_first(locator, "FAIL", "on net0 nobody asks: no request leaves")

    def test_settings(self):
        locator = self.start_listening(self.here, settings=FAST)
        self.simulate(self.there, "--interface", "dev0", "--devices", "1")
        locator.wait_devices(1)
        for name, wrong, right, expected in (
                ("Time Master", "5000", 60000, '"Time Master" is stored, but not as a number'),
                ("Log Path", 7, "", '"Log Path" is stored, but not as a text'),
                ("Time Response Valid", 1999, 4000, 'is less than twice "Time Request"'),
                ("Prefered IP Version", 5, 4, "neither 4 nor 6"),
                ("TAL-VORN INI-File Static Devices", "/nowhere/at/all.ini", "",
                 "cannot be read or lists none"),
                ("Time Requst", 1, 1, r'"Time Requst" is no setting\. Is "Time Request" meant')):
            with self.subTest(name):
                locator.registry.set(name, wrong)
                verdict = "FAIL" if "Static" in name else "warn"
                self.assert_complains_first(locator, verdict, expected)
                locator.registry.set(name, right)

    @only_on("linux", "the settings are a file there")
    def test_lines_without_meaning_and_a_lifetime_without_end(self):
        locator = self.start_locator(self.here, "/dynamic", settings=FAST)
        self.assert_complains_first(locator, "warn", "Multicast Request Allowed. is 0")
        locator.registry.set("Time Multicast Request Allowed", 600_000)
        path = locator.registry.path
        with open(path, encoding="utf-8") as file:
            text = file.read()
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace('"Time Master"', '; "\x1b[2J\n"Time Master"=60000\n"Time Master"'))
        self.assert_complains_first(locator, "warn", r"line \d+ of .* means nothing")

    @only_on("linux", "the devices are on this machine")
    def test_static_devices(self):
        self.here.ip("route", "add", "local", "10.20.0.0/16", "dev", "lo")
        devices = ScriptedDevices(self.here, {
            "10.20.0.1": [reply(wire.record(9)), CLOSE], "10.20.0.2": [],
            "10.20.0.3": [b"HTTP/1.0 400 Bad Request\r\n" * 30, CLOSE]})
        self.addCleanup(devices.close)
        file = DeviceFile(self.directory, {
            "healthy": "10.20.0.1", "mute\x1b[2J": "10.20.0.2", "rubbish": "10.20.0.3",
            "nobody": "192.168.10.2", "nowhere": "10.99.0.1", "wrong": "somewhere",
            "no.such.device.invalid": None})
        locator = self.start_listening(self.here, settings={
            **FAST, "TAL-VORN INI-File Static Devices": file.path})
        self.simulate(self.there, "--interface", "dev0", "--devices", "1")
        locator.wait_devices(2)
        complaints = self.complaints(locator, "10.20.0.2")
        self.assertIn("10.20.0.2 is a static device that the locator does not know",
                      complaints.pop()[1])
        for expected, (verdict, sentence) in zip((
                r"wrong \(somewhere\) has an IpAddress that is no IPv4 address",
                r"mute\\x1b\[2J \(10\.20\.0\.2\) accepts a connection, but sends no status",
                r"rubbish \(.*\) sends what is no status", r"nobody \(.*\) (accepts no connection|does not answer)",
                r"nowhere \(.*\) accepts no connection",
                r"no\.such\.device\.invalid has no address"), complaints, strict=True):
            self.assertEqual(verdict, "FAIL")
            self.assertRegex(sentence, "static device " + expected)

    @only_on("linux", "the firewall is one of Linux")
    @unittest.skipUnless(shutil.which("nft"), "needs nftables")
    def test_a_firewall(self):
        with self.here:
            if subprocess.run(["nft", "list", "ruleset"], capture_output=True,
                              check=False).returncode:
                self.skipTest("this kernel has no nftables")
        locator = self.start_listening(self.here, settings=FAST)
        self.simulate(self.there, "--interface", "dev0", "--devices", "1")
        locator.wait_devices(1)
        for chain, rules, expected in (
                ("input", "udp dport 4817 drop", "nftables drops incoming UDP 4817 .*chain guard"),
                ("output", "udp dport 4800-4900 reject", "nftables drops outgoing UDP 4817")):
            with self.subTest(chain), self.here:
                subprocess.run(["nft", "-f", "-"], check=True, text=True, input=f"""
                    table inet house {{
                        chain guard {{
                            type filter hook {chain} priority 0
                            {rules}
                        }}
                    }}""")
            self.assert_complains_first(locator, "FAIL", expected)
            with self.here:
                subprocess.run(["nft", "delete", "table", "inet", "house"], check=True)

    @only_on("linux", "there are no such counters on Windows")
    def test_datagrams_that_nobody_takes(self):
        locator = self.start_listening(self.here, settings=FAST)
        device = self.device()
        locator.signal(signal.SIGSTOP)
        self.addCleanup(locator.signal, signal.SIGCONT)
        answer = wire.record(5)

        def dropped():
            for _ in range(2_000):
                device.send(answer)
            metrics = self.tool(locator, "metrics", "--timeout", "0.1")
            metrics.wait()
            return re.search(r"^talvorn_udp_receive_drops [1-9]", metrics.out, re.MULTILINE)
        wait_until(dropped, "a full buffer")
        locator.signal(signal.SIGCONT)
        wait_until(lambda: "5" in str(locator.devices()), "the device")
        self.assert_complains_first(locator, "warn", r"the system has dropped \d+ datagrams")

    def test_foreign_text_commands_nothing(self):
        locator = self.start_listening(self.here, settings=FAST)
        device = self.device()
        text = "\x1b]0;x\x07\xff\x9b31m"
        wait_until(lambda: (device.send(wire.record(5, alias=text)),
                            "5" in str(locator.devices()))[1], "the device")
        doctor = self.tool(locator, "doctor", "5", "--json")
        wait_until(lambda: (device.send(wire.record(5, alias=text)), doctor.ended)[1], "its end")
        found = json.loads(doctor.out)["findings"]
        self.assertTrue(any("\x1b]0;x\x07" in one["what"] for one in found), found)
        self.assertNotIn("\x1b", doctor.out)
        plain = self.tool(locator, "doctor", "5\x1b[31m")
        plain.wait()
        self.assertNotIn("\x1b", plain.out)
