"""kadrel-cue record: a person records from the terminal."""

import contextlib
import os
import re
import signal
import subprocess
import threading

import pytest
from cue_tool import CUE, Tool
from harness import Recording, spin_until
from harness.artnet import art_dmx, dmx_data, slots
from harness.sanitizers import environment
from test_cue_play_keys import Terminal

CONTROL_UNIVERSE, CHANNEL, THRESHOLD = 4, 5, 128
ENDED = "kadrel-cue: the recording was ended by the record channel, or by another program\n"
NOTHING = "kadrel-cue: no datagram came: nothing is recorded, and no file is left\n"
INTO = "kadrel-cue: recording into {} (Ctrl-C ends it)\n"
NOT_WHOLE = "kadrel-cue: {}: the recording is not whole\n"


def control(value):
    return art_dmx(CONTROL_UNIVERSE - 1, slots({CHANNEL: value}))


def frames(count, universe=0, first=1, level=None):
    """Frames as a sender counts them, each with a level of its own, or all with the same."""
    return [art_dmx(universe, slots({1: number % 251 if level is None else level}), sequence=(number - 1) % 255 + 1)
            for number in range(first, first + count)]


class Record(Tool):
    """kadrel-cue record in the world of a service, without a terminal. It is ended with the test."""

    def __init__(self, world, stack):
        super().__init__(world)
        self.stack = stack
        self.address = world.bus.address

    def start(self, *arguments, host="appliance", address=None, prefix=(), **variables):
        process = self.world.namespaces.popen(
            [*prefix, str(CUE), "record", *map(str, arguments)],
            network=host, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env={"PATH": os.environ.get("PATH", "/usr/bin:/bin"), **environment(),
                 **({} if address == "" else {"DBUS_SESSION_BUS_ADDRESS": address or self.address}), **variables},
        )
        self.stack.callback(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
        process.wait()

    def begin(self, path, *arguments, **options):
        """Starts a recording; returns when the service waits for its first datagram."""
        process = self.start(path, *arguments, **options)
        spin_until(lambda: self.world.client.get_status() != "off" or process.poll() is not None, "the recording")
        assert process.poll() is None, process.communicate()
        return process

    def stop(self, process, number=signal.SIGINT):
        process.send_signal(number)
        return self.finish(process)


@pytest.fixture
def record(world):
    with contextlib.ExitStack() as stack:
        yield Record(world, stack)


@pytest.fixture
def folder(world):
    path = world.path("cues")
    os.mkdir(path)
    return path


@pytest.fixture
def operate(service, record):
    """kadrel-cue record on a terminal."""
    world = service.world
    assert world.console_host
    with contextlib.ExitStack() as stack:

        def start(*arguments, columns=120):
            command = ["env", f"DBUS_SESSION_BUS_ADDRESS={world.bus.address}", str(CUE), "record", *map(str, arguments)]
            terminal = Terminal(world, columns=columns, command=command)
            stack.callback(terminal.close)
            return terminal

        yield start


# ---- a recording, from its beginning to its end ----


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_ends_the_recording_and_what_came_is_said(service, record, folder, number):
    path = f"{folder}/act.cue"
    process = record.begin(path)
    show = [datagram for first in range(1, 41) for universe in (0, 1, 4) for datagram in frames(1, universe, first)]
    service.feed(show)
    code, out, errors = record.stop(process, number)
    assert (code, errors) == (0, INTO.format(path))
    lines = out.splitlines()
    assert re.fullmatch(re.escape(path) + r": whole, 120 datagrams, \d+\.\d{3} s", lines[0])
    assert lines[1:] == [f"{path}: universes 1-2,5", f"{path}: complete"]
    assert Recording.read(path).datagrams == show
    assert service.client.get_status() == "off"
    assert os.listdir(folder) == ["act.cue"]


def test_missing_datagrams_are_a_failure(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path)
    show = frames(60)
    service.feed(show[:30] + show[33:])
    code, out, errors = record.stop(process)
    assert (code, errors) == (1, INTO.format(path) + NOT_WHOLE.format(path))
    assert f"{path}: 3 datagrams missing in 1 universe\n" in out


def test_nothing_came(service, record, folder):
    process = record.begin(f"{folder}/act.cue")
    assert record.stop(process) == (1, "", INTO.format(f"{folder}/act.cue") + NOTHING)
    assert os.listdir(folder) == []
    assert service.client.get_status() == "off"


def test_a_relative_path_begins_where_the_tool_runs(service, record, folder):
    process = record.begin("./x/../act.cue", prefix=("env", "-C", folder))
    service.feed(frames(5))
    code, _, errors = record.stop(process)
    assert (code, errors) == (0, INTO.format(f"{folder}/act.cue"))
    assert os.listdir(folder) == ["act.cue"]


# ---- names ----


def test_a_folder_gets_a_file_named_by_date_and_time(service, record, folder):
    process = record.begin(folder)
    service.feed(frames(5))
    assert record.stop(process)[0] == 0
    (name,) = os.listdir(folder)
    assert re.fullmatch(r"\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d\.cue", name)


def test_a_name_that_is_taken_gets_a_number(service, record, folder):
    for name in ("show.cue", "show-2.cue"):
        with open(f"{folder}/{name}", "w", encoding="ascii") as file:
            file.write(name)
    process = record.begin(f"{folder}/", "--name", "show.cue")
    service.feed(frames(5))
    assert record.stop(process)[0] == 0
    assert Recording.read(f"{folder}/show-3.cue").datagrams == frames(5)
    for name in ("show.cue", "show-2.cue"):
        with open(f"{folder}/{name}", encoding="ascii") as file:
            assert file.read() == name


@pytest.mark.parametrize("name", ["", "a/b", "..", "%n", "x" * 256])
def test_a_name_that_is_none_is_refused(service, record, folder, name):
    code, out, errors = record.finish(record.start(folder, "--name", name))
    assert (code, out) == (2, "")
    assert "is not a name for a file in a folder" in errors
    assert os.listdir(folder) == []


def test_a_file_is_never_replaced(service, record, folder):
    path = f"{folder}/act.cue"
    with open(path, "w", encoding="ascii") as file:
        file.write("mine")
    assert record.finish(record.start(path)) == (
        1, "", f"kadrel-cue: {path}: exists; a recording never replaces a file\n")
    with open(path, encoding="ascii") as file:
        assert file.read() == "mine"
    assert service.client.get_status() == "off"


def test_a_name_that_the_bus_does_not_take_is_refused(service, record, folder):
    process = record.start(b"b\xff.cue".decode("utf-8", "surrogateescape"), prefix=("env", "-C", folder))
    assert record.finish(process) == (
        1, "", "kadrel-cue: the path of the recording is not UTF-8, and the bus takes no other\n")
    assert os.listdir(folder) == []


@pytest.mark.parametrize("path, words", [("missing/act.cue", "No such file or directory"), ("file/act.cue", "Not a directory")])
def test_a_place_that_is_none_is_refused(service, record, folder, path, words):
    with open(f"{folder}/file", "wb"):
        pass
    assert record.finish(record.start(f"{folder}/{path}")) == (1, "", f"kadrel-cue: {folder}/{path}: {words}\n")


# ---- the service ----


def test_a_busy_service_is_left_alone(service, record, folder):
    service.client.grab(f"{folder}/theirs")
    code, out, errors = record.finish(record.start(f"{folder}/act.cue"))
    assert (code, out) == (1, "")
    assert errors == ("kadrel-cue: kadrel is busy: a recording is armed, or waits for its first datagram; it goes on, "
                      "and nothing was touched\n")
    service.feed(frames(3))
    code, _, errors = record.finish(record.start(f"{folder}/act.cue"))
    assert code == 1 and "a recording is running; it goes on" in errors
    service.feed(frames(3, first=4))
    service.client.stop()
    assert Recording.read(f"{folder}/theirs").datagrams == frames(6)
    assert os.listdir(folder) == ["theirs"]


def test_of_two_that_start_at_once_one_records(service, record, folder):
    """They ask the service at the same moment: it is held until both wait for its answer."""
    service.halt()
    both = [record.start(folder) for _ in range(2)]
    spin_until(lambda: waiting_calls(service) >= 2, "two questions")
    service.go_on()
    spin_until(lambda: any(process.poll() is not None for process in both), "the one that is refused")
    refused, records = sorted(both, key=lambda process: process.poll() is None)
    code, out, errors = record.finish(refused)
    assert (code, out) == (1, "")
    assert "kadrel is busy" in errors
    service.feed(frames(5))
    assert record.stop(records)[0] == 0
    (name,) = os.listdir(folder)
    assert Recording.read(f"{folder}/{name}").datagrams == frames(5)


def waiting_calls(service):
    """Bytes that wait in the service's connection to the bus, roughly as calls."""
    found = subprocess.run(["ss", "-xnp"], capture_output=True, text=True, check=True).stdout
    for line in found.splitlines():
        if f"pid={service.pid}," in line and int(line.split()[2]) > 0:
            return int(line.split()[2]) // 150
    return 0


def test_without_the_service_it_says_how_to_start_it(world, record, folder):
    code, out, errors = record.finish(record.start(folder))
    assert (code, out) == (1, "")
    for words in ("kadrel does not run", "systemctl --user start kadrel", "kadrel 6454", "user", "DBUS_SESSION_BUS_ADDRESS"):
        assert words in errors
    assert os.listdir(folder) == []


@pytest.mark.parametrize("address, words", [
    ("", "DBUS_SESSION_BUS_ADDRESS is not set"),
    ("unix:path=/nowhere", 'DBUS_SESSION_BUS_ADDRESS is "unix:path=/nowhere"'),
    ("nonsense\x1b[31m", 'DBUS_SESSION_BUS_ADDRESS is "nonsense?[31m"'),
])
def test_without_a_bus_it_says_where_it_looked(world, record, folder, address, words):
    code, out, errors = record.finish(record.start(folder, address=address))
    assert (code, out) == (1, "")
    assert words in errors and "the user that kadrel runs as" in errors
    assert os.listdir(folder) == []


def test_a_service_that_is_killed_leaves_what_it_had_written(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path)
    service.feed(frames(60))
    spin_until(lambda: os.path.getsize(path) > 0, "the first portion")
    service.kill()
    code, out, errors = record.finish(process)
    assert code == 1
    assert "kadrel-cue: kadrel has ended during the recording; what it had written is in the file\n" in errors
    assert errors.endswith(NOT_WHOLE.format(path))
    assert path in out
    assert Recording.whole_frames(open(path, "rb").read(), frames(60)) > 0


def test_a_recording_that_somebody_else_stops_is_judged(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path)
    service.feed(frames(10))
    service.client.stop()
    code, out, errors = record.finish(process)
    assert (code, errors) == (0, INTO.format(path) + ENDED)
    assert out.endswith("complete\n")


def test_a_recording_of_somebody_else_that_follows_is_not_stopped(service, record, folder):
    """Ours was stopped and another begun, while the tool looked away."""
    path = f"{folder}/act.cue"
    process = record.begin(path)
    service.feed(frames(10))
    process.send_signal(signal.SIGSTOP)
    service.client.stop()
    service.client.grab(f"{folder}/theirs")
    service.feed(frames(10))
    process.send_signal(signal.SIGINT)
    process.send_signal(signal.SIGCONT)
    code, _, errors = record.finish(process)
    assert (code, errors) == (0, INTO.format(path) + ENDED)
    assert service.client.get_status() == "run"
    service.client.stop()
    assert Recording.read(f"{folder}/theirs").datagrams == frames(10)


def test_the_record_channel_begins_and_ends_it(service, record, folder):
    service.client.set_ctrl_universe(CONTROL_UNIVERSE)
    service.client.set_ctrl_record(CHANNEL, THRESHOLD)
    path = f"{folder}/act.cue"
    process = record.begin(path)
    service.feed([*frames(5), control(255), *frames(7, first=6), control(0)])
    code, out, errors = record.finish(process)
    assert (code, errors) == (0, INTO.format(path) + ENDED)
    assert Recording.read(path).datagrams == frames(7, first=6)


def test_a_folder_that_the_service_may_not_write_is_refused(world, record, folder):
    """The service runs as another user than the tool."""
    world.start(prefix=("setpriv", "--reuid", "65534", "--clear-groups", "--bounding-set", "-all", "--inh-caps", "-all"))
    code, out, errors = record.finish(record.start(f"{folder}/act.cue"))
    assert (code, out) == (1, "")
    assert f"kadrel cannot write {folder}/act.cue: it runs as user" in errors and "65534" in errors
    assert os.listdir(folder) == []
