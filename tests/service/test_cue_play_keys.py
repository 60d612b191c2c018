"""An operator at the terminal of kadrel-cue play."""

import contextlib
import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time

import pytest
from cue_tool import CUE, DEADLINE
from harness import ARTNET_PORT, spin_until
from harness.artnet import art_dmx, dmx_data, oem_vfps_ns
from harness.sanitizers import environment

NODE = "10.77.0.30"
MS = 1_000_000
RIGHT, LEFT, UP, DOWN, HOME = b"\x1b[C", b"\x1bOD", b"\x1b[A", b"\x1b[B", b"\x1b[1~"


def processes_of_session(session):
    """The processes whose session has this number: what was started on one terminal."""
    found = []
    for pid in filter(str.isdecimal, os.listdir("/proc")):
        with contextlib.suppress(ProcessLookupError):
            if os.getsid(int(pid)) == session:
                found.append(int(pid))
    return found


class Terminal:
    """kadrel-cue, or another command, on a terminal of its own, in its foreground."""

    def __init__(self, world, *arguments, columns=120, stdin=None, command=None):
        self.controller, self._terminal = pty.openpty()
        fcntl.ioctl(self._terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        self.before = termios.tcgetattr(self._terminal)
        self.shown = b""
        if command is None:
            command = [str(CUE), "play", *map(str, arguments)]
        if stdin is not None:
            command = ["sh", "-c", 'exec "$@" <"$CUE_INPUT"', "sh", *command]
        # setsid --ctty: the terminal is the one that the program is started on.
        self.process = world.namespaces.popen(
            ["setsid", "--ctty", *command],
            network="console", stdin=self._terminal, stdout=self._terminal, stderr=self._terminal,
            env={"PATH": os.environ["PATH"], "CUE_INPUT": str(stdin), **environment()},
        )

    def press(self, keys):
        os.write(self.controller, keys)

    def see(self, pattern):
        """Reads until the program has shown this since the last time; the match."""
        end = time.monotonic() + DEADLINE
        while not (match := re.search(pattern, self.shown)):
            assert select.select([self.controller], [], [], max(0.0, end - time.monotonic()))[0], (pattern, self.shown)
            try:
                self.shown += os.read(self.controller, 65536)
            except OSError as error:
                raise AssertionError((pattern, self.shown)) from error
        self.shown = self.shown[match.end():]
        return match

    def stop_output(self):
        termios.tcflow(self._terminal, termios.TCOOFF)

    def go_on(self):
        termios.tcflow(self._terminal, termios.TCOON)

    @property
    def modes(self):
        return termios.tcgetattr(self._terminal)

    @property
    def is_raw(self):
        return not self.modes[3] & (termios.ICANON | termios.ECHO)

    def wait(self):
        """Exit code; the terminal must be as before. What is shown meanwhile is read, or the program would wait."""
        spin_until(lambda: self._drain() or self.process.poll() is not None, "the end of the program")
        self._drain()
        assert self.modes == self.before
        return self.process.returncode

    def _drain(self):
        while select.select([self.controller], [], [], 0)[0]:
            self.shown += os.read(self.controller, 65536)

    def close(self):
        """Ends the command and what it started: a playback in the background of a shell outlives its terminal."""
        if self.process.poll() is None:
            for pid in processes_of_session(self.process.pid):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
            self.process.kill()
            self.process.wait()
        os.close(self._terminal)
        os.close(self.controller)


@pytest.fixture
def node(world):
    return world.network.peer("node", NODE).endpoint(ARTNET_PORT)


@pytest.fixture
def operate(world):
    assert world.console_host
    with contextlib.ExitStack() as stack:

        def start(*arguments, **options):
            terminal = Terminal(world, *arguments, **options)
            stack.callback(terminal.close)
            return terminal

        yield start


@pytest.fixture
def path(world):
    """A minute and a half in which every second has its level."""
    name = world.path("show.cue")
    with open(name, "wb") as file:
        file.write(oem_vfps_ns(1000 * MS).join(art_dmx(0, bytes([second])) for second in range(90)))
    return name


def levels_until(node, level):
    return [dmx_data(datagram.data)[0] for datagram in
            node.receive_until(lambda datagram: dmx_data(datagram.data)[0] == level, DEADLINE)]


# The middle of a second that lasts for most of a minute: keys count from there, however late they are pressed.
SLOWLY = ("--start", "10.5", "--speed", "0.01x")


def test_keys_move_through_a_playback(operate, node, path):
    terminal = operate(path, "--to", NODE, "--blackout", *SLOWLY)
    assert dmx_data(node.receive().data)[0] == 10
    spin_until(lambda: terminal.is_raw, "the keys")
    terminal.press(UP)
    assert levels_until(node, 40)[-1] == 40
    terminal.press(RIGHT)
    assert levels_until(node, 45)[-1] == 45
    terminal.press(b" ")
    terminal.see(rb"PAUSED")
    terminal.press(LEFT)
    assert levels_until(node, 40)[-1] == 40
    terminal.press(DOWN)
    assert levels_until(node, 10)[-1] == 10
    terminal.press(UP + b" ")
    assert levels_until(node, 40)[-1] == 40
    terminal.press(HOME)
    assert levels_until(node, 10)[-1] == 10
    node.waiting()
    terminal.press(b"q")
    assert terminal.wait() == 0
    assert [dmx_data(datagram.data)[0] for datagram in node.waiting()][-3:] == [0, 0, 0]


def test_a_pause_lasts_until_the_next_space(operate, node, path):
    terminal = operate(path, "--to", NODE, "--speed", "20x", "--loop", "forever")
    spin_until(lambda: terminal.is_raw, "the keys")
    terminal.press(b" ")
    paused = rb"\r\x1b\[K(\S+?)(?: s)?  PAUSED"
    position = terminal.see(paused)[1]
    assert terminal.see(paused)[1] == position
    node.waiting()
    standing = dmx_data(node.receive().data)[0]
    terminal.press(b" ")
    node.receive_until(lambda datagram: dmx_data(datagram.data)[0] != standing, DEADLINE)
    terminal.press(b"q")
    assert terminal.wait() == 0


def test_wait_starts_on_enter(operate, node, path):
    terminal = operate(path, "--to", NODE, "--wait", "--stop", "0.5", "--no-look")
    terminal.see(rb"Enter starts ")
    assert node.waiting() == []
    spin_until(lambda: terminal.is_raw, "the keys")
    terminal.press(b"\r")
    assert dmx_data(node.receive().data)[0] == 0
    assert terminal.wait() == 0


def test_q_instead_of_enter_starts_nothing(operate, node, path):
    terminal = operate(path, "--to", NODE, "--wait")
    terminal.see(rb"Enter starts ")
    spin_until(lambda: terminal.is_raw, "the keys")
    terminal.press(b"q")
    assert terminal.wait() == 0
    assert node.waiting() == []


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT])
def test_the_terminal_is_as_before_after_a_signal(operate, node, path, number):
    terminal = operate(path, "--to", NODE)
    node.receive()
    spin_until(lambda: terminal.is_raw, "the keys")
    terminal.process.send_signal(number)
    assert terminal.wait() == (-number if number == signal.SIGQUIT else 0)


