// Signing and verification through the key classes' one interface: every Wycheproof signature
// file with its expected verdicts, and OpenSSL's libcrypto verifying what each key type signs.
// (The deterministic answers are elsewhere: PKCS#1 v1.5 as OpenSSL signs in rsa_test.cpp, RFC 8032
// in curve25519_weierstrass_test.cpp, RFC 6979 in ec_key_test.cpp.)
#include <gtest/gtest.h>

#include "openssl_oracle.h"
#include "support.h"
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
    EXPECT_TRUE(opensslVerifies(opensslKey(spki, true).get(), c.params, msg, sig));
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
