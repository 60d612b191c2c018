"""The namespaces of one world, seen from the test process."""

import atexit
import json
import os
import select
import socket
import subprocess
import sys
import threading

AGENT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "agent.py")
PYTHON = "/usr/bin/python3"


class AgentError(RuntimeError):
    pass


class _Agents:
    """The parent of all agents of this test process; it ends with it."""

    _instance = None

    @classmethod
    def instance(cls):
        if cls._instance is None:
            cls._instance = cls()
        return cls._instance

    def __init__(self):
        self._lock = threading.Lock()
        self._worlds, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with theirs:
            python = PYTHON if os.path.exists(PYTHON) else sys.executable
            self._parent = subprocess.Popen(
                [python, "-I", "-S", AGENT, str(theirs.fileno())],
                pass_fds=[theirs.fileno()],
                stdin=subprocess.DEVNULL,
                # Out of the terminal's process group: an interrupt reaches the tests, which then close the world.
                start_new_session=True,
            )
        atexit.register(self._end)

    def _end(self):
        self._worlds.close()
        self._parent.wait()

    def start(self, directory):
        """A new agent: the socket pair's end that speaks with it."""
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        with theirs, self._lock:
            socket.send_fds(self._worlds, [os.fsencode(directory)], [theirs.fileno()])
        return ours


class Namespaces:
    """One mount namespace, and a network namespace called "appliance" to begin with.

    Works as root and, through a user namespace, as an ordinary user. All of it
    goes away with the test process, however that ends.
    """

    def __init__(self, directory):
        self.directory = directory
        self._networks = {}
        self._started = []
        self._channel = _Agents.instance().start(directory)
        started = self._channel.recv(100)
        if not started:
            raise AgentError("the agent ended before its namespaces stood; standard error says why")
        self._pid = json.loads(started)["pid"]
        self._ended = os.pidfd_open(self._pid)
        _, (self._user, self._mounts) = self._ask("namespaces", descriptors=2)
        _, (self._networks["appliance"],) = self._ask("known_network", descriptors=1, name="appliance")

    @property
    def root(self):
        """The root directory of the mount namespace, as a path that this process can open."""
        return f"/proc/{self._pid}/root"

    def _ask(self, operation, descriptors=0, **arguments):
        self._channel.send(json.dumps({"operation": operation, **arguments}).encode())
        reply, received, _, _ = socket.recv_fds(self._channel, 1 << 20, 4)
        if not reply:
            raise AgentError(f"the agent is gone (asked for {operation})")
        answer = json.loads(reply)
        if "error" in answer:
            raise AgentError(f"{operation} {arguments}: {answer['error']}")
        assert len(received) == descriptors, f"{operation} sent {len(received)} descriptors"
        return answer, received

    def add_network(self, name):
        _, (self._networks[name],) = self._ask("network", descriptors=1, name=name)

    def ip(self, network, *commands):
        """Runs `ip` commands (without the word ip) in a network namespace."""
        self._ask("ip", network=network, script="\n".join(commands) + "\n")

    def wire(self, network, interface, other_network, other_interface):
        """Joins two network namespaces by a pair of interfaces, which are down yet."""
        self._ask(
            "wire",
            network=network,
            interface=interface,
            other_network=other_network,
            other_interface=other_interface,
        )

    def cable(self, network, interface, commands, switch, port, bridge):
        """Joins an interface of one namespace to a bridge in another and returns when packets pass.

        `commands`: `ip` commands that set the interface up.
        """
        self._ask(
            "cable",
            network=network,
            interface=interface,
            commands=commands,
            switch=switch,
            port=port,
            bridge=bridge,
        )

    def udp_socket(self, network, address, port, reuse=False):
        _, (descriptor,) = self._ask(
            "udp", descriptors=1, network=network, address=address, port=port, reuse=reuse
        )
        return socket.socket(fileno=descriptor)

    def log_socket(self, path, queue):
        """A Unix datagram socket at `path` that queues up to `queue` datagrams."""
        _, (descriptor,) = self._ask("log_socket", descriptors=1, path=path, queue=queue)
        return socket.socket(fileno=descriptor)

    def notify_socket(self, name):
        _, (descriptor,) = self._ask("notify_socket", descriptors=1, name=name)
        return socket.socket(fileno=descriptor)

    def packet_socket(self, network, interface):
        _, (descriptor,) = self._ask("packet", descriptors=1, network=network, interface=interface)
        return socket.socket(fileno=descriptor)

    def mount_tmpfs(self, path, size):
        """A file system of `size` bytes on `path`, seen by the processes of this world; read it below `root`."""
        self._ask("tmpfs", path=path, size=size)

    def write_zeros(self, path, size):
        """Writes up to `size` zero bytes into a file of the mount namespace; returns how many fitted."""
        return self._ask("write", path=path, size=size)[0]["written"]

    def remove_file(self, path):
        self._ask("remove", path=path)

    def popen(self, command, network="appliance", directory=None, as_user=(), **arguments):
        """Starts a command inside the world; the returned process is the command itself.

        The command dies with the thread that started it, so start from the main
        thread, and at the latest with the world. `as_user`: a prefix that changes the user inside (see `olad`).
        """
        descriptors = [self._mounts, self._networks[network]]
        enter = ["nsenter", f"--mount=/proc/self/fd/{self._mounts}", f"--net=/proc/self/fd/{self._networks[network]}"]
        if os.geteuid() != 0:
            descriptors.append(self._user)
            enter += [f"--user=/proc/self/fd/{self._user}", "--preserve-credentials"]
        full = [*enter, *as_user, "setpriv", "--pdeathsig", "KILL", "env", "-C", directory or self.directory, *command]
        process = subprocess.Popen(
            full,
            pass_fds=[*descriptors, *arguments.pop("pass_fds", ())],
            stdin=arguments.pop("stdin", subprocess.DEVNULL),
            **arguments,
        )
        self._started = [one for one in self._started if one.returncode is None] + [process]
        return process

    def run(self, command, network="appliance", deadline=20, input=None, **arguments):
        """Runs a command inside the world to its end; its output as text. `input`: text for its standard input."""
        process = self.popen(
            command,
            network,
            stdin=subprocess.DEVNULL if input is None else subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            **arguments,
        )
        try:
            output, _ = process.communicate(input, timeout=deadline)
        finally:
            if process.poll() is None:
                process.kill()
                process.wait()
        if process.returncode != 0:
            raise AssertionError(f"{command} ended with {process.returncode}:\n{output}")
        return output

    def close(self):
        # What a failed test has left; some of it has a real-time priority.
        for process in self._started:
            process.kill()
            process.wait()
        self._channel.close()
        for descriptor in [self._user, self._mounts, *self._networks.values()]:
            os.close(descriptor)
        # It has removed the directory then.
        select.select([self._ended], [], [])
        os.close(self._ended)
