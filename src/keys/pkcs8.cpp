#include "tessel/pkcs8.h"

#include "core/diag.h"
#include "keys/pbe.h"
#include "tessel/block.h"
#include "tessel/cipher.h"
#include "tessel/ec_key.h"
#include "tessel/ed25519_x25519_keys.h"
#include "tessel/hmac.h"
#include "tessel/mlkem_keys.h"
#include "tessel/oids.h"
#include "tessel/rng.h"
#include "tessel/rsa.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;

using asn1::Presence;
namespace oid = asn1::oid;

bool iterationsOk(unsigned iterations) { return pbe::iterationsOk(iterations, kMaxPbeIterations); }

struct CbcScheme {
  const asn1::Oid* oid;
  unsigned keyBytes, ivBytes;
  std::unique_ptr<BlockCipher> (*make)(const unsigned char* key);
};

template <class C>
std::unique_ptr<BlockCipher> makeCipher(const unsigned char* key) {
  return std::make_unique<C>(key);
}

const CbcScheme kSchemes[] = {
    {&oid::desEde3Cbc, 24, 8, makeCipher<DES3>},
    {&oid::aes128Cbc, 16, 16, makeCipher<AES128>},
    {&oid::aes192Cbc, 24, 16, makeCipher<AES192>},
    {&oid::aes256Cbc, 32, 16, makeCipher<AES256>},
};

// pbes2Run derives the key and runs the cipher once the parameters are known.
bool pbes2Run(const PBES2Params& params, std::string_view password, asn1::blob data, Bytes& out, bool encrypt) {
  std::unique_ptr<Hash> prf;
  const HashID prfHash = params.prfOid.empty() ? hashSha1 : asn1::hmacHash(asn1::blob(params.prfOid));
  if (prfHash == hashSha1) prf = std::make_unique<SHA1>();
  else if (prfHash == hashSha256) prf = std::make_unique<SHA256>();
  if (!prf) {
    diag() << "unsupported PBES2 KDF: <" << asn1::oid2name(asn1::blob(params.prfOid)) << ">";
    return false;
  }
  const CbcScheme* scheme = nullptr;
  for (const CbcScheme& s : kSchemes)
    if (s.oid->is(asn1::blob(params.encOid))) scheme = &s;
  if (!scheme) {
    diag() << "PBES2: unimplemented cipher: <" << asn1::oid2name(asn1::blob(params.encOid)) << ">";
    return false;
  }
  if (params.iv.size() != scheme->ivBytes) return false;
  if (!iterationsOk(params.iterations)) return false;
  Bytes key = pbkdf2(*prf, password, params.salt.data(), static_cast<unsigned>(params.salt.size()), params.iterations,
                     scheme->keyBytes);
  auto cipher = scheme->make(key.data());
  std::fill(key.begin(), key.end(), 0);
  if (encrypt) {
    out = pbe::padAndEncrypt(*cipher, params.iv, data);
    return true;
  }
  return pbe::decryptAndUnpad(*cipher, params.iv, data, out);
}

// readPbes2Params reads SEQUENCE { SEQUENCE { PBKDF2, SEQUENCE { salt, iterations, [keyLength],
// [prf] } }, SEQUENCE { cipher OID, OCTET STRING iv } }.
bool readPbes2Params(asn1::blob der, PBES2Params& out) {
  asn1::parser top(der), kdf, enc;
  asn1::blob kdfOid, salt, prfAlgorithm, encOid, iv;
  if (!top.enter() || !top.read(asn1::tagSequence, &kdf) || !top.read(asn1::tagSequence, &enc) || !top.atEnd())
    return false;
  if (!kdf.read(asn1::tagOid, &kdfOid)) return false;
  out.kdfOid = kdfOid.vec();
  if (!oid::pbkdf2.is(kdfOid) || !kdf.enter()) return false;
  if (!kdf.read(asn1::tagOctetString, &salt)) return false;
  out.salt = salt.vec();
  if (!kdf.isAt(asn1::tagInteger)) return false;
  out.iterations = kdf.takeUInt();
  kdf.skipIf(asn1::tagInteger);  // keyLength: the cipher decides the length
  if (kdf.readOptional(asn1::tagSequence, &prfAlgorithm) == Presence::present) {
    AlgorithmIdentifier prf;
    if (!parse(prf, prfAlgorithm)) return false;
    out.prfOid = prf.oid;
  }
  if (!kdf.atEnd()) return false;
  if (!enc.read(asn1::tagOid, &encOid) || !enc.read(asn1::tagOctetString, &iv)) return false;
  out.encOid = encOid.vec();
  out.iv = iv.vec();
  return enc.atEnd();
}

}  // namespace

