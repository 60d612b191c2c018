"""The service on the bus: its interface, and its way with calls."""

from concurrent.futures import ThreadPoolExecutor

import pytest
from gi.repository import GLib
from harness import INTERFACE, PATH, SERVICE, Signal, interface_members
from harness.artnet import art_trigger
from harness.bus import METHODS
from harness.sanitizers import REPOSITORY

NODE = "(issisi)"
EXPECTED_METHODS = {
    "grab": ([("filename", "s")], []),
    "dup_cue": ([("destpath", "s"), ("filename", "s")], ["s"]),
    "stop": ([], []),
    "get_status": ([], ["s"]),
    "latest_grab": ([], ["s"]),
    "set_automatic_node_detection": ([("enable", "b")], ["b"]),
    "request_node_detection": ([], ["b"]),
    "node_detection_request_pending": ([], ["b"]),
    "start_polling_artnet_nodes": ([], ["b"]),
    "get_detected_nodes": ([], ["s"]),
    "remove_detected_nodes": ([], ["b"]),
    "init_manual_nodes": ([("nodes", f"a{NODE}")], ["b"]),
    "add_manual_node": ([("node", NODE)], ["b"]),
    "update_manual_node": ([("node", NODE)], ["b"]),
    "remove_manual_node": ([("id", "i")], ["b"]),
    "remove_all_manual_nodes": ([], []),
    "set_ctrl_universe": ([("universe", "i")], ["b"]),
    "set_ctrl_action": ([("key_channel", "i"), ("value_channel", "i"), ("step", "i")], ["b"]),
    "set_ctrl_record": ([("channel", "i"), ("threshold", "i")], ["b"]),
}
EXPECTED_SIGNALS = {
    "OnArtnetTrigger": [("key", "i"), ("subkey", "i")],
    "OnArtnetNodesUpdated": [("message", "s")],
}


def test_the_interface_offers_exactly_the_19_methods_and_2_signals(service):
    methods, signals = interface_members(service.client.introspect())
    assert methods == EXPECTED_METHODS
    assert signals == EXPECTED_SIGNALS
    assert len(methods) == 19 and len(signals) == 2


def test_methods_and_signals_stand_in_the_order_of_their_declaration(service):
    methods, signals = interface_members(service.client.introspect())
    assert list(methods) == list(EXPECTED_METHODS)
    assert list(signals) == list(EXPECTED_SIGNALS)


def test_the_interface_has_no_properties_and_the_object_no_further_interface_of_its_own(service):
    xml = service.client.introspect()
    assert "<property" not in xml
    interfaces = {line.split('"')[1] for line in xml.splitlines() if "<interface" in line}
    assert {name for name in interfaces if not name.startswith("org.freedesktop.DBus.")} == {INTERFACE}


def test_the_interface_file_says_what_the_service_shows(service):
    written = (REPOSITORY / "data/com.tolvekserver.Kadrel.Dump.xml").read_text(encoding="utf-8")
    assert interface_members(written) == interface_members(service.client.introspect())


def test_every_method_answers_once_it_is_called(service):
    node = (1, "short", "long", 0, "10.77.0.9", 6454)
    arguments = {
        "grab": (service.world.path("cue"),),
        "dup_cue": (service.world.directory, service.world.path("missing")),
        "set_automatic_node_detection": (False,),
        "init_manual_nodes": ([],),
        "add_manual_node": (node,),
        "update_manual_node": (node,),
        "remove_manual_node": (1,),
        "set_ctrl_universe": (-1,),
        "set_ctrl_action": (-1, -1, -1),
        "set_ctrl_record": (-1, -1),
    }
    kinds = {"": type(None), "s": str, "b": bool}
    for method, (_, output) in METHODS.items():
        assert isinstance(service.client.call(method, *arguments.get(method, ())), kinds[output]), method


def test_signals_arrive_in_the_order_of_the_packets_at_every_client(service):
    second = service.world.bus.client()
    sent = [(index, 255 - index) for index in range(200)]
    service.feed(art_trigger(*pair, payload=b"") for pair in sent)
    for client in (service.client, second):
        client.signals.wait_for_count(len(sent))
        assert client.signals.items == [Signal("OnArtnetTrigger", pair) for pair in sent]


def test_calls_of_several_clients_at_once_are_all_answered(service):
    clients = [service.world.bus.client() for _ in range(4)]
    for client in clients:
        assert client.call_in_parallel([("get_status",)] * 10 + [("latest_grab",)] * 10)[:10] == ["off"] * 10


def test_calls_during_a_burst_of_packets_do_not_hold_signals_back(service):
    sent = [(7, index) for index in range(100)]
    service.world.console.send(*(art_trigger(*pair, payload=b"") for pair in sent[:50]))
    assert service.client.call_in_parallel([("get_status",)] * 20) == ["off"] * 20
    service.world.console.send(*(art_trigger(*pair, payload=b"") for pair in sent[50:]))
    service.client.signals.wait_for_count(100)
    assert service.client.triggers() == sent


def test_triggers_during_a_method_call_leave_behind_its_answer_in_their_order(service):
    world, client = service.world, service.client
    monitor = world.bus.monitor()
    source = world.path("long cue")
    with open(source, "wb") as file:
        file.truncate(48 << 20)
    lines = world.log.mark()
    with ThreadPoolExecutor(1) as caller:
        copying = caller.submit(client.dup_cue, world.directory, source)
        # The main thread begins to copy; signals of the receive thread must wait for it now.
        world.log.wait_for(lambda line: "New cue path is" in line.text, "the copy to begin", lines)
        world.console.send(*(art_trigger(number, 0) for number in range(20)))
        copying.result()
    client.signals.wait_for_count(20)
    assert client.triggers() == [(number, 0) for number in range(20)]

    def sent():
        own = [message for message in monitor.messages.items if message.sender == service.unique_name]
        return [message.kind for message in own]

    monitor.messages.wait_for(lambda _: sent().count("sig") == 20, "the signals on the bus")
    assert sent()[sent().index("sig") - 1] == "mr"
    assert "sig" not in sent()[: sent().index("mr")]


@pytest.mark.parametrize(
    "method, arguments",
    [
        ("no_such_method", None),
        ("deleteLater", None),
        ("grab", None),
        ("grab", GLib.Variant("(i)", (5,))),
        ("grab", GLib.Variant("(ay)", (b"/cue",))),
        ("get_status", GLib.Variant("(s)", ("off",))),
        ("set_ctrl_universe", GLib.Variant("(s)", ("1",))),
        ("set_ctrl_universe", GLib.Variant("(x)", (1,))),
        ("set_ctrl_universe", GLib.Variant("(u)", (1,))),
        ("add_manual_node", GLib.Variant("(i)", (1,))),
        ("add_manual_node", GLib.Variant("((iss))", ((1, "a", "b"),))),
        ("init_manual_nodes", GLib.Variant("(as)", (["node"],))),
        ("process_datagram", GLib.Variant("(ay)", (b"",))),
        ("listen_incoming_data", GLib.Variant("(i)", (6454,))),
    ],
)
def test_a_call_that_fits_no_method_is_an_error_for_the_caller_alone(service, method, arguments):
    with pytest.raises(GLib.Error) as error:
        service.client.call_raw(SERVICE, PATH, INTERFACE, method, arguments)
    assert "org.freedesktop.DBus.Error" in error.value.message
    assert service.client.get_status() == "off"


def test_no_other_object_is_there(service):
    with pytest.raises(GLib.Error):
        service.client.call_raw(SERVICE, "/com/tolvekserver", INTERFACE, "get_status")
    assert service.client.get_status() == "off"
