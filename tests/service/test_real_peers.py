"""kadrel among lighting software that others have written."""

import subprocess

import pytest
from harness import EXECUTABLE, Recording, spin_until
from harness.artnet import OP_DMX, OP_POLL_REPLY, art_dmx, art_poll, dmx_data, opcode_of, port_address_of, read_poll_reply
from harness.nodes import NO_NODES, Detection, node_reply, nodes_json
from harness.olad import LONG_NAME as OLAD_LONG_NAME
from harness.olad import SHORT_NAME as OLAD_SHORT_NAME
from harness.olad import is_frame
from harness.qlcplus import LONG_NAME as QLCPLUS_LONG_NAME
from harness.qlcplus import SHORT_NAME as QLCPLUS_SHORT_NAME
from harness.qlcplus import QlcPlus
from harness.tshark import PacketFile

BRAND = {"short_name": "kadrel", "long_name": "kadrel stage recorder", "oem_id": 0x2111, "manufacturer_id": 0x534C}
OLA = "10.77.0.20"


@pytest.fixture
def announcing(make_world):
    def start(count):
        return make_world(brand=BRAND).start(environment={"KADREL_UNIVERSE_COUNT": count})

    return start


# olad


def test_olad_is_found_with_its_names_and_port_addresses_and_its_end_is_announced_after_one_cycle(announcing):
    detection = Detection(announcing(1))
    client = detection.client
    olad = detection.world.olad(OLA, net=1, subnet=2)
    for port, universe in enumerate((3, 4, 15)):
        olad.tool("ola_patch", "-d", olad.device, "-p", str(port), "-u", str(universe), "--input")
    assert client.set_automatic_node_detection(False) is True
    assert client.request_node_detection() is True
    detection.start()
    # Four ports in order; the last is not patched and answers with universe 0 of its sub-net.
    assert detection.next_message() == f"1:291:{OLA}:6454;1:292:{OLA}:6454;1:303:{OLA}:6454;1:288:{OLA}:6454;"
    assert client.get_detected_nodes() == nodes_json(
        [(OLAD_SHORT_NAME, OLAD_LONG_NAME, universe, OLA, 6454) for universe in (288, 291, 292, 303)]
    )
    spin_until(lambda: not client.node_detection_request_pending(), "the request to be done")
    olad.close()
    assert client.request_node_detection() is True
    assert detection.next_message() == f"0:288:{OLA}:6454;0:291:{OLA}:6454;0:292:{OLA}:6454;0:303:{OLA}:6454;"
    assert client.get_detected_nodes() == NO_NODES


@pytest.mark.parametrize("count", [1, 3])
def test_olad_lists_the_appliance_and_sends_it_the_universes_that_it_announces_and_no_others(announcing, count):
    service = announcing(count)
    world = service.world
    olad = world.olad(OLA, always_broadcast=False)
    capture = olad.host.capture()
    # Port-addresses 0 to 3.
    universes = range(16, 20)
    for port, universe in enumerate(universes):
        olad.patch(port, universe)

    def listed(universe):
        return olad.tool("ola_artnet", "-d", olad.device, "-u", str(universe))

    spin_until(lambda: listed(universes[count - 1]) == "10.77.0.1\n", "olad to know the appliance")
    assert [listed(universe) for universe in universes] == ["10.77.0.1\n"] * count + [""] * (4 - count)
    path = world.path("cue")
    service.client.grab(path)
    for port, universe in reversed(list(enumerate(universes))):
        olad.set_dmx(universe, [10, 20, 30, port])
    capture.wait_for(lambda datagram: is_frame(datagram, 0, [10, 20, 30, 0]), "the frame of port-address 0")
    service.settle()
    service.client.stop()
    sent = [datagram for datagram in capture.datagrams() if opcode_of(datagram.data) == OP_DMX]
    assert {(datagram.destination, datagram.destination_port) for datagram in sent} == {("10.77.0.1", 6454)}
    recorded = Recording.read(path).datagrams
    assert recorded == [datagram.data for datagram in sent[: len(recorded)]]
    # It repeats a frame now and then.
    frames = dict.fromkeys((port_address_of(dmx), dmx_data(dmx)) for dmx in recorded)
    assert list(frames) == [(port, bytes([10, 20, 30, port])) for port in reversed(range(count))]


# QLC+


def test_qlcplus_finds_the_appliance_and_is_found_and_its_scene_is_recorded(announcing):
    service = announcing(2)
    world = service.world
    detection = Detection(service)
    host = world.network.peer("qlcplus", "10.77.0.6")
    capture = host.capture()
    values = [11, 22, 33, 44, 55, 255]
    path = world.path("cue")
    service.client.grab(path)
    with QlcPlus(world, host, values) as qlcplus:
        qlcplus.await_line('getArtPollReplyInfo shortName:  "kadrel"')
        qlcplus.await_line('getArtPollReplyInfo longName:  "kadrel stage recorder"')
        detection.start()
        assert detection.next_message() == "1:0:10.77.0.6:6454;"
        assert detection.client.get_detected_nodes() == nodes_json(
            [(QLCPLUS_SHORT_NAME, QLCPLUS_LONG_NAME, 0, "10.77.0.6", 6454)]
        )
        capture.wait_for(lambda datagram: is_frame(datagram, 1, values), "ArtDmx of the scene")
        service.settle()
        service.client.stop()
    recorded = Recording.read(path).datagrams
    sent = [datagram.data for datagram in capture.datagrams() if opcode_of(datagram.data) == OP_DMX]
    assert recorded == sent[: len(recorded)]
    subprocess.run([EXECUTABLE.parent / "kadrel-cue", "verify", "--strict", path], check=True)
    assert {port_address_of(dmx) for dmx in recorded} == {0, 1}
    assert {dmx_data(dmx) for dmx in recorded if port_address_of(dmx) == 0} == {bytes(512)}
    assert [dmx_data(dmx) for dmx in recorded if port_address_of(dmx) == 1][-1] == bytes(values) + bytes(506)


