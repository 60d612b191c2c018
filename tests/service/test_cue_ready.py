"""kadrel-cue ready: with everything in order, and with each thing broken."""

import contextlib
import errno
import json
import os
import shutil
import signal
import socket
import subprocess
import threading

import pytest
from cue_tool import CUE, limited
from harness import APPLIANCE, ARTNET_PORT, BROADCAST, CONSOLE, EXECUTABLE, SERVICE, spin_until
from harness.artnet import art_dmx
from harness.sanitizers import environment, report_in
from test_kernel_drops import overflow

LISTEN = "700 ms"
NAMES = "service port network universes senders buffer drops space speed priority log".split()
FULL = bytes(512)


def start(world, *arguments, prefix=(), variables=None, **options):
    everything = {
        "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
        "DBUS_SESSION_BUS_ADDRESS": world.bus.address,
        **environment(),
        **(variables or {}),
    }
    return world.namespaces.popen(
        [*prefix, str(CUE), "ready", "--listen", LISTEN, *map(str, arguments)],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        env={name: value for name, value in everything.items() if value is not None},
        **options,
    )


def finish(process):
    with limited(process):
        out, errors = process.communicate()
    assert report_in(errors) is None, errors
    assert errors == ""
    return process.returncode, out


class Findings:
    """What `--json` says: a check by its name."""

    def __init__(self, code, out):
        self.all = json.loads(out)
        self.code = code
        assert [check["name"] for check in self.all["checks"]] == NAMES
        levels = [check["level"] for check in self.all["checks"]]
        assert self.all["ready"] == ("bad" not in levels) == (code == 0)
        assert (self.all["bad"], self.all["warnings"]) == (levels.count("bad"), levels.count("warning"))
        for check in self.all["checks"]:
            assert (check["level"] == "ok") == (check["advice"] == ""), check

    def __getitem__(self, name):
        return self.all["checks"][NAMES.index(name)]

    def said(self, name):
        """Level, text and advice."""
        check = self[name]
        return check["level"], check["text"], check["advice"]


def ready(world, *arguments, **options):
    return Findings(*finish(start(world, "--json", *arguments, **options)))


@contextlib.contextmanager
def sending(*pairs):
    """Each of these datagrams again and again, from its endpoint to the service."""
    ending = threading.Event()

    def send():
        while not ending.wait(0.02):
            for endpoint, datagram in pairs:
                endpoint.send(datagram)

    thread = threading.Thread(target=send, daemon=True)
    thread.start()
    try:
        yield
    finally:
        ending.set()
        thread.join()


def universes(endpoint, *numbers):
    return [(endpoint, art_dmx(number - 1, FULL)) for number in numbers]


# Everything in order.


def test_an_appliance_in_order_is_ready(world):
    service = world.start(environment={"KADREL_UNIVERSE_COUNT": 3})
    with sending(*universes(world.console, 1, 2, 3)):
        found = ready(world)
    assert found.said("service") == ("ok", f"off; version {version()}, process {service.pid}", "")
    assert found.said("port") == ("ok", "kadrel has UDP port 6454", "")
    assert found.said("network") == ("ok", f"eth0 {APPLIANCE}, broadcast {BROADCAST}", "")
    level, text, _ = found.said("universes")
    assert level == "ok" and text.startswith("3 heard in ") and "(1-3)" in text and text.endswith("; 3 announced")
    assert found.said("senders") == ("ok", CONSOLE, "")
    assert found["buffer"]["figures"]["bytes"] > 0
    assert found.said("drops") == ("ok", "none at kadrel's socket, none in the system", "")
    assert found["space"]["figures"]["hours"] > 0
    assert found["speed"]["figures"]["tested"] is True
    assert found.said("log") == ("ok", "the system log takes lines", "")
    assert_nothing_left(world)


def assert_nothing_left(world):
    """Of the test of the disk, in the folder where it ran."""
    assert [name for name in os.listdir(world.directory) if "kadrel-ready" in name] == []


def version():
    output = subprocess.run([CUE, "--version"], stdout=subprocess.PIPE, text=True, check=True, timeout=20).stdout
    return output.split()[-1]


