#!/usr/bin/env python3
"""Writes pki_timestamp.json: time-stamp requests and responses described by hand and encoded as
DER, with whether they are read and how a request reads back. Run it from this folder.
"""
import json

from gen_pki_built import seq, tlv

h = bytes.fromhex
VERSION1 = h("020101")
IMPRINT = seq(h("300d06096086480165030402010500"), h("040401020304"))  # SHA-256, digest 01020304
POLICY = h("06032a0304")  # 1.2.3.4
ZERO_NONCE = h("0203008001")  # a leading zero kept
TRUE, FALSE = h("0101ff"), h("010100")
HEAD = "version: 1\ndigest-algo: SHA256\ndigest: 01:02:03:04\n"

requests = [
    ("no certReq", seq(VERSION1, IMPRINT), None),
    ("certReq FALSE", seq(VERSION1, IMPRINT, FALSE), HEAD + "cert-req: 0\n"),
    ("policy and a nonce with a leading zero", seq(VERSION1, IMPRINT, POLICY, ZERO_NONCE, TRUE),
     HEAD + "req-policy: 1.2.3.4\nnonce: 00:80:01\ncert-req: 1\n"),
    ("extensions", seq(VERSION1, IMPRINT, TRUE, h("a0053003060100")), None),
    ("certReq 01 is no DER BOOLEAN", seq(VERSION1, IMPRINT, h("010101")), None),
    ("nonce before policy", seq(VERSION1, IMPRINT, ZERO_NONCE, POLICY, TRUE), None),
    ("digest identifier without NULL", seq(VERSION1, seq(h("300b0609608648016503040201"), h("040401020304")), TRUE),
     None),
    ("version missing", seq(IMPRINT, TRUE), None),
]
responses = [
    ("refused without token", seq(seq(h("020102"))), True),
    ("refused with text and failure bits", seq(seq(h("020102"), seq(h("0c0178")), h("03020780"))), True),
    ("granted without token", seq(seq(h("020100"))), False),
    ("refused with a token", seq(seq(h("020102")), seq(h("06092a864886f70d010702"))), False),
    ("granted with a token that does not parse", seq(seq(h("020100")), seq(h("0500"))), False),
    ("status is no SEQUENCE", seq(h("020100")), False),
]

with open("pki_timestamp.json", "w") as f:
    json.dump({"note": "written by gen_pki_timestamp.py; a request with a dump is read and written back",
               "requests": [dict(name=n, der=d.hex(), **({"dump": t} if t else {})) for n, d, t in requests],
               "responses": [{"name": n, "der": d.hex(), "parses": p} for n, d, p in responses]}, f, indent=1)
    f.write("\n")
