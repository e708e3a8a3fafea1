// GHASH and AES-GCM.
#include "tessel/gcm.h"

#include <algorithm>
#include <cstring>

#include "cipher/modes.h"
#include "core/secret.h"

#include "tessel/cpu.h"
#if defined(__x86_64__) || defined(__i386__)
#define TESSEL_CLMUL 1
#include <tmmintrin.h>
#include <wmmintrin.h>
#endif

namespace tessel {

namespace {

using Element = GHash::Element;

// carrylessMultiply32 is the carry-less product of two 32-bit words, built from ordinary integer
// multiplications so that it takes the same time for every value. Each operand is split into
// four parts holding every fourth bit; the integer product of two parts then has at most eight
// terms per bit position, whose sum fits in the three-bit holes without reaching the next bit
// of the same residue, so its bits at one residue mod 4 are the carry-less sums wanted.
inline std::uint64_t carrylessMultiply32(std::uint32_t x, std::uint32_t y) {
  const std::uint64_t x0 = x & 0x11111111u, x1 = x & 0x22222222u, x2 = x & 0x44444444u, x3 = x & 0x88888888u;
  const std::uint64_t y0 = y & 0x11111111u, y1 = y & 0x22222222u, y2 = y & 0x44444444u, y3 = y & 0x88888888u;
  const std::uint64_t z0 = (x0 * y0) ^ (x1 * y3) ^ (x2 * y2) ^ (x3 * y1);
  const std::uint64_t z1 = (x0 * y1) ^ (x1 * y0) ^ (x2 * y3) ^ (x3 * y2);
  const std::uint64_t z2 = (x0 * y2) ^ (x1 * y1) ^ (x2 * y0) ^ (x3 * y3);
  const std::uint64_t z3 = (x0 * y3) ^ (x1 * y2) ^ (x2 * y1) ^ (x3 * y0);
  return (z0 & 0x1111111111111111u) | (z1 & 0x2222222222222222u) | (z2 & 0x4444444444444444u) |
         (z3 & 0x8888888888888888u);
}

// carrylessMultiply64 is the 128-bit carry-less product of two 64-bit words (Karatsuba over the
// 32-bit halves), as {high, low}.
inline Element carrylessMultiply64(std::uint64_t a, std::uint64_t b) {
  const auto a0 = static_cast<std::uint32_t>(a), a1 = static_cast<std::uint32_t>(a >> 32);
  const auto b0 = static_cast<std::uint32_t>(b), b1 = static_cast<std::uint32_t>(b >> 32);
  const std::uint64_t lo = carrylessMultiply32(a0, b0), hi = carrylessMultiply32(a1, b1);
  const std::uint64_t mid = carrylessMultiply32(a0 ^ a1, b0 ^ b1) ^ lo ^ hi;
  return {hi ^ mid >> 32, lo ^ mid << 32};
}

// portableMultiply sets x to x * h in GF(2^128). Elements are bit-reflected (x^0 is the top bit
// of `hi`), so the 255-bit carry-less product is shifted left by one bit, and its low half,
// which holds x^128 and up, is folded back with x^128 = x^7 + x^2 + x + 1 one word at a time.
void portableMultiply(Element& x, const Element& h) {
  const Element lo = carrylessMultiply64(x.lo, h.lo), hi = carrylessMultiply64(x.hi, h.hi);
  const Element mid = carrylessMultiply64(x.lo ^ x.hi, h.lo ^ h.hi);
  std::uint64_t v0 = lo.lo, v1 = lo.hi ^ mid.lo ^ lo.lo ^ hi.lo, v2 = hi.lo ^ mid.hi ^ lo.hi ^ hi.hi, v3 = hi.hi;
  v3 = v3 << 1 | v2 >> 63;
  v2 = v2 << 1 | v1 >> 63;
  v1 = v1 << 1 | v0 >> 63;
  v0 <<= 1;
  v2 ^= v0 ^ v0 >> 1 ^ v0 >> 2 ^ v0 >> 7;
  v1 ^= v0 << 63 ^ v0 << 62 ^ v0 << 57;
  v3 ^= v1 ^ v1 >> 1 ^ v1 >> 2 ^ v1 >> 7;
  v2 ^= v1 << 63 ^ v1 << 62 ^ v1 << 57;
  x = {v3, v2};
}

#if TESSEL_CLMUL
#define TESSEL_TARGET_CLMUL __attribute__((target("pclmul,ssse3")))

TESSEL_TARGET_CLMUL inline __m128i toRegister(Element e) {
  return _mm_set_epi32(static_cast<int>(e.hi >> 32), static_cast<int>(e.hi), static_cast<int>(e.lo >> 32),
                       static_cast<int>(e.lo));
}

// clmulMultiply is the GF(2^128) product of two byte-reversed GCM elements (the shift-left
// and reduction method of Gueron and Kounavis, Intel's carry-less multiplication paper).
TESSEL_TARGET_CLMUL inline __m128i clmulMultiply(__m128i a, __m128i b) {
  __m128i lo = _mm_clmulepi64_si128(a, b, 0x00), hi = _mm_clmulepi64_si128(a, b, 0x11);
  __m128i mid = _mm_xor_si128(_mm_clmulepi64_si128(a, b, 0x10), _mm_clmulepi64_si128(a, b, 0x01));
  lo = _mm_xor_si128(lo, _mm_slli_si128(mid, 8));
  hi = _mm_xor_si128(hi, _mm_srli_si128(mid, 8));
  // Shift the 256-bit product left by one bit (the bit order of GCM is reflected).
  __m128i carryLo = _mm_srli_epi32(lo, 31), carryHi = _mm_srli_epi32(hi, 31);
  lo = _mm_or_si128(_mm_slli_epi32(lo, 1), _mm_slli_si128(carryLo, 4));
  hi = _mm_or_si128(_mm_or_si128(_mm_slli_epi32(hi, 1), _mm_slli_si128(carryHi, 4)), _mm_srli_si128(carryLo, 12));
  // Reduce modulo x^128 + x^7 + x^2 + x + 1.
  __m128i t = _mm_xor_si128(_mm_xor_si128(_mm_slli_epi32(lo, 31), _mm_slli_epi32(lo, 30)), _mm_slli_epi32(lo, 25));
  __m128i spill = _mm_srli_si128(t, 4);
  lo = _mm_xor_si128(lo, _mm_slli_si128(t, 12));
  __m128i u = _mm_xor_si128(_mm_xor_si128(_mm_srli_epi32(lo, 1), _mm_srli_epi32(lo, 2)), _mm_srli_epi32(lo, 7));
  lo = _mm_xor_si128(lo, _mm_xor_si128(u, spill));
  return _mm_xor_si128(hi, lo);
}

TESSEL_TARGET_CLMUL void clmulAbsorb(Element h, Element& x, const unsigned char* blocks, std::size_t count) {
  const __m128i reverse = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  const __m128i hr = toRegister(h);
  __m128i acc = toRegister(x);
  for (std::size_t i = 0; i < count; ++i) {
    __m128i block = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(blocks + 16 * i)), reverse);
    acc = clmulMultiply(_mm_xor_si128(acc, block), hr);
  }
  std::uint64_t out[2];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), acc);
  x = {out[1], out[0]};
}
#endif

}  // namespace

