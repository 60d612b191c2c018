"""Malformed datagrams. After each the service still records and answers."""

import random
from pathlib import Path

import pytest
from harness import Recording
from harness.artnet import (
    IDENTIFIER,
    SLOTS,
    art_dmx,
    art_poll,
    art_poll_reply,
    art_trigger,
    header,
    oem_vfps,
    oem_vfps_ns,
)
from texts import OVERSIZED_DMX, SIZE_UNREADABLE, emitted, split_grab_text, unparsed

SIZES = [0, 1, 9, 10, 511, 512, 513, 8191, 8192, 65507]
GOOD = [art_dmx(1, bytes(range(200))), art_dmx(2, bytes(range(100)))]


def assert_alive(service):
    """The service records and answers."""
    path = service.world.path("alive")
    assert service.client.get_status() == "off"
    service.client.grab(path)
    service.feed(GOOD)
    assert service.client.get_status() == "run"
    service.client.stop()
    assert Recording.read(path).datagrams == GOOD
    assert split_grab_text(service.client.latest_grab()) == (path, False, 2, {1, 2})


@pytest.mark.parametrize("fill", [b"\0", b"x", b"A", b"Art-Net"], ids=repr)
def test_datagrams_of_every_size_without_a_packet(service, fill):
    service.settle()
    for size in SIZES:
        datagram = (fill * (size // len(fill) + 1))[:size]
        # Each after a marker, so that no identifier is put together from two datagrams.
        lines = service.world.log.mark()
        service.feed([datagram])
        assert service.world.log.entries(lines) == [SIZE_UNREADABLE if size >= 8192 else unparsed(datagram)], size
    assert service.client.signals.items == []
    assert_alive(service)


@pytest.mark.parametrize("size", SIZES)
def test_datagrams_of_every_size_that_begin_with_a_packet(service, size):
    for packet in (art_dmx(0, bytes(SLOTS)), art_trigger(1, 2), art_poll_reply(num_ports=1), art_poll(), IDENTIFIER * 64):
        service.feed([(packet + bytes(size))[:size]])
    assert_alive(service)


@pytest.mark.parametrize("size", SIZES)
def test_datagrams_of_every_size_do_not_disturb_a_recording(service, size):
    path = service.world.path("cue")
    service.client.grab(path)
    for datagram in (GOOD[0], bytes(size), GOOD[1], b"x" * size, GOOD[0]):
        service.feed([datagram])
    service.client.stop()
    assert Recording.read(path).datagrams == [GOOD[0], GOOD[1], GOOD[0]]


def test_an_identifier_at_every_offset_is_found_once(service):
    datagrams = [b"x" * offset + art_trigger(offset // 256, offset % 256, payload=b"") for offset in range(1100)]
    lines = service.world.log.mark()
    assert emitted(service, datagrams) == [(offset // 256, offset % 256) for offset in range(1100)]
    assert service.world.log.entries(lines) == []


def test_a_dmx_packet_at_every_offset_is_recorded_whole(service):
    datagrams = [b"x" * offset + art_dmx(offset, b"\x01\x02") for offset in range(540)]
    path = service.world.path("cue")
    service.client.grab(path)
    service.feed(datagrams)
    service.client.stop()
    Recording.of_datagrams(path, datagrams)
    assert split_grab_text(service.client.latest_grab()) == (path, False, 539, set(range(540)))


def test_a_partial_identifier_in_front_hides_the_packet(service):
    """The search does not look again at the byte that ended a partial match."""
    for length in range(1, 8):
        datagram = IDENTIFIER[:length] + art_trigger(1, length, payload=b"")
        service.settle()
        lines = service.world.log.mark()
        service.feed([datagram])
        assert service.world.log.entries(lines) == [unparsed(datagram)]
    assert emitted(service, []) == []


@pytest.mark.parametrize("length", [0, 1, 511, 512, 513, 65535])
def test_every_length_field_of_a_full_dmx_packet(service, length):
    datagram = art_dmx(3, bytes(SLOTS), length=length)
    path = service.world.path("cue")
    service.client.grab(path)
    lines = service.world.log.mark()
    service.feed([datagram])
    found = service.world.log.entries(lines)
    service.client.stop()
    if length <= SLOTS:
        assert Path(path).read_bytes() == datagram
        assert OVERSIZED_DMX not in found and unparsed(datagram) not in found
    else:
        assert Path(path).read_bytes() == b""
        assert found == [OVERSIZED_DMX]
    assert_alive(service)


@pytest.mark.parametrize("length", [1, 511, 512, 513, 65535])
@pytest.mark.parametrize("carried", [0, 1, 50, 493, 494, 495])
def test_length_fields_that_promise_more_than_there_is(service, length, carried):
    datagram = art_dmx(3, bytes(carried), length=length)
    service.settle()
    path = service.world.path("cue")
    service.client.grab(path)
    lines = service.world.log.mark()
    service.feed([datagram])
    found = [entry for entry in service.world.log.entries(lines) if "Grabbing started" not in entry[1]]
    service.client.stop()
    if length > SLOTS:
        assert found == [OVERSIZED_DMX] and Path(path).read_bytes() == b""
    elif length > carried:
        assert found == [unparsed(datagram)] and Path(path).read_bytes() == b""
    else:
        assert found == [] and Path(path).read_bytes() == datagram


@pytest.mark.parametrize(
    "packet",
    [
        art_poll(),
        art_poll_reply(num_ports=4),
        art_dmx(1, bytes(40)),
        art_trigger(1, 2, payload=b""),
        oem_vfps(),
        oem_vfps_ns(7),
    ],
    ids=["ArtPoll", "ArtPollReply", "ArtDmx", "ArtTrigger", "OEM 0x00FF", "OEM 0x00FE"],
)
def test_a_packet_cut_off_at_every_byte(service, packet):
    service.feed(packet[:length] for length in range(len(packet) + 1))
    assert_alive(service)


def test_every_opcode_on_a_short_datagram(service):
    service.feed(header(high << 8 | low) for high in range(256) for low in (0x00, 0xFE, 0xFF))
    assert_alive(service)


def test_datagrams_full_of_identifiers_and_headers(service):
    for unit in (IDENTIFIER, *map(header, (0x5000, 0x2100, 0x2000, 0x9900, 0x00FE, 0x7777))):
        service.feed([(unit * 900)[:size] for size in (8, 10, 18, 500, 511, 512, 513, 520, 1024, 8191)])
    assert_alive(service)


@pytest.mark.parametrize("seed", range(6))
def test_random_datagrams_made_of_packet_pieces(service, seed):
    """Pieces of real packets in random order, at random cuts; the seed makes every run the same."""
    chance = random.Random(seed)
    pieces = [
        IDENTIFIER,
        header(0x5000),
        art_dmx(1, bytes(30)),
        art_dmx(2, bytes(SLOTS)),
        art_dmx(3, b"", length=65535),
        art_dmx(4, bytes(3), length=512),
        art_trigger(1, 2, payload=b""),
        art_poll_reply(num_ports=4, port_types=b"\x85\x85\x85\x85", short_name=b"x" * 18, long_name=b"y" * 64),
        oem_vfps(),
        oem_vfps_ns(-1),
        bytes(7),
        b"Art-Net",
        b"A",
        b"\xff" * 100,
    ]
    datagrams = []
    for _ in range(400):
        whole = b"".join(chance.choices(pieces, k=chance.randint(1, 8)))
        start = chance.randint(0, 3) * chance.randint(0, 20)
        datagrams.append(whole[start : start + chance.choice([20, 100, 511, 512, 513, 8191])])
    path = service.world.path("cue")
    service.client.grab(path)
    service.feed(datagrams[:200])
    service.client.stop()
    service.feed(datagrams[200:])
    assert_alive(service)


def test_a_burst_of_oversized_datagrams_does_not_keep_the_next_one_back(service):
    lines = service.world.log.mark()
    # Five of these fill the socket's buffer less than half.
    service.feed([bytes(10000)] * 5)
    assert service.world.log.entries(lines) == [SIZE_UNREADABLE] * 5
    assert_alive(service)
