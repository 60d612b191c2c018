"""kadrel-cue play as a source of E1.31, as others understand it."""

import socket
import struct
import uuid

import pytest
from cue_tool import Tool
from harness import CONSOLE
from harness.artnet import art_dmx, oem_vfps_ns
from harness.olad import is_frame
from harness.tshark import PacketFile

NODE = "10.77.0.30"
SACN_PORT = 5568
MS = 1_000_000

TERMINATED = 0x40

# tshark looks for E1.31 only when it is told to. Its summary shows the first six levels (version 4.0), so that it calls
# packets with fewer slots malformed; they are as E1.31 has them, and olad takes them.
ACN = ("--enable-heuristic", "acn", "-o", "acn.dmx_enable:TRUE")


@pytest.fixture
def tool(world):
    assert world.console_host
    return Tool(world)


def show(world, *datagrams, pause=MS):
    path = world.path("show.cue")
    with open(path, "wb") as file:
        file.write(oem_vfps_ns(pause).join(datagrams))
    return path


def universe_of(packet):
    return struct.unpack_from("!H", packet, 113)[0]


def test_tshark_reads_the_packets_of_every_universe(world, tool):
    wire = PacketFile(world, world.console_host)
    sent = [art_dmx(0, bytes(range(24))), art_dmx(32767, bytes(512)), art_dmx(0, bytes(100)) + art_dmx(258, bytes(511))]
    path = show(world, *sent)
    tool.expect("play", path, "--sacn", "--from", CONSOLE, "--priority", "120", "--source-name", "Bühne links", host="console")
    wire.take()
    packets = wire.fields(
        "acn", "ip.dst", "ip.ttl", "udp.dstport", "acn.dmx.universe", "acn.dmx.seq_number", "acn.dmx.priority",
        "acn.dmx.source_name", "acn.cid", "acn.dmx.option_s",
        options=ACN,
    )
    assert not wire.fields("acn && (_ws.malformed || _ws.expert)", "frame.number", options=ACN)
    cids = {packet[7] for packet in packets}
    assert {packet[2] for packet in packets} == {str(SACN_PORT)}
    assert {packet[5:7] for packet in packets} == {("120", "Bühne links")}
    assert len(cids) == 1 and uuid.UUID(cids.pop()).version == 5
    assert all(int(packet[1]) > 1 for packet in packets)
    streams = {}
    for group, _, _, universe, sequence, *_, terminated in packets:
        streams.setdefault((int(universe), group), []).append((int(sequence), terminated in ("1", "True")))
    assert streams == {
        (1, "239.255.0.1"): [(0, False), (1, False), (2, True), (3, True), (4, True)],
        (259, "239.255.1.3"): [(0, False), (1, True), (2, True), (3, True)],
        (32768, "239.255.128.0"): [(0, False), (1, True), (2, True), (3, True)],
    }


def test_a_host_gets_its_universes_by_unicast(world, tool):
    node, other = (world.network.peer(f"node{n}", f"10.77.0.3{n}").endpoint(SACN_PORT) for n in (0, 1))
    path = show(world, art_dmx(0, b"\1"), art_dmx(1, b"\2"))
    tool.expect("play", path, "--sacn", "--to", NODE, "--to", "2=10.77.0.31", host="console")
    for endpoint, universe, level in ((node, 1, 1), (other, 2, 2)):
        packets = [endpoint.receive().data for _ in range(4)]
        assert {universe_of(packet) for packet in packets} == {universe}
        assert (packets[0][112], packets[0][126:]) == (0, bytes([level]))
        assert all(packet[112] == TERMINATED for packet in packets[1:])


def test_the_source_is_the_same_each_time(world, tool):
    node = world.network.peer("node", NODE).endpoint(SACN_PORT)
    path, cids, names = show(world, art_dmx(0, b"\1")), set(), set()
    for _ in range(2):
        tool.expect("play", path, "--sacn", "--to", NODE, host="console")
        packets = [node.receive().data for _ in range(4)]
        cids |= {packet[22:38] for packet in packets}
        names |= {packet[44:108].rstrip(b"\0").decode() for packet in packets}
    assert len(cids) == 1
    assert names == {f"kadrel-cue on {socket.gethostname()}"[:63]}


def test_a_universe_that_stands_still_is_repeated(world, tool):
    """Receivers take a source for lost after 2.5 s."""
    node = world.network.peer("node", NODE).endpoint(SACN_PORT)
    path = show(world, art_dmx(0, b"\7"), art_dmx(1, b"\1"), pause=2000 * MS)
    tool.expect("play", path, "--sacn", "--to", NODE, host="console")
    repeated = node.receive_until(lambda datagram: universe_of(datagram.data) == 2)[:-1]
    assert len(repeated) >= 3
    assert {datagram.data[126:] for datagram in repeated} == {b"\7"}


def test_without_a_route_to_the_groups_it_is_an_error(world, tool):
    path = show(world, art_dmx(0, b"\1"))
    code, _, errors = tool("play", path, "--sacn", host="console")
    assert code == 1
    assert "Network is unreachable" in errors and "--from" in errors


def test_olad_receives_the_show(world, tool):
    """olad hands on as Art-Net what it receives as E1.31."""
    olad = world.olad(e131_inputs=2)
    capture = olad.host.capture()
    for port, universe in ((0, 17), (1, 300)):
        olad.patch_input(port, universe)
        olad.patch(port, universe)
    levels = [list(range(1, 65)), [200]]
    tool.expect("play", show(world, art_dmx(16, bytes(levels[0])), art_dmx(299, bytes(levels[1]))), "--sacn", "--from", CONSOLE,
                host="console")
    for universe, values in zip((17, 300), levels):
        capture.wait_for(lambda datagram, n=universe, sent=values: datagram.outgoing and is_frame(datagram, n % 16, sent),
                         f"universe {universe}")
