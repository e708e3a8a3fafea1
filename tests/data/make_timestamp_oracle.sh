#!/usr/bin/env bash
# Sets up the scratch folder of the time-stamp oracle tests (timestamp_test.cpp) in the current
# folder: a P-256 root, time-stamping certificates over the RSA and P-256 fixture keys, one whose
# timeStamping purpose is not critical (RFC 3161 and OpenSSL want it critical), and the
# configuration `openssl ts -reply` answers with. Run by the tests; nothing here is committed output.
set -euo pipefail
keys="$(dirname "$0")/keys"
cp "$keys/rsa2048.pkcs8.pem" rsa.key
cp "$keys/ec256.pkcs8.pem" ec.key
printf 'the document being stamped\n' > data
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -subj /CN=TS-Root -days 30 \
  -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign -out ca.pem
openssl req -x509 -new -key rsa.key -CA ca.pem -CAkey ca.key -subj /CN=TSA-RSA -days 30 \
  -addext extendedKeyUsage=critical,timeStamping -out rsa.pem
openssl req -x509 -new -key ec.key -CA ca.pem -CAkey ca.key -subj /CN=TSA-EC -days 30 \
  -addext extendedKeyUsage=critical,timeStamping -out ec.pem
openssl req -x509 -new -key ec.key -CA ca.pem -CAkey ca.key -subj /CN=Not-a-TSA -days 30 \
  -addext extendedKeyUsage=timeStamping -out plain.pem
cat rsa.pem ec.pem plain.pem > untrusted.pem
printf '01\n' > serial
cat > tsa.cnf <<'CNF'
[ tsa ]
default_tsa = tsa1
[ tsa1 ]
serial = ./serial
crypto_device = builtin
signer_cert = ./rsa.pem
signer_key = ./rsa.key
signer_digest = sha256
default_policy = 1.2.3.4.1
other_policies = 1.2.3.4.5
digests = sha256, sha384, sha512
accuracy = secs:1, millisecs:500, microsecs:100
ordering = yes
tsa_name = yes
ess_cert_id_alg = sha256
CNF
