#include "tessel/req.h"

#include <iostream>

#include "tessel/pkcs8.h"
#include "x509/x509_ext.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;
using asn1::blob;

constexpr unsigned char kExtensionRequest[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x0E};
constexpr unsigned char kChallengePassword[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x09, 0x07};

}  // namespace

bool X509Req::parse(const unsigned char* data, unsigned len) {
  return unpackObj(blob(data, len)) && parseReq(blob(tbs));
}

bool X509Req::parseReq(blob der) {
  asn1::parser top(der);
  if (top.tag != 0x30 || !top.rest.empty()) return false;
  asn1::parser p(top.content);
  if (p.tag == 0x02) p.next();
  if (!subject.parse(p.takeElement())) return false;
  if (p.tag != 0x30) return false;
  publicKeyInfo = p.takeElement().vec();
  if (p.tag != 0xA0) return p.tag == asn1::tagEnd;
  for (asn1::parser a(p.takeContent()); a.tag == 0x30; a.next()) {
    asn1::parser attr(a.content);
    if (attr.tag != 0x06) return false;
    const blob oid = attr.takeContent();
    if (attr.tag != 0x31) return false;
    if (x509::oidIs(kExtensionRequest, oid)) {
      if (!parseExtensionRequest(attr.content)) return false;
    } else if (x509::oidIs(kChallengePassword, oid)) {
      asn1::parser s(attr.content);
      if (s.tag != 19) return false;
      challengePassword = s.takeString();
    } else {
      std::cout << "unknown attribute " << asn1::str(oid) << "\n";
    }
  }
  return p.tag == asn1::tagEnd;
}

bool X509Req::parseExtensionRequest(blob set) {
  asn1::parser seq(set);
  if (seq.tag != 0x30) return false;
  x509::ExtensionList extensions;
  for (asn1::parser x(seq.content); x.tag == 0x30; x.next()) {
    blob oid, value;
    bool critical;
    if (!extensions.read(x.content, &oid, &critical, &value)) return false;
    asn1::parser v(value);
    if (x509::oidIs(x509::kOidSubjectAltName, oid)) {
      if (!x509::readSubjectAltNames(value, critical, subjectAltNames)) return false;
    } else if (x509::oidIs(x509::kOidKeyUsage, oid)) {
      if (v.tag != 0x03) return false;
      // Requests have always read the bits big-endian, unlike certificates; stored requests
      // and their consumers depend on it.
      blob bits = v.content;
      if (!bits.empty()) bits.pop_front();
      if (bits.size() <= 4) {
        std::uint32_t n = 0;
        for (unsigned char b : bits) n = (n << 8) | b;
        keyUsage |= n;
      }
    } else if (x509::oidIs(x509::kOidExtKeyUsage, oid)) {
      if (v.tag != 0x30) return false;
      keyUsage |= x509::extKeyUsageBits(v.content);
    } else {
      std::cout << "unknown ext id=" << asn1::oidStr(oid) << "\n";
    }
  }
  return true;
}

bool X509Req::setPublicKey(const PublicKey& key) {
  publicKeyInfo = encodePkcs8PublicKey(key);
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
