"""Any number of fake nodes in one process, quick enough to answer one ArtPoll within milliseconds.

Started inside a peer's network namespace. The first line of standard input is a JSON object:

    listen   [address, port] where ArtPolls arrive
    target   [address, port] of the service
    answers  list of [source address, reply in hexadecimal], sent in this order for every ArtPoll
    queue    file that shows the UDP sockets of the service's namespace, or null
    limit    bytes in the service's receive queue from which on the next replies wait; with no queue they never do

It writes one JSON object per line: first {"ready": true}, then for every ArtPoll how many replies went out, over how many
nanoseconds, and how often they had to wait for the queue. It ends when standard input is closed.

Runs on its own: standard library only, nothing of the package is imported.
"""

import json
import os
import select
import socket
import sys
import time

# Datagrams sent between two looks at the service's queue.
PORTION = 16
OP_POLL = b"Art-Net\0\x00\x20"


def queued(path, port):
    """Bytes that wait in the receive queues of the sockets at this port."""
    total = 0
    with open(path, encoding="ascii") as sockets:
        next(sockets)
        for line in sockets:
            fields = line.split()
            if int(fields[1].rsplit(":", 1)[1], 16) == port:
                total += int(fields[4].split(":")[1], 16)
    return total


def main():
    # The kernel keeps the order of packets that one processor sends.
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    setting = json.loads(sys.stdin.readline())
    listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    listener.bind(tuple(setting["listen"]))
    target = tuple(setting["target"])
    senders = {}
    answers = []
    for address, text in setting["answers"]:
        if address not in senders:
            senders[address] = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            senders[address].bind((address, target[1]))
            senders[address].connect(target)
        answers.append((senders[address].send, bytes.fromhex(text)))
    print(json.dumps({"ready": True}), flush=True)

    while True:
        readable, _, _ = select.select([listener, sys.stdin], [], [])
        if sys.stdin in readable and not sys.stdin.readline():
            return
        if listener not in readable or listener.recv(65535)[:10] != OP_POLL:
            continue
        waits = 0
        began = time.monotonic_ns()
        for number, (send, datagram) in enumerate(answers):
            if setting["queue"] and number % PORTION == 0:
                while queued(setting["queue"], target[1]) > setting["limit"]:
                    waits += 1
                    os.sched_yield()
            send(datagram)
        took = time.monotonic_ns() - began
        print(json.dumps({"sent": len(answers), "nanoseconds": took, "waits": waits}), flush=True)


main()
