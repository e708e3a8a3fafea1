#include "core/endian.h"
#include "tessel/hash.h"

namespace tessel {

using detail::loadLe32;
using detail::rotl32;

namespace {

// Per-step additive constants floor(abs(sin(i + 1)) * 2^32) (RFC 1321).
constexpr std::uint32_t kT[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

}  // namespace

void MD5::init() {
  state_[0] = 0x67452301;
  state_[1] = 0xefcdab89;
  state_[2] = 0x98badcfe;
  state_[3] = 0x10325476;
}

void MD5::compressBlocks(const unsigned char* p, std::size_t count) {
  for (; count > 0; --count, p += 64) {
    std::uint32_t x[16];
    for (int i = 0; i < 16; ++i) x[i] = loadLe32(p + 4 * i);
    std::uint32_t a = state_[0], b = state_[1], c = state_[2], d = state_[3];
    // Four rounds of sixteen steps; each loop has one round function so it unrolls cleanly.
    auto step = [](std::uint32_t& a, std::uint32_t b, std::uint32_t f, std::uint32_t xk, std::uint32_t t, unsigned s) {
      a = b + rotl32(a + f + xk + t, s);
    };
    for (int i = 0; i < 16; i += 4) {
      step(a, b, (b & c) | (~b & d), x[i], kT[i], 7);
      step(d, a, (a & b) | (~a & c), x[i + 1], kT[i + 1], 12);
      step(c, d, (d & a) | (~d & b), x[i + 2], kT[i + 2], 17);
      step(b, c, (c & d) | (~c & a), x[i + 3], kT[i + 3], 22);
    }
    for (int i = 16; i < 32; i += 4) {
      step(a, b, (d & b) | (~d & c), x[(5 * i + 1) & 15], kT[i], 5);
      step(d, a, (c & a) | (~c & b), x[(5 * i + 6) & 15], kT[i + 1], 9);
      step(c, d, (b & d) | (~b & a), x[(5 * i + 11) & 15], kT[i + 2], 14);
      step(b, c, (a & c) | (~a & d), x[(5 * i + 16) & 15], kT[i + 3], 20);
    }
    for (int i = 32; i < 48; i += 4) {
      step(a, b, b ^ c ^ d, x[(3 * i + 5) & 15], kT[i], 4);
      step(d, a, a ^ b ^ c, x[(3 * i + 8) & 15], kT[i + 1], 11);
      step(c, d, d ^ a ^ b, x[(3 * i + 11) & 15], kT[i + 2], 16);
      step(b, c, c ^ d ^ a, x[(3 * i + 14) & 15], kT[i + 3], 23);
    }
    for (int i = 48; i < 64; i += 4) {
      step(a, b, c ^ (b | ~d), x[(7 * i) & 15], kT[i], 6);
      step(d, a, b ^ (a | ~c), x[(7 * i + 7) & 15], kT[i + 1], 10);
      step(c, d, a ^ (d | ~b), x[(7 * i + 14) & 15], kT[i + 2], 15);
      step(b, c, d ^ (c | ~a), x[(7 * i + 21) & 15], kT[i + 3], 21);
    }
    state_[0] += a;
    state_[1] += b;
    state_[2] += c;
    state_[3] += d;
  }
}

void MD5::digest(unsigned char* out) {
  finish(true);
  encodeState(out);
}

bool MD5::encodeState(unsigned char* out) const {
  for (int i = 0; i < 4; ++i) detail::storeLe32(out + 4 * i, state_[i]);
  return true;
}

}  // namespace tessel
