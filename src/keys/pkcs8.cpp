#include "tessel/pkcs8.h"

#include <iostream>

#include "cipher/padding.h"
#include "tessel/block.h"
#include "tessel/ed25519_x25519_keys.h"
#include "tessel/ec_key.h"
#include "tessel/cipher.h"
#include "tessel/hmac.h"
#include "tessel/mlkem_keys.h"
#include "tessel/rng.h"
#include "tessel/rsa.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;

const Bytes kPbes2 = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x05, 0x0D};
const Bytes kPbkdf2 = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x05, 0x0C};
const Bytes kHmacSha1 = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x07};
const Bytes kHmacSha256 = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x02, 0x09};
const Bytes kAes256Cbc = {0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x01, 0x2A};
const Bytes kPbeSha3Des = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x0C, 0x01, 0x03};

// iterationsOk refuses a count of 0 or above kMaxPbeIterations (a hostile file could otherwise keep
// the appliance busy for hours), and says why on one line, as the other refusals here do.
bool iterationsOk(unsigned iterations) {
  if (iterations != 0 && iterations <= kMaxPbeIterations) return true;
  std::cout << "PKCS8: unsupported iteration count: <" << iterations << ">\n";
  return false;
}

struct CbcScheme {
  Bytes oid;
  unsigned keyBytes, ivBytes;
  std::unique_ptr<BlockCipher> (*make)(const unsigned char* key);
};

template <class C>
std::unique_ptr<BlockCipher> makeCipher(const unsigned char* key) {
  return std::make_unique<C>(key);
}

const CbcScheme kSchemes[] = {
    {{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x03, 0x07}, 24, 8, makeCipher<DES3>},
    {{0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x01, 0x02}, 16, 16, makeCipher<AES128>},
    {{0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x01, 0x16}, 24, 16, makeCipher<AES192>},
    {kAes256Cbc, 32, 16, makeCipher<AES256>},
};

bool same(const Bytes& known, asn1::blob oid) { return asn1::blob(known) == oid; }

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
  if (params.prfOid.empty() || same(kHmacSha1, asn1::blob(params.prfOid))) prf = std::make_unique<SHA1>();
  else if (same(kHmacSha256, asn1::blob(params.prfOid))) prf = std::make_unique<SHA256>();
  if (!prf) {
    std::cout << "unsupported PBES2 KDF: <" << asn1::oid2name(asn1::blob(params.prfOid)) << ">\n";
    return false;
  }
  const CbcScheme* scheme = nullptr;
  for (const CbcScheme& s : kSchemes)
    if (same(s.oid, asn1::blob(params.encOid))) scheme = &s;
  if (!scheme) {
    std::cout << "PBES2: unimplemented cipher: <" << asn1::oid2name(asn1::blob(params.encOid)) << ">\n";
    return false;
  }
  if (params.iv.size() != scheme->ivBytes) return false;
  if (!iterationsOk(params.iterations)) return false;
  Bytes key = pbkdf2(*prf, password, params.salt.data(), static_cast<unsigned>(params.salt.size()),
                     params.iterations, scheme->keyBytes);
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
  asn1::parser top(der);
  if (!top.enter() || top.tag != 0x30) return false;
  asn1::parser kdf(top.takeContent());
  if (top.tag != 0x30) return false;
  asn1::parser enc(top.takeContent());
  if (top.tag != asn1::tagEnd) return false;
  if (kdf.tag != 0x06) return false;
  out.kdfOid = kdf.takeContent().vec();
  if (!same(kPbkdf2, asn1::blob(out.kdfOid)) || !kdf.enter()) return false;
  if (kdf.tag != 0x04) return false;
  out.salt = kdf.takeContent().vec();
  if (kdf.tag != 0x02) return false;
  out.iterations = kdf.takeUInt();
  if (kdf.tag == 0x02) kdf.takeUInt();  // keyLength: the cipher decides the length
  if (kdf.tag == 0x30) {
    AlgorithmIdentifier prf;
    if (!parse(prf, kdf.takeContent())) return false;
    out.prfOid = prf.oid;
  }
  if (kdf.tag != asn1::tagEnd) return false;
  if (enc.tag != 0x06) return false;
  out.encOid = enc.takeContent().vec();
  if (enc.tag != 0x04) return false;
  out.iv = enc.takeContent().vec();
  return enc.tag == asn1::tagEnd;
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

