"""ArtPollReplies that become nodes, port by port, and the log lines about the others."""

import pytest
from harness import INFO
from harness.artnet import art_poll_reply, header
from harness.nodes import NO_NODES, Detection, node_reply, nodes_json
from texts import unparsed

OWN_OEM, OWN_ESTA = 0x2111, 0x534C
PORT_COUNT = (INFO, "[Dump::process_art_poll_reply] Port count incorrect")
PORT_TYPE = (INFO, "[Dump::process_art_poll_reply] Port type incorrect")


def duplicate(universe, ip, port=6454):
    return (
        INFO,
        f"[Dump::process_art_poll_reply] Artnet node duplicate reply (universe:{universe}, address:{ip}:{port})",
    )


def found(ip, *universes, short_name="node", long_name="a fake node", port=6454):
    return [(short_name, long_name, universe, ip, port) for universe in universes]


def sorted_nodes(nodes):
    return sorted(nodes, key=lambda node: (node[2], node[3], node[4], node[0], node[1]))


def message_of(nodes):
    return "".join(f"1:{universe}:{ip}:{port};" for _, _, universe, ip, port in nodes)


@pytest.fixture
def verbose(make_world):
    """A service that logs everything, with codes of its own, at the beginning of a cycle."""
    world = make_world(brand={"short_name": "own", "long_name": "own", "oem_id": OWN_OEM, "manufacturer_id": OWN_ESTA})
    detection = Detection(world.start(environment={"KADREL_LOG_LEVEL": "6"}))
    detection.start()
    return detection


def take_in(detection, cases):
    """Sends every case's datagrams within one cycle and checks lines, message and list.

    A case is a name and its datagrams, the log lines and the nodes that they shall bring about.
    """
    log, lines = detection.world.log, {}
    for name, (datagrams, _, _) in cases.items():
        start = log.mark()
        detection.answer(*datagrams)
        lines[name] = log.entries(start)
    messages, listed = detection.cycle()
    assert lines == {name: expected for name, (_, expected, _) in cases.items()}
    nodes = [node for _, _, taken in cases.values() for node in taken]
    assert listed == nodes_json(sorted_nodes(nodes))
    assert messages == [message_of(nodes)] * bool(nodes)


def test_number_and_type_of_ports(verbose):
    four = b"\x85\x80\xc5\xc0"
    take_in(
        verbose,
        {
            "no port": ([node_reply("10.0.0.1", [0x10], num_ports=0)], [PORT_COUNT], []),
            "five ports": ([node_reply("10.0.0.2", [0x10], num_ports=5, port_types=four)], [PORT_COUNT], []),
            "256 ports": ([node_reply("10.0.0.3", [0x10], num_ports=0x0100)], [PORT_COUNT], []),
            "65535 ports": ([node_reply("10.0.0.4", [0x10], num_ports=0xFFFF, port_types=four)], [PORT_COUNT], []),
            "one port": ([node_reply("10.0.1.1", [0x11])], [], found("10.0.1.1", 0x11)),
            "two ports": ([node_reply("10.0.1.2", [0x12, 0x13])], [], found("10.0.1.2", 0x12, 0x13)),
            "three ports": ([node_reply("10.0.1.3", [0x1F, 0x10, 0x18])], [], found("10.0.1.3", 0x1F, 0x10, 0x18)),
            "four ports": (
                [node_reply("10.0.1.4", [4, 3, 2, 1], port_types=four)],
                [],
                found("10.0.1.4", 4, 3, 2, 1),
            ),
            "types of ports beyond the number do not count": (
                [node_reply("10.0.1.5", [5, 6, 7, 8], num_ports=2, port_types=four)],
                [],
                found("10.0.1.5", 5, 6),
            ),
            "a type beyond the number does not make up for one": (
                [node_reply("10.0.1.6", [5, 6], num_ports=1, port_types=b"\x40\x85")],
                [PORT_TYPE],
                [],
            ),
            "a wrong port between good ones": (
                [node_reply("10.0.1.7", [1, 2, 3, 4], port_types=b"\x85\x45\x00\x80")],
                [PORT_TYPE, PORT_TYPE],
                found("10.0.1.7", 1, 4),
            ),
            "only wrong ports": (
                [node_reply("10.0.1.8", [1, 2, 3, 4], port_types=b"\x81\x82\x83\x84")],
                [PORT_TYPE] * 4,
                [],
            ),
        },
    )


