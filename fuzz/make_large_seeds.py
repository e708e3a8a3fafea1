#!/usr/bin/env python3
"""Writes the large seed inputs (fuzz/corpus/<name>/large-*): a long chain, a certificate,
request and CRL with thousands of entries, big PEM, big keys, big store entries. Each stays
below 300 KB so that a corpus replay remains quick. Needs Python's cryptography package.

    python3 fuzz/make_large_seeds.py
"""
import base64
import datetime
import os
import random
import struct
import zlib

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, rsa
from cryptography.x509.oid import NameOID

CORPUS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")
LIMIT = 300 * 1024
NOW = datetime.datetime(2023, 11, 1, tzinfo=datetime.timezone.utc)  # path fuzzer checks at 1700000000
DER = serialization.Encoding.DER
PEM = serialization.Encoding.PEM


def write(corpus, name, data):
    assert len(data) <= LIMIT, (corpus, name, len(data))
    with open(os.path.join(CORPUS, corpus, "large-" + name), "wb") as f:
        f.write(data)


def name(cn, units=0):
    attrs = [x509.NameAttribute(NameOID.COUNTRY_NAME, "LV"), x509.NameAttribute(NameOID.ORGANIZATION_NAME, "Example")]
    attrs += [x509.NameAttribute(NameOID.ORGANIZATIONAL_UNIT_NAME, "unit %d" % i) for i in range(units)]
    attrs.append(x509.NameAttribute(NameOID.COMMON_NAME, cn))
    return x509.Name([x509.RelativeDistinguishedName([a]) for a in attrs])


def cert(subject, key, issuer, issuer_key, ca, sans=0, serial=1):
    b = (x509.CertificateBuilder().subject_name(subject).issuer_name(issuer).public_key(key.public_key())
         .serial_number(serial).not_valid_before(NOW - datetime.timedelta(days=30))
         .not_valid_after(NOW + datetime.timedelta(days=3650))
         .add_extension(x509.BasicConstraints(ca=ca, path_length=None), critical=True)
         .add_extension(x509.SubjectKeyIdentifier.from_public_key(key.public_key()), critical=False)
         .add_extension(x509.AuthorityKeyIdentifier.from_issuer_public_key(issuer_key.public_key()), critical=False))
    if ca:
        b = b.add_extension(x509.KeyUsage(False, False, False, False, False, True, True, False, False), critical=True)
    if sans:
        b = b.add_extension(x509.SubjectAlternativeName(
            [x509.DNSName("host%d.example.com" % i) for i in range(sans)]), critical=False)
    return b.sign(issuer_key, hashes.SHA256())


def main():
    random.seed(1)
    keys = [ec.generate_private_key(ec.SECP256R1()) for _ in range(5)]
    # A five-certificate chain, leaf first, each certificate near the path fuzzer's 64 KB limit.
    names = [name("Root"), name("Int 1", 200), name("Int 2", 200), name("Int 3", 200), name("leaf.example.com")]
    chain = []
    for i in range(5):
        issuer = max(i - 1, 0)
        chain.append(cert(names[i], keys[i], names[issuer], keys[issuer], ca=i < 4, sans=2000 if i == 4 else 0,
                          serial=i + 1))
    chain.reverse()
    ders = [c.public_bytes(DER) for c in chain]
    for flags in (0x3E, 0x0B):
        write("path", "chain-%02x" % flags,
              bytes([flags]) + b"".join(struct.pack(">H", len(d)) + d for d in ders if len(d) < 65536))
    write("x509", "sans", ders[0])
    write("x509", "long-name", ders[1])
    write("der", "cert", ders[0])
    write("name", "units", names[1].public_bytes())
    write("name", "long-org", x509.Name([x509.NameAttribute(NameOID.ORGANIZATION_NAME, "o" * 60000, _validate=False)])
          .public_bytes())
    write("pem", "chain", b"".join(c.public_bytes(PEM) for c in chain))

    # A CRL listing thousands of serials, and one with a long issuer name.
    root_key = keys[0]
    crl = x509.CertificateRevocationListBuilder().issuer_name(names[0]).last_update(NOW).next_update(
        NOW + datetime.timedelta(days=7))
    for i in range(4000):
        crl = crl.add_revoked_certificate(x509.RevokedCertificateBuilder().serial_number(random.getrandbits(120) + 1)
                                          .revocation_date(NOW - datetime.timedelta(minutes=i))
                                          .add_extension(x509.CRLReason(x509.ReasonFlags.key_compromise), False)
                                          .build())
    crl = crl.add_extension(x509.CRLNumber(4000), False).sign(root_key, hashes.SHA256())
    write("crl", "revoked", crl.public_bytes(DER))
    write("der", "crl", crl.public_bytes(DER))
    write("pem", "crl", crl.public_bytes(PEM))

    # A request asking for thousands of names.
    req = (x509.CertificateSigningRequestBuilder().subject_name(name("req.example.com", 100))
           .add_extension(x509.SubjectAlternativeName([x509.DNSName("n%d.example.com" % i) for i in range(4000)]), False)
           .sign(keys[4], hashes.SHA256()))
    write("req", "sans", req.public_bytes(DER))

    # Large keys.
    big = rsa.generate_private_key(public_exponent=65537, key_size=8192)
    pkcs8 = big.private_bytes(DER, serialization.PrivateFormat.PKCS8, serialization.NoEncryption())
    write("pkcs8", "rsa8192", pkcs8)
    write("pkcs8", "rsa8192-enc", big.private_bytes(DER, serialization.PrivateFormat.PKCS8,
                                                     serialization.BestAvailableEncryption(b"fuzz")))
    write("spki", "rsa8192", big.public_key().public_bytes(DER, serialization.PublicFormat.SubjectPublicKeyInfo))
    write("pem", "rsa8192", big.private_bytes(PEM, serialization.PrivateFormat.PKCS8, serialization.NoEncryption()))
    write("der", "rsa8192", pkcs8)

    # Base64: long text in one line and in 64-character lines.
    blob = random.randbytes(150000)
    write("base64", "line", base64.b64encode(blob))
    text = base64.b64encode(blob[:120000])
    write("base64", "lines", b"\n".join(text[i:i + 64] for i in range(0, len(text), 64)))

    # Times with a long fraction of a second.
    for tag, body in ((0x18, b"20231101120000." + b"5" * 60000 + b"Z"), (0x18, b"20231101120000," + b"0" * 60000 + b"Z")):
        write("time", "fraction-%s" % ("dot" if b"." in body else "comma"),
              bytes([tag, 0x83]) + len(body).to_bytes(3, "big") + body)

    # Store entries: one big raw field, and many small fields of every kind.
    def entry(eid, payload):
        head = b"olm1" + struct.pack("<II", eid, len(payload)) + payload
        return head + struct.pack("<I", zlib.crc32(head))

    def field(fid, kind, value):
        return struct.pack("<IBI", fid, kind, len(value)) + value

    write("store", "raw", entry(0x81, field(0x81, 3, random.randbytes(250000))))
    fields = b""
    for i in range(3000):
        kind = i % 5 + 1
        value = {1: b"\x01", 2: struct.pack("<I", i), 3: b"r" * (i % 40), 4: b"s%d" % i,
                 5: b"".join(struct.pack("<I", 3) + b"abc" for _ in range(i % 7))}[kind]
        fields += field(i, kind, value)
    write("store", "fields", entry(2, fields))


if __name__ == "__main__":
    main()
