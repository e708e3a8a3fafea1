// RSA encryption (RFC 8017 section 7): RSAES-OAEP and RSAES-PKCS1-v1_5. Decryption checks the
// padding without a branch or index on the decrypted block: only the final verdict, or for key
// transport not even that, becomes public.
#include <cstring>

#include "core/declassify.h"
#include "core/secret.h"
#include "keys/rsa_private.h"
#include "tessel/rsa.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;
using Mask = std::uint32_t;

// kPkcs1Overhead is 00 02, at least eight non-zero padding bytes and the 00 separator.
constexpr std::size_t kPkcs1Overhead = 11;

bool oaepUsable(const EncryptionParams& p) { return isPssDigest(p.hash) && isPssDigest(p.mgfDigest()); }

// xorInto sets a ^= b over `n` bytes.
void xorInto(unsigned char* a, const unsigned char* b, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) a[i] ^= b[i];
}

Bytes oaepEncode(asn1::blob message, const EncryptionParams& p, std::size_t k, Rng& rng) {
  const std::size_t h = getHashLength(p.hash);
  if (!oaepUsable(p) || k < 2 * h + 2 || message.size() > k - 2 * h - 2) return {};
  Bytes em(k, 0);
  unsigned char* seed = em.data() + 1;
  unsigned char* db = seed + h;
  const std::size_t dbLen = k - h - 1;
  const Bytes labelHash = calcDigest(p.hash, asn1::blob(p.label));
  std::memcpy(db, labelHash.data(), h);
  db[dbLen - message.size() - 1] = 0x01;
  if (!message.empty()) std::memcpy(db + dbLen - message.size(), message.data(), message.size());
  if (!rng.generate(seed, static_cast<unsigned>(h))) return {};
  const Bytes dbMask = rsa::mgf1(p.mgfDigest(), asn1::blob(seed, h), dbLen);
  xorInto(db, dbMask.data(), dbLen);
  const Bytes seedMask = rsa::mgf1(p.mgfDigest(), asn1::blob(db, dbLen), h);
  xorInto(seed, seedMask.data(), h);
  return em;
}

Bytes pkcs1Encode(asn1::blob message, std::size_t k, Rng& rng) {
  if (k < kPkcs1Overhead || message.size() > k - kPkcs1Overhead) return {};
  Bytes em(k, 0);
  em[1] = 0x02;
  const std::size_t padLen = k - message.size() - 3;
  unsigned char* pad = em.data() + 2;
  if (!rng.generate(pad, static_cast<unsigned>(padLen))) return {};
  // Redraw zero bytes: how many there were says nothing about the message.
  for (std::size_t i = 0; i < padLen; ++i)
    while (pad[i] == 0)
      if (!rng.generate(pad + i, 1)) return {};
  if (!message.empty()) std::memcpy(em.data() + k - message.size(), message.data(), message.size());
  return em;
}

// Decoded is what a padding check leaves: a mask that is all ones for a valid block, and where
// the message starts in it. Both are secret until the caller declassifies the verdict.
struct Decoded {
  Mask good = 0;
  std::size_t start = 0;
};

// firstMatch scans `n` bytes for the first equal to `target` at or after `from`, without an early
// exit: `found` is all ones when there is one, and every byte before it (from `from` on) must
// satisfy `allowed` (zero bytes, for OAEP's PS), or `bad` turns all ones.
struct Scan {
  Mask found = 0, bad = 0, index = 0;
};
Scan firstMatch(const unsigned char* p, std::size_t n, unsigned char target, bool onlyZerosBefore) {
  Scan s;
  Mask looking = ~Mask{0};
  for (std::size_t i = 0; i < n; ++i) {
    const Mask isTarget = ct::equalMask<Mask>(p[i], target);
    const Mask isZero = ct::isZeroMask<Mask>(p[i]);
    s.index = ct::select<Mask>(looking & isTarget, static_cast<Mask>(i), s.index);
    if (onlyZerosBefore) s.bad |= looking & ~isTarget & ~isZero;
    looking &= ~isTarget;
  }
  s.found = ~looking;
  return s;
}

