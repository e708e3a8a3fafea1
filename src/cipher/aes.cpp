// AES (FIPS 197) without tables: the portable rounds are bitsliced, the S-box a circuit of logic
// gates (Boyar and Peralta's 113-gate circuit), so that neither the key nor the data ever picks
// a memory address or a branch. The x86 AES instructions take over when the processor has them.
//
// Bitsliced layout: a batch of kBlocks blocks is held in eight words q[0..7], word j holding bit
// j of every state byte. Byte (row r, column c) of block b sits at bit 4*kBlocks*r + kBlocks*c
// + b of each word, so a row is a contiguous field: MixColumns rotates whole words by one row
// and ShiftRows rotates each row field by whole columns.
#include <bit>
#include <cstring>

#include "core/endian.h"
#include "core/secret.h"
#include "tessel/block.h"

#include "tessel/cpu.h"
#if defined(__x86_64__) || defined(__i386__)
#define TESSEL_AESNI 1
#include <smmintrin.h>
#include <wmmintrin.h>
#endif

namespace tessel {

namespace {

using Word = AESBase::SliceWord;
constexpr unsigned kBits = sizeof(Word) * 8;
constexpr unsigned kBlocks = kBits / 16;           // blocks per batch: 2 or 4
constexpr unsigned kRow = 4 * kBlocks;             // bits per row field
constexpr unsigned kColumnsPerWord = 8 / kBlocks;  // columns of one block that share a loaded word

constexpr std::uint8_t kRcon[10] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0x1b, 0x36};

// swapMove exchanges the bits of `a` selected by `mask << n` with the bits of `b` selected by
// `mask`.
inline void swapMove(Word& a, Word& b, Word mask, unsigned n) {
  const Word t = ((a >> n) ^ b) & mask;
  b ^= t;
  a ^= t << n;
}

// transpose turns eight words of bytes into eight bit slices and back (it is its own inverse):
// afterwards bit k of byte lane L of word j is what bit j of byte lane L of word k was.
inline void transpose(Word* q) {
  constexpr Word m1 = static_cast<Word>(0x5555555555555555u), m2 = static_cast<Word>(0x3333333333333333u),
                 m4 = static_cast<Word>(0x0f0f0f0f0f0f0f0fu);
  for (unsigned i = 0; i < 8; i += 2) swapMove(q[i], q[i + 1], m1, 1);
  for (unsigned i : {0u, 1u, 4u, 5u}) swapMove(q[i], q[i + 2], m2, 2);
  for (unsigned i = 0; i < 4; ++i) swapMove(q[i], q[i + 4], m4, 4);
}

// The byte at (row r, column c) of block b is loaded into word `c % kColumnsPerWord * kBlocks
// + b`, byte lane `r * kBlocks / 2 + c / kColumnsPerWord`, which transpose() turns into the
// bit position of the layout above.
inline unsigned wordOf(unsigned b, unsigned c) { return c % kColumnsPerWord * kBlocks + b; }
inline unsigned shiftOf(unsigned r, unsigned c) { return 8 * (r * kBlocks / 2 + c / kColumnsPerWord); }

// load slices `count` (at most kBlocks) blocks; missing blocks are zero.
inline void load(const unsigned char* in, std::size_t count, Word* q) {
  for (unsigned i = 0; i < 8; ++i) q[i] = 0;
  for (unsigned b = 0; b < count; ++b)
    for (unsigned c = 0; c < 4; ++c)
      for (unsigned r = 0; r < 4; ++r) q[wordOf(b, c)] |= Word{in[16 * b + 4 * c + r]} << shiftOf(r, c);
  transpose(q);
}

inline void store(Word* q, unsigned char* out, std::size_t count) {
  transpose(q);
  for (unsigned b = 0; b < count; ++b)
    for (unsigned c = 0; c < 4; ++c)
      for (unsigned r = 0; r < 4; ++r)
        out[16 * b + 4 * c + r] = static_cast<unsigned char>(q[wordOf(b, c)] >> shiftOf(r, c));
}

// subBytes applies the S-box to every byte: Boyar and Peralta's circuit (a linear layer, a
// shared non-linear core of 32 ANDs, a linear layer). u0 is the most significant bit.
void subBytes(Word* q) {
  const Word u0 = q[7], u1 = q[6], u2 = q[5], u3 = q[4], u4 = q[3], u5 = q[2], u6 = q[1], u7 = q[0];
  const Word t1 = u0 ^ u3, t2 = u0 ^ u5, t3 = u0 ^ u6, t4 = u3 ^ u5, t5 = u4 ^ u6, t6 = t1 ^ t5, t7 = u1 ^ u2;
  const Word t8 = u7 ^ t6, t9 = u7 ^ t7, t10 = t6 ^ t7, t11 = u1 ^ u5, t12 = u2 ^ u5, t13 = t3 ^ t4;
  const Word t14 = t6 ^ t11, t15 = t5 ^ t11, t16 = t5 ^ t12, t17 = t9 ^ t16, t18 = u3 ^ u7, t19 = t7 ^ t18;
  const Word t20 = t1 ^ t19, t21 = u6 ^ u7, t22 = t7 ^ t21, t23 = t2 ^ t22, t24 = t2 ^ t10, t25 = t20 ^ t17;
  const Word t26 = t3 ^ t16, t27 = t1 ^ t12;

  const Word m1 = t13 & t6, m2 = t23 & t8, m3 = t14 ^ m1, m4 = t19 & u7, m5 = m4 ^ m1, m6 = t3 & t16;
  const Word m7 = t22 & t9, m8 = t26 ^ m6, m9 = t20 & t17, m10 = m9 ^ m6, m11 = t1 & t15, m12 = t4 & t27;
  const Word m13 = m12 ^ m11, m14 = t2 & t10, m15 = m14 ^ m11, m16 = m3 ^ m2, m17 = m5 ^ t24, m18 = m8 ^ m7;
  const Word m19 = m10 ^ m15, m20 = m16 ^ m13, m21 = m17 ^ m15, m22 = m18 ^ m13, m23 = m19 ^ t25;
  const Word m24 = m22 ^ m23, m25 = m22 & m20, m26 = m21 ^ m25, m27 = m20 ^ m21, m28 = m23 ^ m25;
  const Word m29 = m28 & m27, m30 = m26 & m24, m31 = m20 & m23, m32 = m27 & m31, m33 = m27 ^ m25;
  const Word m34 = m21 & m22, m35 = m24 & m34, m36 = m24 ^ m25, m37 = m21 ^ m29, m38 = m32 ^ m33;
  const Word m39 = m23 ^ m30, m40 = m35 ^ m36, m41 = m38 ^ m40, m42 = m37 ^ m39, m43 = m37 ^ m38;
  const Word m44 = m39 ^ m40, m45 = m42 ^ m41, m46 = m44 & t6, m47 = m40 & t8, m48 = m39 & u7;
  const Word m49 = m43 & t16, m50 = m38 & t9, m51 = m37 & t17, m52 = m42 & t15, m53 = m45 & t27;
  const Word m54 = m41 & t10, m55 = m44 & t13, m56 = m40 & t23, m57 = m39 & t19, m58 = m43 & t3;
  const Word m59 = m38 & t22, m60 = m37 & t20, m61 = m42 & t1, m62 = m45 & t4, m63 = m41 & t2;

  const Word l0 = m61 ^ m62, l1 = m50 ^ m56, l2 = m46 ^ m48, l3 = m47 ^ m55, l4 = m54 ^ m58, l5 = m49 ^ m61;
  const Word l6 = m62 ^ l5, l7 = m46 ^ l3, l8 = m51 ^ m59, l9 = m52 ^ m53, l10 = m53 ^ l4, l11 = m60 ^ l2;
  const Word l12 = m48 ^ m51, l13 = m50 ^ l0, l14 = m52 ^ m61, l15 = m55 ^ l1, l16 = m56 ^ l0, l17 = m57 ^ l1;
  const Word l18 = m58 ^ l8, l19 = m63 ^ l4, l20 = l0 ^ l1, l21 = l1 ^ l7, l22 = l3 ^ l12, l23 = l18 ^ l2;
  const Word l24 = l15 ^ l9, l25 = l6 ^ l10, l26 = l7 ^ l9, l27 = l8 ^ l10, l28 = l11 ^ l14, l29 = l11 ^ l17;
  q[7] = l6 ^ l24;
  q[6] = ~(l16 ^ l26);
  q[5] = ~(l19 ^ l28);
  q[4] = l6 ^ l21;
  q[3] = l20 ^ l22;
  q[2] = l25 ^ l29;
  q[1] = ~(l13 ^ l27);
  q[0] = ~(l6 ^ l23);
}

// invAffine is the affine map of the inverse S-box, x -> (x <<< 1) ^ (x <<< 3) ^ (x <<< 6) ^
// 0x05. The inverse S-box is invAffine, S-box, invAffine: the outer maps undo the S-box's own
// affine step on either side of the field inversion it shares.
void invAffine(Word* q) {
  Word x[8];
  std::memcpy(x, q, sizeof x);
  for (unsigned i = 0; i < 8; ++i) q[i] = x[(i + 7) & 7] ^ x[(i + 5) & 7] ^ x[(i + 2) & 7];
  q[0] = ~q[0];
  q[2] = ~q[2];
}

void invSubBytes(Word* q) {
  invAffine(q);
  subBytes(q);
  invAffine(q);
}

// rowBits selects columns [c0, c1) of row r.
constexpr Word rowBits(unsigned r, unsigned c0, unsigned c1) {
  Word m = 0;
  for (unsigned c = c0; c < c1; ++c) m |= static_cast<Word>(((Word{1} << kBlocks) - 1) << (kRow * r + kBlocks * c));
  return m;
}

// kNear[r] and kFar[r] select, in row r, the columns that ShiftRows fills from r columns to the
// right and those it fills by wrapping around; kInvNear/kInvFar the same for its inverse.
template <bool inverse>
struct RowMasks {
  Word near[4], far[4];
  constexpr RowMasks() : near{}, far{} {
    for (unsigned r = 1; r < 4; ++r) {
      near[r] = inverse ? rowBits(r, r, 4) : rowBits(r, 0, 4 - r);
      far[r] = inverse ? rowBits(r, 0, r) : rowBits(r, 4 - r, 4);
    }
  }
};

// shiftRows moves row r left by r columns (right by r columns when inverting).
template <bool inverse>
inline void shiftRows(Word* q) {
  static constexpr RowMasks<inverse> m;
  constexpr Word row0 = rowBits(0, 0, 4);
  constexpr unsigned b = kBlocks;
  for (unsigned i = 0; i < 8; ++i) {
    const Word x = q[i];
    if (inverse)
      q[i] = (x & row0) | ((x << b) & m.near[1]) | ((x >> 3 * b) & m.far[1]) | ((x << 2 * b) & m.near[2]) |
             ((x >> 2 * b) & m.far[2]) | ((x << 3 * b) & m.near[3]) | ((x >> b) & m.far[3]);
    else
      q[i] = (x & row0) | ((x >> b) & m.near[1]) | ((x << 3 * b) & m.far[1]) | ((x >> 2 * b) & m.near[2]) |
             ((x << 2 * b) & m.far[2]) | ((x >> 3 * b) & m.near[3]) | ((x << b) & m.far[3]);
  }
}

// nextRow puts, in every column, row r + 1 (mod 4) where row r was.
inline Word nextRow(Word x) { return std::rotr(x, kRow); }

// times2 doubles every byte in GF(2^8) (x^8 = x^4 + x^3 + x + 1).
inline void times2(const Word* a, Word* out) {
  out[0] = a[7];
  out[1] = a[0] ^ a[7];
  out[2] = a[1];
  out[3] = a[2] ^ a[7];
  out[4] = a[3] ^ a[7];
  out[5] = a[4];
  out[6] = a[5];
  out[7] = a[6];
}

// mixColumns computes s'_r = 2 (s_r ^ s_r+1) ^ s_r+1 ^ s_r+2 ^ s_r+3 for every column.
inline void mixColumns(Word* q) {
  Word next[8], pair[8], doubled[8];
  for (unsigned i = 0; i < 8; ++i) {
    next[i] = nextRow(q[i]);
    pair[i] = q[i] ^ next[i];
  }
  times2(pair, doubled);
  for (unsigned i = 0; i < 8; ++i) q[i] = doubled[i] ^ next[i] ^ nextRow(nextRow(pair[i]));
}

// invMixColumns multiplies by {04}x^2 + {05} first, which turns MixColumns into its inverse:
// s_r ^= 4 (s_r ^ s_r+2).
inline void invMixColumns(Word* q) {
  Word opposite[8], twice[8], four[8];
  for (unsigned i = 0; i < 8; ++i) opposite[i] = q[i] ^ nextRow(nextRow(q[i]));
  times2(opposite, twice);
  times2(twice, four);
  for (unsigned i = 0; i < 8; ++i) q[i] ^= four[i];
  mixColumns(q);
}

inline void addRoundKey(Word* q, const Word* k) {
  for (unsigned i = 0; i < 8; ++i) q[i] ^= k[i];
}

void encryptSliced(Word* q, const Word (*keys)[8], unsigned rounds) {
  addRoundKey(q, keys[0]);
  for (unsigned round = 1; round < rounds; ++round) {
    subBytes(q);
    shiftRows<false>(q);
    mixColumns(q);
    addRoundKey(q, keys[round]);
  }
  subBytes(q);
  shiftRows<false>(q);
  addRoundKey(q, keys[rounds]);
}

void decryptSliced(Word* q, const Word (*keys)[8], unsigned rounds) {
  addRoundKey(q, keys[rounds]);
  for (unsigned round = rounds - 1; round > 0; --round) {
    shiftRows<true>(q);
    invSubBytes(q);
    addRoundKey(q, keys[round]);
    invMixColumns(q);
  }
  shiftRows<true>(q);
  invSubBytes(q);
  addRoundKey(q, keys[0]);
}

// portableSubWord applies the S-box to the four bytes of a key schedule word.
std::uint32_t portableSubWord(std::uint32_t w) {
  Word q[8] = {w};
  transpose(q);
  subBytes(q);
  transpose(q);
  return static_cast<std::uint32_t>(q[0]);
}

#if TESSEL_AESNI
#define TESSEL_TARGET_AES __attribute__((target("aes,sse4.1")))

TESSEL_TARGET_AES inline __m128i loadKey(const unsigned char* k) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(k));
}

