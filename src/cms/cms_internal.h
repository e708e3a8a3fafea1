// Pieces of the CMS code shared between its files (not a public header).
#pragma once

#include <vector>

#include "tessel/asn1.h"
#include "tessel/cms.h"
#include "tessel/hash.h"

namespace tessel::cms {

// parseAttributes appends the Attributes of a SET OF Attribute content to `out`; false when
// one is not SEQUENCE { OID, SET OF values } or the content is malformed.
bool parseAttributes(asn1::blob content, std::vector<PKCS7Attribute>* out);
// sortDerSet puts the members of a SET OF into DER order: by their encodings, the shorter
// padded with zero bytes at its end.
void sortDerSet(std::vector<std::vector<unsigned char>>& members);
// derSetLess is the order sortDerSet sorts by.
bool derSetLess(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b);
// digestFromAlgorithm reads a digest AlgorithmIdentifier with absent or NULL parameters;
// hashNone for anything else.
HashID digestFromAlgorithm(asn1::blob der);

}  // namespace tessel::cms
