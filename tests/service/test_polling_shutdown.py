"""The end of the service in every phase of its polling thread."""

import heapq
import os
import random
import select
import signal
import threading

import pytest
from harness import BROADCAST, INFO, SERVICE
from harness.artnet import OP_POLL, art_dmx, opcode_of
from harness.nodes import Detection, FakeNodes, node_reply
from harness.waiting import DEADLINE, now
from texts import LISTEN_FINISHED

CYCLE_EMITS = "[Dump::poll_artnet_nodes] Emitting OnArtnetNodesUpdated signal"
POLLING_STARTING = "[Dump::poll_artnet_nodes] Starting"

both_signals = pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])


def assert_ends(service, number=signal.SIGTERM):
    """The service ends with 0 by itself: no datagram wakes its receive thread."""
    service.send_signal(number)
    assert service.wait() == 0, service.error_text
    assert service.error_text == ""
    # A polling thread that has just been started may say so last.
    assert LISTEN_FINISHED in service.world.log.entries()[-2:]


def polls(capture):
    return [datagram for datagram in capture.datagrams() if opcode_of(datagram.data) == OP_POLL]


@both_signals
def test_the_end_right_after_the_polling_thread_was_started(make_world, number):
    for _ in range(3):
        service = make_world().start()
        assert service.client.start_polling_artnet_nodes() is True
        assert_ends(service, number)


def test_the_end_while_the_artpoll_waits_to_be_sent(world):
    """The receive thread sleeps in its wait of a second; the ArtPoll stays unsent, so the end met the polling thread there."""
    capture = world.console_host.capture()
    for _ in range(20):
        service = world.start()
        before, lines = len(polls(capture)), world.log.mark()
        assert service.client.start_polling_artnet_nodes() is True
        world.log.wait_for_text(POLLING_STARTING, lines)
        assert_ends(service)
        if len(polls(capture)) == before:
            return
    pytest.fail("in none of 20 rounds the ArtPoll was still waiting")


def test_the_end_while_the_receive_thread_has_more_to_do_than_it_can(world):
    service = world.start()
    sender = world.console
    enough = threading.Event()

    def send():
        frames = [art_dmx(number) for number in range(50)]
        while not enough.is_set():
            sender.send(*frames)

    traffic = threading.Thread(target=send)
    traffic.start()
    try:
        assert service.client.start_polling_artnet_nodes() is True
        assert_ends(service)
    finally:
        enough.set()
        traffic.join()


@both_signals
def test_the_end_while_replies_are_collected_does_not_wait_for_the_rest_of_the_cycle(make_world, number):
    """A node has answered; ended at once, the cycle is never evaluated and nobody hears of the node."""
    world = make_world()
    service = world.start(environment={"KADREL_LOG_LEVEL": "4"})
    detection = Detection(service)
    detection.start()
    detection.answer(node_reply("10.77.0.9", [5]))
    assert_ends(service, number)
    assert CYCLE_EMITS not in world.log.messages()
    assert detection.messages() == []


def test_the_end_while_a_requested_cycle_collects(world):
    service = world.start()
    client = service.client
    detection = Detection(service)
    assert client.set_automatic_node_detection(False) and client.request_node_detection()
    detection.start()
    assert client.node_detection_request_pending() is True
    assert_ends(service)


def test_the_end_while_a_cycle_is_evaluated(make_world):
    """The line about the message is written in the middle of the evaluation, here of 1200 new nodes."""
    world = make_world()
    service = world.start(environment={"KADREL_LOG_LEVEL": "4"})
    addresses = [f"10.77.{10 + number // 200}.{1 + number % 200}" for number in range(300)]
    host = world.network.peer("nodes", addresses)
    with FakeNodes(service, host, [(address, node_reply(address, [0, 1, 2, 3])) for address in addresses]):
        Detection(service).start()
        world.log.wait_for_text(CYCLE_EMITS)
        assert_ends(service)


def test_the_end_right_behind_the_message_of_a_cycle(world):
    service = world.start()
    detection = Detection(service)
    detection.start()
    detection.answer(node_reply("10.77.0.9", [5]))
    assert detection.next_message() == "1:5:10.77.0.9:6454;"
    assert_ends(service)


