"""kadrel-cue record where names, buses, services and terminals make trouble."""

import errno
import os
import signal
import subprocess

import pytest
from harness import EXECUTABLE, Recording, spin_until
from harness.artnet import art_dmx, slots
from harness.bus import SERVICE
from harness.faults import FILE, HELD
from test_cue_record import (  # noqa: F401  fixtures are found by their names here
    ENDED,
    INTO,
    NOT_WHOLE,
    NOTHING,
    WAITING,
    control,
    folder,
    frames,
    keep_sending,
    operate,
    read_until,
    record,
)

BLANK = art_dmx(0, bytes(512))

# ---- names ----


@pytest.mark.parametrize("name", ["Akt 1 'Lear' \"x\" 100%d %s.cue", "-rf", "Bühne 🎭.cue", "a\\nb", "*?[x]", "x" * 255])
def test_a_file_may_have_any_name_that_can_be_shown(service, record, folder, name):
    process = record.begin(f"{folder}/{name}")
    service.feed(frames(5))
    code, out, errors = record.stop(process)
    assert (code, errors) == (0, INTO.format(f"{folder}/{name}"))
    assert Recording.read(f"{folder}/{name}").datagrams == frames(5)
    assert os.listdir(folder) == [name]


@pytest.mark.parametrize("name", ["a\nb", "a\x1b[2J", "a\x7f", "a\x9b2J", "x\r"])
def test_a_path_with_control_characters_is_refused(service, record, folder, name):
    words = "kadrel-cue: the path of the recording has control characters, which a terminal takes as commands\n"
    assert record.finish(record.start(f"{folder}/{name}")) == (1, "", words)
    os.mkdir(f"{folder}/{name}")
    assert record.finish(record.start(f"{folder}/{name}", "--name", "act.cue")) == (1, "", words)
    assert os.listdir(f"{folder}/{name}") == []
    assert service.client.get_status() == "off"


def test_the_file_of_the_waiting_has_a_name_that_the_bus_takes_whatever_the_name_beside_is(service, record, folder):
    """200 bytes of it would end within a character."""
    name = "x" + 110 * "ä" + ".cue"
    process = record.begin(f"{folder}/{name}", "--on-change")
    service.feed(frames(10))
    code, out, errors = record.stop(process)
    assert (code, errors) == (0, WAITING.format(f"{folder}/{name}"))
    assert os.listdir(folder) == [name]


def make_fifo(path):
    os.mkfifo(path)


def make_dangling_link(path):
    os.symlink(f"{path}.elsewhere", path)


def make_link_to_a_device(path):
    os.symlink("/dev/null", path)


def make_empty(path):
    with open(path, "wb"):
        pass


@pytest.mark.parametrize("make", [make_fifo, make_dangling_link, make_link_to_a_device, make_empty])
@pytest.mark.parametrize("options", [(), ("--on-change",)])
def test_whatever_has_the_name_is_left_alone(service, record, folder, make, options):
    path = f"{folder}/act.cue"
    make(path)
    before = os.lstat(path)
    assert record.finish(record.start(path, *options)) == (
        1, "", f"kadrel-cue: {path}: exists; a recording never replaces a file\n")
    assert os.listdir(folder) == ["act.cue"]
    assert os.path.samestat(os.lstat(path), before)


def test_a_folder_that_goes_away_leaves_no_recording_behind(service, record, folder):
    process = record.begin(f"{folder}/act.cue")
    read_until(process, "recording into")
    os.unlink(f"{folder}/act.cue")
    os.rmdir(folder)
    read_until(process, "was moved or removed")
    assert record.stop(process)[:2] == (1, "")
    assert service.client.get_status() == "off"


# ---- others at the same service ----


def test_somebody_else_takes_the_service_before_anything_came(service, record, folder):
    """Both recordings wait for their first datagram: only the report of the latest one tells them apart."""
    process = record.begin(f"{folder}/act.cue")
    read_until(process, "recording into")
    process.send_signal(signal.SIGSTOP)
    service.client.stop()
    service.client.grab(f"{folder}/theirs")
    process.send_signal(signal.SIGINT)
    process.send_signal(signal.SIGCONT)
    assert record.finish(process) == (1, "", ENDED + NOTHING)
    assert service.client.get_status() == "on"
    service.feed(frames(5))
    service.client.stop()
    assert Recording.read(f"{folder}/theirs").datagrams == frames(5)


