"""A disk that stands still, fills up or fails: the recording waits in memory, and nothing else waits."""

import contextlib
import errno
import os
import random
import signal
from pathlib import Path

import pytest
from gi.repository import GLib
from harness import Recording, spin_until
from harness.artnet import art_dmx, art_poll, art_trigger
from harness.faults import FILE
from harness.nodes import Detection, node_reply
from harness.service import SANITIZED
from harness.show import RECORD, Show
from texts import (
    AGAIN,
    DROPPING,
    FINALIZED,
    GRAB,
    GRAB_CANNOT_OPEN,
    GRABBING_STARTED,
    LISTEN_FINISHED,
    STOP,
    bytes_given_up,
    dropped_to_the_end,
    end_waits,
    grab_text,
    losses,
    lost_nothing,
    takes_data_again,
    waits_in_memory,
    without_losses,
)

# The least memory for a recording, and frames that do not fit into it.
SMALL_MEMORY = {"KADREL_WRITE_BUFFER_MIB": "1"}
TOO_MANY = 2500
assert TOO_MANY * RECORD > 1 << 20

COPYING = "[Dump::dup_cue] Preparing to clone cue"

RECORD_ON = art_dmx(8, b"\xff")
RECORD_OFF = art_dmx(8, b"\x00")


def memory(service):
    """Bytes of memory that the service has for itself."""
    with open(f"/proc/{service.pid}/status", encoding="ascii") as status:
        (line,) = [line for line in status if line.startswith("RssAnon:")]
    return int(line.split()[1]) * 1024


class Stall:
    """A service, a show, and a disk that stands still: calls for its files are held until `release()`."""

    def __init__(self, service, faults):
        self.service = service
        self.world = service.world
        self.log = service.world.log
        self.client = service.client
        self.faults = faults
        self.path = self.world.path("cue")
        self.show = Show(service)

    def begin(self, path=None, call="write"):
        """A recording into a file that takes nothing: its first write is held."""
        self.client.grab(path or self.path)
        self.hold(call)
        self.show.send()
        if call == "write":
            self.faults.wait_until_struck(call)

    def hold(self, call="write"):
        self.faults.hold(call, FILE)

    def release(self, call="write"):
        self.faults.disarm(call)

    def arm(self, path=None):
        """As grab(), with a record channel."""
        assert self.client.set_ctrl_universe(9) and self.client.set_ctrl_record(1, 100)
        self.start_by_channel(path)

    def start_by_channel(self, path=None):
        self.client.grab(path or self.path)
        self.service.feed([RECORD_ON])

    def end_by_channel(self):
        self.service.feed([RECORD_OFF])
        assert self.client.get_status() == "off"

    def begin_stop(self):
        """Calls `stop`; returns its future when the recording has ended."""
        lines = self.log.mark()
        stop = self.client.begin("stop")
        self.log.wait_for_text(FINALIZED[1], lines)
        return stop

    def serve(self):
        """Returns when the service has relayed a datagram and answered an ArtPoll."""
        assert self.service.relay_barrier() == []
        self.world.console.send(art_poll())
        self.world.console.receive_until(lambda reply: len(reply.data) == 239)

    def kept(self, path=None):
        """Numbers of the frames in a file."""
        return self.show.kept(Recording.read(path or self.path))

    def whole(self, path=None):
        """Whether a file holds the whole show."""
        return self.kept(path) == list(range(len(self.show.frames)))


@pytest.fixture
def stall(faulty, faults):
    return Stall(faulty, faults)


@pytest.fixture
def small(world, faults):
    """A stall of a service with the least memory for a recording."""
    return Stall(world.start(environment=SMALL_MEMORY, prefix=faults.prefix), faults)


# ---- while a recording runs ------------------------------------------------------------------------------------------


