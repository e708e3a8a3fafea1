// Signing and verification through the key classes' one interface: every Wycheproof signature
// file with its expected verdicts, the published PKCS#1 v1.5 signatures byte for byte, and
// OpenSSL's libcrypto verifying what each key type signs.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include "openssl_oracle.h"
#include "support.h"
#include "tessel/ec_key.h"
#include "tessel/ed25519_x25519_keys.h"
#include "tessel/pkcs8.h"
#include "tessel/rsa.h"

namespace tessel::test {
namespace {

HashID hashNamed(const std::string& name) {
  static const std::pair<const char*, HashID> kNames[] = {
      {"SHA-1", hashSha1}, {"SHA-256", hashSha256}, {"SHA-384", hashSha384}, {"SHA-512", hashSha512}};
  for (const auto& [n, id] : kNames)
    if (name == n) return id;
  return hashNone;
}

// paramsOf reads a test group's scheme; hashNone when the group uses a digest we do not sign with.
SignatureParams paramsOf(const nlohmann::json& g) {
  SignatureParams p;
  if (g.contains("sha")) p.hash = hashNamed(g["sha"]);
  if (g["type"] == "RsassaPssVerify") {
    p.pss = true;
    p.mgfHash = hashNamed(g["mgfSha"]);
    p.saltLength = g["sLen"];
    if (p.mgfHash == hashNone) p.hash = hashNone;
  }
  return p;
}

class WycheproofSignatures : public ::testing::TestWithParam<const char*> {};

// Every case gets the file's verdict; "acceptable" cases (legacy encodings) may go either way.
TEST_P(WycheproofSignatures, EveryCaseThroughTheKey) {
  LOAD_VECTORS(v, std::string("wycheproof/") + GetParam());
  int ran = 0, unsupported = 0;
  for (const auto& g : v["testGroups"]) {
    const SignatureParams params = paramsOf(g);
    const bool eddsa = g["type"] == "EddsaVerify";
    if (params.hash == hashNone && !eddsa) {
      unsupported += static_cast<int>(g["tests"].size());  // SHA-224 and SHA-512/256 groups
      continue;
    }
    const Bytes spki = hexField(g, "publicKeyDer");
    const auto key = parsePkcs8PublicKey(asn1::blob(spki));
    ASSERT_TRUE(key);
    ran += forEachWycheproofTest({{"testGroups", {g}}}, [&](const nlohmann::json&, const nlohmann::json& t) {
      const bool ok = key->verify(asn1::blob(hexField(t, "msg")), asn1::blob(hexField(t, "sig")), params);
      if (t["result"] != "acceptable") {
        EXPECT_EQ(ok, t["result"] == "valid") << t["comment"];
      }
    });
  }
  EXPECT_EQ(ran + unsupported, v["numberOfTests"].get<int>());
  EXPECT_LT(unsupported, ran);
}

INSTANTIATE_TEST_SUITE_P(Files, WycheproofSignatures,
                         ::testing::Values("rsa_signature_2048_sha256_test.json", "rsa_signature_3072_sha384_test.json",
                                           "rsa_pss_2048_sha256_mgf1_0_test.json",
                                           "rsa_pss_2048_sha256_mgf1_32_test.json",
                                           "rsa_pss_3072_sha256_mgf1_32_test.json", "rsa_pss_misc_test.json",
                                           "ecdsa_secp224r1_sha256_test.json", "ecdsa_secp256r1_sha256_test.json",
                                           "ecdsa_secp384r1_sha384_test.json", "ecdsa_secp521r1_sha512_test.json",
                                           "ed25519_test.json"));

// PKCS#1 v1.5 is deterministic: the published signatures come out byte for byte, and the
// invalid cases (keys too short for the digest) give nothing.
TEST(RsaSign, WycheproofGenerationVectors) {
  LOAD_VECTORS(v, "wycheproof/rsa_pkcs1_2048_sig_gen_test.json");
  int n = 0;
  for (const auto& g : v["testGroups"]) {
    const auto key = parseOneAssimetricKey(asn1::blob(hexField(g, "privateKeyPkcs8"))).first;
    ASSERT_TRUE(key);
    const SignatureParams params{hashNamed(g["sha"])};
    if (params.hash == hashNone) continue;
    n += forEachWycheproofTest({{"testGroups", {g}}}, [&](const nlohmann::json&, const nlohmann::json& t) {
      const Bytes sig = key->sign(asn1::blob(hexField(t, "msg")), params);
      if (t["result"] == "valid") {
        EXPECT_EQ(toHex(sig), t["sig"].get<std::string>());
      } else if (t["result"] == "invalid") {
        EXPECT_TRUE(sig.empty());
      }
    });
  }
  EXPECT_GT(n, 0);
}

// The published deterministic signatures come out of sign(): RFC 8032 section 7.1 for Ed25519,
// RFC 6979 appendix A.2.5 for ECDSA over P-256 with SHA-256 (DER of r and s).
TEST(Sign, Rfc8032AndRfc6979KnownAnswers) {
  LOAD_VECTORS(ed, "kat/ed25519.json");
  for (const auto& c : ed) {
    Ed25519PrivateKey key;
    key.setPrivateKey(hexField(c, "secret_key").data());
    EXPECT_EQ(toHex(key.sign(asn1::blob(hexField(c, "message")), SignatureParams{})), c["signature"]) << c["id"];
  }
  EcPrivateKey ec;
  ASSERT_TRUE(ec.setPrivateKey(
      Curve::p256, BigNum(asn1::blob(fromHex("c9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721")))));
  const std::pair<const char*, const char*> rfc6979[] = {
      {"sample",
       "3046022100efd48b2aacb6a8fd1140dd9cd45e81d69d2c877b56aaf991c34d0ea84eaf3716022100f7cb1c942d657c41d436c7a1b6e29f6"
       "5"
       "f3e900dbb9aff4064dc4ab2f843acda8"},
      {"test",
       "3045022100f1abb023518351cd71d881567b1ea663ed3efcf6c5132b354f28d3b0b7d383670220019f4113742a2b14bd25926b49c64915"
       "5f267e60d3814b4c0cc84250e46f0083"},
  };
  for (const auto& [msg, der] : rfc6979) EXPECT_EQ(toHex(ec.sign(asn1::blob(bytesOf(msg)), {hashSha256})), der) << msg;
}

// opensslVerifies checks a signature with libcrypto's EVP_DigestVerify over the same SPKI.
bool opensslVerifies(const Bytes& spki, const SignatureParams& p, const Bytes& msg, const Bytes& sig) {
  const unsigned char* in = spki.data();
  EVP_PKEY* pkey = d2i_PUBKEY(nullptr, &in, static_cast<long>(spki.size()));
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  EVP_PKEY_CTX* pctx = nullptr;
  bool ok = pkey && EVP_DigestVerifyInit(ctx, &pctx, p.hash ? evpDigest(p.hash) : nullptr, nullptr, pkey) == 1;
  if (ok && p.pss)
    ok = EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md(pctx, evpDigest(p.mgfDigest())) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, p.saltLength < 0 ? RSA_PSS_SALTLEN_DIGEST : p.saltLength) == 1;
  ok = ok && EVP_DigestVerify(ctx, sig.data(), sig.size(), msg.data(), msg.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(pkey);
  return ok;
}

struct SigningCase {
  const char* key;  // a tests/data/keys fixture
  SignatureParams params;
};

// What each key type signs verifies under OpenSSL and under the key's own verify, and a flipped
// bit of the message does not.
TEST(Sign, OpenSslVerifiesEveryScheme) {
  const SigningCase cases[] = {
      {"rsa2048", {hashSha256}},
      {"rsa2048", {hashSha1}},
      {"rsa3072", {hashSha384, true}},
      {"rsa2048", {hashSha256, true, hashSha1, 0}},
      {"rsa4096", {hashSha512, true, hashSha256, 20}},
      {"ec256", {hashSha256}},
      {"ec384", {hashSha384}},
      {"ec521", {hashSha512}},
      {"ec224", {hashSha1}},
      {"ed25519", {}},
  };
  TestRng rng(6);
  for (const SigningCase& c : cases) {
    SCOPED_TRACE(c.key + std::string(c.params.pss ? " pss" : ""));
    const auto key = parseOneAssimetricKey(asn1::blob(fixtureDer(std::string("keys/") + c.key + ".pkcs8.der"))).first;
    ASSERT_TRUE(key);
    const Bytes spki = encodeSubjectPublicKeyInfo(*key);
    Bytes msg = rng.bytes(1 + rng.below(300));
    const Bytes sig = key->sign(asn1::blob(msg), c.params);
    ASSERT_FALSE(sig.empty());
    EXPECT_TRUE(opensslVerifies(spki, c.params, msg, sig));
    EXPECT_TRUE(key->publicPart()->verify(asn1::blob(msg), asn1::blob(sig), c.params));
    msg[0] ^= 1;
    EXPECT_FALSE(key->verify(asn1::blob(msg), asn1::blob(sig), c.params));
  }
}

// Schemes a key does not have are refused rather than produced.
TEST(Sign, RefusesWhatTheKeyCannotDo) {
  const SigningCase refusals[] = {
      {"rsa1024", {hashNone}},       {"rsa1024", {hashMd5}}, {"rsa1024", {hashSha512, true, hashSha512, 64}},
      {"ec256", {hashNone}},         {"ec256", {hashMd5}},   {"ec256", {hashSha256, true}},
      {"ed25519", {hashSha256}},     {"x25519", {}},         {"x25519", {hashSha256}},
      {"ed25519", {hashNone, true}},
  };
  for (const SigningCase& c : refusals) {
    const auto key = parseOneAssimetricKey(asn1::blob(fixtureDer(std::string("keys/") + c.key + ".pkcs8.der"))).first;
    ASSERT_TRUE(key);
    EXPECT_TRUE(key->sign(asn1::blob(bytesOf("message")), c.params).empty())
        << c.key << " hash " << c.params.hash << " pss " << c.params.pss;
  }
}

}  // namespace
}  // namespace tessel::test
