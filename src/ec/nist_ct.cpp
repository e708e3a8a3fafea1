// Constant-time NIST curve arithmetic: complete projective formulas over the fixed-width
// Montgomery field, fixed-window scalar multiplication and the ECDSA signing equation.
#include "ec/nist_ct.h"

#include <algorithm>
#include <cstring>

#include "core/secret.h"
#include "tessel/assert.h"

namespace tessel::nist {

namespace {

// Fe is one field element (or scalar) of up to kMaxLimbs limbs; only the first limbs() are used.
using Fe = Limb[kMaxLimbs];

constexpr unsigned kWindow = 4;                  // bits per window
constexpr std::size_t kEntries = 1u << kWindow;  // table entries, 0·P … 15·P

// nibble returns window i (counted from the least significant) of the `len` big-endian bytes at
// k. The position is public; the value goes only into masks and table scans.
unsigned nibble(const unsigned char* k, std::size_t len, std::size_t i) {
  const unsigned char byte = k[len - 1 - i / 2];
  return (i & 1) ? byte >> 4 : byte & 15u;
}

// bytesToLimbs reads `len` big-endian bytes into `width` little-endian limbs, zero-extended;
// `len` must fit.
void bytesToLimbs(Limb* r, std::size_t width, const unsigned char* in, std::size_t len) {
  TESSEL_ASSERT(len <= width * sizeof(Limb));
  std::fill(r, r + width, Limb{0});
  for (std::size_t i = 0; i < len; ++i) r[i / sizeof(Limb)] |= Limb{in[len - 1 - i]} << (8 * (i % sizeof(Limb)));
}

Limb isZeroLimbs(const Limb* a, std::size_t width) {
  Limb acc = 0;
  for (std::size_t i = 0; i < width; ++i) acc |= a[i];
  return ct::isZeroMask<Limb>(acc);
}

}  // namespace

void fixedBytes(unsigned char* out, std::size_t len, const BigNum& x) {
  const std::size_t digits = x.size();
  for (std::size_t i = 0; i < len; ++i) {
    const std::size_t digit = i / 4;
    out[len - 1 - i] =
        digit < digits ? static_cast<unsigned char>(x[static_cast<unsigned>(digit)] >> (8 * (i % 4))) : 0;
  }
}

const CtCurve* CtCurve::forCurve(Curve c) {
  // Each curve is built once, on first use; function-local statics make that thread safe.
  switch (c) {
    case Curve::p192: {
      static const CtCurve curve(Curve::p192);
      return &curve;
    }
    case Curve::p224: {
      static const CtCurve curve(Curve::p224);
      return &curve;
    }
    case Curve::p256: {
      static const CtCurve curve(Curve::p256);
      return &curve;
    }
    case Curve::p384: {
      static const CtCurve curve(Curve::p384);
      return &curve;
    }
    case Curve::p521: {
      static const CtCurve curve(Curve::p521);
      return &curve;
    }
  }
  return nullptr;
}

CtCurve::CtCurve(Curve c)
    : p_(getModForECCurve(c)),
      n_(getOrderForECCurve(c)),
      nValue_(getOrderForECCurve(c)),
      pValue_(getModForECCurve(c)),
      limbs_(p_.limbs()),
      fieldBytes_((pValue_.bits() + 7) / 8),
      orderBytes_((nValue_.bits() + 7) / 8) {
  TESSEL_ASSERT(limbs_ <= kMaxLimbs && n_.limbs() <= kMaxLimbs);
  Fe plain;
  p_.fromBigNum(plain, getBForECCurve(c));
  p_.toMont(b_, plain);
  BigNum p, n;
  getECParams(c, p, n, g_);
  buildBaseTable(g_);
}

// ---- points ----

void CtCurve::setInfinity(Point& r) const {
  std::fill(r.v, r.v + 3 * limbs_, Limb{0});
  p_.one(r.v + limbs_);  // (0 : 1 : 0)
}

void CtCurve::fromAffine(Point& r, const ECPoint& P) const {
  const std::size_t L = limbs_;
  Fe plain;
  p_.fromBigNum(plain, P.x);
  p_.toMont(r.v, plain);
  p_.fromBigNum(plain, P.y);
  p_.toMont(r.v + L, plain);
  p_.one(r.v + 2 * L);
}

// add sets r = a + b by the complete addition for a = −3 (Renes–Costello–Batina, algorithm 4);
// r may be a or b.
void CtCurve::add(Point& r, const Point& a, const Point& b) const {
  const std::size_t L = limbs_;
  const Limb *X1 = a.v, *Y1 = a.v + L, *Z1 = a.v + 2 * L;
  const Limb *X2 = b.v, *Y2 = b.v + L, *Z2 = b.v + 2 * L;
  const ct::MontModulus& f = p_;
  Fe t0, t1, t2, t3, t4, x3, y3, z3;
  f.mul(t0, X1, X2);
  f.mul(t1, Y1, Y2);
  f.mul(t2, Z1, Z2);
  f.add(t3, X1, Y1);
  f.add(t4, X2, Y2);
  f.mul(t3, t3, t4);
  f.add(t4, t0, t1);
  f.sub(t3, t3, t4);
  f.add(t4, Y1, Z1);
  f.add(x3, Y2, Z2);
  f.mul(t4, t4, x3);
  f.add(x3, t1, t2);
  f.sub(t4, t4, x3);
  f.add(x3, X1, Z1);
  f.add(y3, X2, Z2);
  f.mul(x3, x3, y3);
  f.add(y3, t0, t2);
  f.sub(y3, x3, y3);
  f.mul(z3, b_, t2);
  f.sub(x3, y3, z3);
  f.add(z3, x3, x3);
  f.add(x3, x3, z3);
  f.sub(z3, t1, x3);
  f.add(x3, t1, x3);
  f.mul(y3, b_, y3);
  f.add(t1, t2, t2);
  f.add(t2, t1, t2);
  f.sub(y3, y3, t2);
  f.sub(y3, y3, t0);
  f.add(t1, y3, y3);
  f.add(y3, t1, y3);
  f.add(t1, t0, t0);
  f.add(t0, t1, t0);
  f.sub(t0, t0, t2);
  f.mul(t1, t4, y3);
  f.mul(t2, t0, y3);
  f.mul(y3, x3, z3);
  f.add(y3, y3, t2);
  f.mul(x3, t3, x3);
  f.sub(x3, x3, t1);
  f.mul(z3, t4, z3);
  f.mul(t1, t3, t0);
  f.add(z3, z3, t1);
  std::copy(x3, x3 + L, r.v);
  std::copy(y3, y3 + L, r.v + L);
  std::copy(z3, z3 + L, r.v + 2 * L);
}

// dbl sets r = 2a by the complete doubling for a = −3 (Renes–Costello–Batina, algorithm 6);
// r may be a.
void CtCurve::dbl(Point& r, const Point& a) const {
  const std::size_t L = limbs_;
  const Limb *X = a.v, *Y = a.v + L, *Z = a.v + 2 * L;
  const ct::MontModulus& f = p_;
  Fe t0, t1, t2, t3, x3, y3, z3;
  f.sqr(t0, X);
  f.sqr(t1, Y);
  f.sqr(t2, Z);
  f.mul(t3, X, Y);
  f.add(t3, t3, t3);
  f.mul(z3, X, Z);
  f.add(z3, z3, z3);
  f.mul(y3, b_, t2);
  f.sub(y3, y3, z3);
  f.add(x3, y3, y3);
  f.add(y3, x3, y3);
  f.sub(x3, t1, y3);
  f.add(y3, t1, y3);
  f.mul(y3, x3, y3);
  f.mul(x3, x3, t3);
  f.add(t3, t2, t2);
  f.add(t2, t2, t3);
  f.mul(z3, b_, z3);
  f.sub(z3, z3, t2);
  f.sub(z3, z3, t0);
  f.add(t3, z3, z3);
  f.add(z3, z3, t3);
  f.add(t3, t0, t0);
  f.add(t0, t3, t0);
  f.sub(t0, t0, t2);
  f.mul(t0, t0, z3);
  f.add(y3, y3, t0);
  f.mul(t0, Y, Z);
  f.add(t0, t0, t0);
  f.mul(z3, t0, z3);
  f.sub(x3, x3, z3);
  f.mul(z3, t0, t1);
  f.add(z3, z3, z3);
  f.add(z3, z3, z3);
  std::copy(x3, x3 + L, r.v);
  std::copy(y3, y3 + L, r.v + L);
  std::copy(z3, z3 + L, r.v + 2 * L);
}

// toAffine writes x || y of P; Z = 0 (infinity) inverts to 0 by Fermat, so it gives zeros and
// the returned mask, without a branch.
Limb CtCurve::toAffine(unsigned char* xy, const Point& P) const {
  const std::size_t L = limbs_;
  Fe zInv, t;
  const Limb infinity = isZeroLimbs(P.v + 2 * L, L);
  p_.invPrime(zInv, P.v + 2 * L);
  for (int i = 0; i < 2; ++i) {
    p_.mul(t, P.v + i * L, zInv);
    p_.fromMont(t, t);
    p_.toBytes(xy + i * fieldBytes_, fieldBytes_, t);
  }
  ct::wipeObject(zInv);
  ct::wipeObject(t);
  return infinity;
}

// ---- scalar multiplication ----

Limb CtCurve::mul(unsigned char* xy, const unsigned char* k, std::size_t kLen, const ECPoint& P) const {
  const std::size_t L = limbs_, width = 3 * L;
  // table[j] = j·P for j = 0 … 15, packed at `width` limbs each for the constant-time scan.
  Limb table[kEntries * 3 * kMaxLimbs];
  Point entry, acc;
  setInfinity(entry);
  std::copy(entry.v, entry.v + width, table);
  fromAffine(acc, P);
  std::copy(acc.v, acc.v + width, table + width);
  for (std::size_t j = 2; j < kEntries; ++j) {
    Point prev, half;
    if (j % 2 == 0) {
      std::copy(table + (j / 2) * width, table + (j / 2 + 1) * width, half.v);
      dbl(entry, half);
    } else {
      std::copy(table + (j - 1) * width, table + j * width, prev.v);
      add(entry, prev, acc);
    }
    std::copy(entry.v, entry.v + width, table + j * width);
  }
  setInfinity(acc);
  for (std::size_t i = 2 * kLen; i-- > 0;) {
    if (i + 1 < 2 * kLen)
      for (unsigned d = 0; d < kWindow; ++d) dbl(acc, acc);
    ct::select(entry.v, table, kEntries, width, nibble(k, kLen, i));
    add(acc, acc, entry);
  }
  const Limb infinity = toAffine(xy, acc);
  ct::wipeObject(acc);
  ct::wipeObject(entry);
  return infinity;
}

// The base table splits the scalar's windows into groups of four: with window i = 4g + s,
// k·G = Σ_s 16^s · Σ_g w(4g + s)·2^(16g)·G, so the multiplication needs only 12 doublings and
// one table addition per window.
void CtCurve::buildBaseTable(const ECPoint& G) {
  const std::size_t L = limbs_, width = 3 * L;
  const std::size_t windows = 2 * orderBytes_;
  baseGroups_ = (windows + 3) / 4;
  baseTable_.assign(baseGroups_ * kEntries * width, 0);
  Point base, entry;
  fromAffine(base, G);
  for (std::size_t g = 0; g < baseGroups_; ++g) {
    Limb* group = baseTable_.data() + g * kEntries * width;
    setInfinity(entry);
    for (std::size_t v = 0; v < kEntries; ++v) {
      std::copy(entry.v, entry.v + width, group + v * width);
      add(entry, entry, base);
    }
    for (unsigned d = 0; d < 4 * kWindow; ++d) dbl(base, base);
  }
}

Limb CtCurve::mulBase(unsigned char* xy, const unsigned char* k, std::size_t kLen) const {
  // A scalar wider than the table (a key stored with extra leading bytes) takes the general
  // path; the length is public.
  if (kLen > orderBytes_) {
    return mul(xy, k, kLen, g_);
  }
  const std::size_t width = 3 * limbs_, windows = 2 * kLen;
  Point acc, entry;
  setInfinity(acc);
  for (std::size_t s = kWindow; s-- > 0;) {
    if (s + 1 < kWindow)
      for (unsigned d = 0; d < kWindow; ++d) dbl(acc, acc);
    for (std::size_t g = 0; g < baseGroups_; ++g) {
      const std::size_t i = 4 * g + s;
      if (i >= windows) continue;
      ct::select(entry.v, baseTable_.data() + g * kEntries * width, kEntries, width, nibble(k, kLen, i));
      add(acc, acc, entry);
    }
  }
  const Limb infinity = toAffine(xy, acc);
  ct::wipeObject(acc);
  ct::wipeObject(entry);
  return infinity;
}

// ---- scalars ----

Limb CtCurve::scalarInRange(const unsigned char* k, std::size_t kLen) const {
  // k − n by bytes from the least significant: a final borrow means k < n.
  const std::vector<unsigned char> n = nValue_.bin(static_cast<unsigned>(std::max(kLen, orderBytes_)));
  if (n.size() > kLen) {
    // A shorter k is below n whenever n is longer than it; only zero is out of range.
    unsigned char any = 0;
    for (std::size_t i = 0; i < kLen; ++i) any |= k[i];
    return static_cast<Limb>(~ct::isZeroMask<Limb>(any));
  }
  unsigned borrow = 0, any = 0;
  for (std::size_t i = kLen; i-- > 0;) {
    borrow = ((static_cast<unsigned>(k[i]) - n[i] - borrow) >> 8) & 1u;
    any |= k[i];
  }
  return ct::maskFromBit<Limb>(borrow) & static_cast<Limb>(~ct::isZeroMask<Limb>(any));
}

void CtCurve::reduceScalar(Limb* r, const unsigned char* in, std::size_t len) const {
  // Horner's rule over limb-sized chunks, each below n: r = r·2^limbBits + chunk, in
  // Montgomery form throughout.
  const std::size_t L = n_.limbs();
  Fe radix, chunk, plain;
  std::fill(plain, plain + L, Limb{0});
  plain[1] = 1;
  n_.toMont(radix, plain);
  std::fill(r, r + L, Limb{0});
  std::size_t first = len % sizeof(Limb);
  if (first == 0) first = sizeof(Limb);
  for (std::size_t pos = 0; pos < len;) {
    const std::size_t take = pos == 0 ? std::min(first, len) : sizeof(Limb);
    bytesToLimbs(plain, L, in + pos, take);
    n_.toMont(chunk, plain);
    n_.mul(r, r, radix);
    n_.add(r, r, chunk);
    pos += take;
  }
  ct::wipeObject(chunk);
  ct::wipeObject(plain);
}

void CtCurve::ecdsaS(unsigned char* s, const unsigned char* k, const unsigned char* d, std::size_t dLen,
                     const BigNum& e, const BigNum& r) const {
  const std::size_t L = n_.limbs();
  Fe kM, dM, eM, rM, t;
  bytesToLimbs(t, L, k, orderBytes_);
  n_.toMont(kM, t);
  n_.invPrime(kM, kM);  // n is prime
  reduceScalar(dM, d, dLen);
  n_.fromBigNum(t, e);
  n_.toMont(eM, t);
  n_.fromBigNum(t, r);
  n_.toMont(rM, t);
  n_.mul(t, rM, dM);
  n_.add(t, t, eM);
  n_.mul(t, t, kM);
  n_.fromMont(t, t);
  n_.toBytes(s, orderBytes_, t);
  ct::wipeObject(kM);
  ct::wipeObject(dM);
  ct::wipeObject(t);
}

bool CtCurve::onCurve_vartime(const ECPoint& P) const {
  if (!(P.x < pValue_) || !(P.y < pValue_)) return false;
  const std::size_t L = limbs_;
  Fe x, y, lhs, rhs, t;
  p_.fromBigNum(t, P.x);
  p_.toMont(x, t);
  p_.fromBigNum(t, P.y);
  p_.toMont(y, t);
  p_.sqr(lhs, y);
  p_.sqr(rhs, x);
  p_.mul(rhs, rhs, x);  // x³
  p_.sub(rhs, rhs, x);
  p_.sub(rhs, rhs, x);
  p_.sub(rhs, rhs, x);  // x³ − 3x
  p_.add(rhs, rhs, b_);
  return std::equal(lhs, lhs + L, rhs);
}

}  // namespace tessel::nist
