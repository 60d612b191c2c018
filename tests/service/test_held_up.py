"""Things that could hold the service up: a hanging log or bus, terminals, long copies, a strange parent, forgeries."""

import contextlib
import json
import os
import re
import select
import signal
import socket
import subprocess
import threading

import pytest
from gi.repository import GLib
from harness import DEADLINE, SERVICE, WARNING, Recording
from harness.artnet import art_dmx, art_poll
from harness.nodes import Detection, FakeNodes, node_reply
from harness.service import EXECUTABLE, READY
from harness.waiting import now, spin_until
from texts import (
    BANNER,
    GRAB_CANNOT_OPEN,
    LISTEN_FINISHED,
    LISTEN_STARTING,
    STOP,
    STOP_IDLE,
    device_ip,
    unparsed,
)

CONSOLE = {"KADREL_LOG_OUTPUT": "console"}
CONTROL_S = b"\x13"

MUSIC = [art_dmx(3, bytes([number] * 100)) for number in range(50)]


def send_and_wait(world, datagrams):
    """Sends datagrams, then an ArtPoll: its answer comes when all of them have been processed, without a log line."""
    world.console.send(*datagrams, art_poll())
    world.console.receive_until(lambda reply: len(reply.data) == 239)


PSEUDO_TERMINAL = """
import fcntl, os, struct, sys
terminal = os.open("/dev/pts/ptmx", os.O_RDWR)
fcntl.ioctl(terminal, 0x40045431, struct.pack("i", 0))
print(struct.unpack("i", fcntl.ioctl(terminal, 0x80045430, bytes(4)))[0], flush=True)
sys.stdin.read()
"""


def flood(world, count, start=0):
    """Sends so many datagrams, each of which makes a different log line; returns when they have been processed."""
    for first in range(start, start + count, 100):
        send_and_wait(world, [f"noise {number}".encode() for number in range(first, min(first + 100, start + count))])


def noise_lines(count):
    return [unparsed(f"noise {number}".encode()) for number in range(count)]


def test_a_slow_log_daemon_gets_every_line(service):
    log = service.world.log
    lines = log.mark()
    log.read_slowly(0.001)
    flood(service.world, 2000)
    assert log.entries(lines) == noise_lines(2000)


def test_a_log_daemon_that_stops_reading_costs_the_oldest_ordinary_lines(service):
    world = service.world
    lines = world.log.mark()
    world.log.stop_reading()
    service.client.grab("/missing/cue")
    flood(world, 6000)
    service.client.stop()
    world.log.go_on_reading()
    entries = world.log.entries(lines)
    (report,) = [text for priority, text in entries if priority == WARNING]
    dropped = int(re.fullmatch(r"Dropped log lines, their output takes too few \(lines:(\d+)\)", report)[1])
    assert entries[-2:] == [STOP, STOP_IDLE]
    assert GRAB_CANNOT_OPEN in entries
    # The lines that the daemon's queue took, then a gap, then the newest lines.
    noise = noise_lines(6000)
    arrived = [entry for entry in entries if entry in noise]
    before = next(number for number, entry in enumerate(arrived) if entry != noise[number])
    assert arrived == noise[:before] + noise[before + dropped :]


def read_until_ready(descriptor):
    """Reads the log of a starting service up to the line that says that it listens."""
    text = b""
    while READY.encode() not in text:
        assert select.select([descriptor], [], [], DEADLINE)[0], text
        text += os.read(descriptor, 1 << 16)


@contextlib.contextmanager
def hanging_datagram_log(world):
    service = world.start()
    world.log.stop_reading()
    yield service
    world.log.go_on_reading()


@contextlib.contextmanager
def hanging_stream_log(world):
    path = world.path("syslog")
    os.unlink(path)
    with socket.socket(socket.AF_UNIX) as daemon:
        daemon.bind(path)
        daemon.listen()
        service = world.start(wait_for_socket=False)
        connection, _ = daemon.accept()
        with connection:
            read_until_ready(connection.fileno())
            yield service


@contextlib.contextmanager
def hanging_pipe(world):
    read_end, write_end = os.pipe()
    service = world.start(environment=CONSOLE, error_output=write_end, wait_for_socket=False)
    read_until_ready(read_end)
    yield service
    os.close(read_end)
    os.close(write_end)


@contextlib.contextmanager
def stopped_terminal(world):
    master, slave = os.openpty()
    service = world.start(environment=CONSOLE, error_output=slave, wait_for_socket=False)
    read_until_ready(master)
    os.write(master, CONTROL_S)
    yield service
    os.close(master)
    os.close(slave)


