#include "bignum/mont_ct.h"

#include <algorithm>

#include "core/secret.h"
#include "tessel/assert.h"

namespace tessel::ct {

namespace {

#if defined(__SIZEOF_INT128__)
using Wide = unsigned __int128;
#else
using Wide = std::uint64_t;
#endif
constexpr unsigned digitsPerLimb = sizeof(Limb) / sizeof(BigNum::Digit);

// Scratch is a limb buffer on the stack for the usual sizes (up to 8,192-bit moduli) and on the
// heap beyond; the choice depends on the public width only.
class Scratch {
 public:
  explicit Scratch(std::size_t n) : p_(n <= kStack ? stack_ : (heap_.resize(n), heap_.data())) {}
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  Limb* get() { return p_; }

 private:
  static constexpr std::size_t kStack = 8192 / limbBits * 2 + 4;
  Limb stack_[kStack];
  std::vector<Limb> heap_;
  Limb* p_;
};

Limb borrowMask(Limb borrow) { return static_cast<Limb>(0 - valueBarrier(borrow)); }

// addLimbs sets r = a + b over n limbs and returns the carry (0 or 1).
Limb addLimbs(Limb* r, const Limb* a, const Limb* b, std::size_t n) {
  Limb carry = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const Wide t = static_cast<Wide>(a[i]) + b[i] + carry;
    r[i] = static_cast<Limb>(t);
    carry = static_cast<Limb>(t >> limbBits);
  }
  return carry;
}

// limbBitLength returns the bit length of x without a branch on its value.
unsigned limbBitLength(Limb x) {
  Limb len = 0;
  for (unsigned b = 0; b < limbBits; ++b) {
    const Limb nonZero = static_cast<Limb>(~isZeroMask<Limb>(static_cast<Limb>(x >> b)));
    len = ct::select<Limb>(nonZero, b + 1, len);
  }
  return static_cast<unsigned>(len);
}

// cios leaves a·b·R⁻¹ (below 2n when a or b is below n) in t[0..s], for mul. Everything is passed
// in and t is restrict, so that the compiler keeps the modulus, n′ and the carries in registers
// instead of reloading them after every store to t.
void cios(Limb* __restrict t, const Limb* a, const Limb* b, const Limb* n, const Limb nPrime, const std::size_t s) {
  std::fill(t, t + s + 2, 0);
  for (std::size_t i = 0; i < s; ++i) {
    Limb c = 0;
    const Limb bi = b[i];
    for (std::size_t k = 0; k < s; ++k) {
      const Wide w = static_cast<Wide>(a[k]) * bi + t[k] + c;
      t[k] = static_cast<Limb>(w);
      c = static_cast<Limb>(w >> limbBits);
    }
    Wide w = static_cast<Wide>(t[s]) + c;
    t[s] = static_cast<Limb>(w);
    t[s + 1] = static_cast<Limb>(w >> limbBits);
    const Limb m = static_cast<Limb>(t[0] * nPrime);
    w = static_cast<Wide>(m) * n[0] + t[0];
    c = static_cast<Limb>(w >> limbBits);
    for (std::size_t k = 1; k < s; ++k) {
      w = static_cast<Wide>(m) * n[k] + t[k] + c;
      t[k - 1] = static_cast<Limb>(w);
      c = static_cast<Limb>(w >> limbBits);
    }
    w = static_cast<Wide>(t[s]) + c;
    t[s - 1] = static_cast<Limb>(w);
    t[s] = static_cast<Limb>(t[s + 1] + static_cast<Limb>(w >> limbBits));
  }
}

}  // namespace

// subLimbs sets r = a − b over n limbs and returns the borrow (0 or 1).
Limb subLimbs(Limb* r, const Limb* a, const Limb* b, std::size_t n) {
  Limb borrow = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const Wide t = static_cast<Wide>(a[i]) - b[i] - borrow;
    r[i] = static_cast<Limb>(t);
    borrow = static_cast<Limb>(t >> limbBits) & 1;
  }
  return borrow;
}

MontModulus::MontModulus(const BigNum& n) : MontModulus(n, SecretModulus{}) { TESSEL_ASSERT(n.isOdd()); }