GHash::GHash(const unsigned char* h)
    : h_{detail::loadBe64(h), detail::loadBe64(h + 8)}, clmul_(carrylessMultiplyInUse()) {}

void GHash::absorb(const unsigned char* blocks, std::size_t count) {
#if TESSEL_CLMUL
  if (clmul_) return clmulAbsorb(h_, x_, blocks, count);
#endif
  for (std::size_t i = 0; i < count; ++i, blocks += 16) {
    x_.hi ^= detail::loadBe64(blocks);
    x_.lo ^= detail::loadBe64(blocks + 8);
    portableMultiply(x_, h_);
  }
}

Hash& GHash::update(const void* data, unsigned len) {
  const auto* p = static_cast<const unsigned char*>(data);
  absorb(p, len / 16);
  if (len % 16) {
    unsigned char block[16] = {};
    std::memcpy(block, p + len / 16 * 16, len % 16);
    absorb(block, 1);
  }
  return *this;
}

void GHash::digest(unsigned char* out) {
  detail::storeBe64(out, x_.hi);
  detail::storeBe64(out + 8, x_.lo);
  x_ = {0, 0};
}

void GCMCipher::setIV(const unsigned char* iv, unsigned size) {
  unsigned char h[16] = {};
  aes_->encrypt(h, h);
  ghash_ = std::make_unique<GHash>(h);
  if (size <= 12) {  // short IVs are zero-padded, not hashed
    std::memset(counter_, 0, sizeof counter_);
    if (size) std::memcpy(counter_, iv, size);
    counter_[15] = 1;
  } else {
    unsigned char lengths[16] = {};
    detail::storeBe32(lengths + 12, size * 8);
    ghash_->update(iv, size).update(lengths, 16);
    ghash_->digest(counter_);
  }
}

// The counter block's last 32 bits count the blocks of one message, so one IV may encrypt at
// most 2^32 - 2 blocks; a message of kGcmMaxLength bytes is far from that.
static_assert(kGcmMaxLength / 16 + 1 <= kGcmMaxBlocksPerIV);

void GCMCipher::crypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                      unsigned char* out, bool decrypting, unsigned char* tag) {
  TESSEL_ASSERT_TEXT(ghash_ != nullptr, "GCMCipher: setIV() before encrypt() or decrypt()");
  // Each length in bits goes into the low 32 bits of its 64-bit field; the limit keeps it exact.
  TESSEL_ASSERT(len <= kGcmMaxLength && aadLen <= kGcmMaxLength);
  unsigned char j0[16], lengths[16] = {};
  std::memcpy(j0, counter_, 16);
  ghash_->update(aad, aadLen);
  detail::storeBe32(lengths + 4, aadLen * 8);
  detail::storeBe32(lengths + 12, len * 8);
  unsigned char keystream[detail::kCtrBatch * 16];
  while (len) {
    const unsigned blocks = std::min(detail::kCtrBatch, (len + 15) / 16), n = std::min(len, 16 * blocks);
    detail::ctrKeystream(*aes_, counter_, keystream, blocks, true);
    if (decrypting) ghash_->update(in, n);  // hash the ciphertext before `out` may overwrite it
    detail::xorBytes(out, in, keystream, n);
    if (!decrypting) ghash_->update(out, n);
    in += n;
    out += n;
    len -= n;
  }
  ghash_->update(lengths, 16);
  ghash_->digest(tag);
  aes_->encrypt(j0, j0);
  detail::xorBytes(tag, tag, j0, 16);
}

void GCMCipher::encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                        unsigned char* out) {
  unsigned char tag[16];
  crypt(in, len, aad, aadLen, out, false, tag);
  std::memcpy(out + len, tag, tagLength_);
}

unsigned GCMCipher::decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                            unsigned char* out) {
  if (len < tagLength_) return decryptFailed;
  const unsigned payload = len - tagLength_;
  unsigned char tag[16];
  crypt(in, payload, aad, aadLen, out, true, tag);
  const unsigned wrong = ct::maskFromBit<unsigned>(ct::differenceMask(tag, in + payload, tagLength_) & 1);
  return ct::select<unsigned>(wrong, decryptFailed, payload);
}

}  // namespace tessel
