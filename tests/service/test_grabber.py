"""The recorder's states, row by row, with and without a record channel."""

import os

import pytest
from harness import Recording
from harness.artnet import art_dmx, art_poll, art_trigger, slots
from texts import (
    FINALIZED,
    GRAB,
    GRAB_CANNOT_OPEN,
    GRAB_NOT_IDLE,
    GRABBING_STARTED,
    NO_GRAB_YET,
    STOP,
    STOP_IDLE,
    grab_text,
    has_ended,
    lost_nothing,
    wait_until_complete,
)

CONTROL_UNIVERSE = 4  # counted from 1
CONTROL = CONTROL_UNIVERSE - 1  # as port-address
CHANNEL = 5
THRESHOLD = 128


def control(value, length=512):
    """A packet on the control universe with the record channel at a value."""
    return art_dmx(CONTROL, slots({CHANNEL: value}, length))


ON, OFF = control(THRESHOLD), control(THRESHOLD - 1)
MUSIC = [art_dmx(universe, slots({1: universe + 1})) for universe in range(3)]


@pytest.fixture
def cue(world):
    return world.path("cue")


@pytest.fixture
def client(service):
    return service.client


@pytest.fixture
def with_record_channel(service):
    """The service with a record channel configured; nothing is armed yet."""
    assert service.client.set_ctrl_universe(CONTROL_UNIVERSE)
    assert service.client.set_ctrl_record(CHANNEL, THRESHOLD)
    return service


def recorder_lines(world, start):
    return [entry for entry in world.log.entries(start) if "set_ctrl" not in entry[1]]


# Without a record channel.


def test_the_recorder_is_off_at_the_start(client):
    assert client.get_status() == "off"
    assert client.latest_grab() == NO_GRAB_YET


def test_a_recording_goes_from_off_over_on_and_run_to_off(service, client, cue):
    lines = service.world.log.mark()
    client.grab(cue)
    assert client.get_status() == "on"
    assert os.path.getsize(cue) == 0
    service.feed(MUSIC[:1])
    assert client.get_status() == "run"
    service.feed(MUSIC[1:])
    assert client.get_status() == "run"
    client.stop()
    assert client.get_status() == "off"
    assert Recording.read(cue).datagrams == MUSIC
    expected = [GRAB, GRABBING_STARTED, STOP, FINALIZED, lost_nothing(len(MUSIC), len(MUSIC))]
    assert service.world.log.entries(lines) == expected


def test_asking_for_the_status_logs_nothing(service, client):
    lines = service.world.log.mark()
    client.get_status()
    assert service.world.log.entries(lines) == []


def test_stop_while_off_changes_nothing(service, client):
    lines = service.world.log.mark()
    client.stop()
    client.stop()
    assert client.get_status() == "off"
    assert client.latest_grab() == NO_GRAB_YET
    assert service.world.log.entries(lines)[:4] == [STOP, STOP_IDLE, STOP, STOP_IDLE]


def test_stop_before_the_first_datagram_leaves_an_empty_recording(service, client, cue):
    lines = service.world.log.mark()
    client.grab(cue)
    client.stop()
    assert client.get_status() == "off"
    assert service.world.log.entries(lines) == [GRAB, STOP, FINALIZED, lost_nothing(0, 0)]
    assert client.latest_grab() == grab_text(cue, True, -1, [])
    assert os.path.getsize(cue) == 0


def test_grab_while_start_pending_or_running_keeps_the_current_file(service, client, cue):
    other = service.world.path("other")
    lines = service.world.log.mark()
    client.grab(cue)
    client.grab(other)
    assert client.get_status() == "on"
    service.feed(MUSIC[:1])
    client.grab(other)
    client.grab(cue)
    assert client.get_status() == "run"
    service.feed(MUSIC[1:])
    client.stop()
    assert service.world.log.entries(lines) == [
        *(GRAB, GRAB, GRAB_NOT_IDLE, GRABBING_STARTED, GRAB, GRAB_NOT_IDLE, GRAB, GRAB_NOT_IDLE, STOP, FINALIZED),
        lost_nothing(len(MUSIC), len(MUSIC)),
    ]
    assert not os.path.exists(other)
    assert Recording.read(cue).datagrams == MUSIC


def test_a_new_recording_replaces_the_content_of_the_file(service, client, cue):
    for datagrams in (MUSIC, MUSIC[1:2]):
        client.grab(cue)
        service.feed(datagrams)
        client.stop()
        assert Recording.read(cue).datagrams == datagrams


def test_recordings_one_after_the_other_do_not_mix(service, client):
    for number in range(10):
        cue = service.world.path(f"cue{number}")
        packet = art_dmx(number, slots({number + 1: 255}))
        client.grab(cue)
        service.feed([packet, packet])
        client.stop()
        assert Recording.read(cue).datagrams == [packet, packet]
        assert client.latest_grab() == grab_text(cue, False, number, [number])


