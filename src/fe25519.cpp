// Field arithmetic modulo 2^255 - 19 in sixteen limbs of 16 bits; see fe25519.h.
#include "fe25519.h"

namespace tessel::fe25519 {

Fe zero() { return Fe{}; }

Fe fromSmall(std::int64_t x) {
  Fe r{};
  r.v[0] = x;
  return r;
}

Fe one() { return fromSmall(1); }

// carry brings every limb back to 16 bits, folding the carry out of the top limb back in
// as 38 = 2 * 19 (2^256 = 38 mod p). Arithmetic right shifts of negative limbs are defined
// in C++20, so negative limbs carry correctly.
static void carry(Fe& a) {
  for (int i = 0; i < 16; ++i) {
    a.v[i] += std::int64_t{1} << 16;
    std::int64_t c = a.v[i] >> 16;
    a.v[(i + 1) * (i < 15)] += (c - 1) + 37 * (c - 1) * (i == 15);
    a.v[i] -= c * (std::int64_t{1} << 16);
  }
}

Fe fromBytes(const unsigned char in[32]) {
  Fe r;
  for (int i = 0; i < 16; ++i) r.v[i] = in[2 * i] + (std::int64_t{in[2 * i + 1]} << 8);
  r.v[15] &= 0x7fff;
  return r;
}

void cswap(Fe& a, Fe& b, std::uint32_t bit) {
  const std::int64_t mask = -static_cast<std::int64_t>(bit);
  for (int i = 0; i < 16; ++i) {
    std::int64_t t = mask & (a.v[i] ^ b.v[i]);
    a.v[i] ^= t;
    b.v[i] ^= t;
  }
}

void toBytes(unsigned char out[32], const Fe& a) {
  Fe t = a;
  carry(t);
  carry(t);
  carry(t);
  // Two conditional subtractions of p reach the unique representative below p.
  for (int round = 0; round < 2; ++round) {
    Fe m;
    m.v[0] = t.v[0] - 0xffed;
    for (int i = 1; i < 15; ++i) {
      m.v[i] = t.v[i] - 0xffff - ((m.v[i - 1] >> 16) & 1);
      m.v[i - 1] &= 0xffff;
    }
    m.v[15] = t.v[15] - 0x7fff - ((m.v[14] >> 16) & 1);
    const std::uint32_t borrow = static_cast<std::uint32_t>((m.v[15] >> 16) & 1);
    m.v[14] &= 0xffff;
    cswap(t, m, 1 - borrow);
  }
  for (int i = 0; i < 16; ++i) {
    out[2 * i] = static_cast<unsigned char>(t.v[i] & 0xff);
    out[2 * i + 1] = static_cast<unsigned char>((t.v[i] >> 8) & 0xff);
  }
}

Fe add(const Fe& a, const Fe& b) {
  Fe r;
  for (int i = 0; i < 16; ++i) r.v[i] = a.v[i] + b.v[i];
  return r;
}

Fe sub(const Fe& a, const Fe& b) {
  Fe r;
  for (int i = 0; i < 16; ++i) r.v[i] = a.v[i] - b.v[i];
  return r;
}

Fe mul(const Fe& a, const Fe& b) {
  std::int64_t t[31] = {};
  for (int i = 0; i < 16; ++i)
    for (int j = 0; j < 16; ++j) t[i + j] += a.v[i] * b.v[j];
  for (int i = 0; i < 15; ++i) t[i] += 38 * t[i + 16];
  Fe r;
  for (int i = 0; i < 16; ++i) r.v[i] = t[i];
  carry(r);
  carry(r);
  return r;
}

Fe sqr(const Fe& a) { return mul(a, a); }

Fe invert(const Fe& a) {
  // p - 2 = 2^255 - 21: every bit set except bits 2 and 4. The exponent is public.
  Fe c = a;
  for (int i = 253; i >= 0; --i) {
    c = sqr(c);
    if (i != 2 && i != 4) c = mul(c, a);
  }
  return c;
}

Fe pow22523(const Fe& a) {
  // (p - 5) / 8 = 2^252 - 3: every bit set except bit 1.
  Fe c = a;
  for (int i = 250; i >= 0; --i) {
    c = sqr(c);
    if (i != 1) c = mul(c, a);
  }
  return c;
}

std::uint32_t isNegative(const Fe& a) {
  unsigned char s[32];
  toBytes(s, a);
  return s[0] & 1;
}

std::uint32_t isZero(const Fe& a) {
  unsigned char s[32];
  toBytes(s, a);
  std::uint32_t acc = 0;
  for (unsigned char x : s) acc |= x;
  return (acc - 1) >> 31;
}

std::uint32_t equal(const Fe& a, const Fe& b) { return isZero(sub(a, b)); }

}  // namespace tessel::fe25519
