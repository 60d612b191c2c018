"""The bytes of a recording and the pauses in it."""

import struct
import time
from pathlib import Path

import pytest
from harness import BadRecording, Recording
from harness.artnet import art_dmx, art_poll, art_trigger, oem_vfps, oem_vfps_ns, slots
from texts import (
    FINALIZED,
    GRAB,
    GRABBING_STARTED,
    STOP,
    has_ended,
    lost_nothing,
    split_grab_text,
    unparsed,
    wait_until_complete,
)

A = art_dmx(1, bytes([10, 20]), sequence=7, physical=3)
B = art_dmx(2, bytes(range(100)))
C = art_dmx(0x7FFF, bytes([255] * 512))
DELAY_HEADER = b"Art-Net\0\xfe\x00"


@pytest.fixture
def recorded(service):
    """A function that records datagrams and returns the content of the file."""

    def record(datagrams, before=()):
        path = service.world.path("cue")
        service.feed(before)
        service.client.grab(path)
        service.feed(datagrams)
        service.client.stop()
        return Path(path).read_bytes()

    return record


def test_one_datagram_is_the_whole_file(recorded):
    assert recorded([A]) == A


def test_two_datagrams_have_one_delay_record_between_them(recorded):
    content = recorded([A, B])
    assert len(content) == len(A) + 18 + len(B)
    assert content.startswith(A + DELAY_HEADER)
    assert content.endswith(B)


def test_n_datagrams_have_n_minus_1_delay_records(recorded):
    datagrams = [art_dmx(number % 40, slots({1 + number: number % 256})) for number in range(200)]
    content = recorded(datagrams)
    assert len(content) == sum(map(len, datagrams)) + 18 * 199
    recording = Recording.parse(content)
    assert recording.datagrams == datagrams
    assert len(recording.delays) == 199


def test_the_bytes_are_those_on_the_wire_whatever_the_fields_say(recorded):
    datagrams = [
        art_dmx(0, b"", version=0),
        art_dmx(0xFFFF, b"\x01", sequence=255, physical=255, version=0xFFFF),
        art_dmx(5, bytes(3)),
        art_dmx(5, bytes(range(255))),
    ]
    assert Recording.parse(recorded(datagrams)).datagrams == datagrams


def test_padding_behind_the_slots_is_recorded(recorded):
    padded = A + bytes(30)
    assert recorded([padded]) == padded


def test_garbage_before_the_packet_is_recorded(recorded):
    dirty = b"garbage " + A
    assert recorded([dirty]) == dirty


def test_a_datagram_of_8191_bytes_is_recorded_whole(recorded):
    long = A + bytes(8191 - len(A))
    assert recorded([long]) == long


def clock():
    return time.monotonic_ns()


def test_a_pause_lies_between_the_receive_times_of_its_two_datagrams(service):
    path = service.world.path("cue")
    service.client.grab(path)
    moments = []
    for datagram in (A, B, C, A):
        before = clock()
        service.feed([datagram])
        moments.append((before, clock()))
    service.client.stop()
    delays = Recording.read(path).delays
    for delay, (earlier, later) in zip(delays, zip(moments, moments[1:])):
        assert later[0] - earlier[1] <= delay <= later[1] - earlier[0]


def test_skipped_datagrams_do_not_shorten_a_pause(service):
    client, path = service.client, service.world.path("cue")
    client.grab(path)
    first = clock()
    service.feed([A])
    skipped_from = clock()
    service.feed([art_poll(), art_trigger(1, 2), b"no packet", art_dmx(1, bytes(9), length=90)] * 5)
    skipped_to = clock()
    service.feed([B])
    last = clock()
    client.stop()
    (delay,) = Recording.read(path).delays
    assert skipped_to - skipped_from <= delay <= last - first


def test_the_first_datagram_has_no_pause_however_long_after_grab_it_comes(service):
    client, path = service.client, service.world.path("cue")
    client.grab(path)
    service.feed([art_poll(), b"no packet"] * 30)
    service.feed([A])
    client.stop()
    assert Path(path).read_bytes() == A


