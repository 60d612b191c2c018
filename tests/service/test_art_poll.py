"""The answer to an ArtPoll: one ArtPollReply of 239 bytes for every announced universe."""

import os
import signal
import threading

import pytest
from harness import DEADLINE, WARNING, Recording
from harness.artnet import art_dmx, art_poll, art_poll_reply, relay, slots
from texts import BANNER, LISTEN_STARTING, device_ip, unparsed

HARDWARE_ADDRESS = "02:4b:61:64:72:65"
BRAND = {
    "short_name": "kadrel",
    "long_name": "kadrel stage recorder",
    "oem_id": 0x2111,
    "manufacturer_id": 0x534C,
}


def reply(index, short_name=b"kadrel", long_name=b"kadrel stage recorder"):
    """The reply that announces the universe with this port-address."""
    return art_poll_reply(
        ip="10.77.0.1",
        port=6454,
        vers_info=0x0100,
        net_switch=index >> 8,
        sub_switch=index >> 4 & 15,
        oem=0x2111,
        esta_man=0x534C,
        short_name=short_name,
        long_name=long_name,
        num_ports=1,
        port_types=b"\xc5",
        sw_in=bytes([index & 15]),
        sw_out=bytes([index & 15]),
        mac=bytes.fromhex(HARDWARE_ADDRESS.replace(":", "")),
        bind_ip="10.77.0.1",
        bind_index=(index + 1) % 256,
    )


def replies(count):
    return [reply(index) for index in range(count)]


# What a cable carries, as seen by the appliance; replies wait for it in the socket's send buffer.
LINK = "tbf rate 60mbit burst 32kb limit 4mb"

# One that carries next to nothing while a test does its work.
NARROW_LINK = "tbf rate 5mbit burst 2kb limit 4mb"

# An ordinary user's sockets cannot queue an answer of thousands of replies; on a slow link they need not.
SLOW_FOR_MANY = os.geteuid() != 0

# The service stays on one processor: the kernel keeps the order of packets that one processor sends.
ONE_PROCESSOR = ("taskset", "--cpu-list", str(max(os.sched_getaffinity(0))))


def throttle(world, link=NARROW_LINK):
    world.namespaces.run(["tc", "qdisc", "add", "dev", "eth0", "root", *link.split()])


@pytest.fixture
def announcing(make_world):
    """Starts a service that announces this many universes under the names and codes above."""

    def start(count=None, brand=None, level=None, slow=False):
        world = make_world(brand=brand or BRAND)
        world.namespaces.ip("appliance", f"link set eth0 address {HARDWARE_ADDRESS}")
        if slow:
            throttle(world, LINK)
        return world.start(environment={"KADREL_UNIVERSE_COUNT": count, "KADREL_LOG_LEVEL": level}, prefix=ONE_PROCESSOR)

    return start


def in_order(answers):
    """Replies as they came, or by port-address where a slow link, which any processor may serve, can mix them up."""
    if not SLOW_FOR_MANY:
        return answers
    return sorted(answers, key=lambda answer: (answer[18], answer[19], answer[190]))


class Drain:
    """Takes in what comes to a socket on a thread of its own, so that a long answer never fills the queue."""

    def __init__(self, endpoint, count):
        self._received = []
        self._error = None
        self._socket = endpoint.socket
        self._count = count
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        self._socket.settimeout(DEADLINE)
        try:
            while len(self._received) < self._count:
                self._received.append(self._socket.recvfrom(1024))
        except OSError as error:  # shown where the answer is asked for
            self._error = error
        self._socket.settimeout(None)

    @property
    def running(self):
        return self._thread.is_alive()

    def payloads(self):
        self._thread.join()
        assert len(self._received) == self._count, f"{len(self._received)} of {self._count} came: {self._error}"
        assert {sender for _, sender in self._received} == {("10.77.0.1", 6454)}
        return [payload for payload, _ in self._received]


def ask(asker, count, poll=art_poll()):
    """Sends one ArtPoll and returns the payloads of `count` replies."""
    asker.send(poll)
    return Drain(asker, count).payloads()


