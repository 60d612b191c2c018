"""A private session bus and clients on it."""

import os
import signal
import socket
import subprocess
import threading
import xml.etree.ElementTree as ElementTree
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402  the version is chosen first

from .waiting import DEADLINE, Collector, spin_until  # noqa: E402

SERVICE = "com.tolvekserver.Kadrel"
PATH = "/"
INTERFACE = "com.tolvekserver.Kadrel.Dump"

# Ordinary users run the service as root of a user namespace; the bus then sees two different users, hence ANONYMOUS.
CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={path}</listen>
  <auth>EXTERNAL</auth>
  <auth>ANONYMOUS</auth>
  <allow_anonymous/>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
    <allow user="*"/>
  </policy>
  <limit name="max_replies_per_connection">50000</limit>
  {limits}
</busconfig>
"""

# Method name -> (input signature, output signature).
METHODS = {
    "grab": ("s", ""),
    "dup_cue": ("ss", "s"),
    "stop": ("", ""),
    "get_status": ("", "s"),
    "latest_grab": ("", "s"),
    "set_automatic_node_detection": ("b", "b"),
    "request_node_detection": ("", "b"),
    "node_detection_request_pending": ("", "b"),
    "start_polling_artnet_nodes": ("", "b"),
    "get_detected_nodes": ("", "s"),
    "remove_detected_nodes": ("", "b"),
    "init_manual_nodes": ("a(issisi)", "b"),
    "add_manual_node": ("(issisi)", "b"),
    "update_manual_node": ("(issisi)", "b"),
    "remove_manual_node": ("i", "b"),
    "remove_all_manual_nodes": ("", ""),
    "set_ctrl_universe": ("i", "b"),
    "set_ctrl_action": ("iii", "b"),
    "set_ctrl_record": ("ii", "b"),
}


@dataclass(frozen=True)
class Signal:
    name: str
    arguments: tuple


class _Loop:
    """The main loop that delivers signals, one per test process."""

    _instance = None

    @classmethod
    def instance(cls):
        if cls._instance is None:
            cls._instance = cls()
        return cls._instance

    def __init__(self):
        self.context = GLib.MainContext.new()
        loop = GLib.MainLoop.new(self.context, False)
        threading.Thread(target=self._run, args=(loop,), daemon=True).start()

    def _run(self, loop):
        self.context.push_thread_default()
        loop.run()

    def call(self, function):
        """Runs a function on the loop's thread and returns its result."""
        done = threading.Event()
        outcome = []

        def run(_data):
            try:
                outcome.append((function(), None))
            except Exception as error:  # raised again on the caller's thread
                outcome.append((None, error))
            done.set()
            return GLib.SOURCE_REMOVE

        source = GLib.idle_source_new()
        source.set_priority(GLib.PRIORITY_DEFAULT)
        source.set_callback(run)
        source.attach(self.context)
        assert done.wait(DEADLINE), "the main loop does not answer"
        result, error = outcome[0]
        if error is not None:
            raise error
        return result


def _limits(values):
    return "".join(f'<limit name="{name}">{value}</limit>' for name, value in values.items())


class Bus:
    """A dbus-daemon of its own for one world."""

    def __init__(self, namespaces, directory, limits=None):
        """`limits`: further limits of the daemon by their names in its configuration."""
        self._namespaces = namespaces
        self.address = f"unix:path={directory}/bus"
        configuration = os.path.join(directory, "bus.conf")
        with open(configuration, "w", encoding="ascii") as file:
            file.write(CONFIGURATION.format(path=f"{directory}/bus", limits=_limits(limits or {})))
        read_end, write_end = os.pipe()
        self._daemon = namespaces.popen(
            ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--nopidfile", "--nosyslog"]
            + [f"--print-address={write_end}"],
            pass_fds=[write_end],
            stderr=subprocess.DEVNULL,
        )
        os.close(write_end)
        with os.fdopen(read_end) as pipe:
            assert pipe.readline(), "dbus-daemon does not start"
        self.owners = Collector("owners of bus names")
        self._clients = []
        self._watcher = self.connect()
        self._watcher.on_signal(
            "org.freedesktop.DBus",
            "NameOwnerChanged",
            lambda arguments: self.owners.append((arguments[0], arguments[2])),
        )

    def connect(self):
        client = Connection(self.address)
        self._clients.append(client)
        return client

    def client(self):
        """A further client of the service."""
        client = KadrelClient(self.address)
        self._clients.append(client)
        return client

    def monitor(self):
        """All messages on the bus from now on, as `MonitoredMessage`s; closed with the bus."""
        monitor = Monitor(self._namespaces, self.address)
        self._clients.append(monitor)
        # First it prints its own name; a message after that shows that it listens.
        spin_until(lambda: self._watcher.owns("org.freedesktop.DBus") and monitor.messages.mark(), "the monitor")
        return monitor

    def pause(self):
        """The daemon hangs: it takes nothing any more."""
        self._daemon.send_signal(signal.SIGSTOP)

    def go_on(self):
        self._daemon.send_signal(signal.SIGCONT)

    def kill(self):
        """The daemon goes without a word."""
        self._daemon.kill()
        self._daemon.wait()

    def close(self):
        for client in self._clients:
            client.close()
        self._daemon.kill()
        self._daemon.wait()


