"""kadrel-cue top: what is on the wire, and in a recording that grows."""

import contextlib
import fcntl
import itertools
import json
import os
import pty
import re
import select
import signal
import socket
import struct
import sys
import termios
import threading

import pytest
from cue_tool import CUE, DEADLINE, Tool, limited
from harness import ARTNET_PORT, BROADCAST, spin_until
from harness.artnet import art_dmx, art_poll, art_poll_reply, header, oem_vfps_ns
from screen import PROMPT, Screen

SACN_PORT = 5568
DESK, BACKUP = "10.77.0.2", "10.77.0.3"
APPLIANCE = "10.77.0.1"
PERIOD = 1 / 40  # s
MS = 1_000_000

ART_SYNC = header(0x5200) + b"\0\x0e\0\0"


def layer(content):
    """Flags, length and content of a layer of ACN."""
    return struct.pack("!H", 0x7000 | (len(content) + 2)) + content


def sacn_data(universe, levels, sequence, priority=100, name=b"Media server", cid=b"C" * 16):
    """A data packet of E1.31."""
    dmp = layer(b"\x02\xa1" + struct.pack("!HHH", 0, 1, len(levels) + 1) + b"\0" + levels)
    framing = layer(
        struct.pack("!I64sBHBBH", 2, name, priority, 0, sequence % 256, 0, universe) + dmp
    )
    return struct.pack("!HH12s", 0x10, 0, b"ASC-E1.17\0\0\0") + layer(struct.pack("!I", 4) + cid + framing)


class Lights:
    """Sends the same frames again and again beside the test, numbered."""

    def __init__(self):
        self._frames = []
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run)

    def add(self, endpoint, make, to):
        """`make`: a datagram, or nothing, from the number of the frame."""
        self._frames.append((endpoint, make, to))

    def start(self):
        self._thread.start()

    def _run(self):
        for number in itertools.count():
            for endpoint, make, to in self._frames:
                datagram = make(number)
                if datagram is not None:
                    endpoint.send(datagram, to=to)
            if self._stop.wait(PERIOD):
                return

    def stop(self):
        self._stop.set()
        if self._thread.is_alive():
            self._thread.join()


def artnet_number(frame):
    return frame % 255 + 1


@pytest.fixture
def lights():
    made = Lights()
    yield made
    made.stop()


@pytest.fixture
def desk(world):
    endpoint = world.console
    endpoint.socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    endpoint.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(DESK))
    return endpoint


@pytest.fixture
def backup(world):
    return world.network.peer("backup", BACKUP).endpoint(ARTNET_PORT)


@pytest.fixture
def tool(world):
    assert world.console_host
    return Tool(world)


@pytest.fixture
def show(world, desk, backup, lights):
    """A desk on two universes, a backup on the second, E1.31 by multicast and unicast, ArtSync, ArtPoll with a reply."""

    def without_every_tenth(frame):
        return art_dmx(1, b"\x80" * 100, sequence=artnet_number(frame)) if frame % 10 else None

    everybody, appliance = (BROADCAST, ARTNET_PORT), (APPLIANCE, SACN_PORT)
    lights.add(desk, lambda frame: art_dmx(0, b"\xff" + bytes(511), sequence=artnet_number(frame)), everybody)
    lights.add(desk, without_every_tenth, everybody)
    lights.add(backup, lambda frame: art_dmx(1, b"\x07" * 100, sequence=artnet_number(frame)), (APPLIANCE, ARTNET_PORT))
    lights.add(desk, lambda frame: ART_SYNC, everybody)
    lights.add(desk, lambda frame: art_poll(), everybody)
    lights.add(desk, lambda frame: art_poll_reply(ip=DESK, short_name=b"Desk \x1b[2Jleft"), everybody)
    lights.add(desk, lambda frame: sacn_data(7, b"\x10\x20", frame, 120), ("239.255.0.7", SACN_PORT))
    lights.add(desk, lambda frame: sacn_data(40000, b"\x30", frame), appliance)
    lights.start()
    return lights


@pytest.fixture
def screen(world):
    with contextlib.ExitStack() as stack:

        def make(*arguments, **options):
            return stack.enter_context(contextlib.closing(Screen(world, *arguments, **options)))

        yield make


def objects(process):
    """The objects that a process writes, one on a line."""
    while True:
        ready, _, _ = select.select([process.stdout], [], [], 3 * DEADLINE)
        assert ready, "no object came"
        line = process.stdout.readline()
        if not line:
            return
        yield json.loads(line)


