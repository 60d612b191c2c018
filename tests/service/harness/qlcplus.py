"""QLC+, a lighting console that nobody here wrote, without a screen on a host of its own."""

import os
import subprocess
import threading

from .waiting import DEADLINE, Collector

SHORT_NAME = "QLC+"
LONG_NAME = "Q Light Controller Plus - ArtNet interface"

WORKSPACE = """<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE Workspace>
<Workspace xmlns="http://www.qlcplus.org/Workspace" CurrentWindow="FixtureManager">
 <Engine Autostart="0">
  <InputOutputMap>
   <Universe Name="first" ID="0"><Output Plugin="ArtNet" UID="{address}" Line="1"/></Universe>
   <Universe Name="second" ID="1"><Output Plugin="ArtNet" UID="{address}" Line="1"/></Universe>
  </InputOutputMap>
  <Fixture>
   <Manufacturer>Generic</Manufacturer><Model>Generic</Model><Mode>Dimmers</Mode><ID>0</ID><Name>dimmers</Name>
   <Universe>1</Universe><Address>0</Address><Channels>{channels}</Channels>
  </Fixture>
  <Function ID="0" Type="Scene" Name="look">
   <Speed FadeIn="0" FadeOut="0" Duration="0"/><FixtureVal ID="0">{values}</FixtureVal>
  </Function>
 </Engine>
</Workspace>
"""


class QlcPlus:
    """Two universes go out by Art-Net, port-addresses 0 and 1; on the second runs a scene with these slot values.

    `lines`: what it writes, without pause between two frames.
    """

    def __init__(self, world, host, values):
        directory = world.path(f"qlcplus-{host.name}")
        os.mkdir(directory)
        os.chmod(directory, 0o777)
        show = os.path.join(directory, "show.qxw")
        scene = ",".join(f"{channel},{value}" for channel, value in enumerate(values))
        with open(show, "w", encoding="utf-8") as file:
            file.write(WORKSPACE.format(address=host.address, channels=len(values), values=scene))
        self.lines = Collector("QLC+")
        self._process = world.namespaces.popen(
            ["qlcplus", "--open", show, "--operate", "--nogui", "--nowm", "--debug", "0"],
            network=host.name,
            env={
                "PATH": os.environ.get("PATH", "/usr/bin:/bin"),
                "LANG": "C.UTF-8",
                "HOME": directory,
                "XDG_RUNTIME_DIR": directory,
                "QT_QPA_PLATFORM": "offscreen",
            },
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
            errors="replace",
        )
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self._process.stderr:
            self.lines.append(line.rstrip("\n"))

    def await_line(self, text):
        """Returns when a line that holds this text has been written."""
        self.lines.wait_for(lambda line: text in line, f"a line with {text!r}")

    def close(self):
        self._process.kill()
        self._process.wait(DEADLINE)
        self._reader.join()
        self._process.stderr.close()

    def __enter__(self):
        return self

    def __exit__(self, kind, value, traceback):
        self.close()
