// Weierstrass curves: edge cases of points and encodings, and scalar products, decoding and
// curve membership checked against OpenSSL's EC_POINT functions on the five NIST curves.
#include "tessel/ec.h"
#include "bignum_support.h"

#if TESSEL_HAVE_OPENSSL
#include <openssl/ec.h>
#include <openssl/obj_mac.h>
#endif

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::hexNum;
using test::toHex;

const Curve kCurves[] = {Curve::p192, Curve::p224, Curve::p256, Curve::p384, Curve::p521};

unsigned fieldBytes(Curve c) { return (getModForECCurve(c).bits() + 7) / 8; }

// NamedCurve bundles a curve's parameters with a WCurve for it.
struct NamedCurve {
  explicit NamedCurve(Curve c)
      : id(c), a(getAForECCurve(c)), b(getBForECCurve(c)), len(fieldBytes(c)), ok(getECParams(c, p, n, G)), curve(p) {}
  Curve id;
  BigNum p, n, a, b;
  ECPoint G;
  unsigned len;
  bool ok;
  WCurve curve;

  ECPoint times(const BigNum& k) const { return curve.toEC(curve.mul(k, curve.fromEC(G))); }
};

// The named curves' parameters are checked against OpenSSL's groups in WCurveOracle.
TEST(ECParams, UnknownCurvesGiveNothing) {
  BigNum p(7u), n(7u);
  ECPoint G{BigNum(7u), BigNum(7u)};
  EXPECT_FALSE(getECParams(Curve(0), p, n, G));
  EXPECT_FALSE(getECParams(Curve(6), p, n, G));
  EXPECT_EQ(p, BigNum(7u));
  for (Curve bad : {Curve(0), Curve(6), Curve(255)}) {
    EXPECT_TRUE(getModForECCurve(bad).isZero());
    EXPECT_TRUE(getOrderForECCurve(bad).isZero());
    EXPECT_TRUE(getAForECCurve(bad).isZero());
    EXPECT_TRUE(getBForECCurve(bad).isZero());
  }
}

TEST(ECPointTest, OctetStringEdgeCases) {
  const ECPoint none{};
  // Uncompressed forms as (x, y) in hex; "" is no point, which equals (0, 0). An odd remainder leaves
  // the shorter half to x.
  const std::pair<std::string, std::string> forms[] = {
      {"", ""},       {"0201", ""},
      {"05aabb", ""}, {"04aabbcc", "aa,bbcc"},
      {"04", ""},     {"04" + std::string(62, '0') + "01" + std::string(62, '0') + "02", "1,2"}};
  for (const auto& [hex, xy] : forms) {
    const ECPoint p = ECPoint::fromOctetString(asn1::blob(fromHex(hex)));
    EXPECT_EQ(p == none ? "" : p.x.str() + "," + p.y.str(), xy) << hex;
  }
  NamedCurve nc(Curve::p256);
  const Bytes full = nc.G.toBin(32, false), packed = nc.G.toBin(32, true);
  EXPECT_EQ(full.size(), 65u);
  EXPECT_EQ(full[0], 0x04);
  EXPECT_EQ(packed.size(), 33u);
  EXPECT_EQ(packed[0], nc.G.y.isOdd() ? 0x03 : 0x02);
  EXPECT_EQ(ECPoint::fromOctetString(asn1::blob(full)), nc.G);
  EXPECT_EQ(ECPoint::fromOctetString(asn1::blob(packed)), none);  // compressed needs the curve
  EXPECT_EQ(ECPoint::fromOctetStringCompressed(asn1::blob(packed), nc.p, nc.a, nc.b), nc.G);
  EXPECT_EQ(ECPoint::fromOctetStringCompressed(asn1::blob(full), nc.p, nc.a, nc.b), nc.G);
  // The other parity prefix gives the negated point.
  Bytes flipped = packed;
  flipped[0] ^= 1;
  EXPECT_EQ(ECPoint::fromOctetStringCompressed(asn1::blob(flipped), nc.p, nc.a, nc.b),
            (ECPoint{nc.G.x, nc.p - nc.G.y}));
  // x at or above p, a bad prefix and empty input decode to nothing.
  Bytes big = BigNum(nc.p).bin(32);
  big.insert(big.begin(), 0x02);
  EXPECT_EQ(ECPoint::fromOctetStringCompressed(asn1::blob(big), nc.p, nc.a, nc.b), none);
  EXPECT_EQ(ECPoint::fromOctetStringCompressed(asn1::blob(fromHex("0500")), nc.p, nc.a, nc.b), none);
  EXPECT_EQ(ECPoint::fromOctetStringCompressed(asn1::blob(), nc.p, nc.a, nc.b), none);
  // Small coordinates are left-padded to the field length.
  EXPECT_EQ(toHex((ECPoint{BigNum(1u), BigNum(3u)}).toBin(4, true)), "0300000001");
  EXPECT_EQ(toHex((ECPoint{BigNum(1u), BigNum(2u)}).toBin(2, false)), "0400010002");
}

