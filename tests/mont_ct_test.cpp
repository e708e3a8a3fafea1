// The constant-time Montgomery arithmetic against OpenSSL's BIGNUM on random odd moduli of the
// curve sizes and the RSA sizes, plus the shapes that break carries (all ones, 2^k + 1).
#include "bignum/mont_ct.h"

#include <gtest/gtest.h>

#include "bignum_support.h"

#if TESSEL_HAVE_OPENSSL
#include <openssl/err.h>

namespace tessel::test {
namespace {

using ct::Limb;
using ct::MontModulus;

// randomBits returns a BigNum of `bits` bits at most from rng.
BigNum randomBits(TestRng& rng, unsigned bits) {
  Bytes b = rng.bytes((bits + 7) / 8);
  if (bits % 8) b[0] &= static_cast<unsigned char>((1u << (bits % 8)) - 1);
  return BigNum(asn1::blob(b));
}

// oddModulus returns an odd number of exactly `bits` bits: random, all ones or 2^(bits−1) + 1.
BigNum oddModulus(TestRng& rng, unsigned bits, int shape) {
  BigNum n = shape == 0 ? randomBits(rng, bits) : BigNum(0u);
  for (unsigned i = 0; shape && i < bits; ++i) n.setBit(i, shape == 1);
  n.setBit(bits - 1, true);
  n.setBit(0, true);
  n.clamp();
  return n;
}

// Residues of one modulus, converted in and out through the BigNum path; modMul is OpenSSL's
// a·b·R⁻¹ mod n, the Montgomery product.
struct Field {
  const MontModulus& m;
  BigNum n, rInv;
  Field(const MontModulus& mod, const BigNum& modulus) : m(mod), n(modulus) {
    rInv = ossl(BN_mod_inverse, ossl(BN_nnmod, BigNum(1u) << static_cast<unsigned>(m.limbs() * ct::limbBits), n), n);
  }
  std::vector<Limb> in(const BigNum& x) const {
    std::vector<Limb> r(m.limbs());
    m.fromBigNum(r.data(), x);
    return r;
  }
  BigNum out(const std::vector<Limb>& r) const { return m.toBigNum_vartime(r.data()); }
  std::vector<Limb> mont(const BigNum& x) const {
    auto r = in(x);
    m.toMont(r.data(), r.data());
    return r;
  }
  BigNum plain(std::vector<Limb> r) const {
    m.fromMont(r.data(), r.data());
    return out(r);
  }
  BigNum modMul(const BigNum& a, const BigNum& b) const { return ossl(BN_mod_mul, ossl(BN_mod_mul, a, b, n), rInv, n); }
  BigNum reduce(const BigNum& x) const { return ossl(BN_nnmod, x, n); }
};

constexpr unsigned kPer = sizeof(Limb) / sizeof(BigNum::Digit);
const unsigned kSizes[] = {63, 64, 65, 192, 224, 256, 384, 521, 1024, 1536, 2048, 3072, 4096};

// kInverseOrZero is OpenSSL's a⁻¹ mod n, or zero when there is none.
const auto kInverseOrZero = [](BIGNUM* r, const BIGNUM* a, const BIGNUM* n, BN_CTX* c) {
  if (!BN_mod_inverse(r, a, n, c)) BN_zero(r);
  ERR_clear_error();
};

TEST(MontCt, ArithmeticMatchesOpenSsl) {
  TestRng rng(0x6d6f6e74);
  for (unsigned bits : kSizes) {
    for (int shape = 0; shape < 3; ++shape) {
      const BigNum n = oddModulus(rng, bits, shape);
      const MontModulus m(n), secret(n, ct::SecretModulus{});
      SCOPED_TRACE(testing::Message() << bits << " bits, shape " << shape << ", n = " << n.str());
      ASSERT_TRUE(m.bits() == bits && secret.bits() == bits);
      ASSERT_EQ(m.limbs(), (bits + ct::limbBits - 1) / ct::limbBits);
      const Field f(m, n), g(secret, n);
      std::vector<Limb> r(m.limbs());
      m.one(r.data());
      EXPECT_EQ(f.plain(r), BigNum(1u));
      // Reduction of wider numbers, as for a value modulo one RSA prime.
      for (unsigned wide : {bits - 1, bits + 1, 2 * bits + 70}) {
        const BigNum x = randomBits(rng, wide);
        std::vector<Limb> xl((x.size() + kPer - 1) / kPer, 0);  // x's digits spread over limbs
        for (unsigned i = 0; i < x.size(); ++i) xl[i / kPer] |= static_cast<Limb>(Limb{x[i]} << (32 * (i % kPer)));
        secret.toMontWide(r.data(), xl.data(), xl.size());
        EXPECT_EQ(g.plain(r), f.reduce(x)) << x.str();
      }
      const BigNum edges[] = {BigNum(0u), BigNum(1u), n - BigNum(1u)};
      for (int i = 0; i < rounds(12); ++i) {
        const BigNum a = i < 3 ? edges[i] : f.reduce(randomBits(rng, bits));
        const BigNum b = i < 3 ? n - BigNum(1u) : f.reduce(randomBits(rng, bits));
        SCOPED_TRACE(a.str() + " , " + b.str());
        auto ra = f.in(a), rb = f.in(b);
        m.mul(r.data(), ra.data(), rb.data());
        EXPECT_EQ(f.out(r), f.modMul(a, b));
        secret.mul(r.data(), ra.data(), rb.data());
        EXPECT_EQ(g.out(r), f.modMul(a, b));
        m.add(r.data(), ra.data(), rb.data());
        EXPECT_EQ(f.out(r), ossl(BN_mod_add, a, b, n));
        m.sub(r.data(), ra.data(), rb.data());
        EXPECT_EQ(f.out(r), ossl(BN_mod_sub, a, b, n));
        m.sub(rb.data(), rb.data(), ra.data());  // aliasing the output
        EXPECT_EQ(f.out(rb), ossl(BN_mod_sub, b, a, n));
        m.sqr(ra.data(), ra.data());
        EXPECT_EQ(f.out(ra), f.modMul(a, a));
        EXPECT_EQ(f.plain(f.mont(a)), a);
        EXPECT_EQ(g.plain(g.mont(a)), a);
        const BigNum inverse = ossl(kInverseOrZero, b, n);
        ASSERT_EQ(m.inv_vartime(r.data(), f.in(b).data()), !inverse.isZero());
        EXPECT_TRUE(inverse.isZero() || f.out(r) == inverse) << f.out(r).str();
      }
    }
  }
}

TEST(MontCt, ExponentiationMatchesOpenSsl) {
  TestRng rng(0x657870);
  for (unsigned bits : kSizes) {
    const BigNum n = oddModulus(rng, bits, 0);
    const MontModulus m(n);
    const Field f(m, n);
    // Exponent lengths around the window widths, the modulus length (led by a zero byte), and none.
    for (std::size_t len : std::vector<std::size_t>{0, 1, 2, 3, (bits + 7) / 8, 64 + bits % 5}) {
      Bytes e = rng.bytes(len);
      if (len > 2) e[0] = 0;  // a leading zero byte must change nothing
      const BigNum a = f.reduce(randomBits(rng, bits)), expected = ossl(BN_mod_exp, a, BigNum(asn1::blob(e)), n);
      SCOPED_TRACE(testing::Message() << bits << " bits, n = " << n.str() << ", exponent " << toHex(e));
      auto x = f.mont(a);
      std::vector<Limb> r(m.limbs());
      m.exp(r.data(), x.data(), e.data(), e.size());
      EXPECT_EQ(f.plain(r), expected);
      m.expPublic_vartime(r.data(), x.data(), BigNum(asn1::blob(e)));
      EXPECT_EQ(f.plain(r), expected);
      m.exp(x.data(), x.data(), e.data(), e.size());  // aliasing the output
      EXPECT_EQ(f.plain(x), expected);
    }
  }
}

// Bytes in and out at the modulus length and wider. (invPrime, select and conditionalCopy are
// checked through the curves and key generation they serve, against OpenSSL's answers.)
TEST(MontCt, BytesRoundTrip) {
  TestRng rng(0x627974);
  for (unsigned bits : {64u, 521u, 2048u}) {
    const BigNum n = oddModulus(rng, bits, 0), a = ossl(BN_nnmod, randomBits(rng, bits), n);
    const MontModulus m(n);
    std::vector<Limb> r(m.limbs());
    for (std::size_t len : {(bits + 7) / 8, (bits + 7) / 8 + 3}) {
      const Bytes bytes = a.bin(static_cast<unsigned>(len));
      Bytes back(len);
      m.fromBytes(r.data(), bytes.data(), bytes.size());
      m.toBytes(back.data(), back.size(), r.data());
      EXPECT_EQ(m.toBigNum_vartime(r.data()), a);
      EXPECT_EQ(back, bytes);
    }
  }
}

}  // namespace
}  // namespace tessel::test

#endif
