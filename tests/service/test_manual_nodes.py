"""Nodes entered by hand: the list, its keys, and the messages about every change."""

import pytest
from gi.repository import GLib
from harness import INFO, INTERFACE, PATH, SERVICE, Signal
from texts import BANNER

DESK = (1, "desk", "front of house desk", 5, "10.0.0.9", 6454)
RACK = (2, "rack", "dimmer rack", 6, "10.0.0.10", 6455)
TOWER = (0, "tower", "left tower", 7, "10.0.0.2", 6454)


class Nodes:
    """The manual nodes of a running service, and what a client and the log see of them."""

    def __init__(self, service):
        self.client = service.client
        self.log = service.world.log

    def watch(self, *call):
        """Result, messages and log lines that one call brings about."""
        signals, lines = self.client.signals.mark(), self.log.mark()
        result = self.client.call(*call)
        seen = self.client.signals.since(signals)
        assert {signal.name for signal in seen} <= {"OnArtnetNodesUpdated"}
        return result, [signal.arguments for signal in seen], self.log.entries(lines)

    def kept(self):
        """(universe, ip, port) of the list as the message about its removal shows it; the list is empty afterwards."""
        _, ((message,),), _ = self.watch("remove_all_manual_nodes")
        entries = [entry.split(":") for entry in message.split(";") if entry]
        assert all(len(entry) == 4 and entry[0] == "0" for entry in entries), message
        return [(int(universe), ip, int(port)) for _, universe, ip, port in entries]


@pytest.fixture
def nodes(service):
    return Nodes(service)


def accepted(method, message, result=True):
    return (result, [(message,)], [(INFO, f"[Dump::{method}] Emitting OnArtnetNodesUpdated signal")])


REFUSED = (False, [], [])


def place(node):
    return node[3:]


# init_manual_nodes


def test_the_first_list_is_taken_and_every_entry_of_its_message_ends_in_a_semicolon(nodes):
    assert nodes.watch("init_manual_nodes", [DESK, RACK]) == accepted(
        "init_manual_nodes", "1:5:10.0.0.9:6454;1:6:10.0.0.10:6455;"
    )
    assert nodes.kept() == [place(DESK), place(RACK)]


def test_an_empty_first_list_emits_an_empty_message_and_can_be_followed_by_another(nodes):
    assert nodes.watch("init_manual_nodes", []) == accepted("init_manual_nodes", "")
    assert nodes.watch("init_manual_nodes", []) == accepted("init_manual_nodes", "")
    assert nodes.watch("init_manual_nodes", [DESK]) == accepted("init_manual_nodes", "1:5:10.0.0.9:6454;")
    assert nodes.watch("init_manual_nodes", []) == REFUSED


def test_a_second_list_is_refused_until_all_nodes_are_removed(nodes):
    assert nodes.watch("init_manual_nodes", [DESK, RACK])[0] is True
    assert nodes.watch("init_manual_nodes", [TOWER]) == REFUSED
    assert nodes.watch("remove_all_manual_nodes") == accepted(
        "remove_all_manual_nodes", "0:5:10.0.0.9:6454;0:6:10.0.0.10:6455;", None
    )
    assert nodes.watch("init_manual_nodes", [TOWER]) == accepted("init_manual_nodes", "1:7:10.0.0.2:6454;")


def test_a_list_is_refused_into_one_that_was_filled_node_by_node(nodes):
    assert nodes.watch("add_manual_node", DESK)[0] is True
    assert nodes.watch("init_manual_nodes", [RACK]) == REFUSED
    assert nodes.watch("remove_manual_node", 1)[0] is True
    assert nodes.watch("init_manual_nodes", [RACK])[0] is True


@pytest.mark.parametrize("position", [0, 1, 2])
@pytest.mark.parametrize("key", [-1, -2147483648])
def test_a_list_with_a_negative_key_anywhere_is_refused_as_a_whole(nodes, position, key):
    listed = [DESK, RACK]
    listed.insert(position, (key, "", "", 0, "", 0))
    assert nodes.watch("init_manual_nodes", listed) == REFUSED
    assert nodes.watch("init_manual_nodes", [TOWER])[0] is True
    assert nodes.kept() == [place(TOWER)]


