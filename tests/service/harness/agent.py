"""The processes that own the namespaces of test worlds, one for each world.

The program itself is their parent: it only waits for the directories of new
worlds and forks an agent for each, because starting the interpreter anew would
take longer than everything else about a world.

An agent enters fresh mount and network namespaces (and a user namespace when
it is not root) and makes there what the service expects of an appliance: a
/dev with a /dev/log, an /opt with a place for the branding file. It then
serves requests on a socket pair: new network namespaces, sockets made inside
one of them, mounts. Every reply is one JSON object; descriptors travel beside
it.

When the other end of the socket pair closes - the test has ended, failed,
or its process is gone - the agent removes the world's directory and ends;
the namespaces vanish with it.

Runs on its own: standard library only, nothing of the package is imported.
"""

import ctypes
import errno
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys

CLONE_NEWNS = 0x00020000
CLONE_NEWUSER = 0x10000000
CLONE_NEWNET = 0x40000000
MS_NOSUID = 2
MS_BIND = 4096
MS_REC = 16384
MS_PRIVATE = 1 << 18
MNT_DETACH = 2
ETH_P_ALL = 3

# rtnetlink: messages about links, and what is read in them.
RTMGRP_LINK = 1
RTM_NEWLINK = 16
IFF_RUNNING = 0x40
IFLA_IFNAME = 3
IFLA_PROTINFO = 12
IFLA_BRPORT_STATE = 1
BRIDGE_PORT_FORWARDING = 3
ATTRIBUTE_TYPE = 0x3FFF
LINK_DEADLINE = 20
SO_RCVBUFFORCE = 33
LARGE_RECEIVE_BUFFER = 64 << 20
DEVICE_NODES = ("null", "zero", "full", "random", "urandom", "tty")
DEVICE_LINKS = {
    "fd": "/proc/self/fd",
    "stdin": "/proc/self/fd/0",
    "stdout": "/proc/self/fd/1",
    "stderr": "/proc/self/fd/2",
}

libc = ctypes.CDLL(None, use_errno=True)


def check(result):
    if result != 0:
        code = ctypes.get_errno()
        raise OSError(code, os.strerror(code))


def mount(source, target, filesystem=None, flags=0, options=None):
    check(
        libc.mount(
            os.fsencode(source),
            os.fsencode(target),
            filesystem.encode() if filesystem else None,
            ctypes.c_ulong(flags),
            options.encode() if options else None,
        )
    )


def private_dev(directory):
    """A small /dev whose `log` is the socket `syslog` in the world's directory."""
    staging = os.path.join(directory, "dev")
    os.mkdir(staging)
    mount("dev", staging, "tmpfs", MS_NOSUID, "mode=755")
    for name in DEVICE_NODES:
        node = os.path.join(staging, name)
        open(node, "wb").close()
        mount(os.path.join("/dev", name), node, flags=MS_BIND)
    for name, target in DEVICE_LINKS.items():
        os.symlink(target, os.path.join(staging, name))
    shared_memory = os.path.join(staging, "shm")
    os.mkdir(shared_memory)
    mount("shm", shared_memory, "tmpfs", MS_NOSUID, "mode=1777")
    os.symlink(os.path.join(directory, "syslog"), os.path.join(staging, "log"))
    mount(staging, "/dev", flags=MS_BIND | MS_REC)


def private_opt(directory):
    """The machine's /opt as it is, but with the world's own `tolvek` in it."""
    staging = os.path.join(directory, "opt")
    os.mkdir(staging)
    mount("opt", staging, "tmpfs", MS_NOSUID, "mode=755")
    for entry in os.scandir("/opt"):
        if entry.name == "tolvek":
            continue
        target = os.path.join(staging, entry.name)
        if entry.is_symlink():
            os.symlink(os.readlink(entry.path), target)
        elif entry.is_dir():
            os.mkdir(target)
            mount(entry.path, target, flags=MS_BIND | MS_REC)
        else:
            open(target, "wb").close()
            mount(entry.path, target, flags=MS_BIND)
    os.symlink(os.path.join(directory, "tolvek"), os.path.join(staging, "tolvek"))
    mount(staging, "/opt", flags=MS_BIND | MS_REC)


