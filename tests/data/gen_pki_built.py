#!/usr/bin/env python3
"""Writes pki_built.json: the hand-described certificate, CRL and request bodies of
cert_cases.json ("built", "crlReasons", "crlBuilt", "reqAttributes") encoded as whole DER, with
the verdicts and messages the cases name. Signatures are dummies: parsing looks at structure.
Run it from this folder.
"""
import json


def tlv(tag, content):
    n = len(content)
    if n < 128:
        length = bytes([n])
    else:
        body = n.to_bytes((n.bit_length() + 7) // 8, "big")
        length = bytes([0x80 | len(body)]) + body
    return bytes([tag]) + length + content


def seq(*parts):
    return tlv(0x30, b"".join(parts))


def unspaced(h):
    return bytes.fromhex(h.replace(" ", ""))


NAME = bytes.fromhex("3010310e300c06035504030c05746573746e")  # CN=testn
ALG = bytes.fromhex("300d06092a864886f70d01010b0500")  # sha256WithRSAEncryption
SPKI = open("keys/rsa1024.pub.der", "rb").read()
OIDS = {"ski": "551d0e", "aki": "551d23", "ku": "551d0f", "eku": "551d25", "bc": "551d13", "san": "551d11",
        "nc": "551d1e", "cdp": "551d1f", "iap": "551d36"}


def ext(x):
    """Extension from ["name or OID hex", value hex, critical?]; a plain string is a whole Extension."""
    if isinstance(x, str):
        return bytes.fromhex(x)
    crit = tlv(0x01, b"\xff" if x[2] else b"\x00") if len(x) > 2 else b""
    return seq(tlv(0x06, bytes.fromhex(OIDS.get(x[0], x[0]))), crit, tlv(0x04, bytes.fromhex(x[1])))


def certificate(c):
    serial = bytes.fromhex(c.get("serial", "01"))
    exts = [ext(x) for x in c["exts"]]
    tbs = seq(tlv(0xA0, tlv(0x02, b"\x02")), tlv(0x02, serial), ALG, NAME,
              bytes.fromhex("301e170d3236303130313030303030305a170d3336303130313030303030305a"), NAME, SPKI,
              bytes.fromhex(c.get("afterSpki", "")), tlv(0xA3, seq(*exts)) if exts else b"")
    return seq(tbs, ALG, tlv(0x03, bytes.fromhex("0000112233")))


def crl(revoked, exts):
    """A v2 CRL by CN=testn of 2026-01-01; exts None leaves out [0]."""
    tbs = seq(tlv(0x02, b"\x01"), ALG, NAME, bytes.fromhex("170d3236303130313030303030305a"), revoked,
              tlv(0xA0, seq(*[bytes.fromhex(x) for x in exts])) if exts is not None else b"")
    return seq(tbs, ALG, tlv(0x03, b"\x00\x00"))


def entries(entry_exts):
    """One revoked certificate, serial 0x42, revoked 2026-01-02, with these entry extensions."""
    return seq(seq(bytes.fromhex("020142170d3236303130323030303030305a"), seq(*[bytes.fromhex(x) for x in entry_exts])))


def request(attr):
    tbs = seq(tlv(0x02, b"\x00"), NAME, SPKI, tlv(0xA0, attr) if attr is not None else b"")
    return seq(tbs, ALG, tlv(0x03, b"\x00\x00"))


def ext_req(extensions):
    return seq(tlv(0x06, bytes.fromhex("2a864886f70d01090e")), tlv(0x31, seq(extensions)))


def main():
    src = json.load(open("cert_cases.json"))
    out = []
    for c in src["built"]:
        row = {"kind": "cert", "what": c["what"], "ok": c["ok"], "output": c.get("output", "")}
        if "expect" in c:
            row["expect"] = c["expect"]
        row["der"] = certificate(c).hex()
        out.append(row)
    for c in src["crlReasons"]:
        row = {"kind": "crl", "what": "reasonCode " + c[0], "ok": c[1] is not None, "output": ""}
        if c[1] is not None:
            row["dump"] = ("CRL\n  issuer: <CN=testn>\n  lastUpdate: Thu Jan  1 00:00:00 2026\n  CRL extensions:\n"
                           "  revoked certs:\n    serialNr: 42\n      revocationData: Fri Jan  2 00:00:00 2026\n"
                           "      extensions:\n        reasonCode: " + c[1] + "\n  signed with: SHA256+RSA\n")
        row["der"] = crl(entries([c[0]]), None).hex()
        out.append(row)
    for c in src["crlBuilt"]:
        revoked = entries(c["entryExts"]) if "entryExts" in c else bytes.fromhex(c.get("revoked", ""))
        row = {"kind": "crl", "what": c["what"], "ok": c["ok"], "output": c.get("output", "")}
        if "dump" in c:
            row["dump"] = c["dump"]
        row["der"] = crl(revoked, None if c.get("noExts") else c.get("exts", [])).hex()
        out.append(row)
    for c in src["reqAttributes"]:
        attr = ext_req(unspaced(c["ext"])) if "ext" in c else unspaced(c["attr"])
        row = {"kind": "req", "what": c["what"], "ok": c["ok"], "output": c.get("output", "")}
        if c["ok"]:
            row["expect"] = {"keyUsage": c["keyUsage"]}
        row["der"] = request(attr).hex()
        out.append(row)
    out.append({"kind": "req", "what": "no attributes", "ok": True, "output": "", "expect": {"keyUsage": 0},
                "dumpHas": "REQ\n  name: <CN=testn>\n  extensions:\n[RSA-PUBLIC]\n", "der": request(None).hex()})

    with open("pki_built.json", "w") as f:
        f.write('{\n "note": "written by gen_pki_built.py from cert_cases.json",\n "cases": [\n')
        f.write(",\n".join("  " + json.dumps(r) for r in out))
        f.write("\n ]\n}\n")


if __name__ == "__main__":
    main()
