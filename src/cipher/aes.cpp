// AES (FIPS 197), compact and table-free apart from the S-box, its inverse and the round
// constants. The state is kept transposed: word r holds row r, with column c in bits 8c..8c+7,
// so ShiftRows rotates each row word and MixColumns works on all four columns at once.
#include <array>
#include <bit>
#include <cstring>

#include "core/endian.h"
#include "tessel/block.h"

#include "tessel/cpu.h"
#if defined(__x86_64__) || defined(__i386__)
#define TESSEL_AESNI 1
#include <smmintrin.h>
#include <wmmintrin.h>
#endif

namespace tessel {

namespace {

// The S-box is computed at compile time from the field inverse and the affine map of FIPS 197
// section 5.1.1, which gives exactly the values printed there. p runs through the powers of the
// generator 3 and q through those of its inverse, so q = 1/p at every step.
constexpr std::array<std::uint8_t, 256> makeSbox() {
  std::array<std::uint8_t, 256> s{};
  unsigned p = 1, q = 1;
  do {
    p = (p ^ p << 1 ^ (p & 0x80 ? 0x1b : 0)) & 0xff;  // p * 3
    q ^= q << 1;                                        // q / 3
    q ^= q << 2;
    q ^= q << 4;
    q &= 0xff;
    if (q & 0x80) q ^= 0x09;
    unsigned r = 0x63;
    for (unsigned k = 0; k < 5; ++k) r ^= (q << k | q >> (8 - k)) & 0xff;
    s[p] = static_cast<std::uint8_t>(r);
  } while (p != 1);
  s[0] = 0x63;
  return s;
}

constexpr std::array<std::uint8_t, 256> kSbox = makeSbox();

constexpr std::array<std::uint8_t, 256> makeInvSbox() {
  std::array<std::uint8_t, 256> s{};
  for (unsigned x = 0; x < 256; ++x) s[kSbox[x]] = static_cast<std::uint8_t>(x);
  return s;
}

constexpr std::array<std::uint8_t, 256> kInvSbox = makeInvSbox();
static_assert(kSbox[0] == 0x63 && kSbox[0x53] == 0xed && kInvSbox[0x63] == 0);

constexpr std::uint8_t kRcon[10] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0x1b, 0x36};

inline std::uint32_t subWord(std::uint32_t w, const std::array<std::uint8_t, 256>& box) {
  return std::uint32_t{box[w & 0xff]} | std::uint32_t{box[w >> 8 & 0xff]} << 8 |
         std::uint32_t{box[w >> 16 & 0xff]} << 16 | std::uint32_t{box[w >> 24]} << 24;
}

// xtime doubles each of the four bytes of a word in GF(2^8).
inline std::uint32_t xtime(std::uint32_t w) {
  return (w & 0x7f7f7f7fu) << 1 ^ ((w >> 7) & 0x01010101u) * 0x1b;
}

inline void loadState(const unsigned char* in, std::uint32_t s[4]) {
  for (unsigned r = 0; r < 4; ++r)
    s[r] = std::uint32_t{in[r]} | std::uint32_t{in[r + 4]} << 8 | std::uint32_t{in[r + 8]} << 16 |
           std::uint32_t{in[r + 12]} << 24;
}

inline void storeState(const std::uint32_t s[4], unsigned char* out) {
  for (unsigned r = 0; r < 4; ++r)
    for (unsigned c = 0; c < 4; ++c) out[r + 4 * c] = static_cast<unsigned char>(s[r] >> 8 * c);
}

inline void addRoundKey(std::uint32_t s[4], const std::uint32_t* k) {
  s[0] ^= k[0];
  s[1] ^= k[1];
  s[2] ^= k[2];
  s[3] ^= k[3];
}

inline void mixColumns(std::uint32_t s[4]) {
  std::uint32_t a0 = s[0], a1 = s[1], a2 = s[2], a3 = s[3], t = a0 ^ a1 ^ a2 ^ a3;
  s[0] = a0 ^ t ^ xtime(a0 ^ a1);
  s[1] = a1 ^ t ^ xtime(a1 ^ a2);
  s[2] = a2 ^ t ^ xtime(a2 ^ a3);
  s[3] = a3 ^ t ^ xtime(a3 ^ a0);
}

// invMixColumns multiplies by {04}x^2 + {05} first, which turns MixColumns into its inverse.
inline void invMixColumns(std::uint32_t s[4]) {
  std::uint32_t u = xtime(xtime(s[0] ^ s[2])), v = xtime(xtime(s[1] ^ s[3]));
  s[0] ^= u;
  s[1] ^= v;
  s[2] ^= u;
  s[3] ^= v;
  mixColumns(s);
}

#if TESSEL_AESNI
#define TESSEL_TARGET_AES __attribute__((target("aes,sse4.1")))

TESSEL_TARGET_AES inline __m128i loadKey(const unsigned char* k) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(k));
}