def attributes(data):
    """The attributes of an rtnetlink message by type."""
    found = {}
    while len(data) >= 4:
        size, kind = struct.unpack_from("HH", data)
        if size < 4:
            break
        found[kind & ATTRIBUTE_TYPE] = data[4:size]
        data = data[(size + 3) & ~3 :]
    return found


class Link:
    """State of an interface in one message."""

    def __init__(self, message):
        (flags,) = struct.unpack_from("I", message, 8)
        held = attributes(message[16:])
        self.name = held.get(IFLA_IFNAME, b"").rstrip(b"\0").decode()
        self.running = bool(flags & IFF_RUNNING)
        state = attributes(held.get(IFLA_PROTINFO, b"")).get(IFLA_BRPORT_STATE, b"")
        self.forwarding = state[:1] == bytes([BRIDGE_PORT_FORWARDING])


class LinkEvents:
    """Events of the interfaces of a namespace from now on."""

    def __init__(self, agent, network):
        agent.enter(network)
        self._socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
        self._socket.bind((0, RTMGRP_LINK))
        self._socket.settimeout(LINK_DEADLINE)

    def wait_for(self, predicate):
        while True:
            data = self._socket.recv(1 << 16)
            while len(data) >= 16:
                size, kind = struct.unpack_from("IH", data)
                if kind == RTM_NEWLINK and predicate(Link(data[16:size])):
                    return
                data = data[(size + 3) & ~3 :]

    def close(self):
        self._socket.close()


class Agent:
    def __init__(self, directory):
        self.directory = directory
        self.networks = {}
        self.mounted = []

    def enter(self, network):
        check(libc.setns(self.networks[network], CLONE_NEWNET))

    def hold_network(self, name):
        self.networks[name] = os.open("/proc/self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        return self.networks[name]

    # Requests. Each returns (reply, descriptors, descriptors to close afterwards).

    def do_namespaces(self):
        """Descriptors of the user and the mount namespace, in this order."""
        opened = [os.open(f"/proc/self/ns/{kind}", os.O_RDONLY) for kind in ("user", "mnt")]
        return {}, opened, opened

    def do_network(self, name):
        """A new network namespace; its descriptor."""
        check(libc.unshare(CLONE_NEWNET))
        return {}, [self.hold_network(name)], []

    def do_known_network(self, name):
        return {}, [self.networks[name]], []

    def do_wire(self, network, interface, other_network, other_interface):
        """A pair of interfaces, one in each namespace, still down."""
        far_end = f"/proc/{os.getpid()}/fd/{self.networks[other_network]}"
        return self.do_ip(
            network, f"link add {interface} type veth peer name {other_interface} netns {far_end}\n"
        )

    def do_cable(self, network, interface, commands, switch, port, bridge):
        """A cable from an interface of one namespace to a port of another's bridge; returns when it carries packets.

        `commands` set the interface up. Before both ends work, what is sent is lost without a word.
        """
        interface_events, port_events = LinkEvents(self, network), LinkEvents(self, switch)
        try:
            self.do_wire(network, interface, switch, port)
            self.do_ip(network, "\n".join(commands) + "\n")
            self.do_ip(switch, f"link set {port} master {bridge} up\n")
            interface_events.wait_for(lambda link: link.name == interface and link.running)
            port_events.wait_for(lambda link: link.name == port and link.forwarding)
        finally:
            interface_events.close()
            port_events.close()
        return {}, [], []

    def do_ip(self, network, script):
        """Runs a batch of `ip` commands in a namespace."""
        self.enter(network)
        outcome = subprocess.run(
            ["ip", "-batch", "-"], input=script.encode(), capture_output=True, check=False
        )
        if outcome.returncode != 0:
            raise RuntimeError(f"ip: {outcome.stderr.decode()} in:\n{script}")
        return {}, [], []

    def do_udp(self, network, address, port, reuse):
        """A UDP socket that may broadcast, bound to address and port."""
        self.enter(network)
        made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        made.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        try:
            made.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, LARGE_RECEIVE_BUFFER)
        except PermissionError:
            # In an ordinary user's namespace the system's limit holds; the endpoint asks for as much as that allows.
            pass
        if reuse:
            made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        made.bind((address, port))
        descriptor = made.detach()
        return {}, [descriptor], [descriptor]

    def do_log_socket(self, path, queue):
        """The socket of a log daemon at `path`, with room for `queue` lines where the kernel lets us choose."""
        self.enter("appliance")
        try:
            with open("/proc/sys/net/unix/max_dgram_qlen", "w", encoding="ascii") as setting:
                setting.write(str(queue))
        except PermissionError:
            pass
        made = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        made.bind(path)
        os.chmod(path, 0o777)
        descriptor = made.detach()
        return {}, [descriptor], [descriptor]

    def do_notify_socket(self, name):
        """The socket of a service manager: a path, or "@" and a name of the appliance's own network namespace."""
        self.enter("appliance")
        made = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        made.bind(name.replace("@", "\0", 1) if name.startswith("@") else name)
        descriptor = made.detach()
        return {}, [descriptor], [descriptor]

    def do_packet(self, network, interface):
        """A raw socket that sees every IP packet of one interface."""
        self.enter(network)
        made = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(ETH_P_ALL))
        made.bind((interface, ETH_P_ALL))
        descriptor = made.detach()
        return {}, [descriptor], [descriptor]

    def do_tmpfs(self, path, size):
        """A tmpfs of `size` bytes on the directory `path`."""
        mount("small", path, "tmpfs", MS_NOSUID, f"size={size}")
        self.mounted.append(path)
        return {}, [], []

    def do_write(self, path, size):
        """Writes `size` zero bytes to a file as seen in here, as many as fit; how many did."""
        written = 0
        with open(path, "wb", buffering=0) as file:
            try:
                while written < size:
                    written += file.write(bytes(min(4096, size - written)))
            except OSError as error:
                if error.errno != errno.ENOSPC:
                    raise
        return {"written": written}, [], []

    def do_remove(self, path):
        os.unlink(path)
        return {}, [], []

    def serve(self, channel):
        while True:
            request = channel.recv(1 << 20)
            if not request:
                return
            arguments = json.loads(request)
            operation = arguments.pop("operation")
            to_close = []
            try:
                reply, descriptors, to_close = getattr(self, "do_" + operation)(**arguments)
            except Exception as error:  # the caller raises it again on its side
                reply, descriptors = {"error": f"{type(error).__name__}: {error}"}, []
            socket.send_fds(channel, [json.dumps(reply).encode()], descriptors)
            for descriptor in to_close:
                os.close(descriptor)