TEST(ECPointDeathTest, EncodingALongCoordinateAborts) {
  const ECPoint wideX{BigNum(0x10000u), BigNum(1u)}, wideY{BigNum(1u), BigNum(0x10000u)};
  // x is checked at line 48, y at line 53: the lines hosts' crash reports quote.
  EXPECT_DEATH(wideX.toBin(2, false),
               "assertion \"tmp.size\\(\\) == len\" failed: file \"ec.cpp\", line 48, function: toBin");
  EXPECT_DEATH(wideX.toBin(2, true), "failed: file \"ec.cpp\", line 48, function: toBin");
  EXPECT_DEATH(wideY.toBin(2, false), "failed: file \"ec.cpp\", line 53, function: toBin");
}

TEST(WCurveTest, GroupEdgeCases) {
  for (Curve c : kCurves) {
    NamedCurve nc(c);
    SCOPED_TRACE(nc.p.bits());
    const WCurve& curve = nc.curve;
    RedNum t[5];
    const WCurve::Point G = curve.fromEC(nc.G), minusG = curve.fromEC({nc.G.x, nc.p - nc.G.y}), inf = curve.infinity();
    auto affine = [&](WCurve::Point p) { return curve.toEC(std::move(p)); };
    auto sum = [&](WCurve::Point a, const WCurve::Point& b) { return curve.add(a, b, t), a; };
    auto twice = [&](WCurve::Point a) { return curve.dbl(a, t), a; };
    const ECPoint two = affine(twice(G)), none{};
    EXPECT_EQ(nc.times(nc.n - BigNum(1u)), affine(minusG));
    EXPECT_EQ(nc.times(BigNum(2u)), two);
    EXPECT_EQ(affine(sum(G, G)), two);
    WCurve::Point alias = G;
    curve.add(alias, alias, t);
    EXPECT_EQ(affine(alias), two);
    // P + (−P) is infinity; adding infinity on either side changes nothing.
    EXPECT_TRUE(sum(G, minusG).isInfinity());
    EXPECT_EQ(affine(sum(G, inf)), nc.G);
    EXPECT_EQ(affine(sum(inf, G)), nc.G);
    EXPECT_TRUE(twice(inf).isInfinity());
    // mul2add with zero scalars and with P = Q.
    EXPECT_EQ(affine(curve.mul2add(BigNum(0u), G, BigNum(0u), G)), none);
    EXPECT_EQ(affine(curve.mul2add(BigNum(5u), G, BigNum(0u), G)), nc.times(BigNum(5u)));
    EXPECT_EQ(affine(curve.mul2add(BigNum(2u), G, BigNum(3u), G)), nc.times(BigNum(5u)));
    EXPECT_EQ(affine(curve.mul2add(nc.n - BigNum(1u), G, BigNum(1u), G)), none);
  }
}

