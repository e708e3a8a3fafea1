// Constant-time check under valgrind's memcheck for the NIST curves P-192 to P-521: public-key
// derivation (setPrivateKey), ECDSA signing with its RFC 6979 nonce, and ECDH. The private
// scalar is marked undefined, so the nonce derived from it is too; the library declassifies only
// what it returns in public (the public key, the signature, whether a call failed), and the
// ECDH secret is marked defined here before it is compared.
// Run through tests/ct/run.sh; the exit code is memcheck's error count (0 = no leak of timing).
#include "ct_support.h"

#include <cstdio>

#include "tessel/ec_key.h"
#include "tessel/hash.h"

namespace {

using namespace tessel;

BigNum scalarFor(Curve c, unsigned seed) {
  const unsigned len = (getOrderForECCurve(c).bits() + 7) / 8;
  std::vector<unsigned char> bytes(len);
  for (unsigned i = 0; i < len; ++i) bytes[i] = static_cast<unsigned char>(seed * i + 0x5b);
  // Below n on every curve: the top bit clear, and for P-521 (whose n starts 01 ff) the top
  // byte at most 01 with the next one below ff.
  bytes[0] &= c == Curve::p521 ? 0x01 : 0x7f;
  bytes[1] &= 0x7f;
  return BigNum(asn1::blob(bytes));
}

}  // namespace

int main() {
  const unsigned char digest[32] = {0xd6, 0x3e, 0x01, 0x99, 0x42};
  int failures = 0;
  for (Curve c : {Curve::p192, Curve::p224, Curve::p256, Curve::p384, Curve::p521}) {
    EcPrivateKey ours, peer;
    peer.setPrivateKey(c, scalarFor(c, 71));

    BigNum d = scalarFor(c, 13);
    ctcheck::secretNum(d);
    const bool set = ours.setPrivateKey(c, d);
    ctcheck::secretNum(ours.d);
    const std::vector<unsigned char> sig = ours.signHashed(hashSha256, {digest, sizeof digest});
    std::vector<unsigned char> secret = ours.deriveSharedSecret(peer);
    ctcheck::revealed(secret);

    const bool verifies = peer.verifyHashed({digest, sizeof digest}, {sig.data(), sig.size()}) == false &&
                          ours.verifyHashed({digest, sizeof digest}, {sig.data(), sig.size()});
    const bool agree = !secret.empty() && secret == peer.deriveSharedSecret(ours);
    std::printf("%s: key %s, signature %s, ecdh %s\n", getCurveName(c), set ? "set" : "REFUSED",
                verifies ? "verifies" : "FAILS", agree ? "agrees" : "DIFFERS");
    failures += !(set && verifies && agree);
  }
  return failures;
}