std::vector<unsigned char> encodePkcs8PublicKey(const PublicKey& key) {
  Bytes body = key.encodeToDerEncoded();
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

std::shared_ptr<PublicKey> parsePkcs8PublicKey(asn1::blob der) {
  asn1::parser outer(der);
  if (outer.tag != 0x30 || !outer.rest.empty() || !outer.enter()) return nullptr;
  if (outer.tag != 0x30) return nullptr;
  AlgorithmIdentifier alg;
  if (!parse(alg, outer.takeContent()) || outer.tag != 0x03) return nullptr;
  asn1::blob bits = asn1::bitStringContent(outer.takeContent());
  if (outer.tag != asn1::tagEnd) return nullptr;
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
  if (!p.enter() || p.tag != 0x02) return {};
  const unsigned version = p.takeUInt();
  if (version >= 2 || p.tag != 0x30) return {};
  AlgorithmIdentifier alg;
  if (!parse(alg, p.takeContent()) || p.tag != 0x04) return {};
  asn1::blob body = p.takeContent();
  const KeyType type = keyTypeFromOid(asn1::blob(alg.oid));
  auto priv = makePrivateKey(type);
  if (!priv || !priv->parseFromDerEncoded(body, asn1::blob(alg.params))) return {};
  p.skipIf(0xA0);  // attributes are not looked at
  std::shared_ptr<PublicKey> pub;
  if (version == 1 && p.tag == 0x81) {
    pub = makePublicKey(type);
    if (!pub || !pub->parseFromDerEncoded(p.takeContent(), asn1::blob(alg.params))) return {};
  }
  if (p.tag != asn1::tagEnd) return {};
  return {priv, pub};
}

std::vector<unsigned char> pbes2_encrypt(asn1::blob plaintext, std::string_view password, const PBES2Params& params) {
  Bytes out;
  if (!pbes2Run(params, password, plaintext, out, true)) return {};
  return out;
}

bool pbes2_crypt(const AlgorithmIdentifier& alg, std::string_view password, asn1::blob data, Bytes& out,
                 bool encrypt) {
  PBES2Params params;
  if (!readPbes2Params(asn1::blob(alg.params), params)) return false;
  return pbes2Run(params, password, data, out, encrypt);
}

bool pbe1_crypt(const AlgorithmIdentifier& alg, std::string_view password, asn1::blob data, Bytes& out,
                bool encrypt) {
  asn1::parser p{asn1::blob(alg.params)};
  if (!p.enter() || p.tag != 0x04) return false;
  asn1::blob salt = p.takeContent();
  if (p.tag != 0x02) return false;
  const unsigned iterations = p.takeUInt();
  if (p.tag != asn1::tagEnd || !iterationsOk(iterations)) return false;
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
  PBES2Params params{kPbkdf2, Bytes(16), iterations, kHmacSha256, kAes256Cbc, Bytes(16)};
  Rng& rng = getDefaultRng();
  if (!rng.generate(params.salt.data(), 16) || !rng.generate(params.iv.data(), 16)) return {};
  Bytes ciphertext = pbes2_encrypt(asn1::blob(inner), password, params);
  std::fill(inner.begin(), inner.end(), 0);
  if (ciphertext.empty()) return {};
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.sequence([&](DerEncoder& alg) {
      alg.addOid(asn1::blob(kPbes2));
      alg.sequence([&](DerEncoder& pbes2) {
        pbes2.sequence([&](DerEncoder& kdf) {
          kdf.addOid(asn1::blob(kPbkdf2));
          kdf.sequence([&](DerEncoder& kp) {
            kp.addOctetString(asn1::blob(params.salt));
            kp.addInt(0x02, iterations);
            kp.addBytes(asn1::blob(encode(AlgorithmIdentifier{kHmacSha256, {}})));
          });
        });
        pbes2.sequence([&](DerEncoder& enc) {
          enc.addOid(asn1::blob(kAes256Cbc));
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
  if (!p.enter() || p.tag != 0x30) return nullptr;
  AlgorithmIdentifier alg;
  if (!parse(alg, p.takeContent()) || p.tag != 0x04) return nullptr;
  asn1::blob ciphertext = p.takeContent();
  if (p.tag != asn1::tagEnd) return nullptr;
  Bytes plaintext;
  bool ok;
  if (same(kPbeSha3Des, asn1::blob(alg.oid))) {
    ok = pbe1_crypt(alg, password, ciphertext, plaintext, false);
  } else if (same(kPbes2, asn1::blob(alg.oid))) {
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
