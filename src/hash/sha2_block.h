// The SHA-2 compression function shared by SHA-256 (32-bit words, 64 rounds) and SHA-384/512
// (64-bit words, 80 rounds): the two differ only in word size, rotation amounts and constants.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/endian.h"

namespace tessel::detail {

struct Sha256Words {
  using Word = std::uint32_t;
  static constexpr int rounds = 64;
  static Word load(const unsigned char* p) { return loadBe32(p); }
  static Word rotr(Word x, unsigned n) { return rotr32(x, n); }
  static Word sigma0(Word x) { return rotr(x, 7) ^ rotr(x, 18) ^ (x >> 3); }
  static Word sigma1(Word x) { return rotr(x, 17) ^ rotr(x, 19) ^ (x >> 10); }
  static Word bigSigma0(Word x) { return rotr(x, 2) ^ rotr(x, 13) ^ rotr(x, 22); }
  static Word bigSigma1(Word x) { return rotr(x, 6) ^ rotr(x, 11) ^ rotr(x, 25); }
};

struct Sha512Words {
  using Word = std::uint64_t;
  static constexpr int rounds = 80;
  static Word load(const unsigned char* p) { return loadBe64(p); }
  static Word rotr(Word x, unsigned n) { return rotr64(x, n); }
  static Word sigma0(Word x) { return rotr(x, 1) ^ rotr(x, 8) ^ (x >> 7); }
  static Word sigma1(Word x) { return rotr(x, 19) ^ rotr(x, 61) ^ (x >> 6); }
  static Word bigSigma0(Word x) { return rotr(x, 28) ^ rotr(x, 34) ^ rotr(x, 39); }
  static Word bigSigma1(Word x) { return rotr(x, 14) ^ rotr(x, 18) ^ rotr(x, 41); }
};

// sha2Compress runs `count` blocks at `p` through the compression function into `state`.
template <class Words>
void sha2Compress(typename Words::Word state[8], const unsigned char* p, std::size_t count,
                  const typename Words::Word* k) {
  using Word = typename Words::Word;
  constexpr int kRounds = Words::rounds;
  for (; count > 0; --count, p += 16 * sizeof(Word)) {
    Word w[kRounds];
    for (int i = 0; i < 16; ++i) w[i] = Words::load(p + sizeof(Word) * i);
    for (int i = 16; i < kRounds; ++i) w[i] = w[i - 16] + Words::sigma0(w[i - 15]) + w[i - 7] + Words::sigma1(w[i - 2]);
    Word a = state[0], b = state[1], c = state[2], d = state[3];
    Word e = state[4], f = state[5], g = state[6], h = state[7];
    // Eight rounds per pass with the register names rotated instead of the values moved.
    auto round = [&](Word a, Word b, Word c, Word& d, Word e, Word f, Word g, Word& h, int i) {
      const Word t1 = h + Words::bigSigma1(e) + ((e & f) ^ (~e & g)) + k[i] + w[i];
      const Word t2 = Words::bigSigma0(a) + ((a & b) ^ (a & c) ^ (b & c));
      d += t1;
      h = t1 + t2;
    };
    for (int i = 0; i < kRounds; i += 8) {
      round(a, b, c, d, e, f, g, h, i);
      round(h, a, b, c, d, e, f, g, i + 1);
      round(g, h, a, b, c, d, e, f, i + 2);
      round(f, g, h, a, b, c, d, e, i + 3);
      round(e, f, g, h, a, b, c, d, i + 4);
      round(d, e, f, g, h, a, b, c, i + 5);
      round(c, d, e, f, g, h, a, b, i + 6);
      round(b, c, d, e, f, g, h, a, i + 7);
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
  }
}

}  // namespace tessel::detail
