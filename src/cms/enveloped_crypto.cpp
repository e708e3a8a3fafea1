// The enveloped-data building blocks: content algorithm identifiers, the padding check, RFC
// 3211's password key wrap and the key-agreement KDF input.
#include <cstring>

#include "cipher/padding.h"
#include "cms/enveloped_internal.h"
#include "core/declassify.h"
#include "core/secret.h"
#include "tessel/factory.h"
#include "tessel/oids.h"

namespace tessel::cms {

using asn1::blob;
using Bytes = std::vector<unsigned char>;

namespace {

std::size_t cbcKeyLength(blob oid) {
  if (asn1::oid::aes128Cbc.is(oid)) return 16;
  if (asn1::oid::aes192Cbc.is(oid)) return 24;
  if (asn1::oid::aes256Cbc.is(oid)) return 32;
  return 0;
}

}  // namespace

bool parseContentAlgorithm(blob der, ContentAlgorithm* out) {
  asn1::parser p;
  blob oid, iv;
  if (!asn1::readOnly(der, asn1::tagSequence, &p) || !p.read(asn1::tagOid, &oid)) return false;
  if (std::size_t len = cbcKeyLength(oid)) {
    if (!p.read(asn1::tagOctetString, &iv) || !p.atEnd() || iv.size() != 16) return false;
    *out = ContentAlgorithm{false, len, iv.vec(), 0};
    return true;
  }
  const std::size_t len = asn1::oid::aes128Gcm.is(oid) ? 16 : asn1::oid::aes256Gcm.is(oid) ? 32 : 0;
  asn1::parser params;
  if (!len || !p.read(asn1::tagSequence, &params) || !p.atEnd() || !params.read(asn1::tagOctetString, &iv))
    return false;
  unsigned tag = 12;  // the DEFAULT of aes-ICVlen
  blob icv;
  if (params.isAt(asn1::tagInteger, &icv)) {
    if (icv.size() != 1) return false;
    tag = params.takeUInt();
  }
  if (!params.atEnd() || iv.size() != 12 || tag != 16) return false;
  *out = ContentAlgorithm{true, len, iv.vec(), tag};
  return true;
}

long pkcs7Unpad(const unsigned char* data, std::size_t length) {
  if (length == 0 || length % 16 != 0) return -1;
  // The verdict is public, and so is the content's length once the content is released.
  const std::uint32_t kept =
      ct::declassified(detail::pkcs7UnpaddedLength(data, static_cast<std::uint32_t>(length), 16));
  return kept == ~std::uint32_t{0} ? -1 : static_cast<long>(kept);
}

std::vector<unsigned char> pwriWrap(blob kek, blob iv, blob cek, Rng& rng) {
  auto cipher = createCipher(cipherAesCbc, kek.span(), 16);
  if (!cipher || iv.size() != 16 || cek.empty() || cek.size() > 255 || cek.size() < 3) return {};
  std::size_t length = (4 + cek.size() + 15) / 16 * 16;
  if (length < 32) length = 32;
  Bytes block(length), inner(length), outer(length);
  block[0] = static_cast<unsigned char>(cek.size());
  for (int i = 0; i < 3; ++i) block[1 + i] = static_cast<unsigned char>(~cek[i]);
  std::memcpy(block.data() + 4, cek.data(), cek.size());
  const std::size_t used = 4 + cek.size();
  if (length > used && !rng.generate(block.data() + used, static_cast<unsigned>(length - used))) return {};
  const unsigned n = static_cast<unsigned>(length);
  cipher->setIV(iv.data(), 16);
  cipher->encrypt(block.data(), n, nullptr, 0, inner.data());
  cipher->setIV(inner.data() + n - 16, 16);
  cipher->encrypt(inner.data(), n, nullptr, 0, outer.data());
  ct::wipe(block.data(), block.size());
  return outer;
}

std::vector<unsigned char> pwriUnwrap(blob kek, blob iv, blob wrapped, std::size_t keyLength) {
  auto cipher = createCipher(cipherAesCbc, kek.span(), 16);
  const std::size_t n = wrapped.size();
  if (!cipher || iv.size() != 16 || n < 32 || n % 16 != 0 || n < 4 + keyLength) return {};
  Bytes inner(n), plain(n);
  const unsigned len = static_cast<unsigned>(n);
  // The outer layer was chained from the inner layer's last block: that block comes first, by
  // decrypting the last ciphertext block with the one before it as IV.
  cipher->setIV(wrapped.data() + n - 32, 16);
  cipher->decrypt(wrapped.data() + n - 16, 16, nullptr, 0, inner.data() + n - 16);
  cipher->setIV(inner.data() + n - 16, 16);
  cipher->decrypt(wrapped.data(), len - 16, nullptr, 0, inner.data());
  cipher->setIV(iv.data(), 16);
  cipher->decrypt(inner.data(), len, nullptr, 0, plain.data());
  std::uint32_t good = ct::equalMask<std::uint32_t>(plain[0], static_cast<std::uint32_t>(keyLength));
  for (int i = 0; i < 3; ++i) good &= ct::equalMask<std::uint32_t>(plain[1 + i] ^ plain[4 + i], 0xFF);
  Bytes cek;
  ct::declassify(&good, sizeof good);
  if (good != 0) cek.assign(plain.begin() + 4, plain.begin() + 4 + static_cast<long>(keyLength));
  ct::wipe(inner.data(), n);
  ct::wipe(plain.data(), n);
  return cek;
}

std::vector<unsigned char> eccSharedInfo(blob wrapAlgorithm, blob ukm, std::size_t kekLength) {
  const std::uint32_t bits = static_cast<std::uint32_t>(kekLength * 8);
  const unsigned char suppPubInfo[4] = {static_cast<unsigned char>(bits >> 24), static_cast<unsigned char>(bits >> 16),
                                        static_cast<unsigned char>(bits >> 8), static_cast<unsigned char>(bits)};
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addBytes(wrapAlgorithm);
    if (!ukm.empty()) s.element(asn1::explicitTag(0), [&](DerEncoder& u) { u.addOctetString(ukm); });
    s.element(asn1::explicitTag(2), [&](DerEncoder& k) { k.addOctetString(blob(suppPubInfo, 4)); });
  });
  return std::move(e.data);
}

std::size_t wrapKeyLength(blob wrapAlgorithm) {
  asn1::parser p;
  blob oid;
  if (!asn1::readOnly(wrapAlgorithm, asn1::tagSequence, &p) || !p.read(asn1::tagOid, &oid)) return 0;
  // AES key wrap has absent parameters; a NULL is tolerated from writers that add one.
  if (!p.atEnd() && (!p.read(asn1::tagNull) || !p.atEnd())) return 0;
  if (asn1::oid::aes128Wrap.is(oid)) return 16;
  if (asn1::oid::aes192Wrap.is(oid)) return 24;
  if (asn1::oid::aes256Wrap.is(oid)) return 32;
  return 0;
}

}  // namespace tessel::cms
