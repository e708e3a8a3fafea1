#include "tessel/timestamp.h"

#include <iostream>

namespace tessel {

using asn1::blob;

// The parsers open the outer SEQUENCE and read its elements; like the library's other message
// readers they do not look at bytes after it.

bool TimeStampRequest::parse(blob der) {
  asn1::parser p(der);
  if (!p.enter()) return false;
  if (!p.isAt(asn1::tagInteger)) return false;
  version = p.takeUInt();
  asn1::parser imprint;
  if (!p.read(asn1::tagSequence, &imprint)) return false;
  hash = getHashFromDER(imprint.takeElement());
  if (hash == hashNone) return false;
  blob value;
  if (!imprint.read(asn1::tagOctetString, &value) || !imprint.atEnd()) return false;
  digest = value.vec();
  if (p.read(asn1::tagOid, &value)) policy = value.vec();
  if (p.read(asn1::tagInteger, &value)) nonce = value.vec();
  // certReq is required, unlike RFC 3161's DEFAULT FALSE: every peer of ours writes it.
  if (!p.isAt(asn1::tagBoolean)) return false;
  certReq = p.takeBool();
  return p.atEnd();  // extensions are not accepted
}

void TimeStampRequest::save(DerEncoder& out) const {
  DerScope seq = out.beginSequence();
  out.addInt(asn1::tagInteger, version);
  saveDigest(out, hash, blob(digest));
  if (!policy.empty()) out.addOid(blob(policy));
  if (!nonce.empty()) out.addPrimitive(asn1::tagInteger, blob(nonce));
  // Written even when false, against DER's rule for defaults, since our reader requires it.
  out.addBool(asn1::tagBoolean, certReq);
}

void TimeStampRequest::dump() const {
  std::cout << "version: " << version << "\n";
  std::cout << "digest-algo: " << getHashName(hash) << "\n";
  std::cout << "digest: " << asn1::str(blob(digest)) << "\n";
  if (!policy.empty()) std::cout << "req-policy: " << asn1::oidStr(blob(policy)) << "\n";
  if (!nonce.empty()) std::cout << "nonce: " << asn1::str(blob(nonce)) << "\n";
  std::cout << "cert-req: " << certReq << "\n";
}

bool TimeStampResponse::parse(blob der) {
  asn1::parser p(der);
  if (!p.enter()) return false;
  asn1::parser statusInfo;
  if (!p.read(asn1::tagSequence, &statusInfo) || !statusInfo.isAt(asn1::tagInteger)) return false;
  status = statusInfo.takeUInt();  // the status text and failure bits are not kept
  if (status > 1) return p.atEnd();
  blob contentInfo;
  if (!p.readElement(asn1::tagSequence, &contentInfo)) return false;
  token = std::make_unique<PKCS7SignedData>();
  if (!token->parse(contentInfo, 0)) return false;
  return p.atEnd();
}

void TimeStampResponse::dump() const {
  std::cout << "status: " << status << "\n";
  if (status < 2 && token) token->dump(std::cout);
}

}  // namespace tessel