// hardwareSubWord applies the S-box with AESKEYGENASSIST, whose lowest result word is SubWord of
// the second source word. The S-box works bytewise, so the byte order of `w` does not matter.
TESSEL_TARGET_AES std::uint32_t hardwareSubWord(std::uint32_t w) {
  const __m128i r = _mm_aeskeygenassist_si128(_mm_set_epi32(0, 0, static_cast<int>(w), 0), 0);
  return static_cast<std::uint32_t>(_mm_cvtsi128_si32(r));
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

template <bool decrypting>
TESSEL_TARGET_AES inline __m128i hardwareRound(__m128i b, __m128i k) {
  return decrypting ? _mm_aesdec_si128(b, k) : _mm_aesenc_si128(b, k);
}

template <bool decrypting>
TESSEL_TARGET_AES inline __m128i hardwareLastRound(__m128i b, __m128i k) {
  return decrypting ? _mm_aesdeclast_si128(b, k) : _mm_aesenclast_si128(b, k);
}

// hardwareRounds4 runs four independent blocks through the rounds side by side, which hides
// most of the latency of the AES instructions.
template <bool decrypting>
TESSEL_TARGET_AES void hardwareRounds4(const unsigned char (*keys)[16], unsigned rounds, const unsigned char* in,
                                       unsigned char* out) {
  const __m128i* src = reinterpret_cast<const __m128i*>(in);
  __m128i* dst = reinterpret_cast<__m128i*>(out);
  __m128i k = loadKey(keys[0]);
  __m128i b0 = _mm_xor_si128(_mm_loadu_si128(src), k), b1 = _mm_xor_si128(_mm_loadu_si128(src + 1), k);
  __m128i b2 = _mm_xor_si128(_mm_loadu_si128(src + 2), k), b3 = _mm_xor_si128(_mm_loadu_si128(src + 3), k);
  for (unsigned r = 1; r < rounds; ++r) {
    k = loadKey(keys[r]);
    b0 = hardwareRound<decrypting>(b0, k);
    b1 = hardwareRound<decrypting>(b1, k);
    b2 = hardwareRound<decrypting>(b2, k);
    b3 = hardwareRound<decrypting>(b3, k);
  }
  k = loadKey(keys[rounds]);
  _mm_storeu_si128(dst, hardwareLastRound<decrypting>(b0, k));
  _mm_storeu_si128(dst + 1, hardwareLastRound<decrypting>(b1, k));
  _mm_storeu_si128(dst + 2, hardwareLastRound<decrypting>(b2, k));
  _mm_storeu_si128(dst + 3, hardwareLastRound<decrypting>(b3, k));
}
#endif

// runBlocks is encryptBlocks and decryptBlocks: four blocks at a time through the AES instructions
// where the processor has them, otherwise kBlocks at a time through the bitsliced rounds.
template <bool decrypting>
void runBlocks(const unsigned char (*hwKeys)[16], const Word (*slicedKeys)[8], unsigned rounds, const unsigned char* in,
               unsigned char* out, std::size_t count) {
#if TESSEL_AESNI
  if (aesInstructionsInUse()) {
    for (; count >= 4; count -= 4, in += 64, out += 64) hardwareRounds4<decrypting>(hwKeys, rounds, in, out);
    for (; count; --count, in += 16, out += 16) hardwareRounds(hwKeys, rounds, decrypting, in, out);
    return;
  }
#else
  (void)hwKeys;
#endif
  for (; count; in += 16 * kBlocks, out += 16 * kBlocks) {
    const std::size_t n = count < kBlocks ? count : kBlocks;
    Word q[8];
    load(in, n, q);
    if constexpr (decrypting) decryptSliced(q, slicedKeys, rounds);
    else encryptSliced(q, slicedKeys, rounds);
    store(q, out, n);
    count -= n;
  }
}

}  // namespace

