"""Prints what a locator costs: its memory, idle, with many addresses on loopback, in a
storm of answers, for each announcement, in a flood of requests, and with 500 static devices
of which a third are black-holed: python3 -m bench.locator DIRECTORY-OF-BINARIES"""

import glob
import os
import re
import sys
import tempfile
import threading
import time

from lab import harness, network, scale, static_network, wire
from lab.announcer import Announcer
from lab.harness import Process, native, wait_until
from lab.linux_target import Locator

IDLE_INTERFACES = 16
IDLE_SECONDS = 20
NO_REQUEST_MS = 600_000  # longer than is measured
LOOPBACK_ADDRESSES = 200
MANY_ADDRESSES = 1000
FLOOD_RATE = 10000  # requests a second
FLOOD_SECONDS = 10
LISTED = 500
BLACK_HOLED = LISTED // 3
HEALTHY = LISTED - BLACK_HOLED
CYCLES = 3
GAP_MS = 5000
USUAL = {"DebugView": 0, "Time Request": 5000, "Time Master": 60000,
         "Time Response Valid": 10000, "Time Network Changes": 1000}
ANNOUNCED = (1000, 10000, 100000)  # devices
STEADY = 2000  # announcements a second
STEADY_SECONDS = 5
BURST = 100000  # announcements, all within a second
RUNS = 3


def idle(directory, request_period):
    net = network.Network()
    here = net.host("here")
    scale.connect_many(here, net, IDLE_INTERFACES)
    locator = Locator(here, directory=directory,
                      settings={**USUAL, "Time Request": request_period})
    # Two requests for each family leave at the start.
    wait_until(lambda: len(locator.event_log.texts("CAST REQUEST")) >= 4 * IDLE_INTERFACES)
    wake_ups, load = scale.idle_cost(locator, IDLE_SECONDS)
    print(f"idle, {IDLE_INTERFACES} dual-stack interfaces, "
          f"{len(locator.task_values('stat'))} threads, a request of each family every "
          f"{request_period // 1000} s: {wake_ups:.1f} wake-ups a second, {100 * load:.3f} % of a core",
          flush=True)
    locator.stop()
    net.close()


def footprint(directory):
    net = network.Network()
    here = net.host("here")
    scale.connect_many(here, net, 1)
    locator = Locator(here, directory=directory, settings=USUAL)
    wait_until(lambda: len(locator.event_log.texts("CAST REQUEST")) >= 6)
    (kilobytes,) = re.findall(r"VmRSS:\s+(\d+)", locator.task_values("status")[0])
    print(f"resident with one dual-stack interface: {int(kilobytes) / 1000:.1f} MB", flush=True)
    locator.stop()
    net.close()


def loopback(directory):
    """Each address hears the requests of every other one."""
    net = network.Network()
    here = net.host("here")
    here.ip_batch(f"address add 10.9.{number // 250}.{number % 250 + 1}/32 dev lo"
                  for number in range(LOOPBACK_ADDRESSES))
    locator = Locator(here, directory=directory, settings=USUAL)
    locator.wait_ready()
    time.sleep(10)
    _, load = scale.idle_cost(locator, IDLE_SECONDS)
    print(f"idle, {LOOPBACK_ADDRESSES} addresses on loopback: {100 * load:.1f} % of a core",
          flush=True)
    locator.stop()
    net.close()


def flood(directory):
    """A polite client's answers while a neighbour sends requests."""
    for addresses in (1, MANY_ADDRESSES):
        net = network.Network()
        switch = net.switch()
        here, there = net.host("here"), net.host("there")
        here.connect(switch, "net0", "192.168.10.1/24")
        there.connect(switch, "dev0", "192.168.10.20/24")
        here.ip_batch(f"address add 10.9.{number // 250}.{number % 250 + 1}/32 dev lo"
                      for number in range(addresses - 1))
        # Those on loopback ask once, and are then as silent as they can be.
        locator = Locator(here, directory=directory,
                          settings={**USUAL, "Time Request": 600000})
        locator.wait_ready().wait_listening("192.168.10.1")
        time.sleep(10)
        station = harness.Station(there, "dev0", "192.168.10.20")
        request, stop = wire.request("192.168.10.20/24"), threading.Event()
        sent = 0

        def send():
            nonlocal sent
            began = time.monotonic()
            while not stop.is_set():
                while sent < (time.monotonic() - began) * FLOOD_RATE:
                    station.send_request(request)
                    sent += 1
                time.sleep(0.001)
        idle_load = cpu_seconds(locator)
        time.sleep(FLOOD_SECONDS)
        idle_load = cpu_seconds(locator) - idle_load
        sender = threading.Thread(target=send)
        used = cpu_seconds(locator)
        sender.start()
        with locator.client() as client:
            times = sorted(scale.answer_times(client, 200))
        time.sleep(FLOOD_SECONDS)
        stop.set()
        sender.join()
        used = cpu_seconds(locator) - used - idle_load
        print(f"{FLOOD_RATE} requests a second, {addresses} addresses: "
              f"{1e6 * used / sent:.1f} us of CPU each; a client's answers {1000 * times[100]:.2f} "
              f"ms (median of 200), {1000 * times[-1]:.1f} ms at most", flush=True)
        station.close()
        locator.stop()
        net.close()


