// CMS EncryptedData: reading and writing the ContentInfo, and its content under a password.
#include "core/secret.h"
#include "tessel/cms_encrypted.h"
#include "tessel/oids.h"

namespace tessel {

using asn1::blob;
using asn1::Presence;

bool PKCS7EncryptedData::parse(blob der) {
  asn1::parser info, body, data, eci;
  blob type, v, octets;
  if (!asn1::readOnly(der, asn1::tagSequence, &info) || !info.read(asn1::tagOid, &type) ||
      !asn1::oid::idEncryptedData.is(type) || !info.read(asn1::explicitTag(0), &body) || !info.atEnd())
    return false;
  if (!body.read(asn1::tagSequence, &data) || !body.atEnd()) return false;
  if (!data.isAt(asn1::tagInteger, &v) || v.size() != 1 || (v[0] != 0 && v[0] != 2)) return false;
  version = data.takeUInt();
  blob algorithmElement;
  if (!data.read(asn1::tagSequence, &eci) || !eci.read(asn1::tagOid, &type)) return false;
  contentType = type.vec();
  if (!eci.readElement(asn1::tagSequence, &algorithmElement)) return false;
  algorithm = algorithmElement.vec();
  encryptedContent.clear();
  if (eci.readOptional(asn1::implicitTag(0), &octets) == Presence::present) encryptedContent = octets.vec();
  if (!eci.atEnd()) return false;
  data.skipIf(asn1::implicitConstructedTag(1));
  return data.atEnd();
}

std::vector<unsigned char> PKCS7EncryptedData::encode() const {
  DerEncoder e;
  e.sequence([&](DerEncoder& info) {
    info.addOid(asn1::oid::idEncryptedData.content());
    info.element(asn1::explicitTag(0), [&](DerEncoder& wrapper) {
      wrapper.sequence([&](DerEncoder& data) {
        data.addInt(asn1::tagInteger, version);
        data.sequence([&](DerEncoder& eci) {
          eci.addOid(blob(contentType));
          eci.addBytes(blob(algorithm));
          if (!encryptedContent.empty()) eci.addPrimitive(asn1::implicitTag(0), blob(encryptedContent));
        });
      });
    });
  });
  return std::move(e.data);
}

bool PKCS7EncryptedData::decrypt(const PbePassword& password, std::vector<unsigned char>& plaintext,
                                 unsigned maxIterations) const {
  plaintext.clear();
  if (encryptedContent.empty()) return false;
  return pbeDecrypt(blob(algorithm), password, blob(encryptedContent), plaintext, maxIterations);
}

bool PKCS7EncryptedData::encrypt(blob plaintext, const PbePassword& password, PbeScheme scheme, unsigned iterations) {
  version = 0;
  contentType = asn1::oid::idData.content().vec();
  algorithm = encodePbeAlgorithm(scheme, iterations);
  encryptedContent.clear();
  if (!algorithm.empty() && pbeEncrypt(blob(algorithm), password, plaintext, encryptedContent)) return true;
  contentType.clear();
  algorithm.clear();
  return false;
}

}  // namespace tessel
