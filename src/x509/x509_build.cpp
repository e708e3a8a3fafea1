// Building a certificate's body from its fields.
#include "tessel/pkcs8.h"
#include "tessel/rng.h"
#include "tessel/x509.h"
#include "x509/x509_write.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;

// randomSerial is a positive 16-byte serial: 127 random bits, well past the 64 that RFC 5280's
// guidance asks of a CA, with a non-zero first byte so the encoding is minimal.
Bytes randomSerial() {
  Bytes serial(16);
  getDefaultRng().generate(serial.data(), static_cast<unsigned>(serial.size()));
  serial[0] = static_cast<unsigned char>((serial[0] & 0x7F) | 0x01);
  return serial;
}

Bytes basicConstraintsValue(const X509Certificate& c) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    if (c.isCa != 1) return;  // cA FALSE is the DEFAULT: an empty SEQUENCE
    s.addBool(asn1::tagBoolean, true);
    if (c.pathLen >= 0) s.addInt(asn1::tagInteger, static_cast<unsigned>(c.pathLen));
  });
  return std::move(e.data);
}

Bytes crlDistributionPointsValue(const std::vector<GeneralName>& names) {
  DerEncoder e;
  e.sequence([&](DerEncoder& points) {
    points.sequence([&](DerEncoder& point) {
      point.element(asn1::explicitTag(0), [&](DerEncoder& dpName) {
        dpName.element(asn1::implicitConstructedTag(0), [&](DerEncoder& fullName) {
          for (const GeneralName& n : names) fullName.addBytes(asn1::blob(n.serialize()));
        });
      });
    });
  });
  return std::move(e.data);
}

Bytes nameConstraintsValue(const GeneralName& permitted, const GeneralName& excluded) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    unsigned n = 0;
    for (const GeneralName* name : {&permitted, &excluded}) {
      const unsigned tag = asn1::implicitConstructedTag(n++);
      if (name->type == GeneralName::none) continue;
      s.element(tag, [&](DerEncoder& subtrees) {
        subtrees.sequence([&](DerEncoder& subtree) { subtree.addBytes(asn1::blob(name->serialize())); });
      });
    }
  });
  return std::move(e.data);
}

}  // namespace

Bytes X509Certificate::serializeExtensions() const {
  DerEncoder e;
  bool any = false;
  auto add = [&](const asn1::Oid& oid, bool critical, const Bytes& value) {
    if (value.empty()) return;
    x509::writeExtension(e, oid, critical, asn1::blob(value));
    any = true;
  };
  {
    DerScope list = e.beginSequence();
    if (isCa != 0) add(asn1::oid::basicConstraints, isCa == 1, basicConstraintsValue(*this));
    add(asn1::oid::keyUsage, true, x509::keyUsageValue(keyUsage));
    add(asn1::oid::extKeyUsage, false, x509::extKeyUsageValue(keyUsage));
    if (!subjectKeyId.empty()) {
      DerEncoder id;
      id.addOctetString(asn1::blob(subjectKeyId));
      add(asn1::oid::subjectKeyIdentifier, false, id.data);
    }
    if (!authorityKeyId.empty())
      add(asn1::oid::authorityKeyIdentifier, false, x509::authorityKeyIdValue(asn1::blob(authorityKeyId)));
    // With an empty subject the alternative names are the certificate's only identity.
    if (!subjectAltNames.empty())
      add(asn1::oid::subjectAltName, subject.empty(), x509::generalNamesValue(subjectAltNames));
    if (!crlDistributionPoints.empty())
      add(asn1::oid::cRLDistributionPoints, false, crlDistributionPointsValue(crlDistributionPoints));
    if (permittedName.type != GeneralName::none || excludedName.type != GeneralName::none)
      add(asn1::oid::nameConstraints, true, nameConstraintsValue(permittedName, excludedName));
  }
  return any ? std::move(e.data) : Bytes();
}

bool X509Certificate::updateTbs(const PrivateKey& key, HashID hash) {
  const Bytes alg = signatureAlgorithmFor(key, hash);
  const Bytes issuerSpki = encodeSubjectPublicKeyInfo(key);
  if (alg.empty() || issuerSpki.empty()) return false;
  if (serial.empty()) serial = randomSerial();
  if (subjectKeyId.empty()) subjectKeyId = x509::keyIdentifier(asn1::blob(publicKeyInfo), digestAlgo);
  if (subjectKeyId.empty()) return false;  // publicKeyInfo is not a SubjectPublicKeyInfo
  const bool sameKey = issuerSpki == publicKeyInfo;
  if (authorityKeyId.empty())
    authorityKeyId = sameKey ? subjectKeyId : x509::keyIdentifier(asn1::blob(issuerSpki), digestAlgo);
  DerEncoder e;
  {
    DerScope body = e.beginSequence();
    e.element(asn1::explicitTag(0), [](DerEncoder& v) { v.addInt(asn1::tagInteger, 2u); });  // v3
    if (!x509::writeStoredInteger(e, asn1::blob(serial))) return false;
    e.addBytes(asn1::blob(alg));
    e.addBytes(asn1::blob(issuer.serialize()));
    e.sequence([&](DerEncoder& validity) {
      x509::writeTime(validity, notBefore);
      x509::writeTime(validity, notAfter);
    });
    e.addBytes(asn1::blob(subject.serialize()));
    e.addBytes(asn1::blob(publicKeyInfo));
    const Bytes extensions = serializeExtensions();
    if (!extensions.empty())
      e.element(asn1::explicitTag(3), [&](DerEncoder& x) { x.addBytes(asn1::blob(extensions)); });
  }
  tbs = std::move(e.data);
  selfSigned = issuer == subject && !subjectKeyId.empty() && authorityKeyId == subjectKeyId;
  return true;
}

}  // namespace tessel
