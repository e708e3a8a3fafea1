// BigNum, division, inverses, reducers and exponentiation: edge cases that need the digits, results
// computed with Python integers (tests/data/bignum_vectors.json), and properties checked against
// OpenSSL's BN functions over random operands of 1 to 130 digits.
#include <algorithm>
#include <cctype>
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

// ---- conversions and bits ----

TEST(BigNumBits, SetBitDoesNotClamp) {
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

const nlohmann::json& edges(const char* table) {
  static const nlohmann::json all = test::dataFile("bignum_edges.json");
  return all.at(table);
}

TEST(BigNumBits, ModBy2Pow) {
  for (const auto& c : edges("modBy2Pow")) {
    SCOPED_TRACE(c.dump());
    BigNum x = fromDigits(c[0]);
    x.modBy2Pow(c[1]);
    EXPECT_EQ(x.digits(), c[2].get<std::vector<BigNum::Digit>>());
  }
  BigNum none(5u);
  none.modBy2Pow(0);
  EXPECT_EQ(none.str(), "");
}

TEST(BigNumShift, ByWholeDigits) {
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
  x += 1u;  // the word form carries into a new digit
  EXPECT_EQ(x.digits(), (std::vector<BigNum::Digit>{0, 0, 1}));
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
      "assertion \"size\\(\\) >= x.size\\(\\)\" failed: file \"bignum.cpp\", line 252, "
      "function: operator-=");
}

