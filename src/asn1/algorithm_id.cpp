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

// The PSS parameters' defaults (RFC 4055): SHA-1, MGF1 with SHA-1, 20 bytes of salt, trailer 1.
constexpr unsigned kPssDefaultSalt = 20;
// No real signer salts with more than a digest or two; a bound keeps hostile values harmless.
constexpr unsigned kMaxPssSalt = 1024;

// readHashAlgorithm reads the content of a digest AlgorithmIdentifier inside PSS parameters,
// where RFC 4055 asks readers to take NULL and absent parameters alike.
HashID readHashAlgorithm(asn1::blob content) {
  asn1::parser p(content);
  asn1::blob oid;
  if (!p.read(asn1::tagOid, &oid)) return hashNone;
  p.skipIf(asn1::tagNull);
  if (!p.atEnd()) return hashNone;
  const HashID hash = getHashID(oid);
  return getHashOid(hash) == oid && isPssDigest(hash) ? hash : hashNone;  // no HMAC OIDs here
}

// readMgf reads MaskGenAlgorithm content: id-mgf1 with its digest AlgorithmIdentifier.
HashID readMgf(asn1::blob content) {
  asn1::parser p(content);
  asn1::blob oid, hash;
  if (!p.read(asn1::tagOid, &oid) || !asn1::oid::mgf1.is(oid) || !p.read(asn1::tagSequence, &hash) || !p.atEnd())
    return hashNone;
  return readHashAlgorithm(hash);
}

// readExplicitUInt reads `[n] EXPLICIT INTEGER` content holding a small non-negative value.
bool readExplicitUInt(asn1::blob content, unsigned* value) {
  asn1::parser p(content);
  asn1::blob v;
  if (!p.read(asn1::tagInteger, &v) || !p.atEnd() || v.empty() || v.size() > 3 || (v[0] & 0x80)) return false;
  if (v.size() > 1 && v[0] == 0 && !(v[1] & 0x80)) return false;  // not minimal
  *value = 0;
  for (unsigned char b : v) *value = (*value << 8) | b;
  return true;
}

// onlySequence takes the content of the one SEQUENCE an explicit tag wraps.
bool onlySequence(asn1::blob field, asn1::blob* content) {
  asn1::parser p(field);
  return p.read(asn1::tagSequence, content) && p.atEnd();
}

bool readPssParams(asn1::blob content, SignatureParams* out) {
  SignatureParams params{hashSha1, true, hashSha1, kPssDefaultSalt};
  asn1::parser p(content);
  asn1::blob field, inner;
  unsigned salt = kPssDefaultSalt, trailer = 1;
  if (p.readOptional(asn1::explicitTag(0), &field) == asn1::Presence::present)
    params.hash = onlySequence(field, &inner) ? readHashAlgorithm(inner) : hashNone;
  if (p.readOptional(asn1::explicitTag(1), &field) == asn1::Presence::present)
    params.mgfHash = onlySequence(field, &inner) ? readMgf(inner) : hashNone;
  if (p.readOptional(asn1::explicitTag(2), &field) == asn1::Presence::present && !readExplicitUInt(field, &salt))
    return false;
  if (p.readOptional(asn1::explicitTag(3), &field) == asn1::Presence::present && !readExplicitUInt(field, &trailer))
    return false;
  if (!p.atEnd() || params.hash == hashNone || params.mgfHash == hashNone || salt > kMaxPssSalt || trailer != 1)
    return false;
  params.saltLength = static_cast<int>(salt);
  *out = params;
  return true;
}

// writeHashAndMgf writes the [0] hash and [1] MGF1 fields PSS and OAEP parameters share, each
// left out at its SHA-1 default.
void writeHashAndMgf(DerEncoder& e, HashID hash, HashID mgfHash) {
  if (hash != hashSha1) e.element(asn1::explicitTag(0), [&](DerEncoder& x) { saveHash(x, hash); });
  if (mgfHash != hashSha1) {
    e.element(asn1::explicitTag(1), [&](DerEncoder& x) {
      x.sequence([&](DerEncoder& mgf) {
        mgf.addOid(asn1::oid::mgf1.content());
        saveHash(mgf, mgfHash);
      });
    });
  }
}

void writePssParams(DerEncoder& e, const SignatureParams& params, unsigned salt) {
  DerScope seq = e.beginSequence();
  writeHashAndMgf(e, params.hash, params.mgfDigest());
  if (salt != kPssDefaultSalt)
    e.element(asn1::explicitTag(2), [&](DerEncoder& x) { x.addInt(asn1::tagInteger, salt); });
}

