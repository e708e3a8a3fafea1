#!/usr/bin/env bash
# Regenerates the certificate, CRL and request fixtures in certs/ with the openssl command-line
# tool (plus small DER edits in Python for forms the tool will not write). The outputs are
# committed; run this only to change them. Keys come from keys/ (make_keys.sh).
#   ca.pem               self-signed CA, pathlen 1, keyCertSign/cRLSign, SKI = AKI
#   ca-nopathlen.pem     self-signed CA without pathlen
#   leaf.pem / .der      CA-issued: SAN (DNS, IPv4, IPv6, e-mail, URI), key usage, every
#                        extended key usage, AKI/SKI, CRL distribution point, CA:FALSE,
#                        policies and an unknown non-critical extension
#   unknown-critical.pem an unknown critical extension (must fail)
#   nc-dns.pem           critical name constraints, one permitted and one excluded DNS subtree
#   nc-two.pem           non-critical, two permitted subtrees (first kept)
#   nc-two-critical.pem  critical, two permitted subtrees (must fail)
#   nc-email.pem         non-critical rfc822 constraint (reported, parses)
#   policy-critical.pem  critical policyConstraints (must fail)
#   selfissued-noski.pem issuer == subject without key identifiers (not self-signed)
#   serial20.pem / serial21.pem   20- and 21-byte serialNumber contents
#   uniqueid.der         leaf.der with an issuerUniqueID inserted (must fail)
#   chain.pem            leaf, CA and key block mixed
#   typical.pem          a 2-KiB server certificate (RSA-4096), for the benchmark
#   crl.pem / crl.der    CRL with nextUpdate, CRL number, AKI and revoked entries with reasons
#   crl-empty.pem        CRL without revoked certificates
#   crl-nonext.der       crl.der without nextUpdate
#   req.pem              request with challengePassword, extensionRequest and an
#                        unstructuredName attribute
#   req-utf8pw.pem       the same with the password as UTF8String (must fail)
#   req-plain.pem        request without attributes
set -euo pipefail
cd "$(dirname "$0")/certs"
K=../keys
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat >"$work/ext.cnf" <<'CNF'
[req]
distinguished_name = dn
prompt = no
[dn]
CN = unused
[ca]
basicConstraints = critical, CA:TRUE, pathlen:1
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[ca_nopathlen]
basicConstraints = critical, CA:TRUE
subjectKeyIdentifier = hash
[leaf]
basicConstraints = CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth, clientAuth, codeSigning, emailProtection, timeStamping, OCSPSigning
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = DNS:host.example.com, IP:192.0.2.1, IP:2001:db8::1, email:admin@example.com, URI:https://example.com/x
crlDistributionPoints = URI:http://crl.example.com/ca.crl
certificatePolicies = 2.5.29.32.0
1.2.3.4.5 = ASN1:UTF8String:hello
[unknown_critical]
subjectKeyIdentifier = hash
1.2.3.4.6 = critical, ASN1:UTF8String:hello
[nc_dns]
basicConstraints = critical, CA:TRUE
nameConstraints = critical, permitted;DNS:.example.com, excluded;DNS:bad.example.com
[nc_two]
nameConstraints = permitted;DNS:.example.com, permitted;DNS:.example.org
[nc_two_critical]
nameConstraints = critical, permitted;DNS:.example.com, permitted;DNS:.example.org
[nc_email]
nameConstraints = permitted;email:example.com
[policy_critical]
policyConstraints = critical, requireExplicitPolicy:0
[none]
subjectKeyIdentifier = none
authorityKeyIdentifier = none
[reqext]
subjectAltName = DNS:req.example.com, IP:10.1.2.3
keyUsage = digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
CNF

days=3650
selfsign() {  # selfsign OUT KEY SUBJ SECTION [SERIAL]
  openssl req -x509 -new -key "$K/$2" -subj "$3" -days $days -sha256 -config "$work/ext.cnf" \
    -extensions "$4" -set_serial "${5:-0x1001}" -out "$1"
}
issue() {  # issue OUT KEY SUBJ SECTION SERIAL
  openssl req -new -key "$K/$2" -subj "$3" -config "$work/ext.cnf" -out "$work/csr"
  openssl x509 -req -in "$work/csr" -CA ca.pem -CAkey "$K/rsa2048.pkcs8.pem" -days $days -sha256 \
    -extfile "$work/ext.cnf" -extensions "$4" -set_serial "$5" -out "$1" 2>/dev/null
}

selfsign ca.pem rsa2048.pkcs8.pem "/C=LV/O=Tessel Test/CN=Tessel Test CA" ca
selfsign ca-nopathlen.pem rsa1024.pkcs8.pem "/C=LV/O=Tessel Test/CN=No Pathlen CA" ca_nopathlen 0x02
issue leaf.pem rsa1024.pkcs8.pem "/C=LV/L=Riga/O=Tessel Test/OU=Web/CN=host.example.com" leaf 0x0123456789abcdef
openssl x509 -in leaf.pem -outform DER -out leaf.der
issue unknown-critical.pem rsa1024.pkcs8.pem "/CN=unknown critical" unknown_critical 3
issue nc-dns.pem rsa1536.pkcs8.pem "/CN=Constrained CA" nc_dns 4
issue nc-two.pem rsa1536.pkcs8.pem "/CN=Two permitted" nc_two 5
issue nc-two-critical.pem rsa1536.pkcs8.pem "/CN=Two permitted critical" nc_two_critical 6
issue nc-email.pem rsa1536.pkcs8.pem "/CN=Email constraint" nc_email 7
issue policy-critical.pem rsa1536.pkcs8.pem "/CN=Policy critical" policy_critical 8
selfsign selfissued-noski.pem rsa1024.pkcs8.pem "/CN=Self issued" none 9
issue serial20.pem rsa1024.pkcs8.pem "/CN=Serial twenty" none 0x7f0102030405060708090a0b0c0d0e0f10111213
issue serial21.pem rsa1024.pkcs8.pem "/CN=Serial twenty-one" none 0x800102030405060708090a0b0c0d0e0f10111213
cat leaf.pem "$K/rsa1024.pkcs8.pem" ca.pem >chain.pem
selfsign typical.pem rsa4096.pkcs8.pem "/C=LV/L=Riga/O=Tessel Test/OU=Web/CN=www.example.com" leaf 0x5eed

