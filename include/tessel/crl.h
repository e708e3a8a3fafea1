// X509Crl: a certificate revocation list, parsed from DER and dumped as text.
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <ostream>
#include <vector>

#include "tessel/x509.h"

namespace tessel {

class TESSEL_API X509Crl : public X509Base {
 public:
  struct RevokedCert {
    std::vector<unsigned char> serial;  // userCertificate INTEGER content
    TimePoint revocationDate;
    std::uint8_t reason = 255;  // CRLReason; 255 when the entry has none
  };

  DistinguishedName issuer;
  TimePoint thisUpdate;
  TimePoint nextUpdate;  // 0 when absent
  std::vector<RevokedCert> revoked;
  std::vector<unsigned char> authorityKeyId;
  std::vector<unsigned char> crlNumber;  // cRLNumber INTEGER content; empty when absent

  // parse reads a DER CRL; false on any structural fault or unsupported critical extension
  // (the object must then be discarded). Every field is copied.
  bool parse(const unsigned char* data, unsigned len);
  // dump writes the CRL's diagnostic text form.
  void dump(std::ostream& os) const;

  // updateTbs builds a v2 body from the fields, signed by the issuer's `key`: thisUpdate,
  // nextUpdate when set, the revoked entries and the cRLNumber and authority key id extensions.
  // An empty authorityKeyId is derived from `key` with digestAlgo; an empty crlNumber becomes
  // thisUpdate in seconds, which grows from one CRL to the next. False for a serial or CRL
  // number longer than 20 bytes.
  bool updateTbs(const PrivateKey& key, HashID hash) override;
  // serializeRevokedCerts writes the revokedCertificates SEQUENCE (each entry with its reason
  // code extension when it has one); empty when nothing is revoked, as the field is then left
  // out.
  std::vector<unsigned char> serializeRevokedCerts() const;

 private:
  bool parseBody(asn1::blob der);
  bool parseEntry(asn1::blob entry);
  bool parseCrlExtensions(asn1::blob list);
};

}  // namespace tessel
