// X.509 certificates: X509Base (the signed-object envelope shared with CRLs and requests) and
// X509Certificate with the decoded fields and extensions path validation relies on.
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tessel/asn1.h"
#include "tessel/hash.h"
#include "tessel/keys.h"
#include "tessel/names.h"
#include "tessel/timepoint.h"

namespace tessel {

// X509Base holds the parts of a signed object (certificate, CRL, request): the to-be-signed
// element as found, the outer signature algorithm and the signature bits.
class TESSEL_API X509Base {
 public:
  std::vector<unsigned char> tbs;        // whole TBS element, exactly as in the input
  std::vector<unsigned char> sigAlg;     // whole outer signatureAlgorithm SEQUENCE
  std::vector<unsigned char> signature;  // BIT STRING content without the unused-bits byte

  // digestAlgo is the digest a certificate being built derives its subject key identifier
  // with (SHA-1 unless the host changes it).
  static HashID digestAlgo;

  virtual ~X509Base() = default;
  // updateTbs rebuilds `tbs` from the object's fields, to be signed by `key` with `hash`; the
  // signature algorithm written inside is `sigAlg` when it names that key type and digest (as
  // sign leaves it), else the plain one of the pair, which is then also stored in `sigAlg`.
  // False when the fields cannot be written; X509Base itself has no fields and always fails.
  virtual bool updateTbs(const PrivateKey& key, HashID hash);

  // sign rebuilds the body with updateTbs and signs it: `sigAlg` and `signature` are set for
  // `key` and `params` (RSASSA-PSS included). False, with sigAlg and signature cleared, when
  // the key cannot sign that way or the body cannot be built.
  bool sign(const PrivateKey& key, const SignatureParams& params);
  // sign with a digest signs with the key type's usual scheme (PKCS#1 v1.5 for RSA).
  bool sign(const PrivateKey& key, HashID hash) { return sign(key, SignatureParams{hash}); }
  // verify checks the signature over `tbs` with `key`, reading the scheme and its parameters
  // (RSASSA-PSS included) from `sigAlg`, to the letter of the scheme; false on any mismatch.
  bool verify(const PublicKey& key) const;

 protected:
  // signatureAlgorithmFor returns the signature AlgorithmIdentifier updateTbs writes for `key`
  // and `hash` (see updateTbs) and keeps it in `sigAlg`; empty when the pair cannot sign.
  std::vector<unsigned char> signatureAlgorithmFor(const PrivateKey& key, HashID hash);

 public:
  // unpackObj splits a signed object SEQUENCE { tbs SEQUENCE, sigAlg SEQUENCE, BIT STRING }
  // and copies the three parts; false when the structure differs or anything follows.
  bool unpackObj(asn1::blob der);
  // serialize writes the signed object back from tbs, sigAlg and signature (with a 00
  // unused-bits byte).
  std::vector<unsigned char> serialize() const;
  // sigAlgName is oid2name of the signature algorithm OID, as the dumps show it.
  std::string sigAlgName() const;
};

// Bits of the keyUsage flag word shared by certificates and requests.
enum KeyUsageBit : std::uint32_t {
  kuDigitalSignature = 0x80,
  kuContentCommitment = 0x40,
  kuKeyEncipherment = 0x20,
  kuDataEncipherment = 0x10,
  kuKeyAgreement = 0x08,
  kuKeyCertSign = 0x04,
  kuCrlSign = 0x02,
  kuEncipherOnly = 0x01,
  kuDecipherOnly = 0x8000,
  ekuTlsServer = 0x10000,
  ekuTlsClient = 0x20000,
  ekuCodeSigning = 0x40000,
  ekuEmailProtection = 0x80000,
  ekuTimeStamping = 0x100000,
  ekuOcspSigning = 0x200000,
  ekuDvcs = 0x400000
};

class TESSEL_API X509Certificate : public X509Base {
 public:
  DistinguishedName issuer, subject;
  std::vector<GeneralName> subjectAltNames;
  std::uint32_t keyUsage = 0;
  bool selfSigned = false;
  std::vector<unsigned char> publicKeyInfo;  // whole SubjectPublicKeyInfo element
  std::vector<unsigned char> serial;         // serialNumber INTEGER content as found
  TimePoint notBefore, notAfter;
  std::vector<unsigned char> subjectKeyId;
  std::vector<unsigned char> authorityKeyId;
  std::vector<GeneralName> crlDistributionPoints;
  std::int32_t pathLen = -1;                // -1: no limit
  GeneralName permittedName, excludedName;  // the one subtree of each kind that is kept
  std::uint32_t isCa = 0;                   // 0 absent, 1 cA TRUE, 2 present without cA TRUE

  // parse reads a DER certificate. False on any structural fault or an unsupported critical
  // extension; the object is then partly filled and must not be used. Views are not kept:
  // every field is copied.
  bool parse(const unsigned char* data, unsigned len);
  // parsePublicKey reads publicKeyInfo; null when it cannot be read (or its key class is not
  // in this build).
  std::shared_ptr<PublicKey> parsePublicKey() const;
  // issuerDer returns the issuer Name element exactly as it stands in `tbs` (what CMS signer
  // identifiers must repeat byte for byte); empty when `tbs` does not parse.
  asn1::blob issuerDer() const;
  // findExtension looks up the extension `oid` in `tbs`: true, with its criticality and the
  // OCTET STRING content, when present; false when absent or `tbs` does not parse.
  bool findExtension(const asn1::blob& oid, bool* critical, asn1::blob* value) const;
  // setPublicKey stores the key's SubjectPublicKeyInfo; false when the key has no encoding.
  bool setPublicKey(const PublicKey& key);
  // setSubjectPublicKey stores the SubjectPublicKeyInfo of the key's public part only (a
  // private key object may be handed in); false when the key is not set.
  bool setSubjectPublicKey(const PublicKey& key);
  // dump writes the certificate's diagnostic text form.
  void dump(std::ostream& os) const;

  // updateTbs builds a v3 body from the fields, signed by the issuer's `key`. An empty serial
  // gets 16 random bytes; an empty subjectKeyId is derived from the subject key with digestAlgo
  // and an empty authorityKeyId from `key` the same way (so a self-signed certificate's equals
  // its subjectKeyId); selfSigned is set as parsing would set it. False when the serial is
  // longer than 20 bytes or publicKeyInfo is not a SubjectPublicKeyInfo.
  bool updateTbs(const PrivateKey& key, HashID hash) override;
  // serializeExtensions writes the Extensions SEQUENCE of the fields: basicConstraints
  // (critical on a CA), keyUsage (critical), extendedKeyUsage, subjectKeyIdentifier,
  // authorityKeyIdentifier, subjectAltName (critical when the subject is empty), CRL
  // distribution points and nameConstraints (critical); empty when there is none to write.
  std::vector<unsigned char> serializeExtensions() const;
  // dumpKeyUsage writes the "key usage" and "extended key usage" lines of `flags`; nothing for 0.
  static void dumpKeyUsage(unsigned flags, std::ostream& os);

 private:
  bool parseBody(asn1::blob der);
  bool parseExtensions(asn1::blob list);
};

}  // namespace tessel
