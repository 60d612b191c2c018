"""A service that is killed during a recording leaves a file that ends early, at most, and holds nothing else."""

import os
import random
import re
import select
import subprocess
from pathlib import Path

import pytest
from harness import EXECUTABLE, Recording
from harness.artnet import art_poll
from harness.show import RECORD, Show
from harness.waiting import now, spin_until

CUE = EXECUTABLE.parent / "kadrel-cue"

# What a kill may cost: the last bytes, and what came in the last second.
LAST_BYTES = 16384
LAST_SECONDS = 1.0

# Kills in each of the parts, which run beside each other.
PARTS = 8
FAST_KILLS = 22
PACED_KILLS = 3
assert PARTS * (FAST_KILLS + PACED_KILLS) >= 200

# Seconds between two frames of a console at 44 Hz.
FRAME = 1 / 44


class Stream:
    """A stream of frames into a recording, and when the service had processed how many of them at least."""

    def __init__(self, service, path):
        self.service = service
        self.console = service.world.console
        self.show = Show(service)
        self.path = path
        self.processed = []  # (time, frames)
        self.written = 0  # frames that the file has held
        self.service.client.grab(path)

    def go_on(self, count, ahead=0):
        """Sends so many frames and waits until they have been processed; `ahead` further ones are on their way then."""
        self.show.throw(count)
        sent = len(self.show.frames)
        self.console.send(art_poll())
        self.show.throw(ahead)
        self.console.receive_until(lambda reply: len(reply.data) == 239)
        self.processed.append((now(), sent))

    def wait_for_file(self):
        """Returns when all that has been processed is in the file but for the last 16 KiB, while the recording goes on."""
        wanted = (self.processed[-1][1] if self.processed else 0) - LAST_BYTES // RECORD - 1
        file = self.service.world.namespaces.root + self.path
        spin_until(lambda: os.path.getsize(file) >= wanted * RECORD, "the file to follow the stream")
        self.written = max(self.written, wanted)

    def kill(self):
        killed = now()
        self.service.kill()
        self.console.waiting()
        return killed

    def check(self, killed):
        """The file holds the beginning of the stream.

        Of the frames that had been processed one is missing only if it lies within the last 16 KiB of them, or if its answer
        came within the last second before the kill: the writer needs a processor, too. What the file has held once stays.
        """
        kept = Recording.whole_frames(Path(self.service.world.namespaces.root + self.path).read_bytes(), self.show.frames)
        processed = self.processed[-1][1] if self.processed else 0
        old = max((frames for time, frames in self.processed if time < killed - LAST_SECONDS), default=0)
        assert kept >= max(self.written, min(processed - LAST_BYTES // RECORD - 1, old))


def fast(stream, chance):
    """Some thousand frames, as fast as the service takes them. The file follows, at a moment that differs, too."""
    for rounds in (chance.randrange(30), chance.randrange(30)):
        for _ in range(rounds):
            stream.go_on(20, ahead=20)
        if stream.written == 0:
            stream.wait_for_file()
    stream.show.throw(chance.randrange(40))


def paced(stream, chance):
    """Up to 2 seconds of one universe, at the rate of a console."""
    for _ in range(chance.randrange(88)):
        stream.go_on(1)
        assert not select.select([stream.service], [], [], FRAME)[0], "the service has ended"


def assert_only_cut_off(files):
    """kadrel-cue finds no damage but an end that is cut off."""
    outcome = subprocess.run([CUE, "verify", *files], capture_output=True, text=True, check=False)
    good = [line for line in outcome.stdout.splitlines() if re.search(r": whole, \d+ datagrams?", line)]
    damaged = outcome.stderr.splitlines()
    cut_off = r": cut off (within a datagram|within a delay record|behind a delay record); good are the first"
    assert all(re.search(cut_off, line) for line in damaged), outcome.stderr
    assert len(good) + len(damaged) == len(files)
    assert outcome.returncode == (1 if damaged else 0)


@pytest.mark.parametrize("part", range(PARTS))
def test_a_kill_at_any_moment_leaves_the_beginning_of_the_recording(world, part):
    chance = random.Random(part)
    moments = [fast] * FAST_KILLS + [paced] * PACED_KILLS
    chance.shuffle(moments)
    folder = world.path("memory")
    os.mkdir(folder)
    world.namespaces.mount_tmpfs(folder, 128 << 20)
    for number, until in enumerate(moments):
        stream = Stream(world.start(), f"{folder}/{number}")
        until(stream, chance)
        stream.check(stream.kill())
    assert_only_cut_off([f"{world.namespaces.root}{folder}/{number}" for number in range(len(moments))])
