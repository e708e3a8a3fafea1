// AES-CMAC and AES-SIV.
#include "tessel/cmac.h"

#include <cstring>
#include <memory>

#include "core/secret.h"
#include "cipher/modes.h"
#include "tessel/block.h"
#include "tessel/cipher.h"

namespace tessel {

namespace {

// dbl doubles a 16-byte value in GF(2^128) with the CMAC bit order (byte 15 least significant).
void dbl(const unsigned char* in, unsigned char* out) {
  const unsigned char carry = in[0] >> 7;
  for (unsigned i = 0; i < 15; ++i) out[i] = static_cast<unsigned char>(in[i] << 1 | in[i + 1] >> 7);
  out[15] = static_cast<unsigned char>(in[15] << 1 ^ (carry ? 0x87 : 0));
}

// Cmac is CMAC under one key, with the key schedule and subkeys computed once.
class Cmac {
 public:
  explicit Cmac(std::unique_ptr<BlockCipher> aes) : aes_(std::move(aes)) {
    if (!aes_) return;
    unsigned char l[16] = {};
    aes_->encrypt(l, l);
    dbl(l, k1_);
    dbl(k1_, k2_);
  }
  bool ok() const { return aes_ != nullptr; }
  const unsigned char* k1() const { return k1_; }
  const unsigned char* k2() const { return k2_; }

  void mac(const unsigned char* msg, unsigned len, unsigned char* out) const {
    unsigned char x[16] = {}, last[16] = {};
    const unsigned n = len ? (len + 15) / 16 : 1;
    for (unsigned i = 0; i + 1 < n; ++i, msg += 16, len -= 16) {
      detail::xorBytes(x, x, msg, 16);
      aes_->encrypt(x, x);
    }
    if (len == 16) {
      detail::xorBytes(last, msg, k1_, 16);
    } else {
      if (len) std::memcpy(last, msg, len);
      last[len] = 0x80;
      detail::xorBytes(last, last, k2_, 16);
    }
    detail::xorBytes(x, x, last, 16);
    aes_->encrypt(x, out);
  }

 private:
  std::unique_ptr<BlockCipher> aes_;
  unsigned char k1_[16], k2_[16];
};

}  // namespace

void genCmacSubkey(const unsigned char* key, unsigned keyLen, unsigned char* k1, unsigned char* k2) {
  Cmac cmac(detail::makeAES(key, keyLen));
  if (!cmac.ok()) return;
  std::memcpy(k1, cmac.k1(), 16);
  std::memcpy(k2, cmac.k2(), 16);
}

void genCmacSubkey(const unsigned char* key, unsigned char* k1, unsigned char* k2) { genCmacSubkey(key, 16, k1, k2); }

void aesCmac(const unsigned char* key, unsigned keyLen, const unsigned char* msg, unsigned msgLen, unsigned char* out) {
  Cmac cmac(detail::makeAES(key, keyLen));
  if (cmac.ok()) cmac.mac(msg, msgLen, out);
}

void aesCmac128(const unsigned char* key, const unsigned char* msg, unsigned msgLen, unsigned char* out) {
  aesCmac(key, 16, msg, msgLen, out);
}

void AESSIV::s2v(std::vector<std::span<const unsigned char>> const& ad, std::span<const unsigned char> plaintext,
                 unsigned char* v) const {
  Cmac cmac(detail::makeAES(key_, keyLen_ / 2));
  unsigned char d[16] = {}, t[16];
  cmac.mac(d, 16, d);
  for (const auto& s : ad) {
    dbl(d, d);
    cmac.mac(s.data(), static_cast<unsigned>(s.size()), t);
    detail::xorBytes(d, d, t, 16);
  }
  const unsigned n = static_cast<unsigned>(plaintext.size());
  if (n >= 16) {
    std::vector<unsigned char> last(plaintext.begin(), plaintext.end());
    detail::xorBytes(last.data() + n - 16, last.data() + n - 16, d, 16);
    cmac.mac(last.data(), n, v);
  } else {
    unsigned char padded[16] = {};
    if (n) std::memcpy(padded, plaintext.data(), n);
    padded[n] = 0x80;
    dbl(d, d);
    detail::xorBytes(padded, padded, d, 16);
    cmac.mac(padded, 16, v);
  }
}

namespace {

// sivCounter is the synthetic IV with the top bits of bytes 8 and 12 cleared.
void sivCounter(const unsigned char* v, unsigned char* q) {
  std::memcpy(q, v, 16);
  q[8] &= 0x7f;
  q[12] &= 0x7f;
}

}  // namespace

bool AESSIV::encrypt(std::span<const unsigned char> const& plaintext,
                     std::vector<std::span<const unsigned char>> const& ad, unsigned char* out) {
  if (!keyLengthOk()) return false;
  const unsigned half = keyLen_ / 2;
  // CTR runs on the software AES directly: SIV must work on any length, which the kernel's
  // whole-block CTR would not.
  auto aes = detail::makeAES(key_ + half, half);
  if (!aes) return false;
  unsigned char q[16];
  s2v(ad, plaintext, out);
  sivCounter(out, q);
  CTR128_encrypt(*aes, q, plaintext.data(), static_cast<unsigned>(plaintext.size()), out + 16);
  return true;
}

bool AESSIV::decrypt(std::span<const unsigned char> const& input, std::vector<std::span<const unsigned char>> const& ad,
                     unsigned char* out) {
  if (input.size() < 16 || !keyLengthOk()) return false;
  const unsigned half = keyLen_ / 2, n = static_cast<unsigned>(input.size() - 16);
  auto aes = detail::makeAES(key_ + half, half);
  if (!aes) return false;
  unsigned char q[16], t[16];
  sivCounter(input.data(), q);
  CTR128_decrypt(*aes, q, input.data() + 16, n, out);
  s2v(ad, {out, n}, t);
  return ct::equal(t, input.data(), 16);
}

}  // namespace tessel
