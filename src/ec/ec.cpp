// Weierstrass curve arithmetic, SEC 1 point encodings and the NIST curve parameters.
#include "tessel/ec.h"

#include <algorithm>
#include <utility>

#include "tessel/assert.h"

namespace tessel {

// ---- points as octet strings ----

ECPoint ECPoint::fromOctetString(asn1::blob in) {
  if (in.empty() || in.pop_front() != 0x04) return {};
  const asn1::blob x = in.pop_front(in.size() / 2);
  return {BigNum(x), BigNum(in)};
}

ECPoint ECPoint::fromOctetStringCompressed(asn1::blob in, const BigNum& p, const BigNum& a, const BigNum& b) {
  if (in.empty()) return {};
  const unsigned char form = in[0];
  if (form == 0x04) return fromOctetString(in);
  if (form != 0x02 && form != 0x03) return {};
  in.pop_front();
  ECPoint e{BigNum(in), BigNum(0u)};
  if (!(e.x < p)) return {};
  const WCurve curve(p);
  if (!curve.getY(e.x, a, b, e.y)) return {};
  if (e.y.isOdd() != (form == 0x03)) {
    if (e.y.isZero()) return {};  // y = 0 has no odd twin
    e.y = p - e.y;
  }
  return e;
}

std::vector<unsigned char> ECPoint::toBin(unsigned len, bool compressed) const {
  std::vector<unsigned char> out;
  out.reserve(2 * len + 1);
  out.push_back(compressed ? 0x02 + (y.isOdd() ? 1 : 0) : 0x04);
  std::vector<unsigned char> tmp = x.bin(len);
  TESSEL_ASSERT_LINE(tmp.size() == len, 48);
  out.insert(out.end(), tmp.begin(), tmp.end());
  if (compressed) return out;
  tmp = y.bin(len);
  TESSEL_ASSERT_LINE(tmp.size() == len, 53);
  out.insert(out.end(), tmp.begin(), tmp.end());
  return out;
}

// ---- curve ----

WCurve::WCurve(const BigNum& p) : p_(p), red_(nullptr), owned_(std::make_unique<MontgomeryReducer>(p_)) {
  red_ = owned_.get();
}

WCurve::WCurve(const BigNum& p, const BigNum& a, Reducer* r) : p_(p), red_(r) {
  if (!a.isZero()) coefficient_ = red_->fromBigNum(p_ - a);
}

WCurve::~WCurve() = default;

WCurve::Point WCurve::infinity() const {
  return {red_->fromBigNum(BigNum(1u)), red_->fromBigNum(BigNum(1u)), red_->fromBigNum(BigNum(0u))};
}

WCurve::Point WCurve::fromEC(const ECPoint& e) const {
  return {red_->fromBigNum(e.x), red_->fromBigNum(e.y), red_->fromBigNum(BigNum(1u))};
}

ECPoint WCurve::toEC(Point&& P) const {
  if (P.isInfinity()) return {};
  const RedNum zInv = inv(std::move(P.Z));
  RedNum zInv2, zInv3, x, y;
  sqr(zInv2, zInv);
  tessel::mul(zInv3, zInv2, zInv);
  tessel::mul(x, P.X, zInv2);
  tessel::mul(y, P.Y, zInv3);
  return {red_->toBigNum(std::move(x)), red_->toBigNum(std::move(y))};
}

// Doubling in Jacobian coordinates: M = 3X² + aZ⁴, S = 4XY², X' = M² − 2S,
// Y' = M(S − X') − 8Y⁴, Z' = 2YZ. With a = −3, M = 3(X − Z²)(X + Z²).
void WCurve::dbl(Point& P, RedNum* t) const {
  RedNum &X = P.X, &Y = P.Y, &Z = P.Z;
  sqr(t[0], Z);
  if (coefficient_.isZero()) {
    t[1] = X;
    t[1] -= t[0];
    t[2] = X;
    t[2] += t[0];
    tessel::mul(t[3], t[1], t[2]);
    tessel::mul(t[3], 3);
  } else {
    sqr(t[1], t[0]);
    tessel::mul(t[2], t[1], coefficient_);
    sqr(t[3], X);
    tessel::mul(t[3], 3);
    t[3] -= t[2];
  }
  tessel::mul(t[1], Y, Z);
  Z = t[1];
  Z += t[1];
  sqr(t[0], Y);
  tessel::mul(t[2], X, t[0]);
  tessel::mul(t[2], 4);
  sqr(t[4], t[0]);
  tessel::mul(t[4], 8);
  sqr(X, t[3]);
  X -= t[2];
  X -= t[2];
  t[2] -= X;
  tessel::mul(Y, t[3], t[2]);
  Y -= t[4];
}

// Addition in Jacobian coordinates: U1 = X1·Z2², U2 = X2·Z1², S1 = Y1·Z2³, S2 = Y2·Z1³,
// H = U2 − U1, R = S2 − S1; X3 = R² − H³ − 2·U1·H², Y3 = R(U1·H² − X3) − S1·H³,
// Z3 = Z1·Z2·H. P's own coordinates serve as scratch once they have been read.
void WCurve::add(Point& P, const Point& Q, RedNum* t) const {
  if (Q.isInfinity()) return;
  if (P.isInfinity()) {
    P = Q;
    return;
  }
  if (&P == &Q) return dbl(P, t);
  sqr(t[0], P.Z);
  sqr(t[1], Q.Z);
  tessel::mul(t[2], P.X, t[1]);  // U1
  tessel::mul(t[3], Q.X, t[0]);  // U2
  tessel::mul(P.X, t[1], Q.Z);   // Z2³
  tessel::mul(t[1], P.Y, P.X);   // S1
  tessel::mul(P.X, t[0], P.Z);   // Z1³
  tessel::mul(t[0], Q.Y, P.X);   // S2
  t[3] -= t[2];                  // H
  t[0] -= t[1];                  // R
  if (t[3].isZero() && t[0].isZero()) {
    // The same point: the general formula would give 0/0.
    P = Q;
    return dbl(P, t);
  }
  // With H = 0 alone (P = −Q) the formula runs on and gives Z3 = 0, the point at infinity.
  tessel::mul(P.X, P.Z, Q.Z);
  tessel::mul(P.Z, P.X, t[3]);   // Z3
  sqr(t[4], t[3]);               // H²
  tessel::mul(P.X, t[4], t[3]);  // H³
  tessel::mul(P.Y, t[2], t[4]);  // U1·H²
  sqr(t[2], t[0]);
  t[2] -= P.X;
  t[2] -= P.Y;
  t[2] -= P.Y;  // X3
  P.Y -= t[2];
  tessel::mul(t[3], t[0], P.Y);
  tessel::mul(t[4], t[1], P.X);  // S1·H³
  t[3] -= t[4];                  // Y3
  std::swap(P.X, t[2]);
  std::swap(P.Y, t[3]);
}

WCurve::Point WCurve::mul(const BigNum& k, const Point& P) const {
  RedNum t[5];
  // table[j − 8] = j·P for j = 8 … 15: every window starts at a 1 bit.
  Point table[8];
  table[0] = P;
  for (int i = 0; i < 3; ++i) dbl(table[0], t);
  for (int i = 1; i < 8; ++i) {
    table[i] = table[i - 1];
    add(table[i], P, t);
  }
  Point r = infinity();
  bool started = false;
  unsigned window = 0, taken = 0;
  for (unsigned i = k.size(); i-- > 0;) {
    for (int b = 31; b >= 0; --b) {
      const unsigned bit = (k[i] >> b) & 1;
      if (taken == 0 && bit == 0) {
        if (started) dbl(r, t);
        continue;
      }
      window = 2 * window + bit;
      if (++taken < 4) continue;
      if (started) {
        for (int d = 0; d < 4; ++d) dbl(r, t);
        add(r, table[window - 8], t);
      } else {
        r = table[window - 8];
        started = true;
      }
      window = taken = 0;
    }
  }
  // A window left open at the end is finished bit by bit.
  for (unsigned j = taken; j-- > 0;) {
    dbl(r, t);
    if ((window >> j) & 1) add(r, P, t);
  }
  return r;
}

WCurve::Point WCurve::mul2add(const BigNum& k1, const Point& P, const BigNum& k2, const Point& Q) const {
  RedNum t[5];
  // table[4i + j] = i·P + j·Q for i, j in 0 … 3; entry 0 is infinity.
  Point table[16];
  table[0] = infinity();
  table[4] = P;
  table[1] = Q;
  for (int i = 2; i < 4; ++i) {
    table[4 * i] = table[4 * (i - 1)];
    add(table[4 * i], P, t);
    table[i] = table[i - 1];
    add(table[i], Q, t);
  }
  for (int i = 1; i < 4; ++i) {
    for (int j = 1; j < 4; ++j) {
      table[4 * i + j] = table[4 * i];
      add(table[4 * i + j], table[j], t);
    }
  }
  Point r = infinity();
  const unsigned digits = std::max(k1.size(), k2.size());
  for (unsigned d = digits; d-- > 0;) {
    const BigNum::Digit a = d < k1.size() ? k1[d] : 0, b = d < k2.size() ? k2[d] : 0;
    for (int shift = 30; shift >= 0; shift -= 2) {
      dbl(r, t);
      dbl(r, t);
      add(r, table[4 * ((a >> shift) & 3) + ((b >> shift) & 3)], t);
    }
  }
  return r;
}

bool WCurve::isOnCurve(const BigNum& a, const BigNum& b, Point&& P) const {
  const ECPoint e = toEC(std::move(P));
  BigNum lhs, rhs, tmp;
  sqr(tmp, e.y);
  div(tmp, p_, nullptr, &lhs);
  rhs = e.x * e.x + a;
  rhs = rhs * e.x + b;
  div(rhs, p_, nullptr, &tmp);
  return lhs == tmp;
}

namespace {

// sqrtMod sets r to a square root of the residue v (Montgomery form, fully reduced) by
// Tonelli–Shanks, which covers p ≡ 1 (mod 4) as P-224 needs; for p ≡ 3 (mod 4) it ends after
// the first step with v^((p+1)/4). Returns false for a non-residue.
bool sqrtMod(const MontgomeryReducer& red, const RedNum& v, RedNum& r) {
  const BigNum& p = red.mod();
  if (v.isZero()) {
    r = v;
    return true;
  }
  const BigNum pMinus1 = p - BigNum(1u);
  const unsigned s = lsb(pMinus1);
  const BigNum q = pMinus1 >> s;
  const RedNum one = red.fromBigNum(BigNum(1u));
  RedNum t = expByMod(v, q, red);
  r = expByMod(v, (q + BigNum(1u)) >> 1, red);
  if (t.value == one.value) return true;  // always the case for a square when p ≡ 3 (mod 4)
  if (s == 1) return false;
  // A non-residue z: z^((p−1)/2) = −1.
  const RedNum minusOne = red.fromBigNum(pMinus1);
  RedNum z = red.fromBigNum(BigNum(2u));
  const BigNum half = pMinus1 >> 1;
  while (!(expByMod(z, half, red).value == minusOne.value)) z += one;
  RedNum c = expByMod(z, q, red);
  unsigned m = s;
  RedNum tmp, b;
  while (!(t.value == one.value)) {
    // The least i with t^(2^i) = 1; i = m means v is not a square.
    unsigned i = 0;
    tmp = t;
    while (!(tmp.value == one.value)) {
      if (++i == m) return false;
      RedNum sq;
      sqr(sq, tmp);
      tmp = std::move(sq);
    }
    b = c;
    for (unsigned j = 0; j + i + 1 < m; ++j) {
      sqr(tmp, b);
      std::swap(tmp, b);
    }
    m = i;
    sqr(c, b);
    tessel::mul(tmp, t, c);
    std::swap(t, tmp);
    tessel::mul(tmp, r, b);
    std::swap(r, tmp);
  }
  return true;
}

}  // namespace

bool WCurve::getY(const BigNum& x, const BigNum& a, const BigNum& b, BigNum& y) const {
  const MontgomeryReducer red(p_);
  BigNum rhs = x * x + a, tmp;
  rhs = rhs * x + b;
  RedNum root;
  if (!sqrtMod(red, red.fromBigNum(rhs), root)) return false;
  y = red.toBigNum(std::move(root));
  sqr(tmp, y);
  div(tmp, p_, nullptr, &rhs);
  div(x * x * x + a * x + b, p_, nullptr, &tmp);
  return rhs == tmp;
}

// ---- named curves ----

namespace {

// The FIPS 186 / SEC 2 parameters as big-endian hex of the field length.
struct CurveHex {
  const char* p;
  const char* n;
  const char* b;
  const char* gx;
  const char* gy;
};

const CurveHex kP192 = {
    "fffffffffffffffffffffffffffffffeffffffffffffffff", "ffffffffffffffffffffffff99def836146bc9b1b4d22831",
    "64210519e59c80e70fa7e9ab72243049feb8deecc146b9b1", "188da80eb03090f67cbf20eb43a18800f4ff0afd82ff1012",
    "07192b95ffc8da78631011ed6b24cdd573f977a11e794811"};
const CurveHex kP224 = {"ffffffffffffffffffffffffffffffff000000000000000000000001",
                        "ffffffffffffffffffffffffffff16a2e0b8f03e13dd29455c5c2a3d",
                        "b4050a850c04b3abf54132565044b0b7d7bfd8ba270b39432355ffb4",
                        "b70e0cbd6bb4bf7f321390b94a03c1d356c21122343280d6115c1d21",
                        "bd376388b5f723fb4c22dfe6cd4375a05a07476444d5819985007e34"};
const CurveHex kP256 = {"ffffffff00000001000000000000000000000000ffffffffffffffffffffffff",
                        "ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551",
                        "5ac635d8aa3a93e7b3ebbd55769886bc651d06b0cc53b0f63bce3c3e27d2604b",
                        "6b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296",
                        "4fe342e2fe1a7f9b8ee7eb4a7c0f9e162bce33576b315ececbb6406837bf51f5"};
const CurveHex kP384 = {
    "ffffffffffffffffffffffffffffffffffffffffffffffff"
    "fffffffffffffffeffffffff0000000000000000ffffffff",
    "ffffffffffffffffffffffffffffffffffffffffffffffff"
    "c7634d81f4372ddf581a0db248b0a77aecec196accc52973",
    "b3312fa7e23ee7e4988e056be3f82d19181d9c6efe814112"
    "0314088f5013875ac656398d8a2ed19d2a85c8edd3ec2aef",
    "aa87ca22be8b05378eb1c71ef320ad746e1d3b628ba79b98"
    "59f741e082542a385502f25dbf55296c3a545e3872760ab7",
    "3617de4a96262c6f5d9e98bf9292dc29f8f41dbd289a147c"
    "e9da3113b5f0b8c00a60b1ce1d7e819d7a431d7c90ea0e5f"};
const CurveHex kP521 = {
    "01ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"
    "ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff",
    "01ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff"
    "fa51868783bf2f966b7fcc0148f709a5d03bb5c9b8899c47aebb6fb71e91386409",
    "0051953eb9618e1c9a1f929a21a0b68540eea2da725b99b315f3b8b489918ef109"
    "e156193951ec7e937b1652c0bd3bb1bf073573df883d2c34f1ef451fd46b503f00",
    "00c6858e06b70404e9cd9e3ecb662395b4429c648139053fb521f828af606b4d3d"
    "baa14b5e77efe75928fe1dc127a2ffa8de3348b3c1856a429bf97e7e31c2e5bd66",
    "011839296a789a3bc0045c8a5fb42c7d1bd998f54449579b446817afbd17273e66"
    "2c97ee72995ef42640c550b9013fad0761353c7086a272c24088be94769fd16650"};

const CurveHex* curveHex(Curve c) {
  switch (c) {
    case Curve::p192: return &kP192;
    case Curve::p224: return &kP224;
    case Curve::p256: return &kP256;
    case Curve::p384: return &kP384;
    case Curve::p521: return &kP521;
  }
  return nullptr;
}

BigNum fromHex(const char* hex) {
  std::vector<unsigned char> bytes;
  auto nibble = [](char ch) { return ch <= '9' ? ch - '0' : ch - 'a' + 10; };
  for (const char* h = hex; h[0] && h[1]; h += 2)
    bytes.push_back(static_cast<unsigned char>(nibble(h[0]) << 4 | nibble(h[1])));
  return BigNum(asn1::blob(bytes));
}

bool fillParams(Curve c, BigNum& p, BigNum& n, ECPoint& G) {
  const CurveHex* h = curveHex(c);
  if (!h) return false;
  p = fromHex(h->p);
  n = fromHex(h->n);
  G = {fromHex(h->gx), fromHex(h->gy)};
  return true;
}

}  // namespace

bool getECParamsForP192(BigNum& p, BigNum& n, ECPoint& G) { return fillParams(Curve::p192, p, n, G); }
bool getECParamsForP224(BigNum& p, BigNum& n, ECPoint& G) { return fillParams(Curve::p224, p, n, G); }
bool getECParamsForP256(BigNum& p, BigNum& n, ECPoint& G) { return fillParams(Curve::p256, p, n, G); }
bool getECParamsForP384(BigNum& p, BigNum& n, ECPoint& G) { return fillParams(Curve::p384, p, n, G); }
bool getECParamsForP521(BigNum& p, BigNum& n, ECPoint& G) { return fillParams(Curve::p521, p, n, G); }

bool getECParams(Curve c, BigNum& p, BigNum& n, ECPoint& G) {
  switch (c) {
    case Curve::p192: return getECParamsForP192(p, n, G);
    case Curve::p224: return getECParamsForP224(p, n, G);
    case Curve::p256: return getECParamsForP256(p, n, G);
    case Curve::p384: return getECParamsForP384(p, n, G);
    case Curve::p521: return getECParamsForP521(p, n, G);
  }
  return false;
}

BigNum getModForECCurve(Curve c) {
  const CurveHex* h = curveHex(c);
  return h ? fromHex(h->p) : BigNum(0u);
}

BigNum getOrderForECCurve(Curve c) {
  const CurveHex* h = curveHex(c);
  return h ? fromHex(h->n) : BigNum(0u);
}

BigNum getAForECCurve(Curve c) {
  const CurveHex* h = curveHex(c);
  return h ? fromHex(h->p) - BigNum(3u) : BigNum(0u);
}

BigNum getBForECCurve(Curve c) {
  const CurveHex* h = curveHex(c);
  return h ? fromHex(h->b) : BigNum(0u);
}

}  // namespace tessel
