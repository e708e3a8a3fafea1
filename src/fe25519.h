// Arithmetic modulo p = 2^255 - 19 for the X25519 and Ed25519 code (not a public header).
//
// An element is ten signed 32-bit limbs in radix 2^25.5: limb i has weight 2^ceil(25.5 i), so
// even limbs hold 26 bits and odd limbs 25. Limb products are 32 x 32 -> 64-bit multiplications,
// which both 32-bit and 64-bit machines do in one instruction, and the sum of a row of products
// stays far below 2^63, so no 128-bit type is needed.
//
// Bounds: mul, sqr, mulSmall, carry and fromBytes return "reduced" limbs (|even| <= ~2^25,
// |odd| <= ~2^24). add and sub do not carry; mul and sqr accept operands that are sums or
// differences of up to three reduced elements (the 19x multiples they form must fit 32 bits).
//
// Every operation runs the same instruction sequence whatever the values: there is no
// data-dependent branch or memory index anywhere in this file, except where a function's name
// ends in _vartime.
#pragma once

#include <cstdint>

namespace tessel::fe25519 {

struct Fe {
  std::int32_t v[10];
};

// zero, one and fromSmall build constants (|x| < 2^25).
inline Fe zero() { return Fe{}; }
inline Fe fromSmall(std::int32_t x) {
  Fe r{};
  r.v[0] = x;
  return r;
}
inline Fe one() { return fromSmall(1); }

// fromBytes reads 32 little-endian bytes, ignoring the top bit (RFC 7748 section 5). Values
// from p to 2^255 - 1 are accepted and act as their residues.
Fe fromBytes(const unsigned char in[32]);
// toBytes writes the fully reduced value as 32 little-endian bytes.
void toBytes(unsigned char out[32], const Fe& a);

inline Fe add(const Fe& a, const Fe& b) {
  Fe r;
  for (int i = 0; i < 10; ++i) r.v[i] = a.v[i] + b.v[i];
  return r;
}

inline Fe sub(const Fe& a, const Fe& b) {
  Fe r;
  for (int i = 0; i < 10; ++i) r.v[i] = a.v[i] - b.v[i];
  return r;
}

inline Fe neg(const Fe& a) { return sub(zero(), a); }

Fe mul(const Fe& a, const Fe& b);
Fe sqr(const Fe& a);
// sqr2 returns 2 a^2 (one pass; used by point doubling).
Fe sqr2(const Fe& a);
// mulSmall returns a * n for a small constant n (|n| < 2^20).
Fe mulSmall(const Fe& a, std::int32_t n);
// invert returns a^(p-2), which is 1/a for a != 0 and 0 for a = 0.
Fe invert(const Fe& a);
// pow22523 returns a^((p-5)/8), the core of the square root used to decode Edwards points.
Fe pow22523(const Fe& a);

// cswap exchanges a and b when `bit` is 1 and leaves them when it is 0, by masking.
inline void cswap(Fe& a, Fe& b, std::uint32_t bit) {
  const std::int32_t mask = -static_cast<std::int32_t>(bit);
  for (int i = 0; i < 10; ++i) {
    const std::int32_t t = mask & (a.v[i] ^ b.v[i]);
    a.v[i] ^= t;
    b.v[i] ^= t;
  }
}

// cmov sets a to b when `bit` is 1 and leaves it when it is 0, by masking.
inline void cmov(Fe& a, const Fe& b, std::uint32_t bit) {
  const std::int32_t mask = -static_cast<std::int32_t>(bit);
  for (int i = 0; i < 10; ++i) a.v[i] ^= mask & (a.v[i] ^ b.v[i]);
}

// isNegative is the low bit of the reduced value (the "sign" of RFC 8032).
std::uint32_t isNegative(const Fe& a);
// isZero is 1 when the reduced value is zero.
std::uint32_t isZero(const Fe& a);
// equal is 1 when the two reduced values are the same.
inline std::uint32_t equal(const Fe& a, const Fe& b) { return isZero(sub(a, b)); }

}  // namespace tessel::fe25519
