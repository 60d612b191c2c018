"""Art-Net packets, built and read byte by byte (Art-Net 4)."""

import socket
import struct

IDENTIFIER = b"Art-Net\0"
OP_POLL = 0x2000
OP_POLL_REPLY = 0x2100
OP_DMX = 0x5000
OP_TRIGGER = 0x9900
OP_OEM_VFPS = 0x00FF
OP_OEM_VFPS_NS = 0x00FE
PROTOCOL_VERSION = 14
DMX_HEADER = 18
SLOTS = 512


def header(opcode):
    return IDENTIFIER + struct.pack("<H", opcode)


def art_dmx(port_address=0, data=b"\x00\x00", *, sequence=0, physical=0, length=None, version=PROTOCOL_VERSION):
    """An ArtDmx. `port_address` is 16 bits (Net byte high); `length` is for a length field that lies about the data."""
    data = bytes(data)
    return (
        header(OP_DMX)
        + struct.pack(">H", version)
        + bytes([sequence, physical])
        + struct.pack("<H", port_address)
        + struct.pack(">H", len(data) if length is None else length)
        + data
    )


def slots(channels, length=SLOTS):
    """DMX slot values from {channel (1-based): value}, all others 0."""
    data = bytearray(length)
    for channel, value in channels.items():
        data[channel - 1] = value
    return bytes(data)


def art_trigger(key, sub_key, *, oem=0xFFFF, version=PROTOCOL_VERSION, payload=bytes(SLOTS)):
    return header(OP_TRIGGER) + struct.pack(">HHHBB", version, 0, oem, key, sub_key) + payload


def art_poll(*, flags=0x02, priority=0x10, version=PROTOCOL_VERSION):
    return header(OP_POLL) + struct.pack(">HBB", version, flags, priority)


def oem_vfps(payload=bytes(4)):
    return header(OP_OEM_VFPS) + payload


def oem_vfps_ns(nanoseconds):
    return header(OP_OEM_VFPS_NS) + struct.pack("<q", nanoseconds)


# Fields of an ArtPollReply after the header: name, struct format.
_POLL_REPLY = (
    ("ip", "4s"),
    ("port", "<H"),
    ("vers_info", ">H"),
    ("net_switch", "B"),
    ("sub_switch", "B"),
    ("oem", ">H"),
    ("ubea_version", "B"),
    ("status1", "B"),
    ("esta_man", "<H"),
    ("short_name", "18s"),
    ("long_name", "64s"),
    ("node_report", "64s"),
    ("num_ports", ">H"),
    ("port_types", "4s"),
    ("good_input", "4s"),
    ("good_output", "4s"),
    ("sw_in", "4s"),
    ("sw_out", "4s"),
    ("sw_video", "B"),
    ("sw_macro", "B"),
    ("sw_remote", "B"),
    ("spare", "3s"),
    ("style", "B"),
    ("mac", "6s"),
    ("bind_ip", "4s"),
    ("bind_index", "B"),
    ("status2", "B"),
    ("filler", "26s"),
)
POLL_REPLY_SIZE = 239


def art_poll_reply(**fields):
    """An ArtPollReply of 239 bytes; fields that are not given are 0.

    Texts and lists of port bytes are bytes, `ip` and `bind_ip` may be dotted text.
    """
    packet = header(OP_POLL_REPLY)
    for name, form in _POLL_REPLY:
        value = fields.pop(name, b"" if form.endswith("s") else 0)
        if form == "4s" and isinstance(value, str):
            value = socket.inet_aton(value)
        packet += struct.pack(form, value)
    assert not fields, f"no such fields: {sorted(fields)}"
    assert len(packet) == POLL_REPLY_SIZE
    return packet


def read_poll_reply(packet):
    """The fields of a 239-byte ArtPollReply as a dictionary."""
    assert packet[:10] == header(OP_POLL_REPLY) and len(packet) == POLL_REPLY_SIZE, packet
    fields, offset = {}, 10
    for name, form in _POLL_REPLY:
        (fields[name],) = struct.unpack_from(form, packet, offset)
        offset += struct.calcsize(form)
    return fields


def opcode_of(packet):
    """The OpCode of a packet that begins with an Art-Net header, else None."""
    if len(packet) < 10 or packet[:8] != IDENTIFIER:
        return None
    return struct.unpack_from("<H", packet, 8)[0]


def port_address_of(dmx):
    return struct.unpack_from("<H", dmx, 14)[0]


def dmx_data(dmx):
    (length,) = struct.unpack_from(">H", dmx, 16)
    return dmx[DMX_HEADER : DMX_HEADER + length]


def relay(payload, address, port, manufacturer=0):
    """A datagram by which a local process asks the service to send `payload` from the Art-Net port."""
    text = address.encode() if isinstance(address, str) else address
    assert len(text) <= 16
    return struct.pack("<I16si", manufacturer, text, port) + payload