Decoded oaepDecode(Bytes& em, const EncryptionParams& p) {
  const std::size_t k = em.size(), h = getHashLength(p.hash);
  Decoded d;
  if (!oaepUsable(p) || k < 2 * h + 2) return d;
  unsigned char* seed = em.data() + 1;
  unsigned char* db = seed + h;
  const std::size_t dbLen = k - h - 1;
  const Bytes seedMask = rsa::mgf1(p.mgfDigest(), asn1::blob(db, dbLen), h);
  xorInto(seed, seedMask.data(), h);
  const Bytes dbMask = rsa::mgf1(p.mgfDigest(), asn1::blob(seed, h), dbLen);
  xorInto(db, dbMask.data(), dbLen);
  const Bytes labelHash = calcDigest(p.hash, asn1::blob(p.label));
  const Scan one = firstMatch(db + h, dbLen - h, 0x01, true);
  d.good = ct::isZeroMask<Mask>(em[0]) & ct::isZeroMask<Mask>(ct::differenceMask(db, labelHash.data(), h)) & one.found &
           ~one.bad;
  d.start = 1 + h + h + one.index + 1;
  return d;
}

Decoded pkcs1Decode(const Bytes& em) {
  Decoded d;
  const std::size_t k = em.size();
  if (k < kPkcs1Overhead) return d;
  const Scan zero = firstMatch(em.data() + 2, k - 2, 0x00, false);
  // The separator must follow at least eight padding bytes: index 8 or more within em[2..].
  const Mask longEnough = ~ct::lessThanMask<Mask>(zero.index, 8);
  d.good = ct::isZeroMask<Mask>(em[0]) & ct::equalMask<Mask>(em[1], 2) & zero.found & longEnough;
  d.start = 2 + zero.index + 1;
  return d;
}

}  // namespace

std::vector<unsigned char> RsaPublicKey::encrypt(asn1::blob message, const EncryptionParams& params, Rng& rng) const {
  if (!publicParamsSane()) return {};
  const std::size_t k = modulusLength();
  Bytes em = params.oaep ? oaepEncode(message, params, k, rng) : pkcs1Encode(message, k, rng);
  if (em.empty()) return {};
  Bytes c(k);
  rsa::publicOperationSecretInput(*this, em.data(), c.data(), k);
  ct::wipe(em.data(), em.size());
  return c;
}

namespace {

// decryptBlock runs the private operation on a ciphertext of exactly k bytes below n and gives
// the padded block with an all-ones mask, or a zero mask when the operation failed its check.
Mask decryptBlock(const RsaPrivateKey& key, asn1::blob ciphertext, Bytes* em) {
  const std::size_t k = key.modulusLength();
  const BigNum c(ciphertext);
  em->assign(k, 0);
  if (ciphertext.size() != k || !(c < key.n) || !key.n.isOdd()) return 0;
  return rsa::privateOperationMasked(key, c, em->data(), k) ? ~Mask{0} : 0;
}

}  // namespace

std::vector<unsigned char> RsaPrivateKey::decrypt(asn1::blob ciphertext, const EncryptionParams& params) const {
  Bytes em;
  const Mask ran = decryptBlock(*this, ciphertext, &em);
  const Decoded d = params.oaep ? oaepDecode(em, params) : pkcs1Decode(em);
  Mask good = ran & d.good;
  // The verdict, and with it the message's length, is what decryption answers.
  ct::declassify(&good, sizeof good);
  Bytes out;
  if (good) {
    std::size_t start = d.start;
    ct::declassify(&start, sizeof start);
    out.assign(em.begin() + static_cast<std::ptrdiff_t>(start), em.end());
  }
  ct::wipe(em.data(), em.size());
  return out;
}

std::vector<unsigned char> RsaPrivateKey::decryptKey(asn1::blob ciphertext, const EncryptionParams& params,
                                                     std::size_t keyLength, Rng& rng) const {
  if (params.oaep) {
    Bytes key = decrypt(ciphertext, params);
    if (key.size() != keyLength) {
      ct::wipe(key.data(), key.size());
      return {};
    }
    return key;
  }
  // PKCS#1 v1.5 tells a forger whether a block was well formed unless every failure looks like
  // success (Bleichenbacher's attack): a bad block yields a random key, chosen without a branch.
  Bytes fallback(keyLength);
  if (keyLength == 0 || !rng.generate(fallback.data(), static_cast<unsigned>(keyLength))) return {};
  Bytes em;
  const Mask ran = decryptBlock(*this, ciphertext, &em);
  const std::size_t k = em.size();
  if (k < kPkcs1Overhead || keyLength > k - kPkcs1Overhead) return fallback;
  const Decoded d = pkcs1Decode(em);
  const Mask fits = ct::equalMask<Mask>(static_cast<Mask>(k - d.start), static_cast<Mask>(keyLength));
  const unsigned char take = static_cast<unsigned char>(ran & d.good & fits);
  ct::conditionalMove(fallback.data(), em.data() + (k - keyLength), keyLength, take);
  ct::wipe(em.data(), em.size());
  return fallback;
}

}  // namespace tessel
