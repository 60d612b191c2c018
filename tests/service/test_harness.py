"""What the other tests rely on: that a world is private, and that failures are seen."""

import os

import pytest
from harness import BROADCAST, CONSOLE, SERVICE, BadRecording, DeadlinePassed, Recording, World
from harness.artnet import art_dmx, art_poll_reply, oem_vfps_ns, read_poll_reply, relay
from harness.sanitizers import report_in
from harness.syslog import without_context


@pytest.mark.parametrize(
    "text",
    [
        "==12==ERROR: AddressSanitizer: heap-use-after-free on address 0x1",
        "==12==ERROR: LeakSanitizer: detected memory leaks",
        "src/Dump.cpp:5:3: runtime error: signed integer overflow: 2147483647 + 1",
        "WARNING: ThreadSanitizer: data race (pid=12)",
        "FATAL: ThreadSanitizer: unexpected memory mapping",
        "AddressSanitizer:DEADLYSIGNAL",
        "ThreadSanitizer: failed to read suppressions file 'x'",
    ],
)
def test_every_kind_of_sanitizer_report_is_found(text):
    assert text in report_in(f"an ordinary line\n{text}\nmore\n")


def test_ordinary_lines_are_no_sanitizer_report():
    assert report_in("Kadrel Version: 1.5.2\n57 void Dump::grab(const QString&)) Can't open file for grabbing\n") is None


@pytest.mark.parametrize(
    "line, message",
    [
        ("57 void Dump::grab(const QString&)) Can't open", "Can't open"),
        ("5 Dump::Dump(int)::<lambda(ArtHeader&)>) [x] y (1, ec:4)", "[x] y (1, ec:4)"),
        ("9 void f() [with T = int]) text", "text"),
        ("0 ) of the framework", "of the framework"),
        ("no context) here", "no context) here"),
    ],
)
def test_the_source_context_is_told_from_the_message(line, message):
    assert without_context(line) == message


def test_a_world_shows_nothing_of_its_own_to_the_host(world):
    assert not os.path.exists(f"{world.directory}/dev/log")
    shown = world.namespaces.run(["ip", "-brief", "address"])
    assert "10.77.0.1/16" in shown
    inside = os.stat(f"{world.namespaces.root}/dev/log")
    assert inside.st_ino == os.stat(f"{world.directory}/syslog").st_ino
    assert os.stat("/dev").st_dev != os.stat(f"{world.namespaces.root}/dev").st_dev


def test_the_brand_file_of_a_world_is_seen_inside_only(make_world):
    world = make_world(brand={"model": "only in this world"})
    assert "only in this world" in world.namespaces.run(["cat", "/opt/tolvek/data/cfg/brand.json"])
    if os.path.exists("/opt/tolvek/data/cfg/brand.json"):
        with open("/opt/tolvek/data/cfg/brand.json", encoding="utf-8") as file:
            assert "only in this world" not in file.read()


def test_two_worlds_have_the_same_addresses_and_do_not_meet(make_world):
    first, second = make_world(), make_world()
    heard = second.appliance.endpoint(6454, "0.0.0.0")
    expected = first.appliance.endpoint(6454, "0.0.0.0")
    first.console.send(b"in the first world")
    assert expected.receive().data == b"in the first world"
    assert heard.waiting() == []


def test_peers_hear_broadcasts_and_each_other(world):
    hosts = [world.network.peer(f"peer{number}", f"10.77.1.{number}") for number in range(1, 5)]
    listeners = [host.endpoint(7000, "0.0.0.0") for host in hosts]
    world.appliance.endpoint().send(b"to all", to=(BROADCAST, 7000))
    hosts[0].endpoint().send(b"to the last", to=("10.77.1.4", 7000))
    assert [listener.receive().data for listener in listeners] == [b"to all"] * 4
    assert listeners[3].receive().data == b"to the last"


def test_a_host_may_have_hundreds_of_addresses(world):
    host = world.network.peer("nodes", [f"10.77.{4 + number // 250}.{1 + number % 250}" for number in range(300)])
    listener = world.appliance.endpoint(6454)
    for endpoint in host.endpoints():
        endpoint.send(b"hello", to=("10.77.0.1", 6454))
        assert listener.receive().address == endpoint.address


def test_a_capture_sees_both_directions_with_addresses_and_ports(world):
    capture = world.console_host.capture()
    appliance = world.appliance.endpoint(5000)
    world.console.send(b"there", to=("10.77.0.1", 5000))
    appliance.send(b"and back", to=(CONSOLE, 6454))
    capture.wait_for(lambda datagram: datagram.data == b"and back")
    there, back = capture.datagrams()
    assert (there.data, there.source, there.source_port, there.destination, there.destination_port, there.outgoing) == (
        b"there",
        CONSOLE,
        6454,
        "10.77.0.1",
        5000,
        True,
    )
    assert (back.data, back.source_port, back.outgoing) == (b"and back", 5000, False)


def test_a_service_that_does_not_start_is_reported_at_once(world):
    assert world.bus.connect().request_name(SERVICE)
    world.bus.owners.wait_for(lambda change: change[0] == SERVICE, SERVICE)
    with pytest.raises(AssertionError, match="ended with 1"):
        world.start()


def test_waiting_ends_at_its_deadline(world):
    with pytest.raises(DeadlinePassed):
        world.console.receive(deadline=0.01)
    with pytest.raises(DeadlinePassed):
        world.log.wait_for_text("never written", deadline=0.01)
    with pytest.raises(DeadlinePassed):
        world.console_host.capture().wait_for(lambda _: True, deadline=0.01)


def test_a_service_that_was_killed_fails_its_world():
    with pytest.raises(AssertionError, match="exit code -9"), World() as world:
        service = world.start()
        service.send_signal(9)
        service.stop()


def test_packets_have_the_published_layout():
    assert art_dmx(0x0205, b"\x01\x02", sequence=9, physical=1).hex() == "4172742d4e657400" "0050" "000e" "0901" "0502" "0002" "0102"
    assert relay(b"x", "10.0.0.1", 6454, 0x1234).hex() == "34120000" + b"10.0.0.1".ljust(16, b"\0").hex() + "36190000" "78"
    fields = {"ip": b"\x0a\0\0\1", "oem": 0x1234, "short_name": b"name".ljust(18, b"\0"), "num_ports": 4, "filler": bytes(26)}
    assert {name: read_poll_reply(art_poll_reply(**fields))[name] for name in fields} == fields


def test_a_recording_that_is_cut_off_anywhere_has_a_number_of_whole_frames():
    frames = [art_dmx(1, bytes([number] * 20)) for number in range(3)]
    content = oem_vfps_ns(5).join(frames)
    ends = [38, 94, 150]
    for size in range(len(content) + 1):
        assert Recording.whole_frames(content[:size], frames) == sum(end <= size for end in ends)
    for bad in (content + b"\0", content[:60] + b"x" + content[61:], content[:40] + b"x", content[38:]):
        with pytest.raises(BadRecording):
            Recording.whole_frames(bad, frames)


def test_a_call_that_is_held_goes_on_when_the_fault_is_disarmed(faulty, faults):
    faults.hold("open")
    before = faults.struck("open")
    grab = faulty.client.begin("grab", faulty.world.path("cue"))
    faults.wait_until_struck("open", before)
    assert not grab.done()
    faults.disarm("open")
    grab.result()
    assert faulty.client.get_status() == "on"
