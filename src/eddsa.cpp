// Ed25519 (RFC 8032) over the radix-2^16 field code of fe25519.h.
#include "tessel/eddsa.h"

#include <cstring>

#include "fe25519.h"
#include "tessel/hash.h"

namespace tessel {

using namespace fe25519;

namespace {

struct Point {
  Fe x, y, z, t;
};

struct Constants {
  Fe d, d2, sqrtm1;
  Point base;
};

// makeConstants derives the curve constants instead of spelling out their digits:
// d = -121665/121666, sqrt(-1) = 2^((p-1)/4), and B the point with y = 4/5 and even x.
Constants makeConstants();

const Constants& constants() {
  static const Constants c = makeConstants();
  return c;
}

Point neutral() { return Point{zero(), one(), one(), zero()}; }

Point addPoints(const Point& p, const Point& q, const Fe& d2) {
  const Fe a = mul(sub(p.y, p.x), sub(q.y, q.x));
  const Fe b = mul(add(p.x, p.y), add(q.x, q.y));
  const Fe c = mul(mul(p.t, q.t), d2);
  Fe d = mul(p.z, q.z);
  d = add(d, d);
  const Fe e = sub(b, a), f = sub(d, c), g = add(d, c), h = add(b, a);
  return Point{mul(e, f), mul(h, g), mul(g, f), mul(e, h)};
}

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
    p = addPoints(p, p, d2);
    cswapPoints(p, q, bit);
  }
  return p;
}

void encode(unsigned char out[32], const Point& p) {
  const Fe zi = invert(p.z);
  const Fe x = mul(p.x, zi), y = mul(p.y, zi);
  toBytes(out, y);
  out[31] ^= static_cast<unsigned char>(isNegative(x) << 7);
}

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
    if (!equal(vx2, sub(zero(), u))) return false;
    x = mul(x, k.sqrtm1);
  }
  const std::uint32_t sign = in[31] >> 7;
  if (isZero(x) && sign) return false;
  if (isNegative(x) != sign) x = sub(zero(), x);
  *out = Point{x, y, one(), mul(x, y)};
  return true;
}

Constants makeConstants() {
  Constants k;
  k.d = mul(sub(zero(), fromSmall(121665)), invert(fromSmall(121666)));
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

void sha512(unsigned char out[64], std::span<const unsigned char> a, std::span<const unsigned char> b,
            std::span<const unsigned char> c) {
  SHA512 h;
  h.update(a);
  h.update(b);
  h.update(c);
  h.digest(out);
}

// The group order L = 2^252 + 27742317777372353535851937790883648493, little-endian bytes.
constexpr std::int64_t kOrder[32] = {0xed, 0xd3, 0xf5, 0x5c, 0x1a, 0x63, 0x12, 0x58, 0xd6, 0x9c, 0xf7,
                                     0xa2, 0xde, 0xf9, 0xde, 0x14, 0,    0,    0,    0,    0,    0,
                                     0,    0,    0,    0,    0,    0,    0,    0,    0,    0x10};

// reduceLimbs reduces 64 signed byte-sized limbs modulo L into 32 bytes. It folds the high
// limbs down with 2^252 = -(L - 2^252) and finishes with one masked correction, so it runs the
// same steps for every value.
void reduceLimbs(unsigned char out[32], std::int64_t x[64]) {
  for (int i = 63; i >= 32; --i) {
    std::int64_t carry = 0;
    int j = i - 32;
    for (; j < i - 12; ++j) {
      x[j] += carry - 16 * x[i] * kOrder[j - (i - 32)];
      carry = (x[j] + 128) >> 8;
      x[j] -= carry * 256;
    }
    x[j] += carry;
    x[i] = 0;
  }
  std::int64_t carry = 0;
  for (int j = 0; j < 32; ++j) {
    x[j] += carry - (x[31] >> 4) * kOrder[j];
    carry = x[j] >> 8;
    x[j] &= 255;
  }
  for (int j = 0; j < 32; ++j) x[j] -= carry * kOrder[j];
  for (int i = 0; i < 32; ++i) {
    if (i < 31) x[i + 1] += x[i] >> 8;
    out[i] = static_cast<unsigned char>(x[i] & 255);
  }
}

// expandSeed hashes the seed: the clamped scalar a in the first half, the nonce prefix after.
void expandSeed(unsigned char h[64], const unsigned char seed[32]) {
  sha512(h, {seed, 32}, {}, {});
  h[0] &= 248;
  h[31] &= 127;
  h[31] |= 64;
}

// lessThanOrder_vartime is S < L for a public 32-byte scalar.
bool lessThanOrder_vartime(const unsigned char s[32]) {
  for (int i = 31; i >= 0; --i) {
    if (s[i] != kOrder[i]) return s[i] < kOrder[i];
  }
  return false;
}

}  // namespace

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

