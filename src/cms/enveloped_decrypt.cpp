// Opening enveloped content: finding the recipient a key or password can open, recovering the
// content-encryption key and releasing the content only once its padding or tag checks out.
#include "cms/enveloped_internal.h"
#include "core/secret.h"
#include "tessel/cms_enveloped.h"
#include "tessel/factory.h"
#include "tessel/keywrap.h"
#include "tessel/oids.h"
#include "tessel/pbkdf2.h"
#include "tessel/pkcs8.h"
#include "tessel/x963_kdf.h"

namespace tessel {

using asn1::blob;
using Bytes = std::vector<unsigned char>;
namespace oid = asn1::oid;

namespace {

// The one reason for every failure after a recipient was found: a wrong key, a wrong password,
// a bad padding and a bad tag must look alike.
constexpr const char* kNotOpened = "the content did not decrypt with this key";

CmsDecryptResult failure(std::string reason) {
  CmsDecryptResult r;
  r.reason = std::move(reason);
  return r;
}

// names says whether a recipient identifier names `cert`.
bool names(const Bytes& issuer, const Bytes& serial, const Bytes& skid, const X509Certificate& cert) {
  if (!skid.empty()) return !cert.subjectKeyId.empty() && blob(skid) == blob(cert.subjectKeyId);
  return !issuer.empty() && blob(issuer) == cert.issuerDer() && blob(serial) == blob(cert.serial);
}

// readOidParams splits a whole AlgorithmIdentifier into its OID and its parameters element.
bool readOidParams(blob whole, blob* oidContent, blob* params) {
  asn1::parser p;
  if (!asn1::readOnly(whole, asn1::tagSequence, &p) || !p.read(asn1::tagOid, oidContent)) return false;
  *params = p.atEnd() ? blob() : p.takeElement();
  return !p.failed() && p.atEnd();
}

HashID kdfDigest(blob scheme) {
  if (oid::dhSinglePassStdDhSha1Kdf.is(scheme)) return hashSha1;
  if (oid::dhSinglePassStdDhSha256Kdf.is(scheme)) return hashSha256;
  if (oid::dhSinglePassStdDhSha384Kdf.is(scheme)) return hashSha384;
  if (oid::dhSinglePassStdDhSha512Kdf.is(scheme)) return hashSha512;
  return hashNone;
}

// originatorKey rebuilds the originator's public key: an EC point on the recipient's own curve
// (the parameters are absent or NULL in every message we have met), or an X25519 key.
std::shared_ptr<PublicKey> originatorKey(const CmsRecipientInfo& ri, const PrivateKey& key) {
  blob algOid, params;
  if (!readOidParams(blob(ri.originatorAlgorithm), &algOid, &params)) return nullptr;
  std::shared_ptr<PublicKey> peer;
  if (oid::ecPublicKey.is(algOid) && key.getKeyType() == keyEc) {
    peer = makePublicKey(keyEc);
    if (!params.empty() && !(params.size() == 2 && params[0] == asn1::tagNull)) {
      if (!(params == blob(key.encodeParams()))) return nullptr;
    }
    const Bytes curve = key.encodeParams();
    if (!peer || !peer->parseFromDerEncoded(blob(ri.originatorKey), blob(curve))) return nullptr;
  } else if (oid::x25519.is(algOid) && params.empty() && key.getKeyType() == keyX25519) {
    peer = makePublicKey(keyX25519);
    if (!peer || !peer->parseFromDerEncoded(blob(ri.originatorKey), {})) return nullptr;
  }
  return peer;
}

// agreedKey derives the key-encryption key of a key agreement recipient and unwraps
// `encryptedKey`; empty on any failure.
Bytes agreedKey(const CmsRecipientInfo& ri, const PrivateKey& key, blob encryptedKey, std::size_t keyLength) {
  blob scheme, wrapAlg;
  if (!readOidParams(blob(ri.keyEncryptionAlgorithm), &scheme, &wrapAlg)) return {};
  const HashID hash = kdfDigest(scheme);
  const std::size_t kekLength = cms::wrapKeyLength(wrapAlg);
  std::shared_ptr<PublicKey> peer = originatorKey(ri, key);
  auto h = createHash(hash);
  if (hash == hashNone || kekLength == 0 || !peer || !h) return {};
  Bytes z = key.agree(*peer);
  if (z.empty()) return {};
  Bytes kek = x963Kdf(*h, blob(z), blob(cms::eccSharedInfo(wrapAlg, blob(ri.ukm), kekLength)), kekLength);
  Bytes cek = aesKeyUnwrap(blob(kek), encryptedKey);
  ct::wipe(z.data(), z.size());
  ct::wipe(kek.data(), kek.size());
  if (cek.size() != keyLength) ct::wipe(cek.data(), cek.size()), cek.clear();
  return cek;
}

// Pbkdf2Params is what PBKDF2-params say, the PRF defaulting to HMAC-SHA-1.
struct Pbkdf2Params {
  blob salt;
  unsigned iterations = 0;
  HashID prf = hashSha1;
};

bool readPbkdf2(blob whole, Pbkdf2Params* out) {
  blob algOid, params, iter, length;
  asn1::parser p;
  if (!readOidParams(whole, &algOid, &params) || !oid::pbkdf2.is(algOid) ||
      !asn1::readOnly(params, asn1::tagSequence, &p) || !p.read(asn1::tagOctetString, &out->salt) ||
      !p.isAt(asn1::tagInteger, &iter) || iter.empty() || iter.size() > 4 || (iter[0] & 0x80))
    return false;
  out->iterations = p.takeUInt();
  if (p.isAt(asn1::tagInteger, &length)) p.takeUInt();  // the KEK length follows from the cipher
  blob prf;
  if (p.readElement(asn1::tagSequence, &prf)) {
    blob prfOid, prfParams;
    if (!readOidParams(prf, &prfOid, &prfParams)) return false;
    out->prf = getHashID(prfOid);
    if (out->prf != hashSha1 && out->prf != hashSha256 && out->prf != hashSha512) return false;
  }
  return p.atEnd() && out->iterations > 0 && out->iterations <= kMaxPbeIterations;
}

// passwordKey derives the PWRI key-encryption key from `password` and unwraps the content key.
Bytes passwordKey(const CmsRecipientInfo& ri, std::string_view password, std::size_t keyLength) {
  Pbkdf2Params kdf;
  blob kekOid, kekParams, cbcOid, iv;
  asn1::parser cbc;
  if (ri.keyDerivationAlgorithm.empty() || !readPbkdf2(blob(ri.keyDerivationAlgorithm), &kdf) ||
      !readOidParams(blob(ri.keyEncryptionAlgorithm), &kekOid, &kekParams) || !oid::idAlgPwriKek.is(kekOid) ||
      !asn1::readOnly(kekParams, asn1::tagSequence, &cbc) || !cbc.read(asn1::tagOid, &cbcOid) ||
      !cbc.read(asn1::tagOctetString, &iv) || !cbc.atEnd())
    return {};
  const std::size_t kekLength = oid::aes128Cbc.is(cbcOid)   ? 16
                                : oid::aes192Cbc.is(cbcOid) ? 24
                                : oid::aes256Cbc.is(cbcOid) ? 32
                                                            : 0;
  auto h = createHash(kdf.prf);
  if (kekLength == 0 || !h) return {};
  Bytes kek = pbkdf2(*h, password, kdf.salt.data(), static_cast<unsigned>(kdf.salt.size()), kdf.iterations,
                     static_cast<unsigned>(kekLength));
  Bytes cek = cms::pwriUnwrap(blob(kek), iv, blob(ri.encryptedKey), keyLength);
  ct::wipe(kek.data(), kek.size());
  return cek;
}

}  // namespace

std::size_t PKCS7EnvelopedData::contentKeyLength() const {
  cms::ContentAlgorithm alg;
  if (!cms::parseContentAlgorithm(blob(contentEncryptionAlgorithm), &alg) || alg.gcm != authenticated) return 0;
  return alg.keyLength;
}

CmsDecryptResult PKCS7EnvelopedData::decryptContent(blob cek) const {
  cms::ContentAlgorithm alg;
  if (!cms::parseContentAlgorithm(blob(contentEncryptionAlgorithm), &alg) || alg.gcm != authenticated)
    return failure("unsupported content encryption");
  if (!contentPresent) return failure("the encrypted content is absent");
  std::unique_ptr<Cipher> c = createCipher(alg.gcm ? cipherAesGcm : cipherAesCbc, cek.span(), alg.tagLength);
  if (!c || cek.size() != alg.keyLength) return failure(kNotOpened);
  Bytes input = encryptedContent;
  Bytes aad;
  if (alg.gcm) {
    if (mac.size() != alg.tagLength) return failure("the authentication tag is malformed");
    input.insert(input.end(), mac.begin(), mac.end());
    // Authenticated attributes are covered as a SET OF, not with their [1] tag.
    if (!authAttrs.empty()) aad = authAttrs, aad[0] = asn1::tagSet;
  } else if (input.empty() || input.size() % 16 != 0) {
    return failure(kNotOpened);
  }
  if (input.size() > 0xFFFFFFF0u) return failure("the content is too long");
  const unsigned len = static_cast<unsigned>(input.size());
  Bytes plain(input.size());
  c->setIV(alg.iv.data(), static_cast<unsigned>(alg.iv.size()));
  const unsigned written = c->decrypt(input.data(), len, aad.data(), static_cast<unsigned>(aad.size()), plain.data());
  long keep =
      alg.gcm ? (written == decryptFailed ? -1 : static_cast<long>(written)) : cms::pkcs7Unpad(plain.data(), len);
  if (keep < 0) {
    ct::wipe(plain.data(), plain.size());
    return failure(kNotOpened);
  }
  CmsDecryptResult r;
  r.ok = true;
  plain.resize(static_cast<std::size_t>(keep));
  r.content = std::move(plain);
  return r;
}

CmsDecryptResult PKCS7EnvelopedData::decrypt(const PrivateKey& key, const X509Certificate& certificate) const {
  const std::size_t keyLength = contentKeyLength();
  if (keyLength == 0) return failure("unsupported content encryption");
  bool named = false;
  for (const CmsRecipientInfo& ri : recipientInfos) {
    std::vector<Bytes> candidates;
    if (ri.kind == CmsRecipientKind::keyTransport && names(ri.issuer, ri.serial, ri.subjectKeyId, certificate)) {
      named = true;
      EncryptionParams params;
      if (!parseEncryptionAlgorithm(blob(ri.keyEncryptionAlgorithm), &params)) continue;
      candidates.push_back(key.decryptKey(blob(ri.encryptedKey), params, keyLength, getDefaultRng()));
    } else if (ri.kind == CmsRecipientKind::keyAgreement) {
      for (const CmsRecipientKey& k : ri.recipientKeys) {
        if (!names(k.issuer, k.serial, k.subjectKeyId, certificate)) continue;
        named = true;
        candidates.push_back(agreedKey(ri, key, blob(k.encryptedKey), keyLength));
      }
    }
    for (Bytes& cek : candidates) {
      if (cek.size() != keyLength) continue;
      CmsDecryptResult r = decryptContent(blob(cek));
      ct::wipe(cek.data(), cek.size());
      if (r) return r;
    }
  }
  return failure(named ? kNotOpened : "no recipient names the certificate");
}

CmsDecryptResult PKCS7EnvelopedData::decrypt(std::string_view password) const {
  const std::size_t keyLength = contentKeyLength();
  if (keyLength == 0) return failure("unsupported content encryption");
  bool found = false;
  for (const CmsRecipientInfo& ri : recipientInfos) {
    if (ri.kind != CmsRecipientKind::password) continue;
    found = true;
    Bytes cek = passwordKey(ri, password, keyLength);
    if (cek.size() != keyLength) continue;
    CmsDecryptResult r = decryptContent(blob(cek));
    ct::wipe(cek.data(), cek.size());
    if (r) return r;
  }
  return failure(found ? kNotOpened : "no password recipient");
}

}  // namespace tessel
