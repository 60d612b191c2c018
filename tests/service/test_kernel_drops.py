"""Datagrams that the kernel throws away because the service does not read them in time: counted and told."""

import pytest
from harness import Recording, spin_until
from harness.artnet import art_dmx, header
from harness.show import Show
from texts import FINALIZED, GRAB, GRABBING_STARTED, STOP, has_ended, losses, lost_nothing, without_losses

# Frames that no receive buffer of a default system holds.
FLOOD = 2000

RECORD_ON = art_dmx(8, b"\xff")
RECORD_OFF = art_dmx(8, b"\x00")
# Art-Net that is never recorded (ArtTimeCode), however late it is read.
NO_SHOW = header(0x9700) + bytes(9)


def queue(service):
    """(bytes that wait in the service's socket, datagrams that the kernel has dropped there)"""
    port = f":{service.world.network.service_port:04X}"
    with open(f"/proc/{service.pid}/net/udp", encoding="ascii") as table:
        rows = [line.split() for line in table]
    (row,) = [row for row in rows if row[1].endswith(port) and row[1].startswith("00000000")]
    return int(row[4].split(":")[1], 16), int(row[12])


def overflow(service, send):
    """The service stands still until `send` has overflown its socket, and then reads what is left. Datagrams dropped."""
    before = queue(service)[1]
    service.halt()
    send()
    service.go_on()
    spin_until(lambda: queue(service)[0] == 0, "the queue to be read")
    dropped = queue(service)[1] - before
    assert dropped > 0
    return dropped


@pytest.fixture
def show(service):
    return Show(service)


@pytest.fixture
def path(service):
    return service.world.path("cue")


def test_datagrams_that_the_kernel_drops_during_a_recording_are_told(service, show, path):
    lines = service.world.log.mark()
    service.client.grab(path)
    show.send()
    dropped = overflow(service, lambda: show.throw(FLOOD))
    show.send()
    dropped += overflow(service, lambda: show.throw(FLOOD))
    show.send()
    service.client.stop()
    missing = sorted(set(range(len(show.frames))) - set(show.kept(Recording.read(path))))
    assert len(missing) == dropped
    entries = service.world.log.entries(lines)
    ((kernel, writer, after),) = losses(entries)
    assert (kernel, writer) == (dropped, 0)
    least, most = show.between(0, missing[0])
    assert least // 1_000_000 <= after
    assert without_losses(entries) == [GRAB, GRABBING_STARTED, STOP, FINALIZED]


def a_datagram_then_stop(service):
    service.settle()
    service.client.stop()


def stop_at_once(service):
    # All that was fetched from the socket has been processed, and nothing after it tells of drops.
    service.relay_barrier()
    service.client.stop()


def the_record_channel(service):
    service.feed([RECORD_OFF])
    assert has_ended(service.client)


@pytest.mark.parametrize("end", [a_datagram_then_stop, stop_at_once, the_record_channel])
def test_datagrams_that_the_kernel_drops_at_the_end_of_a_recording_are_told(service, show, path, end):
    lines = service.world.log.mark()
    assert service.client.set_ctrl_universe(9) and service.client.set_ctrl_record(1, 100)
    service.client.grab(path)
    service.feed([RECORD_ON])
    show.send()
    dropped = overflow(service, lambda: show.throw(FLOOD))
    end(service)
    assert len(show.frames) - len(show.kept(Recording.read(path))) == dropped
    assert [(kernel, writer) for kernel, writer, _ in losses(service.world.log.entries(lines))] == [(dropped, 0)]


def test_datagrams_that_the_kernel_dropped_before_a_recording_do_not_count(service, path):
    """Nor when its own first datagram is the first to come after them."""
    for send_between in (lambda: service.feed([NO_SHOW]), lambda: None):
        show = Show(service)
        lines = service.world.log.mark()
        overflow(service, lambda: service.world.console.send(*[NO_SHOW] * FLOOD))
        send_between()
        service.client.grab(path)
        show.send()
        service.client.stop()
        assert show.kept(Recording.read(path)) == list(range(len(show.frames)))
        complete = lost_nothing(1, len(show.frames))
        assert service.world.log.entries(lines) == [GRAB, GRABBING_STARTED, STOP, FINALIZED, complete]


def test_a_recording_counts_its_own_losses_only(service, show, path):
    service.client.grab(path)
    show.send()
    overflow(service, lambda: show.throw(FLOOD))
    show.send()
    service.client.stop()
    lines = service.world.log.mark()
    service.client.grab(path)
    again = show.send()
    service.client.stop()
    assert show.kept(Recording.read(path)) == list(again)
    assert service.world.log.entries(lines) == [GRAB, GRABBING_STARTED, STOP, FINALIZED, lost_nothing(1, len(again))]


def test_without_a_recording_losses_are_not_told(service, show):
    lines = service.world.log.mark()
    overflow(service, lambda: show.throw(FLOOD))
    show.send()
    service.client.stop()
    assert losses(service.world.log.entries(lines)) == []
