// Block modes: the CBC, CFB-128 and CTR-128 functions over a caller-held chaining block, the
// Cipher interface every bulk or AEAD cipher implements, and the three plain mode classes.
//
// No padding lives here: CBC works on whole blocks (a trailing partial block is dropped), CFB
// and CTR on any length.
#pragma once

#include "tessel/export.h"

#include <memory>

#include "tessel/block.h"

namespace tessel {

// The mode functions take the chaining block `iv` (the IV for CBC and CFB, the counter block
// for CTR), read it at the start and overwrite it at the end, so consecutive calls continue
// one stream.
//
// CBC_encrypt and CBC_decrypt work on the whole blocks of `len` and ignore a partial tail; `iv`
// holds the block cipher's block length. Only CBC_encrypt may run in place (in == out).
TESSEL_API void CBC_encrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len,
                            unsigned char* out);
TESSEL_API void CBC_decrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len,
                            unsigned char* out);

// CFB128_encrypt and CFB128_decrypt need a 16-byte block cipher (else they abort). A partial
// last block is processed but does not update `iv`: it may only end a stream.
TESSEL_API void CFB128_encrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len,
                               unsigned char* out);
TESSEL_API void CFB128_decrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len,
                               unsigned char* out);

// CTR128_encrypt and CTR128_decrypt (the same computation) need a 16-byte block cipher. Only
// the last four bytes of the counter block count, big-endian and modulo 2^32, with no carry
// into the first twelve. A partial last block consumes a whole counter value.
TESSEL_API void CTR128_encrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len,
                               unsigned char* out);
TESSEL_API void CTR128_decrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len,
                               unsigned char* out);

// Cipher is the interface of every bulk and authenticated cipher the factory hands out.
class TESSEL_API Cipher {
 public:
  virtual ~Cipher() = default;
  // ciphertextLength is the number of bytes encrypt() writes for `len` input bytes.
  virtual unsigned ciphertextLength(unsigned len) const = 0;
  // blockLength is the granule of the mode.
  virtual unsigned blockLength() const = 0;
  // setIV sets the IV or counter block; it must precede the first encrypt() or decrypt().
  virtual void setIV(const unsigned char* iv, unsigned size) = 0;
  // encrypt writes ciphertextLength(len) bytes to `out`. The associated data is used by the
  // authenticated ciphers only.
  virtual void encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                       unsigned char* out) = 0;
  // decrypt returns the number of plaintext bytes written, or all ones (unsigned -1) when an
  // authenticated cipher rejects the input. Even then `out` may have been written.
  virtual unsigned decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                           unsigned char* out) = 0;
};

// decryptFailed is what Cipher::decrypt returns for a rejected message.
inline constexpr unsigned decryptFailed = static_cast<unsigned>(-1);

// ModeCipher is the common part of the plain modes: the owned block cipher and the 16-byte
// chaining block. The chaining block is zero until setIV() sets it.
class TESSEL_API ModeCipher : public Cipher {
 public:
  explicit ModeCipher(std::unique_ptr<BlockCipher> cipher) : cipher_(std::move(cipher)) {}
  unsigned blockLength() const override { return cipher_->blockLength(); }

 protected:
  std::unique_ptr<BlockCipher> cipher_;
  unsigned char iv[16] = {};
};

// CBCCipher: whole blocks only; setIV copies up to 16 bytes (missing bytes keep their value).
class TESSEL_API CBCCipher : public ModeCipher {
 public:
  using ModeCipher::ModeCipher;
  unsigned ciphertextLength(unsigned len) const override;
  void setIV(const unsigned char* iv, unsigned size) override;
  void encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
               unsigned char* out) override;
  // decrypt must not run in place.
  unsigned decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                   unsigned char* out) override;
};

// CFB128Cipher: any length; setIV always copies 16 bytes, whatever `size` says.
class TESSEL_API CFB128Cipher : public ModeCipher {
 public:
  using ModeCipher::ModeCipher;
  unsigned ciphertextLength(unsigned len) const override { return len; }
  void setIV(const unsigned char* iv, unsigned size) override;
  void encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
               unsigned char* out) override;
  unsigned decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                   unsigned char* out) override;
};

// CTR128Cipher: any length; setIV takes exactly 16 bytes (anything else aborts).
class TESSEL_API CTR128Cipher : public ModeCipher {
 public:
  using ModeCipher::ModeCipher;
  unsigned ciphertextLength(unsigned len) const override { return len; }
  unsigned blockLength() const override { return 16; }
  void setIV(const unsigned char* iv, unsigned size) override;
  void encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
               unsigned char* out) override;
  unsigned decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                   unsigned char* out) override;
};

}  // namespace tessel