def assert_silent(service, *endpoints):
    """Nothing more has come to these sockets when all earlier datagrams have been handled."""
    service.settle()
    assert [endpoint.waiting() for endpoint in endpoints] == [[] for _ in endpoints]


def test_every_byte_of_a_reply(announcing):
    (answer,) = ask(announcing().world.console, 1)
    assert answer == (
        b"Art-Net\0"
        b"\x00\x21"
        b"\x0a\x4d\x00\x01"  # IP address
        b"\x36\x19"  # port 6454
        b"\x01\x00"  # version
        b"\x00\x00"  # net, sub-net
        b"\x21\x11"  # OEM code, high byte first
        b"\x00\x00"  # UBEA version, status 1
        b"\x4c\x53"  # ESTA code, low byte first
        b"kadrel" + bytes(12) + b"kadrel stage recorder" + bytes(43) + bytes(64)  # node report
        + b"\x00\x01"  # one port
        + b"\xc5\0\0\0"  # in and out, Art-Net
        + bytes(8)  # good input, good output
        + bytes(8)  # input and output switches
        + bytes(6)  # video, macro, remote, spare
        + b"\x00"  # style: node
        + b"\x02\x4b\x61\x64\x72\x65"  # hardware address
        + b"\x0a\x4d\x00\x01"  # bind address
        + b"\x01"  # bind index
        + bytes(27)  # status 2, filler
    )
    assert answer == reply(0)


@pytest.mark.parametrize("count", [1, 3, 300])
def test_one_reply_for_every_announced_universe_in_order(announcing, count):
    service = announcing(count)
    assert ask(service.world.console, count) == replies(count)
    assert_silent(service, service.world.console)


def test_unset_the_number_of_universes_is_one(announcing):
    service = announcing()
    assert ask(service.world.console, 1) == replies(1)
    assert_silent(service, service.world.console)


def test_all_32768_universes_are_announced_complete_and_in_order(announcing):
    service = announcing(32768, slow=SLOW_FOR_MANY)
    assert in_order(ask(service.world.console_host.endpoint(), 32768)) == replies(32768)


def test_a_slow_link_delays_replies_and_loses_none(announcing):
    """The send buffer is full most of the time."""
    service = announcing(10000, slow=True)
    assert sorted(ask(service.world.console, 10000)) == sorted(replies(10000))
    assert_silent(service, service.world.console)


def test_net_subnet_and_universe_are_the_parts_of_the_port_address(announcing):
    answer = ask(announcing(0x124).world.console, 0x124)[0x123]
    assert answer[18:20] == b"\x01\x02"
    assert answer[186:194] == b"\x03\0\0\0\x03\0\0\0"


def test_the_bind_index_wraps_through_zero(announcing):
    answers = ask(announcing(300).world.console, 300)
    assert [answer[211] for answer in answers] == [*range(1, 256), *range(0, 45)]
    assert answers[254][211] == 255 and answers[255][211] == 0 and answers[256][211] == 1


@pytest.mark.parametrize(
    "text",
    ["", "0", "-1", "32769", "99999999999999999999", "3x", "x", " 3", "3 ", "+3", "3.0", "0x10", "%s%n", "٣"],
)
def test_a_bad_number_of_universes_is_a_warning_and_means_one(announcing, text):
    service = announcing(text)
    assert service.world.log.entries() == [
        BANNER,
        (WARNING, f"KADREL_UNIVERSE_COUNT is not a number from 1 to 32768, using 1 (value:{text})"),
        LISTEN_STARTING,
        device_ip("10.77.0.1"),
    ]
    assert ask(service.world.console, 1) == replies(1)
    assert_silent(service, service.world.console)


@pytest.mark.parametrize("text, count", [("1", 1), ("32768", 32768), ("007", 7)])
def test_a_good_number_of_universes_is_no_log_line(announcing, text, count):
    service = announcing(text, slow=SLOW_FOR_MANY)
    assert service.world.log.entries() == [BANNER, LISTEN_STARTING, device_ip("10.77.0.1")]
    assert in_order(ask(service.world.console_host.endpoint(), count))[-1] == reply(count - 1)


def test_an_answer_leaves_no_log_line_at_any_level(announcing):
    service = announcing(3, level=99)
    lines = service.world.log.mark()
    ask(service.world.console, 3)
    service.settle()
    assert service.world.log.entries(lines) == []