def enter_own_namespaces():
    """Root stays root; an ordinary user becomes root of a user namespace."""
    user, group = os.geteuid(), os.getegid()
    if user != 0:
        check(libc.unshare(CLONE_NEWUSER))
        for name, text in (("setgroups", "deny"), ("uid_map", f"0 {user} 1"), ("gid_map", f"0 {group} 1")):
            with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
                file.write(text)
    check(libc.unshare(CLONE_NEWNS | CLONE_NEWNET))
    mount("none", "/", flags=MS_REC | MS_PRIVATE)


def serve_world(channel, directory):
    """One world, from its first namespace to the removal of its directory. The first reply holds the agent's process id."""
    agent = Agent(directory)
    try:
        enter_own_namespaces()
        agent.hold_network("appliance")
        private_dev(directory)
        private_opt(directory)
        channel.send(json.dumps({"pid": os.getpid()}).encode())
        agent.serve(channel)
    except (ConnectionError, BrokenPipeError):
        pass
    finally:
        # From outside the mount points are empty directories; in here they can be removed only after the unmount.
        staging = [os.path.join(directory, name) for name in ("dev", "opt")]
        for path in ["/dev", "/opt", *staging, *agent.mounted]:
            libc.umount2(os.fsencode(path), MNT_DETACH)
        shutil.rmtree(directory, ignore_errors=True)


def main():
    """Forks an agent for every directory that arrives; the descriptor beside it is the agent's end of its socket pair."""
    # An interrupt is for the tests; the agents end when their caller ends.
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)
    worlds = socket.socket(fileno=int(sys.argv[1]))
    agents = set()
    while True:
        directory, descriptors, _, _ = socket.recv_fds(worlds, 4096, 1)
        if not directory:
            return
        channel = socket.socket(fileno=descriptors[0])
        agent = os.fork()
        if agent == 0:
            worlds.close()
            serve_world(channel, os.fsdecode(directory))
            return
        channel.close()
        agents.add(agent)
        agents -= {one for one in agents if os.waitpid(one, os.WNOHANG)[0]}


main()
