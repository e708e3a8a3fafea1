#!/usr/bin/env bash
# Writes NAME.crt in the current folder for each recipient of cms_enveloped_test.cpp: a
# self-signed certificate over each fixture key, except for X25519, which cannot sign, whose
# certificate the P-256 party issues over the X25519 public key. Run by the tests.
set -euo pipefail
keys="$(dirname "$0")/keys"
for name in rsa2048 ec256 ec384; do
  openssl req -x509 -new -key "$keys/$name.pkcs8.pem" -subj /CN=$name -days 2 -out $name.crt
done
openssl req -new -key "$keys/ec256.pkcs8.pem" -subj /CN=x25519 |
  openssl x509 -req -CA ec256.crt -CAkey "$keys/ec256.pkcs8.pem" -force_pubkey "$keys/x25519.pub.pem" -days 2 \
    -out x25519.crt
