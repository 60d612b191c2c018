"""A small model of recorder, triggers, settings and manual nodes, and random scripts that compare the service with it.

The model is told the same steps as the service and says what each must answer, which signals must come, what the file of a
finished recording must hold. It is written from the rules alone and keeps everything as plain lists.
"""

import os
import random
from dataclasses import dataclass, field

from harness import Recording
from harness.artnet import art_dmx, art_poll, art_trigger, oem_vfps_ns
from texts import split_grab_text

OFF, ARMED, PENDING, RUNNING, STOPPING = range(5)
NOT_SET = -1


@dataclass(frozen=True)
class Dmx:
    """An ArtDmx whose slots are the given bytes."""

    universe: int  # port-address, counted from 0
    data: bytes

    @property
    def wire(self):
        return art_dmx(self.universe, self.data)


@dataclass(frozen=True)
class Trigger:
    key: int
    sub_key: int

    @property
    def wire(self):
        return art_trigger(self.key, self.sub_key, payload=b"")


@dataclass(frozen=True)
class Other:
    """A packet that changes nothing; `parses` is false when it makes the parser refuse its datagram."""

    name: str
    wire: bytes
    parses: bool = True


POLL = Other("poll", art_poll())
DELAY = Other("delay record", oem_vfps_ns(7))
CUT = Other("cut-off dmx", art_dmx(0, bytes(8), length=9), parses=False)
OVERSIZED = Other("dmx of 513 slots", art_dmx(0, b"", length=513))


@dataclass
class Model:
    """The rules. Each step of a script is a method."""

    state: int = OFF
    universe: int = NOT_SET
    action: tuple = (NOT_SET, NOT_SET, NOT_SET)
    record: tuple = (NOT_SET, NOT_SET)
    name: str = ""
    taken: list = field(default_factory=list)  # datagrams of the current recording
    universes: list = field(default_factory=list)  # theirs, in the same order
    summary: tuple = ("", True, -1, frozenset())
    finished: list = field(default_factory=list)  # (name, datagrams) of every recording that has ended
    nodes: list = field(default_factory=list)
    signals: list = field(default_factory=list)

    # Settings.

    @staticmethod
    def _allowed(value, highest):
        return value == NOT_SET or 1 <= value <= highest

    def set_ctrl_universe(self, universe):
        if self.state != OFF or not self._allowed(universe, 32768):
            return False
        self.universe = universe
        return True

    def set_ctrl_action(self, key, value, step):
        if self.state != OFF or not all(map(self._allowed, (key, value, step), (512, 512, 255))):
            return False
        self.action = (key, value, step)
        return True

    def set_ctrl_record(self, channel, threshold):
        if self.state != OFF or not all(map(self._allowed, (channel, threshold), (512, 255))):
            return False
        self.record = (channel, threshold)
        return True

    # Recorder.

    def _record_control(self):
        return self.universe != NOT_SET and NOT_SET not in self.record

    def grab(self, name):
        if self.state == OFF and name not in ("", "missing/cue"):
            self.name, self.taken, self.universes = name, [], []
            self.state = ARMED if self._record_control() else PENDING

    def stop(self):
        if self.state != OFF:
            self._finish()

    def _finish(self):
        self.summary = (self.name, not self.taken, max(self.universes, default=-1), frozenset(self.universes))
        self.finished.append((self.name, self.taken))
        self.state = OFF

    def get_status(self):
        return {OFF: "off", ARMED: "on", PENDING: "on", RUNNING: "run", STOPPING: "run"}[self.state]

    def latest_grab(self):
        return self.summary

    # Network.

    def receive(self, packets):
        """One datagram."""
        noted = None
        for packet in packets:
            if isinstance(packet, Trigger) and self.state == OFF:
                self.signals.append(("OnArtnetTrigger", (packet.key, packet.sub_key)))
            if isinstance(packet, Dmx):
                noted = self._dmx(packet, noted)
        if noted is not None and all(getattr(packet, "parses", True) for packet in packets):
            self.taken.append(b"".join(packet.wire for packet in packets))
            self.universes.append(noted)
            if self.state == PENDING:
                self.state = RUNNING
        if self.state == STOPPING:
            self._finish()

    def _dmx(self, dmx, noted):
        """The universe under which the datagram would be recorded after the packets so far, or None."""
        control = dmx.universe == self.universe - 1

        def slot(channel):
            return dmx.data[channel - 1] if channel <= len(dmx.data) else None

        if self.state == OFF:
            key_channel, value_channel, step = self.action
            if control and self.universe != NOT_SET and NOT_SET not in (key_channel, value_channel):
                key, value = slot(key_channel), slot(value_channel)
                if key is not None and value is not None:
                    divided = value // step if key in (1, 2) and step != NOT_SET else value
                    self.signals.append(("OnArtnetTrigger", (key, divided)))
            return None
        channel, threshold = self.record
        level = slot(channel) if control and self._record_control() else None
        if self.state == ARMED:
            if level is not None and level >= threshold:
                self.state = PENDING
            return noted
        if level is not None and level < threshold:
            self.state = STOPPING
            return None
        return dmx.universe

    # Manual nodes: (id, short_name, long_name, universe, ip, port).

    def _emit(self, *entries, end=""):
        texts = [f"{digit}:{node[3]}:{node[4]}:{node[5]}" for digit, node in entries]
        self.signals.append(("OnArtnetNodesUpdated", ("".join(text + ";" for text in texts) if end else ";".join(texts),)))

    def _find(self, key):
        return next((index for index, node in enumerate(self.nodes) if node[0] == key and key >= 0), None)

    def init_manual_nodes(self, nodes):
        if self.nodes or any(node[0] < 0 for node in nodes):
            return False
        self._emit(*((1, node) for node in nodes), end=";")
        self.nodes = list(nodes)
        return True

    def add_manual_node(self, node):
        if node[0] < 0 or self._find(node[0]) is not None:
            return False
        self._emit((1, node))
        self.nodes.append(node)
        return True

    def update_manual_node(self, node):
        index = self._find(node[0])
        if index is None:
            return False
        self._emit((0, self.nodes[index]), (1, node))
        self.nodes[index] = node
        return True

    def remove_manual_node(self, key):
        index = self._find(key)
        if index is None:
            return False
        self._emit((0, self.nodes.pop(index)))
        return True

    def remove_all_manual_nodes(self):
        self._emit(*((0, node) for node in self.nodes), end=";")
        self.nodes = []


