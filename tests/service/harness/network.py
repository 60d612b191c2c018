"""The network of a world: the appliance, a switch, and peers with any number of addresses.

    appliance namespace            switch namespace         peer namespaces
    eth0 10.77.0.1/16   ---------- port0 [bridge] portN ---- eth0 10.77.0.2 ...

The first numbers of the addresses are the same in every world: no two worlds share a namespace.
"""

import select
import socket
import struct
from dataclasses import dataclass

from .waiting import DEADLINE, DeadlinePassed, now

ARTNET_PORT = 6454
APPLIANCE = "10.77.0.1"
BROADCAST = "10.77.255.255"
PREFIX = 16
LARGEST = 65535

# The receive buffer of a test's own sockets, as large as the system gives it (SO_RCVBUF).
RECEIVE_BUFFER = 8 << 20


@dataclass(frozen=True)
class Datagram:
    """One datagram as received: payload, and the address and port that sent it."""

    data: bytes
    address: str
    port: int


class Endpoint:
    """A UDP socket at one address and port of a namespace.

    `send` goes to `target` ((address, port), the service unless said otherwise).
    """

    def __init__(self, sock, target):
        self.socket = sock
        self.target = target
        if sock.getsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF) < RECEIVE_BUFFER:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, RECEIVE_BUFFER)
        self.address, self.port = sock.getsockname()

    def send(self, *datagrams, to=None):
        for data in datagrams:
            self.socket.sendto(data, to or self.target)

    def receive(self, deadline=DEADLINE):
        """The next datagram, waiting for it."""
        ready, _, _ = select.select([self.socket], [], [], deadline)
        if not ready:
            raise DeadlinePassed(f"{self.address}:{self.port}: no datagram within {deadline} s")
        data, (address, port) = self.socket.recvfrom(LARGEST)
        return Datagram(data, address, port)

    def receive_until(self, predicate, deadline=DEADLINE):
        """All datagrams up to and including the first that fulfils the predicate."""
        end = now() + deadline
        received = []
        while not received or not predicate(received[-1]):
            received.append(self.receive(max(0.0, end - now())))
        return received

    def waiting(self):
        """All datagrams in the socket's queue at this moment."""
        found = []
        while select.select([self.socket], [], [], 0)[0]:
            data, (address, port) = self.socket.recvfrom(LARGEST)
            found.append(Datagram(data, address, port))
        return found

    def close(self):
        self.socket.close()


@dataclass(frozen=True)
class Captured:
    """One UDP datagram on the wire (not reassembled from fragments)."""

    data: bytes
    source: str
    source_port: int
    destination: str
    destination_port: int
    outgoing: bool


class Capture:
    """Everything that passes one interface of a namespace, from the moment it is made.

    The kernel queues it; `datagrams()` takes out what has passed so far.
    """

    def __init__(self, sock):
        self.socket = sock
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, RECEIVE_BUFFER)
        self._seen = []

    @staticmethod
    def _udp(frame, packet_type):
        if len(frame) < 28 or frame[0] >> 4 != 4 or frame[9] != socket.IPPROTO_UDP:
            return None
        header = (frame[0] & 0x0F) * 4
        source_port, destination_port, length, _ = struct.unpack_from("!HHHH", frame, header)
        return Captured(
            frame[header + 8 : header + length],
            socket.inet_ntoa(frame[12:16]),
            source_port,
            socket.inet_ntoa(frame[16:20]),
            destination_port,
            packet_type == socket.PACKET_OUTGOING,
        )

    def _take(self):
        frame, (_, _, packet_type, _, _) = self.socket.recvfrom(LARGEST)
        datagram = self._udp(frame, packet_type)
        if datagram is not None:
            self._seen.append(datagram)

    def datagrams(self):
        while select.select([self.socket], [], [], 0)[0]:
            self._take()
        return list(self._seen)

    def wait_for(self, predicate, what="a datagram", deadline=DEADLINE):
        """The first datagram so far, or the next to pass, that fulfils the predicate."""
        return self.wait_for_next(0, predicate, what, deadline)

    def wait_for_next(self, start, predicate, what="a datagram", deadline=DEADLINE):
        """As wait_for(), from the datagram with the index `start` on."""
        end = now() + deadline
        while True:
            for datagram in self._seen[start:]:
                if predicate(datagram):
                    return datagram
            start = max(start, len(self._seen))
            if not select.select([self.socket], [], [], max(0.0, end - now()))[0]:
                raise DeadlinePassed(f"capture: waited {deadline} s for {what}; {len(self._seen)} datagrams passed")
            self._take()

    def close(self):
        self.socket.close()


class Host:
    """One machine on the network: a namespace with an interface eth0."""

    def __init__(self, network, name, addresses):
        self.name = name
        self.addresses = list(addresses)
        self._network = network

    @property
    def address(self):
        return self.addresses[0]

    def endpoint(self, port=0, address=None, to=None, reuse=False):
        """A socket of this host; without an address at its first, without a port at a free one."""
        sock = self._network.namespaces.udp_socket(self.name, address or self.address, port, reuse)
        return self._network.keep(Endpoint(sock, to or (APPLIANCE, self._network.service_port)))

    def endpoints(self, port=ARTNET_PORT):
        """One socket at each address of this host, all at the same port."""
        return [self.endpoint(port, address) for address in self.addresses]

    def capture(self, interface="eth0"):
        return self._network.keep(Capture(self._network.namespaces.packet_socket(self.name, interface)))


class Appliance(Host):
    def loopback(self, number=1, port=0):
        """A socket of a process on the appliance: 127.0.0.<number>, sending to the service."""
        address = f"127.0.0.{number}"
        return self.endpoint(port, address, to=("127.0.0.1", self._network.service_port))


class Network:
    """The hosts of one world and the wires between them."""

    def __init__(self, namespaces, service_port=ARTNET_PORT, with_eth0=True, broadcast=BROADCAST):
        self.namespaces = namespaces
        self.service_port = service_port
        self.hosts = {}
        self._open = []
        self._ports = 0
        namespaces.ip("appliance", "link set lo up")
        self.appliance = Appliance(self, "appliance", [APPLIANCE])
        self.hosts["appliance"] = self.appliance
        if with_eth0:
            namespaces.add_network("switch")
            namespaces.ip("switch", "link add bridge type bridge forward_delay 0", "link set bridge up")
            self._plug_in("appliance", [APPLIANCE], broadcast)

    def _plug_in(self, name, addresses, broadcast):
        port = f"port{self._ports}"
        self._ports += 1
        addressed = f" broadcast {broadcast}" if broadcast else ""
        commands = [f"address add {address}/{PREFIX}{addressed} dev eth0" for address in addresses]
        commands += ["link set lo up", "link set eth0 up"]
        self.namespaces.cable(name, "eth0", commands, "switch", port, "bridge")

    def peer(self, name, addresses):
        """A further host; a single address may be given as text."""
        addresses = [addresses] if isinstance(addresses, str) else list(addresses)
        self.namespaces.add_network(name)
        self._plug_in(name, addresses, BROADCAST)
        self.hosts[name] = Host(self, name, addresses)
        return self.hosts[name]

    def keep(self, resource):
        """Has a resource closed at the end of the world, the latest first."""
        self._open.append(resource)
        return resource

    def close(self):
        for resource in reversed(self._open):
            resource.close()
