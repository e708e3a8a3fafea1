// edwards25519 point arithmetic over the field code of fe25519.h, for Ed25519 and X25519.
#include "ec/edwards25519.h"

#include <cstring>
#include <vector>

#include "tessel/eddsa.h"

namespace tessel {
namespace edwards25519 {

using namespace fe25519;

namespace {

// Completed is the result of an addition or doubling before its last multiplications:
// x = X/Z, y = Y/T.
struct Completed {
  Fe x, y, z, t;
};

// Cached is an addend prepared for repeated use: (Y+X, Y-X, Z, 2dT).
struct Cached {
  Fe yPlusX, yMinusX, z, t2d;
};

// Affine is a table entry with Z = 1: (y+x, y-x, 2dxy).
struct Affine {
  Fe yPlusX, yMinusX, xy2d;
};

// makeConstants derives the curve constants instead of spelling out their digits:
// d = -121665/121666, sqrt(-1) = 2^((p-1)/4), and B the point with y = 4/5 and even x.
Constants makeConstants();

Point neutral() { return Point{zero(), one(), one(), zero()}; }

Point toPoint(const Completed& c) { return Point{mul(c.x, c.t), mul(c.y, c.z), mul(c.z, c.t), mul(c.x, c.y)}; }

Projective toProjective(const Completed& c) { return Projective{mul(c.x, c.t), mul(c.y, c.z), mul(c.z, c.t)}; }

Projective toProjective(const Point& p) { return Projective{p.x, p.y, p.z}; }

Cached toCached(const Point& p, const Fe& d2) { return Cached{add(p.y, p.x), sub(p.y, p.x), p.z, mul(p.t, d2)}; }

// doublePoint is 2p for a = -1 (complete: no exceptional inputs).
Completed doublePoint(const Projective& p) {
  const Fe xx = sqr(p.x), yy = sqr(p.y), zz2 = sqr2(p.z);
  const Fe sum = sqr(add(p.x, p.y));
  Completed r;
  r.y = add(yy, xx);
  r.z = sub(yy, xx);
  r.x = sub(sum, r.y);
  r.t = sub(zz2, r.z);
  return r;
}

// addCached is p + q, or p - q when `minus` (a public flag), with the unified formula that is
// complete on this curve.
Completed addCached(const Point& p, const Cached& q, bool minus) {
  const Fe a = mul(sub(p.y, p.x), minus ? q.yPlusX : q.yMinusX);
  const Fe b = mul(add(p.y, p.x), minus ? q.yMinusX : q.yPlusX);
  const Fe c = mul(q.t2d, p.t);
  const Fe zz = mul(p.z, q.z);
  const Fe d = add(zz, zz);
  return Completed{sub(b, a), add(b, a), minus ? sub(d, c) : add(d, c), minus ? add(d, c) : sub(d, c)};
}

// addAffine is p + q (or p - q when `minus`, a public flag) for a table entry q.
Completed addAffine(const Point& p, const Affine& q, bool minus) {
  const Fe a = mul(sub(p.y, p.x), minus ? q.yPlusX : q.yMinusX);
  const Fe b = mul(add(p.y, p.x), minus ? q.yMinusX : q.yPlusX);
  const Fe c = mul(q.xy2d, p.t);
  const Fe d = add(p.z, p.z);
  return Completed{sub(b, a), add(b, a), minus ? sub(d, c) : add(d, c), minus ? add(d, c) : sub(d, c)};
}

Point addPoints(const Point& p, const Point& q, const Fe& d2) { return toPoint(addCached(p, toCached(q, d2), false)); }

void cswapPoints(Point& p, Point& q, std::uint32_t bit) {
  cswap(p.x, q.x, bit);
  cswap(p.y, q.y, bit);
  cswap(p.z, q.z, bit);
  cswap(p.t, q.t, bit);
}

// scalarMultPoint is a ladder over all 256 bits: each step adds and doubles whatever the
// bit, which only decides (by masked swaps) which register receives which result.
Point scalarMultPoint(const Point& q0, const unsigned char s[32], const Fe& d2) {
  Point p = neutral(), q = q0;
  for (int i = 255; i >= 0; --i) {
    const std::uint32_t bit = (s[i >> 3] >> (i & 7)) & 1;
    cswapPoints(p, q, bit);
    q = addPoints(q, p, d2);
    p = toPoint(doublePoint(toProjective(p)));
    cswapPoints(p, q, bit);
  }
  return p;
}

// Tables of base-point multiples, computed once: rows[i][j] = (j + 1) 256^i B for the
// constant-time fixed-base multiplication, odd[k] = (2k + 1) B for verification.
struct BaseTables {
  Affine rows[32][8];
  Affine odd[8];
};

BaseTables makeBaseTables();

const BaseTables& baseTables() {
  static const BaseTables t = makeBaseTables();
  return t;
}

// toAffine normalises n points with one inversion (Montgomery's trick); public data only.
void toAffine(Affine* out, const Point* in, std::size_t n, const Fe& d2) {
  std::vector<Fe> prefix(n);
  Fe acc = one();
  for (std::size_t i = 0; i < n; ++i) {
    prefix[i] = acc;
    acc = mul(acc, in[i].z);
  }
  Fe inv = invert(acc);
  for (std::size_t i = n; i-- > 0;) {
    const Fe zi = mul(inv, prefix[i]);
    inv = mul(inv, in[i].z);
    const Fe x = mul(in[i].x, zi), y = mul(in[i].y, zi);
    out[i] = Affine{add(y, x), sub(y, x), mul(mul(x, y), d2)};
  }
}

BaseTables makeBaseTables() {
  const Constants& k = constants();
  std::vector<Point> points;
  points.reserve(32 * 8 + 8);
  Point row = k.base;
  for (int i = 0; i < 32; ++i) {
    const Cached r = toCached(row, k.d2);
    Point multiple = row;
    for (int j = 0; j < 8; ++j) {
      points.push_back(multiple);
      multiple = toPoint(addCached(multiple, r, false));
    }
    for (int j = 0; j < 8; ++j) row = toPoint(doublePoint(toProjective(row)));
  }
  const Point twiceBase = toPoint(doublePoint(toProjective(k.base)));
  const Cached twice = toCached(twiceBase, k.d2);
  Point multiple = k.base;
  for (int j = 0; j < 8; ++j) {
    points.push_back(multiple);
    multiple = toPoint(addCached(multiple, twice, false));
  }
  BaseTables t;
  toAffine(&t.rows[0][0], points.data(), 32 * 8, k.d2);
  toAffine(t.odd, points.data() + 32 * 8, 8, k.d2);
  return t;
}

// selectEntry returns b times the row's point for a secret digit b in [-8, 8]: it reads all
// eight entries and keeps the wanted one by masking, then negates by masking.
Affine selectEntry(const Affine row[8], std::int32_t b) {
  const std::uint32_t negative = static_cast<std::uint32_t>(b) >> 31;
  const std::uint32_t magnitude = static_cast<std::uint32_t>(b) - ((0 - negative) & (2 * static_cast<std::uint32_t>(b)));
  Affine t{one(), one(), zero()};
  for (std::uint32_t j = 0; j < 8; ++j) {
    const std::uint32_t hit = ((magnitude ^ (j + 1)) - 1) >> 31;
    cmov(t.yPlusX, row[j].yPlusX, hit);
    cmov(t.yMinusX, row[j].yMinusX, hit);
    cmov(t.xy2d, row[j].xy2d, hit);
  }
  cswap(t.yPlusX, t.yMinusX, negative);
  cmov(t.xy2d, neg(t.xy2d), negative);
  return t;
}

// slide_vartime recodes a public scalar below 2^255 into signed odd digits of at most 15 in
// absolute value with at least four zeros between them (a width-5 sliding window).
void slide_vartime(std::int8_t r[256], const unsigned char a[32]) {
  for (int i = 0; i < 256; ++i) r[i] = static_cast<std::int8_t>(1 & (a[i >> 3] >> (i & 7)));
  for (int i = 0; i < 256; ++i) {
    if (!r[i]) continue;
    for (int b = 1; b <= 6 && i + b < 256; ++b) {
      if (!r[i + b]) continue;
      const int step = r[i + b] << b;
      if (r[i] + step <= 15) {
        r[i] = static_cast<std::int8_t>(r[i] + step);
        r[i + b] = 0;
      } else if (r[i] - step >= -15) {
        r[i] = static_cast<std::int8_t>(r[i] - step);
        for (int k = i + b; k < 256; ++k) {
          if (!r[k]) {
            r[k] = 1;
            break;
          }
          r[k] = 0;
        }
      } else {
        break;
      }
    }
  }
}

Constants makeConstants() {
  Constants k;
  k.d = mul(neg(fromSmall(121665)), invert(fromSmall(121666)));
  k.d2 = add(k.d, k.d);
  // (p-1)/4 = 2 * (p-5)/8 + 1, so sqrt(-1) = 2^((p-1)/4) = 2 * (2^((p-5)/8))^2.
  const Fe two = fromSmall(2);
  const Fe r = pow22523(two);
  k.sqrtm1 = mul(sqr(r), two);
  unsigned char b[32];
  toBytes(b, mul(fromSmall(4), invert(fromSmall(5))));
  decode_vartime(&k.base, b, k);
  return k;
}

}  // namespace

const Constants& constants() {
  static const Constants c = makeConstants();
  return c;
}

// baseMult is [a]B for a secret scalar a < 2^255, constant time. The scalar is recoded into 64
// signed radix-16 digits e[i] in [-8, 8]; the odd-position digits are added from the rows
// (e[i] 16^i B = e[i] 16 * 256^(i/2) B), the sum multiplied by 16, and the even ones added.
Point baseMult(const unsigned char a[32]) {
  std::int32_t e[64];
  for (int i = 0; i < 32; ++i) {
    e[2 * i] = a[i] & 15;
    e[2 * i + 1] = a[i] >> 4;
  }
  std::int32_t carry = 0;
  for (int i = 0; i < 63; ++i) {
    e[i] += carry;
    carry = (e[i] + 8) >> 4;
    e[i] -= carry * 16;
  }
  e[63] += carry;

  const BaseTables& table = baseTables();
  Point h = neutral();
  for (int i = 1; i < 64; i += 2) h = toPoint(addAffine(h, selectEntry(table.rows[i / 2], e[i]), false));
  Projective p = toProjective(h);
  for (int i = 0; i < 3; ++i) p = toProjective(doublePoint(p));
  h = toPoint(doublePoint(p));
  for (int i = 0; i < 64; i += 2) h = toPoint(addAffine(h, selectEntry(table.rows[i / 2], e[i]), false));
  for (auto& x : e) x = 0;
  return h;
}

// doubleScalarMult_vartime is [a]A + [b]B for public scalars below 2^255, sharing one chain of
// doublings between both sliding windows; public data only.
Projective doubleScalarMult_vartime(const unsigned char a[32], const Point& A, const unsigned char b[32]) {
  const Constants& k = constants();
  const BaseTables& table = baseTables();
  std::int8_t as[256], bs[256];
  slide_vartime(as, a);
  slide_vartime(bs, b);
  Cached odd[8];  // (2j + 1) A
  odd[0] = toCached(A, k.d2);
  const Point twice = toPoint(doublePoint(toProjective(A)));
  for (int j = 1; j < 8; ++j) odd[j] = toCached(toPoint(addCached(twice, odd[j - 1], false)), k.d2);

  int i = 255;
  while (i >= 0 && !as[i] && !bs[i]) --i;
  Projective r{zero(), one(), one()};
  for (; i >= 0; --i) {
    Completed t = doublePoint(r);
    if (as[i]) t = addCached(toPoint(t), odd[(as[i] < 0 ? -as[i] : as[i]) / 2], as[i] < 0);
    if (bs[i]) t = addAffine(toPoint(t), table.odd[(bs[i] < 0 ? -bs[i] : bs[i]) / 2], bs[i] < 0);
    r = toProjective(t);
  }
  return r;
}

void encode(unsigned char out[32], const Projective& p) {
  const Fe zi = invert(p.z);
  const Fe x = mul(p.x, zi), y = mul(p.y, zi);
  toBytes(out, y);
  out[31] ^= static_cast<unsigned char>(isNegative(x) << 7);
}

void encode(unsigned char out[32], const Point& p) { encode(out, toProjective(p)); }

// decode implements RFC 8032 section 5.1.3; public data only.
bool decode_vartime(Point* out, const unsigned char in[32], const Constants& k) {
  const Fe y = fromBytes(in);
  unsigned char canonical[32];
  toBytes(canonical, y);
  canonical[31] |= in[31] & 0x80;
  if (std::memcmp(canonical, in, 32) != 0) return false;  // y >= p

  const Fe y2 = sqr(y);
  const Fe u = sub(y2, one());
  const Fe v = add(mul(k.d, y2), one());
  const Fe v3 = mul(sqr(v), v);
  const Fe v7 = mul(sqr(v3), v);
  Fe x = mul(mul(u, v3), pow22523(mul(u, v7)));
  const Fe vx2 = mul(v, sqr(x));
  if (!equal(vx2, u)) {
    if (!equal(vx2, neg(u))) return false;
    x = mul(x, k.sqrtm1);
  }
  const std::uint32_t sign = in[31] >> 7;
  if (isZero(x) && sign) return false;
  if (isNegative(x) != sign) x = neg(x);
  *out = Point{x, y, one(), mul(x, y)};
  return true;
}

void baseMultU(unsigned char out[32], const unsigned char scalar[32]) {
  // The birational map to curve25519: u = (1 + y) / (1 - y) = (Z + Y) / (Z - Y).
  const Point p = baseMult(scalar);
  toBytes(out, mul(add(p.z, p.y), invert(sub(p.z, p.y))));
}

}  // namespace edwards25519

using namespace edwards25519;
using fe25519::Fe;

static_assert(sizeof(Fe) == sizeof(std::uint64_t[5]), "Edwards25519 stores field elements as they are");

struct EdwardsAccess {
  static Point get(const Edwards25519& e) {
    Point p;
    std::memcpy(p.x.v, e.x_, sizeof p.x.v);
    std::memcpy(p.y.v, e.y_, sizeof p.y.v);
    std::memcpy(p.z.v, e.z_, sizeof p.z.v);
    std::memcpy(p.t.v, e.t_, sizeof p.t.v);
    return p;
  }
  static Edwards25519 make(const Point& p) {
    Edwards25519 e;
    std::memcpy(e.x_, p.x.v, sizeof p.x.v);
    std::memcpy(e.y_, p.y.v, sizeof p.y.v);
    std::memcpy(e.z_, p.z.v, sizeof p.z.v);
    std::memcpy(e.t_, p.t.v, sizeof p.t.v);
    return e;
  }
};

Edwards25519::Edwards25519() {
  const Point n = neutral();
  std::memcpy(x_, n.x.v, sizeof x_);
  std::memcpy(y_, n.y.v, sizeof y_);
  std::memcpy(z_, n.z.v, sizeof z_);
  std::memcpy(t_, n.t.v, sizeof t_);
}

const Edwards25519& Edwards25519::base() {
  static const Edwards25519 b = EdwardsAccess::make(constants().base);
  return b;
}

bool Edwards25519::fromBin_vartime(Edwards25519* out, const unsigned char in[32]) {
  Point p;
  if (!decode_vartime(&p, in, constants())) return false;
  *out = EdwardsAccess::make(p);
  return true;
}

void Edwards25519::toBin(unsigned char out[32]) const { encode(out, EdwardsAccess::get(*this)); }

Edwards25519 Edwards25519::add(const Edwards25519& other) const {
  return EdwardsAccess::make(addPoints(EdwardsAccess::get(*this), EdwardsAccess::get(other), constants().d2));
}

Edwards25519 Edwards25519::negate() const {
  Point p = EdwardsAccess::get(*this);
  p.x = neg(p.x);
  p.t = neg(p.t);
  return EdwardsAccess::make(p);
}

Edwards25519 Edwards25519::scalarMult(const unsigned char scalar[32]) const {
  return EdwardsAccess::make(scalarMultPoint(EdwardsAccess::get(*this), scalar, constants().d2));
}

}  // namespace tessel