def test_datagrams_while_off_are_not_recorded(service, client, cue):
    service.feed(MUSIC)
    client.grab(cue)
    client.stop()
    service.feed(MUSIC)
    assert os.path.getsize(cue) == 0


def test_only_dmx_is_recorded(service, client, cue):
    others = [art_poll(), art_trigger(1, 2), b"no packet", b"", art_dmx(0, bytes(12), length=600), b"Art-Net\0\x00\x51"]
    client.grab(cue)
    service.feed(others)
    assert client.get_status() == "on"
    service.feed([others[0], MUSIC[0], *others, MUSIC[1], *others])
    client.stop()
    assert Recording.read(cue).datagrams == MUSIC[:2]


def test_triggers_are_silent_while_the_recorder_is_not_off(service, client, cue):
    client.set_ctrl_universe(1)
    client.set_ctrl_action(1, 2, -1)
    client.grab(cue)
    service.feed([art_trigger(1, 2), art_dmx(0, b"\x03\x04"), art_trigger(5, 6)])
    client.stop()
    service.feed([art_trigger(9, 9)])
    client.signals.wait_for_count(1)
    assert client.triggers() == [(9, 9)]
    assert Recording.read(cue).datagrams == [art_dmx(0, b"\x03\x04")]


@pytest.mark.parametrize("missing", ["universe", "channel", "threshold"])
def test_a_record_channel_that_is_not_wholly_set_does_not_arm(service, client, cue, missing):
    client.set_ctrl_universe(-1 if missing == "universe" else CONTROL_UNIVERSE)
    client.set_ctrl_record(-1 if missing == "channel" else CHANNEL, -1 if missing == "threshold" else THRESHOLD)
    client.grab(cue)
    service.feed([OFF, ON, OFF])
    assert client.get_status() == "run"
    client.stop()
    assert Recording.read(cue).datagrams == [OFF, ON, OFF]


def test_an_action_alone_does_not_arm(service, client, cue):
    client.set_ctrl_universe(CONTROL_UNIVERSE)
    client.set_ctrl_action(CHANNEL, CHANNEL + 1, 1)
    client.grab(cue)
    service.feed([OFF])
    client.stop()
    assert Recording.read(cue).datagrams == [OFF]


# A file that cannot be opened.


@pytest.mark.parametrize("name", ["missing/cue", "", "."], ids=["missing directory", "no name", "directory"])
def test_a_file_that_cannot_be_opened_leaves_the_recorder_off(service, client, cue, name):
    client.grab(cue)
    service.feed(MUSIC)
    client.stop()
    before = client.latest_grab()
    lines = service.world.log.mark()
    client.grab(name and service.world.path(name))
    assert client.get_status() == "off"
    assert service.world.log.entries(lines) == [GRAB, GRAB_CANNOT_OPEN]
    service.feed(MUSIC)
    assert client.latest_grab() == before


def test_the_line_about_a_file_that_cannot_be_opened_names_line_and_function(service, client):
    lines = service.world.log.mark()
    client.grab("/missing/cue")
    line = service.world.log.since(lines)[1]
    number, _, rest = line.text.partition(" ")
    assert number.isdigit()
    assert rest == "void Dump::grab(const QString&)) Can't open file for grabbing"


# With a record channel.


def test_grab_arms_and_nothing_is_recorded_below_the_threshold(with_record_channel, client, cue):
    service = with_record_channel
    lines = service.world.log.mark()
    client.grab(cue)
    assert client.get_status() == "on"
    service.feed([OFF, *MUSIC, control(0), OFF, art_poll(), art_trigger(1, 1)])
    assert client.get_status() == "on"
    client.stop()
    assert client.get_status() == "off"
    assert os.path.getsize(cue) == 0
    assert client.latest_grab() == grab_text(cue, True, -1, [])
    assert service.world.log.entries(lines)[:3] == [GRAB, STOP, FINALIZED]


@pytest.mark.parametrize("value", [THRESHOLD, THRESHOLD + 1, 255])
def test_a_value_at_or_above_the_threshold_starts_and_is_not_recorded(with_record_channel, client, cue, value):
    service = with_record_channel
    client.grab(cue)
    service.feed([MUSIC[0], control(value)])
    assert client.get_status() == "on"
    service.feed([MUSIC[1]])
    assert client.get_status() == "run"
    client.stop()
    assert Recording.read(cue).datagrams == [MUSIC[1]]


def test_the_same_value_on_another_universe_does_not_start(with_record_channel, client, cue):
    service = with_record_channel
    others = [0, CONTROL - 1, CONTROL + 1, CONTROL | 0x100, CONTROL | 0x8000]
    client.grab(cue)
    service.feed([art_dmx(universe, slots({CHANNEL: 255})) for universe in others])
    service.feed(MUSIC)
    assert client.get_status() == "on"
    client.stop()
    assert os.path.getsize(cue) == 0


