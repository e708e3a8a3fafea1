// Signing: a new SignedData over content, by one or more signers.
#include <algorithm>

#include "cms/cms_internal.h"
#include "tessel/cms.h"
#include "tessel/oids.h"
#include "x509/x509_write.h"

namespace tessel {

using asn1::blob;
using Bytes = std::vector<unsigned char>;

namespace {

Bytes oidValue(blob oid) {
  DerEncoder e;
  e.addOid(oid);
  return std::move(e.data);
}

// digestAlgorithmId writes a digest AlgorithmIdentifier with its parameters absent, as RFC 5754
// prefers for the SHA-2 family.
Bytes digestAlgorithmId(HashID hash) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) { s.addOid(getHashOid(hash)); });
  return std::move(e.data);
}

// SignerPlan is how one signer signs: the content digest, and the scheme the key signs with
// (Ed25519 digests the content with SHA-512 and signs the attributes whole).
struct SignerPlan {
  HashID digest = hashNone;
  SignatureParams params;
  KeyType keyType = keyRsa;
};

bool planSigner(const CmsSigner& s, SignerPlan* plan) {
  if (!s.key || !s.certificate) return false;
  plan->keyType = s.key->getKeyType();
  plan->params = s.params;
  if (plan->keyType == keyEd25519) {
    plan->digest = hashSha512;
    plan->params = SignatureParams{};
  } else {
    plan->digest = s.params.hash;
  }
  if (getHashOid(plan->digest).empty()) return false;
  if (s.bySubjectKeyId ? s.certificate->subjectKeyId.empty() : s.certificate->issuerDer().empty()) return false;
  return !encodeSignatureAlgorithm(plan->keyType, plan->params).empty();
}

Bytes signedAttributeSet(const CmsSigner& s, const CmsSignOptions& options, blob contentType, blob digest) {
  std::vector<Bytes> encoded;
  encoded.push_back(PKCS7Attribute{asn1::oid::contentTypeAttr.content().vec(), {oidValue(contentType)}}.encode());
  if (options.withSigningTime) {
    DerEncoder t;
    x509::writeTime(t, options.signingTime);
    encoded.push_back(PKCS7Attribute{asn1::oid::signingTimeAttr.content().vec(), {t.data}}.encode());
  }
  DerEncoder d;
  d.addOctetString(digest);
  encoded.push_back(PKCS7Attribute{asn1::oid::messageDigestAttr.content().vec(), {d.data}}.encode());
  for (const PKCS7Attribute& a : s.extraSignedAttributes) encoded.push_back(a.encode());
  cms::sortDerSet(encoded);
  DerEncoder e;
  e.element(asn1::implicitConstructedTag(0), [&](DerEncoder& set) {
    for (const Bytes& a : encoded) set.addBytes(blob(a));
  });
  return std::move(e.data);
}

// Encoded pairs an object with its DER, the key of a SET OF's order.
template <class T>
using Encoded = std::vector<std::pair<Bytes, T>>;

void addCertificate(Encoded<std::shared_ptr<X509Certificate>>* list, const std::shared_ptr<X509Certificate>& cert) {
  Bytes der = cert->serialize();
  for (const auto& have : *list)
    if (have.first == der) return;
  list->emplace_back(std::move(der), cert);
}

// inDerOrder sorts by the encodings (stable, as DER's SET OF order asks) and hands out the objects.
template <class T>
std::vector<T> inDerOrder(Encoded<T>& list, std::vector<Bytes>* encodings = nullptr) {
  std::stable_sort(list.begin(), list.end(),
                   [](const auto& a, const auto& b) { return cms::derSetLess(a.first, b.first); });
  std::vector<T> out;
  for (auto& [der, object] : list) {
    if (encodings) encodings->push_back(std::move(der));
    out.push_back(std::move(object));
  }
  return out;
}

}  // namespace

bool PKCS7SignedData::sign(blob data, const std::vector<CmsSigner>& signers, const CmsSignOptions& options) {
  clear();
  contentType = options.contentType.empty() ? asn1::oid::idData.content().vec() : options.contentType;
  // Without signed attributes nothing would bind another content type to the signature.
  const bool isData = asn1::oid::idData.is(blob(contentType));
  if (signers.empty() || (!options.signedAttributes && !isData)) return false;
  detached = options.detached;
  if (!detached) content = data.vec();
  bool anyKeyId = false;
  Encoded<std::shared_ptr<X509Certificate>> certs;
  Encoded<PKCS7SignerInfo> infos;
  for (const CmsSigner& s : signers) {
    SignerPlan plan;
    if (!planSigner(s, &plan)) {
      clear();
      return false;
    }
    const Bytes digest = calcDigest(plan.digest, data);
    PKCS7SignerInfo info;
    info.version = s.bySubjectKeyId ? 3 : 1;
    anyKeyId |= s.bySubjectKeyId;
    if (s.bySubjectKeyId) {
      info.subjectKeyId = s.certificate->subjectKeyId;
    } else {
      info.issuer = s.certificate->issuerDer().vec();
      info.serial = s.certificate->serial;
    }
    info.digestAlgorithm = digestAlgorithmId(plan.digest);
    info.signatureAlgorithm = encodeSignatureAlgorithm(plan.keyType, plan.params);
    if (options.signedAttributes) {
      info.signedAttrs = signedAttributeSet(s, options, blob(contentType), blob(digest));
      cms::parseAttributes(asn1::parser(blob(info.signedAttrs)).content, &info.signedAttributes);
      info.signature = s.key->sign(blob(info.signedAttributesForSignature()), plan.params);
    } else {
      info.signature = s.key->sign(data, plan.params);
    }
    if (digest.empty() || info.signature.empty()) {
      clear();
      return false;
    }
    const Bytes algorithm = info.digestAlgorithm;
    bool listed = false;
    for (const Bytes& a : digestAlgorithms) listed |= a == algorithm;
    if (!listed) digestAlgorithms.push_back(algorithm);
    if (options.withCertificates) {
      addCertificate(&certs, s.certificate);
      for (const std::shared_ptr<X509Certificate>& c : s.chain)
        if (c) addCertificate(&certs, c);
    }
    Bytes encoded = info.encode();
    infos.emplace_back(std::move(encoded), std::move(info));
  }
  // DER orders every SET OF; OpenSSL does the same, so the signer order it reports is this one.
  cms::sortDerSet(digestAlgorithms);
  certificates = inDerOrder(certs, &certificateDer);
  signerInfos = inDerOrder(infos);
  version = (anyKeyId || !isData) ? 3 : 1;
  return true;
}

}  // namespace tessel
