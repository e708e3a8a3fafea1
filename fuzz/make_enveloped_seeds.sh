#!/usr/bin/env bash
# Writes the enveloped-data fuzz seeds (fuzz/corpus/enveloped/openssl-*): small encrypted
# messages made by `openssl cms -encrypt`. The P-256 recipient's certificate carries the subject
# key id fuzz/enveloped_fuzz.cpp names its fixed key by, and the password is "fuzz", so that
# the fuzzer reaches the decryption paths.
#   fuzz/make_enveloped_seeds.sh
set -euo pipefail
cd "$(dirname "$0")/.."
out=fuzz/corpus/enveloped keys=tests/data/keys
mkdir -p "$out"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
openssl req -x509 -new -key $keys/ec256.pkcs8.pem -subj "/CN=seed ec256" -days 36500 \
  -addext subjectKeyIdentifier=7e:55:5e:ed:01:02:03:04 -out "$tmp/ec256.pem"
openssl req -x509 -new -key $keys/rsa2048.pkcs8.pem -subj "/CN=seed rsa2048" -days 36500 -out "$tmp/rsa2048.pem"
printf 'tessel fuzz seed content\n' >"$tmp/data.txt"
seal() {
  local name=$1
  shift
  openssl cms -encrypt -binary -outform DER -in "$tmp/data.txt" -out "$out/openssl-$name" "$@"
}
seal ec256-keyid-aes128 -aes128 -keyid "$tmp/ec256.pem"
seal ec256-keyid-aes256gcm -aes-256-gcm -keyid "$tmp/ec256.pem"
seal ec256-rsa-aes256 -aes256 "$tmp/ec256.pem" "$tmp/rsa2048.pem"
seal rsa-oaep-aes128gcm -aes-128-gcm -recip "$tmp/rsa2048.pem" -keyopt rsa_padding_mode:oaep
seal pwri-aes256 -aes256 -pwri_password fuzz
seal pwri-ec256-aes128 -aes128 -pwri_password fuzz -keyid "$tmp/ec256.pem"
