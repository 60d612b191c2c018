"""Node detection: the ArtPoll of a cycle, nodes that came and went, and the modes that clients choose."""

import threading

import pytest
from harness import ERROR, INFO, Signal, spin_until
from harness.artnet import OP_POLL, art_poll, art_trigger, opcode_of
from harness.nodes import NO_NODES, Detection, FakeNodes, node_reply, nodes_json

POLLING_STARTING = (INFO, "[Dump::poll_artnet_nodes] Starting")
POLLING_REFUSED = (INFO, "[Dump::start_polling_artnet_nodes] Failed to start polling artnet nodes")
CYCLE_EMITS = (INFO, "[Dump::poll_artnet_nodes] Emitting OnArtnetNodesUpdated signal")
AUTOMATIC_ON = (INFO, "[Dump::set_automatic_node_detection] Set automatic node detection (enable:true)")
AUTOMATIC_OFF = (INFO, "[Dump::set_automatic_node_detection] Set automatic node detection (enable:false)")
AUTOMATIC_REFUSED = (
    INFO,
    "[Dump::set_automatic_node_detection] Failed to set automatic node detection - manual in progress",
)
REQUEST = (INFO, "[Dump::request_node_detection] Request node detection")
REQUEST_REFUSED = (
    INFO,
    "[Dump::request_node_detection] Failed to request node detection - automatic detection enabled",
)
PENDING = (INFO, "[Dump::node_detection_request_pending] Check node detection request pending (true)")
NOT_PENDING = (INFO, "[Dump::node_detection_request_pending] Check node detection request pending (false)")
REMOVE = (INFO, "[Dump::remove_detected_nodes] Remove detected nodes")
REMOVE_EMITS = (INFO, "[Dump::remove_detected_nodes] Emitting OnArtnetNodesUpdated signal")


def remove_refused(automatic, requested):
    return (INFO, f"[Dump::remove_detected_nodes] Failed to remove detected nodes (auto:{automatic}, detect:{requested})")


@pytest.fixture
def detection(service):
    return Detection(service)


def await_request_evaluated(client):
    """The message of a requested cycle leaves a moment before the request counts as done."""
    spin_until(lambda: not client.node_detection_request_pending(), "the request to be done")


# The ArtPoll


def test_a_cycle_begins_with_one_artpoll_to_the_broadcast_address_of_eth0(detection):
    capture = detection.world.console_host.capture()
    poll = detection.start()
    assert poll.data == b"Art-Net\0" + b"\x00\x20" + b"\x00\x0e" + b"\x02" + b"\x10"
    assert (poll.address, poll.port) == ("10.77.0.1", 6454)
    (seen,) = [datagram for datagram in capture.datagrams() if datagram.source == "10.77.0.1"]
    assert (seen.data, seen.source_port, seen.destination, seen.destination_port) == (
        art_poll(),
        6454,
        "10.77.255.255",
        6454,
    )


def test_the_artpoll_goes_to_port_6454_and_leaves_from_the_port_of_the_service(make_world):
    detection = Detection(make_world(port=7000).start())
    poll = detection.start()
    assert (poll.address, poll.port, poll.data) == ("10.77.0.1", 7000, art_poll())
    assert detection.cycle(node_reply("10.77.0.9", [5])) == (
        ["1:5:10.77.0.9:6454;"],
        nodes_json([("node", "a fake node", 5, "10.77.0.9", 6454)]),
    )


@pytest.mark.parametrize("given, used", [("10.77.7.255", "10.77.7.255"), (None, "10.77.255.255")], ids=["set", "unset"])
def test_the_broadcast_address_is_the_one_of_eth0_or_the_last_of_its_network(make_world, given, used):
    world = make_world(broadcast=given)
    service = world.start()
    capture = world.console_host.capture()
    assert service.client.start_polling_artnet_nodes() is True

    def seen():
        world.waker.send(b"\0")
        return [datagram for datagram in capture.datagrams() if datagram.data == art_poll()]

    (poll,) = spin_until(seen, "an ArtPoll")
    assert (poll.destination, poll.destination_port) == (used, 6454)