// The coefficient field: a curve given a = p − 3 explicitly takes the general doubling and must
// agree with the a = −3 shortcut, and a curve given a = 0 is treated as a = −3.
TEST(WCurveTest, CoefficientFieldRule) {
  for (Curve c : {Curve::p224, Curve::p384}) {
    NamedCurve nc(c);
    MontgomeryReducer red(nc.p);
    const WCurve general(nc.p, nc.a, &red), zero(nc.p, BigNum(0u), &red);
    for (unsigned k : {2u, 3u, 1000003u}) {
      EXPECT_EQ(general.toEC(general.mul(BigNum(k), general.fromEC(nc.G))), nc.times(BigNum(k)));
      EXPECT_EQ(zero.toEC(zero.mul(BigNum(k), zero.fromEC(nc.G))), nc.times(BigNum(k)));
    }
  }
}

TEST(WCurveTest, OffCurvePointsAndSquareRoots) {
  for (Curve c : kCurves) {
    NamedCurve nc(c);
    SCOPED_TRACE(nc.p.bits());
    const WCurve& curve = nc.curve;
    EXPECT_TRUE(curve.isOnCurve(nc.a, nc.b, curve.fromEC(nc.G)));
    EXPECT_FALSE(curve.isOnCurve(nc.a, nc.b, curve.fromEC({nc.G.x, nc.G.y + BigNum(1u)})));
    EXPECT_FALSE(curve.isOnCurve(nc.a, nc.b, curve.fromEC({nc.G.y, nc.G.x})));
    EXPECT_FALSE(curve.isOnCurve(nc.a, nc.b, curve.infinity()));
    EXPECT_FALSE(curve.isOnCurve(nc.a, nc.b + BigNum(1u), curve.fromEC(nc.G)));
    // Jacobian points with Z ≠ 1 are judged by their affine form.
    EXPECT_TRUE(curve.isOnCurve(nc.a, nc.b, curve.mul(BigNum(12345u), curve.fromEC(nc.G))));

    BigNum y;
    ASSERT_TRUE(curve.getY(nc.G.x, nc.a, nc.b, y));
    EXPECT_TRUE(y == nc.G.y || y == nc.p - nc.G.y);
    // Roughly half of all x have no point; find one and check it is refused.
    int refused = 0;
    for (unsigned x = 1; x < 40; ++x) refused += curve.getY(BigNum(x), nc.a, nc.b, y) ? 0 : 1;
    EXPECT_GT(refused, 5);
    EXPECT_LT(refused, 35);
  }
}

#if TESSEL_HAVE_OPENSSL

using test::Bn;
using test::fromBn;
using test::newBn;
using test::toBn;

int nid(Curve c) {
  switch (c) {
    case Curve::p192: return NID_X9_62_prime192v1;
    case Curve::p224: return NID_secp224r1;
    case Curve::p256: return NID_X9_62_prime256v1;
    case Curve::p384: return NID_secp384r1;
    default: return NID_secp521r1;
  }
}

// OsslCurve is OpenSSL's group for a named curve, with helpers that give affine points.
struct OsslCurve {
  explicit OsslCurve(int id) : group(EC_GROUP_new_by_curve_name(id)) {}
  ~OsslCurve() { EC_GROUP_free(group); }

  EC_POINT* point() const { return EC_POINT_new(group); }
  ECPoint affine(const EC_POINT* pt) const {
    if (EC_POINT_is_at_infinity(group, pt)) return {};
    Bn x = newBn(), y = newBn();
    EC_POINT_get_affine_coordinates(group, pt, x.get(), y.get(), ctx);
    return {fromBn(x.get()), fromBn(y.get())};
  }
  // times returns k1·G + k2·Q (k2, Q optional).
  ECPoint times(const BigNum& k1, const EC_POINT* Q = nullptr, const BigNum* k2 = nullptr) const {
    EC_POINT* r = point();
    const Bn K1 = toBn(k1), K2 = k2 ? toBn(*k2) : Bn();
    EC_POINT_mul(group, r, K1.get(), Q, K2.get(), ctx);
    ECPoint e = affine(r);
    EC_POINT_free(r);
    return e;
  }
  Bytes encode(const EC_POINT* pt, bool compressed) const {
    const auto form = compressed ? POINT_CONVERSION_COMPRESSED : POINT_CONVERSION_UNCOMPRESSED;
    Bytes out(EC_POINT_point2oct(group, pt, form, nullptr, 0, ctx));
    EC_POINT_point2oct(group, pt, form, out.data(), out.size(), ctx);
    return out;
  }

