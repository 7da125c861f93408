"""What the settings file may look like, and when a change counts. Which values are valid,
the unit test of the settings knows."""

import os
import threading

from lab.harness import (INTERFACES_KEY, ROOT, NetworkTestCase, full_set, only_on, wait_until)


class Settings(NetworkTestCase):
    def test_names_compare_without_case_and_a_wrong_type_counts_as_missing(self):
        capture = self.capture(self.there, "dev0")
        locator = self.start_locator(self.here, settings={
            "ipv6 active": 0, "Log Path": 7})
        wait_until(lambda: len(capture.requests()) > 4, "requests")
        self.assertEqual(capture.requests(family=6), [])
        self.assert_log_path(locator, locator.temporary)

    def assert_log_path(self, locator, path):
        expected = path.encode(self.target.CODE_PAGE) + b"\0"
        self.assertEqual(locator.exchange("GETLOGPATH"), (5, len(expected), expected))

    def test_the_log_path_is_told_in_the_code_page_of_the_machine(self):
        for stored in ("/Küche €", "x" * 1023):
            locator = self.start_locator(self.here, settings={"LOG PATH": stored})
            self.assert_log_path(locator, stored)
            locator.stop()

    def test_the_sample_file_is_taken(self):
        sample = os.path.join(ROOT, "packaging", "settings.reg")
        locator = self.start_locator(self.here, settings=None, settings_file=sample)
        self.assertEqual(locator.event_log.count("Registry RetrieveValues() failed"), 0)
        self.assert_log_path(locator, locator.temporary)

    @only_on("linux", "the settings are a file there")
    @full_set
    def test_a_file_that_cannot_be_used_is_an_error_and_no_obstacle(self):
        noise = os.path.join(self.directory, "noise")
        with open(noise, "wb") as file:
            file.write(f"[{INTERFACES_KEY}]\n".encode() + os.urandom(3_000_000))
        for path in (self.directory, noise):
            with self.subTest(path):
                locator = self.start_locator(self.here, environment={"TALVORN_REGISTRY": path})
                locator.event_log.wait_for("Registry RetrieveValues() failed")
                self.wait_heard(locator, self.device())
                locator.stop()

    @only_on("linux", "the settings are a file there")
    def test_a_file_that_is_rewritten_while_it_is_read_gives_one_of_its_states(self):
        locator = self.start_listening(self.here, settings={"Time Response Valid": 600000})
        for address in ("192.168.10.20", "fd00:10::20"):
            self.wait_heard(locator, self.device(address))
        wait_until(lambda: len(locator.event_log.texts("CAST RESPONSE")) >= 2, "both answers")
        texts = []
        for preference, log_path in ((4, "x" * 1000), (6, "x")):
            locator.registry.settings |= {"Prefered IP Version": preference, "Log Path": log_path}
            texts.append(locator.registry.text())
        stop = threading.Event()

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
            with locator.client() as client:
                shown = [client.devices()[0] for _ in range(200)]
        finally:
            stop.set()
            thread.join()
        self.assertLessEqual({(one["ipv4"], one["ipv6"]) for one in shown},
                             {("192.168.10.20", ""), ("", "fd00:10::20")})
        locator.registry.set("Prefered IP Version", 6)
        self.assertEqual(locator.devices()["66"]["ipv6"], "fd00:10::20")
