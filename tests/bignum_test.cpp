// BigNum, division, inverses, reducers and exponentiation: edge cases that need the digits
// (tests/data/bignum_edges.json), results computed with Python integers on hand-picked and
// random operands (bignum_vectors.json), and division, gcd and inverses checked against
// OpenSSL's BN functions over thousands of random operands of 1 to 130 digits.
#include <algorithm>
#include <functional>
#include <map>

#include "bignum_support.h"
#include "tessel/reducer.h"
#include "test_rng.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromDigits;
using test::hexNum;
using test::toHex;
using Digits = std::vector<BigNum::Digit>;

const nlohmann::json& edges(const char* table) {
  static const nlohmann::json all = test::dataFile("bignum_edges.json");
  return all.at(table);
}

TEST(BigNumBits, SetBitDoesNotClamp) {
  BigNum x(0u);
  x.setBit(70, true);
  EXPECT_EQ(x.size(), 3u);
  EXPECT_TRUE(x.getBit(70) && !x.getBit(69) && !x.getBit(1000));
  x.setBit(70, false);  // clearing the top bit does not clamp either
  EXPECT_EQ(x.size(), 3u);
  x.clamp();
  EXPECT_TRUE(x.isZero());
}

TEST(BigNumBits, ModBy2PowAndDigitOperations) {
  for (const auto& c : edges("modBy2Pow")) {
    BigNum x = fromDigits(c[0]);
    x.modBy2Pow(c[1]);
    EXPECT_EQ(x.digits(), c[2].get<Digits>()) << c;
  }
  for (const auto& c : edges("digitOps")) {
    BigNum x = fromDigits(c[1]);
    const std::string op = c[0];
    const Digits arg = c[2];
    if (op == "shiftRightByDigits") x.shiftRightByDigits(arg[0]);
    if (op == "shiftLeftByDigits") x.shiftLeftByDigits(arg[0]);
    if (op == "addSelf") x += x;
    if (op == "addWord") x += arg[0];
    if (op == "subtract") x -= BigNum(arg[0]);
    if (op == "addToDigit") x.addToDigit(arg[0], arg[1]);
    EXPECT_EQ(x.digits(), c[3].get<Digits>()) << c;
  }
}

TEST(BigNumArithDeathTest, SubtractingALongerNumberAborts) {
  EXPECT_DEATH(
      {
        BigNum x(5u);
        x -= bn2(1, 1);
      },
      "assertion \"size\\(\\) >= x.size\\(\\)\" failed: file \"bignum.cpp\", line 252, "
      "function: operator-=");
}

TEST(BigNumGcd, SignedAddAndBegcdEdges) {
  for (const auto& c : edges("signedAdd")) {
    SignedBigNum s{BigNum(c[0].get<unsigned>()), c[1]};
    s.add(BigNum(c[2].get<unsigned>()), c[3]);
    EXPECT_EQ(s.mag, BigNum(c[4].get<unsigned>())) << c;
    EXPECT_EQ(s.negative, c[5].get<bool>()) << c;
  }
  for (auto [a, b] : {std::pair{0u, 12u}, {12u, 0u}}) {  // a zero operand zeroes every output
    SignedBigNum x{BigNum(9u), true}, y = x;
    BigNum g(9u);
    begcd(&x, &y, &g, BigNum(a), BigNum(b));
    EXPECT_TRUE(x.mag.isZero() && !x.negative && y.mag.isZero() && !y.negative && g.isZero()) << a;
  }
  BigNum g;
  begcd(nullptr, nullptr, nullptr, BigNum(12u), BigNum(18u));  // null outputs are allowed
  begcd(nullptr, nullptr, &g, BigNum(12u), BigNum(18u));
  EXPECT_EQ(g, BigNum(6u));
}