std::shared_ptr<PublicKey> makePublicKey(KeyType type) {
  switch (type) {
    case keyRsa: return std::make_shared<RsaPublicKey>();
    case keyEd25519: return std::make_shared<Ed25519PublicKey>();
    case keyX25519: return std::make_shared<X25519PublicKey>();
    case keyMlkem768: return std::make_shared<MLKEMPublicKey>();
    case keyEc: return std::make_shared<EcPublicKey>();
    default: return nullptr;
  }
}

std::shared_ptr<PrivateKey> makePrivateKey(KeyType type) {
  switch (type) {
    case keyRsa: return std::make_shared<RsaPrivateKey>();
    case keyEc: return std::make_shared<EcPrivateKey>();
    case keyEd25519: return std::make_shared<Ed25519PrivateKey>();
    case keyX25519: return std::make_shared<X25519PrivateKey>();
    case keyMlkem768: return std::make_shared<MLKEMPrivateKey>();
    default: return nullptr;
  }
}

namespace {

Bytes spki(const PublicKey& key, const Bytes& body) {
  if (body.empty()) return {};
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.sequence([&](DerEncoder& alg) {
      alg.addOid(getKeyOid(key.getKeyType()));
      alg.addBytes(asn1::blob(key.encodeParams()));
    });
    s.addBitString(asn1::blob(body));
  });
  return std::move(e.data);
}

}  // namespace

std::vector<unsigned char> encodePkcs8PublicKey(const PublicKey& key) { return spki(key, key.encodeToDerEncoded()); }

std::vector<unsigned char> encodeSubjectPublicKeyInfo(const PublicKey& key) { return spki(key, key.encodePublicKey()); }

std::shared_ptr<PublicKey> parsePkcs8PublicKey(asn1::blob der) {
  asn1::parser spki;
  asn1::blob algorithm, bitString;
  AlgorithmIdentifier alg;
  if (!asn1::readOnly(der, asn1::tagSequence, &spki) || !spki.read(asn1::tagSequence, &algorithm) ||
      !parse(alg, algorithm) || !spki.read(asn1::tagBitString, &bitString) || !spki.atEnd())
    return nullptr;
  asn1::blob bits = asn1::bitStringContent(bitString);
  auto key = makePublicKey(keyTypeFromOid(asn1::blob(alg.oid)));
  if (!key || !key->parseFromDerEncoded(bits, asn1::blob(alg.params))) return nullptr;
  return key;
}

std::vector<unsigned char> encodePkcs8PrivateKey(const PrivateKey& key) {
  asn1::blob oid = getKeyOid(key.getKeyType());
  Bytes body = key.encodeToDerEncoded();
  if (oid.empty() || body.empty()) return {};
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addInt(0x02, 0u);
    s.sequence([&](DerEncoder& alg) {
      alg.addOid(oid);
      alg.addBytes(asn1::blob(key.encodeParams()));
    });
    s.addOctetString(asn1::blob(body));
  });
  return std::move(e.data);
}

std::pair<std::shared_ptr<PrivateKey>, std::shared_ptr<PublicKey>> parseOneAssimetricKey(asn1::blob der) {
  asn1::parser p(der);
  if (!p.enter() || !p.isAt(asn1::tagInteger)) return {};
  const unsigned version = p.takeUInt();
  asn1::blob algorithm;
  AlgorithmIdentifier alg;
  if (version >= 2 || !p.read(asn1::tagSequence, &algorithm) || !parse(alg, algorithm)) return {};
  // The key is parsed before the rest of the structure is looked at.
  if (!p.isAt(asn1::tagOctetString)) return {};
  asn1::blob body = p.takeContent();
  const KeyType type = keyTypeFromOid(asn1::blob(alg.oid));
  auto priv = makePrivateKey(type);
  if (!priv || !priv->parseFromDerEncoded(body, asn1::blob(alg.params))) return {};
  p.skipIf(asn1::implicitConstructedTag(0));  // attributes are not looked at
  std::shared_ptr<PublicKey> pub;
  if (version == 1 && p.isAt(asn1::implicitTag(1))) {
    pub = makePublicKey(type);
    if (!pub || !pub->parseFromDerEncoded(p.takeContent(), asn1::blob(alg.params))) return {};
  }
  if (!p.atEnd()) return {};
  return {priv, pub};
}