// hardwareDecryptKeys turns the encryption round keys into those of the equivalent inverse
// cipher that AESDEC expects.
TESSEL_TARGET_AES void hardwareDecryptKeys(const unsigned char (*enc)[16], unsigned char (*dec)[16], unsigned rounds) {
  for (unsigned i = 0; i <= rounds; ++i) {
    __m128i k = loadKey(enc[rounds - i]);
    if (i != 0 && i != rounds) k = _mm_aesimc_si128(k);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dec[i]), k);
  }
}

TESSEL_TARGET_AES void hardwareRounds(const unsigned char (*keys)[16], unsigned rounds, bool decrypting,
                                      const unsigned char* in, unsigned char* out) {
  __m128i b = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in)), loadKey(keys[0]));
  if (decrypting) {
    for (unsigned r = 1; r < rounds; ++r) b = _mm_aesdec_si128(b, loadKey(keys[r]));
    b = _mm_aesdeclast_si128(b, loadKey(keys[rounds]));
  } else {
    for (unsigned r = 1; r < rounds; ++r) b = _mm_aesenc_si128(b, loadKey(keys[r]));
    b = _mm_aesenclast_si128(b, loadKey(keys[rounds]));
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), b);
}

// hardwareEncrypt4 runs four independent blocks through the rounds side by side, which hides
// most of the latency of the AES instructions.
TESSEL_TARGET_AES void hardwareEncrypt4(const unsigned char (*keys)[16], unsigned rounds, const unsigned char* in,
                                        unsigned char* out) {
  const __m128i* src = reinterpret_cast<const __m128i*>(in);
  __m128i* dst = reinterpret_cast<__m128i*>(out);
  __m128i k = loadKey(keys[0]);
  __m128i b0 = _mm_xor_si128(_mm_loadu_si128(src), k), b1 = _mm_xor_si128(_mm_loadu_si128(src + 1), k);
  __m128i b2 = _mm_xor_si128(_mm_loadu_si128(src + 2), k), b3 = _mm_xor_si128(_mm_loadu_si128(src + 3), k);
  for (unsigned r = 1; r < rounds; ++r) {
    k = loadKey(keys[r]);
    b0 = _mm_aesenc_si128(b0, k);
    b1 = _mm_aesenc_si128(b1, k);
    b2 = _mm_aesenc_si128(b2, k);
    b3 = _mm_aesenc_si128(b3, k);
  }
  k = loadKey(keys[rounds]);
  _mm_storeu_si128(dst, _mm_aesenclast_si128(b0, k));
  _mm_storeu_si128(dst + 1, _mm_aesenclast_si128(b1, k));
  _mm_storeu_si128(dst + 2, _mm_aesenclast_si128(b2, k));
  _mm_storeu_si128(dst + 3, _mm_aesenclast_si128(b3, k));
}
#endif

}  // namespace

