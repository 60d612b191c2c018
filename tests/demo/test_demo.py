"""The built-in console and the account that ./run prints: a file that lacks something must never be called complete."""

import os
import socket
import struct
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "scripts", "demo"))

import console as console_module  # noqa: E402
from console import Console, NoReply, art_dmx, art_poll  # noqa: E402
from recording import Recording, Unreadable, account, grab_summary  # noqa: E402

PATH = "/cues/first-recording"


class Sent:
    """Stands in for a console that has played 2 universes, 3 frames each, 20 ms apart."""

    def __init__(self):
        self.sent = [art_dmx(frame, address, bytes([frame, address] * 2)) for frame in (1, 2, 3) for address in (0, 7)]
        self.first_sent = 10.0
        self.last_sent = 10.04


def delay(nanoseconds):
    return b"Art-Net\0\xfe\x00" + struct.pack("<q", nanoseconds)


def file_of(datagrams):
    return delay(8_000_000).join(datagrams)


def summary(**changes):
    return {"empty": False, "uniceil": 7, "universes": [7, 0], **changes}


def test_art_dmx_is_a_whole_artnet_packet():
    assert art_dmx(5, 0x1234, b"\x01\x02\x03\x04") == bytes.fromhex("4172742d4e657400 0050 000e 05 00 3412 0004 01020304")


def test_console_sends_every_universe_once_per_frame_and_keeps_what_it_sent():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
        receiver.bind(("127.0.0.1", 0))
        receiver.settimeout(5)
        console = Console("127.0.0.2", "127.0.0.1", receiver.getsockname()[1], (3, 4), 1000)
        console.play(0.002)
        console.close()
        received = [receiver.recvfrom(600) for _ in range(4)]
    assert [datagram for datagram, _ in received] == console.sent
    assert {source for _, (source, _) in received} == {"127.0.0.2"}
    assert [(datagram[12], datagram[14], len(datagram)) for datagram, _ in received] == [
        (1, 3, 530), (1, 4, 530), (2, 3, 530), (2, 4, 530)]


def test_art_poll_is_a_whole_artnet_packet():
    assert art_poll() == bytes.fromhex("4172742d4e657400 0020 000e 00 00")


def test_console_finds_the_recorder_by_the_long_name_of_its_reply():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as recorder:
        recorder.bind(("127.0.0.1", 0))
        console = Console("127.0.0.2", "127.0.0.1", recorder.getsockname()[1], (0,), 44)
        at = console._socket.getsockname()
        recorder.sendto(art_poll(), at)
        recorder.sendto((b"Art-Net\0\x00\x21" + bytes(34) + b"Recorder on the left").ljust(239, b"\0"), at)
        assert console.poll() == "Recorder on the left"
        assert recorder.recv(100) == art_poll()
        console.close()


def test_console_says_when_nothing_answers(monkeypatch):
    monkeypatch.setattr(console_module, "REPLY_SECONDS", 0.01)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 0))
        console = Console("127.0.0.2", "127.0.0.1", silent.getsockname()[1], (0,), 44)
        with pytest.raises(NoReply) as refusal:
            console.poll()
        console.close()
    assert str(refusal.value) == "no answer to an ArtPoll within 0.01 s"


def test_a_complete_file_is_accounted_for_without_complaint():
    sent = Sent()
    lines, complaints = account(Recording(file_of(sent.sent)), sent, summary())
    assert complaints == []
    assert lines == [
        "datagrams   6 recorded, 6 sent by the console",
        "universes   2: port-addresses 0, 7 (a console that counts from 1 shows 1, 8)",
        "duration    0.040 s from the first datagram to the last; the console played 0.040 s",
        "rate        125.0 datagrams per second, 62.5 of each universe",
        "content     every datagram is in the file, byte for byte and in the order sent",
    ]


def test_missing_datagrams_are_named_by_universe():
    sent = Sent()
    recording = Recording(file_of([sent.sent[0]] + sent.sent[2:5]))
    assert account(recording, sent, summary())[1] == [
        "2 of the 6 datagrams sent are not in the file (2 of port-address 7)"]


def test_a_datagram_that_was_never_sent_is_noticed():
    sent = Sent()
    recording = Recording(file_of(sent.sent + [art_dmx(9, 7, b"\x09\x09")]))
    assert account(recording, sent, summary())[1] == ["1 of the datagrams in the file were not sent, or not that often"]


def test_datagrams_in_another_order_are_noticed():
    sent = Sent()
    recording = Recording(file_of(sent.sent[::-1]))
    assert account(recording, sent, summary())[1] == ["the datagrams are not in the order in which they were sent"]


@pytest.mark.parametrize("wrong, complaint", [
    ({"empty": True}, "latest_grab says empty: True, but the file has 222 bytes"),
    ({"universes": [0]}, "latest_grab lists the universes 0"),
    ({"uniceil": 8}, "latest_grab says that the highest universe is 8"),
])
def test_a_summary_that_disagrees_with_the_file_is_noticed(wrong, complaint):
    sent = Sent()
    assert account(Recording(file_of(sent.sent)), sent, summary(**wrong))[1] == [complaint]


def test_an_empty_file_is_a_recording_without_datagrams():
    sent = Sent()
    lines, complaints = account(Recording(b""), sent, summary(empty=True, uniceil=-1, universes=[]))
    assert complaints == ["6 of the 6 datagrams sent are not in the file (3 of port-address 0, 3 of port-address 7)"]
    assert lines == [
        "datagrams   0 recorded, 6 sent by the console",
        "universes   none",
        "duration    0.000 s from the first datagram to the last; the console played 0.040 s",
    ]


@pytest.mark.parametrize("content, reason", [
    (b"no recording at all, just text", "no Art-Net record at byte 0 of 30"),
    (delay(1), "operation code 0x00fe at byte 0 instead of an ArtDmx"),
    (art_dmx(1, 0, b"\0\0") + delay(1), "the file ends with a pause"),
    (art_dmx(1, 0, b"\0\0") + art_dmx(2, 0, b"\0\0"), "a datagram without a pause before it at byte 20"),
    (art_dmx(1, 0, b"\0\0\0\0")[:-1], "the datagram at byte 0 is cut off"),
    (b"Art-Net\0\x00\x20" + bytes(8), "operation code 0x2000 at byte 0 instead of an ArtDmx"),
])
def test_a_file_that_is_no_recording_is_refused_with_the_place(content, reason):
    with pytest.raises(Unreadable) as refusal:
        Recording(content)
    assert str(refusal.value) == reason


def test_the_summary_of_a_path_with_quotes_is_read():
    path = 'cues/"one" \\ two'
    text = f'{{"filename": "{path}", "empty": false, "uniceil": 3, "universes": [3, 0]}}'
    assert grab_summary(text, path) == {"empty": False, "uniceil": 3, "universes": [3, 0]}


@pytest.mark.parametrize("text", ["", "{}", f'{{"filename": "{PATH}", ', '{"filename": "other", "empty": true}'])
def test_a_text_that_is_no_summary_of_the_path_is_none(text):
    assert grab_summary(text, PATH) is None