MontModulus::MontModulus(const BigNum& n, SecretModulus) {
  const std::size_t s = (n.size() + digitsPerLimb - 1) / digitsPerLimb;
  n_.assign(s, 0);
  fromDigits(n_.data(), n);
  // −n⁻¹ mod 2^limbBits by Newton's iteration: each step doubles the number of correct low bits,
  // starting from the 3 that n itself gets right for any odd n.
  Limb inv = n_[0];
  for (int i = 0; i < 6; ++i) inv = static_cast<Limb>(inv * (2 - n_[0] * inv));
  nPrime_ = static_cast<Limb>(0 - inv);
  Limb len = 0;
  for (std::size_t i = 0; i < s; ++i) {
    const Limb l = limbBitLength(n_[i]);
    len = ct::select<Limb>(static_cast<Limb>(~isZeroMask<Limb>(l)), static_cast<Limb>(i * limbBits + l), len);
  }
  bits_ = static_cast<unsigned>(len);
  computeRR();
}

void MontModulus::fromDigits(Limb* r, const BigNum& x) const {
  const std::size_t s = n_.size();
  TESSEL_ASSERT(x.size() <= s * digitsPerLimb);
  std::fill(r, r + s, 0);
  for (std::size_t i = 0; i < x.size(); ++i)
    r[i / digitsPerLimb] |=
        static_cast<Limb>(static_cast<Limb>(x[static_cast<unsigned>(i)]) << (32 * (i % digitsPerLimb)));
}

// computeRR finds R² mod n without dividing, so that a secret modulus (an RSA prime) leaves no
// trace: 2^(limbBits·(s−1)) is below n because n's top limb is non-zero, limbBits doublings
// bring it to R mod n, j more give 2^j·R, and t Montgomery squarings give 2^(j·2^t)·R = R² for
// j·2^t = limbBits·s.
void MontModulus::computeRR() {
  const std::size_t s = n_.size();
  std::vector<Limb> x(s, 0);
  x[s - 1] = 1;
  std::size_t j = limbBits * s;
  unsigned t = 0;
  while (j % 2 == 0) {
    j /= 2;
    ++t;
  }
  for (std::size_t i = 0; i < limbBits + j; ++i) add(x.data(), x.data(), x.data());
  for (unsigned i = 0; i < t; ++i) mul(x.data(), x.data(), x.data());
  rr_ = std::move(x);
}

// mul is CIOS Montgomery multiplication: one row of a·b[i] then one reduction step per limb of
// b, keeping s + 2 limbs, and a final subtraction chosen by mask. (Fusing the two rows into one
// pass needs two carries, which GCC spills to the stack: it measured 1.6 times slower.)
void MontModulus::mul(Limb* r, const Limb* a, const Limb* b) const {
  const std::size_t s = n_.size();
  const Limb* n = n_.data();
  Scratch scratch(s + 2);
  Limb* t = scratch.get();
  cios(t, a, b, n, nPrime_, s);
  // t < 2n: subtract n, and keep the difference unless it borrowed past t's top limb.
  const Limb borrow = subLimbs(r, t, n, s);
  const Limb keepT = borrowMask(static_cast<Limb>(borrow & ~t[s] & 1));
  conditionalCopy(r, t, s, keepT);
}

void MontModulus::add(Limb* r, const Limb* a, const Limb* b) const {
  const std::size_t s = n_.size();
  Scratch scratch(s);
  Limb* sum = scratch.get();
  const Limb carry = addLimbs(sum, a, b, s);
  const Limb borrow = subLimbs(r, sum, n_.data(), s);
  // The sum is below n exactly when subtracting n borrows and the addition did not carry.
  conditionalCopy(r, sum, s, borrowMask(static_cast<Limb>(borrow & ~carry & 1)));
}

void MontModulus::sub(Limb* r, const Limb* a, const Limb* b) const {
  const std::size_t s = n_.size();
  Scratch scratch(s);
  Limb* masked = scratch.get();
  const Limb borrow = subLimbs(r, a, b, s);
  const Limb mask = borrowMask(borrow);
  for (std::size_t i = 0; i < s; ++i) masked[i] = n_[i] & mask;
  addLimbs(r, r, masked, s);
}

