// Weierstrass curves: edge cases of points and encodings, and scalar products, decoding and
// curve membership checked against OpenSSL's results (through Python) on the five NIST curves.
#include "tessel/ec.h"
#include "bignum_support.h"
#include "ec/nist_ct.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

const Curve kCurves[] = {Curve::p192, Curve::p224, Curve::p256, Curve::p384, Curve::p521};

// NamedCurve bundles a curve's parameters with a WCurve for it.
struct NamedCurve {
  explicit NamedCurve(Curve c)
      : id(c),
        a(getAForECCurve(c)),
        b(getBForECCurve(c)),
        ok(getECParams(c, p, n, G)),
        len((p.bits() + 7) / 8),
        curve(p) {}
  Curve id;
  BigNum p, n, a, b;
  ECPoint G;
  bool ok;
  unsigned len;
  WCurve curve;

  ECPoint times(const BigNum& k) const { return curve.toEC(curve.mul(k, curve.fromEC(G))); }
  ECPoint decode(const Bytes& enc) const { return ECPoint::fromOctetStringCompressed(asn1::blob(enc), p, a, b); }
  bool onCurve(WCurve::Point P, const BigNum& withB) const { return curve.isOnCurve(a, withB, std::move(P)); }
};

// The named curves' parameters are checked against OpenSSL's in WCurveOracle.
TEST(ECParams, UnknownCurvesGiveNothing) {
  BigNum p(7u), n(7u);
  ECPoint G{BigNum(7u), BigNum(7u)};
  for (Curve bad : {Curve(0), Curve(6), Curve(255)}) {
    EXPECT_FALSE(getECParams(bad, p, n, G));
    EXPECT_TRUE(getModForECCurve(bad).isZero() && getOrderForECCurve(bad).isZero());
    EXPECT_TRUE(getAForECCurve(bad).isZero() && getBForECCurve(bad).isZero());
  }
  EXPECT_EQ(p, BigNum(7u));
}

// Decoding against OpenSSL is in WCurveOracle; here the forms OpenSSL would not write.
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
  const NamedCurve nc(Curve::p256);
  Bytes packed = nc.G.toBin(32, true), big = BigNum(nc.p).bin(32);
  EXPECT_EQ(ECPoint::fromOctetString(asn1::blob(packed)), none);  // compressed needs the curve
  packed[0] ^= 1;                                                 // the other parity prefix gives the negated point
  EXPECT_EQ(nc.decode(packed), (ECPoint{nc.G.x, nc.p - nc.G.y}));
  big.insert(big.begin(), 0x02);  // x at or above p, a bad prefix and empty input decode to nothing
  EXPECT_EQ(nc.decode(big), none);
  EXPECT_EQ(nc.decode(fromHex("0500")), none);
  EXPECT_EQ(nc.decode({}), none);
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

TEST(WCurveTest, GroupEdgeCasesAndMembership) {
  for (Curve c : kCurves) {
    const NamedCurve nc(c);
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
    EXPECT_TRUE(sum(G, minusG).isInfinity() && twice(inf).isInfinity());
    EXPECT_EQ(affine(sum(G, inf)), nc.G);
    EXPECT_EQ(affine(sum(inf, G)), nc.G);
    // mul2add with zero scalars and with P = Q.
    EXPECT_EQ(affine(curve.mul2add(BigNum(0u), G, BigNum(0u), G)), none);
    EXPECT_EQ(affine(curve.mul2add(BigNum(5u), G, BigNum(0u), G)), nc.times(BigNum(5u)));
    EXPECT_EQ(affine(curve.mul2add(BigNum(2u), G, BigNum(3u), G)), nc.times(BigNum(5u)));
    EXPECT_EQ(affine(curve.mul2add(nc.n - BigNum(1u), G, BigNum(1u), G)), none);
    // Off-curve points, infinity and another b are refused; Jacobian points with Z ≠ 1 are judged
    // by their affine form.
    EXPECT_TRUE(nc.onCurve(G, nc.b) && nc.onCurve(curve.mul(BigNum(12345u), G), nc.b));
    EXPECT_FALSE(nc.onCurve(curve.fromEC({nc.G.x, nc.G.y + BigNum(1u)}), nc.b));
    EXPECT_FALSE(nc.onCurve(curve.fromEC({nc.G.y, nc.G.x}), nc.b));
    EXPECT_FALSE(nc.onCurve(inf, nc.b));
    EXPECT_FALSE(nc.onCurve(G, nc.b + BigNum(1u)));
  }
}

// The coefficient field: a curve given a = p − 3 explicitly takes the general doubling (the path
// of curves with another a) and must agree with the a = −3 shortcut, and a curve given a = 0 is
// treated as a = −3.
TEST(WCurveTest, CoefficientFieldRule) {
  for (Curve c : {Curve::p224, Curve::p384}) {
    const NamedCurve nc(c);
    MontgomeryReducer red(nc.p);
    const WCurve general(nc.p, nc.a, &red), zero(nc.p, BigNum(0u), &red);
    for (unsigned k : {2u, 3u, 1000003u}) {
      EXPECT_EQ(general.toEC(general.mul(BigNum(k), general.fromEC(nc.G))), nc.times(BigNum(k)));
      EXPECT_EQ(zero.toEC(zero.mul(BigNum(k), zero.fromEC(nc.G))), nc.times(BigNum(k)));
    }
  }
}

