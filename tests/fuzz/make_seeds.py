#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets: make_seeds.py DIRECTORY [CAPTURE...].

A CAPTURE is a file of datagrams, each after its size (16 bits, low byte first), in the order in which a console sent
them. Every seed is named after what it holds.
"""

import gzip
import json
import struct
import sys
import zlib
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "service"))

from harness.artnet import (  # noqa: E402  found through the path above
    art_dmx,
    art_poll,
    art_poll_reply,
    art_trigger,
    header,
    oem_vfps,
    oem_vfps_ns,
    relay,
    slots,
)

NODE = {
    "ip": "10.77.0.9",
    "port": 6454,
    "oem": 0x1234,
    "esta_man": 0x7FF0,
    "short_name": b"Dimmer \xe4 %3",
    "long_name": b'Dimmer "4" with four ports, unterminated'.ljust(64, b"."),
    "num_ports": 4,
    "port_types": bytes([0x80, 0x85, 0xC5, 0x40]),
    "sw_out": bytes([0, 1, 2, 3]),
    "net_switch": 1,
    "sub_switch": 2,
}
REPLY = art_poll_reply(**NODE)
DMX = art_dmx(0, slots({1: 1, 2: 0x37, 5: 255}))
SHORT_DMX = art_dmx(3, b"\x01\x37\x00\x00\xff")
TRIGGER = art_trigger(7, 3)

# Name -> datagrams in a row.
STREAMS = {
    "poll": [art_poll()],
    "reply": [REPLY],
    "reply_cut": [REPLY[:20], REPLY[:10], REPLY[:9], REPLY[:238]],
    "dmx": [DMX, SHORT_DMX, art_dmx(0x8005, bytes(2)), art_dmx(1, b"")],
    "dmx_lengths": [art_dmx(0, bytes(n), length=length) for n, length in
                    [(0, 1), (511, 511), (512, 512), (513, 513), (50, 100), (0, 65535), (1, 1), (600, 512)]],
    "trigger": [TRIGGER, art_trigger(255, 255, payload=b"")],
    "oem": [oem_vfps(), oem_vfps_ns(-1), oem_vfps_ns(1) + DMX],
    "unknown": [header(0x6000) + bytes(20), header(0x6000) + SHORT_DMX],
    "all_in_one": [art_poll() + SHORT_DMX + REPLY + TRIGGER + oem_vfps() + oem_vfps_ns(5) + DMX],
    "garbage_in_front": [b"x" * n + SHORT_DMX for n in (1, 7, 500, 511, 1000)],
    "no_back_off": [b"A" + SHORT_DMX, b"Art-Net" + SHORT_DMX],
    "cut_identifiers": [b"Art-Net\0"[:n] for n in range(9)],
    "over_the_refill": [bytes(512 - n) + SHORT_DMX for n in (1, 7, 8, 9, 10, 11, 17, 18, 19, 22, 23)],
    "stale_behind": [SHORT_DMX + SHORT_DMX + SHORT_DMX, b"short", SHORT_DMX, b"\0"],
    "stale_at_the_end": [bytes(490) + header(0x5000), art_poll(), b"x"],
    "stale_split": [b"12345-Net\0\x00\x50" + bytes(100), b"12Art", b"xx"],
    "recording": [SHORT_DMX + oem_vfps_ns(1000) + SHORT_DMX + oem_vfps_ns(2000) + DMX],
    "empty": [b"", b"\0", b"x" * 8191],
}


def parser_input(datagrams, callbacks=0):
    return bytes([callbacks]) + b"".join(struct.pack("<HB", len(each), 0) + each for each in datagrams)


# Steps of the service object, as its target reads them.
def number(value):
    return b"\x00" if value == -1 else b"\x20" + bytes([value]) if value < 256 else b"\x80" + struct.pack("<H", value)


def raw(datagram, who=0):
    return b"\x00" + struct.pack("<H", len(datagram)) + datagram + bytes([who])


GRAB, STOP, ASK = b"\x0b\x00", b"\x0d", b"\x0e"
CONTROL = b"\x0f" + number(1)
ACTION = b"\x10" + number(1) + number(2) + number(10)
RECORD = b"\x11" + number(5) + number(128)
ON, OFF = raw(art_dmx(0, slots({5: 128}, 5))), raw(art_dmx(0, slots({5: 127}, 5)))
CLOCK = b"\x14\xff\xff\xff\xff"


def node(key, text=b"n"):
    piece = bytes([len(text)]) + text
    return number(key) + piece + piece + number(5) + b"\x0810.0.0.9" + number(6454)


SERVICE = {
    "recording": GRAB + raw(SHORT_DMX) + CLOCK + raw(DMX) + raw(b"noise") + raw(DMX) + STOP + ASK,
    "armed": CONTROL + RECORD + GRAB + OFF + ON + raw(SHORT_DMX) + CLOCK + raw(DMX) + ON + OFF + ASK,
    "armed_twice": (CONTROL + RECORD + GRAB + ON + raw(SHORT_DMX) + OFF) * 2 + ASK,
    "last_packet_decides": CONTROL + RECORD + GRAB + ON + raw(SHORT_DMX + art_dmx(0, slots({5: 1}, 5)) + SHORT_DMX) + ASK,
    "stale_dmx": GRAB + raw(SHORT_DMX * 3) + raw(b"short") + raw(art_poll()) + raw(SHORT_DMX) + STOP + ASK,
    "triggers": CONTROL + ACTION + raw(DMX) + raw(TRIGGER) + GRAB + raw(DMX) + raw(TRIGGER) + STOP,
    "full_disk": b"\x0b\x06" + raw(DMX) * 3 + STOP + ASK + GRAB + raw(DMX) + STOP + ASK,
    "bad_files": b"\x0b\x03\x0b\x04\x0b\x05\x0b\x02" + raw(DMX) + STOP + ASK,
    "settings": b"".join(b"\x0f" + bytes([n]) + b"\x10" + bytes([n] * 3) + b"\x11" + bytes([n] * 2) for n in range(14)),
    "polls": raw(art_poll()) + b"\x15\x01\x04" + raw(art_poll(), 1) + b"\x15\x00\xff" * 9 + raw(art_poll() * 3),
    "detection": b"\x13\x00" + raw(REPLY) + raw(REPLY) + b"\x13\x02\x13\x00" + raw(REPLY) + b"\x13\x02\x13\x07"
                 + b"\x13\x00\x13\x02\x13\x04\x00\x13\x05\x13\x00" + raw(REPLY) + b"\x13\x02\x13\x06",
    "manual": b"\x12\x00" + node(1) + b"\x12\x00" + node(1) + b"\x12\x03" + node(1, b"%1;%3") + b"\x12\x04" + number(1)
              + b"\x12\x07\x02" + node(7) + node(7) + b"\x12\x06",
    "relay": raw(relay(b"payload", "10.0.0.7", 6454), 244) + raw(relay(b"", "10.0.0.7", 6454), 244)
             + raw(relay(b"x", b"255.255.255.255x", 1024), 244),
    "own_datagram": GRAB + raw(DMX, 243) + raw(DMX) + STOP,
}

BRANDS = {
    "full": json.dumps({"short_name": "Rec", "long_name": "Recorder of the house", "manufacturer": "T", "model": "K",
                        "oem_id": 8465, "manufacturer_id": "32752", "modules": ["recorder", 5, "player"]}),
    "odd": '{"short_name": 1e999, "long_name": null, "oem_id": "0x21", "manufacturer_id": -1, "modules": {}}',
    "half_numbers": '{"oem_id": 8465.9, "manufacturer_id": 2147483648, "modules": [[], "a", "", "b"]}',
    "array": '["short_name"]',
    "broken": '{"short_name": "',
    "unicode": '{"short_name": "\\ud83d\\ude00 \u00fc", "long_name": "a\\u0000b", "oem_id": "65537"}',
}

RELAYS = {
    "plain": (0x7FF0, relay(b"payload", "10.0.0.7", 6454, 0x7FF0)),
    "shortest": (0, relay(b"x", "255.255.255.255", 65535)),
    "no_payload": (0, relay(b"", "10.0.0.7", 6454)),
    "unterminated": (0, relay(b"x", b"1" * 16, 1023)),
    "loopback": (0, relay(b"x", "127.0.0.1", 1024)),
    "other_maker": (1, relay(b"x", "10.0.0.7", -1)),
    "empty": (0, b""),
}


def fseq(plain, version=2, channels=4, step=25, compression=0, blocks=(), ranges=(), variables=b"", data=None):
    """An FSEQ file of frames, `data` being what they are compressed to."""
    tables = b"".join(struct.pack("<II", *block) for block in blocks)
    tables += b"".join(struct.pack("<I", first)[:3] + struct.pack("<I", count)[:3] for first, count in ranges)
    fixed = 28 if version == 1 else 32
    size = (fixed + len(tables) + len(variables) + 3) // 4 * 4
    head = b"PSEQ" + struct.pack("<HBBHIIBB", size, 0, version, fixed + len(tables), channels, len(plain) // channels, step, 0)
    if version == 1:
        head += bytes(4) + b"\1\2\0\0"
    else:
        head += struct.pack("BBBB8s", compression, len(blocks), len(ranges), 0, b"identify")
    return (head + tables + variables).ljust(size, b"\0") + (plain if data is None else data)


def zstd_stored(plain):
    """A frame of zstd (RFC 8878) without its size: a window of 1 KiB, then one block as it is."""
    return b"\x28\xb5\x2f\xfd\0\0" + struct.pack("<I", len(plain) << 3 | 1)[:3] + plain


PLAIN = bytes(range(40))
ZSTD_REPEATED = b"\x28\xb5\x2f\xfd\0\0" + struct.pack("<I", 40 << 3 | 3)[:3] + b"x"
HALVES = [zlib.compress(PLAIN[:16]), zlib.compress(PLAIN[16:])]
FSEQ = {
    "version_1": fseq(PLAIN, version=1),
    "old_magic": b"F" + fseq(PLAIN, version=1)[1:],
    "version_2": fseq(PLAIN),
    "universes": fseq(bytes(range(256)) * 8, channels=1024),
    "ranges": fseq(PLAIN, ranges=[(510, 3), (0, 1)]),
    "variables": fseq(PLAIN, variables=b"\x08\0sp" + b"me!\0" + bytes(4) + b"\x0a\0mfa.mp3"),
    "zlib": fseq(PLAIN, compression=2, data=zlib.compress(PLAIN)),
    "zlib_blocks": fseq(PLAIN, compression=2, blocks=[(0, len(HALVES[0])), (0, 0), (4, len(HALVES[1]))], data=b"".join(HALVES)),
    "zlib_stored_first": fseq(PLAIN, compression=2, blocks=[(0, 16), (4, len(HALVES[1]))], data=PLAIN[:16] + HALVES[1]),
    "zstd": fseq(PLAIN, compression=1, data=zstd_stored(PLAIN)),
    "zstd_blocks": fseq(PLAIN, compression=1, blocks=[(0, 25), (4, 33)], data=zstd_stored(PLAIN[:16]) + zstd_stored(PLAIN[16:])),
    "zstd_repeated": fseq(PLAIN, compression=1, data=ZSTD_REPEATED),
    "cut_off": fseq(PLAIN)[:-3],
}

OLA_SHOWS = {
    "version_1": b"OLA Show\n1 0,1,255\n25\n2 7\n0\n1 1\n",
    "version_2": b"OLA Show V2\n1 0,1,255\n0 25\n2 7\n1 0\n1 1\n",
    "microseconds": b"OLA Show V2\n1 0\n0 500000\n1 2\n2 000\n1 3\n",
    "line_ends": b"OLA Show\r\n1 0,,255\r\n 25 \r\n\r\n2 \r\n3\r\n",
    "other_universes": b"OLA Show\n0 1\n1\n65536 2\n1\n65537 3\n",
    "full": b"OLA Show\n1 " + b",".join([b"255"] * 512) + b"\n1\n1 " + b",".join([b"0"] * 513),
    "broken": b"OLA Show\n1 1\n1\n1 256\n",
}


def udp_frame(payload, port=6454, place=0, id=0):
    datagram = struct.pack(">HHHH", 40000, port, 8 + len(payload), 0) + payload if place & 0x1FFF == 0 else payload
    packet = struct.pack(">BBHHHBBH8B", 0x45, 0, 20 + len(datagram), id, place, 64, 17, 0, 10, 0, 0, 1, 10, 0, 0, 2)
    return bytes(12) + b"\x08\x00" + packet + datagram


def fragments(payload, at):
    """Two frames; the second begins @p at bytes into the IPv4 payload."""
    whole = udp_frame(payload)
    first, second = whole[: 34 + at], whole[:34] + whole[34 + at :]
    return [
        each[:16] + struct.pack(">HHH", len(each) - 14, 7, place) + each[22:]
        for each, place in ((first, 0x2000), (second, at // 8))
    ]


def sacn(levels, universe=1, sequence=1, options=0, start_code=0):
    layer = lambda of: struct.pack(">H", 0x7000 | 2 + len(of)) + of  # noqa: E731  three times in one expression
    values = bytes([start_code]) + levels
    dmp = layer(b"\x02\xa1\0\0\0\1" + struct.pack(">H", len(values)) + values)
    framing = layer(
        b"\0\0\0\2" + b"desk".ljust(64, b"\0") + struct.pack(">BHBBH", 100, 0, sequence, options, universe) + dmp
    )
    return b"\0\x10\0\0ASC-E1.17\0\0\0" + layer(b"\0\0\0\4" + b"C" * 16 + framing)


def pcap(frames, link_type=1):
    head = struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 262144, link_type)
    return head + b"".join(
        struct.pack("<IIII", time, 7, len(each), len(each)) + each for time, each in enumerate(frames)
    )


def block(kind, body, order="<"):
    body += bytes(-len(body) % 4)
    size = struct.pack(order + "I", 12 + len(body))
    return struct.pack(order + "I", kind) + size + body + size


def pcapng(frames, order="<"):
    """Frames in all three kinds of blocks, of two interfaces."""
    def fields(codes, *values):
        return struct.pack(order + codes, *values)

    blocks = [
        block(0x0A0D0D0A, fields("IHHq", 0x1A2B3C4D, 1, 0, -1), order),
        block(1, fields("HHI", 1, 0, 0) + fields("HHB3xHHqHH", 9, 1, 0x9E, 14, 8, -5, 0, 0), order),
        block(1, fields("HHI", 101, 0, 0), order),
    ]
    for time, each in enumerate(frames):
        size = len(each)
        blocks += [
            block(6, fields("IIIII", 0, 0, time, size, size) + each, order),
            block(2, fields("HHIIII", 1, 0, 0, time, size - 14, size - 14) + each[14:], order),
            block(3, fields("I", size) + each, order),
        ]
    return b"".join(blocks)


SACN = [sacn(b"\1\2\3", 1, 254), sacn(b"\4", 1, 255), sacn(bytes(512), 32768), sacn(b"x", 1, 0, 0x40), sacn(b"x", 1, 0, 0, 1)]
CAPTURES = {
    "artnet": pcap([udp_frame(SHORT_DMX), udp_frame(DMX), udp_frame(art_poll())]),
    "sacn": pcap([udp_frame(each, 5568) for each in SACN]),
    "fragments": pcap([*fragments(SHORT_DMX, 16), *reversed(fragments(DMX, 200)), fragments(DMX, 8)[0]]),
    "raw": pcap([udp_frame(SHORT_DMX)[14:]], 101),
    "sll_vlan": pcap([bytes(14) + b"\x81\0\0\5\x08\0" + udp_frame(SHORT_DMX)[14:]], 113),
    "ppp": pcap([b"\xff\3\0\x21" + udp_frame(SHORT_DMX)[14:]], 9),
    "pcapng": pcapng([udp_frame(SHORT_DMX), udp_frame(SACN[0], 5568)]),
    "pcapng_big_endian": pcapng([udp_frame(SHORT_DMX)], ">"),
    "gzip": gzip.compress(pcap([udp_frame(SHORT_DMX)]), mtime=0),
    "empty": b"",
}


def traffic_raw(*payloads):
    """Datagrams of 10.0.0.1 and others, 25 ms after each other, and a look at the figures."""
    return b"".join(b"\0\x19" + struct.pack("<H", len(each)) + each + b"\1" for each in payloads) + b"\5\0"


def traffic_dmx(universe, sequence, pause=25, sender=1):
    return bytes([1, pause, universe, sequence, 4, 0, 4, 1, 2, 3, 255, sender])


def traffic_sacn(cid, sequence, priority=100, options=0):
    return bytes([2, 25, cid, 4]) + b"desk" + bytes([priority, 0, sequence, options, 200, 0, 255, 1])


TRAFFIC = {
    "packets": traffic_raw(DMX, SHORT_DMX, art_poll(), REPLY, header(0x5200), TRIGGER, *SACN, b"junk", b"Art-Net"),
    "counted": b"".join(traffic_dmx(1, number) for number in (254, 255, 1, 2, 5, 4, 6)) + b"\5\0",
    "from_zero": b"".join(traffic_dmx(1, number) for number in (254, 255, 0, 1, 2, 3)) + b"\5\0",
    "shared": b"".join(traffic_dmx(i % 3, 1 + i, 8) for i in range(60)) + b"\5\0",
    "two_senders": b"".join(traffic_dmx(1, 1 + i, 10, 1 + i % 2) for i in range(40)) + b"\5\0",
    "two_counts": b"".join(traffic_dmx(1, 1 + i // 2 + i % 2 * 128, 10) for i in range(60)) + b"\5\0",
    "sacn": b"".join(traffic_sacn(i % 2, 250 + i // 2, 100 + i % 4 // 3) for i in range(10)) + b"\5\0",
    "sacn_not_live": b"".join(traffic_sacn(0, number, 100, (0, 7, 201, 6)[number]) for number in range(4)) + b"\5\0",
    "names": b"".join(
        b"\3\0\1" + name.ljust(18, b"\0") + b"\0\1" for name in (b"Dimmer \xe4", b"\x1b[2J", b"\xe2\x80\xae")
    ) + traffic_dmx(0, 1) + b"\5\0",
    "flood": b"".join(b"\4\0" + struct.pack("<HH", 512, 512 * i) for i in range(9)) + b"\5\0",
    "times": b"".join(
        bytes([1, jump, bound]) + traffic_dmx(1, 1)[2:] for jump in (128, 240, 250) for bound in range(14)
    ) + b"\5\0",
}


def portions(content, seed=1, largest=40):
    return struct.pack("<HH", seed, largest - 1) + content


FULL = art_dmx(0, bytes(range(256)) * 2)

GROWING = {
    "lone_universe": portions(oem_vfps_ns(5).join([SHORT_DMX] * 4), largest=18),
    "full_frames": portions(oem_vfps_ns(22_727_272).join([FULL] * 6), largest=600),
    "padding": portions(oem_vfps_ns(1).join([SHORT_DMX + b"\0", SHORT_DMX.ljust(530, b"x"), SHORT_DMX + bytes(3)])),
    "several_packets": portions(oem_vfps_ns(1).join([SHORT_DMX * 2, art_poll() + SHORT_DMX, SHORT_DMX + REPLY])),
    "delay_in_slots": portions(oem_vfps_ns(3).join([art_dmx(0, oem_vfps_ns(5) + SHORT_DMX)] * 3), largest=1),
    "damage": portions(SHORT_DMX + b"x" + oem_vfps_ns(2) + SHORT_DMX + oem_vfps_ns(-2) + FULL + bytes(9) + FULL),
    "garbage": portions(SHORT_DMX + bytes(20_000) + oem_vfps_ns(2) + SHORT_DMX + oem_vfps_ns(2) + SHORT_DMX, largest=5000),
    "cut_off": portions(SHORT_DMX + oem_vfps_ns(2)),
    "empty": b"",
}


def captured(path):
    content, datagrams = path.read_bytes(), []
    while content:
        (size,) = struct.unpack_from("<H", content)
        datagrams.append(content[2 : 2 + size])
        content = content[2 + size :]
    return datagrams


def main():
    top = Path(sys.argv[1])
    captures = {Path(name).stem: captured(Path(name)) for name in sys.argv[2:]}
    inputs = {
        "parser": {name: parser_input(each) for name, each in {**STREAMS, **captures}.items()},
        "receive": {name: b"\x01" + steps for name, steps in SERVICE.items()},
        "brand": {name: text.encode() for name, text in BRANDS.items()},
        "follower": GROWING,
        "capture": {name: b"\0" + content for name, content in CAPTURES.items()},
        "fseq": FSEQ,
        "ola_show": OLA_SHOWS,
        "traffic": TRAFFIC,
        "relay": {name: struct.pack("<H", maker) + datagram for name, (maker, datagram) in RELAYS.items()},
    }
    for name, datagrams in captures.items():
        inputs["receive"][name] = b"\x00" + GRAB + b"".join(raw(each) + CLOCK for each in datagrams) + STOP + ASK
    for target, seeds in inputs.items():
        (top / target).mkdir(parents=True, exist_ok=True)
        for name, content in seeds.items():
            (top / target / name).write_bytes(content)


main()
