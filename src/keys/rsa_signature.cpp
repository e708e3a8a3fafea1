// RSA signatures over whole messages: PKCS#1 v1.5 and RSASSA-PSS (RFC 8017 sections 8 and 9),
// signing and the strict verification, and the lenient check stored certificates have always
// been verified with.
#include <algorithm>

#include "core/secret.h"
#include "keys/rsa_private.h"
#include "tessel/factory.h"
#include "tessel/reducer.h"
#include "tessel/rng.h"
#include "tessel/rsa.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;

// pkcs1Digest says whether PKCS#1 v1.5 signs with `hash`. MD5 is refused for new signatures;
// the MD5+SHA-1 pair stays for the TLS 1.0 handshakes hosts still speak.
bool pkcs1Digest(unsigned hash) {
  return hash == hashMd5Sha1 || hash == hashSha1 || hash == hashSha256 || hash == hashSha384 || hash == hashSha512;
}

// pssHash is H = Hash(00 x 8 || mHash || salt).
Bytes pssHash(unsigned hash, asn1::blob mHash, asn1::blob salt) {
  std::unique_ptr<Hash> h = createHash(hash);
  if (!h) return {};
  static const unsigned char zeros[8] = {};
  h->update(zeros, 8);
  h->update(mHash.span());
  h->update(salt.span());
  return h->digest();
}

std::size_t saltLengthOf(const SignatureParams& params) {
  return params.saltLength < 0 ? getHashLength(params.hash) : static_cast<std::size_t>(params.saltLength);
}

// pssEncode is EMSA-PSS-ENCODE for a modulus of `modBits` bits, written into k bytes (a
// leading zero byte when emBits is a multiple of eight). Empty when the key is too short.
Bytes pssEncode(const SignatureParams& params, asn1::blob mHash, asn1::blob salt, unsigned modBits, unsigned k) {
  const unsigned emBits = modBits - 1, emLen = (emBits + 7) / 8;
  const std::size_t hLen = mHash.size();
  if (emLen < hLen + salt.size() + 2) return {};
  const Bytes h = pssHash(params.hash, mHash, salt);
  const std::size_t dbLen = emLen - hLen - 1;
  Bytes db = rsa::mgf1(params.mgfDigest(), asn1::blob(h), dbLen);
  if (h.empty() || db.size() != dbLen) return {};
  db[dbLen - salt.size() - 1] ^= 0x01;
  for (std::size_t i = 0; i < salt.size(); ++i) db[dbLen - salt.size() + i] ^= salt[i];
  db[0] &= static_cast<unsigned char>(0xFF >> (8 * emLen - emBits));
  Bytes em(k - emLen, 0x00);
  em.insert(em.end(), db.begin(), db.end());
  em.insert(em.end(), h.begin(), h.end());
  em.push_back(0xBC);
  return em;
}

// pssVerify is EMSA-PSS-VERIFY over the k-byte result of the public operation.
bool pssVerify_vartime(const SignatureParams& params, asn1::blob mHash, const Bytes& em, unsigned modBits) {
  const unsigned emBits = modBits - 1, emLen = (emBits + 7) / 8;
  const std::size_t hLen = mHash.size(), sLen = saltLengthOf(params);
  if (emLen < hLen + sLen + 2 || em.size() < emLen) return false;
  if (em.size() > emLen && em[0] != 0x00) return false;  // the byte above emBits when emLen < k
  const asn1::blob m(em.data() + (em.size() - emLen), em.data() + em.size());
  if (m[emLen - 1] != 0xBC) return false;
  const std::size_t dbLen = emLen - hLen - 1;
  const unsigned char topMask = static_cast<unsigned char>(0xFF << (8 - (8 * emLen - emBits)));
  if (8 * emLen != emBits && (m[0] & topMask) != 0) return false;
  const asn1::blob h(m.start + dbLen, m.start + dbLen + hLen);
  Bytes db = rsa::mgf1(params.mgfDigest(), h, dbLen);
  if (db.size() != dbLen) return false;
  for (std::size_t i = 0; i < dbLen; ++i) db[i] ^= m[i];
  db[0] &= static_cast<unsigned char>(0xFF >> (8 * emLen - emBits));
  const std::size_t psLen = dbLen - sLen - 1;
  if (!std::all_of(db.begin(), db.begin() + static_cast<std::ptrdiff_t>(psLen), [](unsigned char b) { return b == 0; }))
    return false;
  if (db[psLen] != 0x01) return false;
  const Bytes expected = pssHash(params.hash, mHash, asn1::blob(db.data() + psLen + 1, db.data() + dbLen));
  return !expected.empty() && asn1::blob(expected) == h;
}

}  // namespace

