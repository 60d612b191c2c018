"""Recorded pauses are those between the arrivals of datagrams, whenever the service comes to read them."""

import errno
import socket
import struct
import time

import pytest
from harness import INFO, Recording, spin_until
from harness.artnet import art_dmx
from harness.faults import UDP

NO_STAMPS = (INFO, "[Dump::listen_incoming_data] Kernel gives no arrival times, the time of reading is taken")
LEVEL_4 = {"KADREL_LOG_LEVEL": 4}

# Not more than the service fetches at once. Milliseconds before each but the first.
FRAMES = [art_dmx(1, bytes([number] * 100)) for number in range(40)]
GAPS = [(0, 1, 5, 2)[number % 4] for number in range(len(FRAMES) - 1)]

SO_TIMESTAMPNS = 35
TIMESPEC = struct.Struct("@ll")


def clock():
    return time.monotonic_ns()


def wait_until_stamped(world):
    """Returns once the kernel stamps what arrives: it begins to a moment after the first socket has asked for it."""
    own = world.appliance.loopback(3)
    own.socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)

    def stamped_before_it_was_read():
        own.send(b"", to=(own.address, own.port))
        sent = time.time_ns()
        ((_, _, stamp),) = own.socket.recvmsg(1, socket.CMSG_SPACE(TIMESPEC.size))[1]
        seconds, nanoseconds = TIMESPEC.unpack(stamp)
        return seconds * 1_000_000_000 + nanoseconds <= sent

    spin_until(stamped_before_it_was_read, "the kernel to stamp datagrams")


def send_with_gaps(endpoint):
    """Sends the frames; the times before and after each."""
    moments = []
    for frame, gap in zip(FRAMES, [0, *GAPS], strict=True):
        due = clock() + gap * 1_000_000
        spin_until(lambda due=due: clock() >= due, "the next frame")
        before = clock()
        endpoint.send(frame)
        moments.append((before, clock()))
    return moments


def assert_pauses_between(path, moments):
    """Each frame came at a moment between its two."""
    recording = Recording.read(path)
    assert recording.datagrams == FRAMES[: len(moments)]
    for pause, earlier, later in zip(recording.delays, moments, moments[1:]):
        assert later[0] - earlier[1] <= pause <= later[1] - earlier[0]


@pytest.mark.parametrize("step", [0, 50, -50, 3600, -3600])
def test_a_service_that_was_stopped_records_the_pauses_of_the_sender(world, faults, step):
    """The wall clock of the process is set by so many seconds meanwhile."""
    service = world.start(prefix=faults.prefix, environment=LEVEL_4)
    # A sender on the appliance: the kernel stamps its datagrams while it sends them.
    sender = world.appliance.loopback(2)
    wait_until_stamped(world)
    service.feed([b"noise"])
    service.client.grab(world.path("cue"))
    service.halt()
    moments = send_with_gaps(sender)
    faults.shift_clock(step)
    service.go_on()
    service.settle(sender)
    service.client.stop()
    assert_pauses_between(world.path("cue"), moments)
    assert NO_STAMPS not in world.log.entries()


def refuse_stamps(faults):
    faults.arm("setsockopt", errno.ENOPROTOOPT, UDP, times=1, skip=1)


def refuse_all_but_broadcast(faults):
    faults.arm("setsockopt", errno.ENOPROTOOPT, UDP, skip=1)


def an_hour_ahead(faults):
    faults.shift_clock(3600)


def an_hour_behind(faults):
    faults.shift_clock(-3600)


@pytest.mark.parametrize("spoil", [refuse_stamps, refuse_all_but_broadcast, an_hour_ahead, an_hour_behind])
def test_without_usable_stamps_the_time_of_reading_is_recorded_and_told_once(world, faults, spoil):
    spoil(faults)
    service = world.start(prefix=faults.prefix, environment=LEVEL_4)
    assert world.log.entries().count(NO_STAMPS) == 0
    moments = []
    for recording in ("cue", "again"):
        service.client.grab(world.path(recording))
        moments.clear()
        for frame in FRAMES[:5]:
            before = clock()
            service.feed([frame])
            moments.append((before, clock()))
        service.client.stop()
        assert_pauses_between(world.path(recording), moments)
    assert world.log.entries().count(NO_STAMPS) == 1


def test_without_stamps_a_service_that_was_stopped_records_when_it_went_on(world, faults):
    refuse_stamps(faults)
    service = world.start(prefix=faults.prefix)
    service.client.grab(world.path("cue"))
    service.halt()
    sender = world.appliance.loopback(2)
    send_with_gaps(sender)
    went_on = clock()
    service.go_on()
    service.settle(sender)
    read = clock()
    service.client.stop()
    recording = Recording.read(world.path("cue"))
    assert recording.datagrams == FRAMES
    assert sum(recording.delays) <= read - went_on
