// AES key wrap, RFC 3394 (the index-based form of section 2.2.1) and RFC 5649.
#include "tessel/keywrap.h"

#include <cstdint>
#include <cstring>

#include "core/declassify.h"
#include "core/secret.h"
#include "tessel/block.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr unsigned char kDefaultIv[8] = {0xA6, 0xA6, 0xA6, 0xA6, 0xA6, 0xA6, 0xA6, 0xA6};
constexpr unsigned char kPadIvPrefix[4] = {0xA6, 0x59, 0x59, 0xA6};
constexpr unsigned kRounds = 6;

std::unique_ptr<BlockCipher> kekCipher(asn1::blob kek) {
  if (kek.size() != 16 && kek.size() != 24 && kek.size() != 32) return nullptr;
  return detail::makeAES(kek.data(), kek.size());
}

void xorCounter(unsigned char* a, std::uint64_t t) {
  for (int b = 7; b >= 0; --b, t >>= 8) a[b] ^= static_cast<unsigned char>(t);
}

// wrapBlocks runs W over out = A | R[1..n] in place (n >= 1 blocks of R).
void wrapBlocks(const BlockCipher& aes, unsigned char* out, std::size_t n) {
  unsigned char b[16];
  for (unsigned j = 0; j < kRounds; ++j) {
    for (std::size_t i = 1; i <= n; ++i) {
      std::memcpy(b, out, 8);
      std::memcpy(b + 8, out + 8 * i, 8);
      aes.encrypt(b, b);
      std::memcpy(out, b, 8);
      xorCounter(out, n * j + i);
      std::memcpy(out + 8 * i, b + 8, 8);
    }
  }
  ct::wipe(b, sizeof b);
}

// unwrapBlocks runs W⁻¹ over buf = A | R[1..n] in place, leaving the recovered A in buf[0..8).
void unwrapBlocks(const BlockCipher& aes, unsigned char* buf, std::size_t n) {
  unsigned char b[16];
  for (unsigned j = kRounds; j-- > 0;) {
    for (std::size_t i = n; i >= 1; --i) {
      std::memcpy(b, buf, 8);
      xorCounter(b, n * j + i);
      std::memcpy(b + 8, buf + 8 * i, 8);
      aes.decrypt(b, b);
      std::memcpy(buf, b, 8);
      std::memcpy(buf + 8 * i, b + 8, 8);
    }
  }
  ct::wipe(b, sizeof b);
}

// released hands out `buf` from `from` on when `good` (a secret-derived mask, declassified here
// because the verdict is the answer) is set; the buffer is wiped either way.
Bytes released(Bytes& buf, std::size_t from, std::size_t length, unsigned char good) {
  ct::declassify(&good, sizeof good);
  Bytes out;
  if (good)
    out.assign(buf.begin() + static_cast<std::ptrdiff_t>(from),
               buf.begin() + static_cast<std::ptrdiff_t>(from + length));
  ct::wipe(buf.data(), buf.size());
  return out;
}

}  // namespace

std::vector<unsigned char> aesKeyWrap(asn1::blob kek, asn1::blob key) {
  auto aes = kekCipher(kek);
  if (!aes || key.size() < 16 || key.size() % 8 != 0) return {};
  Bytes out(8 + key.size());
  std::memcpy(out.data(), kDefaultIv, 8);
  std::memcpy(out.data() + 8, key.data(), key.size());
  wrapBlocks(*aes, out.data(), key.size() / 8);
  return out;
}

std::vector<unsigned char> aesKeyUnwrap(asn1::blob kek, asn1::blob wrapped) {
  auto aes = kekCipher(kek);
  if (!aes || wrapped.size() < 24 || wrapped.size() % 8 != 0) return {};
  Bytes buf = wrapped.vec();
  unwrapBlocks(*aes, buf.data(), buf.size() / 8 - 1);
  const unsigned char good = static_cast<unsigned char>(~ct::differenceMask(buf.data(), kDefaultIv, 8));
  return released(buf, 8, buf.size() - 8, good);
}

std::vector<unsigned char> aesKeyWrapPad(asn1::blob kek, asn1::blob key) {
  auto aes = kekCipher(kek);
  if (!aes || key.empty() || key.size() > 0xFFFFFFFFu) return {};
  const std::size_t padded = (key.size() + 7) / 8 * 8;
  Bytes out(8 + padded, 0);
  std::memcpy(out.data(), kPadIvPrefix, 4);
  const std::uint32_t mli = static_cast<std::uint32_t>(key.size());
  for (int b = 0; b < 4; ++b) out[4 + b] = static_cast<unsigned char>(mli >> (24 - 8 * b));
  std::memcpy(out.data() + 8, key.data(), key.size());
  if (padded == 8) aes->encrypt(out.data(), out.data());  // one block: a single AES encryption of AIV | P
  else wrapBlocks(*aes, out.data(), padded / 8);
  return out;
}

std::vector<unsigned char> aesKeyUnwrapPad(asn1::blob kek, asn1::blob wrapped) {
  using Mask = std::uint32_t;
  auto aes = kekCipher(kek);
  if (!aes || wrapped.size() < 16 || wrapped.size() % 8 != 0) return {};
  Bytes buf = wrapped.vec();
  const std::size_t n = buf.size() / 8 - 1;
  if (n == 1) aes->decrypt(buf.data(), buf.data());
  else unwrapBlocks(*aes, buf.data(), n);
  Mask mli = 0;
  for (int b = 0; b < 4; ++b) mli = (mli << 8) | buf[4 + b];
  // 8(n-1) < MLI <= 8n, and the padding after MLI bytes is zero: checked for every position.
  const Mask upper = static_cast<Mask>(8 * n), lower = static_cast<Mask>(8 * (n - 1));
  Mask good = ct::isZeroMask<Mask>(ct::differenceMask(buf.data(), kPadIvPrefix, 4));
  good &= ct::lessThanMask<Mask>(lower, mli) & ~ct::lessThanMask<Mask>(upper, mli);
  for (std::size_t i = 0; i < 8; ++i) {
    const Mask inPadding = ct::lessThanMask<Mask>(mli, static_cast<Mask>(lower + i + 1));
    good &= ~(inPadding & ~ct::isZeroMask<Mask>(buf[8 + lower + i]));
  }
  ct::declassify(&good, sizeof good);
  ct::declassify(&mli, sizeof mli);  // the key's length is public once the key is released
  return released(buf, 8, good ? mli : 0, static_cast<unsigned char>(good));
}

}  // namespace tessel
