// Field arithmetic modulo 2^255 - 19 in ten limbs of radix 2^25.5; see fe25519.h.
#include "fe25519.h"

namespace tessel::fe25519 {

namespace {

using Wide = std::int64_t[10];

// Limb i starts at bit kOffset[i] and is kWidth[i] bits wide.
constexpr int kOffset[10] = {0, 26, 51, 77, 102, 128, 153, 179, 204, 230};
constexpr int kWidth[10] = {26, 25, 26, 25, 26, 25, 26, 25, 26, 25};

// carryOne moves all but the low kWidth[i] bits of limb i (rounded, so the limb ends up signed
// and centred on zero) into the next limb; out of limb 9 they re-enter limb 0 times 19,
// as 2^255 = 19 mod p.
inline void carryOne(Wide h, int i) {
  const int w = kWidth[i];
  const std::int64_t c = (h[i] + (std::int64_t{1} << (w - 1))) >> w;
  h[i] -= c * (std::int64_t{1} << w);
  if (i == 9) {
    h[0] += 19 * c;
  } else {
    h[i + 1] += c;
  }
}

// reduce carries products (|h| < 2^62) back to reduced limbs. Interleaving two chains halves
// the dependency length; the last carry into limb 0 is small, so one more step settles it.
inline Fe reduce(Wide h) {
  carryOne(h, 0);
  carryOne(h, 4);
  carryOne(h, 1);
  carryOne(h, 5);
  carryOne(h, 2);
  carryOne(h, 6);
  carryOne(h, 3);
  carryOne(h, 7);
  carryOne(h, 4);
  carryOne(h, 8);
  carryOne(h, 9);
  carryOne(h, 0);
  Fe r;
  for (int i = 0; i < 10; ++i) r.v[i] = static_cast<std::int32_t>(h[i]);
  return r;
}

std::uint32_t load32(const unsigned char* p) {
  return p[0] | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) | (std::uint32_t{p[3]} << 24);
}

// square computes a^2 (times 2 when `twice`) before reduction. The product of limbs i and j
// carries weight 2 when both are odd (25.5-bit radix), 2 again for the two orders of i != j,
// and 19 when it wraps past 2^255; the factors are spread over both operands so that each
// stays within 32 bits.
inline Fe square(const Fe& a, bool twice) {
  // aw holds the wrap multiples: 19 a for even limbs, 38 a (19 times the odd-odd 2) for odd.
  std::int32_t a2[10], aw[10];
  for (int i = 0; i < 10; ++i) {
    a2[i] = 2 * a.v[i];
    aw[i] = ((i & 1) ? 38 : 19) * a.v[i];
  }
  Wide h = {};
#pragma GCC unroll 10
  for (int i = 0; i < 10; ++i) {
#pragma GCC unroll 10
    for (int j = i; j < 10; ++j) {
      // c: the weight of a[i] a[j] apart from the 19, after taking out what aw[j] holds.
      int c = (i == j ? 1 : 2) << ((i & 1) & (j & 1));
      if (i + j >= 10 && (j & 1)) c /= 2;
      const std::int32_t left = c == 1 ? a.v[i] : c == 2 ? a2[i] : 2 * a2[i];
      const std::int32_t right = i + j < 10 ? a.v[j] : aw[j];
      h[(i + j) % 10] += static_cast<std::int64_t>(left) * right;
    }
  }
  if (twice) {
    for (auto& x : h) x *= 2;
  }
  return reduce(h);
}

Fe sqrTimes(Fe a, int n) {
  for (int i = 0; i < n; ++i) a = sqr(a);
  return a;
}

// pow2250m1 returns a^(2^250 - 1) and a^11, the common prefix of the two exponentiation
// chains (the standard 254-squaring chain of curve25519 implementations; the exponent is public).
Fe pow2250m1(const Fe& a, Fe* a11) {
  const Fe a2 = sqr(a);
  const Fe a9 = mul(sqrTimes(a2, 2), a);
  *a11 = mul(a9, a2);
  const Fe e5 = mul(sqr(*a11), a9);             // 2^5 - 1
  const Fe e10 = mul(sqrTimes(e5, 5), e5);      // 2^10 - 1
  const Fe e20 = mul(sqrTimes(e10, 10), e10);   // 2^20 - 1
  const Fe e40 = mul(sqrTimes(e20, 20), e20);   // 2^40 - 1
  const Fe e50 = mul(sqrTimes(e40, 10), e10);   // 2^50 - 1
  const Fe e100 = mul(sqrTimes(e50, 50), e50);  // 2^100 - 1
  const Fe e200 = mul(sqrTimes(e100, 100), e100);
  return mul(sqrTimes(e200, 50), e50);          // 2^250 - 1
}

}  // namespace

