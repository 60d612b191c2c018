"""Four bus clients call everything at once while 64 universes are sent, nodes answer and polls are asked.

What must come out is certain although the order of the calls is not: every recording is a piece of what was sent, without a
gap and in order; no call fails; the service is whole afterwards. The thread sanitizer's build runs this, too.
"""

import os
import random
import threading
from pathlib import Path

from harness import Recording, Signal
from harness.artnet import art_dmx, art_poll, art_trigger
from harness.nodes import node_reply
from texts import grab_text, split_grab_text

UNIVERSES = 64
ROUNDS = int(os.environ.get("KADREL_RACE_ROUNDS", "250"))
CLIENTS = 4
LEAST_CALLS = 60
CONTROL = 7  # the control universe, counted from 1, is one of those that are sent


def frame(number, universe):
    """The ArtDmx of a round: no two are alike, and the record channel of the control universe goes up and down."""
    level = 255 if number // 3 % 2 else 0
    return art_dmx(universe, bytes([level, universe]) + number.to_bytes(4, "big") + bytes(universe % 5))


class Caller(threading.Thread):
    """One bus client that calls methods at random until the sender is done; `failure` holds what it found wrong."""

    def __init__(self, world, number, done):
        super().__init__(daemon=True)
        self.client = world.bus.client()
        self.failure = None
        self.calls = 0
        self.started_polling = 0
        self._world = world
        self._number = number
        self._dice = random.Random(number)
        self._done = done
        self._grabs = 0

    def run(self):
        try:
            while not self._done.is_set() or self.calls < LEAST_CALLS:
                self._call()
                self.calls += 1
        except BaseException as error:  # shown by the test
            self.failure = error

    def _node(self):
        return (self._dice.choice([-1, self._number, self._number + 10]), "short", "long", 1, "10.0.0.9", 6454)

    def _call(self):
        dice, client = self._dice, self.client
        choices = {
            "grab": self._grab,
            "stop": client.stop,
            "get_status": lambda: self._among(client.get_status(), ("off", "on", "run")),
            "latest_grab": lambda: split_grab_text(client.latest_grab()),
            "dup_cue": lambda: client.dup_cue(self._world.path("copies"), self._world.path(f"cue-{self._number}-0")),
            "set_automatic_node_detection": lambda: self._flag(client.set_automatic_node_detection(dice.random() < 0.7)),
            "request_node_detection": lambda: self._flag(client.request_node_detection()),
            "node_detection_request_pending": lambda: self._flag(client.node_detection_request_pending()),
            "start_polling_artnet_nodes": self._start_polling,
            "get_detected_nodes": lambda: self._json(client.get_detected_nodes()),
            "remove_detected_nodes": lambda: self._flag(client.remove_detected_nodes()),
            "init_manual_nodes": lambda: self._flag(client.init_manual_nodes([self._node(), self._node()])),
            "add_manual_node": lambda: self._flag(client.add_manual_node(self._node())),
            "update_manual_node": lambda: self._flag(client.update_manual_node(self._node())),
            "remove_manual_node": lambda: self._flag(client.remove_manual_node(self._number)),
            "remove_all_manual_nodes": client.remove_all_manual_nodes,
            "set_ctrl_universe": lambda: self._flag(client.set_ctrl_universe(dice.choice([CONTROL, -1, 0]))),
            "set_ctrl_action": lambda: self._flag(client.set_ctrl_action(1, 2, dice.choice([-1, 10, 256]))),
            "set_ctrl_record": lambda: self._flag(client.set_ctrl_record(dice.choice([1, -1, 513]), 128)),
        }
        choices[dice.choice(list(choices))]()

    def _grab(self):
        self.client.grab(self._world.path(f"cue-{self._number}-{self._grabs}"))
        self._grabs += 1

    def _start_polling(self):
        self.started_polling += self.client.start_polling_artnet_nodes()

    @staticmethod
    def _flag(answer):
        assert answer in (True, False)

    @staticmethod
    def _among(answer, known):
        assert answer in known, answer

    @staticmethod
    def _json(answer):
        assert answer.startswith('{ "nodes":[') and answer.endswith("]}"), answer


def send_round(service, number):
    """64 universes, replies of nodes, a poll and a trigger."""
    replies = [node_reply(f"10.77.1.{(number + i) % 8}", (i,)) for i in range(3)]
    others = [*replies, art_poll(), art_trigger(number % 256, 1, payload=b"")]
    service.feed([frame(number, universe) for universe in range(UNIVERSES)] + others)


def send_everything(service, done, failures, first=0):
    try:
        for number in range(first, ROUNDS):
            send_round(service, number)
    except BaseException as error:  # shown by the test
        failures.append(error)
    finally:
        done.set()


def assert_pieces_of(sent, recordings):
    """Every recording is a piece of what was sent, without a gap, and no two overlap."""
    position = {datagram: index for index, datagram in enumerate(sent)}
    taken = set()
    for path, recording in recordings.items():
        places = [position[datagram] for datagram in recording.datagrams]
        assert all(next_place == place + 1 for place, next_place in zip(places, places[1:])), path
        assert taken.isdisjoint(places), path
        taken.update(places)
    return taken


