#!/usr/bin/env python3
"""Writes num_auth.json: MS-CHAP challenges derived from an EC-SRP session key, with hashlib.

makeChallenge(key, data, peer) is the first 16 bytes of
SHA-1(key || data || 40 zero bytes || label || 40 bytes of 0xf2), with the labels as the
protocol spells them ("auther" included). Run from this folder to regenerate.
"""
import hashlib
import json

LABELS = {True: b"This is for peer challenge", False: b"This is for auther challenge"}
cases = []
for key, data in [(b"shared key", bytes([1, 2, 3])), (b"", b""), (bytes(range(32)), bytes(33))]:
    for peer, label in LABELS.items():
        digest = hashlib.sha1(key + data + bytes(40) + label + b"\xf2" * 40).digest()
        cases.append({"key": key.hex(), "data": data.hex(), "peer": peer, "challenge": digest[:16].hex()})
with open("num_auth.json", "w") as f:
    json.dump({"note": "written by gen_num_auth.py", "makeChallenge": cases}, f, indent=0)
    f.write("\n")
