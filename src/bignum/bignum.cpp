// BigNum: representation, conversions, bit operations, shifts, sums and products.
#include "tessel/bignum.h"

#include <algorithm>
#include <bit>
#include <cstdio>

#include "tessel/assert.h"

namespace tessel {

namespace {

using Digit = BigNum::Digit;
using Wide = std::uint64_t;

Digit lo(Wide w) { return static_cast<Digit>(w); }
Digit hi(Wide w) { return static_cast<Digit>(w >> 32); }

// mul4 writes the 8-digit product of the 4-digit numbers a and b, one column at a time. A
// column sums the low and the high halves of its partial products apart, so nothing overflows.
#define TESSEL_TERM(i, j) (p = Wide{a[i]} * b[j], l += lo(p), h += hi(p))
#define TESSEL_COLUMN(k) (l += carry, out[k] = lo(l), carry = (l >> 32) + h, l = h = 0)
inline void mul4(Digit* out, const Digit* a, const Digit* b) {
  Wide carry = 0, l = 0, h = 0, p;
  TESSEL_TERM(0, 0), TESSEL_COLUMN(0);
  TESSEL_TERM(0, 1), TESSEL_TERM(1, 0), TESSEL_COLUMN(1);
  TESSEL_TERM(0, 2), TESSEL_TERM(1, 1), TESSEL_TERM(2, 0), TESSEL_COLUMN(2);
  TESSEL_TERM(0, 3), TESSEL_TERM(1, 2), TESSEL_TERM(2, 1), TESSEL_TERM(3, 0), TESSEL_COLUMN(3);
  TESSEL_TERM(1, 3), TESSEL_TERM(2, 2), TESSEL_TERM(3, 1), TESSEL_COLUMN(4);
  TESSEL_TERM(2, 3), TESSEL_TERM(3, 2), TESSEL_COLUMN(5);
  TESSEL_TERM(3, 3), TESSEL_COLUMN(6);
  out[7] = lo(carry);
}
#undef TESSEL_TERM
#undef TESSEL_COLUMN

// addCross adds the 8-digit block c into r[4..15] with a carry chain. The top of a product of
// two 8-digit numbers cannot overflow 16 digits, so the final carry is always zero.
inline void addCross(Digit* r, const Digit* c) {
  Wide t = 0;
  for (int k = 0; k < 8; ++k) r[4 + k] = lo(t = Wide{r[4 + k]} + c[k] + hi(t));
  for (int k = 12; k < 16; ++k) r[k] = lo(t = Wide{r[k]} + hi(t));
}

}  // namespace

// ---- construction and conversion ----

BigNum::BigNum(asn1::blob bytes) {
  const std::size_t n = bytes.size();
  d_.assign(n / 4 + (n % 4 ? 1 : 0), 0);
  if (d_.empty()) d_.push_back(0);
  // Byte k from the end lands in digit k/4 at shift 8·(k mod 4).
  for (std::size_t k = 0; k < n; ++k) d_[k / 4] |= Digit{bytes[n - 1 - k]} << (8 * (k % 4));
  clamp();
}

BigNum::BigNum(asn1::blob bytes, little_endian) {
  const std::size_t n = bytes.size();
  d_.assign(n / 4 + (n % 4 ? 1 : 0), 0);
  if (d_.empty()) d_.push_back(0);
  for (std::size_t k = 0; k < n; ++k) d_[k / 4] |= Digit{bytes[k]} << (8 * (k % 4));
  clamp();
}

BigNum bn64(unsigned long long v) {
  BigNum r = bn2(static_cast<unsigned>(v), static_cast<unsigned>(v >> 32));
  return r;
}

BigNum bn2(unsigned lo, unsigned hi) {
  BigNum r;
  r.digits() = {lo, hi};
  r.clamp();
  return r;
}

BigNum bn3(unsigned d0, unsigned d1, unsigned d2) {
  BigNum r;
  r.digits() = {d0, d1, d2};
  r.clamp();
  return r;
}

std::vector<unsigned char> BigNum::bin(little_endian) const {
  std::vector<unsigned char> out;
  out.reserve(d_.size() * 4);
  for (Digit x : d_)
    for (int s = 0; s < 32; s += 8) out.push_back(static_cast<unsigned char>(x >> s));
  while (!out.empty() && out.back() == 0) out.pop_back();
  return out;
}

std::vector<unsigned char> BigNum::bin(unsigned len) const {
  std::vector<unsigned char> le = bin(little_endian{});
  std::vector<unsigned char> out(std::max<std::size_t>(len, le.size()), 0);
  std::copy(le.rbegin(), le.rend(), out.end() - static_cast<std::ptrdiff_t>(le.size()));
  return out;
}

std::string BigNum::str() const {
  std::string out;
  char buf[9];
  for (std::size_t i = d_.size(); i-- > 0;) {
    // The top digit goes without padding, every digit below it as exactly eight characters.
    std::snprintf(buf, sizeof buf, i + 1 == d_.size() ? "%x" : "%08x", static_cast<unsigned>(d_[i]));
    out += buf;
  }
  return out;
}

std::string BigNum::strDigits() const {
  std::string out;
  char buf[9];
  for (std::size_t i = d_.size(); i-- > 0;) {
    std::snprintf(buf, sizeof buf, "%.8x", static_cast<unsigned>(d_[i]));
    if (!out.empty()) out += '.';
    out += buf;
  }
  return out;
}

std::string BigNum::strDec() const {
  static const BigNum kChunk(1000000000u);
  std::vector<Digit> chunks;
  BigNum rest = *this, q, r;
  do {
    div(rest, kChunk, &q, &r);
    chunks.push_back(r[0]);
    rest.swap(q);
  } while (!rest.isZero());
  std::string out = std::to_string(chunks.back());
  char buf[10];
  for (std::size_t i = chunks.size() - 1; i-- > 0;) {
    std::snprintf(buf, sizeof buf, "%09u", static_cast<unsigned>(chunks[i]));
    out += buf;
  }
  return out;
}

// ---- bits ----

void BigNum::clamp() {
  while (d_.size() > 1 && d_.back() == 0) d_.pop_back();
}

void BigNum::push(Digit v) { d_.push_back(v); }

unsigned BigNum::bits() const {
  if (d_.empty()) return 0;
  const unsigned top = static_cast<unsigned>(std::bit_width(d_.back()));
  if (top == 0) return 0;
  return 32 * (size() - 1) + top;
}

unsigned lsb(const BigNum& x) {
  for (unsigned i = 0; i < x.size(); ++i)
    if (x[i]) return 32 * i + static_cast<unsigned>(std::countr_zero(x[i]));
  return 0;
}

bool BigNum::getBit(unsigned i) const { return i / 32 < d_.size() && ((d_[i / 32] >> (i % 32)) & 1); }

void BigNum::setBit(unsigned i, bool v) {
  while (d_.size() <= i / 32) push(0);
  const Digit mask = Digit{1} << (i % 32);
  if (v) d_[i / 32] |= mask;
  else d_[i / 32] &= ~mask;
}

void BigNum::modBy2Pow(unsigned k) {
  if (k / 32 >= d_.size()) return;  // k ≥ 32·size: the value already fits.
  d_.resize(k / 32 + (k % 32 ? 1 : 0));
  if (k % 32) d_.back() &= (Digit{1} << (k % 32)) - 1;
  clamp();
}

// ---- shifts ----

void BigNum::shiftLeftByDigits(unsigned n) { d_.insert(d_.begin(), n, 0); }

void BigNum::shiftRightByDigits(unsigned n) {
  if (n >= d_.size()) {
    d_.assign(1, 0);
    return;
  }
  d_.erase(d_.begin(), d_.begin() + n);
}

BigNum& BigNum::operator<<=(unsigned k) {
  if (k / 32) shiftLeftByDigits(k / 32);
  return *this *= Digit{1} << (k % 32);
}

BigNum& BigNum::operator>>=(unsigned k) {
  if (k / 32) shiftRightByDigits(k / 32);
  if (const unsigned s = k % 32) {
    const std::size_t n = d_.size();
    for (std::size_t i = 0; i < n; ++i) {
      const Digit above = i + 1 < n ? d_[i + 1] : 0;
      d_[i] = (d_[i] >> s) | (above << (32 - s));
    }
  }
  clamp();
  return *this;
}

BigNum operator<<(const BigNum& x, unsigned k) {
  if (x.size() == 1 && x[0] == 1) {
    // 2^k directly: no digit moves needed.
    BigNum r;
    r.digits().assign(k / 32 + 1, 0);
    r.digits().back() = Digit{1} << (k % 32);
    return r;
  }
  BigNum r = x;
  r <<= k;
  return r;
}

BigNum operator>>(const BigNum& x, unsigned k) {
  BigNum r = x;
  r >>= k;
  return r;
}

// ---- addition and subtraction ----

void BigNum::addToDigit(unsigned i, Digit v) {
  if (i >= d_.size()) {
    if (v) push(v);
    return;
  }
  for (; i < d_.size(); ++i) {
    const Digit old = d_[i];
    d_[i] = old + v;
    if (d_[i] >= old) return;  // no carry out of this digit
    v = 1;
  }
  push(1);
}

BigNum& BigNum::operator+=(unsigned v) {
  const Digit old = d_[0];
  d_[0] = old + v;
  if (d_[0] < old) addToDigit(1, 1);
  return *this;
}

BigNum& BigNum::operator+=(const BigNum& x) {
  if (&x == this) return *this <<= 1;
  if (d_.size() < x.d_.size()) d_.resize(x.d_.size(), 0);
  Digit carry = 0;
  for (std::size_t i = 0; i < x.d_.size(); ++i) {
    const Wide t = Wide{d_[i]} + x.d_[i] + carry;
    d_[i] = lo(t);
    carry = hi(t);
  }
  if (carry) addToDigit(x.size(), 1);
  return *this;
}

BigNum& BigNum::operator-=(const BigNum& x) {
  TESSEL_ASSERT_LINE(size() >= x.size(), 252);
  Digit borrow = 0;
  std::size_t i = 0;
  for (; i < x.d_.size(); ++i) {
    const Wide t = Wide{d_[i]} - x.d_[i] - borrow;
    d_[i] = lo(t);
    borrow = hi(t) ? 1 : 0;
  }
  for (; borrow && i < d_.size(); ++i) borrow = d_[i]-- == 0 ? 1 : 0;
  clamp();
  return *this;
}

BigNum operator+(BigNum a, const BigNum& b) {
  a += b;
  return a;
}

BigNum operator-(BigNum a, const BigNum& b) {
  a -= b;
  return a;
}

// ---- multiplication ----

BigNum& BigNum::operator*=(unsigned w) {
  Digit carry = 0;
  for (Digit& x : d_) {
    const Wide t = Wide{x} * w + carry;
    x = lo(t);
    carry = hi(t);
  }
  if (carry) push(carry);
  return *this;
}

BigNum& BigNum::operator*=(const BigNum& x) {
  BigNum tmp;
  mul(tmp, *this, x);
  d_.swap(tmp.d_);
  return *this;
}

BigNum operator*(const BigNum& a, const BigNum& b) {
  BigNum r;
  mul(r, a, b);
  return r;
}

void mul(BigNum& r, const BigNum& a, const BigNum& b) {
  const std::size_t na = a.size(), nb = b.size();
  std::vector<Digit>& rd = r.digits();
  rd.assign(na + nb, 0);
  const Digit* bd = b.digits().data();
  for (std::size_t i = 0; i < na; ++i) {
    const Digit ai = a[static_cast<unsigned>(i)];
    if (!ai) continue;
    Digit carry = 0;
    Digit* row = rd.data() + i;
    for (std::size_t j = 0; j < nb; ++j) {
      const Wide t = Wide{ai} * bd[j] + row[j] + carry;
      row[j] = lo(t);
      carry = hi(t);
    }
    row[nb] = carry;
  }
  r.clamp();
}

void sqr(BigNum& r, const BigNum& a) {
  const std::size_t n = a.size();
  std::vector<Digit>& rd = r.digits();
  rd.assign(2 * n, 0);
  const Digit* ad = a.digits().data();
  // Cross products a[i]·a[j] for i < j, each once.
  for (std::size_t i = 0; i + 1 < n; ++i) {
    if (!ad[i]) continue;
    Digit carry = 0;
    Digit* row = rd.data() + i;
    for (std::size_t j = i + 1; j < n; ++j) {
      const Wide t = Wide{ad[i]} * ad[j] + row[j] + carry;
      row[j] = lo(t);
      carry = hi(t);
    }
    row[n] = carry;
  }
  // Double them, then add the squares on the diagonal.
  Digit top = 0;
  for (std::size_t k = 0; k < 2 * n; ++k) {
    const Digit v = rd[k];
    rd[k] = (v << 1) | top;
    top = v >> 31;
  }
  Digit carry = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const Wide sq = Wide{ad[i]} * ad[i];
    Wide t = Wide{rd[2 * i]} + lo(sq) + carry;
    rd[2 * i] = lo(t);
    t = Wide{rd[2 * i + 1]} + hi(sq) + hi(t);
    rd[2 * i + 1] = lo(t);
    carry = hi(t);
  }
  r.clamp();
}

