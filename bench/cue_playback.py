"""How evenly recordings are played: kadrel-cue beside ola_recorder with olad, and tcpreplay, on a like show in the same run.

    /usr/bin/python3 -B bench/cue_playback.py [--build build/release] [--before OTHER_BUILD] [--seconds 60]
        [--universes 1,64,512] [--load idle,busy] [--rights yes,no] [--players kadrel-cue,tcpreplay]

Needs root, tcpdump, tcpreplay and ola. Everything happens in a network namespace that the program makes for itself. A show is
N universes of 32 slots, all sent at once 40 times a second (25 ms, which the whole milliseconds of ola_recorder can tell).
Every frame carries its number. The kernel's time of each packet at the interface is compared with the schedule of the show; the
first second sets the origin. ola_recorder plays through olad's E1.31 output, because olad's Art-Net has too few ports.

"everything" is kadrel-cue with look, fades, ArtSync and black-out switched on; what it inserts is not part of the schedule.
"before" is the kadrel-cue of another build. "busy" runs two endless loops for each processor. With rights to real-time
priorities the others are started with the priority that kadrel-cue asks for by itself; without, kadrel-cue loses CAP_SYS_NICE.
"""

import argparse
import contextlib
import itertools
import os
import re
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path

RATE = 40
SLOTS = 32
PERIOD = 10**9 // RATE
HERE = "10.78.0.1"
BROADCAST = "10.78.0.255"
E131_PORT = 5568
ARTNET_PORT = 6454
REAL_TIME = ("chrt", "--rr", "1")
WITHOUT_RIGHTS = ("setpriv", "--bounding-set=-sys_nice", "--inh-caps=-sys_nice")


def levels(frame):
    return [frame & 255, frame >> 8 & 255, frame >> 16, *([frame % 200] * (SLOTS - 3))]


def art_dmx(universe, frame):
    """The frame number stands in the field of the physical port too, where no fade changes it."""
    header = b"Art-Net\0\0\x50\0\x0e" + bytes([frame % 255 + 1, frame & 255])
    return header + struct.pack("<H", universe) + struct.pack(">H", SLOTS) + bytes(levels(frame))


def write_recording(path, universes, frames):
    with open(path, "wb") as file:
        for frame in range(frames):
            for universe in range(universes):
                if frame or universe:
                    file.write(b"Art-Net\0\xfe\0" + struct.pack("<q", 0 if universe else PERIOD))
                file.write(art_dmx(universe, frame))


