"""kadrel-cue beside the service: it plays exactly what was recorded, and other programs can read its exports."""

import json
import signal
from pathlib import Path

import pytest
from cue_tool import Tool
from harness import APPLIANCE, ARTNET_PORT, CONSOLE, Recording
from harness.artnet import art_dmx, art_poll, dmx_data, oem_vfps_ns, port_address_of, slots

FRAMES = [[number % 256, 255 - number % 256, *([number % 7] * 30)] for number in range(40)]

# Datagrams whose end is hard to find.
ODD_DATAGRAMS = [
    art_dmx(0, b"\1\2\3\4"),
    art_dmx(1, bytes(8)) + bytes(504),
    art_dmx(2, oem_vfps_ns(5) + art_dmx(9, b"inner")),
    art_dmx(3, b"\5\6\7") + b"\0",
    art_poll() + art_dmx(4, b"\7\10"),
    art_dmx(5, b"\1\2") + art_dmx(6, b"\3\4"),
    art_dmx(7, b"Art-Net\0") + art_poll(),
    art_dmx(8, b"\1\2"),
]


@pytest.fixture
def tool(world):
    return Tool(world)


def record(service, name, datagrams):
    """The path of a recording of these datagrams."""
    path = service.world.path(name)
    service.client.grab(path)
    service.feed(datagrams)
    service.client.stop()
    return path


def datagrams_from(endpoint, count):
    return [endpoint.receive().data for _ in range(count)]


def test_what_olad_sent_comes_back_and_is_recorded_again(service, tool):
    world = service.world
    olad = world.olad()
    olad.patch(0, 16)
    first, second = world.path("first.cue"), world.path("second.cue")
    service.client.grab(first)
    olad.stream(olad.host.capture(), 16, 0, FRAMES)
    service.settle(olad.host.endpoint())
    service.client.stop()
    olad.close()
    recorded = Recording.read(first).datagrams
    assert len(recorded) >= len(FRAMES)

    # To a peer, as a node would get it ...
    node = world.network.peer("node", "10.77.0.30").endpoint(ARTNET_PORT)
    tool.expect("play", first, "--to", "10.77.0.30", host="console")
    assert datagrams_from(node, len(recorded)) == recorded

    # ... and to the service, which records it again.
    service.client.grab(second)
    tool.expect("play", first, "--to", APPLIANCE, host="console")
    service.settle()
    service.client.stop()
    assert Recording.read(second).datagrams == recorded


@pytest.fixture(autouse=True)
def console_host(world):
    """Every test may run the tool on the console's host."""
    return world.console_host


def test_odd_datagrams_are_played_as_they_were_recorded(service, tool):
    path = record(service, "odd.cue", ODD_DATAGRAMS)
    Recording.of_datagrams(path, ODD_DATAGRAMS)
    node = service.world.network.peer("node", "10.77.0.30").endpoint(ARTNET_PORT)
    tool.expect("play", path, "--to", "10.77.0.30", host="console")
    assert datagrams_from(node, len(ODD_DATAGRAMS)) == ODD_DATAGRAMS


def test_odd_datagrams_survive_export_and_import(service, tool):
    path = record(service, "odd.cue", ODD_DATAGRAMS)
    capture, back = service.world.path("odd.pcap"), service.world.path("back.cue")
    tool.expect("export", path, "--pcap", capture)
    tool.expect("import", capture, "-o", back)
    assert Path(back).read_bytes() == Path(path).read_bytes()


def test_a_playback_through_the_service_leaves_from_the_art_net_port(make_world):
    world = make_world(brand={"short_name": "Recorder", "oem_id": 1, "manufacturer_id": 21580})
    service, tool = world.start(), Tool(world)
    sent = [art_dmx(number, bytes([number] * 64)) for number in range(20)]
    path = record(service, "show.cue", sent)
    tool.expect("play", path, "--to", CONSOLE, "--relay", service.port, "--universe", "1=101")
    received = [world.console.receive() for _ in sent]
    assert {(datagram.address, datagram.port) for datagram in received} == {(APPLIANCE, ARTNET_PORT)}
    assert [datagram.data for datagram in received] == [art_dmx(100, bytes(64)), *sent[1:]]


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_ends_an_endless_playback_in_the_dark(service, tool, number):
    look = slots({1: 255, 512: 7})
    path = record(service, "show.cue", [art_dmx(0, look, sequence=255), art_dmx(3, b"\xff\xff")])
    node = service.world.network.peer("node", "10.77.0.30").endpoint(ARTNET_PORT)
    playing = tool.start("play", path, "--to", "10.77.0.30", "--loop", "forever", "--blackout", host="console")
    datagrams_from(node, 10)
    playing.send_signal(number)
    assert tool.finish(playing) == (0, "", "")
    *_, last = node.receive_until(lambda datagram: not any(dmx_data(datagram.data)))
    zeros = [last.data, *(datagram.data for datagram in node.waiting())]
    begin = zeros[0][12]  # its sequence number
    assert zeros == [art_dmx(address, bytes(size), sequence=number and (begin + turn - 1) % 255 + 1)
                     for turn in range(3) for address, size, number in ((0, 512, 1), (3, 2, 0))]


