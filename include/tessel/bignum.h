// Multi-precision unsigned integers: BigNum, its conversions, shifts and products, long
// division, gcd, lcm and the modular inverse.
//
// None of this is constant-time: loops stop early on zero digits, carries and the first
// differing digit. Secret operands (private exponents, nonces) leak timing through it, which
// the library accepts on its appliance.
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <string>
#include <vector>

#include "tessel/blob.h"

namespace tessel {

// little_endian is the tag that selects the little-endian byte conversions.
struct little_endian {};

// BigNum is an unsigned integer held as 32-bit digits, least significant first. Every
// operation leaves it clamped (no zero top digit; zero is the single digit 0) unless its
// comment says otherwise; comparisons rely on that form.
class TESSEL_API BigNum {
 public:
  using Digit = std::uint32_t;

  // BigNum() is zero (one 0 digit); BigNum(v) is the one-digit value v.
  BigNum() : d_(1, 0) {}
  BigNum(unsigned v) : d_(1, v) {}  // NOLINT: a digit converts implicitly, like an integer.
  // BigNum(bytes) reads `bytes` as a big-endian number; an empty blob gives zero and leading
  // zero bytes disappear.
  explicit BigNum(asn1::blob bytes);
  // BigNum(bytes, little_endian) reads `bytes` as a little-endian number.
  BigNum(asn1::blob bytes, little_endian);

  // bin returns the minimal big-endian encoding left-padded with zero bytes to `len`. A value
  // that needs more than `len` bytes is returned whole, never truncated.
  std::vector<unsigned char> bin(unsigned len = 0) const;
  // bin(little_endian) returns the little-endian bytes without their most significant zero
  // bytes; zero gives an empty vector.
  std::vector<unsigned char> bin(little_endian) const;
  // str returns lower-case hexadecimal without prefix; a value with no digits gives "".
  std::string str() const;
  // strDec returns the decimal text of the value.
  std::string strDec() const;
  // strDigits returns every digit, most significant first, as eight hex characters joined by
  // "."; meant for debugging.
  std::string strDigits() const;

  // bits returns the bit length (0 for zero).
  unsigned bits() const;
  // getBit returns bit `i`; bits beyond the digits read as 0.
  bool getBit(unsigned i) const;
  // setBit sets bit `i` to `v`, growing the digits as needed. It does not clamp: clearing the
  // top bit can leave a zero top digit for the caller to clamp.
  void setBit(unsigned i, bool v);
  // modBy2Pow keeps the low `k` bits. With k = 0 no digit is left at all, which callers that
  // build numbers bit by bit rely on; it is not repaired to a single 0 digit.
  void modBy2Pow(unsigned k);

  // shiftLeftByDigits inserts `n` zero digits at the bottom.
  void shiftLeftByDigits(unsigned n);
  // shiftRightByDigits drops the `n` lowest digits; dropping them all leaves zero.
  void shiftRightByDigits(unsigned n);
  BigNum& operator<<=(unsigned k);
  BigNum& operator>>=(unsigned k);

  // addToDigit adds `v` at digit position `i` and carries upward. At or beyond the top, a
  // non-zero `v` becomes a new top digit.
  void addToDigit(unsigned i, Digit v);
  // operator+=(v) adds one digit; the receiver must have at least one digit.
  BigNum& operator+=(unsigned v);
  BigNum& operator+=(const BigNum& x);
  // operator-= subtracts `x`, which must not have more digits than the receiver (an abort
  // otherwise). A smaller value with enough digits wraps silently: callers compare first.
  BigNum& operator-=(const BigNum& x);
  BigNum& operator*=(unsigned w);
  BigNum& operator*=(const BigNum& x);

  // reduce folds the value modulo `m` = 2^(32·d) − c' using 2^(32·d) ≡ c (mod m), d being m's
  // digit count, then subtracts m at most once. The result is congruent and below 2^(32·d)
  // but may equal or slightly exceed m; canonical values need a full reduction.
  void reduce(const BigNum& m, unsigned c);

  // clamp drops zero top digits, keeping at least one digit (an empty value stays empty).
  void clamp();