def streams_of(figures):
    return {(one["protocol"], one["universe"], one["sender"]): one for one in figures["streams"]}


def wait_for_figures(process, fulfils):
    for figures in objects(process):
        if fulfils(figures):
            return figures
    raise AssertionError("it ended before")


def started(tool, *arguments, **options):
    return limited(tool.start("top", *arguments, **options))


# The figures


def test_every_stream_is_shown_with_its_sender(tool, show):
    def complete(figures):
        streams = streams_of(figures)
        backup = streams.get(("artnet", 2, BACKUP))
        return len(streams) == 5 and backup["contested"] and streams["artnet", 2, DESK]["missing"] > 1

    with started(tool, "--json") as process:
        figures = wait_for_figures(process, complete)
    assert (figures["source"], figures["lost"]) == ("eth0", 0)
    streams = streams_of(figures)
    first, second = streams["artnet", 1, DESK], streams["artnet", 2, DESK]
    assert (first["address"], first["name"], first["slots"], first["highest"]) == ("0:0:0", "Desk [2Jleft", 512, 255)
    assert not first["unicast"] and not first["contested"] and first["missing"] == 0 and first["rate"] > 0
    assert first["levels"] == [255] + [0] * 511
    assert second["contested"] and second["levels"] == [128] * 100
    backup = streams["artnet", 2, BACKUP]
    assert backup["unicast"] and backup["name"] is None and backup["highest"] == 7
    multicast, unicast = streams["sacn", 7, DESK], streams["sacn", 40000, DESK]
    assert not multicast["unicast"] and multicast["priority"] == 120 and multicast["name"] == "Media server"
    assert unicast["unicast"] and unicast["address"] is None


def test_a_table_is_written_once(tool, show):
    code, out, errors = tool("top", "eth0", "--once", "--listen", "1.5")
    assert (code, errors) == (0, "")
    lines = out.splitlines()
    assert lines[0].startswith("eth0   4 universes   5 streams   ")
    assert re.match(r"Art-Net  DMX \d+ \(\d+/s\)  Sync \d+ \(\d+/s\)  Poll \d+ \(\d+/s\)  Reply \d+ \(\d+/s\)$", lines[1])
    assert re.match(r"E1.31    data \d+ \(\d+/s\)$", lines[2])
    assert [line[:25].rstrip() for line in lines[3:9]] == [
        " Univ  Net:Sub:U Way", "    1  0:0:0     Art bc", "    2! 0:0:1     Art bc", "    2! 0:0:1     Art uc",
        "    7  0:0:6     sACN mc", "40000  -         sACN uc",
    ]
    assert lines[4][25:49].rstrip() == "10.77.0.2 Desk [2Jleft"
    assert lines[9] == "! several senders on universe 2"


def test_once_can_be_json(tool, show):
    code, out, errors = tool("top", "any", "--once", "--json")
    assert (code, errors, out.count("\n")) == (0, "", 1)
    assert len(json.loads(out)["streams"]) == 5


def test_silence_is_said(tool):
    code, out, errors = tool("top", "--once", "--listen", "0.1")
    assert (code, errors) == (1, "")
    assert out == "eth0   0 universes   0 streams   0.0 datagrams/s\nArt-Net\nE1.31\nNothing heard.\n"


def test_nothing_is_sent_and_no_port_is_taken(world, tool, show):
    wire = world.appliance.capture()
    service = world.start()
    with started(tool, "--json") as process:
        wait_for_figures(process, lambda figures: len(figures["streams"]) == 5)
        sockets = world.namespaces.run(["ss", "-Hunap"])
        assert f"pid={process.pid}," not in sockets
    assert service.alive
    assert not [one for one in wire.datagrams() if one.outgoing and one.destination_port == SACN_PORT]


def test_json_goes_on_until_nobody_reads_it(tool, show):
    with started(tool, "--json") as process:
        next(objects(process))
        process.stdout.close()
        assert process.wait(DEADLINE) == -signal.SIGPIPE