def test_the_terminal_is_as_before_after_an_error(operate, path):
    terminal = operate(path, "--to", "192.0.2.1")
    assert terminal.wait() == 1
    assert b"Network is unreachable" in terminal.shown


def test_ctrl_c_on_the_terminal_ends_in_the_dark(operate, node, path):
    terminal = operate(path, "--to", NODE, "--blackout", "--start", "40")
    assert dmx_data(node.receive().data)[0] in (39, 40)
    spin_until(lambda: terminal.is_raw, "the keys")
    terminal.press(b"\x03")
    assert terminal.wait() == 0
    assert dmx_data(node.waiting()[-1].data)[0] == 0


def test_ctrl_z_gives_the_terminal_back_and_fg_goes_on(world, operate, node, path):
    shell = operate(command=["bash", "--norc", "--noprofile", "--noediting", "-i"])
    shell.press(f"{CUE} play {path} --to {NODE} --start 40\n".encode())
    first = node.receive()
    spin_until(lambda: shell.is_raw, "the keys")
    shell.press(b"\x1a")
    shell.see(rb"Stopped")
    spin_until(lambda: not shell.is_raw, "the terminal of the shell")
    last = dmx_data([first, *node.waiting()][-1].data)[0]
    shell.press(b"fg\n")
    # First the look at the place where it was stopped, however long that took.
    assert dmx_data(node.receive().data)[0] in (last, last + 1)
    spin_until(lambda: shell.is_raw, "the keys")
    shell.press(b"q")
    spin_until(lambda: not shell.is_raw, "the terminal of the shell")
    shell.press(b"exit 7\n")
    assert shell.wait() == 7


def test_in_the_background_no_keys_are_taken(world, operate, node, path):
    shell = operate(command=["bash", "--norc", "--noprofile", "--noediting", "-i"])
    shell.press(f"{CUE} play {path} --to {NODE} &\n".encode())
    assert levels_until(node, 1)[-1] == 1
    assert not shell.is_raw
    shell.press(b"fg\n")
    spin_until(lambda: shell.is_raw, "the keys")
    shell.press(b"q")
    spin_until(lambda: not shell.is_raw, "the terminal of the shell")
    shell.press(b"exit 7\n")
    assert shell.wait() == 7


def test_keys_come_from_the_terminal_when_the_recording_is_the_standard_input(operate, node, path):
    terminal = operate("-", "--to", NODE, *SLOWLY, stdin=path)
    node.receive()
    spin_until(lambda: terminal.is_raw, "the keys")
    terminal.press(UP)
    assert levels_until(node, 40)[-1] == 40
    terminal.press(b"q")
    assert terminal.wait() == 0


def test_a_terminal_that_stands_does_not_stop_the_show(operate, node, path):
    terminal = operate(path, "--to", NODE, "--speed", "50x", "--loop", "forever")
    spin_until(lambda: terminal.is_raw, "the keys")
    terminal.see(rb" left")
    terminal.stop_output()
    node.waiting()
    # A whole pass and more.
    for level in (0, 89, 0, 89):
        levels_until(node, level)
    terminal.go_on()
    terminal.press(b"q")
    assert terminal.wait() == 0


def test_ctrl_s_does_not_stop_the_line(operate, node, path):
    terminal = operate(path, "--to", NODE)
    spin_until(lambda: terminal.is_raw, "the keys")
    terminal.press(b"\x13 ")
    terminal.see(rb"PAUSED")
    terminal.press(b"q")
    assert terminal.wait() == 0


@pytest.mark.parametrize("columns", [30, 60])
def test_the_line_fits_the_terminal_and_ends_as_it_stands(operate, node, path, columns):
    terminal = operate(path, "--to", NODE, "--loop", "forever", columns=columns)
    node.receive()
    spin_until(lambda: terminal.is_raw, "the keys")
    terminal.see(rb" left")
    terminal.press(b"q")
    assert terminal.wait() == 0
    lines = [line.rstrip(b"\r\n") for line in terminal.shown.split(b"\r\x1b[K")]
    assert max(map(len, lines)) < columns
    assert re.match(rb"\d+\.\d{3} s  1m[0-2]\d\.\d{3}s left", lines[-1]), lines
