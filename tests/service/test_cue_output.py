"""The reports of kadrel-cue when its output fails."""

import contextlib
import fcntl
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
from pathlib import Path

import pytest
from cue_tool import DEADLINE, limited, open_fifo, write_beside
from harness import EXECUTABLE, spin_until
from harness.artnet import art_dmx, oem_vfps_ns
from harness.sanitizers import environment

CUE = str(EXECUTABLE.parent / "kadrel-cue")


@pytest.fixture
def cue(tmp_path):
    path = tmp_path / "cue"
    path.write_bytes(art_dmx(1, bytes(512)))
    return str(path)


@pytest.mark.parametrize("command", [["info"], ["info", "--json"], ["verify"], ["--help"], ["--version"]], ids=" ".join)
def test_a_report_that_cannot_be_written_is_no_success(cue, command):
    with open("/dev/full", "wb") as full:
        outcome = subprocess.run(
            [CUE, *command, *([] if command[0].startswith("--") else [cue])],
            stdout=full, stderr=subprocess.PIPE, text=True, check=False, timeout=60, env={**os.environ, **environment()},
        )
    assert (outcome.returncode, outcome.stderr) == (1, "kadrel-cue: standard output cannot be written\n")


def test_closed_standard_descriptors_are_not_taken_by_the_network(world, cue):
    process = world.namespaces.popen(
        ["sh", "-c", 'exec "$0" "$@" <&- >&- 2>&-', CUE, "play", cue, "--to", "127.255.255.255", "--hold"],
        env={"PATH": os.environ["PATH"], **environment()},
    )

    directory = f"/proc/{process.pid}/fd"

    def plays():
        try:
            links = [os.readlink(f"{directory}/{fd}") for fd in os.listdir(directory)]
        except FileNotFoundError:  # closed meanwhile
            return False
        return os.readlink(f"/proc/{process.pid}/exe") == CUE and any(link.startswith("socket:") for link in links)

    try:
        spin_until(plays, "a socket of the player")
        assert {os.readlink(f"{directory}/{fd}") for fd in range(3)} == {"/dev/null"}
    finally:
        process.terminate()
        with limited(process):
            assert process.wait() == 0


def open_files(process):
    """What the descriptors of a process lead to."""
    directory = f"/proc/{process.pid}/fd"
    links = []
    for fd in os.listdir(directory):
        with contextlib.suppress(FileNotFoundError):  # closed meanwhile
            links.append(os.readlink(f"{directory}/{fd}"))
    return links


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, signal.SIGKILL])
def test_a_file_that_is_half_written_goes_with_the_program(tmp_path, cue, number):
    source = tmp_path / "pipe"
    os.mkfifo(source)
    process = subprocess.Popen(
        ["env", "--default-signal", CUE, "join", cue, source, "-o", tmp_path / "out"],
        stderr=subprocess.PIPE, env={**os.environ, **environment()},
    )

    def unfinished():
        """The output: without a name, or with a temporary one on a file system that knows no files without a name."""
        return [link for link in open_files(process) if link.startswith((f"{tmp_path}/#", f"{tmp_path}/.kadrel-cue."))]

    # Opened by the reader, which then waits for more.
    with limited(process), open_fifo(source, process):
        (output,) = spin_until(unfinished, "the output")
        process.send_signal(number)
        assert (process.wait(), process.stderr.read()) == (-number, b"")
    process.stderr.close()
    left = [Path(output).name] if number == signal.SIGKILL and "/#" not in output else []
    assert sorted(os.listdir(tmp_path)) == [*left, "cue", "pipe"]


def run(*words, **options):
    return subprocess.run(
        [CUE, *map(str, words)], check=False, capture_output=True, timeout=60, env={**os.environ, **environment()}, **options
    )


def outcome_of(*words, **options):
    """Exit code, standard output and error output of a run."""
    outcome = run(*words, **options)
    return outcome.returncode, outcome.stdout, outcome.stderr.decode()


# An existing file


