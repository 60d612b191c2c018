"""Senders whose datagrams the service takes, and the log lines about unreadable datagrams."""

import re

import pytest
from harness import CONSOLE
from harness.artnet import IDENTIFIER, art_dmx, art_poll, art_trigger, header
from texts import BANNER, LISTEN_STARTING, OVERSIZED_DMX, SIZE_UNREADABLE, device_ip, unparsed

TRIGGER = art_trigger(7, 3)


def test_datagrams_from_the_own_address_are_dropped_unparsed(service):
    own = service.world.appliance.endpoint()
    assert own.address == "10.77.0.1"
    lines = service.world.log.mark()
    own.send(TRIGGER, b"no packet")
    foreign = service.world.appliance.loopback(2)
    foreign.send(art_trigger(1, 1))
    service.settle(foreign)
    service.client.signals.wait_for_count(1)
    assert service.client.triggers() == [(1, 1)]
    assert service.world.log.entries(lines) == []


@pytest.mark.parametrize("address", ["10.77.0.10", "10.77.0.11", "10.77.1.1", "10.77.0.100"])
def test_an_address_that_only_begins_like_the_own_is_foreign(service, address):
    sender = service.world.network.peer("neighbour", address).endpoint()
    sender.send(TRIGGER)
    service.client.signals.wait_for_count(1)
    assert service.client.triggers() == [(7, 3)]


def test_every_other_loopback_address_is_a_foreign_sender(service):
    senders = [service.world.appliance.loopback(number) for number in (2, 10, 11, 100, 254)]
    for number, sender in enumerate(senders):
        sender.send(art_trigger(number, 0))
    service.client.signals.wait_for_count(len(senders))
    assert service.client.triggers() == [(number, 0) for number in range(len(senders))]


def test_datagrams_from_127_0_0_1_are_never_parsed(service):
    lines = service.world.log.mark()
    local = service.world.appliance_process
    local.send(TRIGGER, art_poll(), art_dmx(), b"", b"no packet at all", IDENTIFIER * 5)
    assert service.relay_barrier() == []
    service.settle()
    assert service.client.signals.items == []
    assert service.world.log.entries(lines) == []


def test_without_eth0_the_address_reads_as_zeros_and_nobody_is_dropped(make_world):
    world = make_world(with_eth0=False)
    service = world.start()
    assert world.log.entries() == [BANNER, LISTEN_STARTING, device_ip("0.0.0.0")]
    world.appliance.loopback(2).send(TRIGGER)
    service.client.signals.wait_for_count(1)
    assert service.client.triggers() == [(7, 3)]


def test_datagrams_of_all_senders_are_taken_in_order(service):
    host = service.world.network.peer("many", [f"10.77.3.{number}" for number in range(1, 41)])
    senders = host.endpoints(0)
    for number, sender in enumerate(senders):
        sender.send(art_trigger(number, 1))
    service.client.signals.wait_for_count(len(senders))
    assert service.client.triggers() == [(number, 1) for number in range(len(senders))]


def test_broadcast_datagrams_are_received(service):
    service.world.console.send(TRIGGER, to=("10.77.255.255", 6454))
    service.client.signals.wait_for_count(1)
    assert service.client.triggers() == [(7, 3)]


def test_a_poll_is_answered_to_the_address_and_port_that_asked(service):
    asker = service.world.console_host.endpoint()
    asker.send(art_poll())
    reply = asker.receive()
    assert (reply.address, reply.port, len(reply.data)) == ("10.77.0.1", 6454, 239)
    assert reply.data[:10] == header(0x2100)
    assert asker.address == CONSOLE


@pytest.mark.parametrize(
    "datagram",
    [
        b"",
        b"\0",
        b"no packet",
        b"Art-Net",
        IDENTIFIER,
        IDENTIFIER + b"\0",
        b"A" + TRIGGER,
        header(0x5000),
        art_dmx(0, b"", length=1),
        art_dmx(0, bytes(50), length=100),
        art_dmx(0, bytes(511), length=512),
        art_trigger(1, 2, payload=b"")[:-1],
        art_poll()[:-1],
        bytes(range(256)) * 4,
    ],
    ids=lambda datagram: f"{len(datagram)} bytes {datagram[:12].hex()}",
)
def test_what_cannot_be_parsed_is_logged_whole_in_base64(service, datagram):
    # Fills the parser's buffer: the zero bytes that it starts with could end an identifier that is cut off.
    service.settle()
    lines = service.world.log.mark()
    service.world.console.send(datagram)
    service.settle()
    assert service.world.log.entries(lines) == [unparsed(datagram)]
    assert service.client.signals.items == []


def test_an_unknown_opcode_is_no_failure(service):
    lines = service.world.log.mark()
    service.world.console.send(*(header(opcode) for opcode in (0, 0x1234, 0x5100, 0x5200, 0x9700, 0xFFFF)))
    service.settle()
    assert service.world.log.entries(lines) == []


def test_an_oversized_dmx_packet_is_an_error_line_and_no_failure(service):
    lines = service.world.log.mark()
    service.world.console.send(art_dmx(0, bytes(512), length=513), art_dmx(0, bytes(512), length=65535))
    service.settle()
    assert service.world.log.entries(lines) == [OVERSIZED_DMX, OVERSIZED_DMX]


def test_the_packet_count_stands_in_the_error_line(service):
    lines = service.world.log.mark()
    service.world.console.send(art_poll() + art_poll() + art_dmx(0, bytes(12), length=600))
    service.settle()
    assert service.world.log.entries(lines) == [
        (3, "[Dump::ArtNetParser::on_error] Failed to parse packet (2, ec:4)")
    ]


@pytest.mark.parametrize("size", [8192, 8193, 20000, 65507])
def test_a_datagram_of_8192_bytes_or_more_costs_one_line(service, size):
    lines = service.world.log.mark()
    service.world.console.send(TRIGGER + bytes(size - len(TRIGGER)))
    service.settle()
    assert service.world.log.entries(lines) == [SIZE_UNREADABLE]
    assert service.client.signals.items == []


def test_a_datagram_of_8191_bytes_is_still_read(service):
    lines = service.world.log.mark()
    service.world.console.send(art_trigger(5, 6) + bytes(8191 - 530))
    service.settle()
    assert service.world.log.entries(lines) == []
    service.client.signals.wait_for_count(1)
    assert service.client.triggers() == [(5, 6)]


def test_an_error_line_begins_with_line_number_and_function(service):
    lines = service.world.log.mark()
    service.world.console.send(bytes(9000))
    service.settle()
    (line,) = service.world.log.since(lines)
    assert re.fullmatch(r"[1-9]\d* \w+ ReceiveLoop::\w+\(.*\)\) Failed to read pending datagram size", line.text)


def test_zero_bytes_that_were_left_behind_can_end_an_identifier_that_is_cut_off(service):
    """The parser searches its whole buffer, which holds zeros at first: an unknown packet, not a failure."""
    lines = service.world.log.mark()
    service.world.console.send(b"Art-Net")
    service.settle()
    assert service.world.log.entries(lines) == []
