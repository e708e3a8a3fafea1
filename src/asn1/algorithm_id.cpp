#include "tessel/algorithm_id.h"

#include "tessel/factory.h"
#include "tessel/oids.h"

namespace tessel {

namespace {

const asn1::Oid* const kDigests[] = {&asn1::oid::md5, &asn1::oid::sha1, &asn1::oid::sha256, &asn1::oid::sha384,
                                     &asn1::oid::sha512};
const HashID kDigestIds[] = {hashMd5, hashSha1, hashSha256, hashSha384, hashSha512};

struct KeyAlgorithm {
  const asn1::Oid* oid;
  KeyType key;
};

const KeyAlgorithm kKeyAlgorithms[] = {
    {&asn1::oid::rsaEncryption, keyRsa}, {&asn1::oid::ecPublicKey, keyEc},    {&asn1::oid::ed25519, keyEd25519},
    {&asn1::oid::x25519, keyX25519},     {&asn1::oid::mlKem768, keyMlkem768},
};

}  // namespace

asn1::blob getHashOid(unsigned hash) {
  for (std::size_t i = 0; i < std::size(kDigestIds); ++i)
    if (kDigestIds[i] == hash) return kDigests[i]->content();
  return {};
}

HashID getHashID(asn1::blob oid) {
  for (std::size_t i = 0; i < std::size(kDigestIds); ++i)
    if (kDigests[i]->is(oid)) return kDigestIds[i];
  return asn1::hmacHash(oid);
}

void saveHash(DerEncoder& e, unsigned hash) {
  DerScope seq = e.beginSequence();
  e.addOid(getHashOid(hash));
  e.addNull();
}

void saveDigest(DerEncoder& e, unsigned hash, asn1::blob digest) {
  DerScope seq = e.beginSequence();
  saveHash(e, hash);
  e.addOctetString(digest);
}

HashID getHashFromDER(asn1::blob der) {
  asn1::parser p(der);
  asn1::blob oid;
  if (!p.enter() || !p.read(asn1::tagOid, &oid) || p.tag != asn1::tagNull) return hashNone;
  return getHashID(oid);
}

asn1::blob getKeyInfoFromKeyHash(unsigned keyType, unsigned hash) {
  if (keyType == keyRsa && hash == hashMd5) return {};  // never produced for signing
  for (const asn1::SignatureAlgorithm& a : asn1::signatureAlgorithms())
    if (a.forSigning && a.key == keyType && a.hash == hash) return a.oid->content();
  return {};
}

bool parseAlgosFromKeyInfo(asn1::blob der, KeyType* keyType, HashID* hash) {
  asn1::parser p(der);
  asn1::blob oid;
  if (!p.enter() || !p.read(asn1::tagOid, &oid)) return false;
  p.skipIf(asn1::tagNull);
  if (!p.atEnd()) return false;
  const asn1::SignatureAlgorithm* a = asn1::findSignatureAlgorithm(oid);
  if (!a || !a->forSigning) return false;
  *keyType = a->key;
  *hash = a->hash;
  return true;
}

KeyType keyTypeFromOid(asn1::blob oid) {
  for (const KeyAlgorithm& k : kKeyAlgorithms)
    if (k.oid->is(oid)) return k.key;
  return keyRsa;  // rsaEncryption and anything unknown
}

asn1::blob getKeyOid(unsigned keyType) {
  for (const KeyAlgorithm& k : kKeyAlgorithms)
    if (k.key == keyType) return k.oid->content();
  return {};
}

bool parse(AlgorithmIdentifier& id, asn1::blob content) {
  asn1::parser p(content);
  asn1::blob oid, params;
  if (!p.read(asn1::tagOid, &oid)) return false;
  id.oid = oid.vec();
  if (p.atEnd()) return true;
  params = p.takeElement();  // parameters ANY DEFINED BY algorithm OPTIONAL, kept whole
  id.params = params.vec();
  return !params.empty() && p.atEnd();
}

void save(const AlgorithmIdentifier& id, DerEncoder& e) {
  DerScope seq = e.beginSequence();
  e.addOid(asn1::blob(id.oid));
  e.addBytes(asn1::blob(id.params));
}

std::vector<unsigned char> encode(const AlgorithmIdentifier& id) {
  DerEncoder e;
  save(id, e);
  return std::move(e.data);
}

std::vector<unsigned char> calcDigest(unsigned hash, asn1::blob data) {
  auto h = createHash(hash);
  if (!h) return {};
  std::vector<unsigned char> out(h->digestLength());
  h->update(data.span());
  h->digest(out.data());
  return out;
}

unsigned getModLen(Curve curve) {
  switch (curve) {
    case Curve::p192: return 24;
    case Curve::p224: return 28;
    case Curve::p256: return 32;
    case Curve::p384: return 48;
    case Curve::p521: return 66;
    default: return 0;
  }
}

}  // namespace tessel
