"""kadrel-cue on a terminal, whose screen is read: an interactive shell in tmux, inside a world."""

import os
import re
import shlex
import subprocess
import time

from cue_tool import CUE, DEADLINE
from harness import DeadlinePassed, spin_until
from harness.sanitizers import environment

PROMPT = "ready> "


class Screen:
    """A shell in a window. What is typed is seen by the shell, or by what runs in its foreground."""

    def __init__(self, world, columns=80, rows=24, host="appliance", **variables):
        self._socket = world.path(f"tmux-{id(self)}")
        variables = {"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "HOME": world.directory, **environment(), **variables}
        # Its windows need the terminals of the host: they enter the world's network by a process that is there. In the
        # foreground (-D), so that it ends with the test.
        self._there = world.namespaces.popen(["sleep", "infinity"], network=host)
        self._server = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "tmux", "-u", "-S", self._socket, "-f", "/dev/null", "-D"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=variables,
        )
        spin_until(self._is_up, "tmux", DEADLINE)
        enter = ["nsenter", f"--target={self._there.pid}", "--net"]
        if os.geteuid() != 0:
            enter += ["--user", "--preserve-credentials"]
        changed = [f"PATH={CUE.parent}:{variables['PATH']}", f"PS1={PROMPT}"]
        if "TERM" in variables:
            changed.append(f"TERM={variables['TERM']}")
        shell = shlex.join([*enter, "env", *changed, "bash", "--norc", "--noprofile", "-i"])
        self._tmux("new-session", "-d", "-x", str(columns), "-y", str(rows), shell)
        self.see(re.escape(PROMPT.strip()))

    def _is_up(self):
        command = ["tmux", "-S", self._socket, "show-options", "-s"]
        return subprocess.run(command, check=False, capture_output=True, timeout=DEADLINE).returncode == 0

    def _tmux(self, *arguments):
        done = subprocess.run(
            ["tmux", "-u", "-S", self._socket, *arguments], check=False, capture_output=True, text=True, timeout=DEADLINE
        )
        assert done.returncode == 0, (arguments, done.stderr)
        return done.stdout

    def press(self, *keys):
        """Keys as tmux names them: Enter, Escape, Down, C-z, or characters."""
        self._tmux("send-keys", *keys)

    def type(self, text):
        self._tmux("send-keys", "-l", text)

    def run(self, command):
        """Types a command line."""
        self.type(command)
        self.press("Enter")

    def resize(self, columns, rows):
        self._tmux("resize-window", "-x", str(columns), "-y", str(rows))

    def text(self):
        return self._tmux("capture-pane", "-p")

    def lines(self):
        return self.text().splitlines()

    def see(self, pattern, deadline=3 * DEADLINE):
        """Waits until the screen shows this; the match."""
        end = time.monotonic() + deadline
        while True:
            text = self.text()
            found = re.search(pattern, text, re.MULTILINE)
            if found:
                return found
            if time.monotonic() > end:
                raise DeadlinePassed(f"waited {deadline} s for {pattern!r} on the screen:\n{text}")

    def close(self):
        for process in (self._server, self._there):
            process.kill()
            process.wait()