@pytest.mark.parametrize("eth0", ["is missing", "has no address", "has an address without a network"])
def test_without_a_network_no_artpoll_leaves_the_appliance_and_unasked_replies_still_count(make_world, eth0):
    world = make_world(with_eth0=eth0 != "is missing")
    if eth0 != "is missing":
        world.namespaces.ip("appliance", "address flush dev eth0")
    node = world.appliance.loopback(2)
    if eth0 == "has an address without a network":
        world.namespaces.ip("appliance", "address add 10.77.0.1/32 dev eth0", "route add 10.77.0.0/16 dev eth0")
        node = world.console
    service = world.start()
    capture = world.appliance.capture("lo" if eth0 == "is missing" else "eth0")
    lines = world.log.mark()
    assert service.client.start_polling_artnet_nodes() is True

    def announced():
        node.send(node_reply("10.77.0.9", [5]))
        service.settle(node)
        return service.client.signals.items

    assert spin_until(announced, "a node message") == [Signal("OnArtnetNodesUpdated", ("1:5:10.77.0.9:6454;",))]
    assert [datagram for datagram in capture.datagrams() if opcode_of(datagram.data) == OP_POLL] == []
    assert world.log.entries(lines) == [POLLING_STARTING]


def test_an_artpoll_that_cannot_be_sent_is_an_error_line_and_the_next_cycle_comes(detection):
    world = detection.world
    world.namespaces.ip("appliance", "link set eth0 down")
    lines = world.log.mark()
    assert detection.client.start_polling_artnet_nodes() is True
    failed = "Failed to send artpoll datagram (ip:10.77.255.255, port:6454) due to Network is unreachable. errno 101"
    world.log.wait_for_text(failed, lines)
    assert world.log.entries(lines) == [POLLING_STARTING, (ERROR, failed)]
    world.namespaces.ip("appliance", "link set eth0 up")
    detection.next_poll()


# Nodes that came and went


