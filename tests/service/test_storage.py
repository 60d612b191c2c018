"""Recording to places that are full, odd, or go away."""

import contextlib
import os
import struct
import subprocess
import time
from pathlib import Path

import pytest
from harness import Recording
from harness.artnet import art_dmx, slots
from texts import (
    DROPPING,
    FINALIZED,
    GRAB,
    GRAB_CANNOT_OPEN,
    GRABBING_STARTED,
    STOP,
    dropped_for_a_while,
    dropped_to_the_end,
    grab_text,
)

PAGE = 4096


@pytest.fixture
def client(service):
    return service.client


def frames(first, count):
    """Frames that differ: the number stands in the first two slots."""
    return [art_dmx(1, slots({1: number >> 8, 2: number & 0xFF})) for number in range(first, first + count)]


def assert_records_again(service):
    path = service.world.path("again")
    expected = frames(0, 3)
    service.client.grab(path)
    service.feed(expected)
    service.client.stop()
    assert Recording.read(path).datagrams == expected
    assert service.client.latest_grab() == grab_text(path, False, 1, [1])


def test_a_device_that_is_always_full_costs_nothing_but_the_recording(service, client):
    lines = service.world.log.mark()
    client.grab("/dev/full")
    service.feed(frames(0, 300))
    assert client.get_status() == "run"
    client.stop()
    assert service.world.log.entries(lines) == [GRAB, GRABBING_STARTED, DROPPING, STOP, FINALIZED, dropped_to_the_end(300)]
    assert client.latest_grab() == grab_text("/dev/full", True, -1, [])
    assert_records_again(service)


def test_the_null_device_takes_a_recording(service, client):
    client.grab("/dev/null")
    service.feed(frames(0, 100))
    client.stop()
    assert client.latest_grab() == grab_text("/dev/null", True, 1, [1])
    assert_records_again(service)


@pytest.fixture
def small(service):
    """A file system of 32 pages: (its path for the service, the same for this process)."""
    path = service.world.path("small")
    os.mkdir(path)
    service.world.namespaces.mount_tmpfs(path, 32 * PAGE)
    return path, service.world.namespaces.root + path


def test_a_full_disk_at_the_start_gives_an_empty_recording(service, client, small):
    inside, outside = small
    namespaces = service.world.namespaces
    namespaces.write_zeros(f"{inside}/ballast", 64 * PAGE)
    client.grab(f"{inside}/cue")
    service.feed(frames(0, 100))
    client.stop()
    assert os.path.getsize(f"{outside}/cue") == 0
    assert client.latest_grab() == grab_text(f"{inside}/cue", True, -1, [])
    assert_records_again(service)


def test_a_disk_that_fills_up_keeps_what_fitted(service, client, small):
    inside, outside = small
    sent = frames(0, 400)
    client.grab(f"{inside}/cue")
    service.feed(sent)
    assert client.get_status() == "run"
    client.stop()
    kept = Recording.read(f"{outside}/cue").datagrams
    assert len(kept) > 0
    assert kept == sent[: len(kept)]
    assert os.path.getsize(f"{outside}/cue") <= 32 * PAGE
    assert client.latest_grab() == grab_text(f"{inside}/cue", False, 1, [1])
    assert_records_again(service)


def test_a_disk_with_room_again_takes_the_rest_of_the_recording(service, client, small):
    inside, outside = small
    namespaces = service.world.namespaces
    namespaces.write_zeros(f"{inside}/ballast", 30 * PAGE)
    client.grab(f"{inside}/cue")
    service.feed(frames(0, 150))
    namespaces.remove_file(f"{inside}/ballast")
    late = frames(1000, 60)
    service.feed(late)
    assert client.get_status() == "run"
    client.stop()
    content = Path(f"{outside}/cue").read_bytes()
    assert len(content) > 2 * PAGE
    # The end of the file is well formed and holds every datagram since there was room again.
    tail = content[-len(late) * 548 :]
    for number, frame in enumerate(late):
        delay, datagram = tail[number * 548 : number * 548 + 18], tail[number * 548 + 18 : (number + 1) * 548]
        assert delay[:10] == b"Art-Net\0\xfe\x00" and struct.unpack("<q", delay[10:])[0] > 0
        assert datagram == frame
    assert_records_again(service)


