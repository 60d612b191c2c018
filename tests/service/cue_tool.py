"""kadrel-cue inside a world."""

import os
import subprocess

from harness import EXECUTABLE
from harness.sanitizers import environment, report_in

CUE = EXECUTABLE.parent / "kadrel-cue"
DEADLINE = 20


def without_priority_line(errors):
    """What the tool wrote, without what it says where it may not have a real-time priority."""
    return "".join(
        line for line in errors.splitlines(keepends=True) if not line.startswith("kadrel-cue: no real-time priority (")
    )


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