def test_the_life_of_nodes_over_several_cycles(make_world):
    world = make_world()
    detection = Detection(world.start(environment={"KADREL_LOG_LEVEL": "4"}))
    second = world.bus.client()
    lines = world.log.mark()
    stays = node_reply("10.77.0.20", [0x123], b"stays", b"stays as it is")
    before = [
        node_reply("10.77.0.100", [0x123], b"early", b"address sorts as text"),
        stays,
        node_reply("10.77.0.30", [2, 1], b"two", b"two ports"),
        node_reply("10.77.0.31", [7], b"old", b"is renamed"),
        node_reply("10.77.0.32", [8], b"short", b"old"),
        node_reply("10.77.0.33", [9], b"moves", b"moves universe"),
        node_reply("10.77.0.34", [10], b"port", b"changes port"),
        node_reply("10.77.0.35", [11], b"address", b"changes address"),
        node_reply("10.77.0.36", [12], b"leaves", b"goes away and comes back"),
    ]
    after = [
        node_reply("10.77.0.99", [13], b"new", b"is new"),
        node_reply("10.77.0.100", [0x123], b"early", b"address sorts as text"),
        node_reply("10.77.0.30", [1, 3], b"two", b"two ports"),
        node_reply("10.77.0.31", [7], b"new", b"is renamed"),
        node_reply("10.77.0.32", [8], b"short", b"new"),
        node_reply("10.77.0.33", [0x209], b"moves", b"moves universe"),
        node_reply("10.77.0.34", [10], b"port", b"changes port", port=7001),
        node_reply("10.77.0.135", [11], b"address", b"changes address"),
        stays,
    ]
    listed_before = nodes_json(
        [
            ("two", "two ports", 1, "10.77.0.30", 6454),
            ("two", "two ports", 2, "10.77.0.30", 6454),
            ("old", "is renamed", 7, "10.77.0.31", 6454),
            ("short", "old", 8, "10.77.0.32", 6454),
            ("moves", "moves universe", 9, "10.77.0.33", 6454),
            ("port", "changes port", 10, "10.77.0.34", 6454),
            ("address", "changes address", 11, "10.77.0.35", 6454),
            ("leaves", "goes away and comes back", 12, "10.77.0.36", 6454),
            ("early", "address sorts as text", 0x123, "10.77.0.100", 6454),
            ("stays", "stays as it is", 0x123, "10.77.0.20", 6454),
        ]
    )
    listed_after = [
        ("two", "two ports", 1, "10.77.0.30", 6454),
        ("two", "two ports", 3, "10.77.0.30", 6454),
        ("new", "is renamed", 7, "10.77.0.31", 6454),
        ("short", "new", 8, "10.77.0.32", 6454),
        ("port", "changes port", 10, "10.77.0.34", 7001),
        ("address", "changes address", 11, "10.77.0.135", 6454),
        ("leaves", "goes away and comes back", 12, "10.77.0.36", 6454),
        ("new", "is new", 13, "10.77.0.99", 6454),
        ("early", "address sorts as text", 0x123, "10.77.0.100", 6454),
        ("stays", "stays as it is", 0x123, "10.77.0.20", 6454),
        ("moves", "moves universe", 0x209, "10.77.0.33", 6454),
    ]
    came = (
        "1:291:10.77.0.100:6454;1:291:10.77.0.20:6454;1:2:10.77.0.30:6454;1:1:10.77.0.30:6454;1:7:10.77.0.31:6454;"
        "1:8:10.77.0.32:6454;1:9:10.77.0.33:6454;1:10:10.77.0.34:6454;1:11:10.77.0.35:6454;1:12:10.77.0.36:6454;"
    )
    changed = (
        "1:13:10.77.0.99:6454;1:3:10.77.0.30:6454;1:7:10.77.0.31:6454;1:8:10.77.0.32:6454;1:521:10.77.0.33:6454;"
        "1:10:10.77.0.34:7001;1:11:10.77.0.135:6454;"
        "0:2:10.77.0.30:6454;0:7:10.77.0.31:6454;0:8:10.77.0.32:6454;0:9:10.77.0.33:6454;0:10:10.77.0.34:6454;"
        "0:11:10.77.0.35:6454;0:12:10.77.0.36:6454;"
    )
    came_back = "1:12:10.77.0.36:6454;"
    went = (
        "0:1:10.77.0.30:6454;0:3:10.77.0.30:6454;0:7:10.77.0.31:6454;0:8:10.77.0.32:6454;0:10:10.77.0.34:7001;"
        "0:11:10.77.0.135:6454;0:12:10.77.0.36:6454;0:13:10.77.0.99:6454;0:291:10.77.0.100:6454;0:291:10.77.0.20:6454;"
        "0:521:10.77.0.33:6454;"
    )

    detection.start()
    assert detection.client.get_detected_nodes() == NO_NODES
    assert detection.cycle(*before) == ([came], listed_before)
    # The same nodes in another order, each twice.
    assert detection.cycle(*reversed(before), *before) == ([], listed_before)
    assert detection.cycle(*after) == ([changed], nodes_json([node for node in listed_after if node[0] != "leaves"]))
    assert detection.cycle(before[-1], *after) == ([came_back], nodes_json(listed_after))
    assert detection.cycle() == ([went], NO_NODES)
    assert detection.cycle() == ([], NO_NODES)
    assert [signal.arguments[0] for signal in second.signals.items] == [came, changed, came_back, went]
    assert world.log.entries(lines) == [POLLING_STARTING, *[CYCLE_EMITS] * 4]


def test_a_cycle_leaves_no_line_at_level_3(detection):
    lines = detection.world.log.mark()
    detection.start()
    assert detection.cycle(node_reply("10.77.0.9", [5]))[0] == ["1:5:10.77.0.9:6454;"]
    assert detection.world.log.entries(lines) == [POLLING_STARTING]


def test_replies_between_two_cycles_are_forgotten(detection):
    """Without the polling thread there is no cycle; replies before its first ArtPoll do not count."""
    client = detection.client
    detection.answer(node_reply("10.77.0.8", [4]))
    assert client.set_automatic_node_detection(False) and client.request_node_detection()
    detection.start()
    detection.answer(node_reply("10.77.0.9", [5]))
    assert detection.next_message() == "1:5:10.77.0.9:6454;"
    await_request_evaluated(client)
    detection.answer(node_reply("10.77.0.8", [4]))
    assert client.get_detected_nodes() == nodes_json([("node", "a fake node", 5, "10.77.0.9", 6454)])
    assert client.request_node_detection()
    detection.next_poll()
    assert detection.next_message() == "0:5:10.77.0.9:6454;"
    await_request_evaluated(client)
    assert client.get_detected_nodes() == NO_NODES


