"""System calls of the running service that fail, one by one, once and for ever.

Whatever fails, the service goes on: it lives, answers on the bus, calls nothing in a circle, writes no flood into the log, records
again once the fault is over, and ends with 0 when it is told to.
"""

import errno
import os
import resource
import select
import signal
from dataclasses import dataclass

import pytest
from harness import DEADLINE, ERROR, INFO, Recording, spin_until
from harness.artnet import art_dmx, art_poll, relay
from harness.faults import ANY, BUS, FILE, FOREVER, LOG, NAMES, OTHER, UDP, Faults
from harness.service import EXECUTABLE
from harness.waiting import now
from texts import BIND_FAILED, FINALIZED, GRAB, GRAB_CANNOT_OPEN, GRABBING_STARTED, STOP, grab_text

LIBRARY = EXECUTABLE.parent / "tests/faults/libfaults.so"

pytestmark = pytest.mark.skipif(not LIBRARY.exists(), reason="built with the unit tests only (KADREL_BUILD_TESTS)")

# Every combination, instead of one or two for each function.
EXHAUSTIVE = "KADREL_TEST_ALL" in os.environ

MUSIC = [art_dmx(1, bytes([number] * 100)) for number in range(20)]

# Seconds of one look at what the service does, and what it may do in each: a circle makes some hundred thousand calls.
LOOK = 0.5
CALLS_PER_SECOND = 8000
LINES = 60


@pytest.fixture
def faults(world):
    made = Faults(world.path("faults"), LIBRARY)
    yield made
    made.close()


@pytest.fixture
def faulty(world, faults):
    """The service, whose calls may be made to fail."""
    return world.start(prefix=faults.prefix)


def record(service, name="cue", frames=MUSIC):
    """A recording of a few frames and its contents."""
    path = service.world.path(name)
    service.client.grab(path)
    service.feed(frames)
    service.client.stop()
    return Recording.read(path).datagrams


def use_everything(service, wait=False):
    """Has the service do all that it can, and waits only for the bus."""
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
    """For half a second: the process lives, makes few calls and writes few lines."""
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


# Function, kind of descriptor, whether it may fail for ever, its errors. Where it may not, the framework or the bus library
# stands behind it, which takes such an error for the end of the connection or tries again without a pause.
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
    ("socket", LOG, True, "EMFILE ENFILE ENOBUFS ENOMEM EPERM"),
    ("connect", LOG, True, "ECONNREFUSED EAGAIN EPERM ENOENT EINTR"),
    ("poll", LOG, True, "EINTR ENOMEM"),
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
    "socket-log-EMFILE-for_ever",
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
