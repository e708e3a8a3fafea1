#include "cms/tsp.h"

#include "cms/cms_internal.h"

#include "tessel/oids.h"

namespace tessel::tsp {

namespace {

using asn1::blob;
using Bytes = std::vector<unsigned char>;

constexpr unsigned char kTimeStampingArc = 8;              // id-kp-timeStamping is id-kp 8
constexpr unsigned kDirectoryName = asn1::explicitTag(4);  // GeneralName's [4] Name

// namesIssuerSerial reads IssuerSerial { GeneralNames, serialNumber } and says whether it is
// exactly the directory name of `cert`'s issuer with `cert`'s serial number.
bool namesIssuerSerial(blob issuerSerial, const X509Certificate& cert) {
  asn1::parser p(issuerSerial), names;
  blob name, serial;
  if (!p.read(asn1::tagSequence, &names) || !p.read(asn1::tagInteger, &serial) || !p.atEnd()) return false;
  if (!names.read(kDirectoryName, &name) || !names.atEnd()) return false;
  return name == cert.issuerDer() && serial == blob(cert.serial);
}

// namesCertificate reads one ESSCertID (v1: SHA-1 only) or ESSCertIDv2 (SHA-256 unless named).
bool namesCertificate(blob certId, bool v2, const X509Certificate& cert) {
  asn1::parser p(certId);
  HashID hash = v2 ? hashSha256 : hashSha1;
  blob algorithm, certHash, issuerSerial;
  if (v2 && p.readElement(asn1::tagSequence, &algorithm) && (hash = cms::digestFromAlgorithm(algorithm)) == hashNone)
    return false;
  if (!p.read(asn1::tagOctetString, &certHash)) return false;
  if (blob(calcDigest(hash, blob(cert.serialize()))) != certHash) return false;
  if (p.atEnd()) return true;
  return p.read(asn1::tagSequence, &issuerSerial) && p.atEnd() && namesIssuerSerial(issuerSerial, cert);
}

}  // namespace

bool isTimeStampingCertificate(const X509Certificate& cert) {
  bool critical = false;
  blob value, purpose;
  asn1::parser p;
  if (!cert.findExtension(asn1::oid::extKeyUsage.content(), &critical, &value) || !critical) return false;
  if (!asn1::readOnly(value, asn1::tagSequence, &p) || !p.read(asn1::tagOid, &purpose) || !p.atEnd()) return false;
  return asn1::oid::idKp.prefixes(purpose) && purpose[purpose.size() - 1] == kTimeStampingArc;
}

PKCS7Attribute signingCertificateV2(const X509Certificate& cert) {
  DerEncoder e;
  {
    DerScope value = e.beginSequence();
    DerScope certs = e.beginSequence();
    DerScope certId = e.beginSequence();
    e.addOctetString(blob(calcDigest(hashSha256, blob(cert.serialize()))));
    DerScope issuerSerial = e.beginSequence();
    {
      DerScope names = e.beginSequence();
      DerScope name = e.beginElement(kDirectoryName);
      e.addBytes(cert.issuerDer());
    }
    e.addPrimitive(asn1::tagInteger, blob(cert.serial));
  }
  PKCS7Attribute attribute;
  attribute.type = asn1::oid::signingCertificateV2.content().vec();
  attribute.values.push_back(std::move(e.data));
  return attribute;
}

bool namesSigner(const PKCS7SignerInfo& signer, const X509Certificate& cert) {
  bool v2 = true;
  const PKCS7Attribute* attribute = signer.findSignedAttribute(asn1::oid::signingCertificateV2.content());
  if (!attribute) {
    v2 = false;
    attribute = signer.findSignedAttribute(asn1::oid::signingCertificate.content());
  }
  if (!attribute || attribute->values.size() != 1) return false;
  asn1::parser value, certs;
  blob first;  // the signer's own certificate; the others would name its chain
  if (!asn1::readOnly(blob(attribute->values[0]), asn1::tagSequence, &value)) return false;
  if (!value.read(asn1::tagSequence, &certs) || !certs.read(asn1::tagSequence, &first)) return false;
  return namesCertificate(first, v2, cert);
}

}  // namespace tessel::tsp