@pytest.mark.parametrize("options, file", [((), "act.cue"), (("--on-change",), ".act.cue.waiting")])
def test_a_recording_of_somebody_else_is_known_after_two_of_the_same_name(service, record, folder, options, file):
    """The report of a recording is its name and its universes: the first one here has the same as the second."""
    path = f"{folder}/act.cue"
    process = record.begin(path, *options)
    record.stop(process)
    assert os.listdir(folder) == []
    process = record.begin(path, *options)
    assert file in os.listdir(folder)
    process.send_signal(signal.SIGSTOP)
    service.client.stop()
    service.client.grab(f"{folder}/theirs")
    process.send_signal(signal.SIGINT)
    process.send_signal(signal.SIGCONT)
    code, _, errors = record.finish(process)
    assert code == 1 and ENDED in errors
    assert service.client.get_status() == "on"
    service.client.stop()
    assert os.listdir(folder) == ["theirs"]


def test_a_recording_of_somebody_else_is_noticed_although_nothing_has_come_into_ours(service, record, folder):
    process = record.begin(f"{folder}/act.cue")
    read_until(process, "recording into")
    process.send_signal(signal.SIGSTOP)
    service.client.stop()
    service.client.grab(f"{folder}/theirs")
    service.feed(frames(100))
    process.send_signal(signal.SIGCONT)
    assert record.finish(process) == (1, "", ENDED + NOTHING)
    assert service.client.get_status() == "run"
    service.client.stop()


def test_after_a_tool_that_was_killed_the_recording_goes_on(service, record, folder):
    process = record.begin(f"{folder}/act.cue")
    service.feed(frames(5))
    process.kill()
    process.wait()
    code, _, errors = record.finish(record.start(f"{folder}/next.cue"))
    assert code == 1 and "a recording is running; it goes on, and nothing was touched" in errors
    service.feed(frames(5, first=6))
    service.client.stop()
    assert Recording.read(f"{folder}/act.cue").datagrams == frames(10)
    assert os.listdir(folder) == ["act.cue"]


def begin_anew_with_another(service, process, faults, theirs):
    """The file of the waiting is begun anew; somebody else takes the service between the two."""
    read_until(process, "waiting for a change")
    process.send_signal(signal.SIGSTOP)
    waiting = os.path.join(os.path.dirname(theirs), ".act.cue.waiting")
    service.feed(frames(2100, level=9))
    spin_until(lambda: os.path.getsize(waiting) > 1 << 20, "a large file")
    struck = faults.struck("open")
    faults.hold("write", FILE)
    service.feed(frames(30, level=10))
    process.send_signal(signal.SIGCONT)
    read_until(process, "kadrel does not answer")
    # Of the tool, for the next file.
    faults.arm("open", kind=FILE, times=1, delay=HELD)
    faults.disarm("write")
    faults.wait_until_struck("open", struck)
    service.client.grab(theirs)
    faults.disarm("open")


def test_a_change_is_kept_when_somebody_else_takes_the_service_before_the_next_file(world, faults, record, folder):
    service = world.start(prefix=faults.prefix)
    path = f"{folder}/act.cue"
    process = record.begin(path, "--on-change", "--wait-size", "1", prefix=faults.prefix)
    begin_anew_with_another(service, process, faults, f"{folder}/theirs")
    errors = read_until(process, NOT_WHOLE.format(path))
    assert "kadrel is busy: somebody else began a recording at the same moment; it goes on" in errors
    assert record.finish(process)[0] == 1
    assert Recording.read(path).datagrams == frames(30, level=10)
    service.feed(frames(5))
    assert service.client.get_status() == "run"
    service.client.stop()
    assert Recording.read(f"{folder}/theirs").datagrams == frames(5)
    assert sorted(os.listdir(folder)) == ["act.cue", "theirs"]