def storm(directory):
    net = network.Network()
    switch = net.switch()
    here, there = net.host("here"), net.host("there")
    here.connect(switch, "net0", "192.168.10.1/24")
    there.connect(switch, "dev0", "192.168.10.20/24")
    simulator = Process(there, native("talvorn-sim"), "--interface", "dev0", "--ipv4", "--devices",
                        str(scale.STORM_DEVICES), directory=directory)
    time.sleep(1)
    locator = Locator(here, directory=directory, settings=scale.STORM_SETTINGS)
    locator.wait_ready()
    with locator.client() as client:
        wait_until(lambda: len(client.devices()) == scale.STORM_DEVICES)
        times = sorted(scale.reply_times(client, 50))
    print(f"{scale.STORM_DEVICES} devices answered one request; the reply with all of them took "
          f"{1000 * times[len(times) // 2]:.1f} ms (median of {len(times)}, the client's part "
          "in Python included)", flush=True)
    simulator.discard()
    locator.stop()
    net.close()


def spent_on_the_network(locator):
    """(CPU seconds, wake-ups) of the threads that an announcement passes."""
    seconds = wake_ups = 0
    for task in glob.glob(f"/proc/{locator.pid}/task/*"):
        texts = {}
        for name in ("comm", "schedstat", "status"):
            with open(f"{task}/{name}", encoding="ascii") as file:
                texts[name] = file.read()
        if texts["comm"].strip() in ("receiver", "request"):
            seconds += int(texts["schedstat"].split()[0]) / 1e9
            wake_ups += int(re.search(r"\nvoluntary_ctxt_switches:\s*(\d+)", texts["status"])[1])
    return seconds, wake_ups


def lost_datagrams(host):
    """For which a UDP socket of the host had no room, so far."""
    with host, open("/proc/thread-self/net/udp", encoding="ascii") as file:
        return sum(int(line.split()[-1]) for line in file.readlines()[1:])


def announcements(directory, devices):
    """What an announcement costs where so many devices are known, one by one and in a
    burst. The least of several runs counts, since the machine has other things to do."""
    net = network.Network()
    here, there = net.host("here"), net.host("there")
    switch = net.switch()
    here.connect(switch, "net0", "192.168.10.1/24")
    there.connect(switch, "dev0", "192.168.10.20/24")
    locator = Locator(here, directory=directory, settings=scale.STORM_SETTINGS)
    locator.wait_ready().wait_listening("192.168.10.1")
    with there:
        announcer = Announcer("192.168.10.20", [wire.record(f"{n:07}") for n in range(devices)])

    def announce(count, rate):
        lost, before = lost_datagrams(here), spent_on_the_network(locator)
        announcer.send(count, rate)
        time.sleep(1)  # until the last one is taken in
        after = spent_on_the_network(locator)
        return *((end - start) / count for start, end in zip(before, after)), \
            lost_datagrams(here) - lost

    def show(count, rate):
        costs = zip(*(announce(count, rate) for _ in range(RUNS)))
        seconds, wake_ups, lost = (min(values) for values in costs)
        print(f"{devices} devices, {count} announcements, {rate} a second: each takes "
              f"{1e6 * seconds:.1f} us and {wake_ups:.2f} wake-ups, {lost} are lost "
              f"(the least of {RUNS} runs)", flush=True)

    announcer.send(devices, 10 * STEADY)
    wait_until(lambda: len(locator.devices()) == devices, "all devices")
    show(STEADY_SECONDS * STEADY, STEADY)
    show(BURST, BURST)
    locator.stop()
    net.close()


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


def static_devices(directory):
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
    network.let_sockets_queue(4096)
    directory = tempfile.mkdtemp(dir="/run")
    footprint(directory)
    idle(directory, USUAL["Time Request"])
    idle(directory, NO_REQUEST_MS)
    loopback(directory)
    flood(directory)
    storm(directory)
    for devices in ANNOUNCED:
        announcements(directory, devices)
    return 0 if static_devices(directory) else 1


if __name__ == "__main__":
    sys.exit(main())
