// Builders for signed objects (certificate, request, CRL) with very many extensions, shared by
// the tests and the benchmarks that check that extension lists cost linear time. The objects are
// well formed but unsigned: parsing looks at structure, not at the signature.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tessel/asn1.h"
#include "tessel/oids.h"

namespace tessel::test {

enum class SignedKind { certificate, request, crl };

// manyExtensionOid is OID 1.2.3.<i> (i below 2^21), unknown to the library.
inline std::vector<unsigned char> manyExtensionOid(unsigned i) {
  std::vector<unsigned char> oid = {0x2A, 0x03};
  for (int shift = 14; shift > 0; shift -= 7)
    if (i >> shift) oid.push_back(static_cast<unsigned char>(0x80 | ((i >> shift) & 0x7F)));
  oid.push_back(static_cast<unsigned char>(i & 0x7F));
  return oid;
}

// addManyExtensions writes SEQUENCE OF Extension: `count` non-critical extensions with distinct
// OIDs, except that with `repeatFirst` the last one repeats the first OID.
inline void addManyExtensions(DerEncoder& e, unsigned count, bool repeatFirst) {
  e.sequence([&](DerEncoder& list) {
    for (unsigned i = 0; i < count; ++i) {
      list.sequence([&](DerEncoder& ext) {
        ext.addOid(asn1::blob(manyExtensionOid(repeatFirst && i + 1 == count ? 0 : i)));
        ext.addOctetString({});
      });
    }
  });
}

// signedWithManyExtensions returns the DER of a `kind` object carrying `count` extensions.
inline std::vector<unsigned char> signedWithManyExtensions(SignedKind kind, unsigned count, bool repeatFirst) {
  // What comes before the extensions. Certificate: version 3, serial 1, sha256WithRSAEncryption,
  // empty issuer, valid 2020 to 2030, empty subject, an RSA key with an empty BIT STRING. Request:
  // version 0, empty name, the same key. CRL: version 2, the algorithm, empty issuer, this and next update.
  static const char* const kHeads[] = {
      ("a003020102020101300b06092a864886f70d01010b3000301e170d3230303130313030303030305a170d33303031303130303030"
       "30305a30003010300b06092a864886f70d010101030100"),
      "02010030003010300b06092a864886f70d010101030100",
      "020101300b06092a864886f70d01010b3000170d3230303130313030303030305a170d3330303130313030303030305a"};
  const std::string_view head = kHeads[static_cast<int>(kind)];
  DerEncoder e;
  e.sequence([&](DerEncoder& whole) {
    whole.sequence([&](DerEncoder& tbs) {
      for (std::size_t i = 0; i < head.size(); i += 2)
        tbs.data.push_back(static_cast<unsigned char>(std::stoul(std::string(head.substr(i, 2)), nullptr, 16)));
      if (kind == SignedKind::request) {
        tbs.element(asn1::implicitConstructedTag(0), [&](DerEncoder& attrs) {
          attrs.sequence([&](DerEncoder& attr) {
            attr.addOid(asn1::oid::extensionRequest.content());
            attr.element(asn1::tagSet, [&](DerEncoder& set) { addManyExtensions(set, count, repeatFirst); });
          });
        });
      } else {
        tbs.element(asn1::explicitTag(kind == SignedKind::crl ? 0 : 3),
                    [&](DerEncoder& x) { addManyExtensions(x, count, repeatFirst); });
      }
    });
    whole.sequence([](DerEncoder& a) { a.addOid(asn1::oid::sha256WithRsaEncryption.content()); });
    whole.addBitString({});
  });
  return std::move(e.data);
}

}  // namespace tessel::test
