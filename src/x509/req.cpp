#include "tessel/req.h"

#include "core/diag.h"
#include "tessel/pkcs8.h"
#include "x509/x509_ext.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;
using asn1::blob;

using asn1::Presence;

bool readSubjectAltName(X509Req& r, blob value, bool critical) {
  return x509::readSubjectAltNames(value, critical, r.subjectAltNames);
}

// readKeyUsage reads the KeyUsage bits big-endian, unlike certificates; stored requests and
// their consumers depend on it.
bool readKeyUsage(X509Req& r, blob value, bool) {
  blob bits;
  if (!asn1::parser(value).isAt(asn1::tagBitString, &bits)) return false;
  if (!bits.empty()) bits.pop_front();
  if (bits.size() <= 4) {
    std::uint32_t n = 0;
    for (unsigned char b : bits) n = (n << 8) | b;
    r.keyUsage |= n;
  }
  return true;
}

bool readExtKeyUsage(X509Req& r, blob value, bool) {
  blob purposes;
  if (!asn1::parser(value).isAt(asn1::tagSequence, &purposes)) return false;
  r.keyUsage |= x509::extKeyUsageBits(purposes);
  return true;
}

const x509::ExtensionReader<X509Req> kRequestExtensions[] = {
    {&asn1::oid::subjectAltName, readSubjectAltName},
    {&asn1::oid::keyUsage, readKeyUsage},
    {&asn1::oid::extKeyUsage, readExtKeyUsage},
};

}  // namespace

bool X509Req::parse(const unsigned char* data, unsigned len) {
  return unpackObj(blob(data, len)) && parseReq(blob(tbs));
}

bool X509Req::parseReq(blob der) {
  asn1::parser p;
  blob spki, attributes;
  if (!asn1::readOnly(der, asn1::tagSequence, &p)) return false;
  p.skipIf(asn1::tagInteger);  // version
  if (!subject.parse(p.takeElement())) return false;
  if (!p.readElement(asn1::tagSequence, &spki)) return false;
  publicKeyInfo = spki.vec();
  switch (p.readOptional(asn1::implicitConstructedTag(0), &attributes)) {
    case Presence::absent: return p.atEnd();
    case Presence::malformed: return false;
    case Presence::present: break;
  }
  for (asn1::parser a(attributes); a.isAt(asn1::tagSequence); a.next()) {
    asn1::parser attr(a.content);
    blob oid, values;
    if (!attr.read(asn1::tagOid, &oid) || !attr.isAt(asn1::tagSet, &values)) return false;
    if (asn1::oid::extensionRequest.is(oid)) {
      if (!parseExtensionRequest(values)) return false;
    } else if (asn1::oid::challengePassword.is(oid)) {
      asn1::parser s(values);
      if (!s.isAt(asn1::tagPrintableString)) return false;
      challengePassword = s.takeString();
    } else {
      diag() << "unknown attribute " << asn1::str(oid);
    }
  }
  return p.atEnd();
}

bool X509Req::parseExtensionRequest(blob set) {
  blob list;
  if (!asn1::parser(set).isAt(asn1::tagSequence, &list)) return false;
  x509::ExtensionList extensions;
  for (asn1::parser x(list); x.isAt(asn1::tagSequence); x.next()) {
    blob oid, value;
    bool critical;
    if (!extensions.read(x.content, &oid, &critical, &value)) return false;
    if (const auto* reader = x509::findReader(kRequestExtensions, oid)) {
      if (!reader->read(*this, value, critical)) return false;
    } else {
      diag() << "unknown ext id=" << asn1::oidStr(oid);
    }
  }
  return true;
}

bool X509Req::setPublicKey(const PublicKey& key) {
  publicKeyInfo = encodePkcs8PublicKey(key);
  return !publicKeyInfo.empty();
}

bool X509Req::setSubjectPublicKey(const PublicKey& key) {
  publicKeyInfo = encodeSubjectPublicKeyInfo(key);
  return !publicKeyInfo.empty();
}

void X509Req::dump(std::ostream& os) const {
  os << "REQ\n";
  os << "  name: <" << subject.str() << ">\n";
  os << "  extensions:\n";
  if (!challengePassword.empty()) os << "    challengePassword: " << challengePassword << "\n";
  if (!subjectAltNames.empty()) {
    os << "    subject alternative name: \n";
    x509::dumpNames(subjectAltNames, "      ", os);
  }
  X509Certificate::dumpKeyUsage(keyUsage, os);
  if (auto key = parsePkcs8PublicKey(blob(publicKeyInfo))) key->dump(os);
}

}  // namespace tessel
