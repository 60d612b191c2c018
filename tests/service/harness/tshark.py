"""tshark, which dissects the packets on a wire."""

import os
import select
import socket
import struct
import subprocess

from .network import RECEIVE_BUFFER

ETH_P_IP = 0x0800
# File format of libpcap; its packets begin with the IP header.
PCAP_MAGIC = 0xA1B2C3D4
PCAP_LARGEST = 65535
LINKTYPE_RAW = 101


class PacketFile:
    """Every UDP packet that passes a host's interface, kept whole, for tshark."""

    def __init__(self, world, host, interface="eth0"):
        self._path = world.path(f"packets-{host.name}.pcap")
        self._environment = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": world.directory, "LANG": "C.UTF-8"}
        self._socket = world.network.keep(world.namespaces.packet_socket(host.name, interface))
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, RECEIVE_BUFFER)
        self._packets = []

    def take(self):
        """Takes in all packets so far."""
        while select.select([self._socket], [], [], 0)[0]:
            packet, (_, protocol, _, _, _) = self._socket.recvfrom(PCAP_LARGEST)
            if protocol == ETH_P_IP and packet[9] == socket.IPPROTO_UDP:
                self._packets.append(packet)

    def tshark(self, *options):
        """Output of tshark about the packets taken in."""
        with open(self._path, "wb") as file:
            file.write(struct.pack("<IHHiIII", PCAP_MAGIC, 2, 4, 0, 0, PCAP_LARGEST, LINKTYPE_RAW))
            for packet in self._packets:
                file.write(struct.pack("<IIII", 0, 0, len(packet), len(packet)) + packet)
        outcome = subprocess.run(
            ["tshark", "-n", "-r", self._path, *options],
            env=self._environment,
            capture_output=True,
            text=True,
            check=False,
        )
        assert outcome.returncode == 0, outcome.stderr
        return outcome.stdout

    def fields(self, display_filter, *names, options=()):
        """One tuple of field texts for every packet that tshark's filter lets through. `options`: further ones of tshark."""
        chosen = [option for name in names for option in ("-e", name)]
        text = self.tshark(*options, "-Y", display_filter, "-T", "fields", "-E", "separator=\x1f", "-E", "occurrence=a", *chosen)
        return [tuple(line.split("\x1f")) for line in text.splitlines()]

    def complaints(self, display_filter):
        """(number, remark) of the packets that are marked as malformed or remarkable, hold unread bytes, or are no Art-Net."""
        marks = "_ws.malformed || _ws.expert || data || !artnet"
        return self.fields(f"({display_filter}) && ({marks})", "frame.number", "_ws.expert")
