"""What kadrel-cue says of the sequence numbers in recordings of lighting software, and in recordings of which a part is gone."""

import json
import os
import subprocess

import pytest
from harness import BROADCAST, EXECUTABLE, Recording, spin_until
from harness.artnet import OP_DMX, art_dmx, oem_vfps_ns, opcode_of
from harness.dmxnet import DmxNet
from harness.olad import is_frame
from harness.qlcplus import QlcPlus
from harness.sanitizers import environment

CUE = EXECUTABLE.parent / "kadrel-cue"
FRAME = 22_727_272


def cue(*words, **options):
    """Exit code, output and errors of kadrel-cue."""
    outcome = subprocess.run(
        [CUE, *map(str, words)], capture_output=True, text=True, check=False, env={**os.environ, **environment()}, **options
    )
    return outcome.returncode, outcome.stdout, outcome.stderr


def judged(path):
    """The last line of verify --complete with its exit code, and the universes of info --json."""
    code, out, _ = cue("verify", "--complete", path)
    verdict = out.splitlines()[-1]
    assert verdict.startswith(f"{path}: ")
    (info,) = json.loads(cue("info", "--json", path)[1])
    assert info["verdict"] == verdict[len(f"{path}: ") :]
    return code, info["verdict"], info["universes"]


def is_dmx(datagram):
    return opcode_of(datagram.data) == OP_DMX


def write(path, frames):
    """A recording of (pause in ns, datagram)."""
    with open(path, "wb") as file:
        for number, (pause, datagram) in enumerate(frames):
            file.write((oem_vfps_ns(pause) if number else b"") + datagram)
    return path


def without(path, lost, cut):
    """A copy of a recording without the datagrams of these places; the pauses become longer."""
    frames, pause = [], 0
    for place, record in enumerate(Recording.read(path).records):
        pause += record.delay or 0
        if place not in lost:
            frames.append((pause, record.datagram))
            pause = 0
    return write(cut, frames)


def numbered(universe, sequence):
    dmx = bytearray(art_dmx(universe, bytes(64)))
    dmx[12] = sequence
    return bytes(dmx)


def numbers(path):
    return [datagram[12] for datagram in Recording.read(path).datagrams]


