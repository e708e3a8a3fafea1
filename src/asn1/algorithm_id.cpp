#include "tessel/algorithm_id.h"

#include "tessel/factory.h"

namespace tessel {

namespace {

using Oid = std::vector<unsigned char>;

const Oid kMd5 = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x05};
const Oid kSha1 = {0x2B, 0x0E, 0x03, 0x02, 0x1A};
const Oid kSha256 = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01};
const Oid kSha384 = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02};
const Oid kSha512 = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03};
const Oid kHmacSha1 = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x07};
const Oid kHmacSha256 = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x09};
const Oid kHmacSha512 = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x0B};
const Oid kRsaEncryption = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};
const Oid kEcPublicKey = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};
const Oid kEd25519 = {0x2B, 0x65, 0x70};
const Oid kX25519 = {0x2B, 0x65, 0x6E};
const Oid kMlkem768 = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x04, 0x02};

struct SignatureAlgo {
  Oid oid;
  KeyType key;
  HashID hash;
};

// In lookup order; the first match wins.
const SignatureAlgo kSignatureAlgos[] = {
    {{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x04}, keyRsa, hashMd5},
    {{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x05}, keyRsa, hashSha1},
    {{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0B}, keyRsa, hashSha256},
    {{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0C}, keyRsa, hashSha384},
    {{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x0D}, keyRsa, hashSha512},
    {{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x01}, keyEc, hashSha1},
    {{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x02}, keyEc, hashSha256},
    {{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x03}, keyEc, hashSha384},
    {{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x04, 0x03, 0x04}, keyEc, hashSha512},
    {kEd25519, keyEd25519, hashNone},
    {kX25519, keyX25519, hashNone},
};

bool same(const Oid& known, asn1::blob oid) { return asn1::blob(known) == oid; }

}  // namespace

asn1::blob getHashOid(unsigned hash) {
  switch (hash) {
    case hashMd5: return asn1::blob(kMd5);
    case hashSha1: return asn1::blob(kSha1);
    case hashSha256: return asn1::blob(kSha256);
    case hashSha384: return asn1::blob(kSha384);
    case hashSha512: return asn1::blob(kSha512);
    default: return {};
  }
}

HashID getHashID(asn1::blob oid) {
  const std::pair<const Oid*, HashID> table[] = {
      {&kMd5, hashMd5},           {&kSha1, hashSha1},         {&kSha256, hashSha256},
      {&kSha384, hashSha384},     {&kSha512, hashSha512},     {&kHmacSha1, hashSha1},
      {&kHmacSha256, hashSha256}, {&kHmacSha512, hashSha512}};
  for (auto [known, id] : table)
    if (same(*known, oid)) return id;
  return hashNone;
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
  if (!p.enter() || p.tag != 0x06) return hashNone;
  asn1::blob oid = p.takeContent();
  if (p.tag != 0x05) return hashNone;
  return getHashID(oid);
}

asn1::blob getKeyInfoFromKeyHash(unsigned keyType, unsigned hash) {
  if (keyType == keyRsa && hash == hashMd5) return {};  // never produced for signing
  for (const SignatureAlgo& a : kSignatureAlgos)
    if (a.key == keyType && a.hash == hash) return asn1::blob(a.oid);
  return {};
}

bool parseAlgosFromKeyInfo(asn1::blob der, KeyType* keyType, HashID* hash) {
  asn1::parser p(der);
  if (!p.enter() || p.tag != 0x06) return false;
  asn1::blob oid = p.takeContent();
  p.skipIf(0x05);
  if (p.tag != asn1::tagEnd) return false;
  for (const SignatureAlgo& a : kSignatureAlgos) {
    if (!same(a.oid, oid)) continue;
    *keyType = a.key;
    *hash = a.hash;
    return true;
  }
  return false;
}

KeyType keyTypeFromOid(asn1::blob oid) {
  if (same(kRsaEncryption, oid)) return keyRsa;
  if (same(kEcPublicKey, oid)) return keyEc;
  if (same(kEd25519, oid)) return keyEd25519;
  if (same(kX25519, oid)) return keyX25519;
  if (same(kMlkem768, oid)) return keyMlkem768;
  return keyRsa;  // rsaEncryption and anything unknown
}

asn1::blob getKeyOid(unsigned keyType) {
  switch (keyType) {
    case keyRsa: return asn1::blob(kRsaEncryption);
    case keyEc: return asn1::blob(kEcPublicKey);
    case keyEd25519: return asn1::blob(kEd25519);
    case keyX25519: return asn1::blob(kX25519);
    case keyMlkem768: return asn1::blob(kMlkem768);
    default: return {};
  }
}

bool parse(AlgorithmIdentifier& id, asn1::blob content) {
  asn1::parser p(content);
  if (p.tag != 0x06) return false;
  id.oid = p.takeContent().vec();
  if (p.tag == asn1::tagEnd) return true;
  id.params = p.takeElement().vec();
  return !id.params.empty() && p.tag == asn1::tagEnd;
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