TEST(BigNumArith, Mul256MatchesSchoolbook) {
  test::TestRng rng(256);
  for (int i = 0; i < test::rounds(500); ++i) {
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

TEST(BigNumGcd, SignedAdd) {
  for (const auto& c : edges("signedAdd")) {
    SignedBigNum s{BigNum(c[0].get<unsigned>()), c[1]};
    s.add(BigNum(c[2].get<unsigned>()), c[3]);
    EXPECT_EQ(s.mag, BigNum(c[4].get<unsigned>())) << c;
    EXPECT_EQ(s.negative, c[5].get<bool>()) << c;
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

// ---- reducers ----

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
  EXPECT_EQ(red.mod().str(), "7fffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffed");
  for (const auto& c : edges("mod25519Fold")) {
    SCOPED_TRACE(c.dump());
    BigNum x = hexNum(c[0].get<std::string>());
    red.reduce(x);
    EXPECT_EQ(x, hexNum(c[1].get<std::string>()));
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
  // For e = 2^(b−1) the only multiplications are the table's 2^(w−1) − 1 and the single
  // window, so their count shows the window width w chosen for a b-bit exponent.
  const BigNum n = (BigNum(1u) << 127) - BigNum(1u);
  const CountingReducer red(n);
  const RedNum base = red.fromBigNum(BigNum(3u));
  for (const auto& c : edges("windowThresholds")) {
    const unsigned bits = c[0];
    SCOPED_TRACE(bits);
    red.muls = 0;
    const BigNum got = red.toBigNum(expByMod(base, BigNum(1u) << (bits - 1), red));
    EXPECT_EQ(red.muls, c[1].get<unsigned>());
    // The same power by b − 1 plain squarings and divisions.
    BigNum want(3u), sq;
    for (unsigned i = 0; i + 1 < bits; ++i) {
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

// One check per operation; each reads its operands and Python's answers from a vector case.
using VectorCheck = void (*)(const nlohmann::json& c);
BigNum num(const nlohmann::json& c, const char* name) { return hexNum(c[name].get<std::string>()); }

const std::map<std::string, VectorCheck> kVectorChecks = {
    {"mul",
     [](const nlohmann::json& c) {
       BigNum r;
       mul(r, num(c, "a"), num(c, "b"));
       EXPECT_EQ(r, num(c, "product"));
       sqr(r, num(c, "a"));
       EXPECT_EQ(r, num(c, "square"));
     }},
    {"div",
     [](const nlohmann::json& c) {
       BigNum q, r, onlyQ, onlyR;
       div(num(c, "a"), num(c, "b"), &q, &r);
       div(num(c, "a"), num(c, "b"), &onlyQ, nullptr);
       div(num(c, "a"), num(c, "b"), nullptr, &onlyR);
       EXPECT_EQ(q, num(c, "q"));
       EXPECT_EQ(r, num(c, "r"));
       EXPECT_EQ(onlyQ, num(c, "q"));
       EXPECT_EQ(onlyR, num(c, "r"));
     }},
    {"gcd",
     [](const nlohmann::json& c) {
       EXPECT_EQ(gcd(num(c, "a"), num(c, "b")), num(c, "gcd"));
       EXPECT_EQ(lcm(num(c, "a"), num(c, "b")), num(c, "lcm"));
     }},
    {"inv", [](const nlohmann::json& c) { EXPECT_EQ(invByMod(num(c, "a"), num(c, "m")), num(c, "inverse")); }},
    {"exp",
     [](const nlohmann::json& c) { EXPECT_EQ(expByMod(num(c, "a"), num(c, "e"), num(c, "m")), num(c, "power")); }},
    {"dec",
     [](const nlohmann::json& c) {
       EXPECT_EQ(num(c, "a").strDec(), c["dec"].get<std::string>());
       EXPECT_EQ(num(c, "a").str(), c["a"].get<std::string>());
     }},
    {"text",
     [](const nlohmann::json& c) {
       const BigNum a = num(c, "a");
       EXPECT_EQ(a.str(), c["a"].get<std::string>());
       EXPECT_EQ(a.strDec(), c["dec"].get<std::string>());
       EXPECT_EQ(a.strDigits(), c["digits"].get<std::string>());
       EXPECT_EQ(a.bits(), c["bits"].get<unsigned>());
       EXPECT_EQ(lsb(a), c["lsb"].get<unsigned>());
     }},
    {"bytes",
     [](const nlohmann::json& c) {
       const Bytes bytes = fromHex(c["a"].get<std::string>());
       const BigNum x =
           c["littleEndian"].get<bool>() ? BigNum(asn1::blob(bytes), little_endian{}) : BigNum(asn1::blob(bytes));
       EXPECT_EQ(x.digits(), c["digits"].get<std::vector<BigNum::Digit>>());
     }},
    {"bin",
     [](const nlohmann::json& c) {
       EXPECT_EQ(toHex(num(c, "a").bin(c["len"].get<unsigned>())), c["big"].get<std::string>());
       EXPECT_EQ(toHex(num(c, "a").bin(little_endian{})), c["little"].get<std::string>());
     }},
    {"shift",
     [](const nlohmann::json& c) {
       EXPECT_EQ(num(c, "a") << c["k"].get<unsigned>(), num(c, "shl"));
       EXPECT_EQ(num(c, "a") >> c["k"].get<unsigned>(), num(c, "shr"));
     }},
    {"addsub",
     [](const nlohmann::json& c) {
       BigNum x = num(c, "a");
       x += num(c, "b");
       EXPECT_EQ(x, num(c, "sum"));
       x = num(c, "a");
       x -= num(c, "b");  // a borrow through every digit is clamped away
       EXPECT_EQ(x, num(c, "diff"));
     }},
};

TEST(BigNumVectors, PythonIntegers) {
  const auto vectors = test::dataFile("bignum_vectors.json");
  test::forEachBignumPath([&] {
    std::map<std::string, int> seen;
    for (const auto& c : vectors) {
      const std::string op = c["op"];
      SCOPED_TRACE(op + " " + c["a"].get<std::string>().substr(0, 16));
      const auto check = kVectorChecks.find(op);
      ASSERT_NE(check, kVectorChecks.end()) << "unknown op " << op;
      check->second(c);
      ++seen[op];
    }
    for (const auto& [op, check] : kVectorChecks) EXPECT_GE(seen[op], 4) << op;
  });
}

// ---- properties against OpenSSL's BN functions ----
#if TESSEL_HAVE_OPENSSL

using test::Bn;
using test::fromBn;
using test::newBn;
using test::toBn;

// text takes an OpenSSL string (freeing it) in lower case without the zeros it pads hex with.
std::string text(char* s) {
  std::string r(s);
  OPENSSL_free(s);
  for (char& c : r) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return r.erase(0, std::min(r.find_first_not_of('0'), r.size() - 1));
}

TEST(BigNumOracle, ProductsSumsShiftsAndText) {
  test::TestRng rng(41);
  test::BnCtx ctx;
  Bn want = newBn();
  for (int i = 0; i < test::rounds(3000); ++i) {
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
    ASSERT_EQ(a.str(), text(BN_bn2hex(A.get())));
    ASSERT_EQ(a.strDec(), text(BN_bn2dec(A.get())));
    ASSERT_EQ(a.bits(), static_cast<unsigned>(BN_num_bits(A.get())));
    ASSERT_EQ(BigNum(asn1::blob(a.bin(70))), a);
    ASSERT_EQ(a.bin(70).size(), std::max<std::size_t>(70, static_cast<std::size_t>(BN_num_bytes(A.get()))));
    ASSERT_EQ(a < b, BN_cmp(A.get(), B.get()) < 0);
  }
}

// divisionCases yields random pairs plus the shapes Knuth D has to get right: divisors with
// the top bit set or clear, one-digit divisors, and dividends built as q·v + r so the digit
// estimate, the correction and the add-back run (their hand-picked extremes are in the vectors).
std::vector<std::pair<BigNum, BigNum>> divisionCases() {
  test::TestRng rng(42);
  std::vector<std::pair<BigNum, BigNum>> cases;
  for (int i = 0; i < test::rounds(3000); ++i) {
    const BigNum b = test::randomNum(rng, test::randomSize(rng, 130));
    BigNum a;
    switch (i % 3) {
      case 0: a = test::randomNum(rng, test::randomSize(rng, 130)); break;
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
  for (int i = 0; i < test::rounds(800); ++i) {
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
  EXPECT_GT(inverted, test::rounds(200));
}

TEST(BigNumOracle, MontgomeryRoundTripAndProducts) {
  test::forEachBignumPath([] {
    test::TestRng rng(44);
    test::BnCtx ctx;
    Bn want = newBn();
    for (int i = 0; i < test::rounds(1000); ++i) {
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
  });
}

// Random powers, and exponents of exactly the bit lengths where the window width changes.
TEST(BigNumOracle, ExpByMod) {
  test::TestRng rng(45), edges(46);
  test::BnCtx ctx;
  Bn want = newBn();
  struct Case {
    BigNum a, e, m;
  };
  std::vector<Case> cases;
  for (int i = 0; i < test::rounds(400); ++i) {
    const bool full = i % 40 == 0;  // now and then an RSA-shaped full-length exponent
    BigNum m = test::randomNum(rng, full ? 64 : test::randomSize(rng, 130));
    m.digits()[0] |= 1;
    const BigNum a = test::randomNum(rng, test::randomSize(rng, m.size() + 1));
    cases.push_back({a,
                     i % 7 == 0 ? BigNum(static_cast<unsigned>(rng.below(3)))
                                : test::randomNum(rng, full ? 64 : test::randomSize(rng, 8)),
                     m});
  }
  BigNum m = test::randomNum(edges, 24);
  m.digits()[0] |= 1;
  const BigNum a = test::randomNum(edges, 20);
  for (unsigned bits : {1u, 2u, 23u, 24u, 25u, 31u, 32u, 33u, 79u, 80u, 239u, 240u, 671u, 672u, 700u}) {
    for (int shape = 0; shape < 4; ++shape) {
      BigNum e = test::randomNum(edges, (bits + 31) / 32);
      e.modBy2Pow(bits);
      e.setBit(bits - 1, true);
      cases.push_back({a, shape ? e : (BigNum(1u) << bits) - BigNum(1u), m});  // all ones: every window full
    }
  }
  test::forEachBignumPath([&] {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.a.str() + " ^ " + c.e.str() + " mod " + c.m.str());
      ASSERT_TRUE(BN_mod_exp(want.get(), toBn(c.a).get(), toBn(c.e).get(), toBn(c.m).get(), ctx));
      ASSERT_EQ(expByMod(c.a, c.e, c.m), fromBn(want.get()));
    }
  });
}

TEST(BigNumOracle, Mod25519ReducerStaysCongruentAndBelow2To256) {
  test::TestRng rng(47);
  test::BnCtx ctx;
  const Mod25519Reducer red;
  const Bn P = toBn(red.mod());
  const BigNum limit = red.mod() + BigNum(38u);
  // reduced checks that r is below 2^256 and congruent to x mod p.
  auto reduced = [&](const BigNum& r, const Bn& x) {
    Bn want = newBn(), got = newBn();
    BN_nnmod(want.get(), x.get(), P.get(), ctx);
    BN_nnmod(got.get(), toBn(r).get(), P.get(), ctx);
    return r < limit && BN_cmp(got.get(), want.get()) == 0;
  };
  auto product = [&](const BigNum& x, const BigNum& y) {  // OpenSSL's, not ours
    Bn p = newBn();
    BN_mul(p.get(), toBn(x).get(), toBn(y).get(), ctx);
    return p;
  };
  for (int i = 0; i < test::rounds(2000); ++i) {
    // Operands up to 2^256 − 1, as the partially reduced values of the curve code reach.
    const BigNum a = test::randomNum(rng, 1 + static_cast<unsigned>(rng.below(8)));
    const BigNum b = test::randomNum(rng, i % 3 ? 8 : 1 + static_cast<unsigned>(rng.below(8)));
    SCOPED_TRACE(a.str() + " * " + b.str());
    BigNum r;
    red.mul(r, a, b);
    ASSERT_TRUE(reduced(r, product(a, b)));
    red.sqr(r, b);
    ASSERT_TRUE(reduced(r, product(b, b)));
    const unsigned k = rng.next();
    r = a;
    red.mul(r, k);
    Bn ak = toBn(a);
    BN_mul_word(ak.get(), k);
    ASSERT_TRUE(reduced(r, ak));
  }
}

#endif  // TESSEL_HAVE_OPENSSL

}  // namespace
}  // namespace tessel