@pytest.mark.parametrize("end", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_ends_it(tool, show, end):
    with started(tool, "--json") as process:
        next(objects(process))
        process.send_signal(end)
        list(objects(process))
        assert (process.wait(DEADLINE), process.stderr.read()) == (0, "")


def samples(path):
    """The samples of a file for node_exporter, or nothing when there is no such file yet."""
    with contextlib.suppress(FileNotFoundError), open(path, encoding="utf-8") as file:
        text = file.read()
        assert text.endswith("\n")
        pattern = re.compile(r"(\w+)(?:\{(.*)\})? (\S+)")
        return [pattern.fullmatch(line).groups() for line in text.splitlines() if not line.startswith("#")]
    return []


def test_prometheus_gets_a_file_without_a_terminal(world, tool, show):
    path = world.path("kadrel.prom")
    with started(tool, "eth0", "--prom", path, "--every", "1") as process:
        spin_until(lambda: any('universe="40000"' in (labels or "") for _, labels, _ in samples(path)), "the universes")
        before = os.stat(path).st_ino
        spin_until(lambda: os.stat(path).st_ino != before, "the next file")
        process.terminate()
        out, errors = process.communicate(timeout=DEADLINE)
    assert (process.returncode, out, errors) == (0, "", "")
    assert all(float(value) >= 0 for _, _, value in samples(path))
    assert not [name for name in os.listdir(world.directory) if "prom" in name and name != "kadrel.prom"]


def test_prometheus_gets_a_file_once(world, tool, show):
    path = world.path("kadrel.prom")
    tool.expect("top", "--once", "--prom", path)
    assert any('sender="10.77.0.3"' in (labels or "") for _, labels, _ in samples(path))


def test_a_file_that_cannot_be_written_is_said_once(world, tool, show):
    with started(tool, "--json", "--prom", world.path("no/such/folder.prom"), "--every", "1") as process:
        figures = objects(process)
        for _ in range(4):
            next(figures)
        process.terminate()
        _, errors = process.communicate(timeout=DEADLINE)
    assert process.returncode == 1
    assert errors == f"kadrel-cue: {world.path('no/such/folder.prom')}: No such file or directory\n"


# What it cannot do


def test_the_right_to_capture_is_asked_for_in_one_sentence(world, tool):
    process = world.namespaces.popen(
        ["setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw", str(CUE), "top", "eth0", "--once"],
        stdout=-1, stderr=-1, text=True,
    )
    code, out, errors = tool.finish(process)
    assert (code, out, errors.count("\n")) == (1, "", 1)
    assert "setcap" in errors and "group" in errors


def test_all_interfaces_are_no_file_of_their_name(world, tool, show):
    append(world.path("any"), art_dmx(0, b"\x01"), art_dmx(0, b"\x02"))
    process = world.namespaces.popen(
        ["env", f"--chdir={world.directory}", str(CUE), "top", "any", "--once"], stdout=-1, stderr=-1, text=True
    )
    code, out, errors = tool.finish(process)
    assert (code, errors) == (0, "")
    assert DESK in out


# What it cannot keep up with


def flood(desk):
    """More than the kernel keeps for the capture."""
    for number in range(80_000):
        desk.send(art_dmx(number % 500, bytes(512), sequence=artnet_number(number // 500)), to=(BROADCAST, ARTNET_PORT))


def test_what_is_not_seen_is_told(tool, desk):
    with started(tool, "--json") as process:
        assert next(objects(process))["lost"] == 0
        process.send_signal(signal.SIGSTOP)
        flood(desk)
        process.send_signal(signal.SIGCONT)
        figures = wait_for_figures(
            process, lambda figures: figures["packets"]["art_dmx"]["packets"] + figures["lost"] >= 80_000
        )
    assert figures["lost"] > 0
    assert figures["packets"]["art_dmx"]["packets"] + figures["lost"] == 80_000


def test_what_is_not_seen_is_told_on_the_screen(world, desk, screen):
    window = screen()
    window.run(f"kadrel-cue top & echo $! > {world.path('pid')}; fg")
    window.see("Nothing heard yet")
    with open(world.path("pid"), encoding="ascii") as file:
        pid = int(file.read())
    os.kill(pid, signal.SIGSTOP)
    window.see("Stopped")  # the shell has the terminal
    flood(desk)
    window.run("fg")
    window.see(r"^ [0-9]+ datagrams not seen: this computer was too slow$")


def test_a_reader_that_is_too_slow_keeps_it_neither_from_looking_nor_from_its_end(world, tool, desk):
    with started(tool, "--json") as process:
        next(objects(process))
        desk.send(art_dmx(0, b"\x01"), to=(BROADCAST, ARTNET_PORT))
        for universe in range(300):  # far more text than a pipe takes
            desk.send(art_dmx(universe, b"\xff" * 512), to=(BROADCAST, ARTNET_PORT))
        spin_until(lambda: pipe_is_full(process.stdout), "a pipe that takes no more")
        process.terminate()
        assert process.wait(DEADLINE) == 0


def test_a_terminal_that_is_gone_ends_the_objects(world, tool):
    ours, theirs = pty.openpty()
    with open(ours, "rb", buffering=0) as terminal:
        process = world.namespaces.popen([str(CUE), "top", "eth0", "--json"], stdin=theirs, stdout=theirs, stderr=-1, text=True)
        os.close(theirs)
        with limited(process):
            assert terminal.read(1) == b"{"
            terminal.close()
            assert process.wait(DEADLINE) == 1
            assert process.stderr.read() == "kadrel-cue: standard output cannot be written\n"


def pipe_is_full(pipe):
    waiting = bytearray(4)
    fcntl.ioctl(pipe, termios.FIONREAD, waiting)
    return int.from_bytes(waiting, sys.byteorder) > fcntl.fcntl(pipe, fcntl.F_GETPIPE_SZ) - 4096


def test_an_unknown_interface_is_an_error(tool):
    code, out, errors = tool("top", "eth7", "--once")
    assert (code, out, errors.count("\n")) == (1, "", 1)
    assert "eth7" in errors


def test_without_eth0_the_only_interface_is_taken(world, tool, show):
    world.namespaces.ip("appliance", "link set eth0 down", "link set eth0 name stage", "link set stage up")
    with started(tool, "--json") as process:
        assert wait_for_figures(process, lambda figures: len(figures["streams"]) == 5)["source"] == "stage"


def test_of_several_interfaces_one_must_be_named(world, tool):
    world.namespaces.ip(
        "appliance", "link set eth0 down", "link set eth0 name stage", "link set stage up",
        "link add name hall type bridge", "link set hall up",
    )
    code, out, errors = tool("top", "--once")
    assert (code, out) == (1, "")
    assert re.fullmatch(r"kadrel-cue: which interface\? There are (stage hall|hall stage), and any for all of them\n", errors)


def test_an_interface_that_vanishes_is_said(world, tool, show):
    with started(tool, "eth0", "--json") as process:
        next(objects(process))
        world.namespaces.ip("appliance", "link delete eth0")
        list(objects(process))
        errors = process.stderr.read()
        assert (process.wait(DEADLINE), errors.count("\n")) == (1, 1)
    assert "eth0" in errors


def test_a_terminal_is_needed_for_the_screen(tool):
    code, out, errors = tool("top", "eth0")
    assert (code, out) == (1, "")
    assert errors == "kadrel-cue: there is no terminal to show the screen on: --once, --json and --prom can do without\n"


@pytest.mark.parametrize(
    "arguments", [["--listen", "1"], ["--every", "1"], ["--prom", "-"], ["--prom", "f", "--every", "0.5"], ["a", "b"]]
)
def test_options_that_do_not_go_together_are_refused(tool, arguments):
    code, out, errors = tool("top", *arguments)
    assert (code, out, errors.count("\n")) == (2, "", 1)


# A recording


def append(path, *datagrams):
    with open(path, "ab") as file:
        for datagram in datagrams:
            file.write(datagram + oem_vfps_ns(25 * MS))


def test_a_recording_needs_no_rights(world, tool):
    path = world.path("show.cue")
    append(path, art_dmx(0, b"\x01", sequence=1), art_dmx(0, b"\x02", sequence=2), art_dmx(4, b"\x03"))
    process = world.namespaces.popen(
        ["setpriv", "--bounding-set=-all", "--inh-caps=-all", str(CUE), "top", path, "--once"],
        stdout=-1, stderr=-1, text=True,
    )
    code, out, errors = tool.finish(process)
    assert (code, errors) == (0, "")
    lines = out.splitlines()
    assert lines[0].startswith(f"{path}   2 universes   2 streams   ")
    assert [line[:30].rstrip() for line in lines[4:]] == ["    1  0:0:0     Art     -", "    5  0:0:4     Art     -"]


def test_a_running_recording_is_followed(world, tool):
    service = world.start()
    path = world.path("act")
    service.client.grab(path)
    service.feed([art_dmx(0, b"\x01"), art_dmx(1, b"\x02")])
    spin_until(lambda: os.path.exists(path), "the recording")
    with started(tool, path, "--json") as process:
        figures = objects(process)
        next(figures)
        for level in range(3, 200):
            service.feed([art_dmx(0, bytes([level])), art_dmx(2, b"\x05")])
        service.client.stop()
        spin_until(
            lambda: streams_of(next(figures)).get(("artnet", 1, None), {"highest": 0})["highest"] == 199, "the last level"
        )


def test_the_next_recording_of_the_name_is_followed(world, tool):
    path = world.path("show.cue")
    append(path, art_dmx(0, b"\x01"), art_dmx(0, b"\x02"))
    with started(tool, path, "--json") as process:
        assert [one["universe"] for one in next(objects(process))["streams"]] == [1]
        append(world.path("next.cue"), art_dmx(8, b"\x01"), art_dmx(8, b"\x02"))
        os.rename(world.path("next.cue"), path)
        wait_for_figures(process, lambda figures: [one["universe"] for one in figures["streams"]] == [9])


@pytest.mark.parametrize("how", ["--json", "--once"])
def test_damage_without_end_can_be_ended(world, tool, how):
    path = world.path("show.cue")
    append(path, art_dmx(0, b"\x01"), art_dmx(0, b"\x02"))
    os.truncate(path, 1 << 40)
    with started(tool, path, how) as process:
        spin_until(lambda: bytes_read(process.pid) > 8 << 20, "the damage")
        process.terminate()
        assert process.wait(DEADLINE) == 0


def bytes_read(pid):
    with open(f"/proc/{pid}/io", encoding="ascii") as file:
        return int(file.readline().split()[1])


def test_what_is_no_recording_is_refused(world, tool):
    code, out, errors = tool("top", world.path("nothing"), "--once")
    assert (code, out, errors) == (1, "", f"kadrel-cue: {world.path('nothing')}: No such file or directory\n")
    code, out, errors = tool("top", world.directory, "--once")
    assert (code, out, errors) == (1, "", f"kadrel-cue: {world.directory}: not a regular file\n")


# The screen


def test_the_screens_of_an_operator(show, screen):
    window = screen()
    window.run("kadrel-cue top")
    window.see(r"^     2! 0:0:1     Art uc  10\.77\.0\.3 ")
    window.see(r"^>    1  0:0:0     Art bc  10\.77\.0\.2 Desk \[2Jleft")
    lines = window.lines()
    assert len(lines) == 24 and max(map(len, lines)) <= 80
    assert lines[-2:] == [
        " ! several senders on universe 2", " q end  ? help  enter levels  p pause  / filter  s sort: universe"
    ]
    window.press("Down", "Enter")
    window.see(r"^ Universe 2 \(0:0:1\) !  Art bc  10\.77\.0\.2 Desk")
    window.see(r"^   0>50 50 50")
    window.press("Right", "Down")
    window.see(r"^  25 50>50 50")
    window.see(r"^ Slot 27: 128 of 255, 50\.2 %, hex 80")
    window.press("x")
    window.see(r"^  25 80>80 80")
    window.press("BTab")
    window.see(r"^ Universe 1 ")
    window.press("?")
    window.see(r"^ q +end")
    window.press("?")
    window.press("Escape")
    window.see(r"^>    1  0:0:0 ")
    window.press("/")
    window.type("media")
    window.see(r"^ Filter: media_")
    window.see(r"^>    7  0:0:6     sACN mc")
    window.press("BSpace", "Enter")
    window.see(r"/ filter: medi  s sort: universe")
    window.press("q")
    window.see(re.escape(PROMPT.strip()))


def test_a_pause_holds_the_screen(show, screen):
    window = screen()
    window.run("kadrel-cue top")
    window.see(r"^>    1  0:0:0 ")
    window.press("p")
    window.see("PAUSED")
    count = r"DMX (\d+)"
    before = window.see(count)[1]
    window.press("s")
    window.see("sort: sender")
    assert window.see(count)[1] == before
    window.press("p")
    spin_until(lambda: int(window.see(count)[1]) > int(before), "further datagrams")


def test_the_screen_takes_the_size_of_the_window(show, screen):
    window = screen(60, 15)
    window.run("kadrel-cue top")
    window.see(r"^ +Univ  Net:Sub:U Sender +Hz  Lost Max  Age$")
    window.resize(120, 40)
    window.see(r"^ +Univ  Net:Sub:U Way .* Total$")
    window.resize(10, 3)
    window.see(r"^( q end|1-1 of [0-9]+)")  # where there is room for one of them: the place, once there is more than a line
    window.resize(80, 24)
    window.see(r"^ +Univ  Net:Sub:U Way +Sender +Hz  Jit  Lost Slot Max  Age$")


@pytest.mark.parametrize("variables", [{"TERM": "vt100"}, {"NO_COLOR": "1"}, {"TERM": "linux"}])
def test_it_runs_on_simple_terminals(show, screen, variables):
    window = screen(**variables)
    window.run("kadrel-cue top")
    window.see(r"^>    1  0:0:0     Art bc")
    window.press("q")
    window.see(rf"^{re.escape(PROMPT.strip())}\s*\Z")


@pytest.mark.parametrize(
    ("name", "message"),
    [
        ("dumb", 'the terminal "dumb" cannot place text; '),
        ("no-such-terminal", 'the terminal "no-such-terminal" (TERM) is not known here; '),
        ("", "TERM does not say which terminal this is; "),
    ],
)
def test_a_terminal_without_a_screen_is_told_so(screen, name, message):
    window = screen(160)
    window.run(f"TERM={name} kadrel-cue top; echo code=$?")
    window.see("^kadrel-cue: " + re.escape(message + "--once prints the table, and --json writes the figures"))
    window.see("^code=1$")


def modes(window, name):
    """What stty says of the terminal, in a file of the window's folder."""
    window.run(f"stty -a > {name}; echo written=$?")
    window.see("written=0")
    window.run("clear")


@pytest.mark.parametrize("end", ["q", "C-c", "C-\\", "TERM", "HUP", "QUIT", "ABRT"])
def test_the_terminal_is_as_before_at_every_end(world, show, screen, end):
    window = screen()
    before, after = world.path("before"), world.path("after")
    modes(window, before)
    window.run(f"kadrel-cue top & echo $! > {world.path('pid')}; fg")
    window.see(r"^>    1  0:0:0 ")
    if end.isupper() and end.isalpha():
        with open(world.path("pid"), encoding="ascii") as file:
            os.kill(int(file.read()), getattr(signal, f"SIG{end}"))
    else:
        window.press(end)
    window.see(rf"{re.escape(PROMPT.strip())}\s*\Z")
    assert "Univ" not in window.text()
    modes(window, after)
    with open(before, encoding="ascii") as first, open(after, encoding="ascii") as second:
        assert first.read() == second.read()


def test_it_can_be_stopped_and_continued(world, show, screen):
    window = screen()
    before, during = world.path("before"), world.path("during")
    modes(window, before)
    window.run("kadrel-cue top")
    window.see(r"^>    1  0:0:0 ")
    window.press("C-z")
    window.see(r"Stopped +kadrel-cue top")
    modes(window, during)
    with open(before, encoding="ascii") as first, open(during, encoding="ascii") as second:
        assert first.read() == second.read()
    window.run("fg")
    window.see(r"^>    1  0:0:0 ")
    window.press("q")
    window.see(rf"{re.escape(PROMPT.strip())}\s*\Z")


def test_an_interface_that_vanishes_ends_the_screen(world, show, screen):
    window = screen(120)
    window.run("kadrel-cue top eth0; echo code=$?")
    window.see(r"^>    1  0:0:0 ")
    world.namespaces.ip("appliance", "link delete eth0")
    window.see(r"^kadrel-cue: .*eth0")
    window.see("^code=1$")


def test_a_file_for_prometheus_is_written_beside_the_screen(world, show, screen):
    window = screen()
    path = world.path("kadrel.prom")
    window.run(f"kadrel-cue top --prom {path} --every 1; echo code=$?")
    spin_until(lambda: samples(path), "the file")
    os.unlink(path)
    os.mkdir(path)
    window.see(r"^ .*kadrel\.prom: is no regular file$")
    window.press("q")
    window.see("^code=1$")


def test_json_on_a_terminal_ends_with_q(show, screen):
    window = screen(300)
    window.run("kadrel-cue top --json; echo code=$?")
    window.see(r'"levels":\[48\]')
    window.press("q")
    window.see("code=0")


def test_a_recording_that_does_not_grow_says_so(world, screen):
    path = world.path("show.cue")
    append(path, art_dmx(0, b"\x01"), art_dmx(0, b"\xff"))
    window = screen()
    window.run(f"kadrel-cue top {path}")
    window.see(r"^ the file has not grown for \d+ s: this is its last state$")
    window.see(r"^>    1  0:0:0     Art     - .* 255  0\.0$")
