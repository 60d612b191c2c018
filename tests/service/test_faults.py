"""System calls of the running service that fail, one by one, once and for ever.

Whatever fails, the service goes on: it lives, answers on the bus, calls nothing in a circle, writes no flood into the log, records
again once the fault is over, and ends with 0 when it is told to.
"""

import contextlib
import errno
import os
import random
import resource
import select
import struct
import threading
from dataclasses import dataclass
from pathlib import Path

import pytest
from gi.repository import GLib
from harness import DEADLINE, ERROR, Recording, spin_until
from harness.artnet import art_dmx, art_poll, art_trigger, relay
from harness.bus import LazyClient
from harness.faults import ANY, BUS, FILE, FOREVER, NAMES, OTHER, UDP
from harness.service import EXECUTABLE, SANITIZED
from harness.waiting import now
from texts import FINALIZED, GRAB, GRAB_CANNOT_OPEN, GRABBING_STARTED, STOP, grab_text, lost_nothing

# Every combination, instead of one or two for each function.
EXHAUSTIVE = "KADREL_TEST_ALL" in os.environ

MUSIC = [art_dmx(1, bytes([number] * 100)) for number in range(20)]

# Seconds of one look at the service, and its limits in each: a busy loop makes some hundred thousand calls.
LOOK = 0.5
CALLS_PER_SECOND = 8000
LINES = 60


def record(service, name="cue", frames=MUSIC):
    """A recording of a few frames and its contents."""
    path = service.world.path(name)
    service.client.grab(path)
    service.feed(frames)
    service.client.stop()
    return Recording.read(path).datagrams


def use_everything(service):
    """Lets the service do everything that it can do, and waits only for the bus."""
    client, world = service.client, service.world
    client.grab(world.path("under a fault"))
    world.console.send(*MUSIC, art_poll(), b"noise")
    world.appliance_process.send(relay(b"relayed", world.console.address, world.console.port))
    assert client.get_status() in ("off", "on", "run")
    client.start_polling_artnet_nodes()
    client.dup_cue(world.directory, world.path("cue"))
    client.latest_grab()
    client.stop()
    assert client.get_status() == "off"


def look_on(service, faults):
    """For half a second the process lives, makes few calls and writes few lines."""
    lines = service.world.log.mark()
    before, began = [faults.calls(name) for name in NAMES], now()
    assert not select.select([service], [], [], LOOK)[0], "the process has ended"
    lasted = now() - began
    for name, count in zip(NAMES, before, strict=True):
        assert faults.calls(name) - count < CALLS_PER_SECOND * lasted, f"{name} is called in a circle"
    assert service.world.log.mark() - lines < LINES


@dataclass(frozen=True)
class Case:
    call: str
    kind: int
    error: int
    times: int

    def __str__(self):
        kind = ("", "-udp", "-file", "-log", "-bus", "-other")[self.kind]
        often = {1: "once", FOREVER: "for_ever"}.get(self.times, "often")
        return f"{self.call}{kind}-{errno.errorcode[self.error]}-{often}"

    def arm(self, faults):
        faults.arm(self.call, self.error, self.kind, self.times)


# Function, kind of descriptor, whether it may fail for ever, its errors. It may not where the framework or the bus library
# calls it, which takes such an error for the end of the connection or tries again without a pause.
FAILURES = [
    ("recvmmsg", UDP, True, "EAGAIN ENOBUFS ENOMEM EIO ENETDOWN EPERM ECONNREFUSED EINTR"),
    ("select", UDP, True, "EINTR ENOMEM EIO EPERM"),
    ("sendto", UDP, True, "EINTR EAGAIN ENOBUFS ENOMEM ENETDOWN ENETUNREACH EPERM"),
    ("write", FILE, True, "EAGAIN ENOSPC EIO EPERM ENOMEM EFBIG"),
    ("open", FILE, True, "EMFILE ENFILE ENOSPC ENOMEM EIO EPERM EROFS"),
    ("close", FILE, True, "EIO ENOSPC EINTR"),
    ("fstat", ANY, True, "EIO ENOMEM"),
    ("fchmod", ANY, True, "EPERM EIO"),
    ("statx", ANY, True, "EIO ENOMEM"),
    ("read", FILE, True, "EIO"),
    ("pthread_create", ANY, True, "EAGAIN EPERM"),
    ("nanosleep", ANY, False, "EINTR"),
    ("write", FILE, False, "EINTR"),
    ("poll", OTHER, False, "EINTR ENOMEM"),
    ("read", OTHER, False, "EINTR EAGAIN"),
    ("write", OTHER, False, "EINTR"),
    ("sendmsg", BUS, False, "EINTR EAGAIN"),
    ("recvmsg", BUS, False, "EINTR EAGAIN ENOMEM"),
    ("poll", BUS, False, "EINTR EAGAIN"),
]
SEVERAL = 20

