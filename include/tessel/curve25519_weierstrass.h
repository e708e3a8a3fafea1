// curve25519 carried as a short Weierstrass curve (a WCurve over 2^255 - 19 with the
// Mod25519Reducer), for protocols that need general point arithmetic on it (EC-SRP).
//
// The Montgomery curve v² = u³ + A·u² + u (A = 486662) maps to y² = x³ + a·x + b by
// x = u + A/3, y = v, with a = (3 − A²)/3 and b = (2A³ − 9A)/27. Our encoding of a point is 33
// bytes: u as 32 bytes big-endian, then one byte 0 or 1 for the parity of y. This class is not
// constant time (it runs on BigNum); X25519 key agreement belongs to x25519.h.
#pragma once

#include "tessel/export.h"

#include <vector>

#include "tessel/ec.h"
#include "tessel/reducer.h"

namespace tessel {

class TESSEL_API Curve25519 {
 public:
  using Point = WCurve::Point;
  static constexpr unsigned encodedSize = 33;

  Curve25519();
  Curve25519(const Curve25519&) = delete;
  Curve25519& operator=(const Curve25519&) = delete;

  // fromNum returns the point whose Montgomery coordinate is u mod p, selector 0 choosing the
  // even y and 1 the odd one. When u has no point, the result is the point at infinity, which
  // isValid refuses.
  Point fromNum(const BigNum& u, unsigned selector) const;
  // toNum returns the Montgomery coordinate u of P (fully reduced) and, when `selector` is not
  // null, the parity of y there. Infinity gives 0 (selector 0).
  BigNum toNum(const Point& P, unsigned* selector) const;
  // toBin returns the 33-byte encoding of P (33 zero bytes for infinity).
  std::vector<unsigned char> toBin(const Point& P) const;
  // fromBin decodes 33 bytes; a wrong length, a last byte other than 0 or 1, or a u with no
  // point gives infinity (not valid).
  Point fromBin(asn1::blob in) const;
  // getX returns the 32 u-bytes of an encoding (fewer when the encoding is shorter).
  static std::vector<unsigned char> getX(const std::vector<unsigned char>& encoding);
  // isValid reports whether P is a finite point on the curve.
  bool isValid(const Point& P) const;
  // getMod returns the field prime 2^255 − 19, the same object every Mod25519Reducer works modulo;
  // it lives as long as the program.
  static const BigNum& getMod();
  // getOrder returns the prime order of G = fromNum(9, 0).
  const BigNum& getOrder() const { return order_; }
  // generator returns G.
  Point generator() const { return fromNum(BigNum(9u), 0); }
  // mul, add and negate are the group operations (k·P, P + Q, −P).
  Point mul(const BigNum& k, const Point& P) const { return w_.mul(k, P); }
  Point add(const Point& P, const Point& Q) const;
  Point negate(const Point& P) const;
  const WCurve& curve() const { return w_; }

 private:
  // affine returns the fully reduced affine coordinates of a finite point.
  ECPoint affine(const Point& P) const;

  BigNum p_, a_, b_, order_, aThird_;
  Mod25519Reducer red_;
  WCurve w_;
};

}  // namespace tessel
