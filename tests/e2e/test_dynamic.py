"""The lifetime with /dynamic: as long as clients need the locator."""

import re
import time

from lab.harness import NetworkTestCase, full_set, stays_true, wait_until


class Dynamic(NetworkTestCase):
    def start_counting(self, *arguments, ttl=4000):
        return self.start_locator(self.here, *arguments,
                                  settings={"Time Multicast Request Allowed": ttl})

    def countdown(self, locator):
        return [int(line[8:-1]) for line in locator.trace if re.fullmatch(r"TTL --> \d+s", line)]

    def test_ends_after_its_time_without_clients(self):
        before = time.monotonic()
        locator = self.start_counting("/Dynamic")
        self.assertEqual(locator.trace[0], "DYNAMIC")
        locator.wait_end()
        self.assertGreaterEqual(time.monotonic() - before, 3.9)
        self.assertIn("TTL --> 4s     TIMEOUT STARTED", locator.trace)
        shown = self.countdown(locator)
        self.assertTrue(shown and max(shown) < 4 and shown == sorted(shown, reverse=True), shown)
        ending = [locator.trace.index(line) for line in (
            "TTL --> 4s     TIMEOUT STARTED", "EXIT", "shut down all multicast IPv4 request threads",
            "Wait for Exit Multicast-Thread OK")]
        self.assertEqual(ending, sorted(ending))
        self.assertEqual(locator.event_log.count("Service loop terminated"), 1)

    def test_a_client_keeps_it_alive(self):
        locator = self.start_counting("/dynamic", ttl=5000)
        wait_until(lambda: "TTL --> 5s     TIMEOUT STARTED" in locator.trace, "the countdown")
        holder = self.tool(locator, "hold")
        wait_until(lambda: "REVIVED" in locator.trace, "the client to be seen")
        self.assertTrue(stays_true(lambda: not locator.ended, 7))
        with locator.client() as client:
            self.assertTrue(client.is_served())
        # A client that is killed has gone as well.
        holder.kill()
        gone = time.monotonic()
        locator.wait_end()
        self.assertGreaterEqual(time.monotonic() - gone, 3.5)
        self.assertEqual(locator.trace.count("TTL --> 5s     TIMEOUT STARTED"), 2)

    @full_set
    def test_with_a_time_of_zero_it_never_ends(self):
        locator = self.start_counting("/DYNAMIC", ttl=0)
        wait_until(lambda: "TTL --> 0s     TIMEOUT STARTED" in locator.trace, "the first pass")
        self.assertTrue(stays_true(lambda: not locator.ended, 3))
        self.assertEqual(self.countdown(locator), [])
        locator.stop()
        if self.target.NAME == "linux":  # where it can be asked to end
            self.assertIn("EXIT", locator.trace)

    @full_set
    def test_with_any_other_arguments_it_is_permanent(self):
        for arguments in ((), ("/dynamic ",), ("/dynamic", "x"), ("-dynamic",), ("",),
                          ("", "/dynamic")):
            with self.subTest(arguments=arguments):
                locator = self.start_locator(self.here, *arguments)
                self.assertEqual(locator.trace[0], "PERMANENT")
                # Where there is somebody to read it.
                told = bool(arguments) and self.target.NAME == "linux"
                self.assertEqual("is passed over" in locator.err, told)
                locator.stop()
