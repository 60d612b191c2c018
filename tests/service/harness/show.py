"""A show of frames that all differ, and when each of them was received: at the earliest, and at the latest."""

import itertools
import time

from .artnet import SLOTS, art_dmx
from .waiting import spin_until

# Frames that wait in the service's receive buffer for certain, and the bytes that each takes in a file, with its pause.
PORTION = 40
RECORD = 18 + 18 + SLOTS

NUMBER = slice(18, 22)
NEVER = 1 << 63


class Show:
    """Frames of 512 slots that carry their number. `frames`: all that were sent so far."""

    def __init__(self, service):
        self._service = service
        self.frames = []
        self._received = []  # (earliest, latest) on the monotonic clock, ns

    def throw(self, count, universe=1):
        """Sends so many more frames at once and waits for nothing; their numbers. They arrive no earlier than now."""
        first = len(self.frames)
        numbers = range(first, first + count)
        frames = [art_dmx(universe, number.to_bytes(4, "big") + bytes(SLOTS - 4)) for number in numbers]
        self.frames += frames
        self._received += [(time.monotonic_ns(), NEVER)] * count
        self._service.world.console.send(*frames)
        return numbers

    def send(self, count=PORTION, universe=1):
        """Sends so many more frames, in portions, and returns when they have been processed; their numbers."""
        first, end = len(self.frames), len(self.frames) + count
        for start in range(first, end, PORTION):
            self.throw(min(PORTION, end - start), universe)
            self._service.settle()
            now = time.monotonic_ns()
            self._received[start:] = [(earliest, now) for earliest, _ in self._received[start:]]
        return range(first, end)

    def send_until(self, text, start):
        """Sends single frames until a line of the log, from `start` on, begins like this; their numbers."""
        first = len(self.frames)

        def is_told():
            self.send(1)
            return any(message.startswith(text) for message in self._service.world.log.messages(start))

        spin_until(is_told, f"the line {text!r}")
        return range(first, len(self.frames))

    @property
    def size(self):
        """Bytes of the whole show in a file."""
        return sum(map(len, self.frames)) + 18 * max(len(self.frames) - 1, 0)

    def between(self, earlier, later):
        """The least and the most nanoseconds that can lie between the receipt of two frames."""
        return (
            self._received[later][0] - self._received[earlier][1],
            self._received[later][1] - self._received[earlier][0],
        )

    def kept(self, recording):
        """Numbers of the frames in a recording: some of this show, in their order, with pauses that are possible."""
        numbers = [int.from_bytes(datagram[NUMBER], "big") for datagram in recording.datagrams]
        assert recording.datagrams == [self.frames[number] for number in numbers]
        for (earlier, later), pause in zip(itertools.pairwise(numbers), recording.delays, strict=True):
            assert earlier < later
            least, most = self.between(earlier, later)
            assert least <= pause <= most, f"the pause between the frames {earlier} and {later}"
        return numbers
