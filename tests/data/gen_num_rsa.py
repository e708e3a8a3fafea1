#!/usr/bin/env python3
"""Adds the "signatures" table to rsa_cases.json: PKCS#1 v1.5 signatures of the fixture keys.

`openssl pkeyutl -sign` signs a random digest of every hash we sign with (and the MD5+SHA-1
pair) with each keys/rsa*.pkcs1.der; the signatures are deterministic, so ours must equal them
byte for byte. Run from this folder; the seed keeps the digests stable.
"""
import json
import random
import subprocess

rng = random.Random(3447)
HASHES = [("SHA-1", "sha1", 20), ("SHA-256", "sha256", 32), ("SHA-384", "sha384", 48), ("SHA-512", "sha512", 64),
          ("MD5+SHA-1", "md5-sha1", 36)]
rows = []
for bits in [1024, 1536, 2048, 3072, 4096]:
    for name, ossl, size in HASHES:
        digest = rng.randbytes(size)
        sig = subprocess.run(["openssl", "pkeyutl", "-sign", "-inkey", f"keys/rsa{bits}.pkcs1.der", "-keyform", "DER",
                              "-pkeyopt", "rsa_padding_mode:pkcs1", "-pkeyopt", f"digest:{ossl}"],
                             input=digest, capture_output=True, check=True).stdout
        rows.append([bits, name, digest.hex(), sig.hex()])
with open("rsa_cases.json") as f:
    cases = json.load(f)
cases["signatures_note"] = "written by gen_num_rsa.py: key bits, hash, digest, OpenSSL's signature"
cases["signatures"] = rows
with open("rsa_cases.json", "w") as f:
    f.write("{\n" + ",\n".join(f" {json.dumps(k)}: " + (
        "[\n" + ",\n".join("  " + json.dumps(r) for r in v) + "\n ]" if isinstance(v, list) else json.dumps(v))
        for k, v in cases.items()) + "\n}\n")