def test_the_last_look_is_held_until_the_tool_is_stopped(service, tool):
    path = record(service, "show.cue", [art_dmx(0, b"\1\1"), art_dmx(0, b"\2\2")])
    node = service.world.network.peer("node", "10.77.0.30").endpoint(ARTNET_PORT)
    playing = tool.start("play", path, "--to", "10.77.0.30", "--hold", "--hold-rate", "200", host="console")
    assert datagrams_from(node, 12) == [art_dmx(0, b"\1\1"), *[art_dmx(0, b"\2\2")] * 11]
    playing.send_signal(signal.SIGTERM)
    assert tool.finish(playing)[0] == 0


def test_what_is_received_of_all_kinds_of_seams_is_complete(service, tool):
    """Looks, fades, passes, hold and black-out count on: a recording of a playback proves itself complete."""
    sent = [art_dmx(number % 3, bytes([number % 200]) * 9, sequence=number // 3 % 255 + 1) for number in range(120)]
    path, again = (service.world.path(f"{name}.cue") for name in ("show", "again"))
    Path(path).write_bytes(oem_vfps_ns(5_000_000).join(sent))
    service.client.grab(again)
    node = service.world.network.peer("node", "10.77.0.30").endpoint(ARTNET_PORT)
    more = ("--loop", 3, "--start", "0.2", "--fade-in", "0.1", "--fade-out", "0.1", "--universe", "1=9", "--sync", "--blackout")
    more += ("--hold", "--hold-rate", 200)
    playing = tool.start("play", path, "--to", APPLIANCE, "--to", "10.77.0.30", *more, host="console")
    datagrams_from(node, 500)  # the passes are fewer
    playing.send_signal(signal.SIGTERM)
    assert tool.finish(playing) == (0, "", "")
    service.settle()
    service.client.stop()
    assert tool.expect("verify", "--complete", again).endswith(f"{again}: complete\n")


def test_info_tells_programs_what_was_recorded(service, tool):
    sent = [art_dmx(address, bytes(size)) for address, size in ((0, 512), (700, 24), (0, 512), (0, 512))]
    path = record(service, "sh\"ow.cue", sent)
    content, recording = Path(path).read_bytes(), Recording.read(path)
    (info,) = json.loads(tool.expect("info", "--json", path))
    assert info["file"] == path
    assert (info["bytes"], info["datagrams"], info["duration_ns"]) == (len(content), 4, sum(recording.delays))
    first, second = info["universes"]
    assert (first["universe"], first["port_address"], first["datagrams"]) == (1, 0, 3)
    assert (first["first_ns"], first["last_ns"]) == (0, sum(recording.delays))
    assert first["longest_gap_ns"] == max(recording.delays[0] + recording.delays[1], recording.delays[2])
    assert (second["universe"], second["port_address"], second["datagrams"]) == (701, 700, 1)
    assert second["first_ns"] == second["last_ns"] == recording.delays[0]


def test_a_recording_that_was_cut_off_is_repaired(service, tool):
    path = record(service, "show.cue", [art_dmx(0, bytes(100))] * 5)
    cut, repaired = service.world.path("cut.cue"), service.world.path("good.cue")
    content = Path(path).read_bytes()
    Path(cut).write_bytes(content[:-20])
    assert tool.expect("verify", path).startswith(f"{path}: whole, 5 datagrams, ")
    code, _, errors = tool("verify", cut)
    broken = len(content) - 118
    assert code == 1
    damage = f"byte {broken}: cut off within a datagram; good are the first {broken - 18} bytes"
    assert errors.startswith(f"kadrel-cue: {cut}: {damage}")
    assert tool("verify", "--repair", "-o", repaired, cut)[0] == 0
    assert Path(repaired).read_bytes() == content[: broken - 18]


def decoded_by_tshark(world, capture):
    """What tshark reads from a capture: time in ns, port-address and datagram of each frame."""
    lines = world.namespaces.run(
        ["sh", "-c", 'exec tshark -r "$0" -T fields -e frame.time_epoch -e artnet.output.universe -e udp.payload 2>&-',
         capture]
    )
    found = []
    for line in lines.splitlines():
        time, universe, payload = line.split("\t")
        seconds, fraction = time.split(".")
        found.append((int(seconds) * 10**9 + int(fraction), int(universe, 0), bytes.fromhex(payload)))
    return found


def test_tshark_decodes_an_export_with_its_times(service, tool):
    sent = [art_dmx(number % 4, bytes([number] * 32)) for number in range(40)]
    path = record(service, "show.cue", sent)
    capture = service.world.path("show.pcap")
    tool.expect("export", path, "--pcap", capture)
    time, expected = 0, []
    for entry in Recording.read(path).records:
        time += entry.delay or 0
        expected.append((time, port_address_of(entry.datagram), entry.datagram))
    assert decoded_by_tshark(service.world, capture) == expected


def test_a_capture_that_tshark_wrote_is_imported(service, tool):
    path = record(service, "show.cue", [art_dmx(number % 4, bytes([number] * 32)) for number in range(40)])
    capture, rewritten = service.world.path("show.pcap"), service.world.path("show.pcapng")
    tool.expect("export", path, "--pcap", capture)
    service.world.namespaces.run(["sh", "-c", 'exec tshark -F pcapng -r "$0" -w - >"$1"', capture, rewritten])
    assert Path(rewritten).read_bytes()[:4] == b"\x0a\x0d\x0d\x0a"
    back = service.world.path("back.cue")
    tool.expect("import", rewritten, "-o", back)
    assert Path(back).read_bytes() == Path(path).read_bytes()


def test_parts_put_together_again_are_the_whole(service, tool):
    sent = [art_dmx(0, bytes([number] * 32)) for number in range(40)]
    path = record(service, "show.cue", sent)
    delays = Recording.read(path).delays
    middle = sum(delays[:20])
    at = f"{middle // 10**9}.{middle % 10**9:09d}"
    gap = f"{delays[19] // 10**9}.{delays[19] % 10**9:09d}"
    head, tail, whole = (service.world.path(f"{name}.cue") for name in ("head", "tail", "whole"))
    tool.expect("cut", path, "--stop", at, "-o", head)
    tool.expect("cut", path, "--start", at, "-o", tail)
    assert (Recording.read(head).datagrams, Recording.read(tail).datagrams) == (sent[:20], sent[20:])
    tool.expect("join", head, tail, "--gap", gap, "-o", whole)
    assert Path(whole).read_bytes() == Path(path).read_bytes()


def test_every_command_has_help_with_examples(tool):
    for command in ("info", "verify", "play", "cut", "join", "export", "import", "plot"):
        assert f"\n  kadrel-cue {command} " in tool.expect(command, "--help")


@pytest.mark.parametrize(
    "arguments, message",
    [
        ([], "A subcommand is required"),
        (["play", "show.cue"], "--to is required"),
        (["play", "show.cue", "--to", "somewhere"], '"somewhere" is not an IPv4 address'),
        (["play", "show.cue", "--to", "10.0.0.1", "--speed", "101"], '"101" is not a factor from 0.01x to 100x, or per cent'),
        (["play", "show.cue", "--to", "10.0.0.1", "--loop", "2.5"], '"2.5" is not a number of passes (from 1 to 2^63)'),
        (["play", "show.cue", "--sacn", "--sync"], "--sync is of Art-Net and not for --sacn"),
        (["play", "show.cue", "--to", "10.0.0.1", "--priority", "9"], "--priority requires --sacn"),
        (["play", "show.cue", "--sacn", "--priority", "201"], "--priority: Value 201 not in range 0 to 200"),
        (["cut", "show.cue", "--start", "2", "--stop", "1", "-o", "out.cue"], "--stop is before --start"),
        (["verify", "--repair", "show.cue"], "--repair requires"),
        (["export", "show.cue"], "--pcap or --csv is needed"),
        (["export", "show.cue", "--pcap", "here", "--csv", "./here"], "two outputs name the same file"),
    ],
)
def test_a_command_line_that_is_not_understood_ends_with_2(tool, arguments, message):
    code, out, errors = tool(*arguments)
    assert (code, out) == (2, "")
    assert errors.startswith("kadrel-cue: ") and message in errors and errors.count("\n") == 1


def test_a_file_that_is_not_there_ends_with_1(tool):
    for arguments in (["info"], ["verify"], ["play", "--to", CONSOLE], ["cut", "-o", "out.cue"], ["plot", "-o", "out.svg"]):
        code, out, errors = tool(*arguments, "/nowhere/show.cue")
        assert (code, out, errors) == (1, "", "kadrel-cue: /nowhere/show.cue: No such file or directory\n")