@both_signals
def test_the_end_while_detection_is_idle(make_world, number):
    service = make_world().start()
    assert service.client.set_automatic_node_detection(False) is True
    assert service.client.start_polling_artnet_nodes() is True
    service.world.log.wait_for_text(POLLING_STARTING)
    assert_ends(service, number)


def test_the_end_without_a_broadcast_address(make_world):
    service = make_world(with_eth0=False).start()
    assert service.client.start_polling_artnet_nodes() is True
    service.world.log.wait_for_text(POLLING_STARTING)
    assert_ends(service)


def test_the_end_when_the_port_was_taken(world):
    """The receive thread has no socket that could wake it."""
    world.appliance.endpoint(6454, "0.0.0.0")
    service = world.start()
    assert service.client.start_polling_artnet_nodes() is True
    world.log.wait_for_text(POLLING_STARTING)
    assert_ends(service)


def test_the_end_with_a_request_that_nobody_polls_for(world):
    service = world.start()
    assert service.client.set_automatic_node_detection(False) and service.client.request_node_detection()
    assert_ends(service)


# Random moments

ROUNDS = 200
WORLDS = 16
# Seconds: a cycle takes three, and the next one begins right after it.
LONGEST = 3.4
MODES = {
    "automatic": (),
    "idle": (("set_automatic_node_detection", False),),
    "requested": (("set_automatic_node_detection", False), ("request_node_detection",)),
}


class Rounds:
    """One world in which the service is started and ended again and again, driven by the events of its process."""

    def __init__(self, world, moments):
        self.world = world
        self.moments = moments
        self.process = None
        self.codes = []
        self.listener = world.console_host.endpoint(6454, BROADCAST)

    def begin(self):
        """Starts the next round. (moment of its end, mode), or None after the last."""
        if not self.moments:
            return None
        moment, mode = self.moments.pop()
        owners = self.world.bus.owners.mark()
        self.process = self.world.run(6454)
        self.world.bus.owners.wait_for(lambda change: change[0] == SERVICE and change[1], SERVICE, owners)
        for call in MODES[mode]:
            assert self.world.client.call(*call) is True
        assert self.world.client.start_polling_artnet_nodes() is True
        return moment

    def end(self):
        self.process.send_signal(signal.SIGTERM)

    def ended(self):
        self.codes.append(self.process.wait())
        assert self.process.error_text == ""


def test_two_hundred_starts_and_ends_at_random_moments(make_world):
    seed = int(os.environ.get("KADREL_SHUTDOWN_SEED") or random.SystemRandom().randrange(1 << 32))
    print(f"KADREL_SHUTDOWN_SEED={seed}")
    chance = random.Random(seed)
    drawn = [(chance.uniform(0, LONGEST) * chance.choice((0.1, 0.1, 1)), chance.choice(list(MODES))) for _ in range(ROUNDS)]
    running = [Rounds(make_world(), drawn[number::WORLDS]) for number in range(WORLDS)]
    poller = select.poll()
    watched, due = {}, []

    def begin(rounds):
        moment = rounds.begin()
        if moment is not None:
            descriptor = rounds.process.fileno()
            watched[descriptor] = rounds
            poller.register(descriptor, select.POLLIN)
            heapq.heappush(due, (now() + moment, descriptor))

    for rounds in running:
        begin(rounds)
    last_event = now()
    while watched:
        wait = max(0.0, min([last_event + DEADLINE, *[when for when, _ in due[:1]]]) - now())
        for descriptor, _ in poller.poll(wait * 1000 + 1):
            rounds = watched.pop(descriptor)
            poller.unregister(descriptor)
            rounds.ended()
            begin(rounds)
            last_event = now()
        while due and due[0][0] <= now():
            watched[heapq.heappop(due)[1]].end()
            last_event = now()
        assert now() < last_event + DEADLINE, "a service does not end"
    assert sum((rounds.codes for rounds in running), []) == [0] * ROUNDS
    for rounds in running:
        lines = rounds.world.log.entries()
        assert [line for line in lines if line[0] != INFO] == []
        assert lines.count(LISTEN_FINISHED) == len(rounds.codes)
