#!/usr/bin/env bash
# Regenerates the RSA key fixtures in keys/ with the openssl command-line tool. The outputs are
# committed; run this only to change them. Every key exists in the containers the library reads:
#   rsaN.pkcs8.pem / .der        PKCS#8 PrivateKeyInfo ("PRIVATE KEY")
#   rsaN.pkcs1.pem / .der        PKCS#1 RSAPrivateKey ("RSA PRIVATE KEY")
#   rsaN.pub.pem / .der          SubjectPublicKeyInfo ("PUBLIC KEY")
#   rsaN.pkcs1pub.pem            PKCS#1 RSAPublicKey ("RSA PUBLIC KEY")
#   rsa2048.enc-CIPHER-PRF.pem   encrypted PKCS#8 (PBES2, password in PASSWORD below)
#   rsa2048.enc-v1-3des.pem      encrypted PKCS#8 (pbeWithSHAAnd3-KeyTripleDES-CBC)
#   rsa2048.legacy-CIPHER.pem    legacy encrypted PEM (Proc-Type/DEK-Info)
set -euo pipefail
cd "$(dirname "$0")/keys"
PASSWORD=tessel-fixture
for bits in 1024 1536 2048 3072 4096; do
  k=rsa$bits
  openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:$bits -out $k.pkcs8.pem 2>/dev/null
  openssl pkcs8 -topk8 -nocrypt -in $k.pkcs8.pem -outform DER -out $k.pkcs8.der
  openssl rsa -in $k.pkcs8.pem -traditional -out $k.pkcs1.pem 2>/dev/null
  openssl rsa -in $k.pkcs8.pem -traditional -outform DER -out $k.pkcs1.der 2>/dev/null
  openssl pkey -in $k.pkcs8.pem -pubout -out $k.pub.pem
  openssl pkey -in $k.pkcs8.pem -pubout -outform DER -out $k.pub.der
  openssl rsa -in $k.pkcs8.pem -RSAPublicKey_out -out $k.pkcs1pub.pem 2>/dev/null
done
k=rsa2048
for cipher in aes-128-cbc aes-192-cbc aes-256-cbc des3; do
  for prf in hmacWithSHA1 hmacWithSHA256; do
    openssl pkcs8 -topk8 -in $k.pkcs8.pem -v2 $cipher -v2prf $prf -passout pass:$PASSWORD \
      -out $k.enc-$cipher-$prf.pem
  done
done
openssl pkcs8 -topk8 -in $k.pkcs8.pem -v1 PBE-SHA1-3DES -passout pass:$PASSWORD -out $k.enc-v1-3des.pem
openssl pkcs8 -topk8 -in $k.pkcs8.pem -v2 aes-256-cbc -passout pass:$PASSWORD -outform DER -out $k.enc-aes-256-cbc.der
for cipher in aes128 aes192 aes256 des3; do
  openssl rsa -in $k.pkcs8.pem -traditional -$cipher -passout pass:$PASSWORD -out $k.legacy-$cipher.pem 2>/dev/null
done
echo "$PASSWORD" > PASSWORD
ls | wc -l
