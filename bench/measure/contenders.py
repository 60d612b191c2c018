"""The compared programs, all with the same interface."""

import json
import os
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

import observe
from observe import Trouble, wait_for
from place import APPLIANCE, PORT, Site

from harness.olad import OTHER_PLUGINS  # place.py has put it within reach

RAISED_BUFFER = 64 << 20
PACKAGED_BUFFER = 8 << 20


class Tools:
    """Programs of the bench, from one build directory."""

    def __init__(self, build):
        self.directory = Path(build).resolve() / "bench"

    def path(self, name):
        return str(self.directory / name)


class Contender:
    """One program that records, at a site of its own. `start`, traffic, `wait_idle`, `stop`, `account`."""

    kind = "recording"
    file = "recording"
    with_bus = False

    def __init__(self, name, tools, site=None):
        self.name = name
        self.tools = tools
        self._own_site = site is None
        self.site = site or Site(self.with_bus)
        self.process = None
        self.sent = 0
        self.universes = 1
        self.traffic = []  # what the generator said of each of its runs

    # What differs from program to program.

    def command(self, path):
        raise NotImplementedError

    def variables(self):
        """Environment that the program needs."""
        return {}

    def begin(self, path):
        """Makes a program that runs record into `path`."""

    def finish(self):
        """Makes a program that runs end its recording."""

    # What all have in common.

    @property
    def pids(self):
        return [self.process.pid]

    def start(self, universes=1, buffer=None, wrapper=(), environment=None, core=1, begin=True, path=None):
        """Starts the program and lets it record (unless `begin` says no). `buffer`: bytes of its socket's receive buffer."""
        self.sent, self.universes = 0, universes
        path = path or self.site.inside(self.file)
        if os.path.exists(self.site.outside(self.file)):
            os.unlink(self.site.outside(self.file))
        self.log = open(self._log_path(), "wb")  # noqa: SIM115  closed by stop()
        prefix = self._prefix({**self.variables(), **(environment or {})}, buffer, wrapper)
        self.process = self.site.popen([*prefix, *self.command(path)], core=core, stdout=self.log, stderr=self.log)
        wait_for(lambda: self.ready() or self.process.poll() is not None, f"{self.name} to be ready")
        if self.process.poll() is not None:
            raise Trouble(f"{self.name} ended with {self.process.returncode}: {self.log_text()}")
        self._before = observe.UdpCounters.of(self.process.pid)
        if begin:
            self.begin(path)
        self.wait_idle()

    def _prefix(self, variables, buffer, wrapper):
        """What stands before a command for these variables, this receive buffer, and this program that runs it."""
        variables = dict(variables)
        preload = [word for word in (variables.pop("LD_PRELOAD", None),) if word]
        if buffer is not None:
            preload.append(self.tools.path("libreceive_buffer.so"))
            variables["BENCH_RECEIVE_BUFFER"] = str(buffer)
        if preload:
            variables["LD_PRELOAD"] = ":".join(preload)
        return ["env", *(f"{name}={value}" for name, value in variables.items()), *wrapper]

    def _log_path(self):
        return f"{self.site.directory}/{self.file}.log"

    def log_text(self):
        return Path(self._log_path()).read_text(encoding="utf-8", errors="replace").strip()[-2000:]

    def ready(self):
        return observe.udp_socket(self.process.pid, PORT) is not None

    def cpu_ns(self):
        return observe.cpu_ns(self.pids)

    def taken(self):
        """Whether everything that was sent has been read, or is known to be lost."""
        counters = observe.UdpCounters.of(self.process.pid)
        gone = counters.read - self._before.read + counters.dropped - self._before.dropped
        return gone >= self.sent

    def wait_idle(self, deadline=observe.DEADLINE, settle=0.01):
        """Returns when everything sent has been taken and every thread sleeps, and has slept for `settle` seconds.

        Datagrams that the system lost on their way to the socket never come: a quiet second ends the wait as well.
        """
        end = time.monotonic() + deadline
        before, quiet_since = None, None
        while True:
            if self.process.poll() is not None:
                raise Trouble(f"{self.name} ended with {self.process.returncode}: {self.log_text()}")
            quiet = observe.states(self.pids) <= {"S"}
            used = self.cpu_ns() if quiet else None
            now = time.monotonic()
            if used is None or used != before:
                before, quiet_since = used, now
            elif now >= quiet_since + (settle if self.taken() else 1.0):
                return
            if now > end:
                raise Trouble(f"{self.name} is not idle after {deadline} s: {observe.states(self.pids)}")
            time.sleep(min(settle, 0.005))

    def pause(self):
        for pid in self.pids:
            os.kill(pid, signal.SIGSTOP)
        wait_for(lambda: observe.states(self.pids) <= {"T"}, f"{self.name} to stop")

    def go_on(self):
        for pid in self.pids:
            os.kill(pid, signal.SIGCONT)

    def send(self, count, group=1, interval=0, core=0, segmented=False):
        """Runs the generator; what it says of itself. The stream goes on where the last call ended."""
        return self.finish_sending(self.start_sending(count, group, interval, core, segmented))

    def start_sending(self, count, group=1, interval=0, core=0, segmented=False, one_by_one=False):
        """Starts the generator. `one_by_one`: each datagram of a group tells its own time, and costs its sender more."""
        group = group if interval else count
        command = [self.tools.path("generator"), "--to", APPLIANCE, "--count", str(count)]
        command += ["--universes", str(self.universes), "--group", str(group), "--interval", str(int(interval))]
        command += ["--first", str(self.sent)]
        if segmented:
            command.append("--segmented")
        if one_by_one:
            command.append("--one-by-one")
        self.sent += count
        if os.geteuid() == 0:
            # It sleeps between groups, and what it sends must leave when it is due.
            command = ["chrt", "--fifo", "1", *command]
        return self.site.popen(command, "peer", core=core, stdout=subprocess.PIPE, text=True)

    def finish_sending(self, generator):
        output, _ = generator.communicate()
        if generator.returncode != 0:
            raise Trouble(f"the generator ended with {generator.returncode}")
        self.traffic.append(json.loads(output))
        return self.traffic[-1]

    def dropped(self):
        """Datagrams since `start` that found no room in the receive buffer."""
        return observe.UdpCounters.of(self.process.pid).dropped - self._before.dropped

    def missing(self):
        """Datagrams since `start` that the program has not read."""
        return self.sent - (observe.UdpCounters.of(self.process.pid).read - self._before.read)

    def stop(self, deadline=observe.DEADLINE):
        if self.process is None:
            return
        if self.process.poll() is None:
            self.finish()
            for pid in self.pids:
                os.kill(pid, signal.SIGTERM)
            try:
                self.process.wait(deadline)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process = None
        self.log.close()

    def account(self, path=None, kind=None, schedule=None):
        """What became of everything that was sent since `start`; to be called when the program has ended.

        `path`, `kind`: of another file than its recording. `schedule`: the recording with whose times it is compared.
        """
        command = [self.tools.path("account"), kind or self.kind, path or self.site.outside(self.file)]
        command += [str(self.universes), "0", str(self.sent), *([schedule] if schedule else ())]
        outcome = subprocess.run(command, capture_output=True, text=True, check=False)
        if outcome.returncode != 0:
            raise Trouble(f"{self.name}: {outcome.stderr.strip()}")
        return json.loads(outcome.stdout)

    def close(self):
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self._own_site:
            self.site.close()


