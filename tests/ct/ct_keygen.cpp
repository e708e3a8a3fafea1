// Constant-time check under valgrind's memcheck for RSA key generation. The derivation of n, d,
// dP, dQ and qInv runs on the primes of tests/data/keys/rsa2048.pkcs1.der marked undefined, and
// Miller–Rabin runs on one of them with bases from a source whose every byte is undefined; then
// a whole 512-bit key is generated from such a source (the prime search and its rejections
// included), and so are an EC key on every curve, an Ed25519 and an X25519 key. Only the verdicts on candidates, digit
// counts and the modulus are public. Run through tests/ct/run.sh; the exit code is memcheck's error count (0 = no leak
// of timing).
#include "ct_support.h"

#include <cstdio>

#include "keys/rsa_keygen.h"
#include "tessel/ec_key.h"
#include "tessel/ed25519_x25519_keys.h"

namespace {

using ctcheck::publicNum;
using tessel::BigNum;

// SecretRng hands out undefined bytes from a fixed xorshift sequence.
class SecretRng : public tessel::Rng {
 public:
  bool generate(unsigned char* buf, unsigned len) override {
    for (unsigned i = 0; i < len; ++i) {
      state_ ^= state_ << 13, state_ ^= state_ >> 7, state_ ^= state_ << 17;
      buf[i] = static_cast<unsigned char>(state_);
    }
    ctcheck::secret(buf, len);
    return true;
  }
  bool generateInsecure(unsigned char* buf, unsigned len) override { return generate(buf, len); }

 private:
  unsigned long long state_ = 0x9e3779b97f4a7c15ull;
};

BigNum mod(const BigNum& a, const BigNum& m) {
  BigNum r;
  tessel::div(a, m, nullptr, &r);
  return r;
}

bool derive() {
  using namespace tessel;
  RsaPrivateKey ref, key;
  if (!ref.parseFromDerEncoded(asn1::blob(ctcheck::fixture("keys/rsa2048.pkcs1.der")), {})) return false;
  BigNum p = ref.p, q = ref.q;
  ctcheck::secretNum(p);
  ctcheck::secretNum(q);
  SecretRng rng;
  const bool prime = rsa::isProbablePrime(p, rsa::millerRabinRounds(1024), rng);
  const bool derived = rsa::deriveKey(key, p, q, 1024);
  for (BigNum* x : {&key.d, &key.p, &key.q, &key.dP, &key.dQ, &key.qInv}) publicNum(*x);
  const bool swapped = ref.p < ref.q;
  const BigNum pm1 = key.p - BigNum(1), qm1 = key.q - BigNum(1);
  const bool ok = prime && derived && key.n == ref.n && key.p == (swapped ? ref.q : ref.p) &&
                  key.dP == (swapped ? ref.dQ : ref.dP) && key.dQ == (swapped ? ref.dP : ref.dQ) &&
                  mod(key.qInv * key.q, key.p) == BigNum(1) && mod(key.d * key.e, pm1) == BigNum(1) &&
                  mod(key.d * key.e, qm1) == BigNum(1);
  std::printf("rsa-2048 derivation and Miller-Rabin: %s\n", ok ? "ok" : "FAILS");
  return ok;
}

bool generate() {
  tessel::RsaPrivateKey key;
  SecretRng rng;
  bool ok = tessel::rsa::generateKey(key, 512, rng);
  for (BigNum* x : {&key.d, &key.p, &key.q, &key.dP, &key.dQ, &key.qInv}) publicNum(*x);
  ok = ok && key.n == key.p * key.q;
  std::printf("rsa-512 generation: %s\n", ok ? "ok" : "FAILS");
  return ok;
}

// otherKeys draws the EC scalars (rejection sampling) and the 25519 keys from undefined bytes;
// the public keys come out defined by design.
bool otherKeys() {
  using namespace tessel;
  SecretRng rng;
  bool ok = true;
  for (unsigned c = 1; c <= 5; ++c) {
    EcPrivateKey key;
    ok &= key.generate(static_cast<Curve>(c), rng);
    publicNum(key.d);
    ok &= key.curve == static_cast<Curve>(c) && !key.d.isZero();
  }
  Ed25519PrivateKey ed;
  X25519PrivateKey x;
  ok &= ed.generate(rng) && x.generate(rng);
  std::printf("ec, ed25519 and x25519 generation: %s\n", ok ? "ok" : "FAILS");
  return ok;
}

}  // namespace

int main() {
  const bool ok = derive() & generate() & otherKeys();
  return ok ? 0 : 2;
}
