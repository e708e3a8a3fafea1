// EC keys: SEC 1 / RFC 5915 encodings, ECDSA (RFC 6979 nonces) and ECDH over ec.h.
#include "tessel/ec_key.h"

#include <algorithm>

#include "core/declassify.h"
#include "core/diag.h"
#include "core/secret.h"
#include "ec/nist_ct.h"
#include "tessel/factory.h"
#include "tessel/hash.h"
#include "tessel/oids.h"
#include "tessel/reducer.h"

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
  explicit CurveMath(Curve c)
      : p(getModForECCurve(c)), n(getOrderForECCurve(c)), a(getAForECCurve(c)), b(getBForECCurve(c)), w(p) {
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

// Secret scalars (the key d and the nonce k) only ever meet the constant-time arithmetic of
// ec/nist_ct.h, as fixed-width byte strings; the BigNum d is read digit by digit into them by
// fixedBytes. Values that leave the library anyway (a public key, a signature, whether a result
// is empty) are declassified for the constant-time check before any branch looks at them.

// scalarBytes returns d as a fixed-width big-endian string: the order's length, or longer when
// d is stored with more digits (its digit count is public, its value is not).
std::vector<unsigned char> scalarBytes(const BigNum& d, std::size_t orderBytes) {
  std::vector<unsigned char> out(std::max<std::size_t>(orderBytes, 4u * d.size()));
  nist::fixedBytes(out.data(), out.size(), d);
  return out;
}

// Wiped holds secret bytes and clears them when it goes.
struct Wiped {
  std::vector<unsigned char> bytes;
  ~Wiped() { ct::wipe(bytes.data(), bytes.size()); }
};

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
    diag() << "[ERR] unknown ec id " << asn1::oidStr(oid);
    return false;
  }
  diag() << "[ERR] unknown ec id " << asn1::str(params);
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

// Verification sees public data only and stays on WCurve's variable-time arithmetic.
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

bool EcPublicKey::verifyLenient(asn1::blob message, asn1::blob signature, const SignatureParams& params) const {
  if (params.pss || params.hash == hashMd5 || params.hash == hashMd5Sha1) return false;
  const std::vector<unsigned char> digest = calcDigest(params.hash, message);
  return !digest.empty() && verifyHashed(asn1::blob(digest), signature);
}

bool EcPublicKey::verify(asn1::blob message, asn1::blob signature, const SignatureParams& params) const {
  // Strict DER is the one encoding that writes (r, s) back byte for byte.
  asn1::parser der;
  asn1::blob r, s;
  if (!asn1::readOnly(signature, asn1::tagSequence, &der) || !der.read(asn1::tagInteger, &r) ||
      !der.read(asn1::tagInteger, &s) || !der.atEnd())
    return false;
  DerEncoder canonical;
  canonical.sequence([&](DerEncoder& seq) {
    seq.addInt(asn1::tagInteger, BigNum(r));
    seq.addInt(asn1::tagInteger, BigNum(s));
  });
  return asn1::blob(canonical.data) == signature && verifyLenient(message, signature, params);
}

EcPrivateKey::~EcPrivateKey() {
  for (auto& digit : d.digits()) digit = 0;
}

