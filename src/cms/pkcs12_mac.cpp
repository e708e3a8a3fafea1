// The integrity MAC of PKCS#12 files: HMAC keyed through the PKCS#12 derivation, and PBMAC1.
#include "cms/cms_internal.h"
#include "cms/pkcs12_internal.h"
#include "core/secret.h"
#include "keys/pbe.h"
#include "tessel/factory.h"
#include "tessel/oids.h"
#include "tessel/pbkdf2.h"
#include "tessel/rng.h"

namespace tessel::pkcs12 {

namespace {

using Bytes = std::vector<unsigned char>;
namespace oid = asn1::oid;

bool macDigest(HashID hash) {
  return hash == hashSha1 || hash == hashSha256 || hash == hashSha384 || hash == hashSha512;
}

// hmacDigest maps the HMAC OIDs PBMAC1 names (content bytes) to their digest.
HashID hmacDigest(asn1::blob oid) {
  if (oid::hmacWithSha384.is(oid)) return hashSha384;
  return asn1::hmacHash(oid);
}

// Pbmac1 is what PBMAC1's parameters say: PBKDF2's salt, count, key length and PRF, then the MAC.
struct Pbmac1 {
  asn1::blob salt;
  unsigned iterations = 0, keyLength = 0;
  HashID prf = hashSha1, mac = hashNone;
};

// readHmacAlgorithm reads an HMAC AlgorithmIdentifier (NULL or absent parameters).
HashID readHmacAlgorithm(asn1::parser& p) {
  asn1::parser alg;
  asn1::blob oid;
  if (!p.read(asn1::tagSequence, &alg) || !alg.read(asn1::tagOid, &oid)) return hashNone;
  alg.skipIf(asn1::tagNull);
  return alg.atEnd() ? hmacDigest(oid) : hashNone;
}

// readPbmac1 reads SEQUENCE { SEQUENCE { PBKDF2, SEQUENCE { salt, count, keyLength, [prf] } },
// messageAuthScheme }; RFC 9579 makes the key length compulsory.
bool readPbmac1(asn1::blob params, Pbmac1* out) {
  asn1::parser top(params), kdf, kdfParams;
  asn1::blob kdfOid;
  if (!top.enter() || !top.read(asn1::tagSequence, &kdf) || !kdf.read(asn1::tagOid, &kdfOid) ||
      !oid::pbkdf2.is(kdfOid) || !kdf.read(asn1::tagSequence, &kdfParams) || !kdf.atEnd())
    return false;
  if (!kdfParams.read(asn1::tagOctetString, &out->salt) || !kdfParams.isAt(asn1::tagInteger)) return false;
  out->iterations = kdfParams.takeUInt();
  if (!kdfParams.isAt(asn1::tagInteger)) return false;
  out->keyLength = kdfParams.takeUInt();
  if (kdfParams.isAt(asn1::tagSequence)) out->prf = readHmacAlgorithm(kdfParams);
  out->mac = readHmacAlgorithm(top);
  return kdfParams.atEnd() && top.atEnd() && macDigest(out->prf) && macDigest(out->mac) && out->keyLength >= 1 &&
         out->keyLength <= 128;
}

Bytes hmac(HashID hash, asn1::blob key, asn1::blob data) {
  auto mac = createHMAC(hash, key.span());
  mac->update(data.span());
  return mac->digest();
}

// classicMac is the HMAC keyed through the PKCS#12 derivation with ID 3, the key as long as the
// digest.
Bytes classicMac(HashID hash, const PbePassword& password, asn1::blob salt, unsigned iterations, asn1::blob data) {
  Bytes bmp = password ? pbe::bmpPassword(*password) : Bytes();
  auto h = createHash(hash);
  Bytes key = pbe::pkcs12Kdf(*h, 3, asn1::blob(bmp), salt, iterations, h->digestLength());
  Bytes out = hmac(hash, asn1::blob(key), data);
  ct::wipe(bmp.data(), bmp.size());
  ct::wipe(key.data(), key.size());
  return out;
}

}  // namespace

bool parseMacData(asn1::blob der, MacData* out, PKCS12Mac* info) {
  asn1::parser p, digestInfo, alg;
  asn1::blob algorithm, mac, salt, oid;
  if (!asn1::readOnly(der, asn1::tagSequence, &p) || !p.read(asn1::tagSequence, &digestInfo) ||
      !digestInfo.readElement(asn1::tagSequence, &algorithm) || !digestInfo.read(asn1::tagOctetString, &mac) ||
      !digestInfo.atEnd() || !p.read(asn1::tagOctetString, &salt))
    return false;
  out->iterations = 1;
  if (p.isAt(asn1::tagInteger)) out->iterations = p.takeUInt();
  if (!p.atEnd()) return false;
  out->algorithm = algorithm.vec();
  out->mac = mac.vec();
  out->salt = salt.vec();
  *info = PKCS12Mac{};
  info->present = true;
  info->iterations = out->iterations;
  if (!asn1::readOnly(algorithm, asn1::tagSequence, &alg) || !alg.isAt(asn1::tagOid, &oid)) return false;
  if (oid::pbmac1.is(oid)) {
    AlgorithmIdentifier id;
    Pbmac1 params;
    if (!parse(id, asn1::parser(algorithm).content) || !readPbmac1(asn1::blob(id.params), &params)) return false;
    info->pbmac1 = true;
    info->hash = params.mac;
    info->kdfHash = params.prf;
    info->iterations = params.iterations;
    return true;
  }
  info->hash = cms::digestFromAlgorithm(algorithm);
  return macDigest(info->hash);
}

bool verifyMac(const MacData& mac, const PKCS12Mac& info, const PbePassword& password, asn1::blob authSafe,
               unsigned maxIterations) {
  if (info.iterations == 0 || info.iterations > maxIterations) return false;
  Bytes expected;
  if (info.pbmac1) {
    AlgorithmIdentifier id;
    Pbmac1 params;
    if (!parse(id, asn1::parser(asn1::blob(mac.algorithm)).content) || !readPbmac1(asn1::blob(id.params), &params))
      return false;
    auto prf = createHash(params.prf);
    // PBKDF2 takes the password as its UTF-8 bytes; absent and empty are both no bytes.
    Bytes key = pbkdf2(*prf, password ? std::string_view(*password) : std::string_view(), params.salt.start,
                       static_cast<unsigned>(params.salt.size()), params.iterations, params.keyLength);
    expected = hmac(params.mac, asn1::blob(key), authSafe);
    ct::wipe(key.data(), key.size());
  } else {
    expected = classicMac(info.hash, password, asn1::blob(mac.salt), mac.iterations, authSafe);
  }
  return expected.size() == mac.mac.size() && ct::equal(expected.data(), mac.mac.data(), expected.size());
}

std::vector<unsigned char> encodeMacData(HashID hash, const PbePassword& password, unsigned iterations,
                                         asn1::blob authSafe) {
  Bytes salt(8);
  if (iterations == 0 || !getDefaultRng().generate(salt.data(), 8)) return {};
  const Bytes mac = classicMac(hash, password, asn1::blob(salt), iterations, authSafe);
  DerEncoder e;
  e.sequence([&](DerEncoder& m) {
    m.sequence([&](DerEncoder& digestInfo) {
      saveHash(digestInfo, hash);
      digestInfo.addOctetString(asn1::blob(mac));
    });
    m.addOctetString(asn1::blob(salt));
    m.addInt(asn1::tagInteger, iterations);
  });
  return std::move(e.data);
}

bool bmpToUtf8(asn1::blob bmp, std::string* out) {
  out->clear();
  if (bmp.size() % 2 != 0) return false;
  for (std::size_t i = 0; i < bmp.size(); i += 2) {
    std::uint32_t c = static_cast<std::uint32_t>(bmp[i] << 8 | bmp[i + 1]);
    if (c >= 0xDC00 && c <= 0xDFFF) return false;
    if (c >= 0xD800 && c <= 0xDBFF) {
      if (i + 3 >= bmp.size()) return false;
      const std::uint32_t low = static_cast<std::uint32_t>(bmp[i + 2] << 8 | bmp[i + 3]);
      if (low < 0xDC00 || low > 0xDFFF) return false;
      c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
      i += 2;
    }
    if (c < 0x80) {
      out->push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out->push_back(static_cast<char>(0xC0 | c >> 6));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out->push_back(static_cast<char>(0xE0 | c >> 12));
      out->push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out->push_back(static_cast<char>(0xF0 | c >> 18));
      out->push_back(static_cast<char>(0x80 | (c >> 12 & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return true;
}

}  // namespace tessel::pkcs12
