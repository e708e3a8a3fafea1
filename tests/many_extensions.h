// Builders for signed objects (certificate, request, CRL) with very many extensions, shared by
// the tests and the benchmarks that check that extension lists cost linear time. The objects are
// well formed but unsigned: parsing looks at structure, not at the signature.
#pragma once

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
  const asn1::Oid& kSha256Rsa = asn1::oid::sha256WithRsaEncryption;
  const asn1::Oid& kRsa = asn1::oid::rsaEncryption;
  auto algorithm = [](DerEncoder& d, const asn1::Oid& oid) {
    d.sequence([&](DerEncoder& a) { a.addOid(oid.content()); });
  };
  auto emptyName = [](DerEncoder& d) { d.sequence([](DerEncoder&) {}); };
  auto time = [](DerEncoder& d, const char* text) {
    d.addPrimitive(asn1::tagUtcTime, asn1::blob(std::string_view(text)));
  };
  auto publicKeyInfo = [&](DerEncoder& d) {
    d.sequence([&](DerEncoder& k) {
      algorithm(k, kRsa);
      k.addBitString({});
    });
  };
  DerEncoder e;
  e.sequence([&](DerEncoder& whole) {
    whole.sequence([&](DerEncoder& tbs) {
      switch (kind) {
        case SignedKind::certificate:
          tbs.element(asn1::explicitTag(0), [](DerEncoder& v) { v.addInt(asn1::tagInteger, 2u); });
          tbs.addInt(asn1::tagInteger, 1u);
          algorithm(tbs, kSha256Rsa);
          emptyName(tbs);
          tbs.sequence([&](DerEncoder& validity) {
            time(validity, "200101000000Z");
            time(validity, "300101000000Z");
          });
          emptyName(tbs);
          publicKeyInfo(tbs);
          tbs.element(asn1::explicitTag(3), [&](DerEncoder& x) { addManyExtensions(x, count, repeatFirst); });
          break;
        case SignedKind::request:
          tbs.addInt(asn1::tagInteger, 0u);
          emptyName(tbs);
          publicKeyInfo(tbs);
          tbs.element(asn1::implicitConstructedTag(0), [&](DerEncoder& attrs) {
            attrs.sequence([&](DerEncoder& attr) {
              attr.addOid(asn1::oid::extensionRequest.content());
              attr.element(asn1::tagSet, [&](DerEncoder& set) { addManyExtensions(set, count, repeatFirst); });
            });
          });
          break;
        case SignedKind::crl:
          tbs.addInt(asn1::tagInteger, 1u);
          algorithm(tbs, kSha256Rsa);
          emptyName(tbs);
          time(tbs, "200101000000Z");
          time(tbs, "300101000000Z");
          tbs.element(asn1::explicitTag(0), [&](DerEncoder& x) { addManyExtensions(x, count, repeatFirst); });
          break;
      }
    });
    algorithm(whole, kSha256Rsa);
    whole.addBitString({});
  });
  return std::move(e.data);
}

}  // namespace tessel::test
