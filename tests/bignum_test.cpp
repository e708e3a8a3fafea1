// BigNum, division, inverses, reducers and exponentiation: edge-case tables, and properties
// checked against OpenSSL's BN functions over random operands of 1 to 130 digits.
#include <algorithm>
#include <cctype>
#include <fstream>
#include <map>

#include "bignum_support.h"
#include "tessel/reducer.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromDigits;
using test::fromHex;
using test::hexNum;
using test::toHex;

BigNum fromBytes(const char* hex) { return BigNum(asn1::blob(fromHex(hex))); }

// ---- conversions and bits ----

TEST(BigNumConvert, FromBytes) {
  struct Case {
    const char* bytes;
    std::vector<BigNum::Digit> digits;
  };
  const Case cases[] = {
      {"", {0}},
      {"000001", {1}},
      {"00000000", {0}},
      {"0102030405", {0x02030405, 0x01}},
      {"ffffffff", {0xffffffff}},
      {"0000000100000000", {0, 1}},
      {"112233445566778899", {0x66778899, 0x22334455, 0x11}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    EXPECT_EQ(fromBytes(c.bytes).digits(), c.digits);
  }
}

TEST(BigNumConvert, FromBytesLittleEndian) {
  struct Case {
    const char* bytes;
    std::vector<BigNum::Digit> digits;
  };
  const Case cases[] = {
      {"", {0}},
      {"0001", {0x100}},
      {"0100000000", {1}},
      {"0504030201", {0x02030405, 0x01}},
      {"0000000001", {0, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    EXPECT_EQ(BigNum(asn1::blob(fromHex(c.bytes)), little_endian{}).digits(), c.digits);
  }
}

TEST(BigNumConvert, BinPadsButNeverTruncates) {
  struct Case {
    BigNum value;
    unsigned len;
    const char* hex;
  };
  const Case cases[] = {
      {BigNum(0x1234u), 4, "00001234"}, {BigNum(0x1234u), 1, "1234"}, {BigNum(0x1234u), 0, "1234"},
      {BigNum(0u), 0, ""},              {BigNum(0u), 3, "000000"},   {bn2(0, 1), 0, "0100000000"},
      {bn2(0, 1), 8, "0000000100000000"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hex);
    EXPECT_EQ(toHex(c.value.bin(c.len)), c.hex);
  }
  EXPECT_EQ(toHex(BigNum(256u).bin(little_endian{})), "0001");
  EXPECT_EQ(toHex(BigNum(0u).bin(little_endian{})), "");
  EXPECT_EQ(toHex(bn2(0x04030201, 0x05).bin(little_endian{})), "0102030405");
}

TEST(BigNumConvert, TextForms) {
  struct Case {
    BigNum value;
    const char* hex;
    const char* dec;
    const char* digits;
  };
  const Case cases[] = {
      {BigNum(0u), "0", "0", "00000000"},
      {bn2(0, 1), "100000000", "4294967296", "00000001.00000000"},
      {BigNum(1000000000u), "3b9aca00", "1000000000", "3b9aca00"},
      {BigNum(999999999u), "3b9ac9ff", "999999999", "3b9ac9ff"},
      {bn64(1000000000000000000ull), "de0b6b3a7640000", "1000000000000000000", "0de0b6b3.a7640000"},
      {bn3(5, 0, 0xab), "ab0000000000000005", "3154393236604333326341", "000000ab.00000000.00000005"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hex);
    EXPECT_EQ(c.value.str(), c.hex);
    EXPECT_EQ(c.value.strDec(), c.dec);
    EXPECT_EQ(c.value.strDigits(), c.digits);
  }
  BigNum none(5u);
  none.modBy2Pow(0);
  EXPECT_EQ(none.str(), "");
}

TEST(BigNumBits, BitsLsbAndSetBit) {
  struct Case {
    BigNum value;
    unsigned bits, lsb;
  };
  const Case cases[] = {{BigNum(0u), 0, 0},           {BigNum(1u), 1, 0},   {bn2(0, 1), 33, 32},
                        {BigNum(1u) << 40, 41, 40},   {bn2(0xffffffff, 0xffffffff), 64, 0},
                        {bn2(0x80000000, 0), 32, 31}, {BigNum(6u), 3, 1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value.str());
    EXPECT_EQ(c.value.bits(), c.bits);
    EXPECT_EQ(lsb(c.value), c.lsb);
  }
  BigNum x(0u);
  x.setBit(70, true);
  EXPECT_EQ(x.size(), 3u);
  EXPECT_TRUE(x.getBit(70));
  EXPECT_FALSE(x.getBit(69));
  EXPECT_FALSE(x.getBit(1000));
  // Clearing the top bit does not clamp.
  x.setBit(70, false);
  EXPECT_EQ(x.size(), 3u);
  x.clamp();
  EXPECT_TRUE(x.isZero());
}

TEST(BigNumBits, ModBy2Pow) {
  struct Case {
    BigNum value;
    unsigned k;
    std::vector<BigNum::Digit> digits;
  };
  const Case cases[] = {
      {bn2(0xffffffff, 0xffffffff), 0, {}},                           // deliberately no digit left
      {bn2(0xffffffff, 0xffffffff), 1, {1}},
      {bn2(0xffffffff, 0xffffffff), 32, {0xffffffff}},
      {bn2(0xffffffff, 0xffffffff), 33, {0xffffffff, 1}},
      {bn2(0xffffffff, 0xffffffff), 64, {0xffffffff, 0xffffffff}},  // k at the capacity: no-op
      {bn2(0xffffffff, 0xffffffff), 500, {0xffffffff, 0xffffffff}},
      {bn2(0, 1), 32, {0}},                                          // clamped after the cut
      {bn3(7, 0, 1), 40, {7}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.k);
    BigNum x = c.value;
    x.modBy2Pow(c.k);
    EXPECT_EQ(x.digits(), c.digits);
  }
}

TEST(BigNumShift, EdgeCases) {
  EXPECT_EQ((BigNum(1u) << 64).digits(), (std::vector<BigNum::Digit>{0, 0, 1}));
  EXPECT_EQ((BigNum(1u) << 31).digits(), (std::vector<BigNum::Digit>{0x80000000}));
  EXPECT_EQ((BigNum(3u) << 63).digits(), (std::vector<BigNum::Digit>{0, 0x80000000, 1}));
  EXPECT_EQ((bn3(0, 0, 1) >> 64).digits(), (std::vector<BigNum::Digit>{1}));
  EXPECT_EQ((bn3(0, 0, 1) >> 65).digits(), (std::vector<BigNum::Digit>{0}));
  EXPECT_EQ((bn2(0x80000000, 1) >> 31).digits(), (std::vector<BigNum::Digit>{3}));
  BigNum x = bn2(5, 6);
  x.shiftRightByDigits(2);
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{0}));
  x = bn2(5, 6);
  x.shiftLeftByDigits(1);
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{0, 5, 6}));
}

