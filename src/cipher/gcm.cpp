// GHASH and AES-GCM.
#include "tessel/gcm.h"

#include <algorithm>
#include <cstring>

#include "core/secret.h"
#include "cipher/modes.h"

#include "tessel/cpu.h"
#if defined(__x86_64__) || defined(__i386__)
#define TESSEL_CLMUL 1
#include <tmmintrin.h>
#include <wmmintrin.h>
#endif

namespace tessel {

namespace {

using Element = GHash::Element;

// mulx multiplies by x in the GCM bit order: the 128-bit value shifts right by one bit and the
// bit shifted out of byte 15 comes back as 0xE1 in byte 0.
Element mulx(Element v) {
  const bool carry = v.lo & 1;
  v.lo = v.lo >> 1 | v.hi << 63;
  v.hi >>= 1;
  if (carry) v.hi ^= std::uint64_t{0xe1} << 56;
  return v;
}

void tableMultiply(const Element (*table)[16], Element& x) {
  Element acc{0, 0};
  for (unsigned n = 0; n < 32; ++n) {
    const std::uint64_t half = n < 16 ? x.hi : x.lo;
    const unsigned nibble = static_cast<unsigned>(half >> (60 - 4 * (n % 16))) & 15;
    acc.hi ^= table[n][nibble].hi;
    acc.lo ^= table[n][nibble].lo;
  }
  x = acc;
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
    : h_{detail::loadBe64(h), detail::loadBe64(h + 8)}, clmul_(carrylessMultiplyInUse()) {
  if (clmul_) return;  // the table is only needed without the instruction
  Element v = h_;
  for (auto& row : table_) {
    row[0] = {0, 0};
    row[8] = v;
    row[4] = mulx(row[8]);
    row[2] = mulx(row[4]);
    row[1] = mulx(row[2]);
    for (unsigned high : {2u, 4u, 8u})  // entries 3; then 5, 6, 7; then 9..15
      for (unsigned low = 1; low < high; ++low) row[high + low] = {row[high].hi ^ row[low].hi, row[high].lo ^ row[low].lo};
    v = mulx(mulx(mulx(mulx(v))));
  }
}

void GHash::absorb(const unsigned char* blocks, std::size_t count) {
#if TESSEL_CLMUL
  if (clmul_) return clmulAbsorb(h_, x_, blocks, count);
#endif
  for (std::size_t i = 0; i < count; ++i, blocks += 16) {
    x_.hi ^= detail::loadBe64(blocks);
    x_.lo ^= detail::loadBe64(blocks + 8);
    tableMultiply(table_, x_);
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

void GCMCipher::crypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                      unsigned char* out, bool decrypting, unsigned char* tag) {
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
  return ct::equal(tag, in + payload, tagLength_) ? payload : decryptFailed;
}

}  // namespace tessel
