#!/usr/bin/env python3
"""Writes num_ecdsa.json: deterministic (RFC 6979) ECDSA signatures from Python's cryptography.

Every NIST curve of the library, keys at the edges (1, n - 1), a short key and a full-width one,
and random digests of SHA-1 .. SHA-512, so that digests longer and shorter than the order both
occur. The first case is RFC 6979 appendix A.2.5 (P-256, SHA-256, "sample") and is checked
against the values printed there. Run from this folder; needs cryptography 44 or later.
"""
import hashlib
import json
import random

from cryptography.hazmat.primitives import hashes
from cryptography.hazmat.primitives.asymmetric import ec, utils

rng = random.Random(6979)
CURVES = {"P-192": (ec.SECP192R1(), 0xFFFFFFFFFFFFFFFFFFFFFFFF99DEF836146BC9B1B4D22831),
          "P-224": (ec.SECP224R1(), 0xFFFFFFFFFFFFFFFFFFFFFFFFFFFF16A2E0B8F03E13DD29455C5C2A3D),
          "P-256": (ec.SECP256R1(), 0xFFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551),
          "P-384": (ec.SECP384R1(), int("ffffffffffffffffffffffffffffffffffffffffffffffffc7634d81f4372ddf"
                                        "581a0db248b0a77aecec196accc52973", 16)),
          "P-521": (ec.SECP521R1(), int("01ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"
                                        "fa51868783bf2f966b7fcc0148f709a5d03bb5c9b8899c47aebb6fb71e91386409", 16))}
HASHES = {"SHA-1": hashes.SHA1(), "SHA-256": hashes.SHA256(), "SHA-384": hashes.SHA384(), "SHA-512": hashes.SHA512()}


def case(curve, d, hash_name, digest):
    key = ec.derive_private_key(d, CURVES[curve][0])
    sig = key.sign(digest, ec.ECDSA(utils.Prehashed(HASHES[hash_name]), deterministic_signing=True))
    r, s = utils.decode_dss_signature(sig)
    return {"curve": curve, "d": format(d, "x"), "hash": hash_name, "digest": digest.hex(), "r": format(r, "x"),
            "s": format(s, "x")}


cases = [case("P-256", 0xC9AFA9D845BA75166B5C215767B1D6934E50C3DB36E89B127B8A622B120F6721, "SHA-256",
              hashlib.sha256(b"sample").digest())]
assert cases[0]["r"] == "efd48b2aacb6a8fd1140dd9cd45e81d69d2c877b56aaf991c34d0ea84eaf3716"
assert cases[0]["s"] == "f7cb1c942d657c41d436c7a1b6e29f65f3e900dbb9aff4064dc4ab2f843acda8"
for curve, (_, n) in CURVES.items():
    for d in [1, n - 1, rng.getrandbits(40) | 1, rng.randrange(1, n)]:
        for hash_name, h in HASHES.items():
            cases.append(case(curve, d, hash_name, rng.randbytes(h.digest_size)))

with open("num_ecdsa.json", "w") as f:
    json.dump({"note": "written by gen_num_ecdsa.py: r and s of RFC 6979 ECDSA signatures over the given digests",
               "signatures": cases}, f, indent=0)
    f.write("\n")
