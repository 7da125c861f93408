"""Measurements of a locator, for tests that set limits and for the benchmark."""

import time

from lab import wire

# So many devices answer one request; nothing else happens meanwhile.
STORM_DEVICES = 10000
STORM_SETTINGS = {"DebugView": 0, "Time Response Valid": 600000, "Time Request": 600000,
                  "Time Multicast Request Allowed": 1, "IPv6 Active": 0}


def connect_many(test_host, network, count):
    """Gives the host `count` interfaces, each in a network of its own, dual-stack."""
    for number in range(count):
        test_host.connect(network.switch(), f"net{number}", f"192.168.{100 + number}.1/24",
                          f"fe80::1:{number + 1}/64", f"fd00:{100 + number}::1/64")


def idle_cost(locator, seconds):
    """(wake-ups per second over all threads, share of one core) while nothing happens."""
    def wake_ups():
        total = 0
        for status in locator.task_values("status"):
            for line in status.splitlines():
                if line.startswith("voluntary_ctxt_switches"):
                    total += int(line.split()[1])
        return total

    def busy_seconds():
        return sum(int(one.split()[0]) for one in locator.task_values("schedstat")) / 1e9

    began, woken, busy = time.monotonic(), wake_ups(), busy_seconds()
    time.sleep(seconds)
    passed = time.monotonic() - began
    return (wake_ups() - woken) / passed, (busy_seconds() - busy) / passed


def answer_times(client, repetitions):
    """Seconds from asking for the version to having the reply."""
    times = []
    for _ in range(repetitions):
        began = time.perf_counter()
        assert client.is_served()
        times.append(time.perf_counter() - began)
    return times


def reply_times(client, repetitions):
    """Seconds from asking for the devices to having the whole reply."""
    times = []
    for _ in range(repetitions):
        began = time.perf_counter()
        client.ask("GETINFO")
        reply = client.receive()
        times.append(time.perf_counter() - began)
        assert len(reply) == 12 + wire.RECORD_SIZE * int.from_bytes(reply[8:12], "little")
    return times
