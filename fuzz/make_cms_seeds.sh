#!/usr/bin/env bash
# Writes the CMS fuzz seeds (fuzz/corpus/cms/openssl-* and tessel-*): small signed messages made
# by `openssl cms -sign` and, for what OpenSSL 3.0 does not write (Ed25519 signers, nested
# signed-data), by tessel itself through fuzz/cms_seed_writer.cpp, built against build/native.
#   fuzz/make_cms_seeds.sh
# Signers' certificates come from a throwaway CA and are good for a century, so that the
# fuzzer's fixed validation time (2030) falls inside them. Keys are the test fixtures.
set -euo pipefail
cd "$(dirname "$0")/.."
out=fuzz/corpus/cms keys=tests/data/keys
mkdir -p "$out"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# A CA (P-384) and one certificate per signing key, each with a subject key identifier.
openssl req -x509 -new -key $keys/ec384.pkcs8.pem -subj "/O=tessel/CN=Seed CA" -days 36500 -set_serial 1 \
  -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign -out "$tmp/ca.pem"
printf 'basicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature\nsubjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid\n' \
  >"$tmp/ext.cnf"
serial=2
for k in rsa2048 ec256 ed25519; do
  openssl req -new -key $keys/$k.pkcs8.pem -subj "/O=tessel/CN=seed $k" -out "$tmp/$k.csr"
  openssl x509 -req -in "$tmp/$k.csr" -CA "$tmp/ca.pem" -CAkey $keys/ec384.pkcs8.pem -set_serial $serial \
    -days 36500 -extfile "$tmp/ext.cnf" -out "$tmp/$k.pem" 2>/dev/null
  serial=$((serial + 1))
done
printf 'tessel fuzz seed content\n' >"$tmp/data.txt"

# sign NAME KEY [OPTIONS...]: one OpenSSL-made message, attached unless the options say otherwise.
sign() {
  local name=$1 k=$2
  shift 2
  openssl cms -sign -binary -outform DER -in "$tmp/data.txt" -signer "$tmp/$k.pem" -inkey $keys/$k.pkcs8.pem \
    "$@" -out "$out/openssl-$name"
}
sign rsa2048 rsa2048 -nodetach -md sha256 -certfile "$tmp/ca.pem"
sign rsa2048-pss rsa2048 -nodetach -md sha384 -keyopt rsa_padding_mode:pss
sign ec256 ec256 -nodetach -md sha256 -certfile "$tmp/ca.pem"
sign ec256-noattr ec256 -nodetach -noattr
sign ec256-keyid ec256 -nodetach -keyid
sign ec256-detached ec256 -md sha512
sign two-signers rsa2048 -nodetach -signer "$tmp/ec256.pem" -inkey $keys/ec256.pkcs8.pem -certfile "$tmp/ca.pem"
sign nocerts ec256 -nodetach -nocerts
# No signers at all: certificates and a CRL only, as crl2pkcs7 carries them.
openssl crl2pkcs7 -in tests/data/certs/crl.pem -certfile "$tmp/ca.pem" -outform DER -out "$out/openssl-certs-crl"

# The seeds only tessel writes.
cmake --build build/native --target tessel >/dev/null
c++ -std=c++20 -O1 -Iinclude fuzz/cms_seed_writer.cpp build/native/libtessel.a -o "$tmp/cms_seed_writer"
"$tmp/cms_seed_writer" $keys "$tmp" "$out"
ls -l "$out"