CASES = [
    Case(call, kind, getattr(errno, error), times)
    for call, kind, for_ever, errors in FAILURES
    for error in errors.split()
    for times in (1, FOREVER if for_ever else SEVERAL)
]
CHOSEN = {
    "recvmmsg-udp-EIO-for_ever",
    "recvmmsg-udp-ENOMEM-once",
    "recvmmsg-udp-EINTR-for_ever",
    "select-udp-EINTR-for_ever",
    "sendto-udp-ENETDOWN-for_ever",
    "write-file-EIO-for_ever",
    "open-file-EMFILE-for_ever",
    "pthread_create-EAGAIN-for_ever",
    "sendmsg-bus-EAGAIN-often",
}


def chosen(cases, names):
    found = [case for case in cases if str(case) in names]
    assert len(found) == len(names), "a name of no case"
    return cases if EXHAUSTIVE else found


@pytest.mark.parametrize("case", chosen(CASES, CHOSEN), ids=str)
def test_a_call_that_fails_costs_nothing_but_what_it_was_for(faulty, faults, case):
    assert record(faulty) == MUSIC
    case.arm(faults)
    use_everything(faulty)
    look_on(faulty, faults)
    assert faulty.client.get_status() == "off"
    faults.disarm(case.call)
    faulty.settle()
    assert record(faulty, "again") == MUSIC
    case.arm(faults)
    faulty.client.grab(faulty.world.path("to the end"))
    faulty.world.console.send(*MUSIC)
    assert faulty.end() == 0


# ---- at the start ----------------------------------------------------------------------------------------------------

SERVES, ENDS = "serves", "ends"

# Function, kind, result of the start, errors; the first call that fails.
START_FAILURES = [
    ("socket", UDP, SERVES, "EMFILE ENOBUFS EPERM", 0),
    ("bind", UDP, SERVES, "EADDRINUSE EPERM ENOMEM", 0),
    ("fcntl", UDP, SERVES, "EPERM", 0),
    ("setsockopt", UDP, SERVES, "ENOMEM", 0),
    ("ioctl", UDP, SERVES, "ENODEV EPERM", 0),
    ("open", FILE, SERVES, "EMFILE EPERM", 0),
    ("recvmsg", OTHER, SERVES, "ENOBUFS", 0),
    ("connect", BUS, ENDS, "ECONNREFUSED EPERM ENOMEM", 0),
    ("socket", BUS, ENDS, "EMFILE ENOBUFS", 0),
    ("pipe2", ANY, ENDS, "EMFILE", 0),
    ("pthread_create", ANY, ENDS, "EAGAIN", 0),
]


@dataclass(frozen=True)
class StartCase(Case):
    outcome: str
    skip: int


START_CASES = [
    StartCase(call, kind, getattr(errno, error), times, outcome, skip)
    for call, kind, outcome, errors, skip in START_FAILURES
    for error in errors.split()
    for times in (1, FOREVER)
    if times == FOREVER or outcome == SERVES
]
CHOSEN_START = {
    "socket-udp-EMFILE-for_ever",
    "setsockopt-udp-ENOMEM-for_ever",
    "connect-bus-ECONNREFUSED-for_ever",
    "pipe2-EMFILE-for_ever",
    "pthread_create-EAGAIN-for_ever",
}