TEST(BigNumArith, AddSubEdgeCases) {
  BigNum x = bn2(0xffffffff, 0xffffffff);
  x += x;  // the receiver added to itself doubles
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{0xfffffffe, 0xffffffff, 1}));
  x = bn2(0xffffffff, 0xffffffff);
  x += 1u;
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{0, 0, 1}));
  x = BigNum(1u);
  x += bn3(0xffffffff, 0xffffffff, 0xffffffff);
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{0, 0, 0, 1}));
  x = bn3(0, 0, 1);
  x -= BigNum(1u);  // the borrow runs through every digit, then the top is clamped away
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{0xffffffff, 0xffffffff}));
  x = bn2(5, 1);
  x -= bn2(5, 1);
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{0}));
  // Only digit counts are checked: a larger value of the same length wraps silently.
  x = BigNum(1u);
  x -= BigNum(2u);
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{0xffffffff}));
  x = BigNum(7u);
  x.addToDigit(3, 0);  // a zero beyond the top adds nothing
  EXPECT_EQ(x.size(), 1u);
  x.addToDigit(3, 9);
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{7, 9}));
  x = bn2(0, 0xffffffff);
  x.addToDigit(1, 1);
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{0, 0, 1}));
}

TEST(BigNumArithDeathTest, SubtractingALongerNumberAborts) {
  EXPECT_DEATH(
      {
        BigNum x(5u);
        x -= bn2(1, 1);
      },
      "assertion \"size\\(\\) >= x.size\\(\\)\" failed: file \"bignum.cpp\", line [0-9]+, "
      "function: operator-=");
}

TEST(BigNumArith, Mul256MatchesSchoolbook) {
  test::TestRng rng(256);
  for (int i = 0; i < 500; ++i) {
    const BigNum a = test::randomNum(rng, 8), b = test::randomNum(rng, i % 5 == 0 ? 7 : 8);
    BigNum fast, slow, fastSq, slowSq;
    mul256(fast, a, b);
    mul(slow, a, b);
    sqr256(fastSq, a);
    sqr(slowSq, a);
    ASSERT_EQ(fastSq.size(), 16u);  // all sixteen digits are kept for the reduction
    fastSq.clamp();
    if (b.size() == 8) {
      ASSERT_EQ(fast.size(), 16u);
      fast.clamp();
    }
    ASSERT_EQ(fast, slow) << a.str() << " * " << b.str();
    ASSERT_EQ(fastSq, slowSq) << a.str();
  }
}

// ---- division, gcd, inverses ----

