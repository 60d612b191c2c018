"""The command line, the start, the bus name and the end of the process."""

import os
import signal
import socket

import pytest
from harness import SERVICE
from harness.artnet import art_trigger
from texts import BANNER, BIND_FAILED, LISTEN_FINISHED, LISTEN_STARTING, device_ip

USAGE = "Usage: ./kadrel port \n  ,where        port - dump on port \n"
NO_BUS = (
    "Cannot connect to the D-Bus session bus.\nTo start it, run:\n\teval `dbus-launch --auto-syntax`\n"
)


def blocked_signals(status_file):
    """The signals that the thread of a /proc status file keeps blocked."""
    with open(status_file, encoding="ascii") as status:
        for line in status:
            if line.startswith("SigBlk:"):
                mask = int(line.split()[1], 16)
                return {number for number in range(1, 65) if mask >> (number - 1) & 1}
    raise AssertionError(f"no mask in {status_file}")


@pytest.fixture
def watched_bus(world):
    """A bus address that nobody may use: (environment, listening socket)."""
    path = world.path("watched")
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(path)
        listener.listen()
        listener.setblocking(False)
        yield {"DBUS_SESSION_BUS_ADDRESS": f"unix:path={path}"}, listener


@pytest.mark.parametrize("prefix", [("setsid",), ()], ids=["without a terminal", "in the caller's process group"])
def test_without_an_argument_the_usage_goes_to_standard_error_and_nothing_else_happens(world, watched_bus, prefix):
    environment, listener = watched_bus
    process = world.run(prefix=prefix, environment=environment)
    assert process.wait() == 1
    assert process.error_text == USAGE
    assert world.log.items == [] and world.log.foreign == []
    with pytest.raises(BlockingIOError):
        listener.accept()


def test_start_logs_banner_thread_and_address_and_the_end_logs_the_thread(world):
    service = world.start()
    assert world.log.entries() == [BANNER, LISTEN_STARTING, device_ip("10.77.0.1")]
    assert {line.program for line in world.log.items} == {"kadrel"}
    service.stop()
    assert world.log.entries() == [BANNER, LISTEN_STARTING, device_ip("10.77.0.1"), LISTEN_FINISHED]
    assert not world.client.owns(SERVICE)


def test_an_informational_line_is_exactly_its_text(world):
    world.start()
    assert world.log.items[0].text == "Kadrel Version: 1.5.2"


def test_further_arguments_are_ignored(world):
    process = world.run(6454, "7000", "--help")
    world.bus.owners.wait_for(lambda change: change[0] == SERVICE, SERVICE)
    world.log.wait_for_text(device_ip("10.77.0.1")[1])
    world.console.send(art_trigger(1, 2))
    world.client.signals.wait_for_count(1)
    assert world.client.triggers() == [(1, 2)]
    assert process.end() == 0
    assert process.error_text == ""


@pytest.mark.parametrize("text", ["7000", " 7000", "+7000", "7000x", "7000.9"])
def test_the_port_is_read_like_strtol_does(make_world, text):
    world = make_world(port=7000)
    process = world.run(text)
    world.log.wait_for_text(device_ip("10.77.0.1")[1])
    world.console.send(art_trigger(3, 4))
    world.client.signals.wait_for_count(1)
    assert world.client.triggers() == [(3, 4)]
    assert process.end() == 0


@pytest.mark.parametrize("text", ["", "port", "0", "-1", "65536", "99999999999999999999", "-99999999999999999999"])
def test_a_strange_port_text_still_gives_a_service_that_answers(world, text):
    process = world.run(text)
    world.log.wait_for_text(device_ip("10.77.0.1")[1])
    world.bus.owners.wait_for(lambda change: change[0] == SERVICE, SERVICE)
    assert world.client.get_status() == "off"
    process.send_signal(signal.SIGTERM)
    assert process.wait() == 0


def test_text_that_is_no_number_means_port_0_which_can_be_bound(world):
    process = world.run("port")
    world.log.wait_for_text(device_ip("10.77.0.1")[1])
    assert world.log.entries() == [BANNER, LISTEN_STARTING, device_ip("10.77.0.1")]
    process.send_signal(signal.SIGTERM)
    assert process.wait() == 0


