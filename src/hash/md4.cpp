#include "core/endian.h"
#include "tessel/hash.h"

namespace tessel {

using detail::loadLe32;
using detail::rotl32;

void MD4::init() {
  state_[0] = 0x67452301;
  state_[1] = 0xefcdab89;
  state_[2] = 0x98badcfe;
  state_[3] = 0x10325476;
}

void MD4::compressBlocks(const unsigned char* p, std::size_t count) {
  auto f = [](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return (x & y) | (~x & z); };
  auto g = [](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return (x & y) | (x & z) | (y & z); };
  auto h = [](std::uint32_t x, std::uint32_t y, std::uint32_t z) { return x ^ y ^ z; };
  for (; count > 0; --count, p += 64) {
    std::uint32_t x[16];
    for (int i = 0; i < 16; ++i) x[i] = loadLe32(p + 4 * i);
    std::uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
    static constexpr unsigned s1[4] = {3, 7, 11, 19};
    for (int i = 0; i < 16; ++i) {
      std::uint32_t t = rotl32(a + f(b, c, d) + x[i], s1[i % 4]);
      a = d, d = c, c = b, b = t;
    }
    static constexpr unsigned s2[4] = {3, 5, 9, 13};
    for (int i = 0; i < 16; ++i) {
      int k = (i % 4) * 4 + i / 4;
      std::uint32_t t = rotl32(a + g(b, c, d) + x[k] + 0x5a827999, s2[i % 4]);
      a = d, d = c, c = b, b = t;
    }
    static constexpr unsigned s3[4] = {3, 9, 11, 15};
    static constexpr int order3[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};
    for (int i = 0; i < 16; ++i) {
      std::uint32_t t = rotl32(a + h(b, c, d) + x[order3[i]] + 0x6ed9eba1, s3[i % 4]);
      a = d, d = c, c = b, b = t;
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
  }
}

void MD4::digest(unsigned char* out) {
  finish(true);
  encodeState(out);
}

bool MD4::encodeState(unsigned char* out) const {
  for (int i = 0; i < 4; ++i) detail::storeLe32(out + 4 * i, state_[i]);
  return true;
}

}  // namespace tessel