def test_replies_that_come_all_the_time_also_while_cycles_begin_and_end(detection):
    """Nodes that answer without a pause are found once and stay, whoever reads the list meanwhile."""
    client, sender = detection.client, detection.world.console_host.endpoint()
    addresses = [f"10.77.9.{number}" for number in range(1, 51)]
    answers = [node_reply(address, [5, 6]) for address in addresses]
    enough = threading.Event()
    lists, failures = [], []

    def keep(step):
        try:
            while not enough.is_set():
                step()
        except Exception as error:  # raised again below
            failures.append(error)

    reader = detection.world.bus.client()
    threads = [
        threading.Thread(target=keep, args=(lambda: detection.service.feed(answers, sender),)),
        threading.Thread(target=keep, args=(lambda: lists.append(reader.get_detected_nodes()),)),
    ]
    for thread in threads:
        thread.start()
    try:
        detection.start()
        detection.next_poll()
        came = detection.messages()
        detection.next_poll()
    finally:
        enough.set()
        for thread in threads:
            thread.join()
    assert failures == []
    assert len(came) == 1 and came[0].endswith(";")
    assert sorted(came[0].split(";")[:-1]) == sorted(
        f"1:{universe}:{address}:6454" for address in addresses for universe in (5, 6)
    )
    assert detection.messages() == []
    listed = nodes_json(
        [("node", "a fake node", universe, address, 6454) for universe in (5, 6) for address in sorted(addresses)]
    )
    assert set(lists) == {NO_NODES, listed}
    assert client.get_detected_nodes() == listed


def test_messages_of_detection_manual_nodes_and_triggers_reach_a_client_in_order(detection):
    client = detection.client
    detection.start()
    start = client.signals.mark()
    sent = []
    for number in range(100):
        assert client.add_manual_node((number, "", "", number, "10.0.0.1", 6454)) is True
        sent.append(Signal("OnArtnetNodesUpdated", (f"1:{number}:10.0.0.1:6454",)))
        detection.answer(art_trigger(number, 1, payload=b""))
        client.get_status()  # the trigger is on the bus before the next change
        sent.append(Signal("OnArtnetTrigger", (number, 1)))
    detection.answer(node_reply("10.77.0.9", [5]))
    sent.append(Signal("OnArtnetNodesUpdated", ("1:5:10.77.0.9:6454;",)))
    assert client.signals.wait_for_count(len(sent), start) == sent


# Many nodes at once


@pytest.mark.parametrize("count", [1, 4, 300])
def test_every_node_that_answers_one_artpoll_is_found_with_all_its_ports(detection, count):
    world = detection.world
    addresses = [f"10.77.{10 + number // 200}.{1 + number % 200}" for number in range(count)]
    host = world.network.peer("nodes", addresses)
    universes = {address: [16 * number + port for port in range(4)] for number, address in enumerate(addresses)}
    answers = []
    for number, address in enumerate(addresses):
        reply = node_reply(address, universes[address], b"node %d" % number, b"fake node number %d" % number)
        answers += [(address, reply)] * (2 if number % 3 == 0 else 1)
    with FakeNodes(detection.service, host, answers) as nodes:
        detection.start()
        message = detection.next_message()
        listed = detection.client.get_detected_nodes()
        detection.next_poll()
        assert nodes.answered.items[0]["sent"] == len(answers)
    found = [
        (f"node {number}", f"fake node number {number}", universe, address, 6454)
        for number, address in enumerate(addresses)
        for universe in universes[address]
    ]
    assert listed == nodes_json(found)
    assert message == "".join(f"1:{universe}:{address}:6454;" for _, _, universe, address, _ in found)


