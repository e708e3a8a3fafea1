// Ed25519 (RFC 8032): the signature scheme over the edwards25519 points of ec/edwards25519.h.
#include "tessel/eddsa.h"

#include <cstring>

#include "ec/edwards25519.h"
#include "ec/fe25519.h"
#include "tessel/hash.h"

namespace tessel {

using namespace fe25519;
using namespace edwards25519;

namespace {

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

namespace eddsa {

void reduceScalar(unsigned char out[32], const unsigned char in[64]) {
  std::int64_t x[64];
  for (int i = 0; i < 64; ++i) x[i] = in[i];
  reduceLimbs(out, x);
}

void publicKeyFromSeed(unsigned char publicKey[32], const unsigned char seed[32]) {
  unsigned char h[64];
  expandSeed(h, seed);
  encode(publicKey, baseMult(h));
  std::memset(h, 0, sizeof h);
}

void sign(unsigned char signature[64], std::span<const unsigned char> message, const unsigned char seed[32],
          const unsigned char publicKey[32]) {
  unsigned char h[64], nonce[64], r[32], challenge[64], c[32];
  expandSeed(h, seed);
  sha512(nonce, {h + 32, 32}, message, {});
  reduceScalar(r, nonce);
  encode(signature, baseMult(r));
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
  const Point minusA{neg(a.x), a.y, a.z, neg(a.t)};
  const Projective sum = doubleScalarMult_vartime(c, minusA, signature.data() + 32);
  unsigned char check[32];
  encode(check, sum);
  return std::memcmp(check, signature.data(), 32) == 0;
}

}  // namespace eddsa
}  // namespace tessel
