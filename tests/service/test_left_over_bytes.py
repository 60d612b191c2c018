"""What a datagram does depends on that datagram alone: packets that an earlier one left in the parser's buffer do nothing."""

import pytest
from harness import Recording
from harness.artnet import art_dmx, art_trigger, header
from harness.nodes import node_reply
from texts import OVERSIZED_DMX, emitted, unparsed

IN_FRONT = b"x" * 100
# Shorter than the bytes before the packet: the packet stays in the buffer, and every search finds it again.
SHORT = b"y"


def left_over(packet):
    """Two datagrams: one that hides the packet from its own search, one that leaves it for the search to find."""
    # A search does not look again at the byte that ended a partial match.
    return [b"x" * 99 + b"A" + packet, b"y" * 100]


@pytest.fixture
def verbose(make_world):
    return make_world().start(environment={"KADREL_LOG_LEVEL": "6"})


def lines_of(service, datagrams):
    lines = service.world.log.mark()
    service.feed(datagrams)
    return service.world.log.entries(lines)


def test_a_trigger_is_emitted_once(service):
    assert emitted(service, [IN_FRONT + art_trigger(7, 3, payload=b""), SHORT, SHORT]) == [(7, 3)]


def test_levels_of_the_control_universe_are_a_trigger_once(service):
    assert service.client.set_ctrl_universe(1)
    assert service.client.set_ctrl_action(1, 2, -1)
    assert emitted(service, [IN_FRONT + art_dmx(0, b"\x05\x06"), SHORT, SHORT]) == [(5, 6)]


def test_an_armed_recording_does_not_start(service):
    client, path = service.client, service.world.path("cue")
    assert client.set_ctrl_universe(1)
    assert client.set_ctrl_record(1, 128)
    client.grab(path)
    service.feed([*left_over(art_dmx(0, b"\xff")), art_dmx(5, b"\x01")])
    assert client.get_status() == "on"
    client.stop()
    assert Recording.read(path).datagrams == []


def test_a_running_recording_does_not_end(service):
    client, path = service.client, service.world.path("cue")
    assert client.set_ctrl_universe(1)
    assert client.set_ctrl_record(1, 128)
    client.grab(path)
    frames = [art_dmx(5, bytes([number])) for number in range(3)]
    service.feed([art_dmx(0, b"\xff"), frames[0], *left_over(art_dmx(0, b"\x00")), *frames[1:]])
    assert client.get_status() == "run"
    client.stop()
    assert Recording.read(path).datagrams == frames


def test_a_node_is_not_taken_in(verbose):
    node = node_reply("10.0.0.9")
    hidden, found = left_over(node)
    assert lines_of(verbose, [node, hidden, found]) == [unparsed(hidden)]


@pytest.mark.parametrize("packet", [header(0x5100), art_trigger(1, 2, payload=b"")], ids=["unknown", "trigger"])
def test_there_is_no_line_about_a_packet_of_an_earlier_datagram(verbose, packet):
    hidden, found = left_over(packet)
    assert lines_of(verbose, [hidden, found]) == [unparsed(hidden)]


def test_an_oversized_packet_is_reported_once(service):
    assert lines_of(service, [IN_FRONT + art_dmx(0, bytes(10), length=513), SHORT, SHORT]) == [OVERSIZED_DMX]


def test_an_identifier_that_only_old_bytes_complete_is_no_packet(service):
    """The first six bytes are the datagram's own."""
    trigger = art_trigger(7, 3, payload=b"")
    assert emitted(service, [trigger, trigger[:6], trigger[:6]]) == [(7, 3)]
