"""Reads a recording whose datagrams each hold one ArtDmx, and says in plain words what is in it."""

import collections
import itertools
import json
import struct

from console import ARTNET_ID, OP_DMX

OP_DELAY = 0x00FE
DELAY_RECORD_SIZE = 18
DMX_HEADER_SIZE = 18


class Unreadable(Exception):
    """The file is not a recording; the text says where and why."""


def opcode_at(content, offset):
    """The operation code of the record at the offset, which must have the 18 bytes that every record has at least."""
    if len(content) - offset < DMX_HEADER_SIZE or content[offset:offset + 8] != ARTNET_ID:
        raise Unreadable(f"no Art-Net record at byte {offset} of {len(content)}")
    return struct.unpack_from("<H", content, offset + 8)[0]


class Recording:
    """`datagrams`: the recorded datagrams; `delays`: the pauses before all but the first of them, in ns."""

    def __init__(self, content):
        self.size = len(content)
        self.datagrams = []
        self.delays = []
        offset = 0
        while offset < len(content):
            if self.datagrams:
                offset = self._read_delay(content, offset)
            offset = self._read_datagram(content, offset)

    def _read_delay(self, content, offset):
        if opcode_at(content, offset) != OP_DELAY:
            raise Unreadable(f"a datagram without a pause before it at byte {offset}")
        self.delays.append(struct.unpack_from("<q", content, offset + 10)[0])
        return offset + DELAY_RECORD_SIZE

    def _read_datagram(self, content, offset):
        if offset == len(content):
            raise Unreadable("the file ends with a pause")
        opcode = opcode_at(content, offset)
        if opcode != OP_DMX:
            raise Unreadable(f"operation code 0x{opcode:04x} at byte {offset} instead of an ArtDmx")
        end = offset + DMX_HEADER_SIZE + struct.unpack_from(">H", content, offset + 16)[0]
        if end > len(content):
            raise Unreadable(f"the datagram at byte {offset} is cut off")
        self.datagrams.append(content[offset:end])
        return end

    @property
    def seconds(self):
        return sum(self.delays) / 1e9

    def frame_rates(self):
        """Frames per second of every port-address that has at least two frames, from its first to its last."""
        times = collections.defaultdict(list)
        for datagram, time in zip(self.datagrams, itertools.accumulate([0, *self.delays])):
            times[port_address_of(datagram)].append(time)
        return {address: (len(at) - 1) * 1e9 / (at[-1] - at[0]) for address, at in times.items() if at[-1] > at[0]}


def port_address_of(datagram):
    return struct.unpack_from("<H", datagram, 14)[0]


def numbers(values):
    return ", ".join(str(value) for value in values)


def universes_in_words(port_addresses):
    if not port_addresses:
        return "none"
    return (f"{len(port_addresses)}: port-addresses {numbers(port_addresses)}"
            f" (a console that counts from 1 shows {numbers(address + 1 for address in port_addresses)})")


def grab_summary(text, path):
    """The fields of the latest_grab text beside its file name, or None when the text is not about the file `path`.

    The service writes the file name as it is, so the text is JSON only as long as the path holds no quote, backslash or
    control character; the path is therefore taken off before the rest is read.
    """
    opening = f'{{"filename": "{path}", '
    if not text.startswith(opening):
        return None
    try:
        return json.loads("{" + text[len(opening):])
    except ValueError:
        return None


def account(recording, console, summary):
    """Compares the recording with what the console sent and with the service's own summary of it.

    Returns (lines to print, list of complaints); no complaint means that nothing is missing.
    """
    complaints = []
    sent = collections.Counter(console.sent)
    recorded = collections.Counter(recording.datagrams)
    missing = sent - recorded
    foreign = recorded - sent

    if missing:
        per_universe = collections.Counter()
        for datagram, count in missing.items():
            per_universe[port_address_of(datagram)] += count
        where = numbers(f"{count} of port-address {address}" for address, count in sorted(per_universe.items()))
        complaints.append(f"{sum(missing.values())} of the {len(console.sent)} datagrams sent are not in the file ({where})")
    if foreign:
        complaints.append(f"{sum(foreign.values())} of the datagrams in the file were not sent, or not that often")
    if not missing and not foreign and recording.datagrams != console.sent:
        complaints.append("the datagrams are not in the order in which they were sent")

    universes = sorted({port_address_of(datagram) for datagram in recording.datagrams})
    if summary is None:
        complaints.append("latest_grab does not describe this file")
    else:
        if summary.get("empty") != (recording.size == 0):
            complaints.append(f"latest_grab says empty: {summary.get('empty')}, but the file has {recording.size} bytes")
        if sorted(summary.get("universes", [])) != universes:
            complaints.append(f"latest_grab lists the universes {numbers(summary.get('universes', []))}")
        if summary.get("uniceil") != max(universes, default=-1):
            complaints.append(f"latest_grab says that the highest universe is {summary.get('uniceil')}")

    played = console.last_sent - console.first_sent
    lines = [
        f"datagrams   {len(recording.datagrams)} recorded, {len(console.sent)} sent by the console",
        f"universes   {universes_in_words(universes)}",
        f"duration    {recording.seconds:.3f} s from the first datagram to the last; the console played {played:.3f} s",
    ]
    rates = recording.frame_rates()
    if rates:
        slowest, fastest = f"{min(rates.values()):.1f}", f"{max(rates.values()):.1f}"
        each = slowest if slowest == fastest else f"{slowest} to {fastest}"
        lines.append(f"rate        {sum(rates.values()):.1f} datagrams per second, {each} of each universe")
    if not complaints:
        lines.append("content     every datagram is in the file, byte for byte and in the order sent")
    return lines, complaints
