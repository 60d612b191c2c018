"""A service manager as the service sees it: a socket that takes its messages."""

import os
import socket
import threading

from .waiting import Collector

PROOF = "WATCHDOG=1"


class ServiceManager(Collector):
    """Everything that the service has told its manager, message by message: lists of lines NAME=VALUE.

    `environment`: for the start of the service. `name`: path of the socket, or "@" and a name.
    """

    def __init__(self, world, name=None, watchdog=None):
        """`watchdog`: seconds after which it would end the service."""
        super().__init__("service manager")
        self.name = name or world.path("manager")
        self._socket = world.namespaces.notify_socket(self.name)
        self.environment = {"NOTIFY_SOCKET": self.name}
        if watchdog is not None:
            self.environment["WATCHDOG_USEC"] = str(watchdog * 1_000_000)
        self._reading = threading.Event()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self.go_on_reading()
        self._thread.start()

    def _read(self):
        while True:
            self._reading.wait()
            data = self._socket.recv(1 << 16)
            if not data:  # close() has shut the socket down
                return
            if data != b"noise":
                self.append(data.decode().rstrip("\n").split("\n"))

    def stop_reading(self):
        """It takes one more message at most."""
        self._reading.clear()

    def go_on_reading(self):
        self._reading.set()

    def fill(self):
        """Sends noise until there is no room for a message; it must not read."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as noise:
            noise.setblocking(False)
            noise.connect(self.name)
            try:
                while True:
                    noise.send(b"noise")
            except BlockingIOError:
                pass

    def wait_for_line(self, predicate, what, start=0):
        """The first line from message `start` on that fulfils the predicate."""
        found = self.wait_for(lambda lines: any(map(predicate, lines)), what, start)
        return next(line for line in found if predicate(line))

    def wait_for_status(self, text, start=0):
        """Waits until the status is `text`, or what a compiled pattern says; the status."""

        def fits(line):
            name, _, value = line.partition("=")
            return name == "STATUS" and (value == text if isinstance(text, str) else text.fullmatch(value) is not None)

        return self.wait_for_line(fits, f"the status {text}", start).partition("=")[2]

    def wait_for_proofs(self, count):
        """Waits until the service has proved so many more times that it goes on."""
        start = self.mark()

        def have_come():
            return sum(PROOF in lines for lines in Collector.since(self, start)) >= count

        self.wait_for(lambda lines: have_come(), f"{count} proofs", start)

    def leave(self):
        """The manager is gone, if it was there."""
        if self._socket.fileno() == -1:
            return
        self._reading.set()
        self._socket.shutdown(socket.SHUT_RD)
        self._thread.join()
        self._socket.close()
        if not self.name.startswith("@"):
            os.unlink(self.name)
