#!/usr/bin/env bash
# Regenerates the certificates and CRLs of verify/ (the scenarios of tests/verify_test.cpp and
# tests/crl_auth_test.cpp) with the openssl command-line tool. The outputs are committed; run
# this only to change them. Keys are made once under verify/keys and then kept, so that key
# identifiers stay the same. Every date is fixed (the tests validate at 2025-06-15).
#   root / ica / leaf                  P-256 chain; leaf has DNS, wildcard, IP and e-mail SANs
#   ica-old.crl, ica-new.crl           ica's lists of 2024-01 (empty) and 2024-06 (leaf-rev)
#   ica-stale.crl                      ica's list whose nextUpdate (2025-01) has passed
#   forger + forged.crl                ica's name and key id over another key, a newer empty list
#   ica-nocrl / leaf-nocrl + nocrl.crl an issuer whose keyUsage lacks cRLSign, its list
#   crlsigner + delegated.crl          a CRL signer ica certified; its list revokes leaf-rev
#   rogue-signer + rogue.crl           ica's name with cRLSign, but self-signed
#   root2 / xroot2 / xroot2-expired / ica2 / leaf2   a second root, cross-signed by root
#   ica-exp, other-root / ica-other    ica's name and key expired, and under an untrusted root
#   loop-a / loop-b / leaf-loop        two CAs that issued each other
#   pool-root / pool.pem / leaf-pool   300 CAs of one name over keys of their own (hostile search)
#   leaf-sha1, ica-rsa1024 / leaf-weak, cafalse, pl0 / sub / pl0-roll, nokcs, leaf-aia-crit
#   leaf-nosan, leaf-client, leaf-anyeku, leaf-noeku, leaf-crlku, srvca / leaf-srvca-*
#   nc / leaf-nc-*                     name constraints (non-critical: several subtrees)
set -euo pipefail
cd "$(dirname "$0")"
mkdir -p keys
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for k in root ica leaf root2 ica2 other forger nocrl crlsigner rogue loop-a loop-b pool pl0 pl0b sub cafalse \
         nokcs srvca nc; do
  [[ -f keys/$k.pem ]] || openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out keys/$k.pem
