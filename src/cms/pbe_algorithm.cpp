// Password-based encryption by AlgorithmIdentifier: PBES2 and the PKCS#12 PBEs, as encrypted-data
// and PKCS#12 key bags carry them.
#include <string_view>

#include "core/secret.h"
#include "keys/pbe.h"
#include "tessel/cms_encrypted.h"
#include "tessel/oids.h"
#include "tessel/rng.h"

namespace tessel {

namespace {

using Bytes = std::vector<unsigned char>;
namespace oid = asn1::oid;

struct Named {
  const asn1::Oid* oid;
  const char* name;
};

const Named kNames[] = {
    {&oid::pbeWithShaAnd3KeyTripleDesCbc, "pbeWithSHA1And3-KeyTripleDES-CBC"},
    {&oid::pbeWithShaAnd2KeyTripleDesCbc, "pbeWithSHA1And2-KeyTripleDES-CBC"},
    {&oid::pbeWithShaAnd128BitRc2Cbc, "pbeWithSHA1And128BitRC2-CBC"},
    {&oid::pbeWithShaAnd40BitRc2Cbc, "pbeWithSHA1And40BitRC2-CBC"},
    {&oid::hmacWithSha1, "hmacWithSHA1"},
    {&oid::hmacWithSha256, "hmacWithSHA256"},
    {&oid::hmacWithSha384, "hmacWithSHA384"},
    {&oid::hmacWithSha512, "hmacWithSHA512"},
    {&oid::desEde3Cbc, "DES-EDE3-CBC"},
    {&oid::aes128Cbc, "AES-128-CBC"},
    {&oid::aes192Cbc, "AES-192-CBC"},
    {&oid::aes256Cbc, "AES-256-CBC"},
};

std::string nameOf(asn1::blob oid) {
  for (const Named& n : kNames)
    if (n.oid->is(oid)) return n.name;
  return asn1::oidStr(oid);
}

// readAlgorithm reads one whole AlgorithmIdentifier element.
bool readAlgorithm(asn1::blob element, AlgorithmIdentifier* alg) {
  asn1::parser p(element);
  asn1::blob content;
  return p.read(asn1::tagSequence, &content) && p.atEnd() && parse(*alg, content);
}

// pbeRun runs either direction once the algorithm is read.
bool pbeRun(const AlgorithmIdentifier& alg, const PbePassword& password, asn1::blob data, Bytes& out, bool encrypt,
            unsigned maxIterations) {
  if (const pbe::Pkcs12Scheme* scheme = pbe::findPkcs12Scheme(asn1::blob(alg.oid))) {
    Bytes bmp = password ? pbe::bmpPassword(*password) : Bytes();
    const bool ok =
        pbe::pkcs12Crypt(*scheme, asn1::blob(alg.params), asn1::blob(bmp), data, out, encrypt, maxIterations);
    ct::wipe(bmp.data(), bmp.size());
    return ok;
  }
  if (!oid::pbes2.is(asn1::blob(alg.oid)) || pbe::iterationCount(alg) > maxIterations) return false;
  return pbes2_crypt(alg, password ? std::string_view(*password) : std::string_view(), data, out, encrypt);
}

}  // namespace

std::vector<unsigned char> encodePbeAlgorithm(PbeScheme scheme, unsigned iterations) {
  if (iterations == 0) return {};
  const bool pbes2 = scheme == PbeScheme::pbes2Aes256;
  Bytes salt(pbes2 ? 16 : 8), iv(16);
  Rng& rng = getDefaultRng();
  if (!rng.generate(salt.data(), static_cast<unsigned>(salt.size())) || !rng.generate(iv.data(), 16)) return {};
  DerEncoder e;
  e.sequence([&](DerEncoder& alg) {
    if (!pbes2) {
      alg.addOid(scheme == PbeScheme::pkcs12TripleDes ? oid::pbeWithShaAnd3KeyTripleDesCbc.content()
                                                      : oid::pbeWithShaAnd40BitRc2Cbc.content());
      alg.sequence([&](DerEncoder& params) {
        params.addOctetString(asn1::blob(salt));
        params.addInt(asn1::tagInteger, iterations);
      });
      return;
    }
    alg.addOid(oid::pbes2.content());
    alg.sequence([&](DerEncoder& params) {
      params.sequence([&](DerEncoder& kdf) {
        kdf.addOid(oid::pbkdf2.content());
        kdf.sequence([&](DerEncoder& kp) {
          kp.addOctetString(asn1::blob(salt));
          kp.addInt(asn1::tagInteger, iterations);
          kp.sequence([&](DerEncoder& prf) {
            prf.addOid(oid::hmacWithSha256.content());
            prf.addNull();
          });
        });
      });
      params.sequence([&](DerEncoder& enc) {
        enc.addOid(oid::aes256Cbc.content());
        enc.addOctetString(asn1::blob(iv));
      });
    });
  });
  return std::move(e.data);
}

bool pbeEncrypt(asn1::blob algorithm, const PbePassword& password, asn1::blob plaintext,
                std::vector<unsigned char>& out) {
  AlgorithmIdentifier alg;
  out.clear();
  return readAlgorithm(algorithm, &alg) && pbeRun(alg, password, plaintext, out, true, kMaxPbeIterations);
}

bool pbeDecrypt(asn1::blob algorithm, const PbePassword& password, asn1::blob ciphertext,
                std::vector<unsigned char>& out, unsigned maxIterations) {
  AlgorithmIdentifier alg;
  out.clear();
  if (readAlgorithm(algorithm, &alg) && pbeRun(alg, password, ciphertext, out, false, maxIterations)) return true;
  ct::wipe(out.data(), out.size());
  out.clear();
  return false;
}

std::string describePbeAlgorithm(asn1::blob algorithm) {
  AlgorithmIdentifier alg;
  if (!readAlgorithm(algorithm, &alg)) return "(malformed)";
  const std::string iterations = ", " + std::to_string(pbe::iterationCount(alg)) + " iterations";
  if (pbe::findPkcs12Scheme(asn1::blob(alg.oid))) return nameOf(asn1::blob(alg.oid)) + iterations;
  if (!oid::pbes2.is(asn1::blob(alg.oid))) return asn1::oidStr(asn1::blob(alg.oid));
  // SEQUENCE { SEQUENCE { PBKDF2, SEQUENCE { salt, iterations, [keyLength], [prf] } }, SEQUENCE { cipher, iv } }
  asn1::parser top(asn1::blob(alg.params)), kdf, kdfParams, enc;
  asn1::blob prfOid = oid::hmacWithSha1.content(), cipherOid;
  if (!top.enter() || !top.read(asn1::tagSequence, &kdf) || !top.read(asn1::tagSequence, &enc) ||
      !kdf.read(asn1::tagOid) || !kdf.read(asn1::tagSequence, &kdfParams) || !enc.isAt(asn1::tagOid, &cipherOid))
    return "PBES2 (malformed)";
  kdfParams.skipIf(asn1::tagOctetString);
  kdfParams.skipIf(asn1::tagInteger);
  kdfParams.skipIf(asn1::tagInteger);
  asn1::parser prf;
  if (kdfParams.read(asn1::tagSequence, &prf)) prf.isAt(asn1::tagOid, &prfOid);
  return "PBES2, PBKDF2-" + nameOf(prfOid) + ", " + nameOf(cipherOid) + iterations;
}

}  // namespace tessel
