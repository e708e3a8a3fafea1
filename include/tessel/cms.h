// CMS SignedData (RFC 5652, the PKCS#7 signed-data content type): reading and printing a
// ContentInfo that carries one, checking its signers, and signing content with one or more keys.
//
// Only DER is read: indefinite lengths (BER streaming, as `openssl cms -stream` writes) are
// refused, and so are constructed OCTET STRINGs.
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tessel/algorithm_id.h"
#include "tessel/asn1.h"
#include "tessel/cert_store.h"
#include "tessel/crl.h"
#include "tessel/keys.h"
#include "tessel/timepoint.h"
#include "tessel/x509.h"

namespace tessel {

// PKCS7Attribute is one CMS attribute: its type and the values of its SET, each a whole DER
// element as found.
struct TESSEL_API PKCS7Attribute {
  std::vector<unsigned char> type;                 // OID content bytes
  std::vector<std::vector<unsigned char>> values;  // whole elements

  // encode writes SEQUENCE { OID, SET OF values }, the values in the order held.
  std::vector<unsigned char> encode() const;
};

// PKCS7SignerInfo is one SignerInfo: who signed (issuer and serial number, or subject key
// identifier), with which digest and signature algorithm, over which attributes.
class TESSEL_API PKCS7SignerInfo {
 public:
  unsigned version = 1;                           // 1: issuer and serial; 3: subject key id
  std::vector<unsigned char> issuer;              // whole issuer Name element (version 1)
  std::vector<unsigned char> serial;              // serialNumber INTEGER content (version 1)
  std::vector<unsigned char> subjectKeyId;        // version 3
  std::vector<unsigned char> digestAlgorithm;     // whole AlgorithmIdentifier element
  std::vector<unsigned char> signatureAlgorithm;  // whole AlgorithmIdentifier element
  std::vector<unsigned char> signedAttrs;         // whole [0] element as found; empty when absent
  std::vector<PKCS7Attribute> signedAttributes;
  std::vector<PKCS7Attribute> unsignedAttributes;
  std::vector<unsigned char> signature;

  // parse reads one SignerInfo SEQUENCE (the whole element); false on any structural fault,
  // a version other than 1 or 3, or an identifier that does not match the version.
  bool parse(asn1::blob der);
  // encode writes the SignerInfo back; the signed attributes are written exactly as held in
  // signedAttrs, since the signature covers those bytes.
  std::vector<unsigned char> encode() const;
  // dump writes the signer's diagnostic text, one field a line, each indented by `indent`.
  void dump(std::ostream& os, const std::string& indent) const;

