"""What the service tells the service manager that has started it: that it is ready, how it is, that it goes on, that it ends."""

import errno
import os
import random
import re
import signal
from pathlib import Path

import pytest
from harness import DEADLINE, Recording, spin_until
from harness.artnet import art_dmx
from harness.faults import FILE, OTHER, UDP
from harness.manager import PROOF, ServiceManager
from harness.service import EXECUTABLE
from harness.show import Show
from texts import DROPPING, FINALIZED, end_waits, losses

MUSIC = [art_dmx(universe, bytes([universe] * 100)) for universe in range(3)]

RECORD_ON = art_dmx(8, b"\xff")
RECORD_OFF = art_dmx(8, b"\x00")

# Seconds after which the manager would end the service: it has to hear of it each second then.
WATCHDOG = 4
SMALL_MEMORY = {"KADREL_WRITE_BUFFER_MIB": "1"}
TOO_MANY = 2500

READY, STOPPING = "READY=1", "STOPPING=1"
NAMES = {"READY", "STATUS", "STOPPING", "WATCHDOG", "EXTEND_TIMEOUT_USEC"}

pytestmark = pytest.mark.skipif(b"NOTIFY_SOCKET" not in EXECUTABLE.read_bytes(), reason="a build without libsystemd")


@pytest.fixture
def manager(world):
    made = ServiceManager(world)
    yield made
    made.leave()


@pytest.fixture
def watching(world):
    made = ServiceManager(world, watchdog=WATCHDOG)
    yield made
    made.leave()


@pytest.fixture
def managed(world, manager):
    """The service, started by a manager."""
    return world.start(environment=manager.environment)


@pytest.fixture
def stalling(world, manager, faults):
    """The same, with little memory and a disk that may stand still."""
    return world.start(environment={**manager.environment, **SMALL_MEMORY}, prefix=faults.prefix)


@pytest.fixture
def watched(world, watching, faults):
    """The service, watched; its calls may be held."""
    service = world.start(environment=watching.environment, prefix=faults.prefix)
    watching.wait_for_proofs(1)
    return service


@pytest.mark.parametrize("name", [None, "@kadrel-manager"], ids=["path", "abstract"])
def test_the_manager_hears_that_the_service_is_ready_when_it_is_on_the_bus(world, name):
    manager = ServiceManager(world, name)
    process = world.run(world.network.service_port, environment=manager.environment)
    manager.wait_for(lambda lines: READY in lines, "the service to be ready")
    assert world.client.get_status() == "off"
    manager.wait_for_status("off")
    assert process.end() == 0
    manager.wait_for(lambda lines: STOPPING in lines and "STATUS=ending" in lines, "the end")
    assert sum(READY in lines for lines in manager.items) == 1
    manager.leave()


def test_the_status_tells_each_state_of_a_recording(managed, manager):
    client, path = managed.client, managed.world.path("cue")
    assert client.set_ctrl_universe(9) and client.set_ctrl_record(1, 100)
    manager.wait_for_status("off")
    client.grab(path)
    manager.wait_for_status(f"armed for {path}, waits for the record channel")
    managed.feed([RECORD_ON])
    manager.wait_for_status(f"armed for {path}, waits for the first frame")
    managed.feed(MUSIC[:1])
    manager.wait_for_status(re.compile(re.escape(f"recording {path}, 1 universe, ") + r"[\d,]+/s, nothing lost"))
    managed.feed(MUSIC)
    manager.wait_for_status(re.compile(re.escape(f"recording {path}, 3 universes, ") + r"[\d,]+/s, nothing lost"))
    start = manager.mark()
    managed.feed([RECORD_OFF])
    manager.wait_for_status("off", start)


def test_the_status_tells_that_the_port_is_taken(world, manager):
    with world.namespaces.udp_socket("appliance", "0.0.0.0", world.network.service_port):
        world.start(environment=manager.environment)
        manager.wait_for_status("off, the UDP port is not bound: nothing is heard")