def test_a_list_may_hold_a_key_twice_and_only_the_first_of_them_is_found(nodes):
    first, second = (7, "a", "A", 1, "10.0.0.1", 1), (7, "b", "B", 2, "10.0.0.2", 2)
    assert nodes.watch("init_manual_nodes", [DESK, first, second]) == accepted(
        "init_manual_nodes", "1:5:10.0.0.9:6454;1:1:10.0.0.1:1;1:2:10.0.0.2:2;"
    )
    assert nodes.watch("update_manual_node", (7, "a", "A", 3, "10.0.0.3", 3)) == accepted(
        "update_manual_node", "0:1:10.0.0.1:1;1:3:10.0.0.3:3"
    )
    assert nodes.watch("add_manual_node", first) == REFUSED
    assert nodes.watch("remove_manual_node", 7) == accepted("remove_manual_node", "0:3:10.0.0.3:3")
    assert nodes.watch("remove_manual_node", 7) == accepted("remove_manual_node", "0:2:10.0.0.2:2")
    assert nodes.watch("remove_manual_node", 7) == REFUSED
    assert nodes.kept() == [place(DESK)]


# add_manual_node


def test_an_added_node_is_announced_without_a_separator(nodes):
    assert nodes.watch("add_manual_node", DESK) == accepted("add_manual_node", "1:5:10.0.0.9:6454")


def test_added_nodes_stand_in_the_order_in_which_they_came(nodes):
    listed = [RACK, TOWER, DESK]
    for node in listed:
        assert nodes.watch("add_manual_node", node)[0] is True
    assert nodes.kept() == [place(node) for node in listed]


@pytest.mark.parametrize("key", [-1, -2, -2147483648])
def test_a_node_with_a_negative_key_is_not_added(nodes, key):
    assert nodes.watch("add_manual_node", (key, *DESK[1:])) == REFUSED
    assert nodes.kept() == []


def test_a_key_that_is_taken_is_not_added_again(nodes):
    assert nodes.watch("add_manual_node", DESK)[0] is True
    assert nodes.watch("add_manual_node", (1, *RACK[1:])) == REFUSED
    assert nodes.kept() == [place(DESK)]


def test_nodes_that_differ_only_in_their_key_are_two_nodes(nodes):
    assert nodes.watch("add_manual_node", DESK)[0] is True
    assert nodes.watch("add_manual_node", (4, *DESK[1:])) == accepted("add_manual_node", "1:5:10.0.0.9:6454")
    assert nodes.kept() == [place(DESK), place(DESK)]


def test_the_smallest_and_the_largest_key_are_keys_like_any_other(nodes):
    for key in (0, 2147483647):
        assert nodes.watch("add_manual_node", (key, *DESK[1:]))[0] is True
        assert nodes.watch("add_manual_node", (key, *DESK[1:])) == REFUSED
    assert nodes.watch("remove_manual_node", 2147483647)[0] is True
    assert nodes.watch("remove_manual_node", 0)[0] is True


# update_manual_node


def test_an_updated_node_is_announced_as_gone_and_come_with_one_separator_between(nodes):
    assert nodes.watch("add_manual_node", DESK)[0] is True
    assert nodes.watch("update_manual_node", (1, "desk", "front of house desk", 6, "10.0.0.9", 6454)) == accepted(
        "update_manual_node", "0:5:10.0.0.9:6454;1:6:10.0.0.9:6454"
    )
    assert nodes.kept() == [(6, "10.0.0.9", 6454)]


def test_an_update_changes_universe_address_and_port_and_keeps_key_and_place(nodes):
    assert nodes.watch("init_manual_nodes", [TOWER, DESK, RACK])[0] is True
    assert nodes.watch("update_manual_node", (1, "d", "D", 9, "192.168.1.1", 7000)) == accepted(
        "update_manual_node", "0:5:10.0.0.9:6454;1:9:192.168.1.1:7000"
    )
    assert nodes.watch("update_manual_node", DESK) == accepted(
        "update_manual_node", "0:9:192.168.1.1:7000;1:5:10.0.0.9:6454"
    )
    assert nodes.watch("update_manual_node", (1, "d", "D", 9, "192.168.1.1", 7000))[0] is True
    assert nodes.kept() == [place(TOWER), (9, "192.168.1.1", 7000), place(RACK)]


def test_an_update_that_changes_nothing_is_announced_all_the_same(nodes):
    assert nodes.watch("add_manual_node", DESK)[0] is True
    assert nodes.watch("update_manual_node", DESK) == accepted(
        "update_manual_node", "0:5:10.0.0.9:6454;1:5:10.0.0.9:6454"
    )


def test_an_update_of_the_names_alone_shows_the_same_place_twice(nodes):
    assert nodes.watch("add_manual_node", DESK)[0] is True
    assert nodes.watch("update_manual_node", (1, "new", "new name", *place(DESK))) == accepted(
        "update_manual_node", "0:5:10.0.0.9:6454;1:5:10.0.0.9:6454"
    )