def test_an_existing_file_is_replaced_only_by_force(tmp_path, cue):
    out = tmp_path / "out.cue"
    out.write_bytes(b"precious")
    out.chmod(0o604)
    exists = f"kadrel-cue: {out}: exists; --force replaces it\n"
    for command in (["cut", cue], ["join", cue]):
        assert outcome_of(*command, "-o", out) == (1, b"", exists)
        assert out.read_bytes() == b"precious"
    assert run("cut", cue, "-o", out, "--force").returncode == 0
    assert out.read_bytes() == Path(cue).read_bytes()
    assert out.stat().st_mode & 0o7777 == 0o604


def test_a_refusal_comes_before_the_work(tmp_path, cue):
    """The pipe has no writer: reading it would last forever."""
    out = tmp_path / "out.cue"
    out.write_bytes(b"precious")
    source = tmp_path / "pipe"
    os.mkfifo(source)
    for command in ("cut", "join", "plot"):
        assert outcome_of(command, source, "-o", out) == (1, b"", f"kadrel-cue: {out}: exists; --force replaces it\n")
        assert out.read_bytes() == b"precious"


def test_a_command_that_fails_leaves_the_existing_file(tmp_path):
    broken, out = tmp_path / "broken.cue", tmp_path / "out.cue"
    broken.write_bytes(art_dmx(1, bytes(512)) + b"Art")
    out.write_bytes(b"precious")
    assert run("cut", broken, "--strict", "-o", out, "--force").returncode == 1
    assert out.read_bytes() == b"precious"
    assert sorted(os.listdir(tmp_path)) == ["broken.cue", "out.cue"]


def test_a_file_beyond_the_limit_of_the_user_is_an_error(tmp_path, tmp_path_factory, cue):
    out = tmp_path / "out.cue"
    # The counters of a coverage build meet the limit too: those of other tests stay whole.
    counters = {"GCOV_PREFIX": str(tmp_path_factory.mktemp("counters")), "GCOV_ERROR_FILE": "/dev/null"}
    limited = subprocess.run(
        ["prlimit", "--fsize=1000", CUE, "join", cue, cue, "-o", out],
        capture_output=True, text=True, check=False, timeout=60, env={**os.environ, **environment(), **counters},
    )
    assert (limited.returncode, limited.stderr) == (1, f"kadrel-cue: {out}: File too large\n")
    assert os.listdir(tmp_path) == ["cue"]


def test_a_full_disk_is_an_error_that_leaves_nothing_and_the_existing_file(tmp_path):
    show, disk = tmp_path / "show.cue", tmp_path / "disk"
    show.write_bytes(oem_vfps_ns(0).join([art_dmx(1, bytes(512))] * 500))
    disk.mkdir()
    script = (
        'mount -t tmpfs -o size=64k none "$1" && printf precious > "$1/out.cue"\n'
        'for out in "$1/out.cue" "$1/new.cue"; do "$0" cut "$2" -o "$out" --force; echo $?; done; cat "$1/out.cue"; ls -A "$1"'
    )
    outcome = subprocess.run(
        ["unshare", "-rm", "sh", "-c", script, CUE, disk, show],
        capture_output=True, text=True, check=False, timeout=60, env={**os.environ, **environment()},
    )
    error = "kadrel-cue: {}: No space left on device\n"
    assert outcome.stderr == error.format(disk / "out.cue") + error.format(disk / "new.cue")
    assert outcome.stdout == "1\n1\npreciousout.cue\n"


# Standard input and output, pipes


def test_recordings_go_through_pipes(tmp_path, cue):
    whole = Path(cue).read_bytes()
    for command in (["cut", "-"], ["join", "-"]):
        code, out, err = outcome_of(*command, "-o", "-", input=whole)
        assert (code, out, err) == (0, whole, "standard output: 1 datagram, 0.000 s\n")
    code, out, _ = outcome_of("verify", "-", input=whole)
    assert (code, out.splitlines()[0]) == (0, b"standard input: whole, 1 datagram, 0.000 s")
    assert run("info", "-", input=whole).stdout.startswith(b"standard input\n")


def test_named_pipes_are_joined_in_order(tmp_path):
    pipes = [tmp_path / name for name in ("a", "b")]
    datagrams = [art_dmx(1, b"a" * 512), art_dmx(1, b"b" * 512)]
    for pipe in pipes:
        os.mkfifo(pipe)
    writers = [write_beside(pipe, one) for pipe, one in zip(pipes, datagrams)]
    code, out, _ = outcome_of("join", *pipes, "--gap", "0", "-o", "-")
    for writer in writers:
        writer.join(DEADLINE)
    assert code == 0
    assert out == datagrams[0] + oem_vfps_ns(0) + datagrams[1]


