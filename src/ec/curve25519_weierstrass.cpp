// curve25519 in its short Weierstrass model over BigNum; see tessel/curve25519_weierstrass.h.
#include "tessel/curve25519_weierstrass.h"

#include <algorithm>

namespace tessel {

namespace {

BigNum mod(const BigNum& a, const BigNum& m) {
  BigNum r;
  div(a, m, nullptr, &r);
  return r;
}

// The Weierstrass coefficients from A: a = (3 − A²)/3, b = (2A³ − 9A)/27, both mod p.
BigNum coefficientA(const BigNum& p) {
  const BigNum A(486662u), three(3u);
  return mod((three + p - A * A) * invByMod(three, p), p);  // A² < p
}

BigNum coefficientB(const BigNum& p) {
  const BigNum A(486662u);
  const BigNum num = mod(BigNum(2u) * A * A * A + p * BigNum(9u) - mod(BigNum(9u) * A, p), p);
  return mod(num * invByMod(BigNum(27u), p), p);
}

BigNum order25519() {
  // 2^252 + 27742317777372353535851937790883648493
  BigNum n(asn1::blob(std::vector<unsigned char>{0x14, 0xde, 0xf9, 0xde, 0xa2, 0xf7, 0x9c, 0xd6, 0x58, 0x12, 0x63, 0x1a,
                                                 0x5c, 0xf5, 0xd3, 0xed}));
  n.setBit(252, true);
  return n;
}

}  // namespace

const BigNum& Curve25519::getMod() {
  static const Mod25519Reducer reducer;
  return reducer.mod();
}

Curve25519::Curve25519()
    : p_(getMod()),
      a_(coefficientA(p_)),
      b_(coefficientB(p_)),
      order_(order25519()),
      aThird_(mod(BigNum(486662u) * invByMod(BigNum(3u), p_), p_)),
      w_(p_, a_, &red_) {}

ECPoint Curve25519::affine(const Point& P) const {
  Point copy = P;
  ECPoint e = w_.toEC(std::move(copy));
  return {mod(e.x, p_), mod(e.y, p_)};
}

Curve25519::Point Curve25519::fromNum(const BigNum& u, unsigned selector) const {
  const BigNum x = mod(mod(u, p_) + aThird_, p_);
  BigNum y;
  if (!w_.getY(x, a_, b_, y)) return w_.infinity();
  y = mod(y, p_);
  if (!y.isZero() && static_cast<unsigned>(y.isOdd()) != (selector & 1)) y = p_ - y;
  return w_.fromEC({x, y});
}

BigNum Curve25519::toNum(const Point& P, unsigned* selector) const {
  if (selector) *selector = 0;
  if (P.isInfinity()) return BigNum();
  const ECPoint e = affine(P);
  if (selector) *selector = e.y.isOdd() ? 1 : 0;
  return mod(e.x + p_ - aThird_, p_);
}

std::vector<unsigned char> Curve25519::toBin(const Point& P) const {
  unsigned selector = 0;
  std::vector<unsigned char> out = toNum(P, &selector).bin(32);
  out.push_back(static_cast<unsigned char>(selector));
  return out;
}

Curve25519::Point Curve25519::fromBin(asn1::blob in) const {
  if (in.size() != encodedSize || in[32] > 1) return w_.infinity();
  return fromNum(BigNum(asn1::blob(in.data(), 32)), in[32]);
}

std::vector<unsigned char> Curve25519::getX(const std::vector<unsigned char>& encoding) {
  return {encoding.begin(), encoding.begin() + static_cast<long>(std::min<std::size_t>(encoding.size(), 32))};
}

bool Curve25519::isValid(const Point& P) const {
  if (P.isInfinity()) return false;
  Point copy = P;
  return w_.isOnCurve(a_, b_, std::move(copy));
}

Curve25519::Point Curve25519::add(const Point& P, const Point& Q) const {
  Point r = P;
  RedNum t[5];
  w_.add(r, Q, t);
  return r;
}

Curve25519::Point Curve25519::negate(const Point& P) const {
  if (P.isInfinity()) return P;
  const ECPoint e = affine(P);
  return w_.fromEC({e.x, e.y.isZero() ? e.y : p_ - e.y});
}

}  // namespace tessel