TEST(BigNumDiv, EdgeCases) {
  struct Case {
    BigNum a, b, q, r;
  };
  const Case cases[] = {
      {BigNum(5u), BigNum(7u), BigNum(0u), BigNum(5u)},
      {BigNum(0u), BigNum(7u), BigNum(0u), BigNum(0u)},
      {bn3(1, 2, 3), bn3(1, 2, 3), BigNum(1u), BigNum(0u)},
      {BigNum(100u), BigNum(1u), BigNum(100u), BigNum(0u)},
      // 1-digit divisor: v[n−2] reads as 0 in the correction test.
      {bn3(0, 0, 1), BigNum(3u), bn2(0x55555555, 0x55555555), BigNum(1u)},
      // Divisor with the top bit already set: no normalising shift.
      {bn3(0, 0, 1), bn2(0, 0x80000000), BigNum(2u), BigNum(0u)},
      // Top quotient digit from the repeated subtraction.
      {bn2(7, 0xffffffff), BigNum(0x80000000u), bn2(0xfffffffe, 1), BigNum(7u)},
      // u[j] = v[n−1]: the digit estimate is 2^32 − 1.
      {fromDigits({0, 0xfffffffe, 0, 0x80000000}), bn2(0xffffffff, 0x80000000), bn2(7, 0xfffffffe),
       bn2(7, 0x7ffffff5)},
      // The estimate is one too large after the correction: the add-back step.
      {fromDigits({0, 0, 0x80000000, 0x7fffffff}), bn3(1, 0, 0x80000000), BigNum(0xfffffffeu),
       bn3(2, 0xffffffff, 0x7fffffff)},
      // The correction loop lowers the estimate twice.
      {bn3(0x80000001, 1, 0x7fffffff), bn2(0xfffffffe, 0x80000000), BigNum(0xfffffffcu),
       bn2(0x7ffffff9, 7)},
      {fromDigits({2, 0x7fffffff, 0, 0x7fffffff}), bn3(0x80000000, 0xfffffffe, 0x80000000),
       BigNum(0xfffffffcu), bn3(2, 0xfffffff9, 5)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.a.str() + " / " + c.b.str());
    BigNum q, r;
    div(c.a, c.b, &q, &r);
    EXPECT_EQ(q, c.q);
    EXPECT_EQ(r, c.r);
    BigNum onlyQ, onlyR;
    div(c.a, c.b, &onlyQ, nullptr);
    div(c.a, c.b, nullptr, &onlyR);
    EXPECT_EQ(onlyQ, c.q);
    EXPECT_EQ(onlyR, c.r);
  }
}

TEST(BigNumGcd, EdgeCases) {
  struct Case {
    BigNum a, b, gcd;
  };
  const Case cases[] = {{BigNum(0u), BigNum(9u), BigNum(9u)},     {BigNum(9u), BigNum(0u), BigNum(9u)},
                        {BigNum(12u), BigNum(18u), BigNum(6u)},   {BigNum(17u), BigNum(5u), BigNum(1u)},
                        {BigNum(1u) << 40, BigNum(1u) << 33, BigNum(1u) << 33},
                        {BigNum(7u), BigNum(7u), BigNum(7u)}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.a.str() + ", " + c.b.str());
    EXPECT_EQ(gcd(c.a, c.b), c.gcd);
  }
  EXPECT_EQ(lcm(BigNum(4u), BigNum(6u)), BigNum(12u));
  EXPECT_EQ(lcm(BigNum(6u), BigNum(4u)), BigNum(12u));
  EXPECT_EQ(lcm(BigNum(1u) << 40, BigNum(3u)), BigNum(3u) << 40);
}

TEST(BigNumGcd, SignedAdd) {
  struct Case {
    BigNum mag;
    bool negative;
    BigNum x;
    bool xNegative;
    BigNum resultMag;
    bool resultNegative;
  };
  const Case cases[] = {
      {BigNum(5u), true, BigNum(5u), false, BigNum(0u), true},  // a zero keeps the old sign
      {BigNum(5u), false, BigNum(5u), true, BigNum(0u), false},
      {BigNum(3u), false, BigNum(5u), true, BigNum(2u), true},
      {BigNum(3u), true, BigNum(5u), false, BigNum(2u), false},
      {BigNum(3u), true, BigNum(5u), true, BigNum(8u), true},
      {BigNum(9u), true, BigNum(5u), false, BigNum(4u), true},
  };
  for (const Case& c : cases) {
    SignedBigNum s{c.mag, c.negative};
    s.add(c.x, c.xNegative);
    EXPECT_EQ(s.mag, c.resultMag);
    EXPECT_EQ(s.negative, c.resultNegative);
  }
}

