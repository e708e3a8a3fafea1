// GHASH and AES-GCM.
#include "tessel/gcm.h"

#include <algorithm>
#include <cstring>

#include "modes.h"

namespace tessel {

namespace {

// Multiplying by x in the GCM bit order shifts the 128-bit value right by one bit and folds
// the bit shifted out of byte 15 back in as 0xE1 in byte 0.
struct Mulx {
  template <class E>
  static E apply(E v) {
    const bool carry = v.lo & 1;
    v.lo = v.lo >> 1 | v.hi << 63;
    v.hi >>= 1;
    if (carry) v.hi ^= std::uint64_t{0xe1} << 56;
    return v;
  }
};

}  // namespace

GHash::GHash(const unsigned char* h) {
  Element v{detail::loadBe64(h), detail::loadBe64(h + 8)};
  for (auto& row : table_) {
    row[0] = {0, 0};
    row[8] = v;
    row[4] = Mulx::apply(row[8]);
    row[2] = Mulx::apply(row[4]);
    row[1] = Mulx::apply(row[2]);
    for (unsigned high : {2u, 4u, 8u})  // entries 3; then 5, 6, 7; then 9..15
      for (unsigned low = 1; low < high; ++low) row[high + low] = {row[high].hi ^ row[low].hi, row[high].lo ^ row[low].lo};
    v = Mulx::apply(Mulx::apply(Mulx::apply(Mulx::apply(v))));
  }
}

void GHash::multiply() {
  Element acc{0, 0};
  for (unsigned n = 0; n < 32; ++n) {
    const std::uint64_t half = n < 16 ? x_.hi : x_.lo;
    const unsigned nibble = static_cast<unsigned>(half >> (60 - 4 * (n % 16))) & 15;
    acc.hi ^= table_[n][nibble].hi;
    acc.lo ^= table_[n][nibble].lo;
  }
  x_ = acc;
}

Hash& GHash::update(const void* data, unsigned len) {
  const auto* p = static_cast<const unsigned char*>(data);
  for (; len >= 16; len -= 16, p += 16) {
    x_.hi ^= detail::loadBe64(p);
    x_.lo ^= detail::loadBe64(p + 8);
    multiply();
  }
  if (len) {
    unsigned char block[16] = {};
    std::memcpy(block, p, len);
    x_.hi ^= detail::loadBe64(block);
    x_.lo ^= detail::loadBe64(block + 8);
    multiply();
  }
  return *this;
}

void GHash::digest(unsigned char* out) {
  detail::storeBe64(out, x_.hi);
  detail::storeBe64(out + 8, x_.lo);
  x_ = {0, 0};
}

void GCMCipher::setIV(const unsigned char* iv, unsigned size) {
  unsigned char h[16] = {};
  aes_->encrypt(h, h);
  ghash_ = std::make_unique<GHash>(h);
  if (size <= 12) {  // short IVs are zero-padded, not hashed
    std::memset(counter_, 0, sizeof counter_);
    if (size) std::memcpy(counter_, iv, size);
    counter_[15] = 1;
  } else {
    unsigned char lengths[16] = {};
    detail::storeBe32(lengths + 12, size * 8);
    ghash_->update(iv, size).update(lengths, 16);
    ghash_->digest(counter_);
  }
}

void GCMCipher::crypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                      unsigned char* out, bool decrypting, unsigned char* tag) {
  unsigned char j0[16], lengths[16] = {};
  std::memcpy(j0, counter_, 16);
  ghash_->update(aad, aadLen);
  detail::storeBe32(lengths + 4, aadLen * 8);
  detail::storeBe32(lengths + 12, len * 8);
  unsigned char keystream[detail::kCtrBatch * 16];
  while (len) {
    const unsigned blocks = std::min(detail::kCtrBatch, (len + 15) / 16), n = std::min(len, 16 * blocks);
    detail::ctrKeystream(*aes_, counter_, keystream, blocks, true);
    if (decrypting) ghash_->update(in, n);  // hash the ciphertext before `out` may overwrite it
    detail::xorBytes(out, in, keystream, n);
    if (!decrypting) ghash_->update(out, n);
    in += n;
    out += n;
    len -= n;
  }
  ghash_->update(lengths, 16);
  ghash_->digest(tag);
  aes_->encrypt(j0, j0);
  detail::xorBytes(tag, tag, j0, 16);
}

void GCMCipher::encrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                        unsigned char* out) {
  unsigned char tag[16];
  crypt(in, len, aad, aadLen, out, false, tag);
  std::memcpy(out + len, tag, tagLength_);
}

unsigned GCMCipher::decrypt(const unsigned char* in, unsigned len, const unsigned char* aad, unsigned aadLen,
                            unsigned char* out) {
  if (len < tagLength_) return decryptFailed;
  const unsigned payload = len - tagLength_;
  unsigned char tag[16];
  crypt(in, payload, aad, aadLen, out, true, tag);
  return detail::constantTimeEqual(tag, in + payload, tagLength_) ? payload : decryptFailed;
}

}  // namespace tessel
