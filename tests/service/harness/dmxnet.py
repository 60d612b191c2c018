"""dmxnet, an Art-Net library for node.js that nobody here wrote, sending from a host of its own."""

import json
import os
import shutil
import subprocess
import threading
from pathlib import Path

import pytest

from .waiting import DEADLINE, Collector

SHORT_NAME = "dmxnet peer"
LONG_NAME = "dmxnet on a peer"

_SCRIPT = Path(__file__).with_suffix(".js")
_PACKAGE = Path(__file__).resolve().parents[3] / "build" / "peers" / "node_modules" / "dmxnet"


def require():
    """Skips the test where dmxnet, or what runs it, is not there."""
    if shutil.which("node") is None:
        pytest.skip("node is not installed")
    if not _PACKAGE.is_dir():
        pytest.skip("dmxnet is not in build/peers (scripts/install-peers puts it there)")


class DmxNet:
    """Sends the universes of `port_addresses` to `target`, a frame of each every `frame_ms`; use it as a context manager.

    Slot 1 counts the frames, slot 2 is the place of the universe in the list, slot 3 is 255, the others are 0.
    """

    def __init__(self, world, host, port_addresses, target, frame_ms=25):
        require()
        settings = {
            "address": host.address,
            "short_name": SHORT_NAME,
            "long_name": LONG_NAME,
            "frame_ms": frame_ms,
            "universes": [
                {"net": number >> 8, "subnet": number >> 4 & 15, "universe": number & 15, "ip": target}
                for number in port_addresses
            ],
        }
        self.host = host
        self.lines = Collector("dmxnet")
        self._process = world.namespaces.popen(
            ["node", str(_SCRIPT), str(_PACKAGE), json.dumps(settings)],
            network=host.name,
            env={"PATH": os.environ.get("PATH", "/usr/bin:/bin")},
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        self.lines.wait_for(
            lambda line: line == "sending", "the first frame", give_up=lambda: self._process.poll() is not None
        )
        assert self._process.poll() is None, f"dmxnet ended: {self.lines.items}"

    def _read(self):
        for line in self._process.stdout:
            self.lines.append(line.rstrip("\n"))
        self._process.wait()
        self.lines.notify()

    def close(self):
        self._process.kill()
        self._process.wait(DEADLINE)
        self._reader.join()
        self._process.stdout.close()

    def __enter__(self):
        return self

    def __exit__(self, kind, value, traceback):
        self.close()