TEST(BigNumGcd, BegcdEdgeCases) {
  SignedBigNum x{BigNum(9u), true}, y{BigNum(9u), true};
  BigNum g(9u);
  begcd(&x, &y, &g, BigNum(0u), BigNum(12u));  // zero operand: everything zero, g too
  EXPECT_TRUE(x.mag.isZero() && !x.negative && y.mag.isZero() && !y.negative && g.isZero());
  x = y = SignedBigNum{BigNum(9u), true};
  g = BigNum(9u);
  begcd(&x, &y, &g, BigNum(12u), BigNum(0u));
  EXPECT_TRUE(x.mag.isZero() && y.mag.isZero() && g.isZero());
  begcd(nullptr, nullptr, nullptr, BigNum(12u), BigNum(18u));  // null outputs are allowed
  begcd(nullptr, nullptr, &g, BigNum(12u), BigNum(18u));
  EXPECT_EQ(g, BigNum(6u));
  begcd(&x, &y, &g, BigNum(240u), BigNum(46u));
  EXPECT_EQ(g, BigNum(2u));
  // 240·x + 46·y = 2 with the signs the outputs carry.
  SignedBigNum sum{BigNum(0u), false};
  sum.add(BigNum(240u) * x.mag, x.negative);
  sum.add(BigNum(46u) * y.mag, y.negative);
  EXPECT_EQ(sum.mag, BigNum(2u));
  EXPECT_FALSE(sum.negative);
}

TEST(BigNumInv, EdgeCases) {
  EXPECT_EQ(invByMod(BigNum(3u), BigNum(7u)), BigNum(5u));
  EXPECT_EQ(invByMod(BigNum(7u), BigNum(7u)), BigNum(0u));
  EXPECT_EQ(invByMod(BigNum(0u), BigNum(7u)), BigNum(0u));
  EXPECT_EQ(invByMod(BigNum(10u), BigNum(7u)), invByMod(BigNum(3u), BigNum(7u)));
  EXPECT_EQ(invByMod(BigNum(1u), BigNum(2u)), BigNum(1u));
  EXPECT_EQ(invByMod(BigNum(2u), BigNum(9u)), BigNum(5u));
}

// ---- reducers ----

TEST(Reducer, StrictComparisonsKeepTheModulus) {
  const BigNum n(15u);
  const Reducer red(n);
  BigNum r(5u);
  red.mul(r, 3);  // exactly n: left as n
  EXPECT_EQ(r, n);
  r = BigNum(8u);
  red.mul(r, 2);  // n + 1
  EXPECT_EQ(r, BigNum(1u));
  r = BigNum(14u);
  red.mul(r, 5);  // 70 = 4·15 + 10: subtracted until not above n
  EXPECT_EQ(r, BigNum(10u));

  RedNum a = red.fromBigNum(BigNum(9u)), b = red.fromBigNum(BigNum(6u));
  a += b;
  EXPECT_EQ(a.value, n);  // a sum equal to n stays n
  a = red.fromBigNum(BigNum(9u));
  b = red.fromBigNum(BigNum(7u));
  a += b;
  EXPECT_EQ(a.value, BigNum(1u));
  a = red.fromBigNum(BigNum(4u));
  a -= b;  // 4 − 7 wraps to 4 − 7 + 15
  EXPECT_EQ(a.value, BigNum(12u));
  a = red.fromBigNum(BigNum(7u));
  a -= b;
  EXPECT_EQ(a.value, BigNum(0u));
  EXPECT_EQ(red.toBigNum(red.fromBigNum(BigNum(11u))), BigNum(11u));
}

TEST(Reducer, StaticResidues) {
  EXPECT_EQ(RedNum::mod1, BigNum(1u));
  EXPECT_EQ(&RedNum::emptyReducer.mod(), &RedNum::mod1);
  const RedNum fresh;
  EXPECT_EQ(fresh.reducer, &RedNum::emptyReducer);
  EXPECT_TRUE(fresh.isZero());
}

TEST(Reducer, MontgomerySmallModulus) {
  const BigNum n(7u);
  const MontgomeryReducer red(n);
  EXPECT_EQ(static_cast<BigNum::Digit>(7u * red.nPrime()), 0xffffffffu);  // n·n' ≡ −1
  EXPECT_EQ(red.one(), BigNum(4u));                                        // 2^32 mod 7
  for (unsigned x : {0u, 1u, 2u, 6u, 7u, 8u, 100u, 0xffffffffu}) {
    SCOPED_TRACE(x);
    EXPECT_EQ(red.toBigNum(red.fromBigNum(BigNum(x))), BigNum(x % 7));
  }
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
  const BigNum& p = red.mod();
  EXPECT_EQ(p.str(), "7fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffed");
  struct Case {
    BigNum x;
    BigNum expected;
  };
  const BigNum all8 = fromDigits(std::vector<BigNum::Digit>(8, 0xffffffff));
  const Case cases[] = {
      // Eight digits: no folding round, one subtraction, and the result stays above p.
      {all8, p + BigNum(37u)},
      {p, p},
      {p + BigNum(1u), BigNum(1u)},
      {BigNum(5u), BigNum(5u)},
      // 2^256 folds to 38.
      {BigNum(1u) << 256, BigNum(38u)},
      // A full 16-digit value folds first: (2^512 − 1) ≡ 38·(2^256 − 1) + (2^256 − 1).
      {fromDigits(std::vector<BigNum::Digit>(16, 0xffffffff)), BigNum(1443u)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.x.str());
    BigNum x = c.x;
    red.reduce(x);
    EXPECT_EQ(x, c.expected);
  }
}