# DER helpers for the edits below: element header writing and reading.
cat >"$work/der.py" <<'PY'
def hdr(tag, n):
    if n < 128: return bytes([tag, n])
    b = n.to_bytes((n.bit_length() + 7) // 8, 'big')
    return bytes([tag, 0x80 | len(b)]) + b
def read(d, i):  # returns (tag, content start, end)
    tag, n = d[i], d[i + 1]; i += 2
    if n & 0x80:
        k = n & 0x7f; n = int.from_bytes(d[i:i + k], 'big'); i += k
    return tag, i, i + n
def rewrite_tbs(src, dst, edit):
    """Writes src with edit() applied to the list of its TBS elements."""
    d = open(src, 'rb').read()
    _, c, end = read(d, 0)
    _, tc, te = read(d, c)
    elems = []; i = tc
    while i < te:
        _, _, e = read(d, i); elems.append(d[i:e]); i = e
    edit(elems)
    body = b''.join(elems)
    out = hdr(0x30, len(body)) + body + d[te:end]
    open(dst, 'wb').write(hdr(0x30, len(out)) + out)
PY

# issuerUniqueID [1] after the SubjectPublicKeyInfo: the tool cannot write it, so it is
# inserted into the DER (the signature no longer matches, which parsing does not check).
PYTHONPATH=$work python3 - leaf.der uniqueid.der <<'PY'
import sys
from der import rewrite_tbs
# After version, serial, signature, issuer, validity, subject, subjectPublicKeyInfo.
rewrite_tbs(sys.argv[1], sys.argv[2], lambda elems: elems.insert(7, bytes([0x81, 0x02, 0x00, 0x5A])))
PY

# A CRL from a minimal `openssl ca` directory.
mkdir -p "$work/ca"
: >"$work/ca/index.txt"
echo 1000 >"$work/ca/crlnumber"
cat >"$work/ca.cnf" <<CNF
[ca]
default_ca = testca
[testca]
database = $work/ca/index.txt
crlnumber = $work/ca/crlnumber
certificate = $PWD/ca.pem
private_key = $PWD/$K/rsa2048.pkcs8.pem
default_md = sha256
default_crl_days = 30
crl_extensions = crlext
[crlext]
authorityKeyIdentifier = keyid
CNF
openssl ca -config "$work/ca.cnf" -gencrl -out crl-empty.pem 2>/dev/null
openssl ca -config "$work/ca.cnf" -revoke leaf.pem -crl_reason keyCompromise 2>/dev/null
openssl ca -config "$work/ca.cnf" -revoke nc-dns.pem -crl_reason superseded 2>/dev/null
openssl ca -config "$work/ca.cnf" -revoke serial20.pem 2>/dev/null
openssl ca -config "$work/ca.cnf" -revoke nc-two.pem -crl_reason removeFromCRL 2>/dev/null || true
openssl ca -config "$work/ca.cnf" -gencrl -out crl.pem 2>/dev/null
openssl crl -in crl.pem -outform DER -out crl.der
# nextUpdate removed (the tool always writes one).
PYTHONPATH=$work python3 - crl.der crl-nonext.der <<'PY'
import sys
from der import rewrite_tbs
def drop_next_update(elems):  # version, signature, issuer, thisUpdate, nextUpdate, ...
    assert elems[4][0] in (0x17, 0x18)
    del elems[4]
rewrite_tbs(sys.argv[1], sys.argv[2], drop_next_update)
PY

cat >"$work/req.cnf" <<'CNF'
[req]
string_mask = default
distinguished_name = dn
attributes = attrs
req_extensions = reqext
prompt = no
[dn]
C = LV
O = Tessel Test
CN = req.example.com
[attrs]
challengePassword = secret-pw
unstructuredName = Tessel unit
[reqext]
subjectAltName = DNS:req.example.com, IP:10.1.2.3
keyUsage = digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
CNF
openssl req -new -key "$K/rsa1024.pkcs8.pem" -config "$work/req.cnf" -out req.pem
# The tool's usual string mask writes the password as a UTF8String, which must fail.
sed 's/string_mask = default/string_mask = utf8only/' "$work/req.cnf" >"$work/req-utf8.cnf"
openssl req -new -key "$K/rsa1024.pkcs8.pem" -config "$work/req-utf8.cnf" -out req-utf8pw.pem
openssl req -new -key "$K/rsa1024.pkcs8.pem" -subj "/CN=plain request" -config "$work/ext.cnf" -out req-plain.pem
ls | wc -l
