"""What the settings file may look like, and when a change counts."""

import os
import re
import threading

from lab import wire
from lab.harness import INTERFACES_KEY, ROOT, TestCase, full_set, only_on, wait_until


class Settings(TestCase):
    def log_path(self, locator):
        with locator.client() as client:
            kind, size, payload = client.exchange("GETLOGPATH")
        self.assertEqual((kind, size), (5, len(payload)))
        return payload

    @full_set
    def test_a_wrong_type_counts_as_missing(self):
        here, there = self.simple_network()
        capture = self.capture(there, "dev0")
        self.start_locator(here, settings={"Time Request": "300", "IPv6 Active": bytes(4)})
        requests = wait_until(lambda: len(capture.requests(family=4)) >= 3
                              and capture.requests(family=4), "the third request")
        self.assertGreater(requests[2].when - requests[1].when, 4.5)  # the default, 5 s
        self.assertEqual(bool(capture.requests(family=6)), 6 in self.families)

    def test_names_compare_without_case(self):
        here, there = self.simple_network()
        capture = self.capture(there, "dev0")
        locator = self.start_locator(here, settings={"ipv6 active": 0, "LOG PATH": "x"})
        wait_until(lambda: len(capture.requests()) > 4, "requests")
        self.assertEqual(capture.requests(family=6), [])
        self.assertEqual(self.log_path(locator), b"x\0")

    @full_set
    def test_log_path(self):
        here = self.network.host("alone")
        missing = None  # in its place, the directory for temporary files
        for stored, expected in (("D:\\Logs", b"D:\\Logs\0"), ("/var/log", b"/var/log\0"),
                                 ("/Küche €", "/Küche €".encode(self.target.CODE_PAGE) + b"\0"),
                                 ("x" * 1023, b"x" * 1023 + b"\0"), ("x" * 1024, missing),
                                 (7, missing), ("", missing)):
            with self.subTest(stored=stored):
                locator = self.start_locator(here, settings={"Log Path": stored})
                expected = expected or locator.temporary.encode() + b"\0"
                self.assertEqual(self.log_path(locator), expected)
                locator.stop()

    def test_the_sample_file(self):
        """It is taken as it is, and has every setting that the README has."""
        sample = os.path.join(ROOT, "packaging", "settings.reg")
        locator = self.start_locator(self.network.host("alone"), settings=None,
                                     settings_file=sample)
        self.assertEqual(locator.event_log.count("Registry RetrieveValues() failed"), 0)
        self.assertEqual(self.log_path(locator), locator.temporary.encode() + b"\0")
        with open(sample, encoding="ascii") as file:
            names = re.findall(r'^;?"(.*?)"=', file.read(), re.MULTILINE)
        with open(os.path.join(ROOT, "README.md"), encoding="utf-8") as file:
            table = file.read().partition("| Value |")[2].partition("\n\n")[0]
        self.assertEqual(sorted(names), sorted(re.findall(r"^\| (\w.*?) \|", table, re.MULTILINE)))

    @only_on("linux", "the settings are a file there")
    @full_set
    def test_a_file_that_cannot_be_used(self):
        here, there = self.simple_network()
        station = self.station(there, "dev0", "192.168.10.20")
        texts = {"a folder": None, "noise": os.urandom(20000),
                 "another key": f"[{INTERFACES_KEY}]\n".encode() + b"x" * 3_000_000}
        for name, content in texts.items():
            with self.subTest(name):
                path = os.path.join(self.directory, name)
                if content is None:
                    os.mkdir(path)
                else:
                    with open(path, "wb") as file:
                        file.write(content)
                locator = self.start_locator(here, environment={"TALVORN_REGISTRY": path})
                locator.event_log.wait_for("Registry RetrieveValues() failed")
                wait_until(lambda: (station.send(wire.record(1)), locator.devices())[1],
                           "a device")
                locator.stop()

    @only_on("linux", "the settings are a file there")
    def test_rewritten_while_it_is_read(self):
        here, there = self.simple_network()
        locator = self.start_listening(here, settings={"Time Response Valid": 600000})
        for address in ("192.168.10.20", "fd00:10::20"):
            self.station(there, "dev0", address).send(wire.record(1))
        wait_until(lambda: len(locator.event_log.texts("CAST RESPONSE")) == 2, "the device")
        stop = threading.Event()
        texts = []
        for preference in (4, 6):
            locator.registry.settings["Prefered IP Version"] = preference
            locator.registry.settings["Log Path"] = "x" * (1000 if preference == 4 else 1)
            texts.append(locator.registry.text())

        def rewrite():
            """As a careless editor does it: in place and in pieces."""
            while not stop.is_set():
                for text in texts:
                    with open(locator.registry.path, "w", encoding="utf-8") as file:
                        for start in range(0, len(text), 100):
                            file.write(text[start:start + 100])
                            file.flush()
        thread = threading.Thread(target=rewrite)
        thread.start()
        try:
            seen = set()
            with locator.client() as client:
                for _ in range(200):
                    (device,) = client.devices()
                    seen.add((device["ipv4"], device["ipv6"]))
        finally:
            stop.set()
            thread.join()
        self.assertLessEqual(seen, {("192.168.10.20", ""), ("", "fd00:10::20")})
        locator.registry.set("Prefered IP Version", 6)
        self.assertEqual(locator.devices()["1"]["ipv6"], "fd00:10::20")
