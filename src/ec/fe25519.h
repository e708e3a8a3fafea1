// Arithmetic modulo p = 2^255 - 19 for the X25519 and Ed25519 code (not a public header).
//
// Two limb forms, chosen at compile time, with the same functions and results:
//  - 64-bit machines with a 128-bit integer type: five unsigned limbs of radix 2^51, whose
//    products are 64 x 64 -> 128-bit multiplications.
//  - everywhere else (and with TESSEL_PORTABLE_FE25519 defined): ten signed 32-bit limbs in
//    radix 2^25.5, limb i of weight 2^ceil(25.5 i) (26 bits for even i, 25 for odd), whose
//    products are 32 x 32 -> 64-bit multiplications that 32-bit machines do in one instruction.
//
// Bounds: mul, sqr, sqr2, mulSmall, sub, neg and fromBytes return "reduced" limbs (radix 2^51:
// below about 2^51; radix 2^25.5: |even| <= ~2^25, |odd| <= ~2^24). add does not carry; mul
// and sqr accept sums of up to three reduced elements (in the 2^25.5 form, because the 19x
// multiples they form must fit 32 bits; sub there does not carry either, and a difference
// counts as two reduced elements).
//
// Every operation runs the same instruction sequence whatever the values: there is no
// data-dependent branch or memory index anywhere in this file, except where a function's name
// ends in _vartime.
#pragma once

#include <cstdint>

#if defined(__SIZEOF_INT128__) && !defined(TESSEL_PORTABLE_FE25519)
#define TESSEL_FE25519_RADIX51 1
#endif

namespace tessel::fe25519 {

#if TESSEL_FE25519_RADIX51
using Limb = std::uint64_t;
constexpr int kLimbs = 5;
#else
using Limb = std::int32_t;
constexpr int kLimbs = 10;
#endif

struct Fe {
  Limb v[kLimbs];
};
static_assert(sizeof(Fe) == 40, "both limb forms take 40 bytes (the size Edwards25519 stores)");

// zero, one and fromSmall build constants (0 <= x < 2^25).
inline Fe zero() { return Fe{}; }
inline Fe fromSmall(std::int32_t x) {
  Fe r{};
  r.v[0] = static_cast<Limb>(x);
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
  for (int i = 0; i < kLimbs; ++i) r.v[i] = a.v[i] + b.v[i];
  return r;
}

#if TESSEL_FE25519_RADIX51
// sub adds 16p before subtracting, so that unsigned limbs never wrap, and carries once.
Fe sub(const Fe& a, const Fe& b);
#else
inline Fe sub(const Fe& a, const Fe& b) {
  Fe r;
  for (int i = 0; i < kLimbs; ++i) r.v[i] = a.v[i] - b.v[i];
  return r;
}
#endif

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
  const Limb mask = static_cast<Limb>(0) - static_cast<Limb>(bit);
  for (int i = 0; i < kLimbs; ++i) {
    const Limb t = mask & (a.v[i] ^ b.v[i]);
    a.v[i] ^= t;
    b.v[i] ^= t;
  }
}

// cmov sets a to b when `bit` is 1 and leaves it when it is 0, by masking.
inline void cmov(Fe& a, const Fe& b, std::uint32_t bit) {
  const Limb mask = static_cast<Limb>(0) - static_cast<Limb>(bit);
  for (int i = 0; i < kLimbs; ++i) a.v[i] ^= mask & (a.v[i] ^ b.v[i]);
}

// isNegative is the low bit of the reduced value (the "sign" of RFC 8032).
std::uint32_t isNegative(const Fe& a);
// isZero is 1 when the reduced value is zero.
std::uint32_t isZero(const Fe& a);
// equal is 1 when the two reduced values are the same.
inline std::uint32_t equal(const Fe& a, const Fe& b) { return isZero(sub(a, b)); }

}  // namespace tessel::fe25519
