// Writing PKCS#12 files: certificates in an encrypted-data, the key in a shrouded key bag, both
// linked by a localKeyId, and the MAC over it all.
#include "cms/cms_internal.h"
#include "cms/pkcs12_internal.h"
#include "core/secret.h"
#include "keys/pbe.h"
#include "tessel/oids.h"
#include "tessel/pkcs12.h"
#include "tessel/pkcs8.h"

namespace tessel {

namespace {

using asn1::blob;
using Bytes = std::vector<unsigned char>;
namespace oid = asn1::oid;

// bagAttributes are the friendlyName (when given) and localKeyId (when given) attributes.
std::vector<Bytes> bagAttributes(const std::string& name, const Bytes& keyId) {
  std::vector<Bytes> out;
  if (!name.empty()) {
    Bytes bmp = pbe::bmpPassword(name);
    bmp.resize(bmp.size() - 2);  // a BMPString has no terminator
    DerEncoder v;
    v.addPrimitive(asn1::tagBmpString, blob(bmp));
    out.push_back(PKCS7Attribute{oid::friendlyName.content().vec(), {v.data}}.encode());
  }
  if (!keyId.empty()) {
    DerEncoder v;
    v.addOctetString(blob(keyId));
    out.push_back(PKCS7Attribute{oid::localKeyId.content().vec(), {v.data}}.encode());
  }
  cms::sortDerSet(out);
  return out;
}

// addBag writes SafeBag { type, [0] EXPLICIT value, attributes }.
void addBag(DerEncoder& e, const asn1::Oid& type, blob value, const std::vector<Bytes>& attributes) {
  e.sequence([&](DerEncoder& bag) {
    bag.addOid(type.content());
    bag.element(asn1::explicitTag(0), [&](DerEncoder& v) { v.addBytes(value); });
    if (!attributes.empty())
      bag.element(asn1::tagSet, [&](DerEncoder& set) {
        for (const Bytes& a : attributes) set.addBytes(blob(a));
      });
  });
}

// certBagValue is CertBag { x509Certificate, [0] EXPLICIT OCTET STRING der }.
Bytes certBagValue(const X509Certificate& cert) {
  DerEncoder e;
  e.sequence([&](DerEncoder& c) {
    c.addOid(oid::x509CertificateType.content());
    c.element(asn1::explicitTag(0), [&](DerEncoder& v) { v.addOctetString(blob(cert.serialize())); });
  });
  return std::move(e.data);
}

// shroudedKey is EncryptedPrivateKeyInfo over the key's PKCS#8 encoding; empty on failure.
Bytes shroudedKey(const PrivateKey& key, const PbePassword& password, PbeScheme scheme, unsigned iterations) {
  Bytes inner = encodePkcs8PrivateKey(key), ciphertext;
  const Bytes algorithm = encodePbeAlgorithm(scheme, iterations);
  const bool ok =
      !inner.empty() && !algorithm.empty() && pbeEncrypt(blob(algorithm), password, blob(inner), ciphertext);
  ct::wipe(inner.data(), inner.size());
  if (!ok) return {};
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addBytes(blob(algorithm));
    s.addOctetString(blob(ciphertext));
  });
  return std::move(e.data);
}

// dataContent is ContentInfo { id-data, [0] EXPLICIT OCTET STRING content }.
Bytes dataContent(blob content) {
  DerEncoder e;
  e.sequence([&](DerEncoder& info) {
    info.addOid(oid::idData.content());
    info.element(asn1::explicitTag(0), [&](DerEncoder& w) { w.addOctetString(content); });
  });
  return std::move(e.data);
}

}  // namespace

std::vector<unsigned char> encodePkcs12(const PrivateKey& key, const X509Certificate& cert,
                                        const std::vector<std::shared_ptr<X509Certificate>>& chain,
                                        const PbePassword& password, const PKCS12WriteOptions& options) {
  const Bytes keyId = calcDigest(hashSha1, blob(cert.serialize()));
  const std::vector<Bytes> linked = bagAttributes(options.friendlyName, keyId);
  DerEncoder certs;
  certs.sequence([&](DerEncoder& safe) {
    addBag(safe, oid::certBag, blob(certBagValue(cert)), linked);
    for (const auto& c : chain) addBag(safe, oid::certBag, blob(certBagValue(*c)), {});
  });
  const PbeScheme certScheme = !options.legacy                       ? PbeScheme::pbes2Aes256
                               : options.legacyCertificatesTripleDes ? PbeScheme::pkcs12TripleDes
                                                                     : PbeScheme::pkcs12Rc2_40;
  PKCS7EncryptedData encryptedCerts;
  if (!encryptedCerts.encrypt(blob(certs.data), password, certScheme, options.iterations)) return {};
  const Bytes shrouded = shroudedKey(
      key, password, options.legacy ? PbeScheme::pkcs12TripleDes : PbeScheme::pbes2Aes256, options.iterations);
  if (shrouded.empty()) return {};
  DerEncoder keys;
  keys.sequence([&](DerEncoder& safe) { addBag(safe, oid::pkcs8ShroudedKeyBag, blob(shrouded), linked); });
  DerEncoder authSafe;
  authSafe.sequence([&](DerEncoder& s) {
    s.addBytes(blob(encryptedCerts.encode()));
    s.addBytes(blob(dataContent(blob(keys.data))));
  });
  const Bytes macData = pkcs12::encodeMacData(options.legacy ? hashSha1 : hashSha256, password, options.macIterations,
                                              blob(authSafe.data));
  if (macData.empty()) return {};
  DerEncoder e;
  e.sequence([&](DerEncoder& pfx) {
    pfx.addInt(asn1::tagInteger, 3);
    pfx.addBytes(blob(dataContent(blob(authSafe.data))));
    pfx.addBytes(blob(macData));
  });
  return std::move(e.data);
}

}  // namespace tessel
