"""The three setters of the control universe: bounds, refusals and what they leave in force."""

import pytest
from harness import INFO
from harness.artnet import art_dmx
from texts import emitted

LOWEST, HIGHEST = -(2**31), 2**31 - 1
UNIVERSE, ACTION, RECORD = "set_ctrl_universe", "set_ctrl_action", "set_ctrl_record"
SUBJECTS = {UNIVERSE: "control universe", ACTION: "control action", RECORD: "control record"}
PARAMETERS = {
    UNIVERSE: ("universe",),
    ACTION: ("key_channel", "value_channel", "step"),
    RECORD: ("channel", "threshold"),
}


def entry_line(method, arguments):
    pairs = ", ".join(f"{name}:{value}" for name, value in zip(PARAMETERS[method], arguments))
    return (INFO, f"[Dump::{method}] Setting {SUBJECTS[method]} ({pairs})")


def refusal_line(method, reason):
    return (INFO, f"[Dump::{method}] Failed to set {SUBJECTS[method]}, {reason}")


@pytest.mark.parametrize(
    "method, arguments",
    [
        *((UNIVERSE, (universe,)) for universe in (-1, 1, 2, 255, 256, 32767, 32768)),
        *((ACTION, (channel, 7, 9)) for channel in (-1, 1, 2, 511, 512)),
        *((ACTION, (7, channel, 9)) for channel in (-1, 1, 2, 511, 512)),
        *((ACTION, (7, 8, step)) for step in (-1, 1, 2, 254, 255)),
        (ACTION, (-1, -1, -1)),
        (ACTION, (512, 1, 255)),
        *((RECORD, (channel, 9)) for channel in (-1, 1, 2, 511, 512)),
        *((RECORD, (9, threshold)) for threshold in (-1, 1, 2, 254, 255)),
        (RECORD, (-1, -1)),
    ],
)
def test_values_within_bounds_are_stored_with_one_line(service, method, arguments):
    lines = service.world.log.mark()
    assert service.client.call(method, *arguments) is True
    assert service.world.log.entries(lines) == [entry_line(method, arguments)]


CHANNELS_OUT = (LOWEST, -2, 0, 513, 65536 + 1, HIGHEST)
BYTES_OUT = (LOWEST, -2, 0, 256, 257, HIGHEST)


@pytest.mark.parametrize(
    "method, arguments, reason",
    [
        *((UNIVERSE, (value,), "out of range") for value in (LOWEST, -2, 0, 32769, 65537, HIGHEST)),
        *((ACTION, (value, 1, 1), "key channel out of range") for value in CHANNELS_OUT),
        *((ACTION, (1, value, 1), "value channel out of range") for value in CHANNELS_OUT),
        *((ACTION, (1, 1, value), "step out of range") for value in BYTES_OUT),
        (ACTION, (513, 513, 256), "key channel out of range"),
        (ACTION, (512, 513, 256), "value channel out of range"),
        *((RECORD, (value, 1), "channel out of range") for value in CHANNELS_OUT),
        *((RECORD, (1, value), "threshold out of range") for value in BYTES_OUT),
        (RECORD, (0, 0), "channel out of range"),
    ],
)
def test_values_out_of_bounds_are_refused_with_the_first_reason(service, method, arguments, reason):
    lines = service.world.log.mark()
    assert service.client.call(method, *arguments) is False
    assert service.world.log.entries(lines) == [entry_line(method, arguments), refusal_line(method, reason)]


def test_a_refusal_leaves_the_earlier_action_in_force(service):
    client = service.client
    assert client.set_ctrl_universe(1) and client.set_ctrl_action(1, 2, 10)
    assert not client.set_ctrl_universe(0)
    assert not client.set_ctrl_action(513, 3, 1)
    assert not client.set_ctrl_action(3, 0, 1)
    assert not client.set_ctrl_action(3, 4, 256)
    assert emitted(service, [art_dmx(0, bytes([1, 55, 9, 9]))]) == [(1, 5)]


