"""Levels and outputs of the log."""

import pytest
from harness import ERROR, INFO, SERVICE, WARNING
from harness.artnet import art_dmx, art_poll, art_trigger, header
from texts import (
    BANNER,
    GRAB,
    GRAB_CANNOT_OPEN,
    LISTEN_FINISHED,
    LISTEN_STARTING,
    STOP,
    STOP_IDLE,
    device_ip,
    emitted,
    unparsed,
)

START = [BANNER, LISTEN_STARTING, device_ip("10.77.0.1")]


def on_unknown(count):
    return (INFO, f"[Dump::ArtNetParser::on_unknown] Failed to parse unknown packet ({count})")


@pytest.fixture
def verbose(world):
    return world.start(environment={"KADREL_LOG_LEVEL": "6"})


def test_a_trigger_is_a_line_at_level_6(verbose):
    lines = verbose.world.log.mark()
    verbose.feed([art_trigger(7, 3), art_trigger(0, 255)])
    assert verbose.world.log.entries(lines) == [
        (INFO, "[Dump::process_artnet_trigger] Emitting OnArtnetTrigger signal (key:7, subkey:3)"),
        (INFO, "[Dump::process_artnet_trigger] Emitting OnArtnetTrigger signal (key:0, subkey:255)"),
    ]


def test_an_action_is_a_line_at_level_6(verbose):
    assert verbose.client.set_ctrl_universe(1) and verbose.client.set_ctrl_action(1, 2, 10)
    lines = verbose.world.log.mark()
    verbose.feed([art_dmx(0, b"\x01\x37"), art_dmx(1, b"\x01\x37"), art_dmx(0, b"\x01")])
    assert verbose.world.log.entries(lines) == [
        (INFO, "[Dump::trigger_dmx_idle] Emitting OnArtnetTrigger signal (key:1, subkey:5)")
    ]


def test_a_trigger_during_a_recording_is_no_line(verbose):
    verbose.client.grab(verbose.world.path("cue"))
    lines = verbose.world.log.mark()
    verbose.feed([art_trigger(7, 3)])
    assert verbose.world.log.entries(lines) == []


def test_an_unknown_packet_is_a_line_at_level_6_with_the_packet_count(verbose):
    lines = verbose.world.log.mark()
    for datagram in (
        header(0x5100),
        art_trigger(1, 2, payload=b"") + header(0x7777),
        header(1) + header(2) + header(3),
    ):
        verbose.feed([datagram])
    assert verbose.world.log.entries(lines) == [
        on_unknown(0),
        (INFO, "[Dump::process_artnet_trigger] Emitting OnArtnetTrigger signal (key:1, subkey:2)"),
        on_unknown(1),
        on_unknown(0),
        on_unknown(1),
        on_unknown(2),
    ]


def test_reading_the_detected_nodes_is_a_line_at_level_6(verbose):
    lines = verbose.world.log.mark()
    assert verbose.client.get_detected_nodes() == '{ "nodes":[]}'
    assert verbose.world.log.entries(lines) == [(INFO, "[Dump::get_detected_nodes] Get detected nodes")]


def test_dmx_and_polls_are_no_lines_even_at_level_6(verbose):
    lines = verbose.world.log.mark()
    verbose.feed([art_dmx(0), art_poll(), art_dmx(7, bytes(512))])
    assert verbose.world.log.entries(lines) == []


def test_lines_of_level_6_stay_out_at_level_3(service):
    lines = service.world.log.mark()
    assert emitted(service, [art_trigger(7, 3), header(0x7777)]) == [(7, 3)]
    assert service.client.get_detected_nodes() == '{ "nodes":[]}'
    assert service.world.log.entries(lines) == []


def start_quietly(world, environment):
    """Starts with settings under which the socket does not announce itself; waits for a first trigger."""
    service = world.start(environment=environment, wait_for_socket=False)
    spun = 0
    while not service.client.triggers():
        world.console.send(art_trigger(0, 0))
        spun += 1
        assert spun < 100_000
    return service


def test_at_level_minus_2_only_errors_are_written(world):
    service = start_quietly(world, {"KADREL_LOG_LEVEL": "-2"})
    service.client.grab("/missing/cue")
    service.client.stop()
    assert world.log.entries() == [GRAB_CANNOT_OPEN]
    assert service.end() == 0
    assert world.log.entries() == [GRAB_CANNOT_OPEN]


