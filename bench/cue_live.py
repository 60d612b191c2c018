"""What the live commands of kadrel-cue cost: top, record and ready beside the service, and what the service costs meanwhile.

    /usr/bin/python3 -B bench/cue_live.py [--build build/release] [--bench build/bench] [--before OTHER_BUILD]
        [--only top,record,service,ready] [--universes 64,512] [--seconds 10] [--rounds 3]

Prints the rows of the tables in bench/cue_live.md. The programs come from --build (targets kadrel and kadrel-cue), generator,
account and receive_buffer from --bench (-D KADREL_BENCH=ON). Two network namespaces joined by a cable; the generator has a
processor and a real-time priority, all that is measured has the other processor. Processor time is what the kernel counts
for the threads of the program. What it spends on a datagram before a program reads it (also on its copy for a capture) it
counts for whoever runs at that moment, here for the generator.
"""

import argparse
import fcntl
import json
import os
import pty
import signal
import socket
import statistics
import struct
import sys
import tempfile
import termios
import threading
import time
from pathlib import Path

TOP = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOP / "bench/measure"))

import observe  # noqa: E402  found through the path above
from contenders import PACKAGED_BUFFER, Kadrel, Tools  # noqa: E402
from observe import Trouble, wait_for  # noqa: E402

RATE = 44
SECOND = 1_000_000_000
WARM_UP = 2  # s: streams are known and buffers have their size
DEADLINE = 30


