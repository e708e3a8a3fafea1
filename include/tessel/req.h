// X509Req: a PKCS#10 certificate signing request, parsed from DER and dumped as text.
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "tessel/x509.h"

namespace tessel {

class TESSEL_API X509Req : public X509Base {
 public:
  DistinguishedName subject;
  std::vector<unsigned char> publicKeyInfo;  // whole SubjectPublicKeyInfo element
  std::string challengePassword;
  std::vector<GeneralName> subjectAltNames;
  std::uint32_t keyUsage = 0;  // bits as X509Certificate::keyUsage

  // parse reads a DER request; false on a structural fault (unknown attributes and extensions
  // only print a line). Every field is copied.
  bool parse(const unsigned char* data, unsigned len);
  // parseReq reads the CertificationRequestInfo element.
  bool parseReq(asn1::blob der);
  // setPublicKey stores the key's SubjectPublicKeyInfo; false when the key has no encoding.
  bool setPublicKey(const PublicKey& key);
  // setSubjectPublicKey stores the SubjectPublicKeyInfo of the key's public part only (a
  // private key object may be handed in); false when the key is not set.
  bool setSubjectPublicKey(const PublicKey& key);
  // dump writes the request's diagnostic text form.
  void dump(std::ostream& os) const;

  // updateTbs builds the CertificationRequestInfo from the fields for signing by the request's
  // own `key`: an empty publicKeyInfo is set from the key's public part; the attributes hold the
  // challenge password when set and an extension request with the alternative names and key
  // usages. False when publicKeyInfo is not the key's own.
  bool updateTbs(const PrivateKey& key, HashID hash) override;

 private:
  bool parseExtensionRequest(asn1::blob set);
};

}  // namespace tessel
