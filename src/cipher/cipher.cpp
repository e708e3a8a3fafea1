// The plain mode classes over an owned block cipher; they forward to the mode functions.
#include "tessel/cipher.h"

#include <algorithm>
#include <cstring>

#include "tessel/assert.h"

namespace tessel {

unsigned CBCCipher::ciphertextLength(unsigned len) const {
  const unsigned b = cipher_->blockLength();
  return len / b * b;
}

void CBCCipher::setIV(const unsigned char* value, unsigned size) {
  if (size) std::memcpy(iv, value, std::min(size, 16u));
}

void CBCCipher::encrypt(const unsigned char* in, unsigned len, const unsigned char*, unsigned, unsigned char* out) {
  CBC_encrypt(*cipher_, iv, in, len, out);
}

unsigned CBCCipher::decrypt(const unsigned char* in, unsigned len, const unsigned char*, unsigned, unsigned char* out) {
  CBC_decrypt(*cipher_, iv, in, len, out);
  return ciphertextLength(len);
}

void CFB128Cipher::setIV(const unsigned char* value, unsigned) { std::memcpy(iv, value, sizeof(iv)); }

void CFB128Cipher::encrypt(const unsigned char* in, unsigned len, const unsigned char*, unsigned, unsigned char* out) {
  CFB128_encrypt(*cipher_, iv, in, len, out);
}

unsigned CFB128Cipher::decrypt(const unsigned char* in, unsigned len, const unsigned char*, unsigned, unsigned char* out) {
  CFB128_decrypt(*cipher_, iv, in, len, out);
  return len;
}

void CTR128Cipher::setIV(const unsigned char* value, unsigned size) {
  TESSEL_ASSERT(size == sizeof(iv));
  std::memcpy(iv, value, sizeof(iv));
}

void CTR128Cipher::encrypt(const unsigned char* in, unsigned len, const unsigned char*, unsigned, unsigned char* out) {
  CTR128_encrypt(*cipher_, iv, in, len, out);
}

unsigned CTR128Cipher::decrypt(const unsigned char* in, unsigned len, const unsigned char*, unsigned, unsigned char* out) {
  CTR128_decrypt(*cipher_, iv, in, len, out);
  return ciphertextLength(len);
}

}  // namespace tessel
