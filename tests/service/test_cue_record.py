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
from harness.faults import FILE
from harness.sanitizers import environment
from harness.waiting import now
from test_cue_play_keys import Terminal
from test_kernel_drops import FLOOD, overflow

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


def test_datagrams_that_the_socket_of_the_service_drops_are_a_failure(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path)
    service.feed([art_dmx(0, bytes(512))])  # of a sender that does not count
    dropped = overflow(service, lambda: service.world.console.send(*[art_dmx(0, bytes(512))] * FLOOD))
    service.settle()
    code, out, errors = record.stop(process)
    assert code == 1
    assert errors == (INTO.format(path) + f"kadrel-cue: {dropped} datagrams dropped by the socket of kadrel: its receive "
                      "buffer was full\n" + NOT_WHOLE.format(path))
    assert f"{path}: whole" in out


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


def read_until(process, words):
    """Reads standard error up to a line with these words; what was read."""
    text = ""
    while words not in text:
        line = process.stderr.readline()
        assert line, text
        text += line
    return text


def test_of_two_that_begin_at_the_same_moment_one_records(service, record, folder, faults):
    """The other recording begins when this tool has found the service idle."""
    service.halt()
    process = record.start(folder, prefix=faults.prefix)
    assert read_until(process, "\n") == "kadrel-cue: kadrel does not answer for 3 s (its disk may stand still); still waiting\n"
    faults.hold("open")
    service.go_on()
    faults.wait_until_struck("open")
    service.client.grab(record.world.path("theirs"))
    faults.disarm("open")
    code, out, errors = record.finish(process)
    assert (code, out) == (1, "")
    assert errors == ("kadrel-cue: kadrel is busy: somebody else began a recording at the same moment; it goes on, and "
                      "nothing was touched\n")
    assert os.listdir(folder) == []
    service.feed(frames(5))
    assert service.client.get_status() == "run"
    service.client.stop()
    assert Recording.read(record.world.path("theirs")).datagrams == frames(5)


def test_a_signal_ends_the_wait_for_a_service_that_hangs(service, record, folder):
    service.halt()
    process = record.start(folder)
    read_until(process, "still waiting")
    process.send_signal(signal.SIGINT)
    assert record.finish(process) == (1, "", "kadrel-cue: stopped before the recording began\n")
    service.go_on()
    assert os.listdir(folder) == []
    assert service.client.get_status() == "off"


def test_of_a_service_that_hangs_at_the_end_a_second_signal_ends_the_wait(service, record, folder):
    process = record.begin(f"{folder}/act.cue")
    service.feed(frames(5))
    read_until(process, "recording into")
    service.halt()
    process.send_signal(signal.SIGINT)
    read_until(process, "still waiting")
    process.send_signal(signal.SIGINT)
    assert process.wait() == -signal.SIGINT
    service.go_on()


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
    read_until(process, "recording into")
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


def test_a_recording_of_somebody_else_that_follows_is_noticed(service, record, folder):
    """The status says that a recording is running, as before, but ours does not grow any more."""
    path = f"{folder}/act.cue"
    process = record.begin(path)
    service.feed(frames(100))
    read_until(process, "recording into")
    process.send_signal(signal.SIGSTOP)
    service.client.stop()
    service.client.grab(f"{folder}/theirs")
    service.feed(frames(10))
    process.send_signal(signal.SIGCONT)
    assert record.finish(process)[::2] == (0, ENDED)
    assert service.client.get_status() == "run"
    service.client.stop()


def test_the_record_channel_begins_and_ends_it(service, record, folder):
    service.client.set_ctrl_universe(CONTROL_UNIVERSE)
    service.client.set_ctrl_record(CHANNEL, THRESHOLD)
    path = f"{folder}/act.cue"
    process = record.begin(path)
    service.feed([*frames(5), control(255), *frames(7, first=6), control(0)])
    code, out, errors = record.finish(process)
    assert (code, errors) == (0, INTO.format(path) + ENDED)
    assert Recording.read(path).datagrams == frames(7, first=6)


@pytest.mark.skipif(os.geteuid() != 0, reason="needs two users")
def test_a_folder_that_the_service_may_not_write_is_refused(world, record, folder):
    """The service runs as another user than the tool."""
    counts = world.path("counts")  # of a build that counts lines
    os.mkdir(counts)
    os.chmod(counts, 0o777)
    world.start(prefix=("setpriv", "--reuid", "65534", "--clear-groups", "--"), environment={"GCOV_PREFIX": counts})
    code, out, errors = record.finish(record.start(f"{folder}/act.cue"))
    assert (code, out) == (1, "")
    assert f"kadrel cannot write {folder}/act.cue: it runs as user" in errors and "65534" in errors
    assert os.listdir(folder) == []


