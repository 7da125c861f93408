"""The numbers for monitoring, as a collector reads them."""

import os
import re
import shutil
import signal
import subprocess
import time

from lab import wire
from lab.harness import NetworkTestCase, only_on, wait_until
from lab.windows_target import windows_path

FOLDER = os.path.join(os.path.dirname(__file__), "..", "..", "packaging", "monitoring")
SAMPLE = re.compile(r'(\w+(?:\{\w+="(?:[^"\\\n]|\\[\\"n])*"\})?) (\d+(?:\.\d+)?)')


def promtool(*arguments, text=""):
    """What it complains about; nothing where it is not installed."""
    program = shutil.which("promtool")
    if not program:
        return ""
    done = subprocess.run([program, *arguments], input=text, capture_output=True, text=True,
                          check=False)
    return done.stdout + done.stderr if done.returncode else ""


class Metrics(NetworkTestCase):
    def setUp(self):
        super().setUp()
        self.folder = os.path.join(self.directory, "textfiles")
        os.mkdir(self.folder)
        self.file = os.path.join(self.folder, "talvorn.prom")

    def parsed(self, text):
        """The samples; checks the format of all the rest."""
        samples = {}
        for line in text.splitlines():
            if not re.fullmatch(r"# (HELP talvorn_\w+ .+|TYPE talvorn_\w+ gauge)", line):
                match = SAMPLE.fullmatch(line)
                self.assertTrue(match, line)
                self.assertNotIn(match[1], samples)
                samples[match[1]] = float(match[2])
        self.assertEqual(promtool("check", "metrics", text=text), "")
        return samples

    def written(self, locator):
        self.tool_says(locator, "metrics", "--output", self.named(self.file))
        with open(self.file, encoding="utf-8", newline="") as file:
            return file.read()

    def named(self, path):
        """A path, as the tool is told it."""
        return path if self.target.NAME == "linux" else windows_path(path)

    def test_they_tell_what_a_locator_knows_and_that_there_is_none(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        addresses = {4: "192.168.10.20", 6: "fd00:10::20"}
        for family in self.families:
            device = self.device(addresses[family])
            wait_until(lambda: (device.send(wire.record(
                family, alias='"} 1\n', items=[wire.item(b"item")])),
                str(family) in locator.devices())[1], "the device")
        text = self.written(locator)
        samples = self.parsed(text)
        for name, number in (
                ("talvorn_up", 1), ("talvorn_locator_present", 1), ("talvorn_items",
                 len(locator.items())),
                ('talvorn_info{version="1.0.0.0"}', 1),
                ('talvorn_devices{family="ipv4"}', 1),
                ('talvorn_devices{family="ipv6"}', 1 if 6 in self.families else 0)):
            self.assertEqual(samples.get(name), number, name)
        self.assertLess(samples["talvorn_reply_seconds"], 3)
        self.assertLess(abs(samples["talvorn_scrape_timestamp_seconds"] - time.time()), 60)
        self.assertEqual("talvorn_udp_receive_drops" in samples, self.target.NAME == "linux")
        self.assertNotIn("\r", text)
        if self.target.NAME == "linux":
            self.check_samples({name.partition("{")[0] for name in samples})
        self.assertEqual(os.listdir(self.folder), ["talvorn.prom"])
        self.assertEqual(self.parsed(self.tool_says(locator, "metrics")).keys(), samples.keys())

        locator.stop()
        for output in ((), ("--output", self.named(self.file))):
            tool = self.tool(locator, "metrics", *output)
            self.assertEqual(tool.wait(), 0)
            self.assertIn("does not answer", tool.err)
            if output:
                with open(self.file, encoding="utf-8") as file:
                    text = file.read()
            else:
                text = tool.out
            samples = self.parsed(text)
            self.assertEqual((samples["talvorn_up"], samples["talvorn_locator_present"]), (0, 0))
            self.assertFalse([name for name in samples if "devices" in name or "reply" in name])

    def test_listening_they_tell_who_asks_and_answers(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        self.simulate(self.there, "--interface", "dev0", "--devices", "2")
        rival = self.station(self.there, "dev0", "192.168.10.21")
        locator.wait_devices(2)
        seen = self.parsed(self.tool_says(locator, "metrics", "--listen", "2"))
        interface = [name for name, number in seen.items() if "_heard{" in name and number == 2]
        self.assertEqual(len(interface), 1, seen)
        label = interface[0].removeprefix("talvorn_devices_heard")
        self.assertEqual((seen["talvorn_locators"], seen["talvorn_other_locators" + label]), (1, 0))
        if self.target.NAME == "linux":
            self.assertEqual(seen["talvorn_asks" + label], 1)
        tool = self.tool(locator, "metrics", "--listen", "2")
        wait_until(lambda: (rival.send_request(), tool.ended)[1], "the end of the listening")
        self.assertEqual(self.parsed(tool.out)["talvorn_other_locators" + label], 1)

    def test_a_file_that_cannot_be_written_stays_as_it_was(self):
        locator = self.start_locator(self.here)
        os.mkdir(self.file)
        for name in (self.file, os.path.join(self.folder, "missing", "talvorn.prom")):
            tool = self.tool(locator, "metrics", "--output", self.named(name))
            self.assertEqual((tool.wait(), tool.out), (1, ""))
            self.assertEqual(len(tool.err.splitlines()), 1, tool.err)
            self.assertIn("cannot be written", tool.err)
        self.assertEqual(os.listdir(self.folder), ["talvorn.prom"])

    @only_on("linux", "a disk that is full")
    def test_a_full_disk_costs_nothing_but_the_new_numbers(self):
        locator = self.start_locator(self.here)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k", "none", self.folder], check=True)
        self.addCleanup(subprocess.run, ["umount", self.folder], check=True)
        with open(self.file, "w", encoding="utf-8") as file:
            file.write("old")
        tool = self.tool(locator, "metrics", "--output", self.file)
        self.assertEqual(tool.wait(), 1)
        self.assertIn("No space left", tool.err)
        self.assertEqual(os.listdir(self.folder), ["talvorn.prom"])
        with open(self.file, encoding="utf-8") as file:
            self.assertEqual(file.read(), "old")
        with open("/dev/full", "wb") as full:
            self.assertEqual(self.tool(locator, "metrics", stdout=full).wait(), 1)

    @only_on("linux", "a process that is killed, and a locator that is stopped")
    def test_whoever_reads_never_sees_half_a_file(self):
        locator = self.start_locator(self.here)
        whole = self.written(locator).count("\n")
        for round_number in range(20):
            tool = self.tool(locator, "metrics", "--output", self.file)
            time.sleep(round_number / 1000)
            tool.signal(signal.SIGKILL)
            tool.wait()
            with open(self.file, encoding="utf-8") as file:
                text = file.read()
            self.assertEqual((text.count("\n"), text[-1]), (whole, "\n"))
        # What was left in between is none that a collector takes.
        self.assertEqual([name for name in os.listdir(self.folder) if name.endswith(".prom")],
                         ["talvorn.prom"])
        locator.stop(leftovers=locator.left_by_clients())

    @only_on("linux", "what the kernel counts, and a locator that is stopped")
    def test_drops_are_counted_and_a_silent_locator_is_seen(self):
        locator = self.start_listening(self.here)
        device = self.device()
        locator.signal(signal.SIGSTOP)
        self.addCleanup(locator.signal, signal.SIGCONT)

        def drops():
            for _ in range(2000):
                device.send(bytes(1400))
            tool = self.tool(locator, "metrics", "--timeout", "0.1")
            self.assertEqual(tool.wait(), 0)
            samples = self.parsed(tool.out)
            self.assertEqual((samples["talvorn_up"], samples["talvorn_locator_present"]), (0, 1))
            return samples["talvorn_udp_receive_drops"] > 0
        wait_until(drops, "the buffers to be full")
        locator.signal(signal.SIGCONT)

    def check_samples(self, names):
        """That alerts and dashboard are about numbers that there are."""
        for file in ("talvorn.rules.yml", "dashboard.json"):
            with open(os.path.join(FOLDER, file), encoding="utf-8") as sample:
                used = set(re.findall(r"\btalvorn_\w+", sample.read()))
            self.assertTrue(used)
            self.assertLessEqual(used, names, file)

    @only_on("linux", "the samples for administrators")
    def test_the_alerts_are_right(self):
        if not shutil.which("promtool"):
            self.skipTest("promtool is not installed")
        for check, file in (("check", "talvorn.rules.yml"), ("test", "talvorn.rules.test.yml")):
            self.assertEqual(promtool(check, "rules", os.path.join(FOLDER, file)), "")
