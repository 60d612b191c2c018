"""The system log of a world: /dev/log, and what was written to it."""

import itertools
import re
import socket
import threading
import time
from dataclasses import dataclass

from .waiting import DEADLINE, Collector

LOG_LOCAL0 = 16
ERROR, WARNING, INFO = 3, 4, 6

_LINE = re.compile(
    r"<(?P<priority>\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d (?P<program>[^:\[\]]+): (?P<text>.*)\Z", re.DOTALL
)

# Errors and warnings begin with line number, blank, function and ") ". A function text ends in ")", a lambda's in ">",
# and the framework names none.
_CONTEXT = re.compile(r"\d+ (?:|.*?[)>\]](?: const)?)\) ", re.DOTALL)


# Lines that wait for the reader. The kernel's own 10 are soon full when the reader has to wait for a busy processor.
QUEUE = 512

_PROBE = b"\0probe "


@dataclass(frozen=True)
class LogLine:
    """One line: syslog priority (3, 4 or 6), the text as written, and the program that wrote it."""

    priority: int
    text: str
    program: str = "kadrel"

    @property
    def message(self):
        """The text without the source context of errors and warnings."""
        return without_context(self.text) if self.priority != INFO else self.text

    @property
    def entry(self):
        return (self.priority, self.message)


def without_context(text):
    return _CONTEXT.sub("", text, count=1) if _CONTEXT.match(text) else text


class SystemLog(Collector):
    """Everything that reached /dev/log, in order. `hidden` texts (the harness's own markers) are kept apart.

    `items`, `mark`, `entries`, `messages` hold whatever the `writers` (see `Process`) logged before the call: they wait
    until it has been written and read.
    """

    def __init__(self, namespaces, path, writers=()):
        super().__init__("system log")
        self._writers = writers
        self.hidden = Collector("hidden system log")
        self._hide = set()
        self.foreign = []
        self._socket = namespaces.log_socket(path, QUEUE)
        self._probes = itertools.count()
        self._probe_socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._probe_socket.connect(path)
        self._probes_read = Collector("probes of the system log")
        self._pause = 0.0
        self._reading = threading.Event()
        self._reading.set()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def hide(self, text):
        """Lines of exactly this text go to `hidden` from now on."""
        self._hide.add(text)

    def _read(self):
        while True:
            self._reading.wait()
            data = self._socket.recv(1 << 20)
            if not data:  # close() has shut the socket down
                return
            self._take(data)
            if self._pause:
                # Not a wait for anything: the pause is the slowness of the daemon that is played here.
                time.sleep(self._pause)

    def _take(self, data):
        if data.startswith(_PROBE):
            self._probes_read.append(data)
            return
        match = _LINE.match(data.decode("utf-8", "surrogateescape"))
        if not match or int(match["priority"]) >> 3 != LOG_LOCAL0:
            self.foreign.append(data)
            return
        line = LogLine(int(match["priority"]) & 7, match["text"], match["program"])
        if line.text in self._hide:
            self.hidden.append(line)
        else:
            self.append(line)

    def stop_reading(self):
        """Lets the log daemon hang: it takes one more line at most, and its queue fills up."""
        self._reading.clear()

    def read_slowly(self, seconds):
        """Lets the log daemon take so long for each line."""
        self._pause = seconds

    def go_on_reading(self):
        self._reading.set()

    def _catch_up(self):
        """Returns when everything that has been logged has been read."""
        for writer in self._writers:
            writer.wait_until_logged()
        probe = _PROBE + str(next(self._probes)).encode()
        self._probe_socket.send(probe)
        self._probes_read.wait_for(lambda read: read == probe)

    @property
    def items(self):
        self._catch_up()
        return super().items

    def mark(self):
        self._catch_up()
        return super().mark()

    def wait_for_text(self, text, start=0, deadline=DEADLINE):
        """The line whose message is exactly this text."""
        return self.wait_for(lambda line: line.message == text, f"the line {text!r}", start, deadline)

    def entries(self, start=0):
        """(priority, message) of every line from `start` on."""
        return [line.entry for line in self.since(start)]

    def messages(self, start=0):
        return [line.message for line in self.since(start)]

    def close(self):
        self._reading.set()
        self._socket.shutdown(socket.SHUT_RD)
        self._thread.join()
        self._probe_socket.close()
        self._socket.close()