@pytest.mark.parametrize("call", ["write", "sync_file_range"])
def test_a_disk_that_takes_its_time_costs_no_datagram_and_bends_no_pause(stall, call):
    lines = stall.log.mark()
    stall.begin(call=call)
    if call == "sync_file_range":
        stall.show.send(TOO_MANY)
        stall.faults.wait_until_struck(call)
    for _ in range(5):
        stall.serve()
        stall.show.send()
    stall.release(call)
    stall.show.send()
    stall.client.stop()
    assert stall.whole()
    assert stall.client.latest_grab() == grab_text(stall.path, False, 1, [1])
    entries = stall.log.entries(lines)[:-1]
    assert entries == [GRAB, GRABBING_STARTED, STOP, FINALIZED, lost_nothing(1, len(stall.show.frames))]


def test_calls_and_nodes_are_served_while_a_write_is_held(stall):
    client = stall.client
    stall.begin()
    assert client.get_status() == "run"
    assert client.set_automatic_node_detection(True)
    detection = Detection(stall.service)
    detection.start()
    detection.cycle(node_reply("10.77.0.30", [3]))
    assert '"ip": "10.77.0.30"' in client.get_detected_nodes()
    assert client.add_manual_node((1, "node", "a manual node", 1, "10.77.0.40", 6454))
    client.grab(stall.world.path("refused"))
    assert client.set_ctrl_universe(1) is False
    stall.serve()
    assert not os.path.exists(stall.world.path("refused"))
    stall.release()
    client.stop()
    assert stall.whole()


def test_datagrams_of_every_size_wait_whole(stall):
    chance = random.Random(1)
    frame = art_dmx(1, b"\1\2")
    datagrams = [frame + chance.randbytes(chance.randrange(8192 - len(frame))) for _ in range(250)]
    stall.begin()
    stall.service.feed(datagrams)
    stall.release()
    stall.client.stop()
    Recording.of_datagrams(stall.path, stall.show.frames + datagrams)


