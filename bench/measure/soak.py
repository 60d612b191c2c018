"""A long show: what is lost, and what grows. ./soak runs it."""

import argparse
import datetime
import json
import os
import socket
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import observe  # noqa: E402  found through the path above
from contenders import PACKAGED_BUFFER, Kadrel, Tools  # noqa: E402
from measurements import FRAME_RATE, SECOND  # noqa: E402
from observe import Trouble  # noqa: E402
from place import APPLIANCE, PORT  # noqa: E402

from harness.bus import LazyClient  # noqa: E402  place.py has put it within reach

UNIVERSES = 64
RATE = UNIVERSES * FRAME_RATE
CYCLES = 2000
CONTROL_RATE = 5000
GARBAGE_RATE = 10_000
GARBAGE_SECONDS = 60

# Lines that wait for the log daemon where systemd runs the machine (net.unix.max_dgram_qlen).
LOG_QUEUE = 512

# What a process may grow by once it has warmed up.
GROWTH_KIB = 4096

RECORD = 18 + 18 + 512


class LogDaemon:
    """Reads /dev/log and counts."""

    def __init__(self, site):
        self.lines = 0
        self._socket = site.namespaces.log_socket(f"{site.directory}/syslog", LOG_QUEUE)
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while self._socket.recv(1 << 20):
            self.lines += 1

    def close(self):
        self._socket.shutdown(socket.SHUT_RD)
        self._thread.join()
        self._socket.close()


