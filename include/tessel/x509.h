// X.509 certificates: X509Base (the signed-object envelope shared with CRLs and requests) and
// X509Certificate with the decoded fields and extensions path validation relies on.
#pragma once

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
class X509Base {
 public:
  std::vector<unsigned char> tbs;        // whole TBS element, exactly as in the input
  std::vector<unsigned char> sigAlg;     // whole outer signatureAlgorithm SEQUENCE
  std::vector<unsigned char> signature;  // BIT STRING content without the unused-bits byte

  // digestAlgo is the digest a certificate being built derives its subject key identifier
  // with (SHA-1 unless the host changes it).
  static HashID digestAlgo;

  virtual ~X509Base() = default;

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

class X509Certificate : public X509Base {
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
  // setPublicKey stores the key's SubjectPublicKeyInfo; false when the key has no encoding.
  bool setPublicKey(const PublicKey& key);
  // setSubjectPublicKey stores the SubjectPublicKeyInfo of the key's public part only (a
  // private key object may be handed in); false when the key is not set.
  bool setSubjectPublicKey(const PublicKey& key);
  // dump writes the certificate's diagnostic text form.
  void dump(std::ostream& os) const;
  // dumpKeyUsage writes the "key usage" and "extended key usage" lines of `flags`; nothing for 0.
  static void dumpKeyUsage(unsigned flags, std::ostream& os);

 private:
  bool parseBody(asn1::blob der);
  bool parseExtensions(asn1::blob list);
};

}  // namespace tessel