# ---- scripts ----------------------------------------------------------------------------------------------------------

SMALL = 8  # channels, and slots of most packets
THRESHOLD = 100


def random_script(seed, length):
    """Steps, each (name, arguments...). A "receive" step is one datagram, a tuple of packets."""
    dice = random.Random(seed)

    def channel():
        return dice.choice([NOT_SET, 1, 2, 3, dice.randint(1, SMALL), 512, 513, 0, -2])

    def packet():
        kind = dice.random()
        if kind < 0.8:
            size = dice.choice([SMALL, SMALL, SMALL, dice.randint(0, SMALL), 512])
            data = bytes(dice.choice([0, 1, 2, 3, THRESHOLD - 1, THRESHOLD, 255]) for _ in range(size))
            return Dmx(dice.choice([0, 0, 0, 1, 2, 0x7FFF, 0x8000]), data)
        if kind < 0.9:
            return Trigger(dice.randrange(256), dice.randrange(256))
        return dice.choice([POLL, DELAY, CUT, OVERSIZED])

    def datagram():
        packets = [packet() for _ in range(dice.choice([1, 1, 1, 1, 2, 3]))]
        # What is cut off ends its datagram.
        for index, each in enumerate(packets):
            if each is CUT:
                return tuple(packets[: index + 1])
        return tuple(packets)

    def node():
        key = dice.choice([-1, 0, 1, 2, 3, 2147483647])
        return (key, "n%1", "long", dice.randint(-1, 40000), dice.choice(["10.0.0.9", "", "%3"]), dice.randint(0, 70000))

    def settings():
        return dice.choice(
            [
                ("set_ctrl_universe", dice.choice([1, 1, 1, 2, NOT_SET, 32768, 32769, 0])),
                ("set_ctrl_action", channel(), channel(), dice.choice([NOT_SET, 1, 2, 10, 255, 256, 0])),
                ("set_ctrl_record", channel(), dice.choice([THRESHOLD, THRESHOLD, THRESHOLD, NOT_SET, 1, 255, 256, 0])),
                ("set_ctrl_record", dice.randint(1, SMALL), THRESHOLD),
            ]
        )

    def manual():
        return dice.choice(
            [
                ("add_manual_node", node()),
                ("update_manual_node", node()),
                ("remove_manual_node", dice.choice([-1, 0, 1, 2, 3])),
                ("init_manual_nodes", tuple(node() for _ in range(dice.randint(0, 3)))),
                ("remove_all_manual_nodes",),
            ]
        )

    steps = []
    for _ in range(length):
        kind = dice.random()
        if kind < 0.55:
            steps.append(("receive", datagram()))
        elif kind < 0.66:
            steps.append(("grab", dice.choice(["cue0", "cue1", "cue2", "cue3", "cue3", "", "missing/cue"])))
        elif kind < 0.71:
            steps.append(("stop",))
        elif kind < 0.80:
            steps.append(("get_status",) if dice.random() < 0.7 else ("latest_grab",))
        elif kind < 0.92:
            steps.append(settings())
        else:
            steps.append(manual())
    return steps


