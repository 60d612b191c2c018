"""The place where one contender is measured: two network namespaces joined by a cable, and a bus of its own.

    namespace "appliance"            namespace "peer"
    eth0 10.77.0.1/16  ------------  eth0 10.77.0.2/16
    the contender                    the generator
"""

import os
import shutil
import sys
import tempfile
from contextlib import contextmanager
from pathlib import Path

from observe import wait_for

TOP = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "tests/service"))

from harness.bus import Bus  # noqa: E402  found through the path above
from harness.namespaces import Namespaces  # noqa: E402

APPLIANCE = "10.77.0.1"
PEER = "10.77.0.2"
PORT = 6454
MAC = {"appliance": "02:00:0a:4d:00:01", "peer": "02:00:0a:4d:00:02"}
ADDRESS = {"appliance": APPLIANCE, "peer": PEER}
RECORDING_SPACE = 12 << 30

# Bytes that Site.capture keeps of each packet: all headers and what the generator marks a datagram with.
CAPTURED = 128


def processor(number):
    """Which processor stands for the contender (1) or for the traffic (0) on this machine."""
    available = sorted(os.sched_getaffinity(0))
    return available[min(number, len(available) - 1)]


class Site:
    def __init__(self, with_bus):
        self.directory = tempfile.mkdtemp(prefix="kadrel-bench-", dir="/tmp")
        os.chmod(self.directory, 0o755)  # olad has a user of its own
        self.bus = None
        try:
            self.namespaces = Namespaces(self.directory)
            try:
                self._lay_cable()
                os.mkdir(f"{self.directory}/cues")
                self.namespaces.mount_tmpfs(f"{self.directory}/cues", RECORDING_SPACE)
                if with_bus:
                    self.bus = Bus(self.namespaces, self.directory)
                    # The bus belongs to the clients, not to the service.
                    for pid in self._bus_daemons():
                        os.sched_setaffinity(pid, {processor(0)})
            except BaseException:
                self.namespaces.close()
                raise
        except BaseException:
            shutil.rmtree(self.directory, ignore_errors=True)
            raise

    def _lay_cable(self):
        self.namespaces.add_network("peer")
        self.namespaces.wire("appliance", "eth0", "peer", "eth0")
        for name, other in (("appliance", "peer"), ("peer", "appliance")):
            self.namespaces.ip(
                name,
                "link set lo up",
                f"link set eth0 address {MAC[name]}",
                f"address add {ADDRESS[name]}/16 broadcast 10.77.255.255 dev eth0",
                "link set eth0 up",
                # The first frame must not wait, and be thinned out, for an ARP answer.
                f"neighbour replace {ADDRESS[other]} lladdr {MAC[other]} dev eth0 nud permanent",
            )

    def _bus_daemons(self):
        """Processes that listen at the address of this site's bus."""
        needle = f"--config-file={self.directory}/bus.conf".encode()
        found = []
        for entry in os.listdir("/proc"):
            if not entry.isdigit():
                continue
            try:
                with open(f"/proc/{entry}/cmdline", "rb") as file:
                    if needle in file.read().split(b"\0"):
                        found.append(int(entry))
            except OSError:  # it has just ended
                continue
        return found

    def inside(self, name):
        """Path of a recording as the contender sees it."""
        return f"{self.directory}/cues/{name}"

    def outside(self, name):
        """The same file as this process sees it."""
        return f"{self.namespaces.root}{self.directory}/cues/{name}"

    def popen(self, command, network="appliance", core=1, **arguments):
        """Starts a program on one processor, or anywhere with `core` None."""
        pinned = [] if core is None else ["taskset", "-c", str(processor(core))]
        return self.namespaces.popen([*pinned, *command], network, **arguments)

    @contextmanager
    def capture(self, name, *expression):
        """While it lasts, tcpdump at the far end of the cable keeps the beginning of every packet that the expression names,
        with the kernel's time; the path of the capture as this process sees it."""
        log = Path(f"{self.directory}/{name}.log")
        command = ["tcpdump", "-i", "eth0", "-B", "65536", "-s", str(CAPTURED), "--immediate-mode", "-U", "-Z", "root"]
        command += ["--time-stamp-precision=nano", "-w", self.inside(name), *expression]
        with open(log, "wb") as errors:
            process = self.popen(command, "peer", core=0, stderr=errors)
        try:
            wait_for(lambda: b"listening on" in log.read_bytes() or process.poll() is not None, "tcpdump to listen")
            yield self.outside(name)
        finally:
            process.terminate()
            process.wait()

    def close(self):
        if self.bus is not None:
            self.bus.close()
        self.namespaces.close()
