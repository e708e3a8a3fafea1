#include "x509/x509_write.h"

#include "tessel/algorithm_id.h"

namespace tessel::x509 {

void writeTime(DerEncoder& e, const TimePoint& t) {
  const auto [tag, text] = t.toAsn1Time();
  e.addPrimitive(tag, asn1::blob(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
}

void writeExtension(DerEncoder& e, const asn1::Oid& oid, bool critical, asn1::blob value) {
  DerScope ext = e.beginSequence();
  e.addOid(oid.content());
  if (critical) e.addBool(asn1::tagBoolean, true);  // FALSE is the DEFAULT, which DER leaves out
  e.addOctetString(value);
}

std::vector<unsigned char> keyIdentifier(asn1::blob spki, unsigned hash) {
  asn1::parser p;
  asn1::blob bits;
  if (!asn1::readOnly(spki, asn1::tagSequence, &p) || !p.read(asn1::tagSequence) ||
      !p.read(asn1::tagBitString, &bits) || !p.atEnd() || bits.empty())
    return {};
  return calcDigest(hash, asn1::bitStringContent(bits));
}

std::vector<unsigned char> keyUsageValue(std::uint32_t flags) {
  unsigned char bytes[2] = {static_cast<unsigned char>(flags), static_cast<unsigned char>(flags >> 8)};
  const std::size_t n = bytes[1] ? 2 : bytes[0] ? 1 : 0;
  if (n == 0) return {};
  unsigned unused = 0;
  while (!(bytes[n - 1] & (1u << unused))) ++unused;
  std::vector<unsigned char> content{static_cast<unsigned char>(unused)};
  content.insert(content.end(), bytes, bytes + n);
  DerEncoder e;
  e.addPrimitive(asn1::tagBitString, asn1::blob(content));
  return std::move(e.data);
}

std::vector<unsigned char> generalNamesValue(const std::vector<GeneralName>& names) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    for (const GeneralName& n : names) s.addBytes(asn1::blob(n.serialize()));
  });
  return std::move(e.data);
}

std::vector<unsigned char> authorityKeyIdValue(asn1::blob keyId) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) { s.addPrimitive(asn1::implicitTag(0), keyId); });
  return std::move(e.data);
}

bool writeStoredInteger(DerEncoder& e, asn1::blob content) {
  if (content.empty() || content.size() > 20) return false;
  e.addPrimitive(asn1::tagInteger, content);
  return true;
}

}  // namespace tessel::x509
