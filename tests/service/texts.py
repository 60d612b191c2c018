"""Texts of the service that several tests compare, and small steps that they share."""

import base64
import re

from harness import ERROR, INFO, WARNING
from harness.artnet import art_trigger

BANNER = (INFO, "Kadrel Version: 1.5.2")
LISTEN_STARTING = (INFO, "[Dump::listen_incoming_data] Starting")
LISTEN_FINISHED = (INFO, "[Dump::listen_incoming_data] Finished")
BIND_FAILED = (ERROR, "Failed to bind grabber socket")

GRAB = (INFO, "[Dump::grab] Preparing to grab")
GRAB_NOT_IDLE = (INFO, "[Dump::grab] Failed to start grabber, not idle")
GRAB_CANNOT_OPEN = (ERROR, "Can't open file for grabbing")
GRABBING_STARTED = (INFO, "[Dump::process_datagram] Grabbing started")
STOP = (INFO, "[Dump::stop] Stopping grabber")
STOP_IDLE = (INFO, "[Dump::stop] Failed to stop grabber, idle")
FINALIZED = (INFO, "[Dump::finalize_grabbing] Grabbing finalized")

SIZE_UNREADABLE = (ERROR, "Failed to read pending datagram size")
OVERSIZED_DMX = (ERROR, "[Dump::ArtNetParser::on_error] Failed to parse packet (0, ec:4)")

NO_GRAB_YET = '{"filename": "", "empty": true, "uniceil": -1, "universes": []}'


def device_ip(address):
    return (INFO, f"[Dump::listen_incoming_data] This device IP is: {address}")


def unparsed(datagram):
    return (INFO, f"[Dump::process_datagram] Failed to parse datagram (data:{base64.b64encode(datagram).decode()})")


def grab_text(filename, empty, ceiling, universes):
    """The report about a recording of at most one universe, whose order is certain."""
    assert len(universes) < 2
    listed = ", ".join(map(str, universes))
    return f'{{"filename": "{filename}", "empty": {str(empty).lower()}, "uniceil": {ceiling}, "universes": [{listed}]}}'


def split_grab_text(text):
    """(filename, empty, ceiling, set of universes) of a report, whose form must be exact."""
    match = re.fullmatch(
        r'\{"filename": "(.*)", "empty": (true|false), "uniceil": (-?\d+), "universes": \[((?:\d+(?:, \d+)*)?)\]\}',
        text,
        re.DOTALL,
    )
    assert match, text
    universes = [int(universe) for universe in match[4].split(", ")] if match[4] else []
    assert len(set(universes)) == len(universes), text
    return match[1], match[2] == "true", int(match[3]), set(universes)


def latest_grab_line(text):
    return (INFO, f"[Dump::latest_grab] Get latest grab ({text})")


def emitted(service, datagrams):
    """(key, subkey) of all trigger signals that these datagrams bring about while the recorder is off."""
    start = service.client.signals.mark()
    end = (255, 254)
    service.feed([*datagrams, art_trigger(*end)])
    service.client.signals.wait_for(lambda signal: signal.arguments == end, f"the trigger {end}", start)
    return service.client.triggers(start)[:-1]


def has_ended(client):
    """Whether the record channel has ended the recording; its file is whole then."""
    if client.get_status() != "off":
        return False
    client.latest_grab()
    return True


# A recording's file takes nothing for a while, or to the end.
DROPPING = (WARNING, "[Dump::process_datagram] File takes no data, datagrams are dropped")
AGAIN = "[Dump::process_datagram] File takes data again"


def waits_in_memory(error):
    return (WARNING, f"[Dump::process_datagram] File takes no data, datagrams wait in memory (errno:{error})")


def takes_data_again(dropped):
    return (WARNING, f"{AGAIN} (dropped:{dropped})")


def dropped_to_the_end(number):
    return (WARNING, f"[Dump::finalize_grabbing] File took no data at the end (dropped:{number})")


_LOST = re.compile(r"\[Dump::finalize_grabbing\] Recording lost datagrams \(kernel:(\d+), writer:(\d+), after:(\d+) ms\)")


def losses(entries):
    """Of each recording that lost any: datagrams dropped by the kernel, by the writer, ms from the first to the first loss."""
    found = [(priority, _LOST.fullmatch(message)) for priority, message in entries]
    assert {priority for priority, match in found if match} <= {WARNING}
    return [tuple(map(int, match.groups())) for _, match in found if match]


def without_losses(entries):
    return [entry for entry in entries if not _LOST.fullmatch(entry[1])]


_LOST_NOTHING = re.compile(
    r"\[Dump::finalize_grabbing\] Recording lost nothing \(universes:(\d+), datagrams:(\d+), duration:(\d+)\.(\d{3}) s\)"
)


class lost_nothing:
    """Equal to the entry about a complete recording of so many universes and datagrams, however long it took.

    `universes` None: of any recording.
    """

    def __init__(self, universes=None, datagrams=None):
        self.universes, self.datagrams = universes, datagrams

    def __eq__(self, entry):
        match = _LOST_NOTHING.fullmatch(entry[1])
        if match is None or entry[0] != INFO:
            return False
        return self.universes is None or (int(match[1]), int(match[2])) == (self.universes, self.datagrams)

    def __repr__(self):
        return f"lost_nothing({self.universes}, {self.datagrams})"


def wait_until_complete(log, start):
    """Waits for the line about a recording that the record channel has ended and that lost nothing; its duration in seconds."""
    line = log.wait_for(lambda line: lost_nothing() == line.entry, "a complete recording", start)
    _, _, seconds, milliseconds = _LOST_NOTHING.fullmatch(line.message).groups()
    return int(seconds) + int(milliseconds) / 1000


_STILL_WAITING = re.compile(r"\[Dump::~Dump\] Waiting for the file, at most 10 s \(bytes:(\d+)\)")
_GIVEN_UP = re.compile(r"\[Dump::~Dump\] File took no data at the end \(bytes:(\d+)\)")


def end_waits(log, start):
    """Waits for the line that the end waits for the disk. Bytes that are not in the file."""
    line = log.wait_for(lambda line: _STILL_WAITING.fullmatch(line.message), "the end to wait", start)
    assert line.priority == WARNING
    return int(_STILL_WAITING.fullmatch(line.message)[1])


def bytes_given_up(entries):
    """Numbers of bytes that an end has given up; at most one."""
    return [int(match[1]) for priority, message in entries if priority == WARNING and (match := _GIVEN_UP.fullmatch(message))]