class Screen:
    """A terminal of 80 columns and 24 lines. What is drawn is taken at once."""

    def __init__(self):
        self._user, self.terminal = pty.openpty()
        fcntl.ioctl(self.terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        self.drawn = bytearray()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        while True:
            try:
                portion = os.read(self._user, 1 << 16)
            except OSError:  # the other end is closed
                return
            if not portion:
                return
            self.drawn += portion

    def press(self, key):
        os.write(self._user, key)

    def close(self):
        os.close(self.terminal)
        self._reader.join(DEADLINE)
        os.close(self._user)

    def text(self):
        return self.drawn.decode("ascii", "replace")


class Cue:
    """kadrel-cue at the site of a service, on the processor of what is measured."""

    def __init__(self, service, program, *arguments, output=None):
        self.screen = None if output else Screen()
        end = output or self.screen.terminal
        bus = f"DBUS_SESSION_BUS_ADDRESS={service.site.bus.address}"
        self.process = service.site.popen(
            ["env", bus, "TERM=xterm", program, *arguments],
            stdin=None if output else end, stdout=end, stderr=end if self.screen else None)
        self.began = time.monotonic()

    def cpu_ns(self):
        return observe.cpu_ns([self.process.pid])

    def finish(self):
        """Exit code and what it showed, after `press` or `interrupt`, or when it ends by itself."""
        code = self.process.wait(DEADLINE)
        self.lasted = time.monotonic() - self.began
        if self.screen:
            self.screen.close()
        return code, self.screen.text() if self.screen else ""

    def interrupt(self):
        self.process.send_signal(signal.SIGINT)


class Manager:
    """Takes what the service tells its manager, as systemd does, and counts it."""

    def __init__(self, path):
        self.path = path
        self.messages = 0
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        while self._socket.recv(4096):
            self.messages += 1


def send(service, universes, seconds, evenly):
    """Starts the generator: whole frames, or groups of 16 datagrams evenly spread."""
    service.universes = universes
    group = 16 if evenly else universes
    return service.start_sending(universes * RATE * seconds, group, SECOND * group / (universes * RATE))


class Load:
    """What programs use from the second second of a stretch of traffic on, in per cent of a processor."""

    def __init__(self, service, universes, seconds, evenly=False):
        self.sent = universes * RATE * (seconds + WARM_UP)
        self._service = service
        self._seconds = seconds
        self._generator = send(service, universes, seconds + WARM_UP, evenly)

    def measure(self, *programs):
        time.sleep(WARM_UP)
        before, began = [one.cpu_ns() for one in programs], time.monotonic_ns()
        time.sleep(self._seconds - 0.5)
        after, ended = [one.cpu_ns() for one in programs], time.monotonic_ns()
        told = self._service.finish_sending(self._generator)
        if told["late_groups"] > told["groups"] / 100:
            print(f"    the generator was late {told['late_groups']} times of {told['groups']}", file=sys.stderr)
        return [100 * (late - early) / (ended - began) for early, late in zip(before, after, strict=True)]


def row(*cells):
    print("| " + " | ".join(map(str, cells)) + " |", flush=True)


def spread(values):
    """Median, with least and most."""
    return f"{statistics.median(values):.1f} ({min(values):.1f} to {max(values):.1f})"


def last_object(path):
    lines = [line for line in Path(path).read_text(encoding="utf-8").splitlines(True) if line.endswith("\n")]
    if not lines:
        raise Trouble("top wrote nothing")
    return json.loads(lines[-1])


def counted(path):
    """ArtDmx packets that top counted, and what it says was lost."""
    last = last_object(path)
    return last["packets"]["art_dmx"]["packets"], last["lost"]


def count_all(path, sent):
    """The same when all have been counted, or two objects later: there is one each second."""
    end = time.monotonic() + 2.5
    while counted(path)[0] < sent and time.monotonic() < end:
        time.sleep(0.1)
    return counted(path)


def top_once(service, settings, view, universes, evenly):
    """Per cent of a processor, and datagrams that are missing (None: the view does not tell)."""
    output = None
    arguments = ["top", "eth0"]
    if view == "json":
        output = open(settings.scratch / "top.json", "wb")  # noqa: SIM115  closed below
        arguments.append("--json")
    if view == "prom":
        output = open(settings.scratch / "top.out", "wb")  # noqa: SIM115  closed below
        arguments += ["--prom", service.site.inside("top.prom"), "--every", "1"]
    cue = Cue(service, settings.cue, *arguments, output=output)
    wait_for(lambda: captures(cue.process.pid) or cue.process.poll() is not None, "top to listen", DEADLINE)
    load = Load(service, universes, settings.seconds, evenly)
    (used,) = load.measure(cue)
    missing = None
    if view == "json":
        found, lost = count_all(output.name, load.sent)
        missing = load.sent - found
        if missing or lost:
            print(f"    {missing} of {load.sent} are missing, top says that {lost} were lost", file=sys.stderr)
    if cue.screen:
        cue.screen.press(b"q")
    else:
        cue.interrupt()
    code, _ = cue.finish()
    if code != 0:
        raise Trouble(f"top ended with {code}")
    if output:
        output.close()
    return used, missing


def captures(pid):
    """Whether there is a packet socket in the network namespace of a process."""
    return len(Path(f"/proc/{pid}/net/packet").read_text(encoding="ascii").splitlines()) > 1


def top(settings):
    row("universes", "sent", "view", "% of a processor", "missing")
    with_service(settings, settings.kadrel, lambda service: [
        top_rows(service, settings, universes, evenly) for universes in settings.universes for evenly in (False, True)])


def top_rows(service, settings, universes, evenly):
    for view in ("screen", "json", "prom"):
        rounds = [top_once(service, settings, view, universes, evenly) for _ in range(settings.rounds)]
        missing = [one for _, one in rounds if one is not None]
        row(universes, "evenly" if evenly else "in frames", view, spread([used for used, _ in rounds]),
            sum(missing) if missing else "")


def with_service(settings, executable, action, **environment):
    service = Kadrel("kadrel", Tools(settings.bench), executable)
    try:
        service.start(buffer=PACKAGED_BUFFER, environment=environment, begin=False)
        return action(service)
    finally:
        service.stop()
        service.close()


def remove(path):
    Path(path).unlink(missing_ok=True)


def account(service, name, sent):
    service.sent = sent
    return service.account(path=service.site.outside(name))["lost"]


def recorded(service, settings, universes, with_record):
    """Per cent of a processor: the service, and record (None without it); datagrams lost."""
    service.sent = 0
    remove(service.site.outside("show.cue"))
    path = service.site.inside("show.cue")
    cue = Cue(service, settings.cue, "record", path) if with_record else None
    if cue is None:
        service.begin(path)
    else:
        wait_for(lambda: service.client.get_status() == "on" or cue.process.poll() is not None, "record to record", DEADLINE)
        if cue.process.poll() is not None:
            raise Trouble(f"record ended: {cue.finish()[1]}")
    load = Load(service, universes, settings.seconds)
    used = load.measure(service, *([cue] if cue else []))
    service.wait_idle()
    if cue is None:
        service.finish()
    else:
        cue.interrupt()
        code, text = cue.finish()
        if code != 0:
            print(f"    record ended with {code}: {text[-300:]}", file=sys.stderr)
    lost = account(service, "show.cue", load.sent)
    return used[0], used[1] if cue else None, lost


def record(settings):
    row("universes", "service alone", "service beside record", "record", "lost")
    with_service(settings, settings.kadrel, lambda service: [
        record_row(service, settings, universes) for universes in settings.universes])


def record_row(service, settings, universes):
    alone, beside = [], []
    for _ in range(settings.rounds):
        alone.append(recorded(service, settings, universes, with_record=False))
        beside.append(recorded(service, settings, universes, with_record=True))
    row(universes, spread([one[0] for one in alone]), spread([one[0] for one in beside]), spread([one[1] for one in beside]),
        sum(one[2] for one in alone + beside))


def service_once(settings, executable, universes, manager):
    variables = {"NOTIFY_SOCKET": manager.path, "WATCHDOG_USEC": "30000000"} if manager else {}

    def run(service):
        used, _, lost = recorded(service, settings, universes, with_record=False)
        return used, lost

    return with_service(settings, executable, run, **variables)


def service(settings):
    """Services take turns; the one under a manager tells it its state and feeds its watchdog."""
    row("universes", "service", "% of a processor", "lost", "messages to the manager")
    manager = Manager(str(settings.scratch / "notify"))
    kinds = {"now, without a manager": (settings.kadrel, None), "now, under a manager": (settings.kadrel, manager)}
    if settings.before:
        kinds = {"before": (settings.before, None), **kinds}
    for universes in settings.universes:
        found = {name: [] for name in kinds}
        messages = {name: 0 for name in kinds}
        for number in range(settings.rounds):
            for name, (executable, told) in list(kinds.items())[:: 1 if number % 2 == 0 else -1]:
                before = manager.messages
                found[name].append(service_once(settings, executable, universes, told))
                messages[name] += manager.messages - before
        for name, values in found.items():
            row(universes, name, spread([used for used, _ in values]), sum(lost for _, lost in values), messages[name])


def ready(settings):
    row("universes", "seconds", "processor seconds", "exit code")

    def run(service):
        for universes in settings.universes:
            values = [ready_once(service, settings, universes) for _ in range(settings.rounds)]
            row(universes, *(f"{statistics.median(column):.2f}" for column in list(zip(*values, strict=True))[:2]), values[-1][2])

    with_service(settings, settings.kadrel, run)


def ready_once(service, settings, universes):
    generator = send(service, universes, 6, evenly=False)
    time.sleep(1)
    with open(settings.scratch / "ready.txt", "wb") as output:
        before = os.times()
        cue = Cue(service, settings.cue, "ready", output=output)
        code, _ = cue.finish()
        after = os.times()
    generator.kill()
    generator.wait()
    used = after.children_user + after.children_system - before.children_user - before.children_system
    return cue.lasted, used, code


MEASUREMENTS = {"top": top, "record": record, "service": service, "ready": ready}


def options():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=str(TOP / "build/release"), help="where kadrel and kadrel-cue are")
    parser.add_argument("--bench", default=str(TOP / "build/bench"), help="where the programs of the bench are")
    parser.add_argument("--before", help="build directory of another service, for `service`")
    parser.add_argument("--only", default=",".join(MEASUREMENTS), help="measurements, with commas between them")
    parser.add_argument("--universes", default="64,512")
    parser.add_argument("--seconds", type=int, default=10)
    parser.add_argument("--rounds", type=int, default=3)
    settings = parser.parse_args()
    settings.only = settings.only.split(",")
    settings.universes = [int(number) for number in settings.universes.split(",")]
    settings.kadrel = str(Path(settings.build).resolve() / "kadrel")
    settings.cue = str(Path(settings.build).resolve() / "kadrel-cue")
    settings.before = str(Path(settings.before).resolve() / "kadrel") if settings.before else None
    return settings


def main():
    settings = options()
    facts = observe.machine_facts()
    print(f"{facts['processor']}, {facts['processors']} processors, Linux {facts['kernel']}")
    with tempfile.TemporaryDirectory(prefix="kadrel-bench-") as scratch:
        settings.scratch = Path(scratch)
        for name in settings.only:
            print(f"\n{name}:\n")
            before = observe.Machine.now()
            MEASUREMENTS[name](settings)
            after = observe.Machine.now()
            share = (after.busy - before.busy) / (after.at - before.at) / facts["processors"]
            print(f"    {name}: the processors were busy for {100 * share:.0f} % of the time", file=sys.stderr)


if __name__ == "__main__":
    main()