def test_the_screen_has_a_line_for_each_check_and_the_verdict_last(world):
    world.start()
    with sending(*universes(world.console, 1)):
        _, out = finish(start(world))
    lines = out.splitlines()
    assert max(map(len, lines)) <= 80 and len(lines) < 24
    assert [line[9:18].strip() for line in lines[:-1] if not line.startswith(" ")] == NAMES
    assert lines[-1].startswith(("ready", "NOT ready: "))


def test_options_that_are_not_understood(world):
    for wrong in (["--listen", "0"], ["--listen", "2h"], ["--listen", "soon"], ["extra"]):
        with limited(start(world, *wrong)) as process:
            _, errors = process.communicate()
        assert process.returncode == 2 and errors.startswith("kadrel-cue: ")


# The service.


def test_without_a_bus(world):
    address = f"unix:path={world.path('nobody')}"
    found = ready(world, variables={"DBUS_SESSION_BUS_ADDRESS": address})
    level, text, advice = found.said("service")
    assert (level, text) == ("bad", "cannot ask the session bus") and address in advice
    assert found.said("port") == ("ok", "6454 is free", "")


def test_without_the_service_nothing_is_started(world):
    found = ready(world)
    level, text, advice = found.said("service")
    assert (level, text) == ("bad", "not running, and this bus cannot start it") and advice
    assert found["drops"]["text"].startswith("kadrel has no socket")
    assert not world.client.owns(SERVICE)


def test_a_service_that_does_not_answer(world):
    service = world.start()
    service.halt()
    try:
        found = ready(world)
    finally:
        service.go_on()
    level, text, advice = found.said("service")
    assert level == "bad" and text.startswith("on the bus, but it does not answer; version ")
    assert advice == "no answer within 5 s; systemctl --user restart kadrel"
    assert found.said("speed") == ("ok", "not tested, kadrel may be recording", "")


def test_a_bus_that_hangs_holds_nothing_up(world):
    """As one that is stopped: it takes connections, and no words."""
    with socket.socket(socket.AF_UNIX) as bus:
        bus.bind(world.path("hanging"))
        bus.listen(16)
        found = ready(world, variables={"DBUS_SESSION_BUS_ADDRESS": f"unix:path={world.path('hanging')}"})
    level, text, advice = found.said("service")
    assert (level, text) == ("bad", "cannot ask the session bus") and advice.startswith("it does not answer, it hangs")
    assert found.said("port") == ("ok", "6454 is free", "")


def test_a_running_recording_is_said_and_its_disk_left_alone(world):
    service = world.start()
    service.client.grab(world.path("cue"))
    assert ready(world)["service"]["text"].startswith("armed; ")
    service.feed([art_dmx(0, FULL)])
    found = ready(world)
    assert found["service"]["text"].startswith("recording; ")
    assert found.said("speed") == ("ok", "not tested, for the sake of the running recording", "")
    service.client.stop()


def test_a_recording_that_begins_meanwhile_is_said_and_its_disk_left_alone(world):
    service = world.start()
    ours, terminal = os.openpty()
    process = world.namespaces.popen(
        [str(CUE), "ready", "--json", "--listen", "2"],
        stdout=subprocess.PIPE,
        stderr=terminal,
        text=True,
        env={"PATH": os.environ["PATH"], "DBUS_SESSION_BUS_ADDRESS": world.bus.address, **environment()},
    )
    os.close(terminal)
    with limited(process):
        shown = b""
        while b"listening for 2.000 s" not in shown:
            shown += os.read(ours, 100)
        os.kill(process.pid, signal.SIGSTOP)
        service.client.grab(world.path("cue"))
        service.feed([art_dmx(0, FULL)])
        os.kill(process.pid, signal.SIGCONT)
        out, _ = process.communicate()
        found = Findings(process.returncode, out)
    os.close(ours)
    assert found["service"]["text"].startswith("recording; ")
    assert found.said("speed") == ("ok", "not tested, for the sake of the running recording", "")
    service.client.stop()