# What an ArtPoll may look like


@pytest.mark.parametrize(
    "poll",
    [
        art_poll(flags=0, priority=0),
        art_poll(flags=0xFF, priority=0xFF),
        art_poll(version=0),
        art_poll(version=0xFFFF),
        art_poll() + bytes(8),
        art_poll() + b"\xff" * 498,
        b"noise" + art_poll(),
        bytes(512) + art_poll(),
    ],
    ids=["no flags", "all flags", "version 0", "version 65535", "22 bytes", "512 bytes", "after noise", "late"],
)
def test_nothing_in_an_artpoll_changes_the_answer(announcing, poll):
    service = announcing(2)
    assert ask(service.world.console, 2, poll) == replies(2)
    assert_silent(service, service.world.console)


@pytest.mark.parametrize("size", [10, 11, 13])
def test_an_artpoll_that_is_too_short_is_not_answered(announcing, size):
    service = announcing(2)
    service.settle()
    lines = service.world.log.mark()
    service.world.console.send(art_poll()[:size])
    assert_silent(service, service.world.console)
    assert service.world.log.entries(lines) == [unparsed(art_poll()[:size])]


def test_every_artpoll_of_a_datagram_is_answered(announcing):
    service = announcing(2)
    assert ask(service.world.console, 6, art_poll() * 3) == replies(2) * 3
    assert_silent(service, service.world.console)


def test_every_artpoll_of_an_asker_is_answered_anew(announcing):
    service = announcing(60)
    for _ in range(5):
        service.world.console.send(art_poll())
    assert Drain(service.world.console, 300).payloads() == replies(60) * 5


def test_artpolls_that_come_during_an_answer_are_answered_once_more(announcing):
    """A console that asks ten times a second must not be answered for a minute after it has gone."""
    service = announcing(1000, slow=SLOW_FOR_MANY)
    asker = service.world.console_host.endpoint()
    # All polls wait when the service goes on, so that the others come in the middle of the first answer.
    service.send_signal(signal.SIGSTOP)
    asker.send(*[art_poll()] * 100)
    service.send_signal(signal.SIGCONT)
    got = [asker.receive().data for _ in range(2000)]
    assert in_order(got) == in_order(replies(1000) * 2)
    assert_silent(service, asker)


# Who gets the answer


def test_an_answer_goes_to_the_address_and_port_that_asked_and_nowhere_else(announcing):
    service = announcing(2)
    world = service.world
    host = world.network.peer("desk", ["10.77.0.40", "10.77.0.41"])
    capture = world.appliance.capture()
    asker = host.endpoint(1025, "10.77.0.41")
    bystanders = [host.endpoint(6454, "10.77.0.41"), host.endpoint(6454, "10.77.0.40"), world.console]
    assert ask(asker, 2) == replies(2)
    assert_silent(service, asker, *bystanders)
    sent = [datagram for datagram in capture.datagrams() if datagram.outgoing]
    assert [(one.data, one.source_port, one.destination, one.destination_port) for one in sent] == [
        (answer, 6454, "10.77.0.41", 1025) for answer in replies(2)
    ]


def test_an_artpoll_to_the_broadcast_address_is_answered_to_the_asker_alone(announcing):
    service = announcing(2)
    world = service.world
    capture = world.appliance.capture()
    world.console.send(art_poll(), to=("10.77.255.255", 6454))
    assert Drain(world.console, 2).payloads() == replies(2)
    service.settle()
    sent = [datagram for datagram in capture.datagrams() if datagram.outgoing]
    assert [(one.destination, one.destination_port) for one in sent] == [("10.77.0.2", 6454)] * 2


def test_the_answer_leaves_from_the_port_of_the_service(make_world):
    world = make_world(port=7000)
    world.start()
    asker = world.console_host.endpoint()
    asker.send(art_poll())
    answer = asker.receive()
    assert (answer.address, answer.port) == ("10.77.0.1", 7000)
    assert answer.data[14:16] == b"\x36\x19"


