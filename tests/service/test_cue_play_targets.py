"""kadrel-cue play says whether the lights get it, and sends to several targets."""

import os
import re
import signal
import subprocess

import pytest
from cue_tool import CUE, DEADLINE, Tool, limited, open_fifo
from harness import APPLIANCE, ARTNET_PORT, CONSOLE, spin_until
from harness.artnet import art_dmx, dmx_data, oem_vfps_ns
from harness.sanitizers import environment

NODE = "10.77.0.30"
MS = 1_000_000


@pytest.fixture
def tool(world):
    assert world.console_host
    return Tool(world)


def show(world, *datagrams, pause=MS, name="show.cue"):
    """A recording in the world's directory; its path."""
    path = world.path(name)
    with open(path, "wb") as file:
        file.write(oem_vfps_ns(pause).join(datagrams))
    return path


def test_a_relay_to_a_port_where_no_service_listens_is_an_error(world, tool):
    code, _, errors = tool("play", show(world, art_dmx(0, b"\1\2")), "--to", CONSOLE, "--relay", 7777)
    assert code == 1
    reason = "no kadrel listens on port 7777 of this host"
    assert f"kadrel-cue: {CONSOLE}:6454: 1 datagram not delivered, the first: {reason}\n" in errors


def test_a_host_that_refuses_is_said_as_it_happens_and_gets_the_rest(world, tool):
    """The node begins to listen after the first refusal."""
    host = world.network.peer("node", NODE)
    capture = host.capture()
    path = show(world, *[art_dmx(0, bytes([number])) for number in range(2)], pause=100 * MS)
    playing = tool.start("play", path, "--to", NODE, "--loop", "forever", host="console")
    refusal = f"kadrel-cue: {NODE}:6454: Connection refused; going on\n"
    with limited(playing):
        assert refusal in iter(playing.stderr.readline, "")
        node = host.endpoint(ARTNET_PORT)
        assert node.receive().data in (art_dmx(0, b"\0"), art_dmx(0, b"\1"))
        playing.send_signal(signal.SIGTERM)
        code, _, errors = tool.finish(playing)
    assert code == 1
    assert re.fullmatch(rf"kadrel-cue: {NODE}:6454: \d+ datagrams? not delivered, the first: Connection refused\n", errors)
    assert capture.datagrams()


def test_a_refusal_of_the_only_datagram_is_found_out_at_the_end(world, tool):
    world.network.peer("node", NODE)
    path = show(world, art_dmx(0, b"\1"))
    not_delivered = f"kadrel-cue: {NODE}:6454: 1 datagram not delivered, the first: Connection refused\n"

    def refused():
        code, _, errors = tool("play", path, "--to", NODE, host="console")
        assert (code, errors) in ((0, ""), (1, not_delivered))
        return code == 1

    # A playback waits for it for as long as a local network needs; the first one may also have to find the host.
    spin_until(refused, "a refusal")


def test_a_broadcast_that_nobody_wants_is_no_error(world, tool):
    tool.expect("play", show(world, art_dmx(0, b"\1")), "--to", "10.77.255.255", host="console")


def test_a_target_without_a_route_keeps_no_other_from_its_datagrams(world, tool):
    node = world.network.peer("node", NODE).endpoint(ARTNET_PORT)
    sent = [art_dmx(number, bytes([number])) for number in range(3)]
    code, _, errors = tool("play", show(world, *sent), "--to", "192.0.2.1", "--to", NODE, host="console")
    assert [node.receive().data for _ in sent] == sent
    assert code == 1
    assert errors == "kadrel-cue: 192.0.2.1:6454: 3 datagrams not delivered, the first: Network is unreachable\n"


