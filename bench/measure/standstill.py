"""What a disk that stands still for 5 s holds up beside the recording itself: relaying, ArtPoll answers, memory."""

import os
import struct
import subprocess
import time
from contextlib import contextmanager
from pathlib import Path

import observe
from place import APPLIANCE, PEER, PORT
from stall import FRAME_RATE, SECOND, UNIVERSES, SlowDisk

STALL = 5.0
LEAD = 1.0

OWN_BUFFER = 212_992
RELAY_PORT = 7000
RELAY_INTERVAL = 2_000_000
POLL_INTERVAL = 20_000_000
# Longer than the lead, the wait for a write, and the stall.
TRAFFIC = 9 * SECOND

DMX = b"Art-Net\0\0\x50\0\x0e\0\0\0\0\x00\x02\0\0"
PAUSE = b"Art-Net\0\xfe\0" + struct.pack("<q", RELAY_INTERVAL)
POLL_REPLY = b"Art-Net\0\x00\x21"


class Recording:
    """The service, which records 64 universes at 44 Hz, and the disk that can be held up."""

    def __init__(self, contender, begin=True):
        self.contender = contender
        self.disk = SlowDisk(contender)
        contender.start(universes=UNIVERSES, buffer=OWN_BUFFER, core=None, begin=begin, environment=self.disk.environment)

    def send(self, seconds):
        count = int(seconds * FRAME_RATE) * UNIVERSES
        return self.contender.start_sending(count, group=UNIVERSES, interval=SECOND / FRAME_RATE)

    def close(self):
        self.contender.stop()
        self.disk.close()


def packets(path):
    """(ns since the epoch, source port, destination port, payload) of every UDP packet of a capture."""
    content = Path(path).read_bytes()
    at = 24
    while at + 16 <= len(content):
        seconds, nanoseconds, size, _ = struct.unpack_from("<4I", content, at)
        source, destination = struct.unpack_from(">2H", content, at + 16 + 34)
        yield seconds * SECOND + nanoseconds, source, destination, content[at + 16 + 42 : at + 16 + size]
        at += 16 + size


def longest_gap_ms(times, begin, end, interval):
    """Longest time without a packet that touches the span from `begin` to `end`, less the interval of the sender, in ms.
    A silence that had not ended when the capture did counts up to `end`."""
    before = [at for at in times if at < begin][-1:] or [begin]
    after = [at for at in times if at >= end][:1] or [end]
    points = [*before, *(at for at in times if begin <= at < end), *after]
    gaps = [next_one - one for one, next_one in zip(points, points[1:], strict=False)]
    return (max(gaps) - interval) / 1e6


@contextmanager
def clients(contender):
    """A client that has a datagram relayed every 2 ms, and a controller that polls every 20 ms; what comes out of the
    appliance is captured into the file that is given."""
    site = contender.site
    cue = f"{site.directory}/relayed"
    Path(cue).write_bytes(DMX + (PAUSE + DMX) * (TRAFFIC // RELAY_INTERVAL))
    player = str(contender.tools.directory.parent / "kadrel-cue")
    relay = [player, "play", cue, "--relay", str(PORT), "--to", f"{PEER}:{RELAY_PORT}"]
    poll = ["chrt", "--fifo", "1"] if os.geteuid() == 0 else []
    poll += [contender.tools.path("generator"), "--to", APPLIANCE, "--polls"]
    poll += ["--count", str(TRAFFIC // POLL_INTERVAL), "--interval", str(POLL_INTERVAL)]
    # Without receivers every packet would be answered.
    sinks = [site.namespaces.udp_socket("peer", PEER, port) for port in (PORT, RELAY_PORT)]
    running = []
    try:
        with site.capture("answers", "udp", "and", "src", "host", APPLIANCE) as captured:
            running.append(site.popen(relay, core=0, stdout=subprocess.DEVNULL))
            running.append(site.popen(poll, "peer", core=0))
            yield captured
    finally:
        for process in running:
            process.terminate()
            process.wait()
        for sink in sinks:
            sink.close()


def stop_while_it_stands(contender):
    """Longest gaps while `stop` waits."""
    recording = Recording(contender)
    try:
        with clients(contender) as captured:
            generator = recording.send(LEAD + STALL + 2)
            time.sleep(LEAD)
            # Before the stall: what these processors do to the gaps by themselves.
            now = time.time_ns()
            quiet = now - SECOND // 2, now - 2 * POLL_INTERVAL
            recording.disk.hold_up(STALL)
            begin = time.time_ns()
            contender.client.call("stop", deadline=30)
            end = time.time_ns()
            contender.finish_sending(generator)
        found = list(packets(captured))
        relayed = [at for at, _, destination, _ in found if destination == RELAY_PORT]
        answered = [at for at, source, _, payload in found if source == PORT and payload.startswith(POLL_REPLY)]
        return {
            "stop_ms": (end - begin) / 1e6,
            "relayed": len(relayed),
            "relay_gap_ms": longest_gap_ms(relayed, begin, end, RELAY_INTERVAL),
            "relay_gap_before_ms": longest_gap_ms(relayed, *quiet, RELAY_INTERVAL),
            "answered": len(answered),
            "answer_gap_ms": longest_gap_ms(answered, begin, end, POLL_INTERVAL),
            "answer_gap_before_ms": longest_gap_ms(answered, *quiet, POLL_INTERVAL),
        }
    finally:
        recording.close()


def memory_around_a_stall(contender):
    """Resident KiB before, during and after a stall while the recording goes on."""
    recording = Recording(contender, begin=False)
    try:
        resident = {"rest": observe.resident_kib(contender.pids)}
        contender.begin(contender.site.inside(contender.file))
        generator = recording.send(LEAD + STALL + 3)
        time.sleep(LEAD)
        resident["recording"] = observe.resident_kib(contender.pids)
        recording.disk.hold_up(STALL)
        over = time.monotonic() + STALL
        most = 0
        while time.monotonic() < over:
            most = max(most, observe.resident_kib(contender.pids))
            time.sleep(0.02)
        resident["most_in_stall"] = most
        resident["after_stall"] = observe.resident_kib(contender.pids)
        time.sleep(max(0.0, over + 1 - time.monotonic()))
        resident["one_second_later"] = observe.resident_kib(contender.pids)
        contender.finish_sending(generator)
        contender.wait_idle()
        contender.stop()
        return {**{f"resident_kib_{name}": value for name, value in resident.items()}, "lost": contender.account()["lost"]}
    finally:
        recording.close()


def stop_stall(contenders, settings):
    """64 universes at 44 Hz and a disk that keeps a write for 5 s: how long `stop` waits for it, and the longest gap meanwhile in
    datagrams relayed every 2 ms and in the answers to an ArtPoll every 20 ms, less these intervals
    (`before`: in half a second before); resident memory before, during, at the end of and a second after such a stall in the
    middle of a recording."""
    figures = {contender.name: {} for contender in contenders}
    for _ in range(settings.long_rounds):
        for contender in contenders:
            for part in (stop_while_it_stands, memory_around_a_stall):
                for name, value in part(contender).items():
                    figures[contender.name].setdefault(name, []).append(value)
    return figures
