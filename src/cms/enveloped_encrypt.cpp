// Enveloping: a new EnvelopedData or AuthEnvelopedData for key transport, key agreement and
// password recipients.
#include <functional>
#include <memory>

#include "cms/cms_internal.h"
#include "cms/enveloped_internal.h"
#include "core/secret.h"
#include "tessel/cms_enveloped.h"
#include "tessel/factory.h"
#include "tessel/keygen.h"
#include "tessel/keywrap.h"
#include "tessel/oids.h"
#include "tessel/pbkdf2.h"
#include "tessel/x963_kdf.h"

namespace tessel {

using asn1::blob;
using Bytes = std::vector<unsigned char>;
namespace oid = asn1::oid;

namespace {

Bytes randomBytes(Rng& rng, std::size_t n) {
  Bytes out(n);
  if (!rng.generate(out.data(), static_cast<unsigned>(n))) out.clear();
  return out;
}

Bytes algorithm(blob oidContent, const std::function<void(DerEncoder&)>& params = {}) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addOid(oidContent);
    if (params) params(s);
  });
  return std::move(e.data);
}

// writeIssuerAndSerial writes IssuerAndSerialNumber for `cert`.
void writeIssuerAndSerial(DerEncoder& e, const X509Certificate& cert) {
  e.sequence([&](DerEncoder& s) {
    s.addBytes(cert.issuerDer());
    s.addPrimitive(asn1::tagInteger, blob(cert.serial));
  });
}

bool keyTransport(const CmsRecipient& r, const PublicKey& peer, blob cek, Rng& rng, CmsRecipientInfo* out) {
  const Bytes alg = encodeEncryptionAlgorithm(r.rsaParams);
  const Bytes wrapped = peer.encrypt(cek, r.rsaParams, rng);
  if (alg.empty() || wrapped.empty()) return false;
  const bool bySkid = r.bySubjectKeyId && !r.certificate->subjectKeyId.empty();
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addInt(asn1::tagInteger, bySkid ? 2 : 0);
    if (bySkid) s.addPrimitive(asn1::implicitTag(0), blob(r.certificate->subjectKeyId));
    else writeIssuerAndSerial(s, *r.certificate);
    s.addBytes(blob(alg));
    s.addOctetString(blob(wrapped));
  });
  return out->parse(blob(e.data));
}

// curveOf reads the named curve of an EC key from its parameters; 0 when unknown.
unsigned curveOf(const PublicKey& key) {
  const Bytes params = key.encodeParams();
  asn1::parser p{blob(params)};
  if (!p.isAt(asn1::tagOid)) return 0;
  if (oid::prime256v1.is(p.content)) return static_cast<unsigned>(Curve::p256);
  if (oid::secp384r1.is(p.content)) return static_cast<unsigned>(Curve::p384);
  if (oid::secp521r1.is(p.content)) return static_cast<unsigned>(Curve::p521);
  return 0;
}

// keyAgreement makes an ephemeral key on the recipient's curve, derives the key-encryption key
// from the shared secret with the X9.63 KDF (SHA-256, or the digest the size of the curve) and
// wraps the content key with AES key wrap of the content key's size.
bool keyAgreement(const CmsRecipient& r, const PublicKey& peer, blob cek, Rng& rng, CmsRecipientInfo* out) {
  const KeyType type = peer.getKeyType();
  const unsigned curve = type == keyEc ? curveOf(peer) : 0;
  if (type == keyEc && curve == 0) return false;
  std::shared_ptr<PrivateKey> ephemeral = generatePrivateKey(type, curve, rng);
  if (!ephemeral) return false;
  const HashID hash = curve == static_cast<unsigned>(Curve::p384)   ? hashSha384
                      : curve == static_cast<unsigned>(Curve::p521) ? hashSha512
                                                                    : hashSha256;
  const asn1::Oid& scheme = hash == hashSha384   ? oid::dhSinglePassStdDhSha384Kdf
                            : hash == hashSha512 ? oid::dhSinglePassStdDhSha512Kdf
                                                 : oid::dhSinglePassStdDhSha256Kdf;
  const Bytes wrapAlg = algorithm(cek.size() == 16 ? oid::aes128Wrap.content() : oid::aes256Wrap.content());
  Bytes z = ephemeral->agree(peer);
  auto h = createHash(hash);
  if (z.empty() || !h) return false;
  Bytes kek = x963Kdf(*h, blob(z), blob(cms::eccSharedInfo(blob(wrapAlg), {}, cek.size())), cek.size());
  const Bytes wrapped = aesKeyWrap(blob(kek), cek);
  ct::wipe(z.data(), z.size());
  ct::wipe(kek.data(), kek.size());
  const Bytes point = ephemeral->encodePublicKey();
  if (wrapped.empty() || point.empty()) return false;
  const bool bySkid = r.bySubjectKeyId && !r.certificate->subjectKeyId.empty();
  DerEncoder e;
  e.element(asn1::implicitConstructedTag(1), [&](DerEncoder& s) {
    s.addInt(asn1::tagInteger, 3);
    s.element(asn1::explicitTag(0), [&](DerEncoder& originator) {
      originator.element(asn1::implicitConstructedTag(1), [&](DerEncoder& pub) {
        pub.addBytes(blob(algorithm(type == keyEc ? oid::ecPublicKey.content() : oid::x25519.content())));
        pub.addBitString(blob(point));
      });
    });
    s.addBytes(blob(algorithm(scheme.content(), [&](DerEncoder& p) { p.addBytes(blob(wrapAlg)); })));
    s.sequence([&](DerEncoder& keys) {
      keys.sequence([&](DerEncoder& k) {
        if (bySkid) {
          k.element(asn1::implicitConstructedTag(0),
                    [&](DerEncoder& id) { id.addOctetString(blob(r.certificate->subjectKeyId)); });
        } else {
          writeIssuerAndSerial(k, *r.certificate);
        }
        k.addOctetString(blob(wrapped));
      });
    });
  });
  return out->parse(blob(e.data));
}