void AESBase::expandKey(const unsigned char* key, unsigned nk) {
  rounds_ = nk + 6;
  const unsigned total = 4 * (nk + 7);  // 44, 52 or 60 words
  std::uint32_t w[60];
  for (unsigned i = 0; i < nk; ++i) w[i] = detail::loadBe32(key + 4 * i);
  for (unsigned i = nk; i < total; ++i) {
    std::uint32_t t = w[i - 1];
    if (i % nk == 0) {
      t = detail::rotl32(t, 8);
      t = subWord(t, kSbox) ^ std::uint32_t{kRcon[i / nk - 1]} << 24;
    } else if (nk == 8 && i % nk == 4) {
      t = subWord(t, kSbox);
    }
    w[i] = w[i - nk] ^ t;
  }
  // Column words (row 0 in the top byte) become row words (column 0 in the low byte).
  for (unsigned k = 0; k < total; k += 4)
    for (unsigned r = 0; r < 4; ++r) {
      std::uint32_t row = 0;
      for (unsigned c = 0; c < 4; ++c) row |= (w[k + c] >> (24 - 8 * r) & 0xff) << 8 * c;
      roundKeys_[k + r] = row;
    }
#if TESSEL_AESNI
  if (cpuHasAesInstructions()) {
    for (unsigned i = 0; i < total; ++i) detail::storeBe32(hwKeys_[0][i / 4] + 4 * (i % 4), w[i]);
    hardwareDecryptKeys(hwKeys_[0], hwKeys_[1], nk + 6);
  }
#endif
}

void AESBase::encryptRounds(const unsigned char* in, unsigned char* out, unsigned rounds) const {
#if TESSEL_AESNI
  if (aesInstructionsInUse()) return hardwareRounds(hwKeys_[0], rounds, false, in, out);
#endif
  std::uint32_t s[4];
  loadState(in, s);
  addRoundKey(s, roundKeys_);
  for (unsigned round = 1;; ++round) {
    for (unsigned r = 0; r < 4; ++r) s[r] = std::rotr(subWord(s[r], kSbox), static_cast<int>(8 * r));
    if (round == rounds) break;
    mixColumns(s);
    addRoundKey(s, roundKeys_ + 4 * round);
  }
  addRoundKey(s, roundKeys_ + 4 * rounds);
  storeState(s, out);
}

void AESBase::decryptRounds(const unsigned char* in, unsigned char* out, unsigned rounds) const {
#if TESSEL_AESNI
  if (aesInstructionsInUse()) return hardwareRounds(hwKeys_[1], rounds, true, in, out);
#endif
  std::uint32_t s[4];
  loadState(in, s);
  addRoundKey(s, roundKeys_ + 4 * rounds);
  for (unsigned round = rounds - 1;; --round) {
    for (unsigned r = 0; r < 4; ++r) s[r] = subWord(std::rotl(s[r], static_cast<int>(8 * r)), kInvSbox);
    addRoundKey(s, roundKeys_ + 4 * round);
    if (round == 0) break;
    invMixColumns(s);
  }
  storeState(s, out);
}

void AESBase::encryptBlocks(const unsigned char* in, unsigned char* out, std::size_t count) const {
#if TESSEL_AESNI
  if (aesInstructionsInUse()) {
    for (; count >= 4; count -= 4, in += 64, out += 64) hardwareEncrypt4(hwKeys_[0], rounds_, in, out);
  }
#endif
  for (; count; --count, in += 16, out += 16) encryptRounds(in, out, rounds_);
}

namespace detail {

std::unique_ptr<BlockCipher> makeAES(const unsigned char* key, std::size_t keyLen) {
  switch (keyLen) {
    case 16: return std::make_unique<AES128>(key);
    case 24: return std::make_unique<AES192>(key);
    case 32: return std::make_unique<AES256>(key);
    default: return nullptr;
  }
}

}  // namespace detail

}  // namespace tessel
