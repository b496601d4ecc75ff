#!/usr/bin/env python3
"""Draws an ADD_TUPLES request byte by byte, as SVG, with the numbers of the protocol header.

    docs/draw_tuple_request.py > docs/tuple_request.svg
"""

import pathlib
import re
import struct
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
HEADER = (ROOT / "kernel_interface/tavik_wlan.h").read_text()

# Of linux/netlink.h.
NLM_F_REQUEST = 1
NLM_F_ACK = 4
NLA_F_NESTED = 0x8000

FAMILY_ID = 28  # handed out by the kernel, such as this
SEQUENCE = 7

CELL, ROW, LEFT, TOP = 46, 30, 250, 70
LEVEL_COLOURS = ["#e8eef7", "#dcebd9", "#fbeecb", "#f6dccb"]


def number(name):
    """The value of an enumerator or a macro of the header."""
    match = re.search(rf"\b{name}\b(?: =)? (\d+)", HEADER)
    if not match:
        sys.exit(f"draw_tuple_request: {name} is not in the header")
    return int(match.group(1))


class Message:
    """A message under construction: its bytes and what the picture says about them."""

    def __init__(self):
        self.data = bytearray()
        self.fields = []  # (offset, size, level, label)
        self.spans = []  # (start, end, level, label)

    def put(self, layout, value, level, label):
        self.fields.append((len(self.data), struct.calcsize(layout), level, label))
        self.data += struct.pack(layout, value)

    def put_attribute(self, kind, level, name, put_payload):
        start = len(self.data)
        self.put("<H", 0, level, "nla_len")
        self.put("<H", kind, level, f"nla_type {name}")
        put_payload()
        struct.pack_into("<H", self.data, start, len(self.data) - start)
        self.spans.append((start, len(self.data), level, name))


def tuple_request(tuples):
    message = Message()
    message.put("<I", 0, 0, "nlmsg_len")
    message.put("<H", FAMILY_ID, 0, "nlmsg_type: family id")
    message.put("<H", NLM_F_REQUEST | NLM_F_ACK, 0, "nlmsg_flags: REQUEST, ACK")
    message.put("<I", SEQUENCE, 0, "nlmsg_seq")
    message.put("<I", 0, 0, "nlmsg_pid")
    message.put("B", number("TAVIK_WLAN_CMD_ADD_TUPLES"), 0, "cmd ADD_TUPLES")
    message.put("B", number("TAVIK_WLAN_FAMILY_VERSION"), 0, "version")
    message.put("<H", 0, 0, "reserved")

    def put_tuple(port, ip_proto, trans_proto):
        message.put(">H", port, 3, f"port {port}, network byte order")
        message.put(">H", 0, 3, "0 (an SPI has all four bytes)")
        message.put("B", number(f"TAVIK_WLAN_IP_PROTO_{ip_proto}"), 3, f"ip_proto {ip_proto}")
        message.put("B", number(f"TAVIK_WLAN_TRANS_PROTO_{trans_proto}"), 3,
                    f"trans_proto {trans_proto}")
        message.put("<H", 0, 3, "reserved, 0")

    def put_element(key):
        kind = number("TAVIK_WLAN_TUPLE_ATTR")
        message.put_attribute(kind, 3, "TUPLE_ATTR", lambda: put_tuple(*key))

    def put_elements():
        for key in tuples:
            kind = number("TAVIK_WLAN_TUPLE_ELEMENT") | NLA_F_NESTED
            message.put_attribute(kind, 2, "TUPLE_ELEMENT", lambda key=key: put_element(key))

    kind = number("TAVIK_WLAN_ATTR_TUPLES") | NLA_F_NESTED
    message.put_attribute(kind, 1, "TUPLES", put_elements)
    struct.pack_into("<I", message.data, 0, len(message.data))
    return message


def text(x, y, content, anchor="start", size=13, family="sans-serif"):
    return (f'<text x="{x}" y="{y}" text-anchor="{anchor}" font-size="{size}" '
            f'font-family="{family}">{content}</text>')


def draw_field(message, offset, size, level, label):
    """The cells of a field; they never cross a row of four bytes."""
    y = TOP + offset // 4 * ROW
    for i in range(offset, offset + size):
        x = LEFT + i % 4 * CELL
        yield (f'<rect x="{x}" y="{y}" width="{CELL}" height="{ROW}" '
               f'fill="{LEVEL_COLOURS[level]}" stroke="#bbb"/>')
        yield text(x + CELL / 2, y + 20, f"{message.data[i]:02x}", "middle", family="monospace")
    x = LEFT + offset % 4 * CELL
    yield (f'<rect x="{x}" y="{y}" width="{size * CELL}" height="{ROW}" fill="none" '
           f'stroke="#333"/>')


def draw_labels(message):
    for row in range(0, len(message.data), 4):
        labels = [label for offset, _, _, label in message.fields if offset // 4 * 4 == row]
        y = TOP + row // 4 * ROW + 20
        yield text(LEFT - 14, y, row, "end", family="monospace")
        yield text(LEFT + 4 * CELL + 12, y, " · ".join(labels))


def draw_spans(message):
    for start, end, level, label in message.spans:
        x, top, bottom = 20 + level * 50, TOP + start // 4 * ROW + 3, TOP + end // 4 * ROW - 3
        yield (f'<path d="M{x + 8} {top} H{x} V{bottom} H{x + 8}" fill="none" stroke="#333"/>')
        middle = (top + bottom) / 2
        yield (f'<g transform="rotate(-90 {x - 6} {middle})">'
               + text(x - 6, middle, label, "middle", size=10) + "</g>")


def svg(message):
    width, height = LEFT + 4 * CELL + 470, TOP + len(message.data) // 4 * ROW + 20
    yield (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
           f'width="{width}" height="{height}">')
    yield '<rect width="100%" height="100%" fill="white"/>'
    yield text(20, 30, f"ADD_TUPLES with two tuples, {len(message.data)} bytes", size=16)
    yield text(20, 50, "Netlink headers and attribute headers in host byte order, here little-endian",
               size=12)
    for field in message.fields:
        yield from draw_field(message, *field)
    yield from draw_labels(message)
    yield from draw_spans(message)
    yield "</svg>"


def main():
    message = tuple_request([(443, "IPV4", "TCP"), (4500, "IPV6", "UDP")])
    print("\n".join(svg(message)))


if __name__ == "__main__":
    main()