@pytest.mark.parametrize(
    "command",
    [["info"], ["verify"], ["export", "--csv", "OUT"], ["plot", "-o", "OUT"], ["cut", "-o", "OUT"], ["join", "-o", "OUT"]],
    ids=lambda words: words[0],
)
def test_every_command_reads_files_and_pipes_alike(tmp_path, cue, command):
    whole, pipe = Path(cue).read_bytes(), tmp_path / "pipe"
    os.mkfifo(pipe)

    def made_of(source, name, **options):
        out = tmp_path / f"from_{name}"
        words = [str(out) if word == "OUT" else word for word in command]
        code, said, err = outcome_of(words[0], source, *words[1:], **options)
        assert (code, err) == (0, "")
        shown = b"standard input" if source == "-" else str(source).encode()
        # A picture has the name of the input among its texts.
        content = re.sub(rb">[^<]*<", b"><", out.read_bytes()) if out.exists() else b""
        return said.replace(str(out).encode(), b"OUT").replace(shown, b"IN"), content

    expected = made_of(cue, "file")
    assert made_of("-", "input", input=whole) == expected
    writer = write_beside(pipe, whole)
    assert made_of(pipe, "pipe") == expected
    writer.join(DEADLINE)


def test_the_standard_input_is_named_once():
    for command in (["info"], ["verify"], ["join", "-o", "out"]):
        code, out, err = outcome_of(*command, "-", "-", input=b"")
        assert (code, out) == (2, b"")
        assert "- (the standard input) can be read once" in err


def test_a_full_or_closed_standard_output_is_an_error(cue):
    for redirection, error in ((">/dev/full", "No space left on device"), (">&-", "Bad file descriptor")):
        outcome = subprocess.run(
            ["sh", "-c", f'exec "$0" cut "$1" -o - {redirection}', CUE, cue],
            capture_output=True, text=True, check=False, timeout=60, env={**os.environ, **environment()},
        )
        assert (outcome.returncode, outcome.stderr) == (1, f"kadrel-cue: standard output: {error}\n")
    closed = subprocess.run(
        ["sh", "-c", 'exec "$0" info "$1" >&-', CUE, cue],
        capture_output=True, text=True, check=False, timeout=60, env={**os.environ, **environment()},
    )
    assert (closed.returncode, closed.stderr) == (1, "kadrel-cue: standard output cannot be written\n")


def test_a_reader_that_goes_away_ends_the_program_quietly(tmp_path, cue):
    reader, writer = os.pipe()
    os.close(reader)
    outcome = subprocess.run(
        ["env", "--default-signal", CUE, "cut", cue, "-o", "-"],
        stdout=writer, stderr=subprocess.PIPE, check=False, timeout=60, env={**os.environ, **environment()},
    )
    os.close(writer)
    assert (outcome.returncode, outcome.stderr) == (-signal.SIGPIPE, b"")


# Looks


def test_a_cut_part_begins_with_every_look_and_is_a_recording_like_any_other(tmp_path):
    """Fourteen universes, of which all but the first stand still: only the first is sent again."""
    datagrams = [art_dmx(universe, bytes([universe + 1]) * 512, sequence=9) for universe in range(14)]
    moving = [art_dmx(0, bytes([level]) * 512, sequence=10 + level) for level in range(200)]
    show, part, song = (tmp_path / name for name in ("show.cue", "part.cue", "song.cue"))
    show.write_bytes(oem_vfps_ns(0).join(datagrams) + b"".join(oem_vfps_ns(25_000_000) + one for one in moving))

    assert run("cut", show, "--start", "2.01", "-o", part).returncode == 0
    universes = json.loads(run("info", "--json", part).stdout)[0]["universes"]
    assert [universe["universe"] for universe in universes] == list(range(1, 15))
    assert max(universe["first_ns"] for universe in universes) < 1_000_000_000 / 44
    # The last datagram before 2.01 s is the one of 2.000 s.
    assert part.read_bytes().startswith(moving[79])
    assert part.read_bytes().endswith(oem_vfps_ns(25_000_000) + moving[199])
    assert run("verify", "--strict", part).returncode == 0

    # The second file brings the first universe only; the others are still right behind the seam.
    only_first = tmp_path / "first.cue"
    assert run("cut", show, "--start", "2.01", "--only", "1", "-o", only_first).returncode == 0
    assert run("join", part, only_first, "--renumber", "-o", song).returncode == 0
    assert run("verify", "--strict", song).returncode == 0
    counts = {one["universe"]: one["datagrams"] for one in json.loads(run("info", "--json", song).stdout)[0]["universes"]}
    assert counts == {1: 2 * (1 + 120), **{universe: 2 for universe in range(2, 15)}}
    assert run("cut", show, "--start", "2.01", "--no-look", "-o", part, "--force").returncode == 0
    assert part.read_bytes() == oem_vfps_ns(25_000_000).join(moving[80:])