def test_a_disk_that_is_full_for_a_while_bends_no_time(service, client, small):
    """The pause before the first datagram after the outage lasts as long as the outage; the log tells of what is missing."""
    inside, outside = small
    namespaces = service.world.namespaces
    namespaces.write_zeros(f"{inside}/ballast", 30 * PAGE)
    early, late = frames(0, 120), frames(1000, 40)
    client.grab(f"{inside}/cue")
    lines = service.world.log.mark()
    processed = {}
    for frame in early:
        service.feed([frame])
        processed[frame] = time.monotonic_ns()
    namespaces.remove_file(f"{inside}/ballast")
    sent = time.monotonic_ns()
    service.feed(late)
    client.stop()
    recording = Recording.read(f"{outside}/cue")
    kept = recording.datagrams[: -len(late)]
    assert kept == early[: len(kept)] and recording.datagrams[len(kept) :] == late
    assert 16384 // 548 < len(kept) < len(early)
    assert recording.delays[len(kept) - 1] >= sent - processed[kept[-1]]
    assert service.world.log.entries(lines) == [
        GRABBING_STARTED,
        DROPPING,
        dropped_for_a_while(len(early) - len(kept)),
        STOP,
        FINALIZED,
    ]


def test_a_full_disk_does_not_spoil_the_next_recording_on_the_same_disk(service, client, small):
    inside, outside = small
    namespaces = service.world.namespaces
    namespaces.write_zeros(f"{inside}/ballast", 64 * PAGE)
    client.grab(f"{inside}/cue")
    service.feed(frames(0, 100))
    client.stop()
    namespaces.remove_file(f"{inside}/ballast")
    client.grab(f"{inside}/cue")
    service.feed(frames(7, 20))
    client.stop()
    assert Recording.read(f"{outside}/cue").datagrams == frames(7, 20)
    assert client.latest_grab() == grab_text(f"{inside}/cue", False, 1, [1])


def test_a_file_that_is_removed_while_recording_is_missed_by_nobody(service, client):
    path = service.world.path("cue")
    client.grab(path)
    service.feed(frames(0, 50))
    os.unlink(path)
    service.feed(frames(50, 50))
    assert client.get_status() == "run"
    client.stop()
    assert not os.path.exists(path)
    assert client.latest_grab() == grab_text(path, False, 1, [1])
    assert client.dup_cue(service.world.directory, path) == ""
    assert_records_again(service)


def test_a_file_that_is_renamed_while_recording_is_recorded_whole(service, client):
    path, moved = service.world.path("cue"), service.world.path("moved")
    client.grab(path)
    service.feed(frames(0, 40))
    os.rename(path, moved)
    service.feed(frames(40, 40))
    client.stop()
    assert Recording.read(moved).datagrams == frames(0, 80)
    assert client.latest_grab() == grab_text(path, False, 1, [1])


def test_a_directory_that_is_removed_while_recording_changes_nothing(service, client):
    directory = service.world.path("cues")
    os.mkdir(directory)
    client.grab(f"{directory}/cue")
    service.feed(frames(0, 10))
    os.unlink(f"{directory}/cue")
    os.rmdir(directory)
    service.feed(frames(10, 10))
    client.stop()
    client.grab(f"{directory}/cue")
    assert client.get_status() == "off"
    assert_records_again(service)


def test_a_named_pipe_that_nobody_reads_is_refused_at_once(service, client):
    path = service.world.path("pipe")
    os.mkfifo(path)
    lines = service.world.log.mark()
    client.grab(path)
    assert client.get_status() == "off"
    assert service.world.log.entries(lines) == [GRAB, GRAB_CANNOT_OPEN]
    assert_records_again(service)