  // digest is the digest algorithm's HashID (absent or NULL parameters); hashNone when unknown.
  HashID digest() const;
  // identifies says whether `cert` is the certificate this signer names.
  bool identifies(const X509Certificate& cert) const;
  // findSignedAttribute returns the signed attribute of type `oid`, or null.
  const PKCS7Attribute* findSignedAttribute(asn1::blob oid) const;
  // signedAttributesForSignature is the DER the signature covers: the signed attributes with
  // their [0] tag replaced by SET OF (RFC 5652, 5.4); empty when there are none.
  std::vector<unsigned char> signedAttributesForSignature() const;
};

// CmsCode says why a SignedData did not verify; cmsValid is success.
enum CmsCode : unsigned {
  cmsValid = 0,
  cmsNoSigners = 1,             // no SignerInfo to check
  cmsNoContent = 2,             // detached, and no content was given
  cmsUnsupportedAlgorithm = 3,  // digest or signature algorithm we cannot check
  cmsSignerNotFound = 4,        // no certificate (in the message or the store) names the signer
  cmsBadKey = 5,                // the signer certificate's key cannot be read
  cmsMissingAttribute = 6,      // contentType or messageDigest absent, or not single-valued
  cmsContentTypeMismatch = 7,   // contentType attribute differs from the encapsulated type
  cmsDigestMismatch = 8,        // messageDigest differs from the content's digest
  cmsBadSignature = 9,          // the signature does not verify with the signer's key
  cmsUntrusted = 10,            // the signer certificate's path did not validate
};

// CmsVerifyOptions says what a verification may use beyond the message itself.
struct TESSEL_API CmsVerifyOptions {
  asn1::blob detachedContent;               // the content, when the message carries none
  const CertificateStore* store = nullptr;  // where signer certificates are also looked for
  bool validatePath = false;                // validate each signer's path through `store`
  TimePoint at = TimePoint::now();          // the validation time
};

// CmsVerifyResult is the outcome: a CmsCode, a one-line reason for anything but success, the
// signer at fault (index into signerInfos) and, on success, the signers' certificates in order.
struct TESSEL_API CmsVerifyResult {
  unsigned code = cmsValid;
  std::string reason;
  std::size_t signerIndex = 0;
  std::vector<std::shared_ptr<X509Certificate>> signerCertificates;
  explicit operator bool() const { return code == cmsValid; }
};

// CmsSigner is one signer of a new SignedData: the key, its certificate (whose issuer and
// serial number name the signer, or whose subject key id does when `bySubjectKeyId` is set),
// the certificates to include beside it, and how to sign. The digest of `params` also digests
// the content; Ed25519 signers (hashNone) digest it with SHA-512, as RFC 8419 requires.
struct TESSEL_API CmsSigner {
  const PrivateKey* key = nullptr;
  std::shared_ptr<X509Certificate> certificate;
  std::vector<std::shared_ptr<X509Certificate>> chain;
  SignatureParams params{hashSha256};
  bool bySubjectKeyId = false;
  std::vector<PKCS7Attribute> extraSignedAttributes;  // after contentType, signingTime, messageDigest
};

// CmsSignOptions says how the content is wrapped.
struct TESSEL_API CmsSignOptions {
  bool detached = false;         // leave the content out of the message
  bool signedAttributes = true;  // without them the signature covers the content itself
  TimePoint signingTime = TimePoint::now();
  bool withSigningTime = true;
  bool withCertificates = true;            // include each signer's certificate and chain
  std::vector<unsigned char> contentType;  // OID content; empty: id-data
};

// PKCS7SignedData is a ContentInfo of type signed-data and what it holds.
class TESSEL_API PKCS7SignedData {
 public:
  // kMaxDepth bounds how deeply signed-data may nest inside signed-data (a message signed
  // again as a whole); parse refuses anything deeper.
  static constexpr unsigned kMaxDepth = 4;

  unsigned version = 1;
  std::vector<std::vector<unsigned char>> digestAlgorithms;    // whole AlgorithmIdentifier elements
  std::vector<unsigned char> contentType;                      // eContentType OID content
  bool detached = false;                                       // no eContent
  std::vector<unsigned char> content;                          // eContent OCTET STRING content
  std::unique_ptr<PKCS7SignedData> nested;                     // when the content is signed-data
  std::vector<std::vector<unsigned char>> certificateDer;      // as found, in order
  std::vector<std::shared_ptr<X509Certificate>> certificates;  // those that parse
  std::vector<std::vector<unsigned char>> crlDer;
  std::vector<std::shared_ptr<X509Crl>> crls;  // those that parse
  std::vector<PKCS7SignerInfo> signerInfos;

  PKCS7SignedData() = default;
  PKCS7SignedData(const PKCS7SignedData&) = delete;
  PKCS7SignedData& operator=(const PKCS7SignedData&) = delete;

  // parse reads a ContentInfo SEQUENCE { id-signedData, [0] EXPLICIT SignedData }; `depth` is
  // how deep this message sits inside others (0 for a message of its own). False on any
  // structural fault or when nesting passes kMaxDepth; the object is then partly filled and
  // must not be used. Certificates and CRLs that do not parse are kept only as DER.
  bool parse(asn1::blob der, unsigned depth);
  // dump writes the diagnostic text: version, content type and size, digest algorithms,
  // certificates (subject and issuer), CRLs and each signer.
  void dump(std::ostream& os) const;
  // encode writes the ContentInfo back from the fields.
  std::vector<unsigned char> encode() const;

  // verify checks every signer: the signer's certificate is found among `certificates` or in
  // `options.store`; with signed attributes, contentType matches and messageDigest equals the
  // content's digest, and the signature covers the attributes; without them, it covers the
  // content. With `options.validatePath` the certificate's path must validate through the
  // store at `options.at`. The result says which check failed for which signer.
  CmsVerifyResult verify(const CmsVerifyOptions& options = {}) const;

  // sign fills this object with a new SignedData over `content` by each of `signers` (kept,
  // like every SET OF, in DER order, which need not be the order given). False,
  // with the object cleared, when a signer lacks a key or certificate or cannot sign as asked.
  bool sign(asn1::blob content, const std::vector<CmsSigner>& signers, const CmsSignOptions& options = {});

 private:
  bool parseSignedData(asn1::parser& p, unsigned depth);
  void clear();
};

}  // namespace tessel