def test_a_new_recording_does_not_count_the_time_since_the_last(service):
    client, path = service.client, service.world.path("cue")
    client.grab(path)
    service.feed([A, B])
    client.stop()
    begun = clock()
    client.grab(path)
    service.feed([A, B])
    ended = clock()
    client.stop()
    (delay,) = Recording.read(path).delays
    assert 0 < delay <= ended - begun


# Several packets in one datagram: it is written once, whole, if the last ArtDmx says so; that one also gives the universe.


@pytest.mark.parametrize(
    "datagram, universe",
    [
        (A + B, 2),
        (B + A, 1),
        (A + A + A, 1),
        (A + art_poll(), 1),
        (art_poll() + A, 1),
        (art_trigger(1, 2, payload=b"") + A, 1),
        (A + b"Art-Net\0\x00\x51" + B, 2),
        (oem_vfps() + oem_vfps_ns(5) + A, 1),
        (A + art_dmx(3, bytes(12), length=600), 1),
        (A + b"padding" + B + b"padding", 2),
    ],
    ids=lambda value: f"{len(value)} bytes" if isinstance(value, bytes) else str(value),
)
def test_a_datagram_of_several_packets_is_written_once(service, recorded, datagram, universe):
    assert recorded([datagram]) == datagram
    assert split_grab_text(service.client.latest_grab())[2:] == (universe, {universe})
    assert service.client.signals.items == []


def test_datagrams_of_several_packets_have_pauses_between_datagrams_only(service, recorded):
    datagrams = [A + B, C, B + A]
    recorded(datagrams)
    assert len(Recording.of_datagrams(service.world.path("cue"), datagrams).delays) == 2


def test_many_small_packets_that_span_two_refills_are_recorded(service, recorded):
    """After the last packet the search meets packets of the first refill, still in the buffer. They do nothing."""
    datagram = b"".join(art_dmx(number, bytes([number] * 10)) for number in range(30))
    assert 512 < len(datagram) < 1024
    assert recorded([datagram]) == datagram
    assert split_grab_text(service.client.latest_grab())[2:] == (29, {29})


def test_a_datagram_whose_parse_fails_is_not_recorded_and_nothing_in_its_stead(service):
    broken = A + art_dmx(2, bytes(5), length=50)
    client, path = service.client, service.world.path("cue")
    client.grab(path)
    lines = service.world.log.mark()
    for datagram in (broken, art_poll(), art_trigger(1, 2), b"Art-Net\0\x00\x51"):
        service.feed([datagram])
    assert client.get_status() == "on"
    assert service.world.log.entries(lines) == [unparsed(broken)]
    service.feed([B])
    client.stop()
    assert Path(path).read_bytes() == B


def test_a_datagram_whose_parse_failed_does_not_open_the_next_armed_recording(service):
    client, path = service.client, service.world.path("cue")
    client.grab(path)
    service.feed([A + art_dmx(2, bytes(5), length=50)])
    client.stop()
    assert client.set_ctrl_universe(9) and client.set_ctrl_record(1, 100)
    client.grab(path)
    service.feed([A])
    assert client.get_status() == "on"
    client.stop()
    assert Path(path).read_bytes() == b""


CONTROL_ON = art_dmx(8, b"\xff")
CONTROL_OFF = art_dmx(8, b"\x00")


@pytest.fixture
def armed(service):
    """The service armed with control universe 9, channel 1, threshold 100; yields (service, path)."""
    service.client.set_ctrl_universe(9)
    service.client.set_ctrl_record(1, 100)
    path = service.world.path("cue")
    service.client.grab(path)
    return service, path


def test_start_and_first_packet_in_one_datagram_are_recorded_together(armed):
    service, path = armed
    service.feed([CONTROL_ON + A])
    assert service.client.get_status() == "run"
    service.client.stop()
    assert Path(path).read_bytes() == CONTROL_ON + A


def test_a_packet_before_the_start_in_the_same_datagram_is_not_recorded(armed):
    service, path = armed
    service.feed([A + CONTROL_ON])
    assert service.client.get_status() == "on"
    service.client.stop()
    assert Path(path).read_bytes() == b""


def test_a_stop_at_the_end_of_a_datagram_keeps_the_whole_datagram_out(armed):
    service, path = armed
    service.feed([CONTROL_ON, A, B + CONTROL_OFF])
    assert has_ended(service.client)
    assert Path(path).read_bytes() == A


