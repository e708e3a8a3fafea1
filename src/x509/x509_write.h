// Writing the parts certificates, CRLs and requests share (not a public header): times, key
// identifiers, extensions and the usage flags.
#pragma once

#include <cstdint>
#include <vector>

#include "tessel/asn1.h"
#include "tessel/names.h"
#include "tessel/oids.h"
#include "tessel/timepoint.h"

namespace tessel::x509 {

// writeTime writes UTCTime for the years 1950 to 2049 and GeneralizedTime otherwise.
void writeTime(DerEncoder& e, const TimePoint& t);
// writeExtension writes Extension { OID, critical only when true, OCTET STRING value }.
void writeExtension(DerEncoder& e, const asn1::Oid& oid, bool critical, asn1::blob value);
// keyIdentifier is `hash` over the subjectPublicKey bits of a SubjectPublicKeyInfo (RFC 5280
// section 4.2.1.2, method 1 with the digest the host chose); empty when it does not parse.
std::vector<unsigned char> keyIdentifier(asn1::blob spki, unsigned hash);
// keyUsageValue writes the KeyUsage BIT STRING of bits 0..15 of `flags` (first byte = bits
// 0..7, the first named bit its top bit) with the trailing zero bits counted as unused; empty
// when no bit is set.
std::vector<unsigned char> keyUsageValue(std::uint32_t flags);
// extKeyUsageValue writes the ExtKeyUsageSyntax SEQUENCE of bits 16..22; empty when none.
std::vector<unsigned char> extKeyUsageValue(std::uint32_t flags);
// generalNamesValue writes a GeneralNames SEQUENCE.
std::vector<unsigned char> generalNamesValue(const std::vector<GeneralName>& names);
// authorityKeyIdValue writes AuthorityKeyIdentifier { [0] keyIdentifier }.
std::vector<unsigned char> authorityKeyIdValue(asn1::blob keyId);
// writeStoredInteger writes an INTEGER whose content bytes were kept as found (serials, CRL
// numbers); false when they are empty or longer than 20 bytes, as RFC 5280 bounds them.
bool writeStoredInteger(DerEncoder& e, asn1::blob content);

}  // namespace tessel::x509
