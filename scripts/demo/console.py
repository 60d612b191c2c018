"""A small lighting console: a few universes of smooth movement, sent as Art-Net DMX at a fixed frame rate."""

import math
import socket
import struct
import time

ARTNET_ID = b"Art-Net\0"
OP_POLL = 0x2000
OP_POLL_REPLY = 0x2100
OP_DMX = 0x5000
PROTOCOL_VERSION = 14
SLOTS = 512
POLL_REPLY_SIZE = 239
REPLY_SECONDS = 5

# One sine of 512 slots, twice over: the slice that starts at slot p is the same wave, moved on by p slots.
_WAVE = bytes(round(127.5 + 127.5 * math.sin(2 * math.pi * slot / SLOTS)) for slot in range(SLOTS)) * 2


def art_dmx(sequence, port_address, data):
    """One ArtDmx packet.

    sequence: 1..255; port_address: 0..32767; data: an even number of slots, at most 512.
    """
    return (ARTNET_ID + struct.pack("<H", OP_DMX) + struct.pack(">H", PROTOCOL_VERSION)
            + struct.pack("<BBH", sequence, 0, port_address) + struct.pack(">H", len(data)) + data)


def art_poll():
    """One ArtPoll packet that asks for nothing beyond the reply."""
    return ARTNET_ID + struct.pack("<H", OP_POLL) + struct.pack(">H", PROTOCOL_VERSION) + bytes(2)


class NoReply(Exception):
    """The recorder did not answer an ArtPoll."""


class Console:
    """Sends every universe once per frame from one local address to one UDP port of another.

    What it has sent stays in `sent`, oldest first; `first_sent` and `last_sent` are the times (s, monotonic clock) of
    the first and the last datagram.
    """

    def __init__(self, source, destination, port, port_addresses, frames_per_second):
        self.sent = []
        self.first_sent = None
        self.last_sent = None
        self._destination = (destination, port)
        self._port_addresses = port_addresses
        self._frames_per_second = frames_per_second
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind((source, 0))

    def close(self):
        self._socket.close()

    def poll(self):
        """Asks the recorder who it is; returns its long name, or raises NoReply.

        The recorder handles what it receives one after the other, so the answer also says that everything sent before has
        been handled.
        """
        self._socket.sendto(art_poll(), self._destination)
        give_up = time.monotonic() + REPLY_SECONDS
        while True:
            self._socket.settimeout(max(0.001, give_up - time.monotonic()))
            try:
                reply = self._socket.recv(2048)
            except OSError as error:
                raise NoReply(f"no answer to an ArtPoll within {REPLY_SECONDS} s") from error
            if len(reply) == POLL_REPLY_SIZE and reply.startswith(ARTNET_ID + struct.pack("<H", OP_POLL_REPLY)):
                return reply[44:108].split(b"\0")[0].decode("utf-8", "replace")

    def play(self, seconds):
        """Plays for that many seconds, counted in whole frames."""
        start = time.monotonic()
        for frame in range(round(seconds * self._frames_per_second)):
            pause = start + frame / self._frames_per_second - time.monotonic()
            if pause > 0:
                time.sleep(pause)
            for index, port_address in enumerate(self._port_addresses):
                phase = (4 * frame + SLOTS * index // len(self._port_addresses)) % SLOTS
                self._send(art_dmx(frame % 255 + 1, port_address, _WAVE[phase:phase + SLOTS]))

    def _send(self, datagram):
        self._socket.sendto(datagram, self._destination)
        self.last_sent = time.monotonic()
        if self.first_sent is None:
            self.first_sent = self.last_sent
        self.sent.append(datagram)
