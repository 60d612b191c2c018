"""What strangers on the lighting network and other users of the appliance can do, and what stops them."""

import os
import re
import socket
import struct

import pytest
from harness import APPLIANCE, ARTNET_PORT, Recording, Signal
from harness.artnet import art_dmx, art_poll, art_trigger, relay, slots
from harness.sanitizers import REPOSITORY
from texts import unparsed

STRANGER = "10.77.0.66"
ETH_P_IP = 0x0800


def checksum(header):
    total = sum(struct.unpack(f"!{len(header) // 2}H", header))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def udp_packet(payload, source, destination, source_port=ARTNET_PORT, port=ARTNET_PORT):
    """An IPv4 packet with any source address."""
    udp = struct.pack("!HHHH", source_port, port, 8 + len(payload), 0) + payload
    header = struct.pack(
        "!BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 1, 0, 64, 17, 0, socket.inet_aton(source), socket.inet_aton(destination)
    )
    return header[:10] + struct.pack("!H", checksum(header)) + header[12:] + udp


class Forger:
    """A host that puts frames on the wire past its own kernel's rules."""

    def __init__(self, world):
        self.world = world
        host = world.network.peer("stranger", STRANGER)
        self._socket = world.namespaces.packet_socket(host.name, "eth0")
        link = world.namespaces.run(["ip", "-o", "link", "show", "eth0"])
        self._target = bytes.fromhex(re.search(r"link/ether (\S+)", link)[1].replace(":", ""))

    def send(self, payload, source, destination=APPLIANCE):
        self._socket.sendto(udp_packet(payload, source, destination), ("eth0", ETH_P_IP, 0, 0, self._target))

    def settle(self, source=STRANGER):
        """Returns when the service has handled all frames of this wire: one more frame, after them, has been logged."""
        marker = self.world.next_marker()
        start = self.world.log.mark()
        self.send(marker, source)
        self.world.log.wait_for(lambda line: line.entry == unparsed(marker), "the line about the marker", start)

    def close(self):
        self._socket.close()


@pytest.fixture
def forger(world):
    made = Forger(world)
    yield made
    made.close()


def open_kernel(world, *settings):
    for setting in settings:
        world.namespaces.run(["sh", "-c", f"echo 1 > /proc/sys/net/ipv4/conf/eth0/{setting}"])


# A forged loopback address.


def test_a_forged_frame_is_taken_as_any_other_when_its_source_is_a_foreign_one(service, forger):
    """The forged packets of the tests below are valid but for their source."""
    forger.send(art_trigger(1, 2), "10.77.0.99")
    forger.settle("10.77.0.99")
    assert service.client.triggers() == [(1, 2)]


@pytest.mark.parametrize("source", ["127.0.0.1", "127.0.0.2", APPLIANCE])
@pytest.mark.parametrize("destination", [APPLIANCE, "127.0.0.1"])
def test_the_kernel_drops_what_comes_from_the_wire_with_an_address_of_the_appliance_itself(
    service, forger, source, destination
):
    world = service.world
    lines = world.log.mark()
    for payload in (relay(b"forged", world.console.address, ARTNET_PORT), art_trigger(1, 2), b"noise"):
        forger.send(payload, source, destination)
    forger.settle()
    assert service.relay_barrier() == []
    assert service.client.triggers() == []
    assert unparsed(b"noise") not in world.log.entries(lines)


def test_with_local_routing_opened_in_the_kernel_a_stranger_has_things_relayed(service, forger):
    """Why route_localnet and accept_local must stay 0."""
    world = service.world
    open_kernel(world, "route_localnet", "accept_local")
    forger.send(relay(b"forged", world.console.address, ARTNET_PORT), "127.0.0.1")
    forger.settle()
    assert [datagram.data for datagram in service.relay_barrier()] == [b"forged"]


# The answer to an ArtPoll.


def answers(service, datagrams):
    """Bytes that come back for these datagrams, all of them: the answer to the last poll ends them."""
    console = service.world.console
    service.feed(datagrams)
    last = service.world.console_host.endpoint()
    last.send(art_poll())
    last.receive()
    return sum(len(datagram.data) for datagram in console.waiting())