TEST(Reducer, ExpByModSmallCases) {
  EXPECT_EQ(expByMod(BigNum(5u), BigNum(0u), BigNum(7u)), BigNum(1u));
  EXPECT_EQ(expByMod(BigNum(5u), BigNum(0u), BigNum(1u)), BigNum(0u));
  EXPECT_EQ(expByMod(BigNum(0u), BigNum(5u), BigNum(7u)), BigNum(0u));
  EXPECT_EQ(expByMod(BigNum(3u), BigNum(6u), BigNum(7u)), BigNum(1u));
  EXPECT_EQ(expByMod(BigNum(10u), BigNum(1u), BigNum(7u)), BigNum(3u));
  EXPECT_EQ(expByMod(BigNum(2u), BigNum(100u), BigNum(101u)), BigNum(1u));
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
  // For e = 2^(b−1) the only multiplications are the table's 2^(w−1) − 1 and the single
  // window, so their count shows the window width w chosen for a b-bit exponent.
  struct Case {
    unsigned bits, muls;
  };
  const Case cases[] = {{1, 1},    {23, 1},   {24, 4},   {79, 4},   {80, 8},
                        {239, 8},  {240, 16}, {671, 16}, {672, 32}, {2048, 32}};
  const BigNum n = (BigNum(1u) << 127) - BigNum(1u);
  const CountingReducer red(n);
  const RedNum base = red.fromBigNum(BigNum(3u));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bits);
    const BigNum e = BigNum(1u) << (c.bits - 1);
    red.muls = 0;
    const BigNum got = red.toBigNum(expByMod(base, e, red));
    EXPECT_EQ(red.muls, c.muls);
    // The same power by b − 1 plain squarings and divisions.
    BigNum want(3u), sq;
    for (unsigned i = 0; i + 1 < c.bits; ++i) {
      sqr(sq, want);
      div(sq, n, nullptr, &want);
    }
    EXPECT_EQ(got, want);
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
  struct FailingRng : Rng {
    int calls = 0;
    bool generate(unsigned char*, unsigned) override { return ++calls, false; }
    bool generateInsecure(unsigned char*, unsigned) override { return false; }
  } failing;
  EXPECT_FALSE(randomBigNum(&out, max, failing));
  EXPECT_EQ(failing.calls, 1);
  struct ZeroRng : Rng {
    int calls = 0;
    bool generate(unsigned char* b, unsigned n) override { return ++calls, std::fill(b, b + n, 0), true; }
    bool generateInsecure(unsigned char*, unsigned) override { return false; }
  } zeros;
  EXPECT_FALSE(randomBigNum(&out, max, zeros));  // every draw is 0, rejected 100 times
  EXPECT_EQ(zeros.calls, 100);
}

// ---- results computed once with Python integers (tests/data/gen_bignum_vectors.py) ----

TEST(BigNumVectors, PythonIntegers) {
  std::ifstream in(std::string(TESSEL_SOURCE_DIR) + "/tests/data/bignum_vectors.json");
  ASSERT_TRUE(in) << "tests/data/bignum_vectors.json is missing";
  const nlohmann::json cases = nlohmann::json::parse(in);
  std::map<std::string, int> seen;
  for (const auto& c : cases) {
    const std::string op = c["op"];
    ++seen[op];
    auto num = [&](const char* name) { return hexNum(c[name].get<std::string>()); };
    const BigNum a = num("a");
    SCOPED_TRACE(op + " " + c["a"].get<std::string>().substr(0, 16));
    BigNum r, q;
    if (op == "mul") {
      mul(r, a, num("b"));
      EXPECT_EQ(r, num("product"));
      sqr(r, a);
      EXPECT_EQ(r, num("square"));
    } else if (op == "div") {
      div(a, num("b"), &q, &r);
      EXPECT_EQ(q, num("q"));
      EXPECT_EQ(r, num("r"));
    } else if (op == "gcd") {
      EXPECT_EQ(gcd(a, num("b")), num("gcd"));
      EXPECT_EQ(lcm(a, num("b")), num("lcm"));
    } else if (op == "inv") {
      EXPECT_EQ(invByMod(a, num("m")), num("inverse"));
    } else if (op == "exp") {
      EXPECT_EQ(expByMod(a, num("e"), num("m")), num("power"));
    } else if (op == "dec") {
      EXPECT_EQ(a.strDec(), c["dec"].get<std::string>());
      EXPECT_EQ(a.str(), c["a"].get<std::string>());
    } else {
      ADD_FAILURE() << "unknown op " << op;
    }
  }
  for (const char* op : {"mul", "div", "gcd", "inv", "exp", "dec"}) EXPECT_GE(seen[op], 30) << op;
}

