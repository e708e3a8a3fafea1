// ML-KEM-768 key classes over the MLKEMEncap/MLKEMDecap primitives; see mlkem_keys.h.
#include "tessel/mlkem_keys.h"

#include <algorithm>

#include "tessel/mlkem.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t kSeedSize = 64;
constexpr unsigned kSeedTag = asn1::implicitTag(0);  // [0] IMPLICIT OCTET STRING
// FIPS 203 dk = dk_PKE (384 k bytes) || ek || H(ek) || z: the encapsulation key starts here.
constexpr std::size_t kEkOffset = 1152;

void writeHex(std::ostream& out, const Bytes& bytes) {
  static const char digits[] = "0123456789abcdef";
  for (unsigned char b : bytes) out << digits[b >> 4] << digits[b & 15];
}

void wipe(Bytes& b) {
  std::fill(b.begin(), b.end(), 0);
  b.clear();
}

// sameSecret compares two equally long secret byte strings without an early exit.
bool sameSecret(asn1::blob a, const Bytes& b) {
  if (a.size() != b.size()) return false;
  unsigned char acc = 0;
  for (std::size_t i = 0; i < b.size(); ++i) acc |= a.data()[i] ^ b[i];
  return acc == 0;
}

}  // namespace

bool MLKEMPublicKey::parseFromDerEncoded(asn1::blob key, asn1::blob params) {
  if (!params.empty() || key.size() != mlkem768::encapsulationKeySize) return false;
  if (!MLKEMEncap(key.span()).isValid()) return false;
  encapsulationKey = key.vec();
  return true;
}

Bytes MLKEMPublicKey::encodeToDerEncoded() const { return encapsulationKey; }

bool MLKEMPublicKey::equals(const PublicKey& other) const {
  if (other.getKeyType() != getKeyType()) return false;
  const auto* k = dynamic_cast<const MLKEMPublicKey*>(&other);
  return k && k->encapsulationKey == encapsulationKey;
}

void MLKEMPublicKey::dump(std::ostream& out) const {
  out << "[MLKEM768-PUBLIC]\nencapsulationKey: ";
  writeHex(out, encapsulationKey);
  out << "\n";
}

bool MLKEMPublicKey::encapsulate(Rng& rng, Bytes& ciphertext, Bytes& sharedSecret) const {
  unsigned char m[32];
  const bool drawn = rng.generate(m, sizeof m);
  const bool ok = drawn && encapsulateWith({m, sizeof m}, ciphertext, sharedSecret);
  std::fill(std::begin(m), std::end(m), 0);
  if (!ok) {
    ciphertext.clear();
    sharedSecret.clear();
  }
  return ok;
}

bool MLKEMPublicKey::encapsulateWith(std::span<const unsigned char> m, Bytes& ciphertext, Bytes& sharedSecret) const {
  return MLKEMEncap(encapsulationKey).encapsulate(m, ciphertext, sharedSecret);
}

MLKEMPrivateKey::~MLKEMPrivateKey() { clear(); }

void MLKEMPrivateKey::clear() {
  wipe(seed_);
  wipe(dk_);
  encapsulationKey.clear();
}

bool MLKEMPrivateKey::setSeed(std::span<const unsigned char> seed) {
  if (seed.size() != kSeedSize) return false;
  Bytes fresh(seed.begin(), seed.end());  // `seed` may be our own seed()
  clear();
  seed_ = std::move(fresh);
  mlkem768::keyGen(std::span(seed_).first(32), std::span(seed_).subspan(32), encapsulationKey, dk_);
  return true;
}

bool MLKEMPrivateKey::setExpanded(asn1::blob dk) {
  if (dk.size() != mlkem768::decapsulationKeySize || !MLKEMDecap(dk.span()).isValid()) return false;
  const asn1::blob ek(dk.data() + kEkOffset, mlkem768::encapsulationKeySize);
  if (!MLKEMEncap(ek.span()).isValid()) return false;
  clear();
  dk_ = dk.vec();
  encapsulationKey = ek.vec();
  return true;
}

bool MLKEMPrivateKey::generate(Rng& rng) {
  unsigned char seed[kSeedSize];
  const bool ok = rng.generate(seed, sizeof seed) && setSeed({seed, sizeof seed});
  std::fill(std::begin(seed), std::end(seed), 0);
  return ok;
}

bool MLKEMPrivateKey::parseFromDerEncoded(asn1::blob key, asn1::blob params) {
  if (!params.empty()) return false;
  asn1::parser der(key);
  if (!der.rest.empty()) return false;
  switch (der.tag) {
    case kSeedTag: return setSeed(der.takeContent().span());
    case asn1::tagOctetString: return setExpanded(der.takeContent());
    case asn1::tagSequence: {
      asn1::blob seed, expanded;
      if (!der.enter() || !der.read(asn1::tagOctetString, &seed) || !der.read(asn1::tagOctetString, &expanded) ||
          !der.atEnd())
        return false;
      // The pair must agree: the expanded key is the one its seed derives.
      if (!setSeed(seed.span())) return false;
      if (sameSecret(expanded, dk_)) return true;
      clear();
      return false;
    }
    default: return false;
  }
}

Bytes MLKEMPrivateKey::encodeToDerEncoded() const {
  if (dk_.empty()) return {};
  DerEncoder enc;
  if (seed_.empty()) {
    enc.addOctetString(asn1::blob(dk_));
  } else {
    enc.addPrimitive(kSeedTag, asn1::blob(seed_));
  }
  return std::move(enc.data);
}

void MLKEMPrivateKey::dump(std::ostream& out) const {
  out << "[MLKEM768-PRIVATE]\nencapsulationKey: ";
  writeHex(out, encapsulationKey);
  out << (seed_.empty() ? "\ndecapsulationKey: " : "\nseed: ");
  writeHex(out, seed_.empty() ? dk_ : seed_);
  out << "\n";
}

bool MLKEMPrivateKey::decapsulate(std::span<const unsigned char> ciphertext, Bytes& sharedSecret) const {
  return MLKEMDecap(dk_).decapsulate(ciphertext, sharedSecret);
}

}  // namespace tessel
