"""Counts and never times: at a modest load every contender records everything exactly once and in order."""

from contenders import RAISED_BUFFER
from measurements import SECOND, all_there

LOAD = 10_000  # datagrams
BURST = 2_000


def smoke(contenders):
    for contender in contenders:
        # A receive buffer that holds all of it: what a busy machine delays is not lost.
        contender.start(universes=64, buffer=RAISED_BUFFER)
        contender.send(LOAD, group=4, interval=SECOND * 4 / LOAD)
        contender.send(BURST)
        contender.wait_idle()
        contender.stop()
        report = all_there(contender)
        print(f"{contender.name}: {report['records']} of {contender.sent} datagrams recorded, each once and in order")
