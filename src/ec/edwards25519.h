// edwards25519 point arithmetic shared by the Ed25519 and X25519 code (not a public header):
// extended coordinates, the curve constants, fixed-base and double multiplication, encoding.
#pragma once

#include "ec/fe25519.h"

namespace tessel::edwards25519 {

// Point is extended coordinates (X:Y:Z:T) with x = X/Z, y = Y/Z, xy = T/Z.
struct Point {
  fe25519::Fe x, y, z, t;
};

// Projective drops T: (X:Y:Z), enough for a point that is only doubled next.
struct Projective {
  fe25519::Fe x, y, z;
};

// Constants holds d, 2d, sqrt(-1) and the base point B, derived once at first use.
struct Constants {
  fe25519::Fe d, d2, sqrtm1;
  Point base;
};

// constants returns the curve constants (computed on first call, then shared).
const Constants& constants();

// baseMult is [a]B for a secret scalar a < 2^255, constant time.
Point baseMult(const unsigned char a[32]);

// doubleScalarMult_vartime is [a]A + [b]B for public scalars below 2^255; public data only.
Projective doubleScalarMult_vartime(const unsigned char a[32], const Point& A, const unsigned char b[32]);

// encode writes the 32-byte encoding of a point: y with the sign of x in the top bit.
void encode(unsigned char out[32], const Projective& p);
void encode(unsigned char out[32], const Point& p);

// decode_vartime reads a point encoding (RFC 8032 section 5.1.3); false for a non-canonical y or
// a y with no x on the curve. Public data only.
bool decode_vartime(Point* out, const unsigned char in[32], const Constants& k);

// baseMultU writes the Montgomery u-coordinate of [scalar]B, which equals X25519(scalar, 9),
// for a scalar below 2^255 (already clamped by the caller). Constant time in the scalar.
void baseMultU(unsigned char out[32], const unsigned char scalar[32]);

}  // namespace tessel::edwards25519
