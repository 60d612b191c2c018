"""Datagrams of local processes at 127.0.0.1 that the service sends on from the Art-Net port."""

import pytest
from harness import CONSOLE, Recording
from harness.artnet import art_dmx, art_poll, relay
from texts import SIZE_UNREADABLE

FROM_ART_NET_PORT = ("10.77.0.1", 6454)


def sent_on(service, *requests):
    """The payloads that reach the console for these requests."""
    # Named here, so that it listens before anything is sent.
    assert service.world.console
    service.world.appliance_process.send(*requests)
    received = service.relay_barrier()
    assert {(datagram.address, datagram.port) for datagram in received} <= {FROM_ART_NET_PORT}
    return [datagram.data for datagram in received]


def test_the_payload_leaves_from_the_art_net_port(service):
    packet = art_dmx(3, bytes(range(256)) * 2)
    assert sent_on(service, relay(packet, CONSOLE, 6454)) == [packet]


def test_a_request_of_every_length_from_0_to_40(service):
    whole = relay(bytes(range(1, 17)), CONSOLE, 6454)
    assert len(whole) == 40
    for length in range(41):
        expected = [whole[24:length]] if length >= 25 else []
        assert sent_on(service, whole[:length]) == expected, length


def test_only_ports_from_1024_to_65535_are_sent_to(service):
    capture = service.world.console_host.capture()
    ports = [-(2**31), -65000, -1, 0, 1, 80, 1023, 1024, 1025, 6454, 65535, 65536, 65536 + 6454, 2**31 - 1]
    for port in ports:
        service.world.appliance_process.send(relay(b"to %d" % port, CONSOLE, port))
    lines = service.world.log.mark()
    service.relay_barrier()
    arrived = [(datagram.data, datagram.destination_port) for datagram in capture.datagrams()
               if datagram.data.startswith(b"to ")]
    assert arrived == [(b"to %d" % port, port) for port in (1024, 1025, 6454, 65535)]
    service.settle()
    assert service.world.log.entries(lines) == []


def test_nothing_is_sent_to_an_empty_address_or_to_127_0_0_1(service):
    world = service.world
    listener = world.appliance.endpoint(7000, "127.0.0.1")
    lines = world.log.mark()
    assert sent_on(service, relay(b"payload", "", 7000), relay(b"payload", "127.0.0.1", 7000)) == []
    service.settle()
    assert listener.waiting() == []
    assert world.log.entries(lines) == []


def test_other_loopback_addresses_are_sent_to(service):
    listener = service.world.appliance.endpoint(7000, "127.0.0.2")
    service.world.appliance_process.send(relay(b"payload", "127.0.0.2", 7000))
    assert listener.receive().data == b"payload"


def test_the_manufacturer_id_must_fit_in_all_32_bits(make_world):
    world = make_world(brand={"manufacturer_id": 0x1234})
    service = world.start()
    for wrong in (0, 0x1235, 0x3412, 0x11234, -0x80000000 + 0x1234, 0x12340000):
        assert sent_on(service, relay(b"payload", CONSOLE, 6454, wrong & 0xFFFFFFFF)) == []
    assert sent_on(service, relay(b"payload", CONSOLE, 6454, 0x1234)) == [b"payload"]


def test_a_wrong_manufacturer_id_is_ignored_without_a_brand_file(service):
    for wrong in (1, 0x100, 0x10000, 0xFFFFFFFF):
        assert sent_on(service, relay(b"payload", CONSOLE, 6454, wrong)) == []


def test_the_address_ends_at_its_first_zero_byte(service):
    assert sent_on(service, relay(b"payload", CONSOLE.encode() + b"\0garbag", 6454)) == [b"payload"]


def test_the_address_is_cut_to_15_characters(service):
    lines = service.world.log.mark()
    assert sent_on(service, relay(b"payload", b"255.255.255.2559", 6454)) == []
    assert service.world.log.entries(lines) == [
        (3, "Failed to send datagram (ip:255.255.255.255, port:6454) due to Network is unreachable. errno 101")
    ]


def test_the_broadcast_address_is_sent_to(service):
    listener = service.world.console_host.endpoint(7000, "10.77.255.255")
    service.world.appliance_process.send(relay(art_poll(), "10.77.255.255", 7000))
    received = listener.receive()
    assert (received.data, received.address, received.port) == (art_poll(), *FROM_ART_NET_PORT)


@pytest.mark.parametrize("address", ["console", "10.77.0", "10.77.0.2.", " 10.77.0.2", "10.77.0.256", "::1", "%n%s%1%2%d%x"])
def test_text_that_is_no_address_is_named_in_the_error_line(service, address):
    lines = service.world.log.mark()
    assert sent_on(service, relay(b"payload", address, 6454)) == []
    assert service.world.log.entries(lines) == [
        (3, f"Failed to send datagram (ip:{address}, port:6454) due to Invalid argument. errno 22")
    ]


def test_an_address_that_cannot_be_reached_is_named_in_the_error_line(service):
    lines = service.world.log.mark()
    assert sent_on(service, relay(b"payload", "192.0.2.1", 65535)) == []
    assert service.world.log.entries(lines) == [
        (3, "Failed to send datagram (ip:192.0.2.1, port:65535) due to Network is unreachable. errno 101")
    ]


def test_the_longest_request_is_sent_whole_and_one_byte_more_is_refused(service):
    payload = bytes(index & 0xFF for index in range(8191 - 24))
    assert sent_on(service, relay(payload, CONSOLE, 6454)) == [payload]
    lines = service.world.log.mark()
    assert sent_on(service, relay(payload + b"\0", CONSOLE, 6454)) == []
    assert service.world.log.entries(lines) == [SIZE_UNREADABLE]


def test_relayed_datagrams_are_not_recorded(service):
    path = service.world.path("cue")
    recorded = art_dmx(0, b"\x01\x02")
    service.client.grab(path)
    assert sent_on(service, relay(art_dmx(1), CONSOLE, 6454), art_dmx(2)) == [art_dmx(1)]
    service.feed([recorded])
    service.client.stop()
    assert Recording.read(path).datagrams == [recorded]


def test_many_requests_come_out_in_order(service):
    payloads = [b"%05d" % number for number in range(60)]
    assert sent_on(service, *(relay(payload, CONSOLE, 6454) for payload in payloads)) == payloads