  EC_GROUP* group;
  test::BnCtx ctx;
};

// forEachCurve runs `check` with our parameters and OpenSSL's group for every NIST curve.
template <class Check>
void forEachCurve(Check check) {
  for (Curve c : kCurves) {
    NamedCurve nc(c);
    OsslCurve o(nid(c));
    SCOPED_TRACE(nc.p.bits());
    check(nc, o);
  }
}

BigNum randomScalar(test::TestRng& rng, const BigNum& n) {
  BigNum k = test::randomNum(rng, test::randomSize(rng, n.size()));
  if (!(k < n)) div(k, n, nullptr, &k);
  return k;
}

TEST(WCurveOracle, ParametersMatch) {
  forEachCurve([&](const NamedCurve& nc, const OsslCurve& o) {
    Bn p = newBn(), a = newBn(), b = newBn();
    EC_GROUP_get_curve(o.group, p.get(), a.get(), b.get(), o.ctx);
    EXPECT_EQ(fromBn(p.get()), nc.p);
    EXPECT_EQ(fromBn(a.get()), nc.a);
    EXPECT_EQ(fromBn(b.get()), nc.b);
    EXPECT_EQ(fromBn(EC_GROUP_get0_order(o.group)), nc.n);
    EXPECT_EQ(o.affine(EC_GROUP_get0_generator(o.group)), nc.G);
  });
}

TEST(WCurveOracle, ScalarMultiplesOfTheBasePoint) {
  test::TestRng rng(51);
  forEachCurve([&](const NamedCurve& nc, const OsslCurve& o) {
    std::vector<BigNum> scalars = {nc.n - BigNum(1u), nc.n, nc.n + BigNum(1u), nc.n + BigNum(5u),
                                   (BigNum(1u) << nc.n.bits()) - BigNum(1u)};
    for (unsigned k = 0; k <= 17; ++k) scalars.push_back(BigNum(k));  // 8 … 15: single table entries
    for (int i = 0; i < test::rounds(60); ++i) scalars.push_back(randomScalar(rng, nc.n));
    for (const BigNum& k : scalars) {
      SCOPED_TRACE(k.str());
      ASSERT_EQ(nc.times(k), o.times(k));
    }
  });
}

TEST(WCurveOracle, DoubleScalarMultiplication) {
  test::TestRng rng(52);
  forEachCurve([&](const NamedCurve& nc, const OsslCurve& o) {
    for (int i = 0; i < test::rounds(25); ++i) {
      const BigNum s = randomScalar(rng, nc.n), k1 = randomScalar(rng, nc.n);
      // Short second scalars exercise the digits that read as zero.
      const BigNum k2 = i % 5 == 0 ? BigNum(rng.next()) : randomScalar(rng, nc.n);
      EC_POINT* Q = o.point();
      EC_POINT_mul(o.group, Q, toBn(s).get(), nullptr, nullptr, o.ctx);
      const ECPoint q = o.affine(Q);
      SCOPED_TRACE(k1.str() + " , " + k2.str());
      const WCurve::Point r = nc.curve.mul2add(k1, nc.curve.fromEC(nc.G), k2, nc.curve.fromEC(q));
      ASSERT_EQ(nc.curve.toEC(WCurve::Point(r)), o.times(k1, Q, &k2));
      // And the arbitrary point's own multiple through mul.
      ASSERT_EQ(nc.curve.toEC(nc.curve.mul(k2, nc.curve.fromEC(q))), o.times(BigNum(0u), Q, &k2));
      EC_POINT_free(Q);
    }
  });
}