def test_all_256_port_types(verbose):
    accepted = {0x80, 0x85, 0xC0, 0xC5}
    cases = {}
    for first in range(0, 256, 4):
        types, ip = range(first, first + 4), f"10.0.2.{first}"
        cases[f"{first:#x}"] = (
            [node_reply(ip, [0, 1, 2, 3], port_types=bytes(types))],
            [PORT_TYPE] * sum(kind not in accepted for kind in types),
            found(ip, *(port for port, kind in enumerate(types) if kind in accepted)),
        )
    take_in(verbose, cases)


def test_universe_address_and_port_of_a_node(verbose):
    take_in(
        verbose,
        {
            "net, sub-net and universe": (
                [node_reply("10.0.0.1", net_switch=1, sub_switch=2, sw_out=b"\x13")],
                [],
                found("10.0.0.1", 291),
            ),
            "all bits of the switches": (
                [node_reply("10.0.0.2", net_switch=0xFF, sub_switch=0xFF, sw_out=b"\xff")],
                [],
                found("10.0.0.2", 65535),
            ),
            "the net is not cut to seven bits": (
                [node_reply("10.0.0.3", net_switch=0x80)],
                [],
                found("10.0.0.3", 32768),
            ),
            "the sub-net is cut to four bits": ([node_reply("10.0.0.4", sub_switch=0x10)], [], found("10.0.0.4", 0)),
            "the universe is cut to four bits": ([node_reply("10.0.0.5", sw_out=b"\xf0")], [], found("10.0.0.5", 0)),
            "input switches do not count": (
                [node_reply("10.0.0.6", [1], sw_in=b"\x09\x09\x09\x09")],
                [],
                found("10.0.0.6", 1),
            ),
            "the greatest port-address": (
                [node_reply("10.0.0.7", [0x7FFF])],
                [],
                found("10.0.0.7", 32767),
            ),
            "the address is the one in the reply": (
                [node_reply("255.254.253.252", [2]), node_reply("0.0.0.0", [2])],
                [],
                found("255.254.253.252", 2) + found("0.0.0.0", 2),
            ),
            "the bind address does not count": (
                [node_reply("10.0.0.8", [2], bind_ip="10.0.0.9", bind_index=7)],
                [],
                found("10.0.0.8", 2),
            ),
            "the port is the one in the reply": (
                [node_reply("10.0.0.9", [2], port=port) for port in (0, 1, 65535)],
                [],
                [node for port in (0, 1, 65535) for node in found("10.0.0.9", 2, port=port)],
            ),
            "everything else does not count": (
                [
                    node_reply(
                        "10.0.0.10",
                        [3],
                        vers_info=0xFFFF,
                        ubea_version=0xFF,
                        status1=0xFF,
                        node_report=b"\xff" * 64,
                        good_input=b"\xff" * 4,
                        good_output=b"\xff" * 4,
                        sw_video=0xFF,
                        sw_macro=0xFF,
                        sw_remote=0xFF,
                        spare=b"\xff" * 3,
                        style=0xFF,
                        mac=b"\xff" * 6,
                        status2=0xFF,
                        filler=b"\xff" * 26,
                    )
                ],
                [],
                found("10.0.0.10", 3),
            ),
        },
    )


def test_names_of_a_node(verbose):
    def named(number, short_name, long_name, read_short, read_long):
        ip = f"10.0.0.{number}"
        return (
            [node_reply(ip, [number], short_name, long_name)],
            [],
            found(ip, number, short_name=read_short, long_name=read_long),
        )

    latin = bytes(range(0xA0, 0x100))
    take_in(
        verbose,
        {
            "empty": named(1, b"", b"", "", ""),
            "as long as the fields": named(2, b"s" * 17, b"l" * 63, "s" * 17, "l" * 63),
            "not terminated": named(3, b"s" * 18, b"l" * 64, "s" * 17, "l" * 63),
            "ended by the first zero": named(4, b"ab\0cd", b"\0hidden", "ab", ""),
            "Latin-1": named(5, b"B\xfchne", b"Stra\xdfe 5 \xb0", "Bühne", "Straße 5 °"),
            "upper half of Latin-1": named(6, latin[:17], latin[17:80], latin[:17].decode("latin-1"), latin[17:80].decode("latin-1")),
            "control characters": named(7, b"\x01\t\n\x1b\x7f", b"\x80\x9f", "\x01\t\n\x1b\x7f", "\x80\x9f"),
            "UTF-8 is not decoded": named(8, "ü".encode(), "🎭".encode(), "Ã¼", "ð\x9f\x8e\xad"),
            "quotes and backslashes are not escaped": named(9, b'"a"\\', b'", "universe": 7', '"a"\\', '", "universe": 7'),
            "placeholders are not filled": named(10, b"%1%2%3%4%5", b"%3 %99 %L1 %s%n", "%1%2%3%4%5", "%3 %99 %L1 %s%n"),
            "brackets": named(11, b"}", b"{ ]}", "}", "{ ]}"),
            "blanks": named(12, b" a ", b"   ", " a ", "   "),
        },
    )


