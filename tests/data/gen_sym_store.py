#!/usr/bin/env python3
"""Writes sym_store_cases.json: store entry files (ol/store.h) built here with struct and
zlib.crc32, independently of the library, for the store tests.

Entry file: b"olm1", id (u32 LE), payload length (u32 LE), payload, CRC-32 of all before it
(u32 LE). Payload: fields in ascending id order, each id (u32 LE), kind (u8), value length
(u32 LE), value. Kinds: 1 bool (one byte 0/1), 2 u32 (LE), 3 raw, 4 string, 5 string array
(each item a u32 LE length and its bytes)."""
import json
import os
import struct
import zlib


def field(fid, kind, value):
    return struct.pack("<IBI", fid, kind, len(value)) + value


def entry(eid, payload, length=None):
    head = b"olm1" + struct.pack("<II", eid, len(payload) if length is None else length) + payload
    return head + struct.pack("<I", zlib.crc32(head))


def strings(*items):
    return b"".join(struct.pack("<I", len(s)) + s for s in items)


# u32 7 = 0x362B90, bool 0x0C = true, string array 0x20 = {"x", ""}, string 0x71 = "a",
# raw 0x81 = 00 ff: one field of every kind.
EVERY_KIND = (field(7, 2, struct.pack("<I", 0x362B90)) + field(0x0C, 1, b"\x01") +
              field(0x20, 5, strings(b"x", b"")) + field(0x71, 4, b"a") + field(0x81, 3, b"\x00\xff"))


def flip(data, at):
    b = bytearray(data)
    b[at] ^= 1
    return bytes(b)


good = entry(2, EVERY_KIND)


def u32zero(fid):
    return field(fid, 2, b"\0\0\0\0")


corrupt = [
    ("empty", b"", "truncated"),
    ("short magic", good[:3], "truncated"),
    ("short header", good[:10], "truncated"),
    ("short payload", good[:20], "truncated"),
    ("no checksum", good[:-1], "truncated"),
    ("magic", flip(good, 0), "bad magic"),
    ("length", flip(good, 8), "truncated"),
    ("trailing byte", good + b"\0", "bad length"),
    ("payload bit", flip(good, 30), "bad checksum"),
    ("checksum bit", flip(good, len(good) - 1), "bad checksum"),
    ("id", entry(3, EVERY_KIND), "wrong id"),
    ("kind 9", entry(2, field(1, 9, b"")), "bad fields"),
    ("bool 2", entry(2, field(1, 1, b"\x02")), "bad fields"),
    ("u32 of 3", entry(2, field(1, 2, b"\0\0\0")), "bad fields"),
    ("id twice", entry(2, u32zero(2) + u32zero(2)), "bad fields"),
    ("ids falling", entry(2, u32zero(3) + u32zero(2)), "bad fields"),
    ("array item overrun", entry(2, field(1, 5, struct.pack("<I", 5) + b"ab")), "bad fields"),
    ("field cut", entry(2, u32zero(1) + b"\x05\x00"), "bad fields"),
]
out = {
    "note": "Written by gen_sym_store.py (struct + zlib.crc32). everyKind is entry 0x2A holding one field "
            "of every kind; corrupt lists damaged files for entry 2 with the fault the store reports.",
    "everyKind": entry(0x2A, EVERY_KIND).hex(),
    "corrupt": [[name, data.hex(), fault] for name, data, fault in corrupt],
}
with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "sym_store_cases.json"), "w") as f:
    json.dump(out, f, indent=1)
    f.write("\n")