def test_the_status_tells_of_a_disk_that_stands_still_and_of_what_it_costs(stalling, manager, faults):
    client, show, path = stalling.client, Show(stalling), stalling.world.path("cue")
    lines = stalling.world.log.mark()
    client.grab(path)
    faults.hold("write", FILE)
    show.send(100)
    head = re.escape(f"recording {path}, 1 universe, ") + r"[\d,]+/s, "
    manager.wait_for_status(re.compile(head + r"[\d.]+ KB wait for the disk, nothing lost"))
    show.send(TOO_MANY)
    stalling.world.log.wait_for_text(DROPPING[1], lines)
    manager.wait_for_status(re.compile(head + r"the file takes no data, [\d.]+ (KB|MB) wait for the disk, [\d,]+ lost"))
    stop = client.begin("stop")
    stalling.world.log.wait_for_text(FINALIZED[1], lines)
    # The main thread waits for the disk, and says so.
    manager.wait_for_status(re.compile(r"off, [\d.]+ (KB|MB) wait for the disk"))
    start = manager.mark()
    faults.disarm("write")
    stop.result()
    manager.wait_for_status("off", start)
    lost = len(show.frames) - len(show.kept(Recording.read(path)))
    assert [writer for _, writer, _ in losses(stalling.world.log.entries(lines))] == [lost]
    told = [line for message in manager.items for line in message if line.endswith(" lost") and "nothing" not in line]
    assert int(re.search(r"([\d,]+) lost", told[-1])[1].replace(",", "")) <= lost


def test_the_status_tells_of_a_full_disk(managed, manager):
    show = Show(managed)
    managed.client.grab("/dev/full")
    told = re.compile(r"recording /dev/full, 1 universe, [\d,]+/s, the file takes no data, .*nothing lost")

    def is_told():
        show.send(1)
        return any(told.fullmatch(line.partition("=")[2]) for message in manager.items for line in message)

    spin_until(is_told, "the status")


def test_an_end_that_waits_for_the_disk_asks_for_the_time(stalling, manager, faults):
    show, world = Show(stalling), stalling.world
    lines = world.log.mark()
    stalling.client.grab(world.path("cue"))
    faults.hold("write", FILE)
    show.send(100)
    faults.wait_until_struck("write")
    stalling.send_signal(signal.SIGTERM)
    bytes_waiting = end_waits(world.log, lines)
    told = manager.wait_for(lambda message: any(line.startswith("EXTEND") for line in message), "the wait")
    assert told == ["EXTEND_TIMEOUT_USEC=15000000", f"STATUS=ending, {bytes_waiting // 100 / 10} KB wait for the disk"]
    assert [STOPPING, "STATUS=ending"] in manager.items
    faults.disarm("write")
    assert stalling.wait() == 0
    assert show.kept(Recording.read(world.path("cue"))) == list(range(100))


def test_a_signal_while_stop_waits_for_the_disk_is_told(stalling, manager, faults):
    show, world = Show(stalling), stalling.world
    lines = world.log.mark()
    stalling.client.grab(world.path("cue"))
    faults.hold("write", FILE)
    show.send(100)
    faults.wait_until_struck("write")
    stop = stalling.client.begin("stop")
    world.log.wait_for_text(FINALIZED[1], lines)
    stalling.send_signal(signal.SIGTERM)
    told = manager.wait_for(lambda message: any(line.startswith("EXTEND") for line in message), "the wait")
    assert told[0] == STOPPING
    faults.disarm("write")
    assert stalling.wait() == 0
    stop.exception(DEADLINE)


@pytest.mark.parametrize(
    "name",
    [
        *("a\nMAINPID=1\nSTOPPING=1", "\x1b[2J\x1b]0;owned\x07", "line\u2028end", "\x85\x9b", "x" * 200),
        *("Übung \U0001f3ac", "a b=c\\n"),
    ],
    ids=["lines", "escapes", "separator", "upper", "long", "unicode", "backslash"],
)
def test_no_name_of_a_file_says_anything_else_to_the_manager(managed, manager, name):
    path = managed.world.path(name)
    managed.client.grab(path)
    assert os.path.exists(path)
    status = manager.wait_for_status(re.compile(r"armed for .*, waits for the first frame"))
    shown = status.removeprefix("armed for ").removesuffix(", waits for the first frame")
    assert shown.isprintable() and len(shown) <= 60
    expected = "".join(one if one.isprintable() else "?" for one in path)
    assert shown == (expected if len(expected) <= 60 else "..." + expected[-57:])
    managed.stop()
    sent = {line.partition("=")[0] for message in manager.items for line in message}
    assert sent <= NAMES
    assert sum(STOPPING in message for message in manager.items) == 1


# ---- the watchdog ----------------------------------------------------------------------------------------------------