def test_at_level_1_the_banner_is_written_but_nothing_ordinary(world):
    service = start_quietly(world, {"KADREL_LOG_LEVEL": "1"})
    service.client.stop()
    assert service.end() == 0
    assert world.log.entries() == [BANNER]


def test_the_console_output_writes_one_line_each_to_standard_error(world):
    service = world.start(environment={"KADREL_LOG_OUTPUT": "console"})
    service.client.stop()
    service.client.grab("/missing/cue")
    assert service.end() == 0
    lines = service.errors.items
    assert lines[:6] == [text for _, text in [*START, STOP, STOP_IDLE, GRAB]]
    assert lines[6].endswith(" void Dump::grab(const QString&)) " + GRAB_CANNOT_OPEN[1])
    assert lines[7:] == [LISTEN_FINISHED[1]]
    assert world.log.items == []


def test_console_lines_are_written_as_they_are(world):
    service = world.start(environment={"KADREL_LOG_OUTPUT": "console", "KADREL_LOG_LEVEL": "6"})
    source = world.path("source")
    open(source, "wb").close()
    copy = service.client.dup_cue(world.path("%n%s%1%2 100 % Übung"), source)
    world.console.send(art_trigger(7, 3), b"no packet")
    service.errors.wait_for(lambda line: line == unparsed(b"no packet")[1])
    assert "[Dump::process_artnet_trigger] Emitting OnArtnetTrigger signal (key:7, subkey:3)" in service.errors.items
    assert f"[Dump::dup_cue] New cue path is: {copy}" in service.errors.items
    assert service.end() == 0


def test_the_output_none_writes_nothing_anywhere(world):
    service = start_quietly(world, {"KADREL_LOG_OUTPUT": "none"})
    service.client.grab("/missing/cue")
    service.client.stop()
    assert service.end() == 0
    assert service.error_text == ""
    assert world.log.items == []


@pytest.mark.parametrize(
    "variable, values",
    [
        ("KADREL_LOG_LEVEL", ["", "x", "3x", "3.5", "99999999999"]),
        ("KADREL_LOG_OUTPUT", ["", "x", "Syslog", "1", "%n%s"]),
        ("KADREL_WRITE_BUFFER_MIB", ["", "0", "-1", "1025", "x", "32x", "1.5", "99999999999", "%n%s"]),
        ("KADREL_UNIVERSE_COUNT", ["", "0", "-1", "32769", "x", "3x", "99999999999", "%n%s"]),
    ],
)
def test_a_setting_that_is_not_understood_is_a_warning_and_the_usual_value(world, variable, values):
    for value in values:
        lines = world.log.mark()
        service = world.start(environment={variable: value})
        entries = world.log.entries(lines)
        warnings = [message for priority, message in entries if priority == WARNING]
        assert len(warnings) == 1 and variable in warnings[0] and value in warnings[0]
        assert [entry for entry in entries if entry[0] != WARNING] == START
        asker = world.console
        asker.send(art_poll(), header(0x7777))
        service.settle()
        assert len(asker.receive().data) == 239 and asker.waiting() == []
        service.stop()
        assert service.error_text == ""


def test_the_least_and_the_most_memory_for_a_recording_are_understood(world):
    for size in ("1", "1024"):
        lines = world.log.mark()
        service = world.start(environment={"KADREL_WRITE_BUFFER_MIB": size})
        assert world.log.entries(lines) == START
        service.stop()


def test_levels_and_outputs_that_are_understood_warn_of_nothing(world):
    for level in ("3", "4", "5", "6", "2147483647"):
        lines = world.log.mark()
        service = world.start(environment={"KADREL_LOG_LEVEL": level, "KADREL_LOG_OUTPUT": "syslog"})
        assert world.log.entries(lines) == START
        service.stop()


def test_client_texts_are_never_interpreted(service):
    text = "%n%s%d%1%2 100% %% %m"
    lines = service.world.log.mark()
    source = service.world.path("source")
    open(source, "wb").close()
    copy = service.client.dup_cue(text, source)
    assert copy.startswith(text + "/")
    assert (INFO, f"[Dump::dup_cue] New cue path is: {copy}") in service.world.log.entries(lines)


def test_no_line_of_the_service_is_an_error_in_ordinary_use(service):
    service.client.grab(service.world.path("cue"))
    service.feed([art_dmx(number) for number in range(50)])
    service.client.stop()
    service.client.latest_grab()
    service.stop()
    assert {line.priority for line in service.world.log.items} == {INFO}
    assert not any(line.priority == ERROR for line in service.world.log.items)
    assert not service.world.client.owns(SERVICE)