class Course:
    """Memory, processor time and receive queue of the service while something goes on."""

    PERIOD = 2.0

    def __init__(self, kadrel):
        self.kadrel = kadrel
        self.samples = []  # (seconds, KiB, ns, bytes in the receive queue, read)
        self.losses = []  # what is known about every period in which the kernel dropped something
        self._before = None

    def sample(self):
        pid = self.kadrel.process.pid
        queue = observe.udp_socket(pid, PORT).waiting
        counters = observe.UdpCounters.of(pid)
        self.samples.append((time.monotonic(), observe.resident_kib([pid]), observe.cpu_ns([pid]), queue, counters.read))
        present = (counters.dropped, observe.waited_ns([pid]), *observe.disk_pressure())
        if self._before is not None and present[0] > self._before[0]:
            dropped, waited, some, full = (now - then for now, then in zip(present, self._before, strict=True))
            self.losses.append(
                {
                    "second": round(self.samples[-1][0] - self.samples[0][0]),
                    "dropped": dropped,
                    "waited_for_a_processor_ms": round(waited / 1e6),
                    "somebody_waited_for_a_disk_ms": round(some / 1000),
                    "everybody_waited_for_a_disk_ms": round(full / 1000),
                }
            )
        self._before = present

    def watch(self, process):
        self.sample()
        while process.poll() is None:
            time.sleep(self.PERIOD)
            self.sample()

    def _cost(self, part):
        (_, _, began, _, read_before), (_, _, ended, _, read) = part[0], part[-1]
        return round((ended - began) / max(1, read - read_before))

    def figures(self):
        """Everything but the first tenth, which is warming up, counts for the memory."""
        warm = self.samples[len(self.samples) // 10 :]
        quarter = max(2, len(warm) // 4)
        resident = [sample[1] for sample in warm]
        return {
            "resident_kib_warm": resident[0],
            "resident_kib_most": max(resident),
            "cpu_ns_per_datagram_first_quarter": self._cost(warm[:quarter]),
            "cpu_ns_per_datagram_last_quarter": self._cost(warm[-quarter:]),
            "cpu_percent": round(
                100 * (warm[-1][2] - warm[0][2]) / max(1.0, (warm[-1][0] - warm[0][0]) * SECOND), 2
            ),
            "queue_bytes_most_seen": max(sample[3] for sample in self.samples),
        }


class Soak:
    def __init__(self, build, minutes, output, in_memory):
        self.minutes = minutes
        self.in_memory = in_memory
        self.losses = []
        self.output = Path(output)
        self.failures = []
        self.figures = {}
        self.kadrel = Kadrel("kadrel", Tools(build), f"{build}/kadrel")
        self.log = LogDaemon(self.kadrel.site)

    def check(self, condition, text):
        if not condition:
            self.failures.append(text)

    def part(self, name, function):
        print(f"==> {name}", flush=True)
        began = time.monotonic()
        try:
            figures = function()
        except Trouble as trouble:
            self.failures.append(f"{name}: {trouble}")
            figures = {}
        finally:
            self.kadrel.stop()
        figures["seconds"] = round(time.monotonic() - began)
        self.figures[name] = figures
        for key, value in figures.items():
            print(f"    {key:36} {value:>14,}" if isinstance(value, (int, float)) else f"    {key:36} {value:>14}")

    def start(self, begin=True, path=None, universes=UNIVERSES):
        self.kadrel.start(
            universes=universes,
            buffer=PACKAGED_BUFFER,
            core=None,
            begin=begin,
            path=path,
            environment={"KADREL_LOG_OUTPUT": "syslog"},
        )

    def show(self, seconds):
        """The generator: a whole frame of all universes, back to back, 44 times a second."""
        return self.kadrel.start_sending(
            RATE * seconds, group=UNIVERSES, interval=SECOND / FRAME_RATE, core=None
        )

    def recording(self):
        """As the service sees it."""
        return self.kadrel.site.inside("soak") if self.in_memory else f"{self.kadrel.site.directory}/soak"

    def recorded(self):
        """As this process sees it."""
        return self.kadrel.site.outside("soak") if self.in_memory else self.recording()

    def account(self):
        command = [self.kadrel.tools.path("account"), "recording", self.recorded()]
        outcome = subprocess.run(
            [*command, str(UNIVERSES), "0", str(self.kadrel.sent)], capture_output=True, text=True, check=False
        )
        os.unlink(self.recorded())
        if outcome.returncode != 0:
            raise Trouble(outcome.stderr.strip())
        report = json.loads(outcome.stdout)
        for fault in ("lost", "duplicated", "reordered", "out_of_order", "damaged", "foreign"):
            self.check(report[fault] == 0, f"{report[fault]} datagrams {fault}")
        return {
            "sent": self.kadrel.sent,
            **{key: report[key] for key in ("records", "lost", "duplicated", "out_of_order", "damaged", "foreign")},
        }

    def record_show(self, seconds, beside=None):
        self.start(path=self.recording())
        course = Course(self.kadrel)
        generator = self.show(seconds)
        others = beside() if beside else None
        course.watch(generator)
        self.kadrel.finish_sending(generator)
        extra = others() if others else {}
        self.kadrel.wait_idle()
        dropped = self.kadrel.dropped()
        self.kadrel.stop()
        own = course.figures()
        grown = own["resident_kib_most"] - own["resident_kib_warm"]
        self.check(grown <= GROWTH_KIB, f"the memory grew by {grown} KiB")
        for loss in course.losses:
            print(f"    {loss}")
        self.losses += course.losses
        late = self.kadrel.traffic[-1]["worst_late_ns"]
        return {
            **self.account(), "dropped_by_the_kernel": dropped, **extra, **own, "generator_late_ms_most": round(late / 1e6, 1)
        }

    def long_show(self):
        return self.record_show(self.minutes * 60)

    def garbage(self):
        def begin():
            lines = self.log.lines
            count = GARBAGE_RATE * GARBAGE_SECONDS
            command = [self.kadrel.tools.path("generator"), "--to", APPLIANCE, "--garbage", "--count", str(count)]
            command += ["--group", "10", "--interval", str(10 * SECOND // GARBAGE_RATE)]
            process = self.kadrel.site.popen(command, "peer", core=None, stdout=subprocess.PIPE, text=True)

            def end():
                said = json.loads(process.communicate()[0])
                return {
                    "garbage": said["sent"],
                    "garbage_per_second": round(said["sent"] * SECOND / said["ns"]),
                    "log_lines": self.log.lines - lines,
                }

            return end

        return self.record_show(GARBAGE_SECONDS + 2, begin)

    def cycles(self):
        """Grab, wait for the first datagram, stop, while the show goes on; every recording must be whole."""
        kadrel, path = self.kadrel, self.recording()
        self.start(begin=False)
        generator = self.show(CYCLES // 4)
        began, records, warm, warm_fds = time.monotonic(), 0, None, None
        for cycle in range(CYCLES):
            kadrel.client.grab(path)
            observe.wait_for(lambda: kadrel.client.get_status() == "run", "the recording to run", pause=0)
            kadrel.client.stop()
            content = Path(self.recorded()).read_bytes()
            count = (len(content) + 18) // RECORD
            numbers = [struct.unpack_from("<I", content, at * RECORD + 18)[0] for at in range(count)]
            whole = len(content) == count * RECORD - 18 and numbers == list(range(numbers[0], numbers[0] + count))
            self.check(whole, f"recording {cycle} is not whole")
            records += count
            if cycle == CYCLES // 10:
                warm, warm_fds = observe.resident_kib([kadrel.process.pid]), self.descriptors()
        lasted = time.monotonic() - began
        resident, descriptors = observe.resident_kib([kadrel.process.pid]), self.descriptors()
        generator.terminate()
        generator.wait()
        os.unlink(self.recorded())
        self.check(resident - warm <= GROWTH_KIB, f"the memory grew by {resident - warm} KiB")
        self.check(descriptors == warm_fds, f"{descriptors} descriptors are open, {warm_fds} were")
        return {
            "cycles": CYCLES,
            "cycles_per_second": round(CYCLES / lasted, 1),
            "records": records,
            "resident_kib_warm": warm,
            "resident_kib_end": resident,
            "descriptors": descriptors,
        }

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.kadrel.process.pid}/fd"))

    def control(self):
        """Control packets whose signals one client takes, while another reads slowly and a third not at all."""
        kadrel = self.kadrel
        count = 1_000_000 if self.minutes >= 10 else 100_000
        self.start(begin=False, universes=1)
        kadrel.client.set_ctrl_universe(1)
        kadrel.client.set_ctrl_action(2, 1, -1)  # slots 1 and 2 hold the low half of the datagram's number
        watch = kadrel.client_program(kadrel.tools.path("trigger_watch"), str(count), str(count // CONTROL_RATE + 60))
        if watch.stdout.readline() != "ready\n":
            raise Trouble("trigger_watch does not start")
        address = kadrel.site.bus.address
        slow, deaf = LazyClient(address, 10_000), LazyClient(address, 0)
        daemon = kadrel.site._bus_daemons()
        course, daemon_before = Course(kadrel), observe.resident_kib(daemon)
        generator = kadrel.start_sending(count, group=5, interval=SECOND * 5 / CONTROL_RATE, core=None)
        course.watch(generator)
        sender = kadrel.finish_sending(generator)
        lines, _ = watch.communicate()
        daemon_after = observe.resident_kib(daemon)
        cut_off = deaf.disconnected()
        slow.close()
        deaf.close()
        arrived = [tuple(map(int, line.split())) for line in lines.splitlines()]
        numbers = [key * 256 + subkey for _, key, subkey in arrived]
        in_order = sum(number == expected & 0xFFFF for expected, number in enumerate(numbers))
        self.check(len(numbers) == count, f"{count - len(numbers)} signals are missing")
        self.check(in_order == len(numbers), f"{len(numbers) - in_order} signals are not where they belong")
        # A signal that comes late says how many have been sent meanwhile: so many may have waited in the service.
        late = max(
            (time - sender["began_ns"] - number * SECOND // CONTROL_RATE for number, (time, _, _) in enumerate(arrived)), default=0
        )
        waiting = round(late * CONTROL_RATE / SECOND)
        own = course.figures()
        grown = own["resident_kib_most"] - own["resident_kib_warm"]
        self.check(grown <= GROWTH_KIB, f"the memory grew by {grown} KiB; {waiting} triggers waited at most")
        return {
            "control_packets": count,
            "per_second": CONTROL_RATE,
            "signals": len(numbers),
            "signals_in_order": in_order,
            "latest_signal_ms": round(late / 1e6, 1),
            "triggers_waiting_at_most": waiting,
            "slow_client_received_bytes": slow.received,
            "deaf_client_disconnected": "yes" if cut_off else "no",
            "bus_resident_kib_before": daemon_before,
            "bus_resident_kib_after": daemon_after,
            **own,
        }

    def parts(self):
        return {
            "long show": self.long_show,
            "short recordings": self.cycles,
            "control packets": self.control,
            "garbage": self.garbage,
        }

    def run(self, only):
        facts = observe.machine_facts()
        before = observe.Machine.now()
        print(f"{facts['processor']}, {facts['processors']} processors, Linux {facts['kernel']}", flush=True)
        try:
            for name, function in self.parts().items():
                if not only or name in only:
                    self.part(name, function)
        finally:
            self.kadrel.close()
            self.log.close()
        after = observe.Machine.now()
        busy = (after.busy - before.busy) / ((after.at - before.at) * facts["processors"])
        self.output.mkdir(parents=True, exist_ok=True)
        content = {
            "when": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
            "machine": facts,
            "machine_busy": round(busy, 3),
            "minutes": self.minutes,
            "receive_buffer": PACKAGED_BUFFER,
            "recorded_into": "memory" if self.in_memory else "a file on the disk",
            "losses": self.losses,
            "figures": self.figures,
            "failures": self.failures,
        }
        path = self.output / "figures.json"
        path.write_text(json.dumps(content, indent=1) + "\n", encoding="utf-8")
        print(f"\nThe machine was {100 * busy:.0f} % busy. All figures: {path}")
        for failure in self.failures:
            print(f"FAILED: {failure}")
        if not self.failures:
            print("Nothing was lost.")
        return bool(self.failures)


def main():
    parser = argparse.ArgumentParser(prog="./soak")
    parser.add_argument("--build", required=True)
    parser.add_argument("--minutes", type=int, required=True)
    parser.add_argument("--output", help="directory of figures.json (the build directory)")
    parser.add_argument("--memory", action="store_true", help="record into memory, not on the disk")
    parser.add_argument("--only", action="append", help="long show, short recordings, control packets or garbage")
    settings = parser.parse_args()
    # What else the machine does is not what is measured.
    with observe.Precedence():
        soak = Soak(settings.build, settings.minutes, settings.output or settings.build, settings.memory)
        return soak.run(settings.only)


sys.exit(main())
