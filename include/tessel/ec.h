// Short Weierstrass curves y² = x³ + a·x + b over prime fields: Jacobian point arithmetic,
// SEC 1 point encodings and the parameters of the NIST prime curves.
//
// Scalar multiplication is not constant-time: its work depends on the scalar's bits, for
// private scalars as well as public ones.
#pragma once

#include "tessel/export.h"

#include <memory>
#include <vector>

#include "tessel/bignum.h"
#include "tessel/blob.h"
#include "tessel/reducer.h"

namespace tessel {

// Curve names the NIST prime curves (all with a = −3). Any other value is unknown.
enum class Curve : unsigned { p192 = 1, p224 = 2, p256 = 3, p384 = 4, p521 = 5 };

// ECPoint is an affine point. (0, 0) stands for "no point", the result of a failed decode.
struct TESSEL_API ECPoint {
  BigNum x, y;

  // fromOctetString decodes the SEC 1 uncompressed form 04 || x || y (x takes the first half
  // of the rest, rounded down). Any other form, or an empty blob, gives (0, 0).
  static ECPoint fromOctetString(asn1::blob in);
  // fromOctetStringCompressed also accepts the compressed forms 02 || x (even y) and 03 || x
  // (odd y) on the curve with prime p and coefficients a, b. An x at or above p, or one with no
  // point on the curve, gives (0, 0).
  static ECPoint fromOctetStringCompressed(asn1::blob in, const BigNum& p, const BigNum& a, const BigNum& b);
  // toBin encodes the point with coordinates of `len` bytes: 04 || x || y, or 02/03 || x when
  // `compressed`. A coordinate longer than `len` is a programming error and aborts.
  std::vector<unsigned char> toBin(unsigned len, bool compressed) const;

  bool operator==(const ECPoint&) const = default;
};

// WCurve does the arithmetic of one curve. It keeps its own copy of the prime; b is not stored
// and is passed to the operations that need it. Curves are immutable once built and may be
// shared between threads; they cannot be copied because their reducer refers to the prime.
class TESSEL_API WCurve {
 public:
  // Point is a Jacobian point (x = X/Z², y = Y/Z³); Z = 0 is the point at infinity.
  struct Point {
    RedNum X, Y, Z;
    bool isInfinity() const { return Z.isZero(); }
  };

  // WCurve(p) is a curve with a = −3 over the prime p, computing through a Montgomery reducer
  // it allocates and owns.
  explicit WCurve(const BigNum& p);
  // WCurve(p, a, r) is a curve with coefficient a (a field element below p) computing through
  // the borrowed reducer r, which must work modulo p and outlive the curve. The curve stores
  // −a; a = 0 leaves that field zero, which selects the a = −3 doubling, so a curve with a
  // genuinely zero coefficient cannot be described.
  WCurve(const BigNum& p, const BigNum& a, Reducer* r);
  ~WCurve();
  WCurve(const WCurve&) = delete;
  WCurve& operator=(const WCurve&) = delete;

  // dbl sets P = 2P; t points to five scratch residues. Infinity stays infinity.
  void dbl(Point& P, RedNum* t) const;
  // add sets P = P + Q; t points to five scratch residues.
  void add(Point& P, const Point& Q, RedNum* t) const;
  // mul returns k·P by a width-4 window.
  Point mul(const BigNum& k, const Point& P) const;
  // mul2add returns k1·P + k2·Q by Shamir's trick with 2-bit windows.
  Point mul2add(const BigNum& k1, const Point& P, const BigNum& k2, const Point& Q) const;

  // fromEC enters an affine point (Z = 1); toEC returns the affine form of P, (0, 0) for
  // infinity.
  Point fromEC(const ECPoint& e) const;
  ECPoint toEC(Point&& P) const;
  // infinity returns the point at infinity bound to this curve's reducer.
  Point infinity() const;

  // isOnCurve reports whether the affine form of P satisfies y² = x³ + a·x + b.
  bool isOnCurve(const BigNum& a, const BigNum& b, Point&& P) const;
  // getY sets y to a square root of x³ + a·x + b mod p and returns true, or returns false when
  // there is none (y is then unspecified).
  bool getY(const BigNum& x, const BigNum& a, const BigNum& b, BigNum& y) const;

  const BigNum& mod() const { return p_; }
  const Reducer& reducer() const { return *red_; }

 private:
  BigNum p_;
  Reducer* red_;
  RedNum coefficient_;  // −a, or zero for a = −3
  std::unique_ptr<Reducer> owned_;
};

// getECParams sets the prime, the group order and the base point of a named curve and returns
// true; an unknown curve returns false and leaves the outputs alone.
TESSEL_API bool getECParams(Curve c, BigNum& p, BigNum& n, ECPoint& G);
TESSEL_API bool getECParamsForP192(BigNum& p, BigNum& n, ECPoint& G);
TESSEL_API bool getECParamsForP224(BigNum& p, BigNum& n, ECPoint& G);
TESSEL_API bool getECParamsForP256(BigNum& p, BigNum& n, ECPoint& G);
TESSEL_API bool getECParamsForP384(BigNum& p, BigNum& n, ECPoint& G);
TESSEL_API bool getECParamsForP521(BigNum& p, BigNum& n, ECPoint& G);
// getModForECCurve, getOrderForECCurve, getAForECCurve (a as p − 3) and getBForECCurve return
// one parameter of a named curve, or zero for an unknown curve.
TESSEL_API BigNum getModForECCurve(Curve c);
TESSEL_API BigNum getOrderForECCurve(Curve c);
TESSEL_API BigNum getAForECCurve(Curve c);
TESSEL_API BigNum getBForECCurve(Curve c);

}  // namespace tessel