@pytest.mark.parametrize("key", [-1, -2147483648, 0, 2, 2147483647])
def test_an_update_of_a_key_that_is_not_there_is_refused(nodes, key):
    assert nodes.watch("add_manual_node", DESK)[0] is True
    assert nodes.watch("update_manual_node", (key, *RACK[1:])) == REFUSED
    assert nodes.kept() == [place(DESK)]


# remove_manual_node


def test_a_removed_node_is_announced_without_a_separator_and_the_others_keep_their_order(nodes):
    assert nodes.watch("init_manual_nodes", [RACK, DESK, TOWER])[0] is True
    assert nodes.watch("remove_manual_node", 1) == accepted("remove_manual_node", "0:5:10.0.0.9:6454")
    assert nodes.kept() == [place(RACK), place(TOWER)]


def test_removal_goes_by_the_key_and_not_by_the_place_in_the_list(nodes):
    assert nodes.watch("init_manual_nodes", [RACK, DESK, TOWER])[0] is True
    assert nodes.watch("remove_manual_node", 0) == accepted("remove_manual_node", "0:7:10.0.0.2:6454")
    assert nodes.watch("remove_manual_node", 0) == REFUSED
    assert nodes.kept() == [place(RACK), place(DESK)]


@pytest.mark.parametrize("key", [-1, -2147483648, 0, 3, 2147483647])
def test_removal_of_a_key_that_is_not_there_is_refused(nodes, key):
    assert nodes.watch("init_manual_nodes", [RACK, DESK])[0] is True
    assert nodes.watch("remove_manual_node", key) == REFUSED
    assert nodes.kept() == [place(RACK), place(DESK)]


def test_a_removed_key_can_be_used_again_and_then_stands_last(nodes):
    assert nodes.watch("init_manual_nodes", [DESK, RACK])[0] is True
    assert nodes.watch("remove_manual_node", 1)[0] is True
    assert nodes.watch("update_manual_node", DESK) == REFUSED
    assert nodes.watch("add_manual_node", DESK)[0] is True
    assert nodes.kept() == [place(RACK), place(DESK)]


# remove_all_manual_nodes


def test_removing_all_nodes_of_an_empty_list_emits_an_empty_message(nodes):
    assert nodes.watch("remove_all_manual_nodes") == accepted("remove_all_manual_nodes", "", None)
    assert nodes.watch("remove_all_manual_nodes") == accepted("remove_all_manual_nodes", "", None)


def test_removing_all_nodes_names_each_with_a_semicolon_behind_it(nodes):
    assert nodes.watch("init_manual_nodes", [RACK, TOWER, DESK])[0] is True
    assert nodes.watch("remove_all_manual_nodes") == accepted(
        "remove_all_manual_nodes", "0:6:10.0.0.10:6455;0:7:10.0.0.2:6454;0:5:10.0.0.9:6454;", None
    )
    assert nodes.watch("remove_all_manual_nodes") == accepted("remove_all_manual_nodes", "", None)


# The fields of a node


@pytest.mark.parametrize(
    "universe, ip, port",
    [
        (0, "", 0),
        (-1, "no address", -1),
        (2147483647, "%1%2%3", 2147483647),
        (-2147483648, "1:2;3:4", -2147483648),
        (1, "%s%n%d", 1),
        (2, "größer als 10.0.0.1 \u2603 \U0001f600", 2),
        (3, 'a"b\\c\n', 3),
        (4, "fe80::1", 4),
        (5, "x" * 10000, 5),
    ],
    ids=["empty", "negative", "placeholders", "separators", "formats", "unicode", "quotes", "colons", "long"],
)
def test_nothing_but_the_key_is_checked_and_everything_is_reported_as_it_is(nodes, universe, ip, port):
    odd = (8, "%1", "%2", universe, ip, port)
    text = f"{universe}:{ip}:{port}"
    assert nodes.watch("init_manual_nodes", [odd, DESK]) == accepted("init_manual_nodes", f"1:{text};1:5:10.0.0.9:6454;")
    assert nodes.watch("update_manual_node", (8, *RACK[1:])) == accepted(
        "update_manual_node", f"0:{text};1:6:10.0.0.10:6455"
    )
    assert nodes.watch("update_manual_node", odd) == accepted("update_manual_node", f"0:6:10.0.0.10:6455;1:{text}")
    assert nodes.watch("remove_manual_node", 8) == accepted("remove_manual_node", f"0:{text}")
    assert nodes.watch("add_manual_node", odd) == accepted("add_manual_node", f"1:{text}")
    assert nodes.watch("remove_all_manual_nodes") == accepted(
        "remove_all_manual_nodes", f"0:5:10.0.0.9:6454;0:{text};", None
    )