TEST(WCurveOracle, PointEncodingAndDecoding) {
  test::TestRng rng(53);
  forEachCurve([&](const NamedCurve& nc, const OsslCurve& o) {
    int oddY = 0;
    for (int i = 0; i < 40; ++i) {
      EC_POINT* P = o.point();
      EC_POINT_mul(o.group, P, toBn(randomScalar(rng, nc.n)).get(), nullptr, nullptr, o.ctx);
      const ECPoint want = o.affine(P);
      oddY += want.y.isOdd();
      const Bytes full = o.encode(P, false), packed = o.encode(P, true);
      ASSERT_EQ(ECPoint::fromOctetString(asn1::blob(full)), want);
      ASSERT_EQ(ECPoint::fromOctetStringCompressed(asn1::blob(full), nc.p, nc.a, nc.b), want);
      ASSERT_EQ(ECPoint::fromOctetStringCompressed(asn1::blob(packed), nc.p, nc.a, nc.b), want);
      ASSERT_EQ(want.toBin(nc.len, false), full);
      ASSERT_EQ(want.toBin(nc.len, true), packed);
      ASSERT_TRUE(nc.curve.isOnCurve(nc.a, nc.b, nc.curve.fromEC(want)));
      EC_POINT_free(P);
    }
    EXPECT_GT(oddY, 5);
    EXPECT_LT(oddY, 35);
    // x values with no point are refused by both.
    for (unsigned x = 1; x < 30; ++x) {
      Bytes enc = BigNum(x).bin(nc.len);
      enc.insert(enc.begin(), 0x02);
      EC_POINT* P = o.point();
      const bool theirs = EC_POINT_oct2point(o.group, P, enc.data(), enc.size(), o.ctx) == 1;
      const ECPoint ours = ECPoint::fromOctetStringCompressed(asn1::blob(enc), nc.p, nc.a, nc.b);
      ASSERT_EQ(theirs, !(ours == ECPoint{})) << x;
      if (theirs) {
        ASSERT_EQ(ours, o.affine(P));
      }
      EC_POINT_free(P);
    }
  });
}

// A curve with a general coefficient a (brainpoolP256r1) takes the doubling path that uses the
// stored −a instead of the a = −3 shortcut.
TEST(WCurveOracle, GeneralCoefficientCurve) {
  OsslCurve o(NID_brainpoolP256r1);
  Bn P = newBn(), A = newBn(), B = newBn();
  EC_GROUP_get_curve(o.group, P.get(), A.get(), B.get(), o.ctx);
  const BigNum p = fromBn(P.get()), a = fromBn(A.get()), b = fromBn(B.get());
  const BigNum n = fromBn(EC_GROUP_get0_order(o.group));
  const ECPoint G = o.affine(EC_GROUP_get0_generator(o.group));
  MontgomeryReducer red(p);
  const WCurve curve(p, a, &red);
  EXPECT_TRUE(curve.isOnCurve(a, b, curve.fromEC(G)));
  test::TestRng rng(54);
  for (int i = 0; i < 30; ++i) {
    const BigNum k = i == 0 ? BigNum(2u) : randomScalar(rng, n);
    SCOPED_TRACE(k.str());
    ASSERT_EQ(curve.toEC(curve.mul(k, curve.fromEC(G))), o.times(k));
  }
  // Decoding on this curve (p ≡ 3 mod 4) agrees as well.
  EC_POINT* Q = o.point();
  EC_POINT_mul(o.group, Q, toBn(BigNum(777u)).get(), nullptr, nullptr, o.ctx);
  EXPECT_EQ(ECPoint::fromOctetStringCompressed(asn1::blob(o.encode(Q, true)), p, a, b), o.affine(Q));
  EC_POINT_free(Q);
}

#endif  // TESSEL_HAVE_OPENSSL

}  // namespace
}  // namespace tessel