// ---- 256-bit fast paths ----

namespace {

// product256 sets r to the 16 digits of x·y from four 4×4-digit blocks: low·low at digit 0,
// high·high at digit 8 and the two cross blocks added at digit 4. A square forms its cross
// block once and adds it twice.
void product256(BigNum& r, const Digit* x, const Digit* y) {
  std::vector<Digit>& rd = r.digits();
  rd.resize(16);
  Digit cross[8];
  mul4(rd.data(), x, y);
  mul4(rd.data() + 8, x + 4, y + 4);
  mul4(cross, x, y + 4);
  addCross(rd.data(), cross);
  if (x != y) mul4(cross, x + 4, y);
  addCross(rd.data(), cross);
}

}  // namespace

void mul256(BigNum& r, const BigNum& a, const BigNum& b) {
  if (a.size() != 8 || b.size() != 8) return mul(r, a, b);
  product256(r, a.digits().data(), b.digits().data());
}

void sqr256(BigNum& r, const BigNum& a) {
  if (a.size() != 8) return sqr(r, a);
  product256(r, a.digits().data(), a.digits().data());
}

// ---- comparison ----

bool BigNum::operator<(const BigNum& x) const {
  if (d_.size() != x.d_.size()) return d_.size() < x.d_.size();
  for (std::size_t i = d_.size(); i-- > 0;)
    if (d_[i] != x.d_[i]) return d_[i] < x.d_[i];
  return false;
}

// ---- folding reduction ----

void BigNum::reduce(const BigNum& m, unsigned c) {
  const std::size_t d = m.size();
  while (d_.size() > d) {
    const std::size_t n = d_.size();
    // Fold the digits from s up into the d digits below them. For up to 2d + 1 digits this
    // halves the length; a longer value folds only its top d·⌊n/d⌋ part so that no folded
    // digit lands above the cut.
    const std::size_t s = std::max({(n + 1) / 2, d, n - d});
    Wide carry = 0;
    for (std::size_t i = s; i < n; ++i) {
      const Wide p = Wide{c} * d_[i];
      const Wide t = Wide{d_[i - d]} + lo(p) + carry;
      d_[i - d] = lo(t);
      carry = Wide{hi(p)} + hi(t);
    }
    d_.resize(s);
    if (carry) {
      if (n - d >= s) push(lo(carry));
      else addToDigit(static_cast<unsigned>(n - d), lo(carry));
    }
    clamp();
  }
  if (m < *this) *this -= m;
}

}  // namespace tessel
