"""Names on the bus, in files and in the log are UTF-8, whatever the locale says."""

import os
import uuid
from pathlib import Path

import pytest
from harness import INFO
from harness.artnet import art_dmx
from texts import grab_text, latest_grab_line

LOCALES = [None, "C", "POSIX", "C.UTF-8", "de_DE.ISO-8859-1", "no_SUCH.locale"]
NAMES = ["Übung 1", "naïve – “cue”", "キュー", "сцена", "🎭🎶", "e\u0301 and é", "\u200fעברית", "tab\tand line\n"]


@pytest.mark.parametrize("locale", LOCALES, ids=str)
def test_a_cue_keeps_its_name_in_file_report_copy_and_log(world, locale):
    cues = world.path("cues")
    os.mkdir(cues)
    os.chmod(cues, 0o777)
    service = world.start(locale=locale)
    client = service.client
    for name in NAMES:
        path = f"{cues}/{name}"
        client.grab(path)
        service.feed([art_dmx(1)])
        client.stop()
        lines = world.log.mark()
        assert client.latest_grab() == grab_text(path, False, 1, [1])
        assert world.log.entries(lines) == [latest_grab_line(grab_text(path, False, 1, [1]))]
        assert os.listdir(os.fsencode(cues)) == [name.encode()]
        assert Path(path).read_bytes() == art_dmx(1)
        Path(path).rename(world.path("source"))
        copies = f"{cues}/{name}"
        os.mkdir(copies)
        os.chmod(copies, 0o777)
        lines = world.log.mark()
        copy = client.dup_cue(copies, world.path("source"))
        assert os.path.dirname(copy) == copies and uuid.UUID(os.path.basename(copy)).version == 1
        assert (INFO, f"[Dump::dup_cue] New cue path is: {copy}") in world.log.entries(lines)
        assert os.listdir(os.fsencode(copies)) == [os.path.basename(copy).encode()]
        os.unlink(copy)
        os.rmdir(copies)


@pytest.mark.parametrize("variable", ["LC_ALL", "LC_CTYPE"])
def test_the_more_special_locale_variables_change_nothing_either(world, variable):
    service = world.start(environment={variable: "C"})
    path = world.path("Übung 1")
    service.client.grab(path)
    service.client.stop()
    assert service.client.latest_grab() == grab_text(path, True, -1, [])
    assert "Übung 1".encode() in os.listdir(os.fsencode(world.directory))


def test_a_directory_of_the_services_own_may_have_any_name(world):
    directory = world.path("Verzeichnis mit Ä")
    os.mkdir(directory)
    service = world.start(directory=directory)
    service.client.grab("ö")
    service.feed([art_dmx(0)])
    service.client.stop()
    assert service.client.latest_grab() == grab_text("ö", False, 0, [0])
    assert os.listdir(directory) == ["ö"]