@pytest.mark.parametrize("hanging", [hanging_datagram_log, hanging_stream_log, hanging_pipe, stopped_terminal])
def test_a_log_that_hangs_holds_nothing_up(world, hanging):
    """Nothing waits for it: no recording of 64 universes with a line for every frame, no call, not the end."""
    path = world.path("cue")
    frames = [[art_dmx(universe, bytes([number] * 512)) for universe in range(64)] for number in range(20)]
    with hanging(world) as service:
        flood(world, 3000)
        service.client.grab(path)
        for number, frame in enumerate(frames):
            send_and_wait(world, [b"no packet", *frame[:32]])
            send_and_wait(world, frame[32:])
            assert service.client.get_status() == "run", number
        service.client.stop()
        assert service.client.get_status() == "off"
        assert Recording.read(path).datagrams == [data for frame in frames for data in frame]
        assert service.client.dup_cue(world.directory, path)
        assert service.writes_log()
        assert service.end() == 0


def test_a_terminal_that_nobody_reads_holds_nothing_up(service):
    namespaces, client = service.world.namespaces, service.client
    namespaces.run(["sh", "-c", "mkdir -p /dev/pts && mount -t devpts devpts /dev/pts -o newinstance,ptmxmode=666"])
    holder = namespaces.popen(
        ["/usr/bin/python3", "-c", PSEUDO_TERMINAL], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
    )
    try:
        client.grab(f"/dev/pts/{holder.stdout.readline().strip()}")
        assert client.get_status() == "on"
        service.feed(MUSIC * 8)
        assert client.get_status() == "run"
        client.stop()
        assert client.get_status() == "off"
        client.grab(service.world.path("cue"))
        service.feed(MUSIC)
        client.stop()
        assert Recording.read(service.world.path("cue")).datagrams == MUSIC
    finally:
        holder.communicate()
    assert service.end() == 0


@pytest.mark.skipif(
    b"__tsan_init" in EXECUTABLE.read_bytes(),
    reason="the main thread waits in a futex of the framework, where the thread sanitizer keeps signals back for good",
)
def test_a_bus_that_accepts_and_never_answers_does_not_keep_the_process_from_its_end(world):
    path = world.path("mute-bus")
    with socket.socket(socket.AF_UNIX) as mute:
        mute.bind(path)
        mute.listen(5)
        process = world.run(6454, environment={"DBUS_SESSION_BUS_ADDRESS": f"unix:path={path}"})
        connection, _ = mute.accept()
        process.send_signal(signal.SIGTERM)
        assert process.wait() == 0
        connection.close()


def open_files(process):
    """Paths of what the process has open; in a folder a file without a name counts as well."""
    paths = []
    for entry in os.scandir(f"/proc/{process.pid}/fd"):
        with contextlib.suppress(FileNotFoundError):
            paths.append(os.readlink(entry.path))
    return paths


def test_the_end_does_not_wait_for_a_long_copy(service):
    world = service.world
    source, target = world.path("long"), world.path("copies")
    os.mkdir(target)
    with open(source, "wb") as file:
        file.truncate(1 << 40)

    def copy():
        with contextlib.suppress(GLib.Error):  # the service ends before it answers
            service.client.dup_cue(target, source)

    call = threading.Thread(target=copy)
    call.start()
    spin_until(lambda: any(target in path for path in open_files(service)), "the copy to begin")
    assert service.end() == 0
    assert os.listdir(target) == []
    call.join()


def wait_until_it_answers(world):
    world.bus.owners.wait_for(lambda change: change[0] == SERVICE and change[1])
    assert world.client.get_status() == "off"


@pytest.mark.parametrize("closed", ["<&-", ">&- 2>&-", "<&- 2>&-", "<&- >&- 2>&-"])
def test_closed_standard_descriptors_are_not_taken_by_anything_else(world, closed):
    process = world.run(6454, prefix=("sh", "-c", f'exec "$0" "$@" {closed}'))
    wait_until_it_answers(world)
    links = [os.readlink(f"/proc/{process.pid}/fd/{fd}") for fd in range(3)]
    numbers = [0] * ("<" in closed) + [1] * (closed.count(">") - closed.count("2>")) + [2] * closed.count("2>")
    assert {links[number] for number in numbers} == {"/dev/null"}
    assert process.end() == 0


def test_console_output_to_a_closed_error_stream_does_not_end_the_service(world):
    process = world.run(
        6454, prefix=("sh", "-c", 'exec "$0" "$@" <&- 2>&-'), environment={"KADREL_LOG_OUTPUT": "console"}
    )
    wait_until_it_answers(world)
    assert process.alive
    assert process.end() == 0


