// The constant-time Montgomery arithmetic against OpenSSL's BIGNUM on random odd moduli of the
// curve sizes and the RSA sizes, plus the shapes that break carries (all ones, 2^k + 1).
#include "bignum/mont_ct.h"

#include <gtest/gtest.h>

#include "bignum_support.h"

#if TESSEL_HAVE_OPENSSL
#include <openssl/err.h>
#endif

#if TESSEL_HAVE_OPENSSL

namespace tessel::test {
namespace {

using ct::Limb;
using ct::MontModulus;

// randomBelow returns a BigNum of `bits` bits at most from rng, reduced below m by OpenSSL.
BigNum randomBits(TestRng& rng, unsigned bits) {
  Bytes b = rng.bytes((bits + 7) / 8);
  if (bits % 8) b[0] &= static_cast<unsigned char>((1u << (bits % 8)) - 1);
  return BigNum(asn1::blob(b));
}

// oddModulus returns an odd number of exactly `bits` bits in one of three shapes.
BigNum oddModulus(TestRng& rng, unsigned bits, int shape) {
  BigNum n;
  if (shape == 0) {
    n = randomBits(rng, bits);
  } else {
    for (unsigned i = 0; i < bits; ++i) n.setBit(i, shape == 1);  // all ones / 2^(bits-1) + 1
  }
  n.setBit(bits - 1, true);
  n.setBit(0, true);
  n.clamp();
  return n;
}

// limbsOf spreads x's 32-bit digits over limbs, least significant first.
std::vector<Limb> limbsOf(const BigNum& x) {
  constexpr unsigned per = sizeof(Limb) / sizeof(BigNum::Digit);
  std::vector<Limb> r((x.size() + per - 1) / per, 0);
  for (unsigned i = 0; i < x.size(); ++i) r[i / per] |= static_cast<Limb>(static_cast<Limb>(x[i]) << (32 * (i % per)));
  return r;
}

struct Oracle {
  BnCtx ctx;
  Bn n, r, rInv;
  explicit Oracle(const BigNum& modulus, std::size_t limbs) : n(toBn(modulus)), r(newBn()), rInv(newBn()) {
    BN_set_bit(r.get(), static_cast<int>(limbs * ct::limbBits));
    BN_mod(r.get(), r.get(), n.get(), ctx);
    BN_mod_inverse(rInv.get(), r.get(), n.get(), ctx);
  }
  // modMul returns a·b (·R⁻¹ if `mont`) mod n.
  BigNum modMul(const BigNum& a, const BigNum& b, bool mont = false) {
    Bn t(newBn());
    BN_mod_mul(t.get(), toBn(a).get(), toBn(b).get(), n.get(), ctx);
    if (mont) BN_mod_mul(t.get(), t.get(), rInv.get(), n.get(), ctx);
    return fromBn(t.get());
  }
  BigNum modExp(const BigNum& a, const BigNum& e) {
    Bn t(newBn());
    BN_mod_exp(t.get(), toBn(a).get(), toBn(e).get(), n.get(), ctx);
    return fromBn(t.get());
  }
  BigNum modAdd(const BigNum& a, const BigNum& b, bool subtract) {
    Bn t(newBn());
    (subtract ? BN_mod_sub : BN_mod_add)(t.get(), toBn(a).get(), toBn(b).get(), n.get(), ctx);
    return fromBn(t.get());
  }
  BigNum reduce(const BigNum& a) { return modMul(a, BigNum(1)); }
};

// Residues of one modulus, converted in and out through the byte and BigNum paths alike.
struct Field {
  const MontModulus& m;
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
};

const unsigned kSizes[] = {63, 64, 65, 192, 224, 256, 384, 521, 1024, 1536, 2048, 3072, 4096};

TEST(MontCt, ArithmeticMatchesOpenSsl) {
  TestRng rng(0x6d6f6e74);
  for (unsigned bits : kSizes) {
    for (int shape = 0; shape < 3; ++shape) {
      const BigNum n = oddModulus(rng, bits, shape);
      const MontModulus m(n);
      const MontModulus secret(n, ct::SecretModulus{});
      SCOPED_TRACE(testing::Message() << bits << " bits, shape " << shape << ", n = " << n.str());
      ASSERT_EQ(m.bits(), bits);
      ASSERT_EQ(secret.bits(), bits);
      ASSERT_EQ(m.limbs(), (bits + ct::limbBits - 1) / ct::limbBits);
      Oracle o(n, m.limbs());
      const Field f{m}, g{secret};
      std::vector<Limb> r(m.limbs());
      m.one(r.data());
      EXPECT_EQ(f.out(r), fromBn(o.r.get()));
      // Reduction of wider numbers, as for a value modulo one RSA prime.
      for (unsigned wide : {bits - 1, bits + 1, 2 * bits + 70}) {
        const BigNum x = randomBits(rng, wide);
        const std::vector<Limb> xl = limbsOf(x);
        secret.toMontWide(r.data(), xl.data(), xl.size());
        EXPECT_EQ(g.plain(r), o.reduce(x)) << x.str();
      }
      const BigNum edges[] = {BigNum(0), BigNum(1), n - BigNum(1)};
      for (int i = 0; i < rounds(12); ++i) {
        const BigNum a = i < 3 ? edges[i] : o.reduce(randomBits(rng, bits));
        const BigNum b = i < 3 ? n - BigNum(1) : o.reduce(randomBits(rng, bits));
        auto ra = f.in(a), rb = f.in(b);
        m.mul(r.data(), ra.data(), rb.data());
        EXPECT_EQ(f.out(r), o.modMul(a, b, true)) << a.str() << " * " << b.str();
        secret.mul(r.data(), ra.data(), rb.data());
        EXPECT_EQ(g.out(r), o.modMul(a, b, true));
        m.sqr(ra.data(), ra.data());
        EXPECT_EQ(f.out(ra), o.modMul(a, a, true));
        ra = f.in(a);
        m.add(r.data(), ra.data(), rb.data());
        EXPECT_EQ(f.out(r), o.modAdd(a, b, false));
        m.sub(r.data(), ra.data(), rb.data());
        EXPECT_EQ(f.out(r), o.modAdd(a, b, true));
        m.sub(rb.data(), rb.data(), ra.data());  // aliasing the output
        EXPECT_EQ(f.out(rb), o.modAdd(b, a, true));
        EXPECT_EQ(f.plain(f.mont(a)), a);
        EXPECT_EQ(g.plain(g.mont(a)), a);
        Bn inverse(BN_mod_inverse(nullptr, toBn(b).get(), o.n.get(), o.ctx));
        ERR_clear_error();
        rb = f.in(b);
        ASSERT_EQ(m.inv_vartime(r.data(), rb.data()), inverse != nullptr) << b.str();
        if (inverse) {
          EXPECT_EQ(f.out(r), fromBn(inverse.get()));
        }
      }
    }
  }
}

TEST(MontCt, ExponentiationMatchesOpenSsl) {
  TestRng rng(0x657870);
  for (unsigned bits : kSizes) {
    const BigNum n = oddModulus(rng, bits, 0);
    const MontModulus m(n);
    SCOPED_TRACE(testing::Message() << bits << " bits, n = " << n.str());
    Oracle o(n, m.limbs());
    const Field f{m};
    // Exponent lengths around the window widths, the modulus length (led by a zero byte), and none.
    const std::size_t lengths[] = {0, 1, 2, 3, (bits + 7) / 8, 64 + bits % 5};
    for (std::size_t len : lengths) {
      Bytes e = rng.bytes(len);
      if (len > 2) e[0] = 0;  // a leading zero byte must change nothing
      const BigNum a = o.reduce(randomBits(rng, bits));
      const BigNum expected = o.modExp(a, BigNum(asn1::blob(e)));
      auto x = f.mont(a);
      std::vector<Limb> r(m.limbs());
      m.exp(r.data(), x.data(), e.data(), e.size());
      EXPECT_EQ(f.plain(r), expected) << "exponent " << toHex(e);
      m.expPublic_vartime(r.data(), x.data(), BigNum(asn1::blob(e)));
      EXPECT_EQ(f.plain(r), expected) << "exponent " << toHex(e);
      if (len < 8) {
        m.exp(x.data(), x.data(), e.data(), e.size());  // aliasing the output
        EXPECT_EQ(f.plain(x), expected);
      }
    }
  }
}

TEST(MontCt, InversionModuloPrimes) {
  // The NIST field primes and group orders P-192 .. P-521 as OpenSSL knows them, and random primes.
  TestRng rng(0x696e76);
  std::vector<BigNum> primes;
  for (const char* hex :
       {"fffffffffffffffffffffffffffffffeffffffffffffffff", "ffffffffffffffffffffffffffffffff000000000000000000000001",
        "ffffffff00000001000000000000000000000000ffffffffffffffffffffffff",
        "ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551"})
    primes.push_back(hexNum(hex));
  BigNum p521;
  for (unsigned i = 0; i < 521; ++i) p521.setBit(i, true);
  primes.push_back(p521);
  for (int bits : {61, 255, 1024}) {
    Bn p(newBn());
    ASSERT_TRUE(BN_generate_prime_ex(p.get(), bits, 0, nullptr, nullptr, nullptr));
    primes.push_back(fromBn(p.get()));
  }
  for (const BigNum& p : primes) {
    const MontModulus m(p);
    Oracle o(p, m.limbs());
    const Field f{m};
    for (int i = 0; i < rounds(4); ++i) {
      BigNum a = o.reduce(randomBits(rng, m.bits()));
      if (a.isZero()) a = BigNum(1);
      auto x = f.mont(a);
      m.invPrime(x.data(), x.data());
      EXPECT_EQ(o.modMul(f.plain(x), a), BigNum(1)) << p.str() << " " << a.str();
    }
  }
}

TEST(MontCt, BytesSelectAndCopy) {
  TestRng rng(0x627974);
  for (unsigned bits : {64u, 521u, 2048u}) {
    const BigNum n = oddModulus(rng, bits, 0);
    const MontModulus m(n);
    const std::size_t w = m.limbs();
    const BigNum a = Oracle(n, w).reduce(randomBits(rng, bits));
    const std::size_t len = (bits + 7) / 8;
    for (std::size_t outLen : {len, len + 3}) {
      std::vector<Limb> r(w);
      const Bytes bytes = a.bin(static_cast<unsigned>(outLen));
      m.fromBytes(r.data(), bytes.data(), bytes.size());
      EXPECT_EQ(m.toBigNum_vartime(r.data()), a);
      Bytes back(outLen);
      m.toBytes(back.data(), back.size(), r.data());
      EXPECT_EQ(back, bytes);
    }
    // A table whose entries differ in every limb: each index brings back its own entry only.
    const std::size_t entries = 17;
    std::vector<Limb> table(entries * w);
    for (auto& x : table) x = static_cast<Limb>(rng.next()) << (ct::limbBits - 32) | rng.next();
    std::vector<Limb> r(w), copy(w);
    for (std::size_t i = 0; i < entries; ++i) {
      ct::select(r.data(), table.data(), entries, w, i);
      EXPECT_TRUE(std::equal(r.begin(), r.end(), table.begin() + static_cast<std::ptrdiff_t>(i * w)));
    }
    ct::select(r.data(), table.data(), entries, w, entries);  // out of range: all zero
    EXPECT_EQ(r, std::vector<Limb>(w, 0));
    for (Limb mask : {Limb{0}, ~Limb{0}}) {
      copy.assign(table.begin(), table.begin() + static_cast<std::ptrdiff_t>(w));
      ct::conditionalCopy(copy.data(), table.data() + w, w, mask);
      EXPECT_TRUE(std::equal(copy.begin(), copy.end(), table.begin() + (mask ? static_cast<std::ptrdiff_t>(w) : 0)));
    }
  }
}

}  // namespace
}  // namespace tessel::test

#endif
