#include "core/endian.h"
#include "hash/sha_x86.h"
#include "tessel/cpu.h"
#include "tessel/hash.h"

namespace tessel {

using detail::loadBe32;
using detail::rotl32;

void SHA1::init() {
  state_[0] = 0x67452301;
  state_[1] = 0xefcdab89;
  state_[2] = 0x98badcfe;
  state_[3] = 0x10325476;
  state_[4] = 0xc3d2e1f0;
}

void SHA1::compressBlocks(const unsigned char* p, std::size_t count) {
#ifdef TESSEL_HAVE_SHA_X86
  if (shaExtensionsInUse()) return detail::sha1CompressShaExt(state_, p, count);
#endif
  for (; count > 0; --count, p += 64) {
    std::uint32_t w[16];
    for (int i = 0; i < 16; ++i) w[i] = loadBe32(p + 4 * i);
    std::uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3], e = state_[4];
    // The message schedule lives in a 16-word ring, expanded in place as rounds advance.
    auto step = [&](int i, std::uint32_t f, std::uint32_t k) {
      if (i >= 16) w[i & 15] = rotl32(w[(i + 13) & 15] ^ w[(i + 8) & 15] ^ w[(i + 2) & 15] ^ w[i & 15], 1);
      std::uint32_t t = rotl32(a, 5) + f + e + k + w[i & 15];
      e = d, d = c, c = rotl32(b, 30), b = a, a = t;
    };
    for (int i = 0; i < 20; ++i) step(i, (b & c) | (~b & d), 0x5a827999);
    for (int i = 20; i < 40; ++i) step(i, b ^ c ^ d, 0x6ed9eba1);
    for (int i = 40; i < 60; ++i) step(i, (b & c) | (b & d) | (c & d), 0x8f1bbcdc);
    for (int i = 60; i < 80; ++i) step(i, b ^ c ^ d, 0xca62c1d6);
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
    state_[4] += e;
  }
}

void SHA1::digest(unsigned char* out) {
  finish(false);
  encodeState(out);
}

bool SHA1::encodeState(unsigned char* out) const {
  for (int i = 0; i < 5; ++i) detail::storeBe32(out + 4 * i, state_[i]);
  return true;
}

}  // namespace tessel
