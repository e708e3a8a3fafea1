// EC keys: SEC 1 / RFC 5915 encodings, ECDSA (RFC 6979 nonces) and ECDH over ec.h.
#include "tessel/ec_key.h"

#include <iostream>

#include "tessel/factory.h"
#include "tessel/hash.h"
#include "tessel/oids.h"
#include "tessel/reducer.h"
#include "tessel/rng.h"

namespace tessel {

namespace {

constexpr Curve kCurves[] = {Curve::p192, Curve::p224, Curve::p256, Curve::p384, Curve::p521};

BigNum mod(const BigNum& a, const BigNum& m) {
  BigNum r;
  div(a, m, nullptr, &r);
  return r;
}

// CurveMath gathers what one operation needs of a named curve.
struct CurveMath {
  BigNum p, n, a, b;
  ECPoint G;
  WCurve w;
  explicit CurveMath(Curve c) : p(getModForECCurve(c)), n(getOrderForECCurve(c)), a(getAForECCurve(c)),
                                b(getBForECCurve(c)), w(p) {
    getECParams(c, p, n, G);
  }
};

// bits2int is the leftmost bits(n) bits of a digest as an integer (SEC 1 section 4.1.3 step 5).
BigNum bits2int(asn1::blob hash, const BigNum& n) {
  BigNum e(hash);
  const unsigned hashBits = static_cast<unsigned>(hash.size()) * 8, orderBits = n.bits();
  if (hashBits > orderBits) e >>= hashBits - orderBits;
  return e;
}

// The curve multiplication and the inversion take time that follows the bits of their
// operands, and a nonce whose leading bits leak, signature after signature, gives the key away
// (lattice attacks). Secret scalars therefore never reach them as they are: the results stay
// exactly the same, only the values the work depends on are randomised.

// blinded returns k + r·n for a fresh random r of exactly 64 bits: the same multiple of any
// point of order n, with a bit length and pattern that say nothing about k.
BigNum blinded(const BigNum& k, const BigNum& n) {
  unsigned char buf[8] = {1};
  getDefaultRng().generate(buf, sizeof buf);  // the default source always delivers
  buf[0] |= 0x80;
  return k + BigNum(asn1::blob(buf, sizeof buf)) * n;
}

// inverseBlinded returns k⁻¹ mod n as b·(k·b)⁻¹ for a random b, so the inversion sees k·b.
BigNum inverseBlinded(const BigNum& k, const BigNum& n) {
  BigNum b(1u);
  if (!randomBigNum(&b, n - BigNum(1u), getDefaultRng())) b = BigNum(1u);
  return mod(invByMod(mod(k * b, n), n) * b, n);
}

void writeHex(std::ostream& out, const std::vector<unsigned char>& bytes) {
  static const char digits[] = "0123456789abcdef";
  for (unsigned char b : bytes) out << digits[b >> 4] << digits[b & 15];
}

}  // namespace

asn1::blob getCurveOid(Curve c) {
  switch (c) {
    case Curve::p192: return asn1::oid::prime192v1.content();
    case Curve::p224: return asn1::oid::secp224r1.content();
    case Curve::p256: return asn1::oid::prime256v1.content();
    case Curve::p384: return asn1::oid::secp384r1.content();
    case Curve::p521: return asn1::oid::secp521r1.content();
  }
  return {};
}

const char* getCurveName(Curve c) {
  switch (c) {
    case Curve::p192: return "P-192";
    case Curve::p224: return "P-224";
    case Curve::p256: return "P-256";
    case Curve::p384: return "P-384";
    case Curve::p521: return "P-521";
  }
  return "unknown";
}

bool EcPublicKey::parseCurveParams(asn1::blob params) {
  asn1::parser der(params);
  asn1::blob oid;
  if (der.isAt(asn1::tagOid, &oid) && der.rest.empty()) {
    for (Curve c : kCurves)
      if (getCurveOid(c) == oid) {
        curve = c;
        return true;
      }
    std::cout << "[ERR] unknown ec id " << asn1::oidStr(oid) << "\n";
    return false;
  }
  std::cout << "[ERR] unknown ec id " << asn1::str(params) << "\n";
  return false;
}

bool EcPublicKey::parseFromDerEncoded(asn1::blob key, asn1::blob params) {
  if (!parseCurveParams(params)) return false;
  CurveMath m(curve);
  const unsigned len = getModLen(curve);
  if (key.size() != (key.empty() || key[0] == 4 ? 2 * len + 1 : len + 1)) return false;
  Q = ECPoint::fromOctetStringCompressed(key, m.p, m.a, m.b);
  if (Q.x >= m.p || Q.y >= m.p || (Q.x.isZero() && Q.y.isZero())) return false;
  return m.w.isOnCurve(m.a, m.b, m.w.fromEC(Q));
}

std::vector<unsigned char> EcPublicKey::encodeToDerEncoded() const { return Q.toBin(getModLen(curve), false); }

std::vector<unsigned char> EcPublicKey::encodeParams() const {
  DerEncoder enc;
  enc.addOid(getCurveOid(curve));
  return std::move(enc.data);
}

bool EcPublicKey::equals(const PublicKey& other) const {
  if (other.getKeyType() != getKeyType()) return false;
  const auto* k = dynamic_cast<const EcPublicKey*>(&other);
  return k && k->curve == curve && k->Q == Q;
}

void EcPublicKey::dump(std::ostream& out) const {
  out << "[EC-PUBLIC]\ncurve: " << getCurveName(curve) << "\npoint: ";
  writeHex(out, encodeToDerEncoded());
  out << "\n";
}

bool EcPublicKey::verifyHashed(asn1::blob hash, asn1::blob signature) const {
  asn1::parser der;
  asn1::blob rBytes, sBytes;
  if (!asn1::readOnly(signature, asn1::tagSequence, &der) || !der.read(asn1::tagInteger, &rBytes) ||
      !der.read(asn1::tagInteger, &sBytes) || !der.atEnd())
    return false;
  const BigNum r(rBytes);
  const BigNum s(sBytes);

  CurveMath m(curve);
  if (r.isZero() || s.isZero() || r >= m.n || s >= m.n) return false;
  const BigNum w = invByMod(s, m.n);
  const BigNum u1 = mod(bits2int(hash, m.n) * w, m.n), u2 = mod(r * w, m.n);
  WCurve::Point R = m.w.mul2add(u1, m.w.fromEC(m.G), u2, m.w.fromEC(Q));
  if (R.isInfinity()) return false;
  return mod(m.w.toEC(std::move(R)).x, m.n) == r;
}

EcPrivateKey::~EcPrivateKey() {
  for (auto& digit : d.digits()) digit = 0;
}

bool EcPrivateKey::setPrivateKey(Curve c, const BigNum& scalar) {
  curve = c;
  CurveMath m(c);
  if (scalar.isZero() || scalar >= m.n) return false;
  d = scalar;
  Q = m.w.toEC(m.w.mul(blinded(d, m.n), m.w.fromEC(m.G)));
  return true;
}

bool EcPrivateKey::parseFromDerEncoded(asn1::blob key, asn1::blob params) {
  asn1::parser der;
  asn1::blob privateKey, inner, pub;
  if (!asn1::readOnly(key, asn1::tagSequence, &der)) return false;
  if (!der.isAt(asn1::tagInteger) || der.takeUInt() != 1) return false;
  if (!der.read(asn1::tagOctetString, &privateKey)) return false;
  const BigNum scalar(privateKey);
  der.readOptional(asn1::explicitTag(0), &inner);  // parameters
  der.readOptional(asn1::explicitTag(1), &pub);    // publicKey
  if (!der.atEnd()) return false;
  if (params.empty() && inner.empty()) return false;
  if (!params.empty() && !inner.empty() && !(params == inner)) return false;
  if (!parseCurveParams(params.empty() ? inner : params)) return false;
  if (!setPrivateKey(curve, scalar)) return false;
  if (pub.empty()) return true;
  asn1::parser bits(pub);
  asn1::blob bitString;
  if (!bits.read(asn1::tagBitString, &bitString) || !bits.atEnd()) return false;
  return asn1::bitStringContent(bitString) == asn1::blob(EcPublicKey::encodeToDerEncoded());
}

std::vector<unsigned char> EcPrivateKey::encodeToDerEncoded() const {
  DerEncoder enc;
  enc.sequence([&](DerEncoder& s) {
    s.addInt(0x02, 1u);
    s.addOctetString(asn1::blob(d.bin(getModLen(curve))));
    std::vector<unsigned char> point = Q.toBin(getModLen(curve), false);
    DerEncoder bits;
    bits.addBitString(asn1::blob(point));
    s.addTag(0xA1, static_cast<unsigned>(bits.data.size()));
    s.addBytes(asn1::blob(bits.data));
  });
  return std::move(enc.data);
}

void EcPrivateKey::dump(std::ostream& out) const {
  out << "[EC-PRIVATE]\ncurve: " << getCurveName(curve) << "\npoint: ";
  writeHex(out, EcPublicKey::encodeToDerEncoded());
  out << "\nprivateKey: " << d.str() << "\n";
}

std::vector<unsigned char> EcPrivateKey::signHashed(unsigned hashId, asn1::blob hash) const {
  if (hashId < hashSha1 || hashId > hashSha512) return {};
  CurveMath m(curve);
  const unsigned rlen = (m.n.bits() + 7) / 8;
  const BigNum e = bits2int(hash, m.n);
  const std::vector<unsigned char> x = d.bin(rlen), h1 = mod(e, m.n).bin(rlen);

  // RFC 6979 section 3.2: HMAC_DRBG seeded with the key and the digest.
  const unsigned hlen = createHash(hashId)->digestLength();
  std::vector<unsigned char> K(hlen, 0x00), V(hlen, 0x01);
  auto hmac = [&](std::initializer_list<asn1::blob> parts) {
    auto mac = createHMAC(hashId, K);
    for (asn1::blob part : parts) mac->update(part.span());
    return mac->digest();
  };
  const unsigned char zeroByte = 0, oneByte = 1;
  K = hmac({V, asn1::blob(&zeroByte, 1), x, h1});
  V = hmac({V});
  K = hmac({V, asn1::blob(&oneByte, 1), x, h1});
  V = hmac({V});
  for (;;) {
    std::vector<unsigned char> t;
    while (t.size() < rlen) {
      V = hmac({V});
      t.insert(t.end(), V.begin(), V.end());
    }
    const BigNum k = bits2int(asn1::blob(t.data(), rlen), m.n);
    if (!k.isZero() && k < m.n) {
      const BigNum r = mod(m.w.toEC(m.w.mul(blinded(k, m.n), m.w.fromEC(m.G))).x, m.n);
      const BigNum s = mod(inverseBlinded(k, m.n) * mod(e + r * d, m.n), m.n);
      if (!r.isZero() && !s.isZero()) {
        DerEncoder enc;
        enc.sequence([&](DerEncoder& seq) {
          seq.addInt(0x02, r);
          seq.addInt(0x02, s);
        });
        return std::move(enc.data);
      }
    }
    K = hmac({V, asn1::blob(&zeroByte, 1)});
    V = hmac({V});
  }
}

std::vector<unsigned char> EcPrivateKey::deriveSharedSecret(const EcPublicKey& peer) const {
  if (peer.curve != curve) return {};
  CurveMath m(curve);
  WCurve::Point P = m.w.mul(blinded(d, m.n), m.w.fromEC(peer.Q));
  if (P.isInfinity()) return {};
  return m.w.toEC(std::move(P)).x.bin(getModLen(curve));
}

}  // namespace tessel