// readOaepParams reads RSAES-OAEP-params content; the defaults are SHA-1, MGF1 with SHA-1 and
// an empty label.
bool readOaepParams(asn1::blob content, EncryptionParams* out) {
  EncryptionParams params{true, hashSha1, hashSha1, {}};
  asn1::parser p(content);
  asn1::blob field, inner;
  if (p.readOptional(asn1::explicitTag(0), &field) == asn1::Presence::present)
    params.hash = onlySequence(field, &inner) ? readHashAlgorithm(inner) : hashNone;
  if (p.readOptional(asn1::explicitTag(1), &field) == asn1::Presence::present)
    params.mgfHash = onlySequence(field, &inner) ? readMgf(inner) : hashNone;
  if (p.readOptional(asn1::explicitTag(2), &field) == asn1::Presence::present) {
    asn1::parser source;
    asn1::blob oid, label;
    if (!onlySequence(field, &inner)) return false;
    source = asn1::parser(inner);
    if (!source.read(asn1::tagOid, &oid) || !asn1::oid::pSpecified.is(oid) ||
        !source.read(asn1::tagOctetString, &label) || !source.atEnd())
      return false;
    params.label = label.vec();
  }
  if (!p.atEnd() || params.hash == hashNone || params.mgfHash == hashNone) return false;
  if (params.mgfHash == params.hash) params.mgfHash = hashNone;  // the form callers build
  *out = std::move(params);
  return true;
}

}  // namespace

std::vector<unsigned char> encodeEncryptionAlgorithm(const EncryptionParams& params) {
  DerEncoder e;
  if (!params.oaep) {
    e.sequence([](DerEncoder& s) {
      s.addOid(asn1::oid::rsaEncryption.content());
      s.addNull();
    });
    return std::move(e.data);
  }
  if (!isPssDigest(params.hash) || !isPssDigest(params.mgfDigest())) return {};
  e.sequence([&](DerEncoder& s) {
    s.addOid(asn1::oid::rsaesOaep.content());
    s.sequence([&](DerEncoder& fields) {
      writeHashAndMgf(fields, params.hash, params.mgfDigest());
      if (params.label.empty()) return;
      fields.element(asn1::explicitTag(2), [&](DerEncoder& x) {
        x.sequence([&](DerEncoder& source) {
          source.addOid(asn1::oid::pSpecified.content());
          source.addOctetString(asn1::blob(params.label));
        });
      });
    });
  });
  return std::move(e.data);
}

bool parseEncryptionAlgorithm(asn1::blob der, EncryptionParams* params) {
  asn1::parser p;
  asn1::blob oid, content;
  if (!asn1::readOnly(der, asn1::tagSequence, &p) || !p.read(asn1::tagOid, &oid)) return false;
  if (asn1::oid::rsaEncryption.is(oid)) {
    p.skipIf(asn1::tagNull);
    if (!p.atEnd()) return false;
    *params = EncryptionParams{};
    return true;
  }
  if (!asn1::oid::rsaesOaep.is(oid)) return false;
  if (p.atEnd()) {  // all defaults
    *params = EncryptionParams{true, hashSha1, hashNone, {}};
    return true;
  }
  if (!p.read(asn1::tagSequence, &content) || !p.atEnd()) return false;
  return readOaepParams(content, params);
}

bool isPssDigest(unsigned hash) {
  return hash == hashSha1 || hash == hashSha256 || hash == hashSha384 || hash == hashSha512;
}

unsigned getHashLength(unsigned hash) {
  switch (hash) {
    case hashMd5: return 16;
    case hashSha1: return 20;
    case hashSha256: return 32;
    case hashSha384: return 48;
    case hashSha512: return 64;
    case hashMd5Sha1: return 36;
    default: return 0;
  }
}

std::vector<unsigned char> encodeSignatureAlgorithm(KeyType keyType, const SignatureParams& params) {
  DerEncoder e;
  if (params.pss) {
    const int salt = params.saltLength < 0 ? static_cast<int>(getHashLength(params.hash)) : params.saltLength;
    if (keyType != keyRsa || !isPssDigest(params.hash) || !isPssDigest(params.mgfDigest()) || salt > int(kMaxPssSalt))
      return {};
    DerScope seq = e.beginSequence();
    e.addOid(asn1::oid::rsassaPss.content());
    writePssParams(e, params, static_cast<unsigned>(salt));
  } else {
    if (keyType != keyRsa && keyType != keyEc && keyType != keyEd25519) return {};
    const asn1::blob oid = getKeyInfoFromKeyHash(keyType, params.hash);
    if (oid.empty()) return {};
    DerScope seq = e.beginSequence();
    e.addOid(oid);
    if (keyType == keyRsa) e.addNull();
  }
  return std::move(e.data);
}

bool parseSignatureAlgorithm(asn1::blob der, KeyType* keyType, SignatureParams* params) {
  asn1::parser p;
  asn1::blob oid, pss;
  if (!asn1::readOnly(der, asn1::tagSequence, &p) || !p.read(asn1::tagOid, &oid)) return false;
  if (asn1::oid::rsassaPss.is(oid)) {
    // The parameters are required beside a signature (RFC 4055 section 3.1).
    if (!p.read(asn1::tagSequence, &pss) || !p.atEnd() || !readPssParams(pss, params)) return false;
    *keyType = keyRsa;
    return true;
  }
  HashID hash = hashNone;
  if (!parseAlgosFromKeyInfo(der, keyType, &hash)) return false;
  *params = SignatureParams{hash};
  return true;
}

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
