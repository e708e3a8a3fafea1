// Pieces of the PKCS#12 code shared between its files (not a public header).
#pragma once

#include <string>
#include <vector>

#include "tessel/pkcs12.h"

namespace tessel::pkcs12 {

// MacData is a PFX's MacData as read: the MAC's algorithm (a digest, or PBMAC1 with its
// parameters), the MAC itself, the salt and the iteration count of the PKCS#12 derivation.
struct MacData {
  std::vector<unsigned char> algorithm;  // whole AlgorithmIdentifier element
  std::vector<unsigned char> mac, salt;
  unsigned iterations = 1;
};

// parseMacData reads MacData { DigestInfo, macSalt, iterations DEFAULT 1 } (the whole element)
// and says what it is in `info`; false on a malformed element or an algorithm we cannot check.
bool parseMacData(asn1::blob der, MacData* out, PKCS12Mac* info);
// verifyMac says whether the MAC over `authSafe` (the AuthenticatedSafe's DER) verifies with
// `password`; the comparison takes the same time wherever the MAC differs. Counts above
// `maxIterations` never verify.
bool verifyMac(const MacData& mac, const PKCS12Mac& info, const PbePassword& password, asn1::blob authSafe,
               unsigned maxIterations);
// encodeMacData writes a MacData: HMAC with `hash` keyed through the PKCS#12 derivation (ID 3)
// with a fresh 8-byte salt. Empty when the random source fails.
std::vector<unsigned char> encodeMacData(HashID hash, const PbePassword& password, unsigned iterations,
                                         asn1::blob authSafe);
// bmpToUtf8 turns BMPString content (UTF-16BE, surrogate pairs allowed) into UTF-8; false for an
// odd length or a lone surrogate.
bool bmpToUtf8(asn1::blob bmp, std::string* out);

}  // namespace tessel::pkcs12