def test_a_thousand_nodes_are_kept_in_order(nodes):
    listed = [(key, "", "", 1000 - key, f"10.1.{key // 250}.{key % 250}", 6454) for key in range(1000)]
    message = "".join(f"1:{universe}:{ip}:{port};" for _, _, _, universe, ip, port in listed)
    assert nodes.watch("init_manual_nodes", listed) == accepted("init_manual_nodes", message)
    for key in range(0, 1000, 2):
        assert nodes.client.remove_manual_node(key) is True
    assert nodes.kept() == [place(node) for node in listed[1::2]]


# Beside detection


def test_manual_nodes_are_no_detected_nodes(nodes):
    assert nodes.watch("init_manual_nodes", [DESK, RACK])[0] is True
    assert nodes.client.get_detected_nodes() == '{ "nodes":[]}'
    assert nodes.client.set_automatic_node_detection(False) is True
    assert nodes.watch("remove_detected_nodes") == (
        True,
        [("",)],
        [
            (INFO, "[Dump::remove_detected_nodes] Remove detected nodes"),
            (INFO, "[Dump::remove_detected_nodes] Emitting OnArtnetNodesUpdated signal"),
        ],
    )
    assert nodes.kept() == [place(DESK), place(RACK)]


@pytest.mark.parametrize("mode", ["automatic", "idle", "requested"])
def test_manual_nodes_can_be_changed_in_every_mode_of_detection(nodes, mode):
    assert nodes.client.set_automatic_node_detection(mode == "automatic") is True
    if mode == "requested":
        assert nodes.client.request_node_detection() is True
    assert nodes.client.start_polling_artnet_nodes() is True
    nodes.log.wait_for_text("[Dump::poll_artnet_nodes] Starting")
    assert nodes.watch("init_manual_nodes", [DESK]) == accepted("init_manual_nodes", "1:5:10.0.0.9:6454;")
    assert nodes.watch("add_manual_node", RACK) == accepted("add_manual_node", "1:6:10.0.0.10:6455")
    assert nodes.watch("update_manual_node", (1, *TOWER[1:])) == accepted(
        "update_manual_node", "0:5:10.0.0.9:6454;1:7:10.0.0.2:6454"
    )
    assert nodes.watch("remove_manual_node", 2) == accepted("remove_manual_node", "0:6:10.0.0.10:6455")
    assert nodes.kept() == [place(TOWER)]


def test_below_level_3_a_change_is_announced_without_a_log_line(world):
    process = world.run(6454, environment={"KADREL_LOG_LEVEL": "2"})
    world.bus.owners.wait_for(lambda change: change[0] == SERVICE, SERVICE)
    assert world.client.add_manual_node(DESK) is True
    assert world.client.signals.items == [Signal("OnArtnetNodesUpdated", ("1:5:10.0.0.9:6454",))]
    assert world.log.entries() == [BANNER]
    assert process.end() == 0


def test_manual_nodes_are_forgotten_when_the_service_ends(world):
    service = world.start()
    assert service.client.add_manual_node(DESK) is True
    service.stop()
    nodes = Nodes(world.start())
    assert nodes.watch("init_manual_nodes", [RACK])[0] is True
    assert nodes.kept() == [place(RACK)]


def test_every_client_sees_the_messages_in_the_order_of_the_calls(nodes, service):
    second = service.world.bus.client()
    expected = []
    for key in range(50):
        assert nodes.client.add_manual_node((key, "", "", key, "10.0.0.1", 6454)) is True
        expected.append(f"1:{key}:10.0.0.1:6454")
        assert second.remove_manual_node(key) is True
        expected.append(f"0:{key}:10.0.0.1:6454")
    for client in (nodes.client, second):
        client.signals.wait_for_count(len(expected))
        assert client.signals.items == [Signal("OnArtnetNodesUpdated", (message,)) for message in expected]


@pytest.mark.parametrize(
    "arguments",
    [
        GLib.Variant("((issis))", ((1, "a", "b", 2, "c"),)),
        GLib.Variant("((xssisi))", ((1, "a", "b", 2, "c", 3),)),
        GLib.Variant("((issisis))", ((1, "a", "b", 2, "c", 3, "d"),)),
        GLib.Variant("(issisi)", (1, "a", "b", 2, "c", 3)),
        GLib.Variant("(a(issisi))", ([],)),
    ],
    ids=lambda variant: variant.get_type_string(),
)
def test_a_node_of_another_shape_is_an_error_for_the_caller_and_changes_nothing(nodes, service, arguments):
    with pytest.raises(GLib.Error):
        nodes.client.call_raw(SERVICE, PATH, INTERFACE, "add_manual_node", arguments)
    assert service.client.signals.items == []
    assert nodes.kept() == []