// ---- properties against OpenSSL's BN functions ----
#if TESSEL_HAVE_OPENSSL

using test::Bn;
using test::fromBn;
using test::newBn;
using test::toBn;

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string bnHex(const BIGNUM* x) {
  char* h = BN_bn2hex(x);
  std::string s = lower(h);
  OPENSSL_free(h);
  s.erase(0, std::min(s.find_first_not_of('0'), s.size() - 1));  // OpenSSL pads to whole bytes
  return s;
}

std::string bnDec(const BIGNUM* x) {
  char* d = BN_bn2dec(x);
  std::string s(d);
  OPENSSL_free(d);
  return s;
}

TEST(BigNumOracle, ProductsSumsShiftsAndText) {
  test::TestRng rng(41);
  test::BnCtx ctx;
  Bn want = newBn();
  for (int i = 0; i < 3000; ++i) {
    const BigNum a = test::randomNum(rng, test::randomSize(rng, 130));
    const BigNum b = test::randomNum(rng, test::randomSize(rng, 130));
    const Bn A = toBn(a), B = toBn(b);
    SCOPED_TRACE(a.str() + " , " + b.str());
    BigNum r;
    mul(r, a, b);
    BN_mul(want.get(), A.get(), B.get(), ctx);
    ASSERT_EQ(r, fromBn(want.get()));
    sqr(r, a);
    BN_sqr(want.get(), A.get(), ctx);
    ASSERT_EQ(r, fromBn(want.get()));
    BN_add(want.get(), A.get(), B.get());
    ASSERT_EQ(a + b, fromBn(want.get()));
    const BigNum& big = a < b ? b : a;
    const BigNum& small = a < b ? a : b;
    BN_sub(want.get(), toBn(big).get(), toBn(small).get());
    ASSERT_EQ(big - small, fromBn(want.get()));
    const unsigned k = static_cast<unsigned>(rng.below(200));
    BN_lshift(want.get(), A.get(), static_cast<int>(k));
    ASSERT_EQ(a << k, fromBn(want.get()));
    BN_rshift(want.get(), A.get(), static_cast<int>(k));
    ASSERT_EQ(a >> k, fromBn(want.get()));
    BigNum byWord = a;
    const unsigned w = rng.next();
    byWord *= w;
    BN_copy(want.get(), A.get());
    BN_mul_word(want.get(), w);
    ASSERT_EQ(byWord, fromBn(want.get()));
    ASSERT_EQ(a.str(), bnHex(A.get()));
    ASSERT_EQ(a.strDec(), bnDec(A.get()));
    ASSERT_EQ(a.bits(), static_cast<unsigned>(BN_num_bits(A.get())));
    ASSERT_EQ(BigNum(asn1::blob(a.bin(70))), a);
    ASSERT_EQ(a.bin(70).size(), std::max<std::size_t>(70, static_cast<std::size_t>(BN_num_bytes(A.get()))));
    ASSERT_EQ(a < b, BN_cmp(A.get(), B.get()) < 0);
  }
}

// divisionCases yields random pairs plus the shapes Knuth D has to get right: divisors with
// the top bit set or clear, one-digit divisors, and dividends built as q·v + r with all-ones
// quotient digits so the digit estimate hits 2^32 − 1 and the correction and add-back run.
std::vector<std::pair<BigNum, BigNum>> divisionCases() {
  test::TestRng rng(42);
  std::vector<std::pair<BigNum, BigNum>> cases;
  for (int i = 0; i < 3000; ++i) {
    const BigNum b = test::randomNum(rng, test::randomSize(rng, 130));
    BigNum a;
    switch (i % 3) {
      case 0:
        a = test::randomNum(rng, test::randomSize(rng, 130));
        break;
      case 1: {
        const BigNum q = test::randomNum(rng, test::randomSize(rng, 70));
        BigNum r = test::randomNum(rng, b.size());
        if (!(r < b)) r = b - BigNum(1u);
        a = q * b + r;
        break;
      }
      default:
        a = b * test::randomNum(rng, 1 + static_cast<unsigned>(rng.below(3))) +
            test::randomNum(rng, 1 + static_cast<unsigned>(rng.below(b.size())));
        break;
    }
    cases.emplace_back(a, b);
  }
  // Estimates of 2^32 − 1, add-backs and a correction loop of two rounds.
  cases.emplace_back(bn3(0x80000001, 1, 0x7fffffff), bn2(0xfffffffe, 0x80000000));
  cases.emplace_back(fromDigits({2, 0x7fffffff, 0, 0x7fffffff}), bn3(0x80000000, 0xfffffffe, 0x80000000));
  cases.emplace_back(fromDigits({0, 0xfffffffe, 0, 0x80000000}), fromDigits({0xffffffff, 0x80000000}));
  cases.emplace_back(fromDigits({0, 0, 0x80000000, 0x7fffffff}), fromDigits({1, 0, 0x80000000}));
  cases.emplace_back(fromDigits({0, 0xfffffffe, 0, 0x80000000}), fromDigits({0x0000ffff, 0x80000000}));
  cases.emplace_back(fromDigits({0, 0, 0x80000000}), fromDigits({1, 0x80000000}));
  cases.emplace_back(fromDigits({3, 0, 0x80000000}), fromDigits({1, 0, 0x20000000}));
  cases.emplace_back(fromDigits({0, 0, 0x80000000, 0x7fff}), fromDigits({1, 0, 0x8000}));
  cases.emplace_back(fromDigits({0xffffffff, 0xffffffff, 0xffffffff}), fromDigits({0xffffffff, 0xffffffff}));
  cases.emplace_back(fromDigits({0xffffffff, 0xffffffff}), BigNum(0xffffffffu));
  cases.emplace_back(fromDigits({0, 0, 0, 1}), fromDigits({0xffffffff, 0xffffffff}));
  return cases;
}