Edwards25519::Edwards25519() : x_{}, y_{1}, z_{1}, t_{} {}

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
  p.x = sub(zero(), p.x);
  p.t = sub(zero(), p.t);
  return EdwardsAccess::make(p);
}

Edwards25519 Edwards25519::scalarMult(const unsigned char scalar[32]) const {
  return EdwardsAccess::make(scalarMultPoint(EdwardsAccess::get(*this), scalar, constants().d2));
}

namespace eddsa {

void reduceScalar(unsigned char out[32], const unsigned char in[64]) {
  std::int64_t x[64];
  for (int i = 0; i < 64; ++i) x[i] = in[i];
  reduceLimbs(out, x);
}

void publicKeyFromSeed(unsigned char publicKey[32], const unsigned char seed[32]) {
  unsigned char h[64];
  expandSeed(h, seed);
  const Constants& k = constants();
  encode(publicKey, scalarMultPoint(k.base, h, k.d2));
  std::memset(h, 0, sizeof h);
}

void sign(unsigned char signature[64], std::span<const unsigned char> message, const unsigned char seed[32],
          const unsigned char publicKey[32]) {
  const Constants& k = constants();
  unsigned char h[64], nonce[64], r[32], challenge[64], c[32];
  expandSeed(h, seed);
  sha512(nonce, {h + 32, 32}, message, {});
  reduceScalar(r, nonce);
  encode(signature, scalarMultPoint(k.base, r, k.d2));
  sha512(challenge, {signature, 32}, {publicKey, 32}, message);
  reduceScalar(c, challenge);

  // S = r + c * a mod L, schoolbook on byte limbs (products stay far below 2^63).
  std::int64_t x[64] = {};
  for (int i = 0; i < 32; ++i) x[i] = r[i];
  for (int i = 0; i < 32; ++i)
    for (int j = 0; j < 32; ++j) x[i + j] += std::int64_t{c[i]} * h[j];
  reduceLimbs(signature + 32, x);
  std::memset(h, 0, sizeof h);
  std::memset(nonce, 0, sizeof nonce);
  std::memset(r, 0, sizeof r);
  std::memset(x, 0, sizeof x);
}

bool verify(std::span<const unsigned char> signature, std::span<const unsigned char> message,
            std::span<const unsigned char> publicKey) {
  if (signature.size() != signatureSize || publicKey.size() != publicKeySize) return false;
  if (!lessThanOrder_vartime(signature.data() + 32)) return false;
  const Constants& k = constants();
  Point a;
  if (!decode_vartime(&a, publicKey.data(), k)) return false;
  unsigned char challenge[64], c[32];
  sha512(challenge, signature.first(32), publicKey, message);
  reduceScalar(c, challenge);

  // R' = [S]B - [c]A must encode to exactly the R of the signature.
  const Point minusA{sub(zero(), a.x), a.y, a.z, sub(zero(), a.t)};
  const Point sum = addPoints(scalarMultPoint(k.base, signature.data() + 32, k.d2),
                              scalarMultPoint(minusA, c, k.d2), k.d2);
  unsigned char check[32];
  encode(check, sum);
  return std::memcmp(check, signature.data(), 32) == 0;
}

}  // namespace eddsa
}  // namespace tessel
