#!/usr/bin/env python3
"""Prints what a locator costs, idle and in a storm: measure.py DIRECTORY-OF-BINARIES"""

import os
import sys
import tempfile
import time

import harness
import network
import scale
import test_scale
from harness import Process, native, wait_until
from linux_target import Locator

INTERFACES = 8
SECONDS = 20


def idle(directory):
    net = network.Network()
    here = net.host("here")
    scale.connect_many(here, net, INTERFACES)
    locator = Locator(here, directory=directory, settings={
        "DebugView": 0, "Time Request": 5000, "Time Master": 60000, "Time Response Valid": 10000,
        "Time Network Changes": 1000})
    wait_until(lambda: len(locator.event_log.texts("CAST REQUEST")) >= 6 * INTERFACES)
    wake_ups, load = scale.idle_cost(locator, SECONDS)
    print(f"idle, {INTERFACES} dual-stack interfaces, {len(locator.task_values('stat'))} threads: "
          f"{wake_ups:.1f} wake-ups a second, {100 * load:.3f} % of a core", flush=True)
    locator.stop()
    net.close()


def storm(directory):
    net = network.Network()
    switch = net.switch()
    here, there = net.host("here"), net.host("there")
    here.connect(switch, "net0", "192.168.10.1/24")
    there.connect(switch, "dev0", "192.168.10.20/24")
    simulator = Process(there, native("talvorn-sim"), "--interface", "dev0", "--ipv4", "--devices",
                        str(test_scale.DEVICES), directory=directory)
    time.sleep(1)
    locator = Locator(here, directory=directory, settings=test_scale.Storm.SETTINGS)
    locator.wait_ready()
    with locator.client() as client:
        wait_until(lambda: len(client.devices()) == test_scale.DEVICES)
        times = sorted(scale.reply_times(client, 50))
    print(f"{test_scale.DEVICES} devices answered one request; the reply with all of them took "
          f"{1000 * times[len(times) // 2]:.1f} ms (median of {len(times)}, the client's part "
          "in Python included)", flush=True)
    simulator.discard()
    locator.stop()
    net.close()


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
    network.let_sockets_queue(4096)
    directory = tempfile.mkdtemp(dir="/run")
    idle(directory)
    storm(directory)
    return 0


if __name__ == "__main__":
    sys.exit(main())