def test_universes_go_to_the_targets_that_name_them(world, tool):
    one, two = (world.network.peer(f"node{n}", f"10.77.0.3{n}") for n in (1, 2))
    first, second = one.endpoint(ARTNET_PORT), two.endpoint(7000)
    sent = [art_dmx(0, b"\1"), art_dmx(1, b"\2"), art_dmx(2, b"\3"), art_dmx(0, b"\4") + art_dmx(2, b"\5")]
    # Universe 2 is sent as 4.
    tool.expect("play", show(world, *sent), "--universe", "2=4", "--to", "10.77.0.31", "--to", "3-4=10.77.0.32:7000",
                host="console")
    assert [first.receive().data for _ in range(2)] == [art_dmx(0, b"\1"), art_dmx(0, b"\4")]
    assert [second.receive().data for _ in range(3)] == [art_dmx(3, b"\2"), art_dmx(2, b"\3"), art_dmx(2, b"\5")]


def test_it_is_an_error_when_no_target_gets_anything(world, tool):
    path = show(world, art_dmx(0, b"\1"))
    code, _, errors = tool("play", path, "--to", f"7={NODE}", host="console")
    assert (code, errors) == (1, f"kadrel-cue: {path}: no target gets any of its universes\n")


def test_several_targets_are_served_through_the_service(make_world):
    world = make_world(brand={"short_name": "Recorder", "oem_id": 1, "manufacturer_id": 21580})
    service, tool = world.start(), Tool(world)
    node = world.network.peer("node", NODE).endpoint(ARTNET_PORT)
    path = show(world, art_dmx(0, b"\1"), art_dmx(1, b"\2"))
    tool.expect("play", path, "--to", f"1={CONSOLE}", "--to", NODE, "--relay", service.port)
    for endpoint, expected in ((world.console, art_dmx(0, b"\1")), (node, art_dmx(1, b"\2"))):
        datagram = endpoint.receive()
        assert (datagram.data, datagram.address, datagram.port) == (expected, APPLIANCE, ARTNET_PORT)


def test_missing_rights_are_said_once_with_what_to_do(world, tool):
    path = show(world, art_dmx(0, b"\1"), art_dmx(0, b"\2"))
    without = ("setpriv", "--bounding-set=-sys_nice", "--inh-caps=-sys_nice") if os.geteuid() == 0 else ()
    outcome = subprocess.run(
        ["sh", "-c", 'ulimit -r 0 && exec "$@"', "sh", *without,
         str(CUE), "play", path, "--to", "127.255.255.255", "--loop", "3"],
        env={"PATH": os.environ["PATH"], **environment()}, capture_output=True, text=True, timeout=DEADLINE, check=False,
    )
    assert outcome.returncode == 0, outcome.stderr
    (line,) = outcome.stderr.splitlines()
    assert line.startswith("kadrel-cue: no real-time priority (Operation not permitted): ")
    assert all(advice in line for advice in ("root", "LimitRTPRIO=1", "ulimit -r 1", "setcap cap_net_raw,cap_sys_nice+ep"))


def test_the_standard_input_and_a_pipe_are_played_while_they_are_written(world, tool):
    node = world.network.peer("node", NODE).endpoint(ARTNET_PORT)
    fifo = world.path("fifo")
    os.mkfifo(fifo)
    for name in ("-", fifo):
        playing = world.namespaces.popen(
            [str(CUE), "play", name, "--to", NODE], network="console", stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, env={"PATH": os.environ["PATH"], **environment()},
        )
        with limited(playing):
            with playing.stdin if name == "-" else open_fifo(fifo, playing) as writer:
                writer.write(art_dmx(0, bytes(512)) + oem_vfps_ns(0))
                # More than one read, but not the end.
                writer.write((art_dmx(1, bytes(512)) + oem_vfps_ns(0)) * 3000)
                writer.flush()
                assert node.receive().data == art_dmx(0, bytes(512))
                writer.write(art_dmx(2, b"\7"))
            assert node.receive_until(lambda datagram: datagram.data == art_dmx(2, b"\7"), DEADLINE)
            assert playing.wait(DEADLINE) == 0, playing.stderr.read()
        playing.stdin.close()
        playing.stdout.close()
        playing.stderr.close()