def test_a_packet_behind_the_stop_in_the_same_datagram_is_recorded_before_the_end(armed):
    service, path = armed
    lines = service.world.log.mark()
    service.feed([CONTROL_ON, A, CONTROL_OFF + B])
    wait_until_complete(service.world.log, lines)
    assert service.world.log.entries(lines) == [GRABBING_STARTED, FINALIZED, lost_nothing(2, 2)]
    assert has_ended(service.client)
    assert Recording.of_datagrams(path, [A, CONTROL_OFF + B]).delays != []


def test_stop_and_a_broken_packet_in_one_datagram_still_end_the_recording(armed):
    service, path = armed
    broken = CONTROL_OFF + art_dmx(2, bytes(5), length=50)
    lines = service.world.log.mark()
    service.feed([CONTROL_ON, A, broken])
    wait_until_complete(service.world.log, lines)
    assert service.world.log.entries(lines) == [GRABBING_STARTED, unparsed(broken), FINALIZED, lost_nothing(1, 1)]
    assert has_ended(service.client)
    assert Path(path).read_bytes() == A


def test_start_stop_and_start_in_one_datagram_end_the_recording(armed):
    service, path = armed
    service.feed([CONTROL_ON + CONTROL_OFF + CONTROL_ON])
    assert has_ended(service.client)
    assert Path(path).read_bytes() == CONTROL_ON + CONTROL_OFF + CONTROL_ON


# Stale bytes of earlier refills in the parser's buffer are searched too.


def test_a_packet_that_a_long_datagram_left_in_the_buffer_does_nothing(service):
    """The second packet of the long datagram is found again after the short one; its universe is not noted."""
    client, path = service.client, service.world.path("cue")
    client.grab(path)
    service.world.console.send(A + B, A)
    service.settle()
    client.stop()
    Recording.of_datagrams(path, [A + B, A])
    assert split_grab_text(client.latest_grab())[2:] == (2, {1, 2})


@pytest.mark.parametrize("other", [art_poll(), art_trigger(1, 2, payload=b""), b"Art-Net\0\x00\x51"], ids=len)
def test_a_datagram_without_dmx_is_not_recorded_for_a_packet_that_was_left_behind(service, other):
    client, path = service.client, service.world.path("cue")
    client.grab(path)
    service.world.console.send(A + B, other)
    service.settle()
    client.stop()
    assert Path(path).read_bytes() == A + B


def test_a_packet_left_behind_is_gone_once_the_buffer_was_filled(service):
    client, path = service.client, service.world.path("cue")
    client.grab(path)
    service.feed([A + B])
    service.feed([A])
    client.stop()
    assert split_grab_text(client.latest_grab())[2:] == (2, {1, 2})


def test_the_whole_file_is_there_when_stop_has_answered(service):
    client, path = service.client, service.world.path("cue")
    lines = service.world.log.mark()
    client.grab(path)
    service.feed([A])
    client.stop()
    assert Path(path).read_bytes() == A
    assert service.world.log.entries(lines) == [GRAB, GRABBING_STARTED, STOP, FINALIZED, lost_nothing(1, 1)]


def test_a_recording_that_lost_nothing_says_what_it_holds(service):
    client, path = service.client, service.world.path("cue")
    lines = service.world.log.mark()
    client.grab(path)
    service.feed([A, B])
    service.feed([B] * 5)
    client.stop()
    duration = wait_until_complete(service.world.log, lines)
    assert service.world.log.entries(lines)[-1] == lost_nothing(2, 7)
    assert round(duration * 1000) == sum(Recording.read(path).delays) // 1_000_000


# The reader on which these tests rely.


@pytest.mark.parametrize(
    "content",
    [
        A[:-1],
        A + A,
        A + DELAY_HEADER,
        A + DELAY_HEADER + struct.pack("<q", 5),
        A + DELAY_HEADER + struct.pack("<q", -1) + A,
        DELAY_HEADER + struct.pack("<q", 5) + A,
        A + oem_vfps() + A,
        art_poll(),
        art_dmx(0, bytes(600)),
    ],
)
def test_the_reader_refuses_what_is_no_recording(content):
    with pytest.raises(BadRecording):
        Recording.parse(content)
