#!/usr/bin/env python3
"""Writes parse_cases.json: the edge-case tables of the DER, time, Base64, IP address and name
tests. Where Python can compute an answer (DER lengths and integers, seconds since the epoch,
the ASN.1 time text) it does, so those tables check against an outside oracle; the rest are
hand-picked inputs with the verdicts this library gives them. Run it from this folder.
"""
import calendar
import ipaddress
import datetime
import json

cases = {}

# Every element of one level as "tag:content-hex", ending in "end" or "error".
cases["derWalk"] = [
    ["", "end"],
    ["020101", "2:01 end"],
    ["0500", "5: end"],
    ["3003020105040100", "30:020105 4:00 end"],
    ["308103020105", "30:020105 end"],  # non-minimal long form accepted
    ["30820003020105", "30:020105 end"],
    ["3080020105", "error"],  # indefinite length
    ["3085000000000302", "error"],  # five length bytes
    ["0201", "error"],  # length larger than what remains
    ["020201", "error"],
    ["02", "error"],  # no length byte
    ["3081", "error"],  # long form without its bytes
    ["0201050201", "2:05 error"],  # good element, then truncation
    ["bf1f0100", "bf1f:00 end"],  # high tag number: identifier bytes kept
    ["9f8101020a0b", "9f0101:0a0b end"],
    ["1f", "error"],  # high tag form cut short
    ["1fffffffff7f00", "error"],  # identifier longer than 32 bits
    ["048401000000", "error"],  # 16 MiB claimed, nothing there
    ["0484ff00000000", "error"],  # length beyond 32 bits' worth
]


