// Constant-time arithmetic on the NIST prime curves for secret scalars (not a public header):
// scalar multiplication of any point and of the base point, and the ECDSA signing equation.
//
// Points are kept in projective coordinates (x = X/Z, y = Y/Z) and added with the complete
// formulas of Renes, Costello and Batina (2016) for a = −3, which have no exceptional case on a
// curve of prime order: doubling, adding a point to itself or to its negation and the point at
// infinity all go through the same instructions. Scalars are read in fixed 4-bit windows, each
// table entry fetched by a scan of the whole table. Only the curve, the scalar's byte length and
// the public input point steer the control flow; WCurve (ec.h) stays the variable-time code for
// public data such as signature verification.
#pragma once

#include <cstddef>
#include <vector>

#include "bignum/mont_ct.h"
#include "tessel/ec.h"

namespace tessel::nist {

using ct::Limb;

// kMaxLimbs is the widest field element, that of P-521.
inline constexpr std::size_t kMaxLimbs = (521 + ct::limbBits - 1) / ct::limbBits;

class CtCurve {
 public:
  // forCurve returns the arithmetic of a named curve, built on first use and shared between
  // threads; null for an unknown curve.
  static const CtCurve* forCurve(Curve c);

  explicit CtCurve(Curve c);
  CtCurve(const CtCurve&) = delete;
  CtCurve& operator=(const CtCurve&) = delete;

  // fieldBytes is the length of a coordinate, orderBytes that of a scalar below n.
  std::size_t fieldBytes() const { return fieldBytes_; }
  std::size_t orderBytes() const { return orderBytes_; }
  const BigNum& order() const { return nValue_; }

  // mul writes k·P as x || y (2·fieldBytes() bytes) for the secret scalar k of `kLen` big-endian
  // bytes (any value, also n or more) and the public affine point P, which must lie on the curve
  // (see onCurve_vartime). Returns all ones when the result is the point at infinity, whose
  // coordinates are then written as zeros; zero otherwise.
  Limb mul(unsigned char* xy, const unsigned char* k, std::size_t kLen, const ECPoint& P) const;
  // mulBase is mul with the base point, from a table of its multiples built with the curve.
  Limb mulBase(unsigned char* xy, const unsigned char* k, std::size_t kLen) const;

  // scalarInRange returns all ones when the `kLen` big-endian bytes at k hold a value in
  // [1, n − 1], zero otherwise, without branching on the value.
  Limb scalarInRange(const unsigned char* k, std::size_t kLen) const;

  // ecdsaS writes s = k⁻¹·(e + r·d) mod n as orderBytes() big-endian bytes, for the secret nonce
  // k (orderBytes() bytes, in [1, n − 1]) and key d (`dLen` bytes, any value) and the public
  // e and r below n.
  void ecdsaS(unsigned char* s, const unsigned char* k, const unsigned char* d, std::size_t dLen, const BigNum& e,
              const BigNum& r) const;

  // onCurve_vartime reports whether P has coordinates below p and satisfies y² = x³ − 3x + b.
  // Public data only.
  bool onCurve_vartime(const ECPoint& P) const;

 private:
  // A Point holds X, Y and Z of `limbs_` limbs each, one after the other, in Montgomery form.
  struct Point {
    Limb v[3 * kMaxLimbs];
  };

  void add(Point& r, const Point& a, const Point& b) const;
  void dbl(Point& r, const Point& a) const;
  void setInfinity(Point& r) const;
  void fromAffine(Point& r, const ECPoint& P) const;
  Limb toAffine(unsigned char* xy, const Point& P) const;
  void buildBaseTable(const ECPoint& G);
  // reduceScalar sets r to the Montgomery form of the `len` bytes at in, reduced mod n.
  void reduceScalar(Limb* r, const unsigned char* in, std::size_t len) const;

  ct::MontModulus p_, n_;
  BigNum nValue_, pValue_;
  ECPoint g_;  // the base point
  std::size_t limbs_, fieldBytes_, orderBytes_;
  Limb b_[kMaxLimbs];  // the coefficient b, Montgomery form
  // baseTable_ holds, for every group g of four 4-bit windows, the 16 points v·2^(16g)·G
  // (v = 0 … 15), each as 3·limbs_ limbs; mulBase combs through the groups.
  std::vector<Limb> baseTable_;
  std::size_t baseGroups_ = 0;
};

// fixedBytes writes x as exactly `len` big-endian bytes (the low `len` bytes when x is longer)
// reading every digit of x the same way whatever its value; for secret scalars, where
// BigNum::bin would strip leading zeros.
void fixedBytes(unsigned char* out, std::size_t len, const BigNum& x);

}  // namespace tessel::nist