def test_the_same_node_again_and_nodes_that_differ_in_one_field(verbose):
    node = node_reply("10.0.0.1", [5, 6])
    take_in(
        verbose,
        {
            "first": ([node], [], found("10.0.0.1", 5, 6)),
            "again": ([node], [duplicate(5, "10.0.0.1"), duplicate(6, "10.0.0.1")], []),
            "again with one port more": (
                [node_reply("10.0.0.1", [6, 7])],
                [duplicate(6, "10.0.0.1")],
                found("10.0.0.1", 7),
            ),
            "two ports of one universe": (
                [node_reply("10.0.0.2", [5, 5, 5])],
                [duplicate(5, "10.0.0.2")] * 2,
                found("10.0.0.2", 5),
            ),
            "universes that are equal once they are cut": (
                [node_reply("10.0.0.3", [1, 1], sw_out=b"\x01\x11")],
                [duplicate(1, "10.0.0.3")],
                found("10.0.0.3", 1),
            ),
            "another short name": (
                [node_reply("10.0.0.1", [5], b"Node")],
                [],
                found("10.0.0.1", 5, short_name="Node"),
            ),
            "another long name": (
                [node_reply("10.0.0.1", [5], long_name=b"a fake nodf")],
                [],
                found("10.0.0.1", 5, long_name="a fake nodf"),
            ),
            "another port": ([node_reply("10.0.0.1", [5], port=6455)], [], found("10.0.0.1", 5, port=6455)),
            "another address": ([node_reply("10.0.0.11", [5])], [], found("10.0.0.11", 5)),
            "all of them again": (
                [node, node_reply("10.0.0.1", [5], b"Node"), node_reply("10.0.0.1", [5], port=6455)],
                [duplicate(5, "10.0.0.1"), duplicate(6, "10.0.0.1"), duplicate(5, "10.0.0.1"), duplicate(5, "10.0.0.1", 6455)],
                [],
            ),
        },
    )
    # In the next cycle the first answer of a known node is no duplicate, the second is one.
    start = verbose.world.log.mark()
    verbose.answer(node, node)
    assert verbose.world.log.entries(start) == [duplicate(5, "10.0.0.1"), duplicate(6, "10.0.0.1")]


def test_the_own_codes_and_others(verbose):
    own = {"oem": OWN_OEM, "esta_man": OWN_ESTA}
    take_in(
        verbose,
        {
            "the own device": ([node_reply("10.0.0.1", [1], **own)], [], []),
            "the own device with an odd number of ports": ([node_reply("10.0.0.1", [1], num_ports=0, **own)], [], []),
            "the own device with odd ports": ([node_reply("10.0.0.1", [1], port_types=b"\0", **own)], [], []),
            "the own OEM code alone": ([node_reply("10.0.0.2", [1], oem=OWN_OEM)], [], found("10.0.0.2", 1)),
            "the own ESTA code alone": ([node_reply("10.0.0.3", [1], esta_man=OWN_ESTA)], [], found("10.0.0.3", 1)),
            "codes in the wrong byte order": (
                [node_reply("10.0.0.4", [1], oem=0x1121, esta_man=0x4C53)],
                [],
                found("10.0.0.4", 1),
            ),
            "codes of zero": ([node_reply("10.0.0.5", [1], oem=0, esta_man=0)], [], found("10.0.0.5", 1)),
        },
    )


def test_without_a_brand_file_nodes_with_codes_of_zero_count_as_the_own_device(make_world):
    detection = Detection(make_world().start(environment={"KADREL_LOG_LEVEL": "6"}))
    detection.start()
    take_in(
        detection,
        {
            "both zero": ([node_reply("10.0.0.1", [1], oem=0, esta_man=0)], [], []),
            "a header and nothing else": ([header(0x2100)], [], []),
            "OEM code zero": ([node_reply("10.0.0.2", [1], oem=0)], [], found("10.0.0.2", 1)),
            "ESTA code zero": ([node_reply("10.0.0.3", [1], esta_man=0)], [], found("10.0.0.3", 1)),
        },
    )


