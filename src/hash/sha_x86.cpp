// SHA-1 and SHA-256 compression on the x86 SHA extensions. Chosen at run time by sha1.cpp and
// sha256.cpp; each function takes the same state words and whole blocks as the portable code.
#include "hash/sha_x86.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>

namespace tessel::detail {

__attribute__((target("sha,sse4.1,ssse3"))) void sha256CompressShaExt(std::uint32_t state[8],
                                                                        const unsigned char* p,
                                                                        std::size_t blocks,
                                                                        const std::uint32_t k[64]) {
  const __m128i byteSwap = _mm_set_epi64x(0x0c0d0e0f08090a0bULL, 0x0405060700010203ULL);
  // The instructions want the state as ABEF and CDGH.
  __m128i tmp = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0xB1);
  __m128i state1 = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state + 4)), 0x1B);
  __m128i state0 = _mm_alignr_epi8(tmp, state1, 8);
  state1 = _mm_blend_epi16(state1, tmp, 0xF0);
  for (; blocks > 0; --blocks, p += 64) {
    const __m128i abefSaved = state0, cdghSaved = state1;
    __m128i w[4];  // ring of the last four message quads
#pragma GCC unroll 16
    for (int g = 0; g < 16; ++g) {
      __m128i quad;
      if (g < 4) {
        quad = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * g)), byteSwap);
      } else {
        __m128i x = _mm_sha256msg1_epu32(w[g & 3], w[(g + 1) & 3]);
        x = _mm_add_epi32(x, _mm_alignr_epi8(w[(g + 3) & 3], w[(g + 2) & 3], 4));
        quad = _mm_sha256msg2_epu32(x, w[(g + 3) & 3]);
      }
      w[g & 3] = quad;
      __m128i wk = _mm_add_epi32(quad, _mm_loadu_si128(reinterpret_cast<const __m128i*>(k + 4 * g)));
      state1 = _mm_sha256rnds2_epu32(state1, state0, wk);
      state0 = _mm_sha256rnds2_epu32(state0, state1, _mm_shuffle_epi32(wk, 0x0E));
    }
    state0 = _mm_add_epi32(state0, abefSaved);
    state1 = _mm_add_epi32(state1, cdghSaved);
  }
  tmp = _mm_shuffle_epi32(state0, 0x1B);
  state1 = _mm_shuffle_epi32(state1, 0xB1);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_blend_epi16(tmp, state1, 0xF0));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state + 4), _mm_alignr_epi8(state1, tmp, 8));
}

namespace {

// sha1Rounds runs four rounds; the round function is an immediate operand, hence the switch.
__attribute__((target("sha,sse4.1,ssse3"))) inline __m128i sha1Rounds(__m128i abcd, __m128i e, int group) {
  switch (group / 5) {
    case 0: return _mm_sha1rnds4_epu32(abcd, e, 0);
    case 1: return _mm_sha1rnds4_epu32(abcd, e, 1);
    case 2: return _mm_sha1rnds4_epu32(abcd, e, 2);
    default: return _mm_sha1rnds4_epu32(abcd, e, 3);
  }
}

}  // namespace

__attribute__((target("sha,sse4.1,ssse3"))) void sha1CompressShaExt(std::uint32_t state[5],
                                                                      const unsigned char* p,
                                                                      std::size_t blocks) {
  const __m128i byteSwap = _mm_set_epi64x(0x0001020304050607ULL, 0x08090a0b0c0d0e0fULL);
  __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0x1B);
  __m128i e0 = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);
  for (; blocks > 0; --blocks, p += 64) {
    const __m128i abcdSaved = abcd, eSaved = e0;
    __m128i w[4];
    __m128i previous = abcd;
#pragma GCC unroll 20
    for (int g = 0; g < 20; ++g) {
      __m128i quad;
      if (g < 4) {
        quad = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * g)), byteSwap);
      } else {
        __m128i x = _mm_xor_si128(_mm_sha1msg1_epu32(w[g & 3], w[(g + 1) & 3]), w[(g + 2) & 3]);
        quad = _mm_sha1msg2_epu32(x, w[(g + 3) & 3]);
      }
      w[g & 3] = quad;
      __m128i e = g == 0 ? _mm_add_epi32(e0, quad) : _mm_sha1nexte_epu32(previous, quad);
      previous = abcd;
      abcd = sha1Rounds(abcd, e, g);
    }
    e0 = _mm_sha1nexte_epu32(previous, eSaved);
    abcd = _mm_add_epi32(abcd, abcdSaved);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_shuffle_epi32(abcd, 0x1B));
  state[4] = static_cast<std::uint32_t>(_mm_extract_epi32(e0, 3));
}

}  // namespace tessel::detail

#endif
