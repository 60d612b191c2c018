"""Branding file and interface, as the answer to an ArtPoll shows them."""

import json

import pytest
from harness import CONSOLE
from harness.artnet import art_poll, read_poll_reply, relay

DEFAULTS = ("Recorder", "Tolvek ArtNet Recorder", 0, 0)


def announced(world):
    """(short name, long name, OEM code, manufacturer code) of the answer to an ArtPoll."""
    world.start()
    world.console.send(art_poll())
    fields = read_poll_reply(world.console.receive().data)
    for name in ("short_name", "long_name"):
        text, zeros = fields[name].split(b"\0", 1)
        assert zeros.strip(b"\0") == b""
        fields[name] = text.decode()
    return fields["short_name"], fields["long_name"], fields["oem"], fields["esta_man"]


def test_without_a_brand_file_the_built_in_names_are_announced(world):
    assert announced(world) == DEFAULTS


@pytest.mark.parametrize(
    "text",
    ["", "{", "no json", "[]", '["short_name"]', "5", '"text"', "null", '{"short_name": "x",}', '{"short_name": "x"} y'],
)
def test_a_brand_file_that_is_no_json_object_leaves_the_built_in_names(make_world, text):
    assert announced(make_world(brand=text)) == DEFAULTS


@pytest.mark.parametrize(
    "brand, expected",
    [
        ({}, ("", "", 0, 0)),
        ({"short_name": "Stage", "long_name": "Stage left", "oem_id": 8465, "manufacturer_id": 21324},
         ("Stage", "Stage left", 8465, 21324)),
        ({"oem_id": 8465}, ("", "", 8465, 0)),
        ({"oem_id": "8465", "manufacturer_id": "12 monkeys"}, ("", "", 8465, 12)),
        ({"oem_id": "0x2111", "manufacturer_id": "x"}, ("", "", 0, 0)),
        ({"oem_id": 8465.9, "manufacturer_id": 1.2}, ("", "", 8465, 1)),
        ({"oem_id": 65536 + 7, "manufacturer_id": "65543"}, ("", "", 7, 7)),
        ({"oem_id": None, "manufacturer_id": True}, ("", "", 0, 0)),
        ({"oem_id": {"a": 1}, "manufacturer_id": [5]}, ("", "", 0, 0)),
        ({"short_name": 12.7, "long_name": ["a", "b", "c"]}, ("12", "a|b|c", 0, 0)),
        ({"short_name": ["a", 5, "b"], "long_name": [5, "a", "", "b"]}, ("a||b", "a||b", 0, 0)),
        ({"short_name": None, "long_name": {}}, ("", "", 0, 0)),
        ({"short_name": "a" * 17, "long_name": "b" * 63}, ("a" * 17, "b" * 63, 0, 0)),
        ({"short_name": "a" * 18, "long_name": "b" * 64}, ("a" * 17, "b" * 63, 0, 0)),
        ({"short_name": "%n%s%1", "long_name": 'quote " and \\ slash'}, ("%n%s%1", 'quote " and \\ slash', 0, 0)),
        ({"short_name": "Bühne", "long_name": "🎭"}, ("Bühne", "🎭", 0, 0)),
    ],
    ids=lambda value: json.dumps(value)[:60] if isinstance(value, dict) else "",
)
def test_the_fields_of_a_brand_file(make_world, brand, expected):
    assert announced(make_world(brand=json.dumps(brand))) == expected


def test_the_brand_is_read_once_at_the_start(make_world):
    world = make_world(brand={"short_name": "before", "manufacturer_id": 7})
    service = world.start()
    world.write_brand({"short_name": "after", "manufacturer_id": 8})
    world.console.send(art_poll())
    assert read_poll_reply(world.console.receive().data)["short_name"].rstrip(b"\0") == b"before"
    world.manufacturer = 7
    world.appliance_process.send(relay(b"payload", CONSOLE, 6454, 8), relay(b"payload", CONSOLE, 6454, 7))
    assert [datagram.data for datagram in service.relay_barrier()] == [b"payload"]


def test_address_and_hardware_address_of_eth0_are_announced(world):
    world.start()
    world.console.send(art_poll())
    fields = read_poll_reply(world.console.receive().data)
    shown = world.namespaces.run(["cat", "/proc/self/net/arp"], network="console")
    hardware = next(line.split()[3] for line in shown.splitlines() if line.startswith("10.77.0.1 "))
    assert fields["ip"] == fields["bind_ip"] == bytes([10, 77, 0, 1])
    assert fields["mac"].hex(":") == hardware


def test_without_eth0_address_and_hardware_address_are_zeros(make_world):
    world = make_world(with_eth0=False)
    world.start()
    asker = world.appliance.loopback(2)
    asker.send(art_poll())
    fields = read_poll_reply(asker.receive().data)
    assert fields["ip"] == fields["bind_ip"] == bytes(4)
    assert fields["mac"] == bytes(6)