Fe fromBytes(const unsigned char in[32]) {
  Wide h;
  for (int i = 0; i < 10; ++i) {
    const std::uint32_t word = load32(in + (i == 9 ? 28 : kOffset[i] / 8));
    const int shift = kOffset[i] - 8 * (i == 9 ? 28 : kOffset[i] / 8);
    h[i] = (word >> shift) & ((std::uint32_t{1} << kWidth[i]) - 1);
  }
  return reduce(h);
}

void toBytes(unsigned char out[32], const Fe& a) {
  Wide h;
  for (int i = 0; i < 10; ++i) h[i] = a.v[i];
  Fe r = reduce(h);
  for (int i = 0; i < 10; ++i) h[i] = r.v[i];
  // With reduced limbs the value v lies in (-p, 2p). q = floor((v + 19) / 2^255) is then -1, 0
  // or 1 and equals floor(v / p); its estimate from the top limb is corrected by one pass of
  // floor carries.
  std::int64_t q = (19 * h[9] + (std::int64_t{1} << 24)) >> 25;
  for (int i = 0; i < 10; ++i) q = (h[i] + q) >> kWidth[i];
  h[0] += 19 * q;  // v - q p = v + 19 q - q 2^255: the 2^255 q drops out of limb 9 below
  for (int i = 0; i < 9; ++i) {
    const std::int64_t c = h[i] >> kWidth[i];
    h[i + 1] += c;
    h[i] -= c * (std::int64_t{1} << kWidth[i]);
  }
  h[9] &= (std::int64_t{1} << 25) - 1;
  std::uint64_t acc = 0;
  int bits = 0, o = 0;
  for (int i = 0; i < 10; ++i) {
    acc |= static_cast<std::uint64_t>(h[i]) << bits;
    bits += kWidth[i];
    for (; bits >= 8; bits -= 8) {
      out[o++] = static_cast<unsigned char>(acc);
      acc >>= 8;
    }
  }
  out[31] = static_cast<unsigned char>(acc);
}

Fe mul(const Fe& a, const Fe& b) {
  std::int32_t a2[10], b19[10];
  for (int i = 0; i < 10; ++i) {
    a2[i] = (i & 1) ? 2 * a.v[i] : a.v[i];
    b19[i] = 19 * b.v[i];
  }
  Wide h = {};
#pragma GCC unroll 10
  for (int i = 0; i < 10; ++i) {
#pragma GCC unroll 10
    for (int j = 0; j < 10; ++j) {
      const std::int32_t left = (j & 1) ? a2[i] : a.v[i];
      const std::int32_t right = i + j < 10 ? b.v[j] : b19[j];
      h[(i + j) % 10] += static_cast<std::int64_t>(left) * right;
    }
  }
  return reduce(h);
}

Fe sqr(const Fe& a) { return square(a, false); }
Fe sqr2(const Fe& a) { return square(a, true); }

Fe mulSmall(const Fe& a, std::int32_t n) {
  Wide h;
  for (int i = 0; i < 10; ++i) h[i] = static_cast<std::int64_t>(a.v[i]) * n;
  return reduce(h);
}

Fe invert(const Fe& a) {
  Fe a11;
  const Fe e250 = pow2250m1(a, &a11);
  return mul(sqrTimes(e250, 5), a11);  // 2^255 - 32 + 11 = p - 2
}

Fe pow22523(const Fe& a) {
  Fe a11;
  const Fe e250 = pow2250m1(a, &a11);
  return mul(sqrTimes(e250, 2), a);  // 2^252 - 4 + 1 = (p - 5) / 8
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

}  // namespace tessel::fe25519