def test_a_service_whose_program_was_replaced(world):
    """As an upgrade does it: the new program gets the name of the old."""
    copy = world.path(EXECUTABLE.name)
    shutil.copy(EXECUTABLE, copy)
    process = world.namespaces.popen(
        [copy, str(ARTNET_PORT)],
        env={"DBUS_SESSION_BUS_ADDRESS": world.bus.address, **environment()},
    )
    spin_until(lambda: world.client.owns(SERVICE), "the service")
    os.unlink(copy)
    level, text, advice = ready(world).said("service")
    process.terminate()
    process.wait()
    assert level == "warning" and text.endswith("; its program was replaced since")
    assert advice == "between two recordings: systemctl --user restart kadrel"


# The port.

HOLDER = """
import ctypes, socket, sys
ctypes.CDLL(None).prctl(15, sys.argv[1].encode("latin-1"), 0, 0, 0)
held = socket.socket(socket.AF_INET6 if ":" in sys.argv[2] else socket.AF_INET, socket.SOCK_DGRAM)
held.bind((sys.argv[2], 6454))
print("held", flush=True)
sys.stdin.read()
"""


@contextlib.contextmanager
def port_held(world, name, address="0.0.0.0"):
    process = world.namespaces.popen(
        ["/usr/bin/python3", "-c", HOLDER, name, address], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
    )
    with limited(process):
        assert process.stdout.readline() == "held\n"
        yield process


@pytest.mark.parametrize("address", ["0.0.0.0", "::", APPLIANCE])
def test_a_foreign_program_on_the_port_is_named(world, address):
    with port_held(world, "\033[2Jolad\x9b", address) as holder:
        found = ready(world)
        _, screen = finish(start(world))
    held = f"6454 is held by ?[2Jolad? (process {holder.pid})"
    assert found.said("port") == ("bad", held, f"end it (kill {holder.pid}), then start kadrel")
    assert "\033" not in screen and held in screen


def test_a_service_that_has_not_got_the_port(world):
    with port_held(world, "olad") as holder:
        service = world.start(wait_for_socket=False)
        found = ready(world)
    assert found.said("port") == (
        "bad",
        f"6454 is held by olad (process {holder.pid})",
        f"end it (kill {holder.pid}), then systemctl --user restart kadrel",
    )
    assert found["port"]["figures"] == {
        "port": 6454,
        "held": True,
        "by_kadrel": False,
        "holder": "olad",
        "process": holder.pid,
    }
    assert ready(world).said("port")[:2] == ("bad", "kadrel has not got 6454, nor has anybody")
    assert service.alive


def test_another_port_than_that_of_art_net(make_world):
    world = make_world(port=7000)
    world.start()
    level, text, advice = ready(world).said("port")
    assert (level, text) == ("warning", "kadrel has UDP port 7000") and "KADREL_PORT=6454" in advice


# The network.


def test_without_eth0(make_world):
    world = make_world(with_eth0=False)
    world.start()
    found = ready(world)
    assert found.said("network")[:2] == ("bad", "no interface eth0: consoles are told 0.0.0.0")
    assert found["universes"]["level"] == "warning" and found["universes"]["text"].startswith("not listened: eth0")
    assert found["senders"]["text"] == "not listened"


@pytest.mark.parametrize(
    "command, level, text",
    [
        ("link set eth0 down", "bad", "eth0 is down"),
        (f"address del {APPLIANCE}/16 dev eth0", "bad", "eth0 has no IPv4 address: consoles are told 0.0.0.0"),
    ],
)
def test_an_interface_that_is_down_or_has_no_address(world, command, level, text):
    world.namespaces.ip("appliance", command)
    assert ready(world).said("network")[:2] == (level, text)


def test_a_cable_that_is_out(world):
    world.namespaces.ip("switch", "link set port0 down")
    assert ready(world).said("network")[:2] == ("bad", "eth0 has no link: the cable, or the switch")


def test_an_interface_without_a_broadcast_address(world):
    world.namespaces.ip("appliance", f"address del {APPLIANCE}/16 dev eth0", f"address add {APPLIANCE}/32 dev eth0")
    found = ready(world)
    assert found.said("network")[:2] == (
        "warning",
        f"eth0 {APPLIANCE}, no broadcast address: no node is searched for",
    )


# Universes and senders.


def test_more_universes_are_heard_than_announced(world):
    world.start()
    with sending(*universes(world.console, 1, 2, 19)):
        level, text, advice = ready(world).said("universes")
    assert level == "warning" and text.startswith("3 heard in ") and "(1-2,19)" in text
    assert text.endswith("; 1 announced, not 2 (0:0:1)")
    assert advice == "KADREL_UNIVERSE_COUNT=19 in /etc/default/kadrel, restart kadrel"


