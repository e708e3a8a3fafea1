#!/usr/bin/env bash
# Regenerates the certificate chains of chains/ (path building and validation scenarios, listed
# in chains/scenarios.json) with the openssl command-line tool. The outputs are committed; run
# this only to change them. Keys come from keys/ or, for the extra ones, chains/keys/ (made
# once, then kept so that key identifiers stay the same). Every date is fixed.
#   root-rsa / int-rsa / leaf-rsa      RSA chain; int-rsa has pathlen 0 and a CRL point
#   root-p256 / int-p256 / leaf-p256   ECDSA P-256 chain
#   root-ed / int-ed / leaf-ed         Ed25519 chain
#   int-mix / leaf-mix                 Ed25519 CA under root-p256 signing an RSA leaf
#   leaf-expired, leaf-notyet          validity ending 2025-01-01, starting 2026-01-01
#   int-expired / leaf-intexp          an expired CA over a valid leaf
#   leaf-wild, leaf-addr, leaf-cn, leaf-cnip, leaf-anon   wildcard, IP and e-mail SANs, no SAN
#                                      (host or address in the CN), empty subject
#   nc1 / nc2 / leaf-nc-*              permitted example.com over excluded bad.example.com
#   nc-mail / leaf-nc-mail             a permitted e-mail subtree
#   pl0 / sub-pl / leaf-pl             pathlen 0 CA above a second CA
#   nobc / cafalse / leaf-nobc / leaf-cafalse   CAs without basicConstraints and with CA:FALSE
#   leaf-dp, leaf-revoked, int-rsa.crl, root-rsa.crl   CRL points; the root's CRL revokes a
#                                      decoy with leaf-dp's serial number
#   loop-a / loop-b / leaf-loop        two CAs that issued each other
#   leaf-badsig                        leaf-rsa with one signature bit flipped
#   leaf-self                          self-signed end-entity certificate
#   fake-root                          root-rsa's name and key identifier over another key
#   store-*.pem, untrusted-*.pem, crls-rsa.pem   bundles for the openssl verify cross-check
set -euo pipefail
cd "$(dirname "$0")/chains"
K=../keys
mkdir -p keys
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for k in p256-root p256-leaf loop-a loop-b nc1 nc2 nc-mail pl0 sub-pl nobc cafalse int-expired; do
  [[ -f keys/$k.pem ]] || openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out keys/$k.pem
done
for k in ed-root ed-leaf; do
  [[ -f keys/$k.pem ]] || openssl genpkey -algorithm ed25519 -out keys/$k.pem
done

cat >"$work/ca.cnf" <<'CNF'
[ca]
default_ca = db
[db]
database = $ENV::DB/index.txt
serial = $ENV::DB/serial
crlnumber = $ENV::DB/crlnumber
new_certs_dir = $ENV::DB
policy = any
unique_subject = no
default_md = default
email_in_dn = no
[any]
organizationName = optional
commonName = optional
[root]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[root_dp]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[ca_ext]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[int_rsa]
basicConstraints = critical, CA:TRUE, pathlen:0
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
crlDistributionPoints = URI:http://crl.example.com/root-rsa.crl
[pl0]
basicConstraints = critical, CA:TRUE, pathlen:0
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[nc1]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = DNS:ca1.example.org
nameConstraints = critical, permitted;DNS:example.com
[nc2]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = DNS:bad.example.com
nameConstraints = critical, excluded;DNS:bad.example.com
[nc_mail]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
nameConstraints = permitted;email:example.com
[nobc]
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[cafalse]
basicConstraints = critical, CA:FALSE
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[self]
basicConstraints = critical, CA:FALSE
subjectKeyIdentifier = hash
subjectAltName = DNS:self.example.com
[fake_root]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = $ENV::SKID
[leaf]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = $ENV::SAN
[leaf_nosan]
basicConstraints = critical, CA:FALSE
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[leaf_dp]
basicConstraints = critical, CA:FALSE
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = $ENV::SAN
crlDistributionPoints = URI:http://crl.example.com/int-rsa.crl
[crlext]
authorityKeyIdentifier = keyid
CNF
export SAN=DNS:unused SKID=00