def test_the_service_goes_on_while_it_is_idle_and_while_it_records(watched, watching):
    watching.wait_for_proofs(2)
    watched.client.grab(watched.world.path("cue"))
    watched.feed(MUSIC)
    watching.wait_for_proofs(2)
    watched.client.stop()
    watching.wait_for_proofs(1)


def test_a_service_without_a_port_goes_on(world, watching):
    with world.namespaces.udp_socket("appliance", "0.0.0.0", world.network.service_port):
        world.start(environment=watching.environment)
        watching.wait_for_proofs(3)


@pytest.mark.parametrize("call", ["stop", "latest_grab"])
def test_a_wait_for_a_disk_is_no_hang(watched, watching, faults, call):
    client, world = watched.client, watched.world
    assert client.set_ctrl_universe(9) and client.set_ctrl_record(1, 100)
    client.grab(world.path("cue"))
    faults.hold("write", FILE)
    watched.feed([RECORD_ON, *MUSIC])
    if call == "latest_grab":
        watched.feed([RECORD_OFF])
    waits = client.begin(call)
    faults.wait_until_struck("write")
    watching.wait_for_proofs(4)
    assert not waits.done()
    faults.disarm("write")
    waits.result()


@pytest.mark.parametrize("held", ["open", "sync_file_range", "read"])
def test_a_disk_that_holds_the_main_thread_in_the_kernel_ends_no_recording(watched, watching, faults, held):
    """A recording goes on while a call opens or copies a file on another disk, which stands still."""
    client, world = watched.client, watched.world
    cue, copies = world.path("cue"), world.path("copies")
    os.mkdir(copies)
    Path(cue).write_bytes(bytes(100))
    path = world.path("recording")
    client.grab(path)
    watched.feed(MUSIC)
    faults.hold(held, FILE)
    before = faults.struck(held)
    copy = client.begin("dup_cue", copies, cue)
    faults.wait_until_struck(held, before)
    watching.wait_for_proofs(4)
    assert not copy.done()
    watched.feed(MUSIC)
    faults.disarm(held)
    assert Path(copy.result()).read_bytes() == bytes(100)
    watching.wait_for_proofs(2)
    client.stop()
    assert Recording.read(path).datagrams == MUSIC * 2


def test_a_file_that_is_slow_to_open_is_no_hang(watched, watching, faults):
    faults.hold("open", FILE)
    before = faults.struck("open")
    grab = watched.client.begin("grab", watched.world.path("cue"))
    faults.wait_until_struck("open", before)
    watching.wait_for_proofs(3)
    faults.disarm("open")
    grab.result()
    assert watched.client.get_status() == "on"


def test_a_long_copy_is_no_hang_and_the_status_stays_true(watched, watching, faults):
    client, world = watched.client, watched.world
    cue, copies, path = world.path("cue"), world.path("copies"), world.path("recording")
    os.mkdir(copies)
    Path(cue).write_bytes(random.Random(1).randbytes(20_000_000))
    client.grab(path)
    faults.arm("sync_file_range", kind=FILE, delay=0.3)
    copy = client.begin("dup_cue", copies, cue)
    faults.wait_until_struck("sync_file_range")
    watched.feed(MUSIC)
    watching.wait_for_status(re.compile(re.escape(f"recording {path}, 3 universes, ") + r"[\d,]+/s, nothing lost"))
    watching.wait_for_proofs(2)
    assert not copy.done()
    faults.disarm("sync_file_range")
    assert Path(copy.result()).read_bytes() == Path(cue).read_bytes()


def proofs(manager, start):
    return [message for message in manager.since(start) if PROOF in message]


def wait_for_calls(faults, name, count):
    """Waits until a function has been called so many more times."""
    before = faults.calls(name)
    spin_until(lambda: faults.calls(name) >= before + count, f"{count} calls of {name}")


def test_a_receive_thread_that_hangs_silences_the_service(watched, watching, faults):
    faults.hold("select", UDP)
    faults.wait_until_struck("select")
    # The main loop polls at least once a second. What it has seen of the receive thread is old by then.
    wait_for_calls(faults, "poll", 3)
    start = watching.mark()
    wait_for_calls(faults, "poll", 5)
    assert watched.client.get_status() == "off"
    assert proofs(watching, start) == []
    faults.disarm("select")
    watching.wait_for_proofs(1)


