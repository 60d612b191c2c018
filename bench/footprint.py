#!/usr/bin/env python3
"""What kadrel takes up: start, idle, and while it records 1, 16, 64 and 512 universes at 44 Hz.

    python3 bench/footprint.py --kadrel build/release/kadrel               about 13 minutes
    python3 bench/footprint.py --kadrel build/release/kadrel --minutes 1   the long recording is cut short
    ... --receive-buffer build/bench/bench/libreceive_buffer.so            with 8 MiB, as the package sets them
    ... --deb out/kadrel_1.5.2_amd64.deb                                   its installed size, too

Everything happens in namespaces of its own (see tests/service/README.md). docs/operations.md has the figures.
"""

import argparse
import os
import statistics
import subprocess
import sys
import threading
import time
from pathlib import Path

TOP = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOP / "tests/service"))

RATE = 44
GROUP = 16  # datagrams back to back; the default receive buffer holds 166
SLOTS = 512
DATAGRAM = 18 + SLOTS
DELAY = 18
STARTS = 20
RECEIVE_BUFFER = 8 << 20
IDLE_SECONDS = 30
SHORT_SECONDS = 10
SAMPLE_SECONDS = 10


def memory(pid):
    """Resident and anonymous kilobytes."""
    found = {}
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        for line in file:
            name, _, value = line.partition(":")
            if name in ("VmRSS", "RssAnon"):
                found[name] = int(value.split()[0])
    return found["VmRSS"], found["RssAnon"]


def activity(pid):
    """Wake-ups and nanoseconds of processor time of all threads so far."""
    wakeups = spent = 0
    for task in Path(f"/proc/{pid}/task").iterdir():
        for line in (task / "status").read_text(encoding="ascii").splitlines():
            if line.startswith("voluntary_ctxt_switches"):
                wakeups += int(line.split()[1])
        spent += int((task / "schedstat").read_text(encoding="ascii").split()[0])
    return wakeups, spent


def dropped(pid):
    """Datagrams that the kernel threw away because a socket was full."""
    lines = Path(f"/proc/{pid}/net/udp").read_text(encoding="ascii").splitlines()[1:]
    return sum(int(line.split()[-1]) for line in lines)


class Console(threading.Thread):
    """Sends every universe 44 times a second, evenly spread, until told to stop."""

    def __init__(self, endpoint, universes, art_dmx):
        super().__init__(daemon=True)
        self.sent = 0
        self._endpoint = endpoint
        self._packets = [art_dmx(universe, bytes(SLOTS)) for universe in range(universes)]
        self._groups = [self._packets[at : at + GROUP] for at in range(0, universes, GROUP)]
        self._ending = threading.Event()

    def run(self):
        pause = 1 / RATE / len(self._groups)
        due = time.monotonic()
        while not self._ending.is_set():
            for group in self._groups:
                self._endpoint.send(*group)
                self.sent += len(group)
                due += pause
                left = due - time.monotonic()
                if left > 0:
                    time.sleep(left)

    def stop(self):
        self._ending.set()
        self.join()


def start_times(World, executable_name):
    times = []
    for _ in range(STARTS):
        with World() as world:
            began = time.monotonic()
            process = world.start()
            times.append((time.monotonic() - began) * 1000)
            process.stop()
    print(f"start of {executable_name} until its name is owned and its socket bound, ms, {STARTS} times: "
          f"median {statistics.median(times):.0f}, least {min(times):.0f}, most {max(times):.0f}")


def idle(World):
    with World() as world:
        process = world.start()
        before, began = activity(process.pid), time.monotonic()
        time.sleep(IDLE_SECONDS)
        after, lasted = activity(process.pid), time.monotonic() - began
        resident, anonymous = memory(process.pid)
        threads = len(os.listdir(f"/proc/{process.pid}/task"))
        print(f"idle: {resident} kB resident ({anonymous} kB of its own), {threads} threads, "
              f"{(after[0] - before[0]) / lasted:.2f} wake-ups/s, "
              f"{(after[1] - before[1]) / lasted / 1e7:.4f} % of a processor")


def record(World, art_dmx, universes, seconds, preload):
    environment = {"KADREL_UNIVERSE_COUNT": universes}
    if preload:
        environment |= {"LD_PRELOAD": preload, "BENCH_RECEIVE_BUFFER": RECEIVE_BUFFER}
    with World() as world:
        process = world.start(environment=environment)
        path = world.path("cue")
        world.client.grab(path)
        console = Console(world.console, universes, art_dmx)
        before, began = activity(process.pid), time.monotonic()
        console.start()
        samples = []
        while time.monotonic() - began < seconds:
            time.sleep(min(SAMPLE_SECONDS, seconds))
            samples.append(memory(process.pid)[0])
        console.stop()
        after, lasted = activity(process.pid), time.monotonic() - began
        process.settle()
        world.client.stop()
        lost = dropped(process.pid)
        size = os.path.getsize(path)
        expected = console.sent * (DATAGRAM + DELAY) - DELAY
        hour = universes * RATE * 3600 * (DATAGRAM + DELAY)
        print(f"{universes} universes, {lasted:.0f} s: {console.sent} sent ({console.sent / lasted / universes:.2f} Hz), "
              f"{lost} dropped, file {size} bytes (computed {expected}), "
              f"{size / lasted * 3600 / 1e9 * universes * RATE * lasted / console.sent:.3f} GB/h at {RATE} Hz (computed {hour / 1e9:.3f}), "
              f"{(after[1] - before[1]) / lasted / 1e7:.2f} % of a processor")
        print(f"    resident kB: first {samples[0]}, least {min(samples)}, most {max(samples)}, last {samples[-1]}")


def installed(deb):
    fields = subprocess.run(["dpkg-deb", "--field", deb, "Package", "Architecture", "Installed-Size"],
                            capture_output=True, text=True, check=True).stdout.split("\n")
    print(f"{os.path.basename(deb)}: {os.path.getsize(deb)} bytes; {'; '.join(filter(None, fields))} (KiB)")


def main():
    options = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    options.add_argument("--kadrel", default=str(TOP / "build/release/kadrel"))
    options.add_argument("--minutes", type=float, default=10)
    options.add_argument("--receive-buffer", metavar="LIBRARY", help="the preload of ./bench-run")
    options.add_argument("--deb", action="append", default=[])
    options = options.parse_args()
    os.environ["KADREL_EXE"] = os.path.abspath(options.kadrel)
    preload = options.receive_buffer and os.path.abspath(options.receive_buffer)
    from harness.artnet import art_dmx
    from harness.world import World

    print(f"receive buffer: {'8 MiB' if preload else 'as the system gives it'}")
    print(f"load average before: {os.getloadavg()[0]:.1f} on {os.cpu_count()} processors")
    for deb in options.deb:
        installed(deb)
    start_times(World, os.path.basename(options.kadrel))
    idle(World)
    for universes in (1, 16, 64, 512):
        record(World, art_dmx, universes, SHORT_SECONDS, preload)
    record(World, art_dmx, 64, options.minutes * 60, preload)
    print(f"load average after: {os.getloadavg()[0]:.1f}")


main()