def test_nothing_is_heard(world):
    world.start()
    found = ready(world)
    level, text, advice = found.said("universes")
    assert level == "warning" and text.startswith("none heard in ") and advice.startswith("is the console on")
    assert found.said("senders") == ("ok", "nobody heard", "")
    assert found["space"]["figures"]["by_rate_heard"] is False


def test_two_senders_on_one_universe(world):
    world.start(environment={"KADREL_UNIVERSE_COUNT": 2})
    other = world.network.peer("other", "10.77.0.3").endpoint(ARTNET_PORT)
    with sending(*universes(world.console, 1, 2), *universes(other, 2)):
        level, text, advice = ready(world).said("senders")
    assert (level, text) == ("warning", "10.77.0.2, 10.77.0.3; two on universe 2 (0:0:1)")
    assert advice.startswith("both are recorded")


def test_without_the_right_to_capture_the_rest_is_checked(world):
    world.start(environment={"KADREL_UNIVERSE_COUNT": 3})
    found = ready(world, prefix=["setpriv", "--bounding-set=-net_raw"])
    level, text, advice = found.said("universes")
    assert (level, text) == ("warning", "not listened: no right to capture; 3 announced")
    assert "setcap cap_net_raw" in advice and "chgrp" in advice
    assert found.said("port") == ("ok", "kadrel has UDP port 6454", "")


# Datagrams that get lost.


def test_datagrams_that_the_kernel_dropped(world):
    service = world.start()
    dropped = overflow(service, lambda: world.console.send(*[art_dmx(0, FULL)] * 3000))
    found = ready(world)
    assert found["drops"]["figures"]["socket"] == dropped
    assert found["drops"]["figures"]["system"] >= dropped
    level, text, advice = found.said("drops")
    assert level == "warning" and text.startswith(f"{dropped:,} at kadrel's socket, ") and advice


def test_datagrams_that_are_dropped_just_now(world):
    service = world.start()
    service.halt()
    try:
        with sending(*universes(world.console, *range(1, 300))):
            found = ready(world)
    finally:
        service.go_on()
    assert found["drops"]["level"] == "bad" and " just now), " in found["drops"]["text"]


def test_a_receive_buffer_that_is_too_small(world):
    """Hundreds of universes at once do not fit the kernel's default."""
    service = world.start(environment={"KADREL_UNIVERSE_COUNT": 32768})
    figures = ready(world)["buffer"]
    assert figures["level"] == "bad" and "; one frame takes 41,943,040" in figures["text"]
    assert "net.core.rmem_default=" in figures["advice"] and "restart kadrel" in figures["advice"]
    assert figures["figures"]["bytes"] == buffer_of(service)


def buffer_of(service):
    """As ss(8) shows the service's socket."""
    shown = service.world.namespaces.run(["ss", "-ulnmH", f"sport = {ARTNET_PORT}"])
    return int(shown.split(",rb")[1].split(",")[0])


# The folder of the recordings.


@pytest.fixture
def disk(world):
    path = world.path("disk")
    os.mkdir(path)
    world.namespaces.mount_tmpfs(path, 4 << 20)
    return path


def test_a_disk_with_little_space(world, disk):
    found = ready(world, "--cues", disk)
    level, text, advice = found.said("space")
    assert level == "bad" and text == f"3 minutes for 1 full universe, 4.2 MB free in {disk}" and advice
    assert found.said("speed") == ("ok", "not tested, there is too little space", "")


def test_a_full_disk(world, disk):
    world.namespaces.write_zeros(f"{disk}/ballast", 8 << 20)
    level, text, _ = ready(world, "--cues", disk).said("space")
    assert level == "bad" and (text.startswith("0 minutes ") or text.endswith(os.strerror(errno.ENOSPC)))


def test_a_disk_without_room_for_the_name_of_another_file(world, disk):
    world.namespaces.write_zeros(f"{disk}/one", 1)
    world.namespaces.run(["mount", "-o", "remount,nr_inodes=2", disk])
    level, text, advice = ready(world, "--cues", disk).said("space")
    assert (level, text) == ("bad", f"{disk}: no room for the name of another file (inodes)") and advice


