#include "tessel/pkcs8.h"

#include <iostream>

#include "cipher/padding.h"
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

// iterationsOk refuses a count of 0 or above kMaxPbeIterations (a hostile file could otherwise keep
// the appliance busy for hours), and says why on one line, as the other refusals here do.
bool iterationsOk(unsigned iterations) {
  if (iterations != 0 && iterations <= kMaxPbeIterations) return true;
  std::cout << "PKCS8: unsupported iteration count: <" << iterations << ">\n";
  return false;
}

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

// padAndEncrypt appends PKCS#5 padding and encrypts in CBC mode.
Bytes padAndEncrypt(BlockCipher& cipher, Bytes iv, asn1::blob plaintext) {
  const unsigned block = cipher.blockLength();
  Bytes data = plaintext.vec();
  const unsigned pad = block - static_cast<unsigned>(data.size() % block);
  data.insert(data.end(), pad, static_cast<unsigned char>(pad));
  Bytes out(data.size());
  CBC_encrypt(cipher, iv.data(), data.data(), static_cast<unsigned>(data.size()), out.data());
  return out;
}

// decryptAndUnpad decrypts whole CBC blocks and removes PKCS#5 padding; false when the input is
// not whole blocks or the padding is wrong (which is how a wrong password shows). The padding is
// judged in constant time, all of the last block every time, so that a padding oracle cannot
// read the plaintext; only the verdict and then the length of a good plaintext come out.
bool decryptAndUnpad(BlockCipher& cipher, Bytes iv, asn1::blob data, Bytes& out) {
  const unsigned block = cipher.blockLength();
  if (data.empty() || data.size() % block != 0) return false;
  out.assign(data.size(), 0);
  CBC_decrypt(cipher, iv.data(), data.data(), static_cast<unsigned>(data.size()), out.data());
  const std::uint32_t length = detail::pkcs7UnpaddedLength(out.data(), static_cast<std::uint32_t>(out.size()), block);
  if (length == ~std::uint32_t{0}) return false;
  out.resize(length);
  return true;
}

// pbes2Run derives the key and runs the cipher once the parameters are known.
bool pbes2Run(const PBES2Params& params, std::string_view password, asn1::blob data, Bytes& out, bool encrypt) {
  std::unique_ptr<Hash> prf;
  const HashID prfHash = params.prfOid.empty() ? hashSha1 : asn1::hmacHash(asn1::blob(params.prfOid));
  if (prfHash == hashSha1) prf = std::make_unique<SHA1>();
  else if (prfHash == hashSha256) prf = std::make_unique<SHA256>();
  if (!prf) {
    std::cout << "unsupported PBES2 KDF: <" << asn1::oid2name(asn1::blob(params.prfOid)) << ">\n";
    return false;
  }
  const CbcScheme* scheme = nullptr;
  for (const CbcScheme& s : kSchemes)
    if (s.oid->is(asn1::blob(params.encOid))) scheme = &s;
  if (!scheme) {
    std::cout << "PBES2: unimplemented cipher: <" << asn1::oid2name(asn1::blob(params.encOid)) << ">\n";
    return false;
  }
  if (params.iv.size() != scheme->ivBytes) return false;
  if (!iterationsOk(params.iterations)) return false;
  Bytes key = pbkdf2(*prf, password, params.salt.data(), static_cast<unsigned>(params.salt.size()), params.iterations,
                     scheme->keyBytes);
  auto cipher = scheme->make(key.data());
  std::fill(key.begin(), key.end(), 0);
  if (encrypt) {
    out = padAndEncrypt(*cipher, params.iv, data);
    return true;
  }
  return decryptAndUnpad(*cipher, params.iv, data, out);
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

// bmpPassword turns a UTF-8 password into the big-endian UTF-16 string with two trailing zero
// bytes that the PKCS#12 KDF hashes. Bytes that are not valid UTF-8 are taken one for one.
Bytes bmpPassword(std::string_view password) {
  Bytes out;
  for (std::size_t i = 0; i < password.size();) {
    unsigned c = static_cast<unsigned char>(password[i]);
    unsigned len = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : 0;
    bool valid = len > 0 && i + len <= password.size();
    for (unsigned k = 1; valid && k < len; ++k) valid = (static_cast<unsigned char>(password[i + k]) & 0xC0) == 0x80;
    if (valid && len > 1) {
      c &= len == 2 ? 0x1F : 0x0F;
      for (unsigned k = 1; k < len; ++k) c = (c << 6) | (static_cast<unsigned char>(password[i + k]) & 0x3F);
    } else {
      len = 1;
    }
    out.push_back(static_cast<unsigned char>(c >> 8));
    out.push_back(static_cast<unsigned char>(c));
    i += len;
  }
  out.push_back(0);
  out.push_back(0);
  return out;
}

// pkcs12Kdf derives `n` bytes for purpose `id` (1 key, 2 IV) with SHA-1 (RFC 7292 appendix B.2).
Bytes pkcs12Kdf(unsigned char id, const Bytes& password, asn1::blob salt, unsigned iterations, unsigned n) {
  constexpr unsigned v = 64, u = 20;
  auto stretch = [](asn1::blob s) {
    Bytes out;
    if (s.empty()) return out;
    const std::size_t len = v * ((s.size() + v - 1) / v);
    for (std::size_t i = 0; i < len; ++i) out.push_back(s[i % s.size()]);
    return out;
  };
  Bytes I = stretch(salt), P = stretch(asn1::blob(password));
  I.insert(I.end(), P.begin(), P.end());
  const Bytes D(v, id);
  Bytes result;
  SHA1 sha;
  while (result.size() < n) {
    unsigned char a[u];
    sha.update(D.data(), v).update(I.data(), static_cast<unsigned>(I.size())).digest(a);
    for (unsigned r = 1; r < iterations; ++r) sha.update(a, u).digest(a);
    result.insert(result.end(), a, a + u);
    // I_j = (I_j + B + 1) mod 2^(8v) for every v-byte block, B being A repeated to v bytes.
    for (std::size_t j = 0; j < I.size(); j += v) {
      unsigned carry = 1;
      for (int k = v - 1; k >= 0; --k) {
        carry += I[j + static_cast<unsigned>(k)] + a[static_cast<unsigned>(k) % u];
        I[j + static_cast<unsigned>(k)] = static_cast<unsigned char>(carry);
        carry >>= 8;
      }
    }
  }
  result.resize(n);
  return result;
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
  asn1::parser p{asn1::blob(alg.params)};
  asn1::blob salt;
  if (!p.enter() || !p.read(asn1::tagOctetString, &salt) || !p.isAt(asn1::tagInteger)) return false;
  const unsigned iterations = p.takeUInt();
  if (!p.atEnd() || !iterationsOk(iterations)) return false;
  const Bytes pw = bmpPassword(password);
  Bytes key = pkcs12Kdf(1, pw, salt, iterations, 24);
  Bytes iv = pkcs12Kdf(2, pw, salt, iterations, 8);
  DES3 cipher(key.data());
  std::fill(key.begin(), key.end(), 0);
  if (encrypt) {
    out = padAndEncrypt(cipher, iv, data);
    return true;
  }
  return decryptAndUnpad(cipher, iv, data, out);
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
    std::cout << "PKCS8: unsupported PBE: <" << asn1::oid2name(asn1::blob(alg.oid)) << ">\n";
    return nullptr;
  }
  std::shared_ptr<PrivateKey> key;
  if (ok) key = parseOneAssimetricKey(asn1::blob(plaintext)).first;
  std::fill(plaintext.begin(), plaintext.end(), 0);
  return key;
}

}  // namespace tessel
