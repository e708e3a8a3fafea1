// Key generation for every key type; RSA's prime search is in rsa_keygen.cpp.
#include "tessel/keygen.h"

#include "core/declassify.h"
#include "core/secret.h"
#include "ec/nist_ct.h"
#include "keys/rsa_keygen.h"
#include "tessel/ec_key.h"
#include "tessel/ed25519_x25519_keys.h"
#include "tessel/mlkem_keys.h"
#include "tessel/rsa.h"

namespace tessel {

namespace {

// scalarBigNum reads a secret big-endian scalar into a BigNum digit by digit; only its digit
// count is made public (as everywhere in the key code), not found by the branches of BigNum(blob).
BigNum scalarBigNum(const std::vector<unsigned char>& bytes) {
  BigNum x;
  x.digits().assign((bytes.size() + 3) / 4, 0);
  for (std::size_t i = 0; i < bytes.size(); ++i)
    x[static_cast<unsigned>(i / 4)] |= static_cast<BigNum::Digit>(bytes[bytes.size() - 1 - i]) << (8 * (i % 4));
  unsigned len = 1;
  for (unsigned i = 0; i < x.size(); ++i) len = ct::select<unsigned>(~ct::isZeroMask<unsigned>(x[i]), i + 1, len);
  x.digits().resize(ct::declassified(len));
  return x;
}

}  // namespace

bool RsaPrivateKey::generate(unsigned bits, Rng& rng) {
  if (bits < 2048 || bits > 4096 || bits % 2) return false;
  return rsa::generateKey(*this, bits, rng);
}

bool EcPrivateKey::generate(Curve c, Rng& rng) {
  const nist::CtCurve* cc = nist::CtCurve::forCurve(c);
  if (!cc) return false;
  const unsigned orderBits = getOrderForECCurve(c).bits();
  const unsigned topBits = orderBits % 8 ? orderBits % 8 : 8;
  std::vector<unsigned char> k(cc->orderBytes());
  // Each draw lands in [1, n-1] with probability at least one half (n is above 2^(bits-1)), so
  // running out of attempts means a broken source; a rejected draw is discarded, hence public.
  bool ok = false;
  for (int attempt = 0; attempt < 128 && !ok; ++attempt) {
    if (!rng.generate(k.data(), static_cast<unsigned>(k.size()))) break;
    k[0] &= static_cast<unsigned char>((1u << topBits) - 1);
    ok = ct::declassified(cc->scalarInRange(k.data(), k.size())) != 0;
  }
  if (ok) {
    BigNum d0 = scalarBigNum(k);
    ok = setPrivateKey(c, d0);
    ct::wipe(d0.digits().data(), d0.size() * sizeof(BigNum::Digit));
  }
  ct::wipe(k.data(), k.size());
  return ok;
}

bool Key25519Private::generate(Rng& rng) {
  unsigned char k[32];
  const bool ok = rng.generate(k, sizeof k);
  if (ok) setPrivateKey(k);
  ct::wipe(k, sizeof k);
  return ok;
}

std::shared_ptr<PrivateKey> generatePrivateKey(KeyType type, unsigned size, Rng& rng) {
  switch (type) {
    case keyRsa: {
      auto key = std::make_shared<RsaPrivateKey>();
      return key->generate(size, rng) ? key : nullptr;
    }
    case keyEc: {
      auto key = std::make_shared<EcPrivateKey>();
      return key->generate(static_cast<Curve>(size), rng) ? key : nullptr;
    }
    case keyEd25519: {
      auto key = std::make_shared<Ed25519PrivateKey>();
      return key->generate(rng) ? key : nullptr;
    }
    case keyX25519: {
      auto key = std::make_shared<X25519PrivateKey>();
      return key->generate(rng) ? key : nullptr;
    }
    case keyMlkem768: {
      auto key = std::make_shared<MLKEMPrivateKey>();
      return key->generate(rng) ? key : nullptr;
    }
    default: return nullptr;
  }
}

std::shared_ptr<PrivateKey> generatePrivateKey(KeyType type, unsigned size) {
  return generatePrivateKey(type, size, getDefaultRng());
}

}  // namespace tessel
