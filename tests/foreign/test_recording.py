"""The recorder of another processor, under qemu, beside the one of this machine: the same traffic, the same file."""

import random
import struct
import time
from pathlib import Path

import harness.service
from both import EMULATOR, FOREIGN, OWN
from harness import Recording
from harness.artnet import IDENTIFIER, OP_OEM_VFPS_NS, art_dmx, art_trigger
from harness.world import World

UNIVERSES = (0, 1, 15, 16, 255, 256, 4096, 32767)
FRAMES = 50
LONG_PAUSE = 2.2  # seconds: more than 2^31 ns


def traffic():
    """Eight universes with all kinds of lengths and levels, and between them packets that are not recorded."""
    numbers = random.Random(6454)
    packets = []
    for frame in range(FRAMES):
        for universe in UNIVERSES:
            length = numbers.choice((2, 24, 64, 510, 512))
            packets.append(art_dmx(universe, numbers.randbytes(length), sequence=frame % 255 + 1))
        packets.append(art_trigger(frame, 255 - frame))
    return packets


def recorded(name, prefix, executable, monkeypatch):
    """Results of one recorder for the traffic: the file, the report, the answers of some calls."""
    monkeypatch.setattr(harness.service, "EXECUTABLE", Path(executable))
    with World() as world:
        service = world.start(prefix=prefix)
        with open(f"/proc/{service.pid}/cmdline", "rb") as file:
            command = file.read().split(b"\0")
        assert (EMULATOR[0].encode() in b" ".join(command)) == bool(prefix)
        client = service.client
        assert client.set_ctrl_universe(292) is True
        assert client.set_ctrl_universe(40000) is False
        assert client.add_manual_node((2, "Wäsche", "Wash 1 to 8", 5, "10.0.0.9", 6454)) is True
        path = world.path("cue")
        client.grab(path)
        packets = traffic()
        service.feed(packets[: len(packets) // 2])
        # No wait for an event: the pause is what is recorded.
        time.sleep(LONG_PAUSE)
        service.feed(packets[len(packets) // 2 :])
        assert client.get_status() == "run"
        client.stop()
        report = client.latest_grab().replace(world.directory, "")
        copy = client.dup_cue(world.directory, path)
        content = Path(path).read_bytes()
        assert Path(copy).read_bytes() == content
        signals = [(signal.name, signal.arguments) for signal in client.signals.items]
        print(f"\n{name}: {len(Recording.parse(content).records)} datagrams, {len(content)} bytes")
        return content, report, signals


def without_delays(content):
    """The file with every pause set to 0."""
    bare, offset = bytearray(content), 0
    mark = IDENTIFIER + struct.pack("<H", OP_OEM_VFPS_NS)
    for record in Recording.parse(content).records:
        if record.delay is not None:
            assert bare[offset : offset + 10] == mark
            bare[offset + 10 : offset + 18] = bytes(8)
            offset += 18
        offset += len(record.datagram)
    assert offset == len(content)
    return bytes(bare)


def test_both_processors_record_the_same_file(monkeypatch):
    own, own_report, own_signals = recorded("this machine", (), OWN, monkeypatch)
    foreign, foreign_report, foreign_signals = recorded("the other under qemu", EMULATOR, FOREIGN, monkeypatch)
    assert Recording.parse(own).datagrams == [packet for packet in traffic() if packet[8:10] == b"\x00\x50"]
    assert without_delays(foreign) == without_delays(own)
    assert own != foreign, "two recordings never have the same pauses"
    for content in (own, foreign):
        assert any(delay >= LONG_PAUSE * 1e9 for delay in Recording.parse(content).delays)
    assert sorted(foreign_report) == sorted(own_report)
    assert foreign_signals == own_signals
