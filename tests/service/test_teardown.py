"""The traces of a service that has ended: none."""

import os
import signal
import threading

import pytest
from harness import Recording
from harness.artnet import art_dmx, slots
from texts import BANNER, GRAB, GRABBING_STARTED, LISTEN_FINISHED, LISTEN_STARTING, NO_GRAB_YET, device_ip

START = [BANNER, LISTEN_STARTING, device_ip("10.77.0.1")]


def frames(count):
    return [art_dmx(number % 7, slots({1: number >> 8, 2: number & 0xFF})) for number in range(count)]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_the_end_during_a_recording_leaves_the_whole_file_and_says_nothing_of_it(world, number):
    service = world.start()
    path = world.path("cue")
    service.client.grab(path)
    service.feed(frames(120))
    assert service.end(number) == 0
    assert Recording.read(path).datagrams == frames(120)
    assert world.log.entries() == [*START, GRAB, GRABBING_STARTED, LISTEN_FINISHED]


def test_the_end_before_the_first_datagram_leaves_an_empty_file(world):
    service = world.start()
    path = world.path("cue")
    service.client.grab(path)
    service.stop()
    assert os.path.getsize(path) == 0
    assert world.log.entries() == [*START, GRAB, LISTEN_FINISHED]


def test_a_recording_that_the_end_cut_off_is_not_the_latest_of_the_next_run(world):
    service = world.start()
    service.client.grab(world.path("cue"))
    service.feed(frames(2))
    service.stop()
    assert world.start().client.latest_grab() == NO_GRAB_YET


def test_the_end_amid_traffic_leaves_a_file_that_ends_with_a_whole_datagram(world):
    service = world.start()
    path = world.path("cue")
    service.client.grab(path)
    sender = world.console
    enough = threading.Event()

    def send():
        number = 0
        while not enough.is_set():
            sender.send(*frames(20))
            number += 20

    traffic = threading.Thread(target=send)
    traffic.start()
    try:
        world.log.wait_for_text(GRABBING_STARTED[1])
        service.send_signal(signal.SIGTERM)
        assert service.wait() == 0
    finally:
        enough.set()
        traffic.join()
    recorded = Recording.read(path).datagrams
    assert recorded and set(recorded) <= set(frames(20))
    assert world.log.entries()[-1] == LISTEN_FINISHED


def test_the_end_on_a_full_disk_is_still_a_good_end(world):
    service = world.start()
    service.client.grab("/dev/full")
    service.feed(frames(60))
    service.stop()


def test_the_end_while_clients_keep_calling(world):
    service = world.start()
    client = world.bus.client()
    enough = threading.Event()
    answers = []

    def ask():
        while not enough.is_set():
            try:
                answers.append(client.get_status())
            except Exception:  # the service ends during calls
                return

    asking = threading.Thread(target=ask)
    asking.start()
    try:
        service.client.get_status()
        assert service.end() == 0
    finally:
        enough.set()
        asking.join()
    assert set(answers) <= {"off"}


def test_the_service_can_be_started_again_at_once_on_the_same_port(world):
    for _ in range(5):
        service = world.start()
        path = world.path("cue")
        service.client.grab(path)
        service.feed(frames(3))
        service.client.stop()
        assert Recording.read(path).datagrams == frames(3)
        service.stop()
    assert [entry for entry in world.log.entries() if entry[0] != 6] == []