void MontModulus::toMont(Limb* r, const Limb* a) const { mul(r, a, rr_.data()); }

void MontModulus::fromMont(Limb* r, const Limb* a) const {
  const std::size_t s = n_.size();
  Scratch scratch(s);
  Limb* plainOne = scratch.get();
  std::fill(plainOne, plainOne + s, 0);
  plainOne[0] = 1;
  mul(r, a, plainOne);
}

void MontModulus::one(Limb* r) const {
  const std::size_t s = n_.size();
  Scratch scratch(s);
  Limb* plainOne = scratch.get();
  std::fill(plainOne, plainOne + s, 0);
  plainOne[0] = 1;
  mul(r, plainOne, rr_.data());
}

// toMontWide works through a from its top in chunks of limbs() limbs, by Horner's rule in
// Montgomery form: acc·R² · R⁻¹ shifts the value by one chunk, and a chunk (below R, but perhaps
// not below n) times R² mod n is its own Montgomery form, since CIOS only needs one operand below n.
void MontModulus::toMontWide(Limb* r, const Limb* a, std::size_t aLimbs) const {
  const std::size_t s = n_.size();
  Scratch scratch(3 * s);
  Limb* acc = scratch.get();
  Limb* chunk = acc + s;
  Limb* term = chunk + s;
  std::fill(acc, acc + s, 0);
  for (std::size_t top = (aLimbs + s - 1) / s * s; top > 0; top -= s) {
    for (std::size_t i = 0; i < s; ++i) chunk[i] = top - s + i < aLimbs ? a[top - s + i] : 0;
    mul(acc, acc, rr_.data());
    mul(term, chunk, rr_.data());
    add(acc, acc, term);
  }
  std::copy(acc, acc + s, r);
}

void MontModulus::exp(Limb* r, const Limb* a, const unsigned char* e, std::size_t eLen) const {
  const std::size_t s = n_.size();
  const std::size_t eBits = 8 * eLen;
  // Wider windows save products on long exponents and cost table entries on short ones.
  const unsigned w = eBits > 512 ? 5 : 4;
  const std::size_t entries = std::size_t{1} << w;
  std::vector<Limb> table(entries * s);
  one(table.data());
  std::copy(a, a + s, table.data() + s);
  for (std::size_t i = 2; i < entries; ++i) mul(table.data() + i * s, table.data() + (i - 1) * s, a);
  Scratch scratch(2 * s);
  Limb* acc = scratch.get();
  Limb* entry = acc + s;
  one(acc);
  // Windows are taken from the top; the first one holds the eBits mod w leftover bits.
  std::size_t pos = eBits;
  const std::size_t first = eBits % w == 0 ? w : eBits % w;
  for (std::size_t width = first; pos > 0; pos -= width, width = w) {
    Limb window = 0;
    for (std::size_t k = 1; k <= width; ++k) {
      const std::size_t bit = pos - k;
      const Limb v = static_cast<Limb>((e[eLen - 1 - bit / 8] >> (bit % 8)) & 1);
      window = static_cast<Limb>((window << 1) | v);
    }
    for (std::size_t k = 0; k < width; ++k) sqr(acc, acc);
    select(entry, table.data(), entries, s, window);
    mul(acc, acc, entry);
  }
  std::copy(acc, acc + s, r);
  wipe(table.data(), table.size() * sizeof(Limb));
}

void MontModulus::expPublic_vartime(Limb* r, const Limb* a, const BigNum& e) const {
  const std::size_t s = n_.size();
  Scratch scratch(2 * s);
  Limb* base = scratch.get();
  Limb* acc = base + s;
  std::copy(a, a + s, base);
  one(acc);
  for (unsigned i = e.bits(); i-- > 0;) {
    sqr(acc, acc);
    if (e.getBit(i)) mul(acc, acc, base);
  }
  std::copy(acc, acc + s, r);
}

void MontModulus::invPrime(Limb* r, const Limb* a) const {
  BigNum e = toBigNum_vartime(n_.data());
  e -= BigNum(2);
  expPublic_vartime(r, a, e);
}

