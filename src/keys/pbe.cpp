// Password-based encryption shared by encrypted PKCS#8 keys and PKCS#12 files.
#include "keys/pbe.h"

#include "cipher/padding.h"
#include "core/declassify.h"
#include "core/diag.h"
#include "core/secret.h"
#include "tessel/cipher.h"

namespace tessel::pbe {

namespace oid = asn1::oid;

bool iterationsOk(unsigned iterations, unsigned max) {
  if (iterations != 0 && iterations <= max) return true;
  diag() << "PKCS8: unsupported iteration count: <" << iterations << ">";
  return false;
}

Bytes padAndEncrypt(BlockCipher& cipher, Bytes iv, asn1::blob plaintext) {
  const unsigned block = cipher.blockLength();
  Bytes data = plaintext.vec();
  const unsigned pad = block - static_cast<unsigned>(data.size() % block);
  data.insert(data.end(), pad, static_cast<unsigned char>(pad));
  Bytes out(data.size());
  CBC_encrypt(cipher, iv.data(), data.data(), static_cast<unsigned>(data.size()), out.data());
  ct::wipe(data.data(), data.size());
  return out;
}

// Only the verdict and then the length of a good plaintext come out of the padding check, so
// that a padding oracle cannot read the plaintext.
bool decryptAndUnpad(BlockCipher& cipher, Bytes iv, asn1::blob data, Bytes& out) {
  const unsigned block = cipher.blockLength();
  ct::wipe(out.data(), out.size());
  out.clear();
  if (data.empty() || data.size() % block != 0) return false;
  out.assign(data.size(), 0);
  CBC_decrypt(cipher, iv.data(), data.data(), static_cast<unsigned>(data.size()), out.data());
  // The verdict, and the length of a good plaintext, are what the caller learns anyway.
  const std::uint32_t length =
      ct::declassified(detail::pkcs7UnpaddedLength(out.data(), static_cast<std::uint32_t>(out.size()), block));
  if (length == ~std::uint32_t{0}) {
    ct::wipe(out.data(), out.size());
    out.clear();
    return false;
  }
  out.resize(length);
  return true;
}

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

Bytes pkcs12Kdf(Hash& h, unsigned char id, asn1::blob password, asn1::blob salt, unsigned iterations, unsigned n) {
  const unsigned v = h.blockLength(), u = h.digestLength();
  // stretch repeats `s` to the next multiple of v bytes; nothing stays nothing.
  auto stretch = [v](asn1::blob s) {
    Bytes out;
    if (s.empty()) return out;
    const std::size_t len = v * ((s.size() + v - 1) / v);
    for (std::size_t i = 0; i < len; ++i) out.push_back(s[i % s.size()]);
    return out;
  };
  Bytes I = stretch(salt), P = stretch(password);
  I.insert(I.end(), P.begin(), P.end());
  ct::wipe(P.data(), P.size());
  const Bytes D(v, id);
  Bytes result, a(u);
  while (result.size() < n) {
    h.update(D.data(), v).update(I.data(), static_cast<unsigned>(I.size())).digest(a.data());
    for (unsigned r = 1; r < iterations; ++r) h.update(a.data(), u).digest(a.data());
    result.insert(result.end(), a.begin(), a.end());
    // I_j = (I_j + B + 1) mod 2^(8v) for every v-byte block, B being A repeated to v bytes.
    for (std::size_t j = 0; j < I.size(); j += v) {
      unsigned carry = 1;
      for (unsigned k = v; k-- > 0;) {
        carry += I[j + k] + a[k % u];
        I[j + k] = static_cast<unsigned char>(carry);
        carry >>= 8;
      }
    }
  }
  ct::wipe(I.data(), I.size());
  ct::wipe(a.data(), a.size());
  ct::wipe(result.data() + n, result.size() - n);
  result.resize(n);
  return result;
}

namespace {

const Pkcs12Scheme kSchemes[] = {
    {&oid::pbeWithShaAnd3KeyTripleDesCbc, 24, 0},
    {&oid::pbeWithShaAnd2KeyTripleDesCbc, 16, 0},
    {&oid::pbeWithShaAnd128BitRc2Cbc, 16, 128},
    {&oid::pbeWithShaAnd40BitRc2Cbc, 5, 40},
};

// readParams reads SEQUENCE { OCTET STRING salt, INTEGER iterations }.
bool readParams(asn1::blob params, asn1::blob* salt, unsigned* iterations) {
  asn1::parser p(params);
  if (!p.enter() || !p.read(asn1::tagOctetString, salt) || !p.isAt(asn1::tagInteger)) return false;
  *iterations = p.takeUInt();
  return p.atEnd();
}

}  // namespace

const Pkcs12Scheme* findPkcs12Scheme(asn1::blob oid) {
  for (const Pkcs12Scheme& s : kSchemes)
    if (s.oid->is(oid)) return &s;
  return nullptr;
}

bool pkcs12Crypt(const Pkcs12Scheme& scheme, asn1::blob params, asn1::blob password, asn1::blob data, Bytes& out,
                 bool encrypt, unsigned maxIterations) {
  asn1::blob salt;
  unsigned iterations = 0;
  if (!readParams(params, &salt, &iterations) || !iterationsOk(iterations, maxIterations)) return false;
  SHA1 sha;
  Bytes key = pkcs12Kdf(sha, 1, password, salt, iterations, scheme.keyBytes);
  const Bytes iv = pkcs12Kdf(sha, 2, password, salt, iterations, 8);
  std::unique_ptr<BlockCipher> cipher;
  if (scheme.rc2Bits) {
    cipher = std::make_unique<RC2>(key.data(), scheme.keyBytes, scheme.rc2Bits);
  } else {
    if (scheme.keyBytes == 16) key.insert(key.end(), key.begin(), key.begin() + 8);  // two keys: K3 = K1
    cipher = std::make_unique<DES3>(key.data());
  }
  ct::wipe(key.data(), key.size());
  if (encrypt) {
    out = padAndEncrypt(*cipher, iv, data);
    return true;
  }
  return decryptAndUnpad(*cipher, iv, data, out);
}

unsigned iterationCount(const AlgorithmIdentifier& alg) {
  asn1::blob salt;
  unsigned iterations = 0;
  if (findPkcs12Scheme(asn1::blob(alg.oid)))
    return readParams(asn1::blob(alg.params), &salt, &iterations) ? iterations : 0;
  if (!oid::pbes2.is(asn1::blob(alg.oid))) return 0;
  // SEQUENCE { SEQUENCE { PBKDF2 OID, SEQUENCE { salt, iterations, ... } }, ... }
  asn1::parser top(asn1::blob(alg.params)), kdf, kdfParams;
  if (!top.enter() || !top.read(asn1::tagSequence, &kdf) || !kdf.read(asn1::tagOid) ||
      !kdf.read(asn1::tagSequence, &kdfParams) || !kdfParams.read(asn1::tagOctetString) ||
      !kdfParams.isAt(asn1::tagInteger))
    return 0;
  return kdfParams.takeUInt();
}

}  // namespace tessel::pbe
