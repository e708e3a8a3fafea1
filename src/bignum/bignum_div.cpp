// Long division, binary gcd and lcm, signed magnitudes, the binary extended gcd and inverses.
#include <algorithm>
#include <bit>
#include <utility>

#include "tessel/bignum.h"

namespace tessel {

namespace {

using Digit = BigNum::Digit;
using Wide = std::uint64_t;

// digitAt reads digit i of u, with digits beyond the value reading as 0.
Digit digitAt(const BigNum& u, unsigned i) { return i < u.size() ? u[i] : 0; }

// estimateDigit guesses the quotient digit for the window of u whose top digit is u[j] from
// v's top two digits, then lowers the guess until q̂·(v[n−1], v[n−2]) no longer exceeds
// (u[j], u[j−1], u[j−2]). The loop has no cap of two rounds; it stops when the test fails.
Digit estimateDigit(const BigNum& u, const BigNum& v, unsigned j) {
  const unsigned n = v.size();
  const Digit top = v[n - 1];
  const Digit uj = digitAt(u, j), uj1 = digitAt(u, j - 1);
  Digit qhat = 0xffffffffu;
  if (uj != top) qhat = static_cast<Digit>(((Wide{uj} << 32) | uj1) / top);
  const BigNum v2 = bn2(n >= 2 ? v[n - 2] : 0, top);
  const BigNum u3 = bn3(j >= 2 ? digitAt(u, j - 2) : 0, uj1, uj);
  BigNum prod;
  for (;;) {
    mul(prod, v2, BigNum(qhat));
    if (!(u3 < prod)) return qhat;
    --qhat;
  }
}

}  // namespace

// Knuth's algorithm D on 32-bit digits.
void div(const BigNum& a, const BigNum& b, BigNum* q, BigNum* r) {
  if (a < b) {
    if (r) *r = a;
    if (q) *q = BigNum(0u);
    return;
  }
  BigNum quot;
  quot.digits().assign(a.size() + 2, 0);
  BigNum u = a, v = b;
  u.clamp();
  v.clamp();
  // Normalise so that v's top digit has its top bit set.
  const unsigned s = static_cast<unsigned>(std::countl_zero(v[v.size() - 1]));
  if (s > 0) {
    u <<= s;
    v <<= s;
  }
  const unsigned n = v.size(), m = u.size() - n;
  const unsigned top = u.size() - 1;

  // The top quotient digit by repeated subtraction: it is at most 1 after normalising.
  v.shiftLeftByDigits(m);
  while (!(u < v)) {
    ++quot[m];
    u -= v;
  }
  v.shiftRightByDigits(m);

  BigNum t, vShifted;
  for (unsigned j = top; j >= n; --j) {
    Digit qhat = estimateDigit(u, v, j);
    t = v;
    t *= qhat;
    t.shiftLeftByDigits(j - n);
    t.clamp();  // a zero estimate leaves zero digits behind
    if (u < t) {
      vShifted = v;
      vShifted.shiftLeftByDigits(j - n);
      u += vShifted;
      --qhat;
    }
    quot[j - n] = qhat;
    u -= t;
  }
  quot.clamp();
  if (q) *q = std::move(quot);
  if (r) {
    u >>= s;
    *r = std::move(u);
  }
}

// Stein's binary gcd.
BigNum gcd(const BigNum& a, const BigNum& b) {
  if (a.isZero()) return b;
  if (b.isZero()) return a;
  BigNum u = a, v = b;
  const unsigned za = lsb(u), zb = lsb(v);
  u >>= za;
  for (;;) {
    v >>= lsb(v);
    if (v.isZero()) break;
    if (v < u) u.swap(v);
    v -= u;
  }
  return u << std::min(za, zb);
}

BigNum lcm(const BigNum& a, const BigNum& b) {
  const BigNum g = gcd(a, b);
  BigNum q;
  // Divide the smaller operand, then multiply by the larger one.
  if (a < b) {
    div(a, g, &q, nullptr);
    return q * b;
  }
  div(b, g, &q, nullptr);
  return q * a;
}

void SignedBigNum::add(const BigNum& x, bool neg) {
  if (neg == negative) {
    mag += x;
  } else if (mag < x) {
    mag = x - mag;
    negative = !negative;
  } else {
    mag -= x;
  }
}

namespace {

void halve(SignedBigNum& x) { x.mag >>= 1; }
bool isEven(const SignedBigNum& x) { return !x.mag.isOdd(); }
void subtract(SignedBigNum& x, const SignedBigNum& y) { x.add(y.mag, !y.negative); }

// halveWithCofactors divides w by 2 while it is even, keeping (P, Q) with P·a + Q·b = w.
void halveWithCofactors(BigNum& w, SignedBigNum& p, SignedBigNum& q, const BigNum& a,
                        const BigNum& b) {
  while (!w.isOdd()) {
    w >>= 1;
    if (!isEven(p) || !isEven(q)) {
      p.add(b, false);
      q.add(a, true);
    }
    halve(p);
    halve(q);
  }
}

}  // namespace

// The binary extended Euclidean algorithm with four cofactors (HAC 14.61).
void begcd(SignedBigNum* x, SignedBigNum* y, BigNum* g, BigNum a, BigNum b) {
  if (a.isZero() || b.isZero()) {
    // Deliberately all zero, g included: callers treat a zero operand as "no inverse".
    if (x) *x = SignedBigNum{};
    if (y) *y = SignedBigNum{};
    if (g) *g = BigNum(0u);
    return;
  }
  const unsigned k = std::min(lsb(a), lsb(b));
  if (k > 0) {
    a >>= k;
    b >>= k;
  }
  BigNum u = a, v = b;
  SignedBigNum A{BigNum(1u)}, B{BigNum(0u)}, C{BigNum(0u)}, D{BigNum(1u)};
  for (;;) {
    halveWithCofactors(u, A, B, a, b);
    halveWithCofactors(v, C, D, a, b);
    if (u < v) {
      v -= u;
      subtract(C, A);
      subtract(D, B);
    } else {
      u -= v;
      subtract(A, C);
      subtract(B, D);
    }
    if (u.isZero()) break;
  }
  if (x) *x = std::move(C);
  if (y) *y = std::move(D);
  if (g) *g = v << k;
}

BigNum invByMod(const BigNum& a, const BigNum& m) {
  BigNum r;
  div(a, m, nullptr, &r);
  SignedBigNum x;
  begcd(&x, nullptr, nullptr, std::move(r), m);
  while (x.negative) x.add(m, false);
  while (!x.negative && !(x.mag < m)) x.add(m, true);
  return std::move(x.mag);
}

}  // namespace tessel
