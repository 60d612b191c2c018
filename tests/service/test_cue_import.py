"""Captures become recordings, and recordings captures, as other programs understand them."""

import gzip
import os
import struct
import subprocess

import pytest
from cue_tool import DEADLINE, write_beside
from harness import EXECUTABLE
from harness.artnet import art_dmx, art_poll, oem_vfps_ns
from harness.sanitizers import environment

CUE = str(EXECUTABLE.parent / "kadrel-cue")

FIRST, SECOND = art_dmx(0, bytes(range(256)) * 2), art_dmx(4, b"\x01\x02\x03\x04")
SHOW = FIRST + oem_vfps_ns(25_000_001) + SECOND


def run(*words, **options):
    outcome = subprocess.run(
        [CUE, *map(str, words)], check=False, capture_output=True, timeout=60, env={**os.environ, **environment()}, **options
    )
    return outcome.returncode, outcome.stdout, outcome.stderr.decode()


def udp_frame(payload, port=6454, sender=1):
    """Ethernet, IPv4 from 10.0.0.SENDER, UDP."""
    datagram = struct.pack(">HHHH", 40000, port, 8 + len(payload), 0) + payload
    packet = struct.pack(">BBHHHBBH8B", 0x45, 0, 20 + len(datagram), 0, 0, 64, 17, 0, 10, 0, 0, sender, 10, 0, 0, 2)
    return bytes(12) + b"\x08\x00" + packet + datagram


def pcap(*frames):
    """A capture with one frame a second."""
    head = struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 262144, 1)
    return head + b"".join(struct.pack("<IIII", at, 0, len(each), len(each)) + each for at, each in enumerate(frames))


@pytest.fixture
def show(tmp_path):
    path = tmp_path / "show.cue"
    path.write_bytes(SHOW)
    return path


@pytest.fixture
def exported(tmp_path, show):
    path = tmp_path / "show.pcap"
    assert run("export", show, "--pcap", path)[0] == 0
    return path


def test_an_exported_capture_comes_back_byte_for_byte(tmp_path, exported):
    back = tmp_path / "back.cue"
    assert run("import", exported, "-o", back) == (0, f"{back}: 2 datagrams, 0.025 s\n".encode(), "")
    assert back.read_bytes() == SHOW


def test_a_capture_goes_through_pipes(tmp_path, exported):
    said = "standard output: 2 datagrams, 0.025 s\n"
    content = exported.read_bytes()
    assert run("import", "-", "-o", "-", input=content) == (0, SHOW, said)
    assert run("import", "-", "-o", "-", input=gzip.compress(content)) == (0, SHOW, said)
    pipe = tmp_path / "pipe"
    os.mkfifo(pipe)
    writer = write_beside(pipe, content)
    outcome = run("import", pipe, "-o", "-")
    writer.join(DEADLINE)
    assert outcome == (0, SHOW, said)


@pytest.mark.parametrize("form", ["pcapng", "nsecpcap"])
def test_what_wireshark_writes_is_read(tmp_path, exported, form):
    other = tmp_path / "other"
    subprocess.run(["editcap", "-F", form, exported, other], check=True, timeout=60)
    assert run("import", other, "-o", "-")[:2] == (0, SHOW)


def test_interfaces_of_several_link_types_are_read_from_one_file(tmp_path, exported):
    raw, both = tmp_path / "raw.pcap", tmp_path / "both.pcapng"
    frame = udp_frame(SECOND)[14:]
    head = struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 262144, 101)
    raw.write_bytes(head + struct.pack("<IIII", 1, 0, len(frame), len(frame)) + frame)
    subprocess.run(["mergecap", "-F", "pcapng", "-w", both, exported, raw], check=True, timeout=60)
    code, out, _ = run("import", both, "-o", "-")
    assert (code, out) == (0, SHOW + oem_vfps_ns(974_999_999) + SECOND)


def test_tshark_decodes_an_exported_capture(exported):
    fields = ["artnet.output.universe", "ip.checksum.status", "udp.dstport"]
    words = [word for field in fields for word in ("-e", field)]
    decoded = subprocess.run(
        ["tshark", "-r", exported, "-o", "ip.check_checksum:TRUE", "-T", "fields", *words],
        check=True, capture_output=True, text=True, timeout=60,
    ).stdout
    assert decoded == "0\t1\t6454\n4\t1\t6454\n"


def test_a_capture_without_levels_says_what_it_holds_and_leaves_the_output_alone(tmp_path):
    capture, out = tmp_path / "in.pcap", tmp_path / "good.cue"
    capture.write_bytes(pcap(udp_frame(art_poll()), udp_frame(FIRST, port=6455)))
    out.write_bytes(SHOW)
    code, said, error = run("import", capture, "--force", "-o", out)
    assert (code, said) == (1, b"")
    assert error == (
        f"kadrel-cue: {capture}: holds no Art-Net or E1.31 levels to import, but 1 datagram without a whole ArtDmx left out, "
        "1 datagram of Art-Net or E1.31 at port 6455 (see --port)\n"
    )
    assert out.read_bytes() == SHOW
    assert sorted(os.listdir(tmp_path)) == ["good.cue", "in.pcap"]
    assert run("import", capture, "--port", 6455, "-o", "-")[:2] == (0, FIRST)


def test_a_capture_that_breaks_off_gives_its_good_part_and_no_success(tmp_path, exported):
    cut = tmp_path / "cut.pcap"
    cut.write_bytes(exported.read_bytes()[:-1])
    code, out, error = run("import", cut, "-o", "-")
    assert (code, out) == (1, FIRST)
    assert error.startswith(f"standard output: 1 datagram, 0.000 s\nkadrel-cue: {cut}: truncated")


def test_senders_and_protocols_are_chosen(tmp_path):
    capture = tmp_path / "in.pcap"
    levels = b"\x00\x10\0\0ASC-E1.17\0\0\0\x70\x72\0\0\0\x04" + b"C" * 16 + b"\x70\x5c\0\0\0\x02" + b"desk".ljust(64, b"\0")
    levels += b"\x64\0\0\x07\0\0\x05\x70\x0f\x02\xa1\0\0\0\x01\0\x05\0\x01\x02\x03\x04"
    capture.write_bytes(pcap(udp_frame(FIRST), udp_frame(SECOND, sender=2), udp_frame(levels, port=5568)))
    code, _, error = run("import", capture, "-o", "-")
    both = "holds both Art-Net (2 datagrams) and E1.31 (1 packet); choose one with --protocol"
    assert (code, error) == (1, f"kadrel-cue: {capture}: {both}\n")
    assert run("import", capture, "--protocol", "sacn", "-o", "-")[:2] == (0, art_dmx(4, b"\x01\x02\x03\x04", sequence=7))
    assert run("import", capture, "--protocol", "artnet", "--sender", "10.0.0.2", "-o", "-")[:2] == (0, SECOND)
    both_senders = ["--sender", "10.0.0.2", "--sender", "10.0.0.1"]
    assert run("import", capture, "--protocol", "artnet", *both_senders, "-o", "-")[1] == FIRST + oem_vfps_ns(10**9) + SECOND
    for wrong in (["--protocol", "dmx"], ["--sender", "desk"], ["--port", "0"]):
        assert run("import", capture, *wrong, "-o", "-")[:2] == (2, b"")
