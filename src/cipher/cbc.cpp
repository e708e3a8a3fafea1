// CBC and CFB-128 mode functions, and the MAC-then-pad CBC record cipher.
#include "tessel/cbc.h"

#include <cstring>

#include "core/secret.h"
#include "cipher/modes.h"
#include "tessel/assert.h"
#include "tessel/cipher.h"

namespace tessel {

void CBC_encrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len, unsigned char* out) {
  const unsigned b = cipher.blockLength();
  const unsigned char* prev = iv;
  for (; len >= b; len -= b, in += b, out += b) {
    detail::xorBytes(out, in, prev, b);
    cipher.encrypt(out, out);
    prev = out;
  }
  std::memmove(iv, prev, b);
}

void CBC_decrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len, unsigned char* out) {
  const unsigned b = cipher.blockLength();
  const unsigned char* prev = iv;
  for (; len >= b; len -= b, in += b, out += b) {
    cipher.decrypt(in, out);
    detail::xorBytes(out, out, prev, b);
    prev = in;
  }
  std::memmove(iv, prev, b);
}

namespace {

// cfb128 runs CFB-128 in either direction; the feedback is always the ciphertext block.
void cfb128(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len, unsigned char* out,
            bool decrypting) {
  TESSEL_ASSERT(cipher.blockLength() == 16);
  unsigned char feedback[16], keystream[16];
  std::memcpy(feedback, iv, 16);
  for (; len >= 16; len -= 16, in += 16, out += 16) {
    cipher.encrypt(feedback, keystream);
    if (decrypting) std::memcpy(feedback, in, 16);
    detail::xorBytes(out, in, keystream, 16);
    if (!decrypting) std::memcpy(feedback, out, 16);
  }
  std::memcpy(iv, feedback, 16);
  if (len) {  // a partial block ends the stream and leaves `iv` alone
    cipher.encrypt(feedback, keystream);
    detail::xorBytes(out, in, keystream, len);
  }
}

}  // namespace

void CFB128_encrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len, unsigned char* out) {
  cfb128(cipher, iv, in, len, out, false);
}

void CFB128_decrypt(BlockCipher& cipher, unsigned char* iv, const unsigned char* in, unsigned len, unsigned char* out) {
  cfb128(cipher, iv, in, len, out, true);
}

}  // namespace tessel

namespace tessel {

namespace {

// setBlockIV is the IV rule of both record ciphers: a short `size` clears the stored IV first,
// and then a whole block is copied in any case.
void setBlockIV(unsigned char* stored, unsigned blockLength, const unsigned char* iv, unsigned size) {
  if (size < blockLength) std::memset(stored, 0, 16);
  std::memcpy(stored, iv, blockLength);
}

constexpr unsigned kMaxMac = 64;  // the longest digest of the library (SHA-512)

}  // namespace

unsigned CBC_MAC_MP_Cipher::ciphertextLength(unsigned len) const {
  const unsigned b = cipher_->blockLength(), h = mac_->digestLength();
  return len + h + b - (((len & (b - 1)) + h) & (b - 1));
}

void CBC_MAC_MP_Cipher::setIV(const unsigned char* iv, unsigned size) {
  setBlockIV(iv_, cipher_->blockLength(), iv, size);
}

void CBC_MAC_MP_Cipher::encrypt(const unsigned char* in, unsigned len, const unsigned char*, unsigned,
                                unsigned char* out) {
  const unsigned b = cipher_->blockLength(), h = mac_->digestLength();
  TESSEL_ASSERT(h <= kMaxMac && b <= 16);
  const unsigned tail = len & (b - 1), full = len - tail, pad = b - ((h + tail) & (b - 1));
  unsigned char last[16 + kMaxMac + 16];
  if (tail) std::memcpy(last, in + full, tail);
  mac_->update(in, len);
  mac_->digest(last + tail);
  std::memset(last + tail + h, static_cast<int>(pad - 1), pad);
  cipher_->setIV(iv_, 16);
  cipher_->encrypt(in, full, nullptr, 0, out);
  cipher_->encrypt(last, tail + h + pad, nullptr, 0, out + full);
}

unsigned CBC_MAC_MP_Cipher::decrypt(const unsigned char* in, unsigned len, const unsigned char*, unsigned,
                                    unsigned char* out) {
  const unsigned b = cipher_->blockLength(), h = mac_->digestLength();
  TESSEL_ASSERT(h <= kMaxMac);
  if (len == 0 || len % b || h > len) return decryptFailed;
  cipher_->setIV(iv_, 16);
  cipher_->decrypt(in, len, nullptr, 0, out);
  const unsigned last = out[len - 1];
  unsigned pad = last + 1;
  if (pad > len - h) pad = 0;  // claims more than the record holds: fails below, after the MAC
  const unsigned payload = len - h - pad;
  unsigned char mac[kMaxMac];
  mac_->update(out, payload);
  mac_->digest(mac);
  if (!ct::equal(mac, out + payload, h)) return decryptFailed;
  if (pad != last + 1) return decryptFailed;
  for (unsigned i = len - pad; i < len; ++i)
    if (out[i] != last) return decryptFailed;
  return payload;
}

void EncryptThenMacCipher::setIV(const unsigned char* iv, unsigned size) {
  setBlockIV(iv_, cipher_->blockLength(), iv, size);
}

void EncryptThenMacCipher::encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                                   unsigned char* out) {
  cipher_->setIV(iv_, sizeof iv_);
  cipher_->encrypt(in, len, nullptr, 0, out);
  const unsigned body = cipher_->ciphertextLength(len);
  mac_->update(aad, aadLen).update(out, body);
  mac_->digest(out + body);
}

}  // namespace tessel
