"""The real executable, started, watched and stopped."""

import contextlib
import os
import select
import signal
import subprocess
import threading
from pathlib import Path

from . import sanitizers
from .artnet import relay
from .bus import SERVICE
from .waiting import DEADLINE, Collector, DeadlinePassed, now, spin_until

EXECUTABLE = Path(os.environ.get("KADREL_EXE", sanitizers.REPOSITORY / "build/release/kadrel")).resolve()
PROGRAM = EXECUTABLE.name
SANITIZED = EXECUTABLE.exists() and any(mark in EXECUTABLE.read_bytes() for mark in (b"__asan_init", b"__tsan_init"))
READY = "[Dump::listen_incoming_data] This device IP is: "

# A queued datagram takes twice its size and this much more of a socket's receive buffer; and the part of the buffer (208 KiB
# on a Debian) that one portion of datagrams may take. Both are on the safe side.
DATAGRAM_COST = 900
PORTION = 90_000

# The thread that writes log lines, and the operation of its futex call while it waits for one: a wait without an end on a
# condition variable (FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG | FUTEX_CLOCK_REALTIME).
LOG_WRITER = "log writer"
CONDITION_WAIT = "0x189"

# Seconds between two datagrams that wake the receive thread while the service ends.
WAKE_PERIOD = 0.005


class Process:
    """A run of the executable inside a world; standard error as a list of lines."""

    pid = None  # until it has been started

    def __init__(
        self, world, arguments, environment=None, locale=None, prefix=(), directory=None, error_output=None
    ):
        """`error_output`: a descriptor that takes standard error in place of `errors`."""
        self.world = world
        variables = {
            "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
            "HOME": world.directory,
            "DBUS_SESSION_BUS_ADDRESS": world.bus.address,
            **sanitizers.environment(),
        }
        if locale is not None:
            variables["LANG"] = locale
        for name, value in (environment or {}).items():
            if value is None:
                variables.pop(name, None)
            else:
                variables[name] = str(value)
        self.errors = Collector("standard error")
        self._raw = []
        self._process = world.namespaces.popen(
            [*prefix, str(EXECUTABLE), *map(str, arguments)],
            directory=directory,
            env=variables,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE if error_output is None else error_output,
        )
        self.pid = self._process.pid
        self._pidfd = os.pidfd_open(self.pid)
        self._checked = False
        # Standard error is closed: the process has ended or is about to.
        self._closing = False
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        if self._process.stderr is None:
            return
        for line in self._process.stderr:
            self._raw.append(line)
            self.errors.append(line.decode("utf-8", "surrogateescape").rstrip("\n"))
        self._closing = True
        for collector in (self.errors, self.world.log, self.world.bus.owners):
            collector.notify()

    @property
    def error_text(self):
        """Standard error so far; complete once the process has ended."""
        return b"".join(self._raw).decode("utf-8", "surrogateescape")

    @property
    def alive(self):
        return self._process.poll() is None

    def fileno(self):
        """A descriptor that is readable once the process has ended, for select and poll."""
        return self._pidfd

    def send_signal(self, number):
        signal.pidfd_send_signal(self._pidfd, number)

    def halt(self):
        """Stops the process as SIGSTOP does; returns when none of its threads runs any more."""
        self.send_signal(signal.SIGSTOP)
        tasks = Path(f"/proc/{self.pid}/task")

        def state(task):
            return (task / "stat").read_text(encoding="ascii").rpartition(")")[2].split()[0]

        spin_until(lambda: all(state(task) == "T" for task in tasks.iterdir()), "the process to stop")

    def go_on(self):
        """Lets it go on after halt()."""
        self.send_signal(signal.SIGCONT)

    def wait(self, deadline=DEADLINE):
        """The exit code (negative: the signal that ended it), after a look for sanitizer reports."""
        ready, _, _ = select.select([self._pidfd], [], [], deadline)
        if not ready:
            raise DeadlinePassed(f"the process did not end within {deadline} s")
        code = self._process.wait()
        self._reader.join()
        if not self._checked:
            self._checked = True
            report = sanitizers.report_in(self.error_text)
            assert report is None, f"sanitizer report (exit code {code}):\n{report}"
        return code

    def wait_until_executing(self, deadline=DEADLINE):
        """Returns once the executable itself runs and not one of the programs that start it."""
        spin_until(
            lambda: not self.alive or os.path.basename(os.readlink(f"/proc/{self.pid}/exe")) == PROGRAM,
            "the executable to run",
            deadline,
        )

    def wait_until_catching(self, number, deadline=DEADLINE):
        """Returns once the process has a handler for a signal (or has ended)."""

        def catches():
            if not self.alive:
                return True
            with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
                for line in status:
                    if line.startswith("SigCgt:"):
                        return int(line.split()[1], 16) >> (number - 1) & 1
            return False

        spin_until(catches, f"a handler for signal {number}", deadline)

    def wait_until_logged(self, deadline=DEADLINE):
        """Returns once every line that the process has logged so far is on its output (or the process has ended)."""
        if self.pid is not None:
            spin_until(lambda: not self.writes_log(), "the last line to be written", deadline)

    def writes_log(self):
        """Whether lines that were logged are not yet on their output."""
        tasks = f"/proc/{self.pid}/task"
        # Files of threads that end meanwhile are not there any more; nor is anything after the end of the process.
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            for task in os.listdir(tasks):
                with open(f"{tasks}/{task}/comm", encoding="utf-8") as name:
                    if name.read().rstrip("\n") != LOG_WRITER:
                        continue
                with open(f"{tasks}/{task}/syscall", encoding="ascii") as call:
                    return call.read().split()[2:3] != [CONDITION_WAIT]
        return False

    def wait_waking(self, deadline=DEADLINE):
        """As wait(), with datagrams that wake the receive thread from its wait of up to a second."""
        end = now() + deadline
        while self.alive and not select.select([self._pidfd], [], [], WAKE_PERIOD)[0]:
            self.world.waker.send(b"\0")
            if now() > end:
                self.kill()
                raise DeadlinePassed(f"the process did not end within {deadline} s")
        return self.wait(deadline)

    def end(self, number=signal.SIGTERM):
        """Sends a signal, then as wait_waking(); the exit code."""
        if self.alive:
            self.send_signal(number)
        return self.wait_waking()

    def kill(self):
        if self.alive:
            self._process.kill()
        self._process.wait()
        self._reader.join()

    def close(self):
        """Ends what a test left running."""
        if self.alive:
            self.kill()
        os.close(self._pidfd)
        if self._process.stderr is not None:
            self._process.stderr.close()


