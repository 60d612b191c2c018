"""Pictures of recordings, as kadrel-cue plot draws them."""

import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest
from harness import EXECUTABLE
from harness.artnet import art_dmx, oem_vfps_ns, slots

CUE = EXECUTABLE.parent / "kadrel-cue"
DEADLINE = 20
SECOND = 10**9


def recording(directory, datagrams, tail=b""):
    """The path of a recording of these datagrams, one a second, with something of no recording behind it."""
    path = directory / "show.cue"
    path.write_bytes(oem_vfps_ns(SECOND).join(datagrams) + tail)
    return path


def plot(*arguments):
    command = [str(CUE), "plot", *map(str, arguments)]
    done = subprocess.run(command, capture_output=True, text=True, timeout=DEADLINE)
    return done.returncode, done.stdout, done.stderr


def texts(path):
    """All words of a picture, in order."""
    return [element.text for element in ElementTree.parse(path).iter("{http://www.w3.org/2000/svg}text")]


@pytest.mark.parametrize("stop", ["0.000000005", "0.7 ms", "10ms", "1", "59 s", "1:30", "10m00.000s", "19:59"])
def test_the_times_of_an_axis_are_taken_as_times(tmp_path, stop):
    show = recording(tmp_path, [art_dmx(0, bytes([second % 256])) for second in range(1201)])
    assert plot(show, "--stop", stop, "-o", tmp_path / "show.svg")[0] == 0
    ticks = [text for text in texts(tmp_path / "show.svg") if re.fullmatch(r"[0-9.]+ s|[0-9:.]+:[0-9:.]+", text)]
    assert len(ticks) >= 5 and len(set(ticks)) == len(ticks)
    part = tmp_path / "part.svg"
    code, out, errors = plot(show, "--start", ticks[1], "--stop", ticks[-1], "-o", part)
    assert (code, errors) == (0, "") and out.startswith(f"{part}: ")


def test_a_damaged_recording_is_drawn_as_far_as_it_is_good(tmp_path):
    show = recording(tmp_path, [art_dmx(0, slots({1: 255})), art_dmx(0, slots({}))], tail=oem_vfps_ns(1) + b"rubbish")
    picture = tmp_path / "show.svg"
    code, out, errors = plot(show, "-o", picture)
    assert (code, out) == (1, f"{picture}: 1.000 s\n")
    assert errors.startswith(f"kadrel-cue: {show}: byte ") and "verify --repair" in errors and errors.count("\n") == 1
    assert "1 of 512 slots" in texts(picture)


def test_strict_refuses_a_damaged_recording(tmp_path):
    show = recording(tmp_path, [art_dmx(0, slots({1: 255}))], tail=oem_vfps_ns(1) + b"rubbish")
    code, out, errors = plot(show, "--strict", "-o", tmp_path / "show.svg")
    assert (code, out) == (1, "") and errors.startswith(f"kadrel-cue: {show}: byte ")
    assert [path.name for path in tmp_path.iterdir()] == ["show.cue"]


def test_a_time_that_is_none_is_refused_with_examples(tmp_path):
    code, out, errors = plot("show.cue", "--start", "1:5", "-o", tmp_path / "show.svg")
    assert (code, out) == (2, "")
    assert '"1:5" is not a time such as 90, 1.5, 250 ms, 1m30.5 or 1:02:03.5' in errors
