#!/usr/bin/env python3
"""Prints what a cycle of 500 static devices costs, a third of them black-holed:
static_devices.py DIRECTORY-OF-BINARIES"""

import os
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))

import harness
import network
import static_network
from harness import Process, native, wait_until
from linux_target import Locator

LISTED = 500
BLACK_HOLED = LISTED // 3
HEALTHY = LISTED - BLACK_HOLED
CYCLES = 3
GAP_MS = 5000


def cpu_seconds(process):
    """Of all its threads, those that have ended included."""
    with open(f"/proc/{process.pid}/stat", encoding="ascii") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def mixed():
    """The addresses in the order of the file; every third one is black-holed."""
    healthy = iter(static_network.addresses(HEALTHY))
    black_holed = iter(static_network.addresses(BLACK_HOLED, "10.30.0.1"))
    return [next(black_holed if number % 3 == 2 else healthy) for number in range(LISTED)]


def measure(directory):
    net = static_network.RoutedNetwork(network.Network())
    net.add_devices(static_network.addresses(HEALTHY))
    simulator = Process(net.there, native("talvorn-sim"), "--interface", "dev0", "--devices",
                        str(HEALTHY), "--items", "2", "--status-query", "--no-multicast",
                        "--verbose", directory=directory)
    wait_until(lambda: simulator.out, "the simulator")
    file = static_network.DeviceFile(directory, {})
    locator = Locator(net.here, directory=directory, settings=static_network.settings(
        file.path, gap=GAP_MS, DebugView=0))
    locator.wait_ready().wait_listening("192.168.10.1")
    before = static_network.steady_counts(locator)
    file.write({address: None for address in mixed()})

    most = 0

    def asked(queries):
        nonlocal most
        most = max(most, static_network.query_threads(locator))
        return len(static_network.logged_queries(simulator)) >= queries
    wait_until(lambda: asked(1), "the first cycle")
    used = cpu_seconds(locator)
    wait_until(lambda: asked(CYCLES * HEALTHY + 1), f"{CYCLES} cycles", limit=300)
    used = cpu_seconds(locator) - used
    file.write({})
    wait_until(lambda: static_network.query_threads(locator) == 0, "the end of the last cycle")
    after = static_network.steady_counts(locator)

    queries = static_network.logged_queries(simulator)
    cycles = [queries[at:at + HEALTHY] for at in range(0, CYCLES * HEALTHY, HEALTHY)]
    once = all(len({address for _, address, _ in cycle}) == HEALTHY for cycle in cycles)
    starts = [queries[number * HEALTHY][0] for number in range(CYCLES + 1)]
    length = (starts[-1] - starts[0]) / CYCLES - (GAP_MS - 10) / 1000
    print(f"{LISTED} static devices, {BLACK_HOLED} of them black-holed: a cycle lasts {length:.1f} s"
          f" and takes {1000 * used / CYCLES:.0f} ms of CPU (means of {CYCLES}), at most {most} "
          f"queries at a time; each healthy device was asked {'once' if once else 'NOT ONCE'} in "
          f"each; {before[0]} threads and {before[1]} descriptors before, {after[0]} and "
          f"{after[1]} after", flush=True)
    locator.stop()
    simulator.discard()
    return once and after == before


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    harness.Options.binaries = os.path.abspath(sys.argv[1])
    try:
        network.isolate()
    except network.NotAllowed as reason:
        print(f"Not measured: {reason}", file=sys.stderr)
        return 1
    return 0 if measure(tempfile.mkdtemp(dir="/run")) else 1


if __name__ == "__main__":
    sys.exit(main())