def read_whole(pipe):
    content = b""
    with contextlib.suppress(BlockingIOError):
        while part := os.read(pipe, 1 << 20):
            content += part
    return content


@pytest.fixture
def pipe(service):
    """A named pipe that this process reads: (its path, the descriptor)."""
    path = service.world.path("pipe")
    os.mkfifo(path)
    reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    yield path, reader
    os.close(reader)


def test_a_named_pipe_that_is_read_takes_a_recording(service, client, pipe):
    path, reader = pipe
    client.grab(path)
    service.feed(frames(0, 40))
    client.stop()
    assert Recording.parse(read_whole(reader)).datagrams == frames(0, 40)
    # A pipe has no size.
    assert client.latest_grab() == grab_text(path, True, 1, [1])
    assert_records_again(service)


def test_the_slow_reader_of_a_pipe_misses_whole_records_and_holds_nobody_up(service, client, pipe):
    path, reader = pipe
    client.grab(path)
    service.feed(frames(0, 400))
    assert client.get_status() == "run"
    content = read_whole(reader)
    service.feed(frames(1000, 40))
    client.stop()
    recorded = Recording.parse(content + read_whole(reader)).datagrams
    early, late = recorded[:-40], recorded[-40:]
    assert 16384 // 548 < len(early) < 400
    assert early == [frame for frame in frames(0, 400) if frame in early]
    assert late == frames(1000, 40)
    assert_records_again(service)


def test_the_reader_of_a_pipe_may_leave(service, client):
    path = service.world.path("pipe")
    os.mkfifo(path)
    reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    client.grab(path)
    service.feed(frames(0, 10))
    os.close(reader)
    service.feed(frames(10, 100))
    assert client.get_status() == "run"
    client.stop()
    assert client.latest_grab() == grab_text(path, True, -1, [])
    assert_records_again(service)


LEASE_HOLDER = """
import fcntl, os, signal, sys
signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGIO])
file = os.open(sys.argv[1], os.O_RDONLY)
fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_RDLCK)
print("held", flush=True)
signal.sigwait([signal.SIGIO])
fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_UNLCK)
"""


def test_a_file_under_a_lease_is_recorded_to_once_the_lease_is_given_up(service, client):
    path = service.world.path("cue")
    Path(path).write_bytes(b"old content")
    with subprocess.Popen(["/usr/bin/python3", "-c", LEASE_HOLDER, path], stdout=subprocess.PIPE) as holder:
        assert holder.stdout.readline() == b"held\n"
        client.grab(path)
        assert client.get_status() == "on"
        assert holder.wait() == 0
    service.feed(frames(0, 3))
    client.stop()
    assert Recording.read(path).datagrams == frames(0, 3)


def test_a_socket_is_no_file_to_record_to(service, client):
    lines = service.world.log.mark()
    client.grab(f"{service.world.directory}/syslog")
    assert client.get_status() == "off"
    assert service.world.log.entries(lines) == [GRAB, GRAB_CANNOT_OPEN]


def test_a_link_is_followed(service, client):
    path, link = service.world.path("cue"), service.world.path("link")
    os.symlink(path, link)
    client.grab(link)
    service.feed(frames(0, 2))
    client.stop()
    assert Recording.read(path).datagrams == frames(0, 2)
    assert client.latest_grab() == grab_text(link, False, 1, [1])


def test_links_in_a_circle_cannot_be_opened(service, client):
    first, second = service.world.path("first"), service.world.path("second")
    os.symlink(first, second)
    os.symlink(second, first)
    lines = service.world.log.mark()
    client.grab(first)
    assert service.world.log.entries(lines) == [GRAB, GRAB_CANNOT_OPEN]
    assert client.get_status() == "off"