TEST(Reducer, StrictComparisonsKeepTheModulus) {
  const BigNum n(15u);  // the reducer keeps a reference to its modulus
  const Reducer red(n);
  for (const auto& c : edges("reducer15")) {
    const std::string op = c[0];
    BigNum got(c[1].get<unsigned>());
    if (op == "mul") {
      red.mul(got, c[2].get<unsigned>());
    } else {
      RedNum a = red.fromBigNum(got);
      const RedNum b = red.fromBigNum(BigNum(c[2].get<unsigned>()));
      got = (op == "add" ? a += b : a -= b).value;
    }
    EXPECT_EQ(got, BigNum(c[3].get<unsigned>())) << c;
  }
  EXPECT_EQ(red.toBigNum(red.fromBigNum(BigNum(11u))), BigNum(11u));
}

TEST(Reducer, MontgomerySmallModulus) {
  const BigNum n(7u);
  const MontgomeryReducer red(n);
  EXPECT_EQ(static_cast<BigNum::Digit>(7u * red.nPrime()), 0xffffffffu);  // n·n' ≡ −1
  EXPECT_EQ(red.one(), BigNum(4u));                                       // 2^32 mod 7
  for (unsigned x : {0u, 1u, 2u, 6u, 7u, 8u, 100u, 0xffffffffu})
    EXPECT_EQ(red.toBigNum(red.fromBigNum(BigNum(x))), BigNum(x % 7)) << x;
  RedNum a = red.fromBigNum(BigNum(3u)), b = red.fromBigNum(BigNum(5u)), r;
  mul(r, a, b);
  EXPECT_EQ(red.toBigNum(std::move(r)), BigNum(1u));
  mul_redbn(r, a, b.value);
  EXPECT_EQ(r.reducer, &red);
  EXPECT_EQ(red.toBigNum(std::move(r)), BigNum(1u));
  EXPECT_EQ(red.toBigNum(inv(red.fromBigNum(BigNum(3u)))), BigNum(5u));
}

TEST(Reducer, Mod25519Folding) {
  const Mod25519Reducer red;
  EXPECT_EQ(red.mod().str(), "7fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffed");
  for (const auto& c : edges("mod25519Fold")) {
    BigNum x = hexNum(c[0].get<std::string>());
    red.reduce(x);
    EXPECT_EQ(x, hexNum(c[1].get<std::string>())) << c;
  }
}

// CountingReducer counts the full multiplications an exponentiation asks for.
class CountingReducer : public MontgomeryReducer {
 public:
  using MontgomeryReducer::MontgomeryReducer;
  using MontgomeryReducer::mul;
  void mul(BigNum& r, const BigNum& a, const BigNum& b) const override {
    ++muls;
    MontgomeryReducer::mul(r, a, b);
  }
  mutable unsigned muls = 0;
};

TEST(Reducer, ExpByModWindowThresholds) {
  const BigNum n = (BigNum(1u) << 127) - BigNum(1u);
  const CountingReducer red(n);
  const RedNum base = red.fromBigNum(BigNum(3u));
  for (const auto& c : edges("windowThresholds")) {
    const unsigned bits = c[0];
    red.muls = 0;
    const BigNum got = red.toBigNum(expByMod(base, BigNum(1u) << (bits - 1), red));
    EXPECT_EQ(red.muls, c[1].get<unsigned>()) << bits;
    BigNum want(3u), sq;  // the same power by b − 1 plain squarings and divisions
    for (unsigned i = 0; i + 1 < bits; ++i) {
      sqr(sq, want);
      div(sq, n, nullptr, &want);
    }
    EXPECT_EQ(got, want) << bits;
  }
}

TEST(Reducer, RandomBigNum) {
  BigNum out;
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(randomBigNum(&out, BigNum(1u), getDefaultRng()));
    EXPECT_EQ(out, BigNum(1u));
  }
  const BigNum max = bn2(5, 1);  // 33 bits: the top byte is masked to one bit
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(randomBigNum(&out, max, getDefaultRng()));
    EXPECT_TRUE(!out.isZero() && out <= max);
  }
  // A failing source fails at once; one that only gives zeros is given up after 100 draws.
  auto failing = test::ScriptedRng::filled(0, 0), zeros = test::ScriptedRng::filled(0);
  EXPECT_FALSE(randomBigNum(&out, max, failing));
  EXPECT_EQ(failing.calls, 1);
  EXPECT_FALSE(randomBigNum(&out, max, zeros));
  EXPECT_EQ(zeros.calls, 100);
}

