#include "keys/rsa_keygen.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "bignum/mont_ct.h"
#include "core/declassify.h"
#include "core/secret.h"

namespace tessel::rsa {

namespace {

using ct::Limb;
using ct::limbBits;
using ct::subLimbs;
#if defined(__SIZEOF_INT128__)
using Wide = unsigned __int128;
#else
using Wide = std::uint64_t;
#endif
constexpr unsigned digitsPerLimb = sizeof(Limb) / sizeof(BigNum::Digit);

// Limbs is a fixed-width number, least significant limb first, wiped when it goes.
struct Limbs : std::vector<Limb> {
  explicit Limbs(std::size_t n) : std::vector<Limb>(n, 0) {}
  Limbs(const Limbs&) = default;
  Limbs& operator=(const Limbs&) = default;
  ~Limbs() { ct::wipe(data(), size() * sizeof(Limb)); }
};

Limb maskOf(Limb bit) { return ct::maskFromBit<Limb>(bit); }
std::size_t limbsFor(unsigned bits) { return (bits + limbBits - 1) / limbBits; }

// subWord subtracts the single word v from a, carrying the borrow through every limb.
void subWord(Limb* a, std::size_t n, Limb v) {
  for (std::size_t i = 0; i < n; ++i) {
    const Wide t = static_cast<Wide>(a[i]) - v;
    a[i] = static_cast<Limb>(t);
    v = static_cast<Limb>(t >> limbBits) & 1;
  }
}

// shiftRight1 halves a; shiftLeft1 doubles it, bringing `in` into bit 0.
void shiftRight1(Limb* r, const Limb* a, std::size_t n) {
  for (std::size_t i = 0; i + 1 < n; ++i) r[i] = static_cast<Limb>((a[i] >> 1) | (a[i + 1] << (limbBits - 1)));
  r[n - 1] = a[n - 1] >> 1;
}
void shiftLeft1(Limb* r, const Limb* a, std::size_t n, Limb in) {
  for (std::size_t i = n; i-- > 0;) r[i] = static_cast<Limb>((a[i] << 1) | (i ? a[i - 1] >> (limbBits - 1) : in));
}

Limb bitAt(const Limb* a, std::size_t i) { return (a[i / limbBits] >> (i % limbBits)) & 1; }

Limb equalMask(const Limb* a, const Limb* b, std::size_t n) {
  Limb diff = 0;
  for (std::size_t i = 0; i < n; ++i) diff |= a[i] ^ b[i];
  return ct::isZeroMask<Limb>(diff);
}

// mulLimbs sets r (na + nb limbs) = a·b by schoolbook rows of fixed length.
void mulLimbs(Limb* r, const Limb* a, std::size_t na, const Limb* b, std::size_t nb) {
  std::fill(r, r + na + nb, 0);
  for (std::size_t i = 0; i < nb; ++i) {
    Limb carry = 0;
    for (std::size_t k = 0; k < na; ++k) {
      const Wide w = static_cast<Wide>(a[k]) * b[i] + r[i + k] + carry;
      r[i + k] = static_cast<Limb>(w);
      carry = static_cast<Limb>(w >> limbBits);
    }
    r[i + na] = carry;
  }
}

// SmallModulus is a public modulus m below 2^17 with floor(2^32 / m), for remainders by products
// instead of the division instruction, whose time may depend on its operands.
struct SmallModulus {
  std::uint32_t m;
  std::uint64_t inv;
  explicit SmallModulus(std::uint32_t mod) : m(mod), inv((std::uint64_t{1} << 32) / mod) {}
};

// reduceSmall returns x mod m for x below 2^33: the estimated quotient is short by at most two.
std::uint32_t reduceSmall(std::uint64_t x, const SmallModulus& s) {
  std::uint64_t r = x - ((x * s.inv) >> 32) * s.m;
  for (int i = 0; i < 2; ++i) r -= s.m & ~ct::lessThanMask<std::uint64_t>(r, s.m);
  return static_cast<std::uint32_t>(r);
}

// modSmall returns x mod m, sixteen bits at a time from the top (each step stays below m·2^16).
std::uint32_t modSmall(const Limb* x, std::size_t n, const SmallModulus& s) {
  std::uint64_t r = 0;
  for (std::size_t i = n; i-- > 0;)
    for (unsigned c = limbBits / 16; c-- > 0;) r = reduceSmall((r << 16) | ((x[i] >> (16 * c)) & 0xffff), s);
  return static_cast<std::uint32_t>(r);
}

// invSmall returns t⁻¹ mod m for a prime m by Fermat (0 for t = 0); the exponent is public.
std::uint32_t invSmall(std::uint32_t t, const SmallModulus& s) {
  std::uint32_t acc = 1;
  for (unsigned i = 32; i-- > 0;) {
    acc = reduceSmall(std::uint64_t{acc} * acc, s);
    if (((s.m - 2) >> i) & 1) acc = reduceSmall(std::uint64_t{acc} * t, s);
  }
  return acc;
}

// smallPrimes lists the odd primes below 2^11 for trial division, found once by a sieve.
const std::vector<SmallModulus>& smallPrimes() {
  static const std::vector<SmallModulus> primes = [] {
    constexpr unsigned limit = 1u << 11;
    std::vector<bool> composite(limit);
    std::vector<SmallModulus> out;
    for (unsigned i = 3; i < limit; i += 2) {
      if (composite[i]) continue;
      out.emplace_back(i);
      for (unsigned k = i * i; k < limit; k += 2 * i) composite[k] = true;
    }
    return out;
  }();
  return primes;
}

const SmallModulus& publicExponent() {
  static const SmallModulus e(kPublicExponent);
  return e;
}

// inverseOfE sets r (n + 1 limbs) to e⁻¹ mod x for x of n limbs, as (1 + k·x)/e with
// k = −x⁻¹ mod e: e·r = 1 + k·x ≡ 1 (mod x) and r < x. The remainder x mod e and its inverse
// are taken by products, and the exact division by e is Jebelean's: one product with e⁻¹ mod
// 2^limbBits per limb from the bottom. Returns all ones when x is prime to e.
Limb inverseOfE(Limb* r, const Limb* x, std::size_t n) {
  const SmallModulus& e = publicExponent();
  const std::uint32_t t = modSmall(x, n, e);
  const std::uint32_t inv = invSmall(t, e);
  const Limb k = reduceSmall(e.m - inv, e);
  Limbs num(n + 1);
  Limb carry = 1;  // the 1 of 1 + k·x rides in as the first carry
  for (std::size_t i = 0; i < n; ++i) {
    const Wide w = static_cast<Wide>(x[i]) * k + carry;
    num[i] = static_cast<Limb>(w);
    carry = static_cast<Limb>(w >> limbBits);
  }
  num[n] = carry;
  Limb eInv = kPublicExponent;  // e⁻¹ mod 2^limbBits by Newton's iteration, as for n′
  for (int i = 0; i < 6; ++i) eInv = static_cast<Limb>(eInv * (2 - kPublicExponent * eInv));
  Limb borrow = 0;
  for (std::size_t i = 0; i <= n; ++i) {
    const Wide t1 = static_cast<Wide>(num[i]) - borrow;
    const Limb digit = static_cast<Limb>(static_cast<Limb>(t1) * eInv);
    r[i] = digit;
    borrow = static_cast<Limb>((static_cast<Wide>(digit) * kPublicExponent) >> limbBits) +
             (static_cast<Limb>(t1 >> limbBits) & 1);
  }
  return static_cast<Limb>(~ct::isZeroMask<Limb>(t));
}

// gcdLimbs sets g to gcd(a, b) for non-zero a and b of n limbs, by Stein's algorithm with every
// step taken: the common factors of two first, then 2·bits rounds that each halve a·b at least,
// then the factors of two put back, all by masks.
void gcdLimbs(Limb* g, const Limb* a0, const Limb* b0, std::size_t n) {
  const std::size_t width = n * limbBits;
  Limbs a(n), b(n), t(n);
  std::copy(a0, a0 + n, a.begin());
  std::copy(b0, b0 + n, b.begin());
  Limb twos = 0;
  for (std::size_t i = 0; i < width; ++i) {
    const Limb bothEven = maskOf(~(a[0] | b[0]) & 1);
    shiftRight1(t.data(), a.data(), n);
    ct::conditionalCopy(a.data(), t.data(), n, bothEven);
    shiftRight1(t.data(), b.data(), n);
    ct::conditionalCopy(b.data(), t.data(), n, bothEven);
    twos += bothEven & 1;
  }
  ct::conditionalSwap<Limb>(a.data(), b.data(), n, maskOf(~a[0] & 1));  // a odd from here on
  for (std::size_t i = 0; i < 2 * width; ++i) {
    const Limb bOdd = maskOf(b[0] & 1);
    const Limb bBelowA = maskOf(subLimbs(t.data(), b.data(), a.data(), n));
    ct::conditionalSwap<Limb>(a.data(), b.data(), n, bOdd & bBelowA);
    subLimbs(t.data(), b.data(), a.data(), n);
    ct::conditionalCopy(b.data(), t.data(), n, bOdd);
    shiftRight1(b.data(), b.data(), n);
  }
  for (std::size_t i = 0; i < width; ++i) {
    shiftLeft1(t.data(), a.data(), n, 0);
    // The barrier keeps the compiler from folding the secret count into the loop counter.
    const Limb shift = ct::lessThanMask<Limb>(ct::valueBarrier(static_cast<Limb>(i)), twos);
    ct::conditionalCopy(a.data(), t.data(), n, shift);
  }
  std::copy(a.begin(), a.end(), g);
}

// divLimbs sets quo (nx limbs) = x / g for x of nx limbs and a non-zero g of ng limbs, one bit of
// x at a time with a masked subtraction.
void divLimbs(Limb* quo, const Limb* x, std::size_t nx, const Limb* g, std::size_t ng) {
  Limbs r(ng + 1), t(ng + 1), gExt(ng + 1);
  std::copy(g, g + ng, gExt.begin());
  std::fill(quo, quo + nx, 0);
  for (std::size_t i = nx * limbBits; i-- > 0;) {
    shiftLeft1(r.data(), r.data(), ng + 1, bitAt(x, i));
    const Limb atLeastG = maskOf(~subLimbs(t.data(), r.data(), gExt.data(), ng + 1) & 1);
    ct::conditionalCopy(r.data(), t.data(), ng + 1, atLeastG);
    quo[i / limbBits] |= static_cast<Limb>((atLeastG & 1) << (i % limbBits));
  }
}

// anyBitFrom is all ones when x (n limbs) has a bit set at position `from` or above.
Limb anyBitFrom(const Limb* x, std::size_t n, std::size_t from) {
  Limb any = 0;
  for (std::size_t i = from / limbBits; i < n; ++i)
    any |= i == from / limbBits ? static_cast<Limb>(x[i] >> (from % limbBits)) : x[i];
  return static_cast<Limb>(~ct::isZeroMask<Limb>(any));
}

// fixedBigNum holds x as a BigNum of exactly `digits` digits (the top one must be non-zero, as
// for a prime of a public bit length), without looking at the value.
BigNum fixedBigNum(const Limb* x, std::size_t digits) {
  BigNum b;
  b.digits().assign(digits, 0);
  for (std::size_t i = 0; i < digits; ++i)
    b[static_cast<unsigned>(i)] = static_cast<BigNum::Digit>(x[i / digitsPerLimb] >> (32 * (i % digitsPerLimb)));
  return b;
}

// secretBigNum is x as a clamped BigNum: its digit count is found by masks and declassified, as
// digit counts are public throughout the key code; the digits stay secret.
BigNum secretBigNum(const Limb* x, std::size_t n) {
  Limb len = 1;
  for (std::size_t i = 0; i < n * digitsPerLimb; ++i) {
    const auto digit = static_cast<BigNum::Digit>(x[i / digitsPerLimb] >> (32 * (i % digitsPerLimb)));
    len = ct::select<Limb>(~ct::isZeroMask<Limb>(digit), static_cast<Limb>(i + 1), len);
  }
  return fixedBigNum(x, ct::declassified(len));
}

void toLimbs(Limb* r, std::size_t n, const BigNum& x) {
  std::fill(r, r + n, 0);
  for (unsigned i = 0; i < x.size() && i / digitsPerLimb < n; ++i)
    r[i / digitsPerLimb] |= static_cast<Limb>(static_cast<Limb>(x[i]) << (32 * (i % digitsPerLimb)));
}

// fromBytes reads `len` big-endian bytes into n limbs, which must hold them.
void fromBytes(Limb* r, std::size_t n, const unsigned char* in, std::size_t len) {
  std::fill(r, r + n, 0);
  for (std::size_t i = 0; i < len; ++i)
    r[i / sizeof(Limb)] |= static_cast<Limb>(static_cast<Limb>(in[len - 1 - i]) << (8 * (i % sizeof(Limb))));
}

// exponentBytes writes n limbs as big-endian bytes of a fixed length, for MontModulus::exp.
std::vector<unsigned char> exponentBytes(const Limb* x, std::size_t n) {
  std::vector<unsigned char> out(n * sizeof(Limb));
  for (std::size_t i = 0; i < out.size(); ++i)
    out[out.size() - 1 - i] = static_cast<unsigned char>(x[i / sizeof(Limb)] >> (8 * (i % sizeof(Limb))));
  return out;
}

struct WipedBytes {
  std::vector<unsigned char> b;
  ~WipedBytes() { ct::wipe(b.data(), b.size()); }
};

// fermatBase2 is all ones when 2^(w−1) ≡ 1 (mod w), which every odd prime satisfies; composites
// that get through are left to Miller–Rabin. It runs the windowed exponentiation, so that the
// many composites cost less than a Miller–Rabin round each.
Limb fermatBase2(const ct::MontModulus& m, const Limb* w, std::size_t n) {
  Limbs one(n), acc(n), wm1(n);
  std::copy(w, w + n, wm1.begin());
  wm1[0] &= ~Limb{1};
  m.one(one.data());
  m.add(acc.data(), one.data(), one.data());
  const WipedBytes e{exponentBytes(wm1.data(), n)};
  m.exp(acc.data(), acc.data(), e.b.data(), e.b.size());
  return equalMask(acc.data(), one.data(), n);
}

// millerRabinRound is all ones when w (odd, `bits` bits) passes the round with base b (Montgomery
// form). With w − 1 = 2^a·m it must hold that b^m = 1 or b^(m·2^i) = −1 for some i < a. The
// powers A_j = b^((w−1) >> j) come out of a bit-by-bit exponentiation from the top, and A_j is
// b^(m·2^(a−j)) exactly while the j low bits of w − 1 are zero; so the round passes when, for some
// such j, A_j = −1 (j ≥ 1) or A_j = 1 with bit j of w − 1 set (j = a). a itself stays hidden.
Limb millerRabinRound(const ct::MontModulus& m, const Limb* w, std::size_t n, unsigned bits, const Limb* b) {
  Limbs one(n), minusOne(n), zero(n), acc(n), t(n);
  m.one(one.data());
  m.sub(minusOne.data(), zero.data(), one.data());
  std::vector<Limb> lowZero(bits + 1);
  lowZero[0] = lowZero[1] = ~Limb{0};
  for (unsigned j = 1; j < bits; ++j) lowZero[j + 1] = lowZero[j] & ~maskOf(bitAt(w, j));
  Limb pass = 0;
  acc = one;
  for (unsigned j = bits; j-- > 0;) {
    const Limb bit = j ? maskOf(bitAt(w, j)) : 0;  // bit j of w − 1
    m.sqr(acc.data(), acc.data());
    m.mul(t.data(), acc.data(), b);
    ct::conditionalCopy(acc.data(), t.data(), n, bit);
    pass |= lowZero[j] & bit & equalMask(acc.data(), one.data(), n);
    if (j) pass |= lowZero[j] & equalMask(acc.data(), minusOne.data(), n);
  }
  ct::wipe(lowZero.data(), lowZero.size() * sizeof(Limb));
  return pass;
}

// probablePrime runs the Fermat test and `rounds` Miller–Rabin rounds on w (n limbs, `bits` bits,
// top bit set) and returns the public verdict; *rngFailed tells a failed draw of a base.
bool probablePrime(const Limb* w, std::size_t n, unsigned bits, unsigned rounds, Rng& rng, bool* rngFailed) {
  const ct::MontModulus m(fixedBigNum(w, (bits + 31) / 32), ct::SecretModulus{});
  if (!ct::declassified(fermatBase2(m, w, n))) return false;
  // Bases: 64 bits more than w, reduced, so that they are all but uniform below w.
  WipedBytes raw{std::vector<unsigned char>((bits + 7) / 8 + 8)};
  Limbs wide(raw.b.size() / sizeof(Limb) + 1), base(n);
  for (unsigned i = 0; i < rounds; ++i) {
    if (!rng.generate(raw.b.data(), static_cast<unsigned>(raw.b.size()))) {
      *rngFailed = true;
      return false;
    }
    fromBytes(wide.data(), wide.size(), raw.b.data(), raw.b.size());
    m.toMontWide(base.data(), wide.data(), wide.size());
    if (!ct::declassified(millerRabinRound(m, w, n, bits, base.data()))) return false;
  }
  return true;
}

// passesTrialDivision is the public verdict that w has no odd prime factor below 2^11 and that
// e does not divide w − 1. A candidate that fails is discarded; one that passes only tells
// what holds for every prime of its size.
bool passesTrialDivision(const Limb* w, std::size_t n) {
  using ct::isZeroMask;
  for (const SmallModulus& s : smallPrimes())
    if (ct::declassified(isZeroMask<std::uint32_t>(modSmall(w, n, s)))) return false;
  return !ct::declassified(isZeroMask<std::uint32_t>(modSmall(w, n, publicExponent()) ^ 1u));
}

// randomPrime draws candidates of `bits` bits from rng (top two bits and the low bit set) until one
// passes every test, into w. False when rng fails or, for a source that keeps repeating itself,
// after far more candidates than a prime takes.
bool randomPrime(Limb* w, std::size_t n, unsigned bits, Rng& rng) {
  WipedBytes raw{std::vector<unsigned char>((bits + 7) / 8)};
  for (unsigned attempt = 0; attempt < 64 * bits; ++attempt) {
    if (!rng.generate(raw.b.data(), static_cast<unsigned>(raw.b.size()))) return false;
    fromBytes(w, n, raw.b.data(), raw.b.size());
    if (bits % limbBits) w[n - 1] &= (Limb{1} << (bits % limbBits)) - 1;
    w[0] |= 1;
    w[(bits - 1) / limbBits] |= Limb{1} << ((bits - 1) % limbBits);
    w[(bits - 2) / limbBits] |= Limb{1} << ((bits - 2) % limbBits);
    if (!passesTrialDivision(w, n)) continue;
    bool rngFailed = false;
    if (probablePrime(w, n, bits, millerRabinRounds(bits), rng, &rngFailed)) return true;
    if (rngFailed) return false;
  }
  return false;
}

}  // namespace

unsigned millerRabinRounds(unsigned bits) { return bits >= 1536 ? 4 : bits >= 1024 ? 5 : 8; }

bool isProbablePrime(const BigNum& w, unsigned rounds, Rng& rng) {
  const unsigned bits = 32 * w.size();  // the digit count is public, the exact length is not
  const std::size_t n = limbsFor(bits);
  Limbs x(n);
  toLimbs(x.data(), n, w);
  if (!ct::declassified(x[0] & 1)) return false;
  bool rngFailed = false;
  return passesTrialDivision(x.data(), n) && probablePrime(x.data(), n, bits, rounds, rng, &rngFailed);
}

bool deriveKey(RsaPrivateKey& key, const BigNum& p0, const BigNum& q0, unsigned primeBits) {
  const unsigned digits = std::max(p0.size(), q0.size());
  const std::size_t s = limbsFor(32 * digits);
  Limbs p(s), q(s), diff(s), pm1(s), qm1(s), g(s), dP(s + 1), dQ(s + 1), qInv(s);
  Limbs n(2 * s), phi(2 * s), lambda(2 * s), d(2 * s + 1);
  toLimbs(p.data(), s, p0);
  toLimbs(q.data(), s, q0);
  // p > q, as keys are usually written; then |p − q| must be large, or n would factor by Fermat's
  // method. The rejection of q is public.
  ct::conditionalSwap<Limb>(p.data(), q.data(), s, maskOf(subLimbs(diff.data(), p.data(), q.data(), s)));
  subLimbs(diff.data(), p.data(), q.data(), s);
  const unsigned halfBits = primeBits;
  if (halfBits > 100 && !ct::declassified(anyBitFrom(diff.data(), s, halfBits - 99))) return false;
  pm1 = p;
  qm1 = q;
  subWord(pm1.data(), s, 1);
  subWord(qm1.data(), s, 1);
  mulLimbs(n.data(), p.data(), s, q.data(), s);
  mulLimbs(phi.data(), pm1.data(), s, qm1.data(), s);
  gcdLimbs(g.data(), pm1.data(), qm1.data(), s);
  divLimbs(lambda.data(), phi.data(), 2 * s, g.data(), s);
  Limb ok = inverseOfE(d.data(), lambda.data(), 2 * s);
  ok &= inverseOfE(dP.data(), pm1.data(), s) & inverseOfE(dQ.data(), qm1.data(), s);
  // d must exceed 2^(nlen/2), which all but a vanishing fraction of keys do.
  ok &= anyBitFrom(d.data(), 2 * s, halfBits);
  if (!ct::declassified(ok)) return false;
  // qInv = q^(p−2) mod p, by the windowed exponentiation, since p − 2 is secret.
  const ct::MontModulus mp(fixedBigNum(p.data(), digits), ct::SecretModulus{});
  Limbs pm2(p), qm(s);
  subWord(pm2.data(), s, 2);
  const WipedBytes e{exponentBytes(pm2.data(), s)};
  mp.toMontWide(qm.data(), q.data(), s);
  mp.exp(qm.data(), qm.data(), e.b.data(), e.b.size());
  mp.fromMont(qInv.data(), qm.data());

  BigNum modulus = fixedBigNum(n.data(), 2 * s * digitsPerLimb);
  ct::declassify(modulus.digits().data(), modulus.size() * sizeof(BigNum::Digit));  // n is public
  modulus.clamp();
  key.n = modulus;
  key.e = BigNum(kPublicExponent);
  key.p = secretBigNum(p.data(), s);
  key.q = secretBigNum(q.data(), s);
  key.d = secretBigNum(d.data(), 2 * s);
  key.dP = secretBigNum(dP.data(), s);
  key.dQ = secretBigNum(dQ.data(), s);
  key.qInv = secretBigNum(qInv.data(), s);
  return true;
}

bool generateKey(RsaPrivateKey& key, unsigned bits, Rng& rng) {
  if (bits < 256 || bits % 2) return false;
  const unsigned half = bits / 2;
  const std::size_t n = limbsFor(half);
  Limbs p(n), q(n);
  const unsigned digits = (half + 31) / 32;
  for (int attempt = 0; attempt < 64; ++attempt) {
    if (!randomPrime(p.data(), n, half, rng)) return false;
    for (int second = 0; second < 8; ++second) {
      if (!randomPrime(q.data(), n, half, rng)) return false;
      if (deriveKey(key, fixedBigNum(p.data(), digits), fixedBigNum(q.data(), digits), half)) return true;
    }
  }
  return false;
}

}  // namespace tessel::rsa