def test_a_receive_thread_that_hangs_during_a_copy_silences_the_service(watched, watching, faults):
    world = watched.world
    Path(world.path("cue")).write_bytes(random.Random(1).randbytes(20_000_000))
    faults.hold("select", UDP)
    faults.wait_until_struck("select")
    faults.arm("sync_file_range", kind=FILE, delay=0.3)
    copy = watched.client.begin("dup_cue", world.directory, world.path("cue"))
    wait_for_calls(faults, "sync_file_range", 5)
    start = watching.mark()
    wait_for_calls(faults, "sync_file_range", 8)
    assert not copy.done()
    assert proofs(watching, start) == []
    faults.disarm("sync_file_range")
    faults.disarm("select")
    assert os.path.exists(copy.result())


def test_a_main_thread_that_hangs_silences_the_service(watched, watching, faults):
    faults.hold("poll", OTHER)
    faults.wait_until_struck("poll")
    # The receive thread waits for a second at most each time.
    wait_for_calls(faults, "select", 3)
    start = watching.mark()
    wait_for_calls(faults, "select", 5)
    assert proofs(watching, start) == []
    faults.disarm("poll")
    watching.wait_for_proofs(1)


def test_a_service_that_is_stopped_for_a_while_goes_on_afterwards(watched, watching):
    watched.halt()
    watched.go_on()
    watching.wait_for_proofs(2)


@pytest.mark.parametrize("hours", [-1, 1])
def test_a_wall_clock_that_is_set_changes_nothing(watched, watching, faults, hours):
    faults.shift_clock(3600 * hours)
    watching.wait_for_proofs(3)


# ---- managers that do not listen -------------------------------------------------------------------------------------


def switches(service):
    """How often the main thread has gone to sleep."""
    with open(f"/proc/{service.pid}/task/{service.pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("voluntary_ctxt_switches"))


def test_without_a_manager_the_main_thread_sleeps_on(world, faults):
    service = world.start(environment={"WATCHDOG_USEC": "4000000"}, prefix=faults.prefix)
    service.settle()
    assert service.client.get_status() == "off"
    # What the call has left to do is done by then.
    wait_for_calls(faults, "select", 2)
    before = switches(service)
    wait_for_calls(faults, "select", 4)
    assert switches(service) == before
    assert not [name for name in os.listdir(f"/proc/{service.pid}/fd") if is_unconnected_datagram_socket(service, name)]


def is_unconnected_datagram_socket(service, name):
    """Whether a descriptor is a Unix datagram socket without a peer, as the one to the manager is."""
    link = os.readlink(f"/proc/{service.pid}/fd/{name}")
    if not link.startswith("socket:"):
        return False
    with open(f"/proc/{service.pid}/net/unix", encoding="utf-8") as table:
        rows = [line.split() for line in table]
    return any(row[6] == link[8:-1] and row[4] == "0002" and row[5] != "03" for row in rows[1:])


def test_a_manager_whose_queue_is_full_is_not_waited_for(world, watching, faults):
    watching.stop_reading()
    watching.fill()
    service = world.start(environment=watching.environment, prefix=faults.prefix)
    assert service.client.get_status() == "off"
    service.client.grab(world.path("cue"))
    service.feed(MUSIC)
    wait_for_calls(faults, "sendto", 3)
    service.client.stop()
    assert Recording.read(world.path("cue")).datagrams == MUSIC
    watching.go_on_reading()
    told = watching.wait_for(lambda message: READY in message, "the service to be ready at last")
    assert told == [READY, PROOF, "STATUS=off"]
    watching.stop_reading()
    watching.fill()
    assert service.end() == 0


@pytest.mark.parametrize("name", ["/nowhere/manager", "relative", "", "@", "/" + "n" * 200, "vsock:2:1"])
def test_a_manager_that_is_not_there_is_not_missed(world, name):
    service = world.start(environment={"NOTIFY_SOCKET": name, "WATCHDOG_USEC": "4000000"})
    service.client.grab(world.path("cue"))
    service.feed(MUSIC)
    service.client.stop()
    assert Recording.read(world.path("cue")).datagrams == MUSIC


def test_a_manager_that_starts_anew_is_told_from_then_on(world, watching, faults):
    service = world.start(environment=watching.environment, prefix=faults.prefix)
    watching.wait_for_proofs(1)
    name = watching.name
    watching.leave()
    service.client.grab(world.path("cue"))
    wait_for_calls(faults, "sendto", 2)
    again = ServiceManager(world, name)
    again.wait_for_status(f"armed for {world.path('cue')}, waits for the first frame")
    assert service.end() == 0
    again.wait_for(lambda message: STOPPING in message, "the end")
    again.leave()