@pytest.mark.skipif(SANITIZED, reason="the sanitizers' own memory is not given back")
def test_memory_grows_while_the_disk_is_behind_and_is_given_back(stall):
    before = memory(stall.service)
    stall.begin()
    stall.show.send(20 * (1 << 20) // RECORD)
    assert memory(stall.service) - before > 19 << 20
    stall.release()
    spin_until(lambda: memory(stall.service) - before < 3 << 20, "the memory to be given back")
    assert stall.client.get_status() == "run"
    stall.client.stop()
    assert stall.whole()


@pytest.mark.parametrize("error", [errno.EIO, errno.ENOSPC, errno.EDQUOT])
def test_writes_that_fail_for_a_while_cost_no_datagram(stall, error):
    lines = stall.log.mark()
    stall.client.grab(stall.path)
    stall.show.send()
    stall.faults.arm("write", error, FILE)
    stall.show.send(200)
    stall.show.send_until(waits_in_memory(error)[1], lines)
    stall.serve()
    stall.faults.disarm("write")
    stall.show.send_until(AGAIN, lines)
    stall.client.stop()
    assert stall.whole()
    expected = [GRAB, GRABBING_STARTED, waits_in_memory(error), takes_data_again(0), STOP, FINALIZED]
    assert stall.log.entries(lines) == [*expected, lost_nothing(1, len(stall.show.frames))]


@pytest.mark.parametrize("call", ["sync_file_range", "close"])
def test_calls_of_a_file_that_fail_cost_no_datagram(stall, call):
    lines = stall.log.mark()
    stall.client.grab(stall.path)
    stall.faults.arm(call, errno.EIO, FILE)
    stall.show.send(TOO_MANY)
    stall.client.stop()
    assert stall.faults.struck(call) > 0
    assert stall.whole()
    assert stall.log.entries(lines) == [GRAB, GRABBING_STARTED, STOP, FINALIZED, lost_nothing(1, TOO_MANY)]


def test_a_lone_frame_reaches_the_file_while_the_recording_runs(service):
    show = Show(service)
    path = Path(service.world.path("cue"))
    service.client.grab(str(path))
    for _ in range(3):
        show.send(2)
        spin_until(lambda: path.stat().st_size == show.size, "all frames in the file")
    assert service.client.get_status() == "run"
    assert show.kept(Recording.read(path)) == list(range(6))


def test_a_file_takes_no_more_room_than_its_records(service):
    show = Show(service)
    path = service.world.path("room")
    os.mkdir(path)
    service.world.namespaces.mount_tmpfs(path, 64 << 20)
    service.client.grab(f"{path}/cue")
    show.send(400)
    service.client.stop()
    status = os.stat(f"{service.world.namespaces.root}{path}/cue")
    assert status.st_size == show.size
    assert status.st_blocks * 512 < show.size + 4096


# ---- stop ------------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("call", ["write", "close"])
def test_stop_answers_when_the_file_is_whole_and_all_else_goes_on(stall, call):
    stall.begin(call=call)
    stall.show.send(200)
    stop = stall.begin_stop()
    stall.faults.wait_until_struck(call)
    triggers = [(1, number) for number in range(200)]
    for key, subkey in triggers:
        stall.service.world.console.send(art_trigger(key, subkey))
        stall.serve()
        assert not stop.done()
    stall.release(call)
    stop.result()
    assert stall.whole()
    assert stall.client.triggers() == triggers
    assert stall.client.latest_grab() == grab_text(stall.path, False, 1, [1])


def test_calls_that_arrive_while_stop_waits_are_answered_for_the_whole_file(stall):
    stall.begin()
    stall.show.send(100)
    stop = stall.begin_stop()
    status, latest = stall.client.begin("get_status"), stall.client.begin("latest_grab")
    copy = stall.client.begin("dup_cue", stall.world.directory, stall.path)
    stall.serve()
    assert not stop.done() and not latest.done() and not copy.done()
    stall.release()
    stop.result()
    assert stall.whole()
    assert status.result() == "off"
    assert latest.result() == grab_text(stall.path, False, 1, [1])
    assert stall.whole(copy.result())


# ---- an end by the record channel ------------------------------------------------------------------------------------


@pytest.fixture
def ended(stall):
    """A recording that the record channel has ended; part of it is in its file, the rest waits for a write that is held."""
    stall.arm()
    stall.show.send()
    spin_until(lambda: os.path.getsize(stall.path) > 0, "the first frames in the file")
    stall.hold()
    stall.show.send(200)
    stall.faults.wait_until_struck("write")
    stall.end_by_channel()
    return stall


def test_an_end_by_the_record_channel_waits_for_no_disk(ended):
    triggers = [(1, number) for number in range(20)]
    ended.service.feed([art_trigger(*one) for one in triggers])
    assert ended.client.get_status() == "off"
    assert ended.client.triggers() == triggers
    assert ended.client.set_ctrl_record(2, 100)
    ended.serve()
    ended.release()
    ended.client.latest_grab()
    assert ended.whole()


def test_the_latest_grab_is_told_when_its_file_is_whole(ended):
    report = ended.client.begin("latest_grab")
    for _ in range(20):
        ended.serve()
        assert not report.done()
    ended.release()
    assert report.result() == grab_text(ended.path, False, 1, [1])
    assert ended.whole()


def test_a_copy_is_made_when_the_file_is_whole(ended):
    copy = ended.client.begin("dup_cue", ended.world.directory, ended.path)
    for _ in range(20):
        ended.serve()
        assert not copy.done()
    ended.release()
    assert Path(copy.result()).read_bytes() == Path(ended.path).read_bytes()
    assert ended.whole()


@pytest.mark.parametrize("name", ["the same name", "another spelling", "a link", "a hard link"])
def test_a_recording_into_the_same_file_begins_when_the_file_is_whole(ended, name):
    path = ended.path
    if name == "another spelling":
        path = os.path.join(ended.world.directory, ".", "cue")
    if name == "a link":
        path = ended.world.path("link")
        os.symlink(ended.path, path)
    if name == "a hard link":
        path = ended.world.path("link")
        os.link(ended.path, path)
    lines = ended.log.mark()
    size = os.path.getsize(ended.path)
    grab = ended.client.begin("grab", path)
    ended.log.wait_for_text(GRAB[1], lines)
    for _ in range(20):
        ended.serve()
        assert not grab.done()
        assert os.path.getsize(ended.path) == size > 0
    ended.release()
    grab.result()
    assert os.path.getsize(ended.path) == 0
    assert ended.client.latest_grab() == grab_text(ended.path, False, 1, [1])
    ended.service.feed([RECORD_ON])
    again = ended.show.send(100)
    ended.client.stop()
    assert ended.kept() == list(again)


def test_a_recording_into_another_file_begins_at_once(ended):
    first, other = len(ended.show.frames), ended.world.path("other")
    ended.client.grab(other)
    assert ended.client.get_status() == "on"
    ended.service.feed([RECORD_ON])
    second = ended.show.send(200)
    assert ended.client.get_status() == "run"
    stop = ended.begin_stop()
    ended.serve()
    assert not stop.done()
    ended.release()
    stop.result()
    assert ended.kept(other) == list(second)
    assert ended.kept() == list(range(first))
    assert ended.client.latest_grab() == grab_text(other, False, 1, [1])


def test_a_recording_under_the_name_of_a_file_that_was_renamed_begins_at_once(ended):
    first, moved = len(ended.show.frames), ended.world.path("moved")
    os.rename(ended.path, moved)
    ended.client.grab(ended.path)
    ended.service.feed([RECORD_ON])
    second = ended.show.send(100)
    stop = ended.begin_stop()
    ended.release()
    stop.result()
    assert ended.kept(moved) == list(range(first))
    assert ended.kept() == list(second)


def test_several_recordings_wait_for_one_disk(ended):
    expected = {ended.path: list(range(len(ended.show.frames)))}
    for number in range(5):
        path = ended.world.path(f"cue {number}")
        ended.start_by_channel(path)
        expected[path] = list(ended.show.send(60))
        ended.end_by_channel()
    ended.release()
    assert ended.client.latest_grab() == grab_text(path, False, 1, [1])
    assert {path: ended.kept(path) for path in expected} == expected


def test_a_recording_that_cannot_be_opened_does_not_disturb_one_that_waits(ended):
    lines = ended.log.mark()
    grab = ended.client.begin("grab", "/missing/cue")
    ended.log.wait_for_text(GRAB[1], lines)
    ended.serve()
    ended.release()
    grab.result()
    assert ended.client.latest_grab() == grab_text(ended.path, False, 1, [1])
    assert ended.whole()
    assert GRAB_CANNOT_OPEN in ended.log.entries(lines)


@pytest.mark.parametrize("call", ["close", "ftruncate"])
def test_the_last_calls_for_a_file_hold_nothing_up(stall, call):
    """A file is closed, and cut after its last whole record, where nobody waits for it."""
    stall.arm()
    stall.show.send(100)
    stall.hold(call)
    if call == "ftruncate":
        # A part of a record, then nothing.
        stall.faults.arm("write", errno.ENOSPC, FILE)
        stall.show.send(100)
    stall.end_by_channel()
    stall.serve()
    assert stall.client.get_status() == "off"
    stall.release(call)
    stall.faults.disarm("write")
    assert stall.client.latest_grab() == grab_text(stall.path, False, 1, [1])
    assert stall.kept() == list(range(len(stall.kept())))


# ---- a full memory ---------------------------------------------------------------------------------------------------


def assert_lost(stall, lines):
    """The log tells exactly what the file lacks, and the latest grab names only the universe that is in it. What it lacks."""
    missing = sorted(set(range(len(stall.show.frames))) - set(stall.kept()))
    ((kernel, writer, after),) = losses(stall.log.entries(lines))
    assert (kernel, writer) == (0, len(missing))
    least, most = stall.show.between(0, missing[0])
    assert least // 1_000_000 <= after <= max(most, 0) // 1_000_000 + 1
    assert stall.client.latest_grab() == grab_text(stall.path, False, 1, [1])
    return missing


def test_a_full_memory_drops_whole_records_and_tells_how_many(small):
    lines = small.log.mark()
    small.begin()
    small.show.send(TOO_MANY)
    small.log.wait_for_text(DROPPING[1], lines)
    small.show.send(universe=77)
    small.serve()
    small.release()
    small.show.send_until(AGAIN, lines)
    late = small.show.send(200)
    small.client.stop()
    missing = assert_lost(small, lines)
    assert missing == list(range(missing[0], missing[-1] + 1)) and missing[-1] < late[0]
    assert without_losses(small.log.entries(lines))[:-1] == [
        GRAB,
        GRABBING_STARTED,
        DROPPING,
        takes_data_again(len(missing)),
        STOP,
        FINALIZED,
    ]


def test_a_recording_that_ends_while_memory_is_full_keeps_what_memory_holds(small):
    lines = small.log.mark()
    small.begin()
    small.show.send(TOO_MANY)
    stop = small.begin_stop()
    small.release()
    stop.result()
    missing = assert_lost(small, lines)
    assert missing == list(range(missing[0], len(small.show.frames)))
    assert missing[0] * RECORD > (1 << 20) * 3 // 4


def test_recordings_after_a_full_memory_lose_nothing(small):
    small.begin()
    small.show.send(TOO_MANY)
    stop = small.begin_stop()
    small.release()
    stop.result()
    lines = small.log.mark()
    again = small.world.path("again")
    small.client.grab(again)
    sent = small.show.send(TOO_MANY)
    small.client.stop()
    assert small.kept(again) == list(sent)
    assert small.log.entries(lines) == [GRAB, GRABBING_STARTED, STOP, FINALIZED, lost_nothing(1, TOO_MANY)]


def test_recordings_that_wait_share_the_memory(small):
    """The second finds no room: it loses its own frames, not those of the first."""
    lines = small.log.mark()
    other = small.world.path("other")
    small.arm()
    small.hold()
    sent = {small.path: small.show.send(TOO_MANY)}
    small.faults.wait_until_struck("write")
    small.end_by_channel()
    small.start_by_channel(other)
    sent[other] = small.show.send(200)
    stop = small.begin_stop()
    small.release()
    stop.result()
    lost = []
    for path, numbers in sent.items():
        kept = small.kept(path)
        assert kept == list(numbers[: len(kept)])
        lost.append(len(numbers) - len(kept))
    assert min(lost) > 0
    assert [(kernel, writer) for kernel, writer, _ in losses(small.log.entries(lines))] == [(0, number) for number in lost]


def test_a_disk_that_fails_to_the_end_keeps_whole_records(stall):
    lines = stall.log.mark()
    stall.client.grab(stall.path)
    stall.show.send(100)
    spin_until(lambda: os.path.getsize(stall.path) == stall.show.size, "all frames in the file")
    stall.faults.arm("write", errno.EIO, FILE)
    stall.show.send_until(waits_in_memory(errno.EIO)[1], lines)
    stall.client.stop()
    stall.faults.disarm("write")
    missing = assert_lost(stall, lines)
    assert missing == list(range(100, len(stall.show.frames)))
    assert without_losses(stall.log.entries(lines))[:-1] == [
        GRAB,
        GRABBING_STARTED,
        waits_in_memory(errno.EIO),
        STOP,
        FINALIZED,
        dropped_to_the_end(len(missing)),
    ]


# ---- the end of the process ------------------------------------------------------------------------------------------


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_the_end_waits_for_a_disk_that_stands_still(stall, number):
    stall.begin()
    stall.show.send(200)
    lines = stall.log.mark()
    stall.service.send_signal(number)
    assert end_waits(stall.log, lines) == stall.show.size
    assert stall.service.alive
    stall.release()
    assert stall.service.wait_waking() == 0
    assert stall.whole()
    assert bytes_given_up(stall.log.entries(lines)) == []
    assert losses(stall.log.entries(lines)) == []


def test_the_end_does_not_wait_for_ever(stall):
    stall.begin()
    stall.show.send(200)
    lines = stall.log.mark()
    stall.service.send_signal(signal.SIGTERM)
    end_waits(stall.log, lines)
    assert stall.service.wait_waking() == 0
    assert bytes_given_up(stall.log.entries(lines)) == [stall.show.size - os.path.getsize(stall.path)]
    assert LISTEN_FINISHED in stall.log.entries(lines)


def answer_or_none(call):
    with contextlib.suppress(GLib.Error):  # the service may end before it answers
        return call.result()
    return None


def test_the_end_while_stop_waits_leaves_a_whole_file(stall):
    stall.begin()
    stall.show.send(100)
    stop = stall.begin_stop()
    lines = stall.log.mark()
    stall.service.send_signal(signal.SIGTERM)
    end_waits(stall.log, lines)
    assert not stop.done() or stop.exception() is not None
    stall.release()
    assert stall.service.wait_waking() == 0
    answer_or_none(stop)
    assert stall.whole()


def test_the_end_while_stop_waits_does_not_wait_for_ever(stall):
    stall.begin()
    stop = stall.begin_stop()
    stall.service.send_signal(signal.SIGTERM)
    assert stall.service.wait_waking() == 0
    answer_or_none(stop)


def test_the_end_on_a_disk_that_fails_says_what_it_gives_up(stall):
    stall.client.grab(stall.path)
    stall.show.send(100)
    stall.faults.arm("write", errno.EIO, FILE)
    stall.show.send(100)
    lines = stall.log.mark()
    assert stall.service.end() == 0
    assert bytes_given_up(stall.log.entries(lines)) == [stall.show.size - os.path.getsize(stall.path)]
    assert stall.kept() == list(range(len(stall.kept())))


def assert_copies_nothing_in_vain(stall):
    folder = stall.world.path("copies")
    os.mkdir(folder)
    lines = stall.log.mark()
    copy = stall.client.begin("dup_cue", folder, stall.path)
    stall.log.wait_for_text(COPYING, lines)
    stall.service.send_signal(signal.SIGTERM)
    end_waits(stall.log, lines)
    assert stall.service.wait_waking() == 0
    answer_or_none(copy)
    assert os.listdir(folder) == []


def test_a_copy_of_a_file_that_is_waited_for_in_vain_is_not_made(ended):
    assert_copies_nothing_in_vain(ended)


def test_an_empty_copy_of_a_file_that_is_waited_for_in_vain_is_not_made(stall):
    """All of the recording is in memory."""
    stall.arm()
    stall.hold()
    stall.show.send()
    stall.end_by_channel()
    assert_copies_nothing_in_vain(stall)


def test_a_recording_into_a_file_that_is_waited_for_in_vain_does_not_empty_it(ended):
    size = os.path.getsize(ended.path)
    lines = ended.log.mark()
    grab = ended.client.begin("grab", ended.path)
    ended.log.wait_for_text(GRAB[1], lines)
    ended.service.send_signal(signal.SIGTERM)
    end_waits(ended.log, lines)
    assert ended.service.wait_waking() == 0
    answer_or_none(grab)
    assert os.path.getsize(ended.path) == size > 0


def test_the_end_while_a_copy_waits_leaves_a_whole_file(ended):
    lines = ended.log.mark()
    copy = ended.client.begin("dup_cue", ended.world.directory, ended.path)
    ended.log.wait_for_text(COPYING, lines)
    ended.service.send_signal(signal.SIGTERM)
    end_waits(ended.log, lines)
    ended.release()
    assert ended.service.wait_waking() == 0
    answer_or_none(copy)
    assert ended.whole()


def test_the_end_saves_the_recordings_that_wait(ended):
    expected = list(range(len(ended.show.frames)))
    other = ended.world.path("other")
    ended.start_by_channel(other)
    second = ended.show.send(60)
    lines = ended.log.mark()
    ended.service.send_signal(signal.SIGTERM)
    end_waits(ended.log, lines)
    ended.release()
    assert ended.service.wait_waking() == 0
    assert ended.kept() == expected
    assert ended.kept(other) == list(second)