def test_many_askers_at_once_all_get_the_whole_answer(announcing):
    service = announcing(300)
    host = service.world.network.peer("desks", [f"10.77.1.{number}" for number in range(1, 21)])
    askers = [*host.endpoints(), *host.endpoints(0)]
    drains = [Drain(asker, 300) for asker in askers]
    for asker in askers:
        asker.send(art_poll())
    assert [drain.payloads() for drain in drains] == [replies(300)] * 40
    assert_silent(service, *askers)


def test_two_askers_of_thousands_of_universes_both_get_the_whole_answer(announcing):
    service = announcing(8000, slow=SLOW_FOR_MANY)
    askers = [service.world.console_host.endpoint() for _ in range(2)]
    drains = [Drain(asker, 8000) for asker in askers]
    for asker in askers:
        asker.send(art_poll())
    assert [in_order(drain.payloads()) for drain in drains] == [replies(8000)] * 2


def test_every_poll_of_a_flood_is_answered_whole_and_in_order(announcing):
    service = announcing(60, slow=SLOW_FOR_MANY)
    asker = service.world.console_host.endpoint()
    drain = Drain(asker, 400 * 60)
    service.feed([art_poll()] * 400, asker)
    assert in_order(drain.payloads()) == in_order(replies(60) * 400)
    assert_silent(service, asker)


def test_a_long_answer_does_not_keep_another_asker_waiting(announcing):
    service = announcing(1000, slow=SLOW_FOR_MANY)
    console = service.world.console_host
    first, second, capture = console.endpoint(), console.endpoint(), console.capture()
    # Both polls wait when the service goes on, so that the second comes in the middle of the first answer.
    service.send_signal(signal.SIGSTOP)
    first.send(art_poll())
    second.send(art_poll())
    service.send_signal(signal.SIGCONT)
    for asker in (first, second):
        assert in_order([asker.receive().data for _ in range(1000)]) == in_order(replies(1000))
    ports = [datagram.destination_port for datagram in capture.datagrams() if len(datagram.data) == 239]
    assert ports.index(second.port) < len(ports) - 1 - ports[::-1].index(first.port)


def test_polls_of_the_appliance_itself_are_not_answered(announcing):
    service = announcing(2)
    own, local = service.world.appliance.endpoint(), service.world.appliance_process
    own.send(art_poll())
    local.send(art_poll())
    service.relay_barrier()
    assert_silent(service, own, local)


def test_an_asker_that_is_gone_or_cannot_be_reached_harms_nobody(announcing):
    service = announcing(300)
    world = service.world
    world.console_host.endpoint().send(art_poll())
    lines = world.log.mark()
    gone = world.console_host.endpoint(1026)
    gone.send(art_poll())
    gone.close()
    far = world.network.peer("far", ["10.77.0.50"])
    world.namespaces.ip("far", "address add 192.168.50.1/24 dev eth0")
    far.endpoint(6454, "192.168.50.1").send(art_poll())
    assert ask(world.console, 300) == replies(300)
    service.settle()
    assert world.log.entries(lines) == []


def test_an_asker_that_cannot_be_reached_does_not_keep_others_from_their_answers(announcing):
    """The kernel keeps what is sent to it for seconds, in the service's send buffer."""
    service = announcing(4000, slow=SLOW_FOR_MANY)
    world = service.world
    mute = world.network.peer("mute", "10.77.0.30")
    # It can reach the service, but does not answer ARP.
    world.namespaces.ip("mute", f"neigh add 10.77.0.1 lladdr {HARDWARE_ADDRESS} dev eth0")
    world.namespaces.run(["sh", "-c", "echo 8 > /proc/sys/net/ipv4/conf/eth0/arp_ignore"], network="mute")
    mute.endpoint().send(art_poll())
    service.settle()
    assert "10.77.0.30 dev eth0" in world.namespaces.run(["ip", "neigh", "show", "nud", "all"])
    asker = world.console_host.endpoint()
    asker.send(art_poll())
    assert in_order([asker.receive().data for _ in range(4000)]) == in_order(replies(4000))


