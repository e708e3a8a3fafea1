#!/usr/bin/env python3
"""Writes fuzz/corpus/verify/ seeds from the certificates of tests/data/verify: a flag byte, an
anchor-bit byte, then each part as a two-byte length and DER (see verify_fuzz.cpp)."""
import base64, hashlib, os, re, sys

here = os.path.dirname(os.path.abspath(__file__))
data = os.path.join(here, '..', 'tests', 'data', 'verify')
out = os.path.join(here, 'corpus', 'verify')

def der(name):
    text = open(os.path.join(data, name)).read()
    body = re.search(r'-----BEGIN [A-Z0-9 ]+-----(.*?)-----END', text, re.S).group(1)
    return base64.b64decode(''.join(body.split()))

# (flags, parts, anchor indexes): parts are leaf first; a final .crl part needs flag 1.
SEEDS = [
    (0, ['leaf.pem', 'ica.pem', 'root.pem'], [2]),
    (2 | 64, ['leaf.pem', 'ica-exp.pem', 'ica.pem', 'root.pem'], [3]),
    (4, ['leaf2.pem', 'ica2.pem', 'xroot2.pem', 'root.pem', 'root2.pem'], [3]),
    (0, ['leaf-loop.pem', 'loop-a.pem', 'loop-b.pem', 'root.pem'], [3]),
    (0, ['leaf-nc-wild.pem', 'nc.pem', 'root.pem'], [2]),
    (0, ['leaf-roll.pem', 'pl0-roll.pem', 'pl0.pem', 'root.pem'], [3]),
    (1 | 16, ['leaf-rev.pem', 'ica.pem', 'root.pem', 'ica-new.crl'], [2]),
    (1 | 16, ['leaf-rev.pem', 'ica.pem', 'root.pem', 'crlsigner.pem', 'delegated.crl'], [2, 3]),
    (32 | 64, ['leaf-nosan.pem', 'ica.pem', 'root.pem'], [2]),
]
os.makedirs(out, exist_ok=True)
for flags, parts, anchors in SEEDS:
    blob = bytes([flags, sum(1 << i for i in anchors)])
    for p in parts:
        d = der(p)
        blob += len(d).to_bytes(2, 'big') + d
    with open(os.path.join(out, hashlib.sha1(blob).hexdigest()), 'wb') as f:
        f.write(blob)
print(len(SEEDS), 'seeds in', out)