def test_a_recording_of_olad_proves_itself_complete(service, tmp_path):
    olad = service.world.olad()
    capture = olad.host.capture()
    path = service.world.path("cue")
    olad.patch(0, 16)
    service.client.grab(path)
    olad.stream(capture, 16, 0, [[number % 256, number // 256] for number in range(600)])
    service.settle(olad.host.endpoint())
    service.client.stop()
    code, verdict, (universe,) = judged(path)
    # olad counts from 0 to 255.
    assert 0 in numbers(path)
    assert (code, universe["counting"], universe["missing"], universe["not_numbered"]) == (0, "own", 0, 0)
    assert verdict in ("complete", "complete as far as the senders count")
    code, verdict, (universe,) = judged(without(path, {400, 401, 500}, tmp_path / "cut"))
    assert (code, verdict) == (1, "3 datagrams missing in 1 universe")
    assert (universe["holes"], universe["longest_hole"]) == (2, 2)


def test_a_recording_of_qlcplus_proves_itself_complete(service):
    world = service.world
    host = world.network.peer("qlcplus", "10.77.0.6")
    capture = host.capture()
    path = world.path("cue")
    service.client.grab(path)
    with QlcPlus(world, host, [11, 22, 33, 44]):
        capture.wait_for(lambda datagram: is_frame(datagram, 1, [11, 22, 33, 44]), "ArtDmx of the scene")
        count = 60
        spin_until(lambda: sum(map(is_dmx, capture.datagrams())) >= count, "frames of QLC+")
        service.settle()
        service.client.stop()
    code, verdict, universes = judged(path)
    assert [(universe["universe"], universe["missing"]) for universe in universes] == [(1, 0), (2, 0)]
    assert (code, verdict) == (0, "complete")


def test_a_recording_of_dmxnet_proves_itself_complete(service, tmp_path):
    world = service.world
    host = world.network.peer("dmxnet", "10.77.0.7")
    capture = host.capture()
    path = world.path("cue")
    service.client.grab(path)
    with DmxNet(world, host, [0, 17, 0x1234], BROADCAST, frame_ms=10):
        # It counts from 1 to 255, and again from 1.
        for number in (255, 32):
            mark = len(capture.datagrams())
            capture.wait_for_next(
                mark, lambda datagram, wanted=number: is_dmx(datagram) and datagram.data[12] == wanted, f"number {number}"
            )
    service.settle(host.endpoint())
    service.client.stop()
    assert Recording.read(path).datagrams == [datagram.data for datagram in capture.datagrams() if is_dmx(datagram)]
    code, verdict, universes = judged(path)
    assert (code, verdict) == (0, "complete")
    assert [(universe["universe"], universe["counting"]) for universe in universes] == [(1, "own"), (18, "own"), (4661, "own")]
    assert cue("verify", "--strict", path)[0] == 0
    code, verdict, _ = judged(without(path, {300, 303, 401}, tmp_path / "cut"))
    assert (code, verdict) == (1, "3 datagrams missing in 2 universes")


# How other senders count, as bytes on the wire.
COUNTS = {
    "1 to 255": (lambda place: place % 255 + 1, "complete", "own"),
    "1 to 255, then 0 to 255": (lambda place: (place + 1) % 256, "complete", "own"),
    "not at all": (lambda place: 0, "complete as far as the senders count", "none"),
}


@pytest.mark.parametrize("name", COUNTS)
def test_senders_count_in_different_ways(tmp_path, name):
    count, expected, counting = COUNTS[name]
    path = write(tmp_path / "cue", [(FRAME, numbered(0, count(place))) for place in range(1000)])
    code, verdict, (universe,) = judged(path)
    assert (code, verdict, universe["counting"]) == (0, expected, counting)


def test_a_sender_with_one_counter_for_all_universes_is_recognised(tmp_path):
    frames = [(0 if place % 12 else FRAME, numbered(place % 12, place % 255 + 1)) for place in range(3000)]
    path = write(tmp_path / "cue", frames)
    code, verdict, universes = judged(path)
    assert (code, verdict) == (0, "complete")
    assert {universe["counting"] for universe in universes} == {"shared"}
    code, verdict, _ = judged(without(path, {1500}, tmp_path / "cut"))
    assert (code, verdict) == (1, "1 datagram missing in 12 universes")


def test_info_and_verify_agree_on_damaged_files(tmp_path):
    path = write(tmp_path / "cue", [(FRAME, numbered(0, place % 255 + 1)) for place in range(100)])
    whole = path.read_bytes()
    for size in (len(whole) - 1, 5000, 90):
        path.write_bytes(whole[:size])
        code, verdict, _ = judged(path)
        assert code == 1 and verdict.startswith("damaged at byte ")
        assert [cue(*words, path)[0] for words in (["info"], ["info", "--json"], ["verify"])] == [1, 1, 1]


def test_info_says_what_a_capture_is(tmp_path):
    path = write(tmp_path / "cue", [(FRAME, numbered(0, 1))])
    assert cue("export", path, "--pcap", tmp_path / "show.pcap")[0] == 0
    capture = tmp_path / "show.pcap"
    assert cue("info", capture) == (1, "", f"kadrel-cue: {capture}: a capture, see kadrel-cue import\n")
    text = "kadrel-cue: standard input: a capture, see kadrel-cue import\n"
    for command in ("info", "verify"):
        with subprocess.Popen(["cat", capture], stdout=subprocess.PIPE) as pipe:
            assert cue(command, "-", stdin=pipe.stdout) == (1, "", text)