class Recorder(Contender):
    def __init__(self, name, tools, program, *options):
        super().__init__(name, tools)
        self.program = program
        self.options = options

    def command(self, path):
        return [self.tools.path(self.program), str(PORT), path, *self.options]


class Kadrel(Contender):
    with_bus = True

    def __init__(self, name, tools, executable):
        super().__init__(name, tools)
        self.executable = str(Path(executable).resolve())
        self.client = self.site.bus.client()

    def command(self, path):
        return [self.executable, str(PORT)]

    def variables(self):
        return {"DBUS_SESSION_BUS_ADDRESS": self.site.bus.address, "KADREL_LOG_OUTPUT": "none"}

    def ready(self):
        return super().ready() and self.client.owns("com.tolvekserver.Kadrel")

    def begin(self, path):
        self.client.grab(path)
        if self.client.get_status() != "on":
            raise Trouble(f"{self.name} does not record")

    def finish(self):
        self.client.stop()

    def client_program(self, *command):
        """Starts a client of the service beside the traffic."""
        bus = f"DBUS_SESSION_BUS_ADDRESS={self.site.bus.address}"
        return self.site.popen(["env", bus, *command], core=0, stdout=subprocess.PIPE, text=True)


class Tcpdump(Contender):
    kind = "capture"
    file = "capture"

    def __init__(self, name, tools, site=None):
        super().__init__(name, tools, site)
        # Somebody has to take the datagrams, or the system answers every one with "port unreachable".
        self.sink = self.site.namespaces.udp_socket("appliance", "0.0.0.0", PORT) if site is None else None

    def command(self, path):
        return ["tcpdump", "-i", "eth0", "-B", "65536", "-s", "0", "--time-stamp-precision=nano", "-Z", "root", "-w", path] + [
            "udp", "dst", "port", str(PORT)
        ]

    def ready(self):
        return "listening on" in self.log_text()

    def taken(self):
        return True

    def wait_idle(self, deadline=observe.DEADLINE, settle=1.2):
        # The capture ring hands over a block when it is full or a second old.
        super().wait_idle(deadline, settle)

    def close(self):
        if self.sink is not None:
            self.sink.close()
        super().close()


