#!/usr/bin/env python3
"""Writes pki_der.json: hand-described names, private-key containers and PBES2 parameter sets
encoded as DER, with the verdicts and messages this library gives them. Run it from this folder.
"""
import base64
import json

from gen_pki_built import seq, tlv


def der_uint(v):
    return tlv(0x02, v.to_bytes(v.bit_length() // 8 + 1, "big"))


def oid(h):
    return tlv(0x06, bytes.fromhex(h))


def rdn(arc, tag, value):
    return tlv(0x31, seq(oid("5504%02x" % arc), tlv(tag, value.encode("latin-1"))))


def name(*rdns):
    return seq(*rdns).hex()


def pem_body(path):
    lines = open(path).read().splitlines()
    return base64.b64decode("".join(l for l in lines if not l.startswith("-----")))


out = {}
bmp = "\0U\0n"
title = rdn(12, 0x0C, "Dr")
multi = bytes.fromhex("3118" "3009060355040c0c024472" "300b060355040c0c0450726f66")  # one RDN, two values
out["namesNote"] = ("DistinguishedName.parse: input, verdict, str(), messages, unknown RDNs kept, what serialize() writes "
                    "(known attributes first, then the unknown RDNs byte for byte); the last CN wins, BMPString bytes "
                    "are kept as they are, non-string values are skipped, the loop ends at the first non-SET")
out["names"] = [
    [name(rdn(3, 0x0C, "first"), rdn(6, 0x13, "LV"), rdn(10, 0x14, "Org"), rdn(3, 0x16, "last"), rdn(11, 0x1E, bmp),
          rdn(7, 0x02, "skipped: not a string")), True, "C=LV, O=Org, OU=" + bmp + ", CN=last", "", 0, None],
    [name(title, rdn(3, 0x0C, "host"), multi), True, "CN=host", "unknown name attr: 2.5.4.12\n" * 2, 2,
     name(rdn(3, 0x0C, "host"), title, multi)],
    ["3000", True, "", "", 0, "3000"],
    ["30020500", True, "", "", 0, None],
] + [[h, False, "", "", 0, None] for h in json.load(open("parse_cases.json"))["badNames"]]
out["nameEqualityNote"] = "equality ignores case, order and unknown attributes"
a = name(rdn(6, 0x13, "lv"), rdn(3, 0x0C, "Host.Example"))
out["nameEquality"] = [[a, name(rdn(3, 0x0C, "host.example"), rdn(6, 0x13, "LV"), rdn(12, 0x0C, "x")), True],
                       [a, name(rdn(3, 0x0C, "host.example"), rdn(6, 0x13, "LV"), rdn(10, 0x0C, "Org")), False]]

body = open("keys/rsa1024.pkcs1.der", "rb").read()
pub = pem_body("keys/rsa1024.pkcs1pub.pem")
rsa, unknown = "2a864886f70d010101", "2a0304"
parts = {"attrs": bytes.fromhex("a0023000"), "pub": tlv(0x81, pub)}


def one_key(version, alg, trailing):
    rest = b"".join(parts.get(t) or bytes.fromhex(t) for t in trailing)
    return seq(der_uint(version), seq(oid(alg), tlv(0x05, b"")), tlv(0x04, body), rest).hex()


out["keyShapesNote"] = ("OneAsymmetricKey around the rsa1024 key: input, parses, carries the [1] public key; an unknown "
                        "algorithm reads as RSA, [1] needs version 1")
out["keyShapes"] = [[one_key(v, alg, t), ok, has] for v, alg, t, ok, has in [
    (0, rsa, [], True, False), (1, rsa, [], True, False), (2, rsa, [], False, False), (0, unknown, [], True, False),
    (0, rsa, ["attrs"], True, False), (1, rsa, ["attrs", "pub"], True, True), (1, rsa, ["pub"], True, True),
    (0, rsa, ["pub"], False, False), (0, rsa, ["0500"], False, False), (1, rsa, ["8100"], False, False)]]
spki = seq(seq(oid(unknown)), tlv(0x03, b"\0" + pub))
out["spkiNote"] = "a SubjectPublicKeyInfo with an unknown algorithm reads as RSA; trailing data does not"
out["spki"] = [[spki.hex(), True], [(spki + b"\0").hex(), False]]


def pbes2(prf, cipher, iv_len, iterations=10):
    kdf = seq(tlv(0x04, bytes.fromhex("0102030405060708")), der_uint(iterations), seq(oid(prf)) if prf else b"")
    return seq(seq(oid("2a864886f70d01050c"), kdf), seq(oid(cipher), tlv(0x04, bytes([7] * iv_len)))).hex()


des3, aes128, sha256 = "2a864886f70d0307", "608648016503040102", "2a864886f70d0209"
out["pbes2Note"] = ("PBES2 parameters (PBKDF2, salt 0102030405060708, IV bytes 07; no PRF: HMAC-SHA1; 10 iterations "
                    "unless said): verdict, message. The first is the raw-CBC padding test's too.")
out["pbes2"] = [
    [pbes2("", aes128, 16), True, ""], [pbes2(sha256, des3, 8), True, ""], [pbes2(sha256, des3, 16), False, ""],
    [pbes2(sha256, aes128, 8), False, ""],
    [pbes2("2a864886f70d020a", aes128, 16), False, "unsupported PBES2 KDF: <1.2.840.113549.2.10>\n"],
    [pbes2(sha256, "608648016503040106", 16), False, "PBES2: unimplemented cipher: <2.16.840.1.101.3.4.1.6>\n"],
    [pbes2(sha256, aes128, 16, 0), False, "PKCS8: unsupported iteration count: <0>\n"],
    [pbes2(sha256, aes128, 16, 16777217), False, "PKCS8: unsupported iteration count: <16777217>\n"]]

with open("pki_der.json", "w") as f:
    f.write("{\n" + ",\n".join(" %s: %s" % (json.dumps(k), json.dumps(v)) for k, v in out.items()) + "\n}\n")