def test_a_refusal_leaves_the_earlier_record_channel_in_force(service):
    client, path = service.client, service.world.path("cue")
    assert client.set_ctrl_universe(1) and client.set_ctrl_record(1, 10)
    assert not client.set_ctrl_record(0, 20)
    assert not client.set_ctrl_record(2, 0)
    client.grab(path)
    service.feed([art_dmx(0, bytes([9, 255])), art_dmx(1)])
    assert client.get_status() == "on"
    service.feed([art_dmx(0, bytes([10, 0])), art_dmx(1)])
    assert client.get_status() == "run"


@pytest.mark.parametrize("off", ["universe", "key channel", "value channel", "all channels"])
def test_minus_1_switches_the_action_off(service, off):
    client = service.client
    assert client.set_ctrl_universe(1) and client.set_ctrl_action(1, 2, -1)
    assert {
        "universe": lambda: client.set_ctrl_universe(-1),
        "key channel": lambda: client.set_ctrl_action(-1, 2, -1),
        "value channel": lambda: client.set_ctrl_action(1, -1, -1),
        "all channels": lambda: client.set_ctrl_action(-1, -1, -1),
    }[off]()
    assert emitted(service, [art_dmx(0, bytes([1, 2])), art_dmx(0xFFFF, bytes([1, 2]))]) == []


ARMED, PENDING, RUNNING = "armed", "start pending", "running"


@pytest.mark.parametrize("state", [ARMED, PENDING, RUNNING])
@pytest.mark.parametrize("method, arguments", [(UNIVERSE, (5,)), (ACTION, (3, 4, 5)), (RECORD, (6, 7))])
def test_every_setter_is_refused_while_the_recorder_is_not_off(service, state, method, arguments):
    client, path = service.client, service.world.path("cue")
    assert client.set_ctrl_universe(1) and client.set_ctrl_record(1, 10)
    client.grab(path)
    service.feed({ARMED: [], PENDING: [art_dmx(0, b"\x0a")], RUNNING: [art_dmx(0, b"\x0a"), art_dmx(1)]}[state])
    lines = service.world.log.mark()
    assert client.call(method, *arguments) is False
    # Also what is out of bounds is refused for this reason.
    assert client.call(method, *[0] * len(arguments)) is False
    reason = refusal_line(method, "grabber not idle")
    assert service.world.log.entries(lines) == [
        entry_line(method, arguments),
        reason,
        entry_line(method, [0] * len(arguments)),
        reason,
    ]
    client.stop()
    assert client.call(method, *arguments) is True


def test_a_refused_setter_changes_nothing_of_the_running_recording(service):
    client, path = service.client, service.world.path("cue")
    assert client.set_ctrl_universe(1) and client.set_ctrl_record(1, 10)
    client.grab(path)
    service.feed([art_dmx(0, b"\x0a"), art_dmx(1)])
    assert not client.set_ctrl_universe(-1)
    assert not client.set_ctrl_record(-1, -1)
    service.feed([art_dmx(0, b"\x09")])
    assert client.get_status() == "off"


def test_settings_are_lost_at_the_end_of_the_process(world):
    service = world.start()
    assert service.client.set_ctrl_universe(1) and service.client.set_ctrl_action(1, 2, -1)
    assert emitted(service, [art_dmx(0, b"\x01\x02")]) == [(1, 2)]
    service.stop()
    again = world.start()
    assert emitted(again, [art_dmx(0, b"\x01\x02")]) == []


def test_settings_made_by_several_clients_at_once_are_all_answered(service):
    calls = [(UNIVERSE, value) for value in range(0, 40)] + [(RECORD, 1, value) for value in range(0, 40)]
    answers = service.client.call_in_parallel(calls)
    assert answers == [value != 0 for value in range(40)] * 2