key() { [[ -f keys/$1.pem ]] && echo "keys/$1.pem" || echo "$K/$1.pkcs8.pem"; }
db() {  # db NAME: the throwaway openssl ca database of one issuer
  mkdir -p "$work/$1"
  [[ -f $work/$1/index.txt ]] || { : >"$work/$1/index.txt"; echo 1000 >"$work/$1/crlnumber"; }
  echo "$work/$1"
}
# cert OUT KEY SUBJECT SECTION SERIAL START END ISSUER|self: issues OUT with the issuer's key
# (the issuer certificate is OUT's name without .pem under chains/).
cert() {
  local out=$1 k=$2 subj=$3 section=$4 serial=$5 start=$6 end=$7 issuer=$8
  openssl req -new -key "$(key "$k")" -subj "$subj" -out "$work/csr" 2>/dev/null
  if [[ $issuer == self ]]; then
    local d; d=$(db "${out%.pem}"); echo "$serial" >"$d/serial"
    DB=$d openssl ca -batch -config "$work/ca.cnf" -selfsign -keyfile "$(key "$k")" -in "$work/csr" \
      -out "$out" -extfile "$work/ca.cnf" -extensions "$section" -startdate "$start" -enddate "$end" \
      -notext -preserveDN -md default 2>"$work/err" || { cat "$work/err"; exit 1; }
  else
    local d; d=$(db "$issuer"); echo "$serial" >"$d/serial"
    DB=$d openssl ca -batch -config "$work/ca.cnf" -cert "$issuer.pem" -keyfile "$(key "$(cat "$work/$issuer.key")")" \
      -in "$work/csr" -out "$out" -extfile "$work/ca.cnf" -extensions "$section" -startdate "$start" \
      -enddate "$end" -notext -preserveDN -md default 2>"$work/err" || { cat "$work/err"; exit 1; }
  fi
  echo "$k" >"$work/$(basename "${out%.pem}").key"
}
ROOT=(20200101000000Z 20400101000000Z)
INT=(20210101000000Z 20390101000000Z)
LEAF=(20240101000000Z 20300101000000Z)
O="/O=Tessel Test/CN="

cert root-rsa.pem rsa2048 "${O}Tessel Root RSA" root 01 "${ROOT[@]}" self
cert int-rsa.pem rsa1536 "${O}Tessel Int RSA" int_rsa 02 "${INT[@]}" root-rsa
SAN="DNS:www.example.com, DNS:API.Example.com" cert leaf-rsa.pem rsa1024 "/CN=www.example.com" leaf 03 "${LEAF[@]}" int-rsa
cert root-p256.pem p256-root "${O}Tessel Root P-256" root 11 "${ROOT[@]}" self
cert int-p256.pem ec256 "${O}Tessel Int P-256" ca_ext 12 "${INT[@]}" root-p256
SAN="DNS:ec.example.com" cert leaf-p256.pem p256-leaf "/CN=ec.example.com" leaf 13 "${LEAF[@]}" int-p256
cert root-ed.pem ed-root "${O}Tessel Root Ed25519" root 21 "${ROOT[@]}" self
cert int-ed.pem ed25519 "${O}Tessel Int Ed25519" ca_ext 22 "${INT[@]}" root-ed
SAN="DNS:ed.example.com" cert leaf-ed.pem ed-leaf "/CN=ed.example.com" leaf 23 "${LEAF[@]}" int-ed
cert int-mix.pem ed25519 "${O}Tessel Int Mixed" ca_ext 14 "${INT[@]}" root-p256
SAN="DNS:mix.example.com" cert leaf-mix.pem rsa1024 "/CN=mix.example.com" leaf 15 "${LEAF[@]}" int-mix

SAN="DNS:old.example.com" cert leaf-expired.pem rsa1024 "/CN=old.example.com" leaf 04 20230101000000Z 20250101000000Z int-rsa
SAN="DNS:new.example.com" cert leaf-notyet.pem rsa1024 "/CN=new.example.com" leaf 05 20260101000000Z 20300101000000Z int-rsa
cert int-expired.pem int-expired "${O}Tessel Int Expired" ca_ext 31 20210101000000Z 20250101000000Z root-rsa
SAN="DNS:intexp.example.com" cert leaf-intexp.pem rsa1024 "/CN=intexp.example.com" leaf 32 "${LEAF[@]}" int-expired

SAN="DNS:*.b.example.com" cert leaf-wild.pem rsa1024 "/CN=Wildcard" leaf 06 "${LEAF[@]}" int-rsa
SAN="IP:192.0.2.7, IP:2001:db8::7, email:user@example.com" cert leaf-addr.pem rsa1024 "/CN=Addresses" leaf 07 "${LEAF[@]}" int-rsa
cert leaf-cn.pem rsa1024 "/CN=legacy.example.com" leaf_nosan 08 "${LEAF[@]}" int-rsa
cert leaf-cnip.pem rsa1024 "/CN=192.0.2.9" leaf_nosan 09 "${LEAF[@]}" int-rsa
SAN="DNS:anon.example.com, IP:192.0.2.10" cert leaf-anon.pem rsa1024 "/" leaf 0a "${LEAF[@]}" int-rsa

cert nc1.pem nc1 "${O}Tessel NC Permit" nc1 41 "${INT[@]}" root-rsa
cert nc2.pem nc2 "${O}Tessel NC Exclude" nc2 42 "${INT[@]}" nc1
SAN="DNS:good.example.com, IP:192.0.2.20" cert leaf-nc-ok.pem rsa1024 "/CN=good.example.com" leaf 43 "${LEAF[@]}" nc2
SAN="DNS:x.bad.example.com" cert leaf-nc-excl.pem rsa1024 "/CN=x.bad.example.com" leaf 44 "${LEAF[@]}" nc2
SAN="DNS:www.example.org" cert leaf-nc-perm.pem rsa1024 "/CN=www.example.org" leaf 45 "${LEAF[@]}" nc2
cert nc-mail.pem nc-mail "${O}Tessel NC Mail" nc_mail 46 "${INT[@]}" root-rsa
SAN="DNS:mail.example.com, email:user@example.com" cert leaf-nc-mail.pem rsa1024 "/CN=mail.example.com" leaf 47 "${LEAF[@]}" nc-mail