# ---- a service or a bus that hangs or ends ----


def test_a_recording_that_is_begun_late_is_not_given_up(world, faults, record, folder):
    """The call hangs for longer than any other is waited for; nobody would end a recording that it begins then."""
    service = world.start(prefix=faults.prefix)
    faults.hold("open", FILE)
    process = record.start(f"{folder}/act.cue")
    read_until(process, "kadrel does not answer")
    faults.wait_until_struck("open")
    service.world.console.send(BLANK)
    spin_until(lambda: process.poll() is not None or waited_for(process) >= 31, "31 s of waiting")
    assert process.poll() is None, process.communicate()
    faults.disarm("open")
    read_until(process, "recording into")
    service.feed(frames(5))
    assert record.stop(process)[0] == 0
    assert service.client.get_status() == "off"
    assert os.listdir(folder) == ["act.cue"]


def waited_for(process):
    """Seconds since the start of a process."""
    with open(f"/proc/{process.pid}/stat", encoding="ascii") as stat, open("/proc/uptime", encoding="ascii") as uptime:
        begin = int(stat.read().rpartition(")")[2].split()[19]) / os.sysconf("SC_CLK_TCK")
        return float(uptime.read().split()[0]) - begin


def test_a_bus_that_hangs_is_no_end_of_the_service(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path)
    read_until(process, "recording into")
    service.world.bus.pause()
    try:
        errors = read_until(process, "kadrel does not answer; it may go on recording\n")
    finally:
        service.world.bus.go_on()
    assert "has ended" not in errors
    service.feed(frames(5))
    assert record.stop(process)[:1] == (0,)
    assert Recording.read(path).datagrams == frames(5)


def test_a_bus_that_ends_ends_the_recording(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path)
    service.feed(frames(60))
    spin_until(lambda: os.path.getsize(path) > 0, "the first portion")
    service.world.bus.kill()
    code, out, errors = record.finish(process)
    assert code == 1
    assert "kadrel-cue: kadrel has ended during the recording; what it had written is in the file\n" in errors
    assert errors.endswith(NOT_WHOLE.format(path))


def test_a_tool_that_cannot_read_the_file_ends_the_recording(service, record, folder):
    """The mask of the user leaves files that can be written alone; root's right to read them all is given away."""
    process = record.start(
        f"{folder}/act.cue",
        prefix=("setpriv", "--bounding-set", "-all", "--inh-caps", "-all", "--", "sh", "-c", 'umask 444; exec "$@"', "sh"))
    assert record.finish(process) == (1, "", f"kadrel-cue: {folder}/act.cue: Permission denied\n")
    assert service.client.get_status() == "off"
    assert os.listdir(folder) == []


class StartingBus:
    """A bus that starts the service by a command."""

    CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={path}</listen>
  <auth>EXTERNAL</auth>
  <auth>ANONYMOUS</auth>
  <allow_anonymous/>
  <servicedir>{services}</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
    <allow user="*"/>
  </policy>
  <limit name="service_start_timeout">{patience}</limit>