TEST(BigNumOracle, DivisionGcdLcm) {
  test::BnCtx ctx;
  Bn q = newBn(), r = newBn(), g = newBn();
  int n = 0;
  for (const auto& [a, b] : divisionCases()) {
    SCOPED_TRACE(a.str() + " / " + b.str());
    const Bn A = toBn(a), B = toBn(b);
    BigNum quot, rem;
    div(a, b, &quot, &rem);
    BN_div(q.get(), r.get(), A.get(), B.get(), ctx);
    ASSERT_EQ(quot, fromBn(q.get()));
    ASSERT_EQ(rem, fromBn(r.get()));
    if (n++ % 4) continue;  // the binary gcd is quadratic in bits: a quarter of the pairs suffice
    BN_gcd(g.get(), A.get(), B.get(), ctx);
    const BigNum gg = gcd(a, b);
    ASSERT_EQ(gg, fromBn(g.get()));
    BN_mul(q.get(), A.get(), B.get(), ctx);
    BN_div(q.get(), nullptr, q.get(), g.get(), ctx);
    ASSERT_EQ(lcm(a, b), fromBn(q.get()));
  }
}

TEST(BigNumOracle, InversesAndBezout) {
  test::TestRng rng(43);
  test::BnCtx ctx;
  Bn want = newBn(), g = newBn();
  int inverted = 0;
  for (int i = 0; i < 800; ++i) {
    const BigNum a = test::randomNum(rng, test::randomSize(rng, 130));
    BigNum m = test::randomNum(rng, test::randomSize(rng, 130));
    if (i % 2) m.digits()[0] |= 1;  // odd moduli, as RSA and the curves use
    if (m == BigNum(1u)) continue;
    SCOPED_TRACE(a.str() + " mod " + m.str());
    const Bn A = toBn(a), M = toBn(m);
    BN_gcd(g.get(), A.get(), M.get(), ctx);
    SignedBigNum x, y;
    BigNum gg;
    begcd(&x, &y, &gg, a, m);
    ASSERT_EQ(gg, fromBn(g.get()));
    SignedBigNum sum;
    sum.add(a * x.mag, x.negative);
    sum.add(m * y.mag, y.negative);
    ASSERT_EQ(sum.mag, gg);
    ASSERT_TRUE(!sum.negative || sum.mag.isZero());
    if (!BN_is_one(g.get())) continue;
    ++inverted;
    ASSERT_TRUE(BN_mod_inverse(want.get(), A.get(), M.get(), ctx));
    ASSERT_EQ(invByMod(a, m), fromBn(want.get()));
  }
  EXPECT_GT(inverted, 200);
}

TEST(BigNumOracle, MontgomeryRoundTripAndProducts) {
  test::TestRng rng(44);
  test::BnCtx ctx;
  Bn want = newBn();
  for (int i = 0; i < 1000; ++i) {
    BigNum n = test::randomNum(rng, test::randomSize(rng, 130));
    n.digits()[0] |= 1;
    if (n == BigNum(1u)) n = BigNum(3u);
    const MontgomeryReducer red(n);
    const BigNum x = test::randomNum(rng, test::randomSize(rng, 2 * n.size()));
    const BigNum y = test::randomNum(rng, test::randomSize(rng, n.size()));
    SCOPED_TRACE(x.str() + " mod " + n.str());
    const Bn N = toBn(n), X = toBn(x), Y = toBn(y);
    BN_nnmod(want.get(), X.get(), N.get(), ctx);
    ASSERT_EQ(red.toBigNum(red.fromBigNum(x)), fromBn(want.get()));
    BN_mod_mul(want.get(), X.get(), Y.get(), N.get(), ctx);
    RedNum r;
    mul(r, red.fromBigNum(x), red.fromBigNum(y));
    ASSERT_LT(r.value, n);  // Montgomery products come out fully reduced
    ASSERT_EQ(red.toBigNum(std::move(r)), fromBn(want.get()));
    RedNum s;
    sqr(s, red.fromBigNum(y));
    BN_mod_sqr(want.get(), Y.get(), N.get(), ctx);
    ASSERT_EQ(red.toBigNum(std::move(s)), fromBn(want.get()));
  }
}

