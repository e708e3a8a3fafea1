// Constant-time check under valgrind's memcheck for the RSA private operation and the
// Montgomery exponentiation under it. An RSA-2048 PKCS#1 v1.5 signature is computed with the
// key's d, p, q, dP, dQ and qInv marked undefined; the blinding factor comes from getrandom and
// is defined, but everything mixed with the key stays undefined until the result and the
// outcome of its check are marked defined (they are public by design). MontModulus::exp is
// checked on its own with secret base and exponent, on a curve-sized and an RSA-sized modulus.
// Run through tests/ct/run.sh; the exit code is memcheck's error count (0 = no leak of timing).
#include "ct_support.h"

#include <cstdio>
#include <vector>

#include "bignum/mont_ct.h"
#include "keys/rsa_private.h"
#include "tessel/hash.h"
#include "tessel/reducer.h"

namespace {

using ctcheck::reveal;
using ctcheck::revealed;

bool rsaSign() {
  using namespace tessel;
  RsaPrivateKey key;
  if (!key.parseFromDerEncoded(asn1::blob(ctcheck::fixture("keys/rsa2048.pkcs1.der")), {})) return false;
  unsigned char digest[32];
  for (int i = 0; i < 32; ++i) digest[i] = static_cast<unsigned char>(7 * i + 1);
  const std::vector<unsigned char> expected = key.signHashed(hashSha256, asn1::blob(digest, 32));
  const BigNum c = expByMod(BigNum(asn1::blob(expected)), key.e, key.n);  // the signature's PKCS#1 v1.5 block
  const std::size_t k = key.modulusLength();
  for (BigNum* secret : {&key.d, &key.p, &key.q, &key.dP, &key.dQ, &key.qInv}) ctcheck::secretNum(*secret);
  std::vector<unsigned char> sig(k), plain(k);
  const ct::Limb ok = reveal(rsa::privateOperationMasked(key, c, sig.data(), k));
  revealed(sig);
  // The same through d alone, for keys without their CRT values.
  for (BigNum* crt : {&key.p, &key.q, &key.dP, &key.dQ, &key.qInv}) ctcheck::publicNum(*crt), *crt = BigNum();
  const ct::Limb okPlain = reveal(rsa::privateOperationMasked(key, c, plain.data(), k));
  revealed(plain);
  std::printf("rsa-2048 sign: crt %s, plain d %s\n", ok && sig == expected ? "ok" : "FAILS",
              okPlain && plain == expected ? "ok" : "FAILS");
  return ok && okPlain && sig == expected && plain == expected;
}

bool montExp(unsigned bits) {
  using namespace tessel;
  BigNum n;
  for (unsigned i = 0; i < bits; i += 5) n.setBit(i, true);
  n.setBit(bits - 1, true);
  n.setBit(0, true);
  const ct::MontModulus m(n);
  std::vector<ct::Limb> base(m.limbs()), r(m.limbs()), check(m.limbs());
  for (std::size_t i = 0; i < base.size(); ++i) base[i] = static_cast<ct::Limb>(0x9e3779b97f4a7c15ull * (i + 1));
  base.back() = 1;  // below n
  std::vector<unsigned char> e(bits / 8);
  for (std::size_t i = 0; i < e.size(); ++i) e[i] = static_cast<unsigned char>(31 * i + 5);
  m.toMont(base.data(), base.data());
  m.expPublic_vartime(check.data(), base.data(), BigNum(asn1::blob(e)));
  ctcheck::secret(base.data(), base.size() * sizeof(ct::Limb));
  ctcheck::secret(e.data(), e.size());
  m.exp(r.data(), base.data(), e.data(), e.size());
  m.invPrime(r.data(), r.data());  // Fermat's power has a public exponent but a secret base
  m.mul(r.data(), r.data(), base.data());
  revealed(r, base);
  m.invPrime(check.data(), check.data());
  m.mul(check.data(), check.data(), base.data());
  const bool same = r == check;
  std::printf("mont exp %u bits %s\n", bits, same ? "ok" : "FAILS");
  return same;
}

}  // namespace

int main() {
  const bool ok = rsaSign() & montExp(256) & montExp(2048);
  return ok ? 0 : 2;
}