// ---- results computed once with Python integers (tests/data/gen_bignum_vectors.py) ----

// bezout returns gcd(a, b) from begcd when its coefficients satisfy a·x + b·y = gcd.
std::string bezout(const BigNum& a, const BigNum& b) {
  SignedBigNum x, y, sum;
  BigNum g;
  begcd(&x, &y, &g, a, b);
  sum.add(a * x.mag, x.negative);
  sum.add(b * y.mag, y.negative);
  return sum.mag == g && (!sum.negative || g.isZero()) ? g.str() : "not a Bezout pair";
}

// montgomery returns a mod m through a MontgomeryReducer (op 0), or the product a·b (1) or the
// square b² (2) there, which must come out fully reduced.
std::string montgomery(const BigNum& m, const BigNum& a, const BigNum& b, int op) {
  const MontgomeryReducer red(m);
  RedNum r = red.fromBigNum(a);
  if (op == 1) mul(r, red.fromBigNum(a), red.fromBigNum(b));
  if (op == 2) sqr(r, red.fromBigNum(b));
  return r.value < m ? red.toBigNum(std::move(r)).str() : "not reduced";
}

// Each case gives its operands (a, b, m, e, k, w, len) and some of the results below by name;
// every result a case gives is computed here and compared. "bytes" cases build numbers from bytes.
TEST(BigNumVectors, PythonIntegers) {
  const auto vectors = test::dataFile("bignum_vectors.json");
  const Mod25519Reducer p25519;
  test::forEachBignumPath([&] {
    int checked = 0;
    for (const auto& c : vectors) {
      SCOPED_TRACE(c.dump().substr(0, 100));
      if (c["op"] == "bytes") {
        const Bytes bytes = test::fromHex(c["a"].get<std::string>());
        const asn1::blob view(bytes);
        EXPECT_EQ((c["littleEndian"].get<bool>() ? BigNum(view, little_endian{}) : BigNum(view)).digits(),
                  c["digits"].get<Digits>());
        continue;
      }
      auto num = [&](const char* name) { return hexNum(c.value(name, std::string("0"))); };
      const BigNum a = num("a"), b = num("b"), m = num("m"), e = num("e");
      const unsigned k = c.value("k", 0u), len = c.value("len", 0u), w = c.value("w", 0u);
      BigNum x, y;
      // mod25519 is the Mod25519Reducer's result x, which must stay below 2^256, reduced mod p.
      auto mod25519 = [&] {
        div(x, p25519.mod(), nullptr, &y);
        return x < p25519.mod() + BigNum(38u) ? y.str() : "over 2^256";
      };
      // Each computes its result (into x and y where the call writes arguments) and returns it.
      const std::map<std::string, std::function<nlohmann::json()>> ours = {
          {"a", [&] { return a.str(); }},
          {"product", [&] { return mul(x, a, b), x.str(); }},
          {"square", [&] { return sqr(x, a), x.str(); }},
          {"q", [&] { return div(a, b, &x, &y), div(a, b, &y, nullptr), x == y ? x.str() : "?"; }},
          {"r", [&] { return div(a, b, &y, &x), div(a, b, nullptr, &y), x == y ? x.str() : "?"; }},
          {"gcd", [&] { return gcd(a, b).str(); }},
          {"lcm", [&] { return lcm(a, b).str(); }},
          {"inverse", [&] { return invByMod(a, m).str(); }},
          {"power", [&] { return expByMod(a, e, m).str(); }},
          {"dec", [&] { return a.strDec(); }},
          {"digits", [&] { return a.strDigits(); }},
          {"bits", [&] { return a.bits(); }},
          {"lsb", [&] { return lsb(a); }},
          {"big", [&] { return toHex(a.bin(len)); }},
          {"little", [&] { return toHex(a.bin(little_endian{})); }},
          {"shl", [&] { return (a << k).str(); }},
          {"shr", [&] { return (a >> k).str(); }},
          {"sum", [&] { return ((x = a) += b).str(); }},
          {"diff", [&] { return ((x = a) -= b).str(); }},  // a borrow through every digit is clamped away
          {"byWord", [&] { return ((x = a) *= w).str(); }},
          {"less", [&] { return a < b; }},
          {"bezout", [&] { return bezout(a, b); }},
          {"montIn", [&] { return montgomery(m, a, b, 0); }},
          {"montProduct", [&] { return montgomery(m, a, b, 1); }},
          {"montSquare", [&] { return montgomery(m, a, b, 2); }},
          {"p25519Product", [&] { return p25519.mul(x, a, b), mod25519(); }},
          {"p25519Square", [&] { return p25519.sqr(x, b), mod25519(); }},
          {"p25519Word", [&] { return p25519.mul(x = a, w), mod25519(); }},
      };
      for (const auto& [name, want] : c.items()) {
        if (!ours.count(name)) continue;
        EXPECT_EQ(ours.at(name)(), want) << name;
        ++checked;
      }
    }
    EXPECT_GT(checked, 3500);
  });
}

