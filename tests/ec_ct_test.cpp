// The constant-time NIST curve code (ec/nist_ct.h) against WCurve's variable-time arithmetic,
// point for point; ECDSA signatures against the straightforward BigNum computation of the same
// RFC 6979 signature; ECDH against Wycheproof.
#include <string>
#include <vector>

#include "ec/nist_ct.h"
#include "support.h"
#include "tessel/ec_key.h"
#include "tessel/factory.h"
#include "tessel/hash.h"
#include "tessel/pkcs8.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

constexpr Curve kCurves[] = {Curve::p192, Curve::p224, Curve::p256, Curve::p384, Curve::p521};

BigNum modN(const BigNum& a, const BigNum& m) {
  BigNum r;
  div(a, m, nullptr, &r);
  return r;
}

// Scalars covers the edges (0, 1, 2, n − 2, n − 1, n, n + 1) and random small and full-width
// values, as `len`-byte strings.
std::vector<Bytes> scalars(const BigNum& n, std::size_t len, test::TestRng& rng) {
  std::vector<BigNum> values = {BigNum(0u),
                                BigNum(1u),
                                BigNum(2u),
                                n - BigNum(2u),
                                n - BigNum(1u),
                                n,
                                n + BigNum(1u),
                                BigNum(asn1::blob(rng.bytes(2))),
                                BigNum(asn1::blob(rng.bytes(9)))};
  for (int i = 0; i < 6; ++i) values.push_back(modN(BigNum(asn1::blob(rng.bytes(len))), n));
  std::vector<Bytes> out;
  for (const BigNum& v : values) out.push_back(v.bin(static_cast<unsigned>(len)));
  return out;
}

// expected is WCurve's k·P as x || y of `len` bytes each; zeros for infinity.
Bytes expected(const WCurve& w, const Bytes& k, const ECPoint& P, std::size_t len) {
  const ECPoint r = w.toEC(w.mul(BigNum(asn1::blob(k)), w.fromEC(P)));
  Bytes out = r.x.bin(static_cast<unsigned>(len)), y = r.y.bin(static_cast<unsigned>(len));
  out.insert(out.end(), y.begin(), y.end());
  return out;
}

TEST(NistCt, MultiplicationMatchesWCurve) {
  test::TestRng rng(521);
  for (Curve c : kCurves) {
    SCOPED_TRACE(getCurveName(c));
    const nist::CtCurve& cc = *nist::CtCurve::forCurve(c);
    BigNum p, n;
    ECPoint G;
    ASSERT_TRUE(getECParams(c, p, n, G));
    const WCurve w(p);
    const std::size_t len = cc.fieldBytes();
    const ECPoint Q = w.toEC(w.mul(BigNum(asn1::blob(rng.bytes(cc.orderBytes()))), w.fromEC(G)));
    ASSERT_TRUE(cc.onCurve_vartime(Q));
    // The order's length, and a longer string as a key with extra digits gives.
    for (std::size_t kLen : {cc.orderBytes(), cc.orderBytes() + 3}) {
      for (const Bytes& k : scalars(n, kLen, rng)) {
        SCOPED_TRACE(toHex(k));
        const bool infinity = modN(BigNum(asn1::blob(k)), n).isZero();
        Bytes got(2 * len);
        EXPECT_EQ(cc.mul(got.data(), k.data(), k.size(), Q) != 0, infinity);
        EXPECT_EQ(toHex(got), toHex(expected(w, k, Q, len)));
        EXPECT_EQ(cc.mulBase(got.data(), k.data(), k.size()) != 0, infinity);
        EXPECT_EQ(toHex(got), toHex(expected(w, k, G, len)));
      }
    }
  }
}

TEST(NistCt, ScalarRangeAndFixedBytes) {
  test::TestRng rng(7);
  for (Curve c : kCurves) {
    SCOPED_TRACE(getCurveName(c));
    const nist::CtCurve& cc = *nist::CtCurve::forCurve(c);
    const BigNum& n = cc.order();
    for (std::size_t len : {cc.orderBytes() - 1, cc.orderBytes(), cc.orderBytes() + 4}) {
      for (const Bytes& k : scalars(n, len, rng)) {
        const BigNum v{asn1::blob(k)};
        EXPECT_EQ(cc.scalarInRange(k.data(), k.size()) != 0, !v.isZero() && v < n) << toHex(k);
        // fixedBytes keeps the low bytes of what does not fit; bin() widens instead.
        Bytes fixed(k.size() - 1);
        nist::fixedBytes(fixed.data(), fixed.size(), v);
        EXPECT_EQ(toHex(fixed), toHex(k).substr(2));
        fixed.resize(k.size() + 2);
        nist::fixedBytes(fixed.data(), fixed.size(), v);
        EXPECT_EQ(toHex(fixed), "0000" + toHex(k));
      }
    }
    ECPoint off{BigNum(1u), BigNum(1u)};
    EXPECT_FALSE(cc.onCurve_vartime(off));
  }
}

