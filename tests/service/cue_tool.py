"""kadrel-cue inside a world."""

import contextlib
import errno
import os
import subprocess
import threading

from harness import EXECUTABLE, spin_until
from harness.sanitizers import environment, report_in

CUE = EXECUTABLE.parent / "kadrel-cue"
DEADLINE = 20


def without_priority_line(errors):
    """What the tool wrote, without what it says where it may not have a real-time priority."""
    return "".join(
        line for line in errors.splitlines(keepends=True) if not line.startswith("kadrel-cue: no real-time priority (")
    )


def open_fifo(path, process):
    """The writing end of a named pipe, unbuffered, as soon as the process reads it."""

    def opened():
        assert process.poll() is None, f"it ended with {process.returncode} before it opened {path}"
        try:
            descriptor = os.open(path, os.O_WRONLY | os.O_NONBLOCK)
        except OSError as error:
            if error.errno != errno.ENXIO:
                raise
            return None  # nobody reads it yet
        os.set_blocking(descriptor, True)
        return open(descriptor, "wb", buffering=0)

    return spin_until(opened, f"a reader of {path}", DEADLINE)


def write_beside(path, content):
    """A thread that writes a file. One that nobody opens for reading keeps no test from its end."""
    writer = threading.Thread(target=path.write_bytes, args=(content,), daemon=True)
    writer.start()
    return writer


@contextlib.contextmanager
def limited(process):
    """The process ends with the block, and before that when it takes too long: what waits for it or for its output goes on."""
    timer = threading.Timer(3 * DEADLINE, process.kill)
    timer.start()
    try:
        yield process
    finally:
        timer.cancel()
        process.kill()
        process.wait()


class Tool:
    """kadrel-cue inside a world."""

    def __init__(self, world):
        self.world = world

    def start(self, *arguments, host="appliance"):
        return self.world.namespaces.popen(
            [str(CUE), *map(str, arguments)],
            network=host,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            env={"PATH": os.environ.get("PATH", "/usr/bin:/bin"), **environment()},
        )

    def finish(self, process):
        """Exit code, standard output and standard error."""
        try:
            out, errors = process.communicate(timeout=DEADLINE)
        finally:
            if process.poll() is None:
                process.kill()
                process.wait()
        assert report_in(errors) is None, errors
        return process.returncode, out, without_priority_line(errors)

    def __call__(self, *arguments, host="appliance"):
        return self.finish(self.start(*arguments, host=host))

    def expect(self, *arguments, host="appliance"):
        """Runs a command that must do its work without a complaint; its output."""
        code, out, errors = self(*arguments, host=host)
        assert (code, errors) == (0, ""), errors
        return out
