#include "tessel/crl.h"

#include <iostream>

#include "x509/x509_ext.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;
using asn1::blob;

constexpr unsigned char kReasonCode[] = {0x55, 0x1D, 0x15};
constexpr unsigned char kCrlNumber[] = {0x55, 0x1D, 0x14};
constexpr unsigned char kIssuingDistributionPoint[] = {0x55, 0x1D, 0x1C};

// reasonName follows the codes our stored CRL reports have always shown: 7 is "remove from
// crl" and 8 has no name.
const char* reasonName(unsigned reason) {
  static const char* const kNames[] = {"unspecified",          "key compromise",   "ca compromise",
                                       "affiliation changed",  "superseded",       "cessation of operation",
                                       "certificate hold",     "remove from crl",  "",
                                       "privilge withdrawn",   "aa compromise"};
  return reason < std::size(kNames) ? kNames[reason] : "";
}

}  // namespace

bool X509Crl::parse(const unsigned char* data, unsigned len) {
  return unpackObj(blob(data, len)) && parseBody(blob(tbs));
}

bool X509Crl::parseBody(blob der) {
  asn1::parser top(der);
  if (top.tag != 0x30 || !top.rest.empty()) return false;
  asn1::parser p(top.content);
  if (p.tag == 0x02) p.next();
  if (p.tag != 0x30 || asn1::parser(p.content).tag != 0x06) return false;
  p.next();
  if (!issuer.parse(p.takeElement())) return false;
  if (!thisUpdate.parse(p)) return false;
  if ((p.tag == 23 || p.tag == 24) && !nextUpdate.parse(p)) return false;
  if (p.tag == 0x30) {
    for (asn1::parser e(p.content); e.tag == 0x30; e.next())
      if (!parseEntry(e.content)) return false;
    p.next();
  }
  if (p.tag != 0xA0) return p.tag == asn1::tagEnd;
  asn1::parser wrapper(p.takeContent());
  if (wrapper.tag != 0x30 || !parseCrlExtensions(wrapper.content)) return false;
  return p.tag == asn1::tagEnd;
}

bool X509Crl::parseEntry(blob entry) {
  asn1::parser p(entry);
  if (p.tag != 0x02) return false;
  RevokedCert rc;
  rc.serial = p.takeContent().vec();
  if (!rc.revocationDate.parse(p)) return false;
  if (p.tag == 0x30) {
    for (asn1::parser x(p.content); x.tag == 0x30; x.next()) {
      blob oid, value;
      bool critical;
      if (!x509::readExtension(x.content, &oid, &critical, &value)) return false;
      if (x509::oidIs(kReasonCode, oid)) {
        asn1::parser v(value);
        if (v.tag != 10) return false;
        rc.reason = static_cast<std::uint8_t>(v.takeUInt());
      } else {
        std::cout << "unknown crlEntry ext id=" << asn1::oidStr(oid) << ", critical: " << critical << "\n";
        if (critical) return false;
      }
    }
  }
  revoked.push_back(std::move(rc));
  return true;
}

bool X509Crl::parseCrlExtensions(blob list) {
  x509::ExtensionList extensions;
  for (asn1::parser x(list); x.tag != asn1::tagEnd; x.next()) {
    if (x.tag != 0x30) return false;
    blob oid, value;
    bool critical;
    if (!extensions.read(x.content, &oid, &critical, &value)) return false;
    asn1::parser v(value);
    if (x509::oidIs(kCrlNumber, oid)) {
      if (v.tag != 0x02) return false;
      crlNumber = v.content.vec();
    } else if (x509::oidIs(x509::kOidAuthorityKeyId, oid)) {
      if (!x509::readAuthorityKeyId(value, authorityKeyId)) return false;
    } else if (x509::oidIs(kIssuingDistributionPoint, oid)) {
      std::cout << "ignoring crl ext issuingDistributionPoint\n";
    } else {
      std::cout << "unknown crl ext id=" << asn1::oidStr(oid) << ", critical: " << critical << "\n";
      if (critical) return false;
    }
  }
  return true;
}

void X509Crl::dump(std::ostream& os) const {
  os << "CRL\n";
  os << "  issuer: <" << issuer.str() << ">\n";
  os << "  lastUpdate: " << thisUpdate.toString() << "\n";
  if (nextUpdate.seconds() != 0) os << "  nextUpdate: " << nextUpdate.toString() << "\n";
  os << "  CRL extensions:\n";
  if (!authorityKeyId.empty()) os << "    authority key id: " << asn1::str(blob(authorityKeyId)) << "\n";
  if (!crlNumber.empty()) os << "    CRL number HEX: " << asn1::str(blob(crlNumber)) << "\n";
  os << "  revoked certs:" << (revoked.empty() ? " (empty)" : "") << "\n";
  for (const RevokedCert& rc : revoked) {
    os << "    serialNr: " << asn1::str(blob(rc.serial)) << "\n";
    os << "      revocationData: " << rc.revocationDate.toString() << "\n";
    if (rc.reason < 255) os << "      extensions:\n        reasonCode: " << reasonName(rc.reason) << "\n";
  }
  os << "  signed with: " << sigAlgName() << "\n";
}

}  // namespace tessel
