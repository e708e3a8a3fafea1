// Building a CRL's body from its fields.
#include "tessel/crl.h"
#include "tessel/pkcs8.h"
#include "x509/x509_write.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;

// secondsNumber is the minimal INTEGER content of a non-negative count of seconds.
Bytes secondsNumber(std::int64_t seconds) {
  Bytes out;
  auto v = static_cast<std::uint64_t>(seconds < 0 ? 0 : seconds);
  do {
    out.insert(out.begin(), static_cast<unsigned char>(v));
    v >>= 8;
  } while (v != 0);
  if (out[0] & 0x80) out.insert(out.begin(), 0);
  return out;
}

}  // namespace

Bytes X509Crl::serializeRevokedCerts() const {
  if (revoked.empty()) return {};
  DerEncoder e;
  {
    DerScope list = e.beginSequence();
    for (const RevokedCert& rc : revoked) {
      DerScope entry = e.beginSequence();
      if (!x509::writeStoredInteger(e, asn1::blob(rc.serial))) return {};
      x509::writeTime(e, rc.revocationDate);
      if (rc.reason == 255) continue;
      DerEncoder reason;
      reason.addInt(asn1::tagEnumerated, rc.reason);
      e.sequence([&](DerEncoder& x) { x509::writeExtension(x, asn1::oid::cRLReason, false, asn1::blob(reason.data)); });
    }
  }
  return std::move(e.data);
}

bool X509Crl::updateTbs(const PrivateKey& key, HashID hash) {
  const Bytes alg = signatureAlgorithmFor(key, hash);
  if (alg.empty()) return false;
  if (authorityKeyId.empty())
    authorityKeyId = x509::keyIdentifier(asn1::blob(encodeSubjectPublicKeyInfo(key)), digestAlgo);
  // RFC 5280 wants every CRL numbered, increasing; the issue time in seconds is such a number.
  if (crlNumber.empty()) crlNumber = secondsNumber(thisUpdate.seconds());
  const Bytes entries = serializeRevokedCerts();
  if (entries.empty() != revoked.empty() || authorityKeyId.empty()) return false;
  DerEncoder e;
  {
    DerScope body = e.beginSequence();
    e.addInt(asn1::tagInteger, 1u);  // v2
    e.addBytes(asn1::blob(alg));
    e.addBytes(asn1::blob(issuer.serialize()));
    x509::writeTime(e, thisUpdate);
    if (nextUpdate.seconds() != 0) x509::writeTime(e, nextUpdate);
    e.addBytes(asn1::blob(entries));
    DerScope wrapper = e.beginElement(asn1::explicitTag(0));
    DerScope list = e.beginSequence();
    x509::writeExtension(e, asn1::oid::authorityKeyIdentifier, false,
                         asn1::blob(x509::authorityKeyIdValue(asn1::blob(authorityKeyId))));
    DerEncoder number;
    if (!x509::writeStoredInteger(number, asn1::blob(crlNumber))) return false;
    x509::writeExtension(e, asn1::oid::cRLNumber, false, asn1::blob(number.data));
  }
  tbs = std::move(e.data);
  return true;
}

}  // namespace tessel