cert pl0.pem pl0 "${O}Tessel Pathlen 0" pl0 51 "${INT[@]}" root-rsa
cert sub-pl.pem sub-pl "${O}Tessel Below Pathlen 0" ca_ext 52 "${INT[@]}" pl0
SAN="DNS:deep.example.com" cert leaf-pl.pem rsa1024 "/CN=deep.example.com" leaf 53 "${LEAF[@]}" sub-pl

cert nobc.pem nobc "${O}Tessel No Basic Constraints" nobc 61 "${INT[@]}" root-rsa
SAN="DNS:nobc.example.com" cert leaf-nobc.pem rsa1024 "/CN=nobc.example.com" leaf 62 "${LEAF[@]}" nobc
cert cafalse.pem cafalse "${O}Tessel CA False" cafalse 63 "${INT[@]}" root-rsa
SAN="DNS:cafalse.example.com" cert leaf-cafalse.pem rsa1024 "/CN=cafalse.example.com" leaf 64 "${LEAF[@]}" cafalse

SAN="DNS:dp.example.com" cert leaf-dp.pem rsa1024 "/CN=dp.example.com" leaf_dp 71 "${LEAF[@]}" int-rsa
SAN="DNS:revoked.example.com" cert leaf-revoked.pem rsa1024 "/CN=revoked.example.com" leaf_dp 72 "${LEAF[@]}" int-rsa
SAN="DNS:decoy.example.com" cert "$work/decoy.pem" rsa1024 "/CN=decoy" leaf 71 "${LEAF[@]}" root-rsa
crl() {  # crl ISSUER OUT
  DB=$(db "$1") openssl ca -config "$work/ca.cnf" -gencrl -cert "$1.pem" -keyfile "$(key "$(cat "$work/$1.key")")" \
    -crlexts crlext -crl_lastupdate 20240101000000Z -crl_nextupdate 20340101000000Z -md default -out "$2"
}
DB=$(db int-rsa) openssl ca -config "$work/ca.cnf" -cert int-rsa.pem -keyfile "$K/rsa1536.pkcs8.pem" \
  -revoke leaf-revoked.pem -crl_reason keyCompromise
fixdates() {  # the tool dates revocations now; a fixed date keeps reruns comparable
  sed -i -E 's/^(R\t[0-9]+Z\t)[0-9]+Z/\1240601000000Z/' "$(db "$1")/index.txt"
}
fixdates int-rsa
crl int-rsa int-rsa.crl
DB=$(db root-rsa) openssl ca -config "$work/ca.cnf" -cert root-rsa.pem -keyfile "$K/rsa2048.pkcs8.pem" \
  -revoke "$work/decoy.pem"
fixdates root-rsa
crl root-rsa root-rsa.crl

# Loop: A and B issued each other. B is first issued under a temporary self-signed A, whose
# name and key identifier the final A shares.
cert loop-a.pem loop-a "${O}Tessel Loop A" root 81 "${INT[@]}" self
cert loop-b.pem loop-b "${O}Tessel Loop B" ca_ext 82 "${INT[@]}" loop-a
cert loop-a.pem loop-a "${O}Tessel Loop A" ca_ext 83 "${INT[@]}" loop-b
SAN="DNS:loop.example.com" cert leaf-loop.pem rsa1024 "/CN=loop.example.com" leaf 84 "${LEAF[@]}" loop-a

cert leaf-self.pem rsa1024 "/CN=self.example.com" self 91 "${LEAF[@]}" self
SKID=$(openssl x509 -in root-rsa.pem -noout -ext subjectKeyIdentifier | sed -n 2p | tr -d ' ') \
  cert fake-root.pem rsa3072 "${O}Tessel Root RSA" fake_root 92 "${ROOT[@]}" self

# One bit of the signature's last byte flipped.
openssl x509 -in leaf-rsa.pem -outform DER -out "$work/leaf.der"
python3 - "$work/leaf.der" <<'PY'
import sys
d = bytearray(open(sys.argv[1], 'rb').read()); d[-1] ^= 1; open(sys.argv[1], 'wb').write(d)
PY
openssl x509 -inform DER -in "$work/leaf.der" -out leaf-badsig.pem

cat loop-a.pem loop-b.pem >store-loop.pem
cat nc1.pem nc2.pem >untrusted-nc.pem
cat pl0.pem sub-pl.pem >untrusted-pl.pem
cat int-rsa.crl root-rsa.crl >crls-rsa.pem
cat int-rsa.pem fake-root.pem >untrusted-fake.pem
ls | wc -l
