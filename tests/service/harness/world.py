"""One test's world: an appliance with a log, a bus and a network, and nothing of the host."""

import base64
import itertools
import json
import os
import shutil
import tempfile

from .artnet import SLOTS
from .bus import Bus
from .namespaces import Namespaces
from .network import ARTNET_PORT, BROADCAST, Network
from .olad import Olad
from .service import Process, Service
from .syslog import SystemLog
from .waiting import DEADLINE

CONSOLE = "10.77.0.2"


class World:
    """Use as a context manager (the `world` fixture does).

    `log`: what was written to /dev/log. `bus`: the session bus. `client`: a client of the service.
    `network`: hosts. `console`: a socket of the first peer (10.77.0.2:6454). `directory`: a
    directory that the service sees too, e.g. for recordings.
    """

    def __init__(self, brand=None, with_eth0=True, broadcast=BROADCAST, port=ARTNET_PORT, bus_limits=None):
        # A short path: names of sockets lie below it.
        self.directory = tempfile.mkdtemp(prefix="kadrel-", dir="/tmp")
        os.chmod(self.directory, 0o755)
        self._closers = [lambda: shutil.rmtree(self.directory, ignore_errors=True)]
        self._markers = itertools.count()
        self._lazy = {}
        self.manufacturer = 0
        self.processes = []
        try:
            self.namespaces = Namespaces(self.directory)
            self._closers.append(self.namespaces.close)
            self.log = SystemLog(self.namespaces, f"{self.directory}/syslog", self.processes)
            self._closers.append(self.log.close)
            self.network = Network(self.namespaces, port, with_eth0, broadcast)
            self._closers.append(self.network.close)
            self.bus = Bus(self.namespaces, self.directory, bus_limits)
            self._closers.append(self.bus.close)
            self.client = self.bus.client()
        except BaseException:
            self.close()
            raise
        if brand is not None:
            self.write_brand(brand)

    # Hosts and sockets that most tests use, made when first asked for.

    def _once(self, name, make):
        if name not in self._lazy:
            self._lazy[name] = make()
        return self._lazy[name]

    @property
    def appliance(self):
        return self.network.appliance

    @property
    def console_host(self):
        return self._once("console_host", lambda: self.network.peer("console", CONSOLE))

    @property
    def console(self):
        """10.77.0.2:6454, the foreign sender of most tests."""
        return self._once("console", lambda: self.console_host.endpoint(ARTNET_PORT))

    @property
    def appliance_process(self):
        """A socket at 127.0.0.1: a local process that asks for relaying."""
        return self._once("appliance_process", self.appliance.loopback)

    @property
    def waker(self):
        """A socket of its own at 127.0.0.1, for datagrams that are ignored."""
        return self._once("waker", self.appliance.loopback)

    def olad(self, address="10.77.0.20", name="olad", **options):
        """Starts olad on a host of its own; see `Olad`."""
        return self.network.keep(Olad(self, self.network.peer(name, address), **options))

    def path(self, name):
        """A file name in the world's directory."""
        return f"{self.directory}/{name}"

    def write_brand(self, brand):
        """The branding file: a dictionary, or the text itself."""
        directory = f"{self.directory}/tolvek/data/cfg"
        os.makedirs(directory, exist_ok=True)
        with open(f"{directory}/brand.json", "w", encoding="utf-8") as file:
            file.write(brand if isinstance(brand, str) else json.dumps(brand))
        if isinstance(brand, dict):
            self.manufacturer = int(brand.get("manufacturer_id", 0))

    def start(self, **arguments):
        """Starts the service and waits until it is ready. See `Service` and `Process`."""
        service = self._tracked(Service, **arguments)
        return service

    def run(self, *arguments, **options):
        """Starts the executable with any arguments and waits for nothing."""
        return self._tracked(Process, arguments, **options)

    def _tracked(self, kind, *arguments, **options):
        process = kind.__new__(kind)
        self.processes.append(process)
        process.__init__(self, *arguments, **options)
        return process

    def next_marker(self):
        """Bytes that no other datagram holds: fill the parser's buffer and hold no identifier."""
        text = f"marker {next(self._markers)} "
        return (text * SLOTS)[:SLOTS].encode()

    def settle(self, endpoint=None):
        marker = self.next_marker()
        text = f"[Dump::process_datagram] Failed to parse datagram (data:{base64.b64encode(marker).decode()})"
        self.log.hide(text)
        (endpoint or self.console).send(marker)
        self.log.hidden.wait_for(lambda line: line.text == text, "the line about the marker", 0, DEADLINE)

    def restart_log(self, meanwhile):
        """The log daemon ends and, after `meanwhile()`, starts anew."""
        path = f"{self.directory}/syslog"
        self._closers.remove(self.log.close)
        self.log.close()
        os.unlink(path)
        meanwhile()
        self.log = SystemLog(self.namespaces, path, self.processes)
        self._closers.append(self.log.close)

    def finish(self):
        """Stops what still runs and checks it: exit code 0, no sanitizer report, a clean log."""
        for process in self.processes:
            if isinstance(process, Service) and process.alive:
                process.stop()
        assert self.log.foreign == [], "lines that the service's logger did not write"

    def close(self):
        for process in self.processes:
            if hasattr(process, "_pidfd"):
                process.close()
        for closer in reversed(self._closers):
            closer()
        self._closers = []

    def __enter__(self):
        return self

    def __exit__(self, kind, _value, _traceback):
        try:
            if kind is None:
                self.finish()
        finally:
            self.close()
