#!/usr/bin/env python3
"""Writes num_25519.json: X25519 exchanges and Ed25519 signatures from Python's cryptography.

The cases have the shapes of the RFC 7748 / RFC 8032 known-answer files, so that the same loops
read them: random private keys (the public key comes from the base-point table, a path of its
own) and random messages of 0 to 299 bytes, crossing SHA-512's block boundaries. Run from this
folder; the seed keeps it stable.
"""
import json
import random

from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import ed25519, x25519

rng = random.Random(25519)
RAW = serialization.Encoding.Raw, serialization.PublicFormat.Raw


def x_key():
    key = x25519.X25519PrivateKey.from_private_bytes(rng.randbytes(32))
    return key, key.private_bytes_raw().hex(), key.public_key().public_bytes(*RAW).hex()


exchanges = []
for i in range(16):
    (a, a_priv, a_pub), (b, b_priv, b_pub) = x_key(), x_key()
    exchanges.append({"id": f"python-x25519-{i}", "alice_private": a_priv, "alice_public": a_pub,
                      "bob_private": b_priv, "bob_public": b_pub, "shared_secret": a.exchange(b.public_key()).hex()})
signatures = []
for i in range(24):
    seed, msg = rng.randbytes(32), rng.randbytes(rng.randrange(300))
    key = ed25519.Ed25519PrivateKey.from_private_bytes(seed)
    signatures.append({"id": f"python-ed25519-{i}", "secret_key": seed.hex(), "public_key": key.public_key().public_bytes(*RAW).hex(),
                       "message": msg.hex(), "signature": key.sign(msg).hex()})
with open("num_25519.json", "w") as f:
    json.dump({"note": "written by gen_num_25519.py", "x25519": exchanges, "ed25519": signatures}, f, indent=0)
    f.write("\n")