bool EcPrivateKey::setPrivateKey(Curve c, const BigNum& scalar) {
  curve = c;
  const nist::CtCurve* cc = nist::CtCurve::forCurve(c);
  if (!cc) return false;
  const Wiped k{scalarBytes(scalar, cc->orderBytes())};
  // Whether the key is acceptable is the public outcome of this call.
  if (!ct::declassified(cc->scalarInRange(k.bytes.data(), k.bytes.size()))) return false;
  d = scalar;
  // Being below n, the scalar fits the order's length; any longer digit storage is zeros.
  std::vector<unsigned char> xy(2 * cc->fieldBytes());
  cc->mulBase(xy.data(), k.bytes.data() + k.bytes.size() - cc->orderBytes(), cc->orderBytes());
  ct::declassify(xy.data(), xy.size());  // the public key
  const std::size_t len = cc->fieldBytes();
  Q = {BigNum(asn1::blob(xy.data(), len)), BigNum(asn1::blob(xy.data() + len, len))};
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
  const nist::CtCurve* cc = nist::CtCurve::forCurve(curve);
  if (!cc) return {};
  const BigNum& n = cc->order();
  const unsigned rlen = static_cast<unsigned>(cc->orderBytes()), qlen = n.bits();
  const BigNum e = mod(bits2int(hash, n), n);
  const std::vector<unsigned char> h1 = e.bin(rlen);
  const Wiped key{scalarBytes(d, rlen)};
  // int2octets(d) is the low rlen bytes; a d that needs more (set by hand, not through
  // setPrivateKey) still signs with all of its digits below.
  const asn1::blob x(key.bytes.data() + key.bytes.size() - rlen, rlen);

  // RFC 6979 section 3.2: HMAC_DRBG seeded with the key and the digest.
  const unsigned hlen = createHash(hashId)->digestLength();
  Wiped K{std::vector<unsigned char>(hlen, 0x00)}, V{std::vector<unsigned char>(hlen, 0x01)};
  auto hmac = [&](std::initializer_list<asn1::blob> parts) {
    auto mac = createHMAC(hashId, K.bytes);
    for (asn1::blob part : parts) mac->update(part.span());
    return mac->digest();
  };
  const unsigned char zeroByte = 0, oneByte = 1;
  K.bytes = hmac({V.bytes, asn1::blob(&zeroByte, 1), x, h1});
  V.bytes = hmac({V.bytes});
  K.bytes = hmac({V.bytes, asn1::blob(&oneByte, 1), x, h1});
  V.bytes = hmac({V.bytes});
  Wiped t, k{std::vector<unsigned char>(rlen)};
  std::vector<unsigned char> xy(2 * cc->fieldBytes()), sBytes(rlen);
  for (;;) {
    t.bytes.clear();
    while (t.bytes.size() < rlen) {
      V.bytes = hmac({V.bytes});
      t.bytes.insert(t.bytes.end(), V.bytes.begin(), V.bytes.end());
    }
    // bits2int: the leftmost qlen bits of the rlen bytes, shifted by a public amount.
    const unsigned shift = 8 * rlen - qlen;
    for (unsigned i = rlen; i-- > 0;)
      k.bytes[i] = static_cast<unsigned char>((t.bytes[i] >> shift) | (i && shift ? t.bytes[i - 1] << (8 - shift) : 0));
    // A candidate outside [1, n − 1] is discarded. Declassifying that verdict only tells that a
    // candidate was thrown away, which happens with negligible probability on these curves
    // (below 2^-32 per signature); the candidate itself stays secret.
    if (ct::declassified(cc->scalarInRange(k.bytes.data(), rlen))) {
      cc->mulBase(xy.data(), k.bytes.data(), rlen);
      // x(k·G) is public: every verifier recomputes it from the signature and the key.
      ct::declassify(xy.data(), cc->fieldBytes());
      const BigNum r = mod(BigNum(asn1::blob(xy.data(), cc->fieldBytes())), n);
      cc->ecdsaS(sBytes.data(), k.bytes.data(), key.bytes.data(), key.bytes.size(), e, r);
      ct::declassify(sBytes.data(), sBytes.size());  // the signature's second half
      const BigNum s(asn1::blob(sBytes.data(), sBytes.size()));
      if (!r.isZero() && !s.isZero()) {
        DerEncoder enc;
        enc.sequence([&](DerEncoder& seq) {
          seq.addInt(0x02, r);
          seq.addInt(0x02, s);
        });
        return std::move(enc.data);
      }
    }
    K.bytes = hmac({V.bytes, asn1::blob(&zeroByte, 1)});
    V.bytes = hmac({V.bytes});
  }
}

std::vector<unsigned char> EcPrivateKey::agree(const PublicKey& peer) const {
  // PublicKey is a virtual base, so only dynamic_cast can find the EC part of the peer.
  const auto* ec = peer.getKeyType() == keyEc ? dynamic_cast<const EcPublicKey*>(&peer) : nullptr;
  return ec ? deriveSharedSecret(*ec) : std::vector<unsigned char>();
}

std::vector<unsigned char> EcPrivateKey::deriveSharedSecret(const EcPublicKey& peer) const {
  if (peer.curve != curve) return {};
  const nist::CtCurve* cc = nist::CtCurve::forCurve(curve);
  // A point off the curve would take the complete formulas onto another curve, whose small
  // subgroups give the key away bit by bit: such a peer gets nothing.
  if (!cc || !cc->onCurve_vartime(peer.Q)) return {};
  const Wiped k{scalarBytes(d, cc->orderBytes())};
  Wiped xy{std::vector<unsigned char>(2 * cc->fieldBytes())};
  // d·Q is the point at infinity only for a d that is a multiple of n: a public failure.
  if (ct::declassified(cc->mul(xy.bytes.data(), k.bytes.data(), k.bytes.size(), peer.Q))) return {};
  return std::vector<unsigned char>(xy.bytes.begin(), xy.bytes.begin() + static_cast<std::ptrdiff_t>(cc->fieldBytes()));
}

}  // namespace tessel
