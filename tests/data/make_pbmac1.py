#!/usr/bin/env python3
"""Writes keys/ec256.pbmac1.p12: OpenSSL's PKCS#12 file of the P-256 fixture key (password "pw")
with its MAC replaced by PBMAC1 as RFC 9579 has it: PBKDF2-HMAC-SHA-256 (salt 5a sixteen times,
1000 iterations, 32 bytes) keying HMAC-SHA-256, both computed by Python's hashlib. Run it from
this folder; it needs the openssl command line.
"""
import hashlib
import hmac
import subprocess
import tempfile

from gen_pki_built import seq, tlv


def element(der, at):
    """The (start, content start, end) of the DER element at `at`."""
    n, head = der[at + 1], at + 2
    if n & 0x80:
        n, head = int.from_bytes(der[at + 2:at + 2 + (n & 0x7F)], "big"), at + 2 + (n & 0x7F)
    return at, head, head + n


with tempfile.TemporaryDirectory() as tmp:
    subprocess.run(f"openssl req -x509 -new -key keys/ec256.pkcs8.pem -subj /CN=pbmac1 -days 3650 -out {tmp}/c.pem && "
                   f"openssl pkcs12 -export -inkey keys/ec256.pkcs8.pem -in {tmp}/c.pem -passout pass:pw -out {tmp}/o.p12",
                   shell=True, check=True)
    pfx = open(f"{tmp}/o.p12", "rb").read()
_, body, _ = element(pfx, 0)
_, _, version_end = element(pfx, body)
auth_start, auth_body, auth_end = element(pfx, version_end)  # ContentInfo { data, [0] { OCTET STRING } }
_, _, oid_end = element(pfx, auth_body)
_, wrapped, _ = element(pfx, oid_end)
_, octets, octets_end = element(pfx, wrapped)
salt = b"\x5a" * 16
key = hashlib.pbkdf2_hmac("sha256", b"pw", salt, 1000, 32)
mac = hmac.new(key, pfx[octets:octets_end], hashlib.sha256).digest()
oid = lambda h: tlv(0x06, bytes.fromhex(h))
hmac_sha256 = seq(oid("2a864886f70d0209"))
pbkdf2 = seq(oid("2a864886f70d01050c"), seq(tlv(0x04, salt), tlv(0x02, (1000).to_bytes(2, "big")), tlv(0x02, b"\x20"),
                                            hmac_sha256))
pbmac1 = seq(oid("2a864886f70d01050e"), seq(pbkdf2, hmac_sha256))
mac_data = seq(seq(pbmac1, tlv(0x04, mac)), tlv(0x04, salt[:8]), tlv(0x02, b"\x01"))  # the salt here is not used
open("keys/ec256.pbmac1.p12", "wb").write(seq(tlv(0x02, b"\x03"), pfx[auth_start:auth_end], mac_data))