def test_the_257th_asker_gets_no_answer_and_one_line_tells(announcing):
    service = announcing(1000)
    throttle(service.world)
    host = service.world.network.peer("desks", [f"10.77.1.{number}" for number in range(1, 28)])
    askers = [endpoint for _ in range(10) for endpoint in host.endpoints(0)]
    lines = service.world.log.mark()
    for asker in askers:
        service.feed([art_poll()], asker)
    assert [endpoint.waiting() for endpoint in askers[256:]] == [[]] * 14
    assert service.world.log.entries(lines) == [
        (WARNING, "[Dump::process_art_poll] Too many askers wait for replies, others get none (limit:256)")
    ]


# Beside what is relayed


@pytest.mark.parametrize("count", [1024, 16384])
def test_an_answer_leaves_room_for_every_relayed_datagram(announcing, count):
    service = announcing(count)
    world = service.world
    throttle(world)
    asker, player = world.console_host.endpoint(), world.console_host.endpoint()
    lines = world.log.mark()
    asker.send(art_poll())
    # So many are in flight that the others wait for the cable.
    for _ in range(100):
        asker.receive()
    frame = [art_dmx(universe, bytes(512)) for universe in range(100)]
    world.appliance_process.send(*(relay(packet, player.address, player.port, world.manufacturer) for packet in frame))
    assert [player.receive().data for _ in frame] == frame
    assert world.log.entries(lines) == []


# Names


@pytest.mark.parametrize(
    "short_name, announced",
    [
        ("", b""),
        ("a" * 17, b"a" * 17),
        ("abcdefghijklmnopqr", b"abcdefghijklmnopq"),
        ("a" * 500, b"a" * 17),
        ("Bühne", "Bühne".encode()),
        ("a" * 16 + "ü", b"a" * 16 + b"\xc3"),
        ("🎭" * 5, "🎭".encode() * 4 + b"\xf0"),
        ("100%s %n %1", b"100%s %n %1"),
        ("zero\0inside", b"zero"),
    ],
    ids=["empty", "fits", "one too long", "far too long", "umlaut", "cut in a letter", "emoji", "formats", "zero"],
)
def test_the_short_name_is_cut_to_17_bytes(announcing, short_name, announced):
    service = announcing(2, brand={**BRAND, "short_name": short_name})
    assert ask(service.world.console, 2) == [reply(index, short_name=announced) for index in range(2)]


@pytest.mark.parametrize(
    "long_name, announced",
    [
        ("", b""),
        ("b" * 63, b"b" * 63),
        ("b" * 63 + "c", b"b" * 63),
        ("b" * 5000, b"b" * 63),
        ("ä" * 32, "ä".encode() * 31 + b"\xc3"),
        ('"quoted" \\ %1', b'"quoted" \\ %1'),
    ],
    ids=["empty", "fits", "one too long", "far too long", "cut in a letter", "quotes"],
)
def test_the_long_name_is_cut_to_63_bytes(announcing, long_name, announced):
    service = announcing(2, brand={**BRAND, "long_name": long_name})
    assert ask(service.world.console, 2) == [reply(index, long_name=announced) for index in range(2)]


# Beside a recording


def test_a_recording_goes_on_while_32768_replies_leave(announcing):
    service = announcing(32768, slow=SLOW_FOR_MANY)
    world = service.world
    path = world.path("cue")
    service.client.grab(path)
    sent = [art_dmx(1, slots({1: 1}))]
    service.feed(sent)
    asker = world.console_host.endpoint()
    drain = Drain(asker, 32768)
    asker.send(art_poll())
    while drain.running or len(sent) == 1:
        portion = [art_dmx(number % 32768, slots({1: number & 0xFF})) for number in range(len(sent), len(sent) + 20)]
        service.feed(portion)
        sent += portion
    assert in_order(drain.payloads()) == replies(32768)
    service.client.stop()
    assert Recording.read(path).datagrams == sent


def test_an_artpoll_is_never_recorded(announcing):
    service = announcing(60)
    path = service.world.path("cue")
    frames = [art_dmx(number, slots({1: number})) for number in range(10)]
    service.client.grab(path)
    for frame in frames:
        service.feed([frame])
        service.world.console.send(art_poll())
    assert Drain(service.world.console, 600).payloads() == replies(60) * 10
    service.client.stop()
    assert Recording.read(path).datagrams == frames
