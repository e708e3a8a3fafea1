#include "endian.h"
#include "sha_x86.h"
#include "tessel/cpu.h"
#include "tessel/hash.h"

namespace tessel {

using detail::loadBe32;
using detail::rotr32;

namespace {

constexpr std::uint32_t kK[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

}  // namespace

void SHA256::init() {
  static constexpr std::uint32_t iv[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                          0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  for (int i = 0; i < 8; ++i) state_[i] = iv[i];
}

void SHA256::compressBlocks(const unsigned char* p, std::size_t count) {
#ifdef TESSEL_HAVE_SHA_X86
  if (shaExtensionsInUse()) return detail::sha256CompressShaExt(state_, p, count, kK);
#endif
  for (; count > 0; --count, p += 64) {
    std::uint32_t w[64];
    for (int i = 0; i < 16; ++i) w[i] = loadBe32(p + 4 * i);
    for (int i = 16; i < 64; ++i) {
      std::uint32_t s0 = rotr32(w[i - 15], 7) ^ rotr32(w[i - 15], 18) ^ (w[i - 15] >> 3);
      std::uint32_t s1 = rotr32(w[i - 2], 17) ^ rotr32(w[i - 2], 19) ^ (w[i - 2] >> 10);
      w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    std::uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
    std::uint32_t e = state_[4], f = state_[5], g = state_[6], h = state_[7];
    // Eight rounds per pass with the register names rotated instead of the values moved.
    auto round = [&](std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t& d, std::uint32_t e,
                     std::uint32_t f, std::uint32_t g, std::uint32_t& h, int i) {
      std::uint32_t t1 = h + (rotr32(e, 6) ^ rotr32(e, 11) ^ rotr32(e, 25)) + ((e & f) ^ (~e & g)) + kK[i] + w[i];
      std::uint32_t t2 = (rotr32(a, 2) ^ rotr32(a, 13) ^ rotr32(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
      d += t1;
      h = t1 + t2;
    };
    for (int i = 0; i < 64; i += 8) {
      round(a, b, c, d, e, f, g, h, i);
      round(h, a, b, c, d, e, f, g, i + 1);
      round(g, h, a, b, c, d, e, f, i + 2);
      round(f, g, h, a, b, c, d, e, i + 3);
      round(e, f, g, h, a, b, c, d, i + 4);
      round(d, e, f, g, h, a, b, c, i + 5);
      round(c, d, e, f, g, h, a, b, i + 6);
      round(b, c, d, e, f, g, h, a, i + 7);
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
    state_[4] += e;
    state_[5] += f;
    state_[6] += g;
    state_[7] += h;
  }
}

void SHA256::digest(unsigned char* out) {
  finish(false);
  for (int i = 0; i < 8; ++i) detail::storeBe32(out + 4 * i, state_[i]);
}

}  // namespace tessel