def test_a_disk_that_does_not_answer(world, faults):
    faults.hold("tmpfile")
    found = ready(world, prefix=faults.prefix)
    faults.disarm("tmpfile")
    level, text, advice = found.said("space")
    assert level == "bad" and text.endswith(": the disk does not answer") and advice
    assert found.said("speed") == ("ok", "not tested", "")


def test_a_disk_that_may_only_be_read(world, disk):
    world.namespaces.run(["mount", "-o", "remount,ro", disk])
    found = ready(world, "--cues", disk)
    assert found.said("space")[:2] == ("bad", f"{disk}: Read-only file system")
    assert found.said("speed") == ("ok", "not tested", "")


def test_a_folder_that_is_not_there(world):
    missing = world.path("missing\033[2J")
    found = ready(world, "--cues", missing)
    assert found.said("space")[:2] == ("bad", f"{missing}: No such file or directory")
    code, screen = finish(start(world, "--cues", missing))
    assert code == 1 and "\033" not in screen


def test_a_slow_disk(world, faults):
    faults.arm("write", kind=2, delay=0.6)
    found = ready(world, prefix=faults.prefix)
    assert found["speed"]["figures"]["written_bytes"] <= 5 << 20
    world.start(environment={"KADREL_UNIVERSE_COUNT": 512})
    level, text, advice = ready(world, prefix=faults.prefix).said("speed")
    assert level == "bad" and text.endswith("; a recording takes 12.3 MB/s, which is more") and advice


def test_a_disk_that_stands_still_holds_nothing_up(world, faults):
    faults.hold("write", kind=2)
    level, text, advice = ready(world, prefix=faults.prefix).said("speed")
    faults.disarm("write")
    assert (level, text) == ("bad", "the disk stands still: a write did not come back") and advice


def test_a_disk_that_fails(world, faults):
    faults.arm("write", kind=2, error=errno.EIO)
    assert ready(world, prefix=faults.prefix).said("speed")[:2] == ("bad", "writing failed: Input/output error")


def test_a_file_system_without_unnamed_files(world, faults):
    faults.arm("tmpfile", error=errno.EOPNOTSUPP)
    assert ready(world, prefix=faults.prefix)["speed"]["figures"]["tested"] is True
    assert faults.struck("tmpfile") > 0
    assert_nothing_left(world)


# Priority and log.


def test_without_real_time_rights(world):
    service = world.start()
    prefix = ["prlimit", "--rtprio=0:0", "setpriv", "--bounding-set=-sys_nice"]
    level, text, advice = ready(world, prefix=prefix).said("priority")
    assert level == "warning" and text.startswith("no real time for playbacks")
    assert "setcap cap_net_raw,cap_sys_nice+ep" in advice
    assert f"nice {os.getpriority(os.PRIO_PROCESS, service.pid)}" in text


def test_without_a_log(world):
    os.unlink(world.path("syslog"))
    assert ready(world).said("log")[:2] == ("warning", "there is no system log (/dev/log)")


def test_a_log_that_nobody_reads(world):
    os.unlink(world.path("syslog"))
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as gone:
        gone.bind(world.path("syslog"))
    assert ready(world).said("log")[:2] == ("warning", "nobody takes lines of the system log (/dev/log)")


def test_a_log_that_hangs(world):
    os.unlink(world.path("syslog"))
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as daemon, socket.socket(
        socket.AF_UNIX, socket.SOCK_DGRAM
    ) as writer:
        daemon.bind(world.path("syslog"))
        writer.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                writer.sendto(b"x", world.path("syslog"))
        assert ready(world).said("log")[:2] == ("warning", "the system log hangs: it takes no lines")


@pytest.mark.parametrize(
    "output, text",
    [
        ("console", "on kadrel's console (KADREL_LOG_OUTPUT)"),
        ("none", "kadrel writes none (KADREL_LOG_OUTPUT)"),
    ],
)
def test_a_log_somewhere_else_needs_no_system_log(world, output, text):
    world.start(environment={"KADREL_LOG_OUTPUT": output})
    os.unlink(world.path("syslog"))
    assert ready(world).said("log") == ("ok", text, "")
