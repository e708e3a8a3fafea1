// AES-CMAC (RFC 4493, any AES key size) and the deterministic AEAD AES-SIV (RFC 5297).
#pragma once

#include "tessel/export.h"

#include <span>
#include <vector>

namespace tessel {

// genCmacSubkey derives the CMAC subkeys k1 and k2 (16 bytes each) from a 16-, 24- or 32-byte
// AES key; any other key length writes nothing.
TESSEL_API void genCmacSubkey(const unsigned char* key, unsigned keyLen, unsigned char* k1, unsigned char* k2);
TESSEL_API void genCmacSubkey(const unsigned char* key, unsigned char* k1, unsigned char* k2);  // 16-byte key

// aesCmac writes the 16-byte CMAC of `msg` under a 16-, 24- or 32-byte key to `out`; any other
// key length leaves `out` untouched.
TESSEL_API void aesCmac(const unsigned char* key, unsigned keyLen, const unsigned char* msg, unsigned msgLen,
                        unsigned char* out);
TESSEL_API void aesCmac128(const unsigned char* key, const unsigned char* msg, unsigned msgLen, unsigned char* out);

// AESSIV is AES-SIV under a 32-, 48- or 64-byte key: the first half keys S2V (CMAC), the second
// half AES-CTR. It keeps a view of the key, which must outlive the object.
class TESSEL_API AESSIV {
 public:
  AESSIV(const unsigned char* key, unsigned keyLen) : key_(key), keyLen_(keyLen) {}
  explicit AESSIV(std::span<const unsigned char> key) : AESSIV(key.data(), static_cast<unsigned>(key.size())) {}

  // encrypt writes the 16-byte synthetic IV followed by the ciphertext (plaintext size + 16
  // bytes) to `out`. False, with nothing written, for an unsupported key length.
  bool encrypt(std::span<const unsigned char> const& plaintext, std::vector<std::span<const unsigned char>> const& ad,
               unsigned char* out);
  // decrypt takes IV || ciphertext and writes input size - 16 plaintext bytes to `out`. False
  // for an input shorter than 16 bytes, a bad key length, or when the IV does not verify (the
  // plaintext has then been written all the same and must be discarded).
  bool decrypt(std::span<const unsigned char> const& input, std::vector<std::span<const unsigned char>> const& ad,
               unsigned char* out);

 private:
  bool keyLengthOk() const { return keyLen_ == 32 || keyLen_ == 48 || keyLen_ == 64; }
  void s2v(std::vector<std::span<const unsigned char>> const& ad, std::span<const unsigned char> plaintext,
           unsigned char* v) const;

  const unsigned char* key_;
  unsigned keyLen_;
};

}  // namespace tessel
