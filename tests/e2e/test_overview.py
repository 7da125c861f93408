"""What the tool says of the locator as a whole: status, settings, and the report for whoever
helps."""

import json
import os

from lab import wire
from lab.harness import NetworkTestCase, only_on, wait_until
from lab.static_network import DeviceFile

HOSTILE = "\x1b]0;x\x07\x9bPress\xe9"


class Overview(NetworkTestCase):
    def document(self, locator, *arguments):
        return json.loads(self.tool_says(locator, *arguments, "--json"))

    def test_settings_tell_their_value_and_where_it_comes_from(self):
        locator = self.start_locator(self.here, settings={
            "time request": 7, "Time Master": "9", "Log Path": "C:\\L\u00f6gs", "Tme Master": 1})
        document = self.document(locator, "settings")
        told = {one["name"]: (one["value"], one["source"]) for one in document["settings"]}
        self.assertEqual(told["Time Request"], (7, "stored"))
        self.assertEqual(told["Time Master"], (60000, "unusable"))
        self.assertEqual(told["IPv6 Active"], (1, "default"))
        self.assertEqual(told["Log Path"], ("C:\\L\u00f6gs", "stored"))
        self.assertEqual(document["unknown"], ["Tme Master"])
        self.assertRegex(self.tool_says(locator, "settings"), r"Time Request +7 +stored\n")

    def test_status_tells_who_asks_and_who_answers(self):
        locator = self.start_listening(self.here)
        self.simulate(self.there, "--interface", "dev0", "--devices", "2", "--items", "1")
        locator.wait_devices(2)
        if self.target.NAME == "linux":
            self.assertRegex(self.tool_says(locator, "status", "--listen", "4"),
                             r"net0 .*, asks, 2 devices heard")
        rival = self.station(self.there, "dev0", "192.168.10.20")
        status = self.tool(locator, "status", "--json", "--listen", "4")
        wait_until(lambda: (rival.send_request(), status.ended)[1], "the end of the status")
        document = json.loads(status.out)
        self.assertEqual((document["answers"], document["devices"]), (True, 2))
        interface, = [one for one in document["interfaces"] if one["otherLocators"]]
        self.assertEqual(interface["otherLocators"], ["192.168.10.20"])
        self.assertIn("192.168.10.1", interface["ipv4"])
        self.assertGreaterEqual(interface["devicesHeard"], 2)
        self.assertRegex(self.tool_says(locator, "status"), r"(?s)1\.0\.0\.0.*2 devices, 2 items")

        locator.kill()
        silent = self.tool(locator, "status", "--json")
        self.assertEqual(silent.wait(), 1)
        self.assertEqual(json.loads(silent.out)["answers"], False)

    @only_on("linux", "the device file is one of this machine")
    def test_a_report_without_names_has_none(self):
        file = DeviceFile(self.directory, {"oven.secret.invalid": "192.168.10.2"})
        locator = self.start_listening(self.here, settings={
            "TAL-VORN INI-File Static Devices": file.path})
        device = self.device()
        item = wire.item(b"secret content")
        record = wire.record(5, items=[item], alias=HOSTILE, host_alias="secret-host")

        def known():
            device.send(record)
            return "5" in str(locator.devices())
        wait_until(known, "the device")
        path = os.path.join(self.directory, "report.txt")
        for options, names in (((), True), (("--anonymous",), False)):
            report = self.tool(locator, "bugreport", path, *options)
            wait_until(lambda: (device.send(record), report.ended)[1], "the end of the report")
            self.assertEqual(report.wait(), 0, report.err)
            self.assertLess(report.out.index("will contain"), report.out.index("is written"))
            with open(path, encoding="utf-8") as written:
                text = written.read()
            self.assertNotRegex(text, r"[\x00-\x08\x0b-\x1f\x7f-\x9f]")
            for section in ("TALVORN report", "doctor", "status", "settings", "devices", "items"):
                self.assertIn(f"== {section}", text)
            self.assertEqual("Press\xe9" in text, names)
            self.assertEqual("secret" in text, names)
            self.assertEqual("== reports" in text, names)

    def test_a_report_that_cannot_be_written_is_a_failure(self):
        locator = self.start_locator(self.here)
        report = self.tool(locator, "bugreport", os.path.join(self.directory, "none", "r.txt"))
        self.assertEqual(report.wait(), 1)
        self.assertRegex(report.err, "r.txt' cannot be written: ")
        self.assertNotIn("is written", report.out)