@pytest.mark.parametrize("universes", [1, 16])
def test_one_poll_brings_one_reply_of_239_bytes_for_each_universe(world, universes):
    service = world.start(environment={"KADREL_UNIVERSE_COUNT": universes})
    assert answers(service, [art_poll()]) == 239 * universes


def test_bytes_left_of_earlier_datagrams_bring_no_further_answers(service):
    """A parser that meets old polls after a short datagram would answer one byte with 35 replies."""
    assert answers(service, [art_poll() * 36, b"x", b"x", b"x"]) == 36 * 239


def test_a_reply_goes_where_the_poll_says_that_it_came_from(service, forger):
    """By design: UDP does not prove its sender. The victim of a reflection gets 239 bytes for each 14."""
    forger.send(art_poll(), service.world.console.address)
    assert len(service.world.console.receive().data) == 239


# The packet filter.


@pytest.fixture
def filtered(service):
    """The service with the packet filter of data/kadrel.nft."""
    service.world.namespaces.run(["nft", "-f", str(REPOSITORY / "data/kadrel.nft")])
    return service


def marked_end(service, sender):
    """Sends a trigger and returns when it has come through: all earlier packets have been handled or dropped."""
    start = service.client.signals.mark()
    sender(art_trigger(255, 254))
    service.client.signals.wait_for(lambda signal: signal.arguments == (255, 254), "the last trigger", start)


def test_the_filter_lets_a_show_through(filtered):
    world, cue = filtered.world, filtered.world.path("cue")
    frames = [art_dmx(universe % 64, slots({1: universe % 251})) for universe in range(640)]
    filtered.client.grab(cue)
    for start in range(0, len(frames), 40):
        world.console.send(*frames[start : start + 40])
        filtered.relay_barrier()
    console = world.console
    console.send(art_poll())
    console.receive()
    filtered.client.stop()
    assert Recording.read(cue).datagrams == frames
    marked_end(filtered, console.send)
    assert filtered.client.triggers() == [(255, 254)]


def test_the_filter_drops_what_is_no_art_net_or_too_long(filtered):
    world, lines = filtered.world, filtered.world.log.mark()
    long_dmx = art_dmx(0, slots({1: 1}))
    filtered.client.grab(world.path("cue"))
    world.console.send(b"noise", b"", long_dmx + b"x", b"x" + art_trigger(1, 1), bytes(8000))
    world.console.send(long_dmx)
    assert filtered.relay_barrier() == []
    filtered.client.stop()
    marked_end(filtered, world.console.send)
    assert Recording.read(world.path("cue")).datagrams == [long_dmx]
    assert filtered.client.signals.items == [Signal("OnArtnetTrigger", (255, 254))]
    assert not [text for text in world.log.messages(lines) if "Failed to parse" in text]


def test_the_filter_drops_foreign_networks(filtered, forger):
    forger.send(art_trigger(1, 1), "192.0.2.1")
    marked_end(filtered, lambda payload: forger.send(payload, STRANGER))
    assert filtered.client.triggers() == [(255, 254)]


def test_the_filter_bounds_the_answers_that_one_asker_gets(filtered):
    console = filtered.world.console
    console.send(*[art_poll()] * 100)
    marked_end(filtered, console.send)
    assert 4 <= len(console.waiting()) < 20


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can be another user")
def test_the_filter_lets_only_chosen_users_relay(filtered):
    world = filtered.world
    packet = relay(b"from nobody", world.console.address, ARTNET_PORT).hex()
    script = (
        "import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
        f"try: s.sendto(bytes.fromhex('{packet}'), ('127.0.0.1', {ARTNET_PORT}))\n"
        "except PermissionError: print('not permitted')"
    )
    as_nobody = ("setpriv", "--reuid=nobody", "--clear-groups")
    output = world.namespaces.run(["/usr/bin/python3", "-c", script], as_user=as_nobody, directory="/")
    assert output == "not permitted\n"
    assert filtered.relay_barrier() == []
