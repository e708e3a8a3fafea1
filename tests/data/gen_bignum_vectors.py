#!/usr/bin/env python3
"""Writes bignum_vectors.json: big-number results computed with Python's own integers.

The file is generated once and kept in the repository so that builds without libcrypto still
check products, division, gcd, lcm, inverses, modular powers and decimal text against an
outside oracle. Run it from this folder to regenerate (the seed keeps it stable).
"""
import json
import math
import random

rng = random.Random(20240517)


def number(digits):
    """A number of `digits` 32-bit digits in one of the shapes that break carry code."""
    shape = rng.randrange(6)
    if shape == 0:
        return (1 << (32 * digits)) - 1  # all-ones digits
    if shape == 1:
        return 1 << (32 * (digits - 1) + rng.randrange(32))  # a power of two
    if shape == 2:
        return rng.getrandbits(32 * digits) | (1 << (32 * digits - 1))  # top bit set
    if shape == 3:
        return rng.getrandbits(32 * (digits - 1)) | (rng.randrange(1, 1 << 16) << (32 * (digits - 1)))
    if shape == 4:  # sparse digits
        v = sum(rng.getrandbits(32) << (32 * i) for i in range(digits - 1) if rng.randrange(4) == 0)
        return v | (1 << (32 * (digits - 1)))
    return rng.getrandbits(32 * digits) | (1 << (32 * (digits - 1)))


def size(limit=130):
    return rng.randrange(1, 5) if rng.randrange(3) == 0 else rng.randrange(1, limit + 1)


def h(v):
    return format(v, "x")


cases = []
for _ in range(40):
    a, b = number(size()), number(size())
    cases.append({"op": "mul", "a": h(a), "b": h(b), "product": h(a * b), "square": h(a * a)})
for i in range(80):
    b = number(size())
    a = number(size()) if i % 2 else b * number(size(70)) + rng.randrange(b)
    cases.append({"op": "div", "a": h(a), "b": h(b), "q": h(a // b), "r": h(a % b)})
for _ in range(60):
    a, b = number(size(40)), number(size(40))
    g = math.gcd(a, b)
    cases.append({"op": "gcd", "a": h(a), "b": h(b), "gcd": h(g), "lcm": h(a * b // g)})
while sum(c["op"] == "inv" for c in cases) < 60:
    a, m = number(size(40)), number(size(40))
    if m > 1 and math.gcd(a, m) == 1:
        cases.append({"op": "inv", "a": h(a), "m": h(m), "inverse": h(pow(a, -1, m))})
for i in range(60):
    m = number(size(40)) | 1
    a, e = number(size(41)), number(rng.randrange(1, 4)) if i % 6 else rng.randrange(3)
    cases.append({"op": "exp", "a": h(a), "e": h(e), "m": h(m), "power": h(pow(a, e, m))})
for _ in range(40):
    a = number(size(40))
    cases.append({"op": "dec", "a": h(a), "dec": str(a)})

with open("bignum_vectors.json", "w") as f:
    json.dump(cases, f, indent=0)
    f.write("\n")