def test_of_a_network_of_300_odd_nodes_every_good_port_is_found_and_nothing_else(make_world):
    world = make_world(brand={"short_name": "own", "long_name": "own", "oem_id": 0x2111, "manufacturer_id": 0x534C})
    detection = Detection(world.start())
    addresses = [f"10.77.{10 + number // 200}.{1 + number % 200}" for number in range(300)]
    host = world.network.peer("nodes", addresses)
    # How the reply is changed, and which of the four ports are found under which names.
    kinds = [
        ({}, (0, 1, 2, 3), "node", "a fake node"),
        ({"num_ports": 0}, (), "", ""),
        ({"num_ports": 5}, (), "", ""),
        ({"num_ports": 2}, (0, 1), "node", "a fake node"),
        ({"port_types": b"\x85\x40\x81\x80"}, (0, 3), "node", "a fake node"),
        ({"short_name": b"B\xfchne", "long_name": b"\xdc" * 64}, (0, 1, 2, 3), "Bühne", "Ü" * 63),
        ({"short_name": b"s" * 18, "long_name": b'"%3" and \\'}, (0, 1, 2, 3), "s" * 17, '"%3" and \\'),
        ({"oem": 0x2111, "esta_man": 0x534C}, (), "", ""),
        ({"net_switch": 0xFF}, (0, 1, 2, 3), "node", "a fake node"),
        ({"ip": "0.0.0.0"}, (0, 1, 2, 3), "node", "a fake node"),
    ]
    answers, found = [], []
    for number, address in enumerate(addresses):
        change, ports, short_name, long_name = kinds[number % len(kinds)]
        universes = [16 * number + port for port in range(4)]
        reply = node_reply(**{"ip": address, "universes": universes, **change})
        answers += [(address, reply)] * (1 + number % 2)
        if "net_switch" in change:
            universes = [0xFF00 | universe & 0xFF for universe in universes]
        found += [(short_name, long_name, universes[port], change.get("ip", address), 6454) for port in ports]
    with FakeNodes(detection.service, host, answers):
        detection.start()
        message = detection.next_message()
        listed = detection.client.get_detected_nodes()
    assert message == "".join(f"1:{universe}:{ip}:{port};" for _, _, universe, ip, port in found)
    assert listed == nodes_json(sorted(found, key=lambda node: (node[2], node[3], node[4], node[0], node[1])))


# Modes


def test_right_after_the_start_detection_is_automatic_but_nothing_polls(detection):
    client, log = detection.client, detection.world.log
    lines = log.mark()
    assert client.request_node_detection() is False
    assert client.remove_detected_nodes() is False
    assert client.node_detection_request_pending() is False
    assert client.get_detected_nodes() == NO_NODES
    detection.service.settle()
    assert detection.polls_waiting() == []
    assert detection.messages() == []
    assert log.entries(lines) == [REQUEST, REQUEST_REFUSED, REMOVE, remove_refused(1, 0), NOT_PENDING]


def test_the_polling_thread_is_started_once(detection):
    client, log = detection.client, detection.world.log
    lines = log.mark()
    assert client.start_polling_artnet_nodes() is True
    log.wait_for_text(POLLING_STARTING[1], lines)
    assert client.start_polling_artnet_nodes() is False
    assert client.start_polling_artnet_nodes() is False
    assert log.entries(lines) == [POLLING_STARTING, POLLING_REFUSED, POLLING_REFUSED]
    detection.next_poll()
    assert detection.polls_waiting() == []


def test_of_many_starts_at_once_one_succeeds(detection):
    assert sorted(detection.client.call_in_parallel([("start_polling_artnet_nodes",)] * 8)) == [False] * 7 + [True]