def test_four_clients_call_everything_while_64_universes_are_recorded(world):
    service = world.start(environment={"KADREL_UNIVERSE_COUNT": UNIVERSES})
    os.mkdir(world.path("copies"))
    # One recording is begun for certain.
    service.client.grab(world.path("cue-first"))
    send_round(service, 0)
    done, failures = threading.Event(), []
    callers = [Caller(world, number, done) for number in range(CLIENTS)]
    for caller in callers:
        caller.start()
    send_everything(service, done, failures, first=1)
    for caller in callers:
        caller.join()
    assert [caller.failure for caller in callers if caller.failure] == [] and failures == []
    assert sum(caller.started_polling for caller in callers) == 1

    client = service.client
    client.stop()
    sent = [frame(number, universe) for number in range(ROUNDS) for universe in range(UNIVERSES)]
    recordings = {path: Recording.read(path) for path in Path(world.directory).glob("cue-*")}
    assert len(assert_pieces_of(sent, recordings)) >= UNIVERSES
    name, empty, ceiling, universes = split_grab_text(client.latest_grab())
    latest = [datagram[14] for datagram in recordings[Path(name)].datagrams]
    assert (empty, ceiling, universes) == (not latest, max(latest, default=-1), set(latest))

    # No trace of it is left: the service records as before.
    client.remove_all_manual_nodes()
    assert client.set_ctrl_universe(-1)
    client.grab(world.path("last"))
    service.feed(sent[:3])
    client.stop()
    assert Recording.read(world.path("last")).datagrams == sent[:3]
    assert split_grab_text(client.latest_grab()) == (world.path("last"), False, 2, {0, 1, 2})


def test_every_datagram_is_in_one_file_or_none_when_two_clients_start_and_stop(service):
    """One client starts recordings, another stops them, as fast as the bus takes it."""
    world, done, failures = service.world, threading.Event(), []
    starter, stopper = world.bus.client(), world.bus.client()
    count = 0

    def repeat(call):
        try:
            while not done.is_set():
                call()
        except BaseException as error:  # shown by the test
            failures.append(error)

    def start():
        nonlocal count
        starter.grab(world.path(f"cue-{count}"))
        count += 1

    threads = [threading.Thread(target=repeat, args=(call,)) for call in (start, stopper.stop)]
    for thread in threads:
        thread.start()
    send_everything(service, done, failures)
    for thread in threads:
        thread.join()
    assert failures == []
    service.client.stop()
    sent = [frame(number, universe) for number in range(ROUNDS) for universe in range(UNIVERSES)]
    assert_pieces_of(sent, {path: Recording.read(path) for path in Path(world.directory).glob("cue-*")})
    service.client.grab(world.path("last"))
    service.client.stop()
    assert service.client.latest_grab() == grab_text(world.path("last"), True, -1, [])


def test_manual_nodes_of_four_clients_do_not_disturb_one_another(service):
    """Each client keeps nodes under keys of its own; every answer and every message is as if it were alone."""
    keys_each, failures = 25, []
    service.client.add_manual_node((1_000_000, "fixed", "", 0, "10.0.0.1", 1))
    start = service.client.signals.mark()

    def keep(client, first):
        try:
            for key in range(first, first + keys_each):
                node = (key, "short", "long", key, "10.0.0.9", 6454)
                assert client.add_manual_node(node) is True
                assert client.add_manual_node(node) is False
                assert client.init_manual_nodes([node]) is False
                assert client.update_manual_node((key, "", "", key + 1, "", 0)) is True
                if key % 2:
                    assert client.remove_manual_node(key) is True
                    assert client.remove_manual_node(key) is False
        except BaseException as error:  # shown by the test
            failures.append(error)

    clients = [service.world.bus.client() for _ in range(CLIENTS)]
    threads = [threading.Thread(target=keep, args=(each, index * 100)) for index, each in enumerate(clients)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []
    expected = set()
    for first in range(0, CLIENTS * 100, 100):
        for key in range(first, first + keys_each):
            expected.add(f"1:{key}:10.0.0.9:6454")
            expected.add(f"0:{key}:10.0.0.9:6454;1:{key + 1}::0")
            if key % 2:
                expected.add(f"0:{key + 1}::0")
    signals = service.client.signals.since(start)
    assert {signal.arguments[0] for signal in signals} == expected and len(signals) == len(expected)
    kept = [key for first in range(0, CLIENTS * 100, 100) for key in range(first, first + keys_each) if key % 2 == 0]
    start = service.client.signals.mark()
    service.client.remove_all_manual_nodes()
    (message,) = service.client.signals.since(start)
    assert message == Signal("OnArtnetNodesUpdated", (message.arguments[0],))
    entries = message.arguments[0].split(";")
    assert sorted(entries) == sorted(["", "0:0:10.0.0.1:1", *(f"0:{key + 1}::0" for key in kept)])
