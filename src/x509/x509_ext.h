// Extension reading shared by certificates, CRLs and requests (not a public header).
#pragma once

#include <cstdint>
#include <ostream>
#include <vector>

#include "tessel/asn1.h"
#include "tessel/names.h"

namespace tessel::x509 {

// OID content bytes of the extensions more than one object reads.
inline constexpr unsigned char kOidSubjectAltName[] = {0x55, 0x1D, 0x11};
inline constexpr unsigned char kOidKeyUsage[] = {0x55, 0x1D, 0x0F};
inline constexpr unsigned char kOidExtKeyUsage[] = {0x55, 0x1D, 0x25};
inline constexpr unsigned char kOidAuthorityKeyId[] = {0x55, 0x1D, 0x23};

// oidIs compares OID content bytes with a known OID.
template <std::size_t N>
bool oidIs(const unsigned char (&known)[N], asn1::blob oid) {
  return asn1::blob(known, N) == oid;
}

// Extensions walks the Extension SEQUENCEs of a list, rejecting repeated OIDs.
class ExtensionList {
 public:
  // read reads one Extension SEQUENCE content: OID, optional BOOLEAN critical (only 00 and
  // FF), OCTET STRING value. False when malformed or when the OID has already been read.
  bool read(asn1::blob ext, asn1::blob* oid, bool* critical, asn1::blob* value);

 private:
  std::vector<asn1::blob> seen_;
};

// readExtension is ExtensionList::read without the repetition check (CRL entries).
bool readExtension(asn1::blob ext, asn1::blob* oid, bool* critical, asn1::blob* value);
// readSubjectAltNames appends the GeneralNames of a subjectAltName value; false when it is
// not a SEQUENCE, a name fails, or a critical extension leaves the list empty.
bool readSubjectAltNames(asn1::blob value, bool critical, std::vector<GeneralName>& out);
// readAuthorityKeyId takes the keyIdentifier [0] of an AuthorityKeyIdentifier value, skipping
// the issuer and serial; false when the value has any other shape.
bool readAuthorityKeyId(asn1::blob value, std::vector<unsigned char>& out);
// extKeyUsageBits maps an ExtKeyUsageSyntax SEQUENCE content to keyUsage bits, printing
// "unknown extended key usage OID" for OIDs it does not know.
std::uint32_t extKeyUsageBits(asn1::blob seqContent);
// dumpNames writes "<indent>TYPE: DATA" for each name.
void dumpNames(const std::vector<GeneralName>& names, const char* indent, std::ostream& os);

}  // namespace tessel::x509