class Ola(Contender):
    """olad with its own recorder: two processes, and a protocol between them. Art-Net input of four universes."""

    UNIVERSES = 4
    kind = "show"

    def __init__(self, name, tools):
        super().__init__(name, tools)
        self.recorder = None

    @property
    def pids(self):
        return [self.process.pid] + ([self.recorder.pid] if self.recorder else [])

    def start(self, universes=4, buffer=None, wrapper=(), environment=None, core=1, **_options):
        """`buffer` is for olad, which runs as a user and gets what net.core.rmem_max allows; `environment` for the recorder."""
        self.sent, self.universes = 0, universes
        directory = f"{self.site.directory}/ola"
        shutil.rmtree(directory, ignore_errors=True)
        os.mkdir(directory)
        settings = {f"ola-{plugin}.conf": {"enabled": "false"} for plugin in OTHER_PLUGINS}
        settings["ola-artnet.conf"] = {"enabled": "true", "ip": APPLIANCE, "net": 0, "subnet": 0, "use_loopback": "false"}
        for name, values in settings.items():
            with open(f"{directory}/{name}", "w", encoding="ascii") as file:
                file.writelines(f"{key} = {value}\n" for key, value in values.items())
            os.chmod(f"{directory}/{name}", 0o666)
        os.chmod(directory, 0o777)
        # It refuses to run as root.
        as_user = ("setpriv", "--reuid=olad", "--clear-groups") if os.geteuid() == 0 else ("unshare", "--user", "--map-user=1000")
        self.log = open(self._log_path(), "wb")  # noqa: SIM115  closed by stop()
        self.process = self.site.popen(
            [*self._prefix({}, buffer, wrapper), "olad", "--no-http", "--no-register-with-dns-sd", "-l", "3", "-c", directory],
            core=core,
            as_user=as_user,
            stdout=self.log,
            stderr=self.log,
        )
        wait_for(lambda: "Started ArtNet" in self.log_text() or self.process.poll() is not None, "olad to start Art-Net")
        if self.process.poll() is not None:
            raise Trouble(f"olad ended: {self.log_text()}")
        (device,) = re.findall(r"^Device (\d+): ArtNet", self.site.namespaces.run(["ola_dev_info"]), re.MULTILINE)
        for port in range(self.UNIVERSES):
            # A universe's last four bits are the port-address.
            universe = str(16 + port)
            self.site.namespaces.run(["ola_patch", "-d", device, "-p", str(port), "-i", "-u", universe])
        recorded = ",".join(str(16 + port) for port in range(self.UNIVERSES))
        path = self.site.inside(self.file)
        self.recorder = self.site.popen(
            [*self._prefix(environment or {}, None, wrapper), "ola_recorder", "-r", path, "-u", recorded],
            core=core,
            stdout=self.log,
            stderr=self.log,
        )
        self._before = observe.UdpCounters.of(self.process.pid)
        wait_for(lambda: os.path.exists(self.site.outside(self.file)), "ola_recorder to record")
        self.wait_idle()

    def stop(self, deadline=observe.DEADLINE):
        if self.process is None:
            return
        for process in (self.recorder, self.process):
            if process is not None and process.poll() is None:
                process.send_signal(signal.SIGINT)
                try:
                    process.wait(10)
                except subprocess.TimeoutExpired:
                    process.kill()
                    process.wait()
        self.process = self.recorder = None
        self.log.close()

    def close(self):
        self.stop()
        super().close()


def available(tools, kadrels, wanted):
    """The contenders that exist here: (name, maker), the naive loop first, as everything is divided by it."""
    makers = {
        "naive": lambda: Recorder("naive", tools, "naive_recorder"),
        "recvmmsg": lambda: Recorder("recvmmsg", tools, "mmsg_recorder"),
        "select": lambda: Recorder("select", tools, "mmsg_recorder", "select"),
    }
    if shutil.which("tcpdump"):
        makers["tcpdump"] = lambda: Tcpdump("tcpdump", tools)
    for name, path in kadrels:
        makers[name] = lambda name=name, path=path: Kadrel(name, tools, path)
    if shutil.which("olad") and shutil.which("ola_recorder"):
        makers["ola"] = lambda: Ola("ola", tools)
    unknown = set(wanted or ()) - set(makers)
    if unknown:
        raise Trouble(f"no such contender here: {', '.join(sorted(unknown))} (there are {', '.join(makers)})")
    return {name: maker for name, maker in makers.items() if not wanted or name in wanted}
