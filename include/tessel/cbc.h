// Two CBC-with-MAC record ciphers over an owned inner CBC Cipher and an owned MAC Hash:
// CBC_MAC_MP_Cipher (MAC, then padding, then encryption, as the TLS 1.0-1.2 CBC suites) and
// EncryptThenMacCipher (encryption, then a MAC over the associated data and the ciphertext).
#pragma once

#include "tessel/export.h"

#include <cstring>
#include <memory>

#include "tessel/assert.h"
#include "tessel/cipher.h"
#include "tessel/hash.h"
#include "tessel/secret.h"

namespace tessel {

// CBC_MAC_MP_Cipher protects a record as CBC(plaintext || MAC(plaintext) || padding), every
// padding byte holding the padding length minus one (at least one byte, a whole block when the
// rest is block-aligned). The inner cipher's block length B must be a power of two and its
// chaining must carry across calls, as CBCCipher's does. The associated-data arguments are
// ignored: the MAC covers the plaintext after whatever the MAC object had already absorbed.
// decrypt() computes the MAC before it judges the padding, so a bad padding and a bad MAC take
// the same path; both give all ones.
class TESSEL_API CBC_MAC_MP_Cipher : public Cipher {
 public:
  CBC_MAC_MP_Cipher(std::unique_ptr<Cipher> cipher, std::unique_ptr<Hash> mac)
      : cipher_(std::move(cipher)), mac_(std::move(mac)) {}
  // ciphertextLength is len + MAC length + padding (1..B bytes).
  unsigned ciphertextLength(unsigned len) const override;
  unsigned blockLength() const override { return cipher_->blockLength(); }
  // setIV clears the stored IV when size < B, then copies B bytes from `iv` whatever `size`.
  void setIV(const unsigned char* iv, unsigned size) override;
  void encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
               unsigned char* out) override;
  unsigned decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                   unsigned char* out) override;

 private:
  std::unique_ptr<Cipher> cipher_;
  std::unique_ptr<Hash> mac_;
  unsigned char iv_[16] = {};
};

// EncryptThenMacCipher appends MAC(aad || ciphertext) to the inner cipher's output. decrypt()
// takes that form back and returns the plaintext length, or all ones when the length does not
// fit or the MAC differs (the plaintext has then been written to `out` all the same). MACs
// longer than 32 bytes are not supported by decrypt() and abort.
class TESSEL_API EncryptThenMacCipher : public Cipher {
 public:
  EncryptThenMacCipher(std::unique_ptr<Cipher> cipher, std::unique_ptr<Hash> mac)
      : cipher_(std::move(cipher)), mac_(std::move(mac)) {}
  unsigned ciphertextLength(unsigned len) const override {
    return cipher_->ciphertextLength(len) + mac_->digestLength();
  }
  unsigned blockLength() const override { return cipher_->blockLength(); }
  // setIV clears the stored IV when size < B, then copies B bytes from `iv` whatever `size`.
  void setIV(const unsigned char* iv, unsigned size) override;
  void encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
               unsigned char* out) override;
  unsigned decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                   unsigned char* out) override {
    const unsigned hlen = mac_->digestLength();
    if (len < hlen || (len - hlen) % cipher_->blockLength()) return decryptFailed;
    const unsigned body = len - hlen;
    cipher_->setIV(iv_, sizeof iv_);
    cipher_->decrypt(in, body, nullptr, 0, out);
    mac_->update(aad, aadLen).update(in, body);
    unsigned char control[32];
    TESSEL_ASSERT(hlen <= sizeof(control));
    mac_->digest(control);
    return constantTimeEqual({control, hlen}, {in + body, hlen}) ? body : decryptFailed;
  }

 private:
  std::unique_ptr<Cipher> cipher_;
  std::unique_ptr<Hash> mac_;
  unsigned char iv_[16] = {};
};

}  // namespace tessel
