#include "tessel/crl.h"

#include "core/diag.h"
#include "x509/x509_ext.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;
using asn1::blob;

using asn1::Presence;

// reasonName follows the codes our stored CRL reports have always shown: 7 is "remove from
// crl" and 8 has no name.
const char* reasonName(unsigned reason) {
  static const char* const kNames[] = {"unspecified",         "key compromise",  "ca compromise",
                                       "affiliation changed", "superseded",      "cessation of operation",
                                       "certificate hold",    "remove from crl", "",
                                       "privilge withdrawn",  "aa compromise"};
  return reason < std::size(kNames) ? kNames[reason] : "";
}

// reasonCode is CRLReason ::= ENUMERATED; a value after which the entry's extension is
// malformed reads as 0, as it always has.
bool readReasonCode(X509Crl::RevokedCert& rc, blob value, bool) {
  asn1::parser v(value);
  if (!v.isAt(asn1::tagEnumerated)) return false;
  rc.reason = static_cast<std::uint8_t>(v.takeUInt());
  return true;
}

const x509::ExtensionReader<X509Crl::RevokedCert> kEntryExtensions[] = {
    {&asn1::oid::cRLReason, readReasonCode},
};

bool readCrlNumber(X509Crl& crl, blob value, bool) {
  blob number;
  if (!asn1::parser(value).isAt(asn1::tagInteger, &number)) return false;
  crl.crlNumber = number.vec();
  return true;
}

bool readAuthorityKeyIdentifier(X509Crl& crl, blob value, bool) {
  return x509::readAuthorityKeyId(value, crl.authorityKeyId);
}

bool ignoreIssuingDistributionPoint(X509Crl&, blob, bool) {
  diag() << "ignoring crl ext issuingDistributionPoint";
  return true;
}

const x509::ExtensionReader<X509Crl> kCrlExtensions[] = {
    {&asn1::oid::cRLNumber, readCrlNumber},
    {&asn1::oid::authorityKeyIdentifier, readAuthorityKeyIdentifier},
    {&asn1::oid::issuingDistributionPoint, ignoreIssuingDistributionPoint},
};

}  // namespace

bool X509Crl::parse(const unsigned char* data, unsigned len) {
  return unpackObj(blob(data, len)) && parseBody(blob(tbs));
}

bool X509Crl::parseBody(blob der) {
  asn1::parser p, signatureAlg;
  blob entries, extensions, list;
  if (!asn1::readOnly(der, asn1::tagSequence, &p)) return false;
  p.skipIf(asn1::tagInteger);  // version, OPTIONAL
  if (!p.read(asn1::tagSequence, &signatureAlg) || !signatureAlg.isAt(asn1::tagOid)) return false;
  if (!issuer.parse(p.takeElement())) return false;
  if (!thisUpdate.parse(p)) return false;
  if ((p.isAt(asn1::tagUtcTime) || p.isAt(asn1::tagGeneralizedTime)) && !nextUpdate.parse(p)) return false;
  if (p.isAt(asn1::tagSequence, &entries)) {  // revokedCertificates, OPTIONAL
    for (asn1::parser e(entries); e.isAt(asn1::tagSequence); e.next())
      if (!parseEntry(e.content)) return false;
    p.next();
  }
  switch (p.readOptional(asn1::explicitTag(0), &extensions)) {
    case Presence::absent: return p.atEnd();
    case Presence::malformed: return false;
    case Presence::present: break;
  }
  // As for certificates, the list is the content of [0]'s first element whatever its tag.
  list = asn1::parser(extensions).content;
  if (!parseCrlExtensions(list)) return false;
  return p.atEnd();
}

bool X509Crl::parseEntry(blob entry) {
  asn1::parser p(entry);
  RevokedCert rc;
  blob serial, extensions;
  if (!p.read(asn1::tagInteger, &serial)) return false;
  rc.serial = serial.vec();
  if (!rc.revocationDate.parse(p)) return false;
  if (p.isAt(asn1::tagSequence, &extensions)) {  // crlEntryExtensions, OPTIONAL
    for (asn1::parser x(extensions); x.isAt(asn1::tagSequence); x.next()) {
      blob oid, value;
      bool critical;
      if (!x509::readExtension(x.content, &oid, &critical, &value)) return false;
      if (const auto* reader = x509::findReader(kEntryExtensions, oid)) {
        if (!reader->read(rc, value, critical)) return false;
      } else {
        diag() << "unknown crlEntry ext id=" << asn1::oidStr(oid) << ", critical: " << critical;
        if (critical) return false;
      }
    }
  }
  revoked.push_back(std::move(rc));
  return true;
}

bool X509Crl::parseCrlExtensions(blob list) {
  x509::ExtensionList extensions;
  for (asn1::parser x(list); !x.atEnd(); x.next()) {
    blob ext, oid, value;
    bool critical;
    if (!x.isAt(asn1::tagSequence, &ext) || !extensions.read(ext, &oid, &critical, &value)) return false;
    if (const auto* reader = x509::findReader(kCrlExtensions, oid)) {
      if (!reader->read(*this, value, critical)) return false;
    } else {
      diag() << "unknown crl ext id=" << asn1::oidStr(oid) << ", critical: " << critical;
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
