"""How evenly recordings are played: kadrel-cue beside olad with ola_recorder, on a like show in the same run.

    /usr/bin/python3 -B bench/cue_playback.py [--build build/release] [--seconds 60] [--universes 1,64,512]

Needs root, tcpdump and ola. Everything happens in a network namespace that the program makes for itself. A show is N
universes of 32 slots, all sent at once 40 times a second (25 ms, which the whole milliseconds of ola_recorder can
tell). Every frame carries its number. The kernel's time of each packet at the interface is compared with the
schedule of the show; the first second sets the origin. ola_recorder plays through olad's E1.31 output, because
olad's Art-Net has too few ports. `ola real-time` gives olad and ola_recorder the same priority that kadrel-cue
asks for by itself.
"""

import argparse
import os
import re
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
E131_PORT = 5568
ARTNET_PORT = 6454
REAL_TIME = ("chrt", "--rr", "1")


def levels(frame):
    return [frame & 255, frame >> 8 & 255, frame >> 16, *([frame % 200] * (SLOTS - 3))]


def write_recording(path, universes, frames):
    with open(path, "wb") as file:
        for frame in range(frames):
            data = bytes(levels(frame))
            for universe in range(universes):
                if frame or universe:
                    file.write(b"Art-Net\0\xfe\0" + struct.pack("<q", 0 if universe else PERIOD))
                file.write(b"Art-Net\0\0\x50\0\x0e\0\0" + struct.pack("<H", universe) + struct.pack(">H", SLOTS) + data)


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
            ["tcpdump", "-i", "eth0", "-n", "-s", "200", "-B", "262144", "-j", "host", "--immediate-mode", "-U", "--time-stamp-precision=nano",
             "-Z", "root", "-w", path, "udp", "dst", "port", str(port)],
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


def packets(path, universe_at, levels_at):
    """Time in ns, universe and frame number of every captured packet."""
    content = memoryview(Path(path).read_bytes())
    at = 24
    while at + 16 <= len(content):
        seconds, nanoseconds, size, _ = struct.unpack_from("<4I", content, at)
        payload = content[at + 16 + 42 : at + 16 + size]
        at += 16 + size
        if len(payload) < levels_at + 3:
            continue
        low, middle, high = payload[levels_at : levels_at + 3]
        yield seconds * 10**9 + nanoseconds, bytes(payload[universe_at : universe_at + 2]), low | middle << 8 | high << 16


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


def play_kadrel(options, directory, universes, frames):
    cue, capture_path = f"{directory}/show.cue", f"{directory}/kadrel.pcap"
    write_recording(cue, universes, frames)
    capture = Capture(capture_path, ARTNET_PORT)
    outcome = subprocess.run([f"{options.build}/kadrel-cue", "play", cue, "--to", "10.78.0.255", "--stats"],
                             check=True, capture_output=True, text=True)
    dropped = capture.finish()
    print(f"    kadrel-cue's own figures: {outcome.stdout.strip()}", file=sys.stderr)
    return figures(packets(capture_path, 14, 18), universes, frames), dropped


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
    return figures(packets(capture_path, 113, 126), universes, frames), dropped


def measure(options):
    for command in ("ip link set lo up", "ip link add eth0 type veth peer name far", "ip link set far up",
                    f"ip address add {HERE}/24 brd + dev eth0", "ip link set eth0 up", "ip route add 224.0.0.0/4 dev eth0"):
        subprocess.run(command.split(), check=True)
    frames = options.seconds * RATE
    contenders = {
        "kadrel-cue": lambda directory, universes: play_kadrel(options, directory, universes, frames),
        "ola_recorder": lambda directory, universes: play_ola(directory, universes, frames, False),
        "ola real-time": lambda directory, universes: play_ola(directory, universes, frames, True),
    }
    print(f"{options.seconds} s at {RATE} Hz, {SLOTS} slots; milliseconds; load of the machine {os.getloadavg()[0]:.1f}")
    print(f"{'universes':>9}  {'player':<14} {'p50':>9} {'p99':>9} {'max':>9} {'drift':>10}  {'missing':>8}")
    for universes in map(int, options.universes.split(",")):
        for name, play in contenders.items():
            with tempfile.TemporaryDirectory(prefix="cue-playback-") as directory:
                result, dropped = play(directory, universes)
            if result["packets"] == 0:
                print(f"{universes:>9}  {name:<14} nothing arrived", flush=True)
                continue
            note = f"  ({dropped} not captured)" if dropped else ""
            print(f"{universes:>9}  {name:<14} {result['p50']:9.3f} {result['p99']:9.3f} {result['max']:9.3f} "
                  f"{result['drift']:10.3f}  {result['missing']:8d}{note}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/release", help="directory with kadrel-cue")
    parser.add_argument("--seconds", type=int, default=60)
    parser.add_argument("--universes", default="1,64,512")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.inside:
        measure(options)
        return
    again = ["unshare", "--net", sys.executable, "-B", __file__, *sys.argv[1:], "--inside"]
    sys.exit(subprocess.run(again, check=False).returncode)


if __name__ == "__main__":
    main()