def test_without_a_bus_the_advice_is_logged_and_the_exit_code_is_1(world):
    process = world.run(6454, environment={"DBUS_SESSION_BUS_ADDRESS": f"unix:path={world.path('nowhere')}"})
    assert process.wait_waking() == 1
    assert (3, NO_BUS) in world.log.entries()
    assert world.log.entries()[0] == BANNER
    assert world.log.entries()[-1] == LISTEN_FINISHED
    assert process.error_text == ""


def test_a_name_that_is_taken_ends_the_process_with_1_and_leaves_the_owner_alone(world):
    owner = world.bus.connect()
    assert owner.request_name(SERVICE)
    process = world.run(6454)
    assert process.wait_waking() == 1
    errors = [entry for entry in world.log.entries() if entry[0] != 6]
    assert len(errors) == 1 and errors[0][0] == 3
    assert errors[0][1].endswith("\n")
    assert world.log.entries()[-1] == LISTEN_FINISHED
    assert not owner.request_name("com.tolvekserver.Other") or owner.owns(SERVICE)
    assert process.error_text == ""


def test_a_second_service_gives_way_and_the_first_goes_on(world):
    first = world.start()
    second = world.run(7000)
    assert second.wait(20) == 1
    assert first.client.get_status() == "off"
    world.console.send(art_trigger(9, 9))
    first.client.signals.wait_for_count(1)


def test_an_occupied_port_is_logged_and_the_service_still_answers(world):
    world.appliance.endpoint(6454, "0.0.0.0")
    service = world.start()
    assert world.log.entries() == [BANNER, LISTEN_STARTING, BIND_FAILED, device_ip("10.77.0.1")]
    client = service.client
    path = world.path("cue")
    client.grab(path)
    assert client.get_status() == "on"
    client.stop()
    assert client.get_status() == "off"
    assert open(path, "rb").read() == b""


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_while_idle_ends_the_service_with_0_without_any_datagram(world, number):
    service = world.start()
    service.send_signal(number)
    assert service.wait() == 0
    assert world.log.entries()[-1] == LISTEN_FINISHED
    assert service.error_text == ""


def test_several_signals_at_once_end_the_service_with_0(world):
    service = world.start()
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGTERM, signal.SIGINT, signal.SIGTERM):
        if service.alive:
            service.send_signal(number)
    assert service.wait_waking() == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_as_soon_as_it_can_be_caught_ends_the_process_with_0_in_every_round(world, number):
    for _ in range(15):
        process = world.run(6454)
        process.wait_until_executing()
        process.wait_until_catching(number)
        assert process.alive
        assert process.end(number) == 0, process.error_text
        assert not world.client.owns(SERVICE)
    assert [entry for entry in world.log.entries() if entry[0] != 6] == []


def test_only_the_main_thread_takes_the_ending_signals(world):
    service = world.start()
    world.client.start_polling_artnet_nodes()
    world.log.wait_for_text("[Dump::poll_artnet_nodes] Starting")
    ending = {signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGALRM}
    threads = {int(thread): blocked_signals(f"/proc/{service.pid}/task/{thread}/status")
               for thread in os.listdir(f"/proc/{service.pid}/task")}
    assert threads.pop(service.pid) & ending == set()
    assert len(threads) >= 3  # receive, polling, the framework's bus thread
    assert {thread: ending - blocked for thread, blocked in threads.items() if not ending <= blocked} == {}


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
@pytest.mark.parametrize("stage", ["Kadrel Version: 1.5.2", LISTEN_STARTING[1], device_ip("10.77.0.1")[1], SERVICE])
def test_a_signal_at_every_stage_of_the_start_ends_the_process_with_0(world, stage, number):
    for _ in range(3):
        lines, owners = world.log.mark(), world.bus.owners.mark()
        process = world.run(6454)
        if stage == SERVICE:
            world.bus.owners.wait_for(lambda change: change[0] == SERVICE and change[1], SERVICE, owners)
        else:
            world.log.wait_for_text(stage, lines)
        assert process.end(number) == 0, process.error_text
        assert world.log.entries()[-1] == LISTEN_FINISHED