# tshark

FROM_THE_APPLIANCE = "ip.src == 10.77.0.1"
POLL_FIELDS = {
    "ip.dst": "10.77.255.255",
    "udp.srcport": "6454",
    "udp.dstport": "6454",
    "artnet.header.id": "Art-Net",
    "artnet.header.opcode": "0x2000",
    "artnet.header.protver": "14",
    "artnet.poll.talktome": "0x02",
    "artnet.poll.talktome_reply_change": "1",
    "artnet.poll.talktome_diag": "0",
    "artnet.poll.diag_priority": "16",
}


def reply_fields(index, hardware_address):
    return {
        "ip.dst": "10.77.0.2",
        "udp.srcport": "6454",
        "udp.dstport": "6454",
        "udp.length": "247",
        "artnet.header.id": "Art-Net",
        "artnet.header.opcode": "0x2100",
        "artnet.poll_reply.ip_address": "10.77.0.1",
        "artnet.poll_reply.port_nr": "6454",
        "artnet.poll_reply.versinfo": "0x0100",
        "artnet.poll_reply.netswitch": f"{index >> 8:#04x}",
        "artnet.poll_reply.subswitch": f"{index >> 4 & 15:#04x}",
        "artnet.poll_reply.oem": "0x2111",
        "artnet.poll_reply.ubea_version": "0",
        "artnet.poll_reply.status": "0x00",
        "artnet.poll_reply.esta_man": "0x534c",
        "artnet.poll_reply.short_name": "kadrel",
        "artnet.poll_reply.long_name": "kadrel stage recorder",
        "artnet.poll_reply.node_report": "",
        "artnet.poll_reply.num_ports": "1",
        "artnet.poll_reply.port_types_1": "0xc5",
        "artnet.poll_reply.port_types_2": "0x00",
        "artnet.poll_reply.swin_1": f"{index & 15:#04x}",
        "artnet.poll_reply.swout_1": f"{index & 15:#04x}",
        "artnet.poll_reply.swin_1_universe": f"{index}",
        "artnet.poll_reply.swout_1_universe": f"{index}",
        "artnet.poll_reply.style": "0x00",
        "artnet.poll_reply.mac": hardware_address,
        "artnet.poll_reply.bind_ip_address": "10.77.0.1",
        "artnet.poll_reply.bind_index": f"{(index + 1) % 256:#04x}",
        "artnet.poll_reply.status2": "0x00",
    }


def test_tshark_reads_every_packet_of_the_service_as_good_artnet(announcing):
    count = 300
    service = announcing(count)
    world = service.world
    packets = PacketFile(world, world.console_host)
    world.console.send(art_poll())
    replies = [world.console.receive() for _ in range(count)]
    Detection(service).start()
    packets.take()
    sent = packets.fields(FROM_THE_APPLIANCE, "frame.protocols")
    assert sent == [("raw:ip:udp:artnet",)] * (count + 1)
    assert packets.complaints(FROM_THE_APPLIANCE) == []
    hardware_address = read_poll_reply(replies[0].data)["mac"].hex(":")
    expected = [reply_fields(index, hardware_address) for index in range(count)]
    assert packets.fields(f"{FROM_THE_APPLIANCE} && artnet.poll_reply", *expected[0]) == [
        tuple(fields.values()) for fields in expected
    ]
    assert packets.fields(f"{FROM_THE_APPLIANCE} && artnet.poll", *POLL_FIELDS) == [tuple(POLL_FIELDS.values())]
    assert packets.tshark("-q", "-z", f"expert,{FROM_THE_APPLIANCE}").strip() == ""


def test_tshark_would_say_so_if_a_packet_were_not_good(announcing):
    service = announcing(1)
    console = service.world.console
    packets = PacketFile(service.world, service.world.console_host)
    for bad in (art_poll()[:13], node_reply("10.0.0.1")[:60], art_dmx(0, bytes(10), length=20), b"no packet"):
        console.send(bad)
    service.settle()
    console.send(art_poll())
    assert opcode_of(console.receive().data) == OP_POLL_REPLY
    packets.take()
    # The fifth is the marker of settle(), which is no Art-Net either; the whole ArtPoll after it is not marked.
    assert [number for number, _ in packets.complaints("ip.src == 10.77.0.2")] == ["1", "2", "3", "4", "5"]
    assert packets.fields("frame.number == 6", "artnet.header.opcode") == [("0x2000",)]
