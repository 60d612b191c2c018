"""olad, an Art-Net controller that nobody here wrote, on a host of its own."""

import os
import re
import subprocess
import threading

from .artnet import OP_DMX, dmx_data, opcode_of, port_address_of
from .waiting import DEADLINE, Collector, spin_until

# olad loads every plugin that it knows unless its file says otherwise; only Art-Net may touch this network.
OTHER_PLUGINS = (
    *("dmx4linux", "dummy", "espnet", "ftdidmx", "gpio", "karate", "kinet", "milinst", "nanoleaf", "opendmx"),
    *("openpixelcontrol", "osc", "pathport", "renard", "sandnet", "shownet", "spi", "stageprofi", "uartdmx", "usbdmx"),
    "usbserial",
)
SHORT_NAME = "olad"
LONG_NAME = "olad on a peer"


def is_frame(datagram, port_address, values):
    """Whether a captured datagram is the ArtDmx with which olad sends these values (an odd number of slots is filled up)."""
    return (
        opcode_of(datagram.data) == OP_DMX
        and port_address_of(datagram.data) == port_address
        and list(dmx_data(datagram.data)[: len(values)]) == list(values)
    )


class Olad:
    """Art-Net device with four output ports (`device`), started and ready.

    Output port p of sub-net 0 has the port-address of the universe that it is patched to, modulo 16. Without
    `always_broadcast` it sends only to nodes that announced the port-address. With `e131_inputs` it also receives E1.31
    on so many ports of another device (`e131_device`), and with `e131_outputs` it sends E1.31 on so many of that device; such a
    port has the number of the universe that it is patched to.
    """

    def __init__(self, world, host, always_broadcast=True, ports=4, net=0, subnet=0, e131_inputs=0, e131_outputs=0):
        self.host = host
        self._namespaces = world.namespaces
        directory = world.path(f"ola-{host.name}")
        os.mkdir(directory)
        settings = {f"ola-{plugin}.conf": {"enabled": "false"} for plugin in OTHER_PLUGINS}
        settings["ola-artnet.conf"] = {
            "enabled": "true",
            "always_broadcast": str(always_broadcast).lower(),
            "ip": host.address,
            "net": net,
            "subnet": subnet,
            "output_ports": ports,
            "short_name": SHORT_NAME,
            "long_name": LONG_NAME,
            "use_limited_broadcast": "false",
            "use_loopback": "false",
        }
        settings["ola-e131.conf"] = {
            "enabled": str(e131_inputs + e131_outputs > 0).lower(),
            "ip": host.address,
            "input_ports": e131_inputs,
            "output_ports": e131_outputs,
        }
        for name, values in settings.items():
            with open(f"{directory}/{name}", "w", encoding="ascii") as file:
                file.writelines(f"{key} = {value}\n" for key, value in values.items())
            os.chmod(f"{directory}/{name}", 0o666)
        os.chmod(directory, 0o777)
        # It refuses to run as root.
        if os.geteuid() == 0:
            as_user = ("setpriv", "--reuid=olad", "--clear-groups")
        else:
            as_user = ("unshare", "--user", "--map-user=1000")
        self.lines = Collector("olad")
        self._process = self._namespaces.popen(
            ["olad", "--no-http", "--no-register-with-dns-sd", "-l", "3", "-c", directory],
            network=host.name,
            as_user=as_user,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
        )
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()
        # It has listened for its tools before it starts the plugins.
        started = self.lines.wait_for(
            lambda line: "Started ArtNet" in line, "Art-Net to start", give_up=lambda: self._process.poll() is not None
        )
        assert started, f"olad ended: {self.lines.items}"
        self.device = self._device("ArtNet")
        self.e131_device = self._device("E1.31") if e131_inputs + e131_outputs else None

    def _device(self, name):
        """Number of the device whose name begins so, when it is there."""
        found = spin_until(lambda: re.findall(rf"^Device (\d+): {name}", self.tool("ola_dev_info"), re.MULTILINE), name)
        return found[0]

    def _read(self):
        for line in self._process.stderr:
            self.lines.append(line.rstrip("\n"))
        self._process.wait()
        self.lines.notify()

    def tool(self, *command, **options):
        """Runs one of olad's own tools beside it; its output."""
        return self._namespaces.run(list(command), network=self.host.name, **options)

    def patch(self, port, universe):
        """Gives an output port a universe of olad's own."""
        self.tool("ola_patch", "-d", self.device, "-p", str(port), "-u", str(universe))

    def patch_input(self, port, universe):
        """Has an input port of E1.31 feed a universe of olad's own."""
        self.tool("ola_patch", "-d", self.e131_device, "-i", "-p", str(port), "-u", str(universe))

    def patch_e131(self, port, universe):
        """Has an output port of E1.31 send a universe of olad's own."""
        self.tool("ola_patch", "-d", self.e131_device, "-p", str(port), "-u", str(universe))

    def set_dmx(self, universe, values):
        """Sends one frame and keeps it as the universe's state."""
        self.tool("ola_set_dmx", "-u", str(universe), "-d", ",".join(map(str, values)))

    def set_and_see(self, capture, universe, port_address, values):
        """set_dmx, then waits until the frame has passed the capture."""
        mark = len(capture.datagrams())
        self.set_dmx(universe, values)
        capture.wait_for_next(mark, lambda datagram: is_frame(datagram, port_address, values), f"the frame {values}")

    def stream(self, capture, universe, port_address, frames):
        """Sends frames through one streaming client, each as soon as the one before has passed the capture."""
        client = self._namespaces.popen(
            ["ola_streaming_client", "-u", str(universe)],
            network=self.host.name,
            stdin=subprocess.PIPE,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            text=True,
        )
        try:
            for values in frames:
                mark = len(capture.datagrams())
                client.stdin.write(",".join(map(str, values)) + "\n")
                client.stdin.flush()
                capture.wait_for_next(
                    mark, lambda datagram, sent=values: is_frame(datagram, port_address, sent), f"the frame {values}"
                )
        finally:
            client.stdin.close()
            client.wait(DEADLINE)

    def close(self):
        """Ends olad, if it still runs."""
        if self._process.poll() is None:
            self._process.terminate()
        self._reader.join()
        self._process.stderr.close()