def test_an_argument_that_the_framework_takes_for_its_own_is_a_port_text_like_any_other(world):
    process = world.run("-qmljsdebugger=port:1")
    world.log.wait_for_text(device_ip("10.77.0.1")[1])
    wait_until_it_answers(world)
    process.send_signal(signal.SIGTERM)
    assert process.wait() == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_signals_that_the_parent_blocked_end_the_service(world, number):
    blocked = (
        "/usr/bin/python3",
        "-c",
        "import os, signal, sys; signal.signal(signal.SIGHUP, signal.SIG_DFL); "
        "signal.pthread_sigmask(signal.SIG_BLOCK, range(1, 20)); os.execv(sys.argv[1], sys.argv[1:])",
    )
    assert world.start(prefix=blocked).end(number) == 0


def test_a_terminal_that_closes_ends_a_recording_whole(world):
    service = world.start(prefix=("env", "--default-signal=HUP"))
    path = world.path("cue")
    service.client.grab(path)
    service.feed(MUSIC)
    assert service.end(signal.SIGHUP) == 0
    assert Recording.read(path).datagrams == MUSIC


def test_a_hang_up_that_the_parent_ignores_is_ignored(world):
    process = world.start(prefix=("nohup",))
    process.send_signal(signal.SIGHUP)
    assert process.client.get_status() == "off"
    process.settle()
    assert world.log.entries() == [BANNER, LISTEN_STARTING, device_ip("10.77.0.1")]
    assert process.end() == 0
    assert world.log.entries()[3:] == [LISTEN_FINISHED]


# Nodes that a detection cycle knows at most.
NODE_LIMIT = 32768
TOO_MANY_NODES = (
    WARNING,
    f"[Dump::process_art_poll_reply] Too many artnet nodes, new ones are ignored (limit:{NODE_LIMIT})",
)


def collide(number):
    """A long name. Like "Aa" and "BB", all up to number 32767 have one value in every hash that multiplies by 31."""
    return b"".join(b"BB" if number >> bit & 1 else b"Aa" for bit in range(15))


# Seconds after its ArtPoll within which all replies of a cycle have to be in for the cycle to be judged. A cycle takes 3 s; a
# machine that is busy with other things may need longer for 8,242 replies, and the service rightly takes no more of them then.
IN_TIME = 2.2


class LateReplies(Exception):
    """The replies were not in soon enough after their ArtPoll to say anything about the cycle."""


@pytest.mark.parametrize("long_name", [lambda number: b"forged", collide], ids=["by address", "by names that collide"])
def test_forged_replies_cost_no_frame(world, long_name):
    """The same replies in each cycle, of four ports each, with more ports than a cycle takes in."""
    addresses = [
        "10.66.6.6" if long_name is collide else f"{10 + number // 62500}.{number // 250 % 250}.{number % 250}.1"
        for number in range(NODE_LIMIT // 4 + 50)
    ]
    forger = world.network.peer("forger", "10.77.0.66")
    forged = [
        ("10.77.0.66", node_reply(address, [0, 1, 2, 3], b"forged", long_name(number)))
        for number, address in enumerate(addresses)
    ]
    for _ in range(5):
        service = world.start()
        try:
            two_cycles_of_forged_replies(service, forger, addresses, forged)
            return
        except LateReplies:
            assert service.end() == 0
    pytest.fail(f"{len(forged)} replies were never in within {IN_TIME} s")


def two_cycles_of_forged_replies(service, forger, addresses, forged):
    world, client = service.world, service.client
    path = world.path("cue")
    lines = world.log.mark()
    frames = []
    client.grab(path)
    with FakeNodes(service, forger, forged) as nodes, contextlib.closing(Detection(service)) as detection:
        detection.start()
        for cycle in (1, 2):
            began = now()
            while len(nodes.answered.items) < cycle:
                frames += MUSIC
                service.feed(MUSIC)
            frames += MUSIC
            service.feed(MUSIC)
            if now() - began > IN_TIME:
                raise LateReplies
            assert detection.polls_waiting() == [], "the cycle was over before all replies were sent"
            assert world.log.entries(lines).count(TOO_MANY_NODES) == cycle
            if cycle == 2:
                announced = [f"1:{port}:{address}:6454;" for address in addresses for port in range(4)]
                assert detection.messages() == ["".join(announced[:NODE_LIMIT])]
                assert len(json.loads(client.get_detected_nodes())["nodes"]) == NODE_LIMIT
            detection.next_poll()
        assert detection.messages() == [], "every node of the cycle before was there again"
        assert len(json.loads(client.get_detected_nodes())["nodes"]) == NODE_LIMIT
    client.stop()
    assert Recording.read(path).datagrams == frames
