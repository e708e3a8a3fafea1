// Extension reading shared by certificates, CRLs and requests (not a public header).
#pragma once

#include <cstdint>
#include <ostream>
#include <set>
#include <vector>

#include "tessel/asn1.h"
#include "tessel/names.h"
#include "tessel/oids.h"

namespace tessel::x509 {

// ExtensionReader ties an extension OID to the function that reads its value (the OCTET STRING
// content) into the object being parsed; the function's false fails the object.
template <class Object>
struct ExtensionReader {
  const asn1::Oid* oid;
  bool (*read)(Object& into, asn1::blob value, bool critical);
};

// findReader returns the entry of `oid` in `table`, or null when the extension is unknown.
template <class Object, std::size_t N>
const ExtensionReader<Object>* findReader(const ExtensionReader<Object> (&table)[N], asn1::blob oid) {
  for (const ExtensionReader<Object>& r : table)
    if (r.oid->is(oid)) return &r;
  return nullptr;
}

// Extensions walks the Extension SEQUENCEs of a list, rejecting repeated OIDs.
class ExtensionList {
 public:
  // read reads one Extension SEQUENCE content: OID, optional BOOLEAN critical (only 00 and
  // FF), OCTET STRING value. False when malformed or when the OID has already been read.
  // The OIDs seen are kept ordered, so a list of n extensions costs O(n log n).
  bool read(asn1::blob ext, asn1::blob* oid, bool* critical, asn1::blob* value);

 private:
  std::set<asn1::blob> seen_;
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