Bytes rsaPkcs1Block(unsigned hashId, asn1::blob hash, unsigned k) {
  Bytes t;
  if (hashId == hashMd5Sha1) {
    t = hash.vec();
  } else {
    DerEncoder enc;
    saveDigest(enc, hashId, hash);
    t = std::move(enc.data);
  }
  if (k < t.size() + 1) return {};
  Bytes em(k, 0xFF);
  em[0] = 0x00;
  if (k > 1) em[1] = 0x01;
  em[k - t.size() - 1] = 0x00;
  std::copy(t.begin(), t.end(), em.end() - static_cast<std::ptrdiff_t>(t.size()));
  return em;
}

bool RsaPublicKey::publicParamsSane() const {
  // A peer chooses the keys of the chains it sends: exponents and moduli beyond any real key's
  // would let it buy seconds of work per signature, so they fail like a bad signature. The
  // Montgomery reducer needs an odd modulus, which every real key has.
  return n.isOdd() && e.bits() <= 64 && e.isOdd() && !(e.size() == 1 && e[0] < 3) && n.bits() <= 16384;
}

bool RsaPublicKey::verify(asn1::blob message, asn1::blob signature, const SignatureParams& params) const {
  const unsigned k = modulusLength();
  if (!publicParamsSane() || k < 11 || signature.size() != k) return false;
  const BigNum s(signature);
  if (!(s < n)) return false;
  const Bytes em = expByMod(s, e, n).bin(k);
  const Bytes digest = calcDigest(params.hash, message);
  if (digest.empty() || em.size() != k) return false;
  if (params.pss)
    return isPssDigest(params.hash) && isPssDigest(params.mgfDigest()) &&
           pssVerify_vartime(params, asn1::blob(digest), em, n.bits());
  // Rebuilding the one valid block and comparing it whole leaves a forger no bytes to play with.
  return pkcs1Digest(params.hash) && rsaPkcs1Block(params.hash, asn1::blob(digest), k) == em;
}

bool RsaPublicKey::verifyLenient(asn1::blob message, asn1::blob signature, const SignatureParams& params) const {
  if (params.pss) return verify(message, signature, params);
  const unsigned hashId = params.hash;
  if (!publicParamsSane()) return false;
  const unsigned k = modulusLength();
  const Bytes em = expByMod(BigNum(signature), e, n).bin(k);
  if (em.size() != k || k < 11 || em[0] != 0x00 || em[1] != 0x01) return false;
  std::size_t i = 2;
  while (i < k && em[i] == 0xFF) ++i;
  if (i - 2 < 8 || i == k || em[i] != 0x00) return false;
  const asn1::blob t(em.data() + i + 1, em.data() + k);
  const Bytes digest = calcDigest(hashId, message);
  if (digest.empty()) return false;
  // The MD5+SHA-1 pair of old TLS is signed bare, without a DigestInfo.
  if (hashId == hashMd5Sha1) return t == asn1::blob(digest);
  const asn1::blob recovered = parseHashFromDerEncoded(hashId, t);
  return !recovered.empty() && recovered == asn1::blob(digest);
}

Bytes RsaPrivateKey::sign(asn1::blob message, const SignatureParams& params) const {
  if (!params.pss) return pkcs1Digest(params.hash) ? PrivateKey::sign(message, params) : Bytes();
  const std::size_t sLen = saltLengthOf(params);
  if (!isPssDigest(params.hash) || !isPssDigest(params.mgfDigest()) || sLen > 1024) return {};
  const Bytes digest = calcDigest(params.hash, message);
  Bytes salt(sLen);
  if (digest.empty() || (sLen > 0 && !getDefaultRng().generate(salt.data(), static_cast<unsigned>(sLen)))) return {};
  const Bytes em = pssEncode(params, asn1::blob(digest), asn1::blob(salt), n.bits(), modulusLength());
  if (em.empty()) return {};
  return privateOperation(asn1::blob(em));
}

}  // namespace tessel
