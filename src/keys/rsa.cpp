#include "tessel/rsa.h"

#include "core/diag.h"
#include "keys/rsa_private.h"

namespace tessel {

namespace {

// takeInteger reads an INTEGER element into `out`; false when the current element is not one.
bool takeInteger(asn1::parser& p, BigNum& out) {
  if (!p.isAt(asn1::tagInteger)) return false;
  out = BigNum(p.takeContent());
  return p.tag != asn1::tagError;
}

}  // namespace

bool RsaPublicKey::checkPublicParts() const {
  if (!e.isOdd() || (e.size() == 1 && e[0] < 3)) return false;
  if (!(e < n)) return false;
  if (n.bits() > 16384) return false;
  if (n.bits() > 2048 && e.bits() > 64) return false;
  return true;
}

bool RsaPublicKey::parseFromDerEncoded(asn1::blob key, asn1::blob) {
  asn1::parser p(key);
  if (!p.enter()) return false;
  if (!takeInteger(p, n) || !takeInteger(p, e)) return false;
  return checkPublicParts() && p.tag == asn1::tagEnd;
}

std::vector<unsigned char> RsaPublicKey::encodeToDerEncoded() const {
  DerEncoder enc;
  enc.sequence([&](DerEncoder& s) {
    s.addInt(0x02, n);
    s.addInt(0x02, e);
  });
  return std::move(enc.data);
}

bool RsaPublicKey::equals(const PublicKey& other) const {
  if (other.getKeyType() != getKeyType()) return false;
  const auto* rsa = dynamic_cast<const RsaPublicKey*>(&other);
  return rsa && rsa->n == n && rsa->e == e;
}

void RsaPublicKey::dump(std::ostream& out) const {
  out << "[RSA-PUBLIC]"
      << "\nmodulus: " << n.str() << "\npublicExponent: " << e.str() << "\n";
}

asn1::blob RsaPublicKey::parseHashFromDerEncoded(unsigned id, asn1::blob block) {
  auto fail = [](const char* why) {
    diag() << why;
    return asn1::blob();
  };
  if (block.empty()) return fail("empty digest info");
  asn1::parser outer(block);
  if (outer.content.empty()) return fail("digest info does not span whole block");
  if (outer.rest.size() != 0) return fail("trailing data after digest info");
  if (!outer.enter()) return fail("bad digest info prefix");
  if (!outer.isAt(asn1::tagSequence)) return fail("missing algo id seq");
  asn1::parser algo(outer.takeContent());
  if (!algo.isAt(asn1::tagOid)) return fail("missing alog id");
  if (getHashID(algo.takeContent()) != id) return fail("not correct signature hash");
  // NULL has no content. Bytes skipped here would give a low-exponent forger room for the
  // garbage a cube root leaves behind, so parameters carrying any are refused.
  if (!algo.isAt(asn1::tagNull) || !algo.content.empty()) return fail("missing algo id NULL params");
  algo.next();
  if (!algo.atEnd()) return fail("trailing bytes after algo id");
  if (!outer.isAt(asn1::tagOctetString)) return fail("missing hash");
  asn1::blob digest = outer.takeContent();
  if (!outer.atEnd()) return fail("trailing bytes after digest");
  // The MD5+SHA-1 pair is signed bare and never has a DigestInfo.
  const unsigned expected = id == hashMd5Sha1 ? 0 : getHashLength(id);
  if (expected == 0 || digest.size() != expected) return fail("bad digest length");
  return digest;
}

bool RsaPrivateKey::parseFromDerEncoded(asn1::blob key, asn1::blob) {
  asn1::parser der(key);
  if (!der.enter()) return false;
  BigNum version;
  if (!takeInteger(der, version) || !version.isZero()) return false;
  if (!takeInteger(der, n) || !takeInteger(der, e) || !takeInteger(der, d)) return false;
  if (!checkPublicParts()) return false;
  for (BigNum* v : {&p, &q, &dP, &dQ, &qInv})
    if (!takeInteger(der, *v)) return false;
  return der.tag == asn1::tagEnd;  // otherPrimeInfos (multi-prime keys) are refused
}

std::vector<unsigned char> RsaPrivateKey::encodeToDerEncoded() const {
  DerEncoder enc;
  enc.sequence([&](DerEncoder& s) {
    s.addInt(0x02, 0u);
    for (const BigNum* v : {&n, &e, &d, &p, &q, &dP, &dQ, &qInv}) s.addInt(0x02, *v);
  });
  return std::move(enc.data);
}

void RsaPrivateKey::dump(std::ostream& out) const {
  out << "[RSA-PRIVATE]"
      << "\nmodulus: " << n.str() << "\npublicExponent: " << e.str() << "\nprivateExponent: " << d.str() << "\n";
}

std::vector<unsigned char> RsaPrivateKey::signHashed(unsigned hashId, asn1::blob hash) const {
  const std::vector<unsigned char> em = rsaPkcs1Block(hashId, hash, modulusLength());
  if (em.empty()) return {};
  return privateOperation(asn1::blob(em));
}

std::vector<unsigned char> RsaPrivateKey::privateOperation(asn1::blob input) const {
  const BigNum c(input);
  if (!(c < n) || !n.isOdd()) return {};
  std::vector<unsigned char> out(modulusLength());
  // Whether the result passed its check is the one secret-derived fact that is released.
  if (!rsa::privateOperationMasked(*this, c, out.data(), out.size())) return {};
  return out;
}

}  // namespace tessel