def test_a_packet_too_short_for_the_record_channel_does_not_start(with_record_channel, client, cue):
    service = with_record_channel
    client.grab(cue)
    service.feed([art_dmx(CONTROL, bytes([255] * (CHANNEL - 1)))])
    service.feed(MUSIC[:1])
    assert client.get_status() == "on"
    service.feed([art_dmx(CONTROL, bytes([255] * CHANNEL)), MUSIC[1]])
    assert client.get_status() == "run"
    client.stop()
    assert Recording.read(cue).datagrams == [MUSIC[1]]


@pytest.mark.parametrize("value", [THRESHOLD - 1, 1, 0])
def test_a_value_below_the_threshold_ends_the_running_recording(with_record_channel, client, cue, value):
    service = with_record_channel
    lines = service.world.log.mark()
    client.grab(cue)
    service.feed([ON, *MUSIC, control(value), MUSIC[0]])
    wait_until_complete(service.world.log, lines)
    expected = [GRAB, GRABBING_STARTED, FINALIZED, lost_nothing(len(MUSIC), len(MUSIC))]
    assert service.world.log.entries(lines) == expected
    assert has_ended(client)
    assert Recording.read(cue).datagrams == MUSIC


def test_a_value_below_the_threshold_before_the_first_datagram_ends_an_empty_recording(with_record_channel, client, cue):
    service = with_record_channel
    lines = service.world.log.mark()
    client.grab(cue)
    service.feed([ON, OFF])
    assert client.get_status() == "off"
    wait_until_complete(service.world.log, lines)
    assert service.world.log.entries(lines) == [GRAB, FINALIZED, lost_nothing(0, 0)]
    assert client.latest_grab() == grab_text(cue, True, -1, [])


def test_control_packets_at_the_threshold_are_recorded_while_running(with_record_channel, client, cue):
    service = with_record_channel
    client.grab(cue)
    service.feed([ON, ON, MUSIC[0], control(255), ON])
    assert client.get_status() == "run"
    client.stop()
    assert Recording.read(cue).datagrams == [ON, MUSIC[0], control(255), ON]


def test_packets_without_the_record_channel_or_of_other_universes_do_not_stop(with_record_channel, client, cue):
    service = with_record_channel
    short = art_dmx(CONTROL, bytes(CHANNEL - 1))
    others = [art_dmx(universe, bytes(512)) for universe in (0, CONTROL - 1, CONTROL + 1, CONTROL | 0x8000)]
    client.grab(cue)
    service.feed([ON, short, *others])
    assert client.get_status() == "run"
    client.stop()
    assert Recording.read(cue).datagrams == [short, *others]


def test_grab_is_refused_while_armed_and_while_start_pending(with_record_channel, client, cue):
    service = with_record_channel
    other = service.world.path("other")
    client.grab(cue)
    lines = service.world.log.mark()
    client.grab(other)
    service.feed([ON])
    client.grab(other)
    assert service.world.log.entries(lines) == [GRAB, GRAB_NOT_IDLE, GRAB, GRAB_NOT_IDLE]
    assert client.get_status() == "on"
    service.feed(MUSIC)
    client.stop()
    assert Recording.read(cue).datagrams == MUSIC
    assert not os.path.exists(other)


@pytest.mark.parametrize("fed", [[], [ON], [ON, MUSIC[0]]], ids=["armed", "start pending", "running"])
def test_stop_ends_every_state(with_record_channel, client, cue, fed):
    service = with_record_channel
    client.grab(cue)
    service.feed(fed)
    lines = service.world.log.mark()
    client.stop()
    assert service.world.log.entries(lines) == [STOP, FINALIZED, lost_nothing(len(fed[1:]), len(fed[1:]))]
    assert client.get_status() == "off"
    assert Recording.read(cue).datagrams == fed[1:]


def test_the_record_channel_starts_and_stops_one_recording_after_the_other(with_record_channel, client):
    service = with_record_channel
    for number in range(5):
        cue = service.world.path(f"cue{number}")
        client.grab(cue)
        service.feed([OFF, MUSIC[0], ON, *MUSIC, OFF, MUSIC[0]])
        assert has_ended(client)
        assert Recording.read(cue).datagrams == MUSIC


def test_without_grab_the_record_channel_starts_nothing(with_record_channel, client):
    with_record_channel.feed([ON, *MUSIC, ON])
    assert client.get_status() == "off"
    assert client.latest_grab() == NO_GRAB_YET


def test_the_highest_channel_threshold_and_universe_work(service, client, cue):
    assert client.set_ctrl_universe(32768)
    assert client.set_ctrl_record(512, 255)
    client.grab(cue)
    full, below = art_dmx(0x7FFF, slots({512: 255})), art_dmx(0x7FFF, slots({512: 254}))
    service.feed([below, MUSIC[0]])
    assert client.get_status() == "on"
    service.feed([full, MUSIC[1], full, below])
    assert has_ended(client)
    assert Recording.read(cue).datagrams == [MUSIC[1], full]
