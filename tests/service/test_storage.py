"""Recording to places that are full, odd, or go away."""

import contextlib
import errno
import os
import subprocess
from pathlib import Path

import pytest
from harness import Recording, spin_until
from harness.artnet import art_dmx, slots
from harness.show import RECORD, Show
from texts import (
    AGAIN,
    DROPPING,
    FINALIZED,
    GRAB,
    GRAB_CANNOT_OPEN,
    GRABBING_STARTED,
    STOP,
    dropped_to_the_end,
    grab_text,
    losses,
    lost_nothing,
    takes_data_again,
    waits_in_memory,
    without_losses,
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


FULL = waits_in_memory(errno.ENOSPC)


def test_a_device_that_is_always_full_costs_nothing_but_the_recording(service, client):
    log, show = service.world.log, Show(service)
    lines = log.mark()
    client.grab("/dev/full")
    show.send(300)
    show.send_until(FULL[1], lines)
    assert client.get_status() == "run"
    client.stop()
    entries, count = log.entries(lines), len(show.frames)
    assert without_losses(entries) == [GRAB, GRABBING_STARTED, FULL, STOP, FINALIZED, dropped_to_the_end(count)]
    assert losses(entries) == [(0, count, 0)]
    assert client.latest_grab() == grab_text("/dev/full", True, -1, [])
    assert_records_again(service)


def test_the_null_device_takes_a_recording(service, client):
    client.grab("/dev/null")
    service.feed(frames(0, 100))
    client.stop()
    assert client.latest_grab() == grab_text("/dev/null", True, 1, [1])
    assert_records_again(service)


DISK = 1024 * PAGE


@pytest.fixture
def disk(world):
    """A file system of 4 MiB: (its path for the service, the same for this process)."""
    path = world.path("disk")
    os.mkdir(path)
    world.namespaces.mount_tmpfs(path, DISK)
    return path, world.namespaces.root + path


def fill(world, disk, left=0):
    """Fills a disk but for so many bytes."""
    world.namespaces.write_zeros(f"{disk[0]}/ballast", DISK - left if left else 2 * DISK)


def make_room(world, disk):
    world.namespaces.remove_file(f"{disk[0]}/ballast")


def test_a_full_disk_at_the_start_gives_an_empty_recording(service, client, disk):
    inside, outside = disk
    fill(service.world, disk)
    client.grab(f"{inside}/cue")
    service.feed(frames(0, 100))
    client.stop()
    assert os.path.getsize(f"{outside}/cue") == 0
    assert client.latest_grab() == grab_text(f"{inside}/cue", True, -1, [])
    assert_records_again(service)


def test_a_disk_that_fills_up_keeps_what_fitted(service, client, disk):
    """Whole records, and the log tells how many are missing."""
    inside, outside = disk
    fill(service.world, disk, 32 * PAGE)
    lines = service.world.log.mark()
    show = Show(service)
    client.grab(f"{inside}/cue")
    show.send(400)
    show.send_until(FULL[1], lines)
    assert client.get_status() == "run"
    client.stop()
    kept = show.kept(Recording.read(f"{outside}/cue"))
    assert kept == list(range(len(kept)))
    assert 16 * PAGE < len(kept) * RECORD <= 32 * PAGE
    entries, lost = service.world.log.entries(lines), len(show.frames) - len(kept)
    assert without_losses(entries) == [GRAB, GRABBING_STARTED, FULL, STOP, FINALIZED, dropped_to_the_end(lost)]
    assert [(kernel, writer) for kernel, writer, _ in losses(entries)] == [(0, lost)]
    assert client.latest_grab() == grab_text(f"{inside}/cue", False, 1, [1])
    assert_records_again(service)


def test_a_disk_that_is_full_for_a_while_costs_nothing(service, client, disk):
    inside, outside = disk
    fill(service.world, disk, 8 * PAGE)
    lines = service.world.log.mark()
    show = Show(service)
    client.grab(f"{inside}/cue")
    show.send(200)
    show.send_until(FULL[1], lines)
    make_room(service.world, disk)
    show.send_until(AGAIN, lines)
    client.stop()
    assert show.kept(Recording.read(f"{outside}/cue")) == list(range(len(show.frames)))
    complete = lost_nothing(1, len(show.frames))
    assert service.world.log.entries(lines) == [GRAB, GRABBING_STARTED, FULL, takes_data_again(0), STOP, FINALIZED, complete]
    assert_records_again(service)


def test_a_disk_that_is_full_for_longer_than_memory_lasts_bends_no_time(world, disk):
    """The pause across the gap lasts as long as the gap; the log tells of what is missing."""
    inside, outside = disk
    service = world.start(environment={"KADREL_WRITE_BUFFER_MIB": "1"})
    fill(world, disk, 8 * PAGE)
    lines = world.log.mark()
    show = Show(service)
    service.client.grab(f"{inside}/cue")
    show.send(2500)
    world.log.wait_for_text(DROPPING[1], lines)
    make_room(world, disk)
    show.send_until(AGAIN, lines)
    late = show.send(40)
    service.client.stop()
    kept = show.kept(Recording.read(f"{outside}/cue"))
    missing = sorted(set(range(len(show.frames))) - set(kept))
    assert missing == list(range(missing[0], missing[-1] + 1)) and missing[-1] < late[0]
    entries = world.log.entries(lines)
    assert [entry for entry in without_losses(entries) if entry != FULL] == [
        GRAB,
        GRABBING_STARTED,
        DROPPING,
        takes_data_again(len(missing)),
        STOP,
        FINALIZED,
    ]
    assert entries.count(FULL) == 1
    assert [(kernel, writer) for kernel, writer, _ in losses(entries)] == [(0, len(missing))]


def test_a_full_disk_does_not_spoil_the_next_recording_on_the_same_disk(service, client, disk):
    inside, outside = disk
    fill(service.world, disk)
    client.grab(f"{inside}/cue")
    service.feed(frames(0, 100))
    client.stop()
    make_room(service.world, disk)
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


def test_the_slow_reader_of_a_pipe_gets_every_record_and_holds_nobody_up(service, client, pipe):
    path, reader = pipe
    lines = service.world.log.mark()
    show = Show(service)
    client.grab(path)
    show.send(800)
    assert client.get_status() == "run"
    content = read_whole(reader)
    show.send(40)
    stop = client.begin("stop")
    service.world.log.wait_for_text(FINALIZED[1], lines)
    while not stop.done():
        content += read_whole(reader)
    stop.result()
    assert show.kept(Recording.parse(content + read_whole(reader))) == list(range(840))
    assert client.latest_grab() == grab_text(path, True, 1, [1])
    assert service.world.log.entries(lines)[:-1] == [GRAB, GRABBING_STARTED, STOP, FINALIZED, lost_nothing(1, 840)]
    assert_records_again(service)


def test_a_pipe_that_nobody_reads_any_more_keeps_stop_not_for_ever(service, client, pipe):
    path, reader = pipe
    lines = service.world.log.mark()
    show = Show(service)
    client.grab(path)
    show.send(800)
    client.stop()
    content = read_whole(reader)
    kept = Recording.whole_frames(content, show.frames)
    entries = service.world.log.entries(lines)
    assert dropped_to_the_end(800 - kept) in entries
    assert [(kernel, writer) for kernel, writer, _ in losses(entries)] == [(0, 800 - kept)]
    assert_records_again(service)


def test_the_reader_of_a_pipe_may_leave(service, client, pipe):
    path, reader = pipe
    lines = service.world.log.mark()
    client.grab(path)
    service.feed(frames(0, 10))
    content = b""

    def all_there():
        nonlocal content
        content += read_whole(reader)
        return len(content) == 10 * RECORD - 18

    spin_until(all_there, "the first frames")
    other = os.open("/dev/null", os.O_RDONLY)
    os.dup2(other, reader)
    os.close(other)
    show = Show(service)
    show.send_until(waits_in_memory(errno.EPIPE)[1], lines)
    assert client.get_status() == "run"
    client.stop()
    assert dropped_to_the_end(len(show.frames)) in service.world.log.entries(lines)
    assert client.latest_grab() == grab_text(path, True, 1, [1])
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
