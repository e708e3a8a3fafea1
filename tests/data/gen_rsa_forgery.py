#!/usr/bin/env python3
"""Writes chains/forgery-e3.json: a 2048-bit RSA key with e = 3 (made once with the openssl
tool and kept in chains/keys/rsa-e3.pem), a message, its genuine PKCS#1 v1.5 SHA-256 signature
(openssl dgst) and a signature forged without the private key. The forgery hides 191 free bytes
inside the DigestInfo's NULL parameters; a cube root then matches the fixed head (padding and
algorithm) and tail (the digest) of the block at once. A verifier must accept the first and
reject the second; OpenSSL's verdict on both is checked here."""
import hashlib, json, os, subprocess, tempfile

os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), 'chains'))
key = 'keys/rsa-e3.pem'
if not os.path.exists(key):
    subprocess.run(['openssl', 'genpkey', '-algorithm', 'RSA', '-pkeyopt', 'rsa_keygen_bits:2048',
                    '-pkeyopt', 'rsa_keygen_pubexp:3', '-out', key], check=True)
spki = subprocess.run(['openssl', 'pkey', '-in', key, '-pubout', '-outform', 'DER'], check=True,
                      capture_output=True).stdout
mod = subprocess.run(['openssl', 'rsa', '-in', key, '-noout', '-modulus'], check=True,
                     capture_output=True, text=True).stdout
n = int(mod.strip().split('=')[1], 16)
k = (n.bit_length() + 7) // 8

# A message whose SHA-256 is odd: odd numbers have exactly one cube root modulo 2^m.
i = 0
while True:
    msg = b'pay 1000 to mallory #%d' % i
    digest = hashlib.sha256(msg).digest()
    if digest[-1] & 1:
        break
    i += 1

tail = bytes.fromhex('0420') + digest
oid = bytes.fromhex('0609608648016503040201')
garbage = k - 11 - 3 - 3 - len(oid) - 3 - len(tail)
algo = oid + bytes([0x05, 0x81, garbage])
head_len = 11 + 3 + 3 + len(algo)
inner = len(algo) + garbage
outer = 3 + inner + len(tail)
head = b'\x00\x01' + b'\xff' * 8 + b'\x00' + bytes([0x30, 0x81, outer, 0x30, 0x81, inner]) + algo
assert len(head) == head_len and head_len + garbage + len(tail) == k and outer < 256

def icbrt(x):
    lo, hi = 0, 1 << ((x.bit_length() + 2) // 3 + 1)
    while lo < hi:
        mid = (lo + hi + 1) // 2
        if mid ** 3 <= x: lo = mid
        else: hi = mid - 1
    return lo

bits = 8 * len(tail)
t = int.from_bytes(tail, 'big')
low = 1  # cube root of t modulo 2^bits, lifted one bit at a time
for b in range(1, bits):
    if (low ** 3 - t) % (1 << (b + 1)):
        low |= 1 << b
assert pow(low, 3, 1 << bits) == t
high = icbrt(int.from_bytes(head + b'\xff' * (k - head_len), 'big'))
s = ((high >> bits) << bits) | low
em = (s ** 3).to_bytes(k, 'big')
assert s ** 3 < n and em[:head_len] == head and em[-len(tail):] == tail
forged = s.to_bytes(k, 'big')

with tempfile.TemporaryDirectory() as d:
    m, f = os.path.join(d, 'msg'), os.path.join(d, 'sig')
    open(m, 'wb').write(msg)
    genuine = subprocess.run(['openssl', 'dgst', '-sha256', '-sign', key, m], check=True,
                             capture_output=True).stdout
    for sig, ok in ((genuine, True), (forged, False)):
        open(f, 'wb').write(sig)
        r = subprocess.run(['openssl', 'dgst', '-sha256', '-prverify', key, '-signature', f, m],
                           capture_output=True)
        assert (r.returncode == 0) == ok, 'openssl disagrees'

json.dump({'comment': 'RSA e = 3 key, message, genuine SHA-256 PKCS#1 v1.5 signature and a forgery '
           'with free bytes in the DigestInfo NULL parameters (gen_rsa_forgery.py)', 'publicKeyDer': spki.hex(), 'msg': msg.hex(),
           'genuine': genuine.hex(), 'forged': forged.hex()}, open('forgery-e3.json', 'w'), indent=1)
print('forged', len(forged), 'bytes with', garbage, 'free bytes in the NULL parameters')
