// DES (FIPS 46-3) and triple DES (EDE, three keys). The tables are those of the standard, bit
// positions counted from 1 at the most significant bit; the S-boxes and the permutation P are
// folded into eight 64-entry tables at compile time.
#include <array>
#include <bit>

#include "core/endian.h"
#include "tessel/block.h"

namespace tessel {

namespace {

constexpr std::uint8_t kIP[64] = {58, 50, 42, 34, 26, 18, 10, 2, 60, 52, 44, 36, 28, 20, 12, 4,
                                  62, 54, 46, 38, 30, 22, 14, 6, 64, 56, 48, 40, 32, 24, 16, 8,
                                  57, 49, 41, 33, 25, 17, 9,  1, 59, 51, 43, 35, 27, 19, 11, 3,
                                  61, 53, 45, 37, 29, 21, 13, 5, 63, 55, 47, 39, 31, 23, 15, 7};

constexpr std::uint8_t kP[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23, 26, 5,  18, 31, 10,
                                 2,  8, 24, 14, 32, 27, 3,  9,  19, 13, 30, 6,  22, 11, 4,  25};

constexpr std::uint8_t kPC1[56] = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,
                                   10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,
                                   63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,
                                   14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};

constexpr std::uint8_t kPC2[48] = {14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10,
                                   23, 19, 12, 4,  26, 8,  16, 7,  27, 20, 13, 2,
                                   41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48,
                                   44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};

constexpr std::uint8_t kShifts[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

constexpr std::uint8_t kS[8][64] = {
    {14, 4,  13, 1, 2,  15, 11, 8,  3,  10, 6,  12, 5,  9,  0, 7,  0, 15, 7,  4,  14, 2,
     13, 1,  10, 6, 12, 11, 9,  5,  3,  8,  4,  1,  14, 8,  13, 6, 2,  11, 15, 12, 9,  7,
     3,  10, 5,  0, 15, 12, 8,  2,  4,  9,  1,  7,  5,  11, 3,  14, 10, 0,  6,  13},
    {15, 1,  8,  14, 6,  11, 3,  4,  9,  7,  2,  13, 12, 0,  5,  10, 3,  13, 4,  7, 15, 2,
     8,  14, 12, 0,  1,  10, 6,  9,  11, 5,  0,  14, 7,  11, 10, 4,  13, 1,  5,  8, 12, 6,
     9,  3,  2,  15, 13, 8,  10, 1,  3,  15, 4,  2,  11, 6,  7,  12, 0,  5,  14, 9},
    {10, 0,  9,  14, 6,  3,  15, 5,  1,  13, 12, 7,  11, 4,  2,  8,  13, 7,  0,  9,  3,  4,
     6,  10, 2,  8,  5,  14, 12, 11, 15, 1,  13, 6,  4,  9,  8,  15, 3,  0,  11, 1,  2,  12,
     5,  10, 14, 7,  1,  10, 13, 0,  6,  9,  8,  7,  4,  15, 14, 3,  11, 5,  2,  12},
    {7,  13, 14, 3,  0,  6,  9,  10, 1,  2, 8,  5,  11, 12, 4,  15, 13, 8,  11, 5,  6,  15,
     0,  3,  4,  7,  2,  12, 1,  10, 14, 9, 10, 6,  9,  0,  12, 11, 7,  13, 15, 1,  3,  14,
     5,  2,  8,  4,  3,  15, 0,  6,  10, 1, 13, 8,  9,  4,  5,  11, 12, 7,  2,  14},
    {2,  12, 4,  1,  7,  10, 11, 6, 8,  5,  3,  15, 13, 0,  14, 9,  14, 11, 2,  12, 4,  7,
     13, 1,  5,  0,  15, 10, 3,  9, 8,  6,  4,  2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,
     6,  3,  0,  14, 11, 8,  12, 7, 1,  14, 2,  13, 6,  15, 0,  9,  10, 4,  5,  3},
    {12, 1,  10, 15, 9,  2,  6,  8,  0,  13, 3,  4,  14, 7,  5,  11, 10, 15, 4,  2,  7,  12,
     9,  5,  6,  1,  13, 14, 0,  11, 3,  8,  9,  14, 15, 5,  2,  8,  12, 3,  7,  0,  4,  10,
     1,  13, 11, 6,  4,  3,  2,  12, 9,  5,  15, 10, 11, 14, 1,  7,  6,  0,  8,  13},
    {4,  11, 2,  14, 15, 0,  8,  13, 3,  12, 9,  7,  5,  10, 6,  1,  13, 0,  11, 7,  4, 9,
     1,  10, 14, 3,  5,  12, 2,  15, 8,  6,  1,  4,  11, 13, 12, 3,  7,  14, 10, 15, 6, 8,
     0,  5,  9,  2,  6,  11, 13, 8,  1,  4,  10, 7,  9,  5,  0,  15, 14, 2,  3,  12},
    {13, 2,  8, 4,  6,  15, 11, 1,  10, 9,  3,  14, 5,  0,  12, 7,  1,  15, 13, 8,  10, 3,
     7,  4,  12, 5,  6,  11, 0,  14, 9,  2,  7,  11, 4,  1,  9,  12, 14, 2,  0,  6,  10, 13,
     15, 3,  5,  8,  2,  1,  14, 7,  4,  10, 8,  13, 15, 12, 9,  0,  3,  5,  6,  11}};

// permute gathers bits of `in` (`inBits` wide) at the 1-based positions of `table`.
constexpr std::uint64_t permute(std::uint64_t in, unsigned inBits, const std::uint8_t* table, unsigned outBits) {
  std::uint64_t out = 0;
  for (unsigned i = 0; i < outBits; ++i) out = out << 1 | (in >> (inBits - table[i]) & 1);
  return out;
}

constexpr std::array<std::uint8_t, 64> makeFP() {
  std::array<std::uint8_t, 64> fp{};
  for (unsigned i = 0; i < 64; ++i) fp[kIP[i] - 1] = static_cast<std::uint8_t>(i + 1);
  return fp;
}
constexpr std::array<std::uint8_t, 64> kFP = makeFP();

// The 64-bit permutations IP and FP run as eight lookups, one per input byte: entry [k][v] is
// the permutation of the block that holds byte value v at byte k and zeros elsewhere.
using ByteTables = std::array<std::array<std::uint64_t, 256>, 8>;
constexpr ByteTables makeByteTables(const std::uint8_t* table) {
  ByteTables t{};
  for (unsigned k = 0; k < 8; ++k)
    for (unsigned v = 0; v < 256; ++v) t[k][v] = permute(std::uint64_t{v} << (56 - 8 * k), 64, table, 64);
  return t;
}
constexpr ByteTables kIPTables = makeByteTables(kIP);
constexpr ByteTables kFPTables = makeByteTables(kFP.data());

inline std::uint64_t permuteBytes(const ByteTables& t, std::uint64_t x) {
  std::uint64_t out = 0;
  for (unsigned k = 0; k < 8; ++k) out |= t[k][x >> (56 - 8 * k) & 0xff];
  return out;
}

// kSP[i][b] is P applied to the output of S-box i for the 6-bit input b, in place in the word.
constexpr std::array<std::array<std::uint32_t, 64>, 8> makeSP() {
  std::array<std::array<std::uint32_t, 64>, 8> sp{};
  for (unsigned i = 0; i < 8; ++i)
    for (unsigned b = 0; b < 64; ++b) {
      unsigned row = (b >> 4 & 2) | (b & 1), col = b >> 1 & 15;
      std::uint64_t s = std::uint64_t{kS[i][row * 16 + col]} << (28 - 4 * i);
      sp[i][b] = static_cast<std::uint32_t>(permute(s, 32, kP, 32));
    }
  return sp;
}
constexpr auto kSP = makeSP();

inline std::uint32_t feistel(std::uint32_t r, const unsigned char* k) {
  std::uint32_t f = 0;
  // Expansion E: chunk i is bits 4i .. 4i+5 of R, wrapping from bit 32 to bit 1.
  for (unsigned i = 0; i < 8; ++i)
    f |= kSP[i][(std::rotl(r, static_cast<int>(4 * i) - 1) >> 26 ^ k[i]) & 63];
  return f;
}

}  // namespace

DES::DES(const unsigned char* key) {
  std::uint64_t cd = permute(detail::loadBe64(key), 64, kPC1, 56);
  std::uint32_t c = static_cast<std::uint32_t>(cd >> 28), d = static_cast<std::uint32_t>(cd & 0xfffffff);
  for (unsigned round = 0; round < 16; ++round) {
    for (unsigned s = 0; s < kShifts[round]; ++s) {
      c = (c << 1 | c >> 27) & 0xfffffff;
      d = (d << 1 | d >> 27) & 0xfffffff;
    }
    std::uint64_t k = permute(std::uint64_t{c} << 28 | d, 56, kPC2, 48);
    for (unsigned i = 0; i < 8; ++i) subkeys_[round][i] = static_cast<unsigned char>(k >> (42 - 6 * i) & 63);
  }
}

void DES::crypt(const unsigned char* in, unsigned char* out, bool decrypting) const {
  std::uint64_t block = permuteBytes(kIPTables, detail::loadBe64(in));
  std::uint32_t l = static_cast<std::uint32_t>(block >> 32), r = static_cast<std::uint32_t>(block);
  for (unsigned round = 0; round < 16; ++round) {
    std::uint32_t next = l ^ feistel(r, subkeys_[decrypting ? 15 - round : round]);
    l = r;
    r = next;
  }
  detail::storeBe64(out, permuteBytes(kFPTables, std::uint64_t{r} << 32 | l));
}

void DES::encrypt(const unsigned char* in, unsigned char* out) const { crypt(in, out, false); }
void DES::decrypt(const unsigned char* in, unsigned char* out) const { crypt(in, out, true); }

void DES3::encrypt(const unsigned char* in, unsigned char* out) const {
  unsigned char tmp[8];
  k1_.encrypt(in, out);
  k2_.decrypt(out, tmp);
  k3_.encrypt(tmp, out);
}

void DES3::decrypt(const unsigned char* in, unsigned char* out) const {
  unsigned char tmp[8];
  k3_.decrypt(in, out);
  k2_.encrypt(out, tmp);
  k1_.decrypt(tmp, out);
}

}  // namespace tessel