class Service(Process):
    """The service, ready: its name is owned and its socket bound.

    `client` is a bus client that was there before the service, so that no signal is missed. With a log level below 3
    or a log of the test's own (say `wait_for_socket=False`) or the output "none" the socket announces itself nowhere; wait
    for an effect of a datagram then.
    """

    def __init__(self, world, port=None, wait_for_socket=True, **arguments):
        self.port = world.network.service_port if port is None else port
        self.client = world.client
        owners = world.bus.owners.mark()
        lines = world.log.mark()
        output = (arguments.get("environment") or {}).get("KADREL_LOG_OUTPUT", "syslog")
        if output not in ("console", "none"):
            output = "syslog"  # unset, or not understood
        self.expected_errors = "" if output == "syslog" else None
        super().__init__(world, [self.port], **arguments)
        if output == "syslog" and wait_for_socket:
            self._wait_for_start(world.log, lambda line: line.text.startswith(READY), lines)
        elif output == "console" and wait_for_socket:
            self._wait_for_start(self.errors, lambda line: line.startswith(READY), 0)
        self.unique_name = self._wait_for_start(
            world.bus.owners, lambda change: change[0] == SERVICE and change[1], owners
        )[1]

    def _wait_for_start(self, collector, predicate, start):
        found = collector.wait_for(predicate, "the service to start", start, give_up=lambda: self._closing)
        assert found is not None, f"the service ended with {self.wait()}; standard error:\n{self.error_text}"
        return found

    def settle(self, endpoint=None):
        """Returns when every datagram that `endpoint` (default: the console) sent before has been processed.

        Sends a datagram that is no Art-Net packet and waits for the log line about it; both leave no trace: the recording
        and the states stay as they are, the line is kept out of `log`. It fills the parser's whole buffer, so
        nothing of earlier datagrams is left in there.
        """
        self.world.settle(endpoint)

    def feed(self, datagrams, endpoint=None):
        """Sends any number of datagrams in portions that the socket's buffer holds for certain, and settles."""
        sender = endpoint or self.world.console
        room = PORTION
        for data in datagrams:
            sender.send(data)
            room -= DATAGRAM_COST + 2 * len(data)
            if room <= 0:
                self.settle(sender)
                room = PORTION
        self.settle(sender)

    def relay_barrier(self):
        """Returns when the service has sent everything that was asked of it before: one more relayed datagram came out.

        Orders against datagrams of 127.0.0.1 only.
        """
        target = self.world.console
        marker = self.world.next_marker()
        self.world.appliance_process.send(relay(marker, target.address, target.port, self.world.manufacturer))
        return target.receive_until(lambda datagram: datagram.data == marker)[:-1]

    def stop(self):
        """Ends the service in good order and checks exit code and standard error, which must be empty."""
        code = self.end()
        assert code == 0, f"exit code {code}; standard error:\n{self.error_text}"
        if self.expected_errors is not None:
            assert self.error_text == self.expected_errors
