"""Trigger signals from ArtTrigger packets and from the control universe."""

import pytest
from harness import Signal
from harness.artnet import art_dmx, art_trigger, slots
from texts import emitted


@pytest.fixture
def action(service):
    """Sets control universe 1, key channel 1, value channel 2 and the given step."""

    def configure(step):
        assert service.client.set_ctrl_universe(1)
        assert service.client.set_ctrl_action(1, 2, step)
        return service

    return configure


def test_every_trigger_packet_emits_its_key_and_subkey(service):
    pairs = [(0, 0), (7, 3), (255, 255), (0, 255), (1, 10), (2, 10), (128, 127)]
    assert emitted(service, [art_trigger(*pair) for pair in pairs]) == pairs


def test_all_256_keys_and_subkeys_arrive(service):
    pairs = [(index, 255 - index) for index in range(255)]
    assert emitted(service, [art_trigger(*pair, payload=b"") for pair in pairs]) == pairs


@pytest.mark.parametrize("oem", [0, 0xFFFF, 0x1234])
@pytest.mark.parametrize("version", [0, 13, 14, 0xFFFF])
def test_oem_code_and_version_of_a_trigger_do_not_matter(service, oem, version):
    assert emitted(service, [art_trigger(7, 3, oem=oem, version=version)]) == [(7, 3)]


def test_a_trigger_needs_no_payload(service):
    assert emitted(service, [art_trigger(7, 3, payload=b""), art_trigger(7, 4, payload=b"\1")]) == [(7, 3), (7, 4)]


def test_a_trigger_is_no_action_and_its_value_is_not_divided(action):
    assert emitted(action(10), [art_trigger(1, 55), art_trigger(2, 55)]) == [(1, 55), (2, 55)]


def test_two_triggers_in_one_datagram_emit_two_signals(service):
    assert emitted(service, [art_trigger(1, 2, payload=b"") + art_trigger(3, 4, payload=b"")]) == [(1, 2), (3, 4)]


def test_dmx_emits_nothing_before_an_action_is_set(service):
    assert emitted(service, [art_dmx(0, b"\x01\x37"), art_dmx(1, bytes(512))]) == []


@pytest.mark.parametrize(
    "step, data, expected",
    [
        (10, "0137", (1, 5)),
        (10, "0237", (2, 5)),
        (10, "0337", (3, 55)),
        (10, "0037", (0, 55)),
        (10, "ff37", (255, 55)),
        (-1, "0237", (2, 55)),
        (-1, "0137", (1, 55)),
        (1, "0137", (1, 55)),
        (255, "01ff", (1, 1)),
        (255, "01fe", (1, 0)),
        (10, "0109", (1, 0)),
        (10, "010a", (1, 1)),
        (10, "0100", (1, 0)),
        (3, "02ff", (2, 85)),
        (-1, "0000", (0, 0)),
    ],
)
def test_key_and_subkey_of_an_action(action, step, data, expected):
    assert emitted(action(step), [art_dmx(0, bytes.fromhex(data))]) == [expected]


def test_an_unchanged_packet_emits_again(action):
    assert emitted(action(-1), [art_dmx(0, b"\x01\x02")] * 3) == [(1, 2)] * 3


def test_a_packet_without_the_value_channel_emits_nothing(action):
    assert emitted(action(10), [art_dmx(0, b"\x01"), art_dmx(0, b""), art_dmx(0, b"\x01\x37", length=1)]) == []


@pytest.mark.parametrize("port_address", [1, 0x100, 0x8000, 0xFFFF, 0x7FFF])
def test_another_port_address_emits_nothing(action, port_address):
    assert emitted(action(10), [art_dmx(port_address, b"\x01\x37")]) == []


@pytest.mark.parametrize("universe", [1, 2, 16, 17, 256, 257, 32768])
def test_the_control_universe_is_counted_from_1(service, universe):
    assert service.client.set_ctrl_universe(universe)
    assert service.client.set_ctrl_action(1, 2, -1)
    packets = [art_dmx(port_address, b"\x05\x06") for port_address in (universe - 2, universe, 0x8000 | universe - 1)
               if port_address >= 0]
    assert emitted(service, [*packets, art_dmx(universe - 1, b"\x07\x08")]) == [(7, 8)]


@pytest.mark.parametrize(
    "key_channel, value_channel, length, expected",
    [
        (512, 1, 512, [(9, 8)]),
        (512, 1, 511, []),
        (1, 512, 512, [(9, 8)]),
        (1, 512, 511, []),
        (300, 301, 301, [(9, 8)]),
        (301, 300, 300, []),
        (7, 8, 8, [(9, 8)]),
        (7, 8, 7, []),
    ],
)
def test_both_channels_must_be_in_the_packet(service, key_channel, value_channel, length, expected):
    assert service.client.set_ctrl_universe(1)
    assert service.client.set_ctrl_action(key_channel, value_channel, -1)
    data = slots({key_channel: 9, value_channel: 8})[:length]
    assert emitted(service, [art_dmx(0, data)]) == expected


def test_one_channel_may_be_key_and_value(service):
    assert service.client.set_ctrl_universe(1)
    assert service.client.set_ctrl_action(3, 3, 2)
    assert emitted(service, [art_dmx(0, slots({3: 2})), art_dmx(0, slots({3: 200}))]) == [(2, 1), (200, 200)]


def test_two_control_packets_in_one_datagram_emit_two_signals(action):
    assert emitted(action(-1), [art_dmx(0, b"\x01\x02") + art_dmx(5, b"\x08\x08") + art_dmx(0, b"\x03\x04")]) == [
        (1, 2),
        (3, 4),
    ]


def test_packets_in_front_of_a_broken_one_still_emit(action):
    assert emitted(action(-1), [art_dmx(0, b"\x01\x02") + art_dmx(0, b"\x01", length=80)]) == [(1, 2)]


def test_the_record_channel_emits_nothing(service):
    assert service.client.set_ctrl_universe(1) and service.client.set_ctrl_record(1, 10)
    assert emitted(service, [art_dmx(0, b"\xff"), art_dmx(0, b"\x00")]) == []


def test_action_and_record_channel_share_the_universe(service):
    client = service.client
    assert client.set_ctrl_universe(1) and client.set_ctrl_action(1, 2, -1) and client.set_ctrl_record(3, 10)
    on, off = art_dmx(0, b"\x01\x02\xff"), art_dmx(0, b"\x01\x02\x00")
    assert emitted(service, [on]) == [(1, 2)]
    start = client.signals.mark()
    client.grab(service.world.path("cue"))
    service.feed([on, art_dmx(5), off])
    assert client.get_status() == "off"
    assert client.signals.since(start) == []
    assert emitted(service, [off]) == [(1, 2)]


def test_a_signal_carries_two_integers(service):
    service.feed([art_trigger(200, 100)])
    service.client.signals.wait_for_count(1)
    assert service.client.signals.items == [Signal("OnArtnetTrigger", (200, 100))]