  bool operator<(const BigNum& x) const;
  bool operator>(const BigNum& x) const { return x < *this; }
  bool operator<=(const BigNum& x) const { return !(x < *this); }
  bool operator>=(const BigNum& x) const { return !(*this < x); }
  bool operator==(const BigNum& x) const { return d_ == x.d_; }

  bool isZero() const { return d_.size() == 1 && d_[0] == 0; }
  bool isOdd() const { return !d_.empty() && (d_[0] & 1); }
  unsigned size() const { return static_cast<unsigned>(d_.size()); }
  Digit operator[](unsigned i) const { return d_[i]; }
  Digit& operator[](unsigned i) { return d_[i]; }
  // digits gives direct access to the digit vector for the arithmetic kernels.
  std::vector<Digit>& digits() { return d_; }
  const std::vector<Digit>& digits() const { return d_; }
  void swap(BigNum& x) noexcept { d_.swap(x.d_); }

 private:
  void push(Digit v);
  std::vector<Digit> d_;
};

// lsb returns the number of trailing zero bits of `x` (0 for zero).
TESSEL_API unsigned lsb(const BigNum& x);
// bn64 returns the value of `v`; bn2 and bn3 build a number from two or three digits, least
// significant first. All three are clamped.
TESSEL_API BigNum bn64(unsigned long long v);
TESSEL_API BigNum bn2(unsigned lo, unsigned hi);
TESSEL_API BigNum bn3(unsigned d0, unsigned d1, unsigned d2);

// operator<< returns `x` shifted left by `k` bits.
TESSEL_API BigNum operator<<(const BigNum& x, unsigned k);
// operator>> returns `x` shifted right by `k` bits.
TESSEL_API BigNum operator>>(const BigNum& x, unsigned k);
TESSEL_API BigNum operator+(BigNum a, const BigNum& b);
// operator- returns a − b; b must not have more digits than a (see operator-=).
TESSEL_API BigNum operator-(BigNum a, const BigNum& b);
TESSEL_API BigNum operator*(const BigNum& a, const BigNum& b);

// mul sets r = a·b by schoolbook multiplication. r must be a different object from a and b.
TESSEL_API void mul(BigNum& r, const BigNum& a, const BigNum& b);
// sqr sets r = a², each cross product formed once. r must be a different object from a.
TESSEL_API void sqr(BigNum& r, const BigNum& a);
// mul256 multiplies two 8-digit numbers with an unrolled kernel, leaving all 16 result digits
// unclamped for the reduction that follows; other sizes fall back to mul.
TESSEL_API void mul256(BigNum& r, const BigNum& a, const BigNum& b);
// sqr256 squares an 8-digit number into 16 unclamped digits; other sizes fall back to sqr.
TESSEL_API void sqr256(BigNum& r, const BigNum& a);

// div sets *q = floor(a / b) and *r = a mod b; either pointer may be null. b must not be zero.
TESSEL_API void div(const BigNum& a, const BigNum& b, BigNum* q, BigNum* r);
// gcd returns the greatest common divisor; gcd(0, b) = b.
TESSEL_API BigNum gcd(const BigNum& a, const BigNum& b);
// lcm returns the least common multiple; neither operand may be zero.
TESSEL_API BigNum lcm(const BigNum& a, const BigNum& b);

// SignedBigNum is a magnitude and a sign flag (true = negative). Zero may carry either sign.
struct TESSEL_API SignedBigNum {
  BigNum mag;
  bool negative = false;

  // add adds the signed value (x, negative) in place. Cancelling to zero keeps the old sign.
  void add(const BigNum& x, bool negative);
};

// begcd computes g = gcd(a, b) and x, y with a·x + b·y = g by the binary extended Euclidean
// algorithm. Any output pointer may be null. If a or b is zero every output is zero, g too.
TESSEL_API void begcd(SignedBigNum* x, SignedBigNum* y, BigNum* g, BigNum a, BigNum b);
// invByMod returns the inverse of `a` modulo `m` in [0, m). `a` must be a unit mod m: for any
// other value the result is a reduced Bézout coefficient, not an inverse (0 when m divides a).
TESSEL_API BigNum invByMod(const BigNum& a, const BigNum& m);

}  // namespace tessel