def test_a_request_stays_pending_until_a_cycle_has_been_evaluated(detection):
    client, log = detection.client, detection.world.log
    lines = log.mark()
    assert client.set_automatic_node_detection(False) is True
    assert client.node_detection_request_pending() is False
    assert client.request_node_detection() is True
    assert client.node_detection_request_pending() is True
    assert client.request_node_detection() is True
    assert client.set_automatic_node_detection(True) is False
    assert client.set_automatic_node_detection(False) is False
    assert client.remove_detected_nodes() is False
    assert client.node_detection_request_pending() is True
    assert log.entries(lines) == [
        AUTOMATIC_OFF,
        NOT_PENDING,
        REQUEST,
        PENDING,
        REQUEST,
        AUTOMATIC_ON,
        AUTOMATIC_REFUSED,
        AUTOMATIC_OFF,
        AUTOMATIC_REFUSED,
        REMOVE,
        remove_refused(0, 1),
        PENDING,
    ]
    detection.start()
    lines = log.mark()
    assert client.request_node_detection() is True
    assert client.set_automatic_node_detection(True) is False
    assert client.remove_detected_nodes() is False
    detection.answer(node_reply("10.77.0.9", [5]), node_reply("10.77.0.8", [6]))
    assert client.node_detection_request_pending() is True
    assert client.get_detected_nodes() == NO_NODES
    assert log.entries(lines) == [REQUEST, AUTOMATIC_ON, AUTOMATIC_REFUSED, REMOVE, remove_refused(0, 1), PENDING]
    assert detection.next_message() == "1:5:10.77.0.9:6454;1:6:10.77.0.8:6454;"
    await_request_evaluated(client)
    # Idle again: the list stands, and nothing polls.
    detection.service.settle()
    assert detection.polls_waiting() == []
    assert client.get_detected_nodes() == nodes_json(
        [("node", "a fake node", 5, "10.77.0.9", 6454), ("node", "a fake node", 6, "10.77.0.8", 6454)]
    )
    lines = log.mark()
    assert client.remove_detected_nodes() is True
    assert detection.messages() == ["0:5:10.77.0.9:6454;0:6:10.77.0.8:6454;"]
    assert client.get_detected_nodes() == NO_NODES
    assert client.remove_detected_nodes() is True
    assert detection.messages() == [""]
    assert log.entries(lines) == [REMOVE, REMOVE_EMITS, REMOVE, REMOVE_EMITS]
    # Back to automatic detection; a node that was removed is new again.
    lines = log.mark()
    assert client.set_automatic_node_detection(True) is True
    assert log.entries(lines) == [AUTOMATIC_ON]
    detection.next_poll()
    assert detection.cycle(node_reply("10.77.0.9", [5])) == (
        ["1:5:10.77.0.9:6454;"],
        nodes_json([("node", "a fake node", 5, "10.77.0.9", 6454)]),
    )


def test_switching_automatic_detection_off_in_mid_cycle_discards_that_cycle(detection):
    client, log = detection.client, detection.world.log
    detection.start()
    kept = node_reply("10.77.0.7", [3])
    assert detection.cycle(kept)[0] == ["1:3:10.77.0.7:6454;"]
    detection.answer(node_reply("10.77.0.9", [5]))
    lines = log.mark()
    assert client.set_automatic_node_detection(False) is True
    # The request begins a cycle of its own; the one under way stays discarded.
    assert client.request_node_detection() is True
    detection.next_poll()
    assert detection.messages() == []
    assert client.node_detection_request_pending() is True
    assert client.get_detected_nodes() == nodes_json([("node", "a fake node", 3, "10.77.0.7", 6454)])
    assert log.entries(lines) == [AUTOMATIC_OFF, REQUEST, PENDING]
    detection.answer(kept, node_reply("10.77.0.8", [6]))
    assert detection.next_message() == "1:6:10.77.0.8:6454;"
    await_request_evaluated(client)
    assert client.get_detected_nodes() == nodes_json(
        [("node", "a fake node", 3, "10.77.0.7", 6454), ("node", "a fake node", 6, "10.77.0.8", 6454)]
    )


def test_automatic_detection_that_is_switched_off_and_on_in_mid_cycle_still_counts(detection):
    detection.start()
    detection.answer(node_reply("10.77.0.9", [5]))
    assert detection.client.set_automatic_node_detection(False) is True
    assert detection.client.set_automatic_node_detection(True) is True
    assert detection.cycle()[0] == ["1:5:10.77.0.9:6454;"]


def test_nodes_removed_in_mid_cycle_are_new_when_they_answer_again(detection):
    """Once automatic detection is off, the list can be emptied while the last cycle still collects."""
    client = detection.client
    detection.start()
    node = node_reply("10.77.0.9", [5])
    assert detection.cycle(node)[0] == ["1:5:10.77.0.9:6454;"]
    detection.answer(node)
    assert client.set_automatic_node_detection(False) is True
    assert client.remove_detected_nodes() is True
    assert detection.messages() == ["0:5:10.77.0.9:6454;"]
    assert client.get_detected_nodes() == NO_NODES
    assert client.set_automatic_node_detection(True) is True
    assert detection.cycle(node) == (
        ["1:5:10.77.0.9:6454;"],
        nodes_json([("node", "a fake node", 5, "10.77.0.9", 6454)]),
    )
