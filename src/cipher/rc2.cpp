// RC2 (RFC 2268). Both table lookups of the cipher, the key schedule's PITABLE and the mashing
// rounds' key words, are indexed by secret bytes; each reads the whole table and keeps the
// wanted entry by mask, so that neither the cache nor a branch shows the key or the data.
#include "core/secret.h"
#include "tessel/assert.h"
#include "tessel/block.h"

namespace tessel {

namespace {

constexpr unsigned char kPiTable[256] = {
    0xd9, 0x78, 0xf9, 0xc4, 0x19, 0xdd, 0xb5, 0xed, 0x28, 0xe9, 0xfd, 0x79, 0x4a, 0xa0, 0xd8, 0x9d, 0xc6, 0x7e, 0x37,
    0x83, 0x2b, 0x76, 0x53, 0x8e, 0x62, 0x4c, 0x64, 0x88, 0x44, 0x8b, 0xfb, 0xa2, 0x17, 0x9a, 0x59, 0xf5, 0x87, 0xb3,
    0x4f, 0x13, 0x61, 0x45, 0x6d, 0x8d, 0x09, 0x81, 0x7d, 0x32, 0xbd, 0x8f, 0x40, 0xeb, 0x86, 0xb7, 0x7b, 0x0b, 0xf0,
    0x95, 0x21, 0x22, 0x5c, 0x6b, 0x4e, 0x82, 0x54, 0xd6, 0x65, 0x93, 0xce, 0x60, 0xb2, 0x1c, 0x73, 0x56, 0xc0, 0x14,
    0xa7, 0x8c, 0xf1, 0xdc, 0x12, 0x75, 0xca, 0x1f, 0x3b, 0xbe, 0xe4, 0xd1, 0x42, 0x3d, 0xd4, 0x30, 0xa3, 0x3c, 0xb6,
    0x26, 0x6f, 0xbf, 0x0e, 0xda, 0x46, 0x69, 0x07, 0x57, 0x27, 0xf2, 0x1d, 0x9b, 0xbc, 0x94, 0x43, 0x03, 0xf8, 0x11,
    0xc7, 0xf6, 0x90, 0xef, 0x3e, 0xe7, 0x06, 0xc3, 0xd5, 0x2f, 0xc8, 0x66, 0x1e, 0xd7, 0x08, 0xe8, 0xea, 0xde, 0x80,
    0x52, 0xee, 0xf7, 0x84, 0xaa, 0x72, 0xac, 0x35, 0x4d, 0x6a, 0x2a, 0x96, 0x1a, 0xd2, 0x71, 0x5a, 0x15, 0x49, 0x74,
    0x4b, 0x9f, 0xd0, 0x5e, 0x04, 0x18, 0xa4, 0xec, 0xc2, 0xe0, 0x41, 0x6e, 0x0f, 0x51, 0xcb, 0xcc, 0x24, 0x91, 0xaf,
    0x50, 0xa1, 0xf4, 0x70, 0x39, 0x99, 0x7c, 0x3a, 0x85, 0x23, 0xb8, 0xb4, 0x7a, 0xfc, 0x02, 0x36, 0x5b, 0x25, 0x55,
    0x97, 0x31, 0x2d, 0x5d, 0xfa, 0x98, 0xe3, 0x8a, 0x92, 0xae, 0x05, 0xdf, 0x29, 0x10, 0x67, 0x6c, 0xba, 0xc9, 0xd3,
    0x00, 0xe6, 0xcf, 0xe1, 0x9e, 0xa8, 0x2c, 0x63, 0x16, 0x01, 0x3f, 0x58, 0xe2, 0x89, 0xa9, 0x0d, 0x38, 0x34, 0x1b,
    0xab, 0x33, 0xff, 0xb0, 0xbb, 0x48, 0x0c, 0x5f, 0xb9, 0xb1, 0xcd, 0x2e, 0xc5, 0xf3, 0xdb, 0x47, 0xe5, 0xa5, 0x9c,
    0x77, 0x0a, 0xa6, 0x20, 0x68, 0xfe, 0x7f, 0xc1, 0xad,
};

constexpr unsigned kShifts[4] = {1, 2, 3, 5};

// pi looks up PITABLE[index] reading every entry.
unsigned char pi(unsigned index) {
  unsigned char out = 0;
  for (unsigned k = 0; k < 256; ++k) out |= kPiTable[k] & ct::equalMask<unsigned>(k, index & 0xff);
  return out;
}

std::uint16_t rol(std::uint16_t x, unsigned s) { return static_cast<std::uint16_t>((x << s) | (x >> (16 - s))); }
std::uint16_t ror(std::uint16_t x, unsigned s) { return static_cast<std::uint16_t>((x >> s) | (x << (16 - s))); }

}  // namespace

RC2::RC2(const unsigned char* key, unsigned keyLen, unsigned effectiveBits) {
  TESSEL_ASSERT(keyLen >= 1 && keyLen <= 128 && effectiveBits >= 1 && effectiveBits <= 1024);
  unsigned char l[128];
  for (unsigned i = 0; i < keyLen; ++i) l[i] = key[i];
  for (unsigned i = keyLen; i < 128; ++i) l[i] = pi(l[i - 1] + l[i - keyLen]);
  const unsigned t8 = (effectiveBits + 7) / 8;
  const unsigned tm = 0xffu >> (8 * t8 - effectiveBits);
  l[128 - t8] = pi(l[128 - t8] & tm);
  for (unsigned i = 128 - t8; i-- > 0;) l[i] = pi(l[i + 1] ^ l[i + t8]);
  for (unsigned i = 0; i < 64; ++i) k_[i] = static_cast<std::uint16_t>(l[2 * i] | (l[2 * i + 1] << 8));
  ct::wipeObject(l);
}

RC2::~RC2() { ct::wipeObject(k_); }

std::uint16_t RC2::keyWord(unsigned index) const {
  std::uint16_t out = 0;
  for (unsigned k = 0; k < 64; ++k)
    out |= k_[k] & ct::equalMask<std::uint16_t>(static_cast<std::uint16_t>(k), index & 63);
  return out;
}

void RC2::encrypt(const unsigned char* in, unsigned char* out) const {
  std::uint16_t r[4];
  for (unsigned i = 0; i < 4; ++i) r[i] = static_cast<std::uint16_t>(in[2 * i] | (in[2 * i + 1] << 8));
  unsigned j = 0;
  for (unsigned round = 0; round < 16; ++round) {
    for (unsigned i = 0; i < 4; ++i) {
      const std::uint16_t a = r[(i + 3) & 3], b = r[(i + 2) & 3], c = r[(i + 1) & 3];
      r[i] = rol(static_cast<std::uint16_t>(r[i] + k_[j++] + (a & b) + (~a & c)), kShifts[i]);
    }
    if (round == 4 || round == 10)  // the two mashing rounds
      for (unsigned i = 0; i < 4; ++i) r[i] = static_cast<std::uint16_t>(r[i] + keyWord(r[(i + 3) & 3]));
  }
  for (unsigned i = 0; i < 4; ++i) {
    out[2 * i] = static_cast<unsigned char>(r[i]);
    out[2 * i + 1] = static_cast<unsigned char>(r[i] >> 8);
  }
}

void RC2::decrypt(const unsigned char* in, unsigned char* out) const {
  std::uint16_t r[4];
  for (unsigned i = 0; i < 4; ++i) r[i] = static_cast<std::uint16_t>(in[2 * i] | (in[2 * i + 1] << 8));
  unsigned j = 64;
  for (unsigned round = 16; round-- > 0;) {
    for (unsigned i = 4; i-- > 0;) {
      const std::uint16_t a = r[(i + 3) & 3], b = r[(i + 2) & 3], c = r[(i + 1) & 3];
      r[i] = static_cast<std::uint16_t>(ror(r[i], kShifts[i]) - k_[--j] - (a & b) - (~a & c));
    }
    if (round == 11 || round == 5)  // undoes the mashing after encryption's rounds 10 and 4
      for (unsigned i = 4; i-- > 0;) r[i] = static_cast<std::uint16_t>(r[i] - keyWord(r[(i + 3) & 3]));
  }
  for (unsigned i = 0; i < 4; ++i) {
    out[2 * i] = static_cast<unsigned char>(r[i]);
    out[2 * i + 1] = static_cast<unsigned char>(r[i] >> 8);
  }
}

}  // namespace tessel
