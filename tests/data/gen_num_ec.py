#!/usr/bin/env python3
"""Writes num_ec.json: the NIST curves as OpenSSL knows them, through Python's cryptography.

For each curve: the parameters (from `openssl ecparam -param_enc explicit`), multiples k·G
(edges around n and random scalars in the shapes that break carry code; OpenSSL computes
(k mod n)·G), double products k1·G + k2·Q with Q = s·G (as (k1 + k2·s)·G) and k2·Q, random points
with both encodings, and the compressed encodings of x = 1 .. 29, half of which have no point.
Run from this folder; the seed keeps it stable.
"""
import json
import random
import re
import subprocess

from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import ec

rng = random.Random(51)
CURVES = [("P-192", ec.SECP192R1(), "prime192v1"), ("P-224", ec.SECP224R1(), "secp224r1"),
          ("P-256", ec.SECP256R1(), "prime256v1"), ("P-384", ec.SECP384R1(), "secp384r1"),
          ("P-521", ec.SECP521R1(), "secp521r1")]
X962 = serialization.Encoding.X962


def number(digits):
    """A number of `digits` 32-bit digits in one of the shapes of gen_bignum_vectors.py."""
    shape = rng.randrange(6)
    if shape == 0:
        return (1 << (32 * digits)) - 1
    if shape == 1:
        return 1 << (32 * (digits - 1) + rng.randrange(32))
    if shape == 4:
        return sum(rng.getrandbits(32) << (32 * i) for i in range(digits - 1) if rng.randrange(4) == 0) | (
            1 << (32 * (digits - 1)))
    return rng.getrandbits(32 * digits) | (1 << (32 * (digits - 1)))


def params(name):
    text = subprocess.run(["openssl", "ecparam", "-name", name, "-param_enc", "explicit", "-text", "-noout"],
                          capture_output=True, text=True, check=True).stdout
    fields = {}
    for label in ["Prime", "A", "B", "Generator \\(uncompressed\\)", "Order"]:
        body = re.search(label + r":\s*\n((?:\s+[0-9a-f:]+\n)+)", text).group(1)
        fields[label.split(" ")[0]] = int(re.sub(r"[^0-9a-f]", "", body), 16)
    return fields


def h(v):
    return format(v, "x")


def point(curve, n, k):
    """(x, y) of (k mod n)·G in hex, or two empty strings for infinity."""
    if k % n == 0:
        return ["", ""]
    numbers = ec.derive_private_key(k % n, curve).public_key().public_numbers()
    return [h(numbers.x), h(numbers.y)]


out = []
for name, curve, ossl_name in CURVES:
    f = params(ossl_name)
    p, n = f["Prime"], f["Order"]
    size = (p.bit_length() + 7) // 8
    g = f["Generator"]
    gx, gy = divmod(g & ((1 << (16 * size)) - 1), 1 << (8 * size))
    digits = (n.bit_length() + 31) // 32

    def scalar():
        k = number(rng.randrange(1, 5) if rng.randrange(3) == 0 else rng.randrange(1, digits + 1))
        return k % n if k >= n else k

    scalars = [n - 1, n, n + 1, n + 5, (1 << n.bit_length()) - 1] + list(range(18)) + [scalar() for _ in range(60)]
    doubles = []
    for i in range(25):
        s, k1 = scalar(), scalar()
        k2 = rng.getrandbits(32) if i % 5 == 0 else scalar()  # short second scalars
        doubles.append([h(k1), h(k2)] + point(curve, n, s) + point(curve, n, k1 + k2 * s) + point(curve, n, k2 * s))
    encodings = []
    for _ in range(40):
        key = ec.derive_private_key(scalar() or 1, curve).public_key()
        numbers = key.public_numbers()
        encodings.append([h(numbers.x), h(numbers.y), key.public_bytes(X962, serialization.PublicFormat.UncompressedPoint).hex(),
                          key.public_bytes(X962, serialization.PublicFormat.CompressedPoint).hex()])
    assert 5 < sum(int(e[1], 16) & 1 for e in encodings) < 35
    compressed = []
    for x in range(1, 30):
        enc = b"\x02" + x.to_bytes(size, "big")
        try:
            numbers = ec.EllipticCurvePublicKey.from_encoded_point(curve, enc).public_numbers()
            compressed.append([enc.hex(), h(numbers.x), h(numbers.y)])
        except ValueError:
            compressed.append([enc.hex(), "", ""])
    out.append({"name": name, "p": h(p), "a": h(f["A"]), "b": h(f["B"]), "n": h(n), "gx": h(gx), "gy": h(gy),
                "multiples": [[h(k)] + point(curve, n, k) for k in scalars], "doubles": doubles,
                "encodings": encodings, "compressed": compressed})

with open("num_ec.json", "w") as fh:
    json.dump({"note": "written by gen_num_ec.py; doubles are k1, k2, Q, k1·G + k2·Q, k2·Q", "curves": out}, fh,
              indent=0)
    fh.write("\n")