@pytest.mark.parametrize("case", chosen(START_CASES, CHOSEN_START), ids=str)
def test_a_call_that_fails_at_the_start(world, faults, case):
    faults.arm(case.call, case.error, case.kind, case.times, case.skip)
    if case.outcome == ENDS:
        process = world.run(world.network.service_port, prefix=faults.prefix)
        assert process.wait() == 1
        assert [line for line in world.log.items if line.priority == ERROR], "no reason in the log"
        return
    service = world.start(prefix=faults.prefix)
    assert service.client.get_status() == "off"
    look_on(service, faults)
    faults.disarm(case.call)
    assert service.end() == 0


# ---- limits ----------------------------------------------------------------------------------------------------------

def test_without_a_free_descriptor_nothing_is_opened_and_all_else_goes_on(service):
    """A limit in the kernel itself, for calls that the preloaded library does not see."""
    world = service.world
    assert record(service) == MUSIC
    # The first look of a sanitizer at a class takes descriptors.
    world.console.send(art_poll())
    assert len(world.console.receive().data) == 239
    taken = {int(name) for name in os.listdir(f"/proc/{service.pid}/fd")}
    lowest_free = min(set(range(len(taken) + 1)) - taken)
    before = resource.prlimit(service.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(service.pid, resource.RLIMIT_NOFILE, (lowest_free, before[1]))
    lines = world.log.mark()
    service.client.grab(world.path("refused"))
    assert service.client.get_status() == "off"
    assert world.log.entries(lines) == [GRAB, GRAB_CANNOT_OPEN]
    world.console.send(art_poll())
    assert len(world.console.receive().data) == 239
    resource.prlimit(service.pid, resource.RLIMIT_NOFILE, before)
    assert record(service, "again") == MUSIC


@pytest.mark.skipif(SANITIZED, reason="the sanitizers' own memory has no room under any limit")
def test_without_memory_for_a_copy_there_is_no_copy_and_all_else_goes_on(service):
    world = service.world
    assert record(service) == MUSIC
    with open(f"/proc/{service.pid}/statm", encoding="ascii") as file:
        size = int(file.read().split()[0]) * resource.getpagesize()
    # Less than the portion of a copy, more than a call on the bus takes.
    limit = size + 700_000
    resource.prlimit(service.pid, resource.RLIMIT_AS, (limit, resource.RLIM_INFINITY))
    copy = service.client.dup_cue(world.directory, world.path("cue"))
    assert not os.path.exists(copy)
    assert record(service, "again") == MUSIC


# ---- the disk and the clock -----------------------------------------------------------------------------------------


def test_what_fits_into_the_receive_buffer_survives_a_stop_of_the_process(service):
    world = service.world
    service.client.grab(world.path("cue"))
    service.feed(MUSIC[:1])
    service.halt()
    world.console.send(*MUSIC[1:])
    service.go_on()
    service.settle()
    service.client.stop()
    assert Recording.read(world.path("cue")).datagrams == MUSIC


@pytest.mark.parametrize("hours", [-1, 1])
def test_a_wall_clock_that_is_set_changes_no_pause(faulty, faults, hours):
    world = faulty.world
    faulty.client.grab(world.path("cue"))
    faulty.feed(MUSIC)
    faults.shift_clock(3600 * hours)
    began = now()
    faulty.feed(MUSIC)
    faulty.client.stop()
    recording = Recording.read(world.path("cue"))
    assert recording.datagrams == MUSIC * 2
    # The pause across the step of the clock is less than the time that has passed here.
    assert recording.delays[len(MUSIC) - 1] < (now() - began + DEADLINE) * 1_000_000_000
    copies = {faulty.client.dup_cue(world.directory, world.path("cue")) for _ in range(3)}
    assert len(copies) == 3 and all(os.path.exists(copy) for copy in copies)


@pytest.fixture(params=["a_file_without_a_name", "a_hidden_name"])
def long_copy(request, faulty, faults):
    """A copy of several portions under way, the second of which takes as long as the test needs: (folder, cue, thread)."""
    world = faulty.world
    folder, cue = world.path("copies"), world.path("cue")
    os.mkdir(folder)
    Path(cue).write_bytes(random.Random(1).randbytes(5_000_000))
    if request.param == "a_hidden_name":
        faults.arm("tmpfile", errno.EOPNOTSUPP)
    faults.arm("write", kind=FILE, skip=1, delay=LOOK)

    def copy():
        with contextlib.suppress(GLib.Error):  # a service that is killed does not answer
            faulty.client.dup_cue(folder, cue)

    thread = threading.Thread(target=copy)
    thread.start()
    faults.wait_until_struck("write")
    yield folder, cue, thread
    thread.join()


def cues_in(folder):
    return [os.path.join(folder, name) for name in os.listdir(folder) if not name.startswith(".")]


def test_a_copy_appears_when_it_is_whole(faults, long_copy):
    folder, cue, thread = long_copy
    assert cues_in(folder) == []
    faults.disarm("write")
    found = []
    while not found:
        alive = thread.is_alive()
        found = cues_in(folder)
        assert found or alive
    assert [Path(path).read_bytes() for path in found] == [Path(cue).read_bytes()]
    thread.join()
    assert len(os.listdir(folder)) == 1


def test_a_copy_that_is_killed_is_no_cue(faulty, long_copy):
    folder, _, thread = long_copy
    faulty.kill()
    thread.join()
    assert cues_in(folder) == []


def test_a_file_system_that_is_unmounted_under_a_recording(service):
    """As by `umount -l`: the recording goes on where nobody sees it, and the next one is an ordinary one."""
    world = service.world
    path = world.path("small")
    os.mkdir(path)
    world.namespaces.mount_tmpfs(path, 1 << 20)
    service.client.grab(f"{path}/cue")
    service.feed(MUSIC)
    world.namespaces.run(["umount", "-l", path])
    service.feed(MUSIC)
    assert service.client.get_status() == "run"
    service.client.stop()
    assert service.client.latest_grab() == grab_text(f"{path}/cue", False, 1, [1])
    assert record(service, "again") == MUSIC


def test_a_file_system_that_becomes_read_only_refuses_the_next_recording(service):
    world = service.world
    path = world.path("small")
    os.mkdir(path)
    world.namespaces.mount_tmpfs(path, 1 << 20)
    world.namespaces.run(["mount", "-o", "remount,bind,nosuid,ro", path])
    lines = world.log.mark()
    service.client.grab(f"{path}/cue")
    assert service.client.get_status() == "off"
    assert world.log.entries(lines) == [GRAB, GRAB_CANNOT_OPEN]
    assert record(service, "again") == MUSIC


# ---- the network ----------------------------------------------------------------------------------------------------


def wait_until_reached(world, address="10.77.0.1"):
    """Asks until the service answers."""

    def answered():
        world.console.send(art_poll(), to=(address, world.network.service_port))
        return select.select([world.console.socket], [], [], 0.05)[0]

    spin_until(answered, "an answer")
    world.console.waiting()


@pytest.fixture
def recording(service):
    """The service, which has recorded MUSIC once and goes on."""
    service.client.grab(service.world.path("cue"))
    service.feed(MUSIC)
    return service


def assert_recorded_twice(service):
    assert service.client.get_status() == "run"
    service.client.stop()
    assert Recording.read(service.world.path("cue")).datagrams == MUSIC * 2


def test_an_interface_that_goes_down_and_up_again_costs_what_was_sent_meanwhile(recording):
    world = recording.world
    lines = world.log.mark()
    world.namespaces.ip("appliance", "link set eth0 down")
    world.console.send(*MUSIC)
    assert recording.client.get_status() == "run"
    world.namespaces.ip("appliance", "link set eth0 up")
    wait_until_reached(world)
    recording.feed(MUSIC)
    assert world.log.entries(lines) == []
    assert_recorded_twice(recording)


def test_an_interface_with_another_address_is_recorded_from_as_before(recording):
    world = recording.world
    world.namespaces.ip(
        "appliance", "address del 10.77.0.1/16 dev eth0", "address add 10.77.0.9/16 broadcast 10.77.255.255 dev eth0"
    )
    wait_until_reached(world, "10.77.0.9")
    console = world.console_host.endpoint(to=("10.77.0.9", world.network.service_port))
    recording.feed(MUSIC, console)
    assert_recorded_twice(recording)


def test_an_interface_that_is_removed_and_comes_back_is_recorded_from_again(recording):
    world = recording.world
    lines = world.log.mark()
    world.namespaces.ip("appliance", "link del eth0")
    assert recording.client.get_status() == "run"
    commands = ["address add 10.77.0.1/16 broadcast 10.77.255.255 dev eth0", "link set eth0 up"]
    world.namespaces.cable("appliance", "eth0", commands, "switch", "back", "bridge")
    world.namespaces.ip("console", "neighbour flush dev eth0")
    wait_until_reached(world)
    recording.feed(MUSIC)
    assert world.log.entries(lines) == []
    assert_recorded_twice(recording)


def test_detection_without_a_network_says_so_once_a_cycle(service):
    world = service.world
    world.namespaces.ip("appliance", "link set eth0 down")
    lines = world.log.mark()
    service.client.start_polling_artnet_nodes()
    world.log.wait_for(lambda line: line.message.startswith("Failed to send artpoll datagram"), "the failure", lines)
    assert len([text for text in world.log.messages(lines) if text.startswith("Failed")]) == 1


# ---- the bus and the log --------------------------------------------------------------------------------------------


def test_a_bus_that_is_killed_ends_no_recording(faulty, faults):
    world = faulty.world
    faulty.client.grab(world.path("cue"))
    faulty.feed(MUSIC)
    world.bus.kill()
    faulty.feed(MUSIC)
    look_on(faulty, faults)
    assert faulty.end() == 0
    assert Recording.read(world.path("cue")).datagrams == MUSIC * 2


# Triggers that the service keeps for a bus that takes none.
KEPT = 32768


@pytest.mark.skipif(
    b"__tsan_init" in EXECUTABLE.read_bytes(), reason="tens of thousands of triggers take the thread sanitizer half a minute"
)
def test_a_bus_that_hangs_gets_so_many_triggers_and_no_more_when_it_goes_on(service):
    world, signals = service.world, service.client.signals
    world.bus.pause()
    for _ in range(KEPT // 128 + 2):
        world.console.send(*[art_trigger(1, 1)] * 128, art_poll())
        world.console.receive()
    world.bus.go_on()
    signals.wait_for_count(KEPT)
    assert len(signals.items) == KEPT
    world.console.send(art_trigger(2, 2))
    assert signals.wait_for(lambda signal: signal.arguments == (2, 2), "a trigger afterwards")
    assert len(signals.items) == KEPT + 1


def test_a_client_that_does_not_read_loses_signals_and_costs_the_others_none(make_world):
    """The bus keeps signals for it up to a limit, drops the rest, and delivers again when it has caught up."""
    world = make_world(bus_limits={"max_outgoing_bytes": 100_000})
    service = world.start()
    deaf = LazyClient(world.bus.address, rate=0)
    sent = [(1, number % 251) for number in range(4000)]
    for start in range(0, len(sent), 200):
        service.feed([art_trigger(*one) for one in sent[start : start + 200]])
        assert service.client.triggers() == sent[: start + 200]
    assert not deaf.disconnected()
    received = b""

    def caught_up():
        nonlocal received
        service.feed([art_trigger(7, 7)])
        received += deaf.waiting()
        # A signal ends in key and subkey.
        return received.endswith(struct.pack("<ii", 7, 7))

    spin_until(caught_up, "a signal for the client that reads again")
    assert received.count(struct.pack("<ii", 1, 1)) < sent.count((1, 1))
    deaf.close()


def test_without_a_log_daemon_everything_works(world):
    """Not even a socket to write to."""
    os.unlink(f"{world.directory}/syslog")
    service = world.start(wait_for_socket=False)
    service.client.grab(world.path("cue"))
    service.world.console.send(*MUSIC, art_poll())
    service.world.console.receive()
    service.client.stop()
    assert Recording.read(world.path("cue")).datagrams == MUSIC


def test_a_log_daemon_that_is_restarted_gets_the_lines_from_then_on(service):
    world = service.world
    world.restart_log(lambda: service.client.stop())
    lines = world.log.mark()
    assert record(service) == MUSIC
    assert world.log.entries(lines) == [GRAB, GRABBING_STARTED, STOP, FINALIZED, lost_nothing(1, len(MUSIC))]