def test_a_file_that_the_service_cannot_open_is_refused(world, record, folder):
    world.start(prefix=("setpriv", "--bounding-set", "-all", "--inh-caps", "-all", "--"))
    code, out, errors = record.finish(
        record.start(f"{folder}/act.cue", prefix=("sh", "-c", 'umask 777; exec "$@"', "sh")))
    assert (code, out) == (1, "")
    assert errors == (f"kadrel-cue: kadrel cannot write {folder}/act.cue; its log says more (journalctl --user -u kadrel, or "
                      "/var/log/syslog)\n")
    assert os.listdir(folder) == []


# ---- disks and files ----


def test_a_full_disk_is_told_and_is_a_failure(service, record):
    world = service.world
    disk = world.path("disk")
    os.mkdir(disk)
    world.namespaces.mount_tmpfs(disk, 4 << 20)
    world.namespaces.write_zeros(f"{disk}/ballast", (4 << 20) - (128 << 10))
    process = record.begin(f"{disk}/act.cue")
    service.feed(frames(400))
    errors = read_until(process, "the disk is full: kadrel keeps what does not fit in memory")
    code, out, rest = record.stop(process)
    assert code == 1
    assert rest == NOT_WHOLE.format(f"{disk}/act.cue")
    assert errors.startswith(INTO.format(f"{disk}/act.cue"))
    assert "whole" in out


def test_a_file_that_is_moved_is_told(service, record, folder):
    process = record.begin(f"{folder}/act.cue")
    service.feed(frames(100))
    os.rename(f"{folder}/act.cue", f"{folder}/elsewhere.cue")
    read_until(process, "was moved or removed; kadrel goes on writing the same file")
    code, out, _ = record.stop(process)
    assert (code, out) == (1, "")
    assert Recording.read(f"{folder}/elsewhere.cue").datagrams == frames(100)


# ---- what ends a recording ----


def keep_sending(service, stack, datagrams):
    """Sends again and again what `datagrams` gives for a number from 0, until the test ends or `stop` is set."""
    stop = threading.Event()

    def send():
        number = 0
        while not stop.wait(0.02):
            service.world.console.send(*datagrams(number))
            number += 1

    thread = threading.Thread(target=send, daemon=True)
    thread.start()

    def end():
        stop.set()
        thread.join()

    stack.callback(end)


def test_a_recording_ends_after_its_time(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path, "--for", "2")
    assert service.world.console
    # Before the first datagram: so however late anybody is, less than the whole time is never right.
    began = now()
    keep_sending(service, record.stack, lambda number: frames(1, first=number + 1))
    code, out, errors = record.finish(process)
    assert now() - began >= 2
    assert (code, errors) == (0, INTO.format(path))
    assert len(Recording.read(path).datagrams) > 1
    assert service.client.get_status() == "off"


def test_a_recording_ends_when_levels_stand_although_datagrams_come(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path, "--until-silent", "1.5")
    assert service.world.console
    keep_sending(service, record.stack, lambda number: frames(1, first=number + 1, level=min(number, 40)))
    code, out, errors = record.finish(process)
    assert (code, errors) == (0, INTO.format(path))
    recording = Recording.read(path)
    levels = [dmx_data(datagram)[0] for datagram in recording.datagrams]
    last = levels.index(40)
    assert sum(recording.delays[last:]) >= 1_500_000_000


def test_a_recording_ends_when_nothing_comes_any_more(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path, "--until-silent", "500ms")
    service.feed(frames(3))
    code, out, errors = record.finish(process)
    assert (code, errors) == (0, INTO.format(path))
    assert Recording.read(path).datagrams == frames(3)


# ---- from the first change ----

WAITING = "kadrel-cue: waiting for a change, recording into {} (Ctrl-C ends it)\n"


def test_a_recording_begins_with_the_first_change(service, record, folder):
    """With the look of each universe, and every byte and pause from the change on."""
    path = f"{folder}/act.cue"
    process = record.begin(path, "--on-change")
    assert sorted(os.listdir(folder)) == [".act.cue.waiting", "act.cue"]
    still = [datagram for number in range(1, 61) for universe in (0, 1)
             for datagram in frames(1, universe, number, level=7)]
    moving = [datagram for number in range(61, 121) for datagram in (*frames(1, 0, number, level=number),
                                                                     *frames(1, 1, number, level=7))]
    service.feed(still)
    service.feed(moving)
    spin_until(lambda: os.path.getsize(f"{folder}/.act.cue.waiting") > 0, "the first portion")
    waiting = os.open(f"{folder}/.act.cue.waiting", os.O_RDONLY)
    record.stack.callback(os.close, waiting)
    code, out, errors = record.stop(process)
    assert (code, errors) == (0, WAITING.format(path))
    assert out.endswith("complete\n")
    assert os.listdir(folder) == ["act.cue"]
    whole = Recording.parse(os.pread(waiting, 1 << 20, 0))
    assert whole.datagrams == still + moving
    kept = Recording.read(path)
    looks = len(kept.datagrams) - len(moving)
    # The look of universe 2 is due in the middle of the first frame, when it has not come again by then.
    assert looks in (0, 1)
    assert [datagram for datagram in kept.datagrams if datagram != still[-1]] == moving
    assert sum(kept.delays) == sum(whole.delays[len(still):])


