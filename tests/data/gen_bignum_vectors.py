#!/usr/bin/env python3
"""Writes bignum_vectors.json: big-number results computed with Python's own integers.

The file is generated once and kept in the repository so that builds without libcrypto still
check products, division, gcd, lcm, inverses, modular powers, shifts, sums, bit counts and
text forms against an outside oracle, on random operands and on hand-picked edge cases. Run
it from this folder to regenerate (the seed keeps it stable).
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



def digits(*ds):
    """The number whose 32-bit digits, least significant first, are `ds`."""
    return sum(d << (32 * i) for i, d in enumerate(ds))


def text(v):
    n = max(1, (v.bit_length() + 31) // 32)
    return ".".join(format((v >> (32 * i)) & 0xFFFFFFFF, "08x") for i in reversed(range(n)))


def lsb(v):
    return (v & -v).bit_length() - 1 if v else 0


# Hand-picked edge cases: the carry, borrow, normalisation and Knuth D correction paths.
M = 0xFFFFFFFF
for a, b in [(5, 7), (0, 7), (digits(1, 2, 3), digits(1, 2, 3)), (100, 1),
             (digits(0, 0, 1), 3),  # one-digit divisor: v[n-2] reads as 0 in the correction test
             (digits(0, 0, 1), digits(0, 0x80000000)),  # top bit already set: no normalising shift
             (digits(7, M), 0x80000000),  # top quotient digit from the repeated subtraction
             (digits(0, 0xFFFFFFFE, 0, 0x80000000), digits(M, 0x80000000)),  # estimate 2^32 - 1
             (digits(0, 0, 0x80000000, 0x7FFFFFFF), digits(1, 0, 0x80000000)),  # add-back step
             (digits(0x80000001, 1, 0x7FFFFFFF), digits(0xFFFFFFFE, 0x80000000)),  # correction twice
             (digits(2, 0x7FFFFFFF, 0, 0x7FFFFFFF), digits(0x80000000, 0xFFFFFFFE, 0x80000000)),
             (digits(0, 0xFFFFFFFE, 0, 0x80000000), digits(0xFFFF, 0x80000000)),
             (digits(0, 0, 0x80000000), digits(1, 0x80000000)),
             (digits(3, 0, 0x80000000), digits(1, 0, 0x20000000)),
             (digits(0, 0, 0x80000000, 0x7FFF), digits(1, 0, 0x8000)),
             (digits(M, M, M), digits(M, M)), (digits(M, M), M), (digits(0, 0, 0, 1), digits(M, M))]:
    cases.append({"op": "div", "a": h(a), "b": h(b), "q": h(a // b), "r": h(a % b)})
for a, b in [(0, 9), (9, 0), (12, 18), (17, 5), (1 << 40, 1 << 33), (7, 7), (4, 6), (6, 4), (1 << 40, 3)]:
    cases.append({"op": "gcd", "a": h(a), "b": h(b), "gcd": h(math.gcd(a, b)), "lcm": h(math.lcm(a, b))})
for a, m in [(3, 7), (7, 7), (0, 7), (10, 7), (1, 2), (2, 9)]:
    inverse = pow(a, -1, m) if a % m else 0  # a multiple of the modulus has no inverse: 0
    cases.append({"op": "inv", "a": h(a), "m": h(m), "inverse": h(inverse)})
for a, e, m in [(5, 0, 7), (5, 0, 1), (0, 5, 7), (3, 6, 7), (10, 1, 7), (2, 100, 101)]:
    cases.append({"op": "exp", "a": h(a), "e": h(e), "m": h(m), "power": h(pow(a, e, m))})
for a in [0, 1, 6, 1 << 32, 1 << 40, digits(M, M), 0x80000000, 10**9, 10**9 - 1, 10**18, digits(5, 0, 0xAB)]:
    cases.append({"op": "text", "a": h(a), "dec": str(a), "digits": text(a), "bits": a.bit_length(), "lsb": lsb(a)})
for a, k in [(1, 64), (1, 31), (3, 63), (digits(0, 0, 1), 64), (digits(0, 0, 1), 65), (digits(0x80000000, 1), 31)]:
    cases.append({"op": "shift", "a": h(a), "k": k, "shl": h(a << k), "shr": h(a >> k)})
for a, b in [(digits(M, M), 1), (digits(0, 0, 1), 1), (digits(M, M, M), 1), (digits(5, 1), digits(5, 1))]:
    cases.append({"op": "addsub", "a": h(a), "b": h(b), "sum": h(a + b), "diff": h(a - b)})
for hexbytes, order in [("", "big"), ("000001", "big"), ("00000000", "big"), ("0102030405", "big"), ("ffffffff", "big"),
                        ("0000000100000000", "big"), ("112233445566778899", "big"), ("", "little"), ("0001", "little"),
                        ("0100000000", "little"), ("0504030201", "little"), ("0000000001", "little")]:
    v = int.from_bytes(bytes.fromhex(hexbytes), order)
    ds = [(v >> (32 * i)) & M for i in range(max(1, (v.bit_length() + 31) // 32))]  # zero keeps one digit
    cases.append({"op": "bytes", "a": hexbytes, "littleEndian": order == "little", "digits": ds})
for a, length in [(0x1234, 4), (0x1234, 1), (0x1234, 0), (0, 0), (0, 3), (1 << 32, 0), (1 << 32, 8), (256, 0),
                  (0x0504030201, 0)]:
    out = a.to_bytes(max(length, (a.bit_length() + 7) // 8), "big")  # padded, never truncated
    cases.append({"op": "bin", "a": h(a), "len": length, "big": out.hex(),
                  "little": a.to_bytes((a.bit_length() + 7) // 8, "little").hex()})

# Random operands in bulk, for the properties once checked against OpenSSL's BN functions only; a
# seed of their own keeps the cases above as they were.
rng = random.Random(20261123)
for c in cases:
    if c["op"] == "gcd" and int(c["a"], 16) and int(c["b"], 16):
        c["bezout"] = c["gcd"]  # a·x + b·y = gcd with the signs begcd gives
for i in range(150):
    a, b = number(size(130 if i % 10 == 0 else 40)), number(size(130 if i % 10 == 0 else 40))
    k, w = rng.randrange(200), rng.getrandbits(32)
    c = {"op": "mix", "a": h(a), "b": h(b), "k": k, "w": w, "product": h(a * b), "square": h(a * a),
         "sum": h(a + b), "shl": h(a << k), "shr": h(a >> k), "byWord": h(a * w), "less": a < b, "dec": str(a),
         "bits": a.bit_length()}
    if a >= b:
        c["diff"] = h(a - b)
    cases.append(c)
for i in range(80):
    m = number(size(130)) | 1
    if m == 1:
        m = 3
    digits = (m.bit_length() + 31) // 32
    a, b = number(size(2 * digits)), number(size(digits))
    cases.append({"op": "mont", "a": h(a), "b": h(b), "m": h(m), "montIn": h(a % m), "montProduct": h(a * b % m),
                  "montSquare": h(b * b % m)})
P = (1 << 255) - 19
for i in range(150):  # operands up to 2^256 - 1, as the partially reduced values of the curve code reach
    a, b, w = number(8 if i % 2 else rng.randrange(1, 9)), number(8 if i % 3 else rng.randrange(1, 9)), rng.getrandbits(32)
    cases.append({"op": "p25519", "a": h(a), "b": h(b), "w": w, "p25519Product": h(a * b % P),
                  "p25519Square": h(b * b % P), "p25519Word": h(a * w % P)})
# Exponents of exactly the bit lengths where the window width changes (all ones: every window
# full), and now and then an RSA-shaped full-length exponent.
m, a = number(24) | 1, number(20)
for bits in [1, 2, 23, 24, 25, 31, 32, 33, 79, 80, 239, 240, 671, 672, 700]:
    for shape in range(4):
        e = (1 << bits) - 1 if shape == 0 else (number((bits + 31) // 32) % (1 << bits)) | (1 << (bits - 1))
        cases.append({"op": "exp", "a": h(a), "e": h(e), "m": h(m), "power": h(pow(a, e, m))})
for _ in range(8):
    m = number(64) | 1
    a, e = number(size(65)), number(64)
    cases.append({"op": "exp", "a": h(a), "e": h(e), "m": h(m), "power": h(pow(a, e, m))})

with open("bignum_vectors.json", "w") as f:
    json.dump(cases, f, indent=0)
    f.write("\n")
