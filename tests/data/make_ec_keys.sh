#!/usr/bin/env bash
# Regenerates the EC, Ed25519 and X25519 key fixtures in keys/ with the openssl command-line tool.
# The outputs are committed; run this only to change them. Each key exists as
#   NAME.pkcs8.pem / .der      PKCS#8 PrivateKeyInfo ("PRIVATE KEY")
#   NAME.pub.pem / .der        SubjectPublicKeyInfo ("PUBLIC KEY")
#   NAME.enc.pem / .enc.der    encrypted PKCS#8 (PBES2 AES-256-CBC, password in keys/PASSWORD)
#   NAME.raw                   the raw private and public key, hex, one per line (the oracle)
#   ecCURVE.sec1.pem / .der    RFC 5915 ECPrivateKey ("EC PRIVATE KEY", curve OID inside)
# (the EC keys have no .raw file: their SubjectPublicKeyInfo from OpenSSL is the oracle)
set -euo pipefail
cd "$(dirname "$0")/keys"
PASSWORD=$(cat PASSWORD)
for curve in P-192 P-224 P-256 P-384 P-521; do
  k=ec${curve#P-}
  openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:$curve -pkeyopt ec_param_enc:named_curve -out $k.pkcs8.pem
  openssl pkcs8 -topk8 -nocrypt -in $k.pkcs8.pem -outform DER -out $k.pkcs8.der
  openssl pkey -in $k.pkcs8.pem -pubout -out $k.pub.pem
  openssl pkey -in $k.pkcs8.pem -pubout -outform DER -out $k.pub.der
  openssl pkcs8 -topk8 -in $k.pkcs8.pem -v2 aes-256-cbc -passout pass:$PASSWORD -out $k.enc.pem
  openssl pkcs8 -topk8 -in $k.pkcs8.pem -v2 aes-256-cbc -passout pass:$PASSWORD -outform DER -out $k.enc.der
  openssl ec -in $k.pkcs8.pem -out $k.sec1.pem 2>/dev/null
  openssl ec -in $k.pkcs8.pem -outform DER -out $k.sec1.der 2>/dev/null
done
for alg in ed25519 x25519; do
  openssl genpkey -algorithm "$alg" -out $alg.pkcs8.pem
  openssl pkcs8 -topk8 -nocrypt -in $alg.pkcs8.pem -outform DER -out $alg.pkcs8.der
  openssl pkey -in $alg.pkcs8.pem -pubout -out $alg.pub.pem
  openssl pkey -in $alg.pkcs8.pem -pubout -outform DER -out $alg.pub.der
  openssl pkcs8 -topk8 -in $alg.pkcs8.pem -v2 aes-256-cbc -passout pass:$PASSWORD -out $alg.enc.pem
  openssl pkcs8 -topk8 -in $alg.pkcs8.pem -v2 aes-256-cbc -passout pass:$PASSWORD -outform DER -out $alg.enc.der
  # The raw values come from OpenSSL's own text dump.
  openssl pkey -in $alg.pkcs8.pem -text -noout |
    awk '/^priv:/{m="priv"; next} /^pub:/{m="pub"; next} m && /^ /{gsub(/[ :]/,""); v[m]=v[m] $0}
         END{print v["priv"]; print v["pub"]}' > $alg.raw
done
