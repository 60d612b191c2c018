"""The two processes of a recording: a private D-Bus bus and the kadrel service. Each is ended by its own pid."""

import contextlib
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import urllib.parse

import dbus
import dbus.bus

BUS_NAME = "com.tolvekserver.Kadrel"
OBJECT_PATH = "/"
INTERFACE = "com.tolvekserver.Kadrel.Dump"
DEADLINE_SECONDS = 10
CALL_TIMEOUT_SECONDS = 10


class Failure(Exception):
    """Something did not work out; the text says what, for the person at the terminal."""


def start(command, **options):
    """Starts a child in a session of its own, so that Ctrl-C reaches only us, and that dies when we are killed."""
    return subprocess.Popen(["setpriv", "--pdeathsig", "TERM", "--", *command], stdin=subprocess.DEVNULL,
                            start_new_session=True, **options)


def end(child):
    """Asks the child to end, insists after a while, and returns its exit status."""
    if child.poll() is None:
        child.terminate()
        try:
            child.wait(DEADLINE_SECONDS)
        except subprocess.TimeoutExpired:
            child.kill()
    return child.wait()


def wait_until(condition, what):
    """Returns the first true value of condition(); raises Failure after the deadline."""
    give_up = time.monotonic() + DEADLINE_SECONDS
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > give_up:
            raise Failure(f"{what} within {DEADLINE_SECONDS} s")
        time.sleep(0.01)


@contextlib.contextmanager
def private_bus():
    """Runs a D-Bus daemon on a socket of its own; gives its address."""
    directory = tempfile.mkdtemp(prefix="kadrel-bus-")
    listen = "unix:path=" + urllib.parse.quote(os.path.join(directory, "bus"), safe="/-_.\\")
    daemon = None
    try:
        # What the daemon says is shown only when it does not start: as root it always complains about a limit.
        with open(os.path.join(directory, "log"), "w+", encoding="utf-8", errors="replace") as log:
            daemon = start(["dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1",
                            f"--address={listen}"], stdout=subprocess.PIPE, stderr=log, text=True)
            address = daemon.stdout.readline().strip()
            if not address:
                end(daemon)
                log.seek(0)
                raise Failure(f"the private D-Bus daemon did not start: {log.read().strip()}")
        yield address
    finally:
        if daemon is not None:
            end(daemon)
            daemon.stdout.close()
        shutil.rmtree(directory, ignore_errors=True)


def bus_answers(address):
    """Whether a D-Bus daemon that lets us in listens at the address."""
    try:
        dbus.bus.BusConnection(address).close()
        return True
    except (dbus.DBusException, ValueError):
        return False


def require_free_name(address):
    """Raises Failure when a kadrel is on the bus already."""
    bus = dbus.bus.BusConnection(address)
    try:
        if bus.name_has_owner(BUS_NAME):
            raise Failure(f"another kadrel is on your session bus already ({BUS_NAME} has an owner); end it first")
    finally:
        bus.close()


def users_bus_address():
    """The address of the user's session bus, or None when there is none that answers."""
    candidates = []
    if os.environ.get("DBUS_SESSION_BUS_ADDRESS"):
        candidates.append(os.environ["DBUS_SESSION_BUS_ADDRESS"])
    if os.environ.get("XDG_RUNTIME_DIR"):
        candidates.append("unix:path=" + urllib.parse.quote(os.environ["XDG_RUNTIME_DIR"] + "/bus", safe="/-_.\\"))
    return next(filter(bus_answers, candidates), None)


def service_environment(address):
    environment = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=address)
    environment.setdefault("KADREL_LOG_OUTPUT", "console")
    return environment


class UdpPort:
    """What the kernel tells about the socket that a process has bound to a UDP port (/proc/net/udp)."""

    def __init__(self, port, pid):
        self._port = port
        self._pid = pid

    def _row(self):
        inodes = set()
        try:
            for descriptor in os.scandir(f"/proc/{self._pid}/fd"):
                with contextlib.suppress(OSError):
                    inodes.add(os.readlink(descriptor.path))
        except OSError:
            return None
        with open("/proc/net/udp", encoding="ascii") as table:
            for line in list(table)[1:]:
                fields = line.split()
                if int(fields[1].split(":")[1], 16) == self._port and f"socket:[{fields[9]}]" in inodes:
                    return fields
        return None

    def bound(self):
        return self._row() is not None

    def dropped(self):
        """Datagrams that the kernel threw away because the socket's buffer was full."""
        row = self._row()
        return int(row[12]) if row is not None else 0


class Service:
    """A running kadrel and the D-Bus methods that a recording needs."""

    def __init__(self, executable, port, address, log):
        self._child = start([executable, str(port)], env=service_environment(address), stdout=log, stderr=log)
        self.udp_port = UdpPort(port, self._child.pid)
        try:
            self._bus = dbus.bus.BusConnection(address)
            self._bus.set_exit_on_disconnect(False)
            wait_until(lambda: self._alive() and self._bus.name_has_owner(BUS_NAME), "kadrel does not appear on the bus")
            self._dump = dbus.Interface(self._bus.get_object(BUS_NAME, OBJECT_PATH, introspect=False), INTERFACE)
            # The name is there a moment before the object, and the receive thread binds the port in its own time.
            wait_until(lambda: self._alive() and self._answers(), "kadrel does not answer on the bus")
            wait_until(lambda: self._alive() and self.udp_port.bound(), f"kadrel does not bind UDP port {port}")
        except BaseException:
            end(self._child)
            raise

    def _alive(self):
        if self._child.poll() is not None:
            raise Failure(f"kadrel ended with status {self._child.returncode}")
        return True

    def _answers(self):
        try:
            return self._dump.get_status(timeout=CALL_TIMEOUT_SECONDS) == "off"
        except dbus.DBusException as error:
            if error.get_dbus_name() == "org.freedesktop.DBus.Error.UnknownObject":
                return False
            raise Failure(f"kadrel does not answer on the bus: {error.get_dbus_message()}") from error

    def call(self, method, *arguments):
        try:
            return getattr(self._dump, method)(*arguments, timeout=CALL_TIMEOUT_SECONDS)
        except dbus.DBusException as error:
            raise Failure(f"the D-Bus call {method} failed: {error.get_dbus_message()}") from error

    def end(self):
        """Ends kadrel; returns its exit status."""
        return end(self._child)


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("0.0.0.0", 0))
        return probe.getsockname()[1]


def require_free_udp_port(port):
    """Raises Failure when the port cannot be bound, saying why."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        try:
            probe.bind(("0.0.0.0", port))
        except PermissionError as error:
            raise Failure(f"UDP port {port} may be bound by root only; take one from 1024 on") from error
        except OSError as error:
            raise Failure(f"UDP port {port} cannot be bound: {error.strerror}. Another Art-Net program, or another kadrel,"
                          f" may be using it; `ss -lunp` shows which") from error


def stop_on_signals():
    """Makes SIGTERM and SIGHUP unwind like Ctrl-C, so that every child is ended on the way out."""
    def interrupt(*_):
        raise KeyboardInterrupt

    # Python leaves SIGINT alone when the shell has told it to ignore it, as for a command in the background.
    signal.signal(signal.SIGINT, interrupt)
    signal.signal(signal.SIGTERM, interrupt)
    signal.signal(signal.SIGHUP, interrupt)
