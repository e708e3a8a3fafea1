// Building a certification request's body from its fields.
#include "tessel/pkcs8.h"
#include "tessel/req.h"
#include "x509/x509_write.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;

bool printable(const std::string& s) {
  for (unsigned char c : s) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    std::string_view(" '()+,-./:=?").find(static_cast<char>(c)) != std::string_view::npos;
    if (!ok) return false;
  }
  return true;
}

void writeAttribute(DerEncoder& e, const asn1::Oid& oid, const Bytes& value) {
  DerScope attr = e.beginSequence();
  e.addOid(oid.content());
  e.element(asn1::tagSet, [&](DerEncoder& values) { values.addBytes(asn1::blob(value)); });
}

}  // namespace

bool X509Req::updateTbs(const PrivateKey& key, HashID hash) {
  if (signatureAlgorithmFor(key, hash).empty()) return false;
  const Bytes own = encodeSubjectPublicKeyInfo(key);
  if (publicKeyInfo.empty()) publicKeyInfo = own;
  if (own.empty() || publicKeyInfo != own) return false;  // a request is signed by its own key
  DerEncoder extensions;
  extensions.sequence([&](DerEncoder& list) {
    if (!subjectAltNames.empty())
      x509::writeExtension(list, asn1::oid::subjectAltName, subject.empty(),
                           asn1::blob(x509::generalNamesValue(subjectAltNames)));
    if (const Bytes ku = x509::keyUsageValue(keyUsage); !ku.empty())
      x509::writeExtension(list, asn1::oid::keyUsage, true, asn1::blob(ku));
    if (const Bytes eku = x509::extKeyUsageValue(keyUsage); !eku.empty())
      x509::writeExtension(list, asn1::oid::extKeyUsage, false, asn1::blob(eku));
  });
  DerEncoder e;
  {
    DerScope body = e.beginSequence();
    e.addInt(asn1::tagInteger, 0u);  // v1, the only version PKCS#10 has
    e.addBytes(asn1::blob(subject.serialize()));
    e.addBytes(asn1::blob(publicKeyInfo));
    DerScope attributes = e.beginElement(asn1::implicitConstructedTag(0));
    if (!challengePassword.empty()) {
      // Our reader takes PrintableString only; other text would not read back, so it fails here.
      if (!printable(challengePassword)) return false;
      DerEncoder value;
      value.addPrimitive(
          asn1::tagPrintableString,
          asn1::blob(reinterpret_cast<const unsigned char*>(challengePassword.data()), challengePassword.size()));
      writeAttribute(e, asn1::oid::challengePassword, value.data);
    }
    if (extensions.data.size() > 2) writeAttribute(e, asn1::oid::extensionRequest, extensions.data);
  }
  tbs = std::move(e.data);
  return true;
}

}  // namespace tessel