class Disagreement(AssertionError):
    """Service and model differ; `step` is the index of the step after which it was seen."""

    def __init__(self, step, what):
        super().__init__(what)
        self.step = step


def _on_service(service, step):
    """Does one step on the service; its answer in the model's form."""
    name, *arguments = step
    client, world = service.client, service.world
    if name == "receive":
        world.console.send(b"".join(packet.wire for packet in arguments[0]))
        service.settle()
        return None
    if name == "grab":
        return client.grab(arguments[0] and world.path(arguments[0]))
    if name == "init_manual_nodes":
        return client.init_manual_nodes(list(arguments[0]))
    answer = client.call(name, *arguments)
    if name == "latest_grab":
        path, empty, ceiling, universes = split_grab_text(answer)
        return (os.path.basename(path), empty, ceiling, frozenset(universes))
    return answer


def compare(service, script, model):
    """Runs a script on a fresh service and on a model. Raises Disagreement at the first step that differs."""
    start = service.client.signals.mark()
    for index, step in enumerate(script):
        name, *arguments = step
        expected = getattr(model, name)(*arguments)
        answer = _on_service(service, step)
        if answer != expected:
            raise Disagreement(index, f"the service answers {answer!r}, the model {expected!r}")
        if name in ("receive", "grab", "stop"):
            status = service.client.get_status()
            if status != model.get_status():
                raise Disagreement(index, f"the service is {status!r}, the model {model.get_status()!r}")
        if model.finished:
            service.client.latest_grab()  # answers when the files are whole
        while model.finished:
            cue, datagrams = model.finished.pop(0)
            try:
                Recording.of_datagrams(service.world.path(cue), datagrams)
            except AssertionError as error:
                raise Disagreement(index, f"the file {cue} does not hold what the model says: {error}") from error
        # Everything before this step has been answered, so its signals have been sent; they may still be on their way.
        signals = [(signal.name, signal.arguments) for signal in service.client.signals.since(start)]
        if signals != model.signals:
            raise Disagreement(index, f"the service emitted {signals[-5:]!r}, the model {model.signals[-5:]!r}")


def shortest(script, disagrees, tries=100):
    """A shorter script that still disagrees: its end cut off, then ever smaller pieces left out that may be.

    `disagrees` runs a script and gives the Disagreement or None.
    """
    found = disagrees(script)
    assert found is not None
    script = script[: found.step + 1]
    piece = len(script) // 2
    while piece > 0:
        end = len(script) - 1
        while end > 0 and tries > 0:
            shorter = script[: max(0, end - piece)] + script[end:]
            tries -= 1
            found = disagrees(shorter)
            if found is not None:
                script = shorter[: found.step + 1]
            end = min(end - piece, len(script) - 1)
        piece //= 2
    return script
