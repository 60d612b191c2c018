"""Recordings beyond 2 and 4 GiB and times beyond 2038, with the programs of another processor.

Where a recording is large it is not empty in between: its disk space, KADREL_FOREIGN_DIRECTORY, has to hold it.
"""

import ctypes
import json
import os
import struct
import tempfile
from pathlib import Path

import harness.service
import pytest
from both import EMULATOR, FOREIGN, answers
from harness import Recording
from harness.artnet import IDENTIFIER, OP_OEM_VFPS_NS, art_dmx
from harness.waiting import spin_until
from harness.world import World

UNIVERSES = 3
PAUSE = 3_000_000_000  # ns, more than 2^31
SYS_PIDFD_GETFD = 438  # on every processor
IN_2040 = 2_208_988_800  # s since 1970
FRAMES_OF_A_BLOCK = 255 * 40
DELAY = 18  # bytes of a pause
RECORD = DELAY + 530


def frame(number):
    """One frame of each universe, with a pause before each datagram."""
    delay = IDENTIFIER + struct.pack("<Hq", OP_OEM_VFPS_NS, PAUSE)
    level = bytes([number & 255]) * 512
    return b"".join(delay + art_dmx(universe, level, sequence=number % 255 + 1) for universe in range(UNIVERSES))


@pytest.fixture
def directory():
    with tempfile.TemporaryDirectory(dir=os.environ["KADREL_FOREIGN_DIRECTORY"]) as name:
        yield Path(name)


@pytest.fixture
def large(directory):
    """A recording of more than 4 GiB and of 273 days, and its number of datagrams."""
    block = b"".join(map(frame, range(FRAMES_OF_A_BLOCK)))
    blocks = 2**32 // len(block) + 1
    with open(directory / "show.cue", "wb") as file:
        file.write(art_dmx(9, bytes(512)))
        for _ in range(blocks):
            file.write(block)
        assert file.tell() > 2**32
    return blocks * FRAMES_OF_A_BLOCK * UNIVERSES + 1


def test_a_recording_beyond_4_gib_is_read_and_cut_the_same(directory, large):
    seconds = (large - 1) * PAUSE // 10**9
    own, foreign = answers("verify", "show.cue", directory=directory)
    assert foreign == own
    assert foreign[0] == 0 and f"whole, {large} datagrams" in foreign[1]

    own, foreign = answers("info", "--json", "show.cue", directory=directory)
    assert foreign == own and str(os.path.getsize(directory / "show.cue")) in foreign[1]

    # The last ten frames, which lie beyond 4 GiB.
    start = seconds - (10 * UNIVERSES - 1) * PAUSE // 10**9
    own, foreign = answers("cut", "show.cue", "--start", start, "--no-look", "-o", "WHO.cue", directory=directory)
    assert foreign == own and foreign[0] == 0
    last = b"".join(map(frame, range(FRAMES_OF_A_BLOCK - 10, FRAMES_OF_A_BLOCK)))
    assert (directory / "by-this-one.cue").read_bytes() == last[DELAY:]
    assert (directory / "by-the-other.cue").read_bytes() == last[DELAY:]

    own, foreign = answers(
        "play", "show.cue", "--to", "127.255.255.255", "--start", start, "--no-look", "--speed", "100x", "--stats",
        directory=directory, network=("unshare", "--net", "sh", "-c", 'ip link set lo up; exec "$@"', "sh"),
    )
    assert foreign[0] == own[0] == 0
    assert [json.loads(result[1])["datagrams"] for result in (own, foreign)] == [10 * UNIVERSES] * 2


class SharedFile:
    """The open file of a process that has this path; its position can be moved from here."""

    def __init__(self, pid, path):
        number = next(int(link.name) for link in Path(f"/proc/{pid}/fd").iterdir() if os.readlink(link) == path)
        process = os.pidfd_open(pid)
        self.descriptor = ctypes.CDLL(None, use_errno=True).syscall(SYS_PIDFD_GETFD, process, number, 0)
        os.close(process)
        assert self.descriptor >= 0, os.strerror(ctypes.get_errno())

    def __enter__(self):
        return self.descriptor

    def __exit__(self, *_):
        os.close(self.descriptor)


def wait_for_position(descriptor, position):
    """Returns when the process has written up to there."""
    spin_until(lambda: os.lseek(descriptor, 0, os.SEEK_CUR) >= position, "the recorder to write")


def test_the_recorder_writes_and_copies_beyond_2_and_4_gib(monkeypatch):
    monkeypatch.setattr(harness.service, "EXECUTABLE", FOREIGN)
    # The file system of the world may have little room; a file with a hole needs none, and its copy does.
    monkeypatch.setattr(tempfile, "tempdir", os.environ["KADREL_FOREIGN_DIRECTORY"])
    with World() as world, tempfile.TemporaryDirectory() as place:
        os.chmod(place, 0o755)
        service = world.start(prefix=EMULATOR)
        path = f"{place}/cue"
        world.client.grab(path)
        frames = [art_dmx(1, bytes([number]) * 512, sequence=number) for number in range(1, 41)]
        service.feed(frames[:1])
        ends = []
        with SharedFile(service.pid, path) as file:
            wait_for_position(file, RECORD - DELAY)
            for number, border in enumerate((2**31, 2**32)):
                # Some datagrams before the border, one across it, some after it.
                begin = os.lseek(file, border - 5000, os.SEEK_SET)
                service.feed(frames[1 + 15 * number : 16 + 15 * number])
                ends.append((begin, begin + 15 * RECORD))
                wait_for_position(file, ends[-1][1])
        world.client.stop()
        assert ends[-1][1] > 2**32 and os.path.getsize(path) == ends[-1][1]
        copy = world.client.call("dup_cue", place, path, deadline=900)
        for name in (path, copy):
            with open(name, "rb") as cue:
                for number, (begin, end) in enumerate(ends):
                    cue.seek(begin)
                    # Without the pause before the first of them.
                    part = cue.read(end - begin)[DELAY:]
                    assert Recording.parse(part).datagrams == frames[1 + 15 * number : 16 + 15 * number]
        assert os.path.getsize(copy) == os.path.getsize(path)


def test_files_and_folders_of_2040_are_like_all_others(directory, monkeypatch):
    show = art_dmx(9, bytes(512)) + b"".join(map(frame, range(10)))
    (directory / "show.cue").write_bytes(show)
    os.utime(directory / "show.cue", (IN_2040, IN_2040))
    own, foreign = answers("verify", "show.cue", directory=directory)
    assert foreign == own and foreign[0] == 0 and "31 datagrams" in foreign[1]
    for name in ("by-this-one", "by-the-other"):
        (directory / name).write_bytes(b"an earlier one")
        os.utime(directory / name, (IN_2040, IN_2040))
    own, foreign = answers("cut", "show.cue", "--start", "3", "-o", "WHO", "--force", directory=directory)
    assert foreign == own and foreign[0] == 0
    assert (directory / "by-this-one").read_bytes() == (directory / "by-the-other").read_bytes()

    monkeypatch.setattr(harness.service, "EXECUTABLE", FOREIGN)
    with World() as world:
        service = world.start(prefix=EMULATOR)
        path = world.path("cue")
        Path(path).write_bytes(b"an earlier one")
        os.utime(path, (IN_2040, IN_2040))
        world.client.grab(path)
        service.feed([art_dmx(1, b"abcd")])
        world.client.stop()
        os.utime(path, (IN_2040, IN_2040))
        copy = world.client.dup_cue(world.directory, path)
        assert Recording.read(copy).datagrams == [art_dmx(1, b"abcd")]