@pytest.mark.parametrize("options, expected", [(["--loop", "2"], [b"\1", b"\2"] * 2), (["--fade-out", "0.001"], [b"\1", b"\0"])])
def test_the_standard_input_is_read_as_often_as_it_is_needed(world, tool, options, expected):
    node = world.network.peer("node", NODE).endpoint(ARTNET_PORT)
    playing = world.namespaces.popen(
        [str(CUE), "play", "-", "--to", NODE, "--no-look", *options], network="console", stdin=subprocess.PIPE,
        stderr=subprocess.PIPE, env={"PATH": os.environ["PATH"], **environment()},
    )
    playing.communicate(art_dmx(0, b"\1") + oem_vfps_ns(MS) + art_dmx(0, b"\2"), timeout=DEADLINE)
    assert playing.returncode == 0
    levels = [dmx_data(datagram.data) for datagram in node.waiting()]
    assert (levels[0], levels[-1]) == (expected[0], expected[-1])
    assert options[0] == "--fade-out" or levels == expected


def test_a_damaged_file_is_played_as_far_as_it_is_good(world, tool):
    node = world.network.peer("node", NODE).endpoint(ARTNET_PORT)
    path = world.path("damaged.cue")
    with open(path, "wb") as file:
        file.write(art_dmx(0, b"\1") + oem_vfps_ns(MS) + bytes(9000) + oem_vfps_ns(MS) + art_dmx(0, b"\2"))
    code, _, errors = tool("play", path, "--to", NODE, host="console")
    assert [node.receive().data for _ in range(2)] == [art_dmx(0, b"\1"), art_dmx(0, b"\2")]
    assert code == 1
    assert errors.startswith(f"kadrel-cue: {path}: byte ") and "verify --repair" in errors and errors.count("\n") == 1
    code, _, errors = tool("play", "--strict", path, "--to", NODE, host="console")
    assert code == 1 and "verify --repair" not in errors


def test_a_line_on_the_standard_input_starts_a_playback(world, tool):
    node = world.network.peer("node", NODE).endpoint(ARTNET_PORT)
    path = show(world, art_dmx(0, b"\1"))
    waiting = world.namespaces.popen(
        [str(CUE), "play", path, "--to", NODE, "--wait"], network="console", stdin=subprocess.PIPE, stderr=subprocess.PIPE,
        text=True, env={"PATH": os.environ["PATH"], **environment()},
    )
    with limited(waiting):
        assert any(line == f"Enter starts {path}\n" for line in waiting.stderr)
        assert node.waiting() == []
        waiting.communicate("\n", timeout=DEADLINE)
    assert waiting.returncode == 0
    assert node.receive().data == art_dmx(0, b"\1")


def test_a_recording_on_the_standard_input_cannot_be_waited_for_there(world, tool):
    code, out, errors = tool("play", "-", "--to", NODE, "--wait", host="console")
    assert (code, out, errors) == (1, "", "kadrel-cue: --wait needs a terminal when the recording is the standard input\n")


def test_what_cannot_be_played_is_said_before_the_start(world, tool):
    path = show(world, art_dmx(0, b"\1"))
    code, _, errors = tool("play", path, "--to", NODE, "--wait", "--start", "9", host="console")
    assert code == 1 and "it ends at" in errors and "Enter" not in errors


def test_a_playback_that_is_stopped_and_continued_can_still_be_ended(world, tool):
    node = world.network.peer("node", NODE).endpoint(ARTNET_PORT)
    playing = tool.start("play", show(world, art_dmx(0, b"\1")), "--to", NODE, "--loop", "forever", host="console")
    node.receive()
    playing.send_signal(signal.SIGSTOP)
    spin_until(lambda: "T (stopped)" in open(f"/proc/{playing.pid}/status", encoding="ascii").read(), "the stop")
    playing.send_signal(signal.SIGCONT)
    playing.send_signal(signal.SIGTERM)
    assert tool.finish(playing)[0] == 0
