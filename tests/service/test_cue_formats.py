"""kadrel-cue converts recordings to the formats of other programs, and olad plays what it wrote."""

import gzip
import json
import re
import signal
import subprocess
from pathlib import Path

import pytest
from harness import ARTNET_PORT, EXECUTABLE
from harness.artnet import OP_DMX, art_dmx, dmx_data, oem_vfps_ns, opcode_of, port_address_of

CUE = EXECUTABLE.parent / "kadrel-cue"
DEADLINE = 60
MS = 1_000_000

FORMATS = ("pcap", "pcap-sacn", "fseq", "fseq1", "ola", "ola2", "csv")
IMPORTED = FORMATS[:-1]


def recording(datagrams):
    """A file of datagrams, each with the pause before it in ns."""
    return b"".join((oem_vfps_ns(pause) if at else b"") + datagram for at, (datagram, pause) in enumerate(datagrams))


def frame(number, universe, slots=512):
    levels = bytes([number % 256, universe % 256] * (slots // 2))
    return art_dmx(universe, levels, sequence=number % 255 + 1)


def show(steps=40, universes=(0, 1), slots=512, step=25 * MS):
    """All universes at every step, the sequence counted from 1."""
    return recording(
        [
            (frame(number, universe, slots), 0 if before else step)
            for number in range(steps)
            for before, universe in enumerate(universes)
        ]
    )


def run(*arguments, stdin=None, expected=0):
    done = subprocess.run(
        [CUE, *map(str, arguments)], input=stdin, capture_output=True, timeout=DEADLINE, check=False
    )
    assert done.returncode == expected, done.stderr
    return done.stdout, done.stderr.decode()


@pytest.fixture
def cue(tmp_path):
    path = tmp_path / "show.cue"
    path.write_bytes(show())
    return path


@pytest.mark.parametrize("kind", FORMATS)
def test_a_format_is_the_same_in_a_file_and_through_pipes(cue, tmp_path, kind):
    out, errors = run("export", cue, "--format", kind, "-o", tmp_path / "out")
    assert errors == "" and out.decode().startswith(f"{tmp_path}/out: ")
    piped, words = run("export", "-", "--format", kind, "-o", "-", stdin=cue.read_bytes())
    assert words == out.decode().replace(f"{tmp_path}/out", "standard output")
    written = (tmp_path / "out").read_bytes()
    if kind == "fseq":  # its identifier is the time of creation
        piped, written = (bytes_[:24] + bytes_[32:] for bytes_ in (piped, written))
    assert piped == written


@pytest.mark.parametrize("kind", FORMATS)
def test_damage_is_passed_over_with_a_warning_unless_that_is_refused(tmp_path, kind):
    damaged = tmp_path / "damaged.cue"
    damaged.write_bytes(show() + oem_vfps_ns(1) + b"Art-Net")
    run("export", damaged, "--format", kind, "-o", tmp_path / "strict", "--strict", expected=1)
    assert not (tmp_path / "strict").exists()
    _, errors = run("export", damaged, "--format", kind, "-o", tmp_path / "out", expected=1)
    assert errors.count("\n") == 1 and "damaged.cue: byte " in errors
    (tmp_path / "whole.cue").write_bytes(show())
    run("export", tmp_path / "whole.cue", "--format", kind, "-o", tmp_path / "whole")
    good, whole = ((tmp_path / name).read_bytes() for name in ("out", "whole"))
    assert good[:24] + good[32:] == whole[:24] + whole[32:]


def test_an_export_replaces_a_file_only_with_force(cue, tmp_path):
    target = tmp_path / "out"
    target.write_bytes(b"mine")
    run("export", cue, "--format", "ola", "-o", target, expected=1)
    assert target.read_bytes() == b"mine"
    run("export", cue, "--format", "ola", "-o", target, "--force")
    assert target.read_bytes().startswith(b"OLA Show\n1 0,0,0")


def test_an_export_says_what_the_format_does_not_hold(tmp_path):
    path = tmp_path / "show.cue"
    first, second = art_dmx(0, b"ab", sequence=1), art_dmx(0, b"cd", sequence=2)
    path.write_bytes(recording([(first, 0), (second, 5 * MS), (art_dmx(3, b"ef"), 2_500_001)]))
    out, _ = run("export", path, "--format", "fseq", "-o", tmp_path / "out.fseq")
    assert out.decode().split("\n")[1:-1] == [
        "  not in it: the times of 2 datagrams to up to 20.0 ms, the later begin of 1 universe (filled with 0), "
        "the sequence numbers of 2 ArtDmx"
    ]
    out, _ = run("export", path, "--format", "ola", "-o", tmp_path / "out.ola")
    assert out.decode().split("\n")[1:-1] == [
        "  not in it: the times of 1 datagram below 1 ms, the sequence numbers of 2 ArtDmx"
    ]
    assert (tmp_path / "out.ola").read_bytes() == b"OLA Show\n1 97,98\n5\n1 99,100\n3\n4 101,102\n"


@pytest.mark.parametrize(
    "words",
    [
        ["--format", "fseq"],
        ["-o", "out"],
        [],
        ["--format", "dmx", "-o", "out"],
        ["--format", "ola", "-o", "out", "--step", "0.05"],
        ["--format", "fseq", "-o", "out", "--step", "0.256"],
        ["--format", "fseq", "-o", "out", "--step", "0"],
        ["--format", "fseq", "-o", "out", "--step", "0.0255"],
        ["--format", "ola", "-o", "out", "--pcap", "./out"],
        ["--format", "ola", "-o", "out", "--csv", "out"],
    ],
    ids=" ".join,
)
def test_words_that_do_not_go_together_are_refused(cue, words):
    run("export", cue, *words, expected=2)


def test_the_step_of_a_sequence_may_be_chosen(cue, tmp_path):
    for word, step in (("0.05", 50), ("255ms", 255), ("1 ms", 1)):
        run("export", cue, "--format", "fseq1", "--step", word, "-o", tmp_path / f"{step}.fseq")
        head = (tmp_path / f"{step}.fseq").read_bytes()[:28]
        assert head[18] == step
        assert int.from_bytes(head[14:18], "little") == -(-39 * 25 // step) + 1


@pytest.mark.parametrize("packed", [False, True], ids=["plain", "gzip"])
@pytest.mark.parametrize("kind", IMPORTED)
def test_an_export_comes_back_byte_for_byte_where_the_format_holds_all(cue, tmp_path, kind, packed):
    out = tmp_path / "out"
    run("export", cue, "--format", kind, "-o", out)
    if packed:
        out.write_bytes(gzip.compress(out.read_bytes()))
    run("import", out, "-o", tmp_path / "back.cue")
    assert (tmp_path / "back.cue").read_bytes() == cue.read_bytes()


@pytest.mark.parametrize("kind", IMPORTED)
def test_of_a_file_that_breaks_off_the_beginning_is_imported(cue, tmp_path, kind):
    out = tmp_path / "out"
    run("export", cue, "--format", kind, "-o", out)
    text = kind in ("ola", "ola2")
    out.write_bytes(out.read_bytes()[: -5 if text else -3] + (b"x" if text else b""))
    _, errors = run("import", out, "-o", tmp_path / "back.cue", expected=1)
    assert errors.startswith(f"kadrel-cue: {out}: ")
    imported = (tmp_path / "back.cue").read_bytes()
    assert len(imported) > 70 * 548 and cue.read_bytes().startswith(imported)


def test_what_ola_recorder_writes_is_imported(world):
    olad = world.olad()
    show_file = world.path("recorded")
    recorder = world.namespaces.popen(
        ["ola_recorder", "--record", show_file, "--universes", "1,7"],
        network=olad.host.name, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
    )
    try:
        # It is ready when a frame gets into its file.
        for number in range(1, 200):
            olad.set_dmx(1, [number, 5])
            if Path(show_file).exists() and Path(show_file).stat().st_size > len("OLA Show\n"):
                break
        olad.set_dmx(7, [9, 8, 7, 6])
    finally:
        recorder.send_signal(signal.SIGINT)
        recorder.wait(DEADLINE)
    run("import", show_file, "-o", world.path("back.cue"))
    out, _ = run("info", "--json", world.path("back.cue"))
    counts = subprocess.run(["ola_recorder", "--verify", show_file], capture_output=True, text=True, timeout=DEADLINE, check=True)
    (info,) = json.loads(out)
    assert [(str(each["universe"]), str(each["datagrams"])) for each in info["universes"]] == re.findall(
        r"Universe (\d+): (\d+) frames", counts.stdout + counts.stderr
    )


def test_ola_counts_the_frames_that_were_recorded(cue, tmp_path):
    run("export", cue, "--format", "ola", "-o", tmp_path / "show")
    counted = subprocess.run(
        ["ola_recorder", "--verify", tmp_path / "show"], capture_output=True, text=True, timeout=DEADLINE, check=True
    )
    # It logs and reports on either stream.
    assert re.findall(r"Universe (\d+): (\d+) frames", counted.stdout + counted.stderr) == [("1", "40"), ("2", "40")]


def test_olad_plays_an_exported_show_level_for_level(world):
    """olad's port-addresses are its universes' numbers, so universe 1 leaves it as port-address 1."""
    olad = world.olad()
    capture = olad.host.capture()
    for port, universe in enumerate((1, 2)):
        olad.patch(port, universe)
    recorded = Path(world.path("show.cue"))
    # olad drops what it has not read when ola_recorder ends: nothing new is in the last two seconds.
    repeated = b"".join(oem_vfps_ns(40 * MS) + frame(29, universe) for _ in range(25) for universe in (0, 1))
    recorded.write_bytes(show(steps=30, step=40 * MS) + repeated)
    run("export", recorded, "--format", "ola", "-o", world.path("show"))
    Path(world.path("show")).chmod(0o644)
    olad.tool("ola_recorder", "--playback", world.path("show"))
    expected = {universe + 1: [bytes([n, universe] * 256) for n in range(30)] for universe in (0, 1)}
    for port_address, levels in expected.items():
        capture.wait_for(
            lambda datagram, last=levels[-1], to=port_address: opcode_of(datagram.data) == OP_DMX
            and port_address_of(datagram.data) == to
            and dmx_data(datagram.data) == last,
            f"the last frame of universe {port_address}",
        )
    played = {port_address: [] for port_address in expected}
    for datagram in capture.datagrams():
        if datagram.outgoing and datagram.destination_port == ARTNET_PORT and opcode_of(datagram.data) == OP_DMX:
            levels = played[port_address_of(datagram.data)]
            if not levels or levels[-1] != dmx_data(datagram.data):  # olad repeats a frame now and then
                levels.append(dmx_data(datagram.data))
    # A universe that has been patched sends zeros before its first frame.
    zeros = bytes(512)
    assert {to: [each for each in levels if each != zeros] for to, levels in played.items()} == {
        to: [each for each in levels if each != zeros] for to, levels in expected.items()
    }