def der_length(n):
    if n < 128:
        return bytes([n])
    body = n.to_bytes((n.bit_length() + 7) // 8, "big")
    return bytes([0x80 | len(body)]) + body


def der_uint(v):
    """The minimal two's-complement content of a non-negative integer."""
    return v.to_bytes(v.bit_length() // 8 + 1, "big")


cases["derLengths"] = [[n, (b"\x30" + der_length(n)).hex()] for n in [0, 127, 128, 200, 255, 256, 300, 65536]]
cases["derUInt"] = [[v, der_uint(v).hex()] for v in [0, 1, 127, 128, 255, 256, 0x1234, 0x800000, 0xFFFFFFFF]]
cases["derBigInt"] = [
    [h, (b"\x02" + der_length(len(der_uint(int(h or "0", 16)))) + der_uint(int(h or "0", 16))).hex()]
    for h in ["", "01", "7f", "80", "0100", "ffffffffff", "00000080"]
]
cases["oidNames"] = [
    ["2a864886f70d01010b", "SHA256+RSA"],
    ["2a864886f70d010104", "MD5+RSA"],
    ["2a8648ce3d040302", "SHA256+ECDSA"],
    ["2a8648ce3d0401", "SHA1+ECDSA"],
    ["2b6570", "ED25519"],
    ["2b6571", "ED448"],
    ["2a864886f70d01010e", "1.2.840.113549.1.1.14"],  # SHA-224 with RSA has no name, on purpose
    ["550403", "2.5.4.3"],
    ["8837", "3.16.55"],  # first byte divided as it stands
    ["2a864886f70d01010b00", "1.2.840.113549.1.1.11.0"],
]

NO_EXPIRY = 0x7FFFFFFFFFFFFFFF  # kept for certificates that never expire


def seconds(*fields):
    return calendar.timegm(fields + (0,) * (6 - len(fields)))


UTC, GEN = 23, 24
cases["timeParse"] = [
    [UTC, "700101000000Z", seconds(1970, 1, 1)],
    [UTC, "500101000000Z", seconds(1950, 1, 1)],  # the first UTCTime year
    [UTC, "491231235959Z", seconds(2049, 12, 31, 23, 59, 59)],  # the last
    [GEN, "20500101000000Z", seconds(2050, 1, 1)],
    [GEN, "20200101000000.123Z", seconds(2020, 1, 1)],  # fraction dropped
    [GEN, "20380119031408Z", seconds(2038, 1, 19, 3, 14, 8)],  # past 32-bit time_t
    [GEN, "99991231235959Z", NO_EXPIRY],
    [GEN, "200101000000Z", seconds(20, 1, 1)],  # 12 digits: no century, so the year 0020
    [UTC, "4912312359Z", None],  # seconds are mandatory
    [UTC, "491231235959+0100", None],  # offsets are refused
    [GEN, "20200101000000+0000", None],
    [GEN, "20200101000000.Z", None],
    [GEN, "20200101000000", None],  # no zone
    [UTC, "49123123595Z", None],
    [UTC, "491231235959.5Z", None],  # fractions only in GeneralizedTime
    [UTC, "", None],
    [GEN, "2020010100000000Z", None],  # eight pairs
]


def asn1_time(s):
    """UTCTime for the years 1950 to 2049, GeneralizedTime otherwise."""
    t = datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=s)
    if 1950 <= t.year <= 2049:
        return [s, UTC, t.strftime("%y%m%d%H%M%SZ")]
    return [s, GEN, "%04d%s" % (t.year, t.strftime("%m%d%H%M%SZ"))]


cases["timeWrite"] = [asn1_time(s) for s in [seconds(2049, 12, 31, 23, 59, 59), seconds(2050, 1, 1),
                                             seconds(1950, 1, 1), seconds(1950, 1, 1) - 1, 0,
                                             seconds(9999, 12, 31, 23, 59, 59)]]
cases["timeWrite"].append([NO_EXPIRY, GEN, "99991231235959Z"])

cases["base64Bad"] = [
    "QQ", "QQ=", "QUJD=",  # truncated: not a multiple of four
    "Q===", "====", "QQ==QQ==", "Q=Q=",  # padding in the wrong place or too much
    "QU JD", "QUJD\n", "QU*D", "QUJD QUJD",  # characters outside the alphabet
]

# Parsed, then compared with inet_pton and inet_ntop.
cases["ipv6Texts"] = ["::", "::1", "1::", "2001:db8::1", "2001:db8:0:0:1:0:0:1", "fe80::1:2:3:4",
                      "1:2:3:4:5:6:7:8", "1:0:3:4:5:6:7:8", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
                      "2001:DB8::ABCD", "0:0:1:0:0:0:1:0", "1:0:0:2:0:0:0:3", "::ffff:0:1",
                      "::ffff:192.0.2.33", "64:ff9b::1.2.3.4"]
cases["ipBad"] = ["", "1", "1.2.3", "1.2.3.4.5", "256.1.1.1", "01.2.3.4", "1.2.3.4 ", " ::1", ":::", "1::2::3",
                  "1:2:3:4:5:6:7:8:9", "12345::", ":1:2:3:4:5:6:7", "1:2:3:4:5:6:7:", "fe80::1%eth0", "::g",
                  "1:2:3:4:5:6:7::8", "::1.2.3", "1.2.3.4::", "::1.2.3.4:5"]

# DER, parse verdict, type and "typeStr: dataStr".
cases["generalNames"] = [
    ["820b6578616d706c652e6f7267", True, 2, "DNS: example.org"],
    ["8704c0000221", True, 7, "IP: 192.0.2.33"],
    ["871020010db8000000000000000000000001", True, 7, "IP: 2001:db8::1"],
    ["87050102030405", False, 7, "IP: ::"],
    ["8103612e62", True, 1, "rfc822: a.b"],
    ["a4023000", True, 4, "Name: \x30\x00"],
    ["", True, 0, "other: "],  # nothing there: the end tag's low bits
    ["8205", True, 1, "rfc822: "],  # malformed: the error tag's low bits
]
cases["badNames"] = ["", "3100", "3003310100",  # a SET without its SEQUENCE
                     "300531033001",  # truncated
                     "30073105300302012a"]  # a value but no OID

# BIT STRING contents: the unused-bits count must be 0 (the bytes after it) or the content is refused.
cases["bitStrings"] = [["", ""], ["03abcd", "abcd"], ["08ab", ""]]

# An address text and the bytes a GeneralName holds for it: Python's packing, IPv4-mapped
# addresses as IPv4, and the unspecified address as four zero bytes, as the library stores it.
def ip_bytes(text):
    ip = ipaddress.ip_address(text)
    if ip.version == 6 and ip.ipv4_mapped:
        ip = ip.ipv4_mapped
    return "00000000" if int(ip) == 0 else ip.packed.hex()


cases["ipNames"] = [[t, ip_bytes(t)] for t in ["::", "10.1.2.3", "::ffff:10.1.2.3", "2001:db8::5"]]

# Broken-down times whose fields leave their range ([year, month from 0, day, hour, minute,
# second]) and the seconds of the time they carry into, by Python's timegm.
CARRIES = [
    ([2024, 0, 32, 0, 0, 0], (2024, 2, 1)),  # 31 January plus one day
    ([2024, 12, 1, 0, 0, 0], (2025, 1, 1)),  # month 12 carries into the year
    ([2024, -1, 1, 0, 0, 0], (2023, 12, 1)),  # and month -1 borrows
    ([2024, 2, 0, 0, 0, 0], (2024, 2, 29)),  # 2024 is a leap year
    ([2100, 1, 29, 0, 0, 0], (2100, 3, 1)),  # 2100 is not
    ([2000, 1, 30, 0, 0, 0], (2000, 3, 1)),  # 2000 is
    ([1970, 0, 1, 0, 0, 86400], (1970, 1, 2)),
    ([1970, 0, 1, -1, 0, 0], (1969, 12, 31, 23)),
]
cases["timeCarries"] = [[fields, calendar.timegm((*day, 0, 0, 0)[:6])] for fields, day in CARRIES]

with open("parse_cases.json", "w") as f:
    json.dump(cases, f, indent=1)
    f.write("\n")
