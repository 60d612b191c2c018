"""Art-Net nodes that answer the service's ArtPoll, and the service's node detection seen cycle by cycle."""

import json
import os
import select
import subprocess
import threading

from .artnet import art_poll, art_poll_reply
from .network import ARTNET_PORT, BROADCAST
from .waiting import DEADLINE, Collector, DeadlinePassed, now

RESPONDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "responder.py")
PYTHON = "/usr/bin/python3"

# Seconds between two datagrams that wake the receive thread while an ArtPoll is due.
WAKE_PERIOD = 0.02

# Bytes in the service's receive queue (212992 by default) beyond which fake nodes hold their replies back.
QUEUE_LIMIT = 64 << 10

NO_NODES = '{ "nodes":[]}'


def node_reply(ip, universes=(0,), short_name=b"node", long_name=b"a fake node", **fields):
    """The reply of a node with one Art-Net output port per universe; at most 4 universes of one net and sub-net."""
    assert len({universe >> 4 for universe in universes}) == 1
    given = {
        "ip": ip,
        "port": ARTNET_PORT,
        "net_switch": universes[0] >> 8,
        "sub_switch": universes[0] >> 4 & 15,
        "oem": 0x1234,
        "esta_man": 0x5678,
        "short_name": short_name,
        "long_name": long_name,
        "num_ports": len(universes),
        "port_types": b"\x85" * len(universes),
        "sw_out": bytes(universe & 15 for universe in universes),
    }
    return art_poll_reply(**{**given, **fields})


def node_json(short_name, long_name, universe, ip, port=ARTNET_PORT):
    return (
        f'{{ "short_name": "{short_name}", "long_name": "{long_name}", "universe": {universe}, "ip": "{ip}", "port": {port} }}'
    )


def nodes_json(nodes):
    """The text of get_detected_nodes for nodes given as (short name, long name, universe, ip, port), in this order."""
    return '{ "nodes":[' + ",".join(node_json(*node) for node in nodes) + "]}"


class Detection:
    """Node detection of a running service. Its ArtPolls arrive at `host`, by default at the console."""

    def __init__(self, service, host=None):
        self.service = service
        self.client = service.client
        self.world = service.world
        self.listener = (host or self.world.console_host).endpoint(ARTNET_PORT, BROADCAST)
        self._signals = self.client.signals.mark()

    def close(self):
        """Gives the address of its listener back."""
        self.listener.close()

    def start(self):
        """Starts the polling thread and waits for the ArtPoll of its first cycle."""
        assert self.client.start_polling_artnet_nodes() is True
        return self.next_poll()

    def next_poll(self, deadline=DEADLINE):
        """Waits for the next ArtPoll, which begins a cycle; in automatic mode it also ends the cycle before."""
        end = now() + deadline
        while True:
            while not select.select([self.listener.socket], [], [], WAKE_PERIOD)[0]:
                self.world.waker.send(b"\0")
                if now() > end:
                    raise DeadlinePassed(f"no ArtPoll within {deadline} s")
            datagram = self.listener.receive()
            if datagram.address == self.world.appliance.address:
                assert datagram.data == art_poll(), datagram
                return datagram

    def polls_waiting(self):
        """ArtPolls that have arrived and that no call has waited for."""
        return [datagram for datagram in self.listener.waiting() if datagram.address == self.world.appliance.address]

    def answer(self, *replies, sender=None):
        """Sends replies to the service and returns when they have been taken in."""
        self.service.feed(replies, sender)

    def messages(self):
        """Texts of the node messages since the last call, all that the service has emitted so far."""
        signals = self.client.signals.since(self._signals)
        self._signals += len(signals)
        assert {signal.name for signal in signals} <= {"OnArtnetNodesUpdated"}
        for signal in signals:
            assert len(signal.arguments) == 1
        return [signal.arguments[0] for signal in signals]

    def next_message(self):
        """The next node message, waiting for it."""
        text = self.client.signals.wait_for_count(1, self._signals)[0].arguments[0]
        self._signals += 1
        return text

    def cycle(self, *replies):
        """In automatic mode, after an ArtPoll: these replies, then the end of the cycle. (messages, nodes as JSON text)"""
        self.answer(*replies)
        assert self.polls_waiting() == [], "the cycle was over before all replies were sent"
        self.next_poll()
        return self.messages(), self.client.get_detected_nodes()


class FakeNodes:
    """Nodes that answer every ArtPoll by themselves: (source address, reply) in the order of sending.

    `answered` grows by one entry for every ArtPoll. With `held_back` the replies wait when the queue of the service's socket
    fills up; only then is a reply that is missing certainly the service's own loss.
    """

    def __init__(self, service, host, answers, held_back=True):
        self.answered = Collector("answered ArtPolls")
        self._process = service.world.namespaces.popen(
            [PYTHON, "-I", "-S", RESPONDER],
            network=host.name,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        setting = {
            "listen": (BROADCAST, ARTNET_PORT),
            "target": (service.world.appliance.address, service.port),
            "answers": [(address, reply.hex()) for address, reply in answers],
            "queue": f"/proc/{service.pid}/net/udp" if held_back else None,
            "limit": QUEUE_LIMIT,
        }
        self._process.stdin.write(json.dumps(setting) + "\n")
        self._process.stdin.flush()
        assert json.loads(self._process.stdout.readline()) == {"ready": True}
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            self.answered.append(json.loads(line))

    def close(self):
        self._process.stdin.close()
        self._process.wait()
        self._reader.join()
        self._process.stdout.close()

    def __enter__(self):
        return self

    def __exit__(self, kind, value, traceback):
        self.close()
