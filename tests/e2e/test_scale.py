"""Many interfaces, many devices."""

import contextlib
import json

from lab import network, scale, wire
from lab.harness import NetworkTestCase, TestCase, full_set, only_on, wait_until


class Idle(TestCase):
    @full_set
    def test_costs_next_to_nothing(self):
        here = self.network.host("here")
        scale.connect_many(here, self.network, 8)
        # The product's own times, not those that keep the tests short.
        defaults = {"DebugView": 0, "Time Request": 5000, "Time Master": 60000,
                    "Time Response Valid": 10000, "Time Network Changes": 1000}
        locator = self.start_locator(here, settings=defaults)
        wait_until(lambda: len(locator.event_log.texts("CAST REQUEST")) >=
                   24 * len(self.families), "every interface to work")
        wake_ups, load = scale.idle_cost(locator, 12)
        # Windows has nothing that tells of a message in a mailslot; Wine makes more of it.
        most_wake_ups, most_load = (20, 0.002) if self.target.NAME == "linux" else (1000, 0.03)
        self.assertLess(wake_ups, most_wake_ups)
        self.assertLess(load, most_load)


class Storm(NetworkTestCase):
    @only_on("linux", "Wine gives no socket as large a receive buffer")
    @full_set
    def test_every_answer_to_one_request_counts(self):
        capture = self.capture(self.here, "net0")
        simulator = self.simulate(self.there, "--interface", "dev0", "--ipv4", "--devices",
                                  str(scale.STORM_DEVICES), "--verbose")
        wait_until(lambda: simulator.out or simulator.err, "the simulator")
        locator = self.start_locator(self.here, settings=scale.STORM_SETTINGS)
        locator.wait_devices(scale.STORM_DEVICES)
        self.assertEqual(len(capture.requests()), 1)
        with locator.client() as client:
            # Not assertEqual: showing where so long lists differ takes minutes.
            self.assertTrue([device["serial"] for device in client.devices()]
                            == [f"{n:07}" for n in range(1, scale.STORM_DEVICES + 1)])
            self.assertLess(min(scale.reply_times(client, 10)), 0.020)

    @contextlib.contextmanager
    def large_mailslots(self):
        """Under Wine a mailslot takes no larger message than a Unix socket holds."""
        if self.target.NAME == "linux":
            yield
            return
        with network.larger_sockets() as larger:
            if not larger:
                self.skipTest("this account may not let Unix sockets hold more")
            yield

    def test_a_thousand_devices(self):
        """A reply that is far larger than a datagram, to a raw client and to the tool."""
        with self.large_mailslots():
            pass
        serials = [f"{n:07}" for n in range(1, 1001)]
        locator = self.start_locator(self.here, settings={"DebugView": 0,
                                                          "Time Response Valid": 600000})
        device = self.device()
        missing = serials
        while missing:
            for serial in missing:
                device.send(wire.record(serial))
            known = locator.devices()
            missing = [serial for serial in missing if serial not in known]
        kind, count, payload = locator.exchange("GETINFO")
        self.assertEqual((kind, count, len(payload)), (3, 1000, 1000 * wire.RECORD_SIZE))
        self.assertEqual([one["serial"] for one in wire.parse_records(payload)], serials)
        with self.large_mailslots():
            shown = json.loads(self.tool_says(locator, "devices", "--json"))
        self.assertEqual([one["serial"] for one in shown["devices"]], serials)