def test_replies_that_are_too_short_or_too_long(verbose):
    def reply(number, port_types=b"\x85\x85"):
        return node_reply(f"10.0.0.{number}", [0x125, 0x126], port_types=port_types)

    whole = reply(1)
    take_in(
        verbose,
        {
            "whole": ([whole], [], found("10.0.0.1", 0x125, 0x126)),
            "without the filler": ([reply(2)[:213]], [], found("10.0.0.2", 0x125, 0x126)),
            "of an old node": ([reply(3)[:207]], [], found("10.0.0.3", 0x125, 0x126)),
            "up to the second switch": ([reply(4)[:192]], [], found("10.0.0.4", 0x125, 0x126)),
            "up to the first switch": ([reply(5)[:191]], [], found("10.0.0.5", 0x125, 0x120)),
            "without switches": ([reply(6)[:186]], [duplicate(0x120, "10.0.0.6")], found("10.0.0.6", 0x120)),
            "up to the first port type": ([reply(7)[:175]], [PORT_TYPE], found("10.0.0.7", 0x120)),
            "without port types": ([reply(8)[:174]], [PORT_TYPE, PORT_TYPE], []),
            "with half a number of ports": ([reply(9)[:173]], [PORT_COUNT], []),
            "without a number of ports": ([reply(9)[:172]], [PORT_COUNT], []),
            "in the middle of a name": ([reply(9)[:60]], [PORT_COUNT], []),
            "a header and one byte": ([reply(9)[:11]], [PORT_COUNT], []),
            "a header": ([reply(9)[:10]], [PORT_COUNT], []),
            "half an opcode": ([reply(9)[:9]], [unparsed(reply(9)[:9])], []),
            "one byte too long": ([reply(10) + b"\xff"], [], found("10.0.0.10", 0x125, 0x126)),
            "far too long": ([reply(11) + b"\xff" * 5000], [], found("10.0.0.11", 0x125, 0x126)),
            "behind noise": ([b"noise" + reply(12)], [], found("10.0.0.12", 0x125, 0x126)),
            "short behind noise": ([b"noise" + reply(13)[:213]], [unparsed(b"noise" + reply(13)[:213])], []),
            "two in one datagram": (
                [reply(14) + reply(15)],
                [],
                found("10.0.0.14", 0x125, 0x126) + found("10.0.0.15", 0x125, 0x126),
            ),
        },
    )


def test_a_short_reply_takes_nothing_from_the_one_before(verbose):
    """Fields that a datagram does not hold read as zero, also when the datagram before held them."""
    whole = node_reply("10.0.0.1", [0x12F], b"first", b"the first node")
    log = verbose.world.log
    start = log.mark()
    verbose.world.console.send(whole, whole[:60], node_reply("10.0.0.2", [0x12F])[:186])
    assert verbose.cycle() == (
        ["1:303:10.0.0.1:6454;1:288:10.0.0.2:6454;"],
        nodes_json(found("10.0.0.2", 0x120) + found("10.0.0.1", 0x12F, short_name="first", long_name="the first node")),
    )
    assert log.entries(start) == [
        PORT_COUNT,
        (INFO, "[Dump::poll_artnet_nodes] Emitting OnArtnetNodesUpdated signal"),
        (INFO, "[Dump::get_detected_nodes] Get detected nodes"),
    ]


def test_it_does_not_matter_who_sends_a_reply_unless_it_is_the_appliance(verbose):
    world = verbose.world
    senders = {
        "10.0.0.1": world.console,
        "10.0.0.2": world.console_host.endpoint(),
        "10.0.0.3": world.appliance.loopback(2),
    }
    for ip, sender in senders.items():
        verbose.answer(node_reply(ip, [1]), sender=sender)
    for ip, sender in {"10.0.0.4": world.appliance.endpoint(), "10.0.0.5": world.appliance_process}.items():
        sender.send(node_reply(ip, [1]))
    world.console.send(node_reply("10.0.0.6", [1]), to=("10.77.255.255", 6454))
    nodes = found("10.0.0.1", 1) + found("10.0.0.2", 1) + found("10.0.0.3", 1) + found("10.0.0.6", 1)
    assert verbose.cycle() == ([message_of(nodes)], nodes_json(sorted_nodes(nodes)))


def test_lines_about_replies_stay_out_below_level_6(make_world):
    detection = Detection(make_world().start(environment={"KADREL_LOG_LEVEL": "5"}))
    detection.start()
    lines = detection.world.log.mark()
    detection.answer(
        art_poll_reply(oem=1, num_ports=5),
        node_reply("10.0.0.1", [1], port_types=b"\0"),
        *[node_reply("10.0.0.1", [1])] * 2,
    )
    assert detection.client.get_detected_nodes() == NO_NODES
    assert detection.world.log.entries(lines) == []
