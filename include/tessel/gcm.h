// AES-GCM (NIST SP 800-38D) over an owned 16-byte block cipher, with a constant-time GHASH.
//
// One deliberate difference from the standard: an IV shorter than 12 bytes is zero-padded to
// 12 bytes rather than hashed, so such IVs give other results than other implementations.
// IVs of 12 bytes behave as the standard's 96-bit IVs, longer ones go through GHASH.
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <memory>

#include "tessel/assert.h"
#include "tessel/cipher.h"
#include "tessel/hash.h"

namespace tessel {

// GHash is GHASH under a hash subkey H as a Hash: update() absorbs data in 16-byte chunks, each
// call zero-padding its own last partial chunk, and digest() returns the accumulator and
// clears it. Multiplication by H is a carry-less product built from integer multiplications,
// without tables, so that its time does not depend on H or the data; on x86 processors with
// carry-less multiplication it uses that instruction instead (see carrylessMultiplyInUse in
// cpu.h; the choice is made when the object is built).
class TESSEL_API GHash : public Hash {
 public:
  using Hash::digest;
  using Hash::update;
  explicit GHash(const unsigned char* h);
  Hash& update(const void* data, unsigned len) override;
  unsigned blockLength() const override { return 16; }
  unsigned digestLength() const override { return 16; }
  void digest(unsigned char* out) override;

  struct Element {
    std::uint64_t hi, lo;  // bytes 0-7 and 8-15 as big-endian numbers
  };

 private:
  void absorb(const unsigned char* blocks, std::size_t count);

  Element x_{0, 0};
  Element h_;
  bool clmul_;
};

// kGcmMaxBlocksPerIV is the most 16-byte blocks one IV may encrypt (NIST SP 800-38D): 2^32 - 2,
// just under 64 GiB, since the counter's low 32 bits count them. A host must never reuse an IV.
inline constexpr std::uint64_t kGcmMaxBlocksPerIV = (std::uint64_t{1} << 32) - 2;

// kGcmMaxLength is the longest message, and the longest associated data, one encrypt() or
// decrypt() takes: 2^29 - 1 bytes (just under 512 MiB). The length block carries each length in
// bits as a 32-bit number, as tags made by earlier releases do, so a longer input cannot be
// described there; passing one is a programming error and aborts.
inline constexpr unsigned kGcmMaxLength = (1u << 29) - 1;

// GCMCipher: ciphertextLength(len) = len + 16; decrypt() takes the ciphertext followed by the
// 16-byte tag and returns its length or all ones when the tag does not match (the plaintext
// has then been written to `out` all the same and must be discarded). setIV() must precede
// every message; it derives H and builds a fresh GHASH each time. encrypt() or decrypt() before
// the first setIV(), or with more than kGcmMaxLength bytes of data or associated data (for
// decrypt(), not counting the tag), is a programming error and aborts.
class TESSEL_API GCMCipher : public Cipher {
 public:
  explicit GCMCipher(std::unique_ptr<BlockCipher> aes) {
    TESSEL_ASSERT(aes->blockLength() == 16);
    aes_ = std::move(aes);
  }
  unsigned ciphertextLength(unsigned len) const override { return len + tagLength_; }
  unsigned blockLength() const override { return 16; }
  void setIV(const unsigned char* iv, unsigned size) override;
  void encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
               unsigned char* out) override;
  unsigned decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                   unsigned char* out) override;

 private:
  // crypt runs the counter over `len` bytes and feeds the ciphertext side to GHASH, then
  // writes T = GHASH(lengths) XOR E(J0) to `tag`.
  void crypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen, unsigned char* out,
             bool decrypting, unsigned char* tag);

  std::unique_ptr<BlockCipher> aes_;
  std::unique_ptr<GHash> ghash_;
  unsigned char counter_[16] = {};
  std::uint8_t tagLength_ = 16;
};

}  // namespace tessel