done
cp ../keys/rsa1024.pkcs8.pem keys/rsa1024.pem

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
default_md = sha256
email_in_dn = no
[any]
organizationName = optional
commonName = optional
[root]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[ca_ext]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[forger]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = $ENV::SKID
[pool]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = $ENV::SKID
authorityKeyIdentifier = keyid
[nocrl]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[crlsigner]
basicConstraints = critical, CA:FALSE
keyUsage = critical, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[rogue]
keyUsage = critical, cRLSign
subjectKeyIdentifier = hash
[cafalse]
basicConstraints = critical, CA:FALSE
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[pl0]
basicConstraints = critical, CA:TRUE, pathlen:0
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[nokcs]
basicConstraints = critical, CA:TRUE
keyUsage = critical, digitalSignature, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[srvca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
extendedKeyUsage = serverAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[nc]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
nameConstraints = permitted;DNS:example.com, permitted;IP:192.0.2.0/255.255.255.0, permitted;email:example.com, excluded;DNS:bad.example.com
[leaf]
basicConstraints = critical, CA:FALSE
keyUsage = critical, $ENV::KU
extendedKeyUsage = $ENV::EKU
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = $ENV::SAN
[leaf_noeku]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = $ENV::SAN
[leaf_nosan]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[leaf_aia]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = $ENV::SAN
authorityInfoAccess = critical, caIssuers;URI:http://ca.example.com/ica.crt
[crlext]
authorityKeyIdentifier = keyid
CNF
export SAN=DNS:unused SKID=00 KU=digitalSignature EKU=serverAuth

db() {  # db NAME: the throwaway openssl ca database of one issuer
  mkdir -p "$work/$1"
  [[ -f $work/$1/index.txt ]] || { : >"$work/$1/index.txt"; echo 1000 >"$work/$1/crlnumber"; }
  echo "$work/$1"
}
keyof() { cat "$work/${1%.pem}.key"; }
# cert OUT KEY SUBJECT SECTION SERIAL START END ISSUER|self [MD]: issues OUT.pem with the
# issuer's key (ISSUER names the issuer's .pem here without the suffix).
cert() {
  local out=$1 k=$2 subj=$3 section=$4 serial=$5 start=$6 end=$7 issuer=$8 md=${9:-sha256}
  openssl req -new -key "keys/$k.pem" -subj "$subj" -out "$work/csr" 2>/dev/null
  local name=$issuer signer=() ikey
  if [[ $issuer == self ]]; then name=$out; signer=(-selfsign); ikey=$k; else signer=(-cert "$issuer.pem"); ikey=$(keyof "$issuer"); fi
  local d; d=$(db "$name"); echo "$serial" >"$d/serial"
  DB=$d openssl ca -batch -config "$work/ca.cnf" "${signer[@]}" -keyfile "keys/$ikey.pem" -in "$work/csr" \
    -out "$out.pem" -extfile "$work/ca.cnf" -extensions "$section" -startdate "$start" -enddate "$end" \
    -notext -preserveDN -md "$md" 2>"$work/err" || { cat "$work/err"; exit 1; }
  echo "$k" >"$work/$out.key"
}
# crl ISSUER_CERT KEY DB OUT LAST NEXT: the list of DB's revocations, signed as ISSUER_CERT.
crl() {
  DB=$(db "$3") openssl ca -config "$work/ca.cnf" -gencrl -cert "$1.pem" -keyfile "keys/$2.pem" -crlexts crlext \
    -crl_lastupdate "$5" -crl_nextupdate "$6" -md sha256 -out "$4" 2>"$work/err" || { cat "$work/err"; exit 1; }
}
revoke() {  # revoke DB CERT: records CERT as revoked (on a fixed date) in DB
  DB=$(db "$1") openssl ca -config "$work/ca.cnf" -cert root.pem -keyfile keys/root.pem -revoke "$2.pem" \
    -crl_reason keyCompromise 2>"$work/err" || { cat "$work/err"; exit 1; }
  sed -i -E 's/^(R\t[0-9]+Z\t)[0-9]+Z/\1240501000000Z/' "$(db "$1")/index.txt"
}
ROOT=(20200101000000Z 20370101000000Z)
INT=(20210101000000Z 20360101000000Z)
LEAF=(20240101000000Z 20300101000000Z)
OLD=(20210101000000Z 20250101000000Z)
O="/O=Tessel Verify/CN="
ALL="digitalSignature, keyEncipherment"

cert root root "${O}Verify Root" root 01 "${ROOT[@]}" self
cert ica ica "${O}Verify CA" ca_ext 02 "${INT[@]}" root
SAN="DNS:www.example.com, DNS:*.w.example.com, DNS:f*.example.com, IP:192.0.2.7, IP:2001:db8::7, email:user@example.com" \
  KU=$ALL EKU="serverAuth, clientAuth, emailProtection" cert leaf leaf "/CN=cn.example.com" leaf 03 "${LEAF[@]}" ica
SAN=DNS:old.example.com cert leaf-expired leaf "/CN=old.example.com" leaf 04 20230101000000Z 20250101000000Z ica
SAN=DNS:rev.example.com cert leaf-rev leaf "/CN=rev.example.com" leaf 05 "${LEAF[@]}" ica

# ica's lists: empty in January, leaf-rev revoked from June, a stale one; root's list.
crl ica ica ica ica-old.crl 20240101000000Z 20340101000000Z
revoke ica leaf-rev
crl ica ica ica ica-new.crl 20240601000000Z 20340101000000Z
crl ica ica ica ica-stale.crl 20240601000000Z 20250101000000Z
crl root root root root.crl 20240101000000Z 20340101000000Z
SKID=$(openssl x509 -in ica.pem -noout -ext subjectKeyIdentifier | sed -n 2p | tr -d ' ') \
  cert forger forger "${O}Verify CA" forger 06 "${INT[@]}" self
crl forger forger forger forged.crl 20250101000000Z 20340101000000Z

cert ica-nocrl nocrl "${O}Verify CA No CRL Sign" nocrl 07 "${INT[@]}" root
SAN=DNS:nocrl.example.com cert leaf-nocrl leaf "/CN=nocrl.example.com" leaf 08 "${LEAF[@]}" ica-nocrl
revoke ica-nocrl leaf-nocrl
crl ica-nocrl nocrl ica-nocrl nocrl.crl 20240601000000Z 20340101000000Z

cert crlsigner crlsigner "${O}Verify CA" crlsigner 09 "${INT[@]}" ica
revoke crlsigner leaf-rev
crl crlsigner crlsigner crlsigner delegated.crl 20250101000000Z 20340101000000Z
cert rogue-signer rogue "${O}Verify CA" rogue 0a "${INT[@]}" self
crl rogue-signer rogue rogue-signer rogue.crl 20250201000000Z 20340101000000Z

# Path building.
cert root2 root2 "${O}Verify Root 2" root 11 "${ROOT[@]}" self
cert xroot2 root2 "${O}Verify Root 2" ca_ext 12 "${INT[@]}" root
cert xroot2-expired root2 "${O}Verify Root 2" ca_ext 13 "${OLD[@]}" root
cert ica2 ica2 "${O}Verify CA 2" ca_ext 14 "${INT[@]}" root2
SAN=DNS:two.example.com cert leaf2 leaf "/CN=two.example.com" leaf 15 "${LEAF[@]}" ica2
cert ica-exp ica "${O}Verify CA" ca_ext 16 "${OLD[@]}" root
cert other-root other "${O}Verify Other Root" root 17 "${ROOT[@]}" self
cert ica-other ica "${O}Verify CA" ca_ext 18 "${INT[@]}" other-root
cert loop-a loop-a "${O}Verify Loop A" root 19 "${INT[@]}" self
cert loop-b loop-b "${O}Verify Loop B" ca_ext 1a "${INT[@]}" loop-a
cert loop-a loop-a "${O}Verify Loop A" ca_ext 1b "${INT[@]}" loop-b
SAN=DNS:loop.example.com cert leaf-loop leaf "/CN=loop.example.com" leaf 1c "${LEAF[@]}" loop-a
cert pool-root pool "${O}Verify Pool" ca_ext 1d "${INT[@]}" self
SAN=DNS:pool.example.com cert leaf-pool leaf "/CN=pool.example.com" leaf 1e "${LEAF[@]}" pool-root
# The pool: 300 CAs of pool-root's name and key id, each over a key of its own (made afresh,
# not kept): every one is a candidate issuer of leaf-pool and of pool-root, and none verifies.
for i in $(seq 300); do
  openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$work/pool$i.key"
  openssl req -new -key "$work/pool$i.key" -subj "${O}Verify Pool" -out "$work/pool$i.csr"
done
SKID=$(openssl x509 -in pool-root.pem -noout -ext subjectKeyIdentifier | sed -n 2p | tr -d ' ')
export SKID
d=$(db pool-root); echo 2000 >"$d/serial"
mapfile -t csrs < <(for i in $(seq 300); do echo "$work/pool$i.csr"; done)
DB=$d openssl ca -batch -config "$work/ca.cnf" -cert pool-root.pem -keyfile keys/pool.pem -extfile "$work/ca.cnf" \
  -extensions pool -startdate "${INT[0]}" -enddate "${INT[1]}" -notext -preserveDN -md sha256 \
  -out "$work/pool.pem" -infiles "${csrs[@]}" 2>"$work/err" || { cat "$work/err"; exit 1; }
cat "$d"/2???.pem >pool.pem  # -out keeps only the last; the database folder has each

# One rule each.
SAN=DNS:sha1.example.com cert leaf-sha1 leaf "/CN=sha1.example.com" leaf 21 "${LEAF[@]}" ica sha1
cert ica-rsa1024 rsa1024 "${O}Verify CA RSA-1024" ca_ext 22 "${INT[@]}" root
SAN=DNS:weak.example.com cert leaf-weak leaf "/CN=weak.example.com" leaf 23 "${LEAF[@]}" ica-rsa1024
cert cafalse cafalse "${O}Verify CA False" cafalse 24 "${INT[@]}" root
SAN=DNS:cafalse.example.com cert leaf-cafalse leaf "/CN=cafalse.example.com" leaf 25 "${LEAF[@]}" cafalse
cert pl0 pl0 "${O}Verify Pathlen 0" pl0 26 "${INT[@]}" root
cert sub sub "${O}Verify Below Pathlen 0" ca_ext 27 "${INT[@]}" pl0
SAN=DNS:deep.example.com cert leaf-pl leaf "/CN=deep.example.com" leaf 28 "${LEAF[@]}" sub
cert pl0-roll pl0b "${O}Verify Pathlen 0" pl0 29 "${INT[@]}" pl0
SAN=DNS:roll.example.com cert leaf-roll leaf "/CN=roll.example.com" leaf 2a "${LEAF[@]}" pl0-roll
cert nokcs nokcs "${O}Verify CA No Cert Sign" nokcs 2b "${INT[@]}" root
SAN=DNS:nokcs.example.com cert leaf-nokcs leaf "/CN=nokcs.example.com" leaf 2c "${LEAF[@]}" nokcs
SAN=DNS:aia.example.com cert leaf-aia-crit leaf "/CN=aia.example.com" leaf_aia 2d "${LEAF[@]}" ica

# Names and purposes.
cert leaf-nosan leaf "/CN=legacy.example.com" leaf_nosan 31 "${LEAF[@]}" ica
SAN=email:client@example.com KU=digitalSignature EKU=clientAuth cert leaf-client leaf "/CN=client" leaf 32 "${LEAF[@]}" ica
SAN=DNS:any.example.com EKU=anyExtendedKeyUsage cert leaf-anyeku leaf "/CN=any.example.com" leaf 33 "${LEAF[@]}" ica
SAN=DNS:noeku.example.com cert leaf-noeku leaf "/CN=noeku.example.com" leaf_noeku 34 "${LEAF[@]}" ica
SAN=DNS:crlku.example.com KU=cRLSign cert leaf-crlku leaf "/CN=crlku.example.com" leaf 35 "${LEAF[@]}" ica
cert srvca srvca "${O}Verify Server CA" srvca 36 "${INT[@]}" root
SAN=DNS:srv.example.com cert leaf-srvca-server leaf "/CN=srv.example.com" leaf 37 "${LEAF[@]}" srvca
SAN=DNS:cli.example.com EKU=clientAuth cert leaf-srvca-client leaf "/CN=cli.example.com" leaf 38 "${LEAF[@]}" srvca

# Name constraints.
cert nc nc "${O}Verify NC" nc 41 "${INT[@]}" root
SAN="DNS:good.example.com, IP:192.0.2.20, email:user@example.com" cert leaf-nc-ok leaf "/CN=good" leaf 42 "${LEAF[@]}" nc
SAN=DNS:x.bad.example.com cert leaf-nc-excl leaf "/CN=excl" leaf 43 "${LEAF[@]}" nc
SAN=DNS:*.bad.example.com cert leaf-nc-wild leaf "/CN=wild" leaf 44 "${LEAF[@]}" nc
SAN=DNS:www.example.org cert leaf-nc-dns leaf "/CN=dns" leaf 45 "${LEAF[@]}" nc
SAN="DNS:ip.example.com, IP:198.51.100.1" cert leaf-nc-ip leaf "/CN=ip" leaf 46 "${LEAF[@]}" nc
SAN="DNS:mail.example.com, email:user@example.org" cert leaf-nc-mail leaf "/CN=mail" leaf 47 "${LEAF[@]}" nc
# Chains as a peer sends them, for the tool's runs.
cat leaf.pem ica.pem >leaf-chain.pem
cat leaf-rev.pem ica.pem >leaf-rev-chain.pem
ls *.pem *.crl | wc -l
