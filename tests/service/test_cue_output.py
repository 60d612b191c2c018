"""The reports of kadrel-cue when its output fails."""

import os
import signal
import subprocess

import pytest
from harness import EXECUTABLE, spin_until
from harness.artnet import art_dmx
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
            stdout=full, stderr=subprocess.PIPE, text=True, check=False, env={**os.environ, **environment()},
        )
    assert (outcome.returncode, outcome.stderr) == (1, "kadrel-cue: standard output cannot be written\n")


def test_closed_standard_descriptors_are_not_taken_by_the_network(world, cue):
    process = world.namespaces.popen(
        ["sh", "-c", 'exec "$0" "$@" <&- >&- 2>&-', CUE, "play", cue, "--to", "127.0.0.1", "--hold"],
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
        assert process.wait() == 0


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_file_that_is_half_written_goes_with_the_program(tmp_path, cue, number):
    source = tmp_path / "pipe"
    os.mkfifo(source)
    process = subprocess.Popen(
        ["env", "--default-signal", CUE, "join", cue, source, "-o", tmp_path / "out"],
        stderr=subprocess.PIPE, env={**os.environ, **environment()},
    )
    # Opened by the reader, which then waits for more.
    with open(source, "wb"):
        spin_until(lambda: list(tmp_path.glob("out.*")), "the file that is being written")
        process.send_signal(number)
        assert (process.wait(), process.stderr.read()) == (-number, b"")
    assert sorted(os.listdir(tmp_path)) == ["cue", "pipe"]
    process.stderr.close()