@dataclass(frozen=True)
class MonitoredMessage:
    """One message on the bus. `kind` as dbus-monitor prints it: mc (call), mr (return), sig, err."""

    kind: str
    serial: int
    sender: str
    fields: tuple


class Monitor:
    """dbus-monitor on a private bus."""

    def __init__(self, namespaces, address):
        self.messages = Collector("messages on the bus")
        self._process = namespaces.popen(
            ["stdbuf", "-oL", "dbus-monitor", "--profile", "--address", address],
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
        )
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            kind, *fields = line.rstrip("\n").split("\t")
            if kind in ("mc", "mr", "sig", "err"):
                self.messages.append(MonitoredMessage(kind, int(fields[1]), fields[2], tuple(fields[3:])))

    def close(self):
        self._process.kill()
        self._process.wait()
        self._reader.join()
        self._process.stdout.close()


class Connection:
    """One connection to the bus. Calls may come from any thread."""

    def __init__(self, address):
        flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
        self.connection = Gio.DBusConnection.new_for_address_sync(address, flags, None, None)
        self.connection.set_exit_on_close(False)

    def on_signal(self, interface, name, handler, path=None):
        """Calls handler(arguments) for each signal, on the loop's thread, in the order of the bus."""

        def received(_connection, _sender, _path, _interface, signal, parameters):
            del signal
            handler(parameters.unpack())

        _Loop.instance().call(
            lambda: self.connection.signal_subscribe(
                None, interface, name, path, None, Gio.DBusSignalFlags.NONE, received
            )
        )

    def call_raw(self, service, path, interface, method, arguments=None, reply=None, deadline=DEADLINE):
        """A call with a ready GLib.Variant tuple; the reply as a tuple. Raises GLib.Error."""
        result = self.connection.call_sync(
            service,
            path,
            interface,
            method,
            arguments,
            GLib.VariantType(reply) if reply else None,
            Gio.DBusCallFlags.NO_AUTO_START,
            int(deadline * 1000),
            None,
        )
        return result.unpack()

    def owns(self, name):
        return self.call_raw(
            "org.freedesktop.DBus",
            "/org/freedesktop/DBus",
            "org.freedesktop.DBus",
            "NameHasOwner",
            GLib.Variant("(s)", (name,)),
        )[0]

    def request_name(self, name):
        """Takes a bus name; true when this connection owns it now."""
        return (
            self.call_raw(
                "org.freedesktop.DBus",
                "/org/freedesktop/DBus",
                "org.freedesktop.DBus",
                "RequestName",
                GLib.Variant("(su)", (name, 4)),
            )[0]
            == 1
        )

    def close(self):
        if not self.connection.is_closed():
            self.connection.close_sync(None)


class LazyClient:
    """A client of the bus that subscribes to the triggers and reads `rate` bytes a second, or none."""

    PORTION = 0.1

    def __init__(self, address, rate):
        self.received = 0
        self._rate = rate
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(address.removeprefix("unix:path="))
        self._socket.sendall(b"\0AUTH ANONYMOUS\r\n")
        if not self._socket.recv(1000).startswith(b"OK"):
            raise ConnectionError("the bus does not let a client in")
        self._socket.sendall(b"BEGIN\r\n")
        self._call("Hello")
        self._call("AddMatch", GLib.Variant("(s)", (f"type='signal',interface='{INTERFACE}'",)))
        self._ending = threading.Event()
        self._thread = threading.Thread(target=self._read, daemon=True)
        if rate:
            self._thread.start()

    def _call(self, method, arguments=None):
        message = Gio.DBusMessage.new_method_call(
            "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method
        )
        message.set_serial(1)
        if arguments:
            message.set_body(arguments)
        self._socket.sendall(message.to_blob(Gio.DBusCapabilityFlags.NONE))
        self._socket.recv(1 << 16)

    def _read(self):
        while not self._ending.wait(self.PORTION):
            data = self._socket.recv(int(self._rate * self.PORTION))
            if not data:
                return
            self.received += len(data)

    def waiting(self):
        """Everything in the socket at this moment, for a client that has not read so far."""
        try:
            return self._socket.recv(1 << 20, socket.MSG_DONTWAIT)
        except BlockingIOError:
            return b""

    def disconnected(self):
        """Whether the bus has closed the connection; to be asked of a client that never reads."""
        try:
            return not self._socket.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT)
        except BlockingIOError:
            return False

    def close(self):
        self._ending.set()
        self._socket.close()


