// Arithmetic modulo 2^255 - 19 for the X25519 and Ed25519 code (not a public header).
//
// An element is sixteen signed 64-bit limbs of radix 2^16. The radix is small so that every
// product fits a 64-bit integer on 32-bit machines too (no 128-bit type there), and signed so
// that subtraction needs no bias. Every operation runs the same instruction sequence whatever
// the values: there is no data-dependent branch or memory index anywhere in this file, except
// where a function's name ends in _vartime.
#pragma once

#include <cstdint>

namespace tessel::fe25519 {

struct Fe {
  std::int64_t v[16];
};

// zero, one and fromSmall build constants.
Fe zero();
Fe one();
Fe fromSmall(std::int64_t x);
// fromBytes reads 32 little-endian bytes, ignoring the top bit (RFC 7748 section 5).
Fe fromBytes(const unsigned char in[32]);
// toBytes writes the fully reduced value as 32 little-endian bytes.
void toBytes(unsigned char out[32], const Fe& a);

Fe add(const Fe& a, const Fe& b);
Fe sub(const Fe& a, const Fe& b);
Fe mul(const Fe& a, const Fe& b);
Fe sqr(const Fe& a);
// invert returns a^(p-2), which is 1/a for a != 0 and 0 for a = 0.
Fe invert(const Fe& a);
// pow22523 returns a^((p-5)/8), the core of the square root used to decode Edwards points.
Fe pow22523(const Fe& a);
// cswap exchanges a and b when `bit` is 1 and leaves them when it is 0, by masking.
void cswap(Fe& a, Fe& b, std::uint32_t bit);
// isNegative is the low bit of the reduced value (the "sign" of RFC 8032).
std::uint32_t isNegative(const Fe& a);
// isZero is 1 when the reduced value is zero.
std::uint32_t isZero(const Fe& a);
// equal is 1 when the two reduced values are the same.
std::uint32_t equal(const Fe& a, const Fe& b);

}  // namespace tessel::fe25519