// OpenSSL's view of the curves through Python's cryptography (tests/data/gen_num_ec.py): the
// parameters; multiples of G at the edges around n, for single table entries and for random
// scalars; k1·G + k2·Q and k2·Q (short k2 exercise the digits that read as zero); random points
// in both encodings; and compressed x with and without a point. Both WCurve and the
// constant-time code (ec/nist_ct.h) give every product.
TEST(WCurveOracle, CurvesMatchPythonCryptography) {
  const auto curves = test::dataFile("num_ec.json")["curves"];
  for (std::size_t i = 0; i < curves.size(); ++i) {
    const auto& v = curves[i];
    const NamedCurve nc(kCurves[i]);
    SCOPED_TRACE(v["name"].get<std::string>());
    auto num = [](const nlohmann::json& x) { return test::hexNum(x.get<std::string>()); };
    auto point = [&](const nlohmann::json& r, int at) {
      return r[at] == "" ? ECPoint{} : ECPoint{num(r[at]), num(r[at + 1])};
    };
    EXPECT_TRUE(nc.p == num(v["p"]) && nc.a == num(v["a"]) && nc.b == num(v["b"]) && nc.n == num(v["n"]));
    EXPECT_EQ(nc.G, (ECPoint{num(v["gx"]), num(v["gy"])}));
    // The constant-time code takes the scalars as big-endian strings of the order's length, one
    // byte shorter when they fit, and longer as a key with extra digits gives; zeros for infinity.
    const nist::CtCurve& cc = *nist::CtCurve::forCurve(kCurves[i]);
    auto ctMatches = [&](const BigNum& k, const ECPoint* Q, const ECPoint& want) {
      for (std::size_t len : {cc.orderBytes() - 1, cc.orderBytes(), cc.orderBytes() + 3}) {
        if (k.bits() > 8 * len) continue;
        const Bytes kb = k.bin(static_cast<unsigned>(len));
        Bytes got(2 * nc.len), shorter(len - 1), longer(len + 2);
        const bool infinity =
            (Q ? cc.mul(got.data(), kb.data(), len, *Q) : cc.mulBase(got.data(), kb.data(), len)) != 0;
        EXPECT_EQ(infinity, want == ECPoint{});
        EXPECT_EQ(toHex(got), toHex(want.x.bin(nc.len)) + toHex(want.y.bin(nc.len))) << len;
        EXPECT_EQ(cc.scalarInRange(kb.data(), len) != 0, !k.isZero() && k < nc.n);
        // fixedBytes keeps the low bytes of what does not fit; bin() widens instead.
        nist::fixedBytes(shorter.data(), shorter.size(), k);
        nist::fixedBytes(longer.data(), longer.size(), k);
        EXPECT_EQ(toHex(shorter), toHex(kb).substr(2));
        EXPECT_EQ(toHex(longer), "0000" + toHex(kb));
      }
    };
    for (const auto& r : v["multiples"]) {
      ASSERT_EQ(nc.times(num(r[0])), point(r, 1)) << r;
      ctMatches(num(r[0]), nullptr, point(r, 1));
    }
    for (const auto& r : v["doubles"]) {
      const ECPoint q = point(r, 2);
      const WCurve::Point Q = nc.curve.fromEC(q);
      ASSERT_EQ(nc.curve.toEC(nc.curve.mul2add(num(r[0]), nc.curve.fromEC(nc.G), num(r[1]), Q)), point(r, 4)) << r;
      ASSERT_EQ(nc.curve.toEC(nc.curve.mul(num(r[1]), Q)), point(r, 6)) << r;
      ctMatches(num(r[1]), &q, point(r, 6));
    }
    EXPECT_TRUE(cc.onCurve_vartime(nc.G) && !cc.onCurve_vartime(ECPoint{BigNum(1u), BigNum(1u)}));
    for (const auto& r : v["encodings"]) {
      const ECPoint want = point(r, 0);
      const Bytes full = fromHex(r[2].get<std::string>()), packed = fromHex(r[3].get<std::string>());
      ASSERT_EQ(ECPoint::fromOctetString(asn1::blob(full)), want) << r;
      ASSERT_EQ(nc.decode(full), want);
      ASSERT_EQ(nc.decode(packed), want);
      ASSERT_EQ(toHex(want.toBin(nc.len, false)), r[2]);
      ASSERT_EQ(toHex(want.toBin(nc.len, true)), r[3]);
      ASSERT_TRUE(nc.onCurve(nc.curve.fromEC(want), nc.b));
    }
    for (const auto& r : v["compressed"]) ASSERT_EQ(nc.decode(fromHex(r[0].get<std::string>())), point(r, 1)) << r;
  }
}

}  // namespace
}  // namespace tessel
