// Field arithmetic modulo 2^255 - 19 in either limb form; see fe25519.h.
#include "ec/fe25519.h"

namespace tessel::fe25519 {

namespace {

// pack writes limbs of the given widths (fully reduced, below p) as 32 little-endian bytes.
void pack(unsigned char out[32], const std::uint64_t* limbs, const int* widths) {
  std::uint64_t acc = 0;
  int bits = 0, o = 0;
  for (int i = 0; i < kLimbs; ++i) {
    acc |= limbs[i] << bits;
    bits += widths[i];
    for (; bits >= 8; bits -= 8) {
      out[o++] = static_cast<unsigned char>(acc);
      acc >>= 8;
    }
  }
  out[31] = static_cast<unsigned char>(acc);
}

}  // namespace

#if TESSEL_FE25519_RADIX51

namespace {

using U128 = unsigned __int128;
constexpr std::uint64_t kMask = (std::uint64_t{1} << 51) - 1;
constexpr int kWidth[5] = {51, 51, 51, 51, 51};

std::uint64_t load64(const unsigned char* p) {
  std::uint64_t x = 0;
  for (int i = 7; i >= 0; --i) x = (x << 8) | p[i];
  return x;
}

// carry128 brings 128-bit column sums back to reduced 51-bit limbs; what leaves the top limb
// re-enters limb 0 times 19 (2^255 = 19 mod p).
inline Fe carry128(U128 t0, U128 t1, U128 t2, U128 t3, U128 t4) {
  Fe r;
  t1 += static_cast<std::uint64_t>(t0 >> 51);
  r.v[0] = static_cast<std::uint64_t>(t0) & kMask;
  t2 += static_cast<std::uint64_t>(t1 >> 51);
  r.v[1] = static_cast<std::uint64_t>(t1) & kMask;
  t3 += static_cast<std::uint64_t>(t2 >> 51);
  r.v[2] = static_cast<std::uint64_t>(t2) & kMask;
  t4 += static_cast<std::uint64_t>(t3 >> 51);
  r.v[3] = static_cast<std::uint64_t>(t3) & kMask;
  r.v[0] += 19 * static_cast<std::uint64_t>(t4 >> 51);
  r.v[4] = static_cast<std::uint64_t>(t4) & kMask;
  r.v[1] += r.v[0] >> 51;
  r.v[0] &= kMask;
  return r;
}

// carry64 is one carry pass over 64-bit limbs.
inline void carry64(std::uint64_t h[5]) {
  for (int i = 0; i < 4; ++i) {
    h[i + 1] += h[i] >> 51;
    h[i] &= kMask;
  }
  h[0] += 19 * (h[4] >> 51);
  h[4] &= kMask;
}

inline Fe square(const Fe& a, bool twice) {
  const std::uint64_t a0 = a.v[0], a1 = a.v[1], a2 = a.v[2], a3 = a.v[3], a4 = a.v[4];
  const std::uint64_t a0_2 = 2 * a0, a1_2 = 2 * a1, a2_2 = 2 * a2, a3_2 = 2 * a3;
  const std::uint64_t a3_19 = 19 * a3, a4_19 = 19 * a4;
  U128 t0 = U128{a0} * a0 + U128{a1_2} * a4_19 + U128{a2_2} * a3_19;
  U128 t1 = U128{a0_2} * a1 + U128{a2_2} * a4_19 + U128{a3} * a3_19;
  U128 t2 = U128{a0_2} * a2 + U128{a1} * a1 + U128{a3_2} * a4_19;
  U128 t3 = U128{a0_2} * a3 + U128{a1_2} * a2 + U128{a4} * a4_19;
  U128 t4 = U128{a0_2} * a4 + U128{a1_2} * a3 + U128{a2} * a2;
  if (twice) {
    t0 <<= 1;
    t1 <<= 1;
    t2 <<= 1;
    t3 <<= 1;
    t4 <<= 1;
  }
  return carry128(t0, t1, t2, t3, t4);
}

}  // namespace

Fe fromBytes(const unsigned char in[32]) {
  Fe r;
  r.v[0] = load64(in) & kMask;
  r.v[1] = (load64(in + 6) >> 3) & kMask;
  r.v[2] = (load64(in + 12) >> 6) & kMask;
  r.v[3] = (load64(in + 19) >> 1) & kMask;
  r.v[4] = (load64(in + 24) >> 12) & kMask;  // bit 255 falls off the top
  return r;
}

void toBytes(unsigned char out[32], const Fe& a) {
  std::uint64_t h[5] = {a.v[0], a.v[1], a.v[2], a.v[3], a.v[4]};
  carry64(h);
  carry64(h);
  // Now v = h < 2p, every limb below 2^51 but limb 0 (below 2^51 + 19). q = floor((v + 19) /
  // 2^255) is 1 exactly when v >= p; v - q p = v + 19 q - q 2^255.
  std::uint64_t q = (h[0] + 19) >> 51;
  for (int i = 1; i < 5; ++i) q = (h[i] + q) >> 51;
  h[0] += 19 * q;
  for (int i = 0; i < 4; ++i) {
    h[i + 1] += h[i] >> 51;
    h[i] &= kMask;
  }
  h[4] &= kMask;
  pack(out, h, kWidth);
}

Fe sub(const Fe& a, const Fe& b) {
  // 16p in limbs, far above any operand this code passes (sums of a few reduced elements).
  constexpr std::uint64_t kLow = 16 * ((std::uint64_t{1} << 51) - 19), kHigh = 16 * kMask;
  std::uint64_t h[5] = {a.v[0] + kLow - b.v[0], a.v[1] + kHigh - b.v[1], a.v[2] + kHigh - b.v[2],
                        a.v[3] + kHigh - b.v[3], a.v[4] + kHigh - b.v[4]};
  carry64(h);
  return Fe{{h[0], h[1], h[2], h[3], h[4]}};
}

Fe mul(const Fe& a, const Fe& b) {
  const std::uint64_t a0 = a.v[0], a1 = a.v[1], a2 = a.v[2], a3 = a.v[3], a4 = a.v[4];
  const std::uint64_t b0 = b.v[0], b1 = b.v[1], b2 = b.v[2], b3 = b.v[3], b4 = b.v[4];
  const std::uint64_t b1_19 = 19 * b1, b2_19 = 19 * b2, b3_19 = 19 * b3, b4_19 = 19 * b4;
  const U128 t0 = U128{a0} * b0 + U128{a1} * b4_19 + U128{a2} * b3_19 + U128{a3} * b2_19 + U128{a4} * b1_19;
  const U128 t1 = U128{a0} * b1 + U128{a1} * b0 + U128{a2} * b4_19 + U128{a3} * b3_19 + U128{a4} * b2_19;
  const U128 t2 = U128{a0} * b2 + U128{a1} * b1 + U128{a2} * b0 + U128{a3} * b4_19 + U128{a4} * b3_19;
  const U128 t3 = U128{a0} * b3 + U128{a1} * b2 + U128{a2} * b1 + U128{a3} * b0 + U128{a4} * b4_19;
  const U128 t4 = U128{a0} * b4 + U128{a1} * b3 + U128{a2} * b2 + U128{a3} * b1 + U128{a4} * b0;
  return carry128(t0, t1, t2, t3, t4);
}

Fe sqr(const Fe& a) { return square(a, false); }
Fe sqr2(const Fe& a) { return square(a, true); }

Fe mulSmall(const Fe& a, std::int32_t n) {
  const std::uint64_t m = static_cast<std::uint64_t>(n);
  return carry128(U128{a.v[0]} * m, U128{a.v[1]} * m, U128{a.v[2]} * m, U128{a.v[3]} * m, U128{a.v[4]} * m);
}

#else

namespace {

using Wide = std::int64_t[10];

std::uint32_t load32(const unsigned char* p) {
  return p[0] | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) | (std::uint32_t{p[3]} << 24);
}

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
  std::uint64_t limbs[10];
  for (int i = 0; i < 10; ++i) limbs[i] = static_cast<std::uint64_t>(h[i]);
  pack(out, limbs, kWidth);
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

#endif

namespace {

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