// password derives an AES-CBC key-encryption key of the content key's size with
// PBKDF2-HMAC-SHA-256 and wraps the content key with RFC 3211's wrap.
bool password(const CmsRecipient& r, blob cek, Rng& rng, CmsRecipientInfo* out) {
  const Bytes salt = randomBytes(rng, 16), iv = randomBytes(rng, 16);
  auto h = createHash(hashSha256);
  if (salt.empty() || iv.empty() || !h || r.iterations == 0) return false;
  Bytes kek = pbkdf2(*h, r.password, salt.data(), 16, r.iterations, static_cast<unsigned>(cek.size()));
  const Bytes wrapped = cms::pwriWrap(blob(kek), blob(iv), cek, rng);
  ct::wipe(kek.data(), kek.size());
  if (wrapped.empty()) return false;
  DerEncoder e;
  e.element(asn1::implicitConstructedTag(3), [&](DerEncoder& s) {
    s.addInt(asn1::tagInteger, 0);
    s.element(asn1::implicitConstructedTag(0), [&](DerEncoder& kdf) {
      kdf.addOid(oid::pbkdf2.content());
      kdf.sequence([&](DerEncoder& p) {
        p.addOctetString(blob(salt));
        p.addInt(asn1::tagInteger, r.iterations);
        p.addBytes(blob(algorithm(oid::hmacWithSha256.content(), [](DerEncoder& n) { n.addNull(); })));
      });
    });
    s.addBytes(blob(algorithm(oid::idAlgPwriKek.content(), [&](DerEncoder& p) {
      p.addBytes(blob(algorithm(cek.size() == 16 ? oid::aes128Cbc.content() : oid::aes256Cbc.content(),
                                [&](DerEncoder& v) { v.addOctetString(blob(iv)); })));
    })));
    s.addOctetString(blob(wrapped));
  });
  return out->parse(blob(e.data));
}

bool addRecipient(const CmsRecipient& r, blob cek, Rng& rng, CmsRecipientInfo* out) {
  if (!r.certificate) return !r.password.empty() && password(r, cek, rng, out);
  std::shared_ptr<PublicKey> peer = r.certificate->parsePublicKey();
  if (!peer) return false;
  switch (peer->getKeyType()) {
    case keyRsa: return keyTransport(r, *peer, cek, rng, out);
    case keyEc:
    case keyX25519: return keyAgreement(r, *peer, cek, rng, out);
    default: return false;
  }
}

}  // namespace

bool PKCS7EnvelopedData::encrypt(blob content, const std::vector<CmsRecipient>& recipients, CmsContentCipher cipher,
                                 Rng& rng) {
  clear();
  const bool gcm = cipher == CmsContentCipher::aes128Gcm || cipher == CmsContentCipher::aes256Gcm;
  const bool wide = cipher == CmsContentCipher::aes256Cbc || cipher == CmsContentCipher::aes256Gcm;
  Bytes cek = randomBytes(rng, wide ? 32 : 16), iv = randomBytes(rng, gcm ? 12 : 16);
  if (recipients.empty() || cek.empty() || iv.empty() || content.size() > 0x7FFFFFF0u) return false;
  bool ok = true;
  for (const CmsRecipient& r : recipients) {
    recipientInfos.emplace_back();
    ok = ok && addRecipient(r, blob(cek), rng, &recipientInfos.back());
  }
  std::unique_ptr<Cipher> c = createCipher(gcm ? cipherAesGcm : cipherAesCbc, cek, 16);
  ct::wipe(cek.data(), cek.size());
  if (!ok || !c) {
    clear();
    return false;
  }
  authenticated = gcm;
  // Key agreement and password recipients raise the version: 2 for EnvelopedData (3 with a
  // password recipient); AuthEnvelopedData is always 0.
  for (const CmsRecipientInfo& r : recipientInfos) {
    if (r.kind == CmsRecipientKind::password) version = 3;
    else if (r.version != 0 && version < 2) version = 2;
  }
  if (gcm) version = 0;
  contentType = oid::idData.content().vec();
  const asn1::Oid& algOid = gcm ? (wide ? oid::aes256Gcm : oid::aes128Gcm) : (wide ? oid::aes256Cbc : oid::aes128Cbc);
  contentEncryptionAlgorithm = algorithm(algOid.content(), [&](DerEncoder& p) {
    if (!gcm) return p.addOctetString(blob(iv));
    p.sequence([&](DerEncoder& g) {
      g.addOctetString(blob(iv));
      g.addInt(asn1::tagInteger, 16);
    });
  });
  Bytes input = content.vec();
  if (!gcm) input.insert(input.end(), 16 - content.size() % 16, static_cast<unsigned char>(16 - content.size() % 16));
  const unsigned len = static_cast<unsigned>(input.size());
  Bytes out(c->ciphertextLength(len));
  c->setIV(iv.data(), static_cast<unsigned>(iv.size()));
  c->encrypt(input.data(), len, nullptr, 0, out.data());
  ct::wipe(input.data(), input.size());
  if (gcm) {
    mac.assign(out.end() - 16, out.end());
    out.resize(out.size() - 16);
  }
  encryptedContent = std::move(out);
  contentPresent = true;
  return true;
}

}  // namespace tessel