def test_the_wait_for_a_change_takes_little_room_and_ends_with_nothing(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path, "--on-change", "--wait-size", "1")
    first = set(os.listdir(folder))

    def begun_anew():
        service.feed(frames(100, level=9))
        return set(os.listdir(folder)) - first

    spin_until(begun_anew, "another file of the waiting")
    spin_until(lambda: sum(entry.stat().st_size for entry in os.scandir(folder)) <= 1 << 20, "the end of the old one")
    assert record.stop(process) == (
        1, "", WAITING.format(path) + "kadrel-cue: no level has changed: nothing is recorded, and no file is left\n")
    assert os.listdir(folder) == []


def test_a_change_after_the_wait_was_begun_anew_is_found(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path, "--on-change", "--wait-size", "1")
    first = f"{folder}/.act.cue.waiting"
    spin_until(lambda: service.feed(frames(100, level=9)) or not os.path.exists(first), "the end of the first file")
    service.feed(frames(50, level=10))
    code, out, errors = record.stop(process)
    assert (code, errors) == (0, WAITING.format(path))
    assert Recording.read(path).datagrams[-50:] == frames(50, level=10)
    assert os.listdir(folder) == ["act.cue"]


def test_a_file_that_takes_the_name_meanwhile_is_not_replaced(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path, "--on-change")
    service.feed(frames(10))
    with open(f"{folder}/theirs", "w", encoding="ascii") as file:
        file.write("theirs")
    os.rename(f"{folder}/theirs", path)
    code, out, errors = record.stop(process)
    assert (code, out) == (1, "")
    assert f"{path}: exists" in errors and f"what was recorded is in {folder}/.act.cue.waiting" in errors
    with open(path, encoding="ascii") as file:
        assert file.read() == "theirs"
    assert Recording.read(f"{folder}/.act.cue.waiting").datagrams == frames(10)


def test_a_change_while_the_wait_is_begun_anew_is_kept(world, faults, record, folder):
    """The file has a change that the tool has not seen when it has the service stop."""
    service = world.start(prefix=faults.prefix)
    path = f"{folder}/act.cue"
    process = record.begin(path, "--on-change", "--wait-size", "1")
    read_until(process, "waiting for a change")
    process.send_signal(signal.SIGSTOP)
    service.feed(frames(2100, level=9))
    spin_until(lambda: os.path.getsize(f"{folder}/.act.cue.waiting") > 1 << 20, "a large file")
    faults.hold("write", FILE)
    service.feed(frames(30, level=10))
    process.send_signal(signal.SIGCONT)
    read_until(process, "kadrel does not answer")
    faults.disarm("write")
    read_until(process, "the change came while the file of the waiting was begun anew: some ms after it are missing")
    service.feed(frames(20, first=31, level=11))
    code, out, errors = record.stop(process)
    assert (code, errors) == (1, NOT_WHOLE.format(path))
    assert Recording.read(path).datagrams == frames(30, level=10) + frames(20, first=31, level=11)
    assert os.listdir(folder) == ["act.cue"]


# ---- universes that are expected ----


def test_universes_that_do_not_come_are_named(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path, "--universes", "1-3,9")
    service.feed(frames(5, universe=1))
    assert "does not come so far: universes 1,3,9\n" in read_until(process, "does not come so far")
    code, out, errors = record.stop(process)
    assert (code, errors) == (0, "kadrel-cue: not in the recording: universes 1,3,9\n")


# ---- what the operator sees ----


def test_the_live_line_tells_how_it_goes_and_ctrl_c_ends_it(service, operate, folder):
    terminal = operate(f"{folder}/act.cue", "--for", "1h", "--until-silent", "30m")
    terminal.see(rb"recording into \S+ \(Ctrl-C ends it\)\r\n")
    terminal.see(rb"\x1b\[Kwaiting for the first datagram, or the record channel  0:0\d")
    service.feed(frames(100)[:60] + frames(100)[62:])
    terminal.see(rb"\x1b\[Krecording 0:\d\d of 1:00:00  1 universe  \d+/s  \d+\.\d kB  lost 2  still 0:\d\d of 30:00")
    terminal.press(b"\x03")
    terminal.see(rb"act.cue: whole, 98 datagrams, ")
    terminal.see(rb"2 datagrams missing in 1 universe\r\n")
    assert terminal.wait() == 1
    assert service.client.get_status() == "off"


def test_the_live_line_fits_the_terminal(service, operate, folder):
    terminal = operate(f"{folder}/act.cue", "--on-change", columns=40)
    terminal.see(rb"\x1b\[Kwaiting for the first datagram, or the \r")
    service.feed(frames(50, level=1))
    terminal.see(rb"\x1b\[Kwaiting for a change 0:\d\d  1 universe")
    terminal.press(b"\x03")
    terminal.see(rb"no level has changed")
    assert terminal.wait() == 1
    assert os.listdir(folder) == []