def ip_checksum(header):
    total = sum(struct.unpack("!10H", header))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def write_capture(path, universes, frames):
    """The same datagrams as tcpreplay sends them: whole Ethernet frames to the broadcast address."""
    size = 18 + SLOTS
    addresses = socket.inet_aton(HERE) + socket.inet_aton(BROADCAST)
    head = struct.pack("!BBHHHBBH", 0x45, 0, 28 + size, 0, 0, 64, 17, 0) + addresses
    head = head[:10] + struct.pack("!H", ip_checksum(head)) + head[12:]
    front = b"\xff" * 6 + b"\x02\0\0\0\0\x01\x08\0" + head + struct.pack("!HHHH", ARTNET_PORT, ARTNET_PORT, 8 + size, 0)
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for frame in range(frames):
            seconds, rest = divmod(frame * PERIOD, 10**9)
            for universe in range(universes):
                packet = front + art_dmx(universe, frame)
                file.write(struct.pack("<4I", seconds, rest // 1000, len(packet), len(packet)) + packet)


def write_show(path, universes, frames):
    """The text that ola_recorder reads: frames, and after each the milliseconds until the next."""
    with open(path, "w", encoding="ascii") as file:
        file.write("OLA Show\n")
        for frame in range(frames):
            text = ",".join(map(str, levels(frame)))
            for universe in range(1, universes + 1):
                file.write(f"{universe} {text}\n{1000 // RATE if universe == universes else 0}\n")


class Capture:
    """tcpdump at the interface, from its first line on standard error until it is ended."""

    def __init__(self, path, port):
        self.path = path
        self.process = subprocess.Popen(
            ["tcpdump", "-i", "eth0", "-n", "-s", "200", "-B", "262144", "-j", "host", "--immediate-mode", "-U",
             "--time-stamp-precision=nano", "-Z", "root", "-w", path, "udp", "dst", "port", str(port)],
            stderr=subprocess.PIPE, text=True)
        wait_for_line(self.process.stderr, "listening on")

    def finish(self):
        time.sleep(1)  # what is still in the ring of the kernel is written
        self.process.terminate()
        report = self.process.communicate()[1]
        return int(re.search(r"(\d+) packets? dropped by kernel", report).group(1))


def wait_for_line(stream, text):
    for line in stream:
        if text in line:
            return
    raise RuntimeError(f"the program ended without {text!r}")


def captured(path):
    """Time in ns and UDP payload of every captured packet."""
    content = memoryview(Path(path).read_bytes())
    at = 24
    while at + 16 <= len(content):
        seconds, nanoseconds, size, _ = struct.unpack_from("<4I", content, at)
        yield seconds * 10**9 + nanoseconds, content[at + 16 + 42 : at + 16 + size]
        at += 16 + size


def art_net_packets(path):
    """Time in ns, universe and frame number of every ArtDmx; repeats have the number of their frame."""
    last = {}
    for sent, payload in captured(path):
        if len(payload) < 18 or payload[8:10] != b"\0\x50":
            continue
        universe = bytes(payload[14:16])
        before = last.get(universe, 0)
        last[universe] = before + ((payload[13] - before) & 255)
        yield sent, universe, last[universe]


def e131_packets(path):
    for sent, payload in captured(path):
        if len(payload) >= 126 + 3:
            low, middle, high = payload[126:129]
            yield sent, bytes(payload[113:115]), low | middle << 8 | high << 16


def figures(found, universes, frames):
    """|sent - scheduled| in ms, and how much later the last second was than the first."""
    seen, lateness = set(), []
    for sent, universe, frame in found:
        if frame >= frames or (universe, frame) in seen:
            continue  # a state that is repeated
        seen.add((universe, frame))
        lateness.append((frame, sent - frame * PERIOD))
    if not lateness:
        return {"packets": 0}
    first = [late for frame, late in lateness if frame < RATE]
    last = [late for frame, late in lateness if frame >= frames - RATE]
    origin = statistics.median(first or [lateness[0][1]])
    off = sorted(abs(late - origin) for _, late in lateness)
    return {
        "packets": len(seen),
        "missing": universes * frames - len(seen),
        "p50": off[len(off) // 2] / 1e6,
        "p99": off[len(off) * 99 // 100] / 1e6,
        "max": off[-1] / 1e6,
        "drift": (statistics.median(last) - origin) / 1e6 if last else float("nan"),
    }


def play_kadrel(program, more, directory, universes, frames, rights):
    cue, capture_path = f"{directory}/show.cue", f"{directory}/kadrel.pcap"
    write_recording(cue, universes, frames)
    capture = Capture(capture_path, ARTNET_PORT)
    outcome = subprocess.run([*(() if rights else WITHOUT_RIGHTS), program, "play", cue, "--to", BROADCAST, "--stats", *more],
                             check=True, capture_output=True, text=True)
    dropped = capture.finish()
    print(f"    its own figures: {outcome.stdout.strip()}", file=sys.stderr)
    return figures(art_net_packets(capture_path), universes, frames), dropped


def play_tcpreplay(directory, universes, frames, rights):
    show, capture_path = f"{directory}/show.pcap", f"{directory}/tcpreplay.pcap"
    write_capture(show, universes, frames)
    capture = Capture(capture_path, ARTNET_PORT)
    subprocess.run([*(REAL_TIME if rights else ()), "tcpreplay", "-q", "-i", "eth0", show], check=True, capture_output=True)
    dropped = capture.finish()
    return figures(art_net_packets(capture_path), universes, frames), dropped


def start_olad(directory, universes, real_time):
    config = f"{directory}/ola"
    os.mkdir(config)
    os.chmod(directory, 0o755)
    others = ("artnet", "dummy", "dmx4linux", "espnet", "ftdidmx", "gpio", "karate", "kinet", "milinst", "nanoleaf",
              "opendmx", "openpixelcontrol", "osc", "pathport", "renard", "sandnet", "shownet", "spi", "stageprofi",
              "uartdmx", "usbdmx", "usbserial")
    for name in others:
        Path(f"{config}/ola-{name}.conf").write_text("enabled = false\n", encoding="ascii")
    Path(f"{config}/ola-e131.conf").write_text(
        f"enabled = true\nip = {HERE}\ninput_ports = 0\noutput_ports = {universes}\n", encoding="ascii")
    for path in [config, *Path(config).iterdir()]:
        os.chmod(path, 0o777)
    # It refuses to run as root.
    prefix = [*(REAL_TIME if real_time else ()), "setpriv", "--reuid=olad", "--clear-groups"]
    process = subprocess.Popen(
        [*prefix, "olad", "--no-http", "--no-register-with-dns-sd", "-l", "3", "-c", config],
        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    wait_for_line(process.stderr, "Started E1.31")
    devices = subprocess.run(["ola_dev_info"], check=True, capture_output=True, text=True).stdout
    (device,) = re.findall(r"^Device (\d+): E1.31", devices, re.MULTILINE)
    for port in range(universes):
        subprocess.run(["ola_patch", "-d", device, "-p", str(port), "-u", str(port + 1)], check=True, stdout=subprocess.DEVNULL)
    return process


def play_ola(directory, universes, frames, real_time):
    show, capture_path = f"{directory}/show.ola", f"{directory}/ola.pcap"
    write_show(show, universes, frames)
    olad = start_olad(directory, universes, real_time)
    # Nobody reads olad's messages from here on, and a full pipe would hold it up.
    drain = subprocess.Popen(["cat"], stdin=olad.stderr, stdout=subprocess.DEVNULL)
    try:
        capture = Capture(capture_path, E131_PORT)
        subprocess.run([*(REAL_TIME if real_time else ()), "ola_recorder", "--playback", show], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        dropped = capture.finish()
    finally:
        olad.terminate()
        olad.wait()
        drain.wait()
    return figures(e131_packets(capture_path), universes, frames), dropped


@contextlib.contextmanager
def load(kind):
    """Two endless loops for each processor when "busy"."""
    loops = [subprocess.Popen(["sh", "-c", "while :; do :; done"]) for _ in range(2 * os.cpu_count() if kind == "busy" else 0)]
    try:
        yield
    finally:
        for loop in loops:
            loop.kill()
            loop.wait()


def contenders(options, frames):
    program = f"{options.build}/kadrel-cue"
    fade = str(min(5, options.seconds / 3))
    everything = ["--sync", "--blackout", "--fade-in", fade, "--fade-out", fade]
    players = {}
    if options.before:
        players["before"] = lambda *show: play_kadrel(options.before, [], *show)
    players["kadrel-cue"] = lambda *show: play_kadrel(program, [], *show)
    players["everything"] = lambda *show: play_kadrel(program, everything, *show)
    players["tcpreplay"] = play_tcpreplay
    players["ola_recorder"] = play_ola
    wanted = options.players.split(",") if options.players else players
    return {name: player for name, player in players.items() if name in wanted}


def measure(options):
    for command in ("ip link set lo up", "ip link add eth0 type veth peer name far", "ip link set far up",
                    f"ip address add {HERE}/24 brd + dev eth0", "ip link set eth0 up", "ip route add 224.0.0.0/4 dev eth0"):
        subprocess.run(command.split(), check=True)
    frames = options.seconds * RATE
    print(f"{options.seconds} s at {RATE} Hz, {SLOTS} slots; milliseconds; load of the machine {os.getloadavg()[0]:.1f}")
    print("| universes | processors | real-time | player | p50 | p99 | worst | drift | missing |")
    print("|---|---|---|---|---|---|---|---|---|")
    situations = itertools.product(map(int, options.universes.split(",")), options.load.split(","), options.rights.split(","),
                                   contenders(options, frames).items())
    for universes, kind, rights, (name, play) in situations:
        with tempfile.TemporaryDirectory(prefix="cue-playback-") as directory, load(kind):
            result, dropped = play(directory, universes, frames, rights == "yes")
        row = f"| {universes} | {kind} | {rights} | {name} |"
        if result["packets"] == 0:
            print(f"{row} nothing arrived", flush=True)
            continue
        note = f" ({dropped} not captured)" if dropped else ""
        print(f"{row} {result['p50']:.3f} | {result['p99']:.3f} | {result['max']:.3f} | {result['drift']:.3f} | "
              f"{result['missing']}{note} |", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/release", help="directory with kadrel-cue")
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--universes", default="1,64,512")
    parser.add_argument("--before", help="kadrel-cue of another build, to compare with")
    parser.add_argument("--load", default="idle,busy")
    parser.add_argument("--rights", default="yes,no", help="to real-time priorities")
    parser.add_argument("--players", help="some of before, kadrel-cue, everything, tcpreplay, ola_recorder")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.inside:
        measure(options)
        return
    again = ["unshare", "--net", sys.executable, "-B", __file__, *sys.argv[1:], "--inside"]
    sys.exit(subprocess.run(again, check=False).returncode)


if __name__ == "__main__":
    main()
