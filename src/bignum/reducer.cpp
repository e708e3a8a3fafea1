// Reducers, residues, modular exponentiation and inversion, and bounded random numbers.
#include "tessel/reducer.h"

#include <algorithm>
#include <type_traits>
#include <utility>
#include <vector>

#include "tessel/cpu.h"

namespace tessel {

namespace {

using Digit = BigNum::Digit;
using Wide = std::uint64_t;

}  // namespace

// mod1 is defined before emptyReducer, which refers to it.
BigNum RedNum::mod1(1u);
Reducer RedNum::emptyReducer(RedNum::mod1);

// ---- plain reducer ----

void Reducer::reduce(BigNum&) const {}

void Reducer::mul(BigNum& r, const BigNum& a, const BigNum& b) const {
  tessel::mul(r, a, b);
  reduce(r);
}

void Reducer::mul(BigNum& r, unsigned k) const {
  r *= k;
  while (*mod_ < r) r -= *mod_;
}

void Reducer::sqr(BigNum& r, const BigNum& a) const {
  tessel::sqr(r, a);
  reduce(r);
}

RedNum Reducer::fromBigNum(const BigNum& x) const { return RedNum(x, this); }
RedNum Reducer::fromBigNum(BigNum&& x) const { return RedNum(x, this); }
BigNum Reducer::toBigNum(RedNum&& x) const { return std::move(x.value); }

// ---- residues ----

RedNum& RedNum::operator+=(const RedNum& y) {
  value += y.value;
  if (mod() < value) value -= mod();
  return *this;
}

RedNum& RedNum::operator-=(const RedNum& y) {
  if (value < y.value) value += mod();
  value -= y.value;
  return *this;
}

void mul(RedNum& r, const RedNum& a, const RedNum& b) {
  r.reducer = a.reducer;
  a.reducer->mul(r.value, a.value, b.value);
}

void mul_redbn(RedNum& r, const RedNum& a, const BigNum& b) {
  r.reducer = a.reducer;
  a.reducer->mul(r.value, a.value, b);
}

void mul(RedNum& r, unsigned k) { r.reducer->mul(r.value, k); }

void sqr(RedNum& r, const RedNum& a) {
  r.reducer = a.reducer;
  a.reducer->sqr(r.value, a.value);
}

RedNum inv(RedNum&& x) {
  const Reducer* red = x.reducer;
  BigNum plain = red->toBigNum(std::move(x));
  return red->fromBigNum(invByMod(plain, red->mod()));
}

// ---- Montgomery ----

MontgomeryReducer::MontgomeryReducer(const BigNum& n) : Reducer(n) {
  // −n⁻¹ mod 2^32 by Newton iteration from an inverse modulo 16; all arithmetic wraps.
  const Digit d = n[0];
  Digit y = d + ((2 * d + 4) & 8);
  y *= 2 - d * y;
  y *= 2 - d * y;
  nPrime_ = (d * y - 2) * y;
  // R mod n: from 2^(bits − 1) < n, double up to 2^(32·k), subtracting n whenever reached.
  const unsigned b = n.bits() - 1;
  one_ = BigNum(1u) << b;
  for (unsigned i = 0; i < 32 - b % 32; ++i) {
    one_ <<= 1;
    if (!(one_ < n)) one_ -= n;
  }
}

void MontgomeryReducer::reduce(BigNum& x) const {
  const BigNum& n = mod();
  const std::size_t k = n.size();
  std::vector<Digit>& xd = x.digits();
  if (xd.size() < 2 * k + 1) xd.resize(2 * k + 1, 0);
  const Digit* nd = n.digits().data();
  for (std::size_t i = 0; i < k; ++i) {
    const Digit m = xd[i] * nPrime_;
    Digit* row = xd.data() + i;
    Wide carry = 0;
    for (std::size_t j = 0; j < k; ++j) {
      const Wide t = Wide{m} * nd[j] + row[j] + carry;
      row[j] = static_cast<Digit>(t);
      carry = t >> 32;
    }
    for (std::size_t j = i + k; carry && j < xd.size(); ++j) {
      const Wide t = Wide{xd[j]} + carry;
      xd[j] = static_cast<Digit>(t);
      carry = t >> 32;
    }
  }
  x.clamp();
  x.shiftRightByDigits(static_cast<unsigned>(k));
  if (!(x < n)) x -= n;
}

namespace {

// kMaxInterleaved bounds the modulus size of the interleaved product, whose scratch lives on
// the stack (4096-bit RSA needs 128 digits); larger moduli take the two-step path.
constexpr std::size_t kMaxInterleaved = 136;
// Squares of larger moduli are cheaper as a plain square (half the cross products) followed
// by a separate reduction.
constexpr std::size_t kMaxInterleavedSquare = 16;

// Double-width sums for the word types products run on: 32-bit digits everywhere, 64-bit limbs
// where the compiler has a 128-bit product.
template <class Word>
struct DoubleOf;
template <>
struct DoubleOf<Digit> {
  using type = Wide;
};
#if defined(__SIZEOF_INT128__)
using Limb = std::uint64_t;
template <>
struct DoubleOf<Limb> {
  using type = unsigned __int128;
};
#endif

// addProduct adds x·y to a column sum kept as separate sums of low and high halves.
template <class Word, class Double = typename DoubleOf<Word>::type>
inline void addProduct(Double& lo, Double& hi, Word x, Word y) {
  constexpr unsigned bits = 8 * sizeof(Word);
  const Double p = Double{x} * y;
  lo += static_cast<Word>(p);
  hi += p >> bits;
}

// fips accumulates a·b·R⁻¹ (below 2n) in t[0..k] by finely integrated product scanning: column
// by column, the products a[j]·b[i−j] and m[j]·n[i−j] are summed with their low and high
// halves kept apart, so the terms of a column do not wait on each other's carries. m[i] is
// chosen so that column i ends in a zero word. `k` is either a run-time count or a
// std::integral_constant, so the common curve sizes get loops of fixed length.
template <class Word, class Len>
void fips(Word* t, const Word* a, const Word* b, const Word* n, Word nPrime, Len k) {
  using Double = typename DoubleOf<Word>::type;
  constexpr unsigned bits = 8 * sizeof(Word);
  Word m[kMaxInterleaved];
  Double carry = 0;
  for (std::size_t i = 0; i < k; ++i) {
    Double lo = carry, hi = 0;
    for (std::size_t j = 0; j < i; ++j) {
      addProduct(lo, hi, a[j], b[i - j]);
      addProduct(lo, hi, m[j], n[i - j]);
    }
    addProduct(lo, hi, a[i], b[0]);
    m[i] = static_cast<Word>(lo) * nPrime;
    addProduct(lo, hi, m[i], n[0]);
    carry = (lo >> bits) + hi;
  }
  for (std::size_t i = k; i + 1 < 2 * k; ++i) {
    Double lo = carry, hi = 0;
    for (std::size_t j = i + 1 - k; j < k; ++j) {
      addProduct(lo, hi, a[j], b[i - j]);
      addProduct(lo, hi, m[j], n[i - j]);
    }
    t[i - k] = static_cast<Word>(lo);
    carry = (lo >> bits) + hi;
  }
  t[k - 1] = static_cast<Word>(carry);
  t[k] = static_cast<Word>(carry >> bits);
}

template <std::size_t K>
using Fixed = std::integral_constant<std::size_t, K>;

#if defined(__SIZEOF_INT128__)
// With an even digit count the product can run on 64-bit limbs, a quarter of the
// multiplications; R is unchanged, so results are identical.

// toLimbs packs digit pairs into limbs, padding with zero digits up to `limbs` limbs.
void toLimbs(Limb* out, const std::vector<Digit>& d, std::size_t limbs) {
  for (std::size_t i = 0; i < limbs; ++i) {
    const Digit low = 2 * i < d.size() ? d[2 * i] : 0, high = 2 * i + 1 < d.size() ? d[2 * i + 1] : 0;
    out[i] = Limb{high} << 32 | low;
  }
}

// montMulWide is montMul for an even digit count k on limbs; nPrime32 is −n⁻¹ mod 2^32.
void montMulWide(BigNum& r, const BigNum& a, const BigNum& b, const BigNum& n, Digit nPrime32) {
  const std::size_t limbs = n.size() / 2;
  Limb t[kMaxInterleaved / 2 + 1], al[kMaxInterleaved / 2], bl[kMaxInterleaved / 2], nl[kMaxInterleaved / 2];
  toLimbs(al, a.digits(), limbs);
  toLimbs(bl, b.digits(), limbs);
  toLimbs(nl, n.digits(), limbs);
  // Lift −n⁻¹ from mod 2^32 to mod 2^64 with one Newton step on the inverse.
  const Limb inv32 = Limb{static_cast<Digit>(0u - nPrime32)};
  const Limb nPrime = 0 - inv32 * (2 - nl[0] * inv32);
  switch (limbs) {
    case 3: fips(t, al, bl, nl, nPrime, Fixed<3>{}); break;  // P-192
    case 4: fips(t, al, bl, nl, nPrime, Fixed<4>{}); break;  // P-256
    case 6: fips(t, al, bl, nl, nPrime, Fixed<6>{}); break;  // P-384
    default: fips(t, al, bl, nl, nPrime, limbs); break;
  }
  std::vector<Digit>& out = r.digits();
  out.resize(2 * limbs + 2);
  for (std::size_t i = 0; i <= limbs; ++i) {
    out[2 * i] = static_cast<Digit>(t[i]);
    out[2 * i + 1] = static_cast<Digit>(t[i] >> 32);
  }
  r.clamp();
  if (!(r < n)) r -= n;
}
#endif

// montMul sets r = a·b·R⁻¹ mod n for operands of at most k digits. The result equals
// reduce(a·b): both add the unique M < R with a·b + M·n ≡ 0 (mod R), then subtract n once.
void montMul(BigNum& r, const BigNum& a, const BigNum& b, const BigNum& n, Digit nPrime) {
  const std::size_t k = n.size();
#if defined(__SIZEOF_INT128__)
  if (k % 2 == 0 && wideLimbsInUse()) return montMulWide(r, a, b, n, nPrime);
#endif
  // The operands are padded to k digits; nothing beyond the digits in use is touched, since
  // these calls are the curves' inner loop.
  Digit t[kMaxInterleaved + 1], ad[kMaxInterleaved], bd[kMaxInterleaved];
  std::fill(std::copy(a.digits().begin(), a.digits().end(), ad), ad + k, 0);
  std::fill(std::copy(b.digits().begin(), b.digits().end(), bd), bd + k, 0);
  const Digit* nd = n.digits().data();
  switch (k) {
    case 6: fips(t, ad, bd, nd, nPrime, Fixed<6>{}); break;    // P-192
    case 7: fips(t, ad, bd, nd, nPrime, Fixed<7>{}); break;    // P-224
    case 8: fips(t, ad, bd, nd, nPrime, Fixed<8>{}); break;    // P-256
    case 12: fips(t, ad, bd, nd, nPrime, Fixed<12>{}); break;  // P-384
    case 17: fips(t, ad, bd, nd, nPrime, Fixed<17>{}); break;  // P-521
    default: fips(t, ad, bd, nd, nPrime, k); break;
  }
  r.digits().assign(t, t + k + 1);
  r.clamp();
  if (!(r < n)) r -= n;
}

}  // namespace

void MontgomeryReducer::mul(BigNum& r, const BigNum& a, const BigNum& b) const {
  const std::size_t k = mod().size();
  if (k > kMaxInterleaved || a.size() > k || b.size() > k) return Reducer::mul(r, a, b);
  montMul(r, a, b, mod(), nPrime_);
}

void MontgomeryReducer::sqr(BigNum& r, const BigNum& a) const {
  const std::size_t k = mod().size();
  // On limbs the interleaved product beats a plain square and a separate reduction at any size.
  const bool wide = k % 2 == 0 && wideLimbsInUse();
  if (k > (wide ? kMaxInterleaved : kMaxInterleavedSquare) || a.size() > k) return Reducer::sqr(r, a);
  montMul(r, a, a, mod(), nPrime_);
}

RedNum MontgomeryReducer::fromBigNum(const BigNum& x) const {
  if (x.isZero()) return RedNum(BigNum(0u), this);
  if (x == BigNum(1u)) return RedNum(one_, this);
  BigNum product, rem;
  tessel::mul(product, x, one_);
  div(product, mod(), nullptr, &rem);
  return RedNum(std::move(rem), this);
}

RedNum MontgomeryReducer::fromBigNum(BigNum&& x) const { return fromBigNum(static_cast<const BigNum&>(x)); }

BigNum MontgomeryReducer::toBigNum(RedNum&& x) const {
  reduce(x.value);
  return std::move(x.value);
}

// ---- 2^255 − 19 ----

namespace {

const BigNum& modulus25519() {
  static const BigNum p = (BigNum(1u) << 255) - BigNum(19u);
  return p;
}

}  // namespace

Mod25519Reducer::Mod25519Reducer() : Reducer(modulus25519()) {}

void Mod25519Reducer::reduce(BigNum& x) const { x.reduce(mod(), 38); }

void Mod25519Reducer::mul(BigNum& r, const BigNum& a, const BigNum& b) const {
  mul256(r, a, b);
  reduce(r);
}

void Mod25519Reducer::mul(BigNum& r, unsigned k) const {
  r *= k;
  reduce(r);
}

void Mod25519Reducer::sqr(BigNum& r, const BigNum& a) const {
  sqr256(r, a);
  reduce(r);
}

// ---- exponentiation ----

namespace {

// windowWidth trades the table size against multiplications by the exponent's length.
unsigned windowWidth(unsigned bits) {
  if (bits > 671) return 6;
  if (bits > 239) return 5;
  if (bits > 79) return 4;
  if (bits > 23) return 3;
  return 1;
}

// squareTimes squares r in place `times` times, using `tmp` as the second buffer.
void squareTimes(RedNum& r, RedNum& tmp, unsigned times) {
  for (unsigned i = 0; i < times; ++i) {
    sqr(tmp, r);
    std::swap(r, tmp);
  }
}

void multiplyBy(RedNum& r, RedNum& tmp, const RedNum& factor) {
  mul(tmp, r, factor);
  std::swap(r, tmp);
}

}  // namespace

RedNum expByMod(const RedNum& base, const BigNum& e, const Reducer& red) {
  const unsigned w = windowWidth(e.bits());
  // Entry j holds base^j; only 1 and 2^(w−1) … 2^w − 1 are ever filled or used.
  std::vector<RedNum> table(std::size_t{1} << w);
  table[1] = base;
  RedNum tmp;
  if (w > 1) {
    const unsigned half = 1u << (w - 1);
    table[half] = base;
    squareTimes(table[half], tmp, w - 1);
    for (unsigned j = half + 1; j < (1u << w); ++j) mul(table[j], table[j - 1], table[1]);
  }

  RedNum result = red.fromBigNum(BigNum(1u));
  unsigned window = 0, taken = 0;  // the open window's bits and how many there are
  bool started = false;            // squaring the form of 1 before the first 1 bit is skipped
  for (unsigned i = e.size(); i-- > 0;) {
    for (int b = 31; b >= 0; --b) {
      const unsigned bit = (e[i] >> b) & 1;
      if (taken == 0 && bit == 0) {
        if (started) squareTimes(result, tmp, 1);
        continue;
      }
      started = true;
      window = 2 * window + bit;
      if (++taken == w) {
        squareTimes(result, tmp, w);
        multiplyBy(result, tmp, table[window]);
        window = taken = 0;
      }
    }
  }
  // An exponent that ends inside a window finishes it bit by bit.
  for (unsigned k = taken; k-- > 0;) {
    squareTimes(result, tmp, 1);
    if ((window >> k) & 1) multiplyBy(result, tmp, table[1]);
  }
  return result;
}

BigNum expByMod(const BigNum& a, const BigNum& e, const BigNum& m) {
  const MontgomeryReducer red(m);
  const RedNum base = red.fromBigNum(a);
  return red.toBigNum(expByMod(base, e, red));
}

// ---- random numbers ----

bool randomBigNum(BigNum* out, const BigNum& max, const Rng& constRng) {
  // Random sources keep their state (if any) behind generate(); the const in the signature is
  // the callers' view, not a promise that the source is left untouched.
  Rng& rng = const_cast<Rng&>(constRng);
  const unsigned bits = max.bits();
  const unsigned len = (bits + 7) / 8, topBits = bits % 8;
  std::vector<unsigned char> buf(len);
  for (int attempt = 0; attempt < 100; ++attempt) {
    if (!rng.generate(buf.data(), len)) return false;
    if (topBits) buf[0] &= static_cast<unsigned char>((1u << topBits) - 1);
    *out = BigNum(asn1::blob(buf));
    if (*out <= max && !out->isZero()) return true;
  }
  return false;
}

}  // namespace tessel