class SignalLog(Collector):
    """Signals in the order of the bus.

    `items`, `mark`, `since` hold whatever the service emitted before the call (also what its receive thread has just
    left for its main thread): they wait for the answer to a method call after it.
    """

    def __init__(self, client):
        super().__init__("signals")
        self._client = client

    def _catch_up(self):
        try:
            self._client.call("get_status")
        except GLib.Error as error:
            # The service is not there: nothing can be on its way.
            gone = (Gio.DBusError.SERVICE_UNKNOWN, Gio.DBusError.NAME_HAS_NO_OWNER)
            if not any(error.matches(Gio.dbus_error_quark(), code) for code in gone):
                raise
        _Loop.instance().call(lambda: None)

    @property
    def items(self):
        self._catch_up()
        return super().items

    def mark(self):
        self._catch_up()
        return super().mark()


class KadrelClient(Connection):
    """A client of the service: its 19 methods as typed calls, its signals as a list.

    Every method of the service is a method here (`client.grab("/cue")`); a node is a tuple
    (id, short_name, long_name, universe, ip, port).
    """

    def __init__(self, address):
        super().__init__(address)
        self.signals = SignalLog(self)

        def received(_connection, _sender, _path, _interface, signal, parameters):
            self.signals.append(Signal(signal, parameters.unpack()))

        _Loop.instance().call(
            lambda: self.connection.signal_subscribe(
                None, INTERFACE, None, PATH, None, Gio.DBusSignalFlags.NONE, received
            )
        )

    def call(self, method, *arguments, deadline=DEADLINE):
        inputs, outputs = METHODS[method]
        parameters = GLib.Variant(f"({inputs})", arguments) if inputs else None
        reply = self.call_raw(SERVICE, PATH, INTERFACE, method, parameters, f"({outputs})", deadline)
        return reply[0] if outputs else None

    def begin(self, method, *arguments):
        """A call whose answer is taken later: a future with `done()` and `result()`."""
        pool = ThreadPoolExecutor(1)
        call = pool.submit(self.call, method, *arguments)
        pool.shutdown(wait=False)
        return call

    def call_in_parallel(self, calls):
        """Several calls at once, given as (method, arguments...); their results in the same order."""
        with ThreadPoolExecutor(len(calls)) as pool:
            return [future.result() for future in [pool.submit(self.call, *one) for one in calls]]

    def __getattr__(self, name):
        if name not in METHODS:
            raise AttributeError(name)
        return lambda *arguments: self.call(name, *arguments)

    def triggers(self, start=0):
        """(key, subkey) of the trigger signals so far."""
        return [signal.arguments for signal in self.signals.since(start) if signal.name == "OnArtnetTrigger"]

    def introspect(self):
        (xml,) = self.call_raw(SERVICE, PATH, "org.freedesktop.DBus.Introspectable", "Introspect", None, "(s)")
        return xml


def interface_members(xml, interface=INTERFACE):
    """The methods and signals that an introspection text declares for one interface.

    @return two dictionaries: method -> (list of (name, type) in, list of types out), signal -> list of (name, type)
    """
    methods, signals = {}, {}
    for declared in ElementTree.fromstring(xml).iter("interface"):
        if declared.get("name") != interface:
            continue
        for method in declared.findall("method"):
            arguments = method.findall("arg")
            inputs = [(arg.get("name"), arg.get("type")) for arg in arguments if arg.get("direction", "in") == "in"]
            outputs = [arg.get("type") for arg in arguments if arg.get("direction") == "out"]
            methods[method.get("name")] = (inputs, outputs)
        for signal in declared.findall("signal"):
            signals[signal.get("name")] = [(arg.get("name"), arg.get("type")) for arg in signal.findall("arg")]
    return methods, signals