// referenceSign is ECDSA with the RFC 6979 nonce computed plainly on BigNum and WCurve, as the
// library did before its constant-time code.
Bytes referenceSign(Curve c, const BigNum& d, unsigned hashId, const Bytes& hash) {
  BigNum p, n;
  ECPoint G;
  getECParams(c, p, n, G);
  const WCurve w(p);
  const unsigned rlen = (n.bits() + 7) / 8, qlen = n.bits();
  auto bits2int = [&](const Bytes& b) {
    BigNum v{asn1::blob(b)};
    if (8 * b.size() > qlen) v >>= static_cast<unsigned>(8 * b.size() - qlen);
    return v;
  };
  const BigNum e = bits2int(hash);
  const Bytes x = d.bin(rlen), h1 = modN(e, n).bin(rlen);
  Bytes K(createHash(hashId)->digestLength(), 0), V(K.size(), 1);
  auto hmac = [&](const Bytes& msg) {
    auto mac = createHMAC(hashId, K);
    mac->update(std::span<const unsigned char>(msg));
    return mac->digest();
  };
  auto cat = [](Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  K = hmac(cat(cat(cat(V, {0}), x), h1));
  V = hmac(V);
  K = hmac(cat(cat(cat(V, {1}), x), h1));
  V = hmac(V);
  for (;;) {
    Bytes t;
    while (t.size() < rlen) t = cat(t, V = hmac(V));
    t.resize(rlen);
    const BigNum k = bits2int(t);
    if (!k.isZero() && k < n) {
      const BigNum r = modN(w.toEC(w.mul(k, w.fromEC(G))).x, n);
      const BigNum s = modN(invByMod(k, n) * modN(e + r * d, n), n);
      if (!r.isZero() && !s.isZero()) return cat(r.bin(rlen), s.bin(rlen));
    }
    K = hmac(cat(V, {0}));
    V = hmac(V);
  }
}

Bytes rsOf(const Bytes& sig, unsigned rlen) {
  asn1::parser der{asn1::blob(sig)};
  if (!der.enter()) return {};
  Bytes r = BigNum(der.takeContent()).bin(rlen), s = BigNum(der.takeContent()).bin(rlen);
  r.insert(r.end(), s.begin(), s.end());
  return r;
}

TEST(NistCt, SignaturesMatchThePlainComputation) {
  test::TestRng rng(6979);
  for (Curve c : kCurves) {
    SCOPED_TRACE(getCurveName(c));
    const BigNum n = getOrderForECCurve(c);
    const unsigned rlen = (n.bits() + 7) / 8;
    const std::vector<BigNum> keys = {BigNum(1u), n - BigNum(1u), BigNum(asn1::blob(rng.bytes(5))),
                                      modN(BigNum(asn1::blob(rng.bytes(rlen))), n)};
    for (const BigNum& d : keys) {
      EcPrivateKey key;
      ASSERT_TRUE(key.setPrivateKey(c, d));
      for (unsigned id : {hashSha1, hashSha256, hashSha384, hashSha512}) {
        const Bytes hash = rng.bytes(createHash(id)->digestLength());
        const Bytes sig = key.signHashed(id, asn1::blob(hash));
        EXPECT_EQ(toHex(rsOf(sig, rlen)), toHex(referenceSign(c, d, id, hash))) << d.str() << " hash " << id;
        EXPECT_TRUE(key.verifyHashed(asn1::blob(hash), asn1::blob(sig)));
      }
    }
  }
}

struct EcdhFile {
  const char* name;
  int count;
};

class EcdhWycheproof : public ::testing::TestWithParam<EcdhFile> {};

// Valid cases give the listed secret; invalid ones (points off the curve or on another curve,
// broken encodings) give none, either because the key does not parse or because the exchange
// refuses it. Acceptable cases (compressed points among them), when they go through, give the
// listed secret.
TEST_P(EcdhWycheproof, EveryCase) {
  LOAD_VECTORS(v, std::string("wycheproof/") + GetParam().name);
  int n = 0;
  for (const auto& g : v["testGroups"]) {
    const std::string name = g["curve"];
    const Curve curve = name == "secp224r1" ? Curve::p224 : name == "secp256r1" ? Curve::p256 : Curve::p384;
    for (const auto& t : g["tests"]) {
      SCOPED_TRACE("tcId " + std::to_string(t["tcId"].get<int>()) + " " + t["comment"].get<std::string>());
      ++n;
      const Bytes spki = *test::field(t, "public");
      auto peer = std::dynamic_pointer_cast<EcPublicKey>(parsePkcs8PublicKey(asn1::blob(spki)));
      Bytes secret;
      if (peer) {
        EcPrivateKey ours;
        if (ours.setPrivateKey(curve, BigNum(asn1::blob(*test::field(t, "private")))))
          secret = ours.deriveSharedSecret(*peer);
      }
      const std::string result = t["result"];
      if (result == "invalid") {
        EXPECT_TRUE(secret.empty());
      } else if (result == "valid" || !secret.empty()) {
        EXPECT_EQ(toHex(secret), toHex(*test::field(t, "shared")));
      }
    }
  }
  EXPECT_EQ(n, GetParam().count);
}

INSTANTIATE_TEST_SUITE_P(Files, EcdhWycheproof,
                         ::testing::Values(EcdhFile{"ecdh_secp224r1_test.json", 714},
                                           EcdhFile{"ecdh_secp256r1_test.json", 612},
                                           EcdhFile{"ecdh_secp384r1_test.json", 1047}));

}  // namespace
}  // namespace tessel