</busconfig>
"""

    def __init__(self, world, stack, command, patience):
        """`patience`: ms after which it gives up the start."""
        services = world.path("services")
        os.mkdir(services)
        with open(f"{services}/{SERVICE}.service", "w", encoding="ascii") as file:
            file.write(f"[D-BUS Service]\nName={SERVICE}\nExec={command}\n")
        path = world.path("starting")
        self.address = f"unix:path={path}"
        with open(f"{path}.conf", "w", encoding="ascii") as file:
            file.write(self.CONFIGURATION.format(path=path, services=services, patience=patience))
        daemon = world.namespaces.popen(
            ["dbus-daemon", f"--config-file={path}.conf", "--nofork", "--nopidfile", "--nosyslog", "--print-address"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        stack.callback(daemon.wait)
        stack.callback(daemon.kill)
        stack.callback(daemon.stdout.close)
        assert daemon.stdout.readline()


@pytest.mark.parametrize("command, patience", [("/bin/false", 20_000), ("/no/such/program", 20_000), ("/bin/sleep 60", 100)])
def test_a_service_that_the_bus_cannot_start_is_told(world, record, folder, command, patience):
    bus = StartingBus(world, record.stack, command, patience)
    code, out, errors = record.finish(record.start(folder, address=bus.address))
    assert (code, out) == (1, "")
    assert errors.startswith("kadrel-cue: kadrel could not be started by the bus (")
    assert "its log says why: journalctl --user -u kadrel, or /var/log/syslog" in errors
    assert os.listdir(folder) == []


def test_a_service_that_the_bus_starts_records(world, record, folder):
    pid_file = world.path("pid")
    command = f'/bin/sh -c "echo $$ > {pid_file}; exec {EXECUTABLE} {world.network.service_port}"'
    bus = StartingBus(world, record.stack, command, 20_000)
    process = record.start(f"{folder}/act.cue", address=bus.address)
    try:
        read_until(process, "recording into")
        assert record.stop(process) == (1, "", NOTHING)
        assert os.listdir(folder) == []
    finally:
        # The end of a bus ends no service.
        with open(pid_file, encoding="ascii") as file:
            pid = int(file.read())
        os.kill(pid, signal.SIGTERM)
        spin_until(lambda: not os.path.exists(f"/proc/{pid}"), "the end of the service")


# ---- disks ----


def test_a_file_that_cannot_be_read_any_more_is_told_and_ends_the_recording(service, faults, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path, prefix=faults.prefix)
    read_until(process, "recording into")
    service.feed(frames(5))
    faults.arm("pread", errno.EIO, FILE)
    read_until(process, f"kadrel-cue: {path}: Input/output error\n")
    read_until(process, NOT_WHOLE.format(path))
    assert record.finish(process)[0] == 1
    assert service.client.get_status() == "off"
    assert Recording.read(path).datagrams == frames(5)


def test_a_full_disk_is_no_silence(service, record):
    """The file does not grow, and nobody knows whether levels change."""
    world = service.world
    disk = world.path("disk")
    os.mkdir(disk)
    world.namespaces.mount_tmpfs(disk, 4 << 20)
    world.namespaces.write_zeros(f"{disk}/ballast", (4 << 20) - (128 << 10))
    process = record.begin(f"{disk}/act.cue", "--until-silent", "1ms")
    assert world.console
    keep_sending(service, record.stack, lambda number: frames(20, first=20 * number + 1))
    read_until(process, "the disk is full")
    waited = waited_for(process)
    # Longer than a file that does not grow is no silence by itself.
    spin_until(lambda: process.poll() is not None or waited_for(process) >= waited + 4, "some seconds of a full disk")
    assert process.poll() is None
    world.namespaces.remove_file(f"{disk}/ballast")
    size = os.path.getsize(world.namespaces.root + f"{disk}/act.cue")
    spin_until(lambda: os.path.getsize(world.namespaces.root + f"{disk}/act.cue") > size or process.poll() is not None,
               "the file to grow again")
    assert process.poll() is None
    record.stop(process)


# ---- the pattern of real consoles ----


def test_one_level_that_changes_for_one_frame_begins_the_recording(service, record, folder):
    """All universes come at 44 Hz and stand; one slot of one of them is another for one frame."""
    path = f"{folder}/act.cue"
    process = record.begin(path, "--on-change")
    universes = range(8)

    def frame(number, blip=False):
        return [art_dmx(universe, slots({300: 9 if blip and universe == 5 else 8}), sequence=(number - 1) % 255 + 1)
                for universe in universes]

    service.feed([datagram for number in range(1, 45) for datagram in frame(number)])
    after = [*frame(45, blip=True)[5:], *frame(46), *frame(47)]
    service.feed([*frame(45)[:5], *after])
    code, out, errors = record.stop(process)
    assert (code, errors) == (0, WAITING.format(path))
    kept = Recording.read(path).datagrams
    looks = [datagram for datagram in kept if datagram not in after]
    assert len(looks) <= len(universes) - 1 and set(looks) <= set(frame(44) + frame(45))
    assert [datagram for datagram in kept if datagram in after] == after


def test_the_length_of_a_recording_counts_from_the_change(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path, "--on-change", "--for", "1500ms", "--until-silent", "1h")
    assert service.world.console
    keep_sending(service, record.stack, lambda number: frames(1, first=number + 1, level=7 if number < 150 else number % 251))
    code, out, errors = record.finish(process)
    assert (code, errors) == (0, WAITING.format(path))
    assert sum(Recording.read(path).delays) >= 1_400_000_000


# ---- terminals and outputs ----


def test_the_wait_for_an_answer_fits_the_terminal(service, operate, folder):
    service.halt()
    terminal = operate(f"{folder}/act.cue", columns=40)
    terminal.see(rb"\r\x1b\[Kkadrel does not answer for 3 s \(its dis\r\x1b\[K")
    service.go_on()
    terminal.see(rb"recording into")
    terminal.press(b"\x03")
    assert terminal.wait() == 1


@pytest.mark.parametrize("closing", [">&-", "2>&-", "<&- >&- 2>&-"])
def test_a_closed_output_does_not_get_into_the_recording(service, record, folder, closing):
    path = f"{folder}/act.cue"
    process = record.begin(path, "--until-silent", "1s", prefix=("sh", "-c", f'exec "$@" {closing}', "sh"))
    service.feed(frames(5))
    code, _, _ = record.finish(process)
    assert code == (1 if ">&-" in closing.replace("2>&-", "") else 0)
    assert Recording.read(path).datagrams == frames(5)
    assert service.client.get_status() == "off"


def test_an_output_that_nobody_reads_keeps_no_recording_from_its_end(service, record, folder):
    path = f"{folder}/act.cue"
    reading, writing = os.pipe()
    os.set_blocking(writing, False)
    record.stack.callback(os.close, reading)
    try:
        while True:
            os.write(writing, bytes(4096))
    except BlockingIOError:
        os.set_blocking(writing, True)
    process = record.begin(path, "--until-silent", "500ms",
                           prefix=("sh", "-c", f'exec "$@" 2>/proc/{os.getpid()}/fd/{writing}', "sh"))
    os.close(writing)
    service.feed(frames(5))
    spin_until(lambda: service.client.get_status() == "off", "the end of the recording")
    assert Recording.read(path).datagrams == frames(5)
    while os.read(reading, 1 << 16):
        pass
    assert record.finish(process)[0] == 0


# ---- what comes from the network ----


def test_strange_datagrams_are_judged_as_what_they_are(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path, "--until-silent", "1h", "--universes", "1-32768")
    header = art_dmx(0, slots({1: 1}))
    service.feed([
        header[:17], header[:12], b"Art-Net\0\0P", b"Art-Net\0\xfe\0" + bytes(8), header + bytes(3),
        header + art_dmx(1, slots({2: 2})), header[:16] + b"\xff\xff" + header[18:], header[:16] + b"\0\0",
        (header * 16)[:8191], b"\0" * 8191, *frames(5, universe=7),
    ])
    code, out, errors = record.stop(process)
    assert (code, errors) == (0, INTO.format(path) + "kadrel-cue: not in the recording: universes 3-7,9-32768\n")
    assert f"{path}: universes 1-2,8\n" in out
    with open(path, "rb") as file:
        assert file.read().endswith(frames(5, universe=7)[-1])


def test_two_senders_on_a_universe_lose_nothing(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path)
    service.feed([datagram for number in range(1, 200) for datagram in (
        *frames(1, first=number), *frames(1, first=number + 100, level=3))])
    code, out, errors = record.stop(process)
    assert (code, errors) == (0, INTO.format(path)), out


def test_a_console_that_does_not_count_loses_nothing_that_could_be_known(service, record, folder):
    path = f"{folder}/act.cue"
    process = record.begin(path)
    service.feed([art_dmx(0, slots({1: number})) for number in range(100)])
    code, out, errors = record.stop(process)
    assert (code, errors) == (0, INTO.format(path))
    assert out.endswith(f"{path}: complete as far as the senders count\n")