// ---- properties against OpenSSL's BN functions ----
#if TESSEL_HAVE_OPENSSL

using test::ossl;

BigNum anyNum(test::TestRng& rng, unsigned maxDigits = 130) {
  return test::randomNum(rng, test::randomSize(rng, maxDigits));
}

// Random pairs plus the shapes Knuth D has to get right: divisors with the top bit set or clear,
// one-digit divisors, and dividends built as q·v + r so the digit estimate, the correction and
// the add-back run (their hand-picked extremes are in the vectors). On a quarter of them (the
// binary gcd is quadratic in bits) gcd, lcm, the Bézout coefficients and the inverse; half of the
// divisors odd, as RSA and the curves use.
TEST(BigNumOracle, DivisionGcdBezoutInverse) {
  test::TestRng rng(42);
  auto quotient = [](BIGNUM* q, const BIGNUM* x, const BIGNUM* y, BN_CTX* c) { return BN_div(q, nullptr, x, y, c); };
  int inverted = 0;
  for (int i = 0; i < test::rounds(3000); ++i) {
    BigNum b = anyNum(rng), a = anyNum(rng), r = test::randomNum(rng, b.size());
    if (i % 8 > 3) b.digits()[0] |= 1;
    if (i % 3 == 1) a = anyNum(rng, 70) * b + (r < b ? r : b - BigNum(1u));
    if (i % 3 == 2) a = b * test::randomNum(rng, 1 + static_cast<unsigned>(rng.below(3))) + anyNum(rng, b.size());
    SCOPED_TRACE(a.str() + " / " + b.str());
    BigNum q, g;
    div(a, b, &q, &r);
    ASSERT_EQ(q, ossl(quotient, a, b));
    ASSERT_EQ(r, ossl(BN_nnmod, a, b));
    if (i % 4 || b == BigNum(1u)) continue;
    ASSERT_EQ(gcd(a, b), ossl(BN_gcd, a, b));
    SignedBigNum x, y, sum;
    begcd(&x, &y, &g, a, b);
    ASSERT_EQ(g, ossl(BN_gcd, a, b));
    ASSERT_EQ(lcm(a, b), ossl(quotient, ossl(BN_mul, a, b), g));
    sum.add(a * x.mag, x.negative);
    sum.add(b * y.mag, y.negative);
    ASSERT_EQ(sum.mag, g);
    ASSERT_TRUE(!sum.negative || sum.mag.isZero());
    if (!(g == BigNum(1u))) continue;
    ++inverted;
    ASSERT_EQ(invByMod(a, b), ossl(BN_mod_inverse, a, b));
  }
  EXPECT_GT(inverted, test::rounds(100));
}

#endif  // TESSEL_HAVE_OPENSSL

}  // namespace
}  // namespace tessel