void AESBase::expandKey(const unsigned char* key, unsigned nk) {
  rounds_ = nk + 6;
  const unsigned total = 4 * (nk + 7);  // 44, 52 or 60 words
#if TESSEL_AESNI
  std::uint32_t (*subWord)(std::uint32_t) = aesInstructionsInUse() ? hardwareSubWord : portableSubWord;
#else
  std::uint32_t (*subWord)(std::uint32_t) = portableSubWord;
#endif
  std::uint32_t w[60];
  for (unsigned i = 0; i < nk; ++i) w[i] = detail::loadBe32(key + 4 * i);
  for (unsigned i = nk; i < total; ++i) {
    std::uint32_t t = w[i - 1];
    if (i % nk == 0) {
      t = subWord(detail::rotl32(t, 8)) ^ std::uint32_t{kRcon[i / nk - 1]} << 24;
    } else if (nk == 8 && i % nk == 4) {
      t = subWord(t);
    }
    w[i] = w[i - nk] ^ t;
  }
  // Both forms of the round keys are kept whichever path built them, since the portable switch
  // may change while the object lives.
  unsigned char bytes[15][16];
  for (unsigned i = 0; i < total; ++i) detail::storeBe32(bytes[i / 4] + 4 * (i % 4), w[i]);
  for (unsigned round = 0; round <= rounds_; ++round) {
    unsigned char repeated[16 * kBlocks];
    for (unsigned b = 0; b < kBlocks; ++b) std::memcpy(repeated + 16 * b, bytes[round], 16);
    load(repeated, kBlocks, slicedKeys_[round]);
    ct::wipeObject(repeated);
  }
#if TESSEL_AESNI
  if (cpuHasAesInstructions()) {
    std::memcpy(hwKeys_[0], bytes, sizeof bytes);
    hardwareDecryptKeys(hwKeys_[0], hwKeys_[1], rounds_);
  }
#endif
  ct::wipeObject(bytes);
  ct::wipeObject(w);
}

void AESBase::encryptRounds(const unsigned char* in, unsigned char* out, unsigned rounds) const {
#if TESSEL_AESNI
  if (aesInstructionsInUse()) return hardwareRounds(hwKeys_[0], rounds, false, in, out);
#endif
  Word q[8];
  load(in, 1, q);
  encryptSliced(q, slicedKeys_, rounds);
  store(q, out, 1);
}

void AESBase::decryptRounds(const unsigned char* in, unsigned char* out, unsigned rounds) const {
#if TESSEL_AESNI
  if (aesInstructionsInUse()) return hardwareRounds(hwKeys_[1], rounds, true, in, out);
#endif
  Word q[8];
  load(in, 1, q);
  decryptSliced(q, slicedKeys_, rounds);
  store(q, out, 1);
}

void AESBase::encryptBlocks(const unsigned char* in, unsigned char* out, std::size_t count) const {
  runBlocks<false>(hwKeys_[0], slicedKeys_, rounds_, in, out, count);
}

void AESBase::decryptBlocks(const unsigned char* in, unsigned char* out, std::size_t count) const {
  runBlocks<true>(hwKeys_[1], slicedKeys_, rounds_, in, out, count);
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
