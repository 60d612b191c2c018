"""Recording files, read strictly."""

import struct
from dataclasses import dataclass
from pathlib import Path

from .artnet import DMX_HEADER, OP_DMX, OP_OEM_VFPS_NS, SLOTS, header

DELAY_RECORD = 18
DELAY_HEADER = header(OP_OEM_VFPS_NS)


class BadRecording(AssertionError):
    pass


@dataclass(frozen=True)
class Record:
    """One recorded datagram and the pause before it in nanoseconds, None for the first of a file."""

    datagram: bytes
    delay: int


class Recording:
    """A cue file as a list of records.

    The length of a datagram is not stored: an ArtDmx record is as long as its header says. Recordings of odd datagrams
    (several packets in one, padding after the data) are read with `of_datagrams`, which knows what was sent.
    """

    def __init__(self, records):
        self.records = records

    @property
    def datagrams(self):
        return [record.datagram for record in self.records]

    @property
    def delays(self):
        return [record.delay for record in self.records[1:]]

    @classmethod
    def read(cls, path):
        return cls.parse(Path(path).read_bytes())

    @classmethod
    def parse(cls, content):
        """Refuses everything but ArtDmx records with a delay record between each two."""
        records, offset = [], 0
        while offset < len(content):
            delay = None
            if records:
                delay, offset = cls._delay(content, offset)
            head = content[offset : offset + DMX_HEADER]
            if len(head) < DMX_HEADER or head[:10] != header(OP_DMX):
                raise BadRecording(f"no ArtDmx at offset {offset}: {head!r}")
            (length,) = struct.unpack_from(">H", head, 16)
            end = offset + DMX_HEADER + length
            if length > SLOTS or end > len(content):
                raise BadRecording(f"ArtDmx at offset {offset} ends at {end} of {len(content)}")
            records.append(Record(content[offset:end], delay))
            offset = end
        return cls(records)

    @classmethod
    def of_datagrams(cls, path, datagrams):
        """Reads a file that must hold exactly these datagrams."""
        content, records, offset = Path(path).read_bytes(), [], 0
        for datagram in datagrams:
            delay = None
            if records:
                delay, offset = cls._delay(content, offset)
            if content[offset : offset + len(datagram)] != datagram:
                raise BadRecording(f"datagram {len(records)} is not at offset {offset}")
            records.append(Record(datagram, delay))
            offset += len(datagram)
        if offset != len(content):
            raise BadRecording(f"{len(content) - offset} bytes behind the last datagram: {content[offset:offset + 60]!r}")
        return cls(records)

    @staticmethod
    def whole_frames(content, datagrams):
        """How many of these datagrams, which were all sent, a file holds that a kill may have cut off anywhere."""
        offset = 0
        for number, datagram in enumerate(datagrams):
            delay = DELAY_RECORD if number else 0
            record = content[offset : offset + delay + len(datagram)]
            head = record[: min(delay, len(DELAY_HEADER))]
            if not DELAY_HEADER.startswith(head) or not datagram.startswith(record[delay:]):
                raise BadRecording(f"datagram {number} is not at offset {offset}")
            if len(record) < delay + len(datagram):
                return number
            offset += len(record)
        if offset < len(content):
            raise BadRecording(f"{len(content) - offset} bytes behind the last datagram")
        return len(datagrams)

    @staticmethod
    def _delay(content, offset):
        record = content[offset : offset + DELAY_RECORD]
        if len(record) < DELAY_RECORD or record[:10] != DELAY_HEADER:
            raise BadRecording(f"no delay record at offset {offset}: {record!r}")
        (delay,) = struct.unpack_from("<q", record, 10)
        if delay < 0:
            raise BadRecording(f"the pause at offset {offset} is {delay} ns")
        return delay, offset + DELAY_RECORD
