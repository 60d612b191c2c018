"""What kadrel-cue says of lighting software that others have written, while it sends: on the wire, and in a recording."""

import contextlib
import json
import subprocess

import pytest
from cue_tool import Tool
from harness import ARTNET_PORT, BROADCAST, DeadlinePassed, spin_until
from harness.artnet import art_poll
from harness.dmxnet import SHORT_NAME as DMXNET_NAME
from harness.dmxnet import DmxNet
from harness.olad import SHORT_NAME as OLAD_NAME
from harness.qlcplus import SHORT_NAME as QLCPLUS_NAME
from harness.qlcplus import QlcPlus
from test_cue_record import Record

# It takes the machine some time to start them, and longer when it is busy.
PATIENCE = 60
OLAD, QLCPLUS, DMXNET = "10.77.0.20", "10.77.0.6", "10.77.0.7"
LEVELS = [11, 22, 33, 44, 55, 255]
# Port-addresses of two nets, and of two sub-nets of one.
DMXNET_UNIVERSES = [0, 17, 0x1234]


@contextlib.contextmanager
def dmxnet(world):
    """Three universes, forty times a second."""
    with DmxNet(world, world.network.peer("dmxnet", DMXNET), DMXNET_UNIVERSES, BROADCAST):
        yield lambda: None


@contextlib.contextmanager
def qlcplus(world):
    """A dark universe, and one with a look that stands."""
    with QlcPlus(world, world.network.peer("qlcplus", QLCPLUS), LEVELS):
        yield lambda: None


@contextlib.contextmanager
def olad(world):
    """One universe by Art-Net and one by E1.31 to its group. It sends when it is given levels."""
    made = world.olad(OLAD, net=1, subnet=2, e131_outputs=1)
    made.patch(0, 3)
    made.patch_e131(0, 300)

    def feed():
        made.set_dmx(3, LEVELS)
        made.set_dmx(300, LEVELS[::-1])

    yield feed


def has_ended(process):
    """Whether it has ended, or does so within a moment."""
    with contextlib.suppress(subprocess.TimeoutExpired):
        process.wait(0.05)
        return True
    return False


class Listener:
    """kadrel-cue top on a host that hears broadcasts, groups, and what it is sent itself."""

    def __init__(self, world):
        self.tool = Tool(world)
        self.console = world.console
        self.figures = None

    def listen(self, feed):
        """The streams that are heard in two seconds, by protocol and universe; meanwhile every sender is asked for its name."""
        top = self.tool.start("top", "eth0", "--once", "--json", host="console")
        while not has_ended(top):
            self.console.send(art_poll(), to=(BROADCAST, ARTNET_PORT))
            feed()
        _, out, errors = self.tool.finish(top)
        assert errors == ""
        self.figures = json.loads(out)
        return {(stream["protocol"], stream["universe"]): stream for stream in self.figures["streams"]}

    def hear(self, feed, expected):
        """Listens until every stream is as expected: by protocol and universe its fields, or what they must fulfil."""
        seen = {}

        def heard():
            seen.clear()
            seen.update(self.listen(feed))
            return seen.keys() >= expected.keys() and all(
                matches(seen[key][field], value) for key, fields in expected.items() for field, value in fields.items()
            )

        with contextlib.suppress(DeadlinePassed):
            spin_until(heard, "the streams", PATIENCE)
        for key, fields in expected.items():
            assert key in seen, (key, sorted(seen))
            wrong = {field: seen[key][field] for field, value in fields.items() if not matches(seen[key][field], value)}
            assert wrong == {}, (key, seen[key])
        assert self.figures["lost"] == 0
        return seen


def matches(found, wanted):
    return wanted(found) if callable(wanted) else found == wanted


def begins(levels):
    return lambda found: found[: len(levels)] == levels


def about(rate):
    return lambda found: rate * 0.8 <= found <= rate * 1.2


def is_above_zero(rate):
    return rate > 0


@pytest.fixture
def listener(world):
    return Listener(world)


def stream(sender, name, address, **others):
    """A stream of which nothing is missing."""
    return {"sender": sender, "name": name, "address": address, "missing": 0, "contested": False, "highest": 255, **others}


def test_dmxnet_is_on_the_screen(world, listener):
    with dmxnet(world) as feed:
        heard = listener.hear(
            feed,
            {
                ("artnet", port_address + 1): stream(
                    DMXNET, DMXNET_NAME, address, rate=about(40), slots=512, counting="own", unicast=False,
                    levels=lambda found, place=place: found[1:] == [place, 255, *[0] * 509],
                )
                for place, (port_address, address) in enumerate(zip(DMXNET_UNIVERSES, ("0:0:0", "0:1:1", "18:3:4")))
            },
        )
    assert {key[1] for key in heard} == {number + 1 for number in DMXNET_UNIVERSES}


def test_qlcplus_is_on_the_screen(world, listener):
    with qlcplus(world) as feed:
        listener.hear(
            feed,
            {
                ("artnet", 1): stream(QLCPLUS, QLCPLUS_NAME, "0:0:0", rate=about(50), slots=512, highest=0, levels=[0] * 512),
                ("artnet", 2): stream(
                    QLCPLUS, QLCPLUS_NAME, "0:0:1", rate=about(50), slots=512, levels=[*LEVELS, *[0] * 506]
                ),
            },
        )


def test_olad_is_on_the_screen_with_both_protocols(world, listener):
    with olad(world) as feed:
        listener.hear(
            feed,
            {
                ("artnet", 0x123 + 1): stream(OLAD, OLAD_NAME, "1:2:3", levels=begins(LEVELS), rate=is_above_zero),
                ("sacn", 300): stream(
                    OLAD, lambda name: name.endswith("OLA Server"), "1:2:11", levels=begins(LEVELS[::-1]), rate=is_above_zero,
                    priority=100, unicast=False,
                ),
            },
        )


@pytest.mark.parametrize(
    "sender, universes",
    [(dmxnet, "universes 1,18,4661"), (qlcplus, "universes 1-2"), (olad, "universe 292")],
    ids=["dmxnet", "qlcplus", "olad"],
)
def test_a_recording_from_the_terminal_is_complete(service, sender, universes):
    world = service.world
    path = world.path("act.cue")
    with contextlib.ExitStack() as stack:
        feed = stack.enter_context(sender(world))
        record = Record(world, stack)
        process = record.start(path, "--for", "3", "--universes", universes.split()[1])
        while not has_ended(process):
            feed()
        code, out, errors = record.finish(process)
    assert code == 0, (out, errors)
    lines = out.splitlines()
    assert lines[0].startswith(f"{path}: whole, ")
    assert lines[1] == f"{path}: {universes}"
    # A slow olad sends too few to prove that it counts.
    assert lines[2] in (f"{path}: complete", f"{path}: complete as far as the senders count")