# Damage


def test_cut_and_join_go_on_behind_damage(tmp_path):
    first, last = art_dmx(1, b"a" * 512), art_dmx(1, b"c" * 512)
    broken, out = tmp_path / "broken.cue", tmp_path / "out.cue"
    broken.write_bytes(first + oem_vfps_ns(10) + last + b"Art")
    for command in (["cut", broken], ["join", broken, broken]):
        code, _, err = outcome_of(*command, "-o", out, "--force")
        assert code == 1
        assert err.count("\n") == 1 and err.startswith(f"kadrel-cue: {broken}: byte ") and "verify --repair" in err
        assert run("verify", "--strict", out).returncode == 0
        assert out.read_bytes().startswith(first) and out.read_bytes().endswith(last)
        code, _, err = outcome_of(*command, "-o", out, "--force", "--strict")
        assert code == 1 and err.startswith(f"kadrel-cue: {broken}: byte ") and "verify" not in err


# Progress


class Terminal:
    """A terminal of 40 columns that collects what is shown on it."""

    def __init__(self):
        self.master, self.slave = pty.openpty()
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("4H", 24, 40, 0, 0))
        self.shown = b""

    def read(self):
        while select.select([self.master], [], [], 0)[0]:
            self.shown += os.read(self.master, 65536)
        return self.shown

    def close(self):
        os.close(self.master)
        os.close(self.slave)


@pytest.fixture
def terminal():
    made = Terminal()
    yield made
    made.close()


@pytest.mark.parametrize(
    "command",
    [
        ["info"],
        ["verify"],
        ["cut", "-o", "/dev/null"],
        ["join", "-o", "/dev/null"],
        ["export", "--csv", "/dev/null"],
        ["plot", "-o", "/dev/null"],
    ],
    ids=lambda words: words[0],
)
def test_a_terminal_shows_how_far_a_command_is(tmp_path, terminal, command):
    source = tmp_path / ("a" * 60)
    os.mkfifo(source)
    process = subprocess.Popen(
        [CUE, command[0], source, *command[1:]],
        stdout=terminal.slave, stderr=terminal.slave, env={**os.environ, **environment()},
    )
    datagram = art_dmx(1, bytes(512))
    with limited(process):
        with open_fifo(source, process) as pipe:
            pipe.write(datagram)

            def shows():
                pipe.write(oem_vfps_ns(1) + datagram)
                return b" MB" in terminal.read()

            spin_until(shows, "the progress")
        assert process.wait() == 0
    shown = terminal.read()
    lines = re.findall(rb"\r\x1b\[K(a+  [0-9.]+ MB)", shown)
    assert lines and max(map(len, lines)) == 39
    # The line is taken away before anything else is said.
    assert shown.rpartition(b" MB")[2].startswith(b"\r\x1b[K")


def test_no_bytes_go_to_a_terminal(terminal, cue):
    outcome = subprocess.run(
        [CUE, "cut", cue, "-o", "-"],
        stdout=terminal.slave, stderr=subprocess.PIPE, text=True, check=False, timeout=60, env={**os.environ, **environment()},
    )
    assert (outcome.returncode, outcome.stderr) == (
        1, "kadrel-cue: standard output: a terminal, which takes no bytes that are no text\n"
    )
    assert terminal.read() == b""
