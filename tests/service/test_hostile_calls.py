"""Strange texts and numbers over the bus."""

import os
import uuid
from pathlib import Path

import pytest
from harness import INFO
from harness.artnet import art_dmx
from texts import GRAB, GRAB_CANNOT_OPEN, grab_text, latest_grab_line

LOWEST, HIGHEST = -(2**31), 2**31 - 1
NAMES = [
    'double "quotes"',
    "single 'quotes'",
    "back\\slash\\",
    "%n%s%1%2%%",
    "%d %x %p %5$s %*d %999999999d",
    "%1 %2 %3 %L1 %99",
    "new\nline\r\n",
    "\x01\x02\x1b[31m\x7f",
    "🎚️𝄞",
    '{"filename": "x"}',
    "$(reboot) `reboot`; #",
    "-rf",
    " leading and trailing ",
    "x" * 255,
    "ü" * 127,
    ".",
    "..hidden",
    "a:b;c,d",
]


@pytest.fixture
def client(service):
    return service.client


@pytest.mark.parametrize("name", [name for name in NAMES if name != "."], ids=ascii)
def test_a_file_of_any_name_is_recorded_reported_and_copied(service, client, name):
    cues = service.world.path("cues")
    os.mkdir(cues)
    os.chmod(cues, 0o777)
    path = f"{cues}/{name}"
    client.grab(path)
    service.feed([art_dmx(1)])
    client.stop()
    assert os.listdir(os.fsencode(cues)) == [name.encode()]
    assert Path(path).read_bytes() == art_dmx(1)
    lines = service.world.log.mark()
    text = grab_text(path, False, 1, [1])
    assert client.latest_grab() == text
    assert service.world.log.entries(lines) == [latest_grab_line(text)]
    lines = service.world.log.mark()
    copy = client.dup_cue(cues, path)
    assert Path(copy).read_bytes() == art_dmx(1)
    assert (INFO, f"[Dump::dup_cue] New cue path is: {copy}") in service.world.log.entries(lines)


@pytest.mark.parametrize("name", NAMES, ids=ascii)
def test_a_directory_of_any_name_is_named_in_the_log_as_it_is(service, client, name):
    source = service.world.path("source")
    Path(source).write_bytes(art_dmx(1))
    directory = service.world.path(name)
    os.makedirs(directory, exist_ok=True)
    os.chmod(directory, 0o777)
    lines = service.world.log.mark()
    copy = client.dup_cue(directory, source)
    assert os.path.dirname(copy) == directory
    assert Path(copy).read_bytes() == art_dmx(1)
    assert service.world.log.entries(lines) == [
        (INFO, "[Dump::dup_cue] Preparing to clone cue"),
        (INFO, "[Dump::dup_cue] Generating new cue path"),
        (INFO, f"[Dump::dup_cue] New cue path is: {copy}"),
        (INFO, "[Dump::dup_cue] cue cloned"),
    ]


@pytest.mark.parametrize("text", ["y" * 100_000, "%n" * 50_000, "/" * 100_000, "é" * 50_000], ids=lambda text: text[:2])
def test_texts_of_100_kilobytes(service, client, text):
    source = service.world.path("source")
    Path(source).write_bytes(art_dmx(1))
    lines = service.world.log.mark()
    client.grab(text)
    assert client.get_status() == "off"
    assert service.world.log.entries(lines) == [GRAB, GRAB_CANNOT_OPEN]
    assert client.dup_cue(service.world.directory, text) == ""
    lines = service.world.log.mark()
    copy = client.dup_cue(text, source)
    try:
        assert copy.startswith(text + "/") and uuid.UUID(copy[len(text) + 1 :]).version == 1
        assert service.world.log.entries(lines)[2] == (INFO, f"[Dump::dup_cue] New cue path is: {copy}")
    finally:
        if text.startswith("/"):
            Path("/" + copy.lstrip("/")).unlink(missing_ok=True)
    assert client.get_status() == "off"


def test_an_absolute_path_of_4095_bytes_and_one_of_4096(service, client):
    # Path names end in a zero byte within 4096 bytes; each component may have 255.
    directory = service.world.directory
    while len(directory) + 201 < 4000:
        directory += "/" + "d" * 200
    os.makedirs(directory)
    last = 4095 - len(directory) - 1
    for path, opened in ((f"{directory}/{'f' * last}", True), (f"{directory}/{'f' * (last + 1)}", False)):
        lines = service.world.log.mark()
        client.grab(path)
        assert client.get_status() == ("on" if opened else "off")
        assert service.world.log.entries(lines) == [GRAB] + [GRAB_CANNOT_OPEN] * (not opened)
        client.stop()


@pytest.mark.parametrize("value", [LOWEST, LOWEST + 1, -1, 0, 1, HIGHEST - 1, HIGHEST])
def test_integers_at_their_extremes_are_answered(client, value):
    valid = value in (-1, 1)
    assert client.set_ctrl_universe(value) is valid
    assert client.set_ctrl_action(value, value, value) is valid
    assert client.set_ctrl_record(value, value) is valid
    node = (value, "short", "long", value, "10.77.0.9", value)
    assert client.update_manual_node(node) is False
    assert client.add_manual_node(node) is (value >= 0)
    assert client.remove_manual_node(value) is (value >= 0)
    assert client.init_manual_nodes([node, node]) is (value >= 0)
    client.remove_all_manual_nodes()
    assert client.get_status() == "off"


@pytest.mark.parametrize("text", [*NAMES, "z" * 100_000], ids=lambda text: ascii(text[:20]))
def test_nodes_may_hold_any_text(client, text):
    assert client.add_manual_node((1, text, text, 5, text, 6454)) is True
    assert client.signals.items[-1].arguments == (f"1:5:{text}:6454",)
    assert client.remove_manual_node(1) is True
    assert client.signals.items[-1].arguments == (f"0:5:{text}:6454",)


def test_a_list_of_ten_thousand_nodes(client):
    nodes = [(number, f"node {number}", "long", number, "10.77.0.9", 6454) for number in range(10_000)]
    assert client.init_manual_nodes(nodes) is True
    (signal,) = client.signals.items
    assert signal.arguments == ("".join(f"1:{number}:10.77.0.9:6454;" for number in range(10_000)),)
    client.remove_all_manual_nodes()
    assert client.get_status() == "off"