TEST(BigNumOracle, ExpByMod) {
  test::TestRng rng(45);
  test::BnCtx ctx;
  Bn want = newBn();
  for (int i = 0; i < 400; ++i) {
    const bool full = i % 40 == 0;  // now and then an RSA-shaped full-length exponent
    BigNum m = test::randomNum(rng, full ? 64 : test::randomSize(rng, 130));
    m.digits()[0] |= 1;
    const BigNum a = test::randomNum(rng, test::randomSize(rng, m.size() + 1));
    const BigNum e = i % 7 == 0 ? BigNum(static_cast<unsigned>(rng.below(3)))
                                : test::randomNum(rng, full ? 64 : test::randomSize(rng, 8));
    SCOPED_TRACE(a.str() + " ^ " + e.str() + " mod " + m.str());
    ASSERT_TRUE(BN_mod_exp(want.get(), toBn(a).get(), toBn(e).get(), toBn(m).get(), ctx));
    ASSERT_EQ(expByMod(a, e, m), fromBn(want.get()));
  }
}

TEST(BigNumOracle, ExpByModAtWindowThresholds) {
  test::TestRng rng(46);
  test::BnCtx ctx;
  Bn want = newBn();
  BigNum m = test::randomNum(rng, 24);
  m.digits()[0] |= 1;
  const BigNum a = test::randomNum(rng, 20);
  for (unsigned bits : {1u, 2u, 23u, 24u, 25u, 31u, 32u, 33u, 79u, 80u, 239u, 240u, 671u, 672u, 700u}) {
    for (int shape = 0; shape < 4; ++shape) {
      BigNum e = test::randomNum(rng, (bits + 31) / 32);
      e.modBy2Pow(bits);
      e.setBit(bits - 1, true);
      if (shape == 0) e = (BigNum(1u) << bits) - BigNum(1u);  // all ones: every window full
      SCOPED_TRACE(bits);
      ASSERT_TRUE(BN_mod_exp(want.get(), toBn(a).get(), toBn(e).get(), toBn(m).get(), ctx));
      ASSERT_EQ(expByMod(a, e, m), fromBn(want.get()));
    }
  }
}

TEST(BigNumOracle, Mod25519ReducerStaysCongruentAndBelow2To256) {
  test::TestRng rng(47);
  test::BnCtx ctx;
  const Mod25519Reducer red;
  const Bn P = toBn(red.mod());
  Bn want = newBn(), got = newBn();
  const BigNum limit = red.mod() + BigNum(38u);
  for (int i = 0; i < 2000; ++i) {
    // Operands up to 2^256 − 1, as the partially reduced values of the curve code reach.
    const BigNum a = test::randomNum(rng, 1 + static_cast<unsigned>(rng.below(8)));
    const BigNum b = test::randomNum(rng, i % 3 ? 8 : 1 + static_cast<unsigned>(rng.below(8)));
    SCOPED_TRACE(a.str() + " * " + b.str());
    BigNum r;
    red.mul(r, a, b);
    ASSERT_LT(r, limit);
    BN_mod_mul(want.get(), toBn(a).get(), toBn(b).get(), P.get(), ctx);
    BN_nnmod(got.get(), toBn(r).get(), P.get(), ctx);
    ASSERT_EQ(BN_cmp(got.get(), want.get()), 0);
    red.sqr(r, b);
    ASSERT_LT(r, limit);
    BN_mod_sqr(want.get(), toBn(b).get(), P.get(), ctx);
    BN_nnmod(got.get(), toBn(r).get(), P.get(), ctx);
    ASSERT_EQ(BN_cmp(got.get(), want.get()), 0);
    const unsigned k = rng.next();
    r = a;
    red.mul(r, k);
    ASSERT_LT(r, limit);
    BN_copy(want.get(), toBn(a).get());
    BN_mul_word(want.get(), k);
    BN_nnmod(want.get(), want.get(), P.get(), ctx);
    BN_nnmod(got.get(), toBn(r).get(), P.get(), ctx);
    ASSERT_EQ(BN_cmp(got.get(), want.get()), 0);
  }
}

#endif  // TESSEL_HAVE_OPENSSL

}  // namespace
}  // namespace tessel