std::vector<unsigned char> pbes2_encrypt(asn1::blob plaintext, std::string_view password, const PBES2Params& params) {
  Bytes out;
  if (!pbes2Run(params, password, plaintext, out, true)) return {};
  return out;
}

bool pbes2_crypt(const AlgorithmIdentifier& alg, std::string_view password, asn1::blob data, Bytes& out, bool encrypt) {
  PBES2Params params;
  if (!readPbes2Params(asn1::blob(alg.params), params)) return false;
  return pbes2Run(params, password, data, out, encrypt);
}

bool pbe1_crypt(const AlgorithmIdentifier& alg, std::string_view password, asn1::blob data, Bytes& out, bool encrypt) {
  const Bytes pw = pbe::bmpPassword(password);
  return pbe::pkcs12Crypt(*pbe::findPkcs12Scheme(oid::pbeWithShaAnd3KeyTripleDesCbc.content()), asn1::blob(alg.params),
                          asn1::blob(pw), data, out, encrypt, kMaxPbeIterations);
}

std::vector<unsigned char> encodePkcs8EncryptedPrivateKey(const PrivateKey& key, std::string_view password,
                                                          unsigned iterations) {
  Bytes inner = encodePkcs8PrivateKey(key);
  if (inner.empty()) return {};
  PBES2Params params{oid::pbkdf2.content().vec(),    Bytes(16), iterations, oid::hmacWithSha256.content().vec(),
                     oid::aes256Cbc.content().vec(), Bytes(16)};
  Rng& rng = getDefaultRng();
  if (!rng.generate(params.salt.data(), 16) || !rng.generate(params.iv.data(), 16)) return {};
  Bytes ciphertext = pbes2_encrypt(asn1::blob(inner), password, params);
  std::fill(inner.begin(), inner.end(), 0);
  if (ciphertext.empty()) return {};
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.sequence([&](DerEncoder& alg) {
      alg.addOid(oid::pbes2.content());
      alg.sequence([&](DerEncoder& pbes2) {
        pbes2.sequence([&](DerEncoder& kdf) {
          kdf.addOid(oid::pbkdf2.content());
          kdf.sequence([&](DerEncoder& kp) {
            kp.addOctetString(asn1::blob(params.salt));
            kp.addInt(0x02, iterations);
            kp.addBytes(asn1::blob(encode(AlgorithmIdentifier{oid::hmacWithSha256.content().vec(), {}})));
          });
        });
        pbes2.sequence([&](DerEncoder& enc) {
          enc.addOid(oid::aes256Cbc.content());
          enc.addOctetString(asn1::blob(params.iv));
        });
      });
    });
    s.addOctetString(asn1::blob(ciphertext));
  });
  return std::move(e.data);
}

std::shared_ptr<PrivateKey> parsePkcs8EncryptedPrivateKey(asn1::blob der, std::string_view password) {
  asn1::parser p(der);
  asn1::blob algorithm, ciphertext;
  AlgorithmIdentifier alg;
  if (!p.enter() || !p.read(asn1::tagSequence, &algorithm) || !parse(alg, algorithm) ||
      !p.read(asn1::tagOctetString, &ciphertext) || !p.atEnd())
    return nullptr;
  Bytes plaintext;
  bool ok;
  if (oid::pbeWithShaAnd3KeyTripleDesCbc.is(asn1::blob(alg.oid))) {
    ok = pbe1_crypt(alg, password, ciphertext, plaintext, false);
  } else if (oid::pbes2.is(asn1::blob(alg.oid))) {
    ok = pbes2_crypt(alg, password, ciphertext, plaintext, false);
  } else {
    diag() << "PKCS8: unsupported PBE: <" << asn1::oid2name(asn1::blob(alg.oid)) << ">";
    return nullptr;
  }
  std::shared_ptr<PrivateKey> key;
  if (ok) key = parseOneAssimetricKey(asn1::blob(plaintext)).first;
  std::fill(plaintext.begin(), plaintext.end(), 0);
  return key;
}

}  // namespace tessel
