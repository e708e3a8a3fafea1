// Verification: every signer of a SignedData, with the reason the first failing one fails.
#include <string>

#include "cms/cms_internal.h"
#include "tessel/cms.h"
#include "tessel/oids.h"
#include "tessel/x509_path.h"

namespace tessel {

using asn1::blob;
using Bytes = std::vector<unsigned char>;

namespace {

CmsVerifyResult failure(unsigned code, std::size_t index, std::string reason) {
  CmsVerifyResult r;
  r.code = code;
  r.signerIndex = index;
  r.reason = "signer " + std::to_string(index) + ": " + std::move(reason);
  return r;
}

// singleValue is the only value of a signed attribute, or null when the attribute is absent or
// has several values (RFC 5652 allows exactly one for contentType and messageDigest).
const Bytes* singleValue(const PKCS7SignerInfo& s, const asn1::Oid& type) {
  const PKCS7Attribute* a = s.findSignedAttribute(type.content());
  return a && a->values.size() == 1 ? &a->values[0] : nullptr;
}

// signatureScheme reads the SignerInfo's signature algorithm. Besides the signature OIDs, the
// bare key OIDs (rsaEncryption, as OpenSSL writes it, and id-ecPublicKey) are read as the key
// type's usual scheme over the signer's digest. A signature OID naming another digest than the
// digest algorithm is refused.
bool signatureScheme(const PKCS7SignerInfo& s, HashID digest, KeyType* type, SignatureParams* params) {
  if (parseSignatureAlgorithm(blob(s.signatureAlgorithm), type, params))
    return params->hash == hashNone ? *type == keyEd25519 : params->hash == digest;
  asn1::parser p;
  blob oid;
  if (!asn1::readOnly(blob(s.signatureAlgorithm), asn1::tagSequence, &p) || !p.read(asn1::tagOid, &oid)) return false;
  p.skipIf(asn1::tagNull);
  if (!p.atEnd()) return false;
  if (asn1::oid::rsaEncryption.is(oid)) *type = keyRsa;
  else if (asn1::oid::ecPublicKey.is(oid)) *type = keyEc;
  else return false;
  *params = SignatureParams{digest};
  return true;
}

std::shared_ptr<X509Certificate> findSigner(const PKCS7SignedData& sd, const PKCS7SignerInfo& s,
                                            const CertificateStore* store) {
  for (const std::shared_ptr<X509Certificate>& c : sd.certificates)
    if (s.identifies(*c)) return c;
  if (!store) return nullptr;
  return store->findCertificate([&s](const X509Certificate& c) { return s.identifies(c); });
}

// checkAttributes checks contentType and messageDigest against the content.
CmsVerifyResult checkAttributes(const PKCS7SignedData& sd, const PKCS7SignerInfo& s, std::size_t i, HashID digest,
                                blob data) {
  const Bytes* type = singleValue(s, asn1::oid::contentTypeAttr);
  const Bytes* md = singleValue(s, asn1::oid::messageDigestAttr);
  if (!type || !md) return failure(cmsMissingAttribute, i, "contentType or messageDigest attribute missing");
  blob typeOid, mdValue;
  if (!asn1::parser(blob(*type)).isAt(asn1::tagOid, &typeOid) || typeOid != blob(sd.contentType))
    return failure(cmsContentTypeMismatch, i, "contentType attribute differs from the content type");
  if (!asn1::parser(blob(*md)).isAt(asn1::tagOctetString, &mdValue) || mdValue != blob(calcDigest(digest, data)))
    return failure(cmsDigestMismatch, i, "message digest differs from the content's digest");
  return {};
}

// messageStore offers the message's own certificates as issuers beside the host's store, for
// building a signer's path; trust anchors still come only from the host's store.
class MessageIssuers : public CertificateStore {
 public:
  MessageIssuers(const PKCS7SignedData& sd, const CertificateStore& store) : sd_(sd), store_(store) {}
  std::shared_ptr<X509Certificate> findIssuer(const DistinguishedName& issuer, const blob& keyId) const override {
    if (auto c = store_.findIssuer(issuer, keyId)) return c;
    for (const std::shared_ptr<X509Certificate>& c : sd_.certificates)
      if (c->subject == issuer && (keyId.empty() || c->subjectKeyId.empty() || blob(c->subjectKeyId) == keyId))
        return c;
    return nullptr;
  }
  std::shared_ptr<X509Crl> findCrl(const X509Certificate& cert) const override { return store_.findCrl(cert); }

 private:
  const PKCS7SignedData& sd_;
  const CertificateStore& store_;
};

CmsVerifyResult checkPath(const PKCS7SignedData& sd, std::shared_ptr<X509Certificate> cert, std::size_t i,
                          const CmsVerifyOptions& options) {
  if (!options.store) return failure(cmsUntrusted, i, "no certificate store to validate the signer with");
  std::vector<std::shared_ptr<X509Certificate>> chain{cert};
  x509BuildPath(MessageIssuers(sd, *options.store), chain, nullptr);
  std::string why;
  const unsigned code = x509ValidatePath(chain, *options.store, options.at, "", ol::IPAddr6(), "", false, &why);
  if (code == pathValid) return {};
  return failure(cmsUntrusted, i, "signer certificate path: " + (why.empty() ? std::string(pathCodeText(code)) : why));
}

CmsVerifyResult verifySigner(const PKCS7SignedData& sd, std::size_t i, blob data, const CmsVerifyOptions& options,
                             std::shared_ptr<X509Certificate>* signer) {
  const PKCS7SignerInfo& s = sd.signerInfos[i];
  const HashID digest = s.digest();
  KeyType type;
  SignatureParams params;
  if (digest == hashNone || !signatureScheme(s, digest, &type, &params))
    return failure(cmsUnsupportedAlgorithm, i, "unsupported digest or signature algorithm");
  std::shared_ptr<X509Certificate> cert = findSigner(sd, s, options.store);
  if (!cert) return failure(cmsSignerNotFound, i, "signer certificate not found");
  std::shared_ptr<PublicKey> key = cert->parsePublicKey();
  if (!key) return failure(cmsBadKey, i, "signer certificate key unreadable");
  if (key->getKeyType() != type) return failure(cmsUnsupportedAlgorithm, i, "signature algorithm does not fit the key");
  Bytes signedBytes;
  if (!s.signedAttrs.empty()) {
    if (CmsVerifyResult r = checkAttributes(sd, s, i, digest, data); !r) return r;
    signedBytes = s.signedAttributesForSignature();
  }
  const blob message = s.signedAttrs.empty() ? data : blob(signedBytes);
  if (!key->verify(message, blob(s.signature), params)) return failure(cmsBadSignature, i, "signature does not verify");
  if (options.validatePath)
    if (CmsVerifyResult r = checkPath(sd, cert, i, options); !r) return r;
  *signer = std::move(cert);
  return {};
}

}  // namespace

CmsVerifyResult PKCS7SignedData::verify(const CmsVerifyOptions& options) const {
  CmsVerifyResult result;
  if (signerInfos.empty()) {
    result.code = cmsNoSigners;
    result.reason = "no signers";
    return result;
  }
  if (detached && options.detachedContent.empty()) {
    result.code = cmsNoContent;
    result.reason = "detached content not given";
    return result;
  }
  const blob data = detached ? options.detachedContent : blob(content);
  for (std::size_t i = 0; i < signerInfos.size(); ++i) {
    std::shared_ptr<X509Certificate> signer;
    if (CmsVerifyResult r = verifySigner(*this, i, data, options, &signer); !r) return r;
    result.signerCertificates.push_back(std::move(signer));
  }
  return result;
}

}  // namespace tessel
