#!/usr/bin/env bash
# Regenerates the Ed25519 and X25519 key fixtures in keys/ with the openssl command-line tool.
# The outputs are committed; run this only to change them. Each key exists as
#   NAME.pkcs8.pem / .der      PKCS#8 PrivateKeyInfo ("PRIVATE KEY")
#   NAME.pub.pem / .der        SubjectPublicKeyInfo ("PUBLIC KEY")
#   NAME.enc.pem / .enc.der    encrypted PKCS#8 (PBES2 AES-256-CBC, password in keys/PASSWORD)
#   NAME.raw                   the raw private and public key, hex, one per line (the oracle)
set -euo pipefail
cd "$(dirname "$0")/keys"
PASSWORD=$(cat PASSWORD)
for alg in ed25519 x25519; do
  openssl genpkey -algorithm "$alg" -out $alg.pkcs8.pem
  openssl pkey -in $alg.pkcs8.pem -outform DER -out $alg.pkcs8.der
  openssl pkey -in $alg.pkcs8.pem -pubout -out $alg.pub.pem
  openssl pkey -in $alg.pkcs8.pem -pubout -outform DER -out $alg.pub.der
  openssl pkcs8 -topk8 -in $alg.pkcs8.pem -v2 aes-256-cbc -passout pass:$PASSWORD -out $alg.enc.pem
  openssl pkcs8 -topk8 -in $alg.pkcs8.pem -v2 aes-256-cbc -passout pass:$PASSWORD -outform DER -out $alg.enc.der
  # The raw values come from OpenSSL's own text dump.
  openssl pkey -in $alg.pkcs8.pem -text -noout |
    awk '/^priv:/{m="priv"; next} /^pub:/{m="pub"; next} m && /^ /{gsub(/[ :]/,""); v[m]=v[m] $0}
         END{print v["priv"]; print v["pub"]}' > $alg.raw
done