namespace {

bool isEven(const std::vector<Limb>& x) { return (x[0] & 1) == 0; }

void halve(std::vector<Limb>& x, Limb top) {
  for (std::size_t i = 0; i + 1 < x.size(); ++i) x[i] = static_cast<Limb>((x[i] >> 1) | (x[i + 1] << (limbBits - 1)));
  x.back() = static_cast<Limb>((x.back() >> 1) | (top << (limbBits - 1)));
}

// compare returns −1, 0 or 1 as x is below, equal to or above y.
int compare(const std::vector<Limb>& x, const std::vector<Limb>& y) {
  for (std::size_t i = x.size(); i-- > 0;)
    if (x[i] != y[i]) return x[i] < y[i] ? -1 : 1;
  return 0;
}

}  // namespace

// inv_vartime keeps x1·a ≡ u and x2·a ≡ v (mod n) while u and v shrink to their gcd; x/2 mod n
// is (x + n)/2 for odd x, n being odd.
bool MontModulus::inv_vartime(Limb* r, const Limb* a) const {
  const std::size_t s = n_.size();
  std::vector<Limb> u(a, a + s), v(n_), x1(s, 0), x2(s, 0);
  x1[0] = 1;
  if (std::all_of(u.begin(), u.end(), [](Limb l) { return l == 0; })) return false;
  auto halveMod = [&](std::vector<Limb>& x) {
    Limb carry = 0;
    if (!isEven(x)) carry = addLimbs(x.data(), x.data(), n_.data(), s);
    halve(x, carry);
  };
  for (;;) {
    for (; isEven(u); halve(u, 0)) halveMod(x1);
    for (; isEven(v); halve(v, 0)) halveMod(x2);
    const int order = compare(u, v);
    if (order == 0) break;
    if (order > 0) {
      subLimbs(u.data(), u.data(), v.data(), s);
      sub(x1.data(), x1.data(), x2.data());
    } else {
      subLimbs(v.data(), v.data(), u.data(), s);
      sub(x2.data(), x2.data(), x1.data());
    }
  }
  std::copy(x1.begin(), x1.end(), r);
  return u[0] == 1 && std::all_of(u.begin() + 1, u.end(), [](Limb l) { return l == 0; });
}

void MontModulus::fromBytes(Limb* r, const unsigned char* in, std::size_t len) const {
  const std::size_t s = n_.size();
  std::fill(r, r + s, 0);
  for (std::size_t i = 0; i < len && i < s * sizeof(Limb); ++i)
    r[i / sizeof(Limb)] |= static_cast<Limb>(static_cast<Limb>(in[len - 1 - i]) << (8 * (i % sizeof(Limb))));
}

void MontModulus::toBytes(unsigned char* out, std::size_t len, const Limb* r) const {
  const std::size_t s = n_.size();
  for (std::size_t i = 0; i < len; ++i) {
    const std::size_t limb = i / sizeof(Limb);
    out[len - 1 - i] = limb < s ? static_cast<unsigned char>(r[limb] >> (8 * (i % sizeof(Limb)))) : 0;
  }
}

void MontModulus::fromBigNum(Limb* r, const BigNum& x) const { fromDigits(r, x); }

BigNum MontModulus::toBigNum_vartime(const Limb* r) const {
  BigNum x;
  auto& d = x.digits();
  d.assign(n_.size() * digitsPerLimb, 0);
  for (std::size_t i = 0; i < d.size(); ++i)
    d[i] = static_cast<BigNum::Digit>(r[i / digitsPerLimb] >> (32 * (i % digitsPerLimb)));
  x.clamp();
  return x;
}

void select(Limb* r, const Limb* table, std::size_t entries, std::size_t width, std::size_t index) {
  std::fill(r, r + width, 0);
  for (std::size_t i = 0; i < entries; ++i) {
    const Limb mask = equalMask<Limb>(static_cast<Limb>(i), static_cast<Limb>(index));
    for (std::size_t k = 0; k < width; ++k) r[k] |= table[i * width + k] & mask;
  }
}

void conditionalCopy(Limb* r, const Limb* a, std::size_t width, Limb mask) {
  for (std::size_t i = 0; i < width; ++i) r[i] = ct::select<Limb>(mask, a[i], r[i]);
}

}  // namespace tessel::ct
