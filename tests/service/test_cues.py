"""The report on the latest recording, and copies of recordings under new names."""

import json
import os
import uuid
from pathlib import Path

import pytest
from harness import INFO
from harness.artnet import art_dmx, slots
from texts import NO_GRAB_YET, grab_text, latest_grab_line, split_grab_text

PREPARING = (INFO, "[Dump::dup_cue] Preparing to clone cue")
GENERATING = (INFO, "[Dump::dup_cue] Generating new cue path")
CLONED = (INFO, "[Dump::dup_cue] cue cloned")


def new_path_line(path):
    return (INFO, f"[Dump::dup_cue] New cue path is: {path}")


@pytest.fixture
def client(service):
    return service.client


def record(service, path, datagrams):
    service.client.grab(path)
    service.feed(datagrams)
    service.client.stop()
    return service.client.latest_grab()


# latest_grab


def test_before_any_recording_the_report_is_empty_and_logged(service, client):
    lines = service.world.log.mark()
    assert client.latest_grab() == NO_GRAB_YET
    assert service.world.log.entries(lines) == [latest_grab_line(NO_GRAB_YET)]


def test_the_report_names_file_ceiling_and_universe(service):
    path = service.world.path("cue")
    lines = service.world.log.mark()
    text = record(service, path, [art_dmx(12), art_dmx(12)])
    assert text == f'{{"filename": "{path}", "empty": false, "uniceil": 12, "universes": [12]}}'
    assert service.world.log.entries(lines)[-1] == latest_grab_line(text)


def test_the_report_names_every_universe_once(service):
    path = service.world.path("cue")
    assert split_grab_text(record(service, path, [art_dmx(0), art_dmx(3), art_dmx(0)])) == (path, False, 3, {0, 3})
    universes = set(range(0, 3000, 37))
    text = record(service, path, [art_dmx(universe) for universe in [*universes, *universes]])
    assert split_grab_text(text) == (path, False, max(universes), universes)
    assert set(json.loads(text)["universes"]) == universes


def test_an_empty_recording_is_reported_as_empty(service):
    path = service.world.path("cue")
    assert record(service, path, []) == grab_text(path, True, -1, [])


def test_the_highest_universe_may_come_first_or_last(service):
    path = service.world.path("cue")
    for order in ([9, 1, 5], [1, 5, 9], [5, 9, 1]):
        text = record(service, path, [art_dmx(universe) for universe in order])
        assert split_grab_text(text) == (path, False, 9, {1, 5, 9})


def test_universes_are_reported_unmasked(service):
    path = service.world.path("cue")
    assert record(service, path, [art_dmx(0x7FFF)]) == grab_text(path, False, 32767, [32767])
    assert record(service, path, [art_dmx(0xFFFF)]) == grab_text(path, False, 65535, [65535])


def test_the_report_stays_until_the_next_recording_ends(service, client):
    first, second = service.world.path("first"), service.world.path("second")
    text = record(service, first, [art_dmx(1)])
    client.grab(second)
    service.feed([art_dmx(2)])
    assert client.latest_grab() == text
    client.grab(second)
    assert client.latest_grab() == text
    client.stop()
    assert client.latest_grab() == grab_text(second, False, 2, [2])
    client.stop()
    assert client.latest_grab() == grab_text(second, False, 2, [2])


def test_a_relative_name_is_reported_as_it_was_given(world):
    service = world.start(directory=world.directory)
    assert record(service, "relative cue", [art_dmx(1)]) == grab_text("relative cue", False, 1, [1])
    assert Path(world.path("relative cue")).read_bytes() == art_dmx(1)


# dup_cue


@pytest.fixture
def cue(service):
    path = service.world.path("cue")
    record(service, path, [art_dmx(1, slots({1: 1})), art_dmx(2, slots({2: 2}))])
    return path


@pytest.fixture
def cues(service):
    path = service.world.path("cues")
    os.mkdir(path)
    os.chmod(path, 0o777)
    return path


def test_a_copy_has_a_time_based_name_and_the_same_bytes(service, client, cue, cues):
    lines = service.world.log.mark()
    copy = client.dup_cue(cues, cue)
    assert os.path.dirname(copy) == cues
    name = os.path.basename(copy)
    assert len(name) == 36 and str(uuid.UUID(name)) == name and uuid.UUID(name).version == 1
    assert os.listdir(cues) == [name]
    assert Path(copy).read_bytes() == Path(cue).read_bytes() != b""
    assert service.world.log.entries(lines) == [PREPARING, GENERATING, new_path_line(copy), CLONED]


def test_every_copy_has_a_name_of_its_own(client, cue, cues):
    copies = [client.dup_cue(cues, cue) for _ in range(50)]
    assert len(set(copies)) == 50
    assert sorted(os.listdir(cues)) == sorted(os.path.basename(copy) for copy in copies)


def test_a_missing_source_gives_an_empty_text_and_one_line(service, client, cues):
    lines = service.world.log.mark()
    assert client.dup_cue(cues, service.world.path("missing")) == ""
    assert client.dup_cue(cues, "") == ""
    assert service.world.log.entries(lines) == [PREPARING, PREPARING]
    assert os.listdir(cues) == []


def test_a_directory_that_ends_in_a_slash_gives_a_doubled_slash(client, cue, cues):
    copy = client.dup_cue(cues + "/", cue)
    assert copy.startswith(cues + "//") and Path(copy).read_bytes() == Path(cue).read_bytes()


def test_a_missing_directory_still_gives_the_path_of_the_copy(service, client, cue):
    missing = service.world.path("missing")
    lines = service.world.log.mark()
    copy = client.dup_cue(missing, cue)
    assert os.path.dirname(copy) == missing
    assert not os.path.exists(missing)
    assert service.world.log.entries(lines) == [PREPARING, GENERATING, new_path_line(copy), CLONED]


def test_an_empty_directory_name_means_the_root(client, cue):
    copy = client.dup_cue("", cue)
    try:
        assert copy.startswith("/") and uuid.UUID(copy[1:]).version == 1
    finally:
        Path(copy).unlink(missing_ok=True)


def test_copying_does_not_disturb_a_recording(service, client, cue, cues):
    running = service.world.path("running")
    client.grab(running)
    service.feed([art_dmx(5)])
    client.dup_cue(cues, cue)
    client.dup_cue(cues, running)
    assert client.get_status() == "run"
    client.stop()
    assert client.latest_grab() == grab_text(running, False, 5, [5])
    assert Path(running).read_bytes() == art_dmx(5)


@pytest.mark.parametrize("source", ["/dev/zero", "/dev", "fifo"])
def test_a_source_that_is_no_file_does_not_hold_the_service_up(service, client, cues, source):
    if source == "fifo":
        source = service.world.path("fifo")
        os.mkfifo(source)
    client.dup_cue(cues, source)
    assert client.get_status() == "off"
    assert sum(entry.stat().st_size for entry in os.scandir(cues)) == 0
