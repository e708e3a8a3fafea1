// CBC and CFB-128 mode functions, and the MAC-then-pad CBC record cipher.
#include "tessel/cbc.h"

#include <algorithm>
#include <cstring>

#include "cipher/modes.h"
#include "core/secret.h"
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
  // Blocks are decrypted in batches (which the bitsliced and hardware AES run side by side)
  // into a local buffer first, since `out` may overlap `in` and the chaining needs `in`.
  constexpr unsigned kBatch = 128;
  const unsigned b = cipher.blockLength();
  unsigned char chain[16], plain[kBatch];
  std::memcpy(chain, iv, b);
  while (len >= b) {
    const unsigned n = std::min(len / b * b, kBatch / b * b);
    cipher.decryptBlocks(in, plain, n / b);
    detail::xorBytes(plain, plain, chain, b);
    detail::xorBytes(plain + b, plain + b, in, n - b);
    std::memcpy(chain, in + n - b, b);
    std::memmove(out, plain, n);
    in += n;
    out += n;
    len -= n;
  }
  std::memcpy(iv, chain, b);
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

namespace {

// receivedMac copies the h bytes at the secret offset `at` of `record` (at in [from, from + 256])
// to `mac`: the window that may hold them is copied and then rotated left by at - from in
// steps of 1, 2, 4, ... 256 bytes, each taken or not by a mask, so no address depends on `at`.
void receivedMac(const unsigned char* record, unsigned from, unsigned window, std::uint32_t at, unsigned h,
                 unsigned char* mac) {
  unsigned char buf[256 + kMaxMac + 1], rotated[sizeof buf];
  TESSEL_ASSERT(window <= sizeof buf);
  std::memcpy(buf, record + from, window);
  const std::uint32_t offset = at - from;
  for (unsigned bit = 0; bit <= 8; ++bit) {
    const auto take = static_cast<unsigned char>(ct::maskFromBit<std::uint32_t>(offset >> bit));
    const unsigned step = (1u << bit) % window;
    std::memcpy(rotated, buf + step, window - step);
    std::memcpy(rotated + window - step, buf, step);
    ct::conditionalMove(buf, rotated, window, take);
  }
  std::memcpy(mac, buf, h);
}

}  // namespace

// decrypt reads the padding length from the last byte but lets it choose neither a branch nor
// an address: the MAC is computed over the longest payload the record could hold with the right
// length masked in (Hash::digestSecretLength), the received MAC is picked out by rotation, and
// the padding bytes are compared over the longest padding possible. Only the verdict leaves.
// A MAC object that cannot hash a secret length (kernel digests) falls back to hashing the
// payload directly, whose time then depends on the padding.
unsigned CBC_MAC_MP_Cipher::decrypt(const unsigned char* in, unsigned len, const unsigned char*, unsigned,
                                    unsigned char* out) {
  const unsigned b = cipher_->blockLength(), h = mac_->digestLength();
  TESSEL_ASSERT(h <= kMaxMac);
  if (len == 0 || len % b || h > len) return decryptFailed;
  cipher_->setIV(iv_, 16);
  cipher_->decrypt(in, len, nullptr, 0, out);
  const std::uint32_t last = out[len - 1], pad = last + 1, body = len - h;
  // A padding that claims more than the record holds counts as none for the MAC, and fails.
  const std::uint32_t fits = ~ct::lessThanMask<std::uint32_t>(body, pad);
  const std::uint32_t payload = body - (pad & fits);
  const unsigned minPayload = body > 256 ? body - 256 : 0;
  unsigned char mac[kMaxMac], received[kMaxMac];
  if (!mac_->digestSecretLength(out, minPayload, body, payload, mac)) {
    mac_->update(out, payload);
    mac_->digest(mac);
  }
  receivedMac(out, minPayload, len - minPayload, payload, h, received);
  unsigned char wrongPadding = 0;
  const unsigned scan = len < 256 ? len : 256;
  for (unsigned i = 0; i < scan; ++i) {
    const auto inPadding = static_cast<unsigned char>(ct::lessThanMask<std::uint32_t>(i, pad));
    wrongPadding |= static_cast<unsigned char>((out[len - 1 - i] ^ last) & inPadding);
  }
  const std::uint32_t good =
      fits & ct::isZeroMask<std::uint32_t>(wrongPadding) &
      ~static_cast<std::uint32_t>(ct::maskFromBit<std::uint32_t>(ct::differenceMask(mac, received, h) & 1));
  ct::wipeObject(mac);
  ct::wipeObject(received);
  return ct::select<std::uint32_t>(good, payload, decryptFailed);
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
