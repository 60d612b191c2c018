"""olad drives the recorder: every frame that it puts on the wire is in the file."""

import subprocess

import pytest
from harness import ARTNET_PORT, EXECUTABLE, Recording
from harness.artnet import OP_DMX, dmx_data, opcode_of, port_address_of
from texts import has_ended, split_grab_text

FRAMES = [[number % 256, 255 - number % 256, *([number % 7] * 30)] for number in range(60)]


@pytest.fixture
def olad(world):
    return world.olad()


@pytest.fixture
def capture(olad):
    """What passes olad's interface."""
    return olad.host.capture()


def frames_on_the_wire(capture):
    """ArtDmx datagrams that have left olad's host, in order."""
    return [
        datagram.data
        for datagram in capture.datagrams()
        if datagram.outgoing and datagram.destination_port == ARTNET_PORT and opcode_of(datagram.data) == OP_DMX
    ]


def finish(service, olad, capture):
    """Stops the recording after the last frame of olad; the frames that are certain to be in it."""
    service.settle(olad.host.endpoint())
    before_stop = frames_on_the_wire(capture)
    service.client.stop()
    return before_stop


def assert_recorded(path, before_stop, capture):
    """olad repeats a frame now and then: frames between the marker and the stop may be recorded too."""
    recorded, on_the_wire = Recording.read(path).datagrams, frames_on_the_wire(capture)
    assert len(recorded) >= len(before_stop)
    assert recorded == on_the_wire[: len(recorded)]
    subprocess.run([EXECUTABLE.parent / "kadrel-cue", "verify", "--strict", path], check=True)


def test_every_frame_of_a_stream_is_recorded(service, olad, capture):
    path = service.world.path("cue")
    olad.patch(0, 16)
    service.client.grab(path)
    olad.stream(capture, 16, 0, FRAMES)
    before_stop = finish(service, olad, capture)
    assert len(before_stop) >= len(FRAMES)
    assert_recorded(path, before_stop, capture)
    assert split_grab_text(service.client.latest_grab()) == (path, False, 0, {0})


def test_frames_of_four_universes_are_recorded_in_the_order_of_the_wire(service, olad, capture):
    path = service.world.path("cue")
    for port in range(4):
        olad.patch(port, 16 + port)
    service.client.grab(path)
    for round_ in range(3):
        for port in range(4):
            olad.set_and_see(capture, 16 + port, port, [round_ + 1, port, 7, 8])
    before_stop = finish(service, olad, capture)
    assert {port_address_of(frame) for frame in before_stop} == {0, 1, 2, 3}
    assert_recorded(path, before_stop, capture)
    assert split_grab_text(service.client.latest_grab()) == (path, False, 3, {0, 1, 2, 3})


def test_a_channel_of_olads_starts_and_stops_the_recording(service, olad, capture):
    client, path = service.client, service.world.path("cue")
    assert client.set_ctrl_universe(4) and client.set_ctrl_record(5, 128)
    olad.patch(0, 16)
    olad.patch(3, 19)
    client.grab(path)
    olad.set_and_see(capture, 16, 0, [1, 1])
    olad.set_and_see(capture, 19, 3, [0, 0, 0, 0, 200, 0])
    olad.stream(capture, 16, 0, [[number, 2] for number in range(2, 20)])
    olad.set_and_see(capture, 19, 3, [0, 0, 0, 0, 127, 0])
    olad.set_and_see(capture, 16, 0, [99, 99])
    service.settle(olad.host.endpoint())
    assert has_ended(client)
    on_the_wire = frames_on_the_wire(capture)
    levels = [dmx_data(frame)[4] if port_address_of(frame) == 3 else None for frame in on_the_wire]
    assert Recording.read(path).datagrams == on_the_wire[levels.index(200) + 1 : levels.index(127)]


def test_an_action_of_olads_raises_triggers(service, olad, capture):
    client = service.client
    assert client.set_ctrl_universe(1) and client.set_ctrl_action(1, 2, 10)
    olad.patch(0, 16)
    for key, value in ((1, 55), (2, 255), (3, 55)):
        olad.set_and_see(capture, 16, 0, [key, value])
    service.settle(olad.host.endpoint())
    triggers = client.triggers()
    assert set(triggers) == {(1, 5), (2, 25), (3, 55)}
    assert len(triggers) == len(frames_on_the_wire(capture))
